#include "modbasic.hpp"

#include <algorithm>

namespace zendar {

namespace {

/// Calls `take(begin, end)` for each word, positions from 0.
template <class Take>
void for_each_word(std::string_view line, Take take) {
    std::size_t begin = line.find_first_not_of(' ');
    while (begin != std::string_view::npos) {
        const std::size_t end = std::min(line.find(' ', begin), line.size());
        take(begin, end);
        begin = line.find_first_not_of(' ', end);
    }
}

}  // namespace

std::string inttochar(std::int64_t n) {
    char text[20];
    return {text, write_i0(text, n)};
}

std::vector<std::int32_t> pos_words(std::string_view line) {
    std::vector<std::int32_t> positions;
    std::size_t behind = 0;
    for_each_word(line, [&](std::size_t begin, std::size_t end) {
        positions.push_back(static_cast<std::int32_t>(begin + 1));
        behind = end;
    });
    positions.push_back(static_cast<std::int32_t>(behind + 1));
    return positions;
}

std::vector<std::string_view> words_of(std::string_view line) {
    std::vector<std::string_view> words;
    for_each_word(
        line, [&](std::size_t begin, std::size_t end) { words.push_back(line.substr(begin, end - begin)); });
    return words;
}

std::int64_t count_words(std::string_view line) {
    std::int64_t count = 0;
    for_each_word(line, [&](std::size_t, std::size_t) { ++count; });
    return count;
}

std::string_view trim_left(std::string_view text) {
    return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}

std::string_view trim_right(std::string_view text) {
    return text.substr(0, text.find_last_not_of(' ') + 1);  // npos + 1 is 0
}

std::string_view trim(std::string_view text) {
    return trim_right(trim_left(text));
}

std::string outputfile(std::string_view dir, std::string_view path) {
    std::string result(dir);
    result += path.substr(path.rfind('/') + 1);  // npos + 1 is 0
    return result;
}

std::string output_prefix(std::string_view outputdir) {
    if (outputdir.empty() || outputdir == "." || outputdir == "./") return {};
    const std::size_t last = outputdir.find_last_not_of('/');
    return std::string(outputdir.substr(0, last + 1)) + '/';  // the root directory stays "/"
}

}  // namespace zendar
