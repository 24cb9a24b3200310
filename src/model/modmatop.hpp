#pragma once

#include <cstdint>
#include <span>

#include "modlogger.hpp"
#include "modview.hpp"

/// Operations on small dense symmetric matrices.
namespace zendar {

/// Default threshold of `ispositive`.
inline constexpr double tol8 = 1e-8;

/// Generalised inverse of a symmetric matrix in place.
///
/// Symmetric elimination in the given order: a pivot that is not above `tol` times its original diagonal
/// element (or that is not positive when that element is not) counts as dependent, and its row and column of
/// the result are zero. Equals the plain inverse on positive definite matrices.
///
/// @param a     n x n, full symmetric; replaced by a reflexive generalised inverse, full symmetric.
/// @param rank  number of pivots used, out.
void ginv1_real8(matrix_view<double> a, double tol, std::int32_t& rank);

/// Plain inverse of a symmetric positive definite matrix in place (DPOTRF, DPOTRI), both triangles filled.
/// @returns true when it succeeded; otherwise "ERROR dpotrf info: " or "ERROR dpotri info: " and LAPACK's
///          code were logged as an error and `a` is unusable.
bool invsym(matrix_view<double> a, logger& log);

/// Eigenvalues of a symmetric matrix (lower triangle is read), ascending; `a` is destroyed. When the order of `a`
/// differs from the length of `values`, the values are filled with -9 and nothing is computed. Failures log
/// "ERROR info : " with LAPACK's code before, "ERROR info-end: " after the computation.
void eigensyevd(matrix_view<double> a, std::span<double> values, logger& log);

/// True when all eigenvalues of a symmetric matrix are above the threshold; `a` is kept.
bool ispositive(matrix_view<const double> a, logger& log, double threshold = tol8);

}  // namespace zendar
