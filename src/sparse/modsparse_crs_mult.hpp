#pragma once

#include <concepts>
#include <cstdint>

#include "modsparse_view.hpp"
#include "modview.hpp"

namespace zendar {

/// What a stored matrix stands for.
enum class storage : std::uint8_t {
    general,           ///< the stored elements
    upper_triangular,  ///< the stored elements, none below the diagonal
    symmetric_upper    ///< the stored upper triangle and its mirror image
};

/// y = alpha op(A) x + beta y, for any number of columns; y is not read when beta is 0.
///
/// @param transposed  op(A) is the transposed matrix.
/// @param x  columns of length dim2 (dim1 when transposed), @param y  of length dim1 (dim2 when transposed);
///           they must not overlap.
///
/// Threaded over rows. Where a row scatters (symmetric or transposed) each thread has columns of its own, or partial sums
/// of its own, which are added in the order of the threads, so that results repeat for a given number of threads.
template <std::signed_integral Index>
void crs_multiply(crs_view<Index> m, storage s, bool transposed, double alpha, matrix_view<const double> x,
                  double beta, matrix_view<double> y);

}  // namespace zendar
