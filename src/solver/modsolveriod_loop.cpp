#include "modsolveriod_detail.hpp"

#include <algorithm>
#include <limits>

namespace zendar::detail {

namespace {

/// Rounding lets the recursive residual drift from b - C x; that is put right as often as this.
constexpr std::int32_t residual_period = 50;

/// r'r of what a few roundings leave, relative to r'r before.
constexpr double rounding_level =
    64.0 * std::numeric_limits<double>::epsilon() * std::numeric_limits<double>::epsilon();

/// r'r near rounding, relative to b'b, and its growth from there that ends a sequence of directions.
constexpr double near_rounding = 1e-20, growth = 1e3;

/// From the residual of x, with a direction that has nothing of those before.
void start_anew(const pcg_problem& problem, const pcg_vectors& v, pcg_state& s) {
    problem.restart->r_equal_savedb_minus_atimesx(v.x, v.r);
    if (problem.deflation != nullptr) problem.deflation->project(v.r);
    s.rr = sum_of_squares(v.r);
    s.tau_old = std::numeric_limits<double>::infinity();  // beta is 0
}

}  // namespace

// Moves 11 * 8 * neq bytes an iteration besides the product, the projector and the preconditioner.
void pcg_loop(const pcg_problem& problem, const pcg_vectors& v, pcg_state& s, pcg_control& control) {
    const null_step when_null = problem.ends_at_rounding ? null_step::rest : null_step::divide;
    const double rounding = near_rounding * s.rr_old;
    double least = s.rr;
    while (control.goes_on(s)) {
        if (problem.ends_at_rounding && s.rr <= rounding_level * s.rr_old) return;
        const preconditioned_sums sums = problem.m.preconditionertimesx(v.z, v.r);
        s.zz = sums.yy;
        s.tau = sums.xy;
        s.beta = problem.direction(v, s.tau, s.tau_old);
        s.tau_old = s.tau;

        const std::span<double> w = v.z;
        problem.c.atimesx(v.p, w);
        if (problem.deflation != nullptr) problem.deflation->project(w);

        const bool anew = problem.residual != nullptr && s.i % residual_period == 0;
        const solution_sums step =
            update_solution(s.tau, v.p, w, v.x, anew ? std::span<double>() : v.r, when_null);
        if (problem.ends_at_rounding && step.alpha == 0.0) return;
        s.alpha_old = s.alpha;
        s.alpha = step.alpha;
        s.dd = step.dd;
        s.maxdiff = step.maxdiff;
        s.xx = step.xx;
        s.rr_old = s.rr;
        s.rr = step.rr;
        control.updated(s, v);

        if (anew) {
            problem.residual->r_equal_savedb_minus_atimesx(v.x, v.r);
            s.rr = sum_of_squares(v.r);
        }
        if (problem.restart != nullptr && least < rounding && s.rr > growth * least) {
            start_anew(problem, v, s);
            least = s.rr;
        }
        least = std::min(least, s.rr);
        control.iterated(s, v);
        ++s.i;
    }
}

}  // namespace zendar::detail
