#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <sstream>

#include "modenum.hpp"
#include "modsnpmodel.hpp"
#include "modsolver_test_support.hpp"

namespace zendar {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr std::int32_t inmem_codes[] = {code_pardiso, code_fpcg_inmem, code_pcg_inmem, code_pcg_inmem_block,
                                        code_dpcg_inmem};

/// Equations in memory of two class effects: 8 and 12 levels.
class SolveInMemory : public testing::TestWithParam<std::int32_t> {
  protected:
    SolveInMemory() {
        run_.log.configure({.max_width = 1000});
        run_.log.add_stream(screen_);
        run_.param = test::small_model(1, {{.nlevel = 8}, {.nlevel = 12}}).param;
        run_.param.solver.solver = GetParam();
        run_.param.solver.convcrit = 1e-24;
        run_.param.solver.neqblock = {1000, 0};
        run_.solutions.assign(20, 0.0);
    }
    void take(const matrix<double>& c, const std::vector<double>& b, bool wide = false) {
        c_ = c;
        run_.rhs = b;
        if (wide)
            run_.lhsija64 = test::stored<std::int64_t>(c, &run_.log);
        else
            run_.lhsija = test::stored<std::int32_t>(c, &run_.log);
    }
    [[nodiscard]] double residual() const { return test::relative_residual(c_, run_.rhs, run_.solutions); }
    [[nodiscard]] std::string screen() const { return screen_.str(); }

