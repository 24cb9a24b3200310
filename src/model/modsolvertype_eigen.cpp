#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modsolvertype_control.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

std::size_t order_of(std::int32_t last, std::size_t most) {
    return last < 2 ? 0 : std::min(static_cast<std::size_t>(last - 1), most);
}

bool all_finite(std::span<const double> values) {
    return std::ranges::all_of(values, [](double value) { return std::isfinite(value); });
}

}  // namespace

void cg_tridiagonal::update(std::int32_t i, double beta, double alpha_old) {
    assert(i > 2);
    const auto at = static_cast<std::size_t>(i - 3);  // of (i-1, i-1) and (i-1, i)
    if (diagonal_.size() < at + 2) {
        diagonal_.resize(at + 2, 0.0);
        off_diagonal_.resize(at + 1, 0.0);
    }
    diagonal_[at] += 1.0 / alpha_old;
    off_diagonal_[at] += std::sqrt(beta) / alpha_old;
    diagonal_[at + 1] += beta / alpha_old;
}

std::span<const double> cg_tridiagonal::diagonal(std::int32_t last) const {
    return std::span(diagonal_).first(order_of(last, diagonal_.size()));
}

std::span<const double> cg_tridiagonal::off_diagonal(std::int32_t last) const {
    return std::span(off_diagonal_).first(order_of(last - 1, off_diagonal_.size()));
}

eigenvalue_extremes computeeigenvalues(std::span<const double> diagonal, std::span<const double> off_diagonal,
                                       logger& log) {
    constexpr double huge = std::numeric_limits<double>::max();
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    if (diagonal.empty()) return {huge, -huge};
    if (!all_finite(diagonal) || !all_finite(off_diagonal)) return {nan, nan};

    eigenvalue_extremes extremes{nan, nan};
    for (const auto& [index, value] :
         {std::pair(std::int64_t{1}, &extremes.min), std::pair(std::ssize(diagonal), &extremes.max)})
        if (const int info = lapack_dstebz(diagonal, off_diagonal, index, *value); info != 0)
            log.warning("An eigenvalue of the preconditioned matrix could not be computed, info: " +
                        inttochar(info));
    return extremes;
}

eigenvalue_extremes eigenvalues(const cg_tridiagonal& t, std::int32_t iter, logger& log) {
    return computeeigenvalues(t.diagonal(iter - 2), t.off_diagonal(iter - 2), log);
}

eigenvalue_extremes computecondnumber(const cg_tridiagonal& t, std::int32_t iter, logger& log) {
    const wtime clock;
    const eigenvalue_extremes extremes = eigenvalues(t, iter, log);
    clock.end(log, "Computation of condition number ");
    log.message("Min|max eigenvalue       : " + realtochar(extremes.min, "(g0.10)") + " " +
                realtochar(extremes.max, "(g0.10)"));
    log.message("Spectral condition number: " + realtochar(extremes.max / extremes.min, "(g0.10)"));
    return extremes;
}

}  // namespace zendar
