#include <gmock/gmock.h>
#include <omp.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <numeric>

#include "magnitude.hpp"
#include "modbasic.hpp"
#include "modsolveriod.hpp"
#include "modsolveriod_test_support.hpp"
#include "modsolvertype_control.hpp"
#include "modstop.hpp"

namespace zendar {
namespace {

using test::dense_system;
using test::jacobi;
using test::lines_of;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* not_finite = "WARN: The iteration ended on a value that is not finite\n";

bool all_finite(const std::vector<double>& v) {
    return std::ranges::all_of(v, [](double value) { return std::isfinite(value); });
}

class SolverPcgIod : public testing::Test {
  protected:
    ~SolverPcgIod() override { reset_stop(); }

    /// Solves from `x` with the diagonal of C as preconditioner.
    solver_result solve(dense_system& system, std::vector<double>& x,
                        const std::vector<equation_range>& groups = {}) {
        jacobi m(system.c);
        param_.neq = static_cast<std::int32_t>(system.size());
        return solver_pcg_iod(param_, system, m, x, groups, {}, log_);
    }
    dense_system random_system(std::int32_t n, double shift = 1.0) {
        param_ = test::model_of(n);
        return {test::random_definite(n, generator_, shift), test::random_vector(n, generator_)};
    }
    /// Converges slowly, so that many iterations can be watched.
    dense_system slow_system(std::int32_t n) {
        param_ = test::model_of(n);
        param_.solver.convcrit = 1e-30;
        return {test::second_differences(n), test::random_vector(n, generator_)};
    }
    std::vector<std::vector<std::string>> table(const std::string& file = "convergence.dat") {
        std::vector<std::vector<std::string>> rows;
        for (const std::string& line : lines_of(place_.directory.read(file))) {
            std::istringstream words(line);
            rows.emplace_back();
            for (std::string word; words >> word;) rows.back().push_back(word);
        }
        return rows;
    }
    double number(const std::vector<std::string>& row, std::size_t field) {
        return std::stod(row.at(field - 1));
    }
    /// The numbers behind the last occurrence of a text in the log.
    std::vector<double> logged(const std::string& text) {
        const std::string all = log_.text();
        const std::size_t at = all.rfind(text);
        if (at == std::string::npos) return {};
        std::istringstream words(all.substr(at + text.size(), all.find('\n', at) - at - text.size()));
        std::vector<double> numbers;
        for (std::string word; words >> word;)
            if (word != ",") numbers.push_back(std::stod(word));
        return numbers;
    }
    std::vector<double> read_doubles(const std::string& file) {
        const std::string bytes = place_.directory.read(file);
        std::vector<double> values(bytes.size() / sizeof(double));
        std::memcpy(values.data(), bytes.data(), values.size() * sizeof(double));
        return values;
    }

