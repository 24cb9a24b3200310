#include "modlogger.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::temporary_directory;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

class Logger : public ::testing::Test {
  protected:
    Logger() { log.add_stream(screen); }

    /// What went to the screen since the last call.
    std::string written() {
        std::string text = screen.str();
        screen.str("");
        return text;
    }

    std::ostringstream screen;
    logger log;
};

TEST_F(Logger, WritesAMessageWithoutPrefix) {
    log.message("some text");

    EXPECT_EQ(written(), "some text\n");
}

TEST_F(Logger, WritesTheLevelsPrefixes) {
    log.set_level(log_level::debug);

    log.debug("a");
    log.information("b");
    log.warning("c");
    log.error("d");

    EXPECT_EQ(written(), "DEBUG: a\nINFO: b\nWARN: c\nERROR: d\n");
}

TEST_F(Logger, WritesTheHeadBeforeThePrefix) {
    log.set_level(log_level::debug);

    log.message("a", "modx", "procedure_y");
    log.message("b", "modx");
    log.debug("c", "modx", "procedure_y");
    log.information("d", "modx", "procedure_y");
    log.warning("e", "modx");
    log.error("f", "modx", "procedure_y (12)");

    EXPECT_EQ(written(),
              "modx % procedure_y: a\nmodx: b\nmodx % procedure_y: DEBUG: c\nmodx % procedure_y: INFO: d\n"
              "modx: WARN: e\nmodx % procedure_y (12): ERROR: f\n");
}

TEST_F(Logger, WritesNoHeadForAProcedureWithoutModule) {
    log.message("a", "", "procedure_y");

    EXPECT_EQ(written(), "a\n");
}

TEST_F(Logger, DropsWhatIsBelowItsLevel) {
    EXPECT_EQ(log.level(), log_level::information);
    log.debug("a");
    log.information("b");
    EXPECT_EQ(written(), "INFO: b\n");

    log.set_level(log_level::warning);
    log.information("c");
    log.warning("d");
    EXPECT_EQ(written(), "WARN: d\n");

    log.set_level(log_level::error);
    log.warning("e");
    log.error("f");
    log.message("g");
    log.io_error("h", "", "", 2, "i");
    EXPECT_EQ(written(), "ERROR: f\ng\nI/O ERROR: h\nWith iostat = 2\nWith iomsg = \"i\"\n");
}

TEST_F(Logger, AddsStatusAndMessageToAnInputOutputError) {
    log.io_error("Cannot open the file a.dat", "modx", "open_it (3)", 2, "No such file or directory");
    EXPECT_EQ(written(),
              "modx % open_it (3): I/O ERROR: Cannot open the file a.dat\n"
              "With iostat = 2\nWith iomsg = \"No such file or directory\"\n");

    log.configure({.indent = true});
    log.io_error("Cannot open the file a.dat", "modx", "open_it (3)", 2, "No such file or directory");
    EXPECT_EQ(written(),
              "modx % open_it (3): I/O ERROR: Cannot open the file a.dat\n"
              "    With iostat = 2\n    With iomsg = \"No such file or directory\"\n");
}

TEST_F(Logger, WritesAnEmptyMessageAsAnEmptyLine) {
    log.message("");
    log.message("", "modx", "y");
    log.message("   ");

    EXPECT_EQ(written(), "\nmodx % y: \n   \n");
}

TEST_F(Logger, KeepsLeadingBlanksAndRunsOfBlanks) {
    log.message("     a   b  ");
    log.information(" Will perform: ls");

    EXPECT_EQ(written(), "     a   b  \nINFO:  Will perform: ls\n");
}

TEST_F(Logger, KeepsALineOfTheFullWidth) {
    const std::string line = std::string(40, 'a') + " " + std::string(41, 'b');

    log.message(line);

    EXPECT_EQ(written(), line + "\n");
}

TEST_F(Logger, BreaksAtTheLastBlankThatLetsThePieceFit) {
    log.message(std::string(40, 'a') + " " + std::string(42, 'b'));
    EXPECT_EQ(written(), std::string(40, 'a') + "\n" + std::string(42, 'b') + "\n");

    log.message(std::string(82, 'a') + " b");  // the blank itself need not fit
    EXPECT_EQ(written(), std::string(82, 'a') + "\nb\n");
}

