#pragma once

#include <span>
#include <vector>

#include "modoption.hpp"
#include "modparameters.hpp"

/// The rows of the model's options. Each source gives those of one subject; `model_options` brings them into
/// the one order in which they are read, printed and written.
namespace zendar::detail {

using model_option = option_entry<param_type>;

std::vector<model_option> genomic_options();       ///< genotypes, SNP effects, external matrices
std::vector<model_option> relationship_options();  ///< how effects and relationship matrices are used
std::vector<model_option> output_options();        ///< data that are read, files that are written, reports

std::span<const model_option> model_options();

}  // namespace zendar::detail
