#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <random>

#include "captured_log.hpp"
#include "modblas.hpp"
#include "modsolvertype_control.hpp"

namespace zendar {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

TEST(CgTridiagonal, AddsTheTermsOfEachIteration) {
    cg_tridiagonal t;
    t.update(3, 4.0, 0.5);   // (2,2) += 2, (2,3) += 4, (3,3) += 8
    t.update(4, 0.25, 2.0);  // (3,3) += 0.5, (3,4) += 0.25, (4,4) += 0.125

    EXPECT_THAT(t.diagonal(4), ElementsAre(2.0, 8.5, 0.125));
    EXPECT_THAT(t.off_diagonal(4), ElementsAre(4.0, 0.25));
    EXPECT_THAT(t.diagonal(3), ElementsAre(2.0, 8.5));
    EXPECT_THAT(t.off_diagonal(3), ElementsAre(4.0));
    EXPECT_THAT(t.diagonal(1), ElementsAre());
    EXPECT_THAT(t.off_diagonal(2), ElementsAre());
}

TEST(Eigenvalues, TakeTheBlockFromTwoToTwoBelowTheIteration) {
    test::captured_log log;
    cg_tridiagonal t;
    t.update(3, 4.0, 0.5);
    t.update(4, 0.25, 2.0);

    const auto of_order_1 = eigenvalues(t, 4, log);
    EXPECT_DOUBLE_EQ(of_order_1.min, 2.0);
    EXPECT_DOUBLE_EQ(of_order_1.max, 2.0);
    // (2 4; 4 8.5): 5.25 -+ sqrt(3.25^2 + 16)
    const auto of_order_2 = eigenvalues(t, 5, log);
    EXPECT_NEAR(of_order_2.min, 5.25 - std::sqrt(26.5625), 1e-13);
    EXPECT_NEAR(of_order_2.max, 5.25 + std::sqrt(26.5625), 1e-13);
}

TEST(Eigenvalues, OfNothingAreHuge) {
    test::captured_log log;
    for (const std::int32_t iter : {0, 2, 3}) {
        const auto extremes = eigenvalues(cg_tridiagonal(), iter, log);
        EXPECT_EQ(extremes.min, std::numeric_limits<double>::max());
        EXPECT_EQ(extremes.max, -std::numeric_limits<double>::max());
    }
}

TEST(ComputeEigenvalues, AgreesWithTheDenseEigenvalues) {
    test::captured_log log;
    std::mt19937 generator(7);
    std::uniform_real_distribution<double> uniform(0.1, 2.0);
    for (const std::int64_t n : {1, 2, 3, 10, 57}) {
        std::vector<double> d(n), e(n - 1), values(n);
        for (double& x : d) x = uniform(generator);
        for (double& x : e) x = uniform(generator);
        matrix<double> a(n, n);
        for (std::int64_t i = 0; i < n; ++i) {
            a(i, i) = d[i];
            if (i + 1 < n) a(i + 1, i) = a(i, i + 1) = e[i];
        }
        ASSERT_EQ(lapack_dsyevd(a.view(), values), 0);

        const auto extremes = computeeigenvalues(d, e, log);

        EXPECT_NEAR(extremes.min, values.front(), 1e-12);
        EXPECT_NEAR(extremes.max, values.back(), 1e-12);
    }
    EXPECT_EQ(log.text(), "");
}

TEST(ComputeEigenvalues, KeepsSmallEigenvaluesOfALargeMatrix) {
    test::captured_log log;
    const std::int64_t n = 30000;  // 2, -1: 2 - 2 cos(k pi / (n + 1))
    const std::vector<double> d(n, 2.0), e(n - 1, -1.0);
    const double half = std::sin(std::numbers::pi / static_cast<double>(2 * (n + 1)));

    const auto extremes = computeeigenvalues(d, e, log);

    EXPECT_NEAR(extremes.min, 4.0 * half * half, 1e-6 * 4.0 * half * half);
    EXPECT_NEAR(extremes.max, 4.0, 1e-7);
}

TEST(ComputeEigenvalues, GivesNanForValuesThatAreNotFinite) {
    test::captured_log log;
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const auto& d : {std::vector{nan, 1.0}, std::vector{1.0, infinity}}) {
        const auto extremes = computeeigenvalues(d, std::vector{0.5}, log);
        EXPECT_TRUE(std::isnan(extremes.min));
        EXPECT_TRUE(std::isnan(extremes.max));
    }
    EXPECT_TRUE(std::isnan(computeeigenvalues(std::vector{1.0, 1.0}, std::vector{nan}, log).max));
}

TEST(ComputeCondnumber, ReportsTheExtremesAndTheirRatio) {
    test::captured_log log;
    cg_tridiagonal t;
    t.update(3, 0.0, 2.0);   // (2,2) = 0.5
    t.update(4, 0.0, 0.25);  // (3,3) = 4

    const auto extremes = computecondnumber(t, 5, log);

    EXPECT_DOUBLE_EQ(extremes.min, 0.5);
    EXPECT_DOUBLE_EQ(extremes.max, 4.0);
    EXPECT_THAT(log.text(),
                MatchesRegex("Computation of condition number  - Wall clock time \\(s\\): [0-9]*\\.[0-9]{3}\n"
                             "Min\\|max eigenvalue       : 0?\\.5000000000 4\\.000000000\n"
                             "Spectral condition number: 8\\.000000000\n"));
}

}  // namespace
}  // namespace zendar
