#include "modmetis.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <metis.h>

#include <algorithm>
#include <random>

#include "captured_log.hpp"
#include "modsparse.hpp"
#include "modsparse_detail.hpp"

namespace zendar {
namespace {

using ::testing::HasSubstr;

metisgraph graph_of_edges(std::int32_t n, const std::vector<std::pair<std::int32_t, std::int32_t>>& edges) {
    std::vector<std::vector<std::int32_t>> rows(static_cast<std::size_t>(n));
    for (const auto& [i, j] : edges) {
        rows[i].push_back(j);
        rows[j].push_back(i);
    }
    metisgraph graph;
    graph.n = n;
    graph.xadj.push_back(0);
    for (const auto& row : rows) {
        graph.adjncy.insert(graph.adjncy.end(), row.begin(), row.end());
        graph.xadj.push_back(static_cast<std::int32_t>(graph.adjncy.size()));
    }
    return graph;
}

void expect_permutation(const metis_ordering& order, std::int32_t n) {
    ASSERT_EQ(std::ssize(order.perm), n);
    ASSERT_EQ(std::ssize(order.iperm), n);
    std::vector<bool> seen(static_cast<std::size_t>(n));
    for (std::int32_t k = 0; k < n; ++k) {
        ASSERT_TRUE(order.perm[k] >= 0 && order.perm[k] < n);
        EXPECT_FALSE(seen[order.perm[k]]);
        seen[order.perm[k]] = true;
        EXPECT_EQ(order.iperm[order.perm[k]], k);
    }
}

/// Elements of the factor, by elimination of a dense pattern.
std::int64_t fill_of(const metisgraph& graph, const std::vector<std::int32_t>& iperm) {
    const std::int32_t n = graph.n;
    std::vector<std::vector<bool>> pattern(static_cast<std::size_t>(n),
                                           std::vector<bool>(static_cast<std::size_t>(n)));
    for (std::int32_t i = 0; i < n; ++i)
        for (std::int32_t k = graph.xadj[i]; k < graph.xadj[i + 1]; ++k)
            pattern[iperm[i]][iperm[graph.adjncy[k]]] = true;
    std::int64_t elements = n;
    for (std::int32_t p = 0; p < n; ++p)
        for (std::int32_t i = p + 1; i < n; ++i) {
            if (!pattern[p][i]) continue;
            ++elements;
            for (std::int32_t j = p + 1; j < n; ++j)
                if (j != i && pattern[p][j]) pattern[i][j] = true;
        }
    return elements;
}

metisgraph grid(std::int32_t side) {
    std::vector<std::pair<std::int32_t, std::int32_t>> edges;
    for (std::int32_t i = 0; i < side; ++i)
        for (std::int32_t j = 0; j < side; ++j) {
            if (i + 1 < side) edges.emplace_back(i * side + j, (i + 1) * side + j);
            if (j + 1 < side) edges.emplace_back(i * side + j, i * side + j + 1);
        }
    return graph_of_edges(side * side, edges);
}

TEST(MetisSetoptions, KeepsTheDefaultsOfWhatIsAbsent) {
    metis_option_array all, defaults;
    METIS_SetDefaultOptions(defaults.data());

    EXPECT_EQ(metis_setoptions(all), METIS_OK);
    EXPECT_EQ(all, defaults);

    EXPECT_EQ(metis_setoptions(all, {.seed = 7, .pfactor = 50, .numbering = 1}), METIS_OK);
    defaults[METIS_OPTION_SEED] = 7;
    defaults[METIS_OPTION_PFACTOR] = 50;
    defaults[METIS_OPTION_NUMBERING] = 1;
    EXPECT_EQ(all, defaults);
}

TEST(MetisCheckerror, NamesEachStatus) {
    const std::pair<std::int32_t, std::string> cases[] = {{-2, " METIS_ERROR_INPUT"},
                                                          {-3, " METIS_ERROR_MEMORY"},
                                                          {-4, " METIS_ERROR"},
                                                          {0, " UNKNOWN METIS_ERROR"}};
    for (const auto& expected : cases) {
        const std::int32_t status = expected.first;
        test::captured_log unit;
        const std::string text =
            " The following error for phase METIS_NodeND was detected: " + expected.second;
        EXPECT_EQ(test::fatal_message(
                      [&] { metis_checkerror("METIS_NodeND", status, &static_cast<logger&>(unit)); }),
                  text);
        EXPECT_THAT(unit.text(), HasSubstr(text));
        EXPECT_EQ(test::fatal_message([&] { metis_checkerror("METIS_NodeND", status, nullptr); }), text);
    }
    EXPECT_NO_THROW(metis_checkerror("METIS_NodeND", 1, nullptr));
}

TEST(MetisNodend, TakesGraphsOnTheEdge) {
    expect_permutation(metis_nodend(graph_of_edges(0, {}), nullptr), 0);
    expect_permutation(metis_nodend(graph_of_edges(1, {}), nullptr), 1);
    expect_permutation(metis_nodend(graph_of_edges(100, {}), nullptr), 100);
    std::vector<std::pair<std::int32_t, std::int32_t>> star, complete;
    for (std::int32_t i = 1; i < 300; ++i) star.emplace_back(0, i);
    for (std::int32_t i = 0; i < 40; ++i)
        for (std::int32_t j = 0; j < i; ++j) complete.emplace_back(i, j);
    expect_permutation(metis_nodend(graph_of_edges(300, star), nullptr), 300);
    expect_permutation(metis_nodend(graph_of_edges(40, complete), nullptr), 40);
}

TEST(MetisNodend, FillsFarLessThanTheNaturalOrderOfAGrid) {
    const metisgraph graph = grid(24);
    const metis_ordering order = metis_nodend(graph, nullptr);
    std::vector<std::int32_t> natural(static_cast<std::size_t>(graph.n));
    for (std::int32_t i = 0; i < graph.n; ++i) natural[i] = i;

    expect_permutation(order, graph.n);

    EXPECT_LT(2 * fill_of(graph, order.iperm), fill_of(graph, natural));
}

TEST(MetisNodend, PutsADenseVertexLast) {
    metisgraph graph = grid(24);
    std::vector<std::pair<std::int32_t, std::int32_t>> edges;
    for (std::int32_t i = 0; i < graph.n; ++i) {
        edges.emplace_back(i + 1, 0);
        for (std::int32_t k = graph.xadj[i]; k < graph.xadj[i + 1]; ++k)
            if (graph.adjncy[k] > i) edges.emplace_back(i + 1, graph.adjncy[k] + 1);
    }

    const metis_ordering order = metis_nodend(graph_of_edges(graph.n + 1, edges), nullptr);

    EXPECT_EQ(order.perm.back(), 0);
}

TEST(MetisNodend, Repeats) {
    EXPECT_EQ(metis_nodend(grid(30), nullptr).perm, metis_nodend(grid(30), nullptr).perm);
}

}  // namespace
}  // namespace zendar
