#include "modsolveriod_dpcg_real.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "modsolveriod_dpcg_comp.hpp"
#include "modsolveriod_test_support.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::dense_system;
using test::fatal_text;
using test::jacobi;
using test::lines_of;
using test::random_definite;
using test::second_differences;
using testing::HasSubstr;
using testing::Not;

/// M^-1 C for M = diag(C): its eigenvalues, ascending, and its eigenvectors.
struct spectrum {
    std::vector<double> values;
    matrix<double> vectors;

    explicit spectrum(const matrix<double>& c) : values(static_cast<std::size_t>(c.rows())), vectors(c) {
        for (std::int64_t i = 0; i < c.rows(); ++i)
            for (std::int64_t j = 0; j < c.cols(); ++j) vectors(i, j) /= std::sqrt(c(i, i) * c(j, j));
        EXPECT_EQ(lapack_dsyevd_vectors(vectors.view(), values), 0);
        for (std::int64_t i = 0; i < c.rows(); ++i)
            for (std::int64_t j = 0; j < c.cols(); ++j) vectors(i, j) /= std::sqrt(c(i, i));
    }
    [[nodiscard]] matrix<double> lowest(std::int64_t k) const {
        matrix<double> z(vectors.rows(), k);
        std::copy_n(vectors.data(), vectors.rows() * k, z.data());
        return z;
    }
};

/// (-1, 2, -1) with a diagonal that varies by factors: eigenvalues of M^-1 C as those of the plain matrix.
matrix<double> scaled_differences(std::int64_t n) {
    matrix<double> c = second_differences(n);
    const auto scale = [](std::int64_t i) { return 1.0 + static_cast<double>(i % 5); };
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j) c(i, j) *= scale(i) * scale(j);
    return c;
}

double worst(const std::vector<double>& a, const std::vector<double>& b) {
    double largest = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) largest = std::max(largest, std::fabs(a[i] - b[i]));
    return largest;
}

class SolverDpcgIodReal : public testing::Test {
  protected:
    matrix<double> random_matrix(std::int64_t rows, std::int64_t cols) {
        matrix<double> z(rows, cols);
        std::uniform_real_distribution<double> uniform(-1.0, 1.0);
        for (double& value : z.values()) value = uniform(generator_);
        return z;
    }
    dense_system system_of(matrix<double> c) {
        const auto n = static_cast<std::int32_t>(c.rows());
        const std::string galerkin = param_.solver.galerkin;
        param_ = test::model_of(n);
        param_.solver.convcrit = 1e-26;
        param_.solver.miniter = 1;
        param_.solver.galerkin = galerkin;
        param_.solver.deflationmat = "v.txt";
        return {std::move(c), test::random_vector(n, generator_)};
    }
    solver_result solve(dense_system& system, const matrix<double>& z, std::vector<double>& x) {
        jacobi m(system.c);
        x.resize(static_cast<std::size_t>(system.size()), 0.0);
        return solver_dpcg_iod_real(param_, system, m, z, x, {}, {}, log_);
    }
    std::string error(dense_system& system, const matrix<double>& z) {
        std::vector<double> x;
        return fatal_text([&] { solve(system, z, x); });
    }
    std::vector<double> stream() {
        const std::string bytes = place_.directory.read("def_einv.stream");
        std::vector<double> values(bytes.size() / sizeof(double));
        std::memcpy(values.data(), bytes.data(), values.size() * sizeof(double));
        return values;
    }
    test::solver_place place_;
    std::mt19937 generator_{126};
    param_type param_;
    captured_log log_;
};

TEST_F(SolverDpcgIodReal, SolvesRandomSystemsWithAnyVectors) {
    for (const std::int64_t n : {5, 30, 60}) {
        for (const std::int64_t nsub : {1, 4, 19, 20, 21, 35}) {
            if (nsub > n) continue;
            SCOPED_TRACE(testing::Message() << n << " equations, " << nsub << " vectors");
            dense_system system = system_of(random_definite(n, generator_, 1.0));
            const std::vector<double> expected = test::dense_solve(system.c, system.b);
            std::vector<double> any, lowest, started = test::random_vector(n, generator_);
            solve(system, random_matrix(n, nsub), any);
            EXPECT_LT(worst(any, expected), 1e-10);
            solve(system, spectrum(system.c).lowest(nsub), lowest);
            EXPECT_LT(worst(lowest, expected), 1e-10);
            solve(system, random_matrix(n, nsub), started);
            EXPECT_LT(worst(started, expected), 1e-10);
        }
    }
}

