#include <cassert>

#include "modheader.hpp"
#include "modsolveriod_detail.hpp"

namespace zendar {

solver_result solver_pcg_iod(param_type& param, linear_system& system, linear_preconditioner& preconditioner,
                             std::span<double> x, std::span<const equation_range> groups,
                             std::span<const covariable_type> cov, logger& log) {
    const std::int64_t neq = system.size();
    assert(std::ssize(x) == neq);
    detail::announce(system, 0, groups, log);
    detail::check_groups(groups, neq, log);
    detail::iteration_report report(param, groups, cov, log);

    detail::work_vector p(neq), z(neq);
    log.message("");
    const build_stamp build = this_build();
    log.message("Start the PCG  (compiled on " + build.date + " at " + build.time + ")");
    detail::work_vector r(neq);
    const detail::pcg_vectors v{.x = x, .r = r, .p = p, .z = z};

    detail::start_iteration(system, preconditioner, nullptr, v, report, log);
    detail::direction_rule direction;
    detail::pcg_state s;
    detail::pcg_loop({.c = system, .m = preconditioner, .direction = direction, .residual = &system}, v, s,
                     report);

    solver_result result = report.finish(s, x);
    if (param.solver.computefinalrhs) detail::computefinalrhs(param, system, v, log);
    return result;
}

}  // namespace zendar
