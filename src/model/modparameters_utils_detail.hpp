#pragma once

#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modparameters_utils_lines.hpp"
#include "modstructure.hpp"

/// What the sources of the phenotype reader share; nobody else includes this.
namespace zendar::detail {

// ---- the stages (modparameters_utils_phen.cpp) -----------------------------------------------------------

/// `readdata_phen_ascii` with other sizes, for tests.
void read_phenotypes(param_type& param, phenotype_data& data, logger& log, const reading_sizes& sizes);

}  // namespace zendar::detail
