#include "modspainv.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <tuple>

#include "captured_log.hpp"
#include "magnitude.hpp"
#include "modblas.hpp"
#include "modspainv_test_support.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using test::grid;
using test::ordering;
using test::upper_crs;
using ::testing::DoubleNear;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

matrix<double> permuted(const matrix<double>& dense, const std::vector<std::int32_t>& perm) {
    matrix<double> p(dense.rows(), dense.cols());
    for (std::int64_t i = 0; i < p.rows(); ++i)
        for (std::int64_t j = 0; j < p.rows(); ++j) p(i, j) = dense(perm[i] - 1, perm[j] - 1);
    return p;
}

matrix<double> upper_dense(const upper_crs& m) {
    matrix<double> u(m.n(), m.n());
    for (std::int32_t i = 0; i < m.n(); ++i)
        for (std::int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) u(i, m.ja[k] - 1) = m.a[k];
    return u;
}

double largest(const matrix<double>& m) {
    double x = 0.0;
    for (const double v : m.values()) x = std::max(x, test::magnitude(v));
    return x;
}

double largest_difference(const matrix<double>& x, const matrix<double>& y) {
    double d = 0.0;
    for (std::size_t i = 0; i < x.values().size(); ++i)
        d = std::max(d, test::magnitude(x.values()[i] - y.values()[i]));
    return d;
}

/// U'DU, D = I when empty.
matrix<double> product(const matrix<double>& u, const std::vector<double>& d = {}) {
    matrix<double> scaled = u, p(u.rows(), u.rows());
    for (std::int64_t i = 0; !d.empty() && i < u.rows(); ++i)
        for (std::int64_t j = 0; j < u.rows(); ++j) scaled(i, j) *= d[i];
    blas_dgemm(true, false, 1.0, u.view(), scaled.view(), 0.0, p.view());
    return p;
}

/// Rows sorted, the diagonal first, everything inside: what the output promises.
void expect_sorted_upper(const upper_crs& m) {
    ASSERT_EQ(m.ia.front(), 1);
    ASSERT_EQ(m.ia.back(), static_cast<std::int32_t>(m.ja.size()) + 1);
    ASSERT_EQ(m.ja.size(), m.a.size());
    for (std::int32_t i = 0; i < m.n(); ++i) {
        ASSERT_EQ(m.ja[m.ia[i] - 1], i + 1);
        for (std::int32_t k = m.ia[i]; k < m.ia[i + 1] - 1; ++k) ASSERT_LT(m.ja[k - 1], m.ja[k]);
    }
}

/// Pattern of the factor by elimination on a dense logical matrix.
std::vector<char> symbolic_pattern(const matrix<double>& dense) {
    const std::int64_t n = dense.rows();
    std::vector<char> has(n * n);
    for (std::int64_t i = 0; i < n * n; ++i) has[i] = dense.values()[i] != 0.0 || i % (n + 1) == 0;
    for (std::int64_t k = 0; k < n; ++k)
        for (std::int64_t i = k + 1; i < n; ++i)
            if (has[k + i * n])
                for (std::int64_t j = i; j < n; ++j)
                    if (has[k + j * n]) has[i + j * n] = has[j + i * n] = 1;
    return has;
}

/// The kept equations by the rule of the dropped pivots, eliminated densely in the order of `perm`, and the
/// inverse of what they form, with zeros elsewhere; in the matrix's own numbering.
struct dense_inverse {
    matrix<double> inverse;
    std::int32_t ndropped = 0;
};
dense_inverse generalised_inverse(const matrix<double>& dense, const std::vector<std::int32_t>& perm) {
    matrix<double> work = permuted(dense, perm);
    std::vector<std::int64_t> kept;
    for (std::int64_t k = 0; k < work.rows(); ++k) {
        if (!(work(k, k) > 1e-10 * dense(perm[k] - 1, perm[k] - 1))) continue;
        kept.push_back(perm[k] - 1);
        for (std::int64_t j = k + 1; j < work.rows(); ++j) {
            const double x = work(k, j) / work(k, k);
            if (x == 0.0) continue;
            const auto from = work.column(k), to = work.column(j);  // symmetric: column k is row k
            for (std::int64_t i = k + 1; i < work.rows(); ++i) to[i] -= from[i] * x;
        }
    }
    const auto nkept = static_cast<std::int64_t>(kept.size());
    matrix<double> part(nkept, nkept);
    for (std::int64_t i = 0; i < nkept; ++i)
        for (std::int64_t j = 0; j < nkept; ++j) part(i, j) = dense(kept[i], kept[j]);
    EXPECT_EQ(lapack_dpotrf(part.view()), 0);
    EXPECT_EQ(lapack_dpotri(part.view()), 0);
    dense_inverse result{matrix<double>(dense.rows(), dense.rows()),
                         static_cast<std::int32_t>(dense.rows() - nkept)};
    for (std::int64_t j = 0; j < nkept; ++j)
        for (std::int64_t i = j; i < nkept; ++i)
            result.inverse(kept[i], kept[j]) = result.inverse(kept[j], kept[i]) = part(i, j);
    return result;
}

