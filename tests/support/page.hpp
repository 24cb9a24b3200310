#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "program_run.hpp"

/// Pages in Markdown whose commands are executed.
///
/// Commands stand in blocks ```sh; a block ```text behind one shows lines of its output, with `...` as a word
/// or a line for what varies. A block behind the comment `<!-- in the tree -->` works on the tree itself: it
/// builds, tests or installs.
namespace zendar::test {

/// README.md and the pages of `docs` with commands of people, by their names in the tree; those that are made
/// of the option tables have a test of their own.
std::vector<std::string> pages();

std::vector<std::string> lines_of(const std::string& text);
std::vector<std::string> words_in(const std::string& line);
std::string content(const std::filesystem::path& file);
std::optional<double> number(const std::string& word);

/// A block of commands with what is shown of its output. A command has all of its lines: those behind a
/// backslash, those of a text that it reads, those of a loop.
struct command_block {
    int line = 0;  ///< of its first command, from 1
    std::vector<std::string> commands = {}, shown = {};
    bool in_the_tree = false;
};

/// Where commands may stand.
enum class page_rule {
    runs_only,       ///< every program of ours in the text stands in a block
    prose_and_runs,  ///< the text may name a command
};

/// The blocks of a page; a fault of the page is added to `faults`.
std::vector<command_block> read_page(const std::string& text, std::vector<std::string>& faults,
                                     page_rule rule = page_rule::runs_only);

/// The first shown line that is not printed, in this order; empty when all are. Words are the same, numbers
/// to the five digits that do not depend on the machine.
std::string not_printed(const std::vector<std::string>& shown, const std::string& output);

/// The exit status that a comment at the end of a command tells, `# exit status 1`; 0 without one.
int told_status(const std::string& command);

/// Commands in one shell after the other, as in a terminal: the folder and what was exported stay. The
/// programs of this build are found by their names.
class page_shell {
  public:
    explicit page_shell(const std::filesystem::path& folder) : folder_(folder) {}
    /// Every program of a pipe must end well, but one that a later one stopped listening to; and each command
    /// of a line.
    program_result run(const std::string& command, std::chrono::seconds at_most = default_limit);

  private:
    std::filesystem::path folder_;
    temporary_directory state_;
};

struct page_result {
    std::vector<std::string> faults;
    int commands = 0;  ///< executed
};

/// Executes a block and compares what it prints; after a fault of a command false, as what follows builds on
/// it.
bool run_block(const command_block& block, page_shell& shell, page_result& result,
               std::chrono::seconds at_most = default_limit);

}  // namespace zendar::test
