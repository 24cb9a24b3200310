#include "modvariablepardiso.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "captured_log.hpp"
#include "magnitude.hpp"
#include "modblas.hpp"
#include "platform/directsolver.hpp"

namespace zendar {
namespace {

using ::testing::DoubleNear;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

/// Upper triangle in compressed rows of a dense symmetric matrix; zeros off the diagonal are left out.
template <std::signed_integral Index>
struct upper_rows {
    std::int32_t n;
    std::vector<Index> ia{1}, ja{};
    std::vector<double> a{};

    explicit upper_rows(const matrix<double>& m) : n(static_cast<std::int32_t>(m.rows())) {
        for (std::int32_t i = 0; i < n; ++i) {
            for (std::int32_t j = i; j < n; ++j)
                if (i == j || m(i, j) != 0.0) {
                    ja.push_back(j + 1);
                    a.push_back(m(i, j));
                }
            ia.push_back(static_cast<Index>(ja.size()) + 1);
        }
    }
    [[nodiscard]] crs_view<Index> view() const { return {n, n, ia, ja, a}; }
};

enum class kind { definite, semidefinite, indefinite };

/// A sparse symmetric matrix: G'G of a sparse G (of deficient rank), plus a diagonal where it is to be
/// definite; or random elements with a zero diagonal here and there.
matrix<double> random_symmetric(std::int32_t n, kind what, std::mt19937& generator) {
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    const auto below = [&](std::int32_t m) {
        return static_cast<std::int32_t>(generator() % static_cast<std::uint32_t>(m));
    };
    matrix<double> m(n, n);
    if (what == kind::indefinite) {
        for (std::int32_t k = 0; k < 3 * n; ++k) {
            const std::int32_t i = below(n), j = below(n);
            m(i, j) = m(j, i) = value(generator);
        }
        for (std::int32_t i = 0; i < n; ++i) m(i, i) = below(4) == 0 ? 0.0 : (below(2) == 0 ? 3.0 : -3.0);
        return m;
    }
    const std::int32_t rank = std::max(1, n - 1 - n / 8);
    matrix<double> g(rank, n);
    for (std::int32_t i = 0; i < rank; ++i)
        for (std::int32_t k = 0; k < 3; ++k) g(i, below(n)) = static_cast<double>(1 + below(3));
    blas_dgemm(true, false, 1.0, g.view(), g.view(), 0.0, m.view());
    if (what == kind::definite)
        for (std::int32_t i = 0; i < n; ++i) m(i, i) += 1.0;
    return m;
}

/// Values and vectors, and the projection on the range.
struct spectrum {
    matrix<double> vectors;
    std::vector<double> values;
    double largest = 0.0;