TEST_F(SolverDpcgIodReal, NeedsNoMoreIterationsThanTheEigenvaluesThatAreLeft) {
    constexpr std::int64_t n = 200;
    for (const std::int64_t k : {5, 20, 40}) {
        SCOPED_TRACE(k);
        dense_system system = system_of(scaled_differences(n));
        param_.solver.convcrit = 1e-20;
        const spectrum eigen(system.c);
        std::vector<double> x, plain(n, 0.0);
        jacobi m(system.c);
        const std::int32_t pcg = solver_pcg_iod(param_, system, m, plain, {}, {}, log_).counter - 2;
        const std::int32_t dpcg = solve(system, eigen.lowest(k), x).counter - 2;
        EXPECT_LT(system.relative_residual(x), 1e-9);

        // r0 = P b, as M Z Z' takes the part of the eigenvectors out of a right-hand side.
        std::vector<double> r = system.b;
        for (std::int64_t j = 0; j < k; ++j) {
            double part = 0.0;
            for (std::int64_t i = 0; i < n; ++i) part += eigen.vectors(i, j) * system.b[i];
            for (std::int64_t i = 0; i < n; ++i) r[i] -= system.c(i, i) * eigen.vectors(i, j) * part;
        }
        double rr = 0.0, bb = 0.0, largest = 0.0, smallest = 1e30;
        for (std::int64_t i = 0; i < n; ++i) {
            rr += r[i] * r[i];
            bb += system.b[i] * system.b[i];
            largest = std::max(largest, system.c(i, i));
            smallest = std::min(smallest, system.c(i, i));
        }
        // The error in the norm of C falls to 2 q^i of it; of the residuals the norms in M^-1 are compared
        // with those of the stopping rule.
        const double kappa = eigen.values[n - 1] / eigen.values[k];
        const double q = (std::sqrt(kappa) - 1.0) / (std::sqrt(kappa) + 1.0);
        const double factor = 4.0 * largest / smallest * kappa * rr / bb;
        const double bound = std::ceil(0.5 * std::log(param_.solver.convcrit / factor) / std::log(q));
        EXPECT_LE(dpcg, bound);
        EXPECT_LT(dpcg, pcg);
        if (k >= 20) {
            EXPECT_LT(bound, pcg);
        }
        EXPECT_GT(dpcg, 1);
    }
}

TEST_F(SolverDpcgIodReal, KeepsTheirProductsOf20VectorsAndNotOf21) {
    constexpr std::int64_t n = 80;
    const matrix<double> c = scaled_differences(n);
    const matrix<double> all = spectrum(c).lowest(21);
    std::vector<double> x[2], expected;
    for (const std::int64_t nsub : {20, 21}) {
        SCOPED_TRACE(nsub);
        generator_.seed(5);
        dense_system system = system_of(c);
        expected = test::dense_solve(system.c, system.b);
        matrix<double> z(n, nsub);
        std::copy_n(all.data(), n * nsub, z.data());
        const std::int32_t updates = solve(system, z, x[nsub - 20]).counter - 2;
        EXPECT_GT(updates, 3);
        // E, then P b of the start and P C p of each iteration; the residuals are not counted here.
        EXPECT_EQ(system.products, nsub == 20 ? nsub + updates : nsub + 1 + 2 * updates);
        EXPECT_EQ(system.refreshes, 0);
    }
    EXPECT_LT(worst(x[0], x[1]), 1e-9 * worst(expected, std::vector<double>(n, 0.0)));
    EXPECT_LT(worst(x[0], expected), 1e-9 * worst(expected, std::vector<double>(n, 0.0)));
}

TEST_F(SolverDpcgIodReal, TakesTheSameStepsInBothForms) {
    // A vector of 21 that adds nothing to the others: an equation apart.
    constexpr std::int64_t n = 61;
    matrix<double> c = scaled_differences(n);
    for (std::int64_t i = 0; i + 1 < n; ++i) c(i, n - 1) = c(n - 1, i) = 0.0;
    dense_system system = system_of(c);
    system.b[n - 1] = 0.0;
    matrix<double> few = random_matrix(n, 20), many(n, 21);
    for (std::int64_t j = 0; j < 20; ++j) few(n - 1, j) = 0.0;
    std::ranges::copy(few.values(), many.data());
    many(n - 1, 20) = 1.0;
    std::vector<double> with_az, without;
    const std::int32_t first = solve(system, few, with_az).counter;
    const std::int32_t second = solve(system, many, without).counter;
    EXPECT_NEAR(first, second, 1);
    EXPECT_LT(worst(with_az, without), 1e-9);
}