void expect_elements_of(const upper_crs& part, const matrix<double>& whole) {
    const double scale = largest(whole);
    for (std::int32_t i = 0; i < part.n(); ++i)
        for (std::int32_t k = part.ia[i] - 1; k < part.ia[i + 1] - 1; ++k)
            ASSERT_NEAR(part.a[k], whole(i, part.ja[k] - 1), 1e-10 * scale) << i + 1 << " " << part.ja[k];
}

std::vector<double> solve_ldlt(const upper_crs& u, const std::vector<double>& d, std::vector<double> x) {
    for (std::int32_t i = 0; i < u.n(); ++i)
        for (std::int32_t k = u.ia[i]; k < u.ia[i + 1] - 1; ++k) x[u.ja[k] - 1] -= u.a[k] * x[i];
    for (std::int32_t i = 0; i < u.n(); ++i) x[i] = d[i] == 0.0 ? 0.0 : x[i] / d[i];
    for (std::int32_t i = u.n() - 1; i >= 0; --i)
        for (std::int32_t k = u.ia[i]; k < u.ia[i + 1] - 1; ++k) x[i] -= u.a[k] * x[u.ja[k] - 1];
    return x;
}

// ---- random matrices against dense algebra
// ------------------------------------------------------------------

class RandomMatrices : public ::testing::TestWithParam<std::tuple<ordering, std::uint32_t>> {
  protected:
    static constexpr std::int32_t per_case = 10;
    ordering which() const { return std::get<0>(GetParam()); }
    std::mt19937 random{std::get<1>(GetParam())};

    std::int32_t any_size() {
        return 1 + static_cast<std::int32_t>(random() % (random() % 4 == 0 ? 400 : 60));
    }
    upper_crs any_definite() {
        const double links[] = {0.3, 1.0, 2.0, 6.0, 60.0};
        const std::int32_t n = any_size();
        return test::random_definite(n, links[random() % 5], random);
    }
};

TEST_P(RandomMatrices, GiveTheFactorOfThePermutedMatrixOnItsPattern) {
    for (std::int32_t k = 0; k < per_case; ++k) {
        upper_crs m = any_definite();
        const auto perm = test::order_of(which(), m, random);
        const matrix<double> dense = permuted(dense_of(m), perm);
        SCOPED_TRACE("n = " + std::to_string(m.n()) + ", matrix " + std::to_string(k));

        const spainv_summary summary = get_chol_crs(m.ia, m.ja, m.a, perm);

        expect_sorted_upper(m);
        ASSERT_LE(largest_difference(product(upper_dense(m)), dense), 1e-10 * largest(dense));
        const std::vector<char> pattern = symbolic_pattern(dense);
        std::int64_t n = m.n(), elements = 0;
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int64_t j = i; j < n; ++j) elements += pattern[i + j * n];
        ASSERT_EQ(elements, std::ssize(m.a));
        ASSERT_EQ(summary.nfactor, elements);
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int32_t e = m.ia[i] - 1; e < m.ia[i + 1] - 1; ++e)
                ASSERT_TRUE(pattern[i + (m.ja[e] - 1) * n]);
    }
}

TEST_P(RandomMatrices, GiveTheInverseOnThePatternOfTheFactorAndOfTheMatrix) {
    for (std::int32_t k = 0; k < per_case; ++k) {
        const upper_crs m = any_definite();
        const auto perm = test::order_of(which(), m, random);
        const dense_inverse expected = generalised_inverse(dense_of(m), perm);
        SCOPED_TRACE("n = " + std::to_string(m.n()) + ", matrix " + std::to_string(k));

        upper_crs whole = m, part = m, factor = m;
        get_spainv_crs(whole.ia, whole.ja, whole.a, perm);
        get_spainv_crs(part.ia, part.ja, part.a, perm, {.lmatrix_pattern = true});
        get_chol_crs(factor.ia, factor.ja, factor.a, perm);

        expect_sorted_upper(whole);
        expect_elements_of(whole, expected.inverse);
        ASSERT_EQ(whole.a.size(), factor.a.size());
        ASSERT_EQ(part.ia, m.ia);
        ASSERT_EQ(part.ja, m.ja);
        expect_elements_of(part, expected.inverse);
    }
}

