#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "modenum.hpp"
#include "modparameters.hpp"
#include "modstructure.hpp"

/// Models of a million records whose levels are made up:
///
///   A  1 trait, class effects of 10, 50,000 and 1,000,000 levels
///   B  3 traits, 40 % missing, weights, the same effects and a covariate
///   C  2 traits, a class effect and a random regression of order 3 with 5 records of each of 200,000 levels
namespace zendar::bench {

inline constexpr std::int64_t nrec = 1000000;

struct bench_model {
    param_type param;
    phenotype_data data;
    std::vector<covariable_type> cov;
    double bytes = 0.0;             ///< streamed by one product
    std::int32_t unsorted_row = 0;  ///< of the effect with levels in no order
};

struct bench_effect {
    std::int32_t nlevel, ncov, nnest;
};

inline void set_effects(bench_model& m, std::int32_t ntrait, const std::vector<bench_effect>& effects,
                        bool weights) {
    logger silent;
    param_type& p = m.param;
    p.ntrait = ntrait;
    p.neffect = static_cast<std::int32_t>(effects.size());
    allocpar(p);
    p.nweight = weights ? ntrait : 0;
    p.n_residual_cov = 1;
    m.cov.resize(effects.size());
    for (std::int32_t e = 0; e < p.neffect; ++e) {
        const bench_effect& effect = effects[e];
        p.type_effect[e] = effect.ncov > 0 ? teff_covariable : teff_class;
        p.n_level[e] = effect.nlevel;
        p.n_cov[e] = std::max(effect.ncov, 1);
        p.n_level_nested[e] = effect.nnest;
        for (std::int32_t t = 0; t < ntrait; ++t) {
            p.pos_effects(t, e) = 1 + e;
            p.present(t, e) = 1;
            p.pos_nested2(t, e) = 0;
            if (effect.nnest > 0) {
                p.nnested = 1;
                p.pos_nested2(t, e) = p.neffect + 1;
            }
        }
        p.andeffect.resize(p.neffect);
        if (effect.ncov > 0) {
            std::vector<std::int32_t> rows(effect.nlevel);
            std::iota(rows.begin(), rows.end(), 1);
            m.cov[e] = covariable_type(std::move(rows), matrix<double>(effect.ncov, effect.nlevel, 0.5));
        }
    }
    setsumlevel(p, silent);
    p.neq = static_cast<std::int32_t>(p.ntrait * p.sumlevel[p.neffect + 2]);
    m.data.effect = matrix<std::int32_t>(p.neffect + p.nnested + 1, nrec, 1);
    m.data.combitrait.assign(nrec, 1);
    if (weights) m.data.weight = matrix<double>(ntrait, nrec, 1.5);
    matrix<double> r(ntrait, ntrait);
    for (std::int32_t t = 0; t < ntrait; ++t) r(t, t) = 2.0;
    p.r.assign(1, r);
    p.combination = {(std::int64_t{1} << ntrait) - 1};
    p.ncombination = 1;
}

inline bench_model make_model(char name) {
    bench_model m;
    std::mt19937 random(1);
    const auto level = [&](std::int32_t n) {
        return std::uniform_int_distribution<std::int32_t>(1, n)(random);
    };
    if (name == 'A') {
        set_effects(m, 1, {{10, 0, 0}, {50000, 0, 0}, {1000000, 0, 0}}, false);
        for (std::int64_t i = 0; i < nrec; ++i) {
            m.data.effect(0, i) = level(10);
            m.data.effect(1, i) = level(50000);
            m.data.effect(2, i) = static_cast<std::int32_t>(i + 1);
        }
        m.unsorted_row = 1;
        m.bytes = nrec * (4.0 * 5 + 32.0);
    } else if (name == 'B') {
        set_effects(m, 3, {{10, 0, 0}, {50000, 0, 0}, {1000, 1, 0}, {1000000, 0, 0}}, true);
        m.param.combination.clear();
        for (std::int64_t k = 1; k < 8; ++k) m.param.combination.push_back(k);
        m.param.ncombination = 7;
        for (std::int64_t i = 0; i < nrec; ++i) {
            m.data.effect(0, i) = level(10);
            m.data.effect(1, i) = level(50000);
            m.data.effect(2, i) = level(1000);
            m.data.effect(3, i) = static_cast<std::int32_t>(i + 1);
            m.data.combitrait[i] = level(7);
        }
        m.unsorted_row = 1;
        m.bytes = nrec * (4.0 * 6 + 24.0 + 3 * 32.0);
    } else {
        set_effects(m, 2, {{1000, 0, 0}, {305, 3, 200000}}, false);
        for (std::int64_t i = 0; i < nrec; ++i) {
            m.data.effect(0, i) = level(1000);
            m.data.effect(1, i) = level(305);
            m.data.effect(2, i) = static_cast<std::int32_t>(i / 5 + 1);
        }
        m.bytes = nrec * (4.0 * 5 + 6 * 32.0 / 5);
    }
    return m;
}

inline bench_model& model_of(std::int64_t name) {
    static std::map<std::int64_t, std::unique_ptr<bench_model>> models;
    auto& model = models[name];
    if (model == nullptr) model = std::make_unique<bench_model>(make_model(static_cast<char>(name)));
    return *model;
}

}  // namespace zendar::bench
