#include "modheader.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <sstream>
#include <vector>

#include "modbasic.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

const std::string asterisks(82, '*');
const std::string margin = "              ";
const std::string box =
    "                                     **********\n"
    "                                     * ZENDAR *\n"
    "                                     **********\n";
const std::string time_form = "[0-9]{2}-[0-9]{2}-[0-9]{4} at [0-9]{2}h [0-9]{2}m [0-9]{2}s";

class Header : public ::testing::Test {
  protected:
    Header() { log.add_stream(screen); }

    std::string written() {
        std::string text = screen.str();
        screen.str("");
        return text;
    }

    /// The marker file is made in the working directory.
    test::temporary_directory here;
    test::working_directory inside{here.path()};
    std::ostringstream screen;
    logger log;
};

TEST_F(Header, BoxesTheTitle) {
    write_nameprog(log, "ZENDAR");
    EXPECT_EQ(written(), box);

    write_nameprog(log, "ZENDAR   ");  // trimmed
    EXPECT_EQ(written(), box);

    write_nameprog(log, "ABCDE");  // (78 - 5) / 2 + 1 = 37 as well
    EXPECT_THAT(written(),
                StartsWith(std::string(37, ' ') + "*********\n" + std::string(37, ' ') + "* ABCDE *\n"));

    write_nameprog(log, "");
    EXPECT_THAT(written(), StartsWith(std::string(40, ' ') + "****\n" + std::string(40, ' ') + "*  *\n"));
}

TEST_F(Header, SurvivesATitleWiderThanTheLine) {
    write_nameprog(log, std::string(200, 'T'));

    EXPECT_THAT(written(), HasSubstr("TTTT"));
}

TEST_F(Header, WritesTheLocalTimeWithZeros) {
    const std::time_t before = std::time(nullptr);
    write_time(log, "Now: ");
    const std::time_t after = std::time(nullptr);

    const std::string line = written();
    ASSERT_THAT(line, MatchesRegex("Now: " + time_form + "\n"));
    EXPECT_EQ(line.size(), 5U + 25U + 1U);
    std::array<int, 6> n{};
    ASSERT_EQ(
        std::sscanf(line.c_str(), "Now: %d-%d-%d at %dh %dm %ds", &n[0], &n[1], &n[2], &n[3], &n[4], &n[5]),
        6);
    std::tm told{};
    told.tm_mday = n[0];
    told.tm_mon = n[1] - 1;
    told.tm_year = n[2] - 1900;
    told.tm_hour = n[3];
    told.tm_min = n[4];
    told.tm_sec = n[5];
    told.tm_isdst = -1;
    const std::time_t time = std::mktime(&told);
    EXPECT_GE(time, before);
    EXPECT_LE(time, after);
}

TEST_F(Header, TellsTheBuildTheHostAndTheThreads) {
    run_banner banner("ZENDAR");
    const build_stamp build{"GCC 12.2.0", "Nov 21 2026", "02:31:06", "1.2.3", "0123456789", false};
    std::array<char, 65> host{};
    ASSERT_EQ(gethostname(host.data(), host.size()), 0);
    const int threads = omp_get_max_threads();
    omp_set_num_threads(2);

    banner.header(log, build);
    omp_set_num_threads(threads);

    const std::string text = written();
    const std::string expected = asterisks + "\n" + box + margin + "Compiler: GCC 12.2.0\n" + margin +
                                 "Compiled on Nov 21 2026 at 02:31:06\n" + margin + "Version: 1.2.3\n" +
                                 margin + "Commit : 0123456\n" + margin + "Compiled for Intel CPUs\n" +
                                 margin + "Host   : " + host.data() + "\n" + margin +
                                 "Number of threads for OpenMP: 2\n" + margin +
                                 "Number of threads for MKL   : 2\n\n" + margin + "Start on ";
    ASSERT_THAT(text, StartsWith(expected));
    const std::string rest = text.substr(expected.size());
    EXPECT_THAT(rest.substr(0, 25), MatchesRegex(time_form));
    EXPECT_EQ(rest.substr(25), "\n\n" + asterisks + "\n\n");
}

TEST_F(Header, LeavesOutVersionAndCommitThatAreNotGiven) {
    run_banner banner("ZENDAR");

    banner.header(log, {"GCC", "today", "now", "", "", true});

    const std::string text = written();
    EXPECT_THAT(text, Not(HasSubstr("Version")));
    EXPECT_THAT(text, Not(HasSubstr("Commit")));
    EXPECT_THAT(text, HasSubstr(margin + "Compiled on today at now\n" + margin +
                                "Compiled for Intel CPUs + NVIDIA GPUs\n" + margin + "Host   : "));
}

