#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modpedigree.hpp"
#include "modpedigree_test_support.hpp"
#include "relationship.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using test::pedigree;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

/// The order by recursion, as it is defined.
std::vector<std::int32_t> recursive_order(const pedigree_type& ped) {
    const std::int32_t n = ped.nlength(), nani = n - ped.nupg;
    std::vector<std::int32_t> position(static_cast<std::size_t>(n) + 1, 0), order;
    const auto take = [&](std::int32_t level) {
        order.push_back(level);
        position[level] = static_cast<std::int32_t>(order.size());
    };
    for (std::int32_t g = nani + 1; g <= n; ++g) take(g);
    const std::function<void(std::int32_t)> findancestors = [&](std::int32_t id) {
        if (id == 0 || id > nani || position[id] != 0) return;
        findancestors(ped.sire(id));
        findancestors(ped.dam(id));
        take(id);
    };
    for (std::int32_t i = 1; i <= nani; ++i) {
        if (position[i] != 0) continue;
        findancestors(ped.sire(i));
        findancestors(ped.dam(i));
        take(i);
    }
    return order;
}

TEST(Getorder, GoesDownTheSiresFirstAndPutsGroupsInFront) {
    // 1: (3, 4), 2: founder, 3: (0, 2), 4: (6, 3), 5 unrelated; 6 and 7 are groups
    captured_log log;
    const pedigree_type ped = pedigree({{3, 4}, {0, 0}, {0, 2}, {6, 3}, {7, 7}, {0, 0}, {0, 0}}, 2);

    const pedigree_order order = ped.getorder(log);

    EXPECT_THAT(order.neworder, ElementsAre(6, 7, 2, 3, 4, 1, 5));
    EXPECT_THAT(order.order, ElementsAre(6, 3, 4, 5, 7, 1, 2));
    EXPECT_THAT(log.text(),
                StartsWith("Start to find the order from old to young\nFind order from old to young "
                           "- Wall clock time (s): "));
}

TEST(Getorder, IsTheRecursivePostOrder) {
    captured_log log;
    for (std::uint64_t seed = 1; seed <= 200; ++seed) {
        pedigree_type ped;
        ped.nupg = static_cast<std::int32_t>(seed % 4);
        ped.ped = test::random_pedigree({.nanimal = static_cast<std::int32_t>(1 + seed * 7 % 150),
                                         .nupg = ped.nupg,
                                         .unknown = 0.1 * static_cast<double>(seed % 5),
                                         .selfing = seed % 3 == 0,
                                         .generations = static_cast<std::int32_t>(seed % 6)},
                                        seed);
        const pedigree_order order = ped.getorder(log);
        ASSERT_EQ(order.neworder, recursive_order(ped)) << seed;
        for (std::int32_t i = 1; i <= ped.nlength(); ++i)
            ASSERT_EQ(order.neworder[order.order[i - 1] - 1], i) << seed;
    }
}

TEST(Getorder, TakesAPedigreeWithoutLevelsOrWithoutGroupsKnown) {
    captured_log log;
    EXPECT_TRUE(pedigree_type().getorder(log).order.empty());
    EXPECT_THAT(pedigree({{2, 0}, {0, 0}}, -1).getorder(log).neworder, ElementsAre(2, 1));
}

TEST(Getorder, TakesALineOf200000Generations) {
    constexpr std::int32_t n = 200'000;
    captured_log log;
    pedigree_type ped;
    ped.nupg = 0;
    ped.ped = matrix<std::int32_t>(2, n);
    for (std::int32_t i = 1; i < n; ++i) ped.ped(i % 2, i - 1) = i + 1;

    const pedigree_order order = ped.getorder(log);

    for (std::int32_t i = 1; i <= n; ++i) ASSERT_EQ(order.neworder[i - 1], n + 1 - i);
}

TEST(Getorder, StopsAtALoopAndNamesItsAnimals) {
    captured_log log;
    EXPECT_EQ(fatal_message([&] {
                  static_cast<void>(pedigree({{0, 0}, {1, 2}}).getorder(log));
              }),
              "An animal of the pedigree is its own ancestor: 2");
    // 2 has parent 4, 4 has parent 3, 3 has parent 2; 1 descends from 4, 5 is no part of it.
    const std::string message = fatal_message([&] {
        static_cast<void>(pedigree({{0, 4}, {4, 5}, {5, 2}, {3, 5}, {0, 0}}).getorder(log));
    });
    EXPECT_EQ(
        message,
        "An animal of the pedigree is its own ancestor: 2, 3, 4 (each a parent of the next one, the last "
        "one of the first)");
}

