#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>

#include "modmatop.hpp"
#include "modpreconditioneriod_chols.hpp"
#include "modpreconditioneriod_detail.hpp"
#include "modstats.hpp"

namespace zendar::modpreconditioneriod {

namespace {

constexpr std::int64_t none = std::numeric_limits<std::int64_t>::max();
constexpr int largest_small = 6;

/// A pivot below this part of its diagonal element counts as dependent. The block and its inverse are rounded
/// to single precision, and with smaller pivots the inverse would no longer be positive definite after that.
constexpr double block_tolerance(std::int64_t order) {
    return 10.0 * std::numeric_limits<float>::epsilon() * static_cast<double>(order * order);
}

/// The generalised inverse of the block of a level by the steps of `ginv1_real8`, in memory of the caller. A
/// dependent equation is then preconditioned by its diagonal element: with a zero it would never change,
/// although it is in general dependent within the block only. Small orders N are known to the compiler (0:
/// any).
///
/// @param a         n x n, full symmetric; replaced.
/// @param diagonal  n values of work.
/// @param used      n values of work.
template <int N>
void ginv_of_level(double* a, std::int64_t order, double* diagonal, unsigned char* used) {
    const std::int64_t n = N > 0 ? N : order;
    const double tolerance = block_tolerance(n);
    const auto at = [=](std::int64_t i, std::int64_t j) -> double& { return a[i + j * n]; };
    for (std::int64_t k = 0; k < n; ++k) {
        diagonal[k] = at(k, k);
        used[k] = 0;
    }
    for (std::int64_t k = 0; k < n; ++k) {
        const double pivot = at(k, k);
        if (!(pivot > std::max(tolerance * diagonal[k], 0.0))) continue;
        for (std::int64_t j = 0; j < n; ++j) {
            if (j == k) continue;
            const double factor = at(k, j) / pivot;
            for (std::int64_t i = 0; i < n; ++i)
                if (i != k) at(i, j) -= at(i, k) * factor;
        }
        for (std::int64_t i = 0; i < n; ++i) {
            if (i == k) continue;
            at(i, k) /= pivot;
            at(k, i) /= -pivot;
        }
        at(k, k) = 1.0 / pivot;
        used[k] = 1;
    }
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t i = 0; i <= j; ++i)
            if (used[i] == 0 || used[j] == 0) at(i, j) = 0.0;  // the upper triangle is what counts
    for (std::int64_t k = 0; k < n; ++k)
        if (used[k] == 0 && diagonal[k] > 0.0) at(k, k) = 1.0 / diagonal[k];
}

/// Inverts a packed block by way of a full one. @returns false when the block or its inverse is not finite.
template <int N>
bool invert_level(float* block, std::int64_t order, double* a, double* diagonal, unsigned char* used) {
    const std::int64_t n = N > 0 ? N : order;
    bool finite = true;
    for (std::int64_t k = 0; k < n; ++k)
        for (std::int64_t i = 0; i <= k; ++i) {
            const double value = block[packed(i, k)];
            finite = finite && std::isfinite(value);
            a[i + k * n] = a[k + i * n] = value;
        }
    ginv_of_level<N>(a, n, diagonal, used);
    for (std::int64_t k = 0; k < n; ++k)
        for (std::int64_t i = 0; i <= k; ++i) {
            const auto value = static_cast<float>(a[i + k * n]);
            finite = finite && std::isfinite(value);
            block[packed(i, k)] = value;
        }
    return finite;
}

template <int N>
std::int64_t invert_levels(mija& part) {
    const std::int64_t n = N > 0 ? N : part.dim1, nlevel = part.dim3, size = packed_size(part);
    float* const block = part.block.data();
    // Work of all threads, made before they start: an exception may not leave a parallel region.
    const std::int64_t nthread = N > 0 ? 1 : omp_get_max_threads();
    std::vector<double> reals(static_cast<std::size_t>(N > 0 ? 0 : nthread * n * (n + 1)));
    std::vector<unsigned char> flags(static_cast<std::size_t>(N > 0 ? 0 : nthread * n));
    std::int64_t bad = none;
#pragma omp parallel default(none) shared(block, n, nlevel, size, reals, flags) reduction(min : bad)
    {
        std::array<double, (N > 0 ? N * (N + 1) : 1)> small;
        std::array<unsigned char, (N > 0 ? N : 1)> small_flags;
        const std::int64_t thread = omp_get_thread_num();
        double* const a = N > 0 ? small.data() : reals.data() + thread * n * (n + 1);
        unsigned char* const used = N > 0 ? small_flags.data() : flags.data() + thread * n;
#pragma omp for schedule(static)
        for (std::int64_t level = 0; level < nlevel; ++level)
            if (!invert_level<N>(block + level * size, n, a, a + n * n, used)) bad = std::min(bad, level + 1);
    }
    return bad == none ? 0 : bad;
}

/// @returns the first equation of the effect (from 1) whose element is not finite, before or after; 0 for
/// none.
std::int64_t invert_diagonal(std::span<float> diagonal) {
    const std::int64_t n = std::ssize(diagonal);
    float* const d = diagonal.data();
    std::int64_t bad = none;
#pragma omp parallel for schedule(static) default(none) shared(d, n) reduction(min : bad)
    for (std::int64_t i = 0; i < n; ++i) {
        const float value = d[i];
        if (value == 0.0f) continue;
        d[i] = static_cast<float>(1.0 / static_cast<double>(value));
        if (!std::isfinite(value) || !std::isfinite(d[i])) bad = std::min(bad, i + 1);
    }
    return bad == none ? 0 : bad;
}

[[noreturn]] void not_finite(std::int32_t e, const std::string& where, logger& log) {
    fatal(log,
          "The preconditioner of effect " + inttochar(e) + ", or its inverse, is not finite" + where +
              ". Are coefficients, weights and variances on a scale of their own?",
          module_tag, "invertpreconditioner");
}

void invert_whole(std::vector<double>& w, std::int64_t n) {
    matrix<double> full(n, n);
    for (std::int64_t k = 0; k < n; ++k)
        for (std::int64_t i = 0; i <= k; ++i) full(i, k) = full(k, i) = w[packed(i, k)];
    std::int32_t rank = 0;
    ginv1_real8(full.view(), tol8, rank);
    for (std::int64_t k = 0; k < n; ++k)
        for (std::int64_t i = 0; i <= k; ++i) w[packed(i, k)] = full(i, k);
}

bool all_finite(std::span<const double> values) {
    return std::ranges::all_of(values, [](double value) { return std::isfinite(value); });
}

void factorise(crssparse& sparse) {
    if (sparse.getdim(1) > max_precond_ordering) {
        std::vector<std::int32_t> identity(static_cast<std::size_t>(sparse.getdim(1)));
        std::iota(identity.begin(), identity.end(), 1);
        sparse.setpermutation32(identity);
    } else {
        sparse.setpermutation32(sparse.getordering());
    }
    sparse.getldlt();
}

}  // namespace

