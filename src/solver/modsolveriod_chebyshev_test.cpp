#include "modsolveriod_chebyshev.hpp"

#include <gmock/gmock.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "modsolveriod_test_support.hpp"

namespace zendar {
namespace {

using test::dense_system;
using test::fatal_text;
using test::jacobi;
using test::lines_of;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* not_finite = "WARN: The iteration ended on a value that is not finite\n";

class SolverChebyshevIod : public testing::Test {
  protected:
    solver_result solve(dense_system& system, std::vector<double>& x) {
        jacobi m(system.c);
        b_.assign(x.size(), 9.0);
        return solver_chebyshev_iod(param_, system, m, x, b_, log_);
    }
    /// With the extreme eigenvalues as bounds.
    dense_system prepare(const matrix<double>& c) {
        param_ = test::model_of(static_cast<std::int32_t>(c.rows()));
        const std::vector<double> eigenvalues = test::jacobi_eigenvalues(c);
        param_.solver.eigmin = eigenvalues.front();
        param_.solver.eigmax = eigenvalues.back();
        return {c, test::random_vector(c.rows(), generator_)};
    }
    std::vector<std::string> rows() { return lines_of(place_.directory.read("convergence_cheb.dat")); }

    test::solver_place place_;
    test::captured_log log_;
    param_type param_;
    std::vector<double> b_;
    std::mt19937 generator_{20261125};
};

/// (2, 1; 1, 2) x = (3, 0): with the diagonal as M the eigenvalues are 0.5 and 1.5.
dense_system small_system() {
    matrix<double> c(2, 2, 1.0);
    c(0, 0) = c(1, 1) = 2.0;
    return {c, {3.0, 0.0}};
}

double norm_of_c(const matrix<double>& c, const std::vector<double>& x, const std::vector<double>& y) {
    double sum = 0.0;
    for (std::int64_t i = 0; i < c.rows(); ++i)
        for (std::int64_t j = 0; j < c.cols(); ++j) sum += (x[i] - y[i]) * c(i, j) * (x[j] - y[j]);
    return std::sqrt(std::max(sum, 0.0));
}

// ---- the iteration
// ---------------------------------------------------------------------------------------------

TEST_F(SolverChebyshevIod, StaysBelowItsBoundInEachIteration) {
    int held = 0;
    for (int k = 0; k < 12; ++k) {
        const std::int64_t n = 5 + 7 * k;
        dense_system system =
            prepare(k % 2 == 0 ? test::random_definite(n, generator_, 0.5) : test::second_differences(n));
        param_.solver.convcrit = 1e-16;
        const double a = param_.solver.eigmin, b = param_.solver.eigmax;
        const std::vector<double> solution = test::dense_solve(system.c, system.b);
        std::vector<double> x(n, 0.0);
        const double first = norm_of_c(system.c, x, solution);
        system.on_product = [&](int update) {  // between an update of x and its residual
            const double bound = first / std::cosh(update * std::acosh((b + a) / (b - a)));
            ASSERT_LE(norm_of_c(system.c, x, solution), bound * (1.0 + 1e-8) + 1e-12 * first)
                << n << " " << update;
            ++held;
        };

        const solver_result result = solve(system, x);

        EXPECT_TRUE(result.finite);
        EXPECT_LT(result.counter, 5000);
        EXPECT_LE(system.relative_residual(x), 1e-8);
        for (std::int64_t i = 0; i < n; ++i)
            EXPECT_NEAR(x[i], solution[i], 1e-4 * (1.0 + std::fabs(solution[i])));
    }
    EXPECT_GT(held, 300);
}

TEST_F(SolverChebyshevIod, IsTheTextbookIteration) {
    for (int k = 0; k < 6; ++k) {
        const std::int64_t n = 10 + 5 * k;
        dense_system system = prepare(test::random_definite(n, generator_, 1.0));
        param_.solver.convcrit = 1e-20;
        param_.solver.maxiter = 60;
        // The bounds need not be those of the matrix.
        if (k % 2 == 1) param_.solver.eigmin *= 0.3, param_.solver.eigmax *= 1.7;
        const jacobi m(system.c);
        const std::vector<double> start = test::random_vector(n, generator_);

        // The three-term form: steps d with factors rho of their own.
        const double theta = 0.5 * (param_.solver.eigmax + param_.solver.eigmin);
        const double delta = 0.5 * (param_.solver.eigmax - param_.solver.eigmin), sigma = theta / delta;
        double rho = 1.0 / sigma;
        std::vector<double> expected = start, r(n), d(n), x = start;
        system.residual(expected, r);
        for (std::int64_t i = 0; i < n; ++i) d[i] = m.inverse[i] * r[i] / theta;
        int compared = 0;
        system.on_product = [&](int) {
            for (std::int64_t i = 0; i < n; ++i) expected[i] += d[i];
            system.residual(expected, r);
            const double next = 1.0 / (2.0 * sigma - rho);
            for (std::int64_t i = 0; i < n; ++i)
                d[i] = next * rho * d[i] + 2.0 * next / delta * m.inverse[i] * r[i];
            rho = next;
            for (std::int64_t i = 0; i < n; ++i) ASSERT_NEAR(x[i], expected[i], 1e-10) << compared;
            ++compared;
        };
        solve(system, x);
        EXPECT_GT(compared, 10);
    }
}

TEST_F(SolverChebyshevIod, TakesOneUpdateWhenAllEigenvaluesAreEqual) {
    param_ = test::model_of(3);
    param_.solver.eigmin = param_.solver.eigmax = 1.0;
    matrix<double> c(3, 3);
    for (std::int64_t i = 0; i < 3; ++i) c(i, i) = static_cast<double>(i + 2);
    dense_system system(c, {2.0, 6.0, 12.0});
    std::vector<double> x(3, 0.0);
    EXPECT_EQ(solve(system, x).counter, 3);
    EXPECT_THAT(x, ElementsAre(1.0, 2.0, 3.0));
}

TEST_F(SolverChebyshevIod, SolvesSingularConsistentSystems) {
    // The eigenvalue 0 takes no part: the bounds are those of the others.
    matrix<double> c(5, 5, -1.0);
    for (std::int64_t i = 0; i < 5; ++i) c(i, i) = 4.0;
    dense_system system(c, {1.0, -2.0, 3.0, -4.0, 2.0});
    param_ = test::model_of(5);
    param_.solver.eigmin = param_.solver.eigmax = 1.25;
    std::vector<double> x(5, 0.0);
    EXPECT_TRUE(solve(system, x).finite);
    EXPECT_LT(system.relative_residual(x), 1e-6);
}

TEST_F(SolverChebyshevIod, GivesTheSameForAnyNumberOfThreads) {
    dense_system system = prepare(test::random_definite(300, generator_, 20.0));
    const int before = omp_get_max_threads();
    std::vector<double> reference;
    for (const int threads : {1, 2, 3, 4}) {
        omp_set_num_threads(threads);
        std::vector<double> x(300, 0.0);
        solve(system, x);
        if (threads == 1) reference = x;
        for (std::size_t i = 0; i < x.size(); ++i) ASSERT_NEAR(x[i], reference[i], 1e-10) << threads;
    }
    omp_set_num_threads(before);
}

// ---- what it tells
// ---------------------------------------------------------------------------------------------

TEST_F(SolverChebyshevIod, WritesARowOfEachIteration) {
    param_ = test::model_of(2);
    param_.solver.eigmin = 0.5;
    param_.solver.eigmax = 1.5;
    param_.solver.maxiter = 3;
    dense_system system = small_system();
    std::vector<double> x(2, 0.0);

    const solver_result result = solve(system, x);

    // By hand: omega 1 and 8/7, k 0 and 1/8; x = (1.5, 0) and (12, -6) / 7.
    EXPECT_EQ(result.counter, 4);
    EXPECT_NEAR(x[0], 12.0 / 7.0, 1e-15);
    EXPECT_NEAR(x[1], -6.0 / 7.0, 1e-15);
    EXPECT_EQ(place_.directory.read("convergence_cheb.dat"),
              "   Iteration      1 Convergence =  0.10000E+01  0.10000E+01  0.10000E+01  0.00000E+00 \n"
              "   Iteration      2 Convergence =  0.25000E+00  0.10000E+01  0.20000E+01  0.15000E+01 \n"
              "   Iteration      3 Convergence =  0.20408E-01  0.21250E+00  0.78262E+00  0.85714E+00 \n");
}

TEST_F(SolverChebyshevIod, TellsWhatItDoes) {
    param_ = test::model_of(2);
    param_.solver.eigmin = 0.5;
    param_.solver.eigmax = 1.5;
    param_.solver.maxiter = 3;
    dense_system system = small_system();
    std::vector<double> x(2, 0.0);
    solve(system, x);
    EXPECT_THAT(log_.text(),
                StartsWith("  Memory (MB) needed for r,p,z,b,solutions   : .00\n  Start Chebyshev\n"));
    EXPECT_THAT(log_.text(), HasSubstr("   Norm of RHS                    0.90000E+01 0.30000E+01\n"));
    EXPECT_THAT(log_.text(), HasSubstr("   Iteration      2 Convergence =  0.25000E+00 Clock time (s)= "));
    EXPECT_THAT(log_.text(), HasSubstr("   Iteration      3 Convergence =  0.20408E-01 Clock time (s)= "));
    EXPECT_THAT(log_.text(), testing::ContainsRegex("Clock time \\(s\\)= 0?\\.[0-9][0-9][0-9][0-9]\n"));
    EXPECT_THAT(log_.text(), HasSubstr("All iterations (3) "));
    EXPECT_THAT(log_.text(), Not(HasSubstr(not_finite)));
    EXPECT_EQ(param_.solver.eigmin, 0.5);
}

TEST_F(SolverChebyshevIod, CountsTheMemoryOfFiveVectors) {
    dense_system system = prepare(test::random_definite(1, generator_, 1.0));
    system.c = matrix<double>(1, 1, 2.0);
    std::vector<double> x(1, 0.0);
    solve(system, x);
    EXPECT_THAT(log_.text(), HasSubstr("solutions   : .00\n"));
    // 26215 equations are a hair above 1 MB; products are not needed to see it.
    class big_system final : public linear_system {
      public:
        [[nodiscard]] std::int64_t size() const override { return 26215; }
        [[nodiscard]] std::int64_t work_size() const override { return 0; }
        void atimesx(std::span<const double> v, std::span<double> r) override {
            std::ranges::copy(v, r.begin());
        }
        void r_equal_b_minus_atimesx(std::span<const double>, std::span<double> b,
                                     std::span<double> r) override {
            std::ranges::fill(b, 1.0);
            std::ranges::fill(r, 1.0);
        }
        void r_equal_savedb_minus_atimesx(std::span<const double>, std::span<double>) override {}
        bool read_savedb(std::span<double>) override { return false; }
    } big;
    jacobi m(matrix<double>(1, 1, 1.0));
    m.inverse.assign(26215, 1.0);
    std::vector<double> many(26215, 0.0), b(26215);
    param_.solver.eigmin = param_.solver.eigmax = 1.0;
    solver_chebyshev_iod(param_, big, m, many, b, log_);
    EXPECT_THAT(log_.text(), HasSubstr("solutions   : 1.00\n"));
    EXPECT_THAT(many, testing::Each(1.0));
}

TEST_F(SolverChebyshevIod, LeavesTheRightHandSide) {
    dense_system system = prepare(test::random_definite(20, generator_, 1.0));
    std::vector<double> x(20, 0.5);
    solve(system, x);
    EXPECT_EQ(b_, system.b);
}

TEST_F(SolverChebyshevIod, WritesItsReportToTheOutputDirectory) {
    std::filesystem::create_directory("out");
    dense_system system = prepare(test::random_definite(5, generator_, 1.0));
    param_.outputdir = "out";
    std::vector<double> x(5, 0.0);
    solve(system, x);
    EXPECT_TRUE(place_.directory.exists("out/convergence_cheb.dat"));
    EXPECT_TRUE(place_.directory.exists("out/cvg_graph.g"));
    EXPECT_FALSE(place_.directory.exists("convergence_cheb.dat"));
}

// ---- its end
// -----------------------------------------------------------------------------------------------------

TEST_F(SolverChebyshevIod, RefusesBoundsThatAreNone) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const auto& [eigmin, eigmax] : {std::pair(0.0, 1.0), std::pair(-1.0, 1.0), std::pair(1.0, 0.5),
                                         std::pair(nan, 1.0), std::pair(0.1, nan), std::pair(0.1, infinity),
                                         std::pair(-infinity, 1.0), std::pair(infinity, infinity)}) {
        param_ = test::model_of(2);
        param_.solver.eigmin = eigmin;
        param_.solver.eigmax = eigmax;
        dense_system system = small_system();
        std::vector<double> x(2, 0.0);
        EXPECT_THAT(
            fatal_text([&] { solve(system, x); }),
            StartsWith(
                "The large and small eigenvalues of the Chebyshev iteration must be positive, the larger "
                "one first: "));
        EXPECT_FALSE(system.saved);
        EXPECT_FALSE(place_.directory.exists("convergence_cheb.dat"));
    }
    param_.solver.eigmin = 2.0;
    param_.solver.eigmax = 0.25;
    dense_system system = small_system();
    std::vector<double> x(2, 0.0);
    EXPECT_THAT(fatal_text([&] { solve(system, x); }), testing::EndsWith("first: 0.25000000 and 2.0000000"));
}

