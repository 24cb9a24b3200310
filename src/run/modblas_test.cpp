#include "modblas.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

namespace zendar {
namespace {

using ::testing::DoubleNear;
using ::testing::ElementsAre;
using ::testing::Pointwise;

const double not_a_number = std::numeric_limits<double>::quiet_NaN();

/// Rows written as they stand on paper.
matrix<double> from_rows(std::initializer_list<std::initializer_list<double>> rows) {
    matrix<double> m(std::ssize(rows), std::ssize(*rows.begin()));
    std::int64_t i = 0;
    for (const auto& row : rows) {
        std::int64_t j = 0;
        for (const double x : row) m(i, j++) = x;
        ++i;
    }
    return m;
}

matrix<double> random_matrix(std::int64_t rows, std::int64_t cols, std::uint32_t seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    matrix<double> m(rows, cols);
    std::ranges::generate(m.values(), [&] { return uniform(generator); });
    return m;
}

TEST(LapackDsyevd, GivesTheEigenvaluesAscendingFromTheLowerTriangle) {
    matrix<double> a = from_rows({{2.0, not_a_number}, {1.0, 2.0}});
    std::vector<double> values(2);

    EXPECT_EQ(lapack_dsyevd(a.view(), values), 0);

    EXPECT_THAT(values, ElementsAre(DoubleNear(1.0, 1e-14), DoubleNear(3.0, 1e-14)));
}

TEST(LapackDsyevd, TakesTheEmptyMatrixAndASingleNumber) {
    matrix<double> empty;
    EXPECT_EQ(lapack_dsyevd(empty.view(), {}), 0);
    EXPECT_EQ(lapack_dsyevd_vectors(empty.view(), {}), 0);

    matrix<double> one = from_rows({{-7.0}});
    std::vector<double> value(1);
    EXPECT_EQ(lapack_dsyevd_vectors(one.view(), value), 0);
    EXPECT_EQ(value[0], -7.0);
    EXPECT_EQ(one(0, 0), 1.0);
}

TEST(LapackDsyevdVectors, GivesVectorsThatTheMatrixStretches) {
    const std::int64_t n = 70;  // above the size from which the method divides
    matrix<double> a = random_matrix(n, n, 1);
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t i = 0; i < j; ++i) a(i, j) = a(j, i);
    matrix<double> vectors = a;
    std::vector<double> values(n), values_alone(n);

    ASSERT_EQ(lapack_dsyevd_vectors(vectors.view(), values), 0);

    EXPECT_TRUE(std::ranges::is_sorted(values));
    matrix<double> av(n, n), vtv(n, n);
    blas_dgemm(false, false, 1.0, a.view(), vectors.view(), 0.0, av.view());
    blas_dgemm(true, false, 1.0, vectors.view(), vectors.view(), 0.0, vtv.view());
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t i = 0; i < n; ++i) {
            EXPECT_NEAR(av(i, j), values[j] * vectors(i, j), 1e-12);
            EXPECT_NEAR(vtv(i, j), i == j ? 1.0 : 0.0, 1e-13);
        }
    ASSERT_EQ(lapack_dsyevd(a.view(), values_alone), 0);
    EXPECT_THAT(values_alone, Pointwise(DoubleNear(1e-12), values));
}

TEST(LapackDsyevd, WorksInsideALargerMatrix) {
    matrix<double> large(5, 3, 9.0);
    large(1, 0) = 2.0;
    large(2, 0) = 1.0;
    large(2, 1) = 2.0;
    std::vector<double> values(2);

    EXPECT_EQ(lapack_dsyevd({&large(1, 0), 2, 2, 5}, values), 0);

    EXPECT_THAT(values, ElementsAre(DoubleNear(1.0, 1e-14), DoubleNear(3.0, 1e-14)));
    EXPECT_EQ(large(0, 0), 9.0);
    EXPECT_EQ(large(3, 1), 9.0);
    EXPECT_EQ(large(1, 2), 9.0);
}

