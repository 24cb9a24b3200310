#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "message_page.hpp"
#include "program_run.hpp"

namespace zendar {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace fs = std::filesystem;
const fs::path tree = test::source_folder();

std::string content(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

int shell(const std::string& command) {
    return std::system(command.c_str());
}

// ---- texts of sources

std::vector<std::string> shapes(const std::string& source) {
    std::vector<std::string> found;
    for (const auto& text : test::texts_of_source(source, "x.cpp")) found.push_back(text.shape());
    return found;
}

TEST(TextsOfASource, AreLiteralsJoinedWithWhatStandsBetweenThem) {
    EXPECT_THAT(shapes(R"(f(log, "a " "b" + g(x) + std::string(" c\n") + "d" + y, tag);)"),
                ElementsAre("a b<...> c\nd<...>"));
    EXPECT_THAT(shapes(R"(const auto f = [](int i) { return i + std::string("a") + "b"; };)"),
                ElementsAre("<...>ab"));
    EXPECT_THAT(shapes(R"(f(x ? "yes" : "no", "a" + (b ? "c" : std::string("d")) + "e");)"),
                ElementsAre("yes", "no", "c", "d", "a<...>e"));
}

TEST(TextsOfASource, AreNotThoseOfCommentsAndDirectives) {
    EXPECT_THAT(shapes("#include \"a.hpp\"\n// \"b\"\n/* \"c\" */ char q = '\"'; long n = 1'000; f(\"d\");"),
                ElementsAre("d"));
}

TEST(TextsOfASource, TellWhereTheyStand) {
    const auto texts = test::texts_of_source("f(a,\n  g(1, 2, \"x\"));\nt = \"y\";", "x.cpp");
    ASSERT_EQ(texts.size(), 2U);
    EXPECT_THAT(texts[0].calls, ElementsAre("f", "g"));
    EXPECT_EQ(texts[0].argument, 2U);
    EXPECT_EQ(texts[0].line, 2);
    EXPECT_THAT(texts[1].calls, IsEmpty());
}

// ---- messages

/// The messages of a source, by the rules of the page.
std::vector<std::string> messages(const std::string& source) {
    std::vector<std::string> found;
    for (const auto& text : test::texts_of_source(source, "x.cpp"))
        if (test::is_message(text)) found.push_back(text.shape());
    return found;
}

TEST(Messages, AreWhatIsReportedByAnyFunctionThatIsNotKnownAsSomethingElse) {
    EXPECT_THAT(messages(R"(fatal(log, "No such " + x, "module", "a procedure");)"),
                ElementsAre("No such <...>"));
    EXPECT_THAT(messages(R"(fatal_io(log, "Bad line", m, p, 1, "File " + f);)"),
                ElementsAre("Bad line", "File <...>"));
    EXPECT_THAT(messages(R"(log.warning("Lines " + n);)"), ElementsAre("Lines <...>"));
    EXPECT_THAT(messages(R"(a_new_helper(log, "the line is bad");)"), ElementsAre("the line is bad"));
    EXPECT_THAT(messages(R"(std::string why() { return "the line is bad"; })"),
                ElementsAre("the line is bad"));
    EXPECT_THAT(messages(R"(log.message("START: a long way"); f("word"); f(" : ");)"), IsEmpty());
}

test::page_entry entry(const std::string& text) {
    return test::entries_of_page("- `" + text + "`\n").at(0);
}

bool shows(const std::string& text, const std::string& source) {
    return test::shows(entry(text), test::texts_of_source(source, "x.cpp").at(0));
}

TEST(AnEntry, ShowsATextWithNamesForWhatVaries) {
    EXPECT_TRUE(shows("Cannot open <file> at line <n>", R"("Cannot open " + f + "\nat line " + n)"));
    EXPECT_TRUE(shows("The file <file>: the line is bad", R"("the line is bad")"));
    EXPECT_FALSE(shows("Cannot open <file>", R"("Cannot open " + f + " at line " + n)"));
    EXPECT_FALSE(shows("Cannot open it at line <n>", R"("Can not open " + f)"));
}

TEST(AnEntry, ConsistsOfLiterals) {
    const test::literal_tiles tiles(
        test::texts_of_source(R"("Cannot open " + f + ":" + " the line is bad")", "x"));

    EXPECT_EQ(tiles.unknown_piece(entry("Cannot open <file>: the line is bad")), "");
    EXPECT_EQ(tiles.unknown_piece(entry("Cannot open <file>: the line is good")), ": the line is good");
    EXPECT_EQ(tiles.unknown_piece(entry("Cannot open the <file>")), "Cannot open the ");
}

class MessagePage : public testing::Test {
  protected:
    MessagePage() : page_(test::entries_of_page(content(tree / "docs/messages.md"))) {
        for (const char* folder : {"src", "external"})
            std::ranges::move(test::texts_of_folder(tree / folder), std::back_inserter(texts_));
    }
    std::vector<test::source_text> texts_;
    std::vector<test::page_entry> page_;
};

TEST_F(MessagePage, HasEveryMessageOfThePrograms) {
    int messages = 0;
    for (const auto& text : texts_) {
        if (!test::is_message(text)) continue;
        ++messages;
        EXPECT_TRUE(std::ranges::any_of(page_, [&](const auto& own) { return test::shows(own, text); }))
            << "docs/messages.md lacks the message \"" << text.shape() << "\" of " << text.file.string()
            << ":" << text.line;
    }
    EXPECT_GT(messages, 600);
}

TEST_F(MessagePage, HasNoEntryThatIsNoMessage) {
    const test::literal_tiles tiles(texts_);
    EXPECT_GT(page_.size(), 500U);
    for (const auto& own : page_) {
        EXPECT_EQ(tiles.unknown_piece(own), "") << "docs/messages.md, line " << own.line;
        EXPECT_TRUE(std::ranges::any_of(
            texts_, [&](const auto& text) { return test::is_message(text) && test::shows(own, text); }))
            << "docs/messages.md, line " << own.line << " shows no message: " << own.text;
    }
}

// ---- pages that the programs print

/// The pages that scripts/make-docs.sh makes with the programs of this build.
class GeneratedPages : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        made_ = std::make_unique<test::temporary_directory>();
        const std::string script = tree / "scripts/make-docs.sh",
                          programs = fs::path(test::program_file()).parent_path();
        result_ = test::run_program(made_->path(), {script, programs, made_->path()}, "/bin/bash");
    }
    static void TearDownTestSuite() { made_.reset(); }
    void SetUp() override { ASSERT_EQ(result_.status, 0) << result_.error; }

