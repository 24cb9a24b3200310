#pragma once

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "modsparse_crs_mult_spill.hpp"

/// Several columns side by side: B values in registers, and columns of a matrix as rows of B values and back,
/// a few of each at a time.
namespace zendar::crs_mult {

// Vectors in an array of doubles, which is aligned to one. Packed: clang forgets the alignment of a typedef
// behind a reference.
using four [[gnu::vector_size(32)]] = double;
using pair [[gnu::vector_size(16)]] = double;
template <class Vector>
struct [[gnu::packed, gnu::may_alias]] within {
    Vector v;
};
[[gnu::always_inline]] inline const within<pair>& pair_at(const double* at) {
    return *reinterpret_cast<const within<pair>*>(at);
}
[[gnu::always_inline]] inline within<pair>& pair_at(double* at) {
    return *reinterpret_cast<within<pair>*>(at);
}
[[gnu::always_inline]] inline const within<four>& four_at(const double* at) {
    return *reinterpret_cast<const within<four>*>(at);
}
[[gnu::always_inline]] inline within<four>& four_at(double* at) {
    return *reinterpret_cast<within<four>*>(at);
}

/// Values [from, to) of the columns from j on as rows. The processor need have nothing but pairs;
/// inlined, as instructions for pairs alone would wait where a processor has longer vectors in use.
template <int B>
[[gnu::always_inline]] inline void pairs_into_rows(matrix_view<const double> columns, std::int64_t j,
                                                   std::int64_t from, std::int64_t to, double* rows) {
    for (; j + 1 < columns.cols; j += 2) {
        const double* const a = columns.data + j * columns.ld;
        const double* const b = a + columns.ld;
        double* row = rows + j;
        std::int64_t r = from;
        for (; r + 1 < to; r += 2, row += 2 * B) {
            const pair u = pair_at(a + r).v, v = pair_at(b + r).v;
            pair_at(row).v = pair{u[0], v[0]};
            pair_at(row + B).v = pair{u[1], v[1]};
        }
        if (r < to) pair_at(row).v = pair{a[r], b[r]};
    }
    for (; j < columns.cols; ++j)
        for (std::int64_t r = from; r < to; ++r) rows[(r - from) * B + j] = columns.data[r + j * columns.ld];
}

[[gnu::always_inline]] inline void add_pair(double* at, double beta, pair values) {
    pair_at(at).v = beta == 0.0 ? values : beta * pair_at(at).v + values;
}

/// And back: columns = beta columns + rows; the columns are not read when beta is 0.
template <int B>
[[gnu::always_inline]] inline void add_pairs_to_columns(const double* rows, std::int64_t j, std::int64_t from,
                                                        std::int64_t to, double beta,
                                                        matrix_view<double> columns) {
    for (; j < columns.cols; j += 2) {
        double* const a = columns.data + j * columns.ld;
        const bool both = j + 1 < columns.cols;
        double* const b = both ? a + columns.ld : a;
        const double* row = rows + j;
        std::int64_t r = from;
        for (; both && r + 1 < to; r += 2, row += 2 * B) {
            const pair u = pair_at(row).v, v = pair_at(row + B).v;
            add_pair(a + r, beta, pair{u[0], v[0]});
            add_pair(b + r, beta, pair{u[1], v[1]});
        }
        for (; r < to; ++r, row += B) {
            a[r] = beta == 0.0 ? row[0] : beta * a[r] + row[0];
            if (both) b[r] = beta == 0.0 ? row[1] : beta * b[r] + row[1];
        }
    }
}

/// Two pairs side by side, and the second one back. GCC takes neither from memory nor to it in one
/// instruction unless it is told to.
ZENDAR_FMA [[gnu::always_inline]] inline four pairs_at(const double* first, const double* second) {
#if defined(__x86_64__)
    return _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(first)), _mm_loadu_pd(second), 1);
#else
    return __builtin_shufflevector(pair_at(first).v, pair_at(second).v, 0, 1, 2, 3);
#endif
}
ZENDAR_FMA [[gnu::always_inline]] inline void put_pairs(four values, double* first, double* second) {
#if defined(__x86_64__)
    _mm_storeu_pd(first, _mm256_castpd256_pd128(values));
    _mm_storeu_pd(second, _mm256_extractf128_pd(values, 1));
#else
    pair_at(first).v = __builtin_shufflevector(values, values, 0, 1);
    pair_at(second).v = __builtin_shufflevector(values, values, 2, 3);
#endif
}

