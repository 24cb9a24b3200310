#include "modpreconditioneriod_chols.hpp"

#include <algorithm>
#include <cassert>
#include <cmath>

namespace zendar {

namespace {

constexpr double smallest_diagonal = 1e-8;
constexpr double smallest_pivot = 1e-10;  // of the diagonal

/// `unit`: rows are neighbours in memory, which the inner loops over them gain from.
template <bool unit>
void factorise(double* a, std::int64_t n, std::int64_t stride, std::int64_t ld) {
    const std::int64_t step = unit ? 1 : stride;
    const auto at = [=](std::int64_t i, std::int64_t j) -> double& { return a[i * step + j * ld]; };
    const auto drop = [&](std::int64_t i) {
        for (std::int64_t k = 0; k <= i; ++k) at(i, k) = 0.0;
        for (std::int64_t j = i + 1; j < n; ++j) at(j, i) = 0.0;
    };
    for (std::int64_t i = 0; i < n; ++i) {
        const double diagonal = at(i, i);
        if (diagonal < smallest_diagonal) {
            drop(i);
            continue;
        }
        double pivot = diagonal;
        for (std::int64_t k = 0; k < i; ++k) pivot -= at(i, k) * at(i, k);
        if (pivot < diagonal * smallest_pivot) {
            drop(i);
            continue;
        }
        const double root = std::sqrt(pivot);
        at(i, i) = root;
        for (std::int64_t k = 0; k < i; ++k) {
            const double factor = at(i, k);
            if (factor == 0.0) continue;
            for (std::int64_t j = i + 1; j < n; ++j) at(j, i) -= factor * at(j, k);
        }
        for (std::int64_t j = i + 1; j < n; ++j) at(j, i) /= root;
    }
    for (std::int64_t j = 1; j < n; ++j)
        for (std::int64_t i = 0; i < j; ++i) at(i, j) = 0.0;
}

}  // namespace

void chols8(matrix_view<double> a) {
    assert(a.rows == a.cols);
    factorise<true>(a.data, a.rows, 1, a.ld);
}

void chols8(double* a, std::int64_t n, std::int64_t stride, std::int64_t ld) {
    factorise<false>(a, n, stride, ld);
}

void solvs8(matrix_view<const double> l, std::span<double> y, std::span<const double> x) {
    const std::int64_t n = l.rows;
    assert(l.cols == n && std::ssize(y) == n && std::ssize(x) == n);
    std::ranges::copy(x, y.begin());
    for (std::int64_t i = 0; i < n; ++i) {
        if (l(i, i) <= 0.0) {
            y[i] = 0.0;
            continue;
        }
        const double* const column = l.data + i * l.ld;
        const double value = y[i] /= column[i];
        for (std::int64_t j = i + 1; j < n; ++j) y[j] -= column[j] * value;
    }
    for (std::int64_t i = n - 1; i >= 0; --i) {
        if (l(i, i) <= 0.0) {
            y[i] = 0.0;
            continue;
        }
        const double* const column = l.data + i * l.ld;
        double sum = y[i];
        for (std::int64_t j = i + 1; j < n; ++j) sum -= column[j] * y[j];
        y[i] = sum / column[i];
    }
}

}  // namespace zendar
