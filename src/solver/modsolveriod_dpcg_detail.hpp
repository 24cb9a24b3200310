#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "modsolveriod_detail.hpp"
#include "modview.hpp"

/// What the deflated solvers on data share, whatever their vectors Z look like; private to the solvers.
namespace zendar::detail {

/// P = I - C Z E^-1 Z', and E^-1 for the solutions.
class deflation_projector : public projector {
  public:
    /// The last step of computeqbpluspx: x += Z E^-1 Z' r
    virtual void correct(std::span<const double> r, std::span<double> x) = 0;
};

/// E^-1, nsub x nsub; also written to "def_einv.stream", and with E as text to "def_einv_20.dat".
/// @param products      fills E.
/// @param not_definite  the error when E has no inverse.
/// @throws fatal_error  with it, and for files that cannot be written.
[[nodiscard]] matrix<double> compute_einv(std::int64_t nsub,
                                          const std::function<void(matrix_view<double>)>& products,
                                          const std::string& not_definite, logger& log);
/// E^-1 of a file, without any header.
/// @throws fatal_error  for a file that cannot be read, is of another size or has values that are not finite.
[[nodiscard]] matrix<double> read_einv(const std::string& name, std::int64_t nsub, logger& log);

/// How a deflated solver presents itself.
struct dpcg_form {
    std::string_view name;   ///< in the title
    std::string_view start;  ///< what is started
    std::int64_t nsub;
    double mb_of_z;
    std::int64_t work;  ///< doubles beside the vectors of the iteration and the work arrays of the system
};

/// The deflated iteration from its title to its solutions. `make_projector` is called when E^-1 is due.
solver_result solve_deflated(const dpcg_form& form, param_type& param, linear_system& system,
                             linear_preconditioner& preconditioner,
                             const std::function<std::unique_ptr<deflation_projector>()>& make_projector,
                             std::span<double> x, std::span<const equation_range> groups,
                             std::span<const covariable_type> cov, logger& log);

}  // namespace zendar::detail
