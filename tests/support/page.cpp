#include "page.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <regex>
#include <span>
#include <sstream>

namespace zendar::test {

namespace {

/// The word that ends the text which a command reads from the lines below it; empty without one.
std::string end_of_text(const std::string& line) {
    static const std::regex here("(^|[^<])<<-?\\s*['\"]?([A-Za-z_]+)['\"]?");
    std::smatch found;
    return std::regex_search(line, found, here) ? found[2].str() : std::string();
}

/// A command without its end is a syntax error of the shell.
bool is_complete(const std::string& command) {
    if (command.ends_with('\\')) return false;
    const std::string word = end_of_text(command);
    if (!word.empty() && !command.ends_with("\n" + word)) return false;
    return run_program("/", {"-n", "-c", command}, "/bin/bash").status == 0;
}

std::vector<std::string> commands_of(const std::vector<std::string>& lines,
                                     std::vector<std::string>& faults) {
    std::vector<std::string> commands;
    std::string command;
    for (const std::string& line : lines) {
        if (command.empty() && (line.empty() || line.starts_with('#'))) continue;
        command += (command.empty() ? "" : "\n") + line;
        if (!is_complete(command)) continue;
        commands.push_back(command);
        command.clear();
    }
    if (!command.empty()) faults.push_back("command without an end: " + command);
    return commands;
}

bool same_word(const std::string& shown, const std::string& printed) {
    if (shown == printed) return true;
    const auto x = number(shown), y = number(printed);
    return x && y && std::abs(*x - *y) <= 2e-5 * std::abs(*x);
}

/// `...` stands for one word or more.
bool same_words(std::span<const std::string> shown, std::span<const std::string> printed) {
    if (shown.empty() || printed.empty()) return shown.empty() && printed.empty();
    if (shown[0] == "...")
        return same_words(shown.subspan(1), printed.subspan(1)) || same_words(shown, printed.subspan(1));
    return same_word(shown[0], printed[0]) && same_words(shown.subspan(1), printed.subspan(1));
}

/// `...` may also stand for a part of a word: what stands around it is taken literally then.
bool same_around_dots(const std::vector<std::string>& shown, const std::vector<std::string>& printed) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])"), dots(R"( ?(\\\.){3} ?)");
    const auto joined = [](const std::vector<std::string>& words) {
        std::string text;
        for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
        return text;
    };
    const std::string literal = std::regex_replace(joined(shown), special, R"(\$&)"),
                      pattern = std::regex_replace(literal, dots, ".+");
    return pattern != literal && std::regex_match(joined(printed), std::regex(pattern));
}

bool same_line(const std::string& shown, const std::string& printed) {
    const auto a = words_in(shown), b = words_in(printed);
    return same_words(a, b) || same_around_dots(a, b);
}

}  // namespace

