#include "modsolveriod_dpcg_comp.hpp"

#include <cassert>
#include <cmath>

#include "modbasic.hpp"
#include "modheader.hpp"
#include "modsolveriod_detail.hpp"
#include "modsolveriod_dpcg_comp_detail.hpp"

namespace zendar {

namespace {

void announce_subdomains(const linear_system& system, const subdomains& z, logger& log) {
    constexpr double mb_of_double = 1.0 / 131072.0;
    const auto mb = [](double value) { return realtochar(value, "(f0.2)"); };
    log.message("DEFLATED PCG (comp) will be applied with the following requirements:");
    log.message("Number of subdomains                : " + inttochar(z.nsub));
    log.message("Memory (MB) needed for Z            : " +
                mb(static_cast<double>(system.size()) * 0.5 * mb_of_double));
    log.message("Memory (MB) needed for inv(ZCZprime): " +
                mb(std::pow(static_cast<double>(z.nsub), 2) * mb_of_double));
}

}  // namespace

solver_result solver_dpcg_iod_comp(param_type& param, linear_system& system, structured_operator* structured,
                                   linear_preconditioner& preconditioner, const subdomains& z,
                                   std::span<double> x, std::span<const equation_range> groups,
                                   std::span<const covariable_type> cov, logger& log) {
    const std::int64_t neq = system.size();
    assert(std::ssize(x) == neq && std::ssize(z.of) == neq);
    announce_subdomains(system, z, log);
    detail::announce(system, 2 * neq, groups, log);
    detail::check_groups(groups, neq, log);
    detail::iteration_report report(param, groups, cov, log);

    const matrix<double> einv = detail::obtain_einv(param, system, structured, z, log);

    detail::work_vector p(neq), zv(neq), w(neq);
    log.message("");
    const build_stamp build = this_build();
    log.message("Start the DPCG COMP (compiled on " + build.date + " at " + build.time + ")");
    detail::work_vector r(neq);
    const detail::pcg_vectors v{.x = x, .r = r, .p = p, .z = zv, .w = w};
    detail::compressed_projector deflation(system, z, einv);

    detail::start_iteration(system, preconditioner, &deflation, v, report, log);

    // The deflated system has no cheap true residual: it is never computed anew.
    detail::direction_rule direction;
    detail::pcg_state s;
    detail::pcg_loop({.c = system, .m = preconditioner, .direction = direction, .deflation = &deflation}, v,
                     s, report);

    // computeqbpluspx: x = Q b + P' x, as P' = I - Q C.
    system.r_equal_b_minus_atimesx(x, v.z, v.r);
    deflation.correct(v.r, x);
    const solver_result result = report.finish(s, x);
    if (param.solver.computefinalrhs) detail::computefinalrhs(param, system, v, log);
    return result;
}

}  // namespace zendar
