#include <algorithm>
#include <cassert>
#include <numeric>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modgeneral.hpp"
#include "modpevpec.hpp"
#include "modstructure_product.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modpevpec";
constexpr const char* procedure_tag = "computecorrectedpev";

std::int32_t slot_of(const param_type& param, std::int32_t t, std::int32_t e) {
    return param.lcombieff ? param.combieff_trait(t - 1, e - 1) : t;
}

/// The SNP effects that are added to an animal effect.
struct aggregate {
    std::int32_t to = 0;
    std::vector<std::int32_t> from;  ///< one effect may stand twice
};

void check_pair(const param_type& param, std::span<const covariable_type> cov, const effect_pair& pair,
                logger& log) {
    const auto does_not_fit = [&log](const std::string& cause) {
        fatal(log, "Internal error: " + cause, module_tag, procedure_tag);
    };
    for (const std::int32_t e : {pair.effect1, pair.effect2})
        if (e < 1 || e > param.neffect) does_not_fit("effect " + inttochar(e) + " does not exist");
    if (param.type_effect[pair.effect2 - 1] != teff_class)
        fatal(log, "covariables are not possible with animal effect", module_tag, procedure_tag);
    if (std::ssize(cov) < param.neffect ||
        coefficient_columns(cov[pair.effect1 - 1]) != param.nx[pair.effect1])
        does_not_fit("effect " + inttochar(pair.effect1) + " has no covariates");
}

/// The aggregates in the order of their first pairs.
std::vector<aggregate> aggregates_of(const param_type& param, std::span<const covariable_type> cov,
                                     logger& log) {
    std::vector<aggregate> result;
    for (const effect_pair& pair : aggregate_pairs(param)) {
        const bool snps = pair.effect1 >= 1 && pair.effect1 <= param.neffect &&
                          is_huge_effect(param.type_effect[pair.effect1 - 1]);
        if (!snps) continue;  // fixed regressions
        check_pair(param, cov, pair, log);
        auto same = std::ranges::find(result, pair.effect2, &aggregate::to);
        if (same == result.end()) same = result.insert(result.end(), {pair.effect2, {}});
        same->from.push_back(pair.effect1);
    }
    return result;
}

/// Traits of an effect with equations of their own: the first of those that share a slot.
std::vector<std::int32_t> own_traits(const param_type& param, std::int32_t e) {
    std::vector<std::int32_t> traits, slots;
    for (std::int32_t t = 1; t <= param.ntrait; ++t) {
        const std::int32_t slot = slot_of(param, t, e);
        if (std::ranges::find(slots, slot) != slots.end()) continue;
        slots.push_back(slot);
        traits.push_back(t);
    }
    return traits;
}

std::vector<std::int32_t> snp_equations(const param_type& param, std::span<const std::int32_t> effects,
                                        std::int32_t t) {
    std::vector<std::int32_t> equations;
    for (const std::int32_t e : effects)
        for (std::int64_t k = 0; k < param.nx[e]; ++k)
            equations.push_back(
                static_cast<std::int32_t>(param.sumequation[e] + k * param.ntrait + slot_of(param, t, e)));
    return equations;
}

/// Levels of the animal effect for which one of the SNP effects has coefficients.
std::vector<std::int32_t> levels_with_coefficients(const param_type& param,
                                                   std::span<const covariable_type> cov,
                                                   const aggregate& sum) {
    std::vector<std::int32_t> levels;
    for (std::int32_t level = 1; level <= param.n_level[sum.to - 1]; ++level)
        if (std::ranges::any_of(sum.from, [&](std::int32_t e) { return cov[e - 1].row_of(level) > 0; }))
            levels.push_back(level);
    return levels;
}

std::int32_t animal_equation(const param_type& param, std::int32_t e, std::int32_t level, std::int32_t slot) {
    return static_cast<std::int32_t>(param.sumequation[e] + (std::int64_t{level} - 1) * param.ntrait + slot);
}

/// The two terms of an aggregate for each of its levels.
struct aggregate_terms {
    std::vector<double> mzzm;  ///< w' C_gg w
    std::vector<double> zpec;  ///< w' C_ga
};

