#include <omp.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <type_traits>
#include <utility>

#include "modpreconditioneriod_chols.hpp"
#include "modpreconditioneriod_detail.hpp"
#include "modstats.hpp"

namespace zendar::modpreconditioneriod {

namespace {

constexpr int largest_small = 6;  // blocks up to this order have a loop of their own
constexpr int largest_on_stack = 32;

/// y = a x for a symmetric matrix of order n, packed by the columns of its upper triangle.
template <class Real>
void packed_times_vector(const Real* a, std::int64_t n, const double* x, double* y) {
    for (std::int64_t k = 0; k < n; ++k) {
        const double xk = x[k];
        double sum = 0.0;
#pragma omp simd reduction(+ : sum)
        for (std::int64_t i = 0; i < k; ++i) {
            const double value = a[i];
            sum += value * x[i];
            y[i] += value * xk;
        }
        y[k] = sum + static_cast<double>(a[k]) * xk;
        a += k + 1;
    }
}

/// What column K of the packed triangle adds to the product, its rows written out.
template <int K, std::size_t N, int... I>
inline void add_column(const float* a, const std::array<double, N>& x, std::array<double, N>& y,
                       std::integer_sequence<int, I...>) {
    const float* const column = a + K * (K + 1) / 2;
    [[maybe_unused]] const auto add_row = [&](int i) {  // the first column has none
        const double value = column[i];
        y[K] += value * x[i];
        y[i] += value * x[K];
    };
    (add_row(I), ...);
    y[K] += static_cast<double>(column[K]) * x[K];
}

/// The same for a small order. All loops are written out, as compilers leave those over a triangle as they
/// are: x and y so stay in registers.
template <std::size_t N, int... K>
inline std::array<double, N> small_times_vector(const float* a, const std::array<double, N>& x,
                                                std::integer_sequence<int, K...>) {
    std::array<double, N> y{};
    (add_column<K>(a, x, y, std::make_integer_sequence<int, K>{}), ...);
    return y;
}

template <int N>
preconditioned_sums contiguous_levels(double* y, const mija& part, const double* x) {
    const std::int64_t nlevel = part.dim3;
    const float* const block = part.block.data();
    double yy = 0.0, xy = 0.0;
    if constexpr (N > 0) {
#pragma omp parallel for schedule(static) default(none) shared(y, x, block, nlevel) reduction(+ : yy, xy)
        for (std::int64_t level = 0; level < nlevel; ++level) {
            std::array<double, N> own;
            for (int i = 0; i < N; ++i) own[i] = x[level * N + i];
            const auto product =
                small_times_vector(block + level * packed(0, N), own, std::make_integer_sequence<int, N>{});
            for (int i = 0; i < N; ++i) {
                y[level * N + i] = product[i];
                yy += product[i] * product[i];
                xy += own[i] * product[i];
            }
        }
    } else {
        const std::int64_t n = part.dim1, size = packed_size(part);
#pragma omp parallel for schedule(static) default(none) shared(y, x, block, n, size, nlevel) \
    reduction(+ : yy, xy)
        for (std::int64_t level = 0; level < nlevel; ++level) {
            const double* const own = x + level * n;
            double* const product = y + level * n;
            packed_times_vector(block + level * size, n, own, product);
            for (std::int64_t i = 0; i < n; ++i) {
                yy += product[i] * product[i];
                xy += own[i] * product[i];
            }
        }
    }
    return {yy, xy};
}

/// The places of a block's equations at the first level, and from one level to the next.
template <std::size_t N>
void places_of(std::span<const block_stretch> stretches, std::array<std::int64_t, N>& first,
               std::array<std::int64_t, N>& stride) {
    std::size_t place = 0;
    for (const block_stretch& s : stretches)
        for (std::int64_t i = 0; i < s.length; ++i, ++place) {
            first[place] = s.first + i;
            stride[place] = s.stride;
        }
}

template <int N>
preconditioned_sums gathered_small_levels(double* y, const mija& part, const double* x) {
    const std::int64_t nlevel = part.dim3;
    const float* const block = part.block.data();
    std::array<std::int64_t, N> first, stride;
    places_of(part.stretches, first, stride);
    double yy = 0.0, xy = 0.0;
#pragma omp parallel for schedule(static) default(none) shared(y, x, block, nlevel) \
    firstprivate(first, stride) reduction(+ : yy, xy)
    for (std::int64_t level = 0; level < nlevel; ++level) {
        std::array<double, N> own;
        for (int i = 0; i < N; ++i) own[i] = x[first[i] + level * stride[i]];
        const auto product =
            small_times_vector(block + level * packed(0, N), own, std::make_integer_sequence<int, N>{});
        for (int i = 0; i < N; ++i) {
            y[first[i] + level * stride[i]] = product[i];
            yy += product[i] * product[i];
            xy += own[i] * product[i];
        }
    }
    return {yy, xy};
}

/// Gathers, multiplies and scatters. `work` has 2 n elements for each thread when n is beyond the stack's
/// array.
preconditioned_sums gathered_levels(double* y, const mija& part, const double* x, double* work) {
    const std::int64_t n = part.dim1, size = packed_size(part), nlevel = part.dim3;
    const float* const block = part.block.data();
    const std::span<const block_stretch> stretches = part.stretches;
    double yy = 0.0, xy = 0.0;
#pragma omp parallel default(none) shared(y, x, work, block, n, size, nlevel, stretches) reduction(+ : yy, xy)
    {
        std::array<double, 2 * largest_on_stack> small;
        double* const from = n > largest_on_stack ? work + 2 * n * omp_get_thread_num() : small.data();
        double* const to = from + n;
#pragma omp for schedule(static)
        for (std::int64_t level = 0; level < nlevel; ++level) {
            std::int64_t place = 0;
            for (const block_stretch& s : stretches)
                for (std::int64_t i = 0; i < s.length; ++i) from[place++] = x[s.first + level * s.stride + i];
            packed_times_vector(block + level * size, n, from, to);
            place = 0;
            for (const block_stretch& s : stretches)
                for (std::int64_t i = 0; i < s.length; ++i) y[s.first + level * s.stride + i] = to[place++];
            for (std::int64_t i = 0; i < n; ++i) {
                yy += to[i] * to[i];
                xy += from[i] * to[i];
            }
        }
    }
    return {yy, xy};
}

/// Calls `action` with the order as a constant, 0 for the orders without a loop of their own.
template <class Action>
preconditioned_sums with_order(std::int64_t order, Action&& action) {
    static_assert(largest_small == 6);
    switch (order) {
        case 1:
            return action(std::integral_constant<int, 1>{});
        case 2:
            return action(std::integral_constant<int, 2>{});
        case 3:
            return action(std::integral_constant<int, 3>{});
        case 4:
            return action(std::integral_constant<int, 4>{});
        case 5:
            return action(std::integral_constant<int, 5>{});
        case 6:
            return action(std::integral_constant<int, 6>{});
        default:
            return action(std::integral_constant<int, 0>{});
    }
}

preconditioned_sums preconditionertimesx_diagonal(double* y, std::span<const mija> mija_global,
                                                  const double* x) {
    if (std::ranges::count(mija_global, precond_diagonal, &mija::type) == 0) return {};
    double yy = 0.0, xy = 0.0;
#pragma omp parallel default(none) shared(y, x, mija_global) reduction(+ : yy, xy)
    for (const mija& part : mija_global) {
        if (part.type != precond_diagonal) continue;
        const float* const d = part.mat.data();
        double* const to = y + part.first - 1;
        const double* const own = x + part.first - 1;
        const std::int64_t n = part.dim1, thread = omp_get_thread_num(), threads = omp_get_num_threads();
        const std::int64_t begin = n * thread / threads, end = n * (thread + 1) / threads;
#pragma omp simd reduction(+ : yy, xy)
        for (std::int64_t i = begin; i < end; ++i) {
            const double product = static_cast<double>(d[i]) * own[i];
            to[i] = product;
            yy += product * product;
            xy += own[i] * product;
        }
    }
    return {yy, xy};
}

}  // namespace

preconditioned_sums preconditionertimesx_block(std::span<double> y, const mija& part,
                                               std::span<const double> x) {
    const std::int64_t offset = part.first - 1;
    return with_order(part.dim1, [&](auto n) {
        return contiguous_levels<n()>(y.data() + offset, part, x.data() + offset);
    });
}

preconditioned_sums preconditionertimesx_block_index(std::span<double> y, const mija& part,
                                                     std::span<const double> x) {
    std::vector<double> work;
    if (part.dim1 > largest_on_stack)
        work.resize(static_cast<std::size_t>(2 * std::int64_t{part.dim1} * omp_get_max_threads()));
    return with_order(part.dim1, [&](auto n) {
        if constexpr (n() > 0)
            return gathered_small_levels<n()>(y.data(), part, x.data());
        else
            return gathered_levels(y.data(), part, x.data(), work.data());
    });
}

preconditioned_sums preconditionertimesx(std::span<double> y, std::span<const mija> mija_global,
                                         std::span<const double> x, std::vector<double>& work, logger& log) {
    assert(y.size() == x.size());
    const wtime clock;
    preconditioned_sums sums;
    for (const mija& part : mija_global)
        work.resize(std::max(work.size(), static_cast<std::size_t>(part.sparse.getdim(1))));
    for (const mija& part : mija_global) {
        const auto range = [&part](auto v) {
            return v.subspan(static_cast<std::size_t>(part.first - 1),
                             static_cast<std::size_t>(part.last - part.first + 1));
        };
        switch (part.type) {
            case precond_dense:
                solvs8(part.dense.view(), range(y), range(x));
                sums += sums_of(range(y), range(x));
                break;
            case precond_whole:
                packed_times_vector(part.w.data(), part.dim1, range(x).data(), range(y).data());
                sums += sums_of(range(y), range(x));
                break;
            case precond_sparse:
            case precond_auto:
                part.sparse.solveldlt_s(range(y), range(x), work);
                sums += sums_of(range(y), range(x));
                break;
            case precond_reorder:
                sums += preconditionertimesx_block_index(y, part, x);
                break;
            case precond_none:
            case precond_diagonal:
            case precond_block:
            case -precond_dense:
            case -precond_sparse:
            case -precond_auto:
            case -precond_reorder:
                break;
            default:
                unknown_code(part.type, "preconditionertimesx", log);
        }
    }
    sums += preconditionertimesx_diagonal(y.data(), mija_global, x.data());
    for (const mija& part : mija_global) {
        if (part.type != precond_block || part.block.empty())
            continue;  // empty: correlated with one before it
        sums += part.stretches.size() == 1 ? preconditionertimesx_block(y, part, x)
                                           : preconditionertimesx_block_index(y, part, x);
    }
    log.message("  Elapsed time (s) - M-1 * x: " + realtochar(clock.seconds(), "(f0.3)"));
    return sums;
}

}  // namespace zendar::modpreconditioneriod
