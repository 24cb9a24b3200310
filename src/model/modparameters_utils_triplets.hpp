#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "modlogger.hpp"
#include "modparameters_utils_lines.hpp"
#include "modsparse_crs.hpp"

/// Lines "row, column, value" in any order, as rows of a matrix. What the readers of the input data share;
/// nobody else includes this.
namespace zendar::detail {

struct triplet {
    std::int32_t key = 0;  ///< the column; negative for an element given in the other triangle
    double value = 0.0;
};

/// Merges the elements of a row, sorted by column, those of either triangle together and by value. Each
/// column is left with one, of positive key. @returns how many are left, -1 when they cannot be merged.
using triplet_merge = std::int64_t (*)(std::span<triplet> row);

/// Elements of one column add up. -1 when a sum is not finite.
std::int64_t merge_sum(std::span<triplet> row);

/// The elements of each triangle add up; an element of both triangles counts once. -1 when the sums of the
/// two triangles differ by more than rounding, or one is not finite.
std::int64_t merge_symmetric(std::span<triplet> row);

/// Nothing adds up. -1 when an element stands more than once, be it in both triangles.
std::int64_t merge_unique(std::span<triplet> row);

/// The sums of the elements of the first column that keeps `merge_symmetric` from its work.
struct triplet_conflict {
    std::int32_t column = 0;
    double upper = 0.0, lower = 0.0;
};
triplet_conflict find_conflict(std::span<const triplet> row);

/// Elements of a matrix by row: first counted, then put into their places, in both steps by any thread in any
/// order. 16 bytes an element and 16 a row. The result does not depend on the order.
class triplet_rows {
  public:
    explicit triplet_rows(std::int32_t nrow);

    void count(std::int32_t row);
    /// Makes room for what was counted.
    void allocate();
    /// @returns false when the row has more elements than were counted.
    bool put(std::int32_t row, std::int32_t key, double value);
    /// Sorts and merges every row. @returns the first row that cannot be merged, 0 when there is none.
    std::int32_t merge(triplet_merge how);

    /// After `merge`: the elements of a row, by column.
    [[nodiscard]] std::span<const triplet> row(std::int32_t row) const;
    [[nodiscard]] std::int32_t nrow() const noexcept { return nrow_; }
    [[nodiscard]] std::int64_t bytes() const;
    /// As compressed rows; with `lupperstorage` every row gets a stored diagonal, and the matrix is
    /// symmetric. The elements are released. @throws fatal_error  when 32-bit indices cannot count the
    /// elements.
    [[nodiscard]] crssparse to_crs(std::int32_t ncol, bool lupperstorage, logger& log);

  private:
    std::int32_t nrow_;
    std::vector<std::int64_t> begin_;  // [row - 1], and the end of the last row
    std::vector<std::int64_t> end_;    // [row - 1]: behind the last element that was put
    std::vector<triplet> elements_;
};

/// Row and column of the line "i j value" at `p`, from 1 to their limits, by the rules of `parse_record`.
const char* parse_position(const char* p, const std::int32_t (&limits)[2], std::int64_t (&position)[2],
                           record_fault& fault);
/// The finite value behind them, and nothing else.
const char* parse_value(const char* p, double& value, record_fault& fault);

/// Reads the lines "i j value" of an indexed file into the rows of the upper triangle; i and j count from 1
/// to their number. A line holds three values, the third one finite, and nothing else.
/// @returns the fault of the first bad line.
record_fault read_symmetric_triplets(const block_file& text, triplet_rows& elements);

/// The lines of such a file, once it was read without fault, that give the element (row, column) or its
/// mirror image, ascending.
std::vector<std::int64_t> lines_of_element(const block_file& text, std::int32_t n, std::int32_t row,
                                           std::int32_t column);

/// Opens `text`, which has no lines yet, and reads the triplets of a symmetric matrix between `n` levels.
/// @param what       "external matrix"
/// @param head       the same at the start of a message
/// @param procedure  for the messages
/// @throws fatal_error  with the file and its first bad line; for a file that cannot be read or is empty.
[[nodiscard]] triplet_rows read_symmetric_file(block_file& text, const std::string& name, std::int32_t n,
                                               const std::string& what, const std::string& head,
                                               std::string_view procedure, logger& log);

}  // namespace zendar::detail
