#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "modmmeiod.hpp"
#include "modmmeiod_a22i.hpp"

/// Huge effects: their coefficients, mostly genotypes, are never expanded by records. Products with the whole
/// matrix take their place.
namespace zendar::modmmeiod {

/// What one product needs of a huge effect. Both vectors are trait by row of coefficients, traits fastest,
/// and empty for an effect that records do not meet.
struct huge_effect {
    std::int32_t effect = 0;           ///< from 1
    std::int64_t nrow = 0, ncov = 0;   ///< of its coefficients
    std::int64_t first = 0;            ///< equations before the effect
    std::vector<double> sumestimates;  ///< Z x
    std::vector<double> res_edhc;  ///< sums over the records of each row, then what else Z' is to multiply
    bool pending = false;          ///< `res_edhc` has sums that r has not got yet
};

/// The huge effects of a model, in their order.
[[nodiscard]] std::vector<huge_effect> make_huge_effects(const param_type& param,
                                                         std::span<const covariable_type> cov, logger& log);

/// Whether records meet the huge effect e (from 1).
[[nodiscard]] bool has_records(const param_type& param, std::int32_t e);

/// sumestimates = Z x. @param work  huge_work_size() values
void compute_sumestimates(huge_effect& huge, std::int32_t ntrait, const covariable_type& cov,
                          std::span<const double> x, std::span<double> work, logger& log);
/// r += Z' res_edhc at the equations of the effect.
void summarize_sumestimates(huge_effect& huge, std::int32_t ntrait, const covariable_type& cov,
                            std::span<double> work, std::span<double> r, logger& log);
[[nodiscard]] std::int64_t huge_work_size(const huge_effect& huge, std::int32_t ntrait);

/// The SNP effects of one group, random type 22 or 30, with the animal effects they are linked to: what
/// couples them beside the records and the covariances of their own.
///
/// With W the centred genotypes, A22 the relationships of the genotyped animals, G0 the covariances of the
/// animal effects, and everything times G0^-1:
///
/// Type 30 (Liu et al., 2014): the animal effect u holds all of the breeding value, and
///   u gets (tau / beta) A22^-1 (u - W g) - omega A22^-1 u,  g gets -(tau / beta) W' A22^-1 (u - W g).
///
/// Type 22: the animal effect of a genotyped animal is what is left beside W g, and omega is 1. With v = a +
/// W g for these animals, v = u for the others and q = A^-1 v - A22^-1 v (the latter among the genotyped),
///   u gets q,  a gets q + (tau / beta) A22^-1 a,  g gets W' q;
/// A^-1 (u, a) of it is the animal effect's own.
///
/// Both have the breeding values of the single-step model with H^-1 = A^-1 + tau G^-1 - omega A22^-1 (Aguilar
/// et al., 2010) and G = alpha W W' / s + beta A22.
class single_step_block {
  public:
    /// @param e        first SNP effect of the group
    /// @param animals  the group of the animal effects, whose members the SNP effects are linked to, each
    /// once
    /// @param asparse  A^-1 of the animal effect, for type 22
    single_step_block(const param_type& param, std::int32_t e, const effect_group& animals,
                      const pedigree_type& ped, const crssparse* asparse,
                      std::span<const covariable_type> cov, logger& log);

