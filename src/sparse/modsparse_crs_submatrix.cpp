#include <algorithm>

#include "modbasic.hpp"
#include "modsparse.hpp"
#include "modsparse_coo.hpp"
#include "modsparse_crs.hpp"

namespace zendar {

template <std::signed_integral Index>
void crs_matrix<Index>::check_corners(std::int32_t first_row, std::int32_t last_row, std::int32_t first_col,
                                      std::int32_t last_col) const {
    if (first_row < 1 || first_row > last_row || last_row > dim1_ || first_col < 1 || first_col > last_col ||
        last_col > dim2_)
        fail(" ERROR: rows " + inttochar(first_row) + " to " + inttochar(last_row) + " and columns " +
             inttochar(first_col) + " to " + inttochar(last_col) + " of the submatrix are not in the matrix");
}

template <std::signed_integral Index>
crs_matrix<Index> crs_matrix<Index>::submatrix(std::int32_t first_row, std::int32_t last_row,
                                               std::int32_t first_col, std::int32_t last_col,
                                               std::optional<bool> lupperstorage) const
    requires(std::same_as<Index, std::int32_t>)
{
    check_corners(first_row, last_row, first_col, last_col);
    const bool on_diagonal = first_row == first_col && last_row == last_col;
    const bool upper = lupperstorage.value_or(lupperstorage_ && on_diagonal);

    // Rows of the block for which elements stand, and rows above it that reach it by their mirror images.
    const auto in_rows = [=](std::int32_t i) { return i >= first_row && i <= last_row; };
    const auto in_cols = [=](std::int32_t j) { return j >= first_col && j <= last_col; };
    const auto gather = [&](const auto& take) {
        const std::int32_t from = is_mirrored() ? std::min(first_row, first_col) : first_row;
        const std::int32_t to = is_mirrored() ? std::max(last_row, last_col) : last_row;
        for (std::int32_t i = from; i <= to; ++i) {
            for (std::int64_t k = begin_of(i); k < end_of(i); ++k) {
                const std::int32_t j = ja_.data()[k];
                if (in_rows(i) && in_cols(j)) take(i - first_row + 1, j - first_col + 1, a_.data()[k]);
                if (is_mirrored() && i != j && in_rows(j) && in_cols(i))
                    take(j - first_row + 1, i - first_col + 1, a_.data()[k]);
            }
        }
    };

    std::int64_t elements = 0;
    gather([&](std::int32_t, std::int32_t, double) { ++elements; });
    coosparse block(last_row - first_row + 1, last_col - first_col + 1, elements * 5 / 4 + 8, upper, unlog_);
    gather([&](std::int32_t i, std::int32_t j, double value) { block.set(i, j, value); });
    if (is_mirrored() && on_diagonal && upper) block.setsymmetric();
    return convertfromcootocrs(block);
}

template <std::signed_integral Index>
matrix<double> crs_matrix<Index>::submatrix_dense(std::span<const std::int32_t> rows,
                                                  std::span<const std::int32_t> cols) const
    requires(std::same_as<Index, std::int32_t>)
{
    for (const std::int32_t row : rows) check_corners(row, row, 1, dim2_);
    for (const std::int32_t col : cols) check_corners(1, dim1_, col, col);
    // For each column of the matrix its positions in the list, as a chain: an index may be listed twice.
    std::vector<std::int64_t> head(static_cast<std::size_t>(dim2_) + 1, -1), next(cols.size());
    for (std::int64_t k = std::ssize(cols) - 1; k >= 0; --k) next[k] = std::exchange(head[cols[k]], k);

    matrix<double> dense(std::ssize(rows), std::ssize(cols));
    for (std::int64_t r = 0; r < std::ssize(rows); ++r) {
        const std::int32_t i = rows[r];
        for (std::int64_t k = begin_of(i); k < end_of(i); ++k)
            for (std::int64_t c = head[ja_.data()[k]]; c >= 0; c = next[c]) dense(r, c) = a_.data()[k];
    }
    if (!is_mirrored()) return dense;

    // Mirror images: the listed rows as columns of the rows that are listed as columns.
    std::fill(head.begin(), head.end(), -1);
    next.resize(rows.size());
    for (std::int64_t k = std::ssize(rows) - 1; k >= 0; --k) next[k] = std::exchange(head[rows[k]], k);
    for (std::int64_t c = 0; c < std::ssize(cols); ++c) {
        const std::int32_t i = cols[c];
        for (std::int64_t k = begin_of(i); k < end_of(i); ++k)
            for (std::int64_t r = head[ja_.data()[k]]; r >= 0; r = next[r]) dense(r, c) = a_.data()[k];
    }
    return dense;
}

template <std::signed_integral Index>
matrix<double> crs_matrix<Index>::submatrix_dense(std::int32_t first_row, std::int32_t last_row,
                                                  std::int32_t first_col, std::int32_t last_col) const
    requires(std::same_as<Index, std::int32_t>)
{
    check_corners(first_row, last_row, first_col, last_col);
    std::vector<std::int32_t> rows, cols;
    for (std::int32_t i = first_row; i <= last_row; ++i) rows.push_back(i);
    for (std::int32_t j = first_col; j <= last_col; ++j) cols.push_back(j);
    return submatrix_dense(rows, cols);
}

template void crs_matrix<std::int32_t>::check_corners(std::int32_t, std::int32_t, std::int32_t,
                                                      std::int32_t) const;
template crssparse crs_matrix<std::int32_t>::submatrix(std::int32_t, std::int32_t, std::int32_t, std::int32_t,
                                                       std::optional<bool>) const;
template matrix<double> crs_matrix<std::int32_t>::submatrix_dense(std::int32_t, std::int32_t, std::int32_t,
                                                                  std::int32_t) const;
template matrix<double> crs_matrix<std::int32_t>::submatrix_dense(std::span<const std::int32_t>,
                                                                  std::span<const std::int32_t>) const;

}  // namespace zendar
