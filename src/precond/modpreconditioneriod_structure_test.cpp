#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captured_log.hpp"
#include "modpreconditioneriod_test_model.hpp"

namespace zendar {
namespace {

using modpreconditioneriod::setstructure_to_preconditioner;
using test::captured_log;
using test::effect_spec;
using test::fatal_message;
using test::model_case;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

/// Fixed class effects and, at the places of `random`, class effects of these random types.
model_case class_model(std::vector<std::int32_t> random, std::int32_t ntrait = 1) {
    std::vector<effect_spec> effects;
    for (const std::int32_t type : random) effects.push_back({.nlevel = 4, .random = type});
    return {ntrait, effects};
}

std::vector<std::int32_t> codes(const std::vector<mija>& mija_global) {
    std::vector<std::int32_t> result;
    for (const mija& part : mija_global) result.push_back(part.type);
    return result;
}

/// The codes that letters give; the random types of the model are changed after its making, as not all can be
/// made.
std::vector<std::int32_t> codes_of(const std::string& letters, const std::vector<std::int32_t>& random) {
    model_case model = class_model(std::vector<std::int32_t>(random.size(), 0));
    model.param.type_random = model.param.type_random_eff = random;
    test::set_letters(model.param, letters);
    return codes(setstructure_to_preconditioner(model.param, model.log));
}

std::string refusal_of(const std::string& letters, const std::vector<std::int32_t>& random,
                       captured_log& log) {
    model_case model = class_model(std::vector<std::int32_t>(random.size(), 0));
    model.param.type_random = model.param.type_random_eff = random;
    test::set_letters(model.param, letters);
    return fatal_message([&] { static_cast<void>(setstructure_to_preconditioner(model.param, log)); });
}

TEST(SetstructureToPreconditioner, TakesTheDefaultOfTheRandomTypes) {
    for (const std::int32_t type : {1, 3, 5, 7, 9, 10, 20, 22, 23, 30, 103, 105, 109, 203}) {
        model_case model = class_model({0, 0});
        model.param.type_random_eff[1] = type;
        EXPECT_THAT(codes(setstructure_to_preconditioner(model.param, model.log)), ElementsAre(1, 2)) << type;
    }
    for (const std::int32_t type : {2, 4, 8, 21, 104, 204, -1}) {
        model_case model = class_model({0, 0});
        model.param.type_random_eff[1] = type;
        captured_log log;
        EXPECT_EQ(fatal_message([&] { static_cast<void>(setstructure_to_preconditioner(model.param, log)); }),
                  " This type of effect " + std::to_string(type) + " is not implemented");
        EXPECT_THAT(log.text(), HasSubstr("modpreconditioneriod % setstructure_to_preconditioner ("));
    }
}

TEST(SetstructureToPreconditioner, AppliesEveryLetter) {
    EXPECT_THAT(codes_of("db", {0, 1}), ElementsAre(1, 2));
    EXPECT_THAT(codes_of("BD", {0, 1}), ElementsAre(2, 1));
    EXPECT_THAT(codes_of("fu", {0, 1}), ElementsAre(3, -3));
    EXPECT_THAT(codes_of("FU", {0, 1}), ElementsAre(3, -3));
    EXPECT_THAT(codes_of("wN", {0, 1}), ElementsAre(4, 2));
    EXPECT_THAT(codes_of("Wc", {0, 1}), ElementsAre(4, 2));
    EXPECT_THAT(codes_of("su", {0, 1}), ElementsAre(5, -5));
    EXPECT_THAT(codes_of("SU", {0, 1}), ElementsAre(5, -5));
    EXPECT_THAT(codes_of("ru", {0, 1}), ElementsAre(7, -7));
    EXPECT_THAT(codes_of("RU", {0, 1}), ElementsAre(7, -7));
    EXPECT_THAT(codes_of("CC", {0, 1}), ElementsAre(1, 2));
    EXPECT_THAT(codes_of("NsuuN", {0, 0, 0, 0, 1}), ElementsAre(1, 5, -5, -5, 2));
    EXPECT_THAT(codes_of("susu", {0, 0, 0, 1}), ElementsAre(5, -5, 5, -5));
}

TEST(SetstructureToPreconditioner, SetsTheEffectsAndEquationsOfAGroup) {
    model_case model = class_model({0, 0, 0, 0, 1}, 2);
    test::set_letters(model.param, "NsuuN");

    const std::vector<mija> m = setstructure_to_preconditioner(model.param, model.log);

    EXPECT_EQ(m[1].firsteffect, 2);
    EXPECT_EQ(m[1].lasteffect, 4);
    EXPECT_EQ(m[1].first, 9);
    EXPECT_EQ(m[1].last, 32);
    EXPECT_EQ(m[2].firsteffect, 2);
    EXPECT_EQ(m[3].firsteffect, 2);
    EXPECT_EQ(m[0].firsteffect, 0);
    EXPECT_EQ(m[4].first, 33);
    EXPECT_EQ(m[4].last, 40);
}

TEST(SetstructureToPreconditioner, LeavesTheTypesOfGenotypesAndPloidyAlone) {
    EXPECT_THAT(codes_of("Ndddd", {0, 20, 22, 203, 1}), ElementsAre(1, 2, 2, 2, 1));
    EXPECT_THAT(codes_of("Nddddd", {0, 23, 30, 103, 105, 109}), ElementsAre(1, 1, 1, 1, 1, 1));
    EXPECT_THAT(codes_of("Nx", {0, 20}), ElementsAre(1, 2));
}

TEST(SetstructureToPreconditioner, RefusesUnknownLettersAndContinuationsOfNothing) {
    captured_log log;
    EXPECT_THAT(refusal_of("xN", {0, 1}, log), HasSubstr(" This type of effect x is not implemented"));
    EXPECT_THAT(refusal_of("nN", {0, 1}, log), HasSubstr(" This type of effect n is not implemented"));
    EXPECT_THAT(refusal_of("Nu", {0, 1}, log), HasSubstr(" This type of effect u continues no group"));
    EXPECT_THAT(refusal_of("sdu", {0, 0, 1}, log), HasSubstr("continues no group"));
    EXPECT_THAT(refusal_of("scu", {0, 0, 1}, log), HasSubstr("continues no group"));
    EXPECT_THAT(refusal_of("sNu", {0, 0, 1}, log), HasSubstr("continues no group"));
    EXPECT_THAT(refusal_of("swu", {0, 0, 1}, log), HasSubstr("continues no group"));
    EXPECT_THAT(log.text(), HasSubstr("modpreconditioneriod % setstructure_to_preconditioner ("));
}

TEST(SetstructureToPreconditioner, RefusesOneMatrixForARandomEffect) {
    captured_log log;
    EXPECT_EQ(refusal_of("Nw", {0, 1}, log),
              "The type of preconditioner w is not implemented for random effects");
}

TEST(SetstructureToPreconditioner, GivesCorrelatedEffectsTheCodeOfTheFirst) {
    const std::vector<effect_spec> effects{{.nlevel = 4},
                                           {.nlevel = 4, .random = 1, .ncorrelated = 2},
                                           {.nlevel = 4, .random = 1},
                                           {.nlevel = 4, .random = 1}};
    const auto of = [&](const std::string& letters) {
        model_case model(1, effects);
        test::set_letters(model.param, letters);
        return codes(setstructure_to_preconditioner(model.param, model.log));
    };
    EXPECT_THAT(of("NNNN"), ElementsAre(1, 2, 2, 2));
    EXPECT_THAT(of("NdNb"), ElementsAre(1, 1, 1, 1));
    EXPECT_THAT(of("NNdd"), ElementsAre(1, 2, 2, 2));
    EXPECT_THAT(of("NsNN"), ElementsAre(1, 5, -5, -5));
    EXPECT_THAT(of("NfNd"), ElementsAre(1, 3, -3, -3));
    EXPECT_THAT(of("NrNN"), ElementsAre(1, 7, -7, -7));
    EXPECT_THAT(of("suNN"), ElementsAre(5, -5, -5, -5));

    model_case model(1, effects);
    const std::vector<mija> m = setstructure_to_preconditioner(model.param, model.log);
    EXPECT_EQ(m[1].firsteffect, 2);
    EXPECT_EQ(m[1].lasteffect, 4);
    EXPECT_EQ(m[3].firsteffect, 2);
}

TEST(SetstructureToPreconditioner, RefusesCorrelatedEffectsOfTwoGroups) {
    const std::vector<effect_spec> effects{
        {.nlevel = 4, .random = 1, .ncorrelated = 1}, {.nlevel = 4, .random = 1}, {.nlevel = 4}};
    for (const char* letters : {"Nsu", "bsu", "ssu", "dfu", "frN"}) {
        model_case model(1, effects);
        test::set_letters(model.param, letters);
        EXPECT_THAT(
            fatal_message([&] { static_cast<void>(setstructure_to_preconditioner(model.param, model.log)); }),
            HasSubstr("The preconditioner of effect 2 is part of another group"))
            << letters;
    }
}

TEST(SetstructureToPreconditioner, RefusesBlocksOfEffectsWithDifferentLevels) {
    model_case model(1, {{.nlevel = 4, .ncorrelated = 1}, {.nlevel = 5}});
    EXPECT_THAT(codes(setstructure_to_preconditioner(model.param, model.log)), ElementsAre(1, 1));

    test::set_letters(model.param, "bN");
    EXPECT_THAT(
        fatal_message([&] { static_cast<void>(setstructure_to_preconditioner(model.param, model.log)); }),
        HasSubstr("The correlated effects 1 and 2 have different numbers of levels: 4 and 5"));
}

TEST(SetstructureToPreconditioner, GivesNothingToEffectsWithoutEquations) {
    model_case model(1, {{.nlevel = 4}, {.nlevel = 4, .shares = 1}, {.nlevel = 3}, {.nlevel = 2}});
    EXPECT_THAT(codes(setstructure_to_preconditioner(model.param, model.log)), ElementsAre(1, 0, 1, 1));

    test::set_letters(model.param, "suuN");
    const std::vector<mija> m = setstructure_to_preconditioner(model.param, model.log);
    EXPECT_THAT(codes(m), ElementsAre(5, 0, -5, 1));
    EXPECT_EQ(m[0].lasteffect, 3);
    EXPECT_EQ(m[0].first, 1);
    EXPECT_EQ(m[0].last, 7);
}

// ---- autoprecond

std::vector<std::int32_t> automatic(model_case& model, const std::string& letters = {}) {
    model.param.autoprecond = true;
    test::set_letters(model.param, letters.empty() ? std::string(model.effects.size(), 'N') : letters);
    return codes(setstructure_to_preconditioner(model.param, model.log));
}

TEST(Autoprecond, MergesRunsOfFixedEffects) {
    model_case three = class_model({0, 0, 0, 1});
    EXPECT_THAT(automatic(three), ElementsAre(6, -6, -6, 2));
    model_case alone = class_model({0, 1});
    EXPECT_THAT(automatic(alone), ElementsAre(1, 2));
    model_case two = class_model({0, 0, 1, 0, 1, 0, 0});
    EXPECT_THAT(automatic(two), ElementsAre(6, -6, 2, 1, 2, 6, -6));
}

TEST(Autoprecond, LooksAtTheSizes) {
    // 33,554,432 / (2 traits * 3 * 0.5) = 11,184,810.7 level slots would be too large an effect, but
    // 5,000,001 equations are reached first, with 2,500,001 of them.
    model_case model = class_model({0, 0, 0}, 2);
    const auto with_levels = [&](std::vector<std::int32_t> levels) {
        model.param.n_level = std::move(levels);
        setsumlevel(model.param, model.log);
        return automatic(model);
    };
    EXPECT_THAT(with_levels({1250000, 1250000, 3}), ElementsAre(6, -6, 1));
    EXPECT_THAT(with_levels({1250000, 1250001, 3}), ElementsAre(1, 6, -6));
    EXPECT_THAT(with_levels({2500001, 3, 3}), ElementsAre(1, 6, -6));
    EXPECT_THAT(with_levels({3, 2500001, 3}), ElementsAre(1, 1, 1));
    // With 3 traits elements count: 4 * 12 * 0.5 = 24 for each slot of a run of three effects, so that
    // 1,398,101 slots (33,554,424 elements) are few enough and one more is too many.
    model.param.ntrait = 3;
    EXPECT_THAT(with_levels({3, 700000, 698098}), ElementsAre(6, -6, -6));
    EXPECT_THAT(with_levels({3, 700000, 698099}), ElementsAre(6, -6, 1));
}

TEST(Autoprecond, IsOffWithSharedEquations) {
    model_case model(1, {{.nlevel = 4}, {.nlevel = 4, .shares = 1}, {.nlevel = 3}, {.nlevel = 2}});
    EXPECT_THAT(automatic(model), ElementsAre(1, 0, 1, 1));
}

TEST(Autoprecond, GivesWayToLetters) {
    model_case five = class_model({0, 0, 0, 0, 0});
    EXPECT_THAT(automatic(five, "NNdNN"), ElementsAre(6, -6, 1, 6, -6));
    EXPECT_THAT(automatic(five, "NdNdN"), ElementsAre(1, 1, 1, 1, 1));
    EXPECT_THAT(automatic(five, "NNsuN"), ElementsAre(6, -6, 5, -5, 1));
    EXPECT_THAT(automatic(five, "ccccc"), ElementsAre(6, -6, -6, -6, -6));
}

TEST(Autoprecond, TakesCorrelatedEffectsAsRandom) {
    model_case model(1, {{.nlevel = 4, .random = 1, .ncorrelated = 1},
                         {.nlevel = 4, .random = 1},
                         {.nlevel = 3},
                         {.nlevel = 2}});
    EXPECT_THAT(automatic(model), ElementsAre(2, 2, 6, -6));
}

// ---- setordering

TEST(Setordering, GathersTheEquationsOfALevel) {
    model_case model(1, {{.nlevel = 2}, {.nlevel = 3}, {.type = 1, .nlevel = 9, .ncov = 2, .nnest = 3}});
    test::set_letters(model.param, "Nru");
    std::vector<mija> m = setstructure_to_preconditioner(model.param, model.log);

    modpreconditioneriod::setordering(model.param, 2, m, model.log);

    EXPECT_THAT(m[1].perm, ElementsAre(1, 4, 5, 2, 6, 7, 3, 8, 9));
    EXPECT_EQ(m[1].dim1, 3);
    EXPECT_EQ(m[1].dim3, 3);
    EXPECT_THAT(m[1].stretches, ElementsAre(block_stretch{2, 1, 1}, block_stretch{5, 2, 2}));
}

TEST(Setordering, TakesCovariablesThatAreNotNestedAsOneLevel) {
    model_case model(2, {{.type = 1, .nlevel = 9, .ncov = 2}, {.type = 1, .nlevel = 9, .ncov = 1}});
    test::set_letters(model.param, "ru");
    std::vector<mija> m = setstructure_to_preconditioner(model.param, model.log);

    modpreconditioneriod::setordering(model.param, 1, m, model.log);

    EXPECT_THAT(m[0].perm, ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(m[0].dim3, 1);
}

TEST(Setordering, RefusesDifferentNumbersOfLevels) {
    for (const effect_spec& other : {effect_spec{.nlevel = 4}, effect_spec{.type = 1, .nlevel = 3}}) {
        model_case model(1, {{.nlevel = 3}, other});
        test::set_letters(model.param, "ru");
        captured_log log;
        EXPECT_THAT(fatal_message([&] { static_cast<void>(create_mija_lhs(model.input(), log)); }),
                    HasSubstr("Internal error"));
        EXPECT_THAT(log.text(), HasSubstr("modpreconditioner % setordering ("));
        EXPECT_THAT(log.text(), Not(HasSubstr("Addition of the least square part")));
    }
}

}  // namespace
}  // namespace zendar
