#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "modmmeiod.hpp"
#include "modmmeiod_a22i.hpp"
#include "modstructure_external.hpp"

/// What matrices that were prepared beforehand add to the equations of random effects.
namespace zendar::modmmeiod {

/// Weights of A22^-1 and Ta' Ta in tau G^-1 - omega A22^-1 with G^-1 = A22^-1 / beta - Ta' Ta.
struct ta_weights {
    double tau = 1.0, beta = 0.05, omega = 1.0;
    [[nodiscard]] double a22i() const { return tau / beta - omega; }
};

/// K in (K kron G0^-1) x, on the levels that it names of a group with the covariances G0.
class external_term {
  public:
    external_term() = default;
    external_term(const external_term&) = delete;
    external_term& operator=(const external_term&) = delete;
    virtual ~external_term() = default;

    /// In the line of times.
    [[nodiscard]] virtual std::string_view label() const = 0;
    /// Logged before its addition to the preconditioner, and behind it with the number of levels.
    [[nodiscard]] virtual std::string_view precond_text() const = 0;
    [[nodiscard]] virtual std::string_view precond_count_text() const = 0;
    /// Rows of K, from level 1.
    [[nodiscard]] virtual std::span<const std::int32_t> levels() const = 0;
    /// Values that `timesx` needs for a number of columns.
    [[nodiscard]] virtual std::int64_t work_size(std::int64_t) const { return 0; }
    /// out = K in, a row for each level; they do not overlap.
    virtual void timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                        logger& log) = 0;
    /// Whether K depends on omega.
    [[nodiscard]] virtual bool takes_omega() const { return true; }
    /// What the preconditioner takes of the diagonal of K; that of A22^-1 is estimated.
    [[nodiscard]] virtual std::vector<double> diagonal(logger& log) = 0;
    /// K itself where it stands as it is; otherwise null.
    [[nodiscard]] virtual const external_matrix* elements() const { return nullptr; }

    [[nodiscard]] std::int64_t size() const { return std::ssize(levels()); }
};

/// Where a term belongs.
struct effect_term {
    std::int32_t effect = 0;  ///< opener of the group, from 1
    std::unique_ptr<external_term> term;
};

/// A symmetric matrix as it stands.
class symmetric_term : public external_term {
  public:
    explicit symmetric_term(gima22i_type matrix) : matrix_(std::move(matrix)) {}

    [[nodiscard]] std::string_view precond_count_text() const override {
        return "   Number of elements added to the preconditioner: ";
    }
    [[nodiscard]] std::span<const std::int32_t> levels() const override { return matrix_.levels.level; }
    /// Dense: 8 n^2 bytes, and 2 n^2 flops a column.
    void timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                logger& log) override;
    [[nodiscard]] bool takes_omega() const override { return false; }
    [[nodiscard]] std::vector<double> diagonal(logger& log) override;
    [[nodiscard]] const external_matrix* elements() const override { return &matrix_.elements; }

  private:
    gima22i_type matrix_;
};

/// G^-1 - A22^-1, or any other difference that stands in the file (Aguilar et al., 2010).
class gima22i_term final : public symmetric_term {
  public:
    using symmetric_term::symmetric_term;
    [[nodiscard]] std::string_view label() const override { return "G-1-A22-1 * x : "; }
    [[nodiscard]] std::string_view precond_text() const override {
        return "Addition of Gi-A22i to preconditioner";
    }
};

/// The transformation of groups of unknown parents (Quaas and Pollak, 1981; Misztal et al., 2013).
class qptransfo_term final : public symmetric_term {
  public:
    using symmetric_term::symmetric_term;
    [[nodiscard]] std::string_view label() const override { return "QP transfo * x          : "; }
    [[nodiscard]] std::string_view precond_text() const override {
        return "Addition of QP transformation to preconditioner";
    }
};

/// tau G_APY^-1 - omega A22^-1, the inverse of the relationships being dense among core animals and between
/// these and the others only (Misztal et al., 2014).
class gapy_term final : public external_term {
  public:
    /// @param a22i  over the levels of the matrix; null for omega = 0
    gapy_term(apy matrix, std::unique_ptr<a22_inverse> a22i, double tau, double omega)
        : matrix_(std::move(matrix)), a22i_(std::move(a22i)), tau_(tau), omega_(omega) {}

