#include <algorithm>
#include <cassert>
#include <utility>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modenum.hpp"
#include "modfile.hpp"
#include "modmatop.hpp"
#include "modparameters_utils.hpp"
#include "modpevpec.hpp"
#include "modstructure_product.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modpevpec";

std::int32_t slot_of(const param_type& param, std::int32_t t, std::int32_t e) {
    return param.lcombieff ? param.combieff_trait(t - 1, e - 1) : t;
}

/// The effect that opens the correlated group of effect e; 0 when e is in none.
std::int32_t group_of(const param_type& param, std::int32_t e) {
    for (std::int32_t first = e; first >= 1; --first)
        if (param.n_correlated[first - 1] >= 0) return first + param.n_correlated[first - 1] >= e ? first : 0;
    return 0;
}

void check_effect(const param_type& param, std::int32_t e, logger& log) {
    const std::int32_t first = e >= 1 && e <= param.neffect ? group_of(param, e) : 0;
    const bool has_variance = first > 0 && param.g[first - 1].rows() > 0;
    if (!has_variance || param.type_effect[e - 1] != teff_class)
        fatal(log,
              "The option !pvalue needs a random class effect, which the effect " + inttochar(e) + " is not",
              module_tag, "getindex");
}

std::int32_t count_snps(const std::string& bim, logger& log) {
    text_reader input;
    std::int64_t count = 0;
    auto failure = input.open(bim);
    while (!failure) {
        const auto line = input.line();
        if (!line) break;
        if (!trim(*line).empty()) ++count;
    }
    if (!failure) failure = input.error();
    if (failure)
        fatal_io(log, "The file " + bim + " cannot be read", module_tag, "compute_pvalue", failure->iostat,
                 failure->iomsg);
    return narrow<std::int32_t>(count);
}

/// The genotypes as a huge effect of the same number, which is all that the reader looks at.
covariable_type read_genotypes(const param_type& param, const pvalue_option& option, const std::string& stem,
                               logger& log) {
    const auto n = static_cast<std::size_t>(option.effect);
    param_type model;
    model.neffect = option.effect;
    model.ntrait = param.ntrait;
    model.cov_file.assign(n, "none");
    model.n_level.assign(n, 0);
    model.n_cov.assign(n, 0);
    model.type_effect.assign(n, teff_huge);
    model.allelefreq.assign(n, option.allelefreqfile);
    model.cov_file.back() = stem + ".bed";
    model.n_level.back() = param.n_level[n - 1];

    log.message("Read allele freq. file");
    check_plinkfiles(stem, log);
    model.n_cov.back() = count_snps(stem + ".bim", log);
    log.message("Number of SNPs: " + inttochar(model.n_cov.back()));
    log.message("Read SNP genotype file");
    covariable_type genotypes;
    readcovariable_bed(genotypes, model, option.effect, 0, log);
    return genotypes;
}

std::string stem_of(const std::string& file) {
    std::string stem(trim(file));
    if (stem.ends_with(".bed")) stem.resize(stem.size() - 4);
    return stem;
}

}  // namespace

snp_model_input read_snp_model(const param_type& param, const pvalue_option& option, logger& log) {
    check_effect(param, option.effect, log);
    snp_model_input input;
    input.effect = option.effect;
    const std::string stem = stem_of(option.genotypefile);
    const std::int32_t n_level = param.n_level[option.effect - 1];
    // The animals of the genotypes are the ones that the G inverse is checked against.
    input.levels = read_plink_levels(stem, option.effect, n_level, log);
    std::vector<std::int32_t> sorted = input.levels;
    std::ranges::sort(sorted);
    if (const auto twice = std::ranges::adjacent_find(sorted); twice != sorted.end())
        fatal(log,
              "The file " + stem + ".fam is not correct: the individual " + inttochar(*twice) +
                  " stands in two lines",
              module_tag, "compute_pvalue");
    log.message("Read G inverse file");
    input.ginverse = readginverse(option.gifile, input.levels, n_level, log);
    input.genotypes = read_genotypes(param, option, stem, log);
    for (const double p : input.genotypes.allelefreq) input.sum2pq += 2.0 * p * (1.0 - p);
    if (!(input.sum2pq > 0.0))
        fatal(log,
              "The sum of 2pq of the genotypes " + stem +
                  " is not above 0: " + realtochar(input.sum2pq, "(g0.5)"),
              module_tag, "compute_pvalue");
    return input;
}

