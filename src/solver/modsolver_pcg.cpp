#include "modsolver_detail.hpp"

namespace zendar {

template <std::signed_integral Index>
solver_result solver_pcg_inmem(const crs_matrix<Index>& c, std::span<const std::int64_t> first,
                               const inmem_arguments& in) {
    crs_system system(c, in.b, in.log);
    detail::announce_range(in, system.size());
    const auto m = detail::choose_mija(c, first, in);
    detail::direction_rule direction;
    return detail::iterate_inmem(
        {.title = "  Start the PCG", .file = "convergence.dat", .direction = direction}, system, *m,
        empty_equations(c.view()), in);
}

template solver_result solver_pcg_inmem(const crssparse&, std::span<const std::int64_t>,
                                        const inmem_arguments&);
template solver_result solver_pcg_inmem(const crssparse64&, std::span<const std::int64_t>,
                                        const inmem_arguments&);

}  // namespace zendar
