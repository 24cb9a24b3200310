#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "modlogger.hpp"
#include "modsparse_crs.hpp"
#include "modview.hpp"

/// Eigenvalues of sparse symmetric matrices within an interval.
namespace zendar {

/// Which of the eigenvalues are kept when an interval holds too many.
enum class spectrum_end : std::uint8_t { lowest, highest };

struct eigenpairs {
    std::vector<double> values;  ///< ascending
    matrix<double> vectors;      ///< one a column, of length 1; the largest element is positive
    std::int64_t inside = 0;     ///< eigenvalues of the interval, also those that were not asked for
    std::int64_t missing = 0;    ///< those that should have been found and were not
};

/// Eigenvalues and eigenvectors of the upper triangle `m` within [lower, upper], repeated ones included.
///
/// They are counted by the inertia of the matrix with its diagonal shifted to the ends of the interval, and
/// found by block Lanczos iterations on shifted inverses, slice by slice of the interval, with full
/// orthogonalisation; new starting vectors are taken until as many are found as were counted. Ends are taken
/// as part of the interval up to a relative rounding error of 1e-12.
///
/// Grimes, Lewis & Simon (1994), SIAM J. Matrix Anal. Appl. 15:228-272, and Stewart (2001), SIAM J. Matrix
/// Anal. Appl. 23:601-614.
///
/// @param lower     above 0. Eigenvalues within the rounding error of the matrix, 2e-14 of its norm, cannot
///                  be told from zero and are left out.
/// @param subspace  the most eigenvalues to be found; `end` says which.
/// @throws fatal_error  for a matrix that is no sorted upper triangle of finite numbers with a stored
///                      diagonal, and when it cannot be factorised.
///
/// Ten to sixty factorisations, and about six solves for each eigenvalue. Memory: five vectors for each of
/// them, and the factors. The same values for a given number of threads.
[[nodiscard]] eigenpairs dfeast_scsrev(const crssparse& m, double lower, double upper, std::int32_t subspace,
                                       spectrum_end end, logger& log);

/// The same, to the files "eigenvalue_lhs." + label, one value a line, and "eigenvector_lhs." + label, a line
/// for each equation with its elements of the vectors in the order of the values. With label "max" the
/// highest eigenvalues are kept, else the lowest. Without any the files are empty.
void eigendfeastscsrev(const crssparse& m, double lower, double upper, std::int32_t subspace,
                       const std::string& label, logger& log);

}  // namespace zendar