TEST_F(Logger, DropsOneBlankAtABreak) {
    log.message(std::string(82, 'a') + "   b");

    EXPECT_EQ(written(), std::string(82, 'a') + "\n  b\n");
}

TEST_F(Logger, WritesNoLineForTrailingBlanksThatDoNotFit) {
    log.message(std::string(82, 'a') + "   ");

    EXPECT_EQ(written(), std::string(82, 'a') + "\n");
}

TEST_F(Logger, CutsAWordThatIsLongerThanTheWidth) {
    log.message(std::string(200, 'a'));
    EXPECT_EQ(written(),
              std::string(82, 'a') + "\n" + std::string(82, 'a') + "\n" + std::string(36, 'a') + "\n");

    log.message("word " + std::string(100, 'a'));
    EXPECT_EQ(written(), "word\n" + std::string(82, 'a') + "\n" + std::string(18, 'a') + "\n");
}

TEST_F(Logger, NeverBreaksBehindLeadingBlanks) {
    log.message(std::string(14, ' ') + std::string(80, 'a'));

    EXPECT_EQ(written(), std::string(14, ' ') + std::string(68, 'a') + "\n" + std::string(12, 'a') + "\n");
}

TEST_F(Logger, CountsTheIndentIntoTheWidth) {
    log.configure({.indent = true});

    log.message(std::string(170, 'a'));
    EXPECT_EQ(written(), std::string(82, 'a') + "\n    " + std::string(78, 'a') + "\n    " +
                             std::string(10, 'a') + "\n");

    log.message(std::string(82, 'a') + " " + std::string(78, 'b') + " c");
    EXPECT_EQ(written(), std::string(82, 'a') + "\n    " + std::string(78, 'b') + "\n    c\n");
}

TEST_F(Logger, CountsHeadAndPrefixIntoTheWidth) {
    log.warning(std::string(70, 'a') + " b", "mod", "");
    EXPECT_EQ(written(), "mod: WARN: " + std::string(70, 'a') + "\nb\n");

    log.warning(std::string(69, 'a') + " b", "mod", "");
    EXPECT_EQ(written(), "mod: WARN: " + std::string(69, 'a') + " b\n");
}

TEST_F(Logger, StartsANewLineAtALineFeed) {
    log.message("a\nb\n\nc");
    EXPECT_EQ(written(), "a\nb\n\nc\n");

    log.configure({.indent = true});
    log.error("a\nb", "m");
    EXPECT_EQ(written(), "m: ERROR: a\n    b\n");

    log.message("a\n" + std::string(79, 'b'));
    EXPECT_EQ(written(), "a\n    " + std::string(78, 'b') + "\n    b\n");
}

TEST_F(Logger, CountsACharacterOfSeveralBytesOnce) {
    std::string line;
    for (int i = 0; i < 82; ++i) line += "\xC3\xA9";
    log.message(line);
    EXPECT_EQ(written(), line + "\n");

    log.message("a" + line);
    EXPECT_EQ(written(), "a" + line.substr(2) + "\n\xC3\xA9\n");
}

