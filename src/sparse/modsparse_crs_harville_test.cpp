#include <gmock/gmock.h>
#include <omp.h>

#include <cmath>
#include <limits>
#include <random>

#include "modblas.hpp"
#include "modsparse.hpp"
#include "modsparse_coo.hpp"
#include "modsparse_crs.hpp"
#include "modsparse_test_support.hpp"

namespace zendar {
namespace {

using test::expect_fatal;
using testing::ElementsAre;
using testing::HasSubstr;

crssparse upper(std::int32_t n, const std::vector<std::tuple<int, int, double>>& elements,
                logger* unlog = nullptr) {
    coosparse coo(n, n, 64, true, unlog);
    coo.setsymmetric();
    for (const auto& [i, j, value] : elements) coo.set(i, j, value);
    return convertfromcootocrs(coo);
}

/// A diagonally dominant matrix with about two elements a row beside the diagonal.
crssparse random_definite(std::int32_t n, unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::int32_t> any(1, n);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    coosparse coo(n, n, 64, true);
    coo.setsymmetric();
    for (std::int32_t i = 1; i <= n; ++i) coo.add(i, i, 0.4 + std::fabs(value(random)));
    for (std::int32_t k = 0; k < 2 * n; ++k) {
        const std::int32_t i = any(random), j = any(random);
        if (i == j) continue;
        const double c = value(random);
        coo.add(std::min(i, j), std::max(i, j), c);
        coo.add(i, i, std::fabs(c));
        coo.add(j, j, std::fabs(c));
    }
    return convertfromcootocrs(coo);
}

std::vector<double> inverse_diagonal(const crssparse& m) {
    matrix<double> dense = test::dense(m);
    EXPECT_EQ(lapack_dpotrf(dense.view()), 0);
    EXPECT_EQ(lapack_dpotri(dense.view()), 0);
    std::vector<double> diagonal;
    for (std::int64_t i = 0; i < dense.rows(); ++i) diagonal.push_back(dense(i, i));
    return diagonal;
}

TEST(Harville, IsExactWithoutElementsBesideTheDiagonal) {
    const crssparse m = upper(3, {{1, 1, 2.0}, {2, 2, 0.25}, {3, 3, 8.0}});

    EXPECT_THAT(m.harville(1, 0), ElementsAre(0.5, 4.0, 0.125));
}

TEST(Harville, IsTheDiagonalOfTheInverseWithinItsSamplingError) {
    for (unsigned seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE(seed);
        const crssparse m = random_definite(static_cast<std::int32_t>(2 + 3 * seed), seed);

        const std::vector<double> estimate = m.harville(10'000, 1'000);

        const std::vector<double> exact = inverse_diagonal(m), conditional = m.diag_vect();
        for (std::size_t i = 0; i < exact.size(); ++i) {
            EXPECT_GE(estimate[i], 1.0 / conditional[i]);
            // Only what the other equations add to 1/c(i,i) is sampled; the rounds are correlated.
            const double sampled = exact[i] - 1.0 / conditional[i];
            EXPECT_NEAR(estimate[i], exact[i], 0.2 * sampled + 1e-12) << i;
        }
    }
}

TEST(Harville, ComesCloserWithMoreRounds) {
    const crssparse m = random_definite(20, 99);
    const std::vector<double> exact = inverse_diagonal(m);
    const auto error = [&](std::int64_t rounds) {
        const std::vector<double> estimate = m.harville(rounds, 100);
        double square = 0.0;
        for (std::size_t i = 0; i < exact.size(); ++i)
            square += (estimate[i] - exact[i]) * (estimate[i] - exact[i]);
        return std::sqrt(square);
    };

    EXPECT_LT(error(400'000), 0.2 * error(400));
}

TEST(Harville, GivesTheSameValuesForASeedAndAnyNumberOfThreads) {
    const crssparse m = random_definite(30, 3);
    const int threads = omp_get_max_threads();

    omp_set_num_threads(1);
    const std::vector<double> one = m.harville(50, 10, 7);
    omp_set_num_threads(4);
    const std::vector<double> four = m.harville(50, 10, 7);
    omp_set_num_threads(threads);

    EXPECT_EQ(one, four);
    EXPECT_EQ(one, m.harville(50, 10, 7));
    EXPECT_NE(one, m.harville(50, 10, 8));
    EXPECT_EQ(m.harville(50, 10), m.harville(50, 10, 1));
}

TEST(Harville, DoesNotNeedSortedRows) {
    crssparse sorted = upper(3, {{1, 1, 3.0}, {1, 2, 1.0}, {1, 3, -1.0}, {2, 2, 2.0}, {3, 3, 4.0}});
    crssparse other(3, 5, 3, true);
    other.external(std::vector<std::int32_t>{1, 4, 5, 6}, std::vector<std::int32_t>{3, 1, 2, 2, 3},
                   std::vector<double>{-1.0, 3.0, 1.0, 2.0, 4.0});

    EXPECT_EQ(sorted.harville(20, 5), other.harville(20, 5));
}

TEST(Harville, GivesEmptyEquationsZeroAndLeavesTheOthersAlone) {
    const crssparse with = upper(4, {{1, 1, 3.0}, {1, 3, 1.0}, {3, 3, 2.0}});
    const crssparse without = upper(2, {{1, 1, 3.0}, {1, 2, 1.0}, {2, 2, 2.0}});

    const std::vector<double> estimate = with.harville(100, 10), expected = without.harville(100, 10);

    EXPECT_THAT(estimate, ElementsAre(expected[0], 0.0, expected[1], 0.0));
}

TEST(Harville, OfNoEquationsIsEmpty) {
    EXPECT_TRUE(crssparse(0, 0, 0, true).harville(10, 1).empty());
}

TEST(Harville, TellsItsMemoryAndRounds) {
    test::unit unit;
    const crssparse m = upper(2, {{1, 1, 3.0}, {1, 2, 1.0}, {2, 2, 2.0}}, &unit.log);

    [[maybe_unused]] const auto estimate = m.harville(30, 4);

    EXPECT_THAT(unit.text(), HasSubstr(" Memory (MB) needed for the sampling = .00"));
    EXPECT_THAT(unit.text(), HasSubstr(" Number of rounds                    = 30 after 4"));
}

TEST(Harville, RefusesWhatHasNoInverse) {
    const auto refused = [](const crssparse& m, const std::string& text) {
        expect_fatal([&m] { [[maybe_unused]] const auto result = m.harville(10, 1); }, text);
    };
    refused(upper(2, {{1, 1, 1.0}, {2, 2, -1.0}}),
            " ERROR: the diagonal element of equation 2 is negative: the matrix is not positive definite");
    refused(upper(2, {{1, 1, 1.0}, {1, 2, 1.0}}),
            " ERROR: the diagonal element of equation 2 is 0: the matrix is not positive definite");
    refused(upper(2, {{1, 1, std::numeric_limits<double>::quiet_NaN()}, {2, 2, 1.0}}),
            " ERROR: an element of the CRS matrix is not a finite number");
    refused(crssparse(2, 2, 3, true), " ERROR: the CRS matrix must be square and upper triangular stored");
    refused(crssparse(2, 2, 2, false), " ERROR: the CRS matrix must be square and upper triangular stored");
    expect_fatal([] { [[maybe_unused]] const auto r = crssparse(0, 0, 0, true).harville(0, 1); },
                 " ERROR: harville needs at least one round");
}

}  // namespace
}  // namespace zendar
