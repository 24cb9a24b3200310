#include "modsparse_crs_triangular.hpp"

#include <cassert>

namespace zendar {

namespace {

enum class diagonal { stored, unit };

/// U' z = y for N right-hand sides: a row of U is a column of U', whose multiple leaves the equations behind
/// it.
template <diagonal D, int N, std::signed_integral Index>
void forward(crs_view<Index> u, std::span<double> x) {
    for (std::int32_t i = 0; i < u.dim1; ++i) {
        const Index head = u.ia[i] - 1;
        assert(u.ja[head] == i + 1);
        double xi[N];
        for (int c = 0; c < N; ++c) {
            double& own = x[std::int64_t{i} * N + c];
            if constexpr (D == diagonal::stored) own /= u.a[head];
            xi[c] = own;
        }
        for (Index k = head + 1; k < u.ia[i + 1] - 1; ++k) {
            double* const to = &x[std::int64_t{u.ja[k] - 1} * N];
            for (int c = 0; c < N; ++c) to[c] -= u.a[k] * xi[c];
        }
    }
}

template <diagonal D, int N, std::signed_integral Index>
void backward(crs_view<Index> u, std::span<double> x) {
    for (std::int32_t i = u.dim1 - 1; i >= 0; --i) {
        const Index head = u.ia[i] - 1;
        double sum[N];
        for (int c = 0; c < N; ++c) sum[c] = x[std::int64_t{i} * N + c];
        for (Index k = head + 1; k < u.ia[i + 1] - 1; ++k) {
            const double* const from = &x[std::int64_t{u.ja[k] - 1} * N];
            for (int c = 0; c < N; ++c) sum[c] -= u.a[k] * from[c];
        }
        for (int c = 0; c < N; ++c)
            x[std::int64_t{i} * N + c] = D == diagonal::stored ? sum[c] / u.a[head] : sum[c];
    }
}

template <int N, std::signed_integral Index>
void solve_unit(crs_view<Index> u, std::span<double> x) {
    assert(u.dim1 == u.dim2 && std::ssize(x) == std::int64_t{u.dim1} * N);
    forward<diagonal::unit, N>(u, x);
    for (std::int32_t i = 0; i < u.dim1; ++i) {
        const double d = u.a[u.ia[i] - 1];
        for (int c = 0; c < N; ++c) {
            double& own = x[std::int64_t{i} * N + c];
            own = d == 0.0 ? 0.0 : own / d;
        }
    }
    backward<diagonal::unit, N>(u, x);
}

}  // namespace

template <std::signed_integral Index>
void solve_with_upper(crs_view<Index> u, std::span<double> x) {
    assert(u.dim1 == u.dim2 && std::ssize(x) == u.dim1);
    forward<diagonal::stored, 1>(u, x);
    backward<diagonal::stored, 1>(u, x);
}

template <std::signed_integral Index>
void solve_with_unit_upper(crs_view<Index> u, std::span<double> x) {
    solve_unit<1>(u, x);
}

template <std::signed_integral Index>
void solve_with_unit_upper(crs_view<Index> u, std::span<double> x, std::int64_t columns) {
    switch (columns) {
        case 1:
            return solve_unit<1>(u, x);
        case 2:
            return solve_unit<2>(u, x);
        case 4:
            return solve_unit<4>(u, x);
        default:
            assert(columns == 8);
            return solve_unit<8>(u, x);
    }
}

template void solve_with_upper(crs_view<std::int32_t>, std::span<double>);
template void solve_with_upper(crs_view<std::int64_t>, std::span<double>);
template void solve_with_unit_upper(crs_view<std::int32_t>, std::span<double>);
template void solve_with_unit_upper(crs_view<std::int64_t>, std::span<double>);
template void solve_with_unit_upper(crs_view<std::int32_t>, std::span<double>, std::int64_t);

}  // namespace zendar
