#pragma once

#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "modgeneral_convaggregate.hpp"
#include "modlinear.hpp"
#include "modsolveriod.hpp"
#include "modsolvertype_control.hpp"
#include "modstats.hpp"

/// The one loop of all conjugate gradient solvers, and what hangs on it; private to the solvers.
namespace zendar::detail {

// ---- vector kernels (modsolveriod_kernels.cpp)
// ----------------------------------------------------------------

/// a * b + c, rounded once where the processor can do so at no cost.
inline double multiply_add(double a, double b, double c) {
#ifdef __FP_FAST_FMA
    return std::fma(a, b, c);
#else
    return a * b + c;
#endif
}

/// A vector that is zeroed, and so placed, by the threads that work on it.
class work_vector {
  public:
    explicit work_vector(std::int64_t n);
    operator std::span<double>() { return {values_.get(), static_cast<std::size_t>(n_)}; }
    operator std::span<const double>() const { return {values_.get(), static_cast<std::size_t>(n_)}; }

  private:
    std::int64_t n_;
    std::unique_ptr<double[]> values_;
};

/// The vectors of an iteration; all have the same length and do not overlap. M^-1 r is not needed any more
/// when C p is computed, so that both are z. Before and after the loop p is work.
struct pcg_vectors {
    std::span<double> x, r, p, z;
};

/// p = z + beta p; 3 passes of 8 bytes.
void update_direction(std::span<const double> z, double beta, std::span<double> p);

/// The flexible form, which holds when M changes between iterations: beta = z'(r - previous) / tau_old. r
/// becomes `previous`. 8 passes of 8 bytes.
/// @returns beta
double update_direction_flexible(std::span<const double> z, std::span<const double> r,
                                 std::span<double> previous, std::span<double> p, double tau_old);

struct solution_sums {
    double alpha = 0.0;
    double dd = 0.0, maxdiff = 0.0;  ///< sum of squares, and maximum, of the changes of x
    double xx = 0.0;
    double rr = 0.0;  ///< 0 when r is not updated
};
/// What a step is when tau or p'w is too small to be divided by.
enum class null_step : std::uint8_t { divide, rest };
/// alpha = tau / p'w, x += alpha p, and unless `r` is empty r -= alpha w, with their sums, in one parallel
/// region; 8 passes of 8 bytes, 5 without r.
/// @param when_null  `rest`: alpha is 0, and x and r stay, when tau or p'w is below the normal numbers.
solution_sums update_solution(double tau, std::span<const double> p, std::span<const double> w,
                              std::span<double> x, std::span<double> r,
                              null_step when_null = null_step::divide);

void set_zero(std::span<double> v);
double sum_of_squares(std::span<const double> v);
/// The same over a range of equations.
double sum_of_squares(std::span<const double> v, const equation_range& range);
bool all_finite(std::span<const double> v);

// ---- the loop (modsolveriod_loop.cpp)
// -------------------------------------------------------------------------

/// The scalars of an iteration. They keep their values from one to the next.
struct pcg_state {
    std::int32_t i = 2;  ///< the state before the first update counts as iteration 1
    double tau = 0.0, tau_old = 1.0, beta = 0.0;
    double alpha = 1.0, alpha_old = 1.0;
    double zz = 0.0, rr = 0.0, dd = 0.0, xx = 0.0, maxdiff = 0.0;
    double rr_old = 0.0;  ///< before the update; b'b before the first one
};

/// P of the deflated solvers; the identity without deflation.
class projector {
  public:
    virtual ~projector() = default;
    /// v = P v
    virtual void project(std::span<double> v) = 0;
};

/// The rule for beta, with the step that uses it. May own what it needs of the iteration before.
class direction_rule {
  public:
    virtual ~direction_rule() = default;
    /// z is M^-1 r. @returns beta
    virtual double operator()(const pcg_vectors& v, double tau, double tau_old) {
        const double beta = tau / tau_old;
        update_direction(v.z, beta, v.p);
        return beta;
    }
};

/// Decides when the loop ends, and is told what happens in it.
class pcg_control {
  public:
    virtual ~pcg_control() = default;
    [[nodiscard]] virtual bool goes_on(const pcg_state& s) const = 0;
    /// x was updated; r, in the iterations that compute it anew, not yet.
    virtual void updated(const pcg_state& s, const pcg_vectors& v) = 0;
    /// All of the iteration is done.
    virtual void iterated(const pcg_state& s, const pcg_vectors& v) = 0;
};

/// A solver is a choice of these.
struct pcg_problem {
    linear_operator& c;
    linear_preconditioner& m;
    direction_rule& direction;
    projector* deflation = nullptr;
    linear_system* residual = nullptr;  ///< computes the residual anew each 50th iteration, when it is there
    /// The loop ends, before the least number of iterations if need be, where r is nothing but the rounding
    /// of the update before, or where tau or p'w is null: what would follow has no direction. `rr` and
    /// `rr_old` of the state are set by the caller.
    bool ends_at_rounding = false;
    /// When it is there, the iteration starts anew from b - C x where the residual was near rounding and
    /// grows again. Of dependent equations the direction is then one that C does not see, and what follows
    /// would undo the solution.
    linear_system* restart = nullptr;
};

/// Iterations from s.i on; s.i ends one past the last. Prints nothing and allocates nothing.
void pcg_loop(const pcg_problem& problem, const pcg_vectors& v, pcg_state& s, pcg_control& control);

// ---- convergence groups (modsolveriod_groups.cpp)
// -------------------------------------------------------------

/// Convergence of groups of equations.
class group_convergence {
  public:
    /// @param b  right-hand side, r  residual at the start.
    group_convergence(std::span<const equation_range> groups, std::span<const double> b);
    void start(std::span<const double> r);
    void iterated(const pcg_state& s, const pcg_vectors& v);

