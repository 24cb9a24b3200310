#pragma once

#include <string_view>

namespace zendar::fuzz {

/// Reads one input as the file of an external matrix. Its first line is one character, the order of the
/// matrix modulo 16; the file follows. A matrix must keep the promises of the reader, and must not depend on
/// the order of the lines nor on the number of threads. Works in the current directory. A `fatal_error` is a
/// good outcome.
/// @returns whether the file is good.
bool read_coo(std::string_view input);

}  // namespace zendar::fuzz