    [[nodiscard]] std::string_view label() const override { return "GAPY * x                : "; }
    [[nodiscard]] std::string_view precond_text() const override {
        return "Addition of GAPY-A22-1 to preconditioner";
    }
    [[nodiscard]] std::string_view precond_count_text() const override {
        return "    Number of elements for the core and non-core animals added to the preconditioner: ";
    }
    [[nodiscard]] std::span<const std::int32_t> levels() const override { return matrix_.levels.level; }
    [[nodiscard]] std::int64_t work_size(std::int64_t columns) const override {
        return a22i_ ? a22i_->work_size(columns) : 0;
    }
    void timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                logger& log) override;
    [[nodiscard]] std::vector<double> diagonal(logger& log) override;

  private:
    apy matrix_;
    std::unique_ptr<a22_inverse> a22i_;
    double tau_, omega_;
};

/// (tau / beta - omega) A22^-1 - tau Ta' Ta with Ta = (1 / beta) L^-1 W' A22^-1, W the centred genotypes and
/// L L' = (1 / beta) W' A22^-1 W + (s / alpha) I (Mantysaari et al., 2017).
class ta_term : public external_term {
  public:
    /// The number of SNPs.
    [[nodiscard]] virtual std::int64_t nsnp() const = 0;
    /// L where the term holds it; otherwise null.
    [[nodiscard]] virtual const densesquare_type* factor() const { return nullptr; }
    /// out = Ta in, a row for each SNP.
    virtual void ta_timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                           logger& log) = 0;
};

/// With Ta itself.
class tamatrix_term final : public ta_term {
  public:
    /// @param a22i   over the levels of Ta; null when its weight is 0
    /// @param block  SNPs that one product takes; 0: all
    tamatrix_term(tamatrix_type ta, std::unique_ptr<a22_inverse> a22i, ta_weights w, std::int64_t block);

    [[nodiscard]] std::string_view label() const override { return "Ta matrix * x           : "; }
    [[nodiscard]] std::string_view precond_text() const override {
        return "Addition of Tamatrix-A22-1 to preconditioner";
    }
    [[nodiscard]] std::string_view precond_count_text() const override {
        return "    Number of elements for the genotyped animals added to the preconditioner: ";
    }
    [[nodiscard]] std::span<const std::int32_t> levels() const override { return ta_.levels.level; }
    [[nodiscard]] std::int64_t work_size(std::int64_t columns) const override;
    void timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                logger& log) override;
    [[nodiscard]] std::vector<double> diagonal(logger& log) override;
    [[nodiscard]] std::int64_t nsnp() const override { return ta_.value.rows(); }
    void ta_timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                   logger& log) override;

  private:
    tamatrix_type ta_;
    std::unique_ptr<a22_inverse> a22i_;
    ta_weights weights_;
    std::int64_t block_;
};

/// `!tageno`: the genotypes of some levels and the factor L.
struct taplink_type {
    covariable_type genotypes;         ///< W, centred in its products
    std::vector<std::int32_t> levels;  ///< of the rows of W
    densesquare_type l;                ///< SNPs x SNPs, of which the lower triangle is used
};

/// By the components of Ta.
class taplink_term final : public ta_term {
  public:
    /// @param a22i  over the levels of the genotypes
    taplink_term(taplink_type link, std::unique_ptr<a22_inverse> a22i, ta_weights w)
        : link_(std::move(link)), a22i_(std::move(a22i)), weights_(w) {}

    [[nodiscard]] std::string_view label() const override { return "Ta geno matrix * x      : "; }
    [[nodiscard]] std::string_view precond_text() const override {
        return "Addition of (tau/beta-omega)*A22-1 to preconditioner";
    }
    [[nodiscard]] std::string_view precond_count_text() const override {
        return "    Number of elements for the genotyped animals added to the preconditioner: ";
    }
    [[nodiscard]] std::span<const std::int32_t> levels() const override { return link_.levels; }
    [[nodiscard]] std::int64_t work_size(std::int64_t columns) const override;
    void timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                logger& log) override;
    [[nodiscard]] std::vector<double> diagonal(logger& log) override;
    [[nodiscard]] std::int64_t nsnp() const override { return link_.l.n; }
    [[nodiscard]] const densesquare_type* factor() const override { return &link_.l; }
    void ta_timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                   logger& log) override;

  private:
    taplink_type link_;
    std::unique_ptr<a22_inverse> a22i_;
    ta_weights weights_;
};

