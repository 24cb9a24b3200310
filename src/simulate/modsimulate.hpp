#pragma once

#include <iosfwd>
#include <string>
#include <vector>

/// The program that writes simulated populations.
namespace zendar::simulate {

/// Runs the program with the words behind its name. Log and help go to `out`.
/// @returns the exit status: 0, or 1 after one error message.
[[nodiscard]] int run_simulate(const std::vector<std::string>& words, std::ostream& out);

}  // namespace zendar::simulate