TEST_P(RandomMatrices, GiveTheInverseOfTheKeptEquationsWhenSemidefinite) {
    std::int32_t ndropped = 0;
    for (std::int32_t k = 0; k < per_case; ++k) {
        const upper_crs m = test::random_semidefinite(any_size(), random);
        const auto perm = test::order_of(which(), m, random);
        const dense_inverse expected = generalised_inverse(dense_of(m), perm);
        SCOPED_TRACE("n = " + std::to_string(m.n()) + ", matrix " + std::to_string(k));

        upper_crs inverse = m;
        const spainv_summary summary = get_spainv_crs(inverse.ia, inverse.ja, inverse.a, perm);

        ASSERT_EQ(summary.ndropped, expected.ndropped);
        ndropped += summary.ndropped;
        expect_sorted_upper(inverse);
        expect_elements_of(inverse, expected.inverse);
    }
    EXPECT_GT(ndropped, per_case);
}

TEST_P(RandomMatrices, AreSolvedByTheLdltFactors) {
    for (std::int32_t k = 0; k < per_case; ++k) {
        const bool definite = k % 2 == 0;
        upper_crs m = definite ? any_definite() : test::random_semidefinite(any_size(), random);
        const matrix<double> dense = dense_of(m);
        const std::int32_t n = m.n();
        const auto perm = test::order_of(which(), m, random);
        std::vector<double> truth(n), rhs(n, 0.0), ordered(n), d;
        for (double& x : truth) x = static_cast<double>(random() % 21) - 10.0;
        for (std::int32_t i = 0; i < n; ++i)
            for (std::int32_t j = 0; j < n; ++j) rhs[i] += dense(i, j) * truth[j];
        for (std::int32_t i = 0; i < n; ++i) ordered[i] = rhs[perm[i] - 1];
        SCOPED_TRACE("n = " + std::to_string(n) + ", matrix " + std::to_string(k));

        const spainv_summary summary = get_ldlt_crs(m.ia, m.ja, m.a, d, perm);
        const std::vector<double> x = solve_ldlt(m, d, ordered);

        expect_sorted_upper(m);
        ASSERT_EQ(std::ranges::count(d, 0.0), summary.ndropped);
        ASSERT_TRUE(!definite || summary.ndropped == 0);
        for (std::int32_t i = 0; i < n; ++i) {
            ASSERT_EQ(m.a[m.ia[i] - 1], 1.0);
            if (d[i] != 0.0) continue;
            ASSERT_EQ(x[i], 0.0);
            for (std::int32_t e = m.ia[i]; e < m.ia[i + 1] - 1; ++e) ASSERT_EQ(m.a[e], 0.0);
        }
        double size = 0.0, error = 0.0;
        for (std::int32_t i = 0; i < n; ++i) {
            double left = 0.0;
            for (std::int32_t j = 0; j < n; ++j) left += dense(perm[i] - 1, perm[j] - 1) * x[j];
            size = std::max(size, test::magnitude(ordered[i]));
            error = std::max(error, test::magnitude(left - ordered[i]));
        }
        ASSERT_LE(error, 1e-10 * size);
        const matrix<double> back = product(upper_dense(m), d);
        const double tolerance = 1e-10 * largest(dense);
        for (std::int32_t i = 0; i < n; ++i)
            for (std::int32_t j = 0; j < n; ++j) {
                if (d[i] == 0.0 || d[j] == 0.0) continue;
                ASSERT_NEAR(back(i, j), dense(perm[i] - 1, perm[j] - 1), tolerance);
            }
    }
}

TEST_P(RandomMatrices, GiveAnIncompleteFactorThatAgreesOnThePattern) {
    for (std::int32_t k = 0; k < per_case; ++k) {
        upper_crs m = any_definite();
        const auto perm = test::order_of(which(), m, random);
        const matrix<double> dense = permuted(dense_of(m), perm);
        SCOPED_TRACE("n = " + std::to_string(m.n()) + ", matrix " + std::to_string(k));
        const std::size_t elements = m.a.size();

        get_ichol_crs(m.ia, m.ja, m.a, perm);

        expect_sorted_upper(m);
        ASSERT_EQ(m.a.size(), elements);
        const matrix<double> back = product(upper_dense(m));
        const double tolerance = 1e-12 * largest(dense);
        for (std::int32_t i = 0; i < m.n(); ++i)
            for (std::int32_t e = m.ia[i] - 1; e < m.ia[i + 1] - 1; ++e) {
                const std::int32_t j = m.ja[e] - 1;
                ASSERT_TRUE(i == j || dense(i, j) != 0.0);
                ASSERT_NEAR(back(i, j), dense(i, j), tolerance);
            }
    }
}

