#include "modsparse_ll.hpp"

#include "modsparse_test_support.hpp"

namespace zendar::test {
namespace {

using ::testing::ElementsAre;

std::vector<std::int32_t> columns(const llsparse& ll, std::int32_t row) {
    std::vector<std::int32_t> out;
    for (std::int64_t k = ll.row_list(row).head; k != llsparse::none; k = ll.at(k).next)
        out.push_back(ll.at(k).col);
    return out;
}

TEST(Llsparse, StartsEmpty) {
    const llsparse ll(3, 2);
    EXPECT_EQ(ll.namemat(), "LINKED LIST");
    EXPECT_EQ(ll.totalnumberofelements(), 0);
    EXPECT_EQ(ll.get(1, 1), 0.0);
    EXPECT_EQ(ll.getdim(1), 3);
    EXPECT_EQ(ll.getdim(2), 2);
    EXPECT_EQ(llsparse(4).getdim(2), 4);
}

TEST(Addinorder, KeepsTheOrderAndSumsEqualColumns) {
    llsparse ll(2, 9);
    for (const std::int32_t col : {5, 2, 9, 5, 1, 9, 7}) ll.addinorder(1, col, col);

    EXPECT_THAT(columns(ll, 1), ElementsAre(1, 2, 5, 7, 9));
    EXPECT_TRUE(columns(ll, 2).empty());
    EXPECT_EQ(ll.get(1, 5), 10.0);
    EXPECT_EQ(ll.get(1, 9), 18.0);
    EXPECT_EQ(ll.totalnumberofelements(), 5);
}

TEST(Addtohead, PutsANodeFirstAndAddtotailLast) {
    llsparse ll(1, 9);
    ll.addtohead(1, 5, 1.0);
    ll.addtohead(1, 7, 2.0);
    ll.addtotail(1, 2, 3.0);
    ll.addtotail(1, 5, 0.5);

    EXPECT_THAT(columns(ll, 1), ElementsAre(7, 5, 2, 5));
    EXPECT_EQ(ll.get(1, 5), 1.5);
}

TEST(Addinorder, StopsAtTheFirstColumnThatIsNotSmaller) {
    llsparse ll(1, 9);
    ll.addtotail(1, 7, 1.0);
    ll.addtotail(1, 2, 1.0);
    ll.addinorder(1, 5, 1.0);
    EXPECT_THAT(columns(ll, 1), ElementsAre(5, 7, 2));
    ll.addinorder(1, 9, 1.0);
    EXPECT_THAT(columns(ll, 1), ElementsAre(5, 7, 2, 9));
    ll.addtotail(1, 8, 1.0);
    EXPECT_THAT(columns(ll, 1), ElementsAre(5, 7, 2, 9, 8));
}

TEST(Llsparse, DropsPairsOutsideAndBelowTheDiagonal) {
    llsparse ll(2, 2, true);
    for (const auto& [i, j] : {std::pair{0, 1}, {1, 0}, {3, 1}, {1, 3}, {2, 1}}) {
        ll.addinorder(i, j, 1.0);
        ll.addtohead(i, j, 1.0);
        ll.addtotail(i, j, 1.0);
        EXPECT_EQ(ll.get(i, j), 0.0);
    }
    EXPECT_EQ(ll.totalnumberofelements(), 0);
    ll.add(1, 2, 3.0);
    EXPECT_EQ(ll.get(2, 1), 0.0);
    ll.setsymmetric();
    EXPECT_EQ(ll.get(2, 1), 3.0);
}

TEST(Llsparse, AgreesWithADenseMatrix) {
    random_elements random(4);
    for (const auto& [n, m] : {std::pair{1, 1}, {30, 30}, {30, 7}, {0, 3}}) {
        llsparse ll(n, m);
        const matrix<double> expected =
            random.fill(n, m, false, [&](auto i, auto j, double v) { ll.add(i, j, v); });
        EXPECT_EQ(dense(ll), expected);
    }
}

TEST(Llsparse, RefusesProductsAndScaling) {
    unit u;
    llsparse ll(1, 1, false, &u.log);
    std::vector<double> x(1), y(1);
    matrix<double> m(1, 1);

    expect_fatal([&] { ll.multgenv(1.0, 'N', x, 0.0, y); },
                 " ERROR: Multiplication mult not implemented for llsparse");
    expect_fatal([&] { ll.multgenm(1.0, 'N', m.view(), 0.0, m.view()); },
                 " ERROR: Multiplication mult not implemented for llsparse");
    expect_fatal([&] { ll.scale(2.0); }, " ERROR: scale not implemented for llsparse");
    EXPECT_EQ(u.text(),
              " ERROR: Multiplication mult not implemented for llsparse\n"
              " ERROR: Multiplication mult not implemented for llsparse\n"
              " ERROR: scale not implemented for llsparse\n");
}

TEST(Llsparse, PrintsRowByRow) {
    unit u;
    llsparse ll(2, 2, false, &u.log);
    ll.add(2, 1, 1.0);
    ll.add(1, 2, 2.0);
    ll.print_idx();
    EXPECT_EQ(u.text(), "1 2 2\n2 1 1\n");
    EXPECT_GT(ll.getmem(), 0.0);
    ll.destroy();
    EXPECT_EQ(ll.getmem(), 0.0);
}

}  // namespace
}  // namespace zendar::test
