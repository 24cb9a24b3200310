#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>

#include "modenum.hpp"
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
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// Two traits: a class effect of 2 levels, an SNP effect of 5 SNPs and random type `type`, and another of 3.
param_type snp_model(std::int32_t type, std::int32_t block) {
    param_type param = test::small_model(2, {{.nlevel = 2},
                                             {.type = teff_huge_iod, .nlevel = 4, .ncov = 5},
                                             {.type = teff_huge_iod, .nlevel = 4, .ncov = 3}})
                           .param;
    param.nhuge = 2;
    param.type_random_eff = {0, type, type};
    param.solver.neqblock = {block, 0};
    return param;
}

TEST(Createdeflationmatrix, CutsSingleStepEffectsIntoBlocksOfEachTrait) {
    captured_log log;
    for (const std::int32_t type : {22, 30}) {
        const subdomains z = createdeflationmatrix(snp_model(type, 2), log);
        EXPECT_EQ(z.nsub, 2 + 2 * 2 + 2);
        // The fifth SNP of the first effect, and the third of the second one, stay with their traits.
        EXPECT_THAT(z.of, ElementsAre(1, 2, 1, 2, 3, 4, 3, 4, 5, 6, 5, 6, 1, 2, 7, 8, 7, 8, 1, 2));
    }
}

TEST(Createdeflationmatrix, LeavesOtherEffectsToTheTraits) {
    captured_log log;
    for (const std::int32_t type : {0, 20, 23})
        EXPECT_EQ(createdeflationmatrix(snp_model(type, 2), log).nsub, 2);
    EXPECT_EQ(createdeflationmatrix(snp_model(30, 6), log).nsub, 2);
    EXPECT_EQ(createdeflationmatrix(snp_model(30, 5), log).nsub, 4);
    EXPECT_EQ(fatal_text([&] { static_cast<void>(createdeflationmatrix(snp_model(30, 0), log)); }),
              "The number of equations per block for DPCG must be at least 1");
}

class Deflationmatrix : public testing::Test {
  protected:
    subdomains read(const std::string& text) {
        place_.directory.write("sub.txt", text);
        param_ = test::model_of(4);
        param_.solver.deflationmat = "sub.txt";
        return deflationmatrix(param_, log_);
    }
    std::string error(const std::string& text) {
        return fatal_text([&] { static_cast<void>(read(text)); });
    }
    test::solver_place place_;
    param_type param_;
    captured_log log_;
};

TEST_F(Deflationmatrix, ReadsANumberForEachEquation) {
    EXPECT_THAT(read("1\n2\n2\n1\n7\n").of, ElementsAre(1, 2, 2, 1));
    EXPECT_EQ((*param_.solver.neqblock)[1], 2);
    EXPECT_EQ(log_.text(), "Read the deflation vectors from file sub.txt\nNumber of blocks: 2\n");
    EXPECT_THAT(read("3\n1\n").of, ElementsAre(3, 1, 0, 0));  // the others are in no subdomain
}

TEST_F(Deflationmatrix, RefusesWhatIsNoSubdomain) {
    EXPECT_EQ(error("1\n-2\n"), "File sub.txt: the number -2 of equation 2 is no subdomain");
    EXPECT_EQ(error("1\n5\n"), "File sub.txt: the number 5 of equation 2 is no subdomain");
    EXPECT_EQ(error(""), "The file of the deflation vectors sub.txt has no subdomain");
    EXPECT_EQ(error("word\n"), "The file of the deflation vectors sub.txt has no subdomain");
    param_.solver.deflationmat = "none.txt";
    EXPECT_EQ(fatal_text([&] { static_cast<void>(deflationmatrix(param_, log_)); }),
              "The file of the deflation vectors none.txt cannot be read");
}

/// A system whose last equations can be multiplied by themselves.
class structured_system final : public structured_operator {
  public:
    structured_system(const matrix<double>& c, std::int64_t first) : c_(c), first_(first) {}
    [[nodiscard]] std::int64_t first_structured() const override { return first_; }
    void atimesx_onlyhuge(matrix_view<const double> x, matrix_view<double> r) override {
        ++products;
        const matrix_view<const double> part{c_.data() + first_ * c_.rows() + first_, x.rows, x.rows,
                                             c_.rows()};
        blas_dgemm(false, false, 1.0, part, x, 0.0, r);
    }
    int products = 0;

  private:
    const matrix<double>& c_;
    std::int64_t first_;
};

