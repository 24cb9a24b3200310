#pragma once

#include "modlogger.hpp"
#include "modstructure.hpp"
#include "modview.hpp"

namespace zendar {

/// SNP effects from the solutions of a genomic model: alpha / sum2pq * Z' G^-1 u, for
/// G = alpha Z Z' / sum2pq + (1 - alpha) A22.
///
/// Stranden & Garrick (2009), J. Dairy Sci. 92:2971-2975.
///
/// @param z           genotypes (animals x SNPs), centred in the products.
/// @param ginverse    G^-1, animals x animals, of which the lower triangle is read.
/// @param u           animals x vectors.
/// @param sum2pq      above 0.
/// @param snpeffects  SNPs x vectors, out.
void compute_snpeffects(const covariable_type& z, matrix_view<const double> ginverse,
                        matrix_view<const double> u, double alpha, double sum2pq,
                        matrix_view<double> snpeffects, logger& log);

}  // namespace zendar