    test::solver_place place_;
    test::captured_log log_;
    param_type param_;
    std::mt19937 generator_{20261121};
};

// ---- solutions
// ------------------------------------------------------------------------------------------------

TEST_F(SolverPcgIod, SolvesRandomSystemsWithEachCriterion) {
    const std::string types[] = {"cr", "cd", "ck", "cm", "cc"};
    for (int k = 0; k < 50; ++k) {
        const std::int32_t n = 10 + 3 * k;
        dense_system system = random_system(n);
        param_.solver.convtype = types[k % 5];
        param_.solver.convcrit = k % 5 < 2 ? 1e-24 : 1e-7;
        param_.solver.eigmin = 1e-4;
        param_.solver.condnumber = 1e3;
        std::vector<double> x(n, 0.0);

        const solver_result result = solve(system, x, {{1, n / 2}, {2, n}});

        SCOPED_TRACE("system " + std::to_string(k) + ", " + param_.solver.convtype);
        EXPECT_TRUE(result.finite);
        EXPECT_LT(result.counter, 2000);
        const std::vector<double> expected = test::dense_solve(system.c, system.b);
        for (std::int32_t i = 0; i < n; ++i)
            EXPECT_NEAR(x[i], expected[i], 1e-7 * (1.0 + std::fabs(expected[i])));
    }
}

TEST_F(SolverPcgIod, SolvesSingularConsistentSystems) {
    for (int k = 0; k < 10; ++k) {
        // Two classifications and a mean: two dependencies.
        const std::int32_t a = 4 + k, b = 7, n = 1 + a + b;
        param_ = test::model_of(n);
        param_.solver.convcrit = 1e-24;
        matrix<double> c(n, n);
        std::vector<double> rhs(n, 0.0);
        const std::vector<double> y = test::random_vector(5 * n, generator_);
        for (const double value : y) {
            const std::int32_t row[] = {0, 1 + static_cast<std::int32_t>(generator_() % a),
                                        1 + a + static_cast<std::int32_t>(generator_() % b)};
            for (const std::int32_t i : row) {
                rhs[i] += value;
                for (const std::int32_t j : row) c(i, j) += 1.0;
            }
        }
        dense_system system(c, rhs);
        std::vector<double> x(n, 0.0);

        const solver_result result = solve(system, x);

        EXPECT_TRUE(result.finite);
        EXPECT_LT(system.relative_residual(x), 1e-11);
    }
}

TEST_F(SolverPcgIod, StartsFromTheGivenSolutions) {
    dense_system system = random_system(40);
    param_.solver.miniter = 1;
    std::vector<double> x = test::dense_solve(system.c, system.b);
    for (double& value : x) value *= 1.0 + 1e-3;

    solve(system, x);

    const auto rows = table();
    EXPECT_NEAR(number(rows.at(1), 8), 1e-6, 1e-8);  // (C 0.001 C^-1 b)^2 / b^2
    EXPECT_LT(system.relative_residual(x), 1.1e-6);
}

TEST_F(SolverPcgIod, GivesTheSameForAnyNumberOfThreads) {
    dense_system system = random_system(1500, 20.0);
    param_.solver.convcrit = 1e-16;
    const int before = omp_get_max_threads();
    std::vector<double> reference;
    for (const int threads : {1, 2, 3, 5, 8}) {
        omp_set_num_threads(threads);
        std::vector<double> x(1500, 0.0);
        solve(system, x, {{1, 700}, {500, 1500}});
        if (threads == 1) reference = x;
        for (std::size_t i = 0; i < x.size(); ++i) ASSERT_NEAR(x[i], reference[i], 1e-10) << threads;
    }
    omp_set_num_threads(before);
}

// ---- convergence.dat
// ------------------------------------------------------------------------------------------

/// The iteration as plain loops over dense arrays; the rows of "convergence.dat" as numbers.
std::vector<std::vector<double>> reference_rows(const dense_system& system,
                                                const std::vector<equation_range>& groups, std::int32_t last,
                                                bool bounds, double eigmin, double condnumber) {
    const std::size_t n = system.b.size();
    const jacobi m(system.c);
    std::vector<double> x(n, 0.0), r = system.b, p(n, 0.0), z(n), w(n);
    const auto dot = [&](const std::vector<double>& u, const std::vector<double>& v, std::size_t from,
                         std::size_t end) {
        double sum = 0.0;
        for (std::size_t i = from; i < end; ++i) sum += u[i] * v[i];
        return sum;
    };
    const double bb = dot(system.b, system.b, 0, n);
    double minvb = 0.0;
    for (std::size_t i = 0; i < n; ++i) minvb += m.inverse[i] * system.b[i] * m.inverse[i] * system.b[i];
    minvb = std::sqrt(minvb);

    std::vector<std::vector<double>> rows = {{1.0, 0.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 0.0}};
    for (std::size_t g = 0; g < groups.size(); ++g) rows[0].push_back(1.0);
    for (std::size_t g = 0; g < groups.size(); ++g) rows[0].push_back(1.0);
    double tau_old = 1.0;
    for (std::int32_t i = 2; i <= last; ++i) {
        for (std::size_t k = 0; k < n; ++k) z[k] = m.inverse[k] * r[k];
        const double tau = dot(z, r, 0, n), zz = dot(z, z, 0, n);
        for (std::size_t k = 0; k < n; ++k) p[k] = z[k] + tau / tau_old * p[k];
        tau_old = tau;
        for (std::size_t k = 0; k < n; ++k) {
            w[k] = 0.0;
            for (std::size_t j = 0; j < n; ++j) w[k] += system.c(k, j) * p[j];
        }
        const double alpha = tau / dot(p, w, 0, n);
        double maxdiff = 0.0, dd = 0.0;
        for (std::size_t k = 0; k < n; ++k) {
            x[k] += alpha * p[k];
            r[k] -= alpha * w[k];
            maxdiff = std::max(maxdiff, test::magnitude(alpha * p[k]));
            dd += alpha * p[k] * alpha * p[k];
        }
        const double xx = dot(x, x, 0, n);
        const double ck = std::sqrt(zz) / std::sqrt(xx), cm = std::sqrt(zz) / minvb;
        std::vector<double> row = {static_cast<double>(i),
                                   tau,
                                   dot(r, r, 0, n) / bb,
                                   dd / xx,
                                   bounds ? ck / eigmin : ck,
                                   ck,
                                   bounds ? cm * condnumber : cm,
                                   cm,
                                   maxdiff};
        if (i == 2) row[4] = row[5] = row[6] = row[7] = 1.0;
        for (const auto& [first, end] : groups)
            row.push_back(dot(r, r, first - 1, end) / dot(system.b, system.b, first - 1, end));
        for (std::size_t g = 0; g < groups.size(); ++g) {
            double sum = 0.0;
            for (std::int64_t k = groups[g].first; k <= groups[g].last; ++k) {
                bool earlier = false;
                for (std::size_t h = 0; h < g; ++h)
                    earlier = earlier || (groups[h].first <= k && k <= groups[h].last);
                if (!earlier) sum += alpha * p[k - 1] * alpha * p[k - 1];
            }
            row.push_back(sum / dot(x, x, groups[g].first - 1, groups[g].last));
        }
        rows.push_back(row);
    }
    return rows;
}

TEST_F(SolverPcgIod, WritesARowOfEachIteration) {
    const std::vector<std::vector<equation_range>> group_sets = {
        {}, {{5, 5}}, {{1, 12}, {13, 30}}, {{10, 20}, {5, 25}, {12, 14}, {24, 30}}};
    for (const std::string type : {"cr", "cd", "ck", "cc"})
        for (const auto& groups : group_sets) {
            dense_system system = random_system(30);
            param_.solver.convtype = type;
            param_.solver.maxiter = 12;
            param_.solver.convcrit = 0.0;
            param_.solver.eigmin = 0.5;
            param_.solver.condnumber = 4.0;
            std::vector<double> x(30, 0.0);

            solve(system, x, groups);

            const auto expected = reference_rows(system, groups, 12, type == "ck" || type == "cc", 0.5,
                                                 type == "ck" ? 1.0 : 4.0);
            const auto lines = lines_of(place_.directory.read("convergence.dat"));
            const auto rows = table();
            ASSERT_EQ(lines.size(), 1 + expected.size());
            EXPECT_EQ(lines[0], convergence_header(groups.size()));
            for (std::size_t k = 0; k < expected.size(); ++k) {
                const auto& row = rows[k + 1];
                ASSERT_EQ(row.size(), 14 + 2 * groups.size());
                EXPECT_EQ(lines[k + 1].size(), 53 + 13 * (7 + 2 * groups.size()));
                EXPECT_EQ(row[0], "Iteration");
                EXPECT_EQ(row[1], std::to_string(k + 1));
                EXPECT_NEAR(number(row, 5), expected[k][1], 6e-5 * std::fabs(expected[k][1]));
                for (std::size_t field = 8; field <= row.size(); ++field)
                    EXPECT_NEAR(number(row, field), expected[k][field - 6],
                                6e-5 * std::fabs(expected[k][field - 6]))
                        << type << ", iteration " << k + 1 << ", field " << field;
            }
        }
}

TEST_F(SolverPcgIod, ShowsTheRowsWhileItRuns) {
    dense_system system = random_system(30);
    std::vector<double> x(30, 0.0);
    system.on_product = [&](int product) {
        EXPECT_EQ(lines_of(place_.directory.read("convergence.dat")).size(), 1 + product);
    };
    solve(system, x);
    EXPECT_GT(system.products, 4);
}

TEST_F(SolverPcgIod, WritesItsReportsToTheOutputDirectory) {
    std::filesystem::create_directory("out");
    dense_system system = random_system(20);
    param_.outputdir = "out";
    param_.computeeigen = 1;
    std::vector<double> x(20, 0.0);

    solve(system, x);

    for (const char* name : {"convergence.dat", "ritzvalue.dat", "cvg_graph.g"}) {
        EXPECT_TRUE(place_.directory.exists("out/" + std::string(name))) << name;
        EXPECT_FALSE(place_.directory.exists(name)) << name;
    }
}

// ---- log
// ------------------------------------------------------------------------------------------------------

TEST_F(SolverPcgIod, TellsWhatItDoes) {
    dense_system system = random_system(30);
    param_.solver.maxiter = 3;
    std::vector<double> x(30, 0.0);

    solve(system, x, {{1, 10}, {4, 30}});

    std::vector<std::string> lines = lines_of(log_.text());
    ASSERT_EQ(lines.size(), 21u);
    const double bb = std::inner_product(system.b.begin(), system.b.end(), system.b.begin(), 0.0);
    const auto cr = [&](std::size_t row) { return realtochar(number(table().at(row), 8), "(e10.4)"); };
    const auto tau = [&](std::size_t row) { return realtochar(number(table().at(row), 5), "(e10.4)"); };
    EXPECT_EQ(lines[0], "Memory (MB) needed for r,p,z,w  : .00");
    EXPECT_EQ(lines[1], "Memory (MB) needed for tmp array: 2.00");
    EXPECT_EQ(lines[2], "Convergence criteria will be computed for eq. 1 to 10");
    EXPECT_EQ(lines[3], "Convergence criteria will be computed for eq. 4 to 30");
    EXPECT_EQ(lines[4], "");
    EXPECT_THAT(lines[5], testing::MatchesRegex("Start the PCG  \\(compiled on .* at ..:..:..\\)"));
    EXPECT_EQ(lines[6], "Start the computation of the residual vector...");
    EXPECT_THAT(lines[7], testing::MatchesRegex("Residual vector computed  - Wall clock time \\(s\\): .*"));
    EXPECT_EQ(lines[8], "");
    EXPECT_EQ(lines[9], "Norm of RHS         : " + realtochar(bb, "(e12.5)"));
    EXPECT_THAT(lines[10], StartsWith("Norm of M-1 * RHS   : 0."));
    EXPECT_EQ(lines[11], "");
    EXPECT_THAT(lines[12], StartsWith("Iterative process starts on "));
    EXPECT_EQ(lines[13], "Iteration 1 tau = 0.0000E+00 Convergence = 0.1000E+01 Clock time (s)= .000");
    EXPECT_THAT(lines[14],
                StartsWith("Iteration 2 tau = " + tau(2) + " Convergence = " + cr(2) + " Clock time (s)= "));
    EXPECT_THAT(lines[15],
                StartsWith("Iteration 3 tau = " + tau(3) + " Convergence = " + cr(3) + " Clock time (s)= "));
    EXPECT_THAT(lines[16], StartsWith("All iterations (3)  - Wall clock time (s): "));
    EXPECT_THAT(lines[17], StartsWith("Computation of condition number "));
    EXPECT_THAT(lines[18], StartsWith("Min|max eigenvalue       : "));
    EXPECT_THAT(lines[19], StartsWith("Spectral condition number: "));
    EXPECT_THAT(lines[20],
                testing::MatchesRegex("Relative error in the computed solution <= min\\(\\S+ , \\S+\\)"));
}

TEST_F(SolverPcgIod, RefusesAnUnknownCriterion) {
    dense_system system = random_system(5);
    param_.solver.convtype = "cx";
    std::vector<double> x(5, 0.0);
    EXPECT_EQ(test::fatal_text([&] { solve(system, x); }),
              "This type of convergence criterion \"cx\" is not implemented");
    EXPECT_THAT(log_.text(), HasSubstr("modsolveriod % solver_pcg_iod ("));
    EXPECT_FALSE(place_.directory.exists("convergence.dat"));
}

TEST_F(SolverPcgIod, RefusesGroupsBehindTheEquations) {
    dense_system system = random_system(5);
    std::vector<double> x(5, 0.0);
    EXPECT_EQ(test::fatal_text([&] {
                  solve(system, x, {{2, 6}});
              }),
              "Convergence criteria cannot be computed for eq. 2 to 6: the equations are 1 to 5!");
}

// ---- limits
// ---------------------------------------------------------------------------------------------------

TEST_F(SolverPcgIod, MakesNoUpdateWithALimitOfOne) {
    dense_system system = random_system(10);
    param_.solver.maxiter = 1;
    std::vector<double> x(10, 0.5);

    const solver_result result = solve(system, x);

    EXPECT_EQ(result.counter, 2);
    EXPECT_EQ(system.products, 0);
    EXPECT_THAT(x, testing::Each(0.5));
    EXPECT_EQ(table().size(), 2u);
    EXPECT_THAT(log_.text(), HasSubstr("All iterations (1) "));
    EXPECT_THAT(log_.text(), Not(HasSubstr("Min|max")));
}

TEST_F(SolverPcgIod, MakesNoUpdateWithAFileStop) {
    dense_system system = random_system(10);
    place_.directory.write("STOP", "");
    std::vector<double> x(10, 0.0);

    const solver_result result = solve(system, x);

    EXPECT_EQ(result.counter, 2);
    EXPECT_TRUE(result.finite);
    EXPECT_EQ(system.products, 0);
    EXPECT_FALSE(place_.directory.exists("STOP"));
    EXPECT_EQ(table().size(), 2u);
    EXPECT_EQ(param_.solver.maxiter, 5000);
}

TEST_F(SolverPcgIod, EndsAfterTheIterationInWhichStopIsFound) {
    dense_system system = slow_system(200);
    system.on_product = [&](int product) {
        if (product == 7) place_.directory.write("STOP", "");
    };
    std::vector<double> x(200, 0.0);

    EXPECT_EQ(solve(system, x).counter, 9);
    EXPECT_EQ(table().size(), 9u);
    EXPECT_THAT(log_.text(), HasSubstr("All iterations (8) "));
}

TEST_F(SolverPcgIod, EndsAfterTheIterationOfASignal) {
    for (const int signal : {SIGINT, SIGTERM}) {
        dense_system system = slow_system(200);
        install_stop_handlers();
        system.on_product = [&](int product) {
            if (product == 7) std::raise(signal);
        };
        std::vector<double> x(200, 0.0);

        const solver_result result = solve(system, x);

        EXPECT_EQ(result.counter, 9);
        EXPECT_TRUE(result.finite);
        EXPECT_THAT(log_.text(),
                    HasSubstr(std::string("WARN: The signal ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") +
                              " was received! The PCG will be stopped after the current iteration!\n"));
        reset_stop();
    }
}

TEST_F(SolverPcgIod, FollowsTheIterationFile) {
    dense_system system = slow_system(300);
    param_.solver.maxiter = 60;
    system.on_product = [&](int product) {
        if (product == 3) place_.directory.write("ca452cnv.dat", "20");
        if (product == 10) place_.directory.write("ca452cnv.dat", "nonsense");
        if (product == 15) place_.directory.write("ca452cnv.dat", "100000");
        if (product == 40) place_.directory.write("ca452cnv.dat", "-3");
    };
    std::vector<double> x(300, 0.0);

    EXPECT_EQ(solve(system, x).counter, 42);  // the 40th update is iteration 41
    EXPECT_THAT(log_.text(),
                HasSubstr("Current number of iterations is 20\nNew     number of iterations is 60\n"));
}

TEST_F(SolverPcgIod, StopsOnALimitOfZeroInTheIterationFile) {
    dense_system system = slow_system(50);
    place_.directory.write("ca452cnv.dat", "0");
    std::vector<double> x(50, 0.0);
    EXPECT_EQ(test::fatal_text([&] { solve(system, x); }),
              "Illegal value for max. iterations encountered: 0");
}

TEST_F(SolverPcgIod, GoesOnToTheLeastNumberOfIterations) {
    for (const auto& [miniter, counter] :
         {std::pair(9, 10), std::pair(2, 3), std::pair(1, 2), std::pair(0, 5), std::pair(-7, 5)}) {
        dense_system system = slow_system(50);
        param_.solver.convcrit = 1e10;  // satisfied at once
        param_.solver.miniter = miniter;
        std::vector<double> x(50, 0.0);
        EXPECT_EQ(solve(system, x).counter, counter) << miniter;
    }
}

TEST_F(SolverPcgIod, CountsACriterionEqualToTheThresholdAsConverged) {
    dense_system system = slow_system(50);
    param_.solver.convcrit = 1.0;  // CR of the start
    param_.solver.miniter = 1;
    std::vector<double> x(50, 0.0);
    EXPECT_EQ(solve(system, x).counter, 2);
}

// ---- residual
// -------------------------------------------------------------------------------------------------

TEST_F(SolverPcgIod, ComputesTheResidualAnewEach50thIteration) {
    dense_system system = slow_system(300);
    param_.solver.maxiter = 110;
    const double bb = std::inner_product(system.b.begin(), system.b.end(), system.b.begin(), 0.0);
    std::vector<int> products;
    system.on_refresh = [&](std::span<double> r) {
        products.push_back(system.products);
        if (products.size() == 2) std::ranges::fill(r, 0.5);
    };
    std::vector<double> x(300, 0.0);

    solve(system, x);

    EXPECT_THAT(products, testing::ElementsAre(49, 99));
    EXPECT_NEAR(number(table().at(100), 8), 300 * 0.25 / bb, 1e-4);
}

TEST_F(SolverPcgIod, KeepsTheRecursiveResidualNearTheTrueOne) {
    dense_system system = slow_system(300);
    param_.solver.maxiter = 120;
    std::vector<double> x(300, 0.0);
    solve(system, x);
    EXPECT_NEAR(number(table().back(), 8), std::pow(system.relative_residual(x), 2),
                1e-4 * number(table().back(), 8));
}

// ---- values that are not finite
// -------------------------------------------------------------------------------

TEST_F(SolverPcgIod, EndsAfterTheLeastIterationsWithoutARightHandSide) {
    dense_system system = random_system(10);
    std::ranges::fill(system.b, 0.0);
    param_.solver.nwritetmpsol = 1;
    place_.directory.write("ca491pcn.bin", "what was there");
    std::vector<double> x(10, 0.0);

    const solver_result result = solve(system, x);

    EXPECT_EQ(result.counter, 5);
    EXPECT_FALSE(result.finite);
    EXPECT_THAT(log_.text(), HasSubstr("Convergence = NaN"));
    EXPECT_THAT(log_.text(), HasSubstr("Min|max eigenvalue       : NaN NaN\n"));
    EXPECT_EQ(place_.directory.read("ca491pcn.bin"), "what was there");
    const std::string all = log_.text();
    EXPECT_EQ(all.find(not_finite), all.rfind(not_finite));
    EXPECT_LT(all.find("All iterations (4) "), all.find(not_finite));
    EXPECT_NE(all.find(not_finite), std::string::npos);
}

TEST_F(SolverPcgIod, SpoilsAStartThatSolvesTheSystem) {
    param_ = test::model_of(4);
    param_.solver.nwritetmpsol = 1;
    matrix<double> c(4, 4);
    for (std::int64_t i = 0; i < 4; ++i) c(i, i) = 2.0;
    dense_system system(c, {2.0, 4.0, 6.0, 8.0});
    std::vector<double> x = {1.0, 2.0, 3.0, 4.0};

    const solver_result result = solve(system, x);

    EXPECT_EQ(number(table().at(1), 8), 0.0);
    EXPECT_EQ(result.counter, 5);
    EXPECT_FALSE(result.finite);
    EXPECT_FALSE(place_.directory.exists("ca491pcn.bin"));
    EXPECT_THAT(log_.text(), HasSubstr(not_finite));
}

TEST_F(SolverPcgIod, KeepsTheLastTemporarySolutionsThatWereFinite) {
    dense_system system = slow_system(60);
    param_.solver.nwritetmpsol = 1;
    system.on_product = [&](int product) {
        if (product == 6) system.c(3, 3) = std::numeric_limits<double>::quiet_NaN();
    };
    std::vector<double> x(60, 0.0);

    const solver_result result = solve(system, x);

    EXPECT_FALSE(result.finite);
    EXPECT_EQ(result.counter, 8);  // CR of the 6th update, in iteration 7, is no number
    const auto saved = read_doubles("ca491pcn.bin");
    ASSERT_EQ(saved.size(), 60u);
    EXPECT_TRUE(all_finite(saved));
    EXPECT_THAT(log_.text(), HasSubstr(not_finite));
}

TEST_F(SolverPcgIod, SaysNothingOfFiniteValues) {
    dense_system system = random_system(20);
    std::vector<double> x(20, 0.0);
    EXPECT_TRUE(solve(system, x).finite);
    EXPECT_THAT(log_.text(), Not(HasSubstr("not finite")));
}

// ---- eigenvalues
// ----------------------------------------------------------------------------------------------

TEST_F(SolverPcgIod, EstimatesTheEigenvaluesOfThePreconditionedMatrix) {
    dense_system system = random_system(60);
    param_.solver.convcrit = 1e-26;
    std::vector<double> x(60, 0.0);

    solve(system, x);

    const std::vector<double> expected = test::jacobi_eigenvalues(system.c);
    const auto extremes = logged("Min|max eigenvalue       : ");
    ASSERT_EQ(extremes.size(), 2u);
    EXPECT_NEAR(extremes[0], expected.front(), 1e-5 * expected.front());
    EXPECT_NEAR(extremes[1], expected.back(), 1e-5 * expected.back());
    EXPECT_NEAR(logged("Spectral condition number: ").at(0), extremes[1] / extremes[0],
                1e-7 * extremes[1] / extremes[0]);
    const auto bounds = logged("Relative error in the computed solution <= min(");
    ASSERT_EQ(bounds.size(), 2u);
    const auto last = table().back();
    EXPECT_NEAR(bounds[0], number(last, 11) / extremes[0], 1e-3 * bounds[0]);
    EXPECT_NEAR(bounds[1], number(last, 13) * extremes[1] / extremes[0], 1e-3 * bounds[1]);
}

TEST_F(SolverPcgIod, GivesTheSameErrorBoundsWithEachCriterion) {
    std::vector<std::vector<double>> bounds;
    for (const std::string type : {"cr", "ck", "cm", "cc"}) {
        generator_.seed(3);
        dense_system system = random_system(30);
        param_.solver.convtype = type;
        param_.solver.maxiter = 12;
        param_.solver.convcrit = 0.0;
        param_.solver.eigmin = 0.125;
        param_.solver.condnumber = 77.0;
        std::vector<double> x(30, 0.0);
        solve(system, x);
        bounds.push_back(logged("Relative error in the computed solution <= min("));
        ASSERT_EQ(bounds.back().size(), 2u);
        EXPECT_NEAR(bounds.back()[0], bounds[0][0], 1e-4 * bounds[0][0]);
        EXPECT_NEAR(bounds.back()[1], bounds[0][1], 1e-4 * bounds[0][1]);
    }
}

TEST_F(SolverPcgIod, UpdatesTheEigenvaluesOfTheBounds) {
    dense_system system = slow_system(400);
    param_.solver.convtype = "cc";
    param_.solver.eigmin = 0.3;
    param_.solver.condnumber = 2.0;
    param_.solver.maxiter = 260;
    std::vector<double> x(400, 0.0);

    solve(system, x);

    std::vector<std::size_t> after;  // the lines behind the reports
    const auto lines = lines_of(log_.text());
    for (std::size_t k = 0; k + 1 < lines.size(); ++k)
        if (lines[k].starts_with("    Estimation of min eigenvalue (s): ")) after.push_back(k + 1);
    ASSERT_EQ(after.size(), 2u);
    EXPECT_THAT(lines[after[0]], StartsWith("Iteration 200 "));
    EXPECT_THAT(lines[after[1]], StartsWith("Iteration 250 "));
    const std::vector<double> expected = test::jacobi_eigenvalues(system.c);
    EXPECT_NEAR(param_.solver.eigmax, expected.back(), 1e-2 * expected.back());
    EXPECT_LT(param_.solver.eigmin, 2e-3);
    EXPECT_GT(param_.solver.condnumber, 1000.0);
    const auto row = table().at(200), before = table().at(199);
    EXPECT_NEAR(number(before, 10), number(before, 11) / 0.3, 1e-4 * number(before, 10));
    EXPECT_GT(number(row, 10), 100.0 * number(row, 11));
}

TEST_F(SolverPcgIod, DoesNotUpdateTheEigenvaluesOfOtherCriteria) {
    dense_system system = slow_system(400);
    param_.solver.eigmin = 0.3;
    param_.solver.maxiter = 210;
    std::vector<double> x(400, 0.0);
    solve(system, x);
    EXPECT_THAT(log_.text(), Not(HasSubstr("Estimation of min eigenvalue")));
    EXPECT_EQ(param_.solver.eigmin, 1.0);
    EXPECT_EQ(param_.solver.condnumber, 1.0);
}

TEST_F(SolverPcgIod, ReportsRitzValues) {
    dense_system system = slow_system(400);
    param_.computeeigen = 60;
    param_.solver.maxiter = 200;
    std::vector<double> x(400, 0.0);

    solve(system, x);

    const auto rows = table("ritzvalue.dat");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_THAT(rows[0], testing::ElementsAre("Iteration", "120", "small", "|", "large", "Ritz", "value",
                                              "(+relative", "error)=", testing::_, testing::_, testing::_));
    EXPECT_EQ(rows[1][1], "180");
    const double smallest = number(rows[1], 10);
    EXPECT_GT(smallest, 0.0);
    EXPECT_NEAR(number(rows[1], 11), 2.0, 0.01);
    EXPECT_NEAR(number(rows[1], 12), number(table().at(180), 10) / smallest, 1e-3 * number(rows[1], 12));
}

TEST_F(SolverPcgIod, EstimatesNothingWhenAskedNotTo) {
    dense_system system = slow_system(400);
    param_.computeeigen = 50;
    param_.solver.esteigen = false;
    param_.solver.convtype = "ck";
    param_.solver.eigmin = 0.25;
    param_.solver.maxiter = 210;
    std::vector<double> x(400, 0.0);

    solve(system, x);

    for (const char* text : {"Min|max", "Relative error", "condition number", "Estimation of min"})
        EXPECT_THAT(log_.text(), Not(HasSubstr(text)));
    EXPECT_EQ(place_.directory.read("ritzvalue.dat"), "");
    EXPECT_EQ(param_.solver.eigmin, 0.25);
}

// ---- files of solutions
// ---------------------------------------------------------------------------------------

TEST_F(SolverPcgIod, SavesTemporarySolutions) {
    dense_system system = slow_system(200);
    param_.solver.nwritetmpsol = 20;
    param_.solver.maxiter = 40;
    std::vector<double> x(200, 0.0);
    solve(system, x);
    EXPECT_EQ(read_doubles("ca491pcn.bin"), x);

    param_.solver.maxiter = 39;
    std::vector<double> shorter(200, 0.0);
    solve(system, shorter);
    EXPECT_EQ(read_doubles("ca491pcn.bin").size(), 200u);
    EXPECT_NE(read_doubles("ca491pcn.bin"), shorter);
}

TEST_F(SolverPcgIod, ComparesWithPreviousSolutionsOnceThereMustBeSome) {
    dense_system system = slow_system(200);
    param_.solver.nwritetmpsol = 10;
    param_.solver.statprevioussol = true;
    param_.solver.maxiter = 35;
    std::vector<double> x(200, 0.0);
    solve(system, x, {{1, 50}});

    const auto rows = table("stats_previous_sol.dat");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0][1], "20");
    EXPECT_EQ(rows[1][1], "30");
    EXPECT_EQ(rows[1].size(), 3u + 12u);
}

