#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "modparameters.hpp"

/// Models of the tests of modgeneral, with a numbering of their equations of their own.
namespace zendar::test {

struct model_effect {
    std::int32_t type = 0;
    std::int32_t nlevel = 1;
    std::int32_t ncov = 1;
    std::int32_t nnest = 0;  ///< levels of the nesting, 0 for none
    std::int32_t random = 0;
};

struct solution_row {
    std::int32_t t, e, lev, k;
    std::int64_t equation;
    bool operator==(const solution_row&) const = default;
};

/// The unknowns of a model in the order of their equations: effect, level, covariable, trait slot.
using unknown = std::tuple<std::int32_t, std::int32_t, std::int32_t, std::int32_t>;

struct small_model {
    param_type param;
    std::map<unknown, std::int64_t> equation;  ///< from 1; absorbed effects have those of their owner
    std::vector<std::int32_t> nest_row;        ///< per effect: row of the levels with the nesting, 0 for none

    /// @param andeffect  empty, or the owner of each effect's equations (an earlier one of the same shape).
    explicit small_model(std::int32_t ntrait, const std::vector<model_effect>& effects,
                         const std::vector<std::int32_t>& andeffect = {}) {
        const auto n = static_cast<std::int32_t>(effects.size());
        param.ntrait = ntrait;
        param.neffect = n;
        param.nx.assign(n + 2, 0);
        param.pos.assign(n + 2, 0);
        param.sumlevel.assign(n + 3, 0);
        param.sumequation.assign(n + 3, 0);
        param.pos_effects = matrix<std::int32_t>(ntrait, n, 1);
        param.pos_nested = matrix<std::int32_t>(ntrait, n);
        param.pos_nested2 = matrix<std::int32_t>(ntrait, n);
        param.present = matrix<unsigned char>(ntrait, n, 1);
        param.combieff_trait = matrix<std::int32_t>(ntrait, n);
        param.link_effect.resize(n);
        param.n_correlated.assign(n, -1);
        param.landeffect = !andeffect.empty();
        std::int64_t next = 0;
        std::int32_t column = 1;
        for (std::int32_t e = 1; e <= n; ++e) {
            const model_effect& effect = effects[e - 1];
            param.type_effect.push_back(effect.type);
            param.type_random.push_back(effect.random);
            param.type_random_eff.push_back(effect.random);
            param.n_level.push_back(effect.nlevel);
            param.n_cov.push_back(effect.ncov);
            param.n_level_nested.push_back(effect.nnest);
            param.andeffect.push_back(andeffect.empty() ? e : andeffect[e - 1]);
            nest_row.push_back(effect.nnest > 0 ? n + ++param.nnested : 0);
            param.nx[e] = effect.type == 0 ? 1 : effect.ncov;
            param.pos[e] = column;
            column += param.nx[e];
            for (std::int32_t t = 1; t <= ntrait; ++t) {
                param.combieff_trait(t - 1, e - 1) = t;
                param.pos_nested2(t - 1, e - 1) = nest_row.back();
            }

            const std::int32_t owner = param.andeffect[e - 1];
            param.sumequation[e] = owner == e ? next : param.sumequation[owner];
            param.sumlevel[e] = param.sumequation[e] / ntrait;
            std::int64_t equation_number = param.sumequation[e];
            for (std::int32_t lev = 1; lev <= levels(e); ++lev)
                for (std::int32_t k = 1; k <= param.nx[e]; ++k)
                    for (std::int32_t t = 1; t <= ntrait; ++t) equation[{e, lev, k, t}] = ++equation_number;
            if (owner == e) next = equation_number;
        }
        param.pos[n + 1] = column;
        param.neq = static_cast<std::int32_t>(next);
        param.sumequation[n + 1] = param.sumequation[n + 2] = next;
        param.sumlevel[n + 1] = param.sumlevel[n + 2] = next / ntrait;
    }

    /// Levels that own equations of their own.
    [[nodiscard]] std::int32_t levels(std::int32_t e) const {
        if (param.type_effect[e - 1] == 0) return param.n_level[e - 1];
        return param.n_level_nested[e - 1] > 0 ? param.n_level_nested[e - 1] : 1;
    }

    [[nodiscard]] std::int32_t slot(std::int32_t t, std::int32_t e) const {
        return param.lcombieff ? param.combieff_trait(t - 1, e - 1) : t;
    }

    /// The rows of a solutions file: those of a class effect by level, trait, the others by trait, level,
    /// covariable.
    [[nodiscard]] std::vector<solution_row> rows() const {
        std::vector<solution_row> result;
        for (std::int32_t e = 1; e <= param.neffect; ++e) {
            if (param.andeffect[e - 1] != e) continue;
            std::map<std::array<std::int32_t, 3>, solution_row> sorted;
            for (std::int32_t lev = 1; lev <= levels(e); ++lev)
                for (std::int32_t k = 1; k <= param.nx[e]; ++k)
                    for (std::int32_t t = 1; t <= param.ntrait; ++t) {
                        const std::int64_t number = equation.at({e, lev, k, slot(t, e)});
                        if (param.type_effect[e - 1] == 0)
                            sorted[{lev, t, k}] = {t, e, lev, 0, number};
                        else if (param.n_level_nested[e - 1] == 0)
                            sorted[{t, lev, k}] = {t, e, 0, k, number};
                        else
                            sorted[{t, lev, k}] = {t, e, lev, k, number};
                    }
            for (const auto& [key, row] : sorted) result.push_back(row);
        }
        return result;
    }
};

/// A model of up to five effects of all kinds; some with shared equations, some with traits combined.
inline small_model random_model(std::uint32_t seed) {
    std::mt19937 generator(seed);
    const auto upto = [&](std::int32_t n) { return static_cast<std::int32_t>(generator() % n) + 1; };
    const std::int32_t ntrait = upto(4);
    std::vector<model_effect> effects;
    std::vector<std::int32_t> owner;
    bool shared = false;
    const std::int32_t neffect = upto(5);
    for (std::int32_t e = 1; e <= neffect; ++e) {
        model_effect effect{.type = upto(4) - 1, .nlevel = upto(12), .ncov = upto(4)};
        if (effect.type == 1 && upto(2) == 1) effect.nnest = upto(11);
        owner.push_back(e);
        if (e > 1 && upto(4) == 1) {
            const std::int32_t candidate = upto(e - 1);
            if (owner[candidate - 1] == candidate) {
                owner.back() = candidate;
                effect = effects[candidate - 1];
                shared = true;
            }
        }
        effects.push_back(effect);
    }
    small_model model(ntrait, effects, shared ? owner : std::vector<std::int32_t>{});
    model.param.lcombieff = upto(3) == 1;
    if (model.param.lcombieff)
        for (std::int32_t e = 1; e <= neffect; ++e)
            if (upto(2) == 1)
                for (std::int32_t t = 1; t <= ntrait; ++t)
                    model.param.combieff_trait(t - 1, e - 1) = upto(ntrait);
    return model;
}

/// A logger whose text can be looked at.
class captured_log {
  public:
    captured_log() {
        log_.configure({.max_width = 100000});
        log_.add_stream(text_);
    }
    operator logger&() { return log_; }
    [[nodiscard]] std::string text() const { return text_.str(); }

  private:
    std::ostringstream text_;
    logger log_;
};

/// The text of the fatal error that `action` ends with; empty when there is none.
template <class Action>
std::string fatal_text(Action&& action) {
    try {
        action();
    } catch (const fatal_error& error) {
        return error.what();
    }
    return {};
}

}  // namespace zendar::test
