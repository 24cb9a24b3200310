#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "modlogger.hpp"
#include "modsparse_crs.hpp"
#include "platform/directsolver.hpp"

/// The shifted matrix as the sources of the eigenvalue solver share it; nobody else includes this.
namespace zendar::detail {

/// A - shift I, to be factorised for one shift after the other.
class shifted_matrix {
  public:
    /// @throws fatal_error  unless `m` is a sorted upper triangle of finite numbers with a stored diagonal.
    shifted_matrix(const crssparse& m, logger& log);

    struct factors {
        std::unique_ptr<platform::directsolver> solver;
        double shift = 0.0;
    };
    /// The factors for a shift, or for one beside it should that be an eigenvalue.
    [[nodiscard]] factors factorize(double shift);
    /// Eigenvalues below the shift.
    [[nodiscard]] std::int64_t below(double shift);
    /// The largest sum of absolute values of a row: no eigenvalue exceeds it.
    [[nodiscard]] double norm() const noexcept { return norm_; }
    [[nodiscard]] std::int32_t order() const noexcept { return n_; }
    [[nodiscard]] std::int64_t factorisations() const noexcept { return factorisations_; }

  private:
    logger& log_;
    std::int32_t n_;
    std::vector<std::int32_t> rows_, columns_, places_;
    std::vector<double> values_, diagonal_;
    std::vector<std::int64_t> at_;  // of the diagonal elements
    double norm_ = 0.0;
    std::int64_t factorisations_ = 0;
};

/// The eigenvectors that were found, one a column.
struct found_pairs {
    std::vector<double> values;
    std::vector<double> vectors;  ///< n each
};

/// Finds eigenvalues on one side of a shift, those nearest to it first.
///
/// @param sign    1: eigenvalues above the shift, -1: below it.
/// @param bound   the other end of the slice.
/// @param wanted  how many there are from the shift to the bound; with `at_most` only so many are sought.
/// @param found   eigenpairs outside the slice, to which the new ones are added.
/// @returns how many were found.
std::int64_t eigenpairs_of_slice(const shifted_matrix::factors& factors, double sign, double bound,
                                 std::int64_t wanted, std::int32_t n, found_pairs& found);

}  // namespace zendar::detail
