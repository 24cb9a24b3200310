#include "reports.hpp"

#include <cstdio>
#include <limits>

#include "modfatal.hpp"

namespace miraculix {

namespace {

/// Name of the source file without its folders.
std::string_view file_of(const std::source_location& where) {
    const std::string_view path = where.file_name();
    return path.substr(path.find_last_of('/') + 1);
}

/// A text as "%.50s" would print it.
std::string first(std::string_view text, std::size_t length = 50) {
    return std::string(text.substr(0, length));
}

void print(std::FILE* stream, std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

}  // namespace

void print_line(std::string_view text) {
    print(stdout, text);
}

void end_run(const std::string& text, int status) {
    print(stderr, text);
    throw zendar::fatal_error(text, status);
}

void severe_error(std::string_view function, std::string_view text, std::source_location where) {
    end_run("Severe error occured in function '" + first(function) + "' (file '" + first(file_of(where)) +
            "', line " + std::to_string(where.line()) + ")." + first(" " + std::string(text), 200));
}

void check(bool holds, std::string_view function, std::source_location where) {
    if (holds) return;
    end_run("'assert' failed in function '" + first(function) + "' (" + first(file_of(where)) + ", line " +
            std::to_string(where.line()) + ") Please inform the maintainer of the program.");
}

void stopIfNotIntI(std::int64_t value, std::string_view name, std::string_view function,
                   std::source_location where) {
    if (value >= std::numeric_limits<std::int32_t>::min() &&
        value <= std::numeric_limits<std::int32_t>::max())
        return;
    severe_error(function, first(name) + " = " + std::to_string(value) + " does not fit into 32 bits.",
                 where);
}

}  // namespace miraculix
