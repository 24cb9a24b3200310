#pragma once

#include <string_view>

namespace zendar::fuzz {

/// Reads one input as a coefficient file. Its first line holds three characters: the form ('t' text, 's'
/// ".sparse", 'h' ".sparse" of a huge effect, 'b' ".stream"), N_LEVEL and N_COV, both as one character modulo
/// 16; the file follows. What is read must keep the promises of the reader, and must not depend on the size
/// of the blocks. Works in the current directory. A `fatal_error` is a good outcome.
/// @returns whether the file is good.
bool read_covariable(std::string_view input);

}  // namespace zendar::fuzz
