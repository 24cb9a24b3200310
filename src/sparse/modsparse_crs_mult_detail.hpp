#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "modsparse_crs_mult.hpp"

/// What the files of the product share: one pass over the matrix for a few columns, by parts.
///
/// A part is a range of rows and the work of one thread. Columns go in blocks of B, the width, through
/// row-major copies in which the B values of an equation stand together; a block may have fewer columns than
/// B, the rest are zeros. With B = 1 the caller's own vectors serve as they are.
namespace zendar::crs_mult {

/// The widths that exist.
inline constexpr int widest = 10;

/// Rows below which the parts take turns: part p has rows bounds[p] .. bounds[p + 1] - 1, counted from 0.
/// The cuts balance the elements, beside which a row costs as much as so many of them.
template <std::signed_integral Index>
std::vector<std::int64_t> row_bounds(crs_view<Index> m, int parts, std::int64_t row_cost = 2);

/// The same for the entries of a vector.
inline std::int64_t even_bound(std::int64_t n, int part, int parts) {
    return n * part / parts;
}

/// Calls work(begin, end) for the range [from, to) a few at a time.
inline constexpr std::int64_t chunk = 16;
void for_chunks(std::int64_t from, std::int64_t to, auto&& work) {
    for (std::int64_t i = from; i < to; i += chunk) work(i, std::min(i + chunk, to));
}

/// Memory that is written before it is read: pages that no sum reaches are never touched.
inline std::unique_ptr<double[]> raw_memory(std::int64_t n) {
    return std::make_unique_for_overwrite<double[]>(static_cast<std::size_t>(std::max<std::int64_t>(n, 1)));
}

/// Doubles in a cache line; the first address in such memory at which one begins.
inline constexpr std::int64_t line = 8;
inline double* to_line(double* memory) {
    const auto at = reinterpret_cast<std::uintptr_t>(memory) / sizeof(double);
    return memory + (line - static_cast<std::int64_t>(at) % line) % line;
}

/// Asks for the value at an index, which may lie behind the array: it is not accessed.
///
/// @tparam Cache  1 to 3, the nearest cache that is to have it, the higher the nearer.
/// @tparam Write  1: it is going to be written.
template <int Cache, int Write = 0, class T>
[[gnu::always_inline]] inline void ask(const T* array, std::int64_t index) {
    const auto at = reinterpret_cast<std::uintptr_t>(array) + static_cast<std::uintptr_t>(index) * sizeof(T);
    __builtin_prefetch(reinterpret_cast<const void*>(at), Write, Cache);
}

/// Cache lines that the values of a row of average length take, rounded up.
template <std::signed_integral Index>
std::int64_t lines_of_row(crs_view<Index> m) {
    const std::int64_t rows = std::max(m.dim1, 1);
    return (std::ssize(m.a) + rows * line - 1) / (rows * line);
}
inline constexpr int any_lines = 3;
/// work.template operator()<Lines>() with that number, `any_lines` at most.
template <std::signed_integral Index>
auto with_lines_of_row(crs_view<Index> m, auto&& work) {
    switch (lines_of_row(m)) {
        case 0:
        case 1:
            return work.template operator()<1>();
        case 2:
            return work.template operator()<2>();
        default:
            return work.template operator()<any_lines>();
    }
}

/// Asks for the elements of rows to come. Several streams at a time are not read ahead as far as the memory
/// would allow, the less so where rows end at places that are not foreseen: without asking, products take
/// half as long again.
///
/// @tparam Cache  see `ask`.
/// @tparam Lines  of a row of average length, `any_lines` from 3 on: with one or two, so many are asked
///                for at each row, which is as good as exact, and no end of a loop is to be foreseen.
template <std::signed_integral Index, int Cache, int Lines = any_lines>
class elements_ahead {
  public:
    explicit elements_ahead(crs_view<Index> m) : a_(m.a.data()), ja_(m.ja.data()) {}

    /// To be called for each row, or for a few together, with the elements [begin, end).
    [[gnu::always_inline]] void ask_for(std::int64_t begin, std::int64_t end) const {
        ask_line(begin);
        if constexpr (Lines == 2) ask_line(begin + line);
        if constexpr (Lines > 2)
            for (std::int64_t k = begin + line; k < end; k += line) ask_line(k);
    }

  private:
    static constexpr std::int64_t distance = 256;

    [[gnu::always_inline]] void ask_line(std::int64_t k) const {
        ask<Cache>(a_, k + distance);
        ask<Cache>(ja_, k + distance);
    }

    const double* a_;
    const Index* ja_;
};

/// y = beta y + alpha times the sums over the elements of rows [from, to).
///
/// @tparam Lines  see `elements_ahead`.
template <int Lines, std::signed_integral Index>
[[gnu::always_inline]] inline void gather_vector(crs_view<Index> m, std::int64_t from, std::int64_t to,
                                                 double alpha, const double* x, double beta, double* y) {
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    const elements_ahead<Index, 2, Lines> ahead(m);
    for (std::int64_t i = from; i < to; ++i) {
        double sum = 0.0;
        std::int64_t k = m.ia[i] - 1;
        const std::int64_t end = m.ia[i + 1] - 1;
        ahead.ask_for(k, end);
        for (; k < end; ++k) sum += a[k] * x[std::int64_t{ja[k]} - 1];
        y[i] = beta == 0.0 ? alpha * sum : beta * y[i] + alpha * sum;
    }
}

/// B values side by side, in registers: all indices are constants.
template <int B>
class lanes {
    using pair [[gnu::vector_size(16)]] = double;
    static constexpr std::size_t units = B / 2;
    static_assert(B % 2 == 0);

    pair u_[units]{};

    using all = std::make_index_sequence<units>;
    static constexpr std::size_t step = sizeof(pair) / sizeof(double);

    // Out of line, the values would pass through memory.
    template <std::size_t... K>
    [[gnu::always_inline]] void load(const double* from, std::index_sequence<K...>) {
        (std::memcpy(&u_[K], from + K * step, sizeof(pair)), ...);
    }
    template <std::size_t... K>
    [[gnu::always_inline]] void store(double* to, std::index_sequence<K...>) const {
        (std::memcpy(to + K * step, &u_[K], sizeof(pair)), ...);
    }
    template <std::size_t... K>
    [[gnu::always_inline]] void add(double factor, const lanes& l, std::index_sequence<K...>) {
        ((u_[K] += factor * l.u_[K]), ...);
    }

  public:
    [[gnu::always_inline]] static lanes load(const double* from) {
        lanes l;
        l.load(from, all{});
        return l;
    }
    [[gnu::always_inline]] void store(double* to) const { store(to, all{}); }
    /// + factor * l
    [[gnu::always_inline]] void add(double factor, const lanes& l) { add(factor, l, all{}); }
    [[nodiscard, gnu::always_inline]] lanes times(double factor) const {
        lanes l;
        l.add(factor, *this);
        return l;
    }
    /// Adds factor * this to B values in memory.
    [[gnu::always_inline]] void add_to(double* to, double factor) const {
        lanes l = load(to);
        l.add(factor, *this);
        l.store(to);
    }
};

template <int B>
void zero_rows(double* data, std::int64_t from, std::int64_t to) {
    std::fill(data + from * B, data + to * B, 0.0);
}

/// The product with a matrix of which the upper triangle is stored.
template <int B, std::signed_integral Index>
void multiply_symmetric(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                        matrix_view<double> y, int parts);

}  // namespace zendar::crs_mult