TEST_F(SolverPcgIod, ComparesAtOnceWithAPeriodOfOneWhenAFileIsThere) {
    dense_system system = slow_system(20);
    param_.solver.nwritetmpsol = 1;
    param_.solver.statprevioussol = true;
    param_.solver.maxiter = 3;
    std::vector<double> x(20, 0.0);
    solve(system, x);
    EXPECT_EQ(table("stats_previous_sol.dat").at(0).at(1), "3");

    std::ranges::fill(x, 0.0);
    solve(system, x);  // the file of the run before
    EXPECT_EQ(table("stats_previous_sol.dat").at(1).at(1), "2");
}

TEST_F(SolverPcgIod, ComparesTheRightHandSides) {
    dense_system system = slow_system(12);
    param_.solver.computefinalrhs = true;
    param_.solver.maxiter = 5;
    std::vector<double> x(12, 0.0);

    solve(system, x);

    std::vector<double> r(12);
    system.residual(x, r);
    double largest = 0.0, sum = 0.0;
    for (std::size_t i = 0; i < 12; ++i) {
        largest = std::max(largest, test::magnitude(r[i]));
        sum += std::fabs(system.b[i]);
    }
    EXPECT_NEAR(logged("Recomputed CR                   : ").at(0), std::pow(system.relative_residual(x), 2),
                1e-5);
    EXPECT_NEAR(logged("Final absolute diff RHS         : ").at(0), largest, 1e-5);
    EXPECT_NEAR(logged("Final relative absolute diff RHS: ").at(0), largest / (sum / 12.0), 1e-4);
    const auto made = table("manufactured_rhs.dat"), real = table("real_rhs.dat");
    ASSERT_EQ(made.size(), 12u);
    ASSERT_EQ(real.size(), 12u);
    for (std::size_t i = 0; i < 12; ++i) {
        EXPECT_NEAR(number(real[i], 5), system.b[i], 1e-6);
        EXPECT_NEAR(number(made[i], 5), system.b[i] - r[i], 1e-5);
    }
    EXPECT_EQ(place_.directory.read("manufactured_rhs.stream").size(), 3u * 4u + 12u * 24u);
}