    static std::vector<fs::path> pages() {
        std::vector<fs::path> found;
        for (const auto& entry : fs::recursive_directory_iterator(made_->path()))
            if (entry.is_regular_file()) found.push_back(fs::relative(entry.path(), made_->path()));
        return found;
    }
    /// What a shell offers for the last of some words.
    static std::vector<std::string> completed(const std::string& program,
                                              const std::vector<std::string>& words) {
        std::string line =
            "source " + (*made_ / ("packaging/completion/" + program)).string() + "; COMP_WORDS=(" + program;
        for (const std::string& word : words) line += " '" + word + "'";
        std::string function = "_" + program;
        std::ranges::replace(function, '-', '_');
        line += "); COMP_CWORD=" + std::to_string(words.size()) + "; " + function +
                "; printf '%s\\n' \"${COMPREPLY[@]}\"";
        const test::program_result result = test::run_program(folder().path(), {"-c", line}, "/bin/bash");
        EXPECT_EQ(result.error, "");
        std::vector<std::string> found;
        std::istringstream lines(result.out);
        for (std::string word; std::getline(lines, word);)
            if (!word.empty()) found.push_back(word);
        return found;
    }
    /// A folder with an instruction file and others.
    static const test::temporary_directory& folder() {
        static const test::temporary_directory files;
        files.write("a model.par", "");
        files.write("model.par_options", "");
        files.write("ped.txt", "");
        return files;
    }

