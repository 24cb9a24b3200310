#pragma once

#include <string_view>

namespace zendar::fuzz {

/// Reads one input as the files of a run: instruction file, phenotype file, residual file, covariance file and further
/// options, separated by lines of "%%", through all stages that read, check and lay out the model.
/// Works in the current directory. A `fatal_error` is a good outcome.
void read_model(std::string_view input);

}  // namespace zendar::fuzz
