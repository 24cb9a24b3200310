#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "captured_log.hpp"
#include "modenum.hpp"
#include "modpedigree_test_support.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::dense;
using test::largest_difference;
using test::parents_of;
using test::pedigree_with_f;
using testing::HasSubstr;

test::pedigree_choice choice_of(std::uint64_t seed, std::int32_t most) {
    test::pedigree_choice choice;
    choice.nanimal = 1 + static_cast<std::int32_t>(seed * 7 % static_cast<std::uint64_t>(most));
    choice.unknown = 0.1 + 0.1 * static_cast<double>(seed % 5);
    choice.selfing = seed % 3 == 0;
    choice.shuffled = seed % 4 != 0;
    choice.generations = seed % 2 == 0 ? 0 : 2 + static_cast<std::int32_t>(seed % 9);
    return choice;
}

TEST(ComputeasparsePed, IsTheInverseOfTheTabularRelationships) {
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE(seed);
        const auto parents = test::random_pedigree(choice_of(seed, seed % 10 == 0 ? 300 : 60), seed);
        const matrix<double> expected = test::dense_inverse(test::tabular_relationship(parents, 0));
        captured_log log;
        const pedigree_type ped = pedigree_with_f(parents, 0);
        const crssparse ainv = ped.computeasparse_ped(trandom_ani, 0.0, 2, log);
        ASSERT_LT(largest_difference(dense(ainv), expected), 1e-10);
        EXPECT_TRUE(ainv.issymmetric() && ainv.isupperstorage() && ainv.issorted());
    }
}

TEST(ComputeasparsePed, LinksAnimalsAndGroups) {
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE(seed);
        test::pedigree_choice choice = choice_of(seed, seed % 20 == 0 ? 300 : 60);
        choice.nupg = 1 + static_cast<std::int32_t>(seed % 4);
        choice.complete = seed % 2 == 0;
        const auto parents = test::random_pedigree(choice, seed);
        const matrix<double> expected = test::dense_inverse_with_groups(parents, choice.nupg);
        captured_log log;
        const pedigree_type ped = pedigree_with_f(parents, choice.nupg);
        ASSERT_LT(largest_difference(dense(ped.computeasparse_ped(trandom_ani_upg, 9.0, 1, log)), expected),
                  1e-10);

        matrix<double> weighted = expected;
        for (std::int32_t g = choice.nanimal; g < weighted.rows(); ++g) weighted(g, g) += 0.75;
        ASSERT_LT(
            largest_difference(dense(ped.computeasparse_ped(trandom_ani_rupg, 0.75, {}, log)), weighted),
            1e-10);
    }
}

TEST(ComputeasparsePed, IsTheInverseOfTheRelationshipsWithMetafounders) {
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE(seed);
        test::pedigree_choice choice = choice_of(seed, seed % 10 == 0 ? 300 : 60);
        choice.nupg = 1 + static_cast<std::int32_t>(seed % 5);
        choice.complete = true;
        const auto parents = test::random_pedigree(choice, seed);
        const matrix<double> gamma = test::random_metarel(choice.nupg, seed);
        const matrix<double> expected =
            test::dense_inverse(test::tabular_relationship(parents, choice.nupg, gamma));
        captured_log log;
        const pedigree_type ped = pedigree_with_f(parents, choice.nupg, gamma);
        ASSERT_LT(largest_difference(dense(ped.computeasparse_ped(trandom_ani_meta, 0.0, 1, log)), expected),
                  1e-10);
    }
}