/// The same by four columns and two rows; Cols is their number, a constant where it can be one.
template <int B, class Cols>
ZENDAR_FMA [[gnu::always_inline]] inline void fours_into_rows(matrix_view<const double> columns, Cols cols,
                                                              std::int64_t from, std::int64_t to,
                                                              double* rows) {
    std::int64_t j = 0;
    const std::int64_t even = from + (to - from) / 2 * 2;
    for (; j + 3 < cols; j += 4) {
        const double* const a = columns.data + j * columns.ld;
        const double* const b = a + columns.ld;
        const double* const c = b + columns.ld;
        const double* const d = c + columns.ld;
        double* row = rows + j;
        for (std::int64_t r = from; r < even; r += 2, row += 2 * B) {
            const four ac = pairs_at(a + r, c + r), bd = pairs_at(b + r, d + r);
            four_at(row).v = __builtin_shufflevector(ac, bd, 0, 4, 2, 6);
            four_at(row + B).v = __builtin_shufflevector(ac, bd, 1, 5, 3, 7);
        }
        if (even < to) four_at(row).v = four{a[even], b[even], c[even], d[even]};
    }
    pairs_into_rows<B>(columns, j, from, to, rows);
}
template <int B, class Cols>
ZENDAR_FMA [[gnu::always_inline]] inline void add_fours_to_columns(const double* rows, std::int64_t from,
                                                                   std::int64_t to, double beta,
                                                                   matrix_view<double> columns, Cols cols) {
    std::int64_t j = 0;
    const std::int64_t even = beta == 0.0 ? from : from + (to - from) / 2 * 2;
    for (; j + 3 < cols; j += 4) {
        double* const a = columns.data + j * columns.ld;
        double* const b = a + columns.ld;
        double* const c = b + columns.ld;
        double* const d = c + columns.ld;
        const double* row = rows + j;
        for (std::int64_t r = from; r < even; r += 2, row += 2 * B) {
            const four u = four_at(row).v, v = four_at(row + B).v;
            const four ac = beta * pairs_at(a + r, c + r) + __builtin_shufflevector(u, v, 0, 4, 2, 6);
            const four bd = beta * pairs_at(b + r, d + r) + __builtin_shufflevector(u, v, 1, 5, 3, 7);
            put_pairs(ac, a + r, c + r);
            put_pairs(bd, b + r, d + r);
        }
    }
    // The columns beside them, and the rows below.
    for (; j + 1 < cols && beta != 0.0; j += 2) {
        double* const a = columns.data + j * columns.ld;
        double* const b = a + columns.ld;
        const double* row = rows + j;
        for (std::int64_t r = from; r < even; r += 2, row += 2 * B) {
            const pair u = pair_at(row).v, v = pair_at(row + B).v;
            pair_at(a + r).v = beta * pair_at(a + r).v + __builtin_shufflevector(u, v, 0, 2);
            pair_at(b + r).v = beta * pair_at(b + r).v + __builtin_shufflevector(u, v, 1, 3);
        }
    }
    if (j < cols) add_pairs_to_columns<B>(rows, j, from, to, beta, columns);
    const matrix_view<double> left{columns.data, columns.rows, j, columns.ld};
    if (even < to) add_pairs_to_columns<B>(rows + (even - from) * B, 0, even, to, beta, left);
}
template <int B>
ZENDAR_FMA void fours_into_rows(matrix_view<const double> columns, std::int64_t from, std::int64_t to,
                                double* rows) {
    if (columns.cols == B)
        fours_into_rows<B>(columns, std::integral_constant<std::int64_t, B>{}, from, to, rows);
    else
        fours_into_rows<B>(columns, columns.cols, from, to, rows);
}
template <int B>
ZENDAR_FMA void add_fours_to_columns(const double* rows, std::int64_t from, std::int64_t to, double beta,
                                     matrix_view<double> columns) {
    if (columns.cols == B)
        add_fours_to_columns<B>(rows, from, to, beta, columns, std::integral_constant<std::int64_t, B>{});
    else
        add_fours_to_columns<B>(rows, from, to, beta, columns, columns.cols);
}

/// B values side by side as pairs, which every processor has.
template <int B>
struct pairs_of {
    lanes<B> l;

    [[gnu::always_inline]] void load_times(const double* from, double factor) {
        l = lanes<B>::load(from).times(factor);
    }
    [[gnu::always_inline]] void add_product(double factor, const double* from) {
        l.add(factor, lanes<B>::load(from));
    }
    [[gnu::always_inline]] void add_to(double* to, double factor) const { l.add_to(to, factor); }
    void store(double* to) const { l.store(to); }

    static void into_rows(matrix_view<const double> columns, std::int64_t from, std::int64_t to,
                          double* rows) {
        pairs_into_rows<B>(columns, 0, from, to, rows);
    }
    static void add_to_columns(const double* rows, std::int64_t from, std::int64_t to, double beta,
                               matrix_view<double> columns) {
        add_pairs_to_columns<B>(rows, 0, from, to, beta, columns);
    }
};

/// The same as fours, with a pair behind them.
template <int B>
struct fours_of {
    static constexpr int fours = B / 4;
    static constexpr bool rest = B % 4 != 0;
    static_assert(B % 2 == 0);

    four f[fours > 0 ? fours : 1] = {};
    pair last = {};