TEST_F(SolverPcgIod, ComparesNothingWithoutTheSavedRightHandSide) {
    dense_system system = slow_system(12);
    param_.solver.computefinalrhs = true;
    param_.solver.maxiter = 5;
    system.on_product = [&](int) { system.saved.reset(); };
    std::vector<double> x(12, 0.0);

    solve(system, x);

    EXPECT_TRUE(place_.directory.exists("manufactured_rhs.dat"));
    EXPECT_TRUE(place_.directory.exists("manufactured_rhs.stream"));
    EXPECT_FALSE(place_.directory.exists("real_rhs.dat"));
    EXPECT_THAT(log_.text(), Not(HasSubstr("diff RHS")));
}

TEST_F(SolverPcgIod, WritesIntermediateSolutions) {
    dense_system system = slow_system(12);
    param_.solver.peek = true;
    param_.solver.peek_first = 3;
    param_.solver.peek_step = 2;
    param_.solver.maxiter = 6;
    std::vector<double> x(12, 0.0);
    solve(system, x);
    for (const auto& [n, there] :
         {std::pair(2, false), std::pair(3, true), std::pair(4, false), std::pair(5, true)})
        EXPECT_EQ(place_.directory.exists("solutions_" + std::to_string(n) + ".dat"), there) << n;
}

TEST_F(SolverPcgIod, DrawsTheGraphAtTheEnd) {
    place_.show_programs();
    if (std::system("gnuplot --version > /dev/null 2>&1") != 0) GTEST_SKIP() << "gnuplot is not installed";
    dense_system system = random_system(20);
    std::vector<double> x(20, 0.0);
    solve(system, x);
    EXPECT_THAT(place_.directory.read("cvg.png"), StartsWith("\x89PNG\r\n"));
}

}  // namespace
}  // namespace zendar
