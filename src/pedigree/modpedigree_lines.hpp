#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modlogger.hpp"
#include "modparameters_utils_lines.hpp"
#include "modpedigree_detail.hpp"

/// Pedigree files of any kind of line, read by several threads. What the readers of pedigrees share; nobody
/// else includes this.
namespace zendar::detail {

[[noreturn]] void stop_unreadable(const std::string& file, const file_error& failure,
                                  std::string_view procedure, logger& log);

/// Why a line of a pedigree is bad; all values but the first one may be 0.
std::string pedigree_fault(const record_fault& fault, std::int64_t columns);

/// Reads value number `which`, an integer from `lowest` to `highest`.
const char* parse_bounded(const char* p, std::int64_t which, std::int32_t lowest, std::int32_t highest,
                          std::int32_t& code, record_fault& fault);
/// Reads an id from 1 to n and two parents from 0 to n.
const char* parse_codes(const char* p, std::int32_t n, std::int32_t& id, std::int32_t& sire,
                        std::int32_t& dam, record_fault& fault);

/// @throws fatal_error  for a code that so many lines cannot lead up to.
void check_largest_code(std::int32_t largest, std::int64_t lines, const std::string& file,
                        std::string_view procedure, logger& log);

/// The numbers, from 1, of flags that are not 0.
std::vector<std::int32_t> flagged(std::span<const std::uint8_t> flag);

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

/// A pedigree file whose lines can be gone through several times.
///
/// A `Line` has its `id`, the number of its `columns`, the name of its `others` values, and the functions
/// `parse`, `reason` (of a fault), `store` (to a pedigree; threads may store one level at once) and
/// `stands_in` (a pedigree has these values).
template <class Line>
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
        const record_fault fault =
            read_lines(text_, text_.lines(), [&](const char* p, std::int64_t number, record_fault& bad) {
                Line line;
                p = line.parse(p, n, bad);
                if (bad.kind == record_fault_kind::none) use(line, number);
                return p;
            });
        if (fault.kind == record_fault_kind::none) return;
        fatal_io(log_, "Pedigree not correctly read at line " + inttochar(fault.line), module_tag,
                 procedure_tag, status_of(fault), "File " + name_ + ": " + Line::reason(fault));
    }

    /// Stores all lines in a pedigree of as many levels as it has; the last line of a level holds.
    template <class Pedigree>
    void fill(Pedigree& ped, logger& log) const {
        const std::int32_t n = ped.nlength(), nani = n - std::clamp(ped.nupg, 0, n);
        if (empty())
            log.warning("The pedigree file " + name_ + " is empty: all parents are unknown", module_tag,
                        procedure_tag);
        std::vector<std::uint8_t> seen(static_cast<std::size_t>(n), 0);
        std::atomic<std::int64_t> repeated = 0, of_groups = 0;
        for_lines(n, [&](const Line& line, std::int64_t) {
            const bool again = std::atomic_ref(seen[line.id - 1]).exchange(1, std::memory_order_relaxed) != 0;
            if (line.id > nani) {
                ++of_groups;
                return;
            }
            if (again) ++repeated;
            line.store(ped);
        });
        if (of_groups > 0) {
            std::vector<std::int32_t> groups =
                flagged(std::span(seen).subspan(static_cast<std::size_t>(nani)));
            for (std::int32_t& group : groups) group += nani;
            log.warning("Lines of genetic groups in the pedigree file " + name_ +
                            ", which are passed over: " + inttochar(of_groups) + " (" + first_few(groups) +
                            ")",
                        module_tag, procedure_tag);
        }
        if (repeated > 0) keep_last_lines(ped, nani, log);
    }

  private:
    static constexpr const char *module_tag = "modpedigree", *procedure_tag = "readpedigree";

    /// Levels that stand on several lines, which threads read in any order, get the values of their last
    /// line.
    template <class Pedigree>
    void keep_last_lines(Pedigree& ped, std::int32_t nani, logger& log) const {
        const std::int32_t n = ped.nlength();
        std::vector<std::int64_t> last(static_cast<std::size_t>(n), 0);
        for_lines(n, [&](const Line& line, std::int64_t number) { raise_to(last[line.id - 1], number); });
        for_lines(n, [&](const Line& line, std::int64_t number) {
            if (line.id <= nani && last[line.id - 1] == number) line.store(ped);
        });
        std::vector<std::uint8_t> other(static_cast<std::size_t>(n), 0);
        for_lines(n, [&](const Line& line, std::int64_t) {
            if (line.id <= nani && !line.stands_in(ped)) detail::store(other[line.id - 1], std::uint8_t{1});
        });
        const std::vector<std::int32_t> animals = flagged(other);
        if (!animals.empty())
            log.warning("Animals given again with other " + std::string(Line::others) +
                            " in the pedigree file " + name_ + ": " + inttochar(std::ssize(animals)) +
                            ", of which the last line is taken (" + first_few(animals) + ")",
                        module_tag, procedure_tag);
    }

    const std::string& name_;
    logger& log_;
    block_file text_;
};

}  // namespace zendar::detail
