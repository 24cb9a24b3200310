#include "modsparse_inv.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <numeric>
#include <random>

#include "modspainv_test_support.hpp"
#include "modsparse_inv_crew.hpp"

namespace zendar::modsparse_inv {
namespace {

using test::upper_crs;
using ::testing::ElementsAre;

supernodal_structure structure_of(const upper_crs& m, std::span<const std::int32_t> perm = {}) {
    supernodal_structure s =
        symbolicfact(m.n(), std::span<const std::int32_t>(m.ia), std::span<const std::int32_t>(m.ja), perm);
    s.nodes = super_nodes(s.parent, s.colcount);
    smbfct(s);
    return s;
}

TEST(Symbolicfact, FindsTreeAndCountsOfARing) {
    // 1-2-3-4-1: column 1 fills (2, 4)
    const upper_crs m{{1, 4, 6, 8, 9}, {1, 2, 4, 2, 3, 3, 4, 4}, std::vector<double>(8, 1.0)};

    const supernodal_structure s =
        symbolicfact(4, std::span<const std::int32_t>(m.ia), std::span<const std::int32_t>(m.ja), {});

    EXPECT_THAT(s.parent, ElementsAre(1, 2, 3, -1));
    EXPECT_THAT(s.colcount, ElementsAre(3, 3, 2, 1));
    EXPECT_EQ(s.elements(), 9);
}

TEST(Symbolicfact, PostordersAndKeepsTheWayBack) {
    // 1 and 2 hang on 4, 3 on 5, 4 on 5
    const upper_crs m{{1, 3, 5, 7, 9, 10}, {1, 4, 2, 4, 3, 5, 4, 5, 5}, std::vector<double>(9, 1.0)};

    const supernodal_structure s =
        symbolicfact(5, std::span<const std::int32_t>(m.ia), std::span<const std::int32_t>(m.ja), {});

    for (std::int32_t j = 0; j < 5; ++j) {
        EXPECT_EQ(s.iequation[s.equation[j]], j);
        EXPECT_TRUE(s.parent[j] == -1 || s.parent[j] > j);
    }
    EXPECT_EQ(s.equation.back(), 4);
    EXPECT_EQ(s.place, s.equation);  // without a permutation
}

TEST(SuperNodes, JoinColumnsOfEqualStructureAndReportTheirSizes) {
    const std::vector<std::int32_t> parent{1, 2, -1, 4, -1}, colcount{3, 2, 1, 2, 1};

    const super_node_bounds bounds = super_nodes(parent, colcount);

    EXPECT_THAT(bounds.xsuper, ElementsAre(0, 3, 5));
    EXPECT_EQ(bounds.nsuper(), 2);
    EXPECT_EQ(bounds.largest, 3);
    EXPECT_EQ(bounds.smallest, 2);
}

TEST(SuperNodes, OfNothingAreNone) {
    const super_node_bounds bounds = super_nodes({}, {});

    EXPECT_EQ(bounds.nsuper(), 0);
    EXPECT_EQ(bounds.largest, 0);
    EXPECT_EQ(bounds.smallest, 0);
}

TEST(Smbfct, HoldsEveryElementOfTheFactorAndFewMore) {
    std::mt19937 random(23);
    for (std::int32_t k = 0; k < 30; ++k) {
        const upper_crs m = test::random_definite(1 + k * 9, 1.5, random);
        const auto perm = test::order_of(test::ordering::metis, m, random);

        const supernodal_structure s = structure_of(m, perm);

        std::int64_t stored = 0;
        ASSERT_EQ(s.nodes.xsuper.front(), 0);
        ASSERT_EQ(s.nodes.xsuper.back(), m.n());
        for (std::int32_t node = 0; node < s.nsuper(); ++node) {
            const auto rows = s.rows_of(node);
            ASSERT_TRUE(std::ranges::is_sorted(rows));
            ASSERT_EQ(std::ranges::adjacent_find(rows), rows.end());
            for (std::int32_t c = 0; c < s.columns(node); ++c) {
                ASSERT_EQ(rows[c], s.nodes.xsuper[node] + c);
                stored += s.rows(node) - c;
                // the rows of a column are ancestors, so each next one is reached through parents
                for (const std::int32_t i : rows.subspan(c)) {
                    std::int32_t j = rows[c];
                    while (j != -1 && j < i) j = s.parent[j];
                    ASSERT_EQ(j, i);
                }
            }
            if (s.rows(node) > s.columns(node))
                ASSERT_EQ(s.sparent[node], s.snode[rows[s.columns(node)]]);
            else
                ASSERT_EQ(s.sparent[node], -1);
        }
        ASSERT_GE(stored, s.elements());
    }
}

TEST(SuperSparsinv, ReturnsTheErrorCodeOfDpotriForAFactorWithAZeroOnItsDiagonal) {
    for (const std::int32_t n : {1, 3}) {
        std::mt19937 random(1);
        const upper_crs m = test::random_definite(n, 9.0, random);
        const supernodal_structure s = structure_of(m);
        const permuted_matrix p =
            computexsparsdiag(s, std::span<const std::int32_t>(m.ia), std::span<const std::int32_t>(m.ja),
                              std::span<const double>(m.a));
        supernodal_factor f;
        ASSERT_EQ(super_gsfct(s, p, pivot_rule::positive, f).column, -1);
        const std::int32_t last = s.nsuper() - 1, nc = s.columns(last);
        f.lnz[s.xlnz[last] + (nc - 1) * (s.rows(last) + 1)] = 0.0;

        EXPECT_EQ(super_sparsinv(s, f), nc);
    }
}

class TreeCrew : public ::testing::TestWithParam<std::tuple<int, tree_crew::direction>> {};

TEST_P(TreeCrew, RunsEachNodeOnceInOrderAndFewDemandingOnesTogether) {
    const auto [nthreads, way] = GetParam();
    for (std::uint32_t seed = 1; seed <= 20; ++seed) {
        std::mt19937 random(seed);
        // A postordered forest: each new node takes the last few roots as its children.
        const std::int32_t n = 1 + static_cast<std::int32_t>(random() % 600);
        std::vector<std::int32_t> parent(n, -1), roots;
        std::vector<double> work(n);
        std::vector<char> demanding(n);
        for (std::int32_t i = 0; i < n; ++i) {
            const std::size_t children = std::min<std::size_t>(roots.size(), random() % (seed % 4 + 1));
            for (std::size_t c = 0; c < children; ++c) parent[roots[roots.size() - 1 - c]] = i;
            roots.resize(roots.size() - children);
            roots.push_back(i);
            work[i] = random() % 5 == 0 ? 1000.0 : 1.0;
            demanding[i] = work[i] > 500.0 ? 1 : 0;
        }
        const int most_demanding = 1 + static_cast<int>(seed % 2);
        std::vector<std::atomic<int>> runs(n), blocks(n);
        std::atomic<int> demanding_now = 0, most_now = 0, early = 0;
        const tree_schedule schedule(parent, work, nthreads, 500.0);
        tree_crew crew(schedule, demanding, most_demanding);

        crew.run(way, [&, way = way](std::int32_t i) {
            // Its parent must be done on the way down, and must not have begun on the way up.
            if (parent[i] >= 0 && (runs[parent[i]] == 0) == (way == tree_crew::direction::down)) ++early;
            if (demanding[i] != 0) {
                const int now = ++demanding_now;
                for (int most = most_now; most < now && !most_now.compare_exchange_weak(most, now);) {
                }
                crew.share(7, [&](std::int32_t) { ++blocks[i]; });
                --demanding_now;
            }
            ++runs[i];
        });

        EXPECT_EQ(early, 0);
        EXPECT_LE(most_now, most_demanding);
        for (std::int32_t i = 0; i < n; ++i) {
            ASSERT_EQ(runs[i], 1) << i;
            ASSERT_EQ(blocks[i], demanding[i] != 0 ? 7 : 0) << i;
        }
    }
}
INSTANTIATE_TEST_SUITE_P(Threads, TreeCrew,
                         ::testing::Combine(::testing::Values(1, 2, 3, 8),
                                            ::testing::Values(tree_crew::direction::up,
                                                              tree_crew::direction::down)));

}  // namespace
}  // namespace zendar::modsparse_inv
