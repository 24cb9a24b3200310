#include <algorithm>
#include <cmath>
#include <utility>

#include "modbasic.hpp"
#include "modgeneral.hpp"
#include "modheader.hpp"
#include "modsolveriod_detail.hpp"

namespace zendar::detail {

namespace {

constexpr std::int32_t default_miniter = 4;

// The eigenvalues for CK, CM and CC are looked at from the first of these on, and then with this period.
constexpr std::int32_t first_eigenvalues = 200, eigenvalue_period = 50;
constexpr std::int32_t first_ritz = 100;

}  // namespace

iteration_report::iteration_report(param_type& param, std::span<const equation_range> groups,
                                   std::span<const covariable_type> cov, logger& log, report_form form)
    : param_(param),
      solver_(param.solver),
      ranges_(groups),
      cov_(cov),
      log_(log),
      form_(std::move(form)),
      directory_(output_prefix(param.outputdir)),
      criteria_(param.solver, log),
      miniter_(solver_.miniter > 0 ? solver_.miniter : default_miniter),
      maxiter_now_(solver_.maxiter),
      graph_(directory_) {}

void iteration_report::start(std::span<const double> b, std::span<const double> r, double bb,
                             double normminvb) {
    if (solver_.altconv) aggregate_ = convaggregate_state{.offset = convaggregate_offset(param_)};
    criteria_.start(bb, sum_of_squares(r), normminvb);
    groups_.emplace(ranges_, b);
    groups_->start(r);

    convergence_.emplace(directory_ + form_.file, log_);
    if (!form_.inmem) convergence_->write(convergence_header(ranges_.size()));
    if (param_.computeeigen > 0) ritz_.emplace(directory_ + "ritzvalue.dat", log_);

    log_.message("");
    log_.message("Norm of RHS         : " + realtochar(bb, "(e12.5)"));  // the square of it
    log_.message("Norm of M-1 * RHS   : " + realtochar(normminvb, "(e12.5)"));
    log_.message("");
    write_time(log_, "Iterative process starts on ");
    clock_ = wtime();
    log_iteration(1, 0.0, 0.0);
    const pcg_state before_any{.i = 1};
    convergence_values first = criteria_.row(before_any);
    first.cd = 1.0;
    write_row(1, first);
    if (solver_.esteigen) t_.emplace();
    check_continue(solver_, maxiter_now_, log_);
}

bool iteration_report::goes_on(const pcg_state& s) const {
    // Not "<=": a criterion that is not a number ends the loop.
    return s.i <= maxiter_now_ && (criteria_.selected() > solver_.convcrit || s.i <= miniter_);
}

void iteration_report::updated(const pcg_state& s, const pcg_vectors& v) {
    if (aggregate_) computeconvaggregate(param_, s.i, v.x, cov_, *aggregate_, log_);
}

void iteration_report::iterated(const pcg_state& s, const pcg_vectors& v) {
    // Of a solved system rounding makes the flexible beta negative.
    if (t_ && s.i > 2) t_->update(s.i, form_.inmem && s.beta < 0.0 ? 0.0 : s.beta, s.alpha_old);
    groups_->iterated(s, v);
    update_eigenvalues(s.i);
    criteria_.iterated(s);

    log_iteration(s.i, s.tau, clock_.seconds());
    write_row(s.i, criteria_.row(s));
    write_ritz(s.i);
    check_continue(solver_, maxiter_now_, log_);
    graph_.draw(s.i);
    write_tmpsol(param_, s.i, s.xx, v.x, ranges_, log_);
    if (solver_.peek) peekoption(param_, s.i, v.x, cov_, log_);
}

void iteration_report::update_eigenvalues(std::int32_t i) {
    if (!criteria_.bounds() || !t_ || i < first_eigenvalues || i % eigenvalue_period != 0) return;
    const wtime clock;
    const auto [lmin, lmax] = eigenvalues(*t_, i, log_);
    if (std::isfinite(lmin) && std::isfinite(lmax)) {
        solver_.eigmin = std::min(solver_.eigmin, lmin);
        solver_.eigmax = lmax;
        solver_.condnumber = std::max(solver_.condnumber, lmax / lmin);
    }
    log_.message("    Estimation of min eigenvalue (s): " + realtochar(clock.seconds(), "(f0.3)"));
}

void iteration_report::write_ritz(std::int32_t i) {
    if (!t_ || !ritz_ || i < first_ritz || i % param_.computeeigen != 0) return;
    const auto [smallest, largest] = eigenvalues(*t_, i, log_);
    ritz_->write(ritz_row(i, smallest, largest, criteria_.ck() / smallest * solver_.eigmin));
}

void iteration_report::write_row(std::int32_t i, const convergence_values& values) {
    convergence_->write(
        form_.inmem ? convergence_inmem_row(i, values.tau, {values.cr, values.cd, values.ck, values.cm})
                    : convergence_row(i, values, groups_->cr_effect(), groups_->cd_effect()));
}

void write_tmpsol(const param_type& param, std::int32_t i, double xx, std::span<const double> x,
                  std::span<const equation_range> groups, logger& log) {
    const solver_type& solver = param.solver;
    const std::int32_t period = solver.nwritetmpsol;
    if (period < 1 || i % period != 0) return;
    if (solver.statprevioussol && i > period) computestatsprevioussol(param, i, x, groups, log);
    // A restart must not find values that are not finite. x'x shows most often that there are none.
    if (std::isfinite(xx) || all_finite(x)) write_raw_stream(x, solver.tmpsol, log);
}

void warn_not_finite(logger& log) {
    log.warning("The iteration ended on a value that is not finite");
}

void iteration_report::log_iteration(std::int32_t i, double tau, double seconds) {
    log_.message("Iteration " + inttochar(i) + " tau = " + realtochar(tau, "(e10.4)") +
                 " Convergence = " + realtochar(criteria_.selected(), "(e10.4)") +
                 " Clock time (s)= " + realtochar(seconds, "(f0.3)"));
}

solver_result iteration_report::finish(const pcg_state& s, std::span<const double> x) {
    clock_.end(log_, "All iterations (" + inttochar(s.i - 1) + ") ");
    solver_result result{.counter = s.i, .finite = all_finite(x)};
    if (!result.finite || !std::isfinite(criteria_.selected())) warn_not_finite(log_);

    convergence_.reset();
    ritz_.reset();
    graph_.draw(s.i, s.i);
    result.graph = graph_.last();
    if (t_ && s.i > 3) {
        const auto [lmin, lmax] = computecondnumber(*t_, s.i, log_);
        const double a = criteria_.ck() / lmin * solver_.eigmin;
        const double b = criteria_.cm() / solver_.condnumber * (lmax / lmin);
        log_.message("Relative error in the computed solution <= min(" + realtochar(a, "(g0.5)") + " , " +
                     realtochar(b, "(g0.5)") + ")");
    }
    t_.reset();
    return result;
}

}  // namespace zendar::detail
