#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "modmmeiod.hpp"
#include "modpreconditioneriod.hpp"
#include "modsparse.hpp"

/// Small models for the tests of the preconditioner, with their coefficient matrix from its definition.
namespace zendar::test {

struct effect_spec {
    std::int32_t type = 0;  ///< 0 class, 1 covariable
    std::int32_t nlevel = 3;
    std::int32_t ncov = 1;
    std::int32_t nnest = 0;   ///< levels of the nesting, 0 for none
    std::int32_t random = 0;  ///< type of the group, on each of its effects
    std::int32_t ncorrelated = -1;
    std::int32_t shares = 0;  ///< effect whose equations it has, 0 for its own
};

/// A symmetric positive definite matrix.
inline matrix<double> random_definite(std::int64_t n, std::mt19937& generator) {
    std::uniform_real_distribution<double> u(-0.5, 0.5);
    matrix<double> a(n, n), b(n, n);
    for (double& value : b.values()) value = u(generator);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j) {
            for (std::int64_t k = 0; k < n; ++k) a(i, j) += b(i, k) * b(j, k);
            if (i == j) a(i, j) += 0.7;
        }
    return a;
}

/// The inverse of the rows and columns of a symmetric matrix with an element on the diagonal above zero,
/// which must be definite; zeros elsewhere. By Gauss-Jordan elimination with pivots from the diagonal.
inline matrix<double> inverse(matrix<double> a) {
    const std::int64_t n = a.rows();
    std::vector<bool> used(n, false);
    matrix<double> result(n, n);
    std::vector<std::int64_t> kept;
    for (std::int64_t i = 0; i < n; ++i)
        if (a(i, i) > 0.0) kept.push_back(i), result(i, i) = 1.0;
    for (const std::int64_t p : kept) {
        const double pivot = a(p, p);
        for (const std::int64_t j : kept) a(p, j) /= pivot, result(p, j) /= pivot;
        for (const std::int64_t i : kept) {
            if (i == p) continue;
            const double factor = a(i, p);
            for (const std::int64_t j : kept) {
                a(i, j) -= factor * a(p, j);
                result(i, j) -= factor * result(p, j);
            }
        }
    }
    return result;
}

struct model_case {
    param_type param;
    phenotype_data data;
    std::vector<covariable_type> cov;
    modmmeiod::residual_table rinv;
    std::vector<effect_group> groups;
    std::vector<std::unique_ptr<crssparse>> asparse;
    std::vector<matrix<double>> relationship;  ///< of the random effects, [e - 1]
    std::vector<effect_spec> effects;
    logger log;  ///< without units

    model_case(std::int32_t ntrait, const std::vector<effect_spec>& specs, std::uint32_t seed = 1,
               std::int64_t nrec = 80, bool weights = false, bool combieff = false)
        : effects(specs), generator_(seed) {
        const auto n = static_cast<std::int32_t>(specs.size());
        param.ntrait = ntrait;
        param.neffect = n;
        param.lcombieff = combieff;
        param.nweight = weights ? ntrait : 0;
        param.pos_effects = matrix<std::int32_t>(ntrait, n, 1);
        param.present = matrix<unsigned char>(ntrait, n, 1);
        param.pos_nested = matrix<std::int32_t>(ntrait, n);
        param.pos_nested2 = matrix<std::int32_t>(ntrait, n);
        param.combieff_trait = matrix<std::int32_t>(ntrait, n);
        param.link_effect.resize(n);
        param.g.resize(n);
        for (std::int32_t e = 1; e <= n; ++e) {
            const effect_spec& spec = specs[e - 1];
            param.type_effect.push_back(spec.type);
            param.n_level.push_back(spec.nlevel);
            param.n_cov.push_back(spec.ncov);
            param.n_level_nested.push_back(spec.nnest);
            param.type_random.push_back(spec.random);
            param.type_random_eff.push_back(spec.random);
            param.n_correlated.push_back(spec.ncorrelated);
            param.andeffect.push_back(spec.shares > 0 ? spec.shares : e);
            param.landeffect = param.landeffect || spec.shares > 0;
            if (spec.nnest > 0) ++param.nnested;
            for (std::int32_t t = 0; t < ntrait; ++t) {
                param.combieff_trait(t, e - 1) = combieff ? upto(ntrait) : t + 1;
                if (spec.nnest > 0) param.pos_nested2(t, e - 1) = n + param.nnested;
                if (ntrait > 1 && upto(6) == 1) param.pos_effects(t, e - 1) = 0, param.present(t, e - 1) = 0;
            }
        }
        for (std::int32_t e = 1; e <= n; ++e)  // the type stands on the first effect of a group
            for (std::int32_t k = e + 1; k <= e + param.n_correlated[e - 1]; ++k)
                param.type_random[k - 1] = 0;
        setsumlevel(param, log);
        param.neq = static_cast<std::int32_t>(param.sumequation[n + 1]);
        make_residuals();
        make_random();
        make_records(nrec);
    }