INSTANTIATE_TEST_SUITE_P(Orders, RandomMatrices,
                         ::testing::Combine(::testing::Values(ordering::metis, ordering::identity,
                                                              ordering::reverse, ordering::random),
                                            ::testing::Values(11u, 12u)));

// ---- shapes ----------------------------------------------------------------------------------------------

/// All four results of one matrix.
struct results {
    upper_crs chol, ichol, ldlt, inverse;
    std::vector<double> d;
};
results all_of(const upper_crs& m, const std::vector<std::int32_t>& perm = {}) {
    results r{m, m, m, m, {}};
    get_chol_crs(r.chol.ia, r.chol.ja, r.chol.a, perm);
    get_ichol_crs(r.ichol.ia, r.ichol.ja, r.ichol.a, perm);
    get_ldlt_crs(r.ldlt.ia, r.ldlt.ja, r.ldlt.a, r.d, perm);
    get_spainv_crs(r.inverse.ia, r.inverse.ja, r.inverse.a, perm);
    return r;
}

TEST(GetSpainvCrs, TakesAMatrixWithoutEquations) {
    const results r = all_of({});

    EXPECT_THAT(r.chol.ia, ElementsAre(1));
    EXPECT_THAT(r.ichol.ia, ElementsAre(1));
    EXPECT_THAT(r.inverse.ia, ElementsAre(1));
    EXPECT_TRUE(r.inverse.a.empty() && r.d.empty());
}

TEST(GetSpainvCrs, TakesOneEquation) {
    const results r = all_of({{1, 2}, {1}, {16.0}});

    EXPECT_THAT(r.chol.a, ElementsAre(4.0));
    EXPECT_THAT(r.ichol.a, ElementsAre(4.0));
    EXPECT_THAT(r.ldlt.a, ElementsAre(1.0));
    EXPECT_THAT(r.d, ElementsAre(16.0));
    EXPECT_THAT(r.inverse.a, ElementsAre(0.0625));
}

TEST(GetSpainvCrs, TakesADiagonalMatrixInAnyOrder) {
    upper_crs m;
    std::vector<std::int32_t> perm;
    for (std::int32_t i = 1; i <= 200; ++i) {
        m.ia.push_back(i + 1);
        m.ja.push_back(i);
        m.a.push_back(i * i);
        perm.push_back(201 - i);
    }

    const results r = all_of(m, perm);

    for (std::int32_t i = 1; i <= 200; ++i) {
        EXPECT_DOUBLE_EQ(r.chol.a[i - 1], 201 - i);
        EXPECT_DOUBLE_EQ(r.inverse.a[i - 1], 1.0 / (i * i));
    }
}

TEST(GetSpainvCrs, GivesTheWholeInverseOfADenseMatrixWiderThanATile) {
    std::mt19937 random(7);
    matrix<double> dense(700, 700);
    for (std::int64_t j = 0; j < 700; ++j) {
        for (std::int64_t i = 0; i < j; ++i)
            dense(i, j) = dense(j, i) = 1.0 + static_cast<double>(random() % 9);
        dense(j, j) = 7000.0;
    }
    const upper_crs m = test::upper_of(dense);

    const results r = all_of(m);

    matrix<double> identity(700, 700);
    upper_crs inverse = r.inverse;
    blas_dgemm(false, false, 1.0, dense.view(), dense_of(inverse).view(), 0.0, identity.view());
    for (std::int64_t i = 0; i < 700; ++i) identity(i, i) -= 1.0;
    EXPECT_LE(largest(identity), 1e-10);
    EXPECT_LE(largest_difference(product(upper_dense(r.chol)), dense), 1e-10 * largest(dense));
}

TEST(GetSpainvCrs, TakesAChainInItsOwnOrderWithoutDeepRecursion) {
    constexpr std::int32_t n = 300000;  // the tree is one path
    upper_crs m;
    for (std::int32_t i = 1; i <= n; ++i) {
        m.ja.push_back(i), m.a.push_back(2.5);
        if (i < n) m.ja.push_back(i + 1), m.a.push_back(-1.0);
        m.ia.push_back(static_cast<std::int32_t>(m.ja.size()) + 1);
    }

    const spainv_summary summary = get_spainv_crs(m.ia, m.ja, m.a, {});

    EXPECT_EQ(summary.nfactor, 2 * n - 1);
    // far from the ends the inverse is 1 / sqrt(2.5^2 - 4) on the diagonal; at an end the recurrence gives 1
    // / 2
    for (const std::int32_t i : {1, n}) EXPECT_NEAR(m.a[m.ia[i - 1] - 1], 0.5, 1e-14);
    for (const std::int32_t i : {100, n / 2, n - 100}) {
        EXPECT_NEAR(m.a[m.ia[i - 1] - 1], 2.0 / 3.0, 1e-14);
        EXPECT_NEAR(m.a[m.ia[i - 1]], 1.0 / 3.0, 1e-14);
    }
}

