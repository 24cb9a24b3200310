#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modlinear.hpp"
#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modpartarray.hpp"
#include "modpedigree.hpp"
#include "modsparse_crs.hpp"
#include "modsparse_pages.hpp"
#include "modstructure.hpp"

/// The mixed model equations by iteration on data: C times a vector is computed from the records, the
/// pedigree and the genotypes, and C is never formed (Schaeffer and Kennedy, 1986; Stranden and Lidauer,
/// 1999).
namespace zendar {

class a22_inverse;

/// The correlated group that a random effect opens: one covariance block, repeated at every level.
/// Entry i of a block is (member k, covariable j, trait t), the trait fastest and the member slowest.
struct effect_group {
    std::int32_t effect = 0;             ///< the opener, from 1
    std::int32_t nmember = 0;            ///< effects of the group
    std::int64_t nlevel = 0;             ///< levels of each member; 1 for covariables that are not nested
    std::vector<std::int64_t> equation;  ///< per entry: its equation at level 1, from 0
    std::vector<std::int64_t> stride;    ///< per entry: equations from one level to the next
    matrix<double> ginv;                 ///< order x order; zero rows and columns for absent traits

    [[nodiscard]] std::int64_t order() const noexcept { return std::ssize(equation); }
    /// The equation, from 0, of entry i at a level, from 0.
    [[nodiscard]] std::int64_t at(std::int64_t i, std::int64_t level) const {
        return equation[static_cast<std::size_t>(i)] + level * stride[static_cast<std::size_t>(i)];
    }
};

/// The group of effect e (from 1), whose covariance block stands in `param.g[e - 1]`, inverted.
/// @throws fatal_error  when the levels of its members, or the order of its block, do not agree.
[[nodiscard]] effect_group make_effect_group(const param_type& param, std::int32_t e, logger& log);

namespace modmmeiod {

/// The stretch of records of one thread, 0-based, end behind the last.
struct record_block {
    std::int64_t first = 0, end = 0;
};

/// How the records of one effect are read by the record step; see modmmeiod_detail.hpp.
struct record_term;

struct record_input;
struct equation_bounds;
struct ls_kernel;
struct huge_effect;
struct equation_stretch;
struct external_terms;
class external_term;
class single_step_block;

/// The inverse residual matrices of all trait combinations and classes in one array.
struct residual_table {
    std::int32_t ntrait = 0, nclass = 0;
    std::vector<double> values;  ///< (t1, t2, class, combination)

    [[nodiscard]] const double* of(std::int32_t combination, std::int32_t residual_class) const {
        const std::int64_t k = (std::int64_t{combination} - 1) * nclass + residual_class - 1;
        return values.data() + k * ntrait * ntrait;
    }
};

/// The rows of a sparse matrix of relationships that each thread multiplies with.
struct sparse_parts {
    std::vector<std::int64_t> bounds;  ///< part p has the rows [bounds[p], bounds[p + 1]), from 0

    /// Values of the sums that the parts need for equations beyond their rows; `order` per level.
    [[nodiscard]] std::int64_t spill_size(std::int64_t order) const;
};

/// What the operator keeps for the iteration. One instance per run.
struct operator_state {
    std::int32_t loptimem = -9;                   ///< -9 until the set-up
    std::vector<std::int64_t> nrhscontributions;  ///< [e - 1]
    std::vector<effect_group> groups;             ///< openers of random effects with a covariance block
    std::vector<std::unique_ptr<crssparse>>
        asparse;                                 ///< [e - 1]: inverse relationship matrix, lower triangle
    std::vector<sparse_parts> parts;             ///< [e - 1]: of `asparse`
    std::vector<const pedigree_type*> pedigree;  ///< [e - 1]: null where there is none
    double weightupg = 0.0;                      ///< on the diagonal of random groups
    std::vector<std::unique_ptr<a22_inverse>> asparsesub;  ///< [e - 1]: of the types with a part of A22^-1
    double a22i_weight = 0.0;                              ///< of A22^-1: tau / beta - omega
    std::unique_ptr<external_terms> external;              ///< of the options that name matrices
    std::vector<huge_effect> huge;                         ///< one per huge effect
    std::vector<std::unique_ptr<single_step_block>> single_step;  ///< of the groups of type 22 and 30
    residual_table rinv;
    std::vector<record_term> terms;    ///< one per effect that the record step reads
    std::vector<record_block> blocks;  ///< one per thread
    /// (thread, effect), thread fastest; an array is allocated where threads meet in the same equations
    std::vector<part_array> residual;
    page_array<double> tmpvector;    ///< of the products with sparse matrices
    std::vector<double> tmpvector1;  ///< of the products with A22^-1 and external matrices
    std::vector<double> tmpvector2;  ///< of the products with huge effects

    operator_state();
    ~operator_state();
    operator_state(operator_state&&) noexcept;
    operator_state& operator=(operator_state&&) noexcept;
};

}  // namespace modmmeiod

/// C on the data.
class mme_iod final : public linear_system, public structured_operator {
  public:
    /// All arguments live as long as the operator. `data.phen` may be empty when "phentmp.stream" holds it.
    /// `ped` has one element per effect, or none when no effect has a pedigree; `ghuge` likewise: the inverse
    /// covariances of each group of huge effects, upper triangle, over the equations of the group.
    mme_iod(param_type& param, const phenotype_data& data, std::span<const covariable_type> cov, logger& log,
            std::span<const std::unique_ptr<pedigree_type>> ped = {},
            std::span<const std::unique_ptr<crssparse>> ghuge = {});
    ~mme_iod() override;

