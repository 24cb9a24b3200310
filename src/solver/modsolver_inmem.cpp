#include <algorithm>
#include <cassert>

#include "modbasic.hpp"
#include "modsolver_detail.hpp"

namespace zendar::detail {

void announce_range(const inmem_arguments& in, std::int64_t neq) {
    if (!in.range) return;
    in.log.message("  Convergence criteria will be computed for eq. " + inttochar(in.range->first) + " to " +
                   inttochar(in.range->last));
    check_groups({&*in.range, 1}, neq, in.log);
}

template <std::signed_integral Index>
std::unique_ptr<linear_preconditioner> choose_mija(const crs_matrix<Index>& c,
                                                   std::span<const std::int64_t> first,
                                                   const inmem_arguments& in) {
    if (first.empty()) return std::make_unique<mija_lhs>(create_mija_lhs(c, 1, in.log));
    auto m = std::make_unique<mija_lhs_block>(create_mija_lhs_block(c, first, in.log));
    if (in.param.solver.printlhs) m->print(output_prefix(in.param.outputdir) + "mija_block.dat", in.log);
    return m;
}

template std::unique_ptr<linear_preconditioner> choose_mija(const crssparse&, std::span<const std::int64_t>,
                                                            const inmem_arguments&);
template std::unique_ptr<linear_preconditioner> choose_mija(const crssparse64&, std::span<const std::int64_t>,
                                                            const inmem_arguments&);

solver_result iterate_inmem(const inmem_method& method, linear_system& system,
                            linear_preconditioner& preconditioner, std::span<const std::int32_t> empty,
                            const inmem_arguments& in) {
    const std::int64_t neq = system.size();
    assert(std::ssize(in.x) == neq);
    const auto is_zero = [](double value) { return value == 0.0; };
    const auto clear_empty = [&] {
        for (const std::int32_t eq : empty) in.x[eq - 1] = 0.0;
    };
    in.log.message(method.title);
    iteration_report report(in.param, {}, in.cov, in.log, {.file = method.file, .inmem = true});
    clear_empty();
    // Convergence relative to b would have no end.
    if (std::ranges::all_of(in.b, is_zero)) std::ranges::fill(in.x, 0.0);
    if (!std::ranges::all_of(in.x, is_zero)) in.log.message("   Starting values were provided for PCG");

    work_vector r(neq), p(neq), z(neq);
    const pcg_vectors v{.x = in.x, .r = r, .p = p, .z = z};
    system.r_equal_b_minus_atimesx(v.x, v.z, v.r);
    in.log.message("  Residual vector computed");
    start_report(preconditioner, method.deflation, v, report);
    pcg_state s{.rr = sum_of_squares(v.r), .rr_old = sum_of_squares(in.b)};
    pcg_loop({.c = system,
              .m = preconditioner,
              .direction = method.direction,
              .deflation = method.deflation,
              .ends_at_rounding = true,
              .restart = &system},
             v, s, report);
    if (method.deflation != nullptr) {
        system.r_equal_savedb_minus_atimesx(v.x, v.r);
        method.deflation->correct(v.r, v.x);
        clear_empty();
    }
    solver_result result = report.finish(s, v.x);
    if (in.param.solver.computefinalrhs) computefinalrhs(in.param, system, v, in.log);
    return result;
}

}  // namespace zendar::detail
