#include <gmock/gmock.h>

#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "captured_log.hpp"
#include "magnitude.hpp"
#include "modmatop.hpp"

namespace zendar {
namespace {

using test::captured_log;
using testing::Each;
using testing::HasSubstr;

matrix<double> full(std::int64_t n, std::initializer_list<double> by_rows) {
    matrix<double> a(n, n);
    auto value = by_rows.begin();
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j) a(i, j) = *value++;
    return a;
}

/// B B' with B of n x rank standard normal deviates: of that rank, positive semi-definite.
matrix<double> random_gram(std::mt19937_64& random, std::int64_t n, std::int64_t rank) {
    std::normal_distribution<double> normal;
    matrix<double> b(n, rank), a(n, n);
    for (double& x : b.values()) x = normal(random);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j)
            for (std::int64_t k = 0; k < rank; ++k) a(i, j) += b(i, k) * b(j, k);
    return a;
}

matrix<double> product(const matrix<double>& a, const matrix<double>& b) {
    matrix<double> c(a.rows(), b.cols());
    for (std::int64_t i = 0; i < a.rows(); ++i)
        for (std::int64_t j = 0; j < b.cols(); ++j)
            for (std::int64_t k = 0; k < a.cols(); ++k) c(i, j) += a(i, k) * b(k, j);
    return c;
}

double largest(const matrix<double>& a) {
    double most = 0.0;
    for (const double x : a.values()) most = std::max(most, test::magnitude(x));
    return most;
}

double distance(const matrix<double>& a, const matrix<double>& b) {
    double most = 0.0;
    for (std::size_t k = 0; k < a.values().size(); ++k)
        most = std::max(most, test::magnitude(a.values()[k] - b.values()[k]));
    return most;
}

TEST(Ginv1Real8, InvertsASmallMatrixDoneByHand) {
    matrix<double> a = full(2, {4, 2, 2, 3});
    std::int32_t rank = 0;

    ginv1_real8(a.view(), 1e-12, rank);

    EXPECT_EQ(rank, 2);
    EXPECT_LT(distance(a, full(2, {0.375, -0.25, -0.25, 0.5})), 1e-15);
}

TEST(Ginv1Real8, ZeroesRowAndColumnOfADependentPivot) {
    matrix<double> a = full(3, {4, 2, 0, 2, 1, 0, 0, 0, 5});  // row 2 is half of row 1
    std::int32_t rank = 0;

    ginv1_real8(a.view(), 1e-12, rank);

    EXPECT_EQ(rank, 2);
    EXPECT_LT(distance(a, full(3, {0.25, 0, 0, 0, 0, 0, 0, 0, 0.2})), 1e-15);
}

TEST(Ginv1Real8, TakesNonPositivePivotsForDependent) {
    matrix<double> negative = full(1, {-2}), zero(2, 2), indefinite = full(2, {1, 2, 2, 1}),
                   hollow = full(2, {0, 3, 3, 4});
    std::int32_t rank = 9;

    ginv1_real8(negative.view(), 1e-12, rank);
    EXPECT_EQ(rank, 0);
    EXPECT_EQ(negative(0, 0), 0.0);
    ginv1_real8(zero.view(), 1e-12, rank);
    EXPECT_EQ(rank, 0);
    EXPECT_THAT(zero.values(), Each(0.0));
    ginv1_real8(indefinite.view(), 1e-12, rank);
    EXPECT_EQ(rank, 1);
    EXPECT_EQ(indefinite, full(2, {1, 0, 0, 0}));
    ginv1_real8(hollow.view(), 1e-12, rank);
    EXPECT_EQ(rank, 1);
    EXPECT_EQ(hollow, full(2, {0, 0, 0, 0.25}));
}

TEST(Ginv1Real8, GivesNoValueToRowsThatAreNoNumbers) {
    matrix<double> a = full(1, {std::numeric_limits<double>::quiet_NaN()});
    std::int32_t rank = 9;

    ginv1_real8(a.view(), 1e-12, rank);

    EXPECT_EQ(rank, 0);
    EXPECT_EQ(a(0, 0), 0.0);
}

TEST(Ginv1Real8, MeasuresPivotsByTheirOriginalDiagonal) {
    matrix<double> small_but_good = full(2, {1e-20, 0, 0, 1});
    std::int32_t rank = 0;
    ginv1_real8(small_but_good.view(), 1e-12, rank);
    EXPECT_EQ(rank, 2);
    EXPECT_DOUBLE_EQ(small_but_good(0, 0), 1e20);

    matrix<double> nearly_dependent = full(2, {1, 1, 1, 1.0 + 1e-9}), kept = nearly_dependent;
    ginv1_real8(nearly_dependent.view(), 1e-6, rank);
    EXPECT_EQ(rank, 1);
    ginv1_real8(kept.view(), 1e-12, rank);
    EXPECT_EQ(rank, 2);
}

