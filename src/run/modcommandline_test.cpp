#include "modcommandline.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "temporary_directory.hpp"

namespace zendar {
namespace {

using ::testing::HasSubstr;

using words = std::vector<std::string>;

run_arguments read_words(const words& given) {
    std::ostringstream error;
    logger log;
    command_line line = create_command_line("1.2.3");
    EXPECT_TRUE(line.parse(given, error)) << error.str();
    return readargument(line, log);
}

std::string refusal(const words& given) {
    std::ostringstream error;
    command_line line = create_command_line("1.2.3");
    EXPECT_FALSE(line.parse(given, error));
    return error.str();
}

TEST(CommandLine, DefaultsWithoutWords) {
    const run_arguments arguments = read_words({});

    EXPECT_EQ(arguments.parfile, "none");
    EXPECT_EQ(arguments.relparam, "none");
    EXPECT_FALSE(arguments.lpec || arguments.lebvpev || arguments.lverbose || arguments.lmarkdown);
    EXPECT_FALSE(arguments.help_message.has_value());
}

TEST(CommandLine, EverySwitchInBothForms) {
    EXPECT_EQ(read_words({"model.par"}).parfile, "model.par");
    for (const char* name : {"--verbose", "-vb"}) EXPECT_TRUE(read_words({name}).lverbose);
    for (const char* name : {"--help", "-h"}) EXPECT_TRUE(read_words({name}).help_message.has_value());
    EXPECT_TRUE(read_words({"--ebvpev"}).lebvpev);
    for (const char* name : {"REL", "r"}) {
        const auto arguments = read_words({name, "Harville", "m.par"});
        EXPECT_TRUE(arguments.lpec);
        EXPECT_EQ(arguments.relparam, "Harville");
        EXPECT_EQ(arguments.parfile, "m.par");
    }
    for (const char* name : {"--ncpus", "--nthreads"})
        EXPECT_EQ(read_words({name, "-4", "m.par"}).parfile, "m.par");
}

TEST(CommandLine, UndefIsNoValueOfRel) {
    const auto arguments = read_words({"r", "undef"});

    EXPECT_FALSE(arguments.lpec);
    EXPECT_EQ(arguments.relparam, "none");
}

TEST(CommandLine, RefusalsNameTheWord) {
    EXPECT_THAT(refusal({"--vrebose"}), HasSubstr("\"--vrebose\" is unknown"));
    EXPECT_THAT(refusal({"r"}), HasSubstr("\"r\" needs a value"));
    EXPECT_THAT(refusal({"--ncpus", "--help"}), HasSubstr("\"--ncpus\" needs a value"));
    EXPECT_THAT(refusal({"a", "b"}), HasSubstr("\"b\" is one too many"));
    EXPECT_THAT(refusal({"-h", "--help"}), HasSubstr("\"--help\" was given twice"));
    EXPECT_THAT(refusal({"r", "1", "--ebvpev"}), HasSubstr("\"--ebvpev\" and \"REL\" exclude each other"));
    EXPECT_THAT(refusal({"--ebvpev", "r", "1"}), HasSubstr("\"--ebvpev\" and \"REL\" exclude each other"));
}

TEST(CommandLine, NoscreenIsFoundAmongTheRawWords) {
    EXPECT_TRUE(scan_noscreen(words{"a", "--noscreen"}));
    EXPECT_TRUE(scan_noscreen(words{" --noscreen "}));
    EXPECT_FALSE(scan_noscreen(words{"--noscreens", "noscreen"}));
    EXPECT_FALSE(scan_noscreen(words{std::string(25, ' ') + "--noscreen"}));  // cut to 30 characters
}

/// A value that the declaration does not know cannot be read back: one message per argument.
TEST(CommandLine, ReadBackFailuresNameTheArgument) {
    struct declared {
        const char* name;
        switch_action action;
    };
    using enum switch_action;
    const std::vector<declared> all = {
        {"--help", store_true},   {"--markdown", store_true}, {"", store}, {"--ncpus", store}, {"REL", store},
        {"--ebvpev", store_true}, {"--verbose", store_true}};
    const std::vector<std::string> messages = {"Issue with the argument --help with FLAP error 1",
                                               "Issue with the argument --markdown with FLAP error 1",
                                               "Issue with the argument 1 with FLAP error 1",
                                               "Issue with the argument --ncpus with FLAP error 1",
                                               "Issue with REL with FLAP error 1",
                                               "Issue with --ebvpev with FLAP error 1",
                                               "Issue with the argument --verbose with FLAP error 1"};
    for (std::size_t missing = 0; missing < all.size(); ++missing) {
        command_line line("zendar", "1", "text");
        for (std::size_t i = 0; i < all.size(); ++i)
            if (i != missing)
                line.add({all[i].name, "", all[i].action, all[i].action == store ? "-1" : ".false.", "", ""});
        std::ostringstream screen;
        logger log;
        log.configure({.max_width = 1000});
        log.add_stream(screen);

        EXPECT_THROW(readargument(line, log), fatal_error);

        EXPECT_THAT(screen.str(), HasSubstr("ERROR: " + messages[missing] + "\n"));
    }
}

TEST(CommandLine, UsageNamesEveryArgumentWithItsHelp) {
    const command_line line = create_command_line("1.2.3");

    for (const std::string& text : {line.usage(), line.usage_markdown()})
        for (const char* piece :
             {"--help, -h", "--markdown, -md", "--ncpus, --nthreads value", "--noscreen", "REL, r value",
              "--ebvpev", "--verbose, -vb", "1.2.3", "Instruction file", "Print this help",
              "Print this help in a Markdown file", "Number of CPUs/threads",
              "To not print the output to the screen", "Option for computing reliabilities", "Verbose mode",
              "Program to solve linear systems of equations."})
            EXPECT_THAT(text, HasSubstr(piece));
}

TEST(CommandLine, MarkdownWritesTheUsage) {
    const test::temporary_directory directory;
    const test::working_directory at(directory.path());

    EXPECT_TRUE(read_words({"--markdown"}).lmarkdown);

    EXPECT_EQ(directory.read("zendar.md"), create_command_line("1.2.3").usage_markdown());
}

TEST(CommandLine, AManualThatCannotBeWrittenIsAnError) {
    const test::temporary_directory directory;
    const test::working_directory at(directory.path());
    std::filesystem::create_directory("zendar.md");
    std::ostringstream screen, error;
    logger log;
    log.add_stream(screen);
    command_line line = create_command_line("1");
    ASSERT_TRUE(line.parse(words{"-md"}, error));

    EXPECT_THROW(readargument(line, log), fatal_error);

    EXPECT_THAT(screen.str(), HasSubstr("I/O ERROR: Cannot write the file zendar.md"));
}

}  // namespace
}  // namespace zendar
