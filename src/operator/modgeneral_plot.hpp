#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "modlogger.hpp"
#include "modparameters.hpp"

/// The picture of `!plotsolutions`.
namespace zendar {

/// The solutions of one effect and trait, counted in bins of equal width.
struct solution_histogram {
    std::int32_t effect = 0;
    std::vector<std::int32_t> traits = {};  ///< more than one where `!combieff` gives them the same equations
    std::int64_t n = 0;                     ///< solutions that are finite
    double least = 0.0, most = 0.0, mean = 0.0, sd = 0.0;
    /// Bin k has the solutions x with edge(k) <= x < edge(k + 1), the last one also its upper edge. Empty
    /// when all solutions are the same up to rounding.
    std::vector<std::int64_t> counts = {};

    [[nodiscard]] double edge(std::int64_t k) const;
};

/// One histogram for each effect that has equations of its own and each trait; traits that an effect has
/// nothing for (not in the model, and all 0) are left out. Goes over the solutions twice and copies none.
/// @param vector  neq values.
std::vector<solution_histogram> count_solutions(const param_type& param, std::span<const double> vector,
                                                logger& log);

/// The script for gnuplot, with the counts in it, that draws `picture`: effects below each other, traits side
/// by side; the effects of a single trait stand in several columns.
std::string solutions_graph_script(const param_type& param, std::span<const solution_histogram> histograms,
                                   const std::string& picture);

/// Writes "solutions_graph.g" and draws "solutions.png" with it. No failure ends a run: there is one warning,
/// and no picture, not even one of an earlier run.
void plot_solutions(const param_type& param, std::span<const double> vector, logger& log);

}  // namespace zendar
