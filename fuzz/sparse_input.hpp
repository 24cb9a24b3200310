#pragma once

#include <string_view>

namespace zendar::fuzz {

/// Reads one input as a file of each sparse matrix format. What loads is used, and must be saved as a file
/// that loads again and is then saved byte for byte the same. Works in the current directory. A `fatal_error`
/// is a good outcome of loading.
/// @returns whether the input is a file of one of the formats.
bool read_sparse(std::string_view input);

}  // namespace zendar::fuzz
