#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "modlogger.hpp"
#include "modstructure.hpp"
#include "modview.hpp"

/// Dense matrices of genotypes. Symmetric ones are worked on by their lower triangles.
namespace zendar::matrices {

/// SNPs that are expanded at a time.
inline constexpr std::int64_t snp_block = 512;

/// columns(i, j) = genotype of row rows[i] (from 0) at SNP first + j, centred; a missing one is 0.
void expand_genotypes(const covariable_type& genotypes, std::span<const std::int32_t> rows,
                      std::int64_t first, matrix_view<double> columns);

/// g += factor W W', lower triangle, W the centred genotypes of `rows`; the upper triangle is work space.
///
/// n^2 m / 2 products of genotypes for n animals and m SNPs. They are counted where the processor can and few
/// genotypes are missing (see modmatrices_count.hpp). Elsewhere DSYRK takes two flops for each; a block of b
/// SNPs then moves 8 n^2 bytes of g, 16 n b of the expanded block and n b / 4 of the packed one: with b = 512
/// and n = 10,000 one byte for 59 flops.
void add_genomic_products(const covariable_type& genotypes, std::span<const std::int32_t> rows, double factor,
                          matrix_view<double> g, logger& log);

/// Copies the lower triangle to the upper one.
void mirror_lower(matrix_view<double> a);

/// Cholesky factor of the lower triangle, in place.
/// @param what    for the message
/// @param labels  of the rows: levels, for the message; empty: their numbers
/// @throws fatal_error  for a matrix that is not positive definite, naming the row of the first bad pivot; a
///                      pivot below 1e-12 of its diagonal element is rounding.
void factorise(matrix_view<double> a, const std::string& what, std::span<const std::int32_t> labels,
               logger& log);

/// The inverse from `factorise`, lower triangle in place.
void invert_factor(matrix_view<double> a, const std::string& what, logger& log);

}  // namespace zendar::matrices
