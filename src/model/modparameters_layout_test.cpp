#include <gmock/gmock.h>

#include <map>
#include <random>
#include <tuple>

#include "captured_log.hpp"
#include "modenum.hpp"
#include "modparameters.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::ElementsAre;
using testing::HasSubstr;

/// What one effect of a test model is; a nested covariable has nested > 0.
struct effect {
    std::int32_t type = teff_class;
    std::int32_t n_level = 1, n_cov = 1, nested = 0;
};

param_type model(std::int32_t ntrait, const std::vector<effect>& effects) {
    param_type param;
    param.ntrait = ntrait;
    param.neffect = static_cast<std::int32_t>(effects.size());
    allocpar(param);
    for (std::size_t i = 0; i < effects.size(); ++i) {
        param.type_effect[i] = effects[i].type;
        param.n_level[i] = effects[i].n_level;
        param.n_cov[i] = effects[i].n_cov;
        param.n_level_nested[i] = effects[i].nested;
        for (std::int32_t t = 0; t < ntrait; ++t)
            param.pos_nested(t, static_cast<std::int64_t>(i)) = effects[i].nested > 0 ? 7 : 0;
    }
    return param;
}

std::string message_of(param_type param) {
    captured_log log;
    return fatal_message([&] { setsumlevel(param, log); });
}

TEST(Setsumlevel, LaysOutAModelDoneByHand) {
    captured_log log;
    // class of 3 levels; covariable of 2 columns; 2 columns nested in 4 levels; SNPs
    param_type param = model(2, {{teff_class, 3, 5, 0},
                                 {teff_covariable, 0, 2, 0},
                                 {teff_covariable, 9, 2, 4},
                                 {teff_huge, 10, 6, 0}});

    setsumlevel(param, log);

    EXPECT_THAT(param.nx, ElementsAre(0, 1, 2, 2, 6, 0));
    EXPECT_THAT(param.pos, ElementsAre(0, 1, 2, 4, 6, 12));
    EXPECT_THAT(param.sumlevel, ElementsAre(0, 0, 3, 5, 13, 19, 19));
    EXPECT_THAT(param.sumequation, ElementsAre(0, 0, 6, 10, 26, 38, 38));
    EXPECT_THAT(param.nexteffect, ElementsAre(2, 3, 4, 5));
}

TEST(Setsumlevel, GivesACombinedEffectTheOffsetOfItsPartner) {
    captured_log log;
    param_type param = model(1, {{teff_class, 3}, {teff_class, 2}, {teff_class, 3}, {teff_class, 4}});
    param.landeffect = true;
    param.andeffect = {1, 2, 1, 4};

    setsumlevel(param, log);

    EXPECT_THAT(param.sumlevel, ElementsAre(0, 0, 3, 0, 5, 9, 9));
    EXPECT_THAT(param.nexteffect, ElementsAre(2, 4, 2, 5));
}

TEST(Setsumlevel, SkipsACombinedLastEffect) {
    captured_log log;
    param_type param = model(1, {{teff_class, 3}, {teff_class, 2}, {teff_class, 3}});
    param.landeffect = true;
    param.andeffect = {1, 2, 1};

    setsumlevel(param, log);

    EXPECT_THAT(param.sumlevel, ElementsAre(0, 0, 3, 0, 5, 5));
    EXPECT_THAT(param.nexteffect, ElementsAre(2, 4, 2));
}

TEST(Setsumlevel, ReadsTheCombinationsOnlyWhenTheOptionWasGiven) {
    captured_log log;
    param_type param = model(1, {{teff_class, 3}, {teff_class, 3}});
    param.andeffect = {1, 1};

    setsumlevel(param, log);

    EXPECT_THAT(param.sumlevel, ElementsAre(0, 0, 3, 6, 6));
}

TEST(Setsumlevel, RefusesAnEffectTypeThatDoesNotExist) {
    EXPECT_EQ(message_of(model(1, {{4, 1, 1, 0}})), "This effect does not exist: 4");
    EXPECT_EQ(message_of(model(1, {{-1, 1, 1, 0}})), "This effect does not exist: -1");
}