TEST(LapackDpotrf, GivesTheLowerFactorAndLeavesTheUpperTriangle) {
    matrix<double> a = from_rows({{4.0, 77.0}, {2.0, 10.0}});

    EXPECT_EQ(lapack_dpotrf(a.view()), 0);

    EXPECT_EQ(a(0, 0), 2.0);
    EXPECT_EQ(a(1, 0), 1.0);
    EXPECT_EQ(a(1, 1), 3.0);
    EXPECT_EQ(a(0, 1), 77.0);
}

TEST(LapackDpotrf, TellsTheFirstMinorThatIsNotPositive) {
    matrix<double> a = from_rows({{1.0, 0.0}, {2.0, 1.0}});

    EXPECT_EQ(lapack_dpotrf(a.view()), 2);
}

TEST(LapackDpotri, GivesTheInverseOfTheFactoredMatrix) {
    matrix<double> a = from_rows({{4.0, 77.0}, {2.0, 10.0}});
    ASSERT_EQ(lapack_dpotrf(a.view()), 0);

    EXPECT_EQ(lapack_dpotri(a.view()), 0);

    EXPECT_NEAR(a(0, 0), 10.0 / 36.0, 1e-15);
    EXPECT_NEAR(a(1, 0), -2.0 / 36.0, 1e-15);
    EXPECT_NEAR(a(1, 1), 4.0 / 36.0, 1e-15);
    EXPECT_EQ(a(0, 1), 77.0);
}

TEST(LapackDpotri, TellsAZeroOnTheDiagonalOfTheFactor) {
    matrix<double> a = from_rows({{1.0, 0.0}, {1.0, 0.0}});

    EXPECT_EQ(lapack_dpotri(a.view()), 2);
}

TEST(LapackDpotrf, ReturnsAtOnceForTheEmptyMatrix) {
    matrix<double> empty;

    EXPECT_EQ(lapack_dpotrf(empty.view()), 0);
    EXPECT_EQ(lapack_dpotri(empty.view()), 0);
}

TEST(LapackDpotrf, RefusesASizeBeyondThe32BitIntegersOfTheLibrary) {
    double number = 1.0;
    const std::int64_t n = std::int64_t{1} << 32;

    EXPECT_THROW(lapack_dpotrf({&number, n, n, n}), std::range_error);
    EXPECT_THROW(lapack_dpotri({&number, n, n, n}), std::range_error);
}

TEST(LapackDsyevdVectors, RefusesASizeWhoseWorkspaceOverflows) {
    double number = 1.0;
    const std::int64_t n = 32768;

    EXPECT_THROW(lapack_dsyevd_vectors({&number, n, n, n}, {&number, static_cast<std::size_t>(n)}),
                 std::range_error);
}

class BlasDgemm : public ::testing::TestWithParam<std::tuple<bool, bool>> {};

TEST_P(BlasDgemm, AgreesWithTheSumsWrittenOut) {
    const auto [ta, tb] = GetParam();
    const std::int64_t m = 7, n = 5, k = 11;
    const matrix<double> a = random_matrix(ta ? k : m, ta ? m : k, 2);
    const matrix<double> b = random_matrix(tb ? n : k, tb ? k : n, 3);
    matrix<double> c = random_matrix(m, n, 4);
    const matrix<double> old = c;

    blas_dgemm(ta, tb, 2.0, a.view(), b.view(), -0.5, c.view());

    for (std::int64_t i = 0; i < m; ++i)
        for (std::int64_t j = 0; j < n; ++j) {
            double sum = -0.5 * old(i, j);
            for (std::int64_t l = 0; l < k; ++l)
                sum += 2.0 * (ta ? a(l, i) : a(i, l)) * (tb ? b(j, l) : b(l, j));
            EXPECT_NEAR(c(i, j), sum, 1e-13) << i << " " << j;
        }
}