TEST(GetIcholCrs, IsTheFullFactorWhereThereIsNoFill) {
    upper_crs m;  // an arrow: all equations meet in the last one
    for (std::int32_t i = 1; i <= 50; ++i) {
        m.ja.push_back(i), m.a.push_back(i < 50 ? 3.0 + i : 400.0);
        if (i < 50) m.ja.push_back(50), m.a.push_back(1.0 / i);
        m.ia.push_back(static_cast<std::int32_t>(m.ja.size()) + 1);
    }

    const results r = all_of(m);

    EXPECT_EQ(r.ichol.ja, r.chol.ja);
    for (std::size_t k = 0; k < r.chol.a.size(); ++k) EXPECT_NEAR(r.ichol.a[k], r.chol.a[k], 1e-14);
}

TEST(GetIcholCrs, LeavesOutTheFillOfACycle) {
    // a ring of four in its own order: the factor fills (2, 4), the incomplete one does not
    upper_crs m{{1, 4, 6, 8, 9}, {1, 2, 4, 2, 3, 3, 4, 4}, {4, -1, -1, 4, -1, 4, -1, 4}};

    get_ichol_crs(m.ia, m.ja, m.a, {});

    EXPECT_THAT(m.ja, ElementsAre(1, 2, 4, 2, 3, 3, 4, 4));
    const double d2 = 4 - 0.25, d3 = 4 - 1 / d2, d4 = 4 - 0.25 - 1 / d3;
    EXPECT_THAT(m.a, ElementsAre(2.0, -0.5, -0.5, DoubleNear(std::sqrt(d2), 1e-15),
                                 DoubleNear(-1 / std::sqrt(d2), 1e-15), DoubleNear(std::sqrt(d3), 1e-15),
                                 DoubleNear(-1 / std::sqrt(d3), 1e-15), DoubleNear(std::sqrt(d4), 1e-15)));
}

TEST(GetSpainvCrs, KeepsRowPointersOf64Bits) {
    std::mt19937 random(3);
    upper_crs m = test::random_definite(150, 2.0, random);
    std::vector<std::int64_t> ia(m.ia.begin(), m.ia.end());
    std::vector<std::int32_t> ja = m.ja;
    std::vector<double> a = m.a;

    get_spainv_crs(ia, ja, a, {});
    get_spainv_crs(m.ia, m.ja, m.a, {});

    EXPECT_TRUE(std::equal(ia.begin(), ia.end(), m.ia.begin(), m.ia.end()));
    EXPECT_EQ(ja, m.ja);
    EXPECT_EQ(a, m.a);
}

// ---- dropped pivots
// ------------------------------------------------------------------------------------------

TEST(GetSpainvCrs, GivesZeroRowsToEmptyAndDependentEquations) {
    // equation 2 is empty; equation 3 is twice equation 1
    upper_crs m{{1, 3, 4, 5, 6}, {1, 3, 2, 3, 4}, {4.0, 8.0, 0.0, 16.0, 5.0}};

    const spainv_summary summary = get_spainv_crs(m.ia, m.ja, m.a, {});

    EXPECT_EQ(summary.ndropped, 2);
    EXPECT_THAT(m.ja, ElementsAre(1, 3, 2, 3, 4));
    EXPECT_THAT(m.a, ElementsAre(0.25, 0.0, 0.0, 0.0, DoubleNear(0.2, 1e-16)));
}

TEST(GetSpainvCrs, DropsPivotsInsideWideSupernodes) {
    // a dense matrix of rank 299 in 300 equations, and the same with the dependence in the middle
    std::mt19937 random(5);
    const upper_crs m = test::random_definite(300, 200.0, random);
    matrix<double> dense = dense_of(m);
    for (std::int64_t i = 0; i < 300; ++i) dense(i, 150) = dense(i, 20) + dense(i, 60);
    for (std::int64_t j = 0; j < 300; ++j) dense(150, j) = dense(20, j) + dense(60, j);
    dense(150, 150) = dense(20, 20) + 2.0 * dense(20, 60) + dense(60, 60);
    upper_crs singular = test::upper_of(dense), inverse = singular, factor = singular;
    std::vector<std::int32_t> perm(300);
    std::iota(perm.begin(), perm.end(), 1);

    const spainv_summary summary = get_spainv_crs(inverse.ia, inverse.ja, inverse.a, perm);

    const dense_inverse expected = generalised_inverse(dense, perm);
    EXPECT_EQ(summary.ndropped, 1);
    EXPECT_EQ(expected.ndropped, 1);
    EXPECT_EQ(inverse.a[inverse.ia[150] - 1], 0.0);
    expect_elements_of(inverse, expected.inverse);
}

