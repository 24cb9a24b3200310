#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "program_run.hpp"

namespace zendar::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

const std::string asterisks(82, '*');

std::string option_manual_begin() {
    return "+++++ MANUAL: options for the model available through the parameter file +++++";
}

TEST(Driver, HelpPrintsUsageAndManualAndEndsWithTheMarker) {
    const temporary_directory run;

    const auto result = run_program(run.path(), {"--help"});

    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("Program to solve linear systems of equations."));
    for (const char* name : {"--help, -h", "--markdown, -md", "--ncpus, --nthreads value", "--noscreen",
                             "REL, r value", "--ebvpev", "--verbose, -vb"})
        EXPECT_THAT(result.out, HasSubstr(name));
    EXPECT_THAT(result.out, HasSubstr("Print this help"));
    EXPECT_THAT(result.out,
                HasSubstr("Option for computing both EBVs and reliabilities (currently only for the "
                          "inmem solvers)"));
    const auto usage = result.out.find("Print this help"), model = result.out.find(option_manual_begin()),
               solver = result.out.find(
                   "+++++ MANUAL: options for the solver available through the parameter file +++++"),
               other =
                   result.out.find("+++++ MANUAL: other options available through the parameter file +++++"),
               end = result.out.find("+++++ End of manual for other options +++++");
    EXPECT_LT(usage, model);
    EXPECT_LT(model, solver);
    EXPECT_LT(solver, other);
    EXPECT_LT(other, end);
    EXPECT_NE(end, std::string::npos);
    EXPECT_THAT(run.read("log_zendar.dat"), HasSubstr(option_manual_begin()));
    EXPECT_THAT(run.read("log_zendar.dat"), Not(HasSubstr("Print this help\n")));
    EXPECT_TRUE(run.exists("OK_ZENDAR"));
}

TEST(Driver, ShortSwitchesCount) {
    const temporary_directory run;

    EXPECT_THAT(run_program(run.path(), {"-h"}).out, HasSubstr(option_manual_begin()));
    EXPECT_EQ(run_program(run.path(), {"-md"}).status, 0);
    EXPECT_THAT(run_program(run.path(), {"-vb", "-h"}).out, HasSubstr(option_manual_begin()));
    EXPECT_THAT(run_program(run.path(), {"--nthreads", "1", "-h"}).out,
                HasSubstr("   Provided number of threads for OpenMP/MKL: 1\n"));
}

TEST(Driver, MarkdownWritesTheManualAndEndsQuietly) {
    const temporary_directory run;
    run.write("OK_ZENDAR", "");

    const auto result = run_program(run.path(), {"--markdown"});

    EXPECT_EQ(result.status, 0);
    const std::string manual = run.read("zendar.md");
    const auto usage = manual.find("Print this help"),
               model = manual.find("### Options for the model available through the parameter file"),
               solver = manual.find("### Options for the solver available through the parameter file"),
               other = manual.find("### Other options available through the parameter file");
    EXPECT_LT(usage, model);
    EXPECT_LT(model, solver);
    EXPECT_LT(solver, other);
    EXPECT_NE(other, std::string::npos);
    EXPECT_THAT(manual, Not(HasSubstr("End of manual")));
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
    EXPECT_THAT(result.out, Not(HasSubstr("End on ")));
}

TEST(Driver, OpeningAndClosingBanners) {
    const temporary_directory run;

    const auto result = run_program(run.path(), {"--help"});

    const std::string out = result.out;
    EXPECT_THAT(out, StartsWith(asterisks + "\n"));
    const std::string pad((78 - 6) / 2 + 1, ' ');
    EXPECT_THAT(out, HasSubstr(pad + "**********\n" + pad + "* ZENDAR *\n" + pad + "**********\n"));
    const std::string indent(14, ' ');
    for (const char* piece : {"Compiler: ", "Compiled on ", "Version: ", "Host   : ",
                              "Number of threads for OpenMP: ", "Number of threads for MKL   : "})
        EXPECT_THAT(out, HasSubstr("\n" + indent + piece));
    EXPECT_TRUE(std::regex_search(
        out, std::regex(indent + "Start on [0-9]{2}-[0-9]{2}-[0-9]{4} at [0-9]{2}h [0-9]{2}m [0-9]{2}s\n")));
    EXPECT_TRUE(std::regex_search(
        out, std::regex(indent + "End on [0-9]{2}-[0-9]{2}-[0-9]{4} at [0-9]{2}h [0-9]{2}m [0-9]{2}s\n")));
    EXPECT_TRUE(std::regex_search(out, std::regex(indent + "Elapsed time \\(s\\): [0-9]*\\.[0-9]{2}\n")));
    EXPECT_EQ(out.substr(out.size() - 84), "\n" + asterisks + "\n");
}

