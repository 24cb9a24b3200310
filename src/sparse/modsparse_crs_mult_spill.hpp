#pragma once

#include "modsparse_crs_mult_detail.hpp"

/// What the products with symmetric matrices share. Rows only scatter to the right, so that a part may add to
/// its own equations in place: no other part touches them before all rows are through. What falls to the
/// right of the part's rows goes to sums of its own, the spill, which reach no further than its last column.
/// The spills are added in the order of the parts.
namespace zendar::crs_mult {

// The loops near the diagonal are bound by their instructions: multiplying and adding at once saves a
// quarter.
#if defined(__x86_64__)
#define ZENDAR_FMA [[gnu::target("avx2,fma")]]
#else
#define ZENDAR_FMA
#endif

/// False makes every loop the one that each processor has.
inline bool& fma_allowed() {
    static bool allowed = true;
    return allowed;
}
inline bool has_fma() {
#if defined(__x86_64__)
    return fma_allowed() && __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0;
#else
    return false;
#endif
}

/// Sums for the equations [first, end); `end` grows as they are reached. Not used by the last part.
struct spill {
    double* sums = nullptr;  // of equation `first`
    std::int64_t first = 0, end = 0;

    template <int B>
    void reach(std::int64_t equation, std::int64_t n) {
        constexpr std::int64_t step = 512;
        const std::int64_t to = std::min(equation + step, n);
        zero_rows<B>(sums, end - first, to - first);
        end = to;
    }
    template <int B>
    double* at(std::int64_t equation, std::int64_t n) {
        if (equation >= end) [[unlikely]]
            reach<B>(equation, n);
        return sums + (equation - first) * B;
    }
};

/// Spills and the memory behind them.
struct spill_store {
    std::vector<spill> spills;
    std::unique_ptr<double[]> memory;

    spill_store(const std::vector<std::int64_t>& bounds, std::int64_t n, int width) {
        std::int64_t size = 0;
        for (std::size_t p = 1; p < bounds.size(); ++p) size += (n - bounds[p]) * width;
        memory = raw_memory(size);
        double* next = memory.get();
        for (std::size_t p = 1; p < bounds.size(); ++p) {
            spills.push_back({next, bounds[p], bounds[p]});
            next += (n - bounds[p]) * width;
        }
    }
};

/// Several columns whose elements lie near the diagonal.
template <int B, std::signed_integral Index>
void multiply_near(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                   matrix_view<double> y, int parts);

/// Equations that the ring of `multiply_near` holds; with the widest block both halves take 320 KiB.
inline constexpr std::int64_t ring_size = 2048;

}  // namespace zendar::crs_mult