    [[nodiscard]] std::span<const double> cr_effect() const { return cr_effect_; }
    [[nodiscard]] std::span<const double> cd_effect() const { return cd_effect_; }

  private:
    /// A stretch of equations whose first group is `group`.
    struct segment {
        equation_range range;
        std::size_t group;
    };
    std::vector<equation_range> groups_;
    std::vector<segment> segments_;
    std::vector<double> rhs_effect_, cr_effect_, cd_effect_;
};

/// @throws fatal_error  unless all groups lie within 1 to neq.
void check_groups(std::span<const equation_range> groups, std::int64_t neq, logger& log);

// ---- convergence criteria (modsolveriod_criteria.cpp)
// ---------------------------------------------------------

/// CR, CD, CK, CM and CC, and which of them is compared with the threshold.
class criteria {
  public:
    /// Sets start values, and `eigmin` and `condnumber` of the record, from `convtype`.
    /// @throws fatal_error  for an unknown one.
    criteria(solver_type& solver, logger& log);

    /// CR at the start; `normminvb` is the norm of M^-1 b.
    void start(double bb, double rr, double normminvb);
    void iterated(const pcg_state& s);

    /// One of CK, CM and CC is selected, so that eigenvalues count.
    [[nodiscard]] bool bounds() const { return family_; }
    [[nodiscard]] double selected() const { return *selected_; }
    [[nodiscard]] double ck() const { return ck_; }
    [[nodiscard]] double cm() const { return cm_; }
    /// The values of a row of "convergence.dat".
    [[nodiscard]] convergence_values row(const pcg_state& s) const;

    criteria(const criteria&) = delete;
    criteria& operator=(const criteria&) = delete;

  private:
    solver_type& solver_;
    double cr_ = 0.0, cd_ = 1.0, ck_ = 1.0, cm_ = 1.0, cc_ = 1.0;
    double bb_ = 0.0, normminvb_ = 0.0;
    bool family_ = false;
    const double* selected_ = &cr_;
};

// ---- control and report (modsolveriod_report.cpp)
// -------------------------------------------------------------

/// The file of convergence and the form of its rows.
struct report_form {
    std::string file = "convergence.dat";
    /// Rows of `convergence_inmem_row`, without header: CR, CD, and the ratios CK and CM as of
    /// `convergence_row`. There are no groups.
    bool inmem = false;
};

/// What a solver shows, writes and heeds in each iteration.
class iteration_report final : public pcg_control {
  public:
    iteration_report(param_type& param, std::span<const equation_range> groups,
                     std::span<const covariable_type> cov, logger& log, report_form form = {});

    /// After the start-up: norms to the log, files opened, first rows, first look at the files of control.
    /// @param b  right-hand side, r  residual.
    void start(std::span<const double> b, std::span<const double> r, double bb, double normminvb);

    [[nodiscard]] bool goes_on(const pcg_state& s) const override;
    void updated(const pcg_state& s, const pcg_vectors& v) override;
    void iterated(const pcg_state& s, const pcg_vectors& v) override;

    /// After the loop: time, files closed, the last graph, condition number and error bound.
    /// @returns how it ended; a value that is not finite was warned of.
    solver_result finish(const pcg_state& s, std::span<const double> x);

  private:
    void update_eigenvalues(std::int32_t i);
    void write_row(std::int32_t i, const convergence_values& values);
    void write_ritz(std::int32_t i);
    void log_iteration(std::int32_t i, double tau, double seconds);

    param_type& param_;
    solver_type& solver_;
    std::span<const equation_range> ranges_;
    std::span<const covariable_type> cov_;
    logger& log_;
    report_form form_;
    std::string directory_;
    criteria criteria_;
    std::int32_t miniter_, maxiter_now_;
    std::optional<group_convergence> groups_;
    std::optional<convaggregate_state> aggregate_;
    std::optional<cg_tridiagonal> t_;
    std::optional<row_file> convergence_, ritz_;
    convergence_graph graph_;
    wtime clock_;
};

/// In the iterations that are due: the statistics of `!statprevioussol`, and x to the temporary stream unless
/// it has values that are not finite. @param xx  x'x
void write_tmpsol(const param_type& param, std::int32_t i, double xx, std::span<const double> x,
                  std::span<const equation_range> groups, logger& log);
void warn_not_finite(logger& log);

// ---- before and after the loop (modsolveriod_start.cpp)
// -----------------------------------------------------------------------

/// Tells the memory of the vectors and the groups. @param more  doubles beside the work arrays of the system
void announce(const linear_system& system, std::int64_t more, std::span<const equation_range> groups,
              logger& log);
/// b in z and the residual in r, projected when there is a projector; then the start of the report. p is
/// zero in the end.
void start_iteration(linear_system& system, linear_preconditioner& preconditioner, projector* deflation,
                     const pcg_vectors& v, iteration_report& report, logger& log);
/// The last part of it: b is in z and the residual in r.
void start_report(linear_preconditioner& preconditioner, projector* deflation, const pcg_vectors& v,
                  iteration_report& report);
/// `!computefinalrhs`: the right-hand side that the solutions solve exactly, beside the one that was given.
/// p and z are work.
void computefinalrhs(const param_type& param, linear_system& system, const pcg_vectors& v, logger& log);

}  // namespace zendar::detail
