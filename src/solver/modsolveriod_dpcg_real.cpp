#include "modsolveriod_dpcg_real.hpp"

#include <cassert>
#include <cmath>
#include <memory>
#include <utility>
#include <vector>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modsolveriod_dpcg_detail.hpp"

namespace zendar {

namespace {

constexpr std::string_view module_tag = "modsolveriod";
constexpr std::int64_t most_with_az = 20;  ///< vectors for which C Z is worth its memory
/// Squared sine of the angle between a vector and the span of others that is no angle: below, E^-1 has too
/// few digits left for the projection.
constexpr double dependence = 1e-10;

/// From Z'Z, as E tells rounding from dependence less well: its condition has that of C in it.
void check_independent(matrix_view<const double> z, logger& log) {
    matrix<double> gram(z.cols, z.cols);
    blas_dgemm(true, false, 1.0, z, z, 0.0, gram.view());
    std::vector<double> length(static_cast<std::size_t>(z.cols));
    for (std::int64_t j = 0; j < z.cols; ++j) length[j] = std::sqrt(gram(j, j));
    for (std::int64_t j = 0; j < z.cols; ++j)
        for (std::int64_t i = 0; i < z.cols; ++i) gram(i, j) /= length[i] * length[j];
    const std::int64_t failed = lapack_dpotrf(gram.view());
    for (std::int64_t j = 0; j < z.cols; ++j)
        if (j + 1 == failed || !(gram(j, j) * gram(j, j) > dependence))
            fatal(log,
                  "The deflation vectors are linearly dependent: vector " + inttochar(j + 1) + " of " +
                      inttochar(z.cols) + " is zero, or a combination of those before it",
                  module_tag, "createeinv_real");
}

/// P with real vectors. Its arguments outlive it.
class real_projector final : public detail::deflation_projector {
  public:
    /// @param azreal  C Z, or empty: then products with C stand for it.
    real_projector(linear_operator& c, matrix_view<const double> zreal, matrix<double> azreal,
                   matrix<double> einv)
        : c_(c),
          zreal_(zreal),
          azreal_(std::move(azreal)),
          einv_(std::move(einv)),
          s_(static_cast<std::size_t>(zreal.cols)),
          t_(s_.size()),
          expanded_(azreal_.empty() ? c.size() : 0),
          product_(azreal_.empty() ? c.size() : 0) {}

    /// Behind the product with C these are computepatimesvector_az_real and computepatimesvector_real.
    void project(std::span<double> v) override {
        if (azreal_.empty())
            computeptimesvector_real(v);
        else
            computeptimesvector_az_real(v);
    }
    /// computeqbpluspx_real, behind its residual
    void correct(std::span<const double> r, std::span<double> x) override {
        solve_coarse(r);
        blas_dgemv(false, 1.0, zreal_, t_, 1.0, x);
    }

  private:
    void computeptimesvector_az_real(std::span<double> v) {
        solve_coarse(v);
        blas_dgemv(false, -1.0, azreal_.view(), t_, 1.0, v);
    }
    void computeptimesvector_real(std::span<double> v) {
        solve_coarse(v);
        const std::span<double> y = product_;
        const std::int64_t n = std::ssize(v);
        blas_dgemv(false, 1.0, zreal_, t_, 0.0, expanded_);
        c_.atimesx(expanded_, y);
#pragma omp parallel for schedule(static) default(none) shared(v, y, n)
        for (std::int64_t i = 0; i < n; ++i) v[i] -= y[i];
    }
    /// t = E^-1 Z' v
    void solve_coarse(std::span<const double> v) {
        blas_dgemv(true, 1.0, zreal_, v, 0.0, s_);
        blas_dgemv(false, 1.0, einv_.view(), s_, 0.0, t_);
    }

    linear_operator& c_;
    matrix_view<const double> zreal_;
    const matrix<double> azreal_, einv_;
    std::vector<double> s_, t_;
    detail::work_vector expanded_, product_;
};

/// E^-1, and C Z for as few vectors as are worth it.
std::unique_ptr<detail::deflation_projector> make_projector(const param_type& param, linear_system& system,
                                                            matrix_view<const double> zreal, logger& log) {
    const std::string& file = param.solver.galerkin;
    matrix<double> azreal;
    if (zreal.cols <= most_with_az) azreal = matrix<double>(zreal.rows, zreal.cols);
    const auto products = [&](matrix_view<double> e) {
        if (azreal.empty())
            createeinv_real(system, zreal, e);
        else
            createeinv_az_real(system, zreal, azreal.view(), e);
    };
    matrix<double> einv;
    if (file == "none") {
        check_independent(zreal, log);
        einv =
            detail::compute_einv(zreal.cols, products,
                                 "The Galerkin matrix of the deflation vectors is not positive definite: the "
                                 "equations are singular for a combination of them",
                                 log);
    } else {
        einv = detail::read_einv(file, zreal.cols, log);
        for (std::int64_t j = 0; j < azreal.cols(); ++j) system.atimesx(zreal.column(j), azreal.column(j));
    }
    return std::make_unique<real_projector>(system, zreal, std::move(azreal), std::move(einv));
}

}  // namespace

void createeinv_az_real(linear_system& system, matrix_view<const double> zreal, matrix_view<double> azreal,
                        matrix_view<double> e) {
    for (std::int64_t j = 0; j < zreal.cols; ++j) {
        system.atimesx(zreal.column(j), azreal.column(j));
        blas_dgemv(true, 1.0, zreal, azreal.column(j), 0.0, e.column(j));
    }
}

void createeinv_real(linear_system& system, matrix_view<const double> zreal, matrix_view<double> e) {
    detail::work_vector work(system.size());
    const std::span<double> w = work;
    for (std::int64_t j = 0; j < zreal.cols; ++j) {
        system.atimesx(zreal.column(j), w);
        blas_dgemv(true, 1.0, zreal, w, 0.0, e.column(j));
    }
}

solver_result solver_dpcg_iod_real(param_type& param, linear_system& system,
                                   linear_preconditioner& preconditioner, const matrix<double>& zreal,
                                   std::span<double> x, std::span<const equation_range> groups,
                                   std::span<const covariable_type> cov, logger& log) {
    const std::int64_t neq = system.size(), nsub = zreal.cols();
    if (nsub < 1)
        fatal(log, "There are no deflation vectors in the file " + param.solver.deflationmat, module_tag,
              "solver_dpcg_iod_real");
    assert(zreal.rows() == neq);
    const detail::dpcg_form form{.name = "real",
                                 .start = "DPCG REAL ",
                                 .nsub = nsub,
                                 .mb_of_z = mib(neq * nsub * std::int64_t{sizeof(double)}),
                                 .work = nsub <= most_with_az ? neq * nsub : 2 * neq};
    const auto make = [&] { return make_projector(param, system, zreal.view(), log); };
    return detail::solve_deflated(form, param, system, preconditioner, make, x, groups, cov, log);
}

}  // namespace zendar
