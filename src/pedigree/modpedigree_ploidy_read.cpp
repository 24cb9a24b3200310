#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <string>

#include "modbasic.hpp"
#include "modpedigree_lines.hpp"
#include "modpedigree_ploidy.hpp"

namespace zendar {

namespace {

using detail::record_fault;
using detail::record_fault_kind;

constexpr const char* module_tag = "modpedigree";
constexpr const char* procedure_tag = "readpedigree_ploidy";

/// An id from 1 to n, two parents from 0 to n, the copies of both, and their chances. What follows them is
/// passed over.
struct ploidy_line {
    static constexpr std::int64_t columns = 7, integers = 5;
    static constexpr const char* others = "values";
    std::int32_t id = 0, sire = 0, dam = 0;
    std::array<std::int32_t, 2> tau{};
    std::array<double, 2> lambda{};

    const char* parse(const char* p, std::int32_t n, record_fault& fault) {
        constexpr std::int32_t most = std::numeric_limits<std::int32_t>::max();
        p = detail::parse_codes(p, n, id, sire, dam, fault);
        for (std::size_t k = 0; k < 2; ++k)
            if (fault.kind == record_fault_kind::none)
                p = detail::parse_bounded(p, 4 + static_cast<std::int64_t>(k), 0, most, tau[k], fault);
        if (fault.kind == record_fault_kind::none) p = parse_lambdas(p, fault);
        if (fault.kind == record_fault_kind::none && tau[0] == 0 && tau[1] == 0)
            fault.set(record_fault_kind::out_of_range, no_copies);
        return p;
    }
    static std::string reason(const record_fault& fault) {
        if (fault.kind == record_fault_kind::out_of_range && fault.value == no_copies)
            return "values 4 and 5 are both 0: no parent gives a gene copy";
        return detail::pedigree_fault(fault, columns);
    }
    void store(pedigree_ploidy_type& to) const {
        const std::int64_t column = std::int64_t{id} - 1;
        detail::store(to.ped(0, column), sire);
        detail::store(to.ped(1, column), dam);
        for (std::int64_t k = 0; k < 2; ++k) {
            detail::store(to.tau(k, column), tau[static_cast<std::size_t>(k)]);
            detail::store(to.lambda(k, column), lambda[static_cast<std::size_t>(k)]);
        }
    }
    [[nodiscard]] bool stands_in(const pedigree_ploidy_type& other) const {
        return other.sire(id) == sire && other.dam(id) == dam &&
               std::ranges::equal(other.tau.column(std::int64_t{id} - 1), tau) &&
               std::ranges::equal(other.lambda.column(std::int64_t{id} - 1), lambda);
    }

  private:
    static constexpr std::int64_t no_copies = 0;  // the number of the value in the fault

    const char* parse_lambdas(const char* p, record_fault& fault) {
        const char* const end = detail::parse_record(p, lambda, fault);
        if (fault.kind == record_fault_kind::none) {
            for (std::size_t k = 0; k < 2; ++k) {
                const std::int64_t which = static_cast<std::int64_t>(k) + 1;
                if (fault.kind == record_fault_kind::none && !std::isfinite(lambda[k]))
                    fault.set(record_fault_kind::not_finite, integers + which, detail::record_word(p, which));
            }
            return end;
        }
        if (fault.kind == record_fault_kind::blank_line) fault.kind = record_fault_kind::short_line;
        fault.value += integers;
        return end;
    }
};

using ploidy_file = detail::pedigree_file<ploidy_line>;

void refuse_aggregates(bool henderson, logger& log) {
    if (henderson)
        fatal(log, "Aggregate pedigrees following Henderson (1988) are not supported", module_tag,
              procedure_tag);
}

void fill(pedigree_ploidy_type& ped, std::int32_t n, const ploidy_file& input, logger& log) {
    ped.ped = matrix<std::int32_t>(2, n);
    ped.tau = matrix<std::int32_t>(2, n);
    ped.lambda = matrix<double>(2, n);
    input.fill(ped, log);
}

}  // namespace

void pedigree_ploidy_type::readpedigree_ploidy(const std::string& file, std::int32_t nmax,
                                               std::int32_t ngroup, logger& log, bool henderson) {
    *this = pedigree_ploidy_type();
    refuse_aggregates(henderson, log);
    if (nmax < 0 || ngroup < 0 || ngroup > nmax)
        fatal(log,
              "A pedigree of " + inttochar(nmax) + " levels cannot have " + inttochar(ngroup) +
                  " genetic groups (internal error)",
              module_tag, procedure_tag);
    filename = std::string(trim(file));
    nupg = ngroup;
    fill(*this, nmax, ploidy_file(*filename, log), log);
}

void pedigree_ploidy_type::readpedigree_ploidy(const std::string& file, logger& log, bool henderson) {
    *this = pedigree_ploidy_type();
    refuse_aggregates(henderson, log);
    filename = std::string(trim(file));
    const ploidy_file input(*filename, log);
    if (input.empty()) fatal(log, "The pedigree file " + *filename + " is empty", module_tag, procedure_tag);
    std::int32_t maxall = 0, maxani = 0;
    input.for_lines(std::numeric_limits<std::int32_t>::max(), [&](const ploidy_line& line, std::int64_t) {
        detail::raise_to(maxani, line.id);
        detail::raise_to(maxall, std::max({line.id, line.sire, line.dam, line.tau[0], line.tau[1]}));
    });
    detail::check_largest_code(maxall, input.lines(), *filename, procedure_tag, log);
    nupg = maxall - maxani;
    fill(*this, maxall, input, log);
}

}  // namespace zendar
