#include "modsparse_crs_triangular.hpp"

#include <cassert>

namespace zendar {

namespace {

enum class diagonal { stored, unit };

/// U' z = y: a row of U is a column of U', whose multiple leaves the equations behind it.
template <diagonal D, std::signed_integral Index>
void forward(crs_view<Index> u, std::span<double> x) {
    for (std::int32_t i = 0; i < u.dim1; ++i) {
        const Index head = u.ia[i] - 1;
        assert(u.ja[head] == i + 1);
        if constexpr (D == diagonal::stored) x[i] /= u.a[head];
        const double xi = x[i];
        for (Index k = head + 1; k < u.ia[i + 1] - 1; ++k) x[u.ja[k] - 1] -= u.a[k] * xi;
    }
}

template <diagonal D, std::signed_integral Index>
void backward(crs_view<Index> u, std::span<double> x) {
    for (std::int32_t i = u.dim1 - 1; i >= 0; --i) {
        const Index head = u.ia[i] - 1;
        double sum = x[i];
        for (Index k = head + 1; k < u.ia[i + 1] - 1; ++k) sum -= u.a[k] * x[u.ja[k] - 1];
        x[i] = D == diagonal::stored ? sum / u.a[head] : sum;
    }
}

}  // namespace

template <std::signed_integral Index>
void solve_with_upper(crs_view<Index> u, std::span<double> x) {
    assert(u.dim1 == u.dim2 && std::ssize(x) == u.dim1);
    forward<diagonal::stored>(u, x);
    backward<diagonal::stored>(u, x);
}

template <std::signed_integral Index>
void solve_with_unit_upper(crs_view<Index> u, std::span<double> x) {
    assert(u.dim1 == u.dim2 && std::ssize(x) == u.dim1);
    forward<diagonal::unit>(u, x);
    for (std::int32_t i = 0; i < u.dim1; ++i) {
        const double d = u.a[u.ia[i] - 1];
        x[i] = d == 0.0 ? 0.0 : x[i] / d;
    }
    backward<diagonal::unit>(u, x);
}

template void solve_with_upper(crs_view<std::int32_t>, std::span<double>);
template void solve_with_upper(crs_view<std::int64_t>, std::span<double>);
template void solve_with_unit_upper(crs_view<std::int32_t>, std::span<double>);
template void solve_with_unit_upper(crs_view<std::int64_t>, std::span<double>);

}  // namespace zendar
