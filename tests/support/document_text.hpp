#pragma once

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "places.hpp"

/// Reading the documents of the tree.
namespace zendar::test {

inline const std::filesystem::path tree = source_folder();

inline std::string content(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

inline std::vector<std::string> matches(const std::string& text, const std::string& pattern,
                                        std::size_t group = 1) {
    const std::regex expression(pattern);
    std::vector<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at)
        found.push_back(at->str(group));
    return found;
}

}  // namespace zendar::test
