#include <algorithm>
#include <cassert>
#include <cmath>
#include <string>
#include <vector>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modmatop.hpp"

namespace zendar {

namespace {

/// One step of Gauss-Jordan elimination in place, on pivot k. The block of all pivots used so far is the
/// inverse of that block of the original matrix.
void sweep(matrix_view<double> a, std::int64_t k) {
    const double pivot = a(k, k);
    for (std::int64_t j = 0; j < a.cols; ++j) {
        if (j == k) continue;
        const double factor = a(k, j) / pivot;
        for (std::int64_t i = 0; i < a.rows; ++i)
            if (i != k) a(i, j) -= a(i, k) * factor;
    }
    for (std::int64_t i = 0; i < a.rows; ++i) {
        if (i == k) continue;
        a(i, k) /= pivot;
        a(k, i) /= -pivot;
    }
    a(k, k) = 1.0 / pivot;
}

}  // namespace

void ginv1_real8(matrix_view<double> a, double tol, std::int32_t& rank) {
    assert(a.rows == a.cols);
    const std::int64_t n = a.rows;
    std::vector<double> smallest_pivot(static_cast<std::size_t>(n));
    for (std::int64_t k = 0; k < n; ++k) smallest_pivot[k] = std::max(tol * a(k, k), 0.0);

    std::vector<unsigned char> used(static_cast<std::size_t>(n), 0);
    rank = 0;
    for (std::int64_t k = 0; k < n; ++k) {
        if (!(a(k, k) > smallest_pivot[k])) continue;  // not a number counts as dependent, too
        sweep(a, k);
        used[k] = 1;
        ++rank;
    }
    // Rounding differs between the triangles: take one for both.
    for (std::int64_t j = 0; j < n; ++j) {
        for (std::int64_t i = 0; i <= j; ++i) {
            const double value = used[i] != 0 && used[j] != 0 ? a(i, j) : 0.0;
            a(i, j) = a(j, i) = value;
        }
    }
}

bool invsym(matrix_view<double> a, logger& log) {
    assert(a.rows == a.cols);
    if (const int info = lapack_dpotrf(a); info != 0) {
        log.error("ERROR dpotrf info: " + inttochar(info));
        return false;
    }
    if (const int info = lapack_dpotri(a); info != 0) {
        log.error("ERROR dpotri info: " + inttochar(info));
        return false;
    }
    for (std::int64_t j = 0; j < a.cols; ++j)
        for (std::int64_t i = j + 1; i < a.rows; ++i) a(j, i) = a(i, j);
    return true;
}

void eigensyevd(matrix_view<double> a, std::span<double> values, logger& log) {
    constexpr double not_computed = -9.0;
    if (a.rows != a.cols || a.rows != std::ssize(values)) {
        std::ranges::fill(values, not_computed);
        return;
    }
    const int info = lapack_dsyevd(a, values);
    if (info == 0) return;
    // LAPACK refuses an argument before it computes; a positive code comes from the computation itself.
    log.error((info < 0 ? "ERROR info : " : "ERROR info-end: ") + inttochar(info));
    std::ranges::fill(values, not_computed);
}

bool ispositive(matrix_view<const double> a, logger& log, double threshold) {
    assert(a.rows == a.cols);
    matrix<double> copy(a.rows, a.cols);
    for (std::int64_t j = 0; j < a.cols; ++j) {
        for (std::int64_t i = 0; i < a.rows; ++i) {
            if (!std::isfinite(a(i, j))) return false;
            copy(i, j) = a(i, j);
        }
    }
    std::vector<double> values(static_cast<std::size_t>(a.rows));
    eigensyevd(copy.view(), values, log);
    return std::ranges::all_of(values, [threshold](double value) { return value > threshold; });
}

}  // namespace zendar
