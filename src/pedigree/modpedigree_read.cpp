#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modparameters_utils_lines.hpp"
#include "modpedigree.hpp"
#include "modpedigree_detail.hpp"

namespace zendar {

namespace {

using detail::block_file;
using detail::record_fault;
using detail::record_fault_kind;

constexpr const char* module_tag = "modpedigree";

[[noreturn]] void stop_unreadable(const std::string& file, const file_error& failure,
                                  std::string_view procedure, logger& log) {
    fatal_io(log, "The file " + file + " cannot be read", module_tag, procedure, failure.iostat,
             failure.iomsg);
}

/// Why a line of a pedigree is bad. `lowest` is the smallest good value.
std::string reason(const record_fault& fault, std::int64_t lowest) {
    if (fault.kind != record_fault_kind::out_of_range || lowest == 1) return detail::describe(fault, 3);
    return "value " + inttochar(fault.value) + " must lie between " + inttochar(lowest) + " and " +
           inttochar(fault.limit) + ": \"" + std::string(fault.word.data()) + "\"";
}

struct pedigree_line {
    std::int32_t id = 0, sire = 0, dam = 0;
};

/// Three integers: an id from 1 to n, and two parents from 0 to n. What follows them is passed over.
const char* parse_pedigree_line(const char* p, std::int32_t n, pedigree_line& line, record_fault& fault) {
    std::int32_t* const values[] = {&line.id, &line.sire, &line.dam};
    for (std::int64_t k = 0; k < 3; ++k) {
        std::int64_t value = 0;
        p = detail::parse_integer(p, k + 1, value, fault);
        if (fault.kind != record_fault_kind::none) return p;
        if (value < (k == 0 ? 1 : 0) || value > n) {
            fault.set(record_fault_kind::out_of_range, k + 1, inttochar(value));
            fault.limit = n;
            return p;
        }
        *values[k] = static_cast<std::int32_t>(value);
    }
    return p;
}

/// A pedigree file whose lines can be gone through several times.
class pedigree_file {
  public:
    pedigree_file(const std::string& name, logger& log) : name_(name), log_(log), text_({}) {
        if (const auto failure = text_.open(name)) stop_unreadable(name, *failure, "readpedigree", log);
        if (text_.empty()) return;
        if (const auto failure = text_.index_lines(0)) stop_unreadable(name, *failure, "readpedigree", log);
    }
    [[nodiscard]] bool empty() const { return text_.empty(); }
    [[nodiscard]] std::int64_t lines() const { return text_.lines(); }

    /// Calls use(line, number) for all lines, by several threads at once; codes may be up to n.
    template <class Use>
    void for_lines(std::int32_t n, Use&& use) const {
        if (text_.empty()) return;
        const record_fault fault = detail::read_lines(
            text_, text_.lines(), [&](const char* p, std::int64_t number, record_fault& bad) {
                pedigree_line line;
                p = parse_pedigree_line(p, n, line, bad);
                if (bad.kind == record_fault_kind::none) use(line, number);
                return p;
            });
        if (fault.kind == record_fault_kind::none) return;
        fatal_io(log_, "Pedigree not correctly read at line " + inttochar(fault.line), module_tag,
                 "readpedigree", detail::status_of(fault),
                 "File " + name_ + ": " + reason(fault, fault.value == 1 ? 1 : 0));
    }

