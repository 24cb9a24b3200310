#include "modsolvertype_control.hpp"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <csignal>

#include "captured_log.hpp"
#include "modstop.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using testing::HasSubstr;

class CheckContinue : public testing::Test {
  protected:
    CheckContinue() : inside_(directory_.path()) { solver_.maxiter = 100; }
    ~CheckContinue() override { reset_stop(); }

    /// The running limit after one check.
    std::int32_t check(std::int32_t limit) {
        check_continue(solver_, limit, log_);
        return limit;
    }

    test::temporary_directory directory_;
    test::working_directory inside_;
    test::captured_log log_;
    solver_type solver_;
};

TEST_F(CheckContinue, ChangesNothingWithoutFiles) {
    EXPECT_EQ(check(100), 100);
    EXPECT_EQ(log_.text(), "");
}

TEST_F(CheckContinue, StopsForTheFileStopAndRemovesIt) {
    directory_.write("STOP", "");
    directory_.write("ca452cnv.dat", "50");

    EXPECT_EQ(check(100), 1);
    EXPECT_FALSE(directory_.exists("STOP"));
    EXPECT_TRUE(directory_.exists("ca452cnv.dat"));
    EXPECT_EQ(log_.text(),
              "WARN: A file \"STOP\" was found! The PCG will be stopped after the current iteration!\n");
}

TEST_F(CheckContinue, LeavesADirectoryNamedStopAlone) {
    std::filesystem::create_directory("STOP");
    EXPECT_EQ(check(100), 100);
    EXPECT_TRUE(directory_.exists("STOP"));
}

TEST_F(CheckContinue, StopsForASignal) {
    install_stop_handlers();
    std::raise(SIGINT);
    directory_.write("ca452cnv.dat", "50");

    EXPECT_EQ(check(100), 1);
    EXPECT_EQ(log_.text(),
              "WARN: The signal SIGINT was received! The PCG will be stopped after the current iteration!\n");
}

TEST_F(CheckContinue, TakesTheLimitOfTheIterationFile) {
    directory_.write("ca452cnv.dat", " 30 40\n");

    EXPECT_EQ(check(100), 30);
    EXPECT_EQ(log_.text(),
              "Maximum number of iterations is adjusted\nCurrent number of iterations is 100\n"
              "New     number of iterations is 30\n");
    EXPECT_TRUE(directory_.exists("ca452cnv.dat"));
}

TEST_F(CheckContinue, SaysNothingOfTheLimitInForce) {
    directory_.write("ca452cnv.dat", "30");
    EXPECT_EQ(check(30), 30);
    EXPECT_EQ(log_.text(), "");
}

TEST_F(CheckContinue, LimitsTheIterationFileByMaxiter) {
    directory_.write("ca452cnv.dat", "101");
    EXPECT_EQ(check(30), 100);
    EXPECT_THAT(log_.text(), HasSubstr("New     number of iterations is 100\n"));
}

TEST_F(CheckContinue, ReadsTheFileThatWasNamed) {
    solver_.iterfile = "mine.txt";
    directory_.write("ca452cnv.dat", "10");
    directory_.write("mine.txt", "\n\n20,\n");
    EXPECT_EQ(check(100), 20);
}

TEST_F(CheckContinue, TakesANegativeLimit) {
    directory_.write("ca452cnv.dat", "-5");
    EXPECT_EQ(check(100), -5);
}

TEST_F(CheckContinue, RefusesALimitOfZero) {
    directory_.write("ca452cnv.dat", "0");
    EXPECT_EQ(test::fatal_message([&] { check(100); }), "Illegal value for max. iterations encountered: 0");
    EXPECT_THAT(log_.text(), HasSubstr("ERROR: Illegal value"));
    EXPECT_THAT(log_.text(), HasSubstr("modsolvertype % check_continue ("));
}

TEST_F(CheckContinue, AcceptsALimitOfZeroThatIsInForce) {
    directory_.write("ca452cnv.dat", "0");
    EXPECT_EQ(check(0), 0);
    solver_.maxiter = 0;
    directory_.write("ca452cnv.dat", "7");
    EXPECT_EQ(check(0), 0);
}

TEST_F(CheckContinue, PassesOverAFileThatCannotBeRead) {
    for (const std::string text : {"", "\n", "  \n\n", "x", "1.5", "99999999999", "12abc", ",", "\"4"}) {
        directory_.write("ca452cnv.dat", text);
        EXPECT_EQ(check(100), 100) << text;
    }
    directory_.write("ca452cnv.dat", std::string(100000, '7'));
    EXPECT_EQ(check(100), 100);
    std::filesystem::remove("ca452cnv.dat");
    std::filesystem::create_directory("ca452cnv.dat");
    EXPECT_EQ(check(100), 100);
    std::filesystem::remove("ca452cnv.dat");
    ASSERT_EQ(mkfifo("ca452cnv.dat", 0600), 0);  // opening it would wait for a writer
    EXPECT_EQ(check(100), 100);
    EXPECT_EQ(log_.text(), "");
}

}  // namespace
}  // namespace zendar