    [[gnu::always_inline]] void load_times(const double* from, double factor) {
        const four all = four{factor, factor, factor, factor};
        for (int k = 0; k < fours; ++k) f[k] = four_at(from + 4 * k).v * all;
        if constexpr (rest) last = rest_at(from).v * __builtin_shufflevector(all, all, 0, 1);
    }
    [[gnu::always_inline]] void add_product(double factor, const double* from) {
        const four all = four{factor, factor, factor, factor};
        for (int k = 0; k < fours; ++k) f[k] += four_at(from + 4 * k).v * all;
        if constexpr (rest) last += rest_at(from).v * __builtin_shufflevector(all, all, 0, 1);
    }
    [[gnu::always_inline]] void add_to(double* to, double factor) const {
        const four all = four{factor, factor, factor, factor};
        for (int k = 0; k < fours; ++k) four_at(to + 4 * k).v += f[k] * all;
        if constexpr (rest) rest_at(to).v += last * __builtin_shufflevector(all, all, 0, 1);
    }
    [[gnu::always_inline]] void store(double* to) const {
        for (int k = 0; k < fours; ++k) four_at(to + 4 * k).v = f[k];
        if constexpr (rest) rest_at(to).v = last;
    }

    static void into_rows(matrix_view<const double> columns, std::int64_t from, std::int64_t to,
                          double* rows) {
        fours_into_rows<B>(columns, from, to, rows);
    }
    static void add_to_columns(const double* rows, std::int64_t from, std::int64_t to, double beta,
                               matrix_view<double> columns) {
        add_fours_to_columns<B>(rows, from, to, beta, columns);
    }

  private:
    static auto& rest_at(auto* at) { return pair_at(at + 4 * fours); }
};

/// The same as the processor has it.
template <int B>
void into_rows(matrix_view<const double> columns, std::int64_t from, std::int64_t to, double* rows) {
    if (has_fma())
        fours_into_rows<B>(columns, from, to, rows);
    else
        pairs_into_rows<B>(columns, 0, from, to, rows);
}
template <int B>
void add_to_columns(const double* rows, std::int64_t from, std::int64_t to, double beta,
                    matrix_view<double> columns) {
    if (has_fma())
        add_fours_to_columns<B>(rows, from, to, beta, columns);
    else
        add_pairs_to_columns<B>(rows, 0, from, to, beta, columns);
}

/// Equations [from, to) of the columns to their rows, of which `rows` is that of equation 0. Columns that are
/// not there are zeros.
template <int B>
void copy_rows(matrix_view<const double> columns, std::int64_t from, std::int64_t to, double* rows) {
    for_chunks(from, to, [&](std::int64_t begin, std::int64_t end) {
        if (columns.cols < B) zero_rows<B>(rows, begin, end);
        into_rows<B>(columns, begin, end, rows + begin * B);
    });
}

/// Asks for a line of each of the columns, B at most.
template <int B, int Write, class View>
[[gnu::always_inline]] inline void ask_columns(const View& columns, std::int64_t row) {
    const auto* at = columns.data;
    if (columns.cols == B) {
#pragma GCC unroll 16
        for (int j = 0; j < B; ++j, at += columns.ld) ask<3, Write>(at, row);
    } else {
        for (std::int64_t j = 0; j < columns.cols; ++j, at += columns.ld) ask<3, Write>(at, row);
    }
}

/// Asks for B values, which need not lie in one cache line. Inlined, as GCC drops calls of a function that
/// does nothing else.
template <int B, int Write>
[[gnu::always_inline]] inline void ask_for_row(const double* at) {
    __builtin_prefetch(at, Write, 2);
    if constexpr (line % B != 0) __builtin_prefetch(at + B - 1, Write, 2);
}

/// The rows that elements lead to are asked for so many elements ahead.
inline constexpr std::int64_t places_ahead = 128;

/// alpha times the sums over the elements of each row, to `sums` from there on; x stands in rows. They may
/// take the place of x in their rows: later rows do not lead there.
template <int B, std::signed_integral Index>
void gather_rows(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha, const double* x,
                 double* sums) {
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    const std::int64_t elements = std::ssize(m.ja);
    const elements_ahead<Index, 2> ahead(m);
    for_chunks(from, to, [&](std::int64_t begin, std::int64_t stop) {
        ahead.ask_for(m.ia[begin] - 1, m.ia[stop] - 1);
        for (std::int64_t i = begin; i < stop; ++i) {
            lanes<B> sum;  // pairs: fours would lie across two cache lines more often
            for (std::int64_t k = m.ia[i] - 1, end = m.ia[i + 1] - 1; k < end; ++k) {
                ask_for_row<B, 0>(x + (std::int64_t{ja[std::min(k + places_ahead, elements - 1)]} - 1) * B);
                sum.add(a[k], lanes<B>::load(x + (std::int64_t{ja[k]} - 1) * B));
            }
            sum.times(alpha).store(sums + (i - from) * B);
        }
    });
}

}  // namespace zendar::crs_mult