TEST_F(Logger, NeverCutsInsideACharacter) {
    for (const std::string character : {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x90\x84"}) {
        std::string text;
        for (int i = 0; i < 200; ++i) text += character;
        log.configure({.max_width = 7});

        log.message(text);

        std::istringstream lines(written());
        std::string line, joined;
        while (std::getline(lines, line)) {
            EXPECT_EQ(line.size() % character.size(), 0U);
            joined += line;
        }
        EXPECT_EQ(joined, text);
    }
}

TEST_F(Logger, CountsStrayBytesOneByOne) {
    log.configure({.max_width = 3});

    log.message("\x80\x80\xC3\xC3\xE2\x82");

    EXPECT_EQ(written(), "\x80\x80\xC3\n\xC3\xE2\x82\n");
}

TEST_F(Logger, SurvivesAWidthWithoutRoomForTheIndent) {
    log.configure({.max_width = 2, .indent = true});
    log.message("abcd");
    EXPECT_EQ(written(), "ab\n    c\n    d\n");

    log.configure({.max_width = -1});
    log.message("ab");
    EXPECT_EQ(written(), "a\nb\n");
}

TEST_F(Logger, WritesTheSameToAllUnits) {
    const temporary_directory here;
    log.add_log_file(here / "a.dat");
    log.add_log_file(here / "b.dat");

    log.information("text", "modx", "y");

    EXPECT_EQ(written(), "modx % y: INFO: text\n");
    EXPECT_EQ(here.read("a.dat"), "modx % y: INFO: text\n");  // complete before the logger is gone
    EXPECT_EQ(here.read("b.dat"), "modx % y: INFO: text\n");
}

TEST_F(Logger, ReplacesAnOldLogFile) {
    const temporary_directory here;
    here.write("log.dat", "old text of some length\n");
    log.add_log_file(here / "log.dat");

    log.message("new");

    EXPECT_EQ(here.read("log.dat"), "new\n");
}

TEST_F(Logger, AppendsToAnExistingFile) {
    const temporary_directory here;
    here.write("log.md", "usage\n");
    log.add_log_file(here / "log.md", logger::position::append);

    log.message("manual");

    EXPECT_EQ(here.read("log.md"), "usage\nmanual\n");
}

TEST_F(Logger, EndsTheRunWhenTheFileToAppendToIsMissing) {
    const temporary_directory here;
    const std::string file = here / "log.md";
    log.configure({.max_width = 1000, .indent = true});

    EXPECT_THROW(log.add_log_file(file, logger::position::append), fatal_error);

    EXPECT_THAT(written(), MatchesRegex("modlogger % add_log_file \\([0-9]+\\): I/O ERROR: "
                                        "Cannot open the log file " +
                                        file +
                                        "\n    With iostat = 2\n"
                                        "    With iomsg = \"No such file or directory\"\n"));
    EXPECT_FALSE(here.exists("log.md"));
}

TEST_F(Logger, EndsTheRunWhenALogFileIsADirectory) {
    const temporary_directory here;

    EXPECT_THROW(log.add_log_file(here.path()), fatal_error);

    EXPECT_THAT(written(), ::testing::EndsWith("With iostat = 21\nWith iomsg = \"Is a directory\"\n"));
}

TEST_F(Logger, TellsTheOtherUnitsOnceThatALogFileIsFull) {
    const temporary_directory here;
    log.add_log_file("/dev/full");
    log.add_log_file(here / "good.dat");
    log.add_log_file("/dev/full");
    const std::string expected =
        "first\nmodlogger % put \\([0-9]+\\): I/O ERROR: Cannot write the log file /dev/full\n"
        "With iostat = 28\nWith iomsg = \"No space left on device\"\n";

    try {
        log.message("first");
        FAIL() << "no fatal_error";
    } catch (const fatal_error& e) {
        EXPECT_STREQ(e.what(), "Cannot write the log file /dev/full");
        EXPECT_EQ(e.status(), 1);
    }
    EXPECT_THAT(written(), MatchesRegex(expected));
    EXPECT_THAT(here.read("good.dat"), MatchesRegex(expected));

    log.message("the end of the run can still be told");
    EXPECT_EQ(written(), "the end of the run can still be told\n");
}

TEST_F(Logger, LeavesOutAScreenThatIsGone) {
    const temporary_directory here;
    std::ostringstream bad;
    bad.setstate(std::ios::badbit);
    log.add_stream(bad);
    log.add_log_file(here / "log.dat");

    log.message("a");
    bad.clear();
    log.message("b");
    log.screen_raw("c");

    EXPECT_EQ(written(), "a\nb\nc");
    EXPECT_EQ(bad.str(), "");
    EXPECT_EQ(here.read("log.dat"), "a\nb\n");
}

TEST_F(Logger, SurvivesAScreenThatNobodyReads) {
    const auto run = [&] {
        std::string logged;
        {
            const temporary_directory here;
            std::array<int, 2> ends{};
            if (pipe(ends.data()) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) std::exit(2);
            // A file stream keeps what it could not write, and tries again when it ends.
            std::ofstream other("/dev/stdout");
            close(ends[0]);
            close(ends[1]);
            log.add_stream(std::cout);
            log.add_stream(other);
            log.add_log_file(here / "log.dat");
            log.message("a");
            log.message("b");
            logged = here.read("log.dat");
        }
        std::exit(logged == "a\nb\n" ? 7 : 3);
    };

    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";  // a forked OpenMP process could hang at its end
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(7), "");
}

