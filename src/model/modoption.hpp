#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modlogger.hpp"

/// Option lines: lines of an instruction file whose first character other than a blank is "!".
///
/// An option is one row of a table. Its reader, its place in the manual and the line that is written back all
/// come from that row.
namespace zendar {

/// Longest option line, with the blanks in front of it.
inline constexpr std::size_t max_option_line = 2500;

/// The words of one option line, without the leading "!". Word 0 is the keyword.
class option_line {
  public:
    /// @param text     the line behind its "!", with at least one word.
    /// @param neffect  number of effects of the model.
    /// @param log      outlives the line.
    option_line(std::string_view text, std::string file, std::int64_t line_number, std::int32_t neffect,
                logger& log);

    [[nodiscard]] std::int32_t size() const;  ///< number of words with the keyword
    [[nodiscard]] const std::string& keyword() const { return words_.front(); }
    [[nodiscard]] const std::string& word(std::int32_t i) const;
    [[nodiscard]] std::int32_t neffect() const { return neffect_; }
    [[nodiscard]] logger& log() const { return *log_; }

    /// Word i as a number; a word that is none (or is not finite) is fatal, with option, word, file and line.
    [[nodiscard]] std::int32_t int32(std::int32_t i) const;
    [[nodiscard]] double real(std::int32_t i) const;
    /// Word i as a number of at least `least`; a smaller one is fatal.
    [[nodiscard]] std::int32_t int32_from(std::int32_t i, std::int32_t least) const;
    /// Word i as an effect number between 1 and `neffect`; anything else is fatal.
    [[nodiscard]] std::int32_t effect(std::int32_t i) const;
    /// The effects of a list "count e1 e2 ..." that begins at word i and goes to the end of the line; nothing
    /// when the count is not the number (1 or more) of the words behind it.
    [[nodiscard]] std::optional<std::vector<std::int32_t>> effects(std::int32_t i) const;

    /// "File x, line n: !..." on a further line of a message.
    [[nodiscard]] std::string where() const;
    /// A fatal error on this line.
    [[noreturn]] void fail(const std::string& message) const;

  private:
    [[noreturn]] void fail_on_word(std::int32_t i, std::string_view what) const;

    std::string text_, file_;
    std::int64_t line_number_;
    std::int32_t neffect_;
    std::vector<std::string> words_;
    logger* log_;
};

inline constexpr std::int32_t any_number_of_words = std::numeric_limits<std::int32_t>::max();

/// All there is to know of an option of a record of type Record.
template <class Record>
struct option_entry {
    std::string usage = {};  ///< "!keyword arguments" as the manual prints it; empty: not in the manual
    std::string help = {};   ///< empty: the manual prints the usage alone
    std::vector<std::string_view> keywords = {};  ///< without "!"
    std::int32_t min_words = 1;                   ///< with the keyword
    std::int32_t max_words = 1;
    /// The message of a wrong number of words; empty: the general one.
    std::string ignored = {};
    /// Takes a line and logs what was taken; false when the number of words does not fit after all. Empty for
    /// an option that stands in the manual only.
    std::function<bool(const option_line&, Record&)> read = nullptr;
    /// The lines that give the record's present value, none when it is the default.
    std::function<std::vector<std::string>(const Record&)> write = nullptr;
};

/// "The option !", the keyword and " was found and will be ignored!"
std::string option_ignored(std::string_view keyword);

/// "The option !", the keyword, " was found and will be ignored (default: ", the default and ")".
std::string option_ignored(std::string_view keyword, std::string_view default_value);

/// The option lines of a file, in order. Lines that do not begin with "!" pass, as does a "!" without a word.
/// @throws fatal_error  when the file cannot be read, or an option line is longer than `max_option_line`.
std::vector<option_line> read_option_lines(const std::string& file, std::int32_t neffect, logger& log);

/// The row that takes a keyword (case-sensitive), or nothing.
template <class Record>
const option_entry<Record>* find_option(std::span<const option_entry<Record>> table,
                                        std::string_view keyword) {
    const auto row = std::ranges::find_if(
        table, [keyword](const auto& entry) { return std::ranges::count(entry.keywords, keyword) > 0; });
    return row == table.end() ? nullptr : &*row;
}

/// Applies a table to option lines; lines of other tables pass.
template <class Record>
void read_options(std::span<const option_entry<Record>> table, std::span<const option_line> lines,
                  Record& record) {
    for (const option_line& line : lines) {
        const option_entry<Record>* entry = find_option(table, line.keyword());
        if (entry == nullptr || !entry->read) continue;
        if (line.size() < entry->min_words || line.size() > entry->max_words || !entry->read(line, record))
            line.log().warning(entry->ignored.empty() ? option_ignored(line.keyword()) : entry->ignored);
    }
}

/// The lines of all options with a value other than the default, in the order of the table.
template <class Record>
std::vector<std::string> written_options(std::span<const option_entry<Record>> table, const Record& record) {
    std::vector<std::string> lines;
    for (const auto& entry : table)
        if (entry.write) std::ranges::move(entry.write(record), std::back_inserter(lines));
    return lines;
}

/// A number that reads back as the same number.
std::string option_number(double x);
/// "!keyword" and the words, separated by blanks.
std::string option_text(std::string_view keyword, std::initializer_list<std::string> words = {});
/// "n e1 .. en"
std::string counted_list(std::span<const std::int32_t> values);
/// The numbers, separated by blanks.
std::string joined(std::span<const std::int32_t> values);
/// The effects (from 1) whose flag is set.
std::vector<std::int32_t> flagged_effects(std::span<const unsigned char> flags);

/// What stands around the options of a manual section: lines on the screen, a heading in Markdown.
struct manual_frame {
    std::string_view begin, end, heading;
};

void begin_manual(const manual_frame& frame, bool markdown, logger& log);
void end_manual(const manual_frame& frame, bool markdown, logger& log);
/// Usage and help of one option. A help of several lines is a list below its first line.
void print_manual_entry(std::string_view usage, std::string_view help, bool markdown, logger& log);

/// Prints a section of the manual. Markdown is written without broken lines, whatever the logger's layout.
template <class Record>
void print_manual(const manual_frame& frame, std::span<const option_entry<Record>> table, bool markdown,
                  logger& log) {
    const logger_layout layout = log.layout();
    constexpr logger_layout unbroken{.max_width = 100'000, .indent = false};
    if (markdown) log.configure(unbroken);
    begin_manual(frame, markdown, log);
    for (const auto& entry : table)
        if (!entry.usage.empty()) print_manual_entry(entry.usage, entry.help, markdown, log);
    end_manual(frame, markdown, log);
    log.configure(layout);
}

}  // namespace zendar
