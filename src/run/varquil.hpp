#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace zendar {

/// Where a run writes what a person sees. Both outlive the run.
struct run_streams {
    std::ostream& out;    ///< the log and the usage text
    std::ostream& error;  ///< messages of the command-line parser
};

/// One whole run in the current working directory.
/// @param arguments  the command line without the program's name.
/// @returns the exit status: 0 for a good run; every failure has been reported when it returns.
int run_zendar(const std::vector<std::string>& arguments, run_streams streams);

}  // namespace zendar
