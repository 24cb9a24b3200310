#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "modlinear.hpp"
#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modplot.hpp"
#include "modstructure.hpp"

/// Solvers by iteration on data: C is known by its products only.
namespace zendar {

namespace modsolveriod {

/// What the solvers on data keep beside the solutions. One instance per run.
struct solver_state {
    std::vector<std::vector<double>> diagmaaam;  ///< one per huge effect: diagonal of M A22^-1 M'
    std::vector<double> tmpvectorpax;            ///< work vector of the deflated solvers
};

/// The diagonal that `diagmaaam` keeps of an effect (from 1); empty for an effect of no size.
using zaaaz_diagonal = std::function<std::vector<double>(std::int32_t effect)>;

}  // namespace modsolveriod

/// Equations from `first` to `last`, both counted from 1 and part of the range.
struct equation_range {
    std::int64_t first = 1, last = 0;
    bool operator==(const equation_range&) const = default;
};

/// How a solver ended.
struct solver_result {
    std::int32_t counter = 2;  ///< one past the last update; an iteration 1 is the start
    bool finite = true;  ///< false: x holds values that are not finite, and may replace no earlier solutions
    gnuplot_run graph = {};  ///< of the convergence, which may still be drawn
};

/// The groups of equations for which convergence is reported: one for each effect of `!conveffs`, or else the
/// effects from 1 to that of `!convpart`, or else the effect of `!conveff`; none without these options.
/// @throws fatal_error  for an effect that the model does not have.
std::vector<equation_range> convergence_groups(const param_type& param, logger& log);

/// What the preconditioner needs of the huge effects. Nothing is done without huge effects.
/// @throws fatal_error  for a huge effect of a type without preconditioner.
void init_solver_pcg_iod(const param_type& param, modsolveriod::solver_state& state, logger& log,
                         const modsolveriod::zaaaz_diagonal& diagonal = {});
void destroy_solver_iod(modsolveriod::solver_state& state);

/// Solves C x = b by preconditioned conjugate gradients.
///
/// Needs three vectors beside x, and moves 11 * 8 * neq bytes an iteration besides the product and the
/// preconditioner. Each 50th iteration computes the residual anew, with one more product.
///
/// Writes "convergence.dat", "ritzvalue.dat", "cvg_graph.g", "cvg.png" and "stats_previous_sol.dat" in the
/// output directory; the temporary solutions, and the right-hand sides of `!computefinalrhs`, in the working
/// directory.
///
/// @param param   `param.solver.eigmin`, `eigmax` and `condnumber` are changed.
/// @param x       neq: starting values in, solutions out.
/// @param groups  ranges for which convergence is reported; they may overlap.
/// @throws fatal_error  for an unknown criterion, a limit of 0 in the iteration file, files that fail.
solver_result solver_pcg_iod(param_type& param, linear_system& system, linear_preconditioner& preconditioner,
                             std::span<double> x, std::span<const equation_range> groups,
                             std::span<const covariable_type> cov, logger& log);

/// Statistics of the current solutions on those of the temporary stream, before it is replaced, as one line
/// of "stats_previous_sol.dat": for all equations and for each group correlation, slope, intercept, mean
/// squared difference, largest difference, and its size relative to the current solution in percent. Without
/// the stream there is no line; a stream of another length, or one that cannot be read, gets a warning.
void computestatsprevioussol(const param_type& param, std::int32_t iteration, std::span<const double> x,
                             std::span<const equation_range> groups, logger& log);

}  // namespace zendar