    [[nodiscard]] std::int32_t effect() const { return effect_; }
    [[nodiscard]] const effect_group& animals() const { return animals_; }
    /// G0^-1 between the SNP effects of the group, by effect and trait, traits fastest.
    [[nodiscard]] matrix<double> ginv_of_snps() const;
    /// out = A22^-1 in for type 30, (A^22 - A22^-1) in for type 22, with A^22 of all animals: what stands
    /// between the genotypes in the equations of SNP effects, but for tau / beta of type 30. A row for each
    /// genotyped animal.
    void between_genotypes(matrix_view<const double> in, matrix_view<double> out);
    /// sums += what stands between the genotypes, times G0^-1, times zx: both per SNP effect of the group,
    /// genotyped animals x (trait, vector), traits fastest.
    void add_between_snps(std::span<const matrix<double>> zx, std::span<matrix<double>> sums);
    /// The animals (levels from 1) whose equations reach those of SNPs: the genotyped ones for type 30, those
    /// beside them in A^-1 as well for type 22.
    [[nodiscard]] std::span<const std::int32_t> coupled_animals() const {
        return type_ == 22 ? std::span<const std::int32_t>(neighbours_) : a22i_.levels();
    }
    /// What stands between these animals and some SNPs, but for G0^-1: out has a row for each coupled animal.
    /// @param snps  the coefficients of the SNPs, a row for each genotyped animal
    void animals_times_snps(matrix_view<const double> snps, matrix_view<double> out);
    /// The entry, in a block of the animal effects, of an SNP effect (from 1) and trait (from 0).
    [[nodiscard]] std::int64_t entry(std::int32_t e, std::int64_t trait) const;
    /// Weight of A22^-1 among the animal effects.
    [[nodiscard]] double animal_weight() const { return tau_by_beta_ - omega_; }
    [[nodiscard]] double tau_by_beta() const { return tau_by_beta_; }
    /// Diagonal of A^-1 of the genotyped animals, for type 22.
    [[nodiscard]] std::vector<double> diagonal_of_ainv() const;
    [[nodiscard]] a22_inverse& a22i() { return a22i_; }
    [[nodiscard]] std::int64_t bytes() const;

    /// r += the above. `huge` are the effects of the group: `sumestimates` of a type 22 holds W g, and what
    /// W' is to multiply is added to its `res_edhc`.
    void timesx(std::span<huge_effect> huge, std::span<const double> x, std::span<double> r,
                std::string& text, logger& log);

  private:
    struct member {
        std::int32_t effect;              ///< the SNP effect
        std::int64_t first, ncov;         ///< its equations
        std::vector<std::int64_t> entry;  ///< per trait: its entry in a block of the animal effects, from 0
    };

    void timesx_liu(std::span<const double> x, std::span<double> r, std::string& text, logger& log);
    void timesx_difference(std::span<huge_effect> huge, std::span<const double> x, std::span<double> r,
                           std::string& text);
    void find_neighbours(const crssparse& asparse);
    void apply_a22i(std::string& text);
    [[nodiscard]] matrix_view<double> columns(std::vector<double>& of, std::int64_t first,
                                              std::int64_t n) const;

    std::int32_t effect_, type_, ntrait_;
    double tau_by_beta_, omega_;
    const effect_group& animals_;
    std::span<const covariable_type> cov_;
    std::vector<member> members_;
    a22_inverse a22i_;
    crssparse beside_;                      ///< rows of A^-1 of the genotyped animals, columns as listed
    std::vector<std::int32_t> neighbours_;  ///< levels of these columns
    std::vector<std::int32_t> place_;       ///< column of each genotyped animal, from 0
    std::vector<double> in_, out_, work_, around_, product_;
};

}  // namespace zendar::modmmeiod

namespace zendar {

/// diag(M A22^-1 M') for type 30, with M' the coefficients of an SNP effect of the block.
[[nodiscard]] std::vector<double> computema22mina21a11ia12m_all(const covariable_type& cov,
                                                                modmmeiod::single_step_block& block,
                                                                logger& log);
/// The whole matrix; SNPs x SNPs.
[[nodiscard]] matrix<double> computema22mina21a11ia12m_all_mat(const covariable_type& cov,
                                                               modmmeiod::single_step_block& block,
                                                               logger& log);
[[nodiscard]] matrix<double> computema22pa21a11ia12m_all_mat(const covariable_type& cov,
                                                             modmmeiod::single_step_block& block,
                                                             logger& log);
/// diag(M (A^22 - A22^-1) M') for type 22, with A^22 of all animals.
[[nodiscard]] std::vector<double> computema22pa21a11ia12m_all(const covariable_type& cov,
                                                              modmmeiod::single_step_block& block,
                                                              logger& log);

}  // namespace zendar