TEST_F(Logger, WritesRawTextToStreamsOnly) {
    const temporary_directory here;
    log.add_log_file(here / "log.dat");

    log.screen_raw("  1%");
    log.screen_raw("  2%");

    EXPECT_EQ(written(), "  1%  2%");
    EXPECT_EQ(here.read("log.dat"), "");
}

TEST_F(Logger, RemovesAUnit) {
    const temporary_directory here;
    const auto before = log.units();
    const logger::unit file = log.add_log_file(here / "log.dat");
    EXPECT_THAT(log.units(), ElementsAre(before.at(0), file));

    log.message("a");
    log.remove_unit(file);
    log.remove_unit(file);  // it is gone: nothing happens
    log.message("b");

    EXPECT_EQ(log.units(), before);
    EXPECT_EQ(here.read("log.dat"), "a\n");
    EXPECT_EQ(written(), "a\nb\n");
    EXPECT_NE(log.add_log_file(here / "log.dat"), file);
}

TEST_F(Logger, WritesNothingWithoutUnits) {
    logger silent;

    silent.message("a");
    EXPECT_TRUE(silent.units().empty());
}

TEST_F(Logger, ReportsItsLayout) {
    EXPECT_EQ(log.layout().max_width, 82);
    EXPECT_FALSE(log.layout().indent);

    log.configure({.max_width = 40, .indent = true});

    EXPECT_EQ(log.layout().max_width, 40);
    EXPECT_TRUE(log.layout().indent);
}

using Fatal = Logger;

TEST_F(Fatal, LogsOneErrorWithItsSourceLineAndThrows) {
    const auto line = std::to_string(__LINE__ + 2);
    try {
        fatal(log, "what is wrong", "modx", "procedure_y");
    } catch (const fatal_error& e) {
        EXPECT_STREQ(e.what(), "what is wrong");
        EXPECT_EQ(e.status(), 1);
    }
    EXPECT_EQ(written(), "modx % procedure_y (" + line + "): ERROR: what is wrong\n");
}

TEST_F(Fatal, CarriesTheExitStatus) {
    try {
        fatal(log, "a", "modx", "y", 99);
        FAIL() << "no fatal_error";
    } catch (const fatal_error& e) {
        EXPECT_EQ(e.status(), 99);
    }
    EXPECT_THAT(written(), StartsWith("modx % y ("));
}

TEST_F(Fatal, LogsAnInputOutputErrorWithItsSourceLineAndThrows) {
    const auto line = std::to_string(__LINE__ + 2);
    try {
        fatal_io(log, "Cannot open the file a", "modx", "y", 13, "Permission denied");
    } catch (const fatal_error& e) {
        EXPECT_STREQ(e.what(), "Cannot open the file a");
        EXPECT_EQ(e.status(), 1);
    }
    EXPECT_EQ(written(), "modx % y (" + line +
                             "): I/O ERROR: Cannot open the file a\nWith iostat = 13\n"
                             "With iomsg = \"Permission denied\"\n");
}

TEST_F(Fatal, LogsAPlainTextWithoutHeadAndPrefix) {
    log.set_level(log_level::error);
    try {
        fatal_plain(log, " ERROR (modgeneral, 350)", 3);
        FAIL() << "no fatal_error";
    } catch (const fatal_error& e) {
        EXPECT_STREQ(e.what(), " ERROR (modgeneral, 350)");
        EXPECT_EQ(e.status(), 3);
    }
    EXPECT_EQ(written(), " ERROR (modgeneral, 350)\n");
}

TEST(PrivateLogger, TellsAnotherOneOfItsFailures) {
    std::ostringstream screen;
    logger log, report;
    log.configure({.max_width = 1000});
    log.add_stream(screen);
    report.tell_failures_to(log);

    EXPECT_THROW(report.add_log_file("/proc/no/such/file"), fatal_error);
    EXPECT_THAT(screen.str(), ::testing::HasSubstr("I/O ERROR: Cannot open the log file /proc/no/such/file"));

    report.add_log_file("/dev/full");
    EXPECT_THROW(report.message("text"), fatal_error);
    EXPECT_THAT(screen.str(), ::testing::HasSubstr("I/O ERROR: Cannot write the log file /dev/full"));
}

}  // namespace
}  // namespace zendar