TEST(GetLdltCrs, DropsAPivotJustAtTheLimitAndKeepsOneAbove) {
    for (const double pivot : {0.5e-10, 2e-10}) {
        upper_crs m{{1, 3, 4}, {1, 2, 2}, {1.0, 1.0, 1.0 + pivot}};
        std::vector<double> d;

        const spainv_summary summary = get_ldlt_crs(m.ia, m.ja, m.a, d, {});

        EXPECT_EQ(summary.ndropped, pivot < 1e-10 ? 1 : 0);
        EXPECT_EQ(d[1] == 0.0, pivot < 1e-10);
    }
}

// ---- threads
// -------------------------------------------------------------------------------------------------

class thread_count {
  public:
    explicit thread_count(int n) { omp_set_num_threads(n); }
    ~thread_count() { omp_set_num_threads(before_); }

  private:
    int before_ = omp_get_max_threads();
};

/// A^-1 e_j of a well-conditioned matrix, by conjugate gradients.
std::vector<double> column_of_inverse(const upper_crs& m, std::int32_t j) {
    const auto n = static_cast<std::size_t>(m.n());
    std::vector<double> x(n, 0.0), r(n, 0.0), p, w(n);
    r[static_cast<std::size_t>(j)] = 1.0;
    p = r;
    double rr = 1.0;
    for (int iteration = 0; iteration < 300 && rr > 1e-32; ++iteration) {
        std::ranges::fill(w, 0.0);
        for (std::int32_t i = 0; i < m.n(); ++i)
            for (std::int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
                const std::int32_t c = m.ja[k] - 1;
                w[i] += m.a[k] * p[c];
                if (c != i) w[c] += m.a[k] * p[i];
            }
        const double step = rr / std::inner_product(p.begin(), p.end(), w.begin(), 0.0);
        for (std::size_t i = 0; i < n; ++i) x[i] += step * p[i], r[i] -= step * w[i];
        const double next = std::inner_product(r.begin(), r.end(), r.begin(), 0.0);
        for (std::size_t i = 0; i < n; ++i) p[i] = r[i] + next / rr * p[i];
        rr = next;
    }
    return x;
}

/// Large enough for the widest steps of the inverse, which smaller matrices have no work space for.
TEST(GetSpainvCrs, IsExactForALargeGrid) {
    const upper_crs m = grid(40);
    const auto perm = test::metis_order(m.ia, m.ja);
    const thread_count set(3);
    upper_crs inverse = m;
    get_spainv_crs(inverse.ia, inverse.ja, inverse.a, perm);
    for (const std::int32_t j : {0, 20 * 1600 + 20 * 40 + 20, 45678, 63999}) {
        const std::vector<double> expected = column_of_inverse(m, j);
        for (std::int32_t k = inverse.ia[j] - 1; k < inverse.ia[j + 1] - 1; ++k)
            ASSERT_NEAR(inverse.a[k], expected[inverse.ja[k] - 1], 1e-13) << j << " " << inverse.ja[k];
    }
}

TEST(GetSpainvCrs, GivesTheSameForOneToEightThreads) {
    std::mt19937 random(17);
    for (const upper_crs& m : {grid(20), test::random_semidefinite(900, random)}) {  // tiles; drops
        const bool definite = m.n() > 1000;
        const auto perm = test::metis_order(m.ia, m.ja);
        upper_crs first, first_inverse, first_incomplete;
        for (int threads = 1; threads <= 8; ++threads) {
            const thread_count set(threads);
            upper_crs factor = m, inverse = m, incomplete = m;
            std::vector<double> d;
            get_ldlt_crs(factor.ia, factor.ja, factor.a, d, perm);
            get_spainv_crs(inverse.ia, inverse.ja, inverse.a, perm);
            if (definite) get_ichol_crs(incomplete.ia, incomplete.ja, incomplete.a, perm);
            if (threads == 1) {
                first = factor, first_inverse = inverse, first_incomplete = incomplete;
                continue;
            }
            ASSERT_EQ(factor.ja, first.ja);
            ASSERT_EQ(inverse.ja, first_inverse.ja);
            for (std::size_t k = 0; k < first.a.size(); ++k) {
                ASSERT_NEAR(factor.a[k], first.a[k], 1e-12 * (1.0 + std::abs(first.a[k])));
                ASSERT_NEAR(inverse.a[k], first_inverse.a[k], 1e-12 * (1.0 + std::abs(first_inverse.a[k])));
            }
            ASSERT_EQ(incomplete.a, first_incomplete.a);
        }
    }
}