TEST_F(Header, TurnsOnTheIndentAfterTheBannerOnly) {
    log.configure({.max_width = 20, .indent = true});
    run_banner banner("ZENDAR");

    banner.header(log, {std::string(100, 'c'), "d", "t", "", "", false});

    EXPECT_EQ(log.layout().max_width, 82);
    EXPECT_TRUE(log.layout().indent);
    EXPECT_THAT(written(), HasSubstr(margin + "Compiler:\n" + std::string(82, 'c') + "\n" +
                                     std::string(18, 'c') + "\n"));
}

TEST_F(Header, RemovesAnOldMarker) {
    here.write("OK_ZENDAR", "");
    run_banner banner("ZENDAR");

    banner.header(log, this_build());

    EXPECT_FALSE(here.exists("OK_ZENDAR"));
}

TEST_F(Header, EndsTheRunWhenAnOldMarkerCannotBeRemoved) {
    std::filesystem::create_directory(here / "OK_ZENDAR");
    run_banner banner("ZENDAR");

    EXPECT_THROW(banner.header(log, this_build()), fatal_error);

    EXPECT_THAT(written(), HasSubstr("I/O ERROR: Cannot remove the file OK_ZENDAR\n    With iostat = 21\n"
                                     "    With iomsg = \"Is a directory\"\n"));
    EXPECT_TRUE(here.exists("OK_ZENDAR"));
}

TEST_F(Header, RemovesTheMarkerIfThereIsOne) {
    const run_banner banner("ZENDAR");

    banner.remove_marker(log);
    here.write("OK_ZENDAR", "");
    banner.remove_marker(log);

    EXPECT_FALSE(here.exists("OK_ZENDAR"));
    EXPECT_EQ(written(), "");
}

