#pragma once

#include <filesystem>
#include <string>
#include <vector>

/// Finds the texts of the program in its sources, so that a document that lists them can be checked.
namespace zendar::test {

/// One text: literals that stand beside each other or are joined by "+", with what is joined between them.
struct source_text {
    std::filesystem::path file;
    int line = 0;
    std::vector<std::string> calls;              ///< names before the brackets around it, the innermost last
    std::size_t argument = 0;                    ///< which argument of the innermost one
    std::string target;                          ///< what it is assigned to, if so
    std::vector<std::string> parts;              ///< its literals; between two of them stands an expression
    bool open_left = false, open_right = false;  ///< an expression stands before or behind them

    /// The literals, with "<...>" for the expressions.
    [[nodiscard]] std::string shape() const;
};

/// The texts of C++ sources; comments, preprocessor lines and characters are passed over.
std::vector<source_text> texts_of_source(const std::string& source, const std::filesystem::path& file);

/// The texts of all sources of a folder that belong to programs: all but tests, with the headers they
/// include.
std::vector<source_text> texts_of_folder(const std::filesystem::path& folder);

}  // namespace zendar::test
