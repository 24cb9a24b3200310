#include "modsolver.hpp"

#include <gmock/gmock.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "modsolver_test_support.hpp"

namespace zendar {
namespace {

using test::fatal_text;
using test::lines_of;
using test::relative_residual;
using test::stored;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr const char* not_finite = "WARN: The iteration ended on a value that is not finite\n";

// ---- the operator
// --------------------------------------------------------------------------------------------

template <class Index>
class CrsSystem : public testing::Test {
  protected:
    test::captured_log log_;
    std::mt19937 generator_{20261123};
};
using widths = testing::Types<std::int32_t, std::int64_t>;
TYPED_TEST_SUITE(CrsSystem, widths);

TYPED_TEST(CrsSystem, MultipliesAsTheDenseMatrix) {
    const int before = omp_get_max_threads();
    for (const std::int64_t n : {1, 2, 17, 200}) {
        const matrix<double> c = test::sparse_definite(n, this->generator_);
        const crs_matrix<TypeParam> lhs = stored<TypeParam>(c);
        const std::vector<double> b = test::random_vector(n, this->generator_);
        const std::vector<double> x = test::random_vector(n, this->generator_);
        crs_system<TypeParam> system(lhs, b, this->log_);
        EXPECT_EQ(system.size(), n);
        EXPECT_EQ(system.work_size(), 0);
        for (const int threads : {1, 2, 3, 4}) {
            omp_set_num_threads(threads);
            std::vector<double> y(n, 7.0), rhs(n, 7.0), r(n, 7.0), again(n, 7.0);
            system.atimesx(x, y);
            system.r_equal_b_minus_atimesx(x, rhs, r);
            system.r_equal_savedb_minus_atimesx(x, again);
            EXPECT_EQ(rhs, b);
            for (std::int64_t i = 0; i < n; ++i) {
                double expected = 0.0;
                for (std::int64_t j = 0; j < n; ++j) expected += c(i, j) * x[j];
                ASSERT_NEAR(y[i], expected, 1e-12);
                ASSERT_NEAR(r[i], b[i] - expected, 1e-12);
                ASSERT_NEAR(again[i], b[i] - expected, 1e-12);
            }
        }
        omp_set_num_threads(before);
    }
}

TYPED_TEST(CrsSystem, ReadsTheRightHandSideAgain) {
    const crs_matrix<TypeParam> lhs = stored<TypeParam>(test::second_differences(3));
    const std::vector<double> b = {1.0, 2.0, 3.0};
    crs_system<TypeParam> system(lhs, b, this->log_);
    std::vector<double> copy(3);
    EXPECT_TRUE(system.read_savedb(copy));
    EXPECT_EQ(copy, b);
}

TYPED_TEST(CrsSystem, RefusesOtherMatrices) {
    const crs_matrix<TypeParam> lhs = stored<TypeParam>(test::second_differences(3));
    const std::vector<double> b(4, 1.0);
    const std::string text = "The left-hand side in memory is no sorted upper triangle of 4 equations";
    EXPECT_EQ(fatal_text([&] { crs_system<TypeParam>(lhs, b, this->log_); }), text);
    crs_matrix<TypeParam> full(4, 4, 4, false);
    const std::vector<TypeParam> ia{1, 2, 3, 4, 5}, ja{1, 2, 3, 4};
    full.external(ia, ja, b);
    EXPECT_EQ(fatal_text([&] { crs_system<TypeParam>(full, b, this->log_); }), text);
}

TYPED_TEST(CrsSystem, FindsTheEquationsWithoutCoefficients) {
    matrix<double> c(6, 6);
    c(1, 1) = 2.0;
    c(4, 4) = 1e-300;
    EXPECT_THAT(empty_equations(stored<TypeParam>(c).view()), ElementsAre(1, 3, 4, 6));
    c(0, 5) = c(5, 0) = 1.0;  // reached by an element beside the diagonal only
    EXPECT_THAT(empty_equations(stored<TypeParam>(c).view()), ElementsAre(3, 4));
    EXPECT_THAT(empty_equations(stored<TypeParam>(test::second_differences(5)).view()), IsEmpty());
    EXPECT_THAT(empty_equations(stored<TypeParam>(matrix<double>(1, 1)).view()), ElementsAre(1));
}

// ---- the solvers
// ---------------------------------------------------------------------------------------------

enum class method { pcg, pcg_block, fpcg, fpcg_block, dpcg };
constexpr method methods[] = {method::pcg, method::pcg_block, method::fpcg, method::fpcg_block, method::dpcg};

std::string name_of(method m) {
    switch (m) {
        case method::pcg:
            return "Pcg";
        case method::pcg_block:
            return "PcgBlock";
        case method::fpcg:
            return "Fpcg";
        case method::fpcg_block:
            return "FpcgBlock";
        case method::dpcg:
            return "Dpcg";
    }
    return {};
}

class SolverInmem : public testing::TestWithParam<method> {
  protected:
    /// `parts` stretches of about equal size: blocks, or subdomains.
    static std::vector<std::int64_t> starts(std::int64_t n, std::int64_t parts) {
        std::vector<std::int64_t> first;
        for (std::int64_t k = 0; k <= parts; ++k) first.push_back(n * k / parts + 1);
        return first;
    }
    template <class Index>
    solver_result solve_as(const matrix<double>& c, const std::vector<double>& b, std::vector<double>& x,
                           method m) {
        const std::int64_t n = c.rows();
        const crs_matrix<Index> lhs = stored<Index>(c);
        param_.neq = static_cast<std::int32_t>(n);
        const inmem_arguments in{.param = param_, .b = b, .x = x, .range = range_, .cov = {}, .log = log_};
        const std::vector<std::int64_t> blocks =
            first_.empty() ? starts(n, std::min<std::int64_t>(3, n)) : first_;
        switch (m) {
            case method::pcg:
                return solver_pcg_inmem(lhs, {}, in);
            case method::pcg_block:
                return solver_pcg_inmem(lhs, blocks, in);
            case method::fpcg:
                return solver_fpcg_inmem(lhs, {}, in);
            case method::fpcg_block:
                return solver_fpcg_inmem(lhs, blocks, in);
            case method::dpcg:
                break;
        }
        const std::int64_t nsub = std::min<std::int64_t>(nsub_, n);
        subdomains z{.of = {}, .nsub = static_cast<std::int32_t>(nsub)};
        for (std::int64_t i = 0; i < n; ++i) z.of.push_back(static_cast<std::int32_t>(i * nsub / n) + 1);
        return solver_dpcg_inmem(lhs, z, in);
    }
    solver_result solve(const matrix<double>& c, const std::vector<double>& b, std::vector<double>& x) {
        return wide_ ? solve_as<std::int64_t>(c, b, x, GetParam())
                     : solve_as<std::int32_t>(c, b, x, GetParam());
    }
    /// The model and its limits for n equations.
    void prepare(std::int64_t n, double convcrit = 1e-24) {
        param_ = test::model_of(static_cast<std::int32_t>(n));
        param_.solver.convcrit = convcrit;
    }
    [[nodiscard]] bool flexible() const {
        return GetParam() == method::fpcg || GetParam() == method::fpcg_block;
    }
    [[nodiscard]] bool in_blocks() const {
        return GetParam() == method::pcg_block || GetParam() == method::fpcg_block;
    }
    [[nodiscard]] std::string file() const { return flexible() ? "convergence_fpcg.dat" : "convergence.dat"; }
    std::vector<std::string> rows() { return lines_of(place_.directory.read(file())); }

