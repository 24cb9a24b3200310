#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "modview.hpp"

namespace zendar::platform {

/// What becomes of the null pivots of a singular matrix.
enum class singular_matrix : std::uint8_t {
    pass,   ///< their equations are set aside: one solution of a singular system, but a wrong inertia
    refuse  ///< `factorize` fails
};

/// The direct solver for symmetric matrices, definite or not, of full rank or not (MUMPS, sequential).
///
/// Nothing is printed. Several objects may be alive and used in turn, by one thread at a time: the library has
/// variables of its own. Its threads are those of BLAS.
class directsolver {
  public:
    /// @param relaxation  per cent of working memory beyond the estimate at the first attempt.
    explicit directsolver(std::int32_t relaxation = 30, singular_matrix singular = singular_matrix::pass);
    ~directsolver();
    directsolver(const directsolver&) = delete;
    directsolver& operator=(const directsolver&) = delete;

    /// Analysis and factors of the upper triangle given by elements (from 1), which need not live on.
    /// @param place  new place of each equation in the elimination order, from 1.
    /// @returns 0, or the library's negative error code.
    std::int32_t factorize(std::int32_t n, std::span<const std::int32_t> rows,
                           std::span<const std::int32_t> columns, std::span<const double> values,
                           std::span<const std::int32_t> place);
    /// Right-hand sides in, solutions out; the leading dimension is the number of rows. Of a system of
    /// deficient rank one of the solutions. @returns as `factorize`.
    std::int32_t solve(matrix_view<double> xy);

    [[nodiscard]] std::int64_t factor_elements() const;
    /// Equations found to depend on others, whose pivots are null.
    [[nodiscard]] std::int32_t null_pivots() const;
    /// Negative eigenvalues of the matrix, when null pivots are refused.
    [[nodiscard]] std::int32_t negative_pivots() const;

  private:
    struct instance;
    std::unique_ptr<instance> self_;
};

}  // namespace zendar::platform
