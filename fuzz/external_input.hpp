#pragma once

#include <string_view>

namespace zendar::fuzz {

/// Reads one input as a file that the external matrices of an effect of 16 levels come from. Its first line
/// is one character, the reader: g Gi-A22i, x the block between two effects, i a list of levels, a and A APY,
/// t and T Ta, k and K the K matrix, Q a symmetric matrix, capitals for streams; the file follows. Before the
/// file of 'a' stands the list of core levels, up to a line "=". What was read must come back from the file
/// that its writer makes. Works in the current directory. A `fatal_error` is a good outcome.
/// @returns whether the file is good.
bool read_external(std::string_view input);

}  // namespace zendar::fuzz