    test::solver_place place_;
    std::ostringstream screen_;
    run_state run_;
    matrix<double> c_;
    std::mt19937 generator_{20261126};
};
INSTANTIATE_TEST_SUITE_P(Codes, SolveInMemory, testing::ValuesIn(inmem_codes),
                         [](const auto& code) { return std::string(find_solver(code.param)->name); });

TEST_P(SolveInMemory, SolvesWithEitherWidthAndFreesTheMatrix) {
    for (const bool wide : {false, true}) {
        take(test::sparse_definite(20, generator_), test::random_vector(20, generator_), wide);
        run_.finite = false;
        ASSERT_TRUE(has_solver(GetParam()));
        solve(run_);
        EXPECT_LT(residual(), 1e-11);
        EXPECT_TRUE(run_.finite);
        EXPECT_EQ(run_.lhsija.getdim(1), 0);
        EXPECT_EQ(run_.lhsija64.getdim(1), 0);
        EXPECT_THAT(screen(), HasSubstr("START: solving the MME\n"));
        EXPECT_THAT(screen(), HasSubstr(std::string(find_solver(GetParam())->log_text) + "\n"));
        EXPECT_THAT(screen(), HasSubstr("END: solving the MME\n"));
    }
}

TEST_P(SolveInMemory, KeepsTheMatrixButNoFactorsForWhatFollows) {
    for (const bool reliabilities : {false, true}) {  // the print comes first, its file stays
        run_.param.lpec = reliabilities;
        run_.param.solver.printlhs = !reliabilities;
        take(test::sparse_definite(20, generator_), test::random_vector(20, generator_));
        solve(run_);
        EXPECT_EQ(run_.lhsija.getdim(1), 20);
        EXPECT_FALSE(run_.lhsija.isdecomposed());
        EXPECT_LT(residual(), 1e-11);
        const bool blocks = GetParam() == code_fpcg_inmem || GetParam() == code_pcg_inmem_block;
        EXPECT_EQ(place_.directory.exists("mija_block.dat"), blocks);
    }
}

TEST_P(SolveInMemory, SolvesSingularSystemsAndGivesEmptyEquationsZero) {
    test::classified system = test::classification(7, 8, 4, generator_);
    take(system.c, system.b);
    run_.param.solver.startsol = "ca491pcn.bin";
    std::vector<double> start(20, 2.0);
    place_.directory.write("ca491pcn.bin", std::string(reinterpret_cast<const char*>(start.data()), 160));
    solve(run_);
    EXPECT_LT(residual(), 1e-11);
    for (std::int32_t i = 16; i < 20; ++i) EXPECT_EQ(run_.solutions[i], 0.0);
    EXPECT_TRUE(run_.finite);
}

TEST_P(SolveInMemory, TellsTheFirstRange) {
    take(test::sparse_definite(20, generator_), test::random_vector(20, generator_));
    run_.param.solver.conveffs = {2, 1};
    solve(run_);
    const std::string line = "  Convergence criteria will be computed for eq. 9 to 20\n";
    if (GetParam() == code_pardiso)
        EXPECT_THAT(screen(), Not(HasSubstr("Convergence criteria")));
    else
        EXPECT_THAT(screen(), HasSubstr(line));
    EXPECT_THAT(screen(), Not(HasSubstr("for eq. 1 to 8")));
}

TEST_P(SolveInMemory, FactorisesABlockForEachEffect) {
    if (GetParam() != code_fpcg_inmem && GetParam() != code_pcg_inmem_block) return;
    // Effects without elements between them: the blocks are the matrix.
    matrix<double> c = test::sparse_definite(20, generator_);
    for (std::int64_t i = 0; i < 8; ++i)
        for (std::int64_t j = 8; j < 20; ++j) c(i, j) = c(j, i) = 0.0;
    take(c, test::random_vector(20, generator_));
    run_.param.solver.miniter = 1;
    run_.param.solver.convcrit = 1e-20;
    solve(run_);
    EXPECT_THAT(screen(), HasSubstr("All iterations (2) "));
    EXPECT_LT(residual(), 1e-10);
}

TEST_P(SolveInMemory, WritesTheSubdomains) {
    take(test::sparse_definite(20, generator_), test::random_vector(20, generator_));
    solve(run_);
    EXPECT_EQ(place_.directory.exists("deflationmatrix.dat"), GetParam() == code_dpcg_inmem);
    EXPECT_EQ(screen().find("Number of blocks: 1\n") != std::string::npos, GetParam() == code_dpcg_inmem);
}

TEST_P(SolveInMemory, TellsOfSolutionsThatAreNotFinite) {
    std::vector<double> b = test::random_vector(20, generator_);
    b[4] = std::numeric_limits<double>::quiet_NaN();
    take(test::sparse_definite(20, generator_), b);
    solve(run_);
    EXPECT_FALSE(run_.finite);
    EXPECT_THAT(screen(), HasSubstr("ended on a value that is not finite\n"));
}

/// Records of a class effect, on data.
TEST(SolveChebyshev, LeavesTheRightHandSideForTheOutput) {
    test::solver_place place;
    std::ostringstream screen;
    run_state run;
    run.log.configure({.max_width = 1000});
    run.log.add_stream(screen);
    run.param.ntrait = run.param.neffect = 1;
    allocpar(run.param);
    run.param.type_effect[0] = teff_class;
    run.param.n_level[0] = 3;
    run.param.n_cov[0] = 1;
    run.param.pos_effects(0, 0) = 1;
    run.param.pos_traits[0] = 2;
    setsumlevel(run.param, run.log);
    run.param.neq = 3;
    run.param.nphen = 3;
    run.param.n_residual_cov = 1;
    run.param.r.assign(1, matrix<double>(1, 1, 2.0));
    run.param.combination = {1};
    run.param.ncombination = 1;
    run.data.phen = matrix<double>(1, 3);
    run.data.effect = matrix<std::int32_t>(2, 3, 1);
    run.data.combitrait.assign(3, 1);
    for (std::int32_t i = 0; i < 3; ++i) {
        run.data.phen(0, i) = 2.0 * i + 1.0;
        run.data.effect(0, i) = i == 0 ? 3 : 1;
    }
    run.param.solver.solver = code_cheb_iod;
    run.param.solver.eigmin = run.param.solver.eigmax = 1.0;
    setlhsrhs(run);
    solve(run);
    EXPECT_THAT(run.solutions, ElementsAre(4.0, 0.0, 1.0));
    EXPECT_THAT(run.rhs, ElementsAre(4.0, 0.0, 0.5));
    EXPECT_TRUE(run.finite);
    EXPECT_THAT(screen.str(), HasSubstr("Chosen solver: IOD + CHEBYSHEV\n"));
    EXPECT_EQ(run.mija_global, nullptr);
}

}  // namespace
}  // namespace zendar
