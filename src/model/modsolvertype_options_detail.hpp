#pragma once

#include <span>

#include "modoption.hpp"
#include "modsolvertype.hpp"

namespace zendar::detail {

/// Smallest eigenvalue that the criterion CM starts with.
inline constexpr auto eigmin_of_cm = static_cast<double>(1e-4f);

/// The rows of the solver's options, in the order of the manual and of written files.
std::span<const option_entry<solver_type>> solver_options();

}  // namespace zendar::detail
