#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <regex>
#include <sstream>

#include "data_sets.hpp"
#include "page.hpp"

/// Every folder of `examples`: the commands of its page are run as they stand there, the answers are compared
/// as its `answers.txt` says, and what the page shows must be what the commands print.
///
/// A page is README.md. Commands stand in blocks ```sh, one on a line, or on several with a backslash at the
/// end; a block ```text behind one shows lines of its output.
namespace zendar::test {
namespace {

std::filesystem::path examples() {
    return source_folder() / "examples";
}

std::vector<std::string> folders() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(examples()))
        if (entry.is_directory()) names.push_back(entry.path().filename().string());
    std::ranges::sort(names);
    return names;
}

// ---- answers
// -------------------------------------------------------------------------------------------------------

/// A line of `answers.txt`.
struct answer {
    std::string par, output, expected, kind, tolerance;
    int compared = 0;
};

std::vector<answer> read_answers(const std::filesystem::path& file) {
    std::vector<answer> answers;
    for (const std::string& line : lines_of(content(file))) {
        if (line.starts_with('#')) continue;
        const auto words = words_in(line);
        if (words.size() == 5) answers.push_back({words[0], words[1], words[2], words[3], words[4]});
        EXPECT_EQ(words.size(), 5U) << file << ": " << line;
    }
    return answers;
}

using keyed_rows = std::map<std::vector<double>, double>;

/// Lines of numbers, of which the last one is the value and the others are its key. Rows "trait effect level
/// value" get the covariable 0.
keyed_rows read_rows(const std::filesystem::path& file) {
    keyed_rows rows;
    for (const std::string& line : lines_of(content(file))) {
        if (line.starts_with('#')) continue;
        std::vector<double> key;
        for (const std::string& word : words_in(line)) key.push_back(number(word).value_or(std::nan("")));
        if (key.size() < 2) continue;
        const double value = key.back();
        key.pop_back();
        if (key.size() == 3) key.push_back(0.0);
        rows[key] = value;
    }
    return rows;
}

std::string text_of(const std::vector<double>& key) {
    std::ostringstream text;
    for (const double k : key) text << k << ' ';
    return text.str();
}

/// Lines "name value terms", and for each term a key and a coefficient.
std::vector<std::string> differences_of_contrasts(const std::filesystem::path& file, const keyed_rows& actual,
                                                  double tolerance) {
    std::vector<std::string> found;
    const auto lines = lines_of(content(file));
    for (const std::string& line : lines) {
        std::istringstream in(line);
        std::string name;
        double value = 0.0, sum = 0.0;
        for (int terms = in >> name >> value >> terms ? terms : 0; terms > 0; --terms) {
            std::vector<double> key(4);
            double coefficient = 0.0;
            in >> key[0] >> key[1] >> key[2] >> key[3] >> coefficient;
            sum += coefficient * (actual.contains(key) ? actual.at(key) : std::nan(""));
        }
        if (!in || !(std::abs(sum - value) <= tolerance))
            found.push_back(line + ", but " + std::to_string(sum));
    }
    if (lines.empty()) found.push_back("no contrasts");
    return found;
}

/// What differs between an output and its answers; nothing when all is well.
std::vector<std::string> differences(const std::filesystem::path& folder, const answer& a) {
    const keyed_rows actual = read_rows(folder / a.output), expected = read_rows(folder / a.expected);
    if (a.kind == "contrasts")
        return differences_of_contrasts(folder / a.expected, actual, number(a.tolerance).value_or(0.0));
    const keyed_rows own = a.kind == "file" ? read_rows(folder / a.tolerance) : keyed_rows();
    std::vector<std::string> found;
    std::map<double, double> largest;
    for (const auto& [key, value] : expected) {
        double& most = largest[key.size() == 4 ? key[1] : 0.0];
        most = std::max(most, std::abs(value));
    }
    for (const auto& [key, value] : expected) {
        double tolerance = number(a.tolerance).value_or(-1.0);
        if (a.kind == "each") tolerance *= std::abs(value);
        if (a.kind == "effect") tolerance *= largest[key.size() == 4 ? key[1] : 0.0];
        if (a.kind == "file") tolerance = own.contains(key) ? own.at(key) : -1.0;
        if (!actual.contains(key))
            found.push_back("no row " + text_of(key));
        else if (!(std::abs(actual.at(key) - value) <= tolerance))  // a NaN is a difference, too
            found.push_back(text_of(key) + std::to_string(actual.at(key)) + ", but " + std::to_string(value));
    }
    if (expected.empty()) found.push_back("no answers in " + a.expected);
    if (a.kind != "absolute" && a.kind != "each" && a.kind != "effect" && a.kind != "file")
        found.push_back("unknown kind of tolerance: " + a.kind);
    return found;
}

