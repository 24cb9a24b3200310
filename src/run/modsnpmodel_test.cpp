#include "modsnpmodel.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <sstream>

#include "modenum.hpp"
#include "some_store.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

/// A finalised model of one trait and one class effect with three levels, in a directory of its own.
class Stages : public ::testing::Test {
  protected:
    Stages() : at_(directory_.path()) {
        run_.log.configure({.max_width = 1000});
        run_.log.add_stream(screen_);
        param_type& p = run_.param;
        p.ntrait = 1;
        p.neffect = 1;
        allocpar(p);
        p.type_effect[0] = teff_class;
        p.n_level[0] = 3;
        p.n_cov[0] = 1;
        p.pos_effects(0, 0) = 1;
        p.pos_traits[0] = 2;
        setsumlevel(p, run_.log);
        p.neq = 3;
    }
    [[nodiscard]] std::string screen() const { return screen_.str(); }

    test::temporary_directory directory_;
    test::working_directory at_;
    std::ostringstream screen_;
    run_state run_;
};

TEST_F(Stages, SolveNamesTheSolverAndStopsWhereItIsNotThere) {
    for (const solver_entry& solver : solvers()) {
        if (has_solver(solver.code)) continue;
        run_.param.solver.solver = solver.code;
        run_.solutions.assign(3, 1.0);

        EXPECT_THROW(solve(run_), fatal_error);

        EXPECT_THAT(screen(), HasSubstr(std::string(solver.log_text) + "\n"));
        EXPECT_THAT(screen(), HasSubstr("ERROR: The requested type of solver is not implemented\n"));
        EXPECT_EQ(run_.solutions, std::vector<double>(3, 0.0));
        screen_.str("");
    }
    run_.param.solver.solver = 77;
    EXPECT_THROW(solve(run_), fatal_error);
    EXPECT_THAT(screen(), HasSubstr("modsnpmodel % solve ("));
    EXPECT_THAT(screen(), Not(HasSubstr("Chosen solver")));
}

/// One record of levels 1 and 3 each: the equations are diagonal, and their solutions are the phenotypes.
class SolvingStages : public Stages {
  protected:
    SolvingStages() {
        run_.param.nphen = 2;
        run_.param.n_residual_cov = 1;
        run_.param.r.assign(1, matrix<double>(1, 1, 2.0));
        run_.param.combination = {1};
        run_.param.ncombination = 1;
        run_.data.phen = matrix<double>(1, 2);
        run_.data.phen(0, 0) = 1.25;
        run_.data.phen(0, 1) = -9.0;
        run_.data.effect = matrix<std::int32_t>(2, 2, 1);
        run_.data.effect(0, 1) = 3;
        run_.data.combitrait.assign(2, 1);
    }
};

TEST_F(SolvingStages, SolveReadsStartingValuesExceptForTheDirectSolver) {
    directory_.write("start.dat", "1 1 1 0 1.5\n1 1 3 0 -2\n");
    run_.param.solver.startsol = "start.dat";
    run_.param.solver.solver = code_pardiso;
    run_.solutions.assign(3, 0.0);
    EXPECT_THROW(solve(run_), fatal_error);
    EXPECT_EQ(run_.solutions, (std::vector<double>{0.0, 0.0, 0.0}));

    run_.param.solver.solver = code_pcg_iod;
    run_.param.solver.maxiter = 1;  // no update
    setlhsrhs(run_);
    solve(run_);
    EXPECT_EQ(run_.solutions, (std::vector<double>{1.5, 0.0, -2.0}));
}

TEST_F(SolvingStages, SetupAnnouncesTheSolutionsAndMovesThePhenotypesToTheStream) {
    setlhsrhs(run_);

    EXPECT_THAT(screen(), HasSubstr("START: creating LHS and RHS\nMemory (MB) needed for solutions: .00\n"));
    EXPECT_THAT(screen(), HasSubstr("Wall clock time (s) to save phen to stream file: "));
    EXPECT_THAT(screen(), HasSubstr("Setup of the preconditioner - Wall clock time (s): "));
    EXPECT_THAT(screen(), HasSubstr("END: creating LHS and RHS in memory\n"));
    EXPECT_TRUE(run_.data.phen.empty());
    const std::string bytes = directory_.read("phentmp.stream");
    ASSERT_EQ(bytes.size(), 16U);
    double values[2];
    std::memcpy(values, bytes.data(), 16);
    EXPECT_EQ(values[0], 1.25);
    EXPECT_EQ(values[1], -9.0);
}

