#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include "captured_log.hpp"
#include "modbasic.hpp"
#include "modpedigree_test_support.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using test::parents_of;
using test::pedigree_with_f;
using test::temporary_directory;
using testing::ElementsAre;
using testing::HasSubstr;

class Contributions : public ::testing::Test {
  protected:
    matrix<double> all(const pedigree_type& ped) {
        return ped.computeggcontributions_all(2, (folder_.path() / "").string(), log_);
    }
    matrix<double> sel(const pedigree_type& ped, const std::vector<std::int32_t>& list) {
        return ped.computeggcontributions_sel(2, list, (folder_.path() / "").string(), log_);
    }
    temporary_directory folder_;
    captured_log log_;
};

TEST_F(Contributions, AreHalvedFromParentToOffspring) {
    // Levels 5 and 6 are groups.
    const pedigree_type ped =
        pedigree_with_f(parents_of({{5, 5}, {5, 6}, {2, 1}, {0, 6}, {0, 0}, {0, 0}}), 2);
    const matrix<double> q = all(ped);
    ASSERT_EQ(q.rows(), 2);
    ASSERT_EQ(q.cols(), 6);
    EXPECT_THAT(q.column(0), ElementsAre(1.0, 0.0));
    EXPECT_THAT(q.column(1), ElementsAre(0.5, 0.5));
    EXPECT_THAT(q.column(2), ElementsAre(0.75, 0.25));
    EXPECT_THAT(q.column(3), ElementsAre(0.0, 0.5));  // an unknown parent leaves a part empty
    EXPECT_THAT(q.column(4), ElementsAre(1.0, 0.0));
    EXPECT_THAT(q.column(5), ElementsAre(0.0, 1.0));
    EXPECT_EQ(folder_.read("gg_order_ped.dat"),
              list_form(1) + list_form(5) + "\n" + list_form(2) + list_form(6) + "\n");
    EXPECT_THAT(log_.text(), HasSubstr("Start computation of contributions to genetic groups for effect 2\n"
                                       "1. Get the order from old to young...\n"));
    EXPECT_THAT(log_.text(),
                HasSubstr("2. Computes contributions from old to young...\n"
                          "3. Writes order of genetic groups...\n"
                          "Computation of contributions to genetic groups - Wall clock time (s): "));
}

TEST_F(Contributions, AreTheHalvesOfAllPaths) {
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        test::pedigree_choice choice;
        choice.nanimal = 1 + static_cast<std::int32_t>(seed * 37 % 300);
        choice.nupg = 1 + static_cast<std::int32_t>(seed % 6);
        choice.complete = seed % 2 == 0;
        choice.unknown = 0.05 + 0.1 * static_cast<double>(seed % 4);
        choice.selfing = seed % 3 == 0;
        choice.shuffled = seed % 5 != 0;
        choice.generations = seed % 7 < 3 ? 0 : 2 + static_cast<std::int32_t>(seed % 11);
        pedigree_type ped;
        ped.ped = test::random_pedigree(choice, seed);
        ped.nupg = choice.nupg;
        const matrix<double> expected = test::group_shares(ped.ped, ped.nupg), q = all(ped);
        for (std::int32_t i = 0; i < ped.nlength(); ++i)
            for (std::int32_t g = 0; g < ped.nupg; ++g)
                ASSERT_NEAR(q(g, i), expected(i, g), 1e-12) << "seed " << seed << " level " << i + 1;
    }
}

TEST_F(Contributions, OfASetAreThoseOfAll) {
    const int threads = omp_get_max_threads();
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        test::pedigree_choice choice;
        choice.nanimal = 5 + static_cast<std::int32_t>(seed * 7 % 100);
        choice.nupg = 1 + static_cast<std::int32_t>(seed % 6);
        choice.complete = seed % 2 == 0;
        const pedigree_type ped = pedigree_with_f(test::random_pedigree(choice, seed), choice.nupg);
        const matrix<double> q = all(ped);
        std::vector<std::int32_t> list;
        for (std::int32_t level = ped.nlength(); level >= 1; level -= 3) list.push_back(level);
        omp_set_num_threads(static_cast<int>(1 + seed % 5));
        const matrix<double> part = sel(ped, list);
        omp_set_num_threads(threads);
        ASSERT_EQ(part.cols(), std::ssize(list));
        for (std::size_t k = 0; k < list.size(); ++k)
            for (std::int32_t g = 0; g < choice.nupg; ++g)
                EXPECT_EQ(part(g, k), q(g, list[k] - 1)) << "seed " << seed;
        if (choice.complete)
            for (std::int32_t i = 0; i < ped.nlength(); ++i) {
                double sum = 0.0;
                for (const double share : q.column(i)) sum += share;
                EXPECT_NEAR(sum, 1.0, 1e-12);
            }
    }
    EXPECT_TRUE(folder_.exists("gg_order_ped_sel.dat"));
    EXPECT_THAT(log_.text(),
                HasSubstr("2. Computes contributions from old to young for a set of animals...\n"));
}

TEST_F(Contributions, WithoutGroupsThereIsNothing) {
    const pedigree_type ped = pedigree_with_f(parents_of({{0, 0}, {1, 0}}), 0);
    EXPECT_TRUE(all(ped).empty());
    EXPECT_TRUE(sel(ped, {1}).empty());
    EXPECT_THAT(log_.text(), HasSubstr("No (valid) genetic groups for effect 2\n"));
    EXPECT_FALSE(folder_.exists("gg_order_ped.dat"));
    EXPECT_FALSE(folder_.exists("gg_order_ped_sel.dat"));
}

TEST_F(Contributions, RefuseLevelsOutsideOfThePedigree) {
    const pedigree_type ped = pedigree_with_f(parents_of({{2, 0}, {0, 0}}), 1);
    EXPECT_EQ(fatal_message([&] { static_cast<void>(sel(ped, {3})); }),
              "Level 3 is not one of the 2 levels of effect 2");
}

}  // namespace
}  // namespace zendar