class SolverDpcgIodComp : public testing::Test {
  protected:
    /// `nsub` subdomains of about equal size.
    subdomains stretches(std::int64_t n, std::int32_t nsub) {
        subdomains z;
        z.nsub = nsub;
        for (std::int64_t i = 0; i < n; ++i) z.of.push_back(static_cast<std::int32_t>(i * nsub / n) + 1);
        return z;
    }
    solver_result solve(dense_system& system, const subdomains& z, std::vector<double>& x,
                        structured_operator* structured = nullptr) {
        jacobi m(system.c);
        param_.neq = static_cast<std::int32_t>(system.size());
        return solver_dpcg_iod_comp(param_, system, structured, m, z, x, {}, {}, log_);
    }
    dense_system slow_system(std::int32_t n) {
        param_ = test::model_of(n);
        param_.solver.convcrit = 1e-24;
        return {test::second_differences(n), test::random_vector(n, generator_)};
    }
    std::vector<double> stream() {
        const std::string bytes = place_.directory.read("def_einv.stream");
        std::vector<double> values(bytes.size() / sizeof(double));
        std::memcpy(values.data(), bytes.data(), values.size() * sizeof(double));
        return values;
    }
    test::solver_place place_;
    std::mt19937 generator_{3};
    param_type param_;
    captured_log log_;
};

TEST_F(SolverDpcgIodComp, SolvesInFewerIterationsThanWithoutDeflation) {
    dense_system system = slow_system(200);
    std::vector<double> plain(200, 0.0), x(200, 0.0);
    jacobi m(system.c);
    param_.neq = 200;
    const solver_result pcg = solver_pcg_iod(param_, system, m, plain, {}, {}, log_);
    const solver_result dpcg = solve(system, stretches(200, 20), x);
    EXPECT_LT(system.relative_residual(x), 1e-9);
    EXPECT_LT(dpcg.counter, pcg.counter / 2);
    EXPECT_EQ(system.refreshes, pcg.counter / 50);  // the deflated iteration has none
}

TEST_F(SolverDpcgIodComp, TellsItsRequirementsAndItsSteps) {
    dense_system system = slow_system(40);
    std::vector<double> x(40, 0.0);
    solve(system, stretches(40, 4), x);
    const std::string text = log_.text();
    for (const char* line :
         {"DEFLATED PCG (comp) will be applied with the following requirements:\n",
          "Number of subdomains                : 4\n", "Memory (MB) needed for Z            : .00\n",
          "Memory (MB) needed for inv(ZCZprime): .00\n", "Memory (MB) needed for r,p,z,w  : .00\n",
          "Memory (MB) needed for tmp array: 2.00\n", "Start the computation of inv(ZAZ)\n",
          "inv(ZAZ) computed (and saved to file)\n", " Elapsed time to compute inv(ZAZ): ",
          "Start the DPCG COMP (compiled on ", "Norm of RHS         : "})
        EXPECT_THAT(text, HasSubstr(line));
    EXPECT_THAT(text, Not(HasSubstr(" Huge effects are present!")));
}

TEST_F(SolverDpcgIodComp, WritesEAndItsInverse) {
    const matrix<double> c = random_definite(12, generator_, 2.0);
    dense_system system(c, test::random_vector(12, generator_));
    param_ = test::model_of(12);
    const subdomains z = stretches(12, 3);
    const matrix<double> einv = computeeinv(system, nullptr, z, log_);
    EXPECT_THAT(stream(), testing::ElementsAreArray(einv.values()));
    const auto rows = lines_of(place_.directory.read("def_einv_20.dat"));
    ASSERT_EQ(rows.size(), 8);
    EXPECT_EQ(rows[3], "*******");
    EXPECT_EQ(rows[7], "*******");
    double sum = 0.0;
    for (std::int64_t i = 0; i < 4; ++i)
        for (std::int64_t j = 0; j < 4; ++j) sum += c(i, j);
    EXPECT_NEAR(std::stod(rows[0]), sum, 1e-12);
    EXPECT_EQ(std::stod(rows[4]), einv(0, 0));
    matrix<double> e(3, 3), product(3, 3);
    createeinv(system, z, e.view());
    blas_dgemm(false, false, 1.0, e.view(), einv.view(), 0.0, product.view());
    for (std::int64_t i = 0; i < 3; ++i)
        for (std::int64_t j = 0; j < 3; ++j) EXPECT_NEAR(product(i, j), i == j ? 1.0 : 0.0, 1e-12);
}