TEST(Ginv1Real8, LeavesElementsOutsideTheViewAlone) {
    matrix<double> a = full(3, {2, 0, 7, 0, 4, 7, 7, 7, 7});
    std::int32_t rank = 0;

    ginv1_real8({a.data(), 2, 2, 3}, 1e-12, rank);

    EXPECT_EQ(a, full(3, {0.5, 0, 7, 0, 0.25, 7, 7, 7, 7}));
}

TEST(Ginv1Real8, EqualsTheInverseByCholeskyOnPositiveDefiniteMatrices) {
    captured_log log;
    for (std::uint64_t seed = 1; seed <= 200; ++seed) {
        std::mt19937_64 random(seed);
        const std::int64_t n = 1 + static_cast<std::int64_t>(seed % 80);
        matrix<double> a = random_gram(random, n, n + 5), by_cholesky = a;
        std::int32_t rank = 0;

        ginv1_real8(a.view(), 1e-12, rank);
        ASSERT_TRUE(invsym(by_cholesky.view(), log));

        ASSERT_EQ(rank, n) << "seed " << seed;
        ASSERT_LT(distance(a, by_cholesky), 1e-9 * largest(by_cholesky)) << "seed " << seed;
    }
}

TEST(Ginv1Real8, IsAReflexiveInverseOfRankDeficientMatrices) {
    for (std::uint64_t seed = 1; seed <= 200; ++seed) {
        std::mt19937_64 random(seed);
        const std::int64_t n = 2 + static_cast<std::int64_t>(seed % 30);
        const std::int64_t true_rank =
            1 + static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(n - 1));
        const matrix<double> a = random_gram(random, n, true_rank);
        matrix<double> g = a;
        std::int32_t rank = 0;

        ginv1_real8(g.view(), 1e-9, rank);

        ASSERT_EQ(rank, true_rank) << "seed " << seed;
        const matrix<double> aga = product(product(a, g), a), gag = product(product(g, a), g);
        ASSERT_LT(distance(aga, a), 1e-6 * largest(a)) << "seed " << seed;
        ASSERT_LT(distance(gag, g), 1e-6 * largest(g)) << "seed " << seed;
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int64_t j = 0; j < i; ++j) ASSERT_EQ(g(i, j), g(j, i)) << "seed " << seed;
    }
}

TEST(Invsym, FillsBothTriangles) {
    captured_log log;
    matrix<double> a = full(2, {4, 2, 2, 3});

    EXPECT_TRUE(invsym(a.view(), log));

    EXPECT_LT(distance(a, full(2, {0.375, -0.25, -0.25, 0.5})), 1e-15);
    EXPECT_EQ(log.text(), "");
}

TEST(Invsym, LogsTheCodeOfAMatrixThatIsNotPositiveDefinite) {
    captured_log log;
    matrix<double> a = full(2, {1, 2, 2, 1});

    EXPECT_FALSE(invsym(a.view(), log));

    EXPECT_THAT(log.text(), HasSubstr("ERROR dpotrf info: 2\n"));
}

TEST(Eigensyevd, GivesAscendingEigenvaluesOfTheLowerTriangle) {
    captured_log log;
    matrix<double> a = full(2, {2, 99, 1, 2});  // the upper triangle is not read
    std::array<double, 2> values{};

    eigensyevd(a.view(), values, log);

    EXPECT_NEAR(values[0], 1.0, 1e-14);
    EXPECT_NEAR(values[1], 3.0, 1e-14);
}

TEST(Eigensyevd, FillsWithMinus9WhenTheOrdersDiffer) {
    captured_log log;
    matrix<double> a = full(2, {2, 1, 1, 2});
    std::array<double, 3> values{};

    eigensyevd(a.view(), values, log);

    EXPECT_THAT(values, Each(-9.0));
    EXPECT_EQ(a, full(2, {2, 1, 1, 2}));
    EXPECT_EQ(log.text(), "");
}

TEST(Ispositive, ComparesTheSmallestEigenvalueWithTheThreshold) {
    captured_log log;
    const matrix<double> a = full(2, {2, 1, 1, 2});  // eigenvalues 1 and 3

    EXPECT_TRUE(ispositive(a.view(), log));
    EXPECT_TRUE(ispositive(a.view(), log, 0.999));
    EXPECT_FALSE(ispositive(a.view(), log, 1.001));
    EXPECT_EQ(a, full(2, {2, 1, 1, 2}));
}

TEST(Ispositive, UsesAThresholdOf1eMinus8ByDefault) {
    captured_log log;
    EXPECT_FALSE(ispositive(full(1, {1e-8}).view(), log));
    EXPECT_TRUE(ispositive(full(1, {1.1e-8}).view(), log));
    EXPECT_FALSE(ispositive(full(2, {1, 1, 1, 1}).view(), log));
    EXPECT_FALSE(ispositive(full(2, {1, 2, 2, 1}).view(), log));
}

TEST(Ispositive, IsFalseForValuesThatAreNotFinite) {
    captured_log log;
    EXPECT_FALSE(ispositive(full(1, {std::numeric_limits<double>::quiet_NaN()}).view(), log));
    EXPECT_FALSE(ispositive(full(1, {std::numeric_limits<double>::infinity()}).view(), log));
}

}  // namespace
}  // namespace zendar
