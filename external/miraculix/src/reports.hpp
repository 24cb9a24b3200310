#pragma once

#include <cstdint>
#include <source_location>
#include <string>
#include <string_view>

/// What the library says. It knows no logger: its texts go to standard output and standard error, and what
/// ends the run is thrown as `zendar::fatal_error` with the exit status, after the text was printed.
namespace miraculix {

/// A line on standard output.
void print_line(std::string_view text);

/// Prints the text on standard error and throws.
[[noreturn]] void end_run(const std::string& text, int status = 1);

/// "Severe error occured in function ..." with a text of up to 200 characters.
[[noreturn]] void severe_error(std::string_view function, std::string_view text,
                               std::source_location where = std::source_location::current());

/// A check that can fail only by a mistake of the calling program: "'assert' failed in function ...".
void check(bool holds, std::string_view function,
           std::source_location where = std::source_location::current());

/// Ends the run when the value does not fit into 32 bits. `name` says whose value it is.
void stopIfNotIntI(std::int64_t value, std::string_view name, std::string_view function,
                   std::source_location where = std::source_location::current());

}  // namespace miraculix