/// The terms of one trait, in blocks of SNPs.
class term_computer {
  public:
    term_computer(const param_type& param, std::span<const covariable_type> cov, const crssparse& inverse,
                  const aggregate& sum, std::span<const std::int32_t> levels, std::int32_t t, logger& log)
        : cov_(cov),
          inverse_(inverse.view()),
          sum_(sum),
          levels_(levels),
          log_(log),
          equations_(snp_equations(param, sum.from, t)),
          cgg_(extractpec_crssparse(inverse, equations_, equations_, log)),
          terms_{std::vector<double>(levels.size()), std::vector<double>(levels.size())} {
        const std::int32_t slot = slot_of(param, t, sum.to);
        for (const std::int32_t level : levels)
            animals_.push_back(animal_equation(param, sum.to, level, slot));
    }

    aggregate_terms compute() {
        std::int64_t first = 0;  // of the effect among the SNPs of the aggregate
        for (const std::int32_t e : sum_.from) {
            const covariable_type& z = cov_[e - 1];
            const std::int64_t nsnp = coefficient_columns(z);
            for (std::int64_t done = 0; done < nsnp; done += block) {
                const std::int64_t m = std::min(block, nsnp - done);
                matrix<double> columns(coefficient_rows(z), m);
                expand_coefficients(z, done, columns.view());
                add_mzzm(z, columns, first + done);
                add_zpec(z, columns, first + done);
            }
            first += nsnp;
        }
        return std::move(terms_);
    }

  private:
    static constexpr std::int64_t block = 256;

    /// Adds the products of W C_gg(:, block) with the block's own coefficients.
    void add_mzzm(const covariable_type& own, const matrix<double>& columns, std::int64_t first) {
        const std::int64_t nsnp = cgg_.rows(), m = columns.cols();
        std::int64_t before = 0;
        for (const std::int32_t e : sum_.from) {
            const covariable_type& z = cov_[e - 1];
            const std::int64_t n = coefficient_columns(z);
            matrix<double> product(coefficient_rows(z), m);
            if (!product.empty() && n > 0)
                multiply_coefficients(z, 'n', {cgg_.data() + before + first * nsnp, n, m, nsnp},
                                      product.view(), log_);
            before += n;
            std::vector<double>& mzzm = terms_.mzzm;
            const std::span<const std::int32_t> levels = levels_;
#pragma omp parallel for schedule(static) default(none) shared(levels, z, own, product, columns, mzzm, m)
            for (std::int64_t i = 0; i < std::ssize(levels); ++i) {
                const std::int64_t r = z.row_of(levels[i]), s = own.row_of(levels[i]);
                if (r < 1 || s < 1) continue;
                double value = 0.0;
                for (std::int64_t k = 0; k < m; ++k) value += product(r - 1, k) * columns(s - 1, k);
                mzzm[i] += value;
            }
        }
    }

    /// Adds the products of the block's coefficients with what the rows of the animals hold of its SNPs,
    /// which are the last equations of a model.
    void add_zpec(const covariable_type& own, const matrix<double>& columns, std::int64_t first) {
        const std::int64_t m = columns.cols(), n = std::ssize(levels_);
        std::int64_t bad = n;
#pragma omp parallel for schedule(dynamic, 16) default(none) shared(own, columns, m, n, first) \
    reduction(min : bad)
        for (std::int64_t i = 0; i < n; ++i) {
            const std::int64_t s = own.row_of(levels_[i]);
            if (s < 1) continue;
            const std::int32_t row = animals_[i];
            auto at = inverse_.ja.begin() + (inverse_.ia[row - 1] - 1);
            const auto last = inverse_.ja.begin() + (inverse_.ia[row] - 1);
            at = std::lower_bound(at, last, equations_[first]);
            double value = 0.0;
            for (std::int64_t k = 0; k < m; ++k) {
                while (at != last && *at < equations_[first + k]) ++at;
                if (at == last || *at != equations_[first + k]) {
                    bad = std::min(bad, i);
                    break;
                }
                value += columns(s - 1, k) * inverse_.a[at - inverse_.ja.begin()];
            }
            terms_.zpec[i] += value;
        }
        if (bad < n)
            fatal(log_,
                  "Internal error: the row " + inttochar(animals_[bad]) +
                      " of the inverse does not hold all SNPs",
                  module_tag, procedure_tag);
    }