TEST(Setsumlevel, RefusesNestedHugeEffects) {
    EXPECT_EQ(message_of(model(1, {{teff_huge, 1, 3, 2}})),
              "Nested huge covariables are not implemented\n"
              "STOP: not fully implemented yet for ghuge+extra covariables");
}

TEST(Setsumlevel, RefusesCovariablesWithoutColumns) {
    EXPECT_EQ(message_of(model(1, {{teff_class}, {teff_covariable, 0, 0, 0}})),
              "Effect 2: the number of covariables is 0, but must be at least 1!");
    EXPECT_EQ(message_of(model(1, {{teff_huge_iod, 0, -3, 0}})),
              "Effect 1: the number of covariables is -3, but must be at least 1!");
}

TEST(Setsumlevel, TakesAsManyEquationsAs32BitsNumber) {
    captured_log log;
    param_type most = model(1, {{teff_class, 2147483646}, {teff_class, 1}});
    setsumlevel(most, log);
    EXPECT_EQ(most.sumequation[4], 2147483647);

    const char* too_many = ": the model has more than 2147483647 equations, which cannot be numbered!";
    EXPECT_EQ(message_of(model(1, {{teff_class, 2147483647}, {teff_class, 1}})),
              std::string("Effect 2") + too_many);
    EXPECT_EQ(message_of(model(2, {{teff_class, 1073741824}})), std::string("Effect 1") + too_many);
    EXPECT_EQ(message_of(model(4, {{teff_covariable, 0, 2147483647, 2147483647}})),
              std::string("Effect 1") + too_many);
}

TEST(Setsumlevel, CountsColumnsOfCombinedEffectsIn32Bits) {
    param_type param = model(1, {{teff_covariable, 0, 1500000000, 0}, {teff_covariable, 0, 1500000000, 0}});
    param.landeffect = true;
    param.andeffect = {1, 1};
    EXPECT_EQ(
        message_of(param),
        "Effect 2: the model has more than 2147483647 columns of coefficients, which cannot be numbered!");
}

TEST(GetNlevel, DependsOnTheKindOfEffect) {
    const param_type param = model(1, {{teff_class, 3, 1, 0},
                                       {teff_covariable, 5, 2, 0},
                                       {teff_covariable, 5, 2, 4},
                                       {teff_huge, 5, 2, 0},
                                       {teff_huge_iod, 5, 2, 0}});
    EXPECT_EQ(get_nlevel(param, 1), 3);
    EXPECT_EQ(get_nlevel(param, 2), -9);
    EXPECT_EQ(get_nlevel(param, 3), 4);
    EXPECT_EQ(get_nlevel(param, 4), -9);
    EXPECT_EQ(get_nlevel(param, 5), -9);
}

TEST(Computenrhscontributions, CountsTheColumnsOfTheGroupTimesTheTraits) {
    param_type param = model(
        3, {{teff_class, 3, 8, 0}, {teff_covariable, 5, 2, 4}, {teff_class, 2, 0, 0}, {teff_huge, 1, 9, 0}});
    param.n_correlated = {2, -1, 0, 0};

    EXPECT_EQ(computenrhscontributions(param, 1), 3 * (1 + 2 + 1));  // N_COV of a class effect does not count
    EXPECT_EQ(computenrhscontributions(param, 2), 0);
    EXPECT_EQ(computenrhscontributions(param, 3), 3);
    EXPECT_EQ(computenrhscontributions(param, 4), 27);
}

// ---- against a list of all equations ---------------------------------------------------------------------

using unknown =
    std::tuple<std::int32_t, std::int32_t, std::int32_t, std::int32_t>;  // effect, level, column, trait

struct random_model {
    param_type param;
    std::vector<effect> effects;
    std::vector<std::int32_t> owner;  // of the equations of each effect
};

