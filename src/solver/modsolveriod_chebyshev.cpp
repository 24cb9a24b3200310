#include "modsolveriod_chebyshev.hpp"

#include <cassert>
#include <cmath>

#include "modbasic.hpp"
#include "modsolveriod_detail.hpp"

namespace zendar {

namespace {

void check_bounds(const solver_type& solver, logger& log) {
    if (std::isfinite(solver.eigmin) && std::isfinite(solver.eigmax) && solver.eigmin > 0.0 &&
        solver.eigmax >= solver.eigmin)
        return;
    fatal(log,
          "The large and small eigenvalues of the Chebyshev iteration must be positive, the larger one "
          "first: " +
              realtochar(solver.eigmax, "(g0.8)") + " and " + realtochar(solver.eigmin, "(g0.8)"),
          "modsolveriod", "solver_chebyshev_iod");
}

/// The coefficients of the iterations in turn.
class semi_iteration {
  public:
    semi_iteration(double eigmin, double eigmax)
        : centre_(0.5 * (eigmax + eigmin)), c_(0.25 * (eigmax - eigmin)) {}

    struct coefficients {
        double k, omega;
    };
    /// p = k p + z, x = x + omega p
    coefficients next() {
        double k = 0.0;
        if (count_ > 0) k = (c_ * omega_) * (c_ * omega_);
        if (count_ == 1) k *= 2.0;
        // The first omega is 1 / centre, whatever it divides by.
        omega_ = 1.0 / (centre_ - (count_ > 0 ? k / omega_ : 0.0));
        if (count_ < 2) ++count_;
        return {k, omega_};
    }

  private:
    double centre_, c_, omega_ = 1.0;
    int count_ = 0;
};

struct step_sums {
    double zz = 0.0, dd = 0.0, xx = 0.0, maxdiff = 0.0;
};

/// p = k p + z, x += omega p with its sums; 5 passes of 8 bytes.
step_sums update(double k, double omega, std::span<const double> z_values, std::span<double> p_values,
                 std::span<double> x_values) {
    const std::int64_t n = std::ssize(x_values);
    const double* const z = z_values.data();
    double* const p = p_values.data();
    double* const x = x_values.data();
    double zz = 0.0, dd = 0.0, xx = 0.0, maxdiff = 0.0;
#pragma omp parallel for schedule(static) default(none) shared(z, p, x, n, k, omega) \
    reduction(+ : zz, dd, xx) reduction(max : maxdiff)
    for (std::int64_t i = 0; i < n; ++i) {
        p[i] = detail::multiply_add(k, p[i], z[i]);
        const double d = omega * p[i], size = std::fabs(d);
        x[i] += d;
        zz += z[i] * z[i];
        dd += d * d;
        xx += x[i] * x[i];
        maxdiff = size > maxdiff ? size : maxdiff;
    }
    return {zz, dd, xx, maxdiff};
}

/// r = b - r and its sum of squares; 3 passes.
double subtract_from(std::span<const double> b_values, std::span<double> r_values) {
    const std::int64_t n = std::ssize(r_values);
    const double* const b = b_values.data();
    double* const r = r_values.data();
    double rr = 0.0;
#pragma omp parallel for schedule(static) default(none) shared(b, r, n) reduction(+ : rr)
    for (std::int64_t i = 0; i < n; ++i) {
        r[i] = b[i] - r[i];
        rr += r[i] * r[i];
    }
    return rr;
}

}  // namespace

solver_result solver_chebyshev_iod(const param_type& param, linear_system& system,
                                   linear_preconditioner& preconditioner, std::span<double> x,
                                   std::span<double> b, logger& log) {
    const std::int64_t neq = system.size();
    assert(std::ssize(x) == neq && std::ssize(b) == neq);
    const solver_type& solver = param.solver;
    check_bounds(solver, log);
    constexpr double mb_of_5_vectors = 5.0 / 131072.0;
    log.message("  Memory (MB) needed for r,p,z,b,solutions   : " +
                realtochar(static_cast<double>(neq) * mb_of_5_vectors, "(f0.2)"));
    log.message("  Start Chebyshev");
    const std::string directory = output_prefix(param.outputdir);
    row_file convergence(directory + "convergence_cheb.dat", log);
    convergence_graph graph(directory);

    detail::work_vector r(neq), p(neq), z(neq);
    log.message("Start the computation of the residual vector...");
    const wtime start_clock;
    system.r_equal_b_minus_atimesx(x, b, r);
    start_clock.end(log, "Residual vector computed ");

    const double bb = detail::sum_of_squares(b), threshold = solver.convcrit * bb;
    double rr = detail::sum_of_squares(r);
    log.message("   Norm of RHS                    " + realtochar(bb, "(e12.5)") + " " +
                realtochar(std::sqrt(bb), "(e12.5)"));
    convergence.write(convergence_cheb_row(1, {rr / bb, 1.0, 1.0, 0.0}));
    const wtime clock;
    std::int32_t i = 2, maxiter_now = solver.maxiter;
    check_continue(solver, maxiter_now, log);

    semi_iteration coefficients(solver.eigmin, solver.eigmax);
    for (; i <= maxiter_now && rr > threshold && std::isfinite(rr); ++i) {
        preconditioner.preconditionertimesx(z, r);
        const auto [k, omega] = coefficients.next();
        const step_sums step = update(k, omega, z, p, x);
        detail::write_tmpsol(param, i, step.xx, x, {}, log);

        system.atimesx(x, r);
        rr = subtract_from(b, r);

        const double cr = rr / bb, ck = std::sqrt(step.zz) / std::sqrt(step.xx) / solver.eigmin;
        log.message("   Iteration " + format_int(i, "i6") + " Convergence = " + format_real(cr, "e12.5") +
                    " Clock time (s)= " + realtochar(clock.seconds(), "(f0.4)"));
        convergence.write(convergence_cheb_row(i, {cr, step.dd / step.xx, ck, step.maxdiff}));
        check_continue(solver, maxiter_now, log);
        graph.draw(i);
    }

    clock.end(log, "All iterations (" + inttochar(i - 1) + ") ");
    solver_result result{.counter = i, .finite = detail::all_finite(x)};
    if (!result.finite || !std::isfinite(rr)) detail::warn_not_finite(log);
    graph.draw(i, i);
    result.graph = graph.last();
    return result;
}

}  // namespace zendar
