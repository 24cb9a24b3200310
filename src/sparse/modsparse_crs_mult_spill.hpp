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
    /// All equations up to a column, counted from 1; zeroing them is left to the caller.
    void reach_to(std::int64_t last_column) { end = std::max(first, last_column); }
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
        memory = raw_memory(size + line);
        double* next = to_line(memory.get());
        for (std::size_t p = 1; p < bounds.size(); ++p) {
            spills.push_back({next, bounds[p], bounds[p]});
            next += (n - bounds[p]) * width;
        }
    }
};

/// The last column of rows [from, to), counted from 1; 0 if they have no element.
template <std::signed_integral Index>
[[gnu::always_inline]] inline std::int64_t last_column(crs_view<Index> m, std::int64_t from,
                                                       std::int64_t to) {
    const std::int64_t first = m.ia[from] - 1, end = m.ia[to] - 1;
    std::int64_t last = 0;
    if (first == end) return last;
    if (m.sorted) {
#pragma GCC unroll 4
        for (std::int64_t i = from; i < to; ++i)  // the last element before an empty row does no harm
            last = std::max(last, std::int64_t{m.ja[std::max<std::int64_t>(m.ia[i + 1] - 2, first)]});
    } else {
        for (std::int64_t k = first; k < end; ++k) last = std::max(last, std::int64_t{m.ja[k]});
    }
    return last;
}

/// Adds the spills of earlier parts, of one column, to the equations [from, to).
inline void add_spills(const std::vector<spill>& spills, int part, std::int64_t from, std::int64_t to,
                       double* y) {
    for (int p = 0; p < part; ++p) {
        const spill& s = spills[p];
        const std::int64_t begin = std::max(from, s.first), end = std::min(to, s.end);
        for (std::int64_t k = begin; k < end; ++k) y[k] += s.sums[k - s.first];
    }
}

/// One column whose elements lie near the diagonal: nearly all less than `front` equations from it, so that
/// x and y are asked for as many equations ahead.
template <std::signed_integral Index>
void multiply_one_vector(crs_view<Index> m, double alpha, const double* x, double beta, double* y,
                         std::int64_t front, int parts);

/// Columns of the matrix anywhere: one vector, and several.
template <std::signed_integral Index>
void multiply_one_vector_far(crs_view<Index> m, double alpha, const double* x, double beta, double* y,
                             int parts);
template <int B, std::signed_integral Index>
void multiply_far(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                  matrix_view<double> y, int parts);

/// Several columns near the diagonal, the same as for one.
template <int B, std::signed_integral Index>
void multiply_near(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                   matrix_view<double> y, std::int64_t front, int parts);

/// Equations that the ring of `multiply_near` holds; with the widest block both halves take 320 KiB.
inline constexpr std::int64_t ring_size = 2048;

}  // namespace zendar::crs_mult
