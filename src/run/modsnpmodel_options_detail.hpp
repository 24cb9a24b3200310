#pragma once

#include <span>

#include "modoption.hpp"
#include "modparameters.hpp"

namespace zendar::detail {

/// The rows of the run's options, in the order of the manual and of written files.
std::span<const option_entry<run_options>> other_options();

}  // namespace zendar::detail