TEST_F(Header, KnowsItsOwnBuild) {
    const build_stamp build = this_build();

    EXPECT_THAT(build.compiler, HasSubstr(__VERSION__));
    EXPECT_THAT(build.compiler, ::testing::ContainsRegex("GCC|[Cc]lang"));
    EXPECT_THAT(build.date, MatchesRegex("[A-Z][a-z][a-z] [ 0-9][0-9] [0-9]+"));
    EXPECT_THAT(build.time, MatchesRegex("[0-9]+:[0-9]+:[0-9]+"));
    EXPECT_THAT(build.version, MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+"));
    EXPECT_TRUE(build.commit.empty() || build.commit.size() == 7) << build.commit;
    EXPECT_EQ(build.gpu,
              std::filesystem::exists(std::filesystem::read_symlink("/proc/self/exe").parent_path() /
                                      "libzendar_gpu.so"));
}

using Endheader = Header;

TEST_F(Endheader, TellsTheEndAndTheElapsedTime) {
    run_banner banner("ZENDAR");
    banner.header(log, this_build());
    written();

    banner.endheader(log);

    const std::string text = written();
    const std::string start = box + "\n" + margin + "End on ";
    ASSERT_THAT(text, StartsWith(start));
    const std::string rest = text.substr(start.size());
    EXPECT_THAT(rest, MatchesRegex(time_form + "\n" + margin +
                                   "Elapsed time \\(s\\): [0-9]?\\.[0-9]{2}\n\n[*]{82}\n"));
}

TEST_F(Endheader, MeasuresFromTheHeaderOn) {
    run_banner banner("ZENDAR");
    banner.header(log, this_build());
    usleep(120'000);

    banner.endheader(log);

    const std::string text = written();
    const auto at = text.find("Elapsed time (s): ");
    ASSERT_NE(at, std::string::npos);
    const double seconds = std::stod(text.substr(at + 18));
    EXPECT_GE(seconds, 0.11);
    EXPECT_LT(seconds, 60.0);
}

TEST_F(Endheader, CreatesTheEmptyMarker) {
    here.write("OK_ZENDAR", "old text");
    run_banner banner("ZENDAR  ");

    banner.endheader(log);

    EXPECT_TRUE(here.exists("OK_ZENDAR"));
    EXPECT_EQ(here.read("OK_ZENDAR"), "");
}

TEST_F(Endheader, EndsTheRunWhenTheMarkerCannotBeCreated) {
    std::filesystem::create_directory(here / "OK_ZENDAR");
    run_banner banner("ZENDAR");
    try {
        banner.endheader(log);
        FAIL() << "no fatal_error";
    } catch (const fatal_error& e) {
        EXPECT_STREQ(e.what(), "Cannot create the file OK_ZENDAR");
    }
    EXPECT_THAT(written(), ::testing::ContainsRegex(
                               "\nmodheader % endheader \\([0-9]+\\): I/O ERROR: Cannot create the file "
                               "OK_ZENDAR\nWith iostat = 21\nWith iomsg = \"Is a directory\"\n$"));
}

class RunScript : public Header {
  protected:
    /// Runs the script and returns the exit status of its failure, 0 without one.
    int status_of(std::string_view text) {
        here.write("before_zendar", text);
        try {
            run_script(log, "before_zendar");
        } catch (const fatal_error& e) {
            return e.status();
        }
        return 0;
    }
};

TEST_F(RunScript, ReturnsWithoutAWordWhenThereIsNoFile) {
    run_script(log, "before_zendar");
    here.write("file", "");
    run_script(log, "file/before_zendar");

    EXPECT_EQ(written(), "");
}

TEST_F(RunScript, RunsLineByLineInTheWorkingDirectory) {
    EXPECT_EQ(status_of("echo one > out.txt\necho two >> out.txt   \r\n  echo \"a  b\" >> out.txt"), 0);

    EXPECT_EQ(here.read("out.txt"), "one\ntwo\na  b\n");
    EXPECT_EQ(written(),
              "INFO:  Will perform: echo one > out.txt\nINFO:  Will perform: echo two >> out.txt\n"
              "INFO:  Will perform:   echo \"a  b\" >> out.txt\n");
}

TEST_F(RunScript, RunsBlankLinesHarmlessly) {
    EXPECT_EQ(status_of("\n   \ntrue\n"), 0);

    EXPECT_EQ(written(), "INFO:  Will perform: \nINFO:  Will perform: \nINFO:  Will perform: true\n");
}

TEST_F(RunScript, RunsNothingOfAnEmptyFile) {
    EXPECT_EQ(status_of(""), 0);

    EXPECT_EQ(written(), "");
}

TEST_F(RunScript, EndsTheRunWithTheStatusOfTheCommand) {
    EXPECT_EQ(status_of("true\nexit 7\necho never > out.txt\n"), 7);

    EXPECT_FALSE(here.exists("out.txt"));
    EXPECT_THAT(written(), MatchesRegex("INFO:  Will perform: true\nINFO:  Will perform: exit 7\n"
                                        "modheader % run_script \\([0-9]+\\): ERROR: Non-zero exit code\n"));
}

TEST_F(RunScript, TellsAKilledCommandAsAShellDoes) {
    EXPECT_EQ(status_of("kill -9 $$\n"), 137);
    EXPECT_EQ(status_of("/nowhere/no_such_command 2>/dev/null\n"), 127);
}

TEST_F(RunScript, LogsBeforeTheCommandRuns) {
    log.add_log_file(here / "log.dat");

    EXPECT_EQ(status_of("cp log.dat copy.dat\n"), 0);

    EXPECT_EQ(here.read("copy.dat"), "INFO:  Will perform: cp log.dat copy.dat\n");
}

TEST_F(RunScript, DoesNotHandTheLogFileToTheCommand) {
    log.add_log_file(here / "log.dat");

    EXPECT_EQ(status_of("ls -l /proc/self/fd > fds.txt\n"), 0);

    EXPECT_THAT(here.read("fds.txt"), Not(HasSubstr("log.dat")));
    EXPECT_THAT(here.read("fds.txt"), Not(HasSubstr("before_zendar")));
}

TEST_F(RunScript, TakesALineOfAThousandCharacters) {
    const std::string line = "true " + std::string(995, 'x');
    ASSERT_EQ(line.size(), 1000U);

    EXPECT_EQ(status_of(line + "     \n"), 0);
}

TEST_F(RunScript, RefusesALineThatIsTooLong) {
    EXPECT_EQ(status_of("true\ntrue " + std::string(996, 'x') + "\n"), 1);

    EXPECT_THAT(written(),
                MatchesRegex("INFO:  Will perform: true\nmodheader % run_script \\([0-9]+\\): ERROR: "
                             "Line 2 of the file before_zendar has more\nthan 1000 characters\n"));
}

TEST_F(RunScript, RefusesALineThatIsNoText) {
    EXPECT_EQ(status_of(std::string_view("touch a\0b\n", 10)), 1);

    const std::string text = written();
    EXPECT_THAT(text, HasSubstr("ERROR: Line 1 of the file before_zendar is"));
    EXPECT_THAT(text, EndsWith("NUL character\n"));
    EXPECT_FALSE(here.exists("a"));
}

TEST_F(RunScript, EndsTheRunWhenTheScriptIsADirectory) {
    std::filesystem::create_directory(here / "before_zendar");

    EXPECT_THROW(run_script(log, "before_zendar"), fatal_error);

    EXPECT_THAT(written(),
                MatchesRegex("modheader % run_script \\([0-9]+\\): I/O ERROR: Cannot open the file "
                             "before_zendar\nWith iostat = 21\nWith iomsg = \"Is a directory\"\n"));
}

TEST_F(RunScript, EndsTheRunWhenTheScriptCannotBeRead) {
    EXPECT_THROW(run_script(log, "/proc/self/mem"), fatal_error);

    EXPECT_THAT(written(),
                MatchesRegex("modheader % run_script \\([0-9]+\\): I/O ERROR: Cannot read the file "
                             "/proc/self/mem\nWith iostat = 5\nWith iomsg = \"Input/output error\"\n"));
}

}  // namespace
}  // namespace zendar