TEST(Getorder, NamesTheFileAndTheFirstAnimalsOfALongLoop) {
    captured_log log;
    constexpr std::int32_t n = 100'000;
    pedigree_type ped;
    ped.filename = "cows.ped";
    ped.ped = matrix<std::int32_t>(2, n);
    for (std::int32_t i = 1; i <= n; ++i) ped.ped(0, i - 1) = i % n + 1;
    EXPECT_EQ(
        fatal_message([&] { static_cast<void>(ped.getorder(log)); }),
        "An animal of the pedigree is its own ancestor: 100000, 99999, 99998, 99997, 99996, 99995, 99994, "
        "99993, 99992, 99991, ... (each a parent of the next one, the last one of the first)\nFile "
        "cows.ped");
}

TEST(Getorder, FindsEveryLoop) {
    captured_log log;
    std::mt19937 random(9);
    int loops = 0;
    for (int round = 0; round < 300; ++round) {
        pedigree_type ped = pedigree(std::vector<std::pair<std::int32_t, std::int32_t>>(12));
        for (std::int32_t& parent : ped.ped.values())
            parent = random() % 3 == 0 ? static_cast<std::int32_t>(random() % 13) : 0;
        // Animals without unplaced parents are taken off until none is left, or a loop.
        std::vector<char> placed(13, 0);
        placed[0] = 1;
        bool some = true;
        std::int32_t left = 12;
        while (some) {
            some = false;
            for (std::int32_t i = 1; i <= 12; ++i)
                if (placed[i] == 0 && placed[ped.sire(i)] != 0 && placed[ped.dam(i)] != 0) {
                    placed[i] = 1;
                    --left;
                    some = true;
                }
        }
        const bool found = fatal_message([&] { static_cast<void>(ped.getorder(log)); }) != "no fatal_error";
        ASSERT_EQ(found, left > 0) << round;
        loops += found ? 1 : 0;
    }
    EXPECT_GT(loops, 20);
    EXPECT_LT(loops, 280);
}

TEST(CheckLoops, IsSilentAboutGoodPedigreesInAnyOrder) {
    captured_log log;
    pedigree({{0, 0}, {1, 0}, {1, 2}}).check_loops(log);
    pedigree({{2, 3}, {3, 3}, {0, 0}}).check_loops(log);
    pedigree({{4, 5}, {1, 5}, {4, 2}, {0, 0}, {0, 0}}, 2).check_loops(log);
    pedigree({}).check_loops(log);
    EXPECT_EQ(log.text(), "");
}

TEST(CheckLoops, StopsAtALoopWhereverItIs) {
    captured_log log;
    const auto message = [&](const pedigree_type& ped) {
        return fatal_message([&] { ped.check_loops(log); });
    };
    EXPECT_THAT(message(pedigree({{1, 0}, {0, 0}})), HasSubstr("is its own ancestor: 1"));
    EXPECT_THAT(message(pedigree({{0, 0}, {1, 2}})), HasSubstr("is its own ancestor: 2"));
    EXPECT_THAT(message(pedigree({{0, 0}, {4, 1}, {1, 5}, {1, 3}, {2, 1}, {0, 0}}, 1)),
                HasSubstr("is its own ancestor: "));
}

TEST(Getorder, StopsAtParentsThatAreNoLevels) {
    captured_log log;
    EXPECT_EQ(fatal_message([&] {
                  static_cast<void>(pedigree({{0, 0}, {3, 0}}).getorder(log));
              }),
              "A parent of level 2 is 3, which is not one of the 2 levels");
    EXPECT_EQ(fatal_message([&] {
                  static_cast<void>(pedigree({{0, -1}, {1, 0}}).getorder(log));
              }),
              "A parent of level 1 is -1, which is not one of the 2 levels");
}

