#include "modsolveriod_dpcg_comp_detail.hpp"

#include <omp.h>

#include <algorithm>

#include "modblas.hpp"

namespace zendar::detail {

matrix<double> obtain_einv(const param_type& param, linear_system& system, structured_operator* structured,
                           const subdomains& z, logger& log) {
    if (param.solver.galerkin == "none") return computeeinv(system, structured, z, log);
    return read_einv(param.solver.galerkin, z.nsub, log);
}

compressed_projector::compressed_projector(linear_operator& c, const subdomains& z,
                                           const matrix<double>& einv)
    : c_(c),
      z_(z),
      einv_(einv),
      sums_(static_cast<std::size_t>(z.nsub)),
      coarse_(sums_.size() + 1),
      expanded_(c.size()),
      product_(c.size()) {}

void compressed_projector::project(std::span<double> v) {
    restrict_to_subdomains(v);
    const std::span<double> u = expanded_, y = product_;
    const std::int64_t n = std::ssize(v);
#pragma omp parallel for schedule(static) default(none) shared(u, n)
    for (std::int64_t i = 0; i < n; ++i) u[i] = coarse_[z_.of[i]];
    c_.atimesx(u, y);
#pragma omp parallel for schedule(static) default(none) shared(v, y, n)
    for (std::int64_t i = 0; i < n; ++i) v[i] -= y[i];
}

void compressed_projector::correct(std::span<const double> r, std::span<double> x) {
    restrict_to_subdomains(r);
    for (std::size_t i = 0; i < x.size(); ++i) x[i] += coarse_[z_.of[i]];
}

void compressed_projector::restrict_to_subdomains(std::span<const double> v) {
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

}  // namespace zendar::detail
