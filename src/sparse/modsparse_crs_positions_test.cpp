#include <gmock/gmock.h>
#include <omp.h>

#include <random>
#include <set>

#include "modblas.hpp"
#include "modsparse.hpp"
#include "modsparse_test_support.hpp"

namespace zendar {
namespace {

using test::expect_fatal;
using testing::ElementsAre;

crssparse three_by_three() {
    coosparse coo(3, 3, 8, true);
    coo.setsymmetric();
    coo.set(1, 1, 2.0);
    coo.set(1, 3, 0.5);
    coo.set(2, 2, 4.0);
    return convertfromcootocrs(coo);
}

TEST(WithPositions, StoresZerosWhereNothingWas) {
    const crssparse m = three_by_three();
    const std::vector<position_block> blocks = {{{2}, {1, 3}}};

    const crssparse more = with_positions(m, blocks);

    EXPECT_THAT(more.get_rowptr(), ElementsAre(1, 4, 6, 7));
    EXPECT_THAT(more.get_colval(), ElementsAre(1, 2, 3, 2, 3, 3));
    EXPECT_THAT(more.get_nzval(), ElementsAre(2.0, 0.0, 0.5, 4.0, 0.0, 0.0));
    EXPECT_TRUE(more.issorted() && more.issymmetric() && more.isupperstorage());
}

TEST(WithPositions, WithoutBlocksIsACopy) {
    const crssparse m = three_by_three();

    const crssparse copy = with_positions(m, {});

    EXPECT_EQ(copy.get_rowptr(), m.get_rowptr());
    EXPECT_EQ(copy.get_colval(), m.get_colval());
    EXPECT_EQ(copy.get_nzval(), m.get_nzval());
    crssparse empty(0, 0, 0, true);
    empty.sort();
    EXPECT_EQ(with_positions(empty, {}).getdim(1), 0);
}

TEST(WithPositions, KeepsThePermutation) {
    crssparse m = three_by_three();
    m.setpermutation32(std::vector<std::int32_t>{3, 1, 2});

    EXPECT_THAT(with_positions(m, {}).getpermutation32(), ElementsAre(3, 1, 2));
}

TEST(WithPositions, OfRandomBlocksHoldsEveryPairAndChangesNoValue) {
    const int threads = omp_get_max_threads();
    for (unsigned seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE(seed);
        omp_set_num_threads(static_cast<int>(1 + seed % 4));
        std::mt19937 random(seed);
        const auto n = static_cast<std::int32_t>(1 + random() % 60);
        const auto any = [&] { return static_cast<std::int32_t>(1 + random() % static_cast<unsigned>(n)); };
        coosparse coo(n, n, 64, true);
        coo.setsymmetric();
        for (int k = 0; k < 2 * n; ++k) {
            const std::int32_t i = any(), j = any();
            coo.set(std::min(i, j), std::max(i, j), static_cast<double>(k + 1));
        }
        const crssparse m = convertfromcootocrs(coo);
        std::vector<position_block> blocks(random() % 4);
        std::set<std::pair<std::int32_t, std::int32_t>> expected;
        for (position_block& block : blocks) {
            for (auto k = random() % 12; k > 0; --k) block.rows.push_back(any());  // also twice
            for (auto k = random() % 12; k > 0; --k) block.cols.push_back(any());
            if (random() % 3 == 0) block.cols = block.rows;
            for (const std::int32_t i : block.rows)
                for (const std::int32_t j : block.cols) expected.emplace(std::min(i, j), std::max(i, j));
        }
        const crs_view<std::int32_t> v = m.view();
        for (std::int32_t i = 1; i <= n; ++i)
            for (std::int32_t k = v.ia[i - 1] - 1; k < v.ia[i] - 1; ++k) expected.emplace(i, v.ja[k]);

        const crssparse more = with_positions(m, blocks);

        std::set<std::pair<std::int32_t, std::int32_t>> stored;
        const crs_view<std::int32_t> w = more.view();
        for (std::int32_t i = 1; i <= n; ++i)
            for (std::int32_t k = w.ia[i - 1] - 1; k < w.ia[i] - 1; ++k) {
                EXPECT_TRUE(stored.emplace(i, w.ja[k]).second);
                EXPECT_EQ(w.a[k], m.get(i, w.ja[k]));
            }
        EXPECT_EQ(stored, expected);
        EXPECT_TRUE(detail::is_sorted_by_column(w));
    }
    omp_set_num_threads(threads);
}

TEST(WithPositions, GivesTheInverseThesePositions) {
    constexpr std::int32_t n = 40;  // a tridiagonal matrix, whose sparse inverse is tridiagonal, too
    coosparse coo(n, n, 128, true);
    coo.setsymmetric();
    for (std::int32_t i = 1; i <= n; ++i) coo.set(i, i, 2.5);
    for (std::int32_t i = 1; i < n; ++i) coo.set(i, i + 1, -1.0);
    const crssparse m = convertfromcootocrs(coo);
    matrix<double> exact = test::dense(m);
    ASSERT_EQ(lapack_dpotrf(exact.view()), 0);
    ASSERT_EQ(lapack_dpotri(exact.view()), 0);
    const std::vector<position_block> blocks = {{{3, 17, 31, 40}, {3, 17, 31, 40}}, {{1}, {20, 40}}};

    crssparse inverse = with_positions(m, blocks);
    inverse.getspainv();

    for (const position_block& block : blocks)
        for (const std::int32_t i : block.rows)
            for (const std::int32_t j : block.cols)
                EXPECT_NEAR(inverse.get(i, j), exact(std::max(i, j) - 1, std::min(i, j) - 1), 1e-14);
}

TEST(WithPositions, RefusesWhatIsOutside) {
    const crssparse m = three_by_three();
    const std::vector<position_block> above = {{{1}, {4}}}, below = {{{0}, {1}}};
    expect_fatal([&] { [[maybe_unused]] const auto r = with_positions(m, above); },
                 " ERROR: the equation 4 is not in the matrix");
    expect_fatal([&] { [[maybe_unused]] const auto r = with_positions(m, below); },
                 " ERROR: the equation 0 is not in the matrix");
    test::unit unit;
    const crssparse unsorted(2, 2, 2, true, &unit.log);
    expect_fatal([&] { [[maybe_unused]] const auto r = with_positions(unsorted, {}); },
                 " ERROR: the CRS matrix must be square, sorted and upper triangular stored");
    EXPECT_NE(unit.text(), "");
}

}  // namespace
}  // namespace zendar