TEST_F(SolvingStages, SolveLeavesTheDataToLaterStepsOnlyWhereTheyAreNeeded) {
    for (const bool yhat : {false, true}) {
        run_.param.yhat.assign(yhat ? 1 : 0, 0);
        const phenotype_data data = run_.data;
        run_.param.solver.maxiter = 2;
        setlhsrhs(run_);
        solve(run_);
        EXPECT_NEAR(run_.solutions[0], 1.25, 1e-6);
        EXPECT_EQ(run_.solutions[1], 0.0);
        EXPECT_NEAR(run_.solutions[2], -9.0, 1e-6);
        EXPECT_EQ(run_.data.effect.empty(), !yhat);
        EXPECT_EQ(run_.mija_global, nullptr);
        run_.data = data;
    }
}

TEST_F(SolvingStages, ASecondSetupKeepsThePreconditioner) {
    setlhsrhs(run_);
    const preconditioner* first = run_.mija_global.get();
    setlhsrhs(run_);
    EXPECT_EQ(run_.mija_global.get(), first);
    EXPECT_THAT(screen(), HasSubstr("Global preconditioner already allocated\n"));
}

TEST_F(Stages, OutputKeepsTheTemporarySolutionsFromAVectorThatIsNotFinite) {
    directory_.write("ca491pcn.bin", "good");
    run_.solutions = {1.0, std::numeric_limits<double>::quiet_NaN(), 2.0};
    run_.finite = false;

    output(run_);

    EXPECT_EQ(directory_.read("ca491pcn.bin"), "good");
    EXPECT_TRUE(directory_.exists("solutions.dat"));
}

TEST_F(Stages, InMemorySolversRefuseCompressedCovariables) {
    run_.param.solver.solver = code_pardiso;
    run_.cov.resize(1);
    run_.cov[0].compressed = test::some_store();

    EXPECT_THROW(setlhsrhs(run_), fatal_error);

    EXPECT_THAT(screen(), HasSubstr("ERROR: Compressed covariables are not allowed for in-memory options"));
    EXPECT_FALSE(directory_.exists("phentmp.stream"));
}

TEST_F(Stages, OutputWritesTheSolutionsInTextAndRawForm) {
    run_.solutions = {1.0, -0.25, 1234567.0};

    initoutput(run_);
    output(run_);

    EXPECT_EQ(directory_.read("solutions.dat"), "1 1 1 0 1.00000\n1 1 2 0 -0.250000\n1 1 3 0 0.123457E+07\n");
    const std::string bytes = directory_.read("ca491pcn.bin");
    ASSERT_EQ(bytes.size(), 24U);
    EXPECT_EQ(std::memcmp(bytes.data(), run_.solutions.data(), 24), 0);
    EXPECT_FALSE(directory_.exists("rhs.dat"));
    EXPECT_FALSE(directory_.exists("solutions.stream"));
    EXPECT_FALSE(directory_.exists("aggregate_solutions.dat"));
    EXPECT_THAT(screen(), HasSubstr("START: initiating output\n"));
    EXPECT_THAT(screen(), HasSubstr("END: initiating output\n"));
    EXPECT_THAT(screen(), HasSubstr("START: writing output\n"));
    EXPECT_THAT(screen(), HasSubstr("END: writing output\n"));
}

TEST_F(Stages, OutputWritesAggregatesBesideTheSolutions) {
    run_.solutions = {1.0, 2.0, 3.0};
    run_.aggregatesolutions = {4.0, 5.0, 6.0};
    run_.param.solstream = true;

    output(run_);

    EXPECT_EQ(directory_.read("aggregate_solutions.dat"),
              "1 1 1 0 4.00000\n1 1 2 0 5.00000\n1 1 3 0 6.00000\n");
    EXPECT_EQ(directory_.read("solutions.stream").size(), 3 * 4 + 3 * 24U);
    EXPECT_EQ(directory_.read("aggregate_solutions.stream").size(), 3 * 4 + 3 * 24U);
}

