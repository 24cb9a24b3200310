#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>

#include "captured_log.hpp"
#include "magnitude.hpp"
#include "modblas.hpp"
#include "modspainv_test_support.hpp"
#include "modsparse.hpp"

// Whole matrices of the family, up to 400 equations, against dense algebra: products, solves, factors and the
// inverse, in every order, for definite, semidefinite and indefinite matrices.

namespace zendar {
namespace {

using test::upper_crs;

enum class kind { definite, semidefinite, indefinite };
enum class order_from { getordering, identity, user };

/// An indefinite matrix far from singular: the definite one with some signs turned.
upper_crs random_indefinite(std::int32_t n, double links, std::mt19937& random) {
    upper_crs m = test::random_definite(n, links, random);
    m.a[m.ia[n - 1] - 1] *= -1.0;
    for (std::int32_t i = 0; i + 1 < n; ++i)
        if (random() % 3 == 0) m.a[m.ia[i] - 1] *= -1.0;
    return m;
}

crssparse matrix_of(const upper_crs& m) {
    crssparse a(m.n(), std::ssize(m.a), {}, true);
    a.external(m.ia, m.ja, m.a);
    a.setsymmetric();
    return a;
}

matrix<double> random_columns(std::int64_t n, std::int64_t columns, std::mt19937& random) {
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    matrix<double> x(n, columns);
    std::ranges::generate(x.values(), [&] { return value(random); });
    return x;
}

double largest(const matrix<double>& m) {
    double x = 0.0;
    for (const double v : m.values()) x = std::max(x, test::magnitude(v));
    return x;
}

double relative_difference(const matrix<double>& x, const matrix<double>& y) {
    double d = 0.0;
    for (std::size_t i = 0; i < x.values().size(); ++i)
        d = std::max(d, test::magnitude(x.values()[i] - y.values()[i]));
    return d / std::max(1.0, largest(y));
}

matrix<double> times(const matrix<double>& a, const matrix<double>& x) {
    matrix<double> y(a.rows(), x.cols());
    blas_dgemm(false, false, 1.0, a.view(), x.view(), 0.0, y.view());
    return y;
}

/// Moore-Penrose inverse, from the eigenvalues; and the projection on the range.
struct dense_inverse {
    matrix<double> inverse, range;
    bool definite = true;
    explicit dense_inverse(const matrix<double>& a) : inverse(a.rows(), a.rows()), range(a.rows(), a.rows()) {
        const std::int64_t n = a.rows();
        matrix<double> v = a;
        std::vector<double> d(static_cast<std::size_t>(n));
        EXPECT_EQ(lapack_dsyevd_vectors(v.view(), d), 0);
        const double most = std::max(std::abs(d.front()), std::abs(d.back()));
        matrix<double> kept = v, divided = v;
        for (std::int64_t k = 0; k < n; ++k) {
            const bool zero = std::abs(d[k]) <= 1e-10 * most;
            definite = definite && d[k] > 0.0 && !zero;
            for (double& x : kept.column(k)) x = zero ? 0.0 : x;
            for (double& x : divided.column(k)) x = zero ? 0.0 : x / d[k];
        }
        blas_dgemm(false, true, 1.0, divided.view(), v.view(), 0.0, inverse.view());
        blas_dgemm(false, true, 1.0, kept.view(), v.view(), 0.0, range.view());
    }
};

matrix<double> upper_dense(const crssparse& u) {
    matrix<double> dense(u.getdim(1), u.getdim(1));
    const auto v = u.view();
    for (std::int32_t i = 0; i < v.dim1; ++i)
        for (std::int32_t k = v.ia[i] - 1; k < v.ia[i + 1] - 1; ++k) dense(i, v.ja[k] - 1) = v.a[k];
    return dense;
}

/// U'DU back in the numbering of the equations; D stands on the diagonal of U when `ldlt`.
matrix<double> product_of_factor(const crssparse& factor, bool ldlt) {
    matrix<double> u = upper_dense(factor), scaled(u.rows(), u.rows()), p(u.rows(), u.rows());
    std::vector<double> d(static_cast<std::size_t>(u.rows()), 1.0);
    for (std::int64_t i = 0; ldlt && i < u.rows(); ++i) d[i] = std::exchange(u(i, i), 1.0);
    for (std::int64_t j = 0; j < u.rows(); ++j)
        for (std::int64_t i = 0; i <= j; ++i) scaled(i, j) = d[i] * u(i, j);
    blas_dgemm(true, false, 1.0, u.view(), scaled.view(), 0.0, p.view());
    const auto perm = factor.getpermutation32();
    matrix<double> back(u.rows(), u.rows());
    for (std::int64_t j = 0; j < u.rows(); ++j)
        for (std::int64_t i = 0; i < u.rows(); ++i) back(perm[i] - 1, perm[j] - 1) = p(i, j);
    return back;
}

/// One matrix and everything that is to be checked of it.
class whole_matrix {
  public:
    whole_matrix(kind what, order_from order, std::int32_t n, std::mt19937& random)
        : what_(what),
          arrays_(make(what, n, random)),
          a_(matrix_of(arrays_)),
          dense_(dense_of(arrays_)),
          exact_(dense_) {
        if (order == order_from::getordering) return;
        const auto which = order == order_from::identity ? test::ordering::identity : test::ordering::random;
        a_.setpermutation32(test::order_of(which, arrays_, random));
    }