    std::span<const covariable_type> cov_;
    crs_view<std::int32_t> inverse_;
    const aggregate& sum_;
    std::span<const std::int32_t> levels_;
    logger& log_;
    std::vector<std::int32_t> equations_, animals_;
    matrix<double> cgg_;
    aggregate_terms terms_;
};

void update(const param_type& param, double factor, std::span<const double> values,
            std::span<const std::int32_t> index, std::int32_t e, std::int32_t t, std::int32_t n,
            std::span<double> target) {
    for (std::int32_t level = 1; level <= n; ++level)
        if (index[level - 1] != 0)
            target[animal_equation(param, e, level, t) - 1] = factor * values[index[level - 1] - 1];
}

}  // namespace

std::vector<position_block> corrected_positions(const param_type& param, std::span<const covariable_type> cov,
                                                logger& log) {
    std::vector<position_block> blocks;
    for (const aggregate& sum : aggregates_of(param, cov, log)) {
        const std::vector<std::int32_t> levels = levels_with_coefficients(param, cov, sum);
        for (const std::int32_t t : own_traits(param, sum.to)) {
            const std::vector<std::int32_t> snps = snp_equations(param, sum.from, t);
            std::vector<std::int32_t> animals;
            for (const std::int32_t level : levels)
                animals.push_back(animal_equation(param, sum.to, level, slot_of(param, t, sum.to)));
            blocks.push_back({snps, snps});
            blocks.push_back({std::move(animals), snps});
        }
    }
    return blocks;
}

void updatepev1(const param_type& param, std::span<const double> values, std::span<const std::int32_t> index,
                std::int32_t e, std::int32_t t, std::int32_t n, std::span<double> target) {
    update(param, 1.0, values, index, e, t, n, target);
}

void updatepev2(const param_type& param, std::span<const double> values, std::span<const std::int32_t> index,
                std::int32_t e, std::int32_t t, std::int32_t n, std::span<double> target) {
    update(param, 2.0, values, index, e, t, n, target);
}

void computecorrectedpev(const param_type& param, std::span<const covariable_type> cov,
                         const crssparse& inverse, std::span<double> pev, logger& log) {
    assert(std::ssize(pev) == param.neq && inverse.getdim(1) == param.neq);
    for (const effect_pair& pair : param.sumeffect)
        if (!is_huge_effect(param.type_effect[pair.effect1 - 1]))
            log.warning("The PEV of effect " + inttochar(pair.effect2) + " are those without effect " +
                            inttochar(pair.effect1) + " (option !sumeffect)",
                        module_tag, procedure_tag);
    const std::vector<aggregate> aggregates = aggregates_of(param, cov, log);
    if (aggregates.empty()) return;

    std::vector<double> mzzm(pev.size(), 0.0), zpec(pev.size(), 0.0);
    for (const aggregate& sum : aggregates) {
        for (const std::int32_t e : sum.from)
            log.message("Computation of PEV of SNP effect " + inttochar(e) + " + animal effect " +
                        inttochar(sum.to));
        const std::vector<std::int32_t> levels = levels_with_coefficients(param, cov, sum);
        const std::int32_t n = param.n_level[sum.to - 1];
        std::vector<std::int32_t> index(static_cast<std::size_t>(n), 0);
        for (std::size_t i = 0; i < levels.size(); ++i)
            index[levels[i] - 1] = static_cast<std::int32_t>(i + 1);
        for (const std::int32_t t : own_traits(param, sum.to)) {
            const aggregate_terms terms = term_computer(param, cov, inverse, sum, levels, t, log).compute();
            const std::int32_t slot = slot_of(param, t, sum.to);
            updatepev1(param, terms.mzzm, index, sum.to, slot, n, mzzm);
            updatepev2(param, terms.zpec, index, sum.to, slot, n, zpec);
        }
    }
    writeoutput_real8(param, pev, "pev_init.dat", log);
    writeoutput_real8(param, mzzm, "pev_MZZM.dat", log);
    writeoutput_real8(param, zpec, "pev_ZPEC.dat", log);
    for (std::size_t i = 0; i < pev.size(); ++i) pev[i] += mzzm[i] + zpec[i];
}

}  // namespace zendar