TEST_F(Stages, QuorlenReplacesBothFilesByTheAggregates) {
    run_.solutions = {1.0, 2.0, 3.0};
    run_.param.lquorlen = true;

    output(run_);
    EXPECT_EQ(directory_.read("solutions_quorlen.dat"),
              "1 1 1 0 1.00000\n1 1 2 0 2.00000\n1 1 3 0 3.00000\n");

    run_.aggregatesolutions = {4.0, 5.0, 6.0};
    output(run_);
    EXPECT_EQ(directory_.read("solutions_quorlen.dat"),
              "1 1 1 0 4.00000\n1 1 2 0 5.00000\n1 1 3 0 6.00000\n");
    EXPECT_FALSE(directory_.exists("solutions.dat"));
    EXPECT_FALSE(directory_.exists("aggregate_solutions.dat"));
}

TEST_F(Stages, OnlyTheConjugateGradientsOnDataLeaveOutTheRightHandSide) {
    run_.solutions.assign(3, 0.0);
    run_.rhs = {7.0, 8.0, 9.0};
    for (const solver_entry& solver : solvers()) {
        std::filesystem::remove("rhs.dat");
        run_.param.solver.solver = solver.code;

        output(run_);

        EXPECT_EQ(directory_.exists("rhs.dat"),
                  solver.code != 120 && solver.code != 125 && solver.code != 126)
            << solver.code;
    }
}

TEST_F(Stages, OutputWritesTheEstimatesThatAreAskedFor) {
    run_.solutions = {0.5, 1.0, 2.0};
    run_.data.effect = matrix<std::int32_t>(2, 3, 1);
    run_.data.effect(0, 1) = 3;
    run_.data.effect(0, 2) = 0;
    const std::vector<double> phen{4.0, -9.0, 7.0};
    directory_.write("phentmp.stream", {reinterpret_cast<const char*>(phen.data()), 24});

    output(run_);
    EXPECT_FALSE(directory_.exists("deviations.dat") || directory_.exists("yhat.dat"));

    run_.param.yhat.assign(1, 0);
    output(run_);
    EXPECT_EQ(directory_.read("yhat.dat"), "0.500000\n2.00000\n0.00000\n");
    EXPECT_FALSE(directory_.exists("deviations.dat"));
    EXPECT_TRUE(run_.data.phen.empty());

    run_.param.phendev.assign(1, 0);
    output(run_);
    EXPECT_EQ(directory_.read("deviations.dat"), "3.50000\n-9.00000\n7.00000\n");
    EXPECT_THAT(run_.data.phen.values(), ::testing::ElementsAreArray(phen));

    run_.param.phendev.assign(1, 1);
    run_.param.yhat.assign(1, 1);
    output(run_);
    EXPECT_EQ(directory_.read("deviations.dat"), "4.00000\n-9.00000\n7.00000\n");
    EXPECT_EQ(directory_.read("yhat.dat"), "0.00000\n0.00000\n0.00000\n");
    resetmemory(run_);
    EXPECT_TRUE(run_.data.phen.empty());
    EXPECT_FALSE(directory_.exists("phentmp.stream"));
}

TEST_F(Stages, PecNeedsASolverInMemory) {
    EXPECT_THROW(pec(run_), fatal_error);
    EXPECT_THAT(screen(), HasSubstr("ERROR: PEV (PEC) for this type of solver 120 is not implemented\n"));
}

TEST_F(Stages, ResetmemoryDeletesTheTemporaryStreamsAndTheState) {
    directory_.write("rhstmp.stream", "x");
    directory_.write("phentmp.stream", "x");
    run_.solutions.assign(3, 1.0);
    run_.param.solver.maxiter = 9;
    run_.options.loptimem = 5;

    resetmemory(run_);

    EXPECT_FALSE(directory_.exists("rhstmp.stream"));
    EXPECT_FALSE(directory_.exists("phentmp.stream"));
    EXPECT_TRUE(run_.solutions.empty());
    EXPECT_EQ(run_.param, param_type{});
    EXPECT_EQ(run_.options.loptimem, 2);
    resetmemory(run_);  // nothing left to delete is no error
}

TEST_F(Stages, DeallocdataFreesTheRecords) {
    run_.data.phen = matrix<double>(1, 2);
    run_.data.combitrait = {1, 1};

    deallocdata(run_);

    EXPECT_TRUE(run_.data.phen.empty());
    EXPECT_TRUE(run_.data.combitrait.empty());
}

}  // namespace
}  // namespace zendar