    void check_products(std::mt19937& random) const {
        const std::int64_t n = dense_.rows();
        const matrix<double> x = random_columns(n, 11, random), before = random_columns(n, 11, random);
        matrix<double> y = before, expected = before;
        a_.multgenm(2.0, 'N', x.view(), -0.5, y.view());
        blas_dgemm(false, false, 2.0, dense_.view(), x.view(), -0.5, expected.view());
        EXPECT_LE(relative_difference(y, expected), tolerance);
        matrix<double> one(n, 1), expected_one(n, 1);
        a_.multgenv(1.0, 'T', x.column(0), 0.0, one.column(0));
        const matrix_view<const double> x0{x.data(), n, 1, n};
        blas_dgemm(false, false, 1.0, dense_.view(), x0, 0.0, expected_one.view());
        EXPECT_LE(relative_difference(one, expected_one), tolerance);
    }
    /// Of deficient rank: what can be estimated.
    void check_solves(std::mt19937& random) {
        const matrix<double> y = times(dense_, random_columns(dense_.rows(), 3, random));
        matrix<double> x(y.rows(), 3);
        a_.solve(x.view(), y.view());
        check_solution(x, y);
        matrix<double> again = x;
        a_.solve(again.column(1), y.column(1));
        check_solution(again, y);
    }
    void check_factors(std::mt19937& random) const {
        crssparse chol = a_.copy();
        if (what_ == kind::indefinite) {
            EXPECT_NE(test::fatal_message([&] { chol.getchol(); }).find("is not positive"),
                      std::string::npos);
        } else if (what_ == kind::definite) {  // else rounding decides
            chol.getchol();
            EXPECT_LE(relative_difference(product_of_factor(chol, false), dense_), tolerance);
            matrix<double> x(dense_.rows(), 1);
            const matrix<double> y = random_columns(dense_.rows(), 1, random);
            chol.isolve(x.column(0), y.column(0));
            EXPECT_LE(relative_difference(x, times(exact_.inverse, y)), tolerance);
        }
        crssparse ldlt = a_.copy();
        if (what_ == kind::indefinite) {
            EXPECT_NE(test::fatal_message([&] { ldlt.getldlt(); }).find("is negative"), std::string::npos);
            return;
        }
        ldlt.getldlt();
        if (what_ == kind::definite) {
            EXPECT_LE(relative_difference(product_of_factor(ldlt, true), dense_), tolerance);
        }
        const matrix<double> y = times(dense_, random_columns(dense_.rows(), 2, random));
        matrix<double> x(y.rows(), 2);
        ldlt.solveldlt(x.view(), y.view());
        check_solution(x, y);
    }
    void check_inverse() const {
        crssparse inverse = a_.copy();
        if (what_ == kind::indefinite) {
            EXPECT_THROW(inverse.getspainv(), fatal_error);
            return;
        }
        inverse.getspainv();
        const auto v = inverse.view();
        // The equations that were not dropped, which have a diagonal, and the inverse of what they form.
        std::vector<std::int32_t> kept;
        for (std::int32_t i = 0; i < v.dim1; ++i)
            if (v.a[v.ia[i] - 1] != 0.0) kept.push_back(i + 1);
        matrix<double> part = a_.submatrix_dense(kept, kept);
        matrix<double> expected(v.dim1, v.dim1);
        ASSERT_EQ(lapack_dpotrf(part.view()), 0);
        ASSERT_EQ(lapack_dpotri(part.view()), 0);
        for (std::int64_t j = 0; j < part.rows(); ++j)
            for (std::int64_t i = j; i < part.rows(); ++i)
                expected(kept[i] - 1, kept[j] - 1) = expected(kept[j] - 1, kept[i] - 1) = part(i, j);
        const double scale = std::max(1.0, largest(expected));
        for (std::int32_t i = 0; i < v.dim1; ++i)
            for (std::int32_t k = v.ia[i] - 1; k < v.ia[i + 1] - 1; ++k)
                ASSERT_NEAR(v.a[k], expected(i, v.ja[k] - 1), tolerance * scale);
        EXPECT_GE(inverse.totalnumberofelements(), a_.totalnumberofelements());
    }
    [[nodiscard]] bool definite() const { return exact_.definite; }

