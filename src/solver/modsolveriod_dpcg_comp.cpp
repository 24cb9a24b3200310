#include "modsolveriod_dpcg_comp.hpp"

#include <cassert>

#include "modsolveriod_dpcg_comp_detail.hpp"

namespace zendar {

solver_result solver_dpcg_iod_comp(param_type& param, linear_system& system, structured_operator* structured,
                                   linear_preconditioner& preconditioner, const subdomains& z,
                                   std::span<double> x, std::span<const equation_range> groups,
                                   std::span<const covariable_type> cov, logger& log) {
    const std::int64_t neq = system.size();
    assert(std::ssize(z.of) == neq);
    matrix<double> einv;
    const auto make_projector = [&]() -> std::unique_ptr<detail::deflation_projector> {
        einv = detail::obtain_einv(param, system, structured, z, log);
        return std::make_unique<detail::compressed_projector>(system, z, einv);
    };
    const detail::dpcg_form form{.name = "comp",
                                 .start = "DPCG COMP",
                                 .nsub = z.nsub,
                                 .mb_of_z = mib(neq * std::int64_t{sizeof(std::int32_t)}),
                                 .work = 2 * neq};
    return detail::solve_deflated(form, param, system, preconditioner, make_projector, x, groups, cov, log);
}

}  // namespace zendar
