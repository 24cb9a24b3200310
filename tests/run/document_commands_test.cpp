#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <regex>

#include "page.hpp"

/// Every command of README.md and of the pages of `docs` is executed, in the order of its page and in a
/// folder of the page's own, beside which `examples` lies as in the tree. It must end with status 0, or with
/// the one that a comment behind it tells, and print what the page shows.
namespace zendar::test {
namespace {

using testing::IsEmpty;

namespace fs = std::filesystem;
const fs::path tree = ZENDAR_SOURCE_DIR;

/// Pages with commands of people; those that are made of the option tables have a test of their own.
std::vector<std::string> pages() {
    std::vector<std::string> names{"README.md"};
    for (const auto& entry : fs::directory_iterator(tree / "docs"))
        if (entry.path().extension() == ".md" &&
            content(entry.path()).find("\nMade by `scripts/make-docs.sh`") == std::string::npos)
            names.push_back("docs/" + entry.path().filename().string());
    std::ranges::sort(names);
    return names;
}

/// What a block that is not run may do, and how its reason must call that.
bool may_be_left_out(const command_block& block) {
    static const std::regex reason("(installs packages|builds the tree|needs root).*"),
        command(
            "(sudo |apt(-get)? |dpkg |cmake |cpack |ctest |cd |git clone "
            "|scripts/|bench/|packaging/|fuzz/).*");
    return std::regex_match(block.not_run, reason) && !block.commands.empty() &&
           std::ranges::all_of(block.commands, [](const std::string& line) {
               return std::regex_search(line, command, std::regex_constants::match_continuous);
           });
}

struct page_result {
    std::vector<std::string> faults, not_run;
    int commands = 0;
};

page_result run_page(const std::string& text) {
    page_result result;
    const temporary_directory folder;
    fs::create_directory_symlink(tree / "examples", folder / "examples");
    page_shell shell(folder.path());
    for (const command_block& block : read_page(text, result.faults, page_rule::prose_and_runs)) {
        const std::string where = "line " + std::to_string(block.line) + ": ";
        if (!block.not_run.empty()) {
            if (!may_be_left_out(block)) result.faults.push_back(where + "must be run: " + block.not_run);
            result.not_run.push_back(block.not_run);
            continue;
        }
        if (block.commands.empty()) result.faults.push_back(where + "no commands");
        std::string output;
        for (const std::string& command : block.commands) {
            const program_result ended = shell.run(command);
            ++result.commands;
            output += ended.out;
            if (ended.status == told_status(command)) continue;
            result.faults.push_back(where + command + "\nexit status " + std::to_string(ended.status) + "\n" +
                                    ended.out + ended.error);
            return result;  // what follows builds on it
        }
        const std::string missing = not_printed(block.shown, output);
        if (!missing.empty())
            result.faults.push_back(where + "is shown, but not printed: " + missing + "\n" + output);
    }
    return result;
}

class DocumentCommands : public testing::TestWithParam<std::string> {};

TEST_P(DocumentCommands, AreExecuted) {
    const page_result result = run_page(content(tree / GetParam()));
    EXPECT_THAT(result.faults, IsEmpty());
    std::cout << GetParam() << ": " << result.commands << " commands executed\n";
    for (const std::string& reason : result.not_run) std::cout << "not run: " << reason << '\n';
}

std::string name_of(const testing::TestParamInfo<std::string>& info) {
    std::string name = fs::path(info.param).stem().string();
    std::erase_if(name, [](unsigned char c) { return std::isalnum(c) == 0; });
    return name;
}
INSTANTIATE_TEST_SUITE_P(Page, DocumentCommands, ::testing::ValuesIn(pages()), name_of);

// ---- the test itself

const std::string fence = "```";

std::string sh(const std::string& lines) {
    return fence + "sh\n" + lines + fence + "\n";
}
std::string shown(const std::string& lines) {
    return fence + "text\n" + lines + fence + "\n";
}

TEST(CommandsOfAPage, RunInOneShell) {
    const page_result result = run_page(
        "Text `zendar model.par`.\n" + sh("mkdir a\ncd a\nexport WORD=here\n") + "    usage of something\n" +
        sh("cat > f <<'END'\none $WORD\n\ntwo\nEND\nfor w in 1 2; do\n  echo $w\ndone\n"
           "echo $WORD | \\\n  cat\nyes | head -n 1\ncat f\npwd | grep -c /a$\n") +
        shown("1\n2\nhere\none $WORD\ntwo\n1\n"));
    EXPECT_THAT(result.faults, IsEmpty());
    EXPECT_EQ(result.commands, 9);
}

TEST(CommandsOfAPage, FindProgramsAndExamples) {
    const page_result result =
        run_page(sh("cp -r examples/quicktour_random_class run\ncd run\nzendar model.par --ncpus 2 > screen\n"
                    "zendar none.par > screen  # exit status 1\ntrue\n"));
    EXPECT_THAT(result.faults, IsEmpty());
    EXPECT_EQ(result.commands, 5);
}

TEST(CommandsOfAPage, AreShownWithDotsForWhatVaries) {
    EXPECT_THAT(
        run_page(sh("echo at 12:30 on monday; echo x; echo end\n") + shown("at ... on monday\n...\nend\n"))
            .faults,
        IsEmpty());
    EXPECT_THAT(run_page(sh("echo took 3.1 s on two cores\n") + shown("took ... cores\n")).faults, IsEmpty());
    EXPECT_THAT(run_page(sh("echo 'bound <= min(3.5 , 4.5) s'\n") + shown("bound <= min(... s\n")).faults,
                IsEmpty());
    EXPECT_EQ(
        run_page(sh("echo 'bound <= min(3.5 , 4.5) m'\n") + shown("bound <= min(... s\n")).faults.size(), 1U);
    EXPECT_EQ(run_page(sh("echo at 12:30\n") + shown("at ... on monday\n")).faults.size(), 1U);
    EXPECT_EQ(run_page(sh("echo at\n") + shown("at ...\n")).faults.size(), 1U);
}

TEST(CommandsOfAPage, AreFaultsWhenTheyFail) {
    for (const char* bad : {"false\n", "false; true\n", "false | cat\n", "zendar none.par > /dev/null\n",
                            "no_such_program\n", "true  # exit status 1\n", "false  # exit status 2\n",
                            "cat <<END\n", "for w in 1; do\n", "(\n", "", "cd none\n"})
        EXPECT_FALSE(run_page(sh(bad)).faults.empty()) << bad;
}

TEST(CommandsOfAPage, AreFaultsWhenTheyPrintSomethingElse) {
    for (const char* bad : {"two\n", "one\ntwo\n", "1.0001 x\n", "x 1\none\n"})
        EXPECT_EQ(run_page(sh("echo one\necho 1 x\n") + shown(bad)).faults.size(), 1U) << bad;
    EXPECT_THAT(run_page(sh("echo one\necho 1 x\n") + shown("1.00001 x\n")).faults, IsEmpty());
}

TEST(CommandsOfAPage, StandInBlocksThatHaveAKind) {
    for (const std::string& bad : {fence + "\nls\n" + fence + "\n", fence + "bash\nls\n" + fence + "\n",
                                   fence + "sh\nls\n", shown("x\n"), std::string("    zendar model.par\n"),
                                   std::string("    $ ls\n"), std::string("    scripts/check.sh\n")})
        EXPECT_FALSE(run_page(bad).faults.empty()) << bad;
}

TEST(CommandsOfAPage, AreLeftOutForFewReasons) {
    const page_result good =
        run_page("<!-- not run: installs packages -->\n" + sh("scripts/demo.sh\n") +
                 "<!-- not run: builds the tree -->\n" + sh("cmake --preset x && cmake\n"));
    EXPECT_THAT(good.faults, IsEmpty());
    EXPECT_THAT(good.not_run, testing::ElementsAre("installs packages", "builds the tree"));
    EXPECT_EQ(good.commands, 0);
    for (const std::string& bad :
         {"<!-- not run: takes long -->\n" + sh("scripts/demo.sh\n"), "<!-- not run -->\n" + sh("true\n"),
          "<!-- not run: builds the tree -->\n" + sh("zendar model.par\n"),
          "<!-- not run: builds the tree -->\n" + sh("scripts/demo.sh\nls\n"),
          "<!-- not run: builds the tree -->\n\n" + sh("false\n"),
          "<!-- not run: builds the tree -->\n" + sh("cmake .\n") + shown("x\n")})
        EXPECT_FALSE(run_page(bad).faults.empty()) << bad;
}

TEST(Pages, AreFound) {
    EXPECT_THAT(pages(), testing::Contains("README.md"));
    EXPECT_THAT(pages(), testing::Not(testing::Contains("docs/options.md")));
}

}  // namespace
}  // namespace zendar::test
