#include "modsolveriod_dpcg_comp.hpp"

#include <omp.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <new>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modfile.hpp"
#include "modheader.hpp"
#include "modsolveriod_detail.hpp"

namespace zendar {

namespace {

constexpr std::string_view module_tag = "modsolveriod";
constexpr std::string_view procedure = "solver_dpcg_iod_comp";

/// E^-1 of a file, without any header.
matrix<double> read_einv(const std::string& name, std::int32_t nsub, logger& log) {
    binary_reader in;
    if (const auto error = in.open(name))
        fatal_io(log, "The file of the Galerkin matrix " + name + " cannot be read", module_tag, procedure,
                 error->iostat, error->iomsg);
    const std::int64_t expected = std::int64_t{nsub} * nsub * static_cast<std::int64_t>(sizeof(double));
    if (in.size() != expected)
        fatal(log,
              "The file of the Galerkin matrix " + name + " has " + inttochar(in.size()) +
                  " bytes instead of " + inttochar(expected) + " for " + inttochar(nsub) + " subdomains",
              module_tag, procedure);
    matrix<double> e(nsub, nsub);
    if (!in.read_values(e.values()))
        fatal(log, "The file of the Galerkin matrix " + name + " cannot be read to its end", module_tag,
              procedure);
    if (!std::ranges::all_of(e.values(), [](double v) { return std::isfinite(v); }))
        fatal(log, "The file of the Galerkin matrix " + name + " has values that are not finite", module_tag,
              procedure);
    return e;
}

/// P of compressed subdomains.
class compressed_projector final : public detail::projector {
  public:
    compressed_projector(linear_operator& c, const subdomains& z, const matrix<double>& einv)
        : c_(c),
          z_(z),
          einv_(einv),
          sums_(static_cast<std::size_t>(z.nsub)),
          coarse_(sums_.size() + 1),
          expanded_(c.size()),
          product_(c.size()) {}

    /// computeptimesvector; behind the product with C it makes computepatimesvector.
    void project(std::span<double> v) override {
        restrict_to_subdomains(v);
        const std::span<double> u = expanded_, y = product_;
        const std::int64_t n = std::ssize(v);
#pragma omp parallel for schedule(static) default(none) shared(u, n)
        for (std::int64_t i = 0; i < n; ++i) u[i] = coarse_[z_.of[i]];
        c_.atimesx(u, y);
#pragma omp parallel for schedule(static) default(none) shared(v, y, n)
        for (std::int64_t i = 0; i < n; ++i) v[i] -= y[i];
    }

    /// x += Z E^-1 Z' r
    void correct(std::span<const double> r, std::span<double> x) {
        restrict_to_subdomains(r);
        for (std::size_t i = 0; i < x.size(); ++i) x[i] += coarse_[z_.of[i]];
    }
    [[nodiscard]] std::span<double> work() { return product_; }

  private:
    /// coarse[j] = (E^-1 Z' v)(j), j from 1.
    void restrict_to_subdomains(std::span<const double> v) {
        const std::int64_t n = std::ssize(v), nsub = z_.nsub;
        const std::int64_t nthread = omp_get_max_threads();
        partial_.assign(static_cast<std::size_t>(nthread * (nsub + 1)), 0.0);
#pragma omp parallel for schedule(static) default(none) shared(v, n, nsub, nthread)
        for (std::int64_t th = 0; th < nthread; ++th) {
            double* const sum = partial_.data() + th * (nsub + 1);
            for (std::int64_t i = n * th / nthread; i < n * (th + 1) / nthread; ++i) sum[z_.of[i]] += v[i];
        }
        std::ranges::fill(sums_, 0.0);
        for (std::int64_t th = 0; th < nthread; ++th)
            for (std::int64_t j = 0; j < nsub; ++j) sums_[j] += partial_[th * (nsub + 1) + j + 1];
        blas_dgemm(false, false, 1.0, einv_.view(), {sums_.data(), nsub, 1, nsub}, 0.0,
                   {coarse_.data() + 1, nsub, 1, nsub});
    }

    linear_operator& c_;
    const subdomains& z_;
    const matrix<double>& einv_;
    std::vector<double> sums_, coarse_;  ///< coarse_[0] = 0 belongs to equations without a subdomain
    std::vector<double> partial_;
    detail::work_vector expanded_, product_;
};

void announce_subdomains(const linear_system& system, const subdomains& z, logger& log) {
    constexpr double mb_of_double = 1.0 / 131072.0;
    const auto mb = [](double value) { return realtochar(value, "(f0.2)"); };
    log.message("DEFLATED PCG (comp) will be applied with the following requirements:");
    log.message("Number of subdomains                : " + inttochar(z.nsub));
    log.message("Memory (MB) needed for Z            : " +
                mb(static_cast<double>(system.size()) * 0.5 * mb_of_double));
    log.message("Memory (MB) needed for inv(ZCZprime): " +
                mb(std::pow(static_cast<double>(z.nsub), 2) * mb_of_double));
}

}  // namespace

solver_result solver_dpcg_iod_comp(param_type& param, linear_system& system, structured_operator* structured,
                                   linear_preconditioner& preconditioner, const subdomains& z,
                                   std::span<double> x, std::span<const equation_range> groups,
                                   std::span<const covariable_type> cov, logger& log) {
    const std::int64_t neq = system.size();
    assert(std::ssize(x) == neq && std::ssize(z.of) == neq);
    announce_subdomains(system, z, log);
    detail::announce(system, 2 * neq, groups, log);
    detail::check_groups(groups, neq, log);
    detail::iteration_report report(param, groups, cov, log);

    matrix<double> einv;
    if (param.solver.galerkin == "none") {
        einv = computeeinv(system, structured, z, log);
    } else {
        log.message("Start reading inv(ZAZ)");
        einv = read_einv(param.solver.galerkin, z.nsub, log);
        log.message("inv(ZAZ) read");
    }

    detail::work_vector p(neq), zv(neq), w(neq);
    log.message("");
    const build_stamp build = this_build();
    log.message("Start the DPCG COMP (compiled on " + build.date + " at " + build.time + ")");
    detail::work_vector r(neq);
    const detail::pcg_vectors v{.x = x, .r = r, .p = p, .z = zv, .w = w};
    compressed_projector deflation(system, z, einv);

    detail::start_iteration(system, preconditioner, &deflation, v, report, log);

    // The deflated system has no cheap true residual: it is never computed anew.
    detail::direction_rule direction;
    detail::pcg_state s;
    detail::pcg_loop({.c = system, .m = preconditioner, .direction = direction, .deflation = &deflation}, v,
                     s, report);

    // computeqbpluspx: x = Q b + P' x, as P' = I - Q C.
    system.r_equal_b_minus_atimesx(x, v.z, v.r);
    deflation.correct(v.r, x);
    const solver_result result = report.finish(s, x);
    if (param.solver.computefinalrhs) detail::computefinalrhs(param, system, v, log);
    return result;
}

}  // namespace zendar