TEST_F(SolverChebyshevIod, EndsWhereItDiverges) {
    dense_system system = prepare(test::random_definite(30, generator_, 1.0));
    param_.solver.eigmax *= 0.2;
    param_.solver.maxiter = 30000;
    param_.solver.nwritetmpsol = 1;
    std::vector<double> x(30, 0.0);
    const solver_result result = solve(system, x);
    EXPECT_LT(result.counter, 3000);
    EXPECT_THAT(log_.text(), HasSubstr(not_finite));
    EXPECT_TRUE(std::ranges::all_of(x, [](double value) { return std::isfinite(value); }) == result.finite);
}

TEST_F(SolverChebyshevIod, EndsOnValuesThatAreNotFinite) {
    dense_system system = prepare(test::random_definite(10, generator_, 1.0));
    system.on_product = [&](int product) {
        if (product == 3) system.c(2, 2) = std::numeric_limits<double>::quiet_NaN();
    };
    std::vector<double> x(10, 0.0);
    param_.solver.nwritetmpsol = 1;
    EXPECT_EQ(solve(system, x).counter, 5);
    EXPECT_THAT(log_.text(), HasSubstr(not_finite));

    dense_system bad = prepare(test::random_definite(10, generator_, 1.0));
    bad.b[3] = std::numeric_limits<double>::infinity();
    EXPECT_EQ(solve(bad, x).counter, 2);
}