TEST(Getancestors, FlagsTheListAndAllAboveItButNoGroups) {
    const pedigree_type ped = pedigree({{0, 0}, {0, 6}, {1, 2}, {3, 3}, {1, 0}, {0, 0}}, 1);
    EXPECT_THAT(ped.getancestors(std::vector<std::int32_t>{4}), ElementsAre(1, 1, 1, 1, 0, 0));
    EXPECT_THAT(ped.getancestors(std::vector<std::int32_t>{5, 6}), ElementsAre(1, 0, 0, 0, 1, 0));
    EXPECT_THAT(ped.getancestors({}), ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST(Getdescendants, FlagsTheListAndAllBelowItButNoGroups) {
    const pedigree_type ped = pedigree({{0, 0}, {0, 6}, {1, 2}, {3, 3}, {1, 0}, {0, 0}}, 1);
    EXPECT_THAT(ped.getdescendants(std::vector<std::int32_t>{2}), ElementsAre(0, 1, 1, 1, 0, 0));
    EXPECT_THAT(ped.getdescendants(std::vector<std::int32_t>{5, 6}), ElementsAre(0, 0, 0, 0, 1, 0));
    EXPECT_THAT(ped.getdescendants(std::vector<std::int32_t>{1, 1}), ElementsAre(1, 0, 1, 1, 1, 0));
}

TEST(Getancestors, RefusesLevelsThatAreNone) {
    const pedigree_type ped = pedigree({{0, 0}});
    EXPECT_THROW(static_cast<void>(ped.getancestors(std::vector<std::int32_t>{2})), std::out_of_range);
    EXPECT_THROW(static_cast<void>(ped.getdescendants(std::vector<std::int32_t>{0})), std::out_of_range);
}

TEST(Getdescendants, IsTheInverseOfGetancestors) {
    pedigree_type ped;
    ped.nupg = 2;
    ped.ped = test::random_pedigree({.nanimal = 80, .nupg = 2, .selfing = true}, 4);
    for (std::int32_t i = 1; i <= 80; ++i) {
        const auto below = ped.getdescendants(std::vector<std::int32_t>{i});
        for (std::int32_t j = 1; j <= 82; ++j)
            ASSERT_EQ(below[j - 1], j > 80 ? 0 : ped.getancestors(std::vector<std::int32_t>{j})[i - 1]);
    }
}

TEST(ComputePa, FillsFlaggedRowsFromOldToYoung) {
    captured_log log;
    const pedigree_type ped = pedigree({{2, 3}, {3, 0}, {0, 0}, {1, 1}});
    matrix<double> x(4, 2);
    x(2, 0) = 4;  // level 3
    x(2, 1) = -8;
    x(3, 0) = 100;  // to be replaced
    std::vector<std::int32_t> flag{0, 0, 7, 0};

    ped.compute_pa(x.view(), flag, log);

    EXPECT_THAT(x.values(), ElementsAre(3, 2, 4, 3, -6, -4, -8, -6));
    EXPECT_THAT(flag, ElementsAre(-1, -1, 7, -1));
}

class PedigreePrint : public testing::Test {
  protected:
    test::temporary_directory directory_;
    captured_log log_;
};

TEST_F(PedigreePrint, WritesParentsWithoutIdAndCoefficientsWithIt) {
    pedigree_type ped = pedigree({{0, 0}, {1, 0}});
    ped.f = {0, 0.25};

    ped.print_pedigree((directory_ / "a_").string(), log_);

    EXPECT_EQ(directory_.read("a_pedigree.varquil"), "           0           0\n           1           0\n");
    EXPECT_EQ(directory_.read("a_inbreeding.varquil"),
              "           1   0.0000000000000000     \n           2  0.25000000000000000     \n");
    EXPECT_NE(fatal_message([&] { ped.print_pedigree((directory_ / "no/").string(), log_); }),
              "no fatal_error");
}

TEST_F(PedigreePrint, ReportsItsFigures) {
    pedigree_type ped = pedigree({{0, 0}, {1, 0}, {0, 0}}, 1);
    ped.f = {-0.125, 0.25, 0.125};

    ped.printstats_pedigree(log_);

    EXPECT_EQ(log_.text(),
              "Number of levels (max ID)         : 3\n"
              "Number of (real) animals          : 2\n"
              "Number of declared genetic groups : 1\n"
              "Minimum inbreeding                : -.125\n"
              "Average inbreeding                : .125\n"
              "Maximum inbreeding                : .250\n");
}

}  // namespace
}  // namespace zendar