/// The block B between two effects, trait by trait and covariable by covariable, without covariances:
/// r1 += B x2, r2 += B' x1.
class across_term {
  public:
    /// @throws fatal_error  when the effects have different numbers of covariables, or the same equations.
    across_term(const param_type& param, across_block block, logger& log);

    [[nodiscard]] std::int32_t effect1() const { return block_.effect1; }
    [[nodiscard]] std::int32_t effect2() const { return block_.effect2; }
    [[nodiscard]] std::int64_t work_size() const;
    /// @param first  equations before the first one of x and r; both effects lie behind
    void timesx(std::span<const double> x, std::span<double> r, std::int64_t first,
                std::span<double> work) const;
    /// visit(equation1, equation2, value) for all its elements that are not zero, equations from 0.
    template <class Visit>
    void for_each_element(const Visit& visit) const {
        for (std::int64_t j = 0; j < block_.columns.size(); ++j)
            for (std::int64_t i = 0; i < block_.rows.size(); ++i)
                if (const double value = block_.elements.value(i, j); value != 0.0)
                    for (std::size_t c = 0; c < offset1_.size(); ++c)
                        visit(equation(offset1_, stride1_, block_.rows, i, c),
                              equation(offset2_, stride2_, block_.columns, j, c), value);
    }

  private:
    [[nodiscard]] static std::int64_t equation(const std::vector<std::int64_t>& offset, std::int64_t stride,
                                               const matrix_levels& levels, std::int64_t i, std::size_t c) {
        return offset[c] + (levels.level[static_cast<std::size_t>(i)] - 1) * stride;
    }

    across_block block_;
    std::vector<std::int64_t> offset1_, offset2_;  ///< equation at level 1 per column that both effects have
    std::int64_t stride1_ = 0, stride2_ = 0;       ///< equations from one level to the next
};

/// r += (K kron G0^-1) x. @param work  external_work_size() values
void addrandompart_external_timesx(const effect_group& group, external_term& term, std::span<double> work,
                                   std::span<const double> x, std::span<double> r, logger& log);
[[nodiscard]] std::int64_t external_work_size(const effect_group& group, const external_term& term);

/// SNP effects from the solutions of a group: L'^-1 Ta u, which is alpha / s W' G^-1 u. A column for each
/// entry of a block of the group.
/// @param l           L; its lower triangle is read.
/// @param snpeffects  SNPs x group.order(), out.
void compute_snpeffects_ta(const effect_group& group, ta_term& term, matrix_view<const double> l,
                           std::span<const double> solutions, matrix_view<double> snpeffects, logger& log);

/// The matrices of all options as their files hold them, each with its effect.
struct external_matrices {
    template <class Matrix>
    struct of_effect {
        std::int32_t effect;
        Matrix matrix;
    };
    std::vector<of_effect<gima22i_type>> gima22i, qptransfo;
    std::vector<of_effect<apy>> gapy;
    std::vector<of_effect<tamatrix_type>> tamatrix;
    std::vector<of_effect<taplink_type>> taplink;
    std::vector<across_block> acrosseff;
};
/// @throws fatal_error  for an option that its effect cannot have, for numbers of SNPs that differ, and as
/// the readers.
[[nodiscard]] external_matrices read_external_matrices(const param_type& param, logger& log);

/// The terms by effect, in the order of their addition, and the blocks across effects.
struct external_terms {
    std::vector<effect_term> terms;
    std::vector<across_term> across;
};
/// Makes A22^-1 of the terms that hold it.
/// @param ped  one per effect, or none
/// @throws fatal_error  for levels that are no animals of a pedigree, and for an L that belongs to other
/// genotypes.
[[nodiscard]] external_terms make_external_terms(external_matrices matrices, const param_type& param,
                                                 std::span<const std::unique_ptr<pedigree_type>> ped,
                                                 logger& log);

}  // namespace zendar::modmmeiod
