#pragma once

#include "modmatrices_input.hpp"
#include "modmmeiod_a22i.hpp"
#include "modstructure_external.hpp"

namespace zendar::matrices {

/// L L' = (1 / beta) W' A22^-1 W + (s / alpha) I and Ta = (1 / beta) L^-1 W' A22^-1, W the centred genotypes
/// and s the sum of 2pq, so that G^-1 = A22^-1 / beta - Ta' Ta for G = alpha W W' / s + beta A22 (Mantysaari
/// et al., 2017).
struct ta_parts {
    densesquare_type l;  ///< lower triangle, with its mirror image above: SNPs x SNPs
    tamatrix_type ta;    ///< animals in ascending order; empty unless asked for
};

/// n m^2 + m^3 / 3 flops for n animals and m SNPs, n m^2 more for Ta; A22^-1 is applied to each SNP once.
/// @param a22i  over the levels of the input
/// @throws fatal_error  when the matrix of SNPs is not positive definite.
[[nodiscard]] ta_parts compute_ta(const matrix_input& input, a22_inverse& a22i, const matrix_options& options,
                                  logger& log);

}  // namespace zendar::matrices