std::vector<std::string> pages() {
    std::vector<std::string> names{"README.md"};
    for (const auto& entry : std::filesystem::directory_iterator(source_folder() / "docs"))
        if (entry.path().extension() == ".md" &&
            content(entry.path()).find("\nMade by `scripts/make-docs.sh`") == std::string::npos)
            names.push_back("docs/" + entry.path().filename().string());
    std::ranges::sort(names);
    return names;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> words_in(const std::string& line) {
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

std::string content(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::optional<double> number(const std::string& word) {
    char* end = nullptr;
    const double value = std::strtod(word.c_str(), &end);
    return word.empty() || *end != '\0' ? std::nullopt : std::optional(value);
}

std::vector<command_block> read_page(const std::string& text, std::vector<std::string>& faults,
                                     page_rule rule) {
    static const std::regex program("(^ *(\\$ *)?|`)zendar(-matrices|-simulate)? .*"),
        indented("^ {4,}(\\$ .*|(\\./|scripts/|bench/)\\S.*|(zendar(-matrices|-simulate)?|cmake|cpack) .*)");
    std::vector<command_block> blocks;
    std::vector<std::string> lines;
    std::string kind, before;
    int number = 0;
    for (const std::string& line : lines_of(text)) {
        ++number;
        const std::string where = "line " + std::to_string(number) + ": ";
        if (line.starts_with("```")) {
            const std::string opens = line.substr(3);
            if (kind.empty() && opens == "sh")
                blocks.push_back({.line = number + 1, .in_the_tree = before == "<!-- in the tree -->"});
            if (kind.empty() && opens != "sh" && opens != "text")
                faults.push_back(where + "block of no kind: " + line);
            if (kind.empty() && opens == "text" && blocks.empty())
                faults.push_back(where + "output of no commands");
            if (kind == "sh") blocks.back().commands = commands_of(lines, faults);
            kind = !kind.empty() ? "" : opens.empty() ? "none" : opens;
            lines.clear();
        } else if (kind == "sh") {
            lines.push_back(line);
        } else if (kind == "text" && !blocks.empty()) {
            if (!words_in(line).empty()) blocks.back().shown.push_back(line);
        } else if (kind.empty() &&
                   std::regex_search(line, rule == page_rule::runs_only ? program : indented)) {
            faults.push_back(where + "command outside of a block: " + line);
        }
        before = line;
    }
    if (!kind.empty()) faults.emplace_back("block without an end");
    return blocks;
}

std::string not_printed(const std::vector<std::string>& shown, const std::string& output) {
    const auto printed = lines_of(output);
    auto at = printed.begin();
    for (const std::string& line : shown) {
        if (words_in(line) == std::vector<std::string>{"..."}) continue;
        at = std::find_if(at, printed.end(), [&](const std::string& p) { return same_line(line, p); });
        if (at == printed.end()) return line;
        ++at;
    }
    return {};
}

int told_status(const std::string& command) {
    static const std::regex comment("# exit status ([0-9]+)$");
    std::smatch found;
    return std::regex_search(command, found, comment) ? std::stoi(found[1]) : 0;
}

program_result page_shell::run(const std::string& command, std::chrono::seconds at_most) {
    const std::string bin = std::filesystem::path(program_file()).parent_path().string(),
                      path = std::getenv("PATH") == nullptr ? "" : std::getenv("PATH");
    if (!path.starts_with(bin + ":")) setenv("PATH", (bin + ":" + path).c_str(), 1);
    if (!state_.exists("folder")) state_.write("folder", folder_.string());
    state_.write(
        "command",
        command + "\nfor s in \"${PIPESTATUS[@]}\"; do [ $s = 0 ] || [ $s = 141 ] || exit $s; done\n");
    const std::string state = state_.path().string(),
                      script = "cd \"$(cat " + state + "/folder)\"\n[ ! -f " + state + "/exported ] || . " +
                               state + "/exported\ntrap 'pwd > " + state + "/folder; export -p > " + state +
                               "/exported' EXIT\nset -e\n. " + state + "/command\n";
    return run_program(folder_, {"-c", script}, "/bin/bash", at_most);
}

bool run_block(const command_block& block, page_shell& shell, page_result& result,
               std::chrono::seconds at_most) {
    const std::string where = "line " + std::to_string(block.line) + ": ";
    if (block.commands.empty()) result.faults.push_back(where + "no commands");
    std::string output;
    for (const std::string& command : block.commands) {
        const program_result ended = shell.run(command, at_most);
        ++result.commands;
        output += ended.out;
        if (ended.status == told_status(command)) continue;
        result.faults.push_back(where + command + "\nexit status " + std::to_string(ended.status) + "\n" +
                                ended.out + ended.error);
        return false;
    }
    const std::string missing = not_printed(block.shown, output);
    if (!missing.empty())
        result.faults.push_back(where + "is shown, but not printed: " + missing + "\n" + output);
    return true;
}

}  // namespace zendar::test