    /// Reads external matrices, inverts the residual matrices, prepares the random effects and chooses the
    /// least-squares kernel.
    void setup_lhsrhs_iod(std::int32_t loptimem);
    /// The same matrices without a kernel chosen: for an assembly of C in memory.
    void setup_for_lhs();
    /// Frees all that the set-up made.
    void clean_lhs_iod();

    [[nodiscard]] std::int64_t size() const override;
    void atimesx(std::span<const double> x, std::span<double> r) override;
    void r_equal_b_minus_atimesx(std::span<const double> x, std::span<double> b,
                                 std::span<double> r) override;
    void r_equal_savedb_minus_atimesx(std::span<const double> x, std::span<double> r) override;
    bool read_savedb(std::span<double> b) override;
    /// b, made from the records or read from the file that was provided, with the prior means; no copy is
    /// kept. Times are appended to the text. @param work  neq values
    void right_hand_side(std::span<double> b, std::span<double> work, std::string& text);
    [[nodiscard]] std::int64_t work_size() const override;

    [[nodiscard]] std::int64_t first_structured() const override;
    void atimesx_onlyhuge(matrix_view<const double> x, matrix_view<double> r) override;

    /// Makes Z x of the huge effects that the records meet.
    void compute_sumestimates(std::span<const double> x);
    /// r = Z' R^-1 Z x, by the kernel that was chosen. `compute_sumestimates` was called for this x.
    void computeleastsquarepart(std::span<const double> x, std::span<double> r);
    /// r += G^-1 x for all random effects. Steps that are timed are appended to the text.
    void computerandompart(std::span<const double> x, std::span<double> r, std::string& text);

    [[nodiscard]] const modmmeiod::operator_state& state() const { return state_; }
    [[nodiscard]] const param_type& param() const { return param_; }
    [[nodiscard]] const phenotype_data& data() const { return data_; }
    [[nodiscard]] std::span<const covariable_type> cov() const { return cov_; }
    [[nodiscard]] std::span<const std::unique_ptr<crssparse>> ghuge() const { return ghuge_; }
    /// The diagonal of what an SNP effect of random type 22 (from 1) has of A^-1; empty for other effects.
    [[nodiscard]] std::vector<double> diagonal_of_snps(std::int32_t e) const;

    /// What the record step reads, but for the vector.
    [[nodiscard]] modmmeiod::record_input records() const;

  private:
    void setup_matrices();
    [[nodiscard]] const modmmeiod::ls_kernel* kernel() const;
    /// Leaves the sums of huge effects pending. Stretches of r that are started are added to, not
    /// overwritten.
    void least_squares(const modmmeiod::record_input& in, std::span<double> r,
                       std::span<const modmmeiod::equation_stretch> started = {});
    /// Effects without a pedigree: r = (I kron G^-1) x in their stretches, which saves r's way to memory and
    /// back.
    [[nodiscard]] std::vector<modmmeiod::equation_stretch> set_random_diagonals(std::span<const double> x,
                                                                                std::span<double> r) const;
    [[nodiscard]] bool begins_with(const effect_group& group) const;
    /// The random part but for what r begins with.
    void add_random_part(std::span<const double> x, std::span<double> r, bool begun, std::string& text);
    void summarize(modmmeiod::huge_effect& huge, std::span<double> r);
    void summarize_all(std::span<double> r);
    void computerandompart_huge(std::span<const double> x, std::span<double> r, std::string& text);
    void atimesx_onlyhuge_onlymzrizm_1(std::span<const matrix<double>> zx,
                                       std::span<matrix<double>> sums) const;
    void setup_huge_effects();
    void setup_single_step(std::int32_t e);
    void check_type_23() const;
    void write_thread_effect(std::span<const modmmeiod::equation_bounds> bounds, std::int64_t nthread) const;
    void assign_computeleastsquare();
    void setleastsquarepart_full();
    void setup_random_effects();
    void check_external_terms() const;
    void computerandompart_external(const effect_group& group, std::span<const double> x, std::span<double> r,
                                    std::string& text);
    void addacrosseffectblock(std::span<const double> x, std::span<double> r, std::string& text);
    void setup_relationships(const effect_group& group);
    void allocate_tmpvectors();
    void setup_a22i(const effect_group& group, const pedigree_type& ped);
    void computerhs(std::span<double> b, std::string& text);
    void priormean(std::span<double> b, std::span<double> work, std::string& text);
    void finish_residual(std::span<const double> x, std::span<const double> b, std::span<double> r,
                         std::string& text);

    param_type& param_;
    const phenotype_data& data_;
    std::span<const covariable_type> cov_;
    std::span<const std::unique_ptr<pedigree_type>> ped_;
    std::span<const std::unique_ptr<crssparse>> ghuge_;
    logger& log_;
    modmmeiod::operator_state state_;
};

}  // namespace zendar
