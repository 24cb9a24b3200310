#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "modfile.hpp"

/// What only the sources of modparameters share.
namespace zendar::detail {

/// The module tag of the log.
inline constexpr std::string_view modparameters_tag = "modparameters";

/// Equations are numbered by 32-bit integers.
inline constexpr std::int32_t max_equations = std::numeric_limits<std::int32_t>::max();

/// The name that is written in place of a matrix file that is not kept.
inline constexpr std::string_view not_stored = "NOT_STORED";

/// A further line of a message: where the reading stands.
std::string at_line(const text_reader& input);

/// A further line of a message: the file and one of its lines.
std::string at_line(const std::string& file, std::int64_t line_number);

}  // namespace zendar::detail
