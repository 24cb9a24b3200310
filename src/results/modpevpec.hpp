#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modsparse.hpp"
#include "modsparse_crs.hpp"
#include "modstructure.hpp"
#include "modview.hpp"

/// Prediction error variances (PEV) and covariances (PEC) from the left-hand side in memory, and what is
/// derived from them: PEV of aggregate solutions, variances and P-values of SNP effects.
namespace zendar {

// ---- the inverse (modpevpec_inverse.cpp) -----------------------------------------------------------------

/// The method of the run: "Harville" by `!harville` or by that word behind `REL`; "SPAINV" by the words
/// "SPAINV" and "1" and without a word; else the word itself, which `get_pec_inverse` refuses.
[[nodiscard]] std::string pec_method(const param_type& param);

/// Diagonal of the inverse of a left-hand side. Equations without elements have 0.
///
/// | type       | pev                                     | lhs afterwards                         |
/// |------------|-----------------------------------------|----------------------------------------|
/// | "SPAINV"   | exact; dependent equations are dropped  | the inverse on the pattern of its factor |
/// | "Harville" | estimate by 10,000 rounds of sampling   | sorted                                 |
///
/// @throws fatal_error  for another type, and for a matrix that is not positive semidefinite.
void get_pec_inverse(std::string_view type, crssparse& lhs, std::vector<double>& pev, logger& log);

/// C(rows, cols) of a symmetric upper-stored inverse.
/// @param rows, cols  equations, from 1.
/// @throws fatal_error  when one of these positions is not stored.
[[nodiscard]] matrix<double> extractpec_crssparse(const crssparse& inverse,
                                                  std::span<const std::int32_t> rows,
                                                  std::span<const std::int32_t> cols, logger& log);

// ---- aggregate PEV (modpevpec_corrected.cpp) -------------------------------------------------------------

/// What the PEV of aggregate solutions a + W g need of the inverse: the pairs of all SNPs of an animal
/// effect, and of these with the animals that have coefficients, trait by trait. Empty when nothing is
/// aggregated.
/// @throws fatal_error  for pairs that have no aggregate.
[[nodiscard]] std::vector<position_block> corrected_positions(const param_type& param,
                                                              std::span<const covariable_type> cov,
                                                              logger& log);

/// Turns the PEV of animal effects into those of the aggregates with their SNP effects, for the animals that
/// have coefficients: PEV(a) + w' C_gg w + 2 w' C_ga. The three terms go to "pev_init.dat", "pev_MZZM.dat"
/// and "pev_ZPEC.dat". Nothing happens in models without such pairs. SNP effects of type 30 are part of the
/// animal effect itself.
/// @param inverse  holds the positions of `corrected_positions`.
/// @param pev      the diagonal of the inverse in, the sum of the terms out.
///
/// Memory: the square of the number of SNPs, one trait after the other.
void computecorrectedpev(const param_type& param, std::span<const covariable_type> cov,
                         const crssparse& inverse, std::span<double> pev, logger& log);

/// The equation of level i and trait (slot) t of the class effect e receives values[index[i - 1] - 1], for
/// the levels 1 .. n whose index is not 0.
void updatepev1(const param_type& param, std::span<const double> values, std::span<const std::int32_t> index,
                std::int32_t e, std::int32_t t, std::int32_t n, std::span<double> target);
/// The same with twice the value.
void updatepev2(const param_type& param, std::span<const double> values, std::span<const std::int32_t> index,
                std::int32_t e, std::int32_t t, std::int32_t n, std::span<double> target);

// ---- SNP effects and their variances (modpevpec_snpeffects.cpp) ------------------------------------------

/// The genomic model of an effect.
struct snp_model_input {
    std::int32_t effect = 0;
    std::vector<std::int32_t> levels;  ///< of the genotyped animals, in the order of the genotypes
    covariable_type genotypes;         ///< animals x SNPs
    matrix<double> ginverse;           ///< in the same order
    double sum2pq = 0.0;
};

/// Reads the files of `!pvalue`: the inverse of G by levels of the effect, PLINK genotypes of the same
/// animals, and allele frequencies ("none": those of the genotypes).
/// @throws fatal_error  as the readers, and when sum(2pq) is 0.
[[nodiscard]] snp_model_input read_snp_model(const param_type& param, const pvalue_option& option,
                                             logger& log);

/// The equations, from 1, of levels of the class effect e for trait t.
/// @throws fatal_error  for a level or an equation that the model does not have.
[[nodiscard]] std::vector<std::int32_t> getindex(const param_type& param, std::int32_t e, std::int32_t t,
                                                 std::span<const std::int32_t> levels, logger& log);

/// What the variances need of the inverse: the pairs of all genotyped animals of each effect of `!pvalue`,
/// trait by trait. Reads the .fam files.
/// @throws fatal_error  for an effect without animals of that kind, and as the readers.
[[nodiscard]] std::vector<position_block> pvalue_positions(const param_type& param, logger& log);

/// The variance of trait t in the (co)variance matrix of the random effect e, which `param` holds inverted.
[[nodiscard]] double genetic_variance(const param_type& param, std::int32_t e, std::int32_t t);

/// The diagonal of Z' T Z.
/// @param t  animals x animals, symmetric; the lower triangle is read.
/// @throws fatal_error  for coefficients that are no PLINK genotypes.
///
/// 2 n^2 m operations for n animals and m SNPs, in blocks of SNPs.
[[nodiscard]] std::vector<double> compute_ztcz_snp(const covariable_type& z, matrix_view<const double> t,
                                                   logger& log);

/// Variances of the SNP effects of trait t: the diagonal of (alpha / sum2pq)^2 Z' (vg G^-1 - G^-1 C_gg G^-1)
/// Z, with vg the genetic variance and C_gg the PEC of the genotyped animals.
///
/// Gualdron Duarte et al. (2014), BMC Bioinformatics 15:246.
///
/// @param cgg  in the order of the genotypes.
[[nodiscard]] std::vector<double> get_var_hatsnp(const param_type& param, const snp_model_input& input,
                                                 std::int32_t t, matrix<double> cgg, logger& log);

// ---- P-values (modpevpec_pvalue.cpp) ---------------------------------------------------------------------

/// 2 (1 - cdf(|effect| / sqrt(variance))) of the standard normal distribution, in quadruple precision,
/// without cancellation: values down to the smallest double.
///
/// A variance of 0 gives 0, whatever the effect. A negative variance, by rounding or from the inverse of
/// another G, is no evidence: 1. A NaN gives a NaN.
[[nodiscard]] double pvalue_of(double effect, double variance);

/// SNP effects of one effect, their variances and P-values.
/// @param inverse  the inverse of the left-hand side, with the positions of `pvalue_positions`.
/// @param snpeffects, varhatsnp, pvalues  SNPs x traits, out.
/// @throws fatal_error  when these have other shapes.
void get_pvalue(const param_type& param, const snp_model_input& input, std::span<const double> solutions,
                const crssparse& inverse, matrix_view<double> snpeffects, matrix_view<double> varhatsnp,
                matrix_view<double> pvalues, logger& log);

/// Values of SNPs for one effect.
struct snp_columns {
    std::int32_t effect = 0;           ///< from 1
    std::int32_t ncov = 1;             ///< covariables of a level
    matrix_view<const double> values;  ///< SNPs x (covariable, trait), traits fastest
};
/// Writes rows "trait effect level covariable value" in the order of a solutions file: the SNP is the
/// covariable of level 0, or the level of an effect with several covariables.
/// @param columns  effects ascending.
void write_snp_values(std::int32_t ntrait, std::span<const snp_columns> columns, const std::string& file,
                      logger& log);
/// Writes columns of values of SNPs as rows "trait effect 0 SNP value", in the order of a solutions file.
/// @param effects  one for each `ntrait` columns.
void write_snp_values(std::int32_t ntrait, std::span<const std::int32_t> effects,
                      matrix_view<const double> values, const std::string& file, logger& log);

}  // namespace zendar