// ---- runs
// ----------------------------------------------------------------------------------------------------------

/// The instruction file of a command that starts the solver.
std::optional<std::string> instruction_file(const std::string& command) {
    static const std::regex solver("(^|&& |; )zendar +([^ ]+)");
    std::smatch found;
    if (!std::regex_search(command, found, solver)) return std::nullopt;
    return found[2].str();
}

class Examples : public ::testing::TestWithParam<std::string> {
  protected:
    Examples() { copy_files(examples() / GetParam(), run_); }

    /// Runs a command; after the solver, compares the answers that belong to the instruction file.
    std::string run(const std::string& command) {
        SCOPED_TRACE(command);
        const auto par = instruction_file(command);
        if (par) {
            std::filesystem::remove(run_ / "OK_ZENDAR");
            for (const answer& a : answers_) std::filesystem::remove(run_ / a.output);
        }
        const auto result = page_shell(run_.path()).run(command);
        EXPECT_EQ(result.status, 0) << result.out << result.error;
        if (par) {
            EXPECT_TRUE(run_.exists("OK_ZENDAR"));
            for (answer& a : answers_) {
                if (a.par != *par || !run_.exists(a.output)) continue;
                ++a.compared;
                EXPECT_THAT(differences(run_.path(), a), testing::IsEmpty())
                    << a.output << ", " << a.expected;
            }
        }
        return result.out;
    }

    temporary_directory run_;
    std::vector<answer> answers_ = read_answers(examples() / GetParam() / "answers.txt");
};

TEST_P(Examples, DoWhatTheirPagesSay) {
    for (const char* file : {"README.md", "model.par", "answers.txt"}) ASSERT_TRUE(run_.exists(file)) << file;
    std::vector<std::string> faults;
    const std::vector<command_block> blocks = read_page(run_.read("README.md"), faults);
    EXPECT_THAT(faults, testing::IsEmpty());
    std::size_t shown = 0;

    for (const command_block& block : blocks) {
        EXPECT_FALSE(block.in_the_tree);
        std::string output;
        for (const std::string& command : block.commands) output += run(command);
        EXPECT_EQ(not_printed(block.shown, output), "") << "is shown, but not printed:\n" << output;
        shown += block.shown.size();
    }

    EXPECT_GT(shown, 0U) << "no output is shown";
    ASSERT_FALSE(answers_.empty());
    for (const answer& a : answers_)
        EXPECT_GT(a.compared, 0) << a.output << " is not made by a run of " << a.par << " on the page";
}

INSTANTIATE_TEST_SUITE_P(Folder, Examples, ::testing::ValuesIn(folders()),
                         [](const auto& info) { return info.param; });

// ---- the folder as a whole
// -----------------------------------------------------------------------------------------

TEST(ExamplesPage, ListsEveryFolderAndRuns) {
    const temporary_directory directory;
    std::filesystem::create_directory_symlink(examples(), directory / "examples");
    const std::string page = content(examples() / "README.md");
    for (const std::string& folder : folders())
        EXPECT_THAT(page, testing::HasSubstr("| `" + folder + "` |")) << folder;
    std::vector<std::string> faults;
    const std::vector<command_block> blocks = read_page(page, faults);
    EXPECT_THAT(faults, testing::IsEmpty());
    EXPECT_EQ(blocks.size(), 2U);

    for (const command_block& block : blocks)
        for (const std::string& command : block.commands)
            EXPECT_EQ(page_shell(directory.path()).run(command).status, 0) << command;

    EXPECT_TRUE(directory.exists("trial/OK_ZENDAR"));
    EXPECT_TRUE(directory.exists("simulated/OK_ZENDAR"));
}

TEST(ExamplesFolder, StaysSmall) {
    EXPECT_GE(folders().size(), 13U);
    std::uintmax_t bytes = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(examples()))
        if (entry.is_regular_file()) bytes += entry.file_size();
    EXPECT_LT(bytes, 3'000'000U);
}

// ---- the comparisons themselves
// ------------------------------------------------------------------------------------

