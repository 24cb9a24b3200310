#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modpedigree.hpp"
#include "modpedigree_detail.hpp"
#include "modpedigree_lines.hpp"

namespace zendar {

namespace {

using detail::record_fault;
using detail::record_fault_kind;

constexpr const char* module_tag = "modpedigree";

/// Three integers: an id from 1 to n, and two parents from 0 to n. What follows them is passed over.
struct pedigree_line {
    static constexpr std::int64_t columns = 3;
    static constexpr const char* others = "parents";
    std::int32_t id = 0, sire = 0, dam = 0;

    const char* parse(const char* p, std::int32_t n, record_fault& fault) {
        return detail::parse_codes(p, n, id, sire, dam, fault);
    }
    static std::string reason(const record_fault& fault) { return detail::pedigree_fault(fault, columns); }
    void store(pedigree_type& to) const {
        detail::store(to.ped(0, id - 1), sire);
        detail::store(to.ped(1, id - 1), dam);
    }
    [[nodiscard]] bool stands_in(const pedigree_type& other) const {
        return other.sire(id) == sire && other.dam(id) == dam;
    }
};

using plain_file = detail::pedigree_file<pedigree_line>;

void take_defaults(pedigree_type& ped) {
    ped = pedigree_type();
}

/// A line "i j value" of relationships between `n` metafounders.
struct relationship_line {
    std::int64_t i = 0, j = 0;
    double value = 0.0;

    void parse(std::string_view line, std::int64_t n, record_fault& fault) {
        text_.assign(line);
        text_ += '\n';
        const char* p = text_.c_str();
        std::int64_t* const codes[] = {&i, &j};
        for (std::int64_t k = 0; k < 2; ++k) {
            p = detail::parse_integer(p, k + 1, *codes[k], fault);
            if (fault.kind != record_fault_kind::none) return;
            if (*codes[k] >= 1 && *codes[k] <= n) continue;
            fault.set(record_fault_kind::out_of_range, k + 1, inttochar(*codes[k]));
            fault.limit = n;
            return;
        }
        const char* const third = p;
        detail::parse_record(third, {&value, 1}, fault);
        if (fault.kind == record_fault_kind::none) {
            if (!std::isfinite(value))
                fault.set(record_fault_kind::not_finite, 3, detail::record_word(third, 1));
            return;
        }
        if (fault.kind == record_fault_kind::blank_line) fault.kind = record_fault_kind::short_line;
        fault.value += 2;
    }

