#include <algorithm>
#include <cmath>

#include "modbasic.hpp"
#include "modgeneral.hpp"
#include "modsolveriod_detail.hpp"

namespace zendar::detail {

void announce(const linear_system& system, std::int64_t more, std::span<const equation_range> groups,
              logger& log) {
    constexpr double mb_of_4_vectors = 1.0 / 32768.0, mb_of_double = 1.0 / 131072.0;
    // The line counts w, which shares the memory of z.
    log.message("Memory (MB) needed for r,p,z,w  : " +
                realtochar(static_cast<double>(system.size()) * mb_of_4_vectors, "(f0.2)"));
    log.message("Memory (MB) needed for tmp array: " +
                realtochar(static_cast<double>(system.work_size() + more) * mb_of_double, "(f0.2)"));
    for (const equation_range& group : groups)
        log.message("Convergence criteria will be computed for eq. " + inttochar(group.first) + " to " +
                    inttochar(group.last));
}

void start_iteration(linear_system& system, linear_preconditioner& preconditioner, projector* deflation,
                     const pcg_vectors& v, iteration_report& report, logger& log) {
    log.message("Start the computation of the residual vector...");
    const wtime clock;
    system.r_equal_b_minus_atimesx(v.x, v.z, v.r);
    clock.end(log, "Residual vector computed ");
    start_report(preconditioner, deflation, v, report);
}

void start_report(linear_preconditioner& preconditioner, projector* deflation, const pcg_vectors& v,
                  iteration_report& report) {
    const double bb = sum_of_squares(v.z);
    const double normminvb = std::sqrt(preconditioner.preconditionertimesx(v.p, v.z).yy);
    set_zero(v.p);
    if (deflation != nullptr) deflation->project(v.r);
    report.start(v.z, v.r, bb, normminvb);
}

void computefinalrhs(const param_type& param, linear_system& system, const pcg_vectors& v, logger& log) {
    system.atimesx(v.x, v.p);
    writeoutputstream_real8(param, v.p, "manufactured_rhs.stream", log);
    writeoutput_real8(param, v.p, "manufactured_rhs.dat", log);
    if (!system.read_savedb(v.z)) return;

    double dd = 0.0, bb = 0.0, largest = 0.0, sum = 0.0;
    for (std::int64_t i = 0; i < std::ssize(v.z); ++i) {
        const double d = v.p[i] - v.z[i];
        dd += d * d;
        bb += v.z[i] * v.z[i];
        largest = std::max(largest, std::fabs(d));
        sum += std::fabs(v.z[i]);
    }
    const double mean = sum / static_cast<double>(std::ssize(v.z));
    log.message("Recomputed CR                   : " + realtochar(dd / bb, "(e12.5)"));
    log.message("Final absolute diff RHS         : " + realtochar(largest, "(e12.5)"));
    log.message("Final relative absolute diff RHS: " + realtochar(largest / mean, "(e12.5)"));
    writeoutput_real8(param, v.z, "real_rhs.dat", log);
}

}  // namespace zendar::detail
