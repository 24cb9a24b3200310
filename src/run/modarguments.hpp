#pragma once

#include <algorithm>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modbasic.hpp"
#include "modlogger.hpp"

/// The command lines of the programs beside the solver: arguments "--name" and "--name value" by a table. A
/// row has `name`, `value` (what stands for it in the help, empty for a flag) and `help`.
namespace zendar {

/// Where refusals come from.
struct argument_source {
    const char *program, *module, *procedure;
};

/// Reads the arguments in their order, each at most once.
///
/// @param set   takes a row and its value, which is empty for a flag
/// @param free  takes a word that does not begin with "--"; false: it is unknown
/// @return the names that were given
/// @throws fatal_error
template <class Rows, class Set, class Free>
std::set<std::string> read_arguments(std::span<const std::string> words, const Rows& rows,
                                     argument_source source, logger& log, const Set& set, const Free& free) {
    const auto refuse = [&](const std::string& message) {
        fatal(log, message, source.module, source.procedure);
    };
    std::set<std::string> seen;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (!word.starts_with("--") && free(word)) continue;
        const auto row = std::ranges::find_if(rows, [&](const auto& r) { return r.name == word; });
        if (row == std::end(rows))
            refuse("The argument \"" + word + "\" is unknown. Try " + source.program + " --help");
        if (!seen.insert(word).second) refuse("The argument \"" + word + "\" was given twice");
        if (*row->value == '\0') {
            set(*row, std::string());
            continue;
        }
        if (i + 1 == words.size() || words[i + 1].starts_with("--") || trim(words[i + 1]).empty())
            refuse("The argument \"" + word + "\" needs a value");
        set(*row, words[++i]);
    }
    return seen;
}

/// Lines of at most 78 characters behind an indentation.
inline std::string wrapped(std::string_view text, const std::string& indentation) {
    constexpr std::size_t width = 78;
    std::string result, line;
    for (const std::string_view word : words_of(text)) {
        if (!line.empty() && indentation.size() + line.size() + 1 + word.size() > width) {
            result += indentation + line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + std::string(word);
    }
    return result + indentation + line + "\n";
}

/// The rows as the help shows them; `remark` adds to the text of a row.
template <class Rows, class Remark>
std::string help_of_arguments(const Rows& rows, const Remark& remark) {
    std::string text;
    for (const auto& row : rows)
        text += "   " + std::string(row.name) + (*row.value == '\0' ? "" : " ") + row.value + "\n" +
                wrapped(row.help + remark(row), "          ");
    return text;
}

template <class Rows>
std::vector<std::string> names_of_arguments(const Rows& rows) {
    std::vector<std::string> names;
    for (const auto& row : rows) names.emplace_back(row.name);
    return names;
}

}  // namespace zendar