TEST_F(SolverDpcgIodReal, IsTheFormWithSubdomainsForTheirIndicators) {
    constexpr std::int64_t n = 120;
    for (const std::int32_t nsub : {6, 24}) {
        dense_system system = system_of(scaled_differences(n));
        subdomains z;
        z.nsub = nsub;
        matrix<double> zreal(n, nsub);
        for (std::int64_t i = 0; i < n; ++i) {
            z.of.push_back(static_cast<std::int32_t>(i * nsub / n) + 1);
            zreal(i, z.of.back() - 1) = 1.0;
        }
        std::vector<double> x(n, 0.0), real;
        jacobi m(system.c);
        const std::int32_t comp =
            solver_dpcg_iod_comp(param_, system, nullptr, m, z, x, {}, {}, log_).counter;
        const std::vector<double> einv = stream();
        EXPECT_NEAR(solve(system, zreal, real).counter, comp, 1);
        EXPECT_LT(worst(stream(), einv), 1e-9);
        EXPECT_LT(worst(real, x), 1e-8);
    }
}

TEST_F(SolverDpcgIodReal, TellsItsRequirementsAndItsSteps) {
    dense_system system = system_of(scaled_differences(40));
    std::vector<double> x;
    solve(system, random_matrix(40, 20), x);
    const std::string text = log_.text();
    for (const char* line :
         {"DEFLATED PCG (real) will be applied with the following requirements:\n",
          "Number of subdomains                : 20\n", "Memory (MB) needed for Z            : .01\n",
          "Memory (MB) needed for inv(ZCZprime): .00\n", "Memory (MB) needed for r,p,z,w  : .00\n",
          "Memory (MB) needed for tmp array: 2.01\n", "Start the computation of inv(ZAZ)\n",
          "inv(ZAZ) computed (and saved to file)\n", " Elapsed time to compute inv(ZAZ): ",
          "Start the DPCG REAL  (compiled on ", "Norm of RHS         : "})
        EXPECT_THAT(text, HasSubstr(line));
    EXPECT_THAT(text, Not(HasSubstr("(comp)")));
}

TEST_F(SolverDpcgIodReal, WritesEAndItsInverse) {
    for (const std::int64_t nsub : {3, 21}) {
        dense_system system = system_of(random_definite(24, generator_, 2.0));
        const matrix<double> z = random_matrix(24, nsub);
        std::vector<double> x;
        solve(system, z, x);
        matrix<double> az(24, nsub), e(nsub, nsub);
        blas_dgemm(false, false, 1.0, system.c.view(), z.view(), 0.0, az.view());
        blas_dgemm(true, false, 1.0, z.view(), az.view(), 0.0, e.view());
        matrix<double> einv(nsub, nsub), product(nsub, nsub);
        std::ranges::copy(stream(), einv.data());
        blas_dgemm(false, false, 1.0, e.view(), einv.view(), 0.0, product.view());
        for (std::int64_t i = 0; i < nsub; ++i)
            for (std::int64_t j = 0; j < nsub; ++j) EXPECT_NEAR(product(i, j), i == j ? 1.0 : 0.0, 1e-9);
        const auto rows = lines_of(place_.directory.read("def_einv_20.dat"));
        ASSERT_EQ(std::ssize(rows), 2 * nsub + 2);
        EXPECT_EQ(rows[nsub], "*******");
        EXPECT_EQ(rows[2 * nsub + 1], "*******");
        EXPECT_NEAR(std::stod(rows[0]), e(0, 0), 1e-12 * e(0, 0));
        EXPECT_EQ(std::stod(rows[nsub + 1]), einv(0, 0));
    }
}

