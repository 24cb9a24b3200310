#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "modmatrices_input.hpp"
#include "modstructure_external.hpp"

namespace zendar::matrices {

/// The parts of G for APY, core animals first: g_cc (lower triangle), g_cn, and the diagonal of the others.
struct core_parts {
    matrix<double> core;           ///< c x c
    matrix<double> cross;          ///< c x n
    std::vector<double> diagonal;  ///< n
};

/// From pedigree and genotypes, without the products among the others: c (c + 2 n) m flops for m SNPs. All
/// animals are expanded by blocks of SNPs.
[[nodiscard]] core_parts compute_core_parts(const matrix_input& input, const core_split& split, double alpha,
                                            double beta, logger& log);

/// From the lower triangle of the whole G, levels ascending.
[[nodiscard]] core_parts select_core_parts(matrix_view<const double> g, const core_split& split);

/// The inverse, with P = G_cc^-1 G_cn and M the diagonal g_ii - g_ic P_i:
///
///   G_cc^-1 + P M^-1 P'    -P M^-1
///          -M^-1 P'            M^-1
///
/// The others go by blocks. c^3 + 3 c^2 n flops.
/// @throws fatal_error  for a G_cc that is not positive definite, or an element of M that is not above 0.
[[nodiscard]] apy invert_apy(core_parts parts, const core_split& split, std::span<const std::int32_t> levels,
                             logger& log);

}  // namespace zendar::matrices
