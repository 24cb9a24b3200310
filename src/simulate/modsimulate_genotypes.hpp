#pragma once

#include <cstdint>
#include <vector>

#include "modsimulate_pedigree.hpp"

namespace zendar::simulate {

/// Genotypes of the youngest animals, and what the SNPs do.
struct snp_data {
    std::vector<std::uint8_t> bed;  ///< PLINK bytes, SNP by SNP
    std::vector<double> frequency;  ///< of the second allele among founders
    double sum2pq = 0.0;            ///< by these frequencies
};

/// Drops genes through the pedigree, and adds the genetic values by SNPs, whose mean among founders is 0 and
/// whose (co)variances are the genetic ones without the polygenic share, to `values` (nvalue for each
/// animal).
///
/// Chromosomes are independent of each other and done in parallel; effects are counted in whole units, so
/// that their sums do not depend on the order. 24 bytes for each animal and thread, and those of the
/// genotypes.
[[nodiscard]] snp_data drop_genes(const simulate_options& options, const population& animals,
                                  std::vector<double>& values);

}  // namespace zendar::simulate