    explicit spectrum(matrix<double> m)
        : vectors(std::move(m)), values(static_cast<std::size_t>(vectors.rows())) {
        EXPECT_EQ(lapack_dsyevd_vectors(vectors.view(), values), 0);
        for (const double v : values) largest = std::max(largest, test::magnitude(v));
    }
    [[nodiscard]] bool in_range(std::size_t k) const { return std::abs(values[k]) > 1e-10 * largest; }
    [[nodiscard]] double condition() const {
        double least = largest;
        for (std::size_t k = 0; k < values.size(); ++k)
            if (in_range(k)) least = std::min(least, std::abs(values[k]));
        return largest / least;
    }
    /// Sum over the range of v (v'x) / d, or without the division.
    [[nodiscard]] std::vector<double> on_range(std::span<const double> x, bool divide) const {
        std::vector<double> out(x.size(), 0.0);
        for (std::size_t k = 0; k < values.size(); ++k) {
            if (!in_range(k)) continue;
            const auto v = vectors.column(static_cast<std::int64_t>(k));
            double dot = 0.0;
            for (std::size_t i = 0; i < x.size(); ++i) dot += v[i] * x[i];
            for (std::size_t i = 0; i < x.size(); ++i) out[i] += v[i] * dot / (divide ? values[k] : 1.0);
        }
        return out;
    }
};

enum class ordering { library, natural, user };

/// Solves and compares the estimable part of the solutions (all of it, for a matrix of full rank) with the
/// pseudo-inverse of LAPACK.
template <std::signed_integral Index>
void check_random_system(unsigned seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 generator(seed);
    const auto what = static_cast<kind>(seed % 3);
    const auto order = static_cast<ordering>(seed / 3 % 3);
    const auto n = static_cast<std::int32_t>(2 + generator() % 60);
    const auto columns = static_cast<std::int64_t>(1 + generator() % 40);
    const matrix<double> a = random_symmetric(n, what, generator);
    const spectrum exact(a);
    if (what != kind::semidefinite && exact.condition() > 1e8) return;
    const upper_rows<Index> rows(a);
    matrix<double> cause(n, columns), y(n, columns), wide(n + 2, columns);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    std::ranges::generate(cause.values(), [&] { return value(generator); });
    blas_dgemm(false, false, 1.0, a.view(), cause.view(), 0.0, y.view());
    std::vector<std::int32_t> perm(static_cast<std::size_t>(n));
    for (std::int32_t i = 0; i < n; ++i) perm[i] = i + 1;
    if (order == ordering::user) std::ranges::shuffle(perm, generator);

    pardiso_variable control;
    pardisoinit(control, order != ordering::library);
    const matrix_view<double> x{wide.data(), n, columns, seed % 2 == 0 ? n : n + 2};
    pardiso(control, 12, rows.view(), perm, {}, {}, nullptr);
    ASSERT_EQ(control.error, 0);
    pardiso(control, 33, rows.view(), perm, y.view(), x, nullptr);
    ASSERT_EQ(control.error, 0);

    EXPECT_GE(control.iparm[18 - 1], n);
    const double tolerance = 1e-11 * std::max(1.0, exact.condition());
    for (std::int64_t j = 0; j < columns; ++j) {
        const std::vector<double> expected = exact.on_range(y.column(j), true);
        const std::vector<double> found = exact.on_range(x.column(j), false);
        double scale = 1.0;
        for (const double v : x.column(j)) scale = std::max(scale, test::magnitude(v));
        for (std::int32_t i = 0; i < n; ++i) ASSERT_NEAR(found[i], expected[i], tolerance * scale) << i;
    }
}

TEST(Pardiso, AgreesWithLapackOnRandomSystems) {
    for (unsigned seed = 1; seed <= 207; ++seed) {
        check_random_system<std::int32_t>(seed);
        if (::testing::Test::HasFatalFailure()) return;
    }
}

TEST(Pardiso, AgreesWithLapackWithWideIndices) {
    for (unsigned seed = 1001; seed <= 1045; ++seed) {
        check_random_system<std::int64_t>(seed);
        if (::testing::Test::HasFatalFailure()) return;
    }
}

matrix<double> two_by_two(double a, double b, double c) {
    matrix<double> m(2, 2);
    m(0, 0) = a, m(0, 1) = m(1, 0) = b, m(1, 1) = c;
    return m;
}

TEST(Pardiso, SolvesAnIndefiniteSystemWithAZeroDiagonal) {
    const upper_rows<std::int32_t> rows(two_by_two(0.0, 2.0, 0.0));
    pardiso_variable control;
    pardisoinit(control, false);
    matrix<double> x(2, 1), y(2, 1);
    y(0, 0) = 6.0, y(1, 0) = 4.0;

    pardiso(control, 12, rows.view(), {}, {}, {}, nullptr);
    pardiso(control, 33, rows.view(), {}, y.view(), x.view(), nullptr);

    EXPECT_EQ(control.error, 0);
    EXPECT_THAT(x.values(), ElementsAre(DoubleNear(2.0, 1e-14), DoubleNear(3.0, 1e-14)));
}

TEST(Pardiso, CountsDependentEquations) {
    matrix<double> a(5, 5);  // twice [1 1; 1 1], and an empty equation
    for (const int b : {0, 2})
        for (int i = 0; i < 2; ++i)
            for (int j = 0; j < 2; ++j) a(b + i, b + j) = 1.0;
    const upper_rows<std::int32_t> rows(a);
    pardiso_variable control;
    pardisoinit(control, false);

    pardiso(control, 12, rows.view(), {}, {}, {}, nullptr);

    EXPECT_EQ(control.error, 0);
    EXPECT_EQ(control.ndependent, 3);
}

TEST(Pardiso, KeepsSeveralFactorisationsApart) {
    const upper_rows<std::int32_t> first(two_by_two(2.0, 0.0, 4.0)), second(two_by_two(1.0, 0.0, 8.0));
    pardiso_variable one, two;
    pardisoinit(one, false);
    pardisoinit(two, false);
    matrix<double> x(2, 1);
    const matrix<double> y(2, 1, 8.0);

    pardiso(one, 12, first.view(), {}, {}, {}, nullptr);
    pardiso(two, 12, second.view(), {}, {}, {}, nullptr);
    pardiso(one, 33, first.view(), {}, y.view(), x.view(), nullptr);
    EXPECT_THAT(x.values(), ElementsAre(4.0, 2.0));
    pardiso(one, -1, first.view(), {}, {}, {}, nullptr);
    pardiso(two, 33, second.view(), {}, y.view(), x.view(), nullptr);
    EXPECT_THAT(x.values(), ElementsAre(8.0, 1.0));
    pardiso(one, 33, first.view(), {}, y.view(), x.view(), nullptr);
    EXPECT_EQ(one.error, -2);
}

TEST(Pardiso, TakesTheEmptySystem) {
    const std::vector<std::int32_t> ia{1};
    const crs_view<std::int32_t> none{0, 0, ia, {}, {}};
    pardiso_variable control;
    pardisoinit(control, false);
    pardiso(control, 12, none, {}, {}, {}, nullptr);
    EXPECT_EQ(control.error, 0);
    pardiso(control, 33, none, {}, {}, {}, nullptr);
    EXPECT_EQ(control.error, 0);
}

TEST(Pardiso, RefusesWhatIsNoOrder) {
    const upper_rows<std::int32_t> rows(two_by_two(1.0, 0.0, 1.0));
    for (const std::vector<std::int32_t>& perm :
         {std::vector{1}, std::vector{1, 1}, std::vector{0, 1}, std::vector{2, 3}}) {
        pardiso_variable control;
        pardisoinit(control, true);
        pardiso<std::int32_t>(control, 12, rows.view(), perm, {}, {}, nullptr);
        EXPECT_EQ(control.error, -1);
        EXPECT_EQ(control.defect, "the permutation of the matrix is none of 1 to 2");
    }
}

TEST(Pardiso, RefusesAnUnknownPhase) {
    const upper_rows<std::int32_t> rows(two_by_two(1.0, 0.0, 1.0));
    pardiso_variable control;
    pardiso(control, 11, rows.view(), {}, {}, {}, nullptr);
    EXPECT_EQ(control.error, -1);
}

TEST(PardisoVariable, HasItsDefaultsAndSettings) {
    pardiso_variable control;
    EXPECT_EQ(control.pt, nullptr);
    EXPECT_EQ(control.maxfct, 1);
    EXPECT_EQ(control.mnum, 1);
    EXPECT_EQ(control.mtype, -2);
    EXPECT_EQ(control.msglvl, 0);
    EXPECT_EQ(control.nrhs, 1);
    EXPECT_EQ(control.error, -9);
    EXPECT_EQ(std::ranges::count(control.iparm, 0), 64);

    pardisoinit(control, false);
    const auto iparm = [&](int k) { return control.iparm[k - 1]; };
    EXPECT_EQ(iparm(2), 3);
    EXPECT_EQ(iparm(5), 0);
    EXPECT_EQ(iparm(24), 1);
    EXPECT_EQ(iparm(27), 1);
    EXPECT_EQ(iparm(28), 0);
    EXPECT_EQ(iparm(31), 0);
    EXPECT_EQ(iparm(36), 0);
    pardisoinit(control, true);
    EXPECT_EQ(iparm(5), 1);

    reset_pardiso_variable(control);
    EXPECT_EQ(control.pt, nullptr);
    EXPECT_EQ(std::ranges::count(control.iparm, 0), 64);
}

TEST(Checkpardiso, StopsWithPhaseAndError) {
    test::captured_log unit;
    const std::string text = " The following error for phase 12 was detected: -4";
    EXPECT_EQ(test::fatal_message([&] { checkpardiso(12, -4, &static_cast<logger&>(unit)); }), text);
    EXPECT_THAT(unit.text(), HasSubstr(text));
    EXPECT_NO_THROW(checkpardiso(12, 0, nullptr));
}

TEST(DirectSolverDefect, TellsWhatAndWhere) {
    using view = crs_view<std::int32_t>;
    using integers = std::vector<std::int32_t>;
    const integers ia{1, 3, 4}, sorted{1, 2, 2}, unsorted{2, 1, 2}, twice{1, 1, 2}, lower{1, 2, 1};
    const integers short_ia{1, 2, 2}, short_ja{1};
    const std::vector<double> a{1.0, 2.0, 3.0}, one{1.0};
    const auto defect = [](const view& m) { return detail::direct_solver_defect(m).value_or("none"); };

    EXPECT_EQ(defect({2, 2, ia, sorted, a}), "none");
    EXPECT_EQ(defect({2, 3, ia, sorted, a}), "the matrix is not square");
    EXPECT_EQ(defect({2, 2, ia, unsorted, a}), "the columns are not sorted in row 1");
    EXPECT_EQ(defect({2, 2, ia, twice, a}), "the columns are not sorted in row 1");
    EXPECT_EQ(defect({2, 2, ia, lower, a}), "an element below the diagonal is stored in row 2");
    EXPECT_EQ(defect({2, 2, short_ia, short_ja, one}), "no diagonal element is stored in row 2");
    for (const double bad :
         {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
        const std::vector<double> values{1.0, bad, 3.0};
        EXPECT_EQ(defect({2, 2, ia, sorted, values}), "an element is not a finite number in row 1");
    }
}

TEST(EliminationPlaces, TakesMinimumDegreeForGraphsBeyondMetis) {
    matrix<double> star(50, 50);  // its centre must come among the last two
    for (int i = 0; i < 50; ++i) star(i, i) = star(0, i) = star(i, 0) = 1.0;
    const upper_rows<std::int64_t> rows(star);

    for (const std::int64_t most_entries : {std::int64_t{1000}, std::int64_t{10}}) {
        std::vector<std::int32_t> places = detail::elimination_places(rows.view(), most_entries, nullptr);
        EXPECT_GE(places[0], 49);
        std::ranges::sort(places);
        for (std::int32_t i = 0; i < 50; ++i) EXPECT_EQ(places[i], i + 1);
    }
}

TEST(EliminationPlaces, ServeTheSolverWhicheverWayTheyAreFound) {
    std::mt19937 generator(5);
    matrix<double> a = random_symmetric(120, kind::definite, generator);
    const upper_rows<std::int64_t> rows(a);
    matrix<double> cause(120, 1, 1.0), y(120, 1), x(120, 1);
    blas_dgemm(false, false, 1.0, a.view(), cause.view(), 0.0, y.view());
    for (const std::int64_t most_entries : {std::int64_t{1} << 31, std::int64_t{0}}) {
        const std::vector<std::int32_t> places =
            detail::elimination_places(rows.view(), most_entries, nullptr);
        std::vector<std::int32_t> perm(120);
        for (std::int32_t i = 0; i < 120; ++i) perm[places[i] - 1] = i + 1;
        pardiso_variable control;
        pardisoinit(control, true);

        pardiso(control, 12, rows.view(), perm, {}, {}, nullptr);
        pardiso(control, 33, rows.view(), perm, y.view(), x.view(), nullptr);

        ASSERT_EQ(control.error, 0);
        EXPECT_LT(control.nfactor, 120 * 121 / 2);
        for (const double v : x.values()) EXPECT_NEAR(v, 1.0, 1e-10);
    }
}

TEST(DirectSolver, AsksForMoreMemoryUntilItSuffices) {
    constexpr std::int32_t n = 400;
    matrix<double> a(n, n);
    std::mt19937 generator(3);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j) a(i, j) = a(j, i) = i == j ? 0.0 : value(generator);
    const upper_rows<std::int32_t> rows(a);
    std::vector<std::int32_t> row_of, places;
    for (std::int32_t i = 1; i <= n; ++i) {
        row_of.insert(row_of.end(), static_cast<std::size_t>(rows.ia[i] - rows.ia[i - 1]), i);
        places.push_back(i);
    }
    matrix<double> x(n, 1), y(n, 1), cause(n, 1, 1.0);
    blas_dgemm(false, false, 1.0, a.view(), cause.view(), 0.0, y.view());

    platform::directsolver solver(-99);
    ASSERT_EQ(solver.factorize(n, row_of, rows.ja, rows.a, places), 0);
    x = y;
    ASSERT_EQ(solver.solve(x.view()), 0);

    for (const double v : x.values()) EXPECT_NEAR(v, 1.0, 1e-9);
}

}  // namespace
}  // namespace zendar