  private:
    const std::string& name_;
    logger& log_;
    block_file text_;
};

template <class T>
void raise_to(T& target, T value) {
    std::atomic_ref<T> shared(target);
    T now = shared.load(std::memory_order_relaxed);
    while (now < value && !shared.compare_exchange_weak(now, value, std::memory_order_relaxed)) {
    }
}

template <class T>
void store(T& target, T value) {
    std::atomic_ref(target).store(value, std::memory_order_relaxed);
}

std::vector<std::int32_t> flagged(std::span<const std::uint8_t> flag) {
    std::vector<std::int32_t> codes;
    for (std::size_t k = 0; k < flag.size(); ++k)
        if (flag[k] != 0) codes.push_back(static_cast<std::int32_t>(k + 1));
    return codes;
}

/// Levels that stand on several lines, which threads read in any order, get the parents of their last line.
void keep_last_lines(const pedigree_file& input, const std::string& file, matrix<std::int32_t>& ped,
                     std::int32_t nani, logger& log) {
    const auto n = static_cast<std::int32_t>(ped.cols());
    std::vector<std::int64_t> last(static_cast<std::size_t>(n), 0);
    input.for_lines(
        n, [&](const pedigree_line& line, std::int64_t number) { raise_to(last[line.id - 1], number); });
    input.for_lines(n, [&](const pedigree_line& line, std::int64_t number) {
        if (line.id > nani || last[line.id - 1] != number) return;
        store(ped(0, line.id - 1), line.sire);
        store(ped(1, line.id - 1), line.dam);
    });
    std::vector<std::uint8_t> other(static_cast<std::size_t>(n), 0);
    input.for_lines(n, [&](const pedigree_line& line, std::int64_t) {
        if (line.id <= nani && (ped(0, line.id - 1) != line.sire || ped(1, line.id - 1) != line.dam))
            store(other[line.id - 1], std::uint8_t{1});
    });
    const std::vector<std::int32_t> animals = flagged(other);
    if (!animals.empty())
        log.warning("Animals given again with other parents in the pedigree file " + file + ": " +
                        inttochar(std::ssize(animals)) + ", of which the last line is taken (" +
                        detail::first_few(animals) + ")",
                    module_tag, "readpedigree");
}

/// A line has three codes at most, and few codes are skipped; a stray one must not claim all memory.
std::int64_t largest_code_of(std::int64_t lines) {
    return 1'000'000 + 100 * lines;
}

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
        const pedigree_file input(*filename, log);
        if (input.empty())
            fatal(log, "The pedigree file " + *filename + " is empty", module_tag, "readpedigree_nomax");
        input.for_lines(std::numeric_limits<std::int32_t>::max(),
                        [&](const pedigree_line& line, std::int64_t) {
                            raise_to(maxani, line.id);
                            raise_to(maxall, std::max({line.id, line.sire, line.dam}));
                        });
        if (maxall > largest_code_of(input.lines()))
            fatal(log,
                  "The pedigree file " + *filename + " has codes up to " + inttochar(maxall) + " on only " +
                      inttochar(input.lines()) + " lines: codes must be consecutive numbers",
                  module_tag, "readpedigree_nomax");
    }
    nupg = maxall - maxani;
    ped = matrix<std::int32_t>(2, maxall);
    read_lines(*filename, log);
}

void pedigree_type::read_lines(const std::string& file, logger& log) {
    const std::string name(trim(file));
    const std::int32_t n = nlength(), nani = n - std::clamp(nupg, 0, n);
    const pedigree_file input(name, log);
    if (input.empty())
        log.warning("The pedigree file " + name + " is empty: all parents are unknown", module_tag,
                    "readpedigree");
    std::ranges::fill(ped.values(), 0);
    std::vector<std::uint8_t> seen(static_cast<std::size_t>(n), 0);
    std::atomic<std::int64_t> repeated = 0, of_groups = 0;
    input.for_lines(n, [&](const pedigree_line& line, std::int64_t) {
        const bool again = std::atomic_ref(seen[line.id - 1]).exchange(1, std::memory_order_relaxed) != 0;
        if (line.id > nani) {
            ++of_groups;
            return;
        }
        if (again) ++repeated;
        store(ped(0, line.id - 1), line.sire);
        store(ped(1, line.id - 1), line.dam);
    });
    if (of_groups > 0) {
        std::vector<std::int32_t> groups = flagged(std::span(seen).subspan(static_cast<std::size_t>(nani)));
        for (std::int32_t& group : groups) group += nani;
        log.warning("Lines of genetic groups in the pedigree file " + name + ", which are passed over: " +
                        inttochar(of_groups) + " (" + detail::first_few(groups) + ")",
                    module_tag, "readpedigree");
    }
    if (repeated > 0) keep_last_lines(input, name, ped, nani, log);
}

void pedigree_type::readmetarel(const std::string& file, std::int32_t effect, logger& log) {
    constexpr const char* procedure = "readmetarel";
    const std::string name(trim(file));
    if (nupg <= 0) fatal(log, "Number of metafounders <= 0 (internal error)", module_tag, procedure);
    log.message("Effect " + inttochar(effect) + "\nNumber of metafounders    : " + inttochar(nupg) +
                "\nNumber of real individuals: " + inttochar(nlength() - nupg) +
                "\nName of the file          : " + name);
    text_reader input;
    if (const auto failure = input.open(name)) stop_unreadable(name, *failure, procedure, log);
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
    if (const auto failure = input.error()) stop_unreadable(name, *failure, procedure, log);
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
    if (const auto failure = input.error()) stop_unreadable(name, *failure, procedure, log);
    log.message("Number of inbreeding coefficients read from " + name + ": " + inttochar(count));
}

}  // namespace zendar
