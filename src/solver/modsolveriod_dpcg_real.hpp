#pragma once

#include <span>

#include "modsolveriod.hpp"

/// Two-level deflated PCG on data with any vectors for the deflation subspace, such as approximate
/// eigenvectors; otherwise as the form with subdomains.
///
/// With Z of these vectors, E = Z'CZ and P = I - C Z E^-1 Z', the iteration solves P C x = P b. Z is dense,
/// neq x nsub.
namespace zendar {

/// C Z, and E from it: one product with C for each vector.
void createeinv_az_real(linear_system& system, matrix_view<const double> zreal, matrix_view<double> azreal,
                        matrix_view<double> e);
/// The same products, of which only E is kept.
void createeinv_real(linear_system& system, matrix_view<const double> zreal, matrix_view<double> e);

/// Solves C x = b as `solver_pcg_iod`. Up to 20 vectors C Z is kept, and an iteration has one product with C
/// and three with matrices of neq x nsub or less; above, it has two products with C.
///
/// Writes "def_einv.stream" and "def_einv_20.dat", or reads E^-1 from the file of `!galerkin`.
///
/// @param zreal  neq x nsub.
/// @throws fatal_error  without vectors, for vectors that are linearly dependent, when E is not positive
///         definite, and as `solver_pcg_iod`.
solver_result solver_dpcg_iod_real(param_type& param, linear_system& system,
                                   linear_preconditioner& preconditioner, const matrix<double>& zreal,
                                   std::span<double> x, std::span<const equation_range> groups,
                                   std::span<const covariable_type> cov, logger& log);

}  // namespace zendar