  private:
    static constexpr double tolerance = 1e-10;

    static upper_crs make(kind what, std::int32_t n, std::mt19937& random) {
        const double links[] = {0.5, 1.0, 3.0, 30.0};
        const double some = links[random() % 4];
        if (what == kind::semidefinite) return test::random_semidefinite(n, random);
        return what == kind::definite ? test::random_definite(n, some, random)
                                      : random_indefinite(n, some, random);
    }
    void check_solution(const matrix<double>& x, const matrix<double>& y) const {
        EXPECT_LE(relative_difference(times(dense_, x), y), tolerance);
        const matrix<double> estimable = times(exact_.range, x);
        EXPECT_LE(relative_difference(estimable, times(exact_.inverse, y)),
                  tolerance * std::max(1.0, largest(x)));
    }

    kind what_;
    upper_crs arrays_;
    crssparse a_;
    matrix<double> dense_;
    dense_inverse exact_;
};

class WholeMatrices : public ::testing::TestWithParam<std::tuple<kind, order_from>> {};

TEST_P(WholeMatrices, AgreeWithDenseAlgebra) {
    const auto [what, order] = GetParam();
    std::mt19937 random(static_cast<unsigned>(what) * 3 + static_cast<unsigned>(order) + 1);
    constexpr int matrices = 34;  // 306 in all
    for (int k = 0; k < matrices; ++k) {
        const std::int32_t n = k == 0       ? 1
                               : k == 1     ? 400
                               : k % 8 == 0 ? 1 + static_cast<std::int32_t>(random() % 400)
                                            : 1 + static_cast<std::int32_t>(random() % 70);
        SCOPED_TRACE("matrix " + std::to_string(k) + ", n = " + std::to_string(n));
        whole_matrix m(what, order, n, random);
        EXPECT_TRUE(m.definite() || what != kind::definite);
        m.check_products(random);
        m.check_solves(random);
        m.check_factors(random);
        m.check_inverse();
        if (HasFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(
    KindsAndOrders, WholeMatrices,
    ::testing::Combine(::testing::Values(kind::definite, kind::semidefinite, kind::indefinite),
                       ::testing::Values(order_from::getordering, order_from::identity, order_from::user)));

}  // namespace
}  // namespace zendar
