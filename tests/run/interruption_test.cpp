#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "program_run.hpp"

/// Runs of the program that are stopped, killed, or started from what an earlier run left.
namespace zendar::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::int64_t neq = 3 + 400;

/// Records of 400 levels in an order that makes the iteration take its time, and the options of a run.
void write_model(const temporary_directory& run, const std::string& options) {
    std::mt19937 random(3);
    std::uniform_int_distribution<int> group(1, 3), animal(1, 400), covariate(1, 50);
    std::normal_distribution<double> noise;
    std::string data;
    for (int i = 0; i < 3000; ++i)
        data += std::to_string(group(random)) + " " + std::to_string(animal(random)) + " " +
                std::to_string(10.0 + noise(random)) + "\n";
    run.write("data.txt", data);
    run.write("residual.txt", "1 1 2.5\n");
    run.write("g.txt", "0.5\n");
    run.write("model.par",
              "N_TRAITS\n1\nN_WEIGHTS\n0\nN_EFFECTS\n2\nPOS_TRAITS\n3\nPOS_WEIGHTS\n0\n"
              "POS_EFFECTS TYPE_EFFECT N_LEVEL N_COV POS_NESTED N_LEVEL COV_FILE\n"
              "1 0 3 1 0 0 none\n2 0 400 1 0 0 none\n"
              "N_RESIDUAL_COV\n1 0\nresidual.txt\n"
              "EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n2 1 0 1\ng.txt\nPHENO_FILE\ndata.txt\n" +
                  options);
}

/// Never converges: the iteration goes on until it is stopped.
const std::string endless = "!convcrit 1e-300\n!maxiter 30000\n!miniter 30000\n!noesteigen\n";

std::int64_t lines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

/// Waits until the iteration has written some rows.
bool wait_for_rows(const temporary_directory& run, std::int64_t rows) {
    for (int i = 0; i < 10000; ++i) {
        if (lines(run.read("convergence.dat")) >= rows) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

std::vector<double> doubles(const std::string& bytes) {
    std::vector<double> values(bytes.size() / sizeof(double));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(double));
    return values;
}

TEST(Interruption, SignalsEndTheRunAfterTheCurrentRoundWithItsOutputs) {
    for (const int signal : {SIGINT, SIGTERM}) {
        const temporary_directory run;
        write_model(run, endless);
        running_program program(run.path(), {"model.par", "--ncpus", "2"});
        ASSERT_TRUE(wait_for_rows(run, 5));

        program.send(signal);
        const auto result = program.wait();

        EXPECT_EQ(result.status, 0) << result.out;
        EXPECT_TRUE(run.exists("OK_ZENDAR"));
        EXPECT_EQ(lines(run.read("solutions.dat")), neq);
        EXPECT_EQ(run.read("ca491pcn.bin").size(), neq * sizeof(double));
        EXPECT_THAT(result.out, HasSubstr(signal == SIGINT ? "SIGINT" : "SIGTERM"));
        EXPECT_LT(lines(run.read("convergence.dat")), 30000);
    }
}

TEST(Interruption, AFileNamedStopEndsTheRunAfterTheCurrentRound) {
    const temporary_directory run;
    write_model(run, endless);
    running_program program(run.path(), {"model.par", "--ncpus", "2"});
    ASSERT_TRUE(wait_for_rows(run, 5));

    run.write("STOP", "");
    const auto result = program.wait();

    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(unwrapped(result.out),
                HasSubstr("A file \"STOP\" was found! The PCG will be stopped after the current iteration!"));
    EXPECT_FALSE(run.exists("STOP"));
    EXPECT_TRUE(run.exists("OK_ZENDAR"));
    EXPECT_EQ(lines(run.read("solutions.dat")), neq);
}

TEST(Interruption, AFileNamedStopFromBeforeEndsTheRunWithoutAnUpdate) {
    const temporary_directory run;
    write_model(run, "");
    run.write("STOP", "");

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(lines(run.read("convergence.dat")), 2) << "the header and the start";
    EXPECT_THAT(result.out, HasSubstr("All iterations (1) "));
    EXPECT_FALSE(run.exists("STOP"));
    for (const double v : doubles(run.read("ca491pcn.bin"))) EXPECT_EQ(v, 0.0);
}

TEST(Interruption, TheIterationFileLowersTheLimitOfARunningProgram) {
    const temporary_directory run;
    write_model(run, endless);
    running_program program(run.path(), {"model.par", "--ncpus", "2"});
    ASSERT_TRUE(wait_for_rows(run, 5));

    run.write("ca452cnv.dat", "2\n");
    const auto result = program.wait();

    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("Maximum number of iterations is adjusted"));
    EXPECT_THAT(result.out, HasSubstr("Current number of iterations is 30000"));
    EXPECT_THAT(result.out, HasSubstr("New     number of iterations is 2\n"));
    EXPECT_TRUE(run.exists("OK_ZENDAR"));
}

TEST(Interruption, AnIterationFileOfZeroIsAnError) {
    const temporary_directory run;
    write_model(run, "");
    run.write("ca452cnv.dat", "0\n");

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(unwrapped(result.out), HasSubstr("Illegal value for max. iterations encountered: 0"));
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
}

TEST(Interruption, AnUnreadableOrEmptyIterationFileIsPassedOver) {
    for (const char* text : {"", "many\n"}) {
        const temporary_directory run;
        write_model(run, "");
        run.write("ca452cnv.dat", text);
        const auto result = run_program(run.path(), {"model.par"});
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.out, Not(HasSubstr("adjusted")));
        EXPECT_TRUE(run.exists("ca452cnv.dat"));
    }
}

