#include <gmock/gmock.h>

#include "captured_log.hpp"
#include "modenum.hpp"
#include "modparameters.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// Class effects with 2 levels, unless changed by a test.
param_type model(std::int32_t ntrait, std::int32_t neffect) {
    param_type param;
    param.ntrait = ntrait;
    param.neffect = neffect;
    allocpar(param);
    for (std::int32_t e = 0; e < neffect; ++e) {
        param.n_level[e] = 2;
        param.n_cov[e] = 1;
    }
    return param;
}

void make_covariable(param_type& param, std::int32_t e, std::int32_t n_cov = 1, std::int32_t nested = 0,
                     std::vector<std::int32_t> columns = {}) {
    param.type_effect[e - 1] = teff_covariable;
    param.n_cov[e - 1] = n_cov;
    param.n_level_nested[e - 1] = nested;
    for (std::size_t t = 0; t < columns.size(); ++t)
        param.pos_nested(static_cast<std::int64_t>(t), e - 1) = columns[t];
}

std::string message_of(param_type param) {
    captured_log log;
    return fatal_message([&] { check_and_finalize(param, false, log); });
}

TEST(CheckAndFinalize, CountsAndLogsTheEquations) {
    param_type param = model(2, 3);
    captured_log log;

    check_and_finalize(param, false, log);

    EXPECT_EQ(param.neq, 12);
    EXPECT_EQ(log.text(), "Number of different columns for nested covariables: 0\nNumber of equations: 12\n");
}

TEST(CheckAndFinalize, RefusesClassEffectsWithoutLevels) {
    const char* expected = "Instruction file: at least one effect has less than 1 level!";
    param_type param = model(1, 2);
    param.n_level[1] = 0;
    EXPECT_EQ(message_of(param), expected);
    param.n_level[1] = -4;
    EXPECT_EQ(message_of(param), expected);
}

TEST(CheckAndFinalize, LeavesTheLevelsOfCovariablesToTheirFile) {
    for (const std::int32_t type : {teff_covariable, teff_huge, teff_huge_iod}) {
        param_type param = model(1, 1);
        param.type_effect[0] = type;
        param.n_level[0] = 0;
        EXPECT_EQ(message_of(param), "no fatal_error") << type;
        param.n_level[0] = -1;
        EXPECT_EQ(message_of(param), "Instruction file: at least one effect has less than 1 level!") << type;
    }
}

TEST(CheckAndFinalize, TagsItsErrorsWithModuleAndProcedure) {
    param_type param = model(1, 1);
    param.n_level[0] = 0;
    captured_log log;

    fatal_message([&] { check_and_finalize(param, false, log); });

    EXPECT_THAT(log.text(), HasSubstr("modparameters % check_and_finalize ("));
    EXPECT_THAT(log.text(), HasSubstr("ERROR: Instruction file"));
}

TEST(CheckAndFinalize, ChangesTheCodeOfHugeEffectsForIterationOnData) {
    param_type param = model(1, 3);
    param.type_effect = {teff_class, teff_huge_iod, teff_huge};
    captured_log log;

    check_and_finalize(param, true, log);

    EXPECT_THAT(param.type_effect, ElementsAre(0, 3, 3));
    EXPECT_THAT(log.text(),
                HasSubstr("WARN: Code teff_huge (2) will be changed teff_huge_iod (3) (if needed)!\n"
                          "WARN: Effect 3: code teff_huge changed to teff_huge_iod\n"));
    EXPECT_THAT(log.text(), Not(HasSubstr("Effect 2: code")));
}

TEST(CheckAndFinalize, WarnsOfHugeCodesInEveryRunOnData) {
    param_type param = model(1, 1);
    captured_log log;

    check_and_finalize(param, true, log);

    EXPECT_THAT(log.text(),
                HasSubstr("WARN: Code teff_huge (2) will be changed teff_huge_iod (3) (if needed)!\n"));
    EXPECT_THAT(log.text(), Not(HasSubstr("code teff_huge changed")));
}