std::vector<std::int32_t> getindex(const param_type& param, std::int32_t e, std::int32_t t,
                                   std::span<const std::int32_t> levels, logger& log) {
    std::vector<std::int32_t> equations;
    equations.reserve(levels.size());
    for (const std::int32_t level : levels) {
        const std::int64_t equation =
            param.sumequation[e] + (std::int64_t{level} - 1) * param.ntrait + slot_of(param, t, e);
        if (level < 1 || level > param.n_level[e - 1] || equation < 1 || equation > param.neq)
            fatal(log,
                  "Internal error: the level " + inttochar(level) + " of effect " + inttochar(e) +
                      " has no equation",
                  module_tag, "getindex");
        equations.push_back(static_cast<std::int32_t>(equation));
    }
    return equations;
}

std::vector<position_block> pvalue_positions(const param_type& param, logger& log) {
    std::vector<position_block> blocks;
    for (const pvalue_option& option : param.pvalue) {
        check_effect(param, option.effect, log);
        const std::vector<std::int32_t> levels = read_plink_levels(
            stem_of(option.genotypefile), option.effect, param.n_level[option.effect - 1], log);
        for (std::int32_t t = 1; t <= param.ntrait; ++t) {
            const std::vector<std::int32_t> animals = getindex(param, option.effect, t, levels, log);
            blocks.push_back({animals, animals});
        }
    }
    return blocks;
}

double genetic_variance(const param_type& param, std::int32_t e, std::int32_t t) {
    const std::int32_t first = group_of(param, e);
    matrix<double> g = param.g[first - 1];
    std::int32_t rank = 0;
    ginv1_real8(g.view(), tol8, rank);
    std::int64_t at = slot_of(param, t, e) - 1;
    for (std::int32_t member = first; member < e; ++member)
        at += std::int64_t{param.nx[member]} * param.ntrait;
    return g(at, at);
}

std::vector<double> compute_ztcz_snp(const covariable_type& z, matrix_view<const double> t, logger& log) {
    if (!z.is_plink())
        fatal(log, "Only Plink binary files are currently supported", module_tag, "compute_ztcz_snp");
    constexpr std::int64_t block = 256;
    const std::int64_t n = t.rows, nsnp = coefficient_columns(z);
    assert(coefficient_rows(z) == n && t.cols == n);
    std::vector<double> diagonal(static_cast<std::size_t>(nsnp));
    matrix<double> columns(n, std::min(block, nsnp)), product(n, std::min(block, nsnp));
    for (std::int64_t done = 0; done < nsnp; done += block) {
        const std::int64_t m = std::min(block, nsnp - done);
        const matrix_view<double> zb{columns.data(), n, m, n}, tz{product.data(), n, m, n};
        expand_coefficients(z, done, zb);
        blas_dsymm(1.0, t, zb, 0.0, tz);
#pragma omp parallel for schedule(static) default(none) shared(diagonal, zb, tz, done, m, n)
        for (std::int64_t j = 0; j < m; ++j) {
            double sum = 0.0;
            for (std::int64_t i = 0; i < n; ++i) sum += zb(i, j) * tz(i, j);
            diagonal[done + j] = sum;
        }
    }
    return diagonal;
}

std::vector<double> get_var_hatsnp(const param_type& param, const snp_model_input& input, std::int32_t t,
                                   matrix<double> cgg, logger& log) {
    constexpr const char* procedure = "get_var_hatsnp";
    log.message("Computation of PEC for SNP effects");
    log.message("Effect: " + inttochar(input.effect));
    log.message("Trait : " + inttochar(t));
    const matrix<double>& gi = input.ginverse;
    if (gi.rows() != cgg.rows() || gi.cols() != cgg.cols())
        fatal(log,
              "G-1 and C_gg have different dimensions)\nDim 1: " + inttochar(gi.rows()) + " vs " +
                  inttochar(cgg.rows()) + "\nDim 2: " + inttochar(gi.cols()) + " vs " + inttochar(cgg.cols()),
              module_tag, procedure);
    const double vg = genetic_variance(param, input.effect, t);
    const double factor = param.alpha / input.sum2pq;
    log.message("Genetic variance: " + realtochar(vg, "(f0.5)"));
    log.message("Alpha         : " + realtochar(param.alpha, "(f0.3)"));
    log.message("Sum2pq        : " + realtochar(input.sum2pq, "(f0.4)"));
    log.message("Number of SNPs: " + inttochar(coefficient_columns(input.genotypes)));

    matrix<double> product(cgg.rows(), cgg.cols());
    blas_dsymm(1.0, cgg.view(), gi.view(), 0.0, product.view());
    matrix<double>& variance = cgg;  // its content has served
    std::ranges::copy(gi.values(), variance.data());
    blas_dsymm(-1.0, gi.view(), product.view(), vg, variance.view());
    std::vector<double> result = compute_ztcz_snp(input.genotypes, variance.view(), log);
    for (double& value : result) value *= factor * factor;
    return result;
}

}  // namespace zendar