    [[nodiscard]] modpreconditioneriod::precond_input input() const {
        return {param, data, cov, rinv, groups, asparse};
    }

    /// One coefficient of a record: equation from 0, trait from 0.
    struct item {
        std::int64_t equation;
        std::int32_t trait;
        double x;
    };
    [[nodiscard]] std::vector<item> items(std::int64_t rec, std::int32_t e) const {
        const effect_spec& spec = effects[e - 1];
        const std::int32_t level = data.effect(e - 1, rec);
        std::vector<item> result;
        if (level < 1) return result;
        std::int64_t first = param.sumequation[e];
        if (spec.type == 0) first += (level - 1) * param.ntrait;
        if (spec.nnest > 0) {
            const std::int32_t nesting = data.effect(param.pos_nested2(0, e - 1) - 1, rec);
            if (nesting < 1) return result;
            first += (nesting - 1) * spec.ncov * param.ntrait;
        }
        for (std::int32_t j = 0; j < (spec.type == 0 ? 1 : spec.ncov); ++j)
            for (std::int32_t t = 0; t < param.ntrait; ++t) {
                if (param.pos_effects(t, e - 1) == 0) continue;
                const double x = spec.type == 0 ? 1.0 : cov[e - 1].values()(j, level - 1);
                const std::int32_t slot = param.lcombieff ? param.combieff_trait(t, e - 1) - 1 : t;
                result.push_back({first + j * param.ntrait + slot, t, x});
            }
        return result;
    }

    /// The whole of C, and in `squares` what a diagonal form of each effect holds.
    [[nodiscard]] matrix<double> coefficient_matrix(std::vector<double>& squares) const {
        matrix<double> c(param.neq, param.neq);
        squares.assign(param.neq, 0.0);
        for (std::int64_t rec = 0; rec < data.effect.cols(); ++rec) {
            const double* const r = rinv.of(data.combitrait[rec], data.effect(data.effect.rows() - 1, rec));
            const auto element = [&](std::int32_t t, std::int32_t s) {
                const double w = param.nweight > 0 ? data.weight(t, rec) * data.weight(s, rec) : 1.0;
                return w * r[t * param.ntrait + s];
            };
            std::vector<item> all;
            for (std::int32_t e = 1; e <= param.neffect; ++e)
                for (const item& i : items(rec, e)) all.push_back(i);
            for (const item& a : all) {
                squares[a.equation] += a.x * a.x * element(a.trait, a.trait);
                for (const item& b : all) c(a.equation, b.equation) += a.x * b.x * element(a.trait, b.trait);
            }
        }
        for (std::int32_t e = 1; e <= param.neffect; ++e) {
            if (param.type_random[e - 1] == 0) continue;
            const matrix<double>& rel = relationship[e - 1];
            const auto member = entries_of_group(e);
            for (std::int64_t l = 0; l < rel.rows(); ++l)
                for (std::int64_t m = 0; m < rel.rows(); ++m)
                    for (std::size_t i = 0; i < member.size(); ++i)
                        for (std::size_t k = 0; k < member.size(); ++k) {
                            if (!member[i].present || !member[k].present) continue;
                            const double value = rel(l, m) * param.g[e - 1](i, k);
                            const std::int64_t row = member[i].first + l * member[i].stride;
                            const std::int64_t col = member[k].first + m * member[k].stride;
                            c(row, col) += value;
                            if (row == col) squares[row] += value;
                        }
        }
        return c;
    }

    struct group_entry {
        std::int64_t first, stride;  ///< equation at the first level, from 0
        bool present;
    };
    [[nodiscard]] std::vector<group_entry> entries_of_group(std::int32_t e) const {
        std::vector<group_entry> result;
        for (std::int32_t k = e; k <= e + std::max(effects[e - 1].ncorrelated, 0); ++k) {
            const std::int32_t nx = effects[k - 1].type == 0 ? 1 : effects[k - 1].ncov;
            for (std::int32_t j = 0; j < nx; ++j)
                for (std::int32_t t = 0; t < param.ntrait; ++t)
                    result.push_back({param.sumequation[k] + j * param.ntrait + t,
                                      std::int64_t{nx} * param.ntrait, param.pos_effects(t, k - 1) > 0});
        }
        return result;
    }
    [[nodiscard]] std::int32_t levels(std::int32_t e) const {
        const effect_spec& spec = effects[e - 1];
        return spec.type == 0 ? spec.nlevel : std::max(spec.nnest, 1);
    }

