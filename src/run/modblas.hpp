#pragma once

#include <cstdint>
#include <span>

#include "modview.hpp"

/// The only place that declares BLAS and LAPACK.
namespace zendar {

/// Eigenvalues of a symmetric matrix from its lower triangle, ascending (DSYEVD, job "N"). `a` is destroyed.
/// @returns LAPACK's info.
int lapack_dsyevd(matrix_view<double> a, std::span<double> values);

/// Eigenvalues and eigenvectors (job "V"); the vectors replace `a`, one a column.
int lapack_dsyevd_vectors(matrix_view<double> a, std::span<double> values);

/// Eigenvalue number `index` (from 1, ascending) of a symmetric tridiagonal matrix of order n by bisection,
/// to full relative precision (DSTEBZ). All elements are finite.
///
/// @param diagonal      n values, n >= index.
/// @param off_diagonal  at least n - 1 values; element k stands in row k, column k + 1.
/// @returns LAPACK's info.
int lapack_dstebz(std::span<const double> diagonal, std::span<const double> off_diagonal, std::int64_t index,
                  double& value);

/// Cholesky factor of the lower triangle in place (DPOTRF "L"). @returns LAPACK's info.
int lapack_dpotrf(matrix_view<double> a);

/// Inverse from the factor of `lapack_dpotrf`, lower triangle in place (DPOTRI "L"). @returns LAPACK's info.
int lapack_dpotri(matrix_view<double> a);

/// c = alpha op(a) op(b) + beta c, `ta` and `tb` true for the transposed.
void blas_dgemm(bool ta, bool tb, double alpha, matrix_view<const double> a, matrix_view<const double> b,
                double beta, matrix_view<double> c);

/// y = alpha op(a) x + beta y (DGEMV), op the transpose when `transposed`. x and y do not overlap.
void blas_dgemv(bool transposed, double alpha, matrix_view<const double> a, std::span<const double> x,
                double beta, std::span<double> y);

/// c = alpha a a' + beta c, lower triangle of c only (DSYRK "L", "N").
void blas_dsyrk(double alpha, matrix_view<const double> a, double beta, matrix_view<double> c);

/// c = alpha a b + beta c for a symmetric a, of which the lower triangle is read (DSYMM "L", "L").
void blas_dsymm(double alpha, matrix_view<const double> a, matrix_view<const double> b, double beta,
                matrix_view<double> c);

/// b = b op(l)^-1 for a lower triangular l (DTRSM "R", "L"), op the transpose when `transposed`.
void blas_dtrsm_right(bool transposed, matrix_view<const double> l, matrix_view<double> b);

/// b = op(l)^-1 b for a lower triangular l (DTRTRS "L"), op the transpose when `transposed`.
/// @returns LAPACK's info: the place (from 1) of the first zero on the diagonal of l, which leaves b as it
/// was.
int lapack_dtrtrs(bool transposed, matrix_view<const double> l, matrix_view<double> b);

/// Threads of this process for OpenMP and BLAS alike; set once, from the command line.
void set_number_of_threads(int n);

}  // namespace zendar