TEST(ExamplesComparison, NoticesEveryKindOfDifference) {
    const temporary_directory directory;
    directory.write("out", "# 7\n1 1 1 0 2.00000\n1 1 2 0 -4.00000\n1 2 5 0 0.100000\n");
    const auto count = [&](const std::string& text, const char* kind, const char* tolerance) {
        directory.write("expected", text);
        return differences(directory.path(), {"model.par", "out", "expected", kind, tolerance}).size();
    };
    const std::string good = "1 1 1 0 2.00003\n1 1 2 -4.00003\n1 2 5 0 0.10003\n";
    directory.write("tolerance", "1 1 1 0 4e-5\n1 1 2 0 2e-5\n");

    EXPECT_EQ(count(good, "absolute", "4e-5"), 0U);
    EXPECT_EQ(count(good, "absolute", "2e-5"), 3U);
    EXPECT_EQ(count(good, "effect", "1e-5"), 1U);  // the small value of effect 2
    EXPECT_EQ(count(good, "each", "1.2e-5"), 2U);
    EXPECT_EQ(count(good, "file", "tolerance"), 2U);
    EXPECT_EQ(count("1 1 3 0 2.0\n", "absolute", "1e9"), 1U);
    EXPECT_EQ(count("1 1 1 0 nan\n", "absolute", "1e9"), 1U);
    EXPECT_EQ(count("", "absolute", "1e9"), 1U);
    EXPECT_EQ(count(good, "about", "1e9"), 1U);
    EXPECT_EQ(count("d 6.0 2 1 1 1 0 1 1 1 2 0 -1\n", "contrasts", "1e-9"), 0U);
    EXPECT_EQ(count("d 6.1 2 1 1 1 0 1 1 1 2 0 -1\n", "contrasts", "1e-9"), 1U);
    EXPECT_EQ(count("d 6.0 2 1 1 1 0 1 1 1 7 0 -1\n", "contrasts", "1e-9"), 1U);
    EXPECT_EQ(count("", "contrasts", "1e-9"), 1U);
}

TEST(ExamplesComparison, NoticesOutputThatIsNotPrinted) {
    EXPECT_EQ(not_printed({"a 1.00000 b", "last"}, "first\na 1.00001 b\nlast\n"), "");
    EXPECT_EQ(not_printed({"a 1.00000 b"}, "a 1.00003 b\n"), "a 1.00000 b");
    EXPECT_EQ(not_printed({"last", "first"}, "first\nlast\n"), "first");
    EXPECT_EQ(not_printed({"a 1"}, "a 1 2\n"), "a 1");
    EXPECT_EQ(not_printed({"x"}, ""), "x");
}

TEST(ExamplesComparison, ReadsPages) {
    std::vector<std::string> faults;

    const auto blocks =
        read_page("Text\n```sh\nzendar a.par\nb | \\\n  c\n```\nMore\n```text\n1 2\n```\n", faults);

    EXPECT_THAT(faults, testing::IsEmpty());
    ASSERT_EQ(blocks.size(), 1U);
    EXPECT_THAT(blocks[0].commands, testing::ElementsAre("zendar a.par", "b | \\\n  c"));
    EXPECT_THAT(blocks[0].shown, testing::ElementsAre("1 2"));
    EXPECT_EQ(instruction_file("cd x && zendar a.par --ncpus 2"), "a.par");
    EXPECT_EQ(instruction_file("zendar-matrices --g x"), std::nullopt);
    for (const char* bad : {"    zendar model.par\n", "Try `zendar model.par`.\n", "```\nzendar x\n```\n",
                            "```sh\nls\n", "```text\nx\n```\n"}) {
        faults.clear();
        read_page(bad, faults);
        EXPECT_FALSE(faults.empty()) << bad;
    }
}

TEST(ExamplesComparison, NoticesCommandsThatFail) {
    const temporary_directory directory;
    EXPECT_EQ(page_shell(directory.path()).run("true | cat").status, 0);
    EXPECT_EQ(page_shell(directory.path()).run("yes | head -n 1").status, 0);
    EXPECT_NE(page_shell(directory.path()).run("false | cat").status, 0);
    EXPECT_NE(page_shell(directory.path()).run("zendar none.par | cat").status, 0);
    EXPECT_NE(page_shell(directory.path()).run("zendar-simulate").status, 0);
}

}  // namespace
}  // namespace zendar::test
