#pragma once

#include <cstdint>
#include <span>

#include "modview.hpp"

/// Cholesky factorisation of dense semidefinite matrices, and solves with its factor.
namespace zendar {

/// Replaces a symmetric matrix, of which the lower triangle is read, by its lower Cholesky factor.
///
/// An equation whose diagonal is below 1e-8, or whose pivot is below 1e-10 of it, is dropped: its row and
/// column of the factor are zero. The strict upper triangle is cleared.
void chols8(matrix_view<double> a);

/// The same for a matrix whose rows are `stride` elements apart: element (i, j), from 0, stands at
/// a[i * stride + j * ld].
void chols8(double* a, std::int64_t n, std::int64_t stride, std::int64_t ld);

/// y = (l l')^-1 x with the factor of `chols8`; 0 for dropped equations. y and x must not overlap.
void solvs8(matrix_view<const double> l, std::span<double> y, std::span<const double> x);

}  // namespace zendar
