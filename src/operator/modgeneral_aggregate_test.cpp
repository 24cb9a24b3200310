#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "modgeneral.hpp"
#include "modgeneral_test_model.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_text;
using test::small_model;
using test::temporary_directory;
using test::working_directory;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

covariable_type covariable(std::vector<std::int32_t> indice, std::int64_t ncov,
                           const std::vector<double>& values) {
    matrix<double> value(ncov, std::ssize(values) / ncov);
    std::ranges::copy(values, value.values().begin());
    return {std::move(indice), std::move(value)};
}

/// Groups (covariable of 2 coefficients) that are added to an effect of 3 levels; 2 traits.
struct groups {
    small_model model{2, {{.type = 1, .nlevel = 3, .ncov = 2}, {.nlevel = 3, .random = 3}}};
    std::vector<covariable_type> cov{covariable({2, 0, 1}, 2, {0.25, 0.75, 0.5, 0.5}), {}};
    //                                groups: t1k1 t2k1 t1k2 t2k2; levels: t1l1 t2l1 t1l2 ...
    std::vector<double> solutions{1, 10, 2, 20, 100, 200, 300, 400, 500, 600};

    groups() { model.param.sumeffect = {{1, 2}}; }
    std::vector<double> aggregate(captured_log& log) const {
        std::vector<double> sum{9.0};
        computeaggregatesolutions(model.param, solutions, cov, sum, log);
        return sum;
    }
    std::string error() const {
        captured_log log;
        return fatal_text([&] { aggregate(log); });
    }
};

TEST(Computeaggregatesolutions, IsEmptyWithoutAnythingToAggregate) {
    groups g;
    g.model.param.sumeffect.clear();
    captured_log log;

    EXPECT_THAT(g.aggregate(log), IsEmpty());
    EXPECT_EQ(log.text(), "");
}

TEST(Computeaggregatesolutions, AddsTheCovariablesOfEachLevel) {
    const groups g;
    captured_log log;

    // Level 1 takes row 2, level 2 none, level 3 row 1.
    EXPECT_THAT(g.aggregate(log),
                ElementsAre(1, 10, 2, 20, 100 + 1.5, 200 + 15, 300, 400, 500 + 1.75, 600 + 17.5));
    EXPECT_EQ(log.text(), "Addition of covariates*solutions of effect 1 + effect 2\n");
}

TEST(Computeaggregatesolutions, AddsEveryPair) {
    groups g;
    g.model.param.sumeffect = {{1, 2}, {1, 2}};
    captured_log log;

    EXPECT_EQ(g.aggregate(log)[4], 100 + 2 * 1.5);
}

TEST(Computeaggregatesolutions, PassesOverRowsAndLevelsBeyondTheEffect) {
    groups g;
    g.cov[0] =
        covariable({2, 9, -1, 1}, 2,
                   {0.25, 0.75, 0.5, 0.5});  // no such row, and a level 4 that the effect does not have
    captured_log log;

    EXPECT_THAT(g.aggregate(log), ElementsAre(1, 10, 2, 20, 101.5, 215, 300, 400, 500, 600));
}

TEST(Computeaggregatesolutions, AddsToASharedSlotOnce) {
    groups g;
    g.model.param.lcombieff = true;
    for (std::int32_t e = 0; e < 2; ++e)
        g.model.param.combieff_trait(0, e) = g.model.param.combieff_trait(1, e) = 2;
    captured_log log;

    EXPECT_THAT(g.aggregate(log), ElementsAre(1, 10, 2, 20, 100, 200 + 15, 300, 400, 500, 600 + 17.5));

    // Groups in one slot, levels in their own: each trait takes the slot that it points to.
    g.model.param.combieff_trait(0, 1) = 1;
    EXPECT_THAT(g.aggregate(log), ElementsAre(1, 10, 2, 20, 115, 215, 300, 400, 517.5, 617.5));
}

