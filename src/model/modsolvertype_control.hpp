#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modlogger.hpp"
#include "modplot.hpp"
#include "modsolvertype.hpp"

/// What the iterative solvers share beside their record: the way in from outside, eigenvalue estimates, and
/// the files by which a run is watched.
namespace zendar {

// ---- stopping from outside (modsolvertype_control.cpp)
// --------------------------------------------------------

/// Called before the first iteration and once in each. A file "STOP" in the working directory, which is
/// removed, or a signal (modstop.hpp) sets `maxiter_now` to 1. Otherwise the integer of the file `iterfile`,
/// if it can be read, becomes the limit, but never more than `maxiter`.
/// @param maxiter_now  running limit of the solver, in and out.
/// @throws fatal_error  when the limit becomes 0.
void check_continue(const solver_type& solver, std::int32_t& maxiter_now, logger& log);

// ---- eigenvalues of M^-1 C (modsolvertype_eigen.cpp)
// ----------------------------------------------------------

/// The symmetric tridiagonal matrix T that the coefficients of the conjugate gradients form. Its elements are
/// numbered as the iterations: (i, i), and (i, i + 1) for row and column i and i + 1; the first is (2, 2).
/// Two vectors that grow by one element an iteration: 16 bytes an iteration.
class cg_tridiagonal {
  public:
    /// Adds the terms of iteration i > 2: 1 / alpha_old to (i-1, i-1), sqrt(beta) / alpha_old to (i-1, i),
    /// and beta / alpha_old to (i, i).
    void update(std::int32_t i, double beta, double alpha_old);

    /// Elements of T(2 : last, 2 : last); empty for last < 2. Shorter when the iterations did not reach
    /// `last`.
    [[nodiscard]] std::span<const double> diagonal(std::int32_t last) const;
    [[nodiscard]] std::span<const double> off_diagonal(std::int32_t last) const;

  private:
    std::vector<double> diagonal_, off_diagonal_;  // element [k - 2] is (k, k), and (k, k + 1)
};

struct eigenvalue_extremes {
    double min, max;
};

/// Extremes of a tridiagonal matrix: of order 0 +huge and -huge; NaN for a matrix with values that are not
/// finite.
eigenvalue_extremes computeeigenvalues(std::span<const double> diagonal, std::span<const double> off_diagonal,
                                       logger& log);
/// The same of the block T(2 : iter-2, 2 : iter-2).
eigenvalue_extremes eigenvalues(const cg_tridiagonal& t, std::int32_t iter, logger& log);
/// The same with a report: time, extremes and spectral condition number.
eigenvalue_extremes computecondnumber(const cg_tridiagonal& t, std::int32_t iter, logger& log);

// ---- files (modsolvertype_convergence.cpp)
// --------------------------------------------------------------------

/// A text that is looked at while it grows: each row is in the file when `write` returns. A full disk does
/// not end a run for the sake of its report: one warning, and the rows after are lost.
class row_file {
  public:
    enum class position { replace, append };  ///< `append` creates the file when it is not there

    /// @throws fatal_error  when the file cannot be opened.
    row_file(const std::filesystem::path& path, logger& log, position where = position::replace);
    ~row_file();
    row_file(const row_file&) = delete;
    row_file& operator=(const row_file&) = delete;

    void write(std::string_view row);

  private:
    int descriptor_ = -1;
    bool failed_ = false;
    std::string name_;
    logger& log_;
};

/// One row of "convergence.dat" of the solvers on data, without the groups.
struct convergence_values {
    double tau = 0.0;
    double cr = 0.0, cd = 1.0;
    double ck = 1.0, ck_unscaled = 1.0;
    double cm = 1.0, cm_unscaled = 1.0;
    double maxdiff = 0.0;
};

// "convergence.dat" of the solvers on data. Fields: 2 iteration, 5 tau, 8 CR, 9 CD, 10 CK, 11 CK unscaled, 12
// CM, 13 CM unscaled, 14 Abs(max(diff)), then CR of each group and CD of each group. The graph reads them by
// number.
std::string convergence_header(std::size_t ngroup);
std::string convergence_row(std::int32_t i, const convergence_values& values,
                            std::span<const double> cr_effect, std::span<const double> cd_effect);
/// "ritzvalue.dat"
std::string ritz_row(std::int32_t i, double smallest, double largest, double relative_error);
/// "convergence_cheb.dat"
std::string convergence_cheb_row(std::int32_t i, const std::array<double, 4>& values);
/// "convergence.dat" and "convergence_fpcg.dat" of the in-core solvers; the first row has i = 1 and no tau.
std::string convergence_inmem_row(std::int32_t i, double tau, const std::array<double, 4>& values);

/// Draws the graph of "convergence.dat" with gnuplot, from time to time, while the run goes on. Nothing that
/// goes wrong here disturbs a run: without gnuplot there is no graph, and nobody is told.
class convergence_graph {
  public:
    /// @param directory  what stands before the names "cvg_graph.g", "cvg.png" and "convergence.dat".
    explicit convergence_graph(std::string directory) : directory_(std::move(directory)) {}

    /// Draws when the iteration is divisible by the period, which is 100 at first.
    void draw(std::int32_t iter);
    /// Sets the period before.
    void draw(std::int32_t iter, std::int32_t period);
    /// The drawing that may still be at work.
    gnuplot_run last() { return std::move(drawing_); }

  private:
    std::string directory_;
    std::int32_t period_ = 100;
    gnuplot_run drawing_;
};

/// The script "cvg_graph.g" for gnuplot.
std::string convergence_graph_script(const std::string& directory);

}  // namespace zendar