TEST(Driver, NoscreenIsHonouredBeforeTheCommandLineIsParsed) {
    const temporary_directory run;

    const auto result = run_program(run.path(), {"--noscreen", "--no-such-switch"});

    EXPECT_NE(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.error, HasSubstr("--no-such-switch"));
    EXPECT_THAT(run.read("log_zendar.dat"), HasSubstr("* ZENDAR *"));
}

TEST(Driver, ABadCommandLinePrintsTheClosingBannerAndLeavesTheMarker) {
    for (const auto& words : std::vector<std::vector<std::string>>{{"--ebvpev", "r", "1"},
                                                                   {"REL", "1", "--ebvpev"},
                                                                   {"--unknown"},
                                                                   {"a.par", "b.par"},
                                                                   {"--ncpus"},
                                                                   {"r", "--verbose"},
                                                                   {"--help", "--help"}}) {
        const temporary_directory run;

        const auto result = run_program(run.path(), words);

        EXPECT_NE(result.status, 0) << words[0];
        EXPECT_THAT(result.out, HasSubstr("End on ")) << words[0];
        EXPECT_THAT(result.error, HasSubstr("zendar: error: ")) << words[0];
        EXPECT_TRUE(run.exists("OK_ZENDAR")) << words[0];
    }
}

TEST(Driver, WithoutAnArgumentTheFileNoneIsMissing) {
    const temporary_directory run;
    run.write("OK_ZENDAR", "");

    const auto result = run_program(run.path(), {});

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("Parameter file: none"));
    EXPECT_THAT(result.out, HasSubstr("I/O ERROR: Cannot open the file none"));
    EXPECT_THAT(result.out, HasSubstr("With iostat = 2"));
    EXPECT_THAT(result.out, HasSubstr("With iomsg = \"No such file or directory\""));
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
}

TEST(Driver, RelUndefIsTheSameAsNoRel) {
    const temporary_directory run;
    model_files().write(run);

    const auto without = run_program(run.path(), {"model.par"});
    const auto with = run_program(run.path(), {"model.par", "r", "undef"});
    const auto given = run_program(run.path(), {"model.par", "r", "1"});

    EXPECT_EQ(without.status, 0);
    EXPECT_EQ(with.status, 0);
    EXPECT_THAT(with.out, HasSubstr("END: solving the MME\n"));
    // Reliabilities are computed without solving.
    EXPECT_THAT(given.out, Not(HasSubstr("START: solving the MME")));
    EXPECT_EQ(given.status, 1);
    EXPECT_THAT(unwrapped(given.out),
                HasSubstr("ERROR: PEV (PEC) for this type of solver 120 is not implemented"));
}

TEST(Driver, NcpusBelowOneSaysNothing) {
    const temporary_directory run;

    for (const char* value : {"0", "-3"}) {
        const auto result = run_program(run.path(), {"--help", "--ncpus", value});
        EXPECT_EQ(result.status, 0) << value;
        EXPECT_THAT(result.out, Not(HasSubstr("Provided number of threads")));
    }
    EXPECT_THAT(run_program(run.path(), {"--help", "--ncpus", "3"}).out,
                HasSubstr("   Provided number of threads for OpenMP/MKL: 3\n"));
}

TEST(Driver, NcpusThatIsNoNumberOrTooLargeStops) {
    const temporary_directory run;

    const auto word = run_program(run.path(), {"--help", "--ncpus", "many"});
    const auto large = run_program(run.path(), {"--help", "--ncpus", "2000000"});

    EXPECT_EQ(word.status, 1);
    EXPECT_THAT(unwrapped(word.out), HasSubstr("ERROR: Issue with the argument --ncpus with FLAP error 2"));
    EXPECT_EQ(large.status, 1);
    EXPECT_THAT(unwrapped(large.out), HasSubstr("ERROR: The value of --ncpus is above 1024: 2000000"));
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
}

