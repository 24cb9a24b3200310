#include <cassert>
#include <cmath>
#include <string>

#include "modbasic.hpp"
#include "modparameters_utils.hpp"
#include "modparameters_utils_lines.hpp"
#include "modparameters_utils_triplets.hpp"

namespace zendar {
namespace {

using detail::block_file;
using detail::triplet_rows;

constexpr const char* module_tag = "modparameters_utils";
constexpr const char* procedure_tag = "readginverse";

/// Stops at the first line that holds the element, for the level that has no genotypes.
[[noreturn]] void stop_at_element(const block_file& text, const std::string& file, std::int32_t n_level,
                                  std::int32_t row, std::int32_t column, std::int32_t level, logger& log) {
    const std::vector<std::int64_t> lines = detail::lines_of_element(text, n_level, row, column);
    const std::string where = lines.empty() ? std::string() : " at line " + inttochar(lines.front());
    fatal(log,
          "The file " + file + " of the G inverse is not correct" + where + ": the level " +
              inttochar(level) + " has no genotypes",
          module_tag, procedure_tag);
}

}  // namespace

matrix<double> readginverse(const std::string& file, std::span<const std::int32_t> levels,
                            std::int32_t n_level, logger& log) {
    const std::string name(trim(file));
    block_file text({});
    triplet_rows elements =
        detail::read_symmetric_file(text, name, n_level, "G inverse", "G inverse", procedure_tag, log);
    if (const std::int32_t row = elements.merge(detail::merge_symmetric); row > 0) {
        const detail::triplet_conflict conflict = detail::find_conflict(elements.row(row));
        const std::string i = inttochar(row), j = inttochar(conflict.column);
        fatal(log,
              "The values of the elements (" + i + "," + j + ") and (" + j + "," + i + ") of the G inverse " +
                  name + " do not agree: " + realtochar(conflict.upper, "(g0)") + " and " +
                  realtochar(conflict.lower, "(g0)"),
              module_tag, procedure_tag);
    }

    const auto n = std::ssize(levels);
    std::vector<std::int64_t> place(static_cast<std::size_t>(n_level) + 1, -1);
    for (std::int64_t r = 0; r < n; ++r) {
        assert(levels[r] >= 1 && levels[r] <= n_level && place[levels[r]] < 0);
        place[levels[r]] = r;
    }
    const std::int64_t bytes = n * n * static_cast<std::int64_t>(sizeof(double));
    log.message("Memory (MB) needed for the G inverse: " + realtochar(mib(bytes), "(f0.2)"));
    matrix<double> inverse(n, n);
    std::vector<unsigned char> has_diagonal(static_cast<std::size_t>(n), 0);
    for (std::int32_t row = 1; row <= n_level; ++row) {
        for (const detail::triplet& element : elements.row(row)) {
            for (const std::int32_t level : {row, element.key})
                if (place[level] < 0) stop_at_element(text, name, n_level, row, element.key, level, log);
            const std::int64_t i = place[row], j = place[element.key];
            inverse(i, j) = inverse(j, i) = element.value;
            if (i == j) has_diagonal[i] = 1;
        }
    }
    for (std::int64_t r = 0; r < n; ++r)
        if (has_diagonal[r] == 0)
            fatal(log,
                  "The file " + name + " of the G inverse has no diagonal element of the level " +
                      inttochar(levels[r]) + ", which has genotypes",
                  module_tag, procedure_tag);
    return inverse;
}

}  // namespace zendar
