#include <cassert>

#include "modsolver_detail.hpp"

namespace zendar {

template <std::signed_integral Index>
solver_result solver_dpcg_inmem(const crs_matrix<Index>& c, const subdomains& z, const inmem_arguments& in) {
    crs_system system(c, in.b, in.log);
    assert(std::ssize(z.of) == system.size());
    detail::announce_range(in, system.size());
    const auto m = detail::choose_mija(c, {}, in);
    const matrix<double> einv = detail::obtain_einv(in.param, system, nullptr, z, in.log);
    detail::compressed_projector deflation(system, z, einv);
    detail::direction_rule direction;
    return detail::iterate_inmem({.title = "  Start the DPCG",
                                  .file = "convergence.dat",
                                  .direction = direction,
                                  .deflation = &deflation},
                                 system, *m, empty_equations(c.view()), in);
}

template solver_result solver_dpcg_inmem(const crssparse&, const subdomains&, const inmem_arguments&);
template solver_result solver_dpcg_inmem(const crssparse64&, const subdomains&, const inmem_arguments&);

}  // namespace zendar