TEST(Computeaggregatesolutions, AddsAHugeEffectToItsLinkedEffects) {
    small_model model(1, {{.nlevel = 2},
                          {.nlevel = 1, .random = 3},
                          {.type = 3, .nlevel = 2, .ncov = 2, .random = 22},
                          {.type = 2, .nlevel = 2, .ncov = 1, .random = 22}});
    model.param.n_correlated[2] = 1;
    model.param.link_effect[2] = {1, 2};
    const std::vector<covariable_type> cov{
        {}, {}, covariable({1, 2}, 2, {1, 2, 0, 1}), covariable({2, 1}, 1, {5, 7})};
    const std::vector<double> solutions{10, 20, 30, 0.5, 0.25, 2};
    std::vector<double> sum;
    captured_log log;

    computeaggregatesolutions(model.param, solutions, cov, sum, log);

    EXPECT_THAT(sum, ElementsAre(10 + 1.0, 20 + 0.25, 30 + 14, 0.5, 0.25, 2));
    EXPECT_EQ(log.text(),
              "Computation of covariates*solutions of SNP effect 3 + animal effect 1\n"
              "Computation of covariates*solutions of SNP effect 4 + animal effect 2\n");
}

TEST(Computeaggregatesolutions, AgreesWithSumsOverEveryCoefficient) {
    std::mt19937 generator(3);
    const std::int32_t ntrait = 3, nx = 17, nlevel = 301;
    small_model model(ntrait, {{.nlevel = 4}, {.type = 1, .nlevel = nlevel, .ncov = nx}, {.nlevel = nlevel}});
    model.param.sumeffect = {{2, 3}};
    std::vector<covariable_type> cov(3);
    matrix<double> value(nx, 250);
    std::vector<std::int32_t> indice(nlevel);
    for (double& v : value.values()) v = static_cast<double>(generator() % 3);
    for (std::int32_t& row : indice) row = static_cast<std::int32_t>(generator() % 251);
    cov[1] = covariable_type(indice, value);
    std::vector<double> solutions;
    for (std::int32_t i = 0; i < model.param.neq; ++i)
        solutions.push_back(static_cast<double>(generator() % 100) - 50);
    std::vector<double> expected = solutions, sum;
    for (std::int32_t lev = 1; lev <= nlevel; ++lev)
        for (std::int32_t t = 1; t <= ntrait; ++t)
            for (std::int32_t k = 1; k <= nx && indice[lev - 1] > 0; ++k)
                expected[model.equation.at({3, lev, 1, t}) - 1] +=
                    value(k - 1, indice[lev - 1] - 1) * solutions[model.equation.at({2, 1, k, t}) - 1];
    captured_log log;

    computeaggregatesolutions(model.param, solutions, cov, sum, log);

    EXPECT_EQ(sum, expected);  // small integers: every order of addition is exact
}

TEST(Computeaggregatesolutions, RefusesCovariablesWithAnAnimalEffect) {
    groups g;
    g.model = small_model(
        2, {{.type = 1, .nlevel = 3, .ncov = 2}, {.type = 1, .nlevel = 3, .ncov = 3, .random = 3}});
    g.model.param.sumeffect = {{1, 2}};

    EXPECT_EQ(g.error(), "Covariables are not possible with animal effect");
    g.model.param.type_random_eff[1] = 105;
    EXPECT_EQ(g.error(), "Covariables are not possible with animal effect");
    g.model.param.type_random_eff[1] = 1;
    EXPECT_EQ(g.error(), "Internal error: effect 2 is not a class effect");
}

TEST(Computeaggregatesolutions, RefusesEffectsThatDoNotFit) {
    groups g;
    g.model.param.sumeffect = {{2, 2}};
    EXPECT_EQ(g.error(), "Internal error: effect 2 has no covariates");
    g.model.param.sumeffect = {{0, 2}};
    EXPECT_EQ(g.error(), "Internal error: effect 0 does not exist");
    g.model.param.sumeffect = {{1, 3}};
    EXPECT_EQ(g.error(), "Internal error: effect 3 does not exist");
    g.model.param.sumeffect = {{1, 2}};
    g.model.param.n_level_nested[0] = 2;
    EXPECT_EQ(g.error(), "Internal error: effect 1 has no covariates");
    g.model.param.n_level_nested[0] = 0;
    g.cov[0] = {};
    EXPECT_EQ(g.error(), "Internal error: effect 1 has no covariates");
    g.cov.clear();
    EXPECT_EQ(g.error(), "Internal error: effect 1 has no covariates");
    g.model.param.sumeffect.clear();
    g.model.param.type_random_eff[0] = 22;  // linked to nothing
    EXPECT_EQ(g.error(), "Internal error: effect 0 does not exist");
}