INSTANTIATE_TEST_SUITE_P(Transpositions, BlasDgemm, ::testing::Combine(::testing::Bool(), ::testing::Bool()));

TEST(BlasDgemm, OverwritesNaNWhenBetaIsZero) {
    const matrix<double> a = from_rows({{1.0, 2.0}}), b = from_rows({{3.0}, {4.0}});
    matrix<double> c(1, 1, not_a_number);

    blas_dgemm(false, false, 1.0, a.view(), b.view(), 0.0, c.view());

    EXPECT_EQ(c(0, 0), 11.0);
}

TEST(BlasDgemm, TakesEmptyOperands) {
    const matrix<double> a(2, 0), b(0, 3);
    matrix<double> c(2, 3, 4.0), nothing;

    blas_dgemm(false, false, 1.0, a.view(), b.view(), 0.5, c.view());
    blas_dgemm(true, true, 1.0, b.view(), a.view(), 1.0, matrix<double>(3, 2).view());
    blas_dgemm(false, false, 1.0, nothing.view(), nothing.view(), 0.0, nothing.view());

    EXPECT_THAT(c.values(), ::testing::Each(2.0));
}

TEST(BlasDgemv, AgreesWithTheSumsWrittenOut) {
    const matrix<double> large = random_matrix(9, 4, 5), x = random_matrix(7, 1, 6);
    const matrix_view<const double> a{large.data() + 1, 7, 4, 9};
    for (const bool transposed : {false, true}) {
        const std::int64_t m = transposed ? 4 : 7, k = transposed ? 7 : 4;
        std::vector<double> y(static_cast<std::size_t>(m), 3.0);

        blas_dgemv(transposed, 2.0, a, x.values().first(static_cast<std::size_t>(k)), -0.5, y);

        for (std::int64_t i = 0; i < m; ++i) {
            double sum = -1.5;
            for (std::int64_t l = 0; l < k; ++l) sum += 2.0 * (transposed ? a(l, i) : a(i, l)) * x(l, 0);
            EXPECT_NEAR(y[i], sum, 1e-14) << i;
        }
    }
}

TEST(BlasDgemv, OverwritesNaNWhenBetaIsZeroAndTakesEmptyOperands) {
    const matrix<double> a = from_rows({{1.0, 2.0}}), no_columns(2, 0), no_rows(0, 2);
    std::vector<double> x{3.0, 4.0}, one{not_a_number}, two{not_a_number, not_a_number}, none;

    blas_dgemv(false, 1.0, a.view(), x, 0.0, one);
    EXPECT_THAT(one, ElementsAre(11.0));
    blas_dgemv(false, 1.0, no_columns.view(), none, 0.0, two);
    EXPECT_THAT(two, ElementsAre(0.0, 0.0));
    blas_dgemv(true, 1.0, no_rows.view(), none, 2.0, x);
    EXPECT_THAT(x, ElementsAre(6.0, 8.0));
    blas_dgemv(false, 1.0, no_rows.view(), x, 0.0, none);
    EXPECT_TRUE(none.empty());
}

TEST(BlasDsyrk, AddsTheLowerTriangleOfTheProductAndLeavesTheUpper) {
    const matrix<double> a = from_rows({{1.0, 2.0}, {3.0, -4.0}});
    matrix<double> c = from_rows({{10.0, 77.0}, {20.0, 30.0}});

    blas_dsyrk(-1.0, a.view(), 2.0, c.view());

    EXPECT_EQ(c(0, 0), 15.0);
    EXPECT_EQ(c(1, 0), 45.0);
    EXPECT_EQ(c(1, 1), 35.0);
    EXPECT_EQ(c(0, 1), 77.0);
}

TEST(BlasDsymm, ReadsTheLowerTriangleOnly) {
    const matrix<double> a = from_rows({{2.0, not_a_number}, {3.0, 5.0}}), b = from_rows({{1.0}, {10.0}});
    matrix<double> c(2, 1, 1.0);

    blas_dsymm(2.0, a.view(), b.view(), -1.0, c.view());

    EXPECT_THAT(c.values(), ::testing::ElementsAre(63.0, 105.0));
}

