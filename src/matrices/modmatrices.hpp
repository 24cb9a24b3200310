#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "modmatrices_options.hpp"

/// The program that prepares the matrices that the solver reads for animals with genotypes.
namespace zendar::matrices {

/// Runs the program with the words behind its name. Log and help go to `out`.
/// @returns the exit status: 0, or 1 after one error message.
[[nodiscard]] int run_matrices(const std::vector<std::string>& words, std::ostream& out);

/// Sizes of a run.
struct matrix_sizes {
    std::int64_t nanimal = 0;  ///< with genotypes
    std::int64_t nsnp = 0;
    std::int64_t ncore = 0;
};

/// Bytes of the dense matrices that are held at once, and of the packed genotypes.
[[nodiscard]] std::int64_t peak_bytes(const matrix_options& options, const matrix_sizes& sizes);

/// The lines of the instruction file that read what was written.
[[nodiscard]] std::vector<std::string> instruction_lines(const matrix_options& options);

}  // namespace zendar::matrices