std::int64_t invertpreconditioner_block(mija& part) {
    static_assert(largest_small == 6);
    switch (part.dim1) {
        case 1:
            return invert_levels<1>(part);
        case 2:
            return invert_levels<2>(part);
        case 3:
            return invert_levels<3>(part);
        case 4:
            return invert_levels<4>(part);
        case 5:
            return invert_levels<5>(part);
        case 6:
            return invert_levels<6>(part);
        default:
            return invert_levels<0>(part);
    }
}

void invertpreconditioner(const param_type& param, std::span<mija> mija_global, logger& log) {
    log.message("");
    log.message("Start inversion of the preconditioner");
    const wtime clock;
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        mija& part = mija_global[e - 1];
        switch (part.type) {
            case precond_diagonal:
                if (const std::int64_t bad = invert_diagonal(part.mat); bad > 0)
                    not_finite(e, " at its equation " + inttochar(bad), log);
                break;
            case precond_block:
            case precond_reorder:
                if (part.block.empty()) break;  // correlated with an effect before it
                if (const std::int64_t bad = invertpreconditioner_block(part); bad > 0)
                    not_finite(e, " at level " + inttochar(bad), log);
                break;
            case precond_dense:
                if (!all_finite(part.dense.values())) not_finite(e, "", log);
                chols8(part.dense.view());
                break;
            case precond_whole:
                if (!all_finite(part.w)) not_finite(e, "", log);
                invert_whole(part.w, part.dim1);
                break;
            case precond_sparse:
            case precond_auto:
                factorise(part.sparse);
                break;
            case -precond_dense:
            case -precond_sparse:
            case -precond_auto:
            case -precond_reorder:
                break;
            case precond_none:
                if (is_absorbed(param, e)) break;
                [[fallthrough]];
            default:
                unknown_code(part.type, "invertpreconditioner", log);
        }
    }
    log.message("Inversion of the preconditioner - Wall clock time (s): " +
                realtochar(clock.seconds(), "(f0.3)"));
}

}  // namespace zendar::modpreconditioneriod