TEST(ComputeasparsePed, GivesTheElementsOfHendersonsRules) {
    captured_log log;
    pedigree_type ped = pedigree_with_f(parents_of({{0, 0}, {0, 0}, {1, 0}, {1, 2}}), 0);
    crssparse a = ped.computeasparse_ped(trandom_ani, 0.0, 1, log);
    EXPECT_DOUBLE_EQ(a.get(2, 2), 1.0 + 0.5);
    EXPECT_DOUBLE_EQ(a.get(3, 3), 4.0 / 3.0);
    EXPECT_DOUBLE_EQ(a.get(1, 3), -2.0 / 3.0);
    EXPECT_DOUBLE_EQ(a.get(1, 2), 0.5);
    EXPECT_DOUBLE_EQ(a.get(4, 4), 2.0);

    ped.f[0] = 0.5;  // one known parent, which is inbred
    a = ped.computeasparse_ped(trandom_ani, 0.0, 1, log);
    EXPECT_DOUBLE_EQ(a.get(3, 3), 4.0 / (0.5 + 2.0));

    ped = pedigree_with_f(parents_of({{0, 0}, {1, 1}}), 0);  // selfed
    a = ped.computeasparse_ped(trandom_ani, 0.0, 1, log);
    EXPECT_DOUBLE_EQ(a.get(1, 1), 1.0 + 2.0);
    EXPECT_DOUBLE_EQ(a.get(1, 2), -2.0);
    EXPECT_DOUBLE_EQ(a.get(2, 2), 2.0);
}

TEST(ComputeasparsePed, TakesTheTwinsOfA22iAlike) {
    captured_log log;
    test::pedigree_choice choice;
    choice.nupg = 2;
    const pedigree_type ped = pedigree_with_f(test::random_pedigree(choice, 5), 2);
    const auto values = [&](std::int32_t type) { return dense(ped.computeasparse_ped(type, 0.3, 1, log)); };
    EXPECT_EQ(values(trandom_ani_upg), values(trandom_ani_upg_a22i));
    EXPECT_EQ(values(trandom_ani_rupg), values(trandom_ani_rupg_a22i));
    EXPECT_NE(values(trandom_ani_rupg), values(trandom_ani_upg));
}

TEST(ComputeasparsePed, AddsNothingForAnAnimalWithoutMendelianVariance) {
    captured_log log;
    pedigree_type ped = pedigree_with_f(parents_of({{0, 0}, {1, 1}}), 0);
    ped.f[0] = 1.0;
    const crssparse a = ped.computeasparse_ped(trandom_ani, 0.0, 1, log);
    EXPECT_EQ(a.get(2, 2), 0.0);
    EXPECT_EQ(a.get(1, 1), 1.0);
}

TEST(ComputeasparsePed, TellsWhatItDoes) {
    pedigree_type ped = pedigree_with_f(parents_of({{0, 0}, {1, 0}}), 0);
    captured_log log;
    static_cast<void>(ped.computeasparse_ped(trandom_ani, 0.0, 3, log));
    EXPECT_THAT(log.text(),
                testing::MatchesRegex("Random contributions for the animal \\(with inbreeding\\) effect 3\n"
                                      "Temporary memory \\(MB\\)             : .00\n"
                                      "Memory \\(MB\\) needed for sparse Ainv: .00\n"
                                      "Wall clock time \\(s\\)               : [0-9]*\\.[0-9]+\n"));
}

TEST(ComputeasparsePed, RefusesOtherTypesAndMissingCoefficients) {
    pedigree_type ped = pedigree_with_f(parents_of({{0, 0}, {1, 0}}), 0);
    captured_log log;
    EXPECT_EQ(test::fatal_message([&] { static_cast<void>(ped.computeasparse_ped(107, 0.0, 1, log)); }),
              "This type of effect 107 is not implemented");
    ped.f.clear();
    EXPECT_EQ(test::fatal_message([&] { static_cast<void>(ped.computeasparse_ped(3, 0.0, 1, log)); }),
              "No inbreeding coefficients allocated");
    ped = pedigree_with_f(parents_of({{0, 0}, {0, 0}}), 1);
    ped.metarel = matrix<double>(1, 1, 1.0);
    EXPECT_EQ(test::fatal_message([&] { static_cast<void>(ped.computeasparse_ped(7, 0.0, 1, log)); }),
              "Metafounder (=0) not defined.\nCheck your pedigree");
}

}  // namespace
}  // namespace zendar