TEST(GetCholCrs, WorksInsideAParallelRegion) {
    upper_crs m[2] = {grid(5), grid(5)};
    const upper_crs before = m[0];
#pragma omp parallel for num_threads(2) default(none) shared(m)
    for (int k = 0; k < 2; ++k) get_chol_crs(m[k].ia, m[k].ja, m[k].a, {});

    EXPECT_LE(largest_difference(product(upper_dense(m[0])), dense_of(before)), 1e-13);
    EXPECT_EQ(m[0].a, m[1].a);
}

// ---- errors
// ---------------------------------------------------------------------------------------------------

TEST(GetCholCrs, NamesTheEquationOfTheFailedPivotInTheMatrixsNumbering) {
    captured_log log;
    upper_crs m{{1, 2, 3, 4}, {1, 2, 3}, {1.0, -2.0, 3.0}};
    const upper_crs before = m;
    const std::vector<std::int32_t> perm{2, 3, 1};
    const spainv_controls controls{.unlog = &static_cast<logger&>(log)};

    EXPECT_EQ(fatal_message([&] { get_chol_crs(m.ia, m.ja, m.a, perm, controls); }),
              " ERROR: the pivot of equation 2 is not positive: the matrix is not positive definite");
    EXPECT_THAT(log.text(), HasSubstr("the pivot of equation 2 is not positive"));
    EXPECT_EQ(m.a, before.a);
    EXPECT_THAT(fatal_message([&] { get_ichol_crs(m.ia, m.ja, m.a, perm); }), HasSubstr("equation 2 is not"));
    EXPECT_EQ(fatal_message([&] { get_spainv_crs(m.ia, m.ja, m.a, perm); }),
              " ERROR: the pivot of equation 2 is negative: the matrix is not positive semidefinite");
    EXPECT_EQ(m.a, before.a);
}

TEST(GetCholCrs, ReportsTheFirstFailedPivotForAnyNumberOfThreads) {
    upper_crs m = grid(12);
    const auto perm = test::metis_order(m.ia, m.ja);
    for (const std::int32_t place : {300, 700, 1100, 1727}) m.a[m.ia[perm[place] - 1] - 1] = -100.0;
    for (int threads = 1; threads <= 8; ++threads) {
        const thread_count set(threads);
        upper_crs factor = m;
        std::vector<double> d;

        const std::string chol = fatal_message([&] { get_chol_crs(factor.ia, factor.ja, factor.a, perm); });
        const std::string ldlt =
            fatal_message([&] { get_ldlt_crs(factor.ia, factor.ja, factor.a, d, perm); });

        const std::string head = " ERROR: the pivot of equation " + std::to_string(perm[300]);
        EXPECT_THAT(chol, HasSubstr(head + " is not positive"));
        EXPECT_THAT(ldlt, HasSubstr(head + " is negative"));
    }
}

TEST(GetCholCrs, RefusesASingularMatrix) {
    upper_crs m{{1, 3, 4}, {1, 2, 2}, {1.0, 1.0, 1.0}};

    EXPECT_THAT(fatal_message([&] { get_chol_crs(m.ia, m.ja, m.a, {}); }),
                HasSubstr("equation 2 is not positive"));
}

TEST(GetLdltCrs, RefusesAnIndefiniteMatrix) {
    upper_crs m{{1, 3, 4}, {1, 2, 2}, {1.0, 2.0, 1.0}};
    std::vector<double> d;

    EXPECT_THAT(fatal_message([&] { get_ldlt_crs(m.ia, m.ja, m.a, d, {}); }),
                HasSubstr("equation 2 is negative"));
}

