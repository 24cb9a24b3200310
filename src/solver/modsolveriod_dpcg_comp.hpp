#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "modsolveriod.hpp"

/// Two-level deflated PCG on data: the deflation subspace has one indicator vector for each subdomain of the
/// equations (Nicolaides, 1987; for single-step models Vandenplas et al., 2018).
///
/// With Z of these vectors, E = Z'CZ and P = I - C Z E^-1 Z', the iteration solves P C x = P b; Z is never
/// expanded.
namespace zendar {

struct subdomains {
    std::vector<std::int32_t> of;  ///< per equation: its subdomain, from 1; 0 for none
    std::int32_t nsub = 0;
};

/// The subdomains of `!deflationmat`, or those of `createdeflationmatrix`.
/// @throws fatal_error  for a file that cannot be read and numbers that are no subdomains.
[[nodiscard]] subdomains deflationmatrix(param_type& param, logger& log);
/// Each trait is a subdomain; of the SNP effects of types 22 and 30 each stretch of neqblock(1) SNPs has
/// subdomains of its own, one for each trait.
/// @throws fatal_error  for a block of no equations.
[[nodiscard]] subdomains createdeflationmatrix(const param_type& param, logger& log);

/// E^-1, nsub x nsub; also written to "def_einv.stream", and with E as text to "def_einv_20.dat".
/// @param structured  the last equations, or null when the system has no such part; used above 20 subdomains
/// @throws fatal_error  when E is not positive definite.
[[nodiscard]] matrix<double> computeeinv(linear_system& system, structured_operator* structured,
                                         const subdomains& z, logger& log);
/// One product with C for each subdomain.
void createeinv(linear_system& system, const subdomains& z, matrix_view<double> e);
/// Products with C only for subdomains with equations before the structured ones, the others by products
/// among these, with many vectors at once.
void createeinv_opt_1(linear_system& system, structured_operator& structured, const subdomains& z,
                      matrix_view<double> e, logger& log);

/// Computes E^-1 for other runs to read.
/// @throws fatal_error  when the run has a file of it.
void computegalerkin(const param_type& param, linear_system& system, structured_operator* structured,
                     const subdomains& z, logger& log);

/// Solves C x = b as `solver_pcg_iod`, with two products an iteration. Needs two more vectors beside the
/// subdomains and E^-1.
solver_result solver_dpcg_iod_comp(param_type& param, linear_system& system, structured_operator* structured,
                                   linear_preconditioner& preconditioner, const subdomains& z,
                                   std::span<double> x, std::span<const equation_range> groups,
                                   std::span<const covariable_type> cov, logger& log);

}  // namespace zendar
