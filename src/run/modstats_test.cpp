#include "modstats.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <sstream>
#include <thread>

#include "modbasic.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

class Stats : public ::testing::Test {
  protected:
    Stats() { log.add_stream(screen); }

    std::string written() {
        std::string text = screen.str();
        screen.str("");
        return text;
    }

    /// CPU time that the compiler cannot take away.
    static void burn(double seconds) {
        const wtime clock;
        volatile double sum = 0.0;
        while (clock.seconds() < seconds)
            for (int i = 0; i < 1000; ++i) sum = sum + 1.0;
    }

    std::ostringstream screen;
    logger log;
};

using Cputime = Stats;

TEST_F(Cputime, StandsOutWithALineOfAsterisks) {
    const cputime stage(log, "START: reading parameter file");

    EXPECT_EQ(written(), std::string(82, '*') + "\nSTART: reading parameter file\n");
}

TEST_F(Cputime, ReportsBothTimesAndTheirRatio) {
    report_cputime(log, 6.0, 4.0, "END: reading parameter file");

    EXPECT_EQ(written(),
              "\nCPU time (s)       : 6.000\nWall clock time (s): 4.000\n\"Speedup\"          : 1.500\n"
              "END: reading parameter file\n");
}

TEST_F(Cputime, PrintsTheSpeedupOfAZeroWallTimeAsTheFormatGivesIt) {
    const double infinity = std::numeric_limits<double>::infinity();
    report_cputime(log, 1.0, 0.0, "END");
    EXPECT_THAT(written(), HasSubstr("\"Speedup\"          : " + realtochar(infinity, "(f0.3)") + "\nEND\n"));

    report_cputime(log, 0.0, 0.0, "END");
    EXPECT_THAT(written(), HasSubstr("\"Speedup\"          : NaN\nEND\n"));
}

TEST_F(Cputime, CountsTheTimeBetweenStartAndEnd) {
    cputime busy(log, "START");
    burn(0.05);
    written();
    busy.end("END");

    std::istringstream lines(written());
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "");
    std::getline(lines, line);
    ASSERT_THAT(line, StartsWith("CPU time (s)       : "));
    EXPECT_GT(std::stod(line.substr(21)), 0.001);
    std::getline(lines, line);
    ASSERT_THAT(line, StartsWith("Wall clock time (s): "));
    EXPECT_GE(std::stod(line.substr(21)), 0.05);
}

TEST_F(Cputime, CountsWaitingAsWallTimeOnly) {
    cputime idle(log, "START");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    written();
    idle.end("END");

    const std::string report = written();
    const double cpu = std::stod(report.substr(report.find(": ") + 2));
    EXPECT_LT(cpu, 0.05) << report;
}

TEST_F(Cputime, AddsUpAllThreads) {
    cputime stage(log, "START");
    std::thread other([] { burn(0.1); });
    other.join();
    written();
    stage.end("END");

    const std::string report = written();
    EXPECT_GT(std::stod(report.substr(report.find(": ") + 2)), 0.01) << report;
}

using Wtime = Stats;

TEST_F(Wtime, LogsTheTextAndTheSeconds) {
    const wtime clock;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    clock.end(log, "Read phen");

    const std::string line = written();
    EXPECT_THAT(line, MatchesRegex("Read phen - Wall clock time \\(s\\): [0-9]*\\.[0-9][0-9][0-9]\n"));
    EXPECT_GE(std::stod(line.substr(line.find(": ") + 2)), 0.02);
    EXPECT_GE(clock.seconds(), 0.02);
}

using Vmstat = Stats;

TEST_F(Vmstat, LogsTheMemoryLinesInTheirOrder) {
    const test::temporary_directory here;
    const auto file = here.write("status",
                                 "Name:\tzendar\nVmPeak:\t   10 kB\nVmSize:\t 9 kB\nVmLck:\t 0 kB\n"
                                 "VmPin:\t 0 kB\nVmHWM:\t 8 kB\nVmRSS:\t 7 kB\nVmHWMx\nRssAnon:\t 7 kB\n"
                                 "VmData:\t 6 kB\nVmStk:\t 5 kB\nVmExe:\t 4 kB\nVmSwap:\t 0 kB\n VmRSS:\n");

    vmstat(log, "After reading", file.c_str());

    EXPECT_EQ(written(),
              "After reading\nVmPeak:\t   10 kB\nVmSize:\t 9 kB\nVmHWM:\t 8 kB\nVmRSS:\t 7 kB\n"
              "VmData:\t 6 kB\nVmStk:\t 5 kB\nVmSwap:\t 0 kB\n");
}

TEST_F(Vmstat, PrintsNothingWithoutTheFile) {
    const test::temporary_directory here;

    vmstat(log, "After reading", (here / "status").c_str());

    EXPECT_EQ(written(), "");
}

TEST_F(Vmstat, ReadsTheStatusOfThisProcess) {
    vmstat(log, "Memory");

    const std::string report = written();
    EXPECT_THAT(report, StartsWith("Memory\n"));
    EXPECT_THAT(report, HasSubstr("\nVmPeak:"));
    EXPECT_THAT(report, HasSubstr("\nVmRSS:"));
}

using Progressloop = Stats;

TEST_F(Progressloop, PrintsOnlyWhenThePercentageHasGrown) {
    progress_line progress(log);

    for (std::int64_t i = 1; i <= 1000; ++i) progress.progressloop(i, 1000);

    std::string expected;
    for (int p = 1; p < 100; ++p) expected += "  " + std::to_string(p) + "%";
    EXPECT_EQ(written(), expected + "  100%\n");
}

TEST_F(Progressloop, StartsAgainAfterAHundred) {
    progress_line progress(log);

    for (int run = 0; run < 2; ++run)
        for (std::int64_t i = 1; i <= 3; ++i) progress.progressloop(i, 3);

    EXPECT_EQ(written(), "  33%  66%  100%\n  33%  66%  100%\n");
}

TEST_F(Progressloop, PrintsNothingBeforeTheFirstPercent) {
    progress_line progress(log);

    progress.progressloop(0, 10);
    progress.progressloop(-1, 10);
    progress.progressloop(9, 1000);
    progress.progressloop(1, 0);
    progress.progressloop(1, -5);

    EXPECT_EQ(written(), "");
}

TEST_F(Progressloop, EndsTheLineWhenAHundredIsPassed) {
    progress_line progress(log);

    progress.progressloop(9, 10);
    progress.progressloop(11, 10);
    progress.progressloop(1, 10);

    EXPECT_EQ(written(), "  90%  100%\n  10%");
}

TEST_F(Progressloop, StaysOffTheLogFile) {
    const test::temporary_directory here;
    log.add_log_file(here / "log.dat");
    progress_line progress(log);

    progress.progressloop(1, 1);

    EXPECT_EQ(here.read("log.dat"), "");
}

TEST_F(Progressloop, CountsLoopsOfAnyLength) {
    progress_line progress(log);
    const std::int64_t n = 1'000'000'000'000'000'000;

    progress.progressloop(n / 2, n);
    progress.progressloop(n, n);

    EXPECT_EQ(written(), "  50%  100%\n");
}

}  // namespace
}  // namespace zendar
