#include "modbasic.hpp"
#include "modfile.hpp"

namespace zendar {

std::optional<file_error> numcol(const std::filesystem::path& path, std::int64_t& columns) {
    text_reader input;
    if (auto failure = input.open(path)) return failure;
    const auto line = input.line();
    if (!line && input.error()) return input.error();
    columns = line ? count_words(*line) : 0;
    return std::nullopt;
}

}  // namespace zendar