TEST_F(SolverChebyshevIod, MakesNoUpdateOfASolvedSystem) {
    dense_system system = prepare(test::second_differences(4));
    system.b = {0.0, 0.0, 0.0, 5.0};
    std::vector<double> x = {1.0, 2.0, 3.0, 4.0};
    EXPECT_EQ(solve(system, x).counter, 2);  // no least number of iterations here
    EXPECT_THAT(x, ElementsAre(1.0, 2.0, 3.0, 4.0));
    EXPECT_EQ(rows().size(), 1u);
    EXPECT_THAT(log_.text(), HasSubstr("All iterations (1) "));

    system.b = {0.0, 0.0, 0.0, 0.0};
    x.assign(4, 0.0);
    EXPECT_EQ(solve(system, x).counter, 2);
    EXPECT_THAT(x, testing::Each(0.0));
}

TEST_F(SolverChebyshevIod, GoesOnWhileTheResidualExceedsTheThreshold) {
    param_ = test::model_of(2);
    param_.solver.eigmin = 0.5;
    param_.solver.eigmax = 1.5;
    param_.solver.convcrit = 0.25;  // as it is after the first update
    dense_system system = small_system();
    std::vector<double> x(2, 0.0);
    EXPECT_EQ(solve(system, x).counter, 3);
    param_.solver.convcrit = 0.2499;
    x.assign(2, 0.0);
    EXPECT_EQ(solve(system, x).counter, 4);
}