    test::solver_place place_;
    test::captured_log log_;
    param_type param_;
    std::optional<equation_range> range_;
    std::vector<std::int64_t> first_;
    std::int64_t nsub_ = 3;
    bool wide_ = false;
    std::mt19937 generator_{20261124};
};
INSTANTIATE_TEST_SUITE_P(All, SolverInmem, testing::ValuesIn(methods),
                         [](const auto& m) { return name_of(m.param); });

TEST_P(SolverInmem, SolvesRandomDefiniteSystems) {
    const std::string types[] = {"cr", "cd", "ck", "cm", "cc"};
    for (int k = 0; k < 40; ++k) {
        const std::int64_t n = 1 + 4 * k;
        prepare(n);
        wide_ = k % 2 == 1;
        param_.solver.convtype = types[k % 5];
        if (k % 5 >= 2) param_.solver.convcrit = 1e-9;
        param_.solver.eigmin = 1e-2;
        param_.solver.condnumber = 1e2;
        const matrix<double> c =
            k % 3 == 0 ? test::random_definite(n, generator_, 1.0) : test::sparse_definite(n, generator_);
        const std::vector<double> b = test::random_vector(n, generator_);
        std::vector<double> x(n, 0.0);

        const solver_result result = solve(c, b, x);

        SCOPED_TRACE("system " + std::to_string(k) + ", " + param_.solver.convtype);
        EXPECT_TRUE(result.finite);
        EXPECT_LT(result.counter, 2000);
        const std::vector<double> expected = test::dense_solve(c, b);
        for (std::int64_t i = 0; i < n; ++i)
            EXPECT_NEAR(x[i], expected[i], 1e-7 * (1.0 + std::fabs(expected[i])));
    }
}

TEST_P(SolverInmem, SolvesSingularConsistentSystemsWithEmptyEquations) {
    for (std::int32_t k = 0; k < 10; ++k) {
        const test::classified system = test::classification(4 + k, 7, k % 4, generator_);
        const std::int64_t n = system.c.rows();
        prepare(n);
        wide_ = k % 2 == 1;
        first_ = {1, 2, 6 + k, 13 + k, n + 1};  // the mean, the classifications, and what is empty
        nsub_ = 1;
        std::vector<double> x(n, k % 3 == 0 ? 0.25 : 0.0);

        const solver_result result = solve(system.c, system.b, x);

        EXPECT_TRUE(result.finite);
        EXPECT_LT(relative_residual(system.c, system.b, x), 1e-11) << k;
        for (std::int32_t i = 0; i < k % 4; ++i) EXPECT_EQ(x[n - 1 - i], 0.0);
    }
}

TEST_P(SolverInmem, GivesTheSameForAnyWidthAndNumberOfThreads) {
    prepare(400, 1e-20);
    const matrix<double> c = test::sparse_definite(400, generator_, 6);
    const std::vector<double> b = test::random_vector(400, generator_);
    const int before = omp_get_max_threads();
    std::vector<double> reference;
    for (const int threads : {1, 2, 3, 4})
        for (const bool wide : {false, true}) {
            omp_set_num_threads(threads);
            wide_ = wide;
            std::vector<double> x(400, 0.0);
            solve(c, b, x);
            if (reference.empty()) reference = x;
            for (std::size_t i = 0; i < x.size(); ++i) ASSERT_NEAR(x[i], reference[i], 1e-8) << threads;
        }
    omp_set_num_threads(before);
}

TEST_P(SolverInmem, SolvesOneEquation) {
    prepare(1);
    std::vector<double> x(1, 0.0);
    const solver_result result = solve(matrix<double>(1, 1, 3.0), {1.0}, x);
    EXPECT_TRUE(result.finite);
    EXPECT_DOUBLE_EQ(x[0], 1.0 / 3.0);
}

TEST_P(SolverInmem, EndsWhereNothingIsLeftToMove) {
    // After one update the residual is exactly 0: there is no further direction.
    prepare(3, 1e-30);
    matrix<double> c(3, 3);
    for (std::int64_t i = 0; i < 3; ++i) c(i, i) = 2.0;
    nsub_ = 1;
    std::vector<double> x(3, 0.0);
    const solver_result result = solve(c, {2.0, 4.0, 8.0}, x);
    EXPECT_TRUE(result.finite);
    EXPECT_LE(result.counter, 5);
    EXPECT_THAT(x, testing::Pointwise(testing::DoubleNear(1e-14), {1.0, 2.0, 4.0}));
    EXPECT_THAT(log_.text(), Not(HasSubstr(not_finite)));
}

TEST_P(SolverInmem, KeepsAStartThatSolvesTheSystem) {
    prepare(3);
    matrix<double> c(3, 3);
    for (std::int64_t i = 0; i < 3; ++i) c(i, i) = 2.0;
    std::vector<double> x = {1.0, 2.0, 4.0};
    const solver_result result = solve(c, {2.0, 4.0, 8.0}, x);
    EXPECT_TRUE(result.finite);
    EXPECT_EQ(result.counter, 2);
    EXPECT_THAT(x, ElementsAre(1.0, 2.0, 4.0));
    EXPECT_THAT(log_.text(), HasSubstr("   Starting values were provided for PCG\n"));
    EXPECT_THAT(log_.text(), HasSubstr("All iterations (1) "));
}

TEST_P(SolverInmem, HasSolutionsOfZeroWithoutARightHandSide) {
    prepare(20);
    const matrix<double> c = test::sparse_definite(20, generator_);
    std::vector<double> x(20, 0.0);
    const solver_result result = solve(c, std::vector<double>(20, 0.0), x);
    EXPECT_TRUE(result.finite);
    EXPECT_THAT(x, Each(0.0));
    EXPECT_EQ(rows().size(), 1u);

    x.assign(20, 1.0);
    EXPECT_TRUE(solve(c, std::vector<double>(20, 0.0), x).finite);
    EXPECT_THAT(x, Each(0.0));
}

TEST_P(SolverInmem, IgnoresStartingValuesOfEmptyEquations) {
    prepare(3);
    matrix<double> c(3, 3);
    c(0, 0) = c(2, 2) = 2.0;
    first_ = {1, 4};
    nsub_ = 1;
    std::vector<double> x = {0.0, 9.0, 0.0};
    EXPECT_TRUE(solve(c, {2.0, 0.0, 4.0}, x).finite);
    EXPECT_THAT(x, testing::Pointwise(testing::DoubleNear(1e-14), {1.0, 0.0, 2.0}));
    EXPECT_EQ(x[1], 0.0);
    EXPECT_THAT(log_.text(), Not(HasSubstr("Starting values")));
}

TEST_P(SolverInmem, StartsFromTheGivenSolutions) {
    prepare(60, 1e-16);
    const matrix<double> c = test::sparse_definite(60, generator_);
    const std::vector<double> b = test::random_vector(60, generator_);
    std::vector<double> near = test::dense_solve(c, b), far(60, 0.0);
    for (double& value : near) value *= 1.0 + 1e-6;
    const solver_result from_zero = solve(c, b, far);
    EXPECT_THAT(log_.text(), Not(HasSubstr("Starting values")));
    const solver_result from_near = solve(c, b, near);
    EXPECT_THAT(log_.text(), HasSubstr("   Starting values were provided for PCG\n"));
    EXPECT_LT(from_near.counter, from_zero.counter);
    EXPECT_LT(relative_residual(c, b, near), 1e-7);
}

// ---- what they tell
// --------------------------------------------------------------------------------------------

TEST_P(SolverInmem, TellsItsSteps) {
    prepare(30);
    range_ = equation_range{3, 7};
    const matrix<double> c = test::sparse_definite(30, generator_);
    std::vector<double> x(30, 1.0);
    solve(c, test::random_vector(30, generator_), x);

    const std::string all = log_.text();
    std::size_t at = 0;
    const auto next = [&](const std::string& text) {
        const std::size_t found = all.find(text, at);
        EXPECT_NE(found, std::string::npos) << text << "\n" << all;
        if (found != std::string::npos) at = found + text.size();
    };
    next("  Convergence criteria will be computed for eq. 3 to 7\n");
    if (in_blocks()) {
        next("  A block (per effect)-jacobi preconditioner will be used and solved with PARDISO\n");
    } else {
        next("  Creation of the preconditioner\n");
        next("Creation of a preconditioner of diag. blocks of size 1\n");
    }
    if (GetParam() == method::dpcg) next("inv(ZAZ) computed (and saved to file)\n");
    next(flexible()                   ? "  Start the FLEXIBLE PCG\n"
         : GetParam() == method::dpcg ? "  Start the DPCG\n"
                                      : "  Start the PCG\n");
    next("   Starting values were provided for PCG\n");
    next("  Residual vector computed\n");
    next("Norm of RHS         : ");
    next("Norm of M-1 * RHS   : ");
    next("Iterative process starts on ");
    next("Iteration 1 tau = 0.0000E+00 Convergence = ");
    next("Iteration 2 tau = ");
    next("All iterations (");
    next("Computation of condition number ");
    next("Min|max eigenvalue       : ");
    next("Spectral condition number: ");
    next("Relative error in the computed solution <= min(");
    EXPECT_EQ(all.find("Start the PCG  (compiled"), std::string::npos);
    EXPECT_EQ(all.find("Memory"), std::string::npos);
}

TEST_P(SolverInmem, RefusesARangeBehindTheEquations) {
    prepare(4);
    range_ = equation_range{3, 5};
    std::vector<double> x(4, 0.0);
    EXPECT_EQ(fatal_text([&] {
                  solve(test::second_differences(4), {1.0, 1.0, 1.0, 1.0}, x);
              }),
              "Convergence criteria cannot be computed for eq. 3 to 5: the equations are 1 to 4!");
}

TEST_P(SolverInmem, RefusesAnUnknownCriterion) {
    prepare(4);
    param_.solver.convtype = "xx";
    std::vector<double> x(4, 0.0);
    EXPECT_EQ(fatal_text([&] {
                  solve(test::second_differences(4), {1.0, 1.0, 1.0, 1.0}, x);
              }),
              "This type of convergence criterion \"xx\" is not implemented");
}

TEST_P(SolverInmem, WritesARowOfEachIteration) {
    if (GetParam() == method::dpcg || in_blocks()) GTEST_SKIP();
    // By hand: z = b / 2, tau = 4.5, p'w = 4.5, alpha = 1, r = (0, -1.5).
    prepare(2);
    param_.solver.maxiter = 2;
    matrix<double> c(2, 2, 1.0);
    c(0, 0) = c(1, 1) = 2.0;
    std::vector<double> x(2, 0.0);
    EXPECT_EQ(solve(c, {3.0, 0.0}, x).counter, 3);
    EXPECT_THAT(x, ElementsAre(1.5, 0.0));
    EXPECT_EQ(place_.directory.read(file()),
              "   Iteration      1 tau =  0.00000E+00 Convergence = 0.10000E+01  0.10000E+01  0.10000E+01  "
              "0.10000E+01 \n"
              "   Iteration      2 tau =  0.45000E+01 Convergence =  0.25000E+00  0.10000E+01  0.10000E+01  "
              "0.10000E+01 \n");
    EXPECT_EQ(place_.directory.exists("convergence.dat"), !flexible());
}

TEST_P(SolverInmem, HasTheRatiosInItsRows) {
    if (GetParam() == method::dpcg || in_blocks()) GTEST_SKIP();
    prepare(25, 1e-10);
    const matrix<double> c = test::second_differences(25);
    const std::vector<double> b = test::random_vector(25, generator_);
    std::vector<double> solved(25, 0.0);
    const std::int32_t last = solve(c, b, solved).counter - 1;

    // The iteration as plain loops; beta as usual, as the preconditioner is always the same.
    const auto dot = [](const std::vector<double>& u, const std::vector<double>& v) {
        double sum = 0.0;
        for (std::size_t i = 0; i < u.size(); ++i) sum += u[i] * v[i];
        return sum;
    };
    std::vector<double> x(25, 0.0), r = b, p(25, 0.0), z(25), w(25);
    const double normminvb = std::sqrt(dot(b, b)) / 2.0;
    double tau_old = 1.0;
    ASSERT_EQ(rows().size(), static_cast<std::size_t>(last));
    for (std::int32_t i = 2; i <= last; ++i) {
        for (std::size_t k = 0; k < 25; ++k) z[k] = r[k] / 2.0;
        const double tau = dot(z, r);
        for (std::size_t k = 0; k < 25; ++k) p[k] = z[k] + (i == 2 ? 0.0 : tau / tau_old) * p[k];
        tau_old = tau;
        for (std::size_t k = 0; k < 25; ++k)
            w[k] = 2.0 * p[k] - (k > 0 ? p[k - 1] : 0.0) - (k < 24 ? p[k + 1] : 0.0);
        const double alpha = tau / dot(p, w);
        for (std::size_t k = 0; k < 25; ++k) {
            x[k] += alpha * p[k];
            r[k] -= alpha * w[k];
        }
        const double expected[] = {tau, dot(r, r) / dot(b, b), alpha * alpha * dot(p, p) / dot(x, x),
                                   i == 2 ? 1.0 : std::sqrt(dot(z, z) / dot(x, x)),
                                   i == 2 ? 1.0 : std::sqrt(dot(z, z)) / normminvb};
        std::istringstream words(rows()[static_cast<std::size_t>(i - 1)]);
        std::vector<std::string> word;
        for (std::string one; words >> one;) word.push_back(one);
        ASSERT_EQ(word.size(), 11u);
        const std::size_t field[] = {5, 8, 9, 10, 11};
        for (std::size_t k = 0; k < 5; ++k)
            EXPECT_NEAR(std::stod(word[field[k] - 1]), expected[k], 1e-4 * expected[k] + 1e-11)
                << i << " " << k;
    }
}

TEST_P(SolverInmem, WritesItsReportsToTheOutputDirectory) {
    std::filesystem::create_directory("out");
    prepare(10);
    param_.outputdir = "out";
    param_.solver.printlhs = true;
    std::vector<double> x(10, 0.0);
    solve(test::second_differences(10), std::vector<double>(10, 1.0), x);
    EXPECT_TRUE(place_.directory.exists("out/" + file()));
    EXPECT_FALSE(place_.directory.exists(file()));
    EXPECT_EQ(place_.directory.exists("out/mija_block.dat"), in_blocks());
}

TEST_P(SolverInmem, PrintsItsBlocksOnlyWhenAsked) {
    prepare(10);
    std::vector<double> x(10, 0.0);
    solve(test::second_differences(10), std::vector<double>(10, 1.0), x);
    EXPECT_FALSE(place_.directory.exists("mija_block.dat"));
}

TEST_P(SolverInmem, FactorisesItsBlocksOnce) {
    if (!in_blocks()) GTEST_SKIP();
    prepare(30);
    std::vector<double> x(30, 0.0);
    EXPECT_GT(solve(test::second_differences(30), test::random_vector(30, generator_), x).counter, 4);
    const std::string all = log_.text();
    int found = 0;
    for (std::size_t at = 0; (at = all.find("CHOL FACT. CRS MATRIX", at)) != std::string::npos; ++at) ++found;
    EXPECT_EQ(found, 3);
}

TEST_P(SolverInmem, NeedsOneUpdateWithASingleBlock) {
    if (!in_blocks()) GTEST_SKIP();
    prepare(40, 1e-20);
    param_.solver.miniter = 1;
    first_ = {1, 41};
    const matrix<double> c = test::sparse_definite(40, generator_);
    const std::vector<double> b = test::random_vector(40, generator_);
    std::vector<double> x(40, 0.0);
    EXPECT_EQ(solve(c, b, x).counter, 3);
    EXPECT_LT(relative_residual(c, b, x), 1e-10);
}

// ---- stopping
// ----------------------------------------------------------------------------------------------------

TEST_P(SolverInmem, MakesNoUpdateWithAFileStop) {
    prepare(10);
    place_.directory.write("STOP", "");
    std::vector<double> x(10, 0.0);
    const solver_result result = solve(test::second_differences(10), std::vector<double>(10, 1.0), x);
    EXPECT_EQ(result.counter, 2);
    EXPECT_TRUE(result.finite);
    EXPECT_FALSE(place_.directory.exists("STOP"));
    EXPECT_EQ(rows().size(), 1u);
    EXPECT_THAT(log_.text(), HasSubstr("The PCG will be stopped after the current iteration!\n"));
    EXPECT_THAT(log_.text(), HasSubstr("All iterations (1) "));
    EXPECT_THAT(log_.text(), Not(HasSubstr("Min|max")));
}

TEST_P(SolverInmem, FollowsTheIterationFile) {
    prepare(200, 1e-40);
    place_.directory.write("ca452cnv.dat", "6");
    std::vector<double> x(200, 0.0);
    const std::vector<double> b = test::random_vector(200, generator_);
    EXPECT_EQ(solve(test::second_differences(200), b, x).counter, 7);
    EXPECT_EQ(rows().size(), 6u);
    EXPECT_THAT(log_.text(),
                HasSubstr("Current number of iterations is 5000\nNew     number of iterations is 6\n"));
    place_.directory.write("ca452cnv.dat", "0");
    EXPECT_EQ(fatal_text([&] { solve(test::second_differences(200), b, x); }),
              "Illegal value for max. iterations encountered: 0");
}

TEST_P(SolverInmem, GoesOnToTheLeastNumberOfIterations) {
    for (const auto& [miniter, counter] : {std::pair(9, 10), std::pair(1, 2), std::pair(0, 5)}) {
        prepare(200, 1e10);
        param_.solver.miniter = miniter;
        std::vector<double> x(200, 0.0);
        EXPECT_EQ(solve(test::second_differences(200), test::random_vector(200, generator_), x).counter,
                  counter);
    }
}

TEST_P(SolverInmem, SavesTemporarySolutions) {
    prepare(50, 1e-30);
    param_.solver.nwritetmpsol = 3;
    param_.solver.maxiter = 7;
    param_.solver.statprevioussol = true;
    std::vector<double> x(50, 0.0);
    solve(test::second_differences(50), test::random_vector(50, generator_), x);
    EXPECT_EQ(place_.directory.read("ca491pcn.bin").size(), 50 * sizeof(double));
    EXPECT_THAT(place_.directory.read("stats_previous_sol.dat"), StartsWith("Iteration 6 = "));
}

TEST_P(SolverInmem, ReportsRitzValues) {
    prepare(300, 1e-60);
    param_.computeeigen = 50;
    first_ = starts(300, 100);
    param_.solver.maxiter = 160;
    std::vector<double> x(300, 0.0);
    solve(test::second_differences(300), test::random_vector(300, generator_), x);
    EXPECT_THAT(place_.directory.read("ritzvalue.dat"),
                HasSubstr("   Iteration    100 small | large Ritz value (+relative error)= "));
}

TEST_P(SolverInmem, EndsOnValuesThatAreNotFinite) {
    if (in_blocks()) GTEST_SKIP();  // the factors refuse them
    prepare(20);
    matrix<double> c = test::second_differences(20);
    c(3, 4) = c(4, 3) = std::numeric_limits<double>::quiet_NaN();
    std::vector<double> x(20, 0.0);
    EXPECT_FALSE(solve(c, std::vector<double>(20, 1.0), x).finite);
    EXPECT_THAT(log_.text(), HasSubstr(not_finite));
    EXPECT_FALSE(place_.directory.exists("ca491pcn.bin"));
}

TEST_P(SolverInmem, ComparesTheFinalRightHandSide) {
    prepare(12);
    param_.solver.computefinalrhs = true;
    std::vector<double> x(12, 0.0);
    solve(test::second_differences(12), std::vector<double>(12, 1.0), x);
    EXPECT_TRUE(place_.directory.exists("manufactured_rhs.dat"));
    EXPECT_TRUE(place_.directory.exists("real_rhs.dat"));
    EXPECT_THAT(log_.text(), HasSubstr("Final absolute diff RHS         : "));
}

// ---- deflation
// ---------------------------------------------------------------------------------------------------

class SolverDpcgInmem : public SolverInmem {};
INSTANTIATE_TEST_SUITE_P(Deflated, SolverDpcgInmem, testing::Values(method::dpcg),
                         [](const auto& m) { return name_of(m.param); });

TEST_P(SolverDpcgInmem, NeedsFewerIterationsThanWithoutDeflation) {
    prepare(200, 1e-20);
    const matrix<double> c = test::second_differences(200);
    const std::vector<double> b = test::random_vector(200, generator_);
    std::vector<double> x(200, 0.0), plain(200, 0.0);
    nsub_ = 25;  // more than 20, without any structure
    const solver_result deflated = solve(c, b, x);
    const solver_result pcg = solve_as<std::int32_t>(c, b, plain, method::pcg);
    EXPECT_LT(deflated.counter, pcg.counter / 2);
    EXPECT_LT(relative_residual(c, b, x), 1e-9);
    EXPECT_TRUE(place_.directory.exists("def_einv.stream"));
    EXPECT_TRUE(place_.directory.exists("def_einv_20.dat"));
}

TEST_P(SolverDpcgInmem, InvertsTheSumsOfTheMatrixByPairsOfSubdomains) {
    prepare(4);
    nsub_ = 2;
    matrix<double> c = test::second_differences(4);
    c(0, 0) = 3.0;
    std::vector<double> x(4, 0.0);
    solve(c, {1.0, 1.0, 1.0, 1.0}, x);
    // E = (3, -1; -1, 2), its inverse (2, 1; 1, 3) / 5.
    const std::string bytes = place_.directory.read("def_einv.stream");
    std::vector<double> einv(4);
    ASSERT_EQ(bytes.size(), 32u);
    std::memcpy(einv.data(), bytes.data(), 32);
    EXPECT_THAT(einv, testing::Pointwise(testing::DoubleNear(1e-15), {0.4, 0.2, 0.2, 0.6}));
}

TEST_P(SolverDpcgInmem, ReadsAGivenGalerkinMatrix) {
    prepare(50, 1e-20);
    const matrix<double> c = test::second_differences(50);
    const std::vector<double> b = test::random_vector(50, generator_);
    std::vector<double> first(50, 0.0), second(50, 0.0);
    solve(c, b, first);
    param_.solver.galerkin = "def_einv.stream";
    solve(c, b, second);
    for (std::size_t i = 0; i < 50; ++i) EXPECT_NEAR(first[i], second[i], 1e-9);
    EXPECT_THAT(log_.text(), HasSubstr("Start reading inv(ZAZ)\ninv(ZAZ) read\n"));
}

TEST_P(SolverDpcgInmem, StopsAtASubdomainOfEmptyEquations) {
    prepare(4);
    nsub_ = 2;
    matrix<double> c(4, 4);
    c(0, 0) = c(1, 1) = 1.0;
    std::vector<double> x(4, 0.0);
    EXPECT_EQ(
        fatal_text([&] {
            solve(c, {1.0, 1.0, 0.0, 0.0}, x);
        }),
        "The Galerkin matrix of the subdomains is not positive definite: a subdomain has no equation, or "
        "depends on others");
}

}  // namespace
}  // namespace zendar