TEST(CheckAndFinalize, KeepsHugeCodesForSolversInMemory) {
    param_type param = model(1, 2);
    param.type_effect[1] = teff_huge;
    captured_log log;

    check_and_finalize(param, false, log);

    EXPECT_EQ(param.type_effect[1], teff_huge);
    EXPECT_THAT(log.text(), Not(HasSubstr("WARN")));
}

TEST(CheckAndFinalize, WarnsWhenAlphaAndBetaDoNotAddUp) {
    param_type param = model(1, 1);
    param.alpha = 0.8;
    param.beta = 0.1;
    captured_log log;

    check_and_finalize(param, false, log);

    EXPECT_THAT(log.text(), HasSubstr("WARN: alpha (0.8000) is not equal to 1-beta (1-0.1000)\n"));
    EXPECT_EQ(param.alpha, 0.8);
    EXPECT_EQ(param.beta, 0.1);
}

TEST(CheckAndFinalize, ComparesAlphaAsADouble) {
    param_type param = model(1, 1);
    param.alpha = 0.95;
    captured_log log;

    check_and_finalize(param, false, log);

    const bool equal = 0.95 == 1.0 - 0.05;
    EXPECT_EQ(log.text().find("is not equal") == std::string::npos, equal);
}

TEST(CheckAndFinalize, StoresTheRunModeOnlyWhenItIsPassed) {
    param_type param = model(1, 1);
    captured_log log;
    check_and_finalize(param, false, log);
    EXPECT_FALSE(param.lpec);
    EXPECT_EQ(param.relparam, "ca471rel.dat");

    const bool lpec = true;
    const std::string relparam = "rel.par";
    check_and_finalize(param, false, log, &lpec, &relparam);
    EXPECT_TRUE(param.lpec);
    EXPECT_EQ(param.relparam, "rel.par");
}

TEST(CheckAndFinalize, TakesANegativeNumberOfNestingLevelsWithoutColumnsForNone) {
    param_type param = model(1, 1);
    make_covariable(param, 1, 3, -1);
    captured_log log;

    check_and_finalize(param, false, log);

    EXPECT_EQ(param.n_level_nested[0], 0);
    EXPECT_EQ(param.neq, 3);
}

TEST(CheckAndFinalize, RefusesMoreEquationsThanCanBeNumbered) {
    param_type param = model(2, 1);
    param.n_level[0] = 2000000000;
    EXPECT_THAT(message_of(param), HasSubstr("more than 2147483647 equations"));
}

// ---- !andeffect ------------------------------------------------------------------------------------------

std::string combine(param_type param, std::int32_t e, std::int32_t with) {
    param.landeffect = true;
    param.andeffect[e - 1] = with;
    return message_of(param);
}

TEST(CheckAndFinalize, CombinesEffectsOfTheSameLayout) {
    param_type param = model(2, 3);
    EXPECT_EQ(combine(param, 3, 1), "no fatal_error");
    EXPECT_EQ(combine(param, 1, 3), "no fatal_error");

    make_covariable(param, 2, 1, 2, {4, 4});  // one column, nested in two levels
    EXPECT_EQ(combine(param, 2, 1), "no fatal_error");
    make_covariable(param, 1, 3);
    make_covariable(param, 2, 3, 0, {0, 0});
    EXPECT_EQ(combine(param, 2, 1), "no fatal_error");
}

TEST(CheckAndFinalize, RefusesToCombineEffectsOfDifferentLayout) {
    const char* differ =
        "The effect 2 cannot be combined with the effect 1 (option !andeffect): their numbers of levels or "
        "of "
        "columns differ!";
    param_type levels = model(1, 2);
    levels.n_level[1] = 3;
    EXPECT_EQ(combine(levels, 2, 1), differ);

    param_type columns = model(1, 2);
    make_covariable(columns, 1, 2);
    make_covariable(columns, 2, 3);
    EXPECT_EQ(combine(columns, 2, 1), differ);

    param_type kinds = model(1, 2);
    make_covariable(kinds, 2, 2);  // two columns are not two levels
    EXPECT_EQ(combine(kinds, 2, 1), differ);
}

