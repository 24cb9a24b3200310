#include "modparameters_section_reader.hpp"

#include <algorithm>
#include <numeric>

#include "modbasic.hpp"
#include "modparameters.hpp"
#include "modparameters_detail.hpp"

namespace zendar::detail {

namespace {

constexpr std::string_view procedure = read_parameter_file_tag;
constexpr std::int64_t max_file_bytes = std::int64_t{64} << 20;

constexpr std::string_view separators = " \t,";

/// Takes a quoted word off the front of `line`; false when its end is missing.
bool take_quoted(std::string_view& line, std::string& word) {
    const char quote = line.front();
    for (std::size_t i = 1; i < line.size(); ++i) {
        if (line[i] != quote) {
            word += line[i];
        } else if (i + 1 < line.size() && line[i + 1] == quote) {
            word += line[i++];  // a doubled one stands for itself
        } else {
            line.remove_prefix(i + 1);
            return true;
        }
    }
    return false;
}

/// The words of a line; unlike in a read statement, each stands for one value.
std::vector<std::string> words_of_values(std::string_view line) {
    std::vector<std::string> words;
    while (true) {
        line.remove_prefix(std::min(line.find_first_not_of(separators), line.size()));
        if (line.empty()) return words;
        std::string& word = words.emplace_back();
        if ((line.front() == '\'' || line.front() == '"') && take_quoted(line, word)) continue;
        word = line.substr(0, line.find_first_of(separators));
        line.remove_prefix(word.size());
    }
}

std::string_view without_margin(std::string_view line) {
    const auto first = line.find_first_not_of(" \t");
    return first == std::string_view::npos ? std::string_view{} : line.substr(first);
}

}  // namespace

std::string at_line(const text_reader& input) {
    return at_line(input.name(), input.line_number());
}

std::string at_line(const std::string& file, std::int64_t line_number) {
    return "\nFile " + file + ", line " + inttochar(line_number);
}

section_reader::section_reader(const std::string& file, logger& log) : log_(log) {
    text_reader source;
    if (const auto why = source.open(file))
        fatal_io(log, "Cannot open the file " + file, modparameters_tag, procedure, why->iostat, why->iomsg);
    std::string text;
    while (const auto line = source.line()) {
        const std::string_view words = without_margin(*line);
        const std::string_view kept = words.starts_with('!') ? std::string_view{} : words;
        text += kept;
        text += '\n';
        bytes_left_.push_back(std::ssize(kept) + 1);
        if (std::ssize(text) > max_file_bytes)
            fatal(log, "The file is too large to be an instruction file" + at_line(source), modparameters_tag,
                  procedure);
    }
    if (const auto why = source.error())
        fatal_io(log, "Cannot read the file properly" + at_line(source), modparameters_tag, procedure,
                 why->iostat, why->iomsg);
    std::inclusive_scan(bytes_left_.rbegin(), bytes_left_.rend(), bytes_left_.rbegin());
    input_.open_text(std::move(text), file);
}

std::string section_reader::where() const {
    return at_line(input_);
}

std::int64_t section_reader::bytes_left() const {
    const auto next = static_cast<std::size_t>(input_.line_number());
    return next < bytes_left_.size() ? bytes_left_[next] : 0;
}

std::optional<std::string> section_reader::next_word() {
    std::string word;
    if (!list_read(input_).get(word).ok()) return std::nullopt;
    return word;
}

void section_reader::keyword(std::string_view name, std::string_view message) {
    const std::optional<std::string> word = next_word();
    if (!word)
        fatal_io(log_, "The end of the file was found before the keyword " + std::string(name) + where(),
                 modparameters_tag, procedure, -1, "End of file");
    const std::string place = message.empty() ? where().substr(1) : where();
    checkparam(log_, *word, name, {}, std::string(message) + place);
}

void section_reader::values(std::string_view section, std::span<std::int32_t> out) {
    const read_status status = list_read(input_).get(out);
    if (!status.ok())
        fatal_io(log_, "Issue with the values of " + std::string(section) + where(), modparameters_tag,
                 procedure, status.iostat, status.iomsg);
}

std::int32_t section_reader::keyword_and_value(std::string_view section) {
    std::int32_t value = 0;
    keyword(section);
    values(section, {&value, 1});
    return value;
}

std::vector<std::string> section_reader::words_of_next_line() {
    std::vector<std::string> words;
    while (words.empty()) {
        const auto line = input_.line();
        if (!line) break;
        words = words_of_values(*line);
    }
    return words;
}

void section_reader::check_range(std::string_view what, std::int64_t value, std::int64_t lowest,
                                 std::int64_t highest) const {
    if (value < lowest)
        fail(std::string(what) + " is " + inttochar(value) + ", but must be at least " + inttochar(lowest) +
             "!");
    if (value > highest)
        fail(std::string(what) + " is " + inttochar(value) + ", but must be at most " + inttochar(highest) +
             "!");
}

void section_reader::fail(const std::string& message) const {
    fatal(log_, message + where(), modparameters_tag, procedure);
}

}  // namespace zendar::detail
