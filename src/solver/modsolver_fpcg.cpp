#include "modsolver_detail.hpp"

namespace zendar {

namespace {

/// Keeps the residual of the iteration before; 0 before the first.
class flexible_rule final : public detail::direction_rule {
  public:
    explicit flexible_rule(std::int64_t n) : previous_(n) {}
    double operator()(const detail::pcg_vectors& v, double /*tau*/, double tau_old) override {
        return detail::update_direction_flexible(v.z, v.r, previous_, v.p, tau_old);
    }

  private:
    detail::work_vector previous_;
};

}  // namespace

template <std::signed_integral Index>
solver_result solver_fpcg_inmem(const crs_matrix<Index>& c, std::span<const std::int64_t> first,
                                const inmem_arguments& in) {
    crs_system system(c, in.b, in.log);
    detail::announce_range(in, system.size());
    const auto m = detail::choose_mija(c, first, in);
    flexible_rule direction(system.size());
    return detail::iterate_inmem(
        {.title = "  Start the FLEXIBLE PCG", .file = "convergence_fpcg.dat", .direction = direction}, system,
        *m, empty_equations(c.view()), in);
}

template solver_result solver_fpcg_inmem(const crssparse&, std::span<const std::int64_t>,
                                         const inmem_arguments&);
template solver_result solver_fpcg_inmem(const crssparse64&, std::span<const std::int64_t>,
                                         const inmem_arguments&);

}  // namespace zendar
