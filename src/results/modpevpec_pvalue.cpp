#include <algorithm>
#include <cmath>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modgeneral.hpp"
#include "modmmeiod_snpeffects.hpp"
#include "modpevpec.hpp"
#include "modstats.hpp"
#include "modstructure_product.hpp"

namespace zendar {

namespace {

__extension__ using quadruple = __float128;

extern "C" quadruple erfcq(quadruple);
extern "C" quadruple sqrtq(quadruple);

/// Distribution function of the standard normal distribution, accurate in its lower tail.
quadruple cdf_norm(quadruple z) {
    return erfcq(-z / sqrtq(2)) / 2;
}

void check_shape(matrix_view<const double> values, std::int64_t rows, std::int64_t cols, logger& log) {
    if (values.rows != rows || values.cols != cols)
        fatal(log, "Number of entries in snpeffects is incorrect", "modpevpec", "get_pvalue");
}

/// Says which P-values rest on variances that are none.
void report_variances(matrix_view<const double> effects, matrix_view<const double> variances, logger& log) {
    std::int64_t without = 0, negative = 0;
    for (std::int64_t j = 0; j < variances.cols; ++j)
        for (std::int64_t i = 0; i < variances.rows; ++i) {
            if (variances(i, j) == 0.0 && effects(i, j) == 0.0) ++without;
            if (variances(i, j) < 0.0) ++negative;
        }
    if (without > 0)
        log.warning(
            inttochar(without) + " SNP effects are 0 and have no variance: their P-values of 0 mean nothing",
            "modpevpec", "get_pvalue");
    if (negative > 0)
        log.warning(
            inttochar(negative) +
                " variances of SNP effects are negative, by rounding or since the G inverse is not that of "
                "the model: their P-values are set to 1",
            "modpevpec", "get_pvalue");
}

}  // namespace

double pvalue_of(double effect, double variance) {
    if (variance == 0.0) return 0.0;
    if (variance < 0.0) return std::isnan(effect) ? effect : 1.0;
    const quadruple z = static_cast<quadruple>(std::fabs(effect)) / sqrtq(variance);
    return static_cast<double>(2 * cdf_norm(-z));  // 1 - cdf(z), without the cancellation
}

void get_pvalue(const param_type& param, const snp_model_input& input, std::span<const double> solutions,
                const crssparse& inverse, matrix_view<double> snpeffects, matrix_view<double> varhatsnp,
                matrix_view<double> pvalues, logger& log) {
    const std::int64_t nsnp = coefficient_columns(input.genotypes), nvector = param.ntrait;
    log.message("Number of vectors: " + inttochar(nvector));
    log.message("Number of SNPs   : " + inttochar(nsnp));
    for (const matrix_view<double>& values : {snpeffects, varhatsnp, pvalues})
        check_shape(values, nsnp, nvector, log);

    log.message("Compute SNP effects");
    const wtime clock;
    matrix<double> u(std::ssize(input.levels), nvector);
    std::vector<std::vector<std::int32_t>> equations;
    for (std::int32_t t = 1; t <= param.ntrait; ++t) {
        equations.push_back(getindex(param, input.effect, t, input.levels, log));
        std::ranges::transform(equations.back(), u.column(t - 1).begin(),
                               [&](std::int32_t equation) { return solutions[equation - 1]; });
    }
    compute_snpeffects(input.genotypes, input.ginverse.view(), u.view(), param.alpha, input.sum2pq,
                       snpeffects, log);
    log.message("Elapsed time (s): " + realtochar(clock.seconds(), "(f0.3)"));

    for (std::int32_t t = 1; t <= param.ntrait; ++t) {
        log.message("Compute SNP PEV for effect " + inttochar(input.effect) + " and trait " + inttochar(t));
        const std::vector<std::int32_t>& own = equations[t - 1];
        const std::vector<double> variances =
            get_var_hatsnp(param, input, t, extractpec_crssparse(inverse, own, own, log), log);
        std::ranges::copy(variances, varhatsnp.column(t - 1).begin());
    }

    log.message("Compute P-value for all effects");
    const std::int64_t entries = nsnp * nvector;
#pragma omp parallel for schedule(static) default(none) shared(snpeffects, varhatsnp, pvalues, nsnp, entries)
    for (std::int64_t k = 0; k < entries; ++k) {
        const std::int64_t i = k % nsnp, j = k / nsnp;
        pvalues(i, j) = pvalue_of(snpeffects(i, j), varhatsnp(i, j));
    }
    report_variances(snpeffects, varhatsnp, log);
}

void write_snp_values(std::int32_t ntrait, std::span<const snp_columns> columns, const std::string& file,
                      logger& log) {
    // A model of these effects alone: the others have no covariables and so no rows.
    param_type model;
    model.ntrait = ntrait;
    model.neffect = columns.empty() ? 0 : columns.back().effect;
    const auto n = static_cast<std::size_t>(model.neffect);
    model.type_effect.assign(n, teff_huge);
    model.n_level_nested.assign(n, 0);
    model.nx.assign(n + 2, 0);
    model.sumequation.assign(n + 3, 0);
    std::vector<double> vector;
    for (const snp_columns& own : columns) {
        const std::int32_t e = own.effect, nsnp = narrow<std::int32_t>(own.values.rows);
        model.nx[e] = own.ncov > 1 ? own.ncov : nsnp;
        if (own.ncov > 1) {
            model.type_effect[e - 1] = teff_covariable;
            model.n_level_nested[e - 1] = nsnp;
        }
        model.sumequation[e] = std::ssize(vector);
        for (std::int64_t i = 0; i < own.values.rows; ++i)
            for (std::int64_t j = 0; j < own.values.cols; ++j) vector.push_back(own.values(i, j));
    }
    model.neq = narrow<std::int32_t>(std::ssize(vector));
    writeoutput_real8_ori(model, vector, file, log);
}

void write_snp_values(std::int32_t ntrait, std::span<const std::int32_t> effects,
                      matrix_view<const double> values, const std::string& file, logger& log) {
    std::vector<snp_columns> columns;
    for (std::size_t k = 0; k < effects.size(); ++k)
        columns.push_back({effects[k],
                           1,
                           {values.data + static_cast<std::int64_t>(k) * ntrait * values.ld, values.rows,
                            ntrait, values.ld}});
    std::ranges::sort(columns, {}, &snp_columns::effect);
    write_snp_values(ntrait, columns, file, log);
}

}  // namespace zendar
