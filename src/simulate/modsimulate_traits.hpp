#pragma once

#include <string>
#include <vector>

#include "modsimulate_pedigree.hpp"

namespace zendar::simulate {

/// Genetic values by the infinitesimal model, nvalue for each animal, with `share` of the variances.
[[nodiscard]] std::vector<double> polygenic_values(const simulate_options& options, const population& animals,
                                                   double share);

/// Where the columns of data.txt stand, from 1; 0 for one that is not there.
struct data_columns {
    explicit data_columns(const simulate_options& options);
    std::int32_t herd, animal, genotyped = 0, none = 0, dam = 0;
};

/// Names of animals, "NL000012", in no order of the codes.
[[nodiscard]] std::vector<std::string> make_names(const simulate_options& options);

/// Writes data.txt, data_snp.txt for the model snpblup, and data_names.txt if there are names.
/// @returns the number of records of data.txt.
std::int64_t write_records(const simulate_options& options, const population& animals,
                           const std::vector<double>& values, const std::vector<std::string>& names,
                           logger& log);

}  // namespace zendar::simulate
