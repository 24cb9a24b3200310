#pragma once

#include <concepts>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <span>
#include <vector>

#include "modlinear.hpp"
#include "modsolveriod.hpp"
#include "modsolveriod_dpcg_comp.hpp"
#include "modsparse_crs.hpp"

/// Iterative solvers of equations in memory. The matrix is the sorted upper triangle, with a stored diagonal,
/// of a symmetric positive semidefinite one; b lies in its range.
///
/// They are the iterations of the solvers on data, with these differences: the residual is always the
/// recursive one; convergence is not reported for groups; an iteration with nothing left to move ends the
/// loop, before the least number of iterations if need be; equations without any coefficient have solution 0.
///
/// Convergence is written to "convergence.dat", or "convergence_fpcg.dat", in the output directory: without
/// header, behind the iteration and tau four values, namely CR, CD, and the ratios CK and CM.
namespace zendar {

// ---- the matrix as an operator (modsolver_system.cpp)
// ----------------------------------------------------------------

/// C x = b in memory. Matrix and b outlive it.
template <std::signed_integral Index>
class crs_system final : public linear_system {
  public:
    /// @throws fatal_error  when the matrix is no upper triangle of the order of b.
    crs_system(const crs_matrix<Index>& c, std::span<const double> b, logger& log);

    [[nodiscard]] std::int64_t size() const override { return c_.dim1; }
    [[nodiscard]] std::int64_t work_size() const override { return 0; }
    void atimesx(std::span<const double> x, std::span<double> r) override;
    void r_equal_b_minus_atimesx(std::span<const double> x, std::span<double> b,
                                 std::span<double> r) override;
    void r_equal_savedb_minus_atimesx(std::span<const double> x, std::span<double> r) override;
    bool read_savedb(std::span<double> b) override;

  private:
    crs_view<Index> c_;
    std::span<const double> b_;
};

/// The equations (from 1, ascending) that have no coefficient but zeros.
template <std::signed_integral Index>
[[nodiscard]] std::vector<std::int32_t> empty_equations(crs_view<Index> c);

// ---- preconditioners (modsolver_precond.cpp)
// ----------------------------------------------------------------------------

/// M of the diagonal blocks of a fixed size, the last one perhaps smaller. Blocks of size 1 are a vector of
/// reciprocals. Dependent equations of a block, those with a diagonal of zero among them, have zeros in M^-1.
class mija_lhs final : public linear_preconditioner {
  public:
    preconditioned_sums preconditionertimesx(std::span<double> y, std::span<const double> x) override;

    std::int64_t n = 0, block_size = 1;
    std::vector<double> inverse;  ///< block after block, each full and column-major
};
/// @throws fatal_error  for a block size below 1.
template <std::signed_integral Index>
[[nodiscard]] mija_lhs create_mija_lhs(const crs_matrix<Index>& c, std::int64_t block_size, logger& log);

/// M of one diagonal block for each effect. The first application factorises the blocks.
class mija_lhs_block final : public linear_preconditioner {
  public:
    preconditioned_sums preconditionertimesx(std::span<double> y, std::span<const double> x) override;
    /// The stored elements of the blocks, one block after the other, as "row column value" with the numbers
    /// of the equations in the whole system: upper triangles.
    /// @throws fatal_error  when the file cannot be written.
    void print(const std::filesystem::path& path, logger& log) const;

    std::vector<std::int32_t> first;  ///< first equation of each block
    std::vector<crssparse> block;     ///< as in the matrix until the first application, then its factors

  private:
    /// An equation whose pivot was dropped keeps the reciprocal of its diagonal.
    struct dependent_equation {
        std::int64_t equation;  ///< from 0
        double reciprocal;
    };
    void factorise();

    bool factorised_ = false;
    std::vector<dependent_equation> dependent_;
    std::vector<double> work_;
};
/// @param first  first equation of each effect, ascending from 1, and behind them the number of equations
///               plus 1; an effect without equations has no block.
/// @param most_elements  that a block may have.
/// @throws fatal_error  for a block with more elements, and for first equations that are none.
template <std::signed_integral Index>
[[nodiscard]] mija_lhs_block create_mija_lhs_block(
    const crs_matrix<Index>& c, std::span<const std::int64_t> first, logger& log,
    std::int64_t most_elements = std::numeric_limits<std::int32_t>::max() - 1);

// ---- solvers
// --------------------------------------------------------------------------------------------------

/// What all of them get.
struct inmem_arguments {
    param_type& param;                    ///< `solver.eigmin`, `eigmax` and `condnumber` are changed
    std::span<const double> b;            ///< right-hand side
    std::span<double> x;                  ///< starting values in, solutions out
    std::optional<equation_range> range;  ///< is told to the log, and nothing else
    std::span<const covariable_type> cov;
    logger& log;
};

/// Preconditioned conjugate gradients. Needs three vectors beside b and x.
/// @param first  empty: the diagonal is the preconditioner; else the blocks of `create_mija_lhs_block`, which
///               are also written to "mija_block.dat" when `printlhs` is set.
/// @throws fatal_error  as the solvers on data, and for matrices that are not as told above.
template <std::signed_integral Index>
solver_result solver_pcg_inmem(const crs_matrix<Index>& c, std::span<const std::int64_t> first,
                               const inmem_arguments& in);
/// The same with the flexible form of beta, for preconditioners that are not exactly the same in each
/// iteration. Needs one more vector.
template <std::signed_integral Index>
solver_result solver_fpcg_inmem(const crs_matrix<Index>& c, std::span<const std::int64_t> first,
                                const inmem_arguments& in);
/// Deflated, with two products an iteration, and the diagonal as preconditioner. Needs two more vectors
/// beside E^-1.
template <std::signed_integral Index>
solver_result solver_dpcg_inmem(const crs_matrix<Index>& c, const subdomains& z, const inmem_arguments& in);

}  // namespace zendar
