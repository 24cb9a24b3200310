#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <regex>

#include "page.hpp"

/// Every command of README.md and of the pages of `docs` is executed, in the order of its page and in a
/// folder of the page's own, beside which `examples` lies as in the tree. It must end with status 0, or with
/// the one that a comment behind it tells, and print what the page shows. Those that work on the tree itself
/// are executed by document_builds_test.cpp.
namespace zendar::test {
namespace {

using testing::IsEmpty;

namespace fs = std::filesystem;
page_result run_page(const std::string& text) {
    page_result result;
    const temporary_directory folder;
    fs::create_directory_symlink(source_folder() / "examples", folder / "examples");
    page_shell shell(folder.path());
    for (const command_block& block : read_page(text, result.faults, page_rule::prose_and_runs))
        if (!block.in_the_tree && !run_block(block, shell, result)) break;
    return result;
}

class DocumentCommands : public testing::TestWithParam<std::string> {};

TEST_P(DocumentCommands, AreExecuted) {
    const page_result result = run_page(content(source_folder() / GetParam()));
    EXPECT_THAT(result.faults, IsEmpty());
    std::cout << GetParam() << ": " << result.commands << " commands executed\n";
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

TEST(CommandsOfAPage, WorkOnTheTreeWhenTheLineAboveSaysSo) {
    const std::string mark = "<!-- in the tree -->\n";
    std::vector<std::string> faults;
    const auto blocks =
        read_page(mark + sh("a\n") + mark + "\n" + sh("b\n") + mark + sh("c\n") + shown("d\n"), faults,
                  page_rule::prose_and_runs);
    EXPECT_THAT(faults, IsEmpty());
    ASSERT_EQ(blocks.size(), 3U);
    EXPECT_TRUE(blocks[0].in_the_tree);
    EXPECT_FALSE(blocks[1].in_the_tree);
    EXPECT_TRUE(blocks[2].in_the_tree);
    EXPECT_THAT(blocks[2].shown, testing::ElementsAre("d"));
    EXPECT_EQ(run_page(mark + sh("false\n")).commands, 0);
}

TEST(Pages, AreFound) {
    EXPECT_THAT(pages(), testing::Contains("README.md"));
    EXPECT_THAT(pages(), testing::Not(testing::Contains("docs/options.md")));
}

}  // namespace
}  // namespace zendar::test