TEST(GetSpainvCrs, RefusesElementsThatAreNotFinite) {
    for (const double bad :
         {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
        upper_crs m{{1, 3, 4}, {1, 2, 2}, {1.0, bad, 1.0}};

        EXPECT_EQ(fatal_message([&] { get_spainv_crs(m.ia, m.ja, m.a, {}); }),
                  " ERROR: the element (1, 2) of the CRS matrix is not a finite number");
    }
}

TEST(GetSpainvCrs, RefusesArraysThatAreNoSortedUpperTriangle) {
    const auto message = [](upper_crs m) {
        return fatal_message([&] { get_spainv_crs(m.ia, m.ja, m.a, {}); });
    };

    EXPECT_EQ(message({{1, 2, 4}, {1, 1, 2}, {1, 1, 1}}),
              " ERROR: the CRS matrix must be square and upper triangular stored");
    EXPECT_EQ(message({{1, 3, 4}, {1, 3, 2}, {1, 1, 1}}),
              " ERROR: the CRS matrix must be square and upper triangular stored");
    EXPECT_EQ(message({{1, 4, 5, 6}, {1, 3, 2, 2, 3}, {1, 1, 1, 1, 1}}),
              " ERROR: row 1 of the CRS matrix is not sorted");
    EXPECT_EQ(message({{1, 3, 4}, {1, 2}, {1, 1}}),
              " ERROR: the row pointers of the CRS matrix do not fit its elements");
    EXPECT_EQ(message({{}, {}, {}}), " ERROR: the row pointers of the CRS matrix do not fit its elements");
    EXPECT_EQ(message({{1, 4, 3}, {1, 2}, {1, 1}}),
              " ERROR: the row pointers of the CRS matrix decrease at row 2");
}

TEST(GetSpainvCrs, RefusesAWrongPermutation) {
    const auto message = [](std::vector<std::int32_t> perm) {
        upper_crs m{{1, 2, 3}, {1, 2}, {1, 1}};
        return fatal_message([&] { get_spainv_crs(m.ia, m.ja, m.a, perm); });
    };

    EXPECT_EQ(message({1}), " ERROR: the permutation has 1 elements instead of 2");
    EXPECT_EQ(message({1, 1}), " ERROR: the permutation does not hold each equation once, see 1");
    EXPECT_EQ(message({0, 1}), " ERROR: the permutation does not hold each equation once, see 0");
    EXPECT_EQ(message({2, 3}), " ERROR: the permutation does not hold each equation once, see 3");
}

// ---- report -----------------------------------------------------------------------------------------------

TEST(Writetime, ReportsTheStepsUnderTheHeadingOfTheProcedure) {
    const auto report = [](auto&& procedure) {
        captured_log log;
        upper_crs m = grid(3);
        procedure(m, spainv_controls{.unlog = &static_cast<logger&>(log)});
        return log.text();
    };
    const std::string steps =
        "  Symbolic factorization  : [0-9]*\\.[0-9]+ s\n"
        "  Setup of tmp arrays     : [0-9]*\\.[0-9]+ s\n"
        "  Node determination      : [0-9]*\\.[0-9]+ s\n"
        "  Cholesky factorization  : [0-9]*\\.[0-9]+ s\n";
    const std::string inversion = "  Matrix inversion        : [0-9]*\\.[0-9]+ s\n";
    const std::string end =
        "  Conversion to CRS       : [0-9]*\\.[0-9]+ s\n"
        "  Total time              : [0-9]*\\.[0-9]+ s\n";

    EXPECT_THAT(report([](upper_crs& m, const auto& c) { get_chol_crs(m.ia, m.ja, m.a, {}, c); }),
                MatchesRegex("CHOL FACT\\. CRS MATRIX \n" + steps + end));
    EXPECT_THAT(report([](upper_crs& m, const auto& c) { get_ichol_crs(m.ia, m.ja, m.a, {}, c); }),
                MatchesRegex("SPARSE CHOL FACT\\. CRS MATRIX \n" + steps + end));
    EXPECT_THAT(report([](upper_crs& m, const auto& c) { get_spainv_crs(m.ia, m.ja, m.a, {}, c); }),
                MatchesRegex("INVERSION CRS MATRIX \n" + steps + inversion + end));
}

TEST(Writetime, CountsDroppedPivots) {
    captured_log log;
    upper_crs m{{1, 2, 3}, {1, 2}, {0.0, 1.0}};

    get_spainv_crs(m.ia, m.ja, m.a, {}, {.unlog = &static_cast<logger&>(log)});

    EXPECT_THAT(log.text(), HasSubstr("  Number of dropped pivots: 1\n"));
}

TEST(Progress, GoesUpToHundredPercentForFactorAndInverse) {
    captured_log log;
    upper_crs m = grid(8);

    const spainv_summary summary =
        get_spainv_crs(m.ia, m.ja, m.a, {}, {.unlog = &static_cast<logger&>(log), .lprogress = true});

    EXPECT_GT(summary.nsuper, 1);
    const std::string text = log.text();
    const auto first = text.find("  100%\n");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(text.find("  100%\n", first + 1), std::string::npos);
}

}  // namespace
}  // namespace zendar