TEST_F(SolverDpcgIodReal, ReadsAGivenGalerkinMatrix) {
    for (const std::int64_t nsub : {6, 21}) {
        param_.solver.galerkin = "none";
        dense_system system = system_of(scaled_differences(60));
        const matrix<double> z = random_matrix(60, nsub);
        std::vector<double> first, second;
        solve(system, z, first);
        param_.solver.galerkin = "def_einv.stream";
        system.products = 0;
        const std::int32_t updates = solve(system, z, second).counter - 2;
        EXPECT_LT(worst(first, second), 1e-10);
        EXPECT_EQ(system.products, nsub == 6 ? nsub + updates : 1 + 2 * updates);
        EXPECT_THAT(log_.text(), HasSubstr("Start reading inv(ZAZ)\ninv(ZAZ) read\n"));
        EXPECT_THAT(error(system, random_matrix(60, nsub + 1)),
                    HasSubstr("The file of the Galerkin matrix def_einv.stream has "));
    }
}

TEST_F(SolverDpcgIodReal, StopsAtDependentVectors) {
    dense_system system = system_of(scaled_differences(50));
    const std::string head = "The deflation vectors are linearly dependent: vector ";
    const std::string tail = " is zero, or a combination of those before it";
    for (const std::int64_t nsub : {4, 22}) {
        const std::string of = " of " + std::to_string(nsub);
        matrix<double> z = random_matrix(50, nsub);
        for (std::int64_t i = 0; i < 50; ++i) z(i, 2) = z(i, 0) - 3.0 * z(i, 1);
        EXPECT_EQ(error(system, z), head + "3" + of + tail);
        z = random_matrix(50, nsub);
        for (std::int64_t i = 0; i < 50; ++i) z(i, nsub - 1) = z(i, 0);
        EXPECT_EQ(error(system, z), head + std::to_string(nsub) + of + tail);
        for (std::int64_t i = 0; i < 50; ++i) z(i, 1) = 0.0;
        EXPECT_EQ(error(system, z), head + "2" + of + tail);
    }
    EXPECT_FALSE(std::filesystem::exists("def_einv.stream"));
    EXPECT_EQ(error(system, {}), "There are no deflation vectors in the file v.txt");
}

TEST_F(SolverDpcgIodReal, StopsWhereTheEquationsAreSingularForTheVectors) {
    // An equation without elements.
    matrix<double> c = scaled_differences(20);
    for (std::int64_t i = 0; i < 20; ++i) c(i, 7) = c(7, i) = 0.0;
    dense_system system = system_of(c);
    matrix<double> z(20, 1);
    z(7, 0) = 1.0;
    EXPECT_EQ(
        error(system, z),
        "The Galerkin matrix of the deflation vectors is not positive definite: the equations are singular "
        "for a combination of them");
    EXPECT_FALSE(std::filesystem::exists("def_einv.stream"));
}

TEST_F(SolverDpcgIodReal, ComparesTheFinalRightHandSide) {
    dense_system system = system_of(scaled_differences(30));
    std::vector<double> x;
    param_.solver.computefinalrhs = true;
    solve(system, random_matrix(30, 3), x);
    EXPECT_THAT(log_.text(), HasSubstr("Recomputed CR                   : "));
    EXPECT_TRUE(std::filesystem::exists("manufactured_rhs.dat"));
}

TEST(CreateeinvReal, GivesTheProductsOfBothForms) {
    std::mt19937 generator(4);
    dense_system system(random_definite(9, generator, 1.0), test::random_vector(9, generator));
    matrix<double> z(9, 3), az(9, 3), e(3, 3), again(3, 3);
    for (double& value : z.values()) value = test::random_vector(1, generator)[0];

    createeinv_az_real(system, z.view(), az.view(), e.view());
    createeinv_real(system, z.view(), again.view());

    for (std::int64_t j = 0; j < 3; ++j) {
        for (std::int64_t i = 0; i < 9; ++i) {
            double sum = 0.0;
            for (std::int64_t l = 0; l < 9; ++l) sum += system.c(i, l) * z(l, j);
            EXPECT_NEAR(az(i, j), sum, 1e-13);
        }
        for (std::int64_t i = 0; i < 3; ++i) {
            double sum = 0.0;
            for (std::int64_t l = 0; l < 9; ++l) sum += z(l, i) * az(l, j);
            EXPECT_NEAR(e(i, j), sum, 1e-13);
            EXPECT_NEAR(again(i, j), sum, 1e-13);
        }
    }
}

}  // namespace
}  // namespace zendar