TEST(Computeaggregatesolutions, AddsGenotypesAsTheProductsOfTheModelHaveThem) {
    groups g;
    auto data = std::make_shared<covariable_data>();
    data->indice = {2, 0, 1};
    data->plink = plink_genotypes(2, 2);
    data->plink.column(0)[0] = 0b0111;  // individuals: 11, 01
    data->plink.column(1)[0] = 0b1000;  // 00, 10
    g.cov[0].data = data;
    g.cov[0].allelefreq = {0.25, 0.5};
    captured_log log;
    // Centred: 1.5 and -1 for the first individual, 0 (missing) and 0 for the second one.
    EXPECT_THAT(g.aggregate(log), ElementsAre(1, 10, 2, 20, 100, 200, 300, 400, 500 - 0.5, 600 - 5));
}

std::vector<std::string> files_of(const temporary_directory& here) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(here.path()))
        names.push_back(entry.path().filename());
    return names;
}

TEST(Peekoption, WritesTheSolutionsOfTheIterationsThatWereChosen) {
    groups g;
    g.model.param.sumeffect.clear();
    g.model.param.solver.peek_first = 5;
    g.model.param.solver.peek_step = 10;
    const temporary_directory here;
    const working_directory there(here.path());
    captured_log log;

    for (std::int32_t i = 1; i <= 30; ++i) peekoption(g.model.param, i, g.solutions, g.cov, log);

    EXPECT_THAT(files_of(here),
                UnorderedElementsAre("solutions_5.dat", "solutions_15.dat", "solutions_25.dat"));
    writeoutput_real8(g.model.param, g.solutions, "expected", log);
    EXPECT_EQ(here.read("solutions_15.dat"), here.read("expected"));
}

TEST(Peekoption, WritesAggregatesAndStreamsWhereTheyApply) {
    groups g;
    g.model.param.solver.peek_first = g.model.param.solver.peek_step = 7;
    g.model.param.solstream = true;
    const temporary_directory here;
    const working_directory there(here.path());
    captured_log log;

    peekoption(g.model.param, 14, g.solutions, g.cov, log);

    EXPECT_THAT(files_of(here), UnorderedElementsAre("solutions_14.dat", "solutions_14.stream",
                                                     "agg_sol14.dat", "agg_sol14.stream"));
    EXPECT_THAT(here.read("solutions_14.dat"), HasSubstr("1 2 1 0 100.000\n"));
    EXPECT_THAT(here.read("agg_sol14.dat"), HasSubstr("1 2 1 0 101.500\n"));
    std::vector<double> read(g.solutions.size());
    initvectorfromfile_real8(g.model.param, read, "solutions_14.stream", log);
    EXPECT_EQ(read, g.solutions);
    initvectorfromfile_real8(g.model.param, read, "agg_sol14.stream", log);
    EXPECT_EQ(read, g.aggregate(log));
}

TEST(Peekoption, WritesOnceWithoutAPeriod) {
    groups g;
    g.model.param.sumeffect.clear();
    g.model.param.solver.peek_first = 3;
    g.model.param.solver.peek_step = 0;
    const temporary_directory here;
    const working_directory there(here.path());
    captured_log log;

    for (std::int32_t i = 1; i <= 6; ++i) peekoption(g.model.param, i, g.solutions, g.cov, log);

    EXPECT_THAT(files_of(here), UnorderedElementsAre("solutions_3.dat"));
}

}  // namespace
}  // namespace zendar
