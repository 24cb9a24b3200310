#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "modlinear.hpp"
#include "modlogger.hpp"
#include "modmmeiod.hpp"
#include "modparameters.hpp"
#include "modsparse_coo.hpp"
#include "modsparse_crs.hpp"
#include "modstructure.hpp"

/// The preconditioner of the iteration on data: parts of the coefficient matrix, chosen effect by effect,
/// which are assembled from the records and the random effects, inverted or factorised once, and applied in
/// each iteration.
namespace zendar {

// Structure codes. The code with the opposite sign marks the effects that follow the opener of a group.
inline constexpr std::int32_t precond_none = 0;      ///< the effect shares the equations of another one
inline constexpr std::int32_t precond_diagonal = 1;  ///< d
inline constexpr std::int32_t precond_block = 2;     ///< b: one block per level
inline constexpr std::int32_t precond_dense = 3;     ///< f: assembled dense, then sparse
inline constexpr std::int32_t precond_whole = 4;     ///< w: one matrix for the effect
inline constexpr std::int32_t precond_sparse = 5;    ///< s
inline constexpr std::int32_t precond_auto = 6;      ///< as s, chosen by `autoprecond`
inline constexpr std::int32_t precond_reorder = 7;   ///< r: a group reordered by level, one block per level

/// The largest order of a dense matrix, codes 3 and 4.
inline constexpr std::int32_t max_precond_dense = 20000;
/// Sparse matrices above this dimension are factorised in their own order.
inline constexpr std::int32_t max_precond_ordering = 5000000;

/// A stretch of the equations that the block of a level is made of: `length` equations from `first` (from 0)
/// at level 1, `stride` equations on at the next level.
struct block_stretch {
    std::int64_t first = 0, length = 0, stride = 0;
    bool operator==(const block_stretch&) const = default;
};

/// The part of the preconditioner that one effect opens.
///
/// Diagonals and blocks are in single precision, which halves the memory that each application reads; all
/// products are in double.
struct mija {
    std::int32_t type = precond_none;
    /// d: equations, 1, 1; b, r: order, order, levels; the others: equations, equations, 1. Zero for
    /// followers.
    std::int32_t dim1 = 0, dim2 = 0, dim3 = 0;
    std::int32_t first = 0, last = 0;  ///< equations of the group, from 1
    std::int32_t firsteffect = 0,
                 lasteffect = 0;  ///< effects of the group, from 1; 0 where there is no group
    std::vector<float> mat;       ///< d
    /// b, r: per level the upper triangle by columns, dim1 * (dim1 + 1) / 2 elements.
    std::vector<float> block;
    std::vector<block_stretch> stretches;  ///< b, r: the equations of the block of a level
    matrix<double> dense;                  ///< f: lower triangle, then its Cholesky factor
    std::vector<double> w;                 ///< w: upper triangle by columns
    crssparse sparse;                      ///< s, a: upper triangle, then its factors
    std::vector<std::int32_t> perm;        ///< r: equation of the group at each place of the blocks, from 1
};

namespace modpreconditioneriod {

// ---- structure (modpreconditioneriod_structure.cpp)
// -------------------------------------------------------------

/// Sets codes, effects and equations of all effects from the defaults of their types, `autoprecond`, and the
/// letters of `!structprecond`. Nothing else is allocated.
/// @throws fatal_error  for unknown types and letters, and for groups that contradict each other.
[[nodiscard]] std::vector<mija> setstructure_to_preconditioner(const param_type& param, logger& log);

/// Merges runs of consecutive fixed effects to groups of code 6 where these stay small.
void autoprecond(const param_type& param, std::span<mija> mija_global);

/// For the group of code 7 that effect e opens: which equation of the group stands at each place when those
/// of a level are gathered. Fills `perm`, `stretches` and the three dimensions.
/// @throws fatal_error  when its effects differ in their number of levels.
void setordering(const param_type& param, std::int32_t e, std::span<mija> mija_global, logger& log);

/// Logs the size of each part.
/// @throws fatal_error  for an unknown code.
void stats_mija_lhs(const param_type& param, std::span<const mija> mija_global, logger& log);

// ---- assembly (modpreconditioneriod_assemble.cpp, _records.cpp, _random.cpp, _random_external.cpp)
// --------------

/// What the preconditioner is made from.
struct precond_input {
    const param_type& param;
    const phenotype_data& data;
    std::span<const covariable_type> cov;
    const modmmeiod::residual_table& rinv;
    std::span<const effect_group> groups;                 ///< one per random effect with a covariance block
    std::span<const std::unique_ptr<crssparse>> asparse;  ///< [e - 1], of the types that have one
    std::span<const pedigree_type* const> pedigree = {};  ///< [e - 1], null where there is none
    std::span<const std::unique_ptr<a22_inverse>> asparsesub = {};  ///< [e - 1], likewise
    double a22i_weight = 0.0;                                       ///< of A22^-1
    std::span<const std::unique_ptr<crssparse>> ghuge =
        {};  ///< [e - 1], of each first huge effect of a group
    std::span<const std::unique_ptr<modmmeiod::single_step_block>> single_step = {};
    std::span<const std::vector<double>> diagmaaam = {};  ///< per huge effect; empty where it is not computed
    const modmmeiod::external_terms* external = nullptr;  ///< null for none
};

/// The groups' matrices in assembly, [e - 1]; their indices are relative to the group's first equation.
using cootmp_type = std::vector<coosparse>;

/// The least-squares part, in one pass over the records. The sums of a level are made in the order of the
/// records, whatever the number of threads.
void addleastsquarepart_to_preconditioner(const precond_input& in, std::span<mija> mija_global,
                                          cootmp_type& cootmp, logger& log);

/// The same for huge effects, whose SNPs are their levels.
void addleastsquarepart_huge_to_preconditioner(const precond_input& in, std::span<mija> mija_global,
                                               cootmp_type& cootmp, logger& log);

/// The random part of all effects.
/// @throws fatal_error  for a random type, or a structure code of one, that is not implemented.
void addrandompart_to_preconditioner(const precond_input& in, std::span<mija> mija_global,
                                     cootmp_type& cootmp, logger& log);

/// Lifts the diagonal of the fixed effects of a sparse group by 1e-4 of itself: with them it may be singular.
void ensure_pdmat(const param_type& param, std::span<const mija> mija_global, coosparse& cootmp,
                  std::int32_t e);

/// Structure, assembly and conversion: what is inverted after it. The levels of the records are checked
/// first.
[[nodiscard]] std::vector<mija> assemble_mija_lhs(const precond_input& in, logger& log);

/// The elements of a group of code 7 that stand within a level, as the blocks of `setordering`.
/// @throws fatal_error  for an element outside the group.
void convert_coo_to_dense(const coosparse& cootmp, mija& group, logger& log);

// ---- inversion (modpreconditioneriod_invert.cpp)
// ----------------------------------------------------------------

/// Inverts or factorises all parts. A zero on a diagonal stays zero.
/// @throws fatal_error  for an unknown code, and for elements that are not finite.
void invertpreconditioner(const param_type& param, std::span<mija> mija_global, logger& log);

/// Replaces every block by its generalised inverse, in which an equation that depends on those before it has
/// the inverse of its diagonal element. Levels in parallel.
/// @returns the first level (from 1) whose block, or inverse, is not finite in single precision; 0 for none.
std::int64_t invertpreconditioner_block(mija& part);

// ---- application (modpreconditioneriod_apply.cpp)
// ---------------------------------------------------------------

/// y = M^-1 x; y is overwritten. Both have one element per equation and do not overlap. `work` is for sparse
/// groups, and kept from call to call.
/// Moves 16 bytes an equation, and of each part what it holds.
/// @throws fatal_error  for an unknown code.
preconditioned_sums preconditionertimesx(std::span<double> y, std::span<const mija> mija_global,
                                         std::span<const double> x, std::vector<double>& work, logger& log);

/// The products of all levels of a part whose equations are contiguous. Levels in parallel.
preconditioned_sums preconditionertimesx_block(std::span<double> y, const mija& part,
                                               std::span<const double> x);

/// The same for a part whose blocks gather their equations from several stretches.
preconditioned_sums preconditionertimesx_block_index(std::span<double> y, const mija& part,
                                                     std::span<const double> x);

// ---- files (modpreconditioneriod_print.cpp)
// ---------------------------------------------------------------------

/// Writes the diagonal of the preconditioner, as it is now, to the output directory: per effect a line that
/// says what follows, then lines "equation value". A sparse group stands in a file of its own, "crs_" and the
/// number of its effect, which is written unless it holds factors by now.
void printprecondiag(const param_type& param, std::span<const mija> mija_global, std::string_view name,
                     logger& log);

}  // namespace modpreconditioneriod

/// M^-1.
class preconditioner final : public linear_preconditioner {
  public:
    preconditioner(std::vector<mija> mija_global, logger& log)
        : mija_global_(std::move(mija_global)), log_(log) {}

    /// Logs the elapsed time.
    preconditioned_sums preconditionertimesx(std::span<double> y, std::span<const double> x) override {
        return modpreconditioneriod::preconditionertimesx(y, mija_global_, x, work_, log_);
    }
    [[nodiscard]] std::span<const mija> mija_global() const noexcept { return mija_global_; }

  private:
    std::vector<mija> mija_global_;  ///< [e - 1]
    std::vector<double> work_;       ///< as long as the largest sparse group
    logger& log_;
};

namespace modpreconditioneriod {

/// Assembly, scaling by `!scaleinvprec`, inversion, and the files of `!printprecond`.
[[nodiscard]] preconditioner create_mija_lhs(const precond_input& in, logger& log);
/// The same after the operator's set-up, with what it keeps.
[[nodiscard]] preconditioner create_mija_lhs(const mme_iod& mme, logger& log,
                                             std::span<const std::vector<double>> diagmaaam = {});

}  // namespace modpreconditioneriod

}  // namespace zendar