TEST_F(SolverDpcgIodComp, TakesTheStructureAbove20Subdomains) {
    dense_system system(random_definite(80, generator_, 2.0), test::random_vector(80, generator_));
    param_ = test::model_of(80);
    for (const std::int32_t nsub : {20, 21}) {
        structured_system structured(system.c, 40);
        system.products = 0;
        captured_log log;
        static_cast<void>(computeeinv(system, &structured, stretches(80, nsub), log));
        const std::vector<double> einv = stream();
        EXPECT_EQ(structured.products, nsub == 20 ? 0 : 1);
        // Of 21 subdomains 11 reach below equation 41.
        EXPECT_EQ(system.products, nsub == 20 ? 20 : 11);
        EXPECT_EQ(log.text().find(" Huge effects are present!") != std::string::npos, nsub == 21);
        if (nsub == 21) {
            EXPECT_THAT(log.text(),
                        HasSubstr(" Last equation considered in the first part       : 40\n Number of "
                                  "subdomains considered in the first part: 11\n"));
        }
        static_cast<void>(computeeinv(system, nullptr, stretches(80, nsub), log));
        const std::vector<double> expected = stream();
        for (std::size_t i = 0; i < einv.size(); ++i) EXPECT_NEAR(einv[i], expected[i], 1e-10);
    }
}

TEST_F(SolverDpcgIodComp, ReadsAGivenGalerkinMatrix) {
    dense_system system = slow_system(60);
    const subdomains z = stretches(60, 6);
    std::vector<double> first(60, 0.0), second(60, 0.0);
    solve(system, z, first);
    param_.solver.galerkin = "def_einv.stream";
    system.products = 0;
    const solver_result result = solve(system, z, second);
    // Sums of several threads are added in any order.
    for (std::size_t i = 0; i < first.size(); ++i) EXPECT_NEAR(first[i], second[i], 1e-11);
    EXPECT_EQ(system.products, 1 + 2 * (result.counter - 2));
    EXPECT_THAT(log_.text(), HasSubstr("Start reading inv(ZAZ)\ninv(ZAZ) read\n"));
}

TEST_F(SolverDpcgIodComp, RefusesAnotherGalerkinMatrix) {
    dense_system system = slow_system(12);
    std::vector<double> x(12, 0.0);
    param_.solver.galerkin = "given.stream";
    const auto error = [&] { return fatal_text([&] { solve(system, stretches(12, 3), x); }); };
    EXPECT_EQ(error(), "The file of the Galerkin matrix given.stream cannot be read");
    place_.directory.write("given.stream", std::string(71, 'x'));
    EXPECT_EQ(error(),
              "The file of the Galerkin matrix given.stream has 71 bytes instead of 72 for 3 subdomains");
    std::string bytes(72, '\0');
    const double nan = std::numeric_limits<double>::quiet_NaN();
    std::memcpy(bytes.data() + 8, &nan, sizeof nan);
    place_.directory.write("given.stream", bytes);
    EXPECT_EQ(error(), "The file of the Galerkin matrix given.stream has values that are not finite");
    EXPECT_EQ(fatal_text([&] { computegalerkin(param_, system, nullptr, stretches(12, 3), log_); }),
              "Internal error");
}

TEST_F(SolverDpcgIodComp, StopsAtASubdomainWithoutEquations) {
    dense_system system = slow_system(12);
    std::vector<double> x(12, 0.0);
    subdomains z = stretches(12, 3);
    z.nsub = 4;
    EXPECT_THAT(fatal_text([&] { solve(system, z, x); }), HasSubstr("is not positive definite"));
    EXPECT_FALSE(std::filesystem::exists("def_einv.stream"));
}

TEST_F(SolverDpcgIodComp, EquationsMayBeInNoSubdomain) {
    dense_system system = slow_system(60);
    std::vector<double> x(60, 0.0);
    subdomains z = stretches(60, 6);
    for (std::size_t i = 0; i < 60; i += 7) z.of[i] = 0;
    solve(system, z, x);
    EXPECT_LT(system.relative_residual(x), 1e-9);
}

TEST_F(SolverDpcgIodComp, ComparesTheFinalRightHandSide) {
    dense_system system = slow_system(30);
    std::vector<double> x(30, 0.0);
    param_.solver.computefinalrhs = true;
    solve(system, stretches(30, 3), x);
    EXPECT_THAT(log_.text(), HasSubstr("Recomputed CR                   : "));
    EXPECT_TRUE(std::filesystem::exists("manufactured_rhs.dat"));
}

}  // namespace
}  // namespace zendar
