#pragma once

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modlogger.hpp"

/// How the readers of vectors take files and numbers; nobody else includes this.
namespace zendar::detail {

[[noreturn]] inline void stop_reading(logger& log, const std::string& what, std::string_view procedure,
                                      int iostat, std::string_view iomsg) {
    fatal_io(log, what, "modgeneral", procedure, iostat, iomsg);
}

inline void check_opened(const std::optional<file_error>& error, const std::string& file,
                         std::string_view procedure, logger& log) {
    if (error) stop_reading(log, "Cannot read the file " + file, procedure, error->iostat, error->iomsg);
}

inline std::string line_of(const text_reader& input, const std::string& file) {
    return "line " + inttochar(input.line_number()) + " of the file " + file;
}

inline bool is_separator(char c) {
    return c == ' ' || c == '\t';
}

/// The next number of a line in its common form. False leaves the line to the list-directed reader.
template <class T>
inline bool next_number(const char*& at, const char* end, T& value) {
    while (at != end && is_separator(*at)) ++at;
    const auto [stop, error] = std::from_chars(at, end, value);
    if (error != std::errc() || (stop != end && !is_separator(*stop))) return false;
    at = stop;
    return true;
}

/// Words such as "nan" are numbers to from_chars; what they mean is for the list-directed reader to say.
inline bool is_plain(std::string_view line) {
    return std::ranges::all_of(line, [](char c) {
        return (c >= '0' && c <= '9') || is_separator(c) || c == '.' || c == '-' || c == '+' || c == 'e' ||
               c == 'E';
    });
}

/// False, with the warning, when the file does not exist.
inline bool is_there(const std::string& file, const std::string& consequence, std::string_view procedure,
                     logger& log) {
    std::error_code code;
    if (std::filesystem::exists(file, code) || code) return true;  // what is wrong shows when it is opened
    log.warning("The file \"" + file + "\" does not exist!", "modgeneral", procedure);
    log.warning(consequence, "modgeneral", procedure);
    return false;
}

}  // namespace zendar::detail