TEST_F(SolverChebyshevIod, HeedsTheFilesOfControl) {
    dense_system system = prepare(test::second_differences(50));
    param_.solver.convcrit = 1e-20;
    std::vector<double> x(50, 0.0);
    place_.directory.write("STOP", "");
    EXPECT_EQ(solve(system, x).counter, 2);
    EXPECT_FALSE(place_.directory.exists("STOP"));
    EXPECT_EQ(system.products, 0);

    system.on_product = [&](int product) {
        if (product == 5) place_.directory.write("STOP", "");
    };
    EXPECT_EQ(solve(system, x).counter, 7);

    place_.directory.write("ca452cnv.dat", "9");
    EXPECT_EQ(solve(system, x).counter, 10);
    place_.directory.write("ca452cnv.dat", "0");
    EXPECT_EQ(fatal_text([&] { solve(system, x); }), "Illegal value for max. iterations encountered: 0");
}

TEST_F(SolverChebyshevIod, SavesTemporarySolutions) {
    dense_system system = prepare(test::second_differences(40));
    param_.solver.convcrit = 1e-20;
    param_.solver.nwritetmpsol = 4;
    param_.solver.maxiter = 9;
    param_.solver.statprevioussol = true;
    std::vector<double> x(40, 0.0);
    solve(system, x);
    EXPECT_EQ(place_.directory.read("ca491pcn.bin").size(), 40 * sizeof(double));
    EXPECT_THAT(place_.directory.read("stats_previous_sol.dat"), StartsWith("Iteration 8 = "));
}

}  // namespace
}  // namespace zendar