    static std::unique_ptr<test::temporary_directory> made_;
    static test::program_result result_;
};
std::unique_ptr<test::temporary_directory> GeneratedPages::made_;
test::program_result GeneratedPages::result_;

TEST_F(GeneratedPages, AreStored) {
    EXPECT_EQ(pages().size(), 7U);
    for (const fs::path& page : pages())
        EXPECT_TRUE(content(tree / page) == content(made_->path() / page))
            << page << " is not what scripts/make-docs.sh makes: run it and store its pages";
}

TEST_F(GeneratedPages, HaveEveryOptionOfTheProgram) {
    const std::string manual = content(tree / "tests/data/manual.md"),
                      options = content(tree / "docs/options.md"),
                      man_page = content(tree / "docs/man/zendar.1");
    std::istringstream lines(manual);
    int found = 0;
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("- `")) continue;
        ++found;
        EXPECT_THAT(options, HasSubstr("\n" + line + "\n"));
        std::string usage = line.substr(3, line.size() - 4);
        EXPECT_THAT(man_page, HasSubstr("\n.B " + usage + "\n"));
    }
    EXPECT_GT(found, 50);
}

TEST_F(GeneratedPages, AreManualPagesWithoutWarnings) {
    if (shell("command -v groff >/dev/null") != 0) GTEST_SKIP() << "groff is not installed";
    for (const fs::path& page : pages()) {
        if (page.extension() != ".1") continue;
        const auto result =
            test::run_program(made_->path(), {"-c", "groff -man -ww -Tascii " + page.string()}, "/bin/bash");
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.error, "");
        EXPECT_THAT(content(tree / page), AllOf(HasSubstr(".SH NAME"), HasSubstr(".SH OPTIONS"),
                                                HasSubstr(".SH EXIT STATUS"), Not(HasSubstr("@"))));
    }
}

TEST_F(GeneratedPages, CompleteWords) {
    EXPECT_THAT(completed("zendar", {"--n"}), ElementsAre("--ncpus", "--nthreads", "--noscreen"));
    EXPECT_THAT(completed("zendar", {""}), ElementsAre("a model.par"));
    EXPECT_THAT(completed("zendar", {"--ncpus", ""}), IsEmpty());
    EXPECT_THAT(completed("zendar-matrices", {"--ped", "p"}), ElementsAre("ped.txt"));
    EXPECT_THAT(completed("zendar-matrices", {"--pedtype", ""}), ElementsAre("3", "5", "7", "9"));
    EXPECT_THAT(completed("zendar-matrices", {"--gi"}), ElementsAre("--gi", "--gima22i"));
    EXPECT_THAT(completed("zendar-simulate", {"--groups", "s"}), ElementsAre("sex"));
}

// ---- installation

TEST(Installation, HasProgramsPagesExamplesAndCompletion) {
    const test::temporary_directory prefix;
    const auto result = test::run_program(
        prefix.path(), {"--install", test::build_folder(), "--prefix", prefix.path()}, test::cmake_file());
    ASSERT_EQ(result.status, 0) << result.error;

    for (const std::string program : {"zendar", "zendar-matrices", "zendar-simulate"}) {
        EXPECT_EQ(content(prefix / ("share/man/man1/" + program + ".1")),
                  content(tree / "docs/man" / (program + ".1")));
        EXPECT_TRUE(fs::exists(prefix / ("share/bash-completion/completions/" + program)));
        const auto help =
            test::run_program(prefix.path(), {"--help"}, (prefix / ("bin/" + program)).string());
        EXPECT_EQ(help.status, 0) << program << help.error;
    }
    const fs::path documents = prefix / "share/doc/zendar";
    EXPECT_TRUE(fs::exists(documents / "README.md"));
    EXPECT_EQ(content(documents / "docs/messages.md"), content(tree / "docs/messages.md"));
    EXPECT_TRUE(fs::exists(documents / "examples/gryphon_bwt/model.par"));
    EXPECT_FALSE(fs::exists(documents / "docs/man"));
}

}  // namespace
}  // namespace zendar
