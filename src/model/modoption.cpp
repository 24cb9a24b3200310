#include "modoption.hpp"

#include <cmath>
#include <utility>

#include "modbasic.hpp"
#include "modfile.hpp"

namespace zendar {

namespace {

constexpr std::string_view module_tag = "modoption";

std::string at_line(const std::string& file, std::int64_t line_number) {
    return "\nFile " + file + ", line " + inttochar(line_number);
}

}  // namespace

option_line::option_line(std::string_view text, std::string file, std::int64_t line_number,
                         std::int32_t neffect, logger& log)
    : text_(trim(text)), file_(std::move(file)), line_number_(line_number), neffect_(neffect), log_(&log) {
    for (const std::string_view word : words_of(text_)) words_.emplace_back(word);
}

std::int32_t option_line::size() const {
    return static_cast<std::int32_t>(words_.size());
}

const std::string& option_line::word(std::int32_t i) const {
    return words_[static_cast<std::size_t>(i)];
}

std::int32_t option_line::int32(std::int32_t i) const {
    std::int32_t value = 0;
    if (!parse_number(word(i), value).ok()) fail_on_word(i, "is not an integer!");
    return value;
}

double option_line::real(std::int32_t i) const {
    double value = 0.0;
    if (!parse_number(word(i), value).ok() || !std::isfinite(value)) fail_on_word(i, "is not a number!");
    return value;
}

std::int32_t option_line::int32_from(std::int32_t i, std::int32_t least) const {
    const std::int32_t value = int32(i);
    if (value < least) fail_on_word(i, "is less than " + inttochar(least) + "!");
    return value;
}

std::int32_t option_line::effect(std::int32_t i) const {
    const std::int32_t e = int32(i);
    if (e < 1 || e > neffect_)
        fail_on_word(i, "is not the number of an effect (1 to " + inttochar(neffect_) + ")!");
    return e;
}

std::optional<std::vector<std::int32_t>> option_line::effects(std::int32_t i) const {
    const std::int32_t count = int32(i);
    if (count < 1 || count != size() - i - 1) return std::nullopt;
    std::vector<std::int32_t> list;
    for (std::int32_t k = i + 1; k < size(); ++k) list.push_back(effect(k));
    return list;
}

std::string option_line::where() const {
    return at_line(file_, line_number_) + ": !" + text_;
}

void option_line::fail(const std::string& message) const {
    fatal(*log_, message + where(), module_tag, "option_line");
}

void option_line::fail_on_word(std::int32_t i, std::string_view what) const {
    fail("The option !" + keyword() + ": \"" + word(i) + "\" " + std::string(what));
}

std::string option_ignored(std::string_view keyword) {
    return "The option !" + std::string(keyword) + " was found and will be ignored!";
}

std::string option_ignored(std::string_view keyword, std::string_view default_value) {
    return "The option !" + std::string(keyword) +
           " was found and will be ignored (default: " + std::string(default_value) + ")";
}

std::vector<option_line> read_option_lines(const std::string& file, std::int32_t neffect, logger& log) {
    constexpr std::string_view procedure = "read_option_lines";
    text_reader input;
    if (const auto why = input.open(file))
        fatal_io(log, "Cannot open the file " + file, module_tag, procedure, why->iostat, why->iomsg);

    std::vector<option_line> lines;
    while (const auto line = input.line()) {
        const std::string_view text = trim_left(*line);
        if (!text.starts_with('!')) continue;
        // What is cut from a line would be lost without a word.
        if (trim_right(*line).size() > max_option_line)
            fatal(log,
                  "An option line has more than " + inttochar(static_cast<std::int64_t>(max_option_line)) +
                      " characters!" + at_line(file, input.line_number()),
                  module_tag, procedure);
        if (!trim(text.substr(1)).empty())
            lines.emplace_back(text.substr(1), file, input.line_number(), neffect, log);
    }
    if (const auto why = input.error())
        fatal_io(log, "Cannot read the file " + file, module_tag, procedure, why->iostat, why->iomsg);
    return lines;
}

std::string option_number(double x) {
    return realtochar(x, "(g0)");
}

std::string option_text(std::string_view keyword, std::initializer_list<std::string> words) {
    std::string line = "!" + std::string(keyword);
    for (const std::string& word : words) line.append(" ").append(word);
    return line;
}

std::string joined(std::span<const std::int32_t> values) {
    std::string text;
    for (const std::int32_t value : values) text.append(text.empty() ? "" : " ").append(inttochar(value));
    return text;
}

std::string counted_list(std::span<const std::int32_t> values) {
    return inttochar(std::ssize(values)) + " " + joined(values);
}

std::vector<std::int32_t> flagged_effects(std::span<const unsigned char> flags) {
    std::vector<std::int32_t> effects;
    std::int32_t e = 0;
    for (const unsigned char flag : flags) {
        ++e;
        if (flag != 0) effects.push_back(e);
    }
    return effects;
}

void begin_manual(const manual_frame& frame, bool markdown, logger& log) {
    log.message("");
    log.message(markdown ? frame.heading : frame.begin);
    log.message("");
}

void end_manual(const manual_frame& frame, bool markdown, logger& log) {
    if (markdown) return;
    log.message("");
    log.message(frame.end);
}

void print_manual_entry(std::string_view usage, std::string_view help, bool markdown, logger& log) {
    log.message(markdown ? "- `" + std::string(usage) + "`" : std::string(usage));
    if (markdown) log.message("");
    bool first = true;
    while (!help.empty()) {
        const std::size_t end = std::min(help.find('\n'), help.size());
        std::string line = markdown ? (first ? "  " : "  - ") : (first ? "   " : "      ");
        log.message(line.append(help.substr(0, end)));
        help.remove_prefix(std::min(end + 1, help.size()));
        if (markdown && (first || help.empty())) log.message("");
        first = false;
    }
}

}  // namespace zendar