TEST(Driver, TheStartScriptRunsBeforeTheBanner) {
    const temporary_directory run;
    run.write("before_zendar", "echo one > first.txt\n  echo two > second.txt\n");

    const auto result = run_program(run.path(), {"--help"});

    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, StartsWith("INFO:  Will perform: echo one > first.txt\n"
                                       "INFO:  Will perform:   echo two > second.txt\n" +
                                       asterisks));
    EXPECT_EQ(run.read("first.txt"), "one\n");
    EXPECT_EQ(run.read("second.txt"), "two\n");
}

TEST(Driver, AFailingStartScriptEndsTheRunWithItsStatusAndRemovesTheMarker) {
    const temporary_directory run;
    run.write("before_zendar", "exit 7\ntouch not_run\n");
    run.write("OK_ZENDAR", "");

    const auto result = run_program(run.path(), {"--help"});

    EXPECT_EQ(result.status, 7);
    EXPECT_THAT(result.out, HasSubstr("ERROR: Non-zero exit code"));
    EXPECT_THAT(result.out, Not(HasSubstr("* ZENDAR *")));
    EXPECT_FALSE(run.exists("not_run"));
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
}

TEST(Driver, TheScriptOfTheInstructionFileRunsAfterTheOptions) {
    const temporary_directory run;
    model_files().write(run);
    run.write("model.par_before", "cp data.txt copy.txt\n");

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_EQ(run.read("copy.txt"), model_files().data);
    EXPECT_LT(result.out.find("+++++++ End of additional options +++++++"),
              result.out.find("Will perform: cp"));
    EXPECT_LT(result.out.find("Will perform: cp"), result.out.find("Number of equations: 5"));
}

TEST(Driver, AFailingScriptOfTheInstructionFileStopsWithItsStatus) {
    const temporary_directory run;
    model_files().write(run);
    run.write("model.par_before", "exit 3\n");

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_EQ(result.status, 3);
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
}

TEST(Driver, EachRunStartsANewLog) {
    const temporary_directory run;
    run.write("log_zendar.dat", "of an earlier run\n");

    run_program(run.path(), {"--help"});

    EXPECT_THAT(run.read("log_zendar.dat"), StartsWith(asterisks));
}

TEST(Driver, VerboseShowsDebugMessages) {
    const temporary_directory run;
    model_files().write(run);

    EXPECT_THAT(run_program(run.path(), {"model.par"}).out, Not(HasSubstr("DEBUG: ")));
    const auto verbose = run_program(run.path(), {"model.par", "--verbose"}).out;
    EXPECT_THAT(verbose, HasSubstr("DEBUG: No effect with pedigree present\n"));
    EXPECT_THAT(verbose, HasSubstr("DEBUG: No effect with pedigree (ploidy) present\n"));
}

TEST(Driver, OptionsBesideTheInstructionFileAreReadOnTop) {
    const temporary_directory run;
    model_files().write(run);
    run.write("model.par_options", "!miss_phen -99\n!maxiter 17\n");

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_THAT(result.out, HasSubstr("Absolute maximum number of iterations for PCG: 17"));
    EXPECT_THAT(run.read("log_stats.dat"), HasSubstr("100.00"));
}

TEST(Driver, AReadOnlyWorkingDirectoryIsAClearError) {
    const auto result = run_program("/proc", {"--help"});

    EXPECT_NE(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("log_zendar.dat"));
}

TEST(Driver, AnUnknownOptionIsWarnedOfOnce) {
    const temporary_directory run;
    auto files = model_files();
    files.par += "!maxitter 10\n!conveq a.txt\n!maxiter 10\n";
    files.write(run);

    const auto result = run_program(run.path(), {"model.par"});

    const std::string warning = "WARN: Unknown option: !maxitter";
    const auto first = result.out.find(warning);
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(result.out.find("Unknown option", first + warning.size()), std::string::npos);
}

TEST(Driver, NonAsciiPathsWork) {
    const temporary_directory run;
    auto files = model_files();
    files.replace("data.txt", "donn\u00e9es.txt");
    files.write(run);
    run.write("donn\u00e9es.txt", files.data);
    run.write("mod\u00e8le.par", files.par);

    const auto result = run_program(run.path(), {"mod\u00e8le.par"});

    EXPECT_THAT(result.out, HasSubstr("Parameter file: mod\u00e8le.par"));
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(run.exists("OK_ZENDAR"));
}

}  // namespace
}  // namespace zendar::test
