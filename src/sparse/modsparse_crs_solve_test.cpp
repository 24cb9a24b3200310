#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "captured_log.hpp"
#include "modsparse.hpp"
#include "modsparse_crs_triangular.hpp"
#include "modsparse_detail.hpp"

namespace zendar {
namespace {

using ::testing::DoubleNear;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

/// A grid's equations: 5 on the diagonal and -1 for neighbours.
coosparse grid_matrix(std::int32_t side, logger* unlog = nullptr) {
    coosparse coo(side * side, {}, {}, true, unlog);
    coo.setsymmetric();
    for (std::int32_t i = 1; i <= side * side; ++i) {
        coo.add(i, i, 5.0);
        if (i % side != 0) coo.add(i, i + 1, -1.0);
        if (i + side <= side * side) coo.add(i, i + side, -1.0);
    }
    return coo;
}

std::vector<double> random_vector(std::int64_t n, unsigned seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    std::vector<double> x(static_cast<std::size_t>(n));
    std::ranges::generate(x, [&] { return value(generator); });
    return x;
}

void expect_near(std::span<const double> a, std::span<const double> b, double tolerance) {
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) ASSERT_NEAR(a[i], b[i], tolerance) << i;
}

std::size_t count_of(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

const std::string start = " Start ordering and factorization";

TEST(Solve, FactorisesOnceAndLogsIt) {
    test::captured_log unit;
    crssparse a = convertfromcootocrs(grid_matrix(6, &static_cast<logger&>(unit)));
    const std::vector<double> first = random_vector(36, 1), second = random_vector(36, 2);
    std::vector<double> y(36), x(36);

    EXPECT_FALSE(a.isdecomposed());
    CaptureStdout();
    for (const auto& expected : {first, second}) {
        a.multgenv(1.0, 'N', expected, 0.0, y);
        a.solve(x, y);
        expect_near(x, expected, 1e-13);
    }
    EXPECT_EQ(GetCapturedStdout(), "");

    EXPECT_TRUE(a.isdecomposed());
    EXPECT_EQ(count_of(unit.text(), start), 1U);
    EXPECT_EQ(count_of(unit.text(), " Number of nonzeros in factors  = "), 1U);
    EXPECT_EQ(count_of(unit.text(), " Elapsed time (s)               = "), 1U);
    EXPECT_THAT(unit.text(), Not(HasSubstr("dependent")));
}

TEST(Solve, FactorisesAgainAfterResetPardisoMemory) {
    test::captured_log unit;
    crssparse a = convertfromcootocrs(grid_matrix(3, &static_cast<logger&>(unit)));
    const std::vector<double> y(9, 1.0);
    std::vector<double> x(9), again(9);

    a.solve(x, y);
    a.reset_pardiso_memory();
    EXPECT_FALSE(a.isdecomposed());
    a.scale(2.0);
    a.solve(again, y);

    EXPECT_EQ(count_of(unit.text(), start), 2U);
    for (std::size_t i = 0; i < 9; ++i) EXPECT_NEAR(again[i], x[i] / 2.0, 1e-14);
}

TEST(Solve, TakesManyColumnsAndWideIndices) {
    crssparse64 a = convertfromcootocrs64(grid_matrix(7));
    crssparse narrow_indices = convertfromcootocrs(grid_matrix(7));
    matrix<double> expected(49, 45), y(49, 45), x(49, 45);
    std::ranges::copy(random_vector(49 * 45, 3), expected.values().begin());
    narrow_indices.multgenm(1.0, 'N', expected.view(), 0.0, y.view());

    a.solve(x.view(), y.view());

    expect_near(x.values(), expected.values(), 1e-13);
}

TEST(Solve, FollowsThePermutationOfTheMatrix) {
    // An arrow: with the dense equation last there is no fill, with it first all is filled.
    coosparse coo(30, {}, {}, true);
    coo.setsymmetric();
    for (std::int32_t i = 1; i <= 30; ++i) {
        coo.add(i, i, 100.0);
        if (i > 1) coo.add(1, i, 1.0);
    }
    const auto report = [&](const std::vector<std::int32_t>& perm) {
        test::captured_log unit;
        crssparse a = convertfromcootocrs(coo);
        a.setoutputunit(&static_cast<logger&>(unit));
        a.setpermutation32(perm);
        std::vector<double> x(30);
        a.solve(x, std::vector<double>(30, 1.0));
        const std::string text = unit.text(), head = "factors  = ";
        return std::stol(text.substr(text.find(head) + head.size()));
    };
    std::vector<std::int32_t> natural(30), reversed(30);
    for (std::int32_t i = 0; i < 30; ++i) natural[i] = i + 1, reversed[i] = 30 - i;

    EXPECT_GE(report(natural), 30 * 31 / 2);
    EXPECT_LT(report(reversed), 30 * 31 / 4);
}

TEST(Solve, TakesAConsistentSystemOfDeficientRankAndTellsSo) {
    // Two groups of two records and a mean: X'X with rank 2.
    test::captured_log unit;
    coosparse coo(3, {}, {}, true, &static_cast<logger&>(unit));
    coo.setsymmetric();
    coo.add(1, 1, 4.0), coo.add(1, 2, 2.0), coo.add(1, 3, 2.0), coo.add(2, 2, 2.0), coo.add(3, 3, 2.0);
    crssparse a = convertfromcootocrs(coo);
    std::vector<double> x(3);

    a.solve(x, std::vector{20.0, 14.0, 6.0});

    EXPECT_NEAR(x[0] + x[1], 7.0, 1e-12);
    EXPECT_NEAR(x[1] - x[2], 4.0, 1e-12);
    EXPECT_THAT(unit.text(), HasSubstr(" Number of dependent equations  = 1"));
}

/// X'X of records in `herds` herds and `years` years, both fixed and crossed with a mean: two equations
/// depend on the others. Each animal has one record and a share in the diagonal.
coosparse two_confounded_effects(std::int32_t herds, std::int32_t years, std::int32_t animals) {
    const std::int32_t n = herds + years + 1 + animals;
    coosparse coo(n, {}, {}, true);
    coo.setsymmetric();
    for (std::int32_t a = 0; a < animals; ++a) {
        const std::int32_t eq[] = {1, 2 + a % herds, 2 + herds + a / herds % years, herds + years + 2 + a};
        for (const std::int32_t i : eq)
            for (const std::int32_t j : eq) coo.add(i, j, 1.0);
        coo.add(eq[3], eq[3], 2.0);
    }
    return coo;
}

TEST(Solve, TellsHowManyEquationsTwoConfoundedEffectsMakeDependent) {
    test::captured_log unit;
    crssparse a = convertfromcootocrs(two_confounded_effects(5, 4, 200));
    a.setoutputunit(&static_cast<logger&>(unit));
    const std::int32_t n = a.getdim(1);
    std::vector<double> y(n), x(n), back(n);
    a.multgenv(1.0, 'N', random_vector(n, 8), 0.0, y);

    a.solve(x, y);
    a.multgenv(1.0, 'N', x, 0.0, back);

    expect_near(back, y, 1e-10);
    EXPECT_THAT(unit.text(), MatchesRegex(" Start ordering and factorization\n"
                                          " Number of nonzeros in factors  = [0-9]+\n"
                                          " Elapsed time \\(s\\)               = [0-9]*\\.[0-9]+\n"
                                          " Number of dependent equations  = 2\n"));
}

TEST(Solve, WritesNothingToStandardOutputOrError) {
    crssparse definite = convertfromcootocrs(grid_matrix(12));
    crssparse dependent = convertfromcootocrs(two_confounded_effects(5, 4, 60));
    crssparse zero = convertfromcootocrs(coosparse(4, {}, {}, true));
    coosparse coo(3, {}, {}, true);
    coo.setsymmetric();
    coo.add(1, 2, 1.0), coo.add(3, 3, -1.0);
    crssparse indefinite = convertfromcootocrs(coo);
    crssparse overflow = indefinite.copy();
    overflow.scale(1e300);

    CaptureStdout();
    CaptureStderr();
    for (crssparse* a : {&definite, &dependent, &zero, &indefinite, &overflow}) {
        std::vector<double> x(a->getdim(1));
        a->solve(x, std::vector<double>(x.size(), 1e10));
        a->reset_pardiso_memory();
        static_cast<void>(a->getordering());
    }
    definite.getspainv();
    const std::string out = GetCapturedStdout(), error = GetCapturedStderr();

    EXPECT_EQ(out, "");
    EXPECT_EQ(error, "");
}

TEST(Solve, TakesOneEquationAndNone) {
    coosparse coo(1, {}, {}, true);
    coo.add(1, 1, -4.0);
    crssparse one = convertfromcootocrs(coo);
    std::vector<double> x(1);
    one.solve(x, std::vector{8.0});
    EXPECT_EQ(x[0], -2.0);

    matrix<double> none(1, 0);
    EXPECT_NO_THROW(one.solve(none.view(), none.view()));
}

TEST(Solve, FactorisesAMatrixThatIsOnlySaidToBeDecomposed) {
    crssparse a = convertfromcootocrs(grid_matrix(2));
    a.setdecomposed(true);
    std::vector<double> x(4);

    a.solve(x, std::vector<double>(4, 3.0));

    expect_near(x, std::vector<double>(4, 1.0), 1e-14);
}

TEST(Solve, KeepsItsFactorsWhenTheMatrixMoves) {
    test::captured_log unit;
    crssparse a = convertfromcootocrs(grid_matrix(2, &static_cast<logger&>(unit)));
    std::vector<double> x(4);
    a.solve(x, x);
    crssparse moved = std::move(a);

    moved.solve(x, std::vector<double>(4, 3.0));
    crssparse copied = moved.copy();

    expect_near(x, std::vector<double>(4, 1.0), 1e-14);
    EXPECT_EQ(count_of(unit.text(), start), 1U);
    EXPECT_FALSE(copied.isdecomposed());
}

TEST(Solve, RefusesAPermutationThatIsNone) {
    crssparse a = convertfromcootocrs(grid_matrix(2));
    a.setpermutation32(std::vector{1, 2, 2, 4});
    std::vector<double> x(4);
    EXPECT_EQ(test::fatal_message([&] { a.solve(x, x); }),
              " ERROR: the matrix cannot be solved: the permutation of the matrix is none of 1 to 4");
    EXPECT_EQ(test::fatal_message([&] { a.getchol(); }),
              " ERROR: the permutation does not hold each equation once, see 2");
}

TEST(Solve, TakesAnIndefiniteMatrixThatGetcholRefuses) {
    coosparse coo(2, {}, {}, true);
    coo.setsymmetric();
    coo.add(1, 1, 1.0), coo.add(1, 2, 2.0), coo.add(2, 2, 1.0);
    crssparse a = convertfromcootocrs(coo);
    std::vector<double> x(2);

    a.solve(x, std::vector{5.0, 4.0});

    EXPECT_THAT(x, ElementsAre(DoubleNear(1.0, 1e-14), DoubleNear(2.0, 1e-14)));
    EXPECT_THROW(a.getchol(), fatal_error);
}

TEST(Solve, TakesTheEmptyMatrix) {
    crssparse a(0, 0, {}, true);
    a = convertfromcootocrs(coosparse(0, {}, {}, true));
    std::vector<double> x, y;
    a.solve(x, y);
    EXPECT_TRUE(a.getordering().empty());
}

TEST(Solve, RefusesShapesThatDoNotAgree) {
    crssparse a = convertfromcootocrs(grid_matrix(2));
    matrix<double> one(4, 1), two(4, 2), longer(5, 1);
    EXPECT_EQ(test::fatal_message([&] { a.solve(one.view(), two.view()); }),
              " ERROR: the number of colums of x and y provided to solve are different: 1 and 2");
    EXPECT_EQ(
        test::fatal_message([&] { a.solve(one.view(), longer.view()); }),
        " ERROR: the number of rows of x and y provided to solve is not that of the matrix: 4 and 5 for 4");
}

TEST(Solve, WarnsOfAMatrixThatIsNotSquareAndStops) {
    test::captured_log unit;
    crssparse a = convertfromcootocrs(coosparse(2, 3, {}, true, &static_cast<logger&>(unit)));
    std::vector<double> x(2), y(2);
    EXPECT_EQ(test::fatal_message([&] { a.solve(x, y); }),
              " ERROR: a system with 2 equations and 3 unknowns cannot be solved!");
    EXPECT_THAT(unit.text(), HasSubstr(" Warning: the sparse matrix is not squared!"));
}

TEST(Solve, RefusesAMatrixTheDirectSolverCannotTake) {
    const auto message_for = [](const std::vector<std::int32_t>& ia, const std::vector<std::int32_t>& ja,
                                const std::vector<double>& values, bool upper) {
        crssparse a(2, std::ssize(values), {}, upper);
        a.external(ia, ja, values);
        std::vector<double> x(2);
        const std::string text = test::fatal_message([&] { a.solve(x, std::vector<double>(2, 1.0)); });
        EXPECT_FALSE(a.isdecomposed());
        return text;
    };
    const std::string head = " ERROR: the matrix cannot be solved: ";
    const double bad = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(message_for({1, 2, 3}, {2, 2}, {1.0, 1.0}, true),
              head + "no diagonal element is stored in row 1");
    EXPECT_EQ(message_for({1, 3, 4}, {2, 1, 2}, {1.0, 1.0, 1.0}, true),
              head + "the columns are not sorted in row 1");
    EXPECT_EQ(message_for({1, 2, 4}, {1, 1, 2}, {1.0, 1.0, 1.0}, false), head + "it is not upper-stored");
    EXPECT_EQ(message_for({1, 2, 3}, {1, 2}, {1.0, 1.0}, false), head + "it is not upper-stored");
    EXPECT_EQ(message_for({1, 2, 3}, {1, 2}, {1.0, bad}, true),
              head + "an element is not a finite number in row 2");
}

TEST(SolveWithUpper, DividesByTheFactorAndItsTranspose) {
    // U = [2 1; . 4]: U'U = [4 2; 2 17]
    const std::vector<std::int32_t> ia{1, 3, 4}, ja{1, 2, 2};
    const std::vector<double> u{2.0, 1.0, 4.0};
    std::vector<double> x{8.0, 36.0};
    solve_with_upper(crs_view<std::int32_t>{2, 2, ia, ja, u}, x);
    EXPECT_THAT(x, ElementsAre(1.0, 2.0));
}

TEST(SolveWithUnitUpper, DividesByFactorsAndDiagonal) {
    // U = [1 2; . 1], D = (3, 5): U'DU = [3 6; 6 17]
    const std::vector<std::int32_t> ia{1, 3, 4}, ja{1, 2, 2};
    std::vector<double> u{3.0, 2.0, 5.0}, x{15.0, 40.0};
    solve_with_unit_upper(crs_view<std::int32_t>{2, 2, ia, ja, u}, x);
    EXPECT_THAT(x, ElementsAre(1.0, 2.0));

    u = {3.0, 2.0, 0.0};  // a dropped pivot
    x = {15.0, 30.0};
    solve_with_unit_upper(crs_view<std::int32_t>{2, 2, ia, ja, u}, x);
    EXPECT_THAT(x, ElementsAre(5.0, 0.0));
}

TEST(Isolve, InvertsTheFullFactorInTheEquationsOwnOrder) {
    const crssparse a = convertfromcootocrs(grid_matrix(9));
    crssparse factor = a.copy();
    factor.getchol();
    const std::vector<double> expected = random_vector(81, 5);
    std::vector<double> y(81), x(81);
    a.multgenv(1.0, 'N', expected, 0.0, y);

    factor.isolve(x, y);

    expect_near(x, expected, 1e-13);
    EXPECT_FALSE(factor.issymmetric());
}

TEST(Isolve, IsThePreconditionerOfTheIncompleteFactor) {
    const crssparse a = convertfromcootocrs(grid_matrix(9));
    crssparse factor = a.copy();
    factor.getichol();
    const std::vector<double> y = random_vector(81, 6);
    std::vector<double> x(81), residual(y);

    factor.isolve(x, y);
    a.multgenv(-1.0, 'N', x, 1.0, residual);

    EXPECT_EQ(factor.totalnumberofelements(), a.totalnumberofelements());
    double left = 0.0, all = 0.0;
    for (std::size_t i = 0; i < y.size(); ++i) left += residual[i] * residual[i], all += y[i] * y[i];
    EXPECT_GT(left, 1e-20);
    EXPECT_LT(left, 0.05 * all);
}

TEST(Isolve, RefusesWhatIsNoFactor) {
    crssparse zero = convertfromcootocrs(coosparse(2, {}, {}, true));
    crssparse lower = convertfromcootocrs(coosparse(2));
    std::vector<double> x(2), y(2), longer(3);
    const std::string text =
        " ERROR: isolve needs a sorted upper triangular factor without zeros on its diagonal!";
    EXPECT_EQ(test::fatal_message([&] { zero.isolve(x, y); }), text);
    EXPECT_EQ(test::fatal_message([&] { lower.isolve(x, y); }), text);
    EXPECT_EQ(test::fatal_message([&] { zero.isolve(x, longer); }),
              " ERROR: the sizes of x and y provided to isolve are not that of the matrix!");
}

TEST(Solveldlt, SolvesWithTheFactorsOfGetldlt) {
    const crssparse a = convertfromcootocrs(grid_matrix(8));
    crssparse factor = a.copy();
    factor.getldlt();
    matrix<double> expected(64, 3), y(64, 3), x(64, 3);
    std::ranges::copy(random_vector(64 * 3, 7), expected.values().begin());
    a.multgenm(1.0, 'N', expected.view(), 0.0, y.view());

    factor.solveldlt(x.view(), y.view());
    expect_near(x.values(), expected.values(), 1e-13);
    factor.solveldlt(x.column(0), y.column(1));
    expect_near(x.column(0), expected.column(1), 1e-13);
}

TEST(Solveldlt, GivesEachOfSeveralColumnsTheBitsOfASolveOfItsOwn) {
    crssparse factor = convertfromcootocrs(grid_matrix(7));
    factor.getldlt();
    const int before = omp_get_max_threads();
    for (const std::int64_t ncol : {1, 2, 3, 5, 8, 9, 19})
        for (const int nthread : {1, 2, 3}) {
            SCOPED_TRACE(std::to_string(ncol) + " columns, " + std::to_string(nthread) + " threads");
            omp_set_num_threads(nthread);
            matrix<double> y(50, ncol), x(53, ncol);  // longer than the 49 equations
            std::ranges::copy(random_vector(50 * ncol, 11), y.values().begin());
            std::ranges::fill(x.values(), 7.0);
            factor.solveldlt({x.data(), 49, ncol, 53}, {y.data(), 49, ncol, 50});
            for (std::int64_t j = 0; j < ncol; ++j) {
                std::vector<double> alone(49);
                factor.solveldlt(alone, y.column(j).first(49));
                EXPECT_TRUE(std::ranges::equal(x.column(j).first(49), alone)) << "column " << j;
                EXPECT_TRUE(std::ranges::all_of(x.column(j).subspan(49), [](double v) { return v == 7.0; }));
            }
        }
    omp_set_num_threads(before);
}

TEST(Solveldlt, GivesOneSolutionOfAConsistentSystemOfDeficientRank) {
    coosparse coo(3, {}, {}, true);
    coo.setsymmetric();
    coo.add(1, 1, 4.0), coo.add(1, 2, 2.0), coo.add(1, 3, 2.0), coo.add(2, 2, 2.0), coo.add(3, 3, 2.0);
    crssparse factor = convertfromcootocrs(coo);
    factor.getldlt();
    std::vector<double> x(3);

    factor.solveldlt(x, std::vector{20.0, 14.0, 6.0});
    ASSERT_TRUE(factor.isldltfactor());
    std::vector<double> again(3, -1.0), work(3);
    factor.solveldlt_s(again, std::vector{20.0, 14.0, 6.0}, work);
    EXPECT_EQ(again, x);

    EXPECT_NEAR(x[0] + x[1], 7.0, 1e-12);
    EXPECT_NEAR(x[1] - x[2], 4.0, 1e-12);
}

TEST(Solveldlt, RefusesShapesThatDoNotAgree) {
    crssparse factor = convertfromcootocrs(grid_matrix(2));
    const crssparse general = convertfromcootocrs(coosparse(4));
    factor.getldlt();
    matrix<double> one(4, 1), two(4, 2), longer(5, 1);
    EXPECT_EQ(test::fatal_message([&] { factor.solveldlt(one.view(), two.view()); }),
              " ERROR: the number of colums of x and y provided to solveldlt are different: 1 and 2");
    EXPECT_EQ(test::fatal_message([&] { factor.solveldlt(longer.view(), one.view()); }),
              " ERROR: the sizes of x and y provided to solveldlt are not that of the matrix!");
    EXPECT_EQ(test::fatal_message([&] { general.solveldlt(one.view(), one.view()); }),
              " ERROR: solveldlt needs the sorted upper triangular factor of getldlt!");
}

TEST(Getspainv, GivesTheInverseAtTheMatrixsElements) {
    const crssparse a = convertfromcootocrs(grid_matrix(5));
    crssparse inverse = a.copy(), direct = a.copy();
    inverse.getspainv();

    EXPECT_TRUE(inverse.issymmetric());
    for (std::int32_t j = 1; j <= 25; ++j) {
        std::vector<double> unit(25, 0.0), column(25);
        unit[j - 1] = 1.0;
        direct.solve(column, unit);
        for (std::int32_t i = 1; i <= 25; ++i)
            if (a.get(i, j) != 0.0) {
                EXPECT_NEAR(inverse.get(i, j), column[i - 1], 1e-14);
            }
    }
}

TEST(Factorisations, KeepTheOrderThatTheyTookAsThePermutation) {
    const crssparse a = convertfromcootocrs(grid_matrix(7));
    const std::vector<std::int32_t> found = a.getordering();
    std::vector<std::int32_t> given(49);
    for (std::int32_t i = 0; i < 49; ++i) given[i] = (i * 5) % 49 + 1;
    for (const bool user : {false, true})
        for (void (crssparse::*factorise)() :
             {&crssparse::getchol, &crssparse::getldlt, &crssparse::getichol, &crssparse::getspainv}) {
            crssparse m = a.copy();
            if (user) m.setpermutation32(given);

            (m.*factorise)();

            EXPECT_TRUE(std::ranges::equal(m.getpermutation32(), user ? given : found));
            EXPECT_TRUE(m.isupperstorage() && m.issorted());
        }
}

TEST(Factorisations, RefuseWhatIsNoUpperTriangle) {
    const std::string text = " ERROR: the CRS matrix must be square and upper triangular stored";
    const crssparse full = convertfromcootocrs(coosparse(3));
    const crssparse oblong = convertfromcootocrs(coosparse(2, 3, {}, true));
    const std::vector<std::int32_t> order{3, 1, 2};
    for (const crssparse* a : {&full, &oblong})
        for (void (crssparse::*factorise)() :
             {&crssparse::getchol, &crssparse::getldlt, &crssparse::getichol, &crssparse::getspainv})
            for (const bool user : {false, true}) {
                test::captured_log unit;
                crssparse m = a->copy();
                m.setoutputunit(&static_cast<logger&>(unit));
                if (user) m.setpermutation32(std::span(order).first(static_cast<std::size_t>(m.getdim(1))));
                EXPECT_EQ(test::fatal_message([&] { (m.*factorise)(); }), text);
                EXPECT_THAT(unit.text(), HasSubstr(text));
            }
}

TEST(Factorisations, NameTheElementThatIsNoNumberAndLeaveTheMatrixAlone) {
    crssparse a = convertfromcootocrs(grid_matrix(3));
    a.set(2, 3, std::numeric_limits<double>::quiet_NaN());
    for (void (crssparse::*factorise)() :
         {&crssparse::getchol, &crssparse::getldlt, &crssparse::getichol, &crssparse::getspainv})
        EXPECT_EQ(test::fatal_message([&] { (a.*factorise)(); }),
                  " ERROR: the element (2, 3) of the CRS matrix is not a finite number");
    EXPECT_EQ(a.get(1, 1), 5.0);
    EXPECT_FALSE(a.haspermutation32());
}

TEST(Factorisations, NameThePivotThatFails) {
    crssparse a = convertfromcootocrs(grid_matrix(3));
    a.set(5, 5, -5.0);
    const std::string head = " ERROR: the pivot of equation 5 is ";
    const std::string positive = head + "not positive: the matrix is not positive definite";
    const std::string negative = head + "negative: the matrix is not positive semidefinite";
    EXPECT_EQ(test::fatal_message([&] { a.getchol(); }), positive);
    EXPECT_EQ(test::fatal_message([&] { a.getichol(); }), positive);
    EXPECT_EQ(test::fatal_message([&] { a.getldlt(); }), negative);
    EXPECT_EQ(test::fatal_message([&] { a.getspainv(); }), negative);
}

TEST(Factorisations, CountTheEquationsOfASemidefiniteMatrixThatTheyDrop) {
    const crssparse a = convertfromcootocrs(two_confounded_effects(5, 4, 200));
    for (void (crssparse::*factorise)() : {&crssparse::getldlt, &crssparse::getspainv}) {
        test::captured_log unit;
        crssparse m = a.copy();
        m.setoutputunit(&static_cast<logger&>(unit));

        (m.*factorise)();

        EXPECT_THAT(unit.text(), HasSubstr("  Number of dropped pivots: 2\n"));
        const std::vector<double> diagonal = m.diag_vect();
        EXPECT_EQ(std::ranges::count(diagonal, 0.0), 2);
    }
}

TEST(Getordering, IsAPermutationFromOne) {
    const crssparse a = convertfromcootocrs(grid_matrix(10));
    std::vector<std::int32_t> order = a.getordering();
    std::ranges::sort(order);
    for (std::int32_t i = 0; i < 100; ++i) EXPECT_EQ(order[i], i + 1);
}

TEST(Getordering, RefusesAMatrixThatIsNotUpperStored) {
    const crssparse a = convertfromcootocrs(coosparse(3));
    EXPECT_EQ(test::fatal_message([&] { static_cast<void>(a.getordering()); }),
              " ERROR: the CRS matrix must be square and upper triangular stored");
}

}  // namespace
}  // namespace zendar