TEST(BlasDtrsmRight, SolvesWithALowerTriangleOrItsTranspose) {
    const matrix<double> l = from_rows({{2.0, not_a_number}, {3.0, 4.0}});
    matrix<double> plain = from_rows({{8.0, 4.0}}), transposed = from_rows({{8.0, 4.0}});

    blas_dtrsm_right(false, l.view(), plain.view());
    blas_dtrsm_right(true, l.view(), transposed.view());

    EXPECT_THAT(plain.values(), ::testing::ElementsAre(2.5, 1.0));        // x l = b
    EXPECT_THAT(transposed.values(), ::testing::ElementsAre(4.0, -2.0));  // x l' = b
}

TEST(BlasDtrsmRight, TakesEmptyOperands) {
    matrix<double> nothing, rows(0, 2), l(2, 2, 1.0);

    blas_dtrsm_right(true, l.view(), rows.view());
    blas_dsyrk(1.0, nothing.view(), 1.0, nothing.view());
    blas_dsymm(1.0, nothing.view(), nothing.view(), 1.0, nothing.view());

    EXPECT_TRUE(rows.empty());
}

TEST(LapackDtrtrs, SolvesWithALowerTriangleOrItsTranspose) {
    const matrix<double> l = from_rows({{2.0, not_a_number}, {3.0, 4.0}});
    matrix<double> plain = from_rows({{8.0, 2.0}, {4.0, 11.0}}), transposed = plain;

    EXPECT_EQ(lapack_dtrtrs(false, l.view(), plain.view()), 0);
    EXPECT_EQ(lapack_dtrtrs(true, l.view(), transposed.view()), 0);

    EXPECT_THAT(plain.values(), ::testing::ElementsAre(4.0, -2.0, 1.0, 2.0));          // l x = b
    EXPECT_THAT(transposed.values(), ::testing::ElementsAre(2.5, 1.0, -3.125, 2.75));  // l' x = b
}

TEST(LapackDtrtrs, TellsAZeroOnTheDiagonalAndLeavesTheRightHandSide) {
    const matrix<double> l = from_rows({{2.0, 0.0, 0.0}, {3.0, 0.0, 0.0}, {1.0, 1.0, 0.0}});
    matrix<double> b = from_rows({{8.0}, {4.0}, {1.0}});

    EXPECT_EQ(lapack_dtrtrs(false, l.view(), b.view()), 2);

    EXPECT_THAT(b.values(), ::testing::ElementsAre(8.0, 4.0, 1.0));
}

TEST(LapackDtrtrs, TakesEmptyOperandsAndPartsOfLargerMatrices) {
    matrix<double> nothing, columns(2, 0), large(4, 3, 9.0);
    const matrix<double> l = from_rows({{2.0, 0.0}, {0.0, 4.0}});

    EXPECT_EQ(lapack_dtrtrs(false, nothing.view(), nothing.view()), 0);
    EXPECT_EQ(lapack_dtrtrs(false, l.view(), columns.view()), 0);
    EXPECT_EQ(lapack_dtrtrs(true, l.view(), {&large(1, 1), 2, 1, 4}), 0);

    EXPECT_THAT(large.column(1), ::testing::ElementsAre(9.0, 4.5, 2.25, 9.0));
}

TEST(SetNumberOfThreads, SetsTheTeamOfParallelRegionsAndIgnoresZero) {
    const int before = omp_get_max_threads();

    set_number_of_threads(3);
    EXPECT_EQ(omp_get_max_threads(), 3);
    set_number_of_threads(0);
    set_number_of_threads(-1);
    EXPECT_EQ(omp_get_max_threads(), 3);

    set_number_of_threads(before);
}

}  // namespace
}  // namespace zendar
