#include <omp.h>

#include <cassert>
#include <cmath>
#include <limits>

#include "modsolveriod_detail.hpp"

namespace zendar::detail {

namespace {

/// Zero, or so small that a quotient has no digits.
bool is_null(double value) {
    return std::fabs(value) < std::numeric_limits<double>::min();
}

double squares(const double* v, std::int64_t first, std::int64_t end) {
    double sum = 0.0;
#pragma omp parallel for simd schedule(static) default(none) shared(v, first, end) reduction(+ : sum)
    for (std::int64_t i = first; i < end; ++i) sum += v[i] * v[i];
    return sum;
}

}  // namespace

work_vector::work_vector(std::int64_t n)
    : n_(n), values_(std::make_unique_for_overwrite<double[]>(static_cast<std::size_t>(n))) {
    set_zero(*this);
}

void set_zero(std::span<double> values) {
    double* const v = values.data();
    const std::int64_t n = std::ssize(values);
#pragma omp parallel for schedule(static) default(none) shared(v, n)
    for (std::int64_t i = 0; i < n; ++i) v[i] = 0.0;
}

void update_direction(std::span<const double> z_values, double beta, std::span<double> p_values) {
    assert(z_values.size() == p_values.size());
    const std::int64_t n = std::ssize(p_values);
    const double* const z = z_values.data();
    double* const p = p_values.data();
#pragma omp parallel for simd schedule(static) default(none) shared(z, p, n, beta)
    for (std::int64_t i = 0; i < n; ++i) p[i] = multiply_add(beta, p[i], z[i]);
}

double update_direction_flexible(std::span<const double> z_values, std::span<const double> r_values,
                                 std::span<double> previous_values, std::span<double> p_values,
                                 double tau_old) {
    assert(z_values.size() == r_values.size() && p_values.size() == r_values.size());
    assert(previous_values.size() == r_values.size());
    const std::int64_t n = std::ssize(p_values);
    const double* const z = z_values.data();
    const double* const r = r_values.data();
    double* const previous = previous_values.data();
    double* const p = p_values.data();
    double change = 0.0, beta = 0.0;
#pragma omp parallel default(none) shared(z, r, previous, p, n, change, beta, tau_old)
    {
#pragma omp for schedule(static) reduction(+ : change)
        for (std::int64_t i = 0; i < n; ++i) {
            change += z[i] * (r[i] - previous[i]);
            previous[i] = r[i];
        }
#pragma omp single
        beta = change / tau_old;
#pragma omp for simd schedule(static)
        for (std::int64_t i = 0; i < n; ++i) p[i] = multiply_add(beta, p[i], z[i]);
    }
    return beta;
}

solution_sums update_solution(double tau, std::span<const double> p_values, std::span<const double> w_values,
                              std::span<double> x_values, std::span<double> r_values, null_step when_null) {
    assert(p_values.size() == w_values.size() && p_values.size() == x_values.size());
    assert(r_values.empty() || r_values.size() == x_values.size());
    const std::int64_t n = std::ssize(x_values);
    const bool with_r = !r_values.empty();
    const double* const p = p_values.data();
    const double* const w = w_values.data();
    double* const x = x_values.data();
    double* const r = r_values.data();
    double pw = 0.0, alpha = 0.0, dd = 0.0, maxdiff = 0.0, xx = 0.0, rr = 0.0;
#pragma omp parallel default(none) shared(p, w, x, r, n, with_r, tau, pw, alpha, when_null) \
    reduction(+ : dd, xx, rr) reduction(max : maxdiff)
    {
#pragma omp for simd schedule(static) reduction(+ : pw)
        for (std::int64_t i = 0; i < n; ++i) pw += p[i] * w[i];
#pragma omp single
        alpha = when_null == null_step::rest && (is_null(tau) || is_null(pw)) ? 0.0 : tau / pw;
        const std::int64_t thread = omp_get_thread_num(), threads = omp_get_num_threads();
        const std::int64_t begin = n * thread / threads, end = n * (thread + 1) / threads;
        const double step = alpha;
        if (with_r) {
#pragma omp simd reduction(+ : dd, xx, rr) reduction(max : maxdiff)
            for (std::int64_t i = begin; i < end; ++i) {
                const double d = step * p[i], size = std::fabs(d);
                x[i] += d;
                r[i] -= step * w[i];
                dd += d * d;
                maxdiff = size > maxdiff ? size : maxdiff;
                xx += x[i] * x[i];
                rr += r[i] * r[i];
            }
        } else {
#pragma omp simd reduction(+ : dd, xx) reduction(max : maxdiff)
            for (std::int64_t i = begin; i < end; ++i) {
                const double d = step * p[i], size = std::fabs(d);
                x[i] += d;
                dd += d * d;
                maxdiff = size > maxdiff ? size : maxdiff;
                xx += x[i] * x[i];
            }
        }
    }
    return {alpha, dd, maxdiff, xx, rr};
}

double sum_of_squares(std::span<const double> v) {
    return squares(v.data(), 0, std::ssize(v));
}

double sum_of_squares(std::span<const double> v, const equation_range& range) {
    assert(range.first >= 1 && range.last <= std::ssize(v));
    return squares(v.data(), range.first - 1, range.last);
}

bool all_finite(std::span<const double> values) {
    const double* const v = values.data();
    const std::int64_t n = std::ssize(values);
    std::int64_t bad = 0;
#pragma omp parallel for schedule(static) default(none) shared(v, n) reduction(+ : bad)
    for (std::int64_t i = 0; i < n; ++i) bad += std::isfinite(v[i]) ? 0 : 1;
    return bad == 0;
}

}  // namespace zendar::detail