    std::int32_t upto(std::int32_t n) { return static_cast<std::int32_t>(generator_() % n) + 1; }
    double real() { return std::uniform_real_distribution<double>(-1.0, 1.0)(generator_); }

  private:
    void make_residuals() {
        constexpr std::int32_t nclass = 2;
        param.n_residual_cov = nclass;
        rinv.ntrait = param.ntrait;
        rinv.nclass = nclass;
        std::vector<matrix<double>> r;
        for (std::int32_t k = 0; k < nclass; ++k) r.push_back(random_definite(param.ntrait, generator_));
        for (std::int32_t pattern = 1; pattern < (1 << param.ntrait); ++pattern)
            for (std::int32_t k = 0; k < nclass; ++k) {
                matrix<double> seen = r[k];
                for (std::int32_t i = 0; i < param.ntrait; ++i)
                    for (std::int32_t j = 0; j < param.ntrait; ++j)
                        if (((pattern >> i) & (pattern >> j) & 1) == 0) seen(i, j) = 0.0;
                const matrix<double> inverted = inverse(seen);
                rinv.values.insert(rinv.values.end(), inverted.values().begin(), inverted.values().end());
            }
    }

    void make_random() {
        asparse.resize(effects.size());
        relationship.resize(effects.size());
        for (std::int32_t e = 1; e <= param.neffect; ++e) {
            const std::int32_t type = param.type_random[e - 1];
            if (type == 0) continue;
            param.g[e - 1] =
                random_definite(static_cast<std::int64_t>(entries_of_group(e).size()), generator_);
            groups.push_back(make_effect_group(param, e, log));
            const std::int32_t n = levels(e);
            matrix<double>& rel = relationship[e - 1] = matrix<double>(n, n);
            for (std::int32_t i = 0; i < n; ++i) rel(i, i) = 1.0;
            if (type != 10) continue;
            rel = random_definite(n, generator_);
            coosparse coo(n, {}, {}, true);
            coo.setsymmetric();
            for (std::int32_t i = 0; i < n; ++i)
                for (std::int32_t j = i; j < n; ++j) {
                    if (i != j && upto(2) == 1) rel(i, j) = rel(j, i) = 0.0;
                    if (i == j) rel(i, i) += 1.0;
                    coo.add(i + 1, j + 1, rel(i, j));
                }
            asparse[e - 1] = std::make_unique<crssparse>(convertfromcootocrs(coo));
        }
    }

    void make_records(std::int64_t nrec) {
        const std::int32_t n = param.neffect, nt = param.ntrait;
        for (const effect_spec& spec : effects) {
            if (spec.type == 0) {
                cov.emplace_back();
                continue;
            }
            matrix<double> value(spec.ncov, spec.nlevel);
            for (double& x : value.values()) x = upto(10) == 1 ? 0.0 : real();
            std::vector<std::int32_t> rows;
            for (std::int32_t i = 1; i <= spec.nlevel; ++i) rows.push_back(i);
            cov.emplace_back(rows, value);
        }
        data.effect = matrix<std::int32_t>(n + param.nnested + 1, nrec);
        if (param.nweight > 0) data.weight = matrix<double>(nt, nrec);
        for (std::int64_t rec = 0; rec < nrec; ++rec) {
            for (std::int32_t e = 1; e <= n; ++e) {
                data.effect(e - 1, rec) = upto(12) == 1 ? 0 : upto(effects[e - 1].nlevel);
                if (effects[e - 1].nnest > 0)
                    data.effect(param.pos_nested2(0, e - 1) - 1, rec) = upto(effects[e - 1].nnest + 1) - 1;
            }
            data.effect(n + param.nnested, rec) = upto(2);
            data.combitrait.push_back(upto((1 << nt) - 1));
            for (std::int32_t t = 0; t < nt && param.nweight > 0; ++t)
                data.weight(t, rec) = 0.5 + std::abs(real());
        }
    }

    std::mt19937 generator_;
};

/// Sets the letters of the model, 'N' for an effect without one.
inline void set_letters(param_type& param, const std::string& letters) {
    param.structprecond = letters;
    param.lstructprecond = true;
}

}  // namespace zendar::test