TEST(CheckAndFinalize, RefusesToCombineHugeEffects) {
    param_type param = model(1, 3);
    param.type_effect = {teff_class, teff_huge, teff_huge_iod};
    const std::string huge = " (option !andeffect): huge effects cannot be combined!";
    EXPECT_EQ(combine(param, 2, 1), "The effect 2 cannot be combined with the effect 1" + huge);
    EXPECT_EQ(combine(param, 1, 3), "The effect 1 cannot be combined with the effect 3" + huge);
}

TEST(CheckAndFinalize, RefusesCombinationsOfCombinationsAndOfMissingEffects) {
    param_type param = model(1, 3);
    param.andeffect = {1, 1, 3};
    EXPECT_EQ(
        combine(param, 3, 2),
        "The effect 3 cannot be combined with the effect 2 (option !andeffect): the latter is combined with "
        "another effect itself!");
    EXPECT_EQ(
        combine(param, 3, 4),
        "The effect 3 cannot be combined with the effect 4 (option !andeffect): there is no such effect!");
    EXPECT_THAT(combine(param, 3, 0), HasSubstr("there is no such effect!"));
}

// ---- nesting ---------------------------------------------------------------------------------------------

TEST(Setnestedcovtoall, SpreadsTheColumnOverAllTraits) {
    param_type param = model(3, 2);
    make_covariable(param, 2, 1, 4, {0, 5, -1});
    captured_log log;

    setnestedcovtoall(param, log);

    EXPECT_THAT(param.pos_nested.column(1), Each(5));
    EXPECT_THAT(param.pos_nested.column(0), Each(0));
    EXPECT_EQ(log.text(), "Effect 2 is now a nested covariable for all traits!\n");
}

TEST(Setnestedcovtoall, SaysNothingWhenTheColumnIsEverywhere) {
    param_type param = model(2, 1);
    make_covariable(param, 1, 1, 4, {5, 5});
    captured_log log;

    setnestedcovtoall(param, log);

    EXPECT_EQ(log.text(), "");
}

TEST(Setnestedcovtoall, RefusesDifferentColumns) {
    param_type param = model(3, 1);
    make_covariable(param, 1, 1, 4, {5, 0, 6});
    captured_log log;
    EXPECT_EQ(fatal_message([&] { setnestedcovtoall(param, log); }),
              "Effect 1: different columns for nested covariables are provided: 5 and 6");
}

TEST(Checknestedcov, RefusesColumnsWithoutLevels) {
    param_type param = model(1, 1);
    make_covariable(param, 1, 1, 0, {5});
    EXPECT_EQ(message_of(param),
              "Effect 1: columns for nested covariables are provided but the number of levels is <= 0!");
    param.n_level_nested[0] = -3;
    EXPECT_EQ(message_of(param),
              "Effect 1: columns for nested covariables are provided but the number of levels is <= 0!");
}

TEST(Checknestedcov, RefusesLevelsWithoutColumns) {
    param_type param = model(2, 2);
    make_covariable(param, 2, 1, 3, {0, 0});
    EXPECT_EQ(message_of(param),
              "Effect 2: columns for nested covariables are all 0 but the number of levels is > 0!");
}

TEST(Setnestedcov, GivesEachColumnOneRowBehindTheEffects) {
    param_type param = model(2, 5);
    make_covariable(param, 1, 1, 4, {9, 9});
    make_covariable(param, 2, 2);
    make_covariable(param, 3, 1, 4, {6, 6});
    make_covariable(param, 4, 2, 4, {9, 9});
    param.pos_nested(0, 4) = param.pos_nested(1, 4) = 8;  // a class effect takes no row
    captured_log log;

    setnestedcov(param, log);

    EXPECT_EQ(param.nnested, 2);
    EXPECT_THAT(param.pos_nested2.values(), ElementsAre(6, 6, 0, 0, 7, 7, 6, 6, 0, 0));
    EXPECT_EQ(log.text(), "Number of different columns for nested covariables: 2\n");
}

TEST(Setnestedcov, ClearsWhatAnEarlierCallLeft) {
    param_type param = model(1, 1);
    param.pos_nested2(0, 0) = 3;
    captured_log log;

    setnestedcov(param, log);

    EXPECT_THAT(param.pos_nested2.values(), Each(0));
}

}  // namespace
}  // namespace zendar