TEST(Interruption, ARunThatIsKilledAtAnyMomentIsGoneOnWith) {
    const std::string options = "!convcrit 1e-24\n!nwritetmpsol 1\n";
    const temporary_directory whole;
    write_model(whole, options);
    ASSERT_EQ(run_program(whole.path(), {"model.par", "--ncpus", "2"}).status, 0);
    const std::vector<double> expected = doubles(whole.read("ca491pcn.bin"));
    ASSERT_EQ(std::ssize(expected), neq);

    std::mt19937 random(11);
    int with_solutions = 0;
    for (int round = 0; round < 20; ++round) {
        const temporary_directory run;
        write_model(run, options + endless);
        {
            running_program program(run.path(), {"model.par", "--ncpus", "2"});
            // A few die before the iteration, most in it.
            if (round >= 4) {
                ASSERT_TRUE(wait_for_rows(run, 3));
            }
            std::this_thread::sleep_for(
                std::chrono::microseconds(std::uniform_int_distribution<int>(0, 30000)(random)));
            program.send(SIGKILL);
            EXPECT_EQ(program.wait().status, 128 + SIGKILL);
        }
        EXPECT_FALSE(run.exists("OK_ZENDAR"));
        if (run.exists("ca491pcn.bin")) {
            const std::vector<double> left = doubles(run.read("ca491pcn.bin"));
            EXPECT_EQ(std::ssize(left), neq) << "round " << round;
            EXPECT_TRUE(std::ranges::all_of(left, [](double v) { return std::isfinite(v); }));
            ++with_solutions;
        }
        write_model(run, options + "!restart\n");
        const auto result = run_program(run.path(), {"model.par", "--ncpus", "2"});
        ASSERT_EQ(result.status, 0) << result.out;
        const std::vector<double> solutions = doubles(run.read("ca491pcn.bin"));
        ASSERT_EQ(std::ssize(solutions), neq);
        for (std::size_t i = 0; i < solutions.size(); ++i) EXPECT_NEAR(solutions[i], expected[i], 1e-9);
    }
    EXPECT_GE(with_solutions, 10);
}

TEST(Interruption, ARestartFromAConvergedRunKeepsItsSolutions) {
    const temporary_directory run;
    write_model(run, "!convcrit 1e-24\n");
    ASSERT_EQ(run_program(run.path(), {"model.par"}).status, 0);
    const std::vector<double> first = doubles(run.read("ca491pcn.bin"));
    write_model(run, "!convcrit 1e-24\n!restart\n");

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_EQ(result.status, 0);
    const std::vector<double> second = doubles(run.read("ca491pcn.bin"));
    ASSERT_EQ(second.size(), first.size());
    for (std::size_t i = 0; i < first.size(); ++i) EXPECT_NEAR(second[i], first[i], 1e-9);
}

TEST(Interruption, ADamagedFileOfTemporarySolutionsStartsAtZeroWithAWarning) {
    const temporary_directory run;
    write_model(run, "!restart\n");
    run.write("ca491pcn.bin", "damaged");

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(unwrapped(result.out), HasSubstr("Issue while reading binary file: ca491pcn.bin"));
    EXPECT_THAT(result.out, HasSubstr("The vector will be set to 0"));
    EXPECT_EQ(lines(run.read("solutions.dat")), neq);
}

TEST(Interruption, AStartFileOfAnotherModelIsNotUsed) {
    const temporary_directory run;
    write_model(run, "!restart\n");
    run.write("ca491pcn.bin", std::string(8 * (neq + 1), '\0'));

    const auto raw = run_program(run.path(), {"model.par"});
    EXPECT_EQ(raw.status, 0);
    EXPECT_THAT(unwrapped(raw.out), HasSubstr("Issue while reading binary file: ca491pcn.bin"));

    write_model(run, "!startsol other.dat\n");
    run.write("other.dat", "1 1 1 0 10.0\n1 2 401 0 0.5\n");
    const auto text = run_program(run.path(), {"model.par"});
    EXPECT_EQ(text.status, 1);
    EXPECT_THAT(unwrapped(text.out), HasSubstr("row 2 of the file other.dat has no equation in the model"));
}

TEST(Interruption, AFullDiskIsNamedWithTheRightHandSide) {
    const temporary_directory run;
    write_model(run, "");
    run.write("data.txt", "1 1 10.5\n2 3 9.5\n");
    std::string par = run.read("model.par");
    run.write("model.par", par.replace(par.find("2 0 400"), 7, "2 0 9000"));
    // Files of at most 48 KiB: the right-hand side takes 70 KiB, and nothing else as much.
    const auto result = run_program(
        run.path(), {"-c", "trap '' XFSZ; ulimit -f 48; exec " + program_file() + " model.par"}, "/bin/bash");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(unwrapped(result.out), HasSubstr("rhstmp.stream"));
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
    EXPECT_FALSE(run.exists("rhstmp.stream"));
    EXPECT_FALSE(run.exists("solutions.dat"));
}

TEST(Interruption, AFullDiskStopsTheRunWithAnError) {
    const temporary_directory run;
    write_model(run, "");
    // Files of at most 2 KiB: the phenotypes no longer fit.
    const auto result = run_program(
        run.path(), {"-c", "trap '' XFSZ; ulimit -f 2; exec " + program_file() + " model.par --noscreen"},
        "/bin/bash");
    EXPECT_EQ(result.status, 1);
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
    EXPECT_FALSE(run.exists("rhstmp.stream"));
    EXPECT_FALSE(run.exists("solutions.dat"));
}

}  // namespace
}  // namespace zendar::test
