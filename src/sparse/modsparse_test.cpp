#include "modsparse.hpp"

#include <omp.h>

#include <map>
#include <random>

#include "modsparse_detail.hpp"
#include "modsparse_test_support.hpp"

namespace zendar::test {
namespace {

using ::testing::ElementsAre;

TEST(ConvertFromCooToCrs, GivesEveryRowAStoredDiagonal) {
    coosparse coo(3, 3, 8);
    coo.add(1, 2, 5.0);

    const crssparse crs = convertfromcootocrs(coo);

    EXPECT_THAT(crs.get_rowptr(), ElementsAre(1, 3, 4, 5));
    EXPECT_THAT(crs.get_colval(), ElementsAre(1, 2, 2, 3));
    EXPECT_THAT(crs.get_nzval(), ElementsAre(0.0, 5.0, 0.0, 0.0));
    EXPECT_TRUE(crs.issorted());
}

TEST(ConvertFromCooToCrs, StoresZerosForAMissingDiagonal) {
    coosparse coo(3, 3, 8);
    coo.add(1, 2, 1.0);
    coo.add(2, 3, 2.0);
    coo.add(3, 1, 3.0);

    const crssparse crs = convertfromcootocrs(coo);

    EXPECT_EQ(crs.totalnumberofelements(), 6);
    EXPECT_THAT(crs.get_colval(), ElementsAre(1, 2, 2, 3, 1, 3));
    EXPECT_THAT(crs.get_nzval(), ElementsAre(0.0, 1.0, 0.0, 2.0, 3.0, 0.0));
}

TEST(ConvertFromCooToCrs, ReservesTheLastColumnOfAMatrixThatIsNotSquare) {
    coosparse coo(2, 3, 8);
    coo.add(1, 1, 4.0);
    coo.add(2, 3, 7.0);
    for (const std::int64_t width : {32, 64}) {
        SCOPED_TRACE(width);
        if (width == 32) {
            const crssparse crs = convertfromcootocrs(coo);
            EXPECT_THAT(crs.get_rowptr(), ElementsAre(1, 3, 4));
            EXPECT_THAT(crs.get_colval(), ElementsAre(1, 3, 3));
            EXPECT_THAT(crs.get_nzval(), ElementsAre(4.0, 0.0, 7.0));
        } else {
            const crssparse64 crs = convertfromcootocrs64(coo);
            EXPECT_THAT(crs.get_rowptr(), ElementsAre(1, 3, 4));
            EXPECT_THAT(crs.get_colval(), ElementsAre(1, 3, 3));
            EXPECT_THAT(crs.get_nzval(), ElementsAre(4.0, 0.0, 7.0));
        }
    }
}

TEST(ConvertFromCooToCrs, CopesWithMatricesWithoutRowsOrColumns) {
    for (const auto& [n, m] : {std::pair{0, 0}, {0, 4}, {4, 0}}) {
        const coosparse coo(n, m);
        EXPECT_EQ(convertfromcootocrs(coo).totalnumberofelements(), 0);
        EXPECT_EQ(convertfromcootocrs64(coo).getdim(1), n);
        EXPECT_EQ(convertfromcootoll(coo).getdim(2), m);
        EXPECT_EQ(convertfromcrstocoo(convertfromcootocrs(coo)).getdim(2), m);
        EXPECT_EQ(convertfromlltocrs(convertfromcootoll(coo)).getdim(1), n);
    }
}

/// Rows of 0 to 49 elements in a table that several threads share.
TEST(ConvertFromCooToCrs, GivesTheSameForAnyNumberOfThreads) {
    constexpr std::int32_t n = 2000, longest = 50;
    coosparse coo(n, 2 * n, 1 << 17);
    std::vector<std::int32_t> pointers{1}, columns;
    for (std::int32_t i = 1; i <= n; ++i) {
        for (std::int32_t k = 0; k < i % longest; ++k) {
            const std::int32_t step = (k * 17 + i) % longest;  // in no order
            if (step < i % longest) coo.add(i, 1 + step * (i % 7 + 1), i + 0.001 * step);
        }
        for (std::int32_t k = 0; k < i % longest; ++k)
            if (coo.get(i, 1 + k * (i % 7 + 1)) != 0.0) columns.push_back(1 + k * (i % 7 + 1));
        columns.push_back(2 * n);  // stored in any case
        pointers.push_back(static_cast<std::int32_t>(columns.size()) + 1);
    }
    const int before = omp_get_max_threads();
    for (int threads = 1; threads <= 9; ++threads) {
        SCOPED_TRACE(threads);
        omp_set_num_threads(threads);
        const crssparse crs = convertfromcootocrs(coo);
        EXPECT_EQ(crs.get_rowptr(), pointers);
        EXPECT_EQ(crs.get_colval(), columns);
        const std::vector<double> values = crs.get_nzval();
        std::size_t k = 0;
        for (std::int32_t i = 1; i <= n; ++i)
            for (; k + 1 < static_cast<std::size_t>(pointers[i]); ++k)
                ASSERT_EQ(values[k], coo.get(i, columns[k])) << "row " << i;
    }
    omp_set_num_threads(before);
}

TEST(ConvertFromCooToCrs, CopesWithALargeTableWithoutRows) {
    EXPECT_EQ(convertfromcootocrs(coosparse(0, 0, 1 << 17)).totalnumberofelements(), 0);
    EXPECT_EQ(convertfromcootocrs(coosparse(1, 4, 1 << 17)).totalnumberofelements(), 1);
}

TEST(ConvertFromCooToCrs, CopesWithRowsOfVeryDifferentLengths) {
    // One row and one column with all elements, as of a mean, and nearly empty rows in a long matrix.
    constexpr std::int32_t n = 100000;
    for (const bool upper : {false, true}) {
        coosparse coo(n, n, 1 << 19, upper);
        std::mt19937 generator(3);
        std::map<std::pair<std::int32_t, std::int32_t>, double> expected;
        const auto put = [&](std::int32_t i, std::int32_t j, double v) {
            coo.add(i, j, v);
            if (!upper || i <= j) expected[{i, j}] += v;
        };
        for (std::int32_t i = 1; i <= n; ++i) {
            expected[{i, i}] += 0.0;
            put(17, i, i);
            put(i, n - 3, 2.0 * i);
            if (i % 1000 == 0) put(i, static_cast<std::int32_t>(generator() % n) + 1, 1.0);
        }
        const crssparse crs = convertfromcootocrs(coo);

        const crs_view<std::int32_t> m = crs.view();
        ASSERT_EQ(std::ssize(m.ja), std::ssize(expected));
        auto next = expected.begin();
        for (std::int32_t i = 1; i <= n; ++i)
            for (std::int32_t k = m.ia[i - 1] - 1; k < m.ia[i] - 1; ++k, ++next) {
                ASSERT_EQ(std::pair(i, m.ja[k]), next->first);
                ASSERT_EQ(m.a[k], next->second);
            }
    }
}

/// Every conversion, for every kind and shape, keeps what `get` shows.
TEST(Conversions, AgreeWithADenseMatrix) {
    random_elements random(31);
    for (const auto& [n, m] : {std::pair{1, 1}, {2, 2}, {60, 60}, {60, 17}, {17, 60}, {1, 5}, {5, 1}}) {
        for (const bool upper : {false, true}) {
            SCOPED_TRACE(testing::Message() << n << 'x' << m << ' ' << upper);
            coosparse coo(n, m, 8, upper);
            const matrix<double> a =
                random.fill(n, m, upper, [&](auto i, auto j, double v) { coo.add(i, j, v); });

            const llsparse ll = convertfromcootoll(coo);
            const crssparse crs = convertfromcootocrs(coo), from_ll = convertfromlltocrs(ll);
            const crssparse64 crs64 = convertfromcootocrs64(coo);

            EXPECT_EQ(dense(ll), a);
            EXPECT_EQ(dense(crs), a);
            EXPECT_EQ(dense(from_ll), a);
            EXPECT_EQ(dense(crs64), a);
            EXPECT_EQ(dense(convertfromlltocoo(ll)), a);
            EXPECT_EQ(dense(convertfromcrstocoo(crs)), a);
            EXPECT_EQ(dense(convertfromcrs64tocoo(crs64)), a);
            EXPECT_EQ(dense(convertfromcrstoll(crs)), a);
            EXPECT_TRUE(detail::is_sorted_by_column(crs.view()));
            EXPECT_TRUE(detail::is_sorted_by_column(crs64.view()));
            EXPECT_EQ(from_ll.get_rowptr(), crs.get_rowptr());
            EXPECT_EQ(from_ll.get_colval(), crs.get_colval());
            EXPECT_EQ(from_ll.get_nzval(), crs.get_nzval());
            EXPECT_TRUE(ll.issorted() && from_ll.issorted() && crs64.issorted());
        }
    }
}

TEST(Conversions, CopyFlagsPermutationAndUnit) {
    unit u;
    coosparse coo(2, 2, 8, true, &u.log);
    coo.setsymmetric();
    coo.setpermutation32(std::vector<std::int32_t>{2, 1});
    coo.setpermutation64(std::vector<std::int64_t>{1, 2});
    coo.add(1, 2, 1.0);
    const auto check = [&](const gen_sparse& m) {
        EXPECT_TRUE(m.issymmetric() && m.isupperstorage());
        EXPECT_THAT(m.getpermutation32(), ElementsAre(2, 1));
        EXPECT_THAT(m.getpermutation64(), ElementsAre(1, 2));
        EXPECT_EQ(m.getoutputunit(), &u.log);
        EXPECT_EQ(m.get(2, 1), 1.0);
    };

    check(convertfromcootocrs(coo));
    check(convertfromcootocrs64(coo));
    check(convertfromcootoll(coo));
    check(convertfromcrstocoo(convertfromcootocrs(coo)));
    check(convertfromcrs64tocoo(convertfromcootocrs64(coo)));
    check(convertfromcrstoll(convertfromcootocrs(coo)));
    check(convertfromlltocoo(convertfromcootoll(coo)));
    check(convertfromlltocrs(convertfromcootoll(coo)));
    EXPECT_EQ(u.text(), "");
}

TEST(Conversions, ServeAsAssignments) {
    coosparse coo(2, 2, 8);
    coo.add(1, 2, 3.0);
    crssparse crs;
    crssparse64 crs64;
    llsparse ll;
    coosparse back;

    crs = coo;
    EXPECT_EQ(crs.get(1, 2), 3.0);
    crs64 = coo;
    EXPECT_EQ(crs64.get(1, 2), 3.0);
    ll = coo;
    EXPECT_EQ(ll.get(1, 2), 3.0);
    ll = crs;
    EXPECT_EQ(ll.totalnumberofelements(), 3);
    crs = ll;
    EXPECT_EQ(crs.get(1, 2), 3.0);
    back = ll;
    EXPECT_EQ(back.get(1, 2), 3.0);
    back = crs;
    EXPECT_EQ(back.get(1, 2), 3.0);
    back = crs64;
    EXPECT_EQ(back.get(1, 2), 3.0);
}

TEST(ConvertFromCrsToCoo, DropsStoredZerosAsAddDoes) {
    coosparse coo(3, 3, 8);
    coo.add(1, 2, 5.0);
    const crssparse crs = convertfromcootocrs(coo);
    EXPECT_EQ(crs.totalnumberofelements(), 4);

    EXPECT_EQ(convertfromcrstocoo(crs).totalnumberofelements(), 1);
    EXPECT_EQ(convertfromcrstoll(crs).totalnumberofelements(), 4);
}

TEST(ConvertFromLlToCrs, SumsAColumnThatStandsTwice) {
    llsparse ll(2, 3);
    ll.addtohead(1, 3, 1.0);
    ll.addtohead(1, 1, 2.0);
    ll.addtohead(1, 3, 4.0);
    ll.addtotail(1, 1, 8.0);

    const crssparse crs = convertfromlltocrs(ll);

    EXPECT_THAT(crs.get_rowptr(), ElementsAre(1, 3, 4));
    EXPECT_THAT(crs.get_colval(), ElementsAre(1, 3, 3));
    EXPECT_THAT(crs.get_nzval(), ElementsAre(10.0, 5.0, 0.0));
    EXPECT_EQ(convertfromlltocoo(ll).get(1, 3), 5.0);
}

TEST(ConvertFromCooToCrs, RefusesMoreElementsThanTheIndexCounts) {
    unit u;
    coosparse coo(3, 3, 8, false, &u.log);
    coo.add(1, 2, 5.0);  // four elements with the diagonal

    EXPECT_EQ(detail::coo_to_crs<std::int32_t>(coo, 4).totalnumberofelements(), 4);
    expect_fatal([&] { (void)detail::coo_to_crs<std::int32_t>(coo, 3); },
                 " ERROR: impossible conversion due to a too large number of non-zero elements");
    EXPECT_EQ(u.text(), " ERROR: impossible conversion due to a too large number of non-zero elements\n");
    const llsparse ll = convertfromcootoll(coo);
    EXPECT_EQ(detail::ll_to_crs(ll, 4).totalnumberofelements(), 4);
    expect_fatal([&] { (void)detail::ll_to_crs(ll, 3); },
                 " ERROR: impossible conversion due a too large number of non-zero elements");
    EXPECT_EQ(detail::most_elements<std::int32_t>, 2147483646);
}

TEST(ConvertFromCrsToMetisgraph, MirrorsWithoutTheDiagonal) {
    coosparse coo(4, 4, 8, true);
    coo.add(1, 3, 1.0);
    coo.add(1, 4, 1.0);
    coo.add(3, 4, 1.0);
    coo.add(2, 2, 1.0);

    const metisgraph graph = convertfromcrstometisgraph(convertfromcootocrs(coo));

    EXPECT_EQ(graph.n, 4);
    EXPECT_THAT(graph.xadj, ElementsAre(0, 2, 2, 4, 6));
    EXPECT_THAT(graph.adjncy, ElementsAre(2, 3, 0, 3, 0, 2));
}

TEST(ConvertFromCrsToMetisgraph, RefusesOtherMatrices) {
    const std::string text = " ERROR: the CRS matrix must be square and upper triangular stored";
    expect_fatal([] { (void)convertfromcrstometisgraph(convertfromcootocrs(coosparse(3, 3))); }, text);
    expect_fatal([] { (void)convertfromcrstometisgraph(convertfromcootocrs(coosparse(3, 4, 8, true))); },
                 text);
    const metisgraph none = convertfromcrstometisgraph(convertfromcootocrs(coosparse(0, 0, 8, true)));
    EXPECT_THAT(none.xadj, ElementsAre(0));
    coosparse coo(2, 2, 8, true);
    coo.add(1, 2, 1.0);
    expect_fatal([&] { (void)detail::crs_to_metisgraph(convertfromcootocrs(coo), 1); },
                 " ERROR: impossible conversion due to a too large number of non-zero elements");
}

}  // namespace
}  // namespace zendar::test
