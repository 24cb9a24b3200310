#include "modsolvertype.hpp"

#include <gmock/gmock.h>

#include <sstream>

#include "modenum.hpp"
#include "modfatal.hpp"

namespace zendar {
namespace {

using testing::HasSubstr;

struct set_up {
    solver_type solver;
    std::string logged;
};

class SetupSolver : public testing::Test {
  protected:
    SetupSolver() {
        log_.add_stream(text_);
        log_.configure({.max_width = 100'000, .indent = false});
    }
    set_up choose(std::string_view name, std::vector<std::string_view> arguments = {}) {
        text_.str({});
        set_up result;
        setup_solver(result.solver, name, arguments, log_);
        result.logged = text_.str();
        return result;
    }
    std::string fatal_message(std::string_view name, std::vector<std::string_view> arguments) {
        solver_type solver;
        try {
            setup_solver(solver, name, arguments, log_, "\nhere");
        } catch (const fatal_error& error) {
            EXPECT_EQ(solver, solver_type{});
            return error.what();
        }
        return {};
    }

    std::ostringstream text_;
    logger log_;
};

TEST_F(SetupSolver, KnowsTheNamesOfAllSolvers) {
    const std::pair<const char*, std::int32_t> names[] = {
        {"pardiso", 0},          {"fpcg_inmem", 19},     {"pcg_inmem", 20},
        {"pcg_inmem_block", 21}, {"dpcg_inmem", 25},     {"pcg_iod", 120},
        {"dpcg_iod", 125},       {"dpcg_iod_real", 126}, {"cheb_iod", 150}};
    ASSERT_EQ(solvers().size(), std::size(names));
    for (const auto& [name, code] : names) EXPECT_EQ(choose(name, {"7", "3"}).solver.solver, code) << name;
}

TEST_F(SetupSolver, SaysNothingOfASolverWithoutArguments) {
    for (const std::string_view name : {"pardiso", "fpcg_inmem", "pcg_inmem", "pcg_inmem_block", "pcg_iod"}) {
        EXPECT_EQ(choose(name).logged, "");
        EXPECT_EQ(choose(name, {"5"}).solver.solver, choose(name).solver.solver);
    }
}

TEST_F(SetupSolver, IgnoresBlanksAroundTheName) {
    EXPECT_EQ(choose("  pcg_inmem   ").solver.solver, 20);
}

TEST_F(SetupSolver, FallsBackToThePcgOnDataForAnUnknownName) {
    for (const std::string_view name : {"PARDISO", "pcg_io", "pcg_iod_", "x"}) {
        const set_up result = choose(name);
        EXPECT_EQ(result.solver.solver, 120);
        EXPECT_EQ(result.logged,
                  "WARN: The requested solver (" + std::string(name) + ") is not available!\n");
    }
}

TEST_F(SetupSolver, TakesTheEigenvaluesOfTheChebyshevIteration) {
    const set_up result = choose("cheb_iod", {"12.5", "1d-3"});

    EXPECT_EQ(result.solver.solver, 150);
    EXPECT_EQ(result.solver.eigmax, 12.5);
    EXPECT_EQ(result.solver.eigmin, 1e-3);
    EXPECT_EQ(result.logged, " Large | Small eigenvalues: 0.12500000E+02 0.10000000E-02\n");
}

TEST_F(SetupSolver, UsesTheInCorePcgWithoutTheEigenvalues) {
    for (const auto& arguments : {std::vector<std::string_view>{}, {"1.0"}}) {
        const set_up result = choose("cheb_iod", arguments);
        EXPECT_EQ(result.solver.solver, 20);
        EXPECT_EQ(result.logged,
                  "WARN: The small and large eigenvalues are missing! The PCG will be used instead.\n");
    }
}

TEST_F(SetupSolver, TakesTheBlocksOfTheDeflatedPcg) {
    for (const auto& [name, code] : {std::pair("dpcg_inmem", 25), std::pair("dpcg_iod", 125)}) {
        const set_up result = choose(name, {"1000"});
        EXPECT_EQ(result.solver.solver, code);
        EXPECT_EQ(result.solver.neqblock, (std::array<std::int32_t, 2>{1000, 0}));
        EXPECT_EQ(result.logged, "The number of equations per block for DPCG is: 1000\n");
    }
}

TEST_F(SetupSolver, UsesThePcgOfTheSameFamilyWithoutBlocks) {
    for (const auto& [name, code] : {std::pair("dpcg_inmem", 20), std::pair("dpcg_iod", 120)}) {
        const set_up result = choose(name);
        EXPECT_EQ(result.solver.solver, code);
        EXPECT_EQ(result.solver.neqblock, std::nullopt);
        EXPECT_EQ(result.logged,
                  "WARN: The number of equations per block is missing! The PCG will be used instead.\n");
    }
}

TEST_F(SetupSolver, TakesTheFileOfTheDeflationMatrix) {
    const set_up result = choose("dpcg_iod_real", {" vectors.dat "});

    EXPECT_EQ(result.solver.solver, 126);
    EXPECT_EQ(result.solver.deflationmat, "vectors.dat");
}

TEST_F(SetupSolver, StopsWithoutTheFileOfTheDeflationMatrix) {
    EXPECT_EQ(fatal_message("dpcg_iod_real", {}),
              "A file for the deflation matrix must be provided with the option dpcg_iod_real.\nhere");
    EXPECT_THAT(text_.str(), HasSubstr("modsolvertype % setup_solver ("));
}

TEST_F(SetupSolver, RefusesArgumentsThatAreNoNumbers) {
    EXPECT_EQ(fatal_message("cheb_iod", {"x", "1"}),
              "The option !solver cheb_iod: \"x\" is not a number!\nhere");
    EXPECT_EQ(fatal_message("cheb_iod", {"1", "nan"}),
              "The option !solver cheb_iod: \"nan\" is not a number!\nhere");
    EXPECT_EQ(fatal_message("dpcg_iod", {"1.5"}),
              "The option !solver dpcg_iod: \"1.5\" is not an integer!\nhere");
    EXPECT_EQ(fatal_message("dpcg_inmem", {"0"}),
              "The option !solver dpcg_inmem: \"0\" is less than 1!\nhere");
}

TEST(ResetSolver, PutsAllDefaultsBack) {
    solver_type solver;
    solver.solver = 25;
    solver.neqblock = {1, 2};
    solver.conveffs = {1};
    solver.scaleinvprec = {2.0};
    solver.convtype = "cc";
    solver.esteigen = false;

    reset_solver(solver);

    EXPECT_EQ(solver, solver_type{});
}

TEST(SolverType, HasTheDefaultsOfAFreshRun) {
    const solver_type solver;
    EXPECT_EQ(solver.solver, 120);
    EXPECT_EQ(solver.maxiter, 5000);
    EXPECT_EQ(solver.miniter, 4);
    EXPECT_EQ(solver.conveff, 0);
    EXPECT_EQ(solver.convpart, 0);
    EXPECT_EQ(solver.nwritetmpsol, 50);
    EXPECT_EQ(solver.peek_first, 10000);
    EXPECT_EQ(solver.peek_step, 10000);
    EXPECT_EQ(solver.convcrit, 9.999999960041972e-13);
    EXPECT_EQ(solver.convtype, "cr");
    EXPECT_EQ(solver.startsol, "none");
    EXPECT_EQ(solver.tmpsol, "ca491pcn.bin");
    EXPECT_EQ(solver.deflationmat, "none");
    EXPECT_EQ(solver.galerkin, "none");
    EXPECT_EQ(solver.iterfile, "ca452cnv.dat");
    EXPECT_TRUE(solver.esteigen);
}

}  // namespace
}  // namespace zendar