  private:
    std::string text_;
};

}  // namespace

namespace detail {

void stop_unreadable(const std::string& file, const file_error& failure, std::string_view procedure,
                     logger& log) {
    fatal_io(log, "The file " + file + " cannot be read", module_tag, procedure, failure.iostat,
             failure.iomsg);
}

std::string pedigree_fault(const record_fault& fault, std::int64_t columns) {
    if (fault.kind != record_fault_kind::out_of_range || fault.value == 1) return describe(fault, columns);
    return "value " + inttochar(fault.value) + " must lie between 0 and " + inttochar(fault.limit) + ": \"" +
           std::string(fault.word.data()) + "\"";
}

const char* parse_bounded(const char* p, std::int64_t which, std::int32_t lowest, std::int32_t highest,
                          std::int32_t& code, record_fault& fault) {
    std::int64_t value = 0;
    p = parse_integer(p, which, value, fault);
    if (fault.kind != record_fault_kind::none) return p;
    if (value < lowest || value > highest) {
        fault.set(record_fault_kind::out_of_range, which, inttochar(value));
        fault.limit = highest;
        return p;
    }
    code = static_cast<std::int32_t>(value);
    return p;
}

const char* parse_codes(const char* p, std::int32_t n, std::int32_t& id, std::int32_t& sire,
                        std::int32_t& dam, record_fault& fault) {
    p = parse_bounded(p, 1, 1, n, id, fault);
    if (fault.kind == record_fault_kind::none) p = parse_bounded(p, 2, 0, n, sire, fault);
    if (fault.kind == record_fault_kind::none) p = parse_bounded(p, 3, 0, n, dam, fault);
    return p;
}

void check_largest_code(std::int32_t largest, std::int64_t lines, const std::string& file,
                        std::string_view procedure, logger& log) {
    // A line has three codes at most, and few codes are skipped; a stray one must not claim all memory.
    if (largest > 1'000'000 + 100 * lines)
        fatal(log,
              "The pedigree file " + file + " has codes up to " + inttochar(largest) + " on only " +
                  inttochar(lines) + " lines: codes must be consecutive numbers",
              module_tag, procedure);
}

std::vector<std::int32_t> flagged(std::span<const std::uint8_t> flag) {
    std::vector<std::int32_t> codes;
    for (std::size_t k = 0; k < flag.size(); ++k)
        if (flag[k] != 0) codes.push_back(static_cast<std::int32_t>(k + 1));
    return codes;
}

std::string first_few(std::span<const std::int32_t> all, std::size_t most) {
    std::string text;
    for (std::size_t k = 0; k < std::min(all.size(), most); ++k)
        text += (k == 0 ? "" : ", ") + inttochar(all[k]);
    return all.size() > most ? text + ", ..." : text;
}

bool id_value_line::parse(std::string_view line) {
    text_.assign(line);
    text_ += '\n';
    record_fault fault;
    const char* const p = parse_integer(text_.c_str(), 1, id, fault);
    if (fault.kind == record_fault_kind::none) parse_record(p, {&value, 1}, fault);
    return fault.kind == record_fault_kind::none;
}

}  // namespace detail

std::int32_t pedigree_type::checkval() const {
    const std::int32_t n = nlength();
    auto sum = static_cast<std::uint32_t>(n);
    for (std::int32_t i = 1; i <= std::min(100, n); ++i) sum += static_cast<std::uint32_t>(sire(i));
    for (std::int32_t i = std::max(1, n - 100); i <= n; ++i) sum += static_cast<std::uint32_t>(dam(i));
    return static_cast<std::int32_t>(sum);
}

void pedigree_type::readpedigree_max(const std::string& file, std::int32_t nmax, std::int32_t ngroup,
                                     logger& log) {
    take_defaults(*this);
    if (nmax < 0 || ngroup < 0 || ngroup > nmax)
        fatal(log,
              "A pedigree of " + inttochar(nmax) + " levels cannot have " + inttochar(ngroup) +
                  " genetic groups (internal error)",
              module_tag, "readpedigree_max");
    filename = std::string(trim(file));
    nupg = ngroup;
    ped = matrix<std::int32_t>(2, nmax);
    read_lines(*filename, log);
}

void pedigree_type::readpedigree_nomax(const std::string& file, logger& log) {
    take_defaults(*this);
    filename = std::string(trim(file));
    std::int32_t maxall = 0, maxani = 0;
    {
        const plain_file input(*filename, log);
        if (input.empty())
            fatal(log, "The pedigree file " + *filename + " is empty", module_tag, "readpedigree_nomax");
        input.for_lines(std::numeric_limits<std::int32_t>::max(),
                        [&](const pedigree_line& line, std::int64_t) {
                            detail::raise_to(maxani, line.id);
                            detail::raise_to(maxall, std::max({line.id, line.sire, line.dam}));
                        });
        detail::check_largest_code(maxall, input.lines(), *filename, "readpedigree_nomax", log);
    }
    nupg = maxall - maxani;
    ped = matrix<std::int32_t>(2, maxall);
    read_lines(*filename, log);
}

void pedigree_type::read_lines(const std::string& file, logger& log) {
    const std::string name(trim(file));
    const plain_file input(name, log);
    std::ranges::fill(ped.values(), 0);
    input.fill(*this, log);
}

void pedigree_type::readmetarel(const std::string& file, std::int32_t effect, logger& log) {
    constexpr const char* procedure = "readmetarel";
    const std::string name(trim(file));
    if (nupg <= 0) fatal(log, "Number of metafounders <= 0 (internal error)", module_tag, procedure);
    log.message("Effect " + inttochar(effect) + "\nNumber of metafounders    : " + inttochar(nupg) +
                "\nNumber of real individuals: " + inttochar(nlength() - nupg) +
                "\nName of the file          : " + name);
    text_reader input;
    if (const auto failure = input.open(name)) detail::stop_unreadable(name, *failure, procedure, log);
    metarel = matrix<double>(nupg, nupg);
    matrix<std::uint8_t> seen(nupg, nupg);
    std::int64_t replaced = 0, first_replaced = 0;
    relationship_line line;
    while (const auto text = input.line()) {
        if (trim(*text).empty()) continue;
        record_fault fault;
        line.parse(*text, nupg, fault);
        if (fault.kind != record_fault_kind::none)
            fatal_io(
                log,
                "Relationships of metafounders not correctly read at line " + inttochar(input.line_number()),
                module_tag, procedure, detail::status_of(fault),
                "File " + name + ": " + detail::describe(fault, 3));
        const std::int64_t i = line.i - 1, j = line.j - 1;
        if (seen(i, j) != 0 && metarel(i, j) != line.value && replaced++ == 0)
            first_replaced = input.line_number();
        seen(i, j) = seen(j, i) = 1;
        metarel(i, j) = metarel(j, i) = line.value;
    }
    if (const auto failure = input.error()) detail::stop_unreadable(name, *failure, procedure, log);
    if (replaced > 0)
        log.warning("Elements given again with other values in the file " + name + ": " +
                        inttochar(replaced) + " (the first one at line " + inttochar(first_replaced) +
                        "), of which the last line is taken",
                    module_tag, procedure);
}

void pedigree_type::readinbreeding(const std::string& file, logger& log) {
    constexpr const char* procedure = "readinbreeding";
    constexpr std::int64_t lines_with_comments = 10;
    const std::string name(trim(file));
    text_reader input;
    if (const auto failure = input.open(name))
        fatal_io(log, "Issue while opening the file " + name, module_tag, procedure, failure->iostat,
                 failure->iomsg);
    f.assign(static_cast<std::size_t>(nlength()), 0.0);
    std::int64_t count = 0;
    detail::id_value_line pair;
    while (const auto text = input.line()) {
        const std::string_view rest = trim(*text);
        if (rest.empty() || (count < lines_with_comments && rest.starts_with('#'))) continue;
        const auto where = [&] {
            return " at line " + inttochar(input.line_number()) + " of the file " + name;
        };
        if (!pair.parse(*text)) {
            log.warning(
                "The reading of inbreeding coefficients ends" + where() + ", which is not an id and a value",
                module_tag, procedure);
            break;
        }
        if (pair.id < 1 || pair.id > nlength())
            fatal(log,
                  "The id " + inttochar(pair.id) + where() + " is not one of the " + inttochar(nlength()) +
                      " levels",
                  module_tag, procedure);
        if (!std::isfinite(pair.value))
            fatal(log, "The inbreeding coefficient" + where() + " is not a finite number", module_tag,
                  procedure);
        f[pair.id - 1] = pair.value;
        ++count;
    }
    if (const auto failure = input.error()) detail::stop_unreadable(name, *failure, procedure, log);
    log.message("Number of inbreeding coefficients read from " + name + ": " + inttochar(count));
    warn_of_odd_coefficients(name, log);
    check_loops(log);
}

}  // namespace zendar
