#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "modlogger.hpp"
#include "modmatrices_options.hpp"
#include "modpedigree.hpp"
#include "modstructure.hpp"

namespace zendar::matrices {

/// What all matrices are made of.
struct matrix_input {
    pedigree_type ped;                 ///< with inbreeding coefficients; of no levels when no output needs it
    covariable_type genotypes;         ///< packed
    std::vector<std::int32_t> levels;  ///< of the animals with genotypes, ascending
    std::vector<std::int32_t> rows;    ///< [i]: row of levels[i] in `genotypes`, from 0
    double sum2pq = 0.0;

    [[nodiscard]] std::int64_t nanimal() const { return std::ssize(levels); }
    [[nodiscard]] std::int64_t nsnp() const { return std::ssize(genotypes.allelefreq); }
};

/// Reads pedigree and genotypes, and computes the inbreeding coefficients.
/// @throws fatal_error  for files that cannot be read, levels that are no animals of the pedigree, and a sum
///                      of 2pq of 0 that something is divided by.
[[nodiscard]] matrix_input read_input(const matrix_options& options, logger& log);

/// The places (from 0, ascending levels) of the core animals, in the order of their list, and of the others.
struct core_split {
    std::vector<std::int32_t> order;  ///< core animals first, then the others, ascending
    std::int64_t ncore = 0;
};

/// Reads a list of levels, one a line.
/// @throws fatal_error  with the file and its first bad line: no integer or more than one, a level without
///                      genotypes or one that stands there twice; and for a list of no levels.
[[nodiscard]] core_split read_core(const std::string& file, const std::vector<std::int32_t>& levels,
                                   logger& log);

}  // namespace zendar::matrices