random_model make_random_model(std::uint64_t seed) {
    std::mt19937_64 random(seed);
    const auto draw = [&random](std::int32_t low, std::int32_t high) {
        return low + static_cast<std::int32_t>(random() % static_cast<std::uint64_t>(high - low + 1));
    };
    std::vector<effect> effects;
    std::vector<std::int32_t> owner;
    const bool combined = draw(0, 1) == 1;
    const std::int32_t n = draw(1, 8), ntrait = draw(1, 4), nhuge = draw(0, 2);
    for (std::int32_t e = 1; e <= n; ++e) {
        const std::int32_t with = draw(1, e);
        if (combined && with < e && owner[with - 1] == with && draw(0, 1) == 1) {
            effects.push_back(effects[with - 1]);
            owner.push_back(with);
        } else {
            const std::int32_t kind = draw(0, 2);
            effects.push_back(kind == 0   ? effect{teff_class, draw(1, 6), draw(-1, 4), 0}
                              : kind == 1 ? effect{teff_covariable, draw(0, 9), draw(1, 3), 0}
                                          : effect{teff_covariable, draw(0, 9), draw(1, 3), draw(1, 5)});
            owner.push_back(e);
        }
    }
    if (combined && draw(0, 2) == 0) {  // an effect may also be combined with a later one
        effects.push_back(effects[0]);
        owner.push_back(static_cast<std::int32_t>(owner.size()) + 1);
        for (std::size_t i = 0; i + 1 < owner.size(); ++i)
            if (owner[i] == 1) owner[i] = owner.back();
    }
    for (std::int32_t h = 0; h < nhuge; ++h) {
        effects.push_back({draw(teff_huge, teff_huge_iod), draw(0, 9), draw(1, 12), 0});
        owner.push_back(static_cast<std::int32_t>(owner.size()) + 1);
    }
    random_model result{model(ntrait, effects), effects, owner};
    result.param.landeffect = combined;
    result.param.andeffect = owner;
    return result;
}

TEST(Setsumlevel, AgreesWithAListOfAllEquationsOfRandomModels) {
    std::int32_t with_shared_equations = 0;
    for (std::uint64_t seed = 1; seed <= 500; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        random_model m = make_random_model(seed);
        param_type& param = m.param;
        captured_log log;
        check_and_finalize(param, false, log);

        const auto neffect = static_cast<std::int32_t>(m.effects.size());
        const auto levels = [&m](std::int32_t e) {
            const effect& x = m.effects[e - 1];
            return x.type == teff_class ? x.n_level : x.nested > 0 ? x.nested : 1;
        };
        const auto columns = [&m](std::int32_t e) {
            return m.effects[e - 1].type == teff_class ? 1 : m.effects[e - 1].n_cov;
        };

        std::map<unknown, std::int64_t> equation;
        std::int64_t count = 0;
        for (std::int32_t e = 1; e <= neffect; ++e) {
            if (m.owner[e - 1] != e) {
                ++with_shared_equations;
                continue;
            }
            for (std::int32_t l = 1; l <= levels(e); ++l)
                for (std::int32_t j = 1; j <= columns(e); ++j)
                    for (std::int32_t t = 1; t <= param.ntrait; ++t) equation[{e, l, j, t}] = ++count;
        }

        ASSERT_EQ(param.neq, count);
        ASSERT_EQ(param.sumlevel[neffect + 2] * param.ntrait, count);
        ASSERT_EQ(param.sumequation[neffect + 1], count);
        std::int32_t column = 0;
        for (std::int32_t e = 1; e <= neffect; ++e) {
            const std::int32_t owner = m.owner[e - 1];
            ASSERT_EQ(param.nx[e], columns(e));
            ASSERT_EQ(param.pos[e], column + 1);
            for (std::int32_t j = 1; j <= columns(e); ++j) ++column;
            for (std::int32_t l = 1; l <= levels(e); ++l)
                for (std::int32_t j = 1; j <= columns(e); ++j)
                    for (std::int32_t t = 1; t <= param.ntrait; ++t)
                        ASSERT_EQ(param.sumequation[e] + (l - 1) * columns(e) * param.ntrait +
                                      (j - 1) * param.ntrait + t,
                                  equation.at({owner, l, j, t}));
            std::int32_t next = owner + 1;
            while (next <= neffect && m.owner[next - 1] != next) ++next;
            ASSERT_EQ(param.nexteffect[e - 1], next);
        }
        ASSERT_EQ(param.pos[neffect + 1], column + 1);
    }
    EXPECT_GT(with_shared_equations, 100);
}

}  // namespace
}  // namespace zendar
