#include "modsparse_crs_mult_spill.hpp"

// A stored element (i, c) with c > i gathers x(c) into y(i) and scatters x(i) into y(c).
//
// Near the diagonal it is gathered and scattered at once (of several columns, see
// modsparse_crs_mult_ring.cpp).
//
// Where columns lie anywhere in long vectors, all rows are gathered before they are scattered. To read the
// matrix twice costs little beside the places that it leads to, and cache and address translation serve one
// vector at a time instead of two. Of several columns there is a row-major copy, of x and then of what is
// scattered, so that an element costs one place in memory and not one per column.

namespace zendar::crs_mult {

namespace {

// ---- one column near the diagonal ------------------------------------------------------------------------

/// y is made ready as a whole.
template <std::signed_integral Index>
[[gnu::always_inline]] inline void rows_of_one_vector(crs_view<Index> m, std::int64_t from, std::int64_t to,
                                                      double alpha, const double* x, double beta, double* y,
                                                      spill& out) {
    const std::int64_t n = m.dim1;
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    if (beta == 0.0)
        std::fill(y + from, y + to, 0.0);
    else if (beta != 1.0)
        for (std::int64_t i = from; i < to; ++i) y[i] *= beta;
    spill beyond = out;
    std::int64_t k = m.ia[from] - 1;
    for (std::int64_t i = from; i < to; ++i) {
        const double xi = alpha * x[i];
        double sum = 0.0;
        const std::int64_t end = m.ia[i + 1] - 1;
        if (k < end && ja[k] - 1 == i) sum = a[k++] * x[i];
        if (m.sorted && k < end && ja[end - 1] <= to) {
            // No diagonal element any more, and none beyond the part: a third of the time is the looking.
            for (; k < end; ++k) {
                const std::int64_t c = std::int64_t{ja[k]} - 1;
                sum += a[k] * x[c];
                y[c] += a[k] * xi;
            }
        } else if (k < end && ja[end - 1] > to) {
            // Some columns lie beyond the part: where an element goes is selected, not branched on.
            for (; k < end; ++k) {
                const std::int64_t c = std::int64_t{ja[k]} - 1;
                if (c >= beyond.end) [[unlikely]]
                    beyond.reach<1>(c, n);
                double* const base = c < to ? y : beyond.sums;
                const std::int64_t offset = c < to ? c : c - beyond.first;
                sum += a[k] * x[c];
                if (c != i) base[offset] += a[k] * xi;
            }
        } else {
            for (; k < end; ++k) {
                const std::int64_t c = std::int64_t{ja[k]} - 1;
                sum += a[k] * x[c];
                if (c >= to) [[unlikely]]
                    *beyond.at<1>(c, n) += a[k] * xi;
                else if (c != i) [[likely]]
                    y[c] += a[k] * xi;
            }
        }
        y[i] += alpha * sum;
    }
    out.end = beyond.end;
}

template <std::signed_integral Index>
void rows_of_one_vector_plain(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha,
                              const double* x, double beta, double* y, spill& out) {
    rows_of_one_vector(m, from, to, alpha, x, beta, y, out);
}
template <std::signed_integral Index>
ZENDAR_FMA void rows_of_one_vector_fma(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha,
                                       const double* x, double beta, double* y, spill& out) {
    rows_of_one_vector(m, from, to, alpha, x, beta, y, out);
}

/// Adds the spills of earlier parts to the equations [from, to).
template <int B>
void add_spills(const std::vector<spill>& spills, int part, std::int64_t from, std::int64_t to, double* y) {
    for (int p = 0; p < part; ++p) {
        const spill& s = spills[p];
        const std::int64_t begin = std::max(from, s.first), end = std::min(to, s.end);
        for (std::int64_t k = begin * B; k < end * B; ++k) y[k] += s.sums[k - s.first * B];
    }
}

template <std::signed_integral Index>
void multiply_one_vector(crs_view<Index> m, double alpha, const double* x, double beta, double* y,
                         int parts) {
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
    spill_store store(bounds, m.dim1, 1);
    std::vector<spill>& spills = store.spills;
    const auto rows = has_fma() ? rows_of_one_vector_fma<Index> : rows_of_one_vector_plain<Index>;
#pragma omp parallel num_threads(parts) default(none) \
    shared(m, alpha, x, beta, y, parts, bounds, spills, rows)
    {
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) rows(m, bounds[p], bounds[p + 1], alpha, x, beta, y, spills[p]);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) add_spills<1>(spills, p, bounds[p], bounds[p + 1], y);
    }
}

// ---- columns anywhere ------------------------------------------------------------------------------------

/// The memory that an element leads to is asked for so many elements ahead.
constexpr std::int64_t far_ahead = 24;

/// The column of the element `far_ahead` of element k, from 0.
template <std::signed_integral Index>
std::int64_t column_ahead(crs_view<Index> m, std::int64_t k) {
    return std::int64_t{m.ja[std::min(k + far_ahead, std::ssize(m.ja) - 1)]} - 1;
}

/// Asks for B values, which need not lie in one cache line.
template <int B, int Write>
void prefetch_lanes(const double* at) {
    __builtin_prefetch(at, Write);
    if constexpr (8 % B != 0) __builtin_prefetch(at + B - 1, Write);
}

/// y = beta y + the sums over the elements of each row; x is packed unless B is 1.
template <int B, std::signed_integral Index>
void gather_far(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha, const double* x,
                double beta, matrix_view<double> y) {
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    for (std::int64_t i = from; i < to; ++i) {
        lanes<B> sum;
        for (std::int64_t k = m.ia[i] - 1, end = m.ia[i + 1] - 1; k < end; ++k) {
            prefetch_lanes<B, 0>(x + column_ahead(m, k) * B);
            sum.add(a[k], lanes<B>::load(x + (std::int64_t{ja[k]} - 1) * B));
        }
        double of_row[B];
        sum.times(alpha).store(of_row);
        for (std::int64_t j = 0; j < y.cols; ++j) {
            double& value = y.data[i + j * y.ld];
            value = beta == 0.0 ? of_row[j] : beta * value + of_row[j];
        }
    }
}

/// Adds what the rows scatter to sums, which are the part's own equations, and to its spill.
template <int B, std::signed_integral Index>
void scatter_far(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha,
                 matrix_view<const double> x, double* sums, spill& out) {
    const std::int64_t n = m.dim1;
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    spill beyond = out;
    const auto place = [&](std::int64_t c) {
        return c < to ? sums + c * B : beyond.sums + (c - beyond.first) * B;
    };
    for (std::int64_t i = from; i < to; ++i) {
        double of_row[B] = {};
        for (std::int64_t j = 0; j < x.cols; ++j) of_row[j] = alpha * x.data[i + j * x.ld];
        const lanes<B> xi = lanes<B>::load(of_row);
        for (std::int64_t k = m.ia[i] - 1, end = m.ia[i + 1] - 1; k < end; ++k) {
            prefetch_lanes<B, 1>(place(column_ahead(m, k)));
            const std::int64_t c = std::int64_t{ja[k]} - 1;
            if (c >= beyond.end) [[unlikely]]
                if (c >= to) beyond.reach<B>(c, n);
            if (c != i) xi.add_to(place(c), a[k]);
        }
    }
    out.end = beyond.end;
}

template <int B, std::signed_integral Index>
void multiply_far(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                  matrix_view<double> y, int parts) {
    constexpr bool packed = B > 1;
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
    spill_store store(bounds, m.dim1, B);
    std::vector<spill>& spills = store.spills;
    const std::unique_ptr<double[]> memory = raw_memory(packed ? std::int64_t{m.dim1} * B : 0);
    double* const copy = memory.get();
    const double* const source = packed ? copy : x.data;
    double* const target = packed ? copy : y.data;
#pragma omp parallel num_threads(parts) default(none) \
    shared(m, alpha, x, beta, y, parts, bounds, spills, copy, source, target)
    {
        if constexpr (packed) {
#pragma omp for schedule(static, 1)
            for (int p = 0; p < parts; ++p) pack_rows<B>(x, bounds[p], bounds[p + 1], copy);
        }
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) gather_far<B>(m, bounds[p], bounds[p + 1], alpha, source, beta, y);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) {
            if constexpr (packed) zero_rows<B>(target, bounds[p], bounds[p + 1]);
            scatter_far<B>(m, bounds[p], bounds[p + 1], alpha, x, target, spills[p]);
        }
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) {
            add_spills<B>(spills, p, bounds[p], bounds[p + 1], target);
            if constexpr (packed) unpack_rows<B>(target, 1.0, bounds[p], bounds[p + 1], y);
        }
    }
}

/// Whether nearly all elements are less than `reach` columns from the diagonal, from a sample of rows.
template <std::signed_integral Index>
bool lies_near_diagonal(crs_view<Index> m, std::int64_t reach) {
    constexpr std::int64_t sampled_rows = 512, sampled_elements = 16, most_far = 20;  // one in 20
    std::int64_t seen = 0, far = 0;
    for (std::int64_t r = 0; r < sampled_rows; ++r) {
        const std::int64_t i = even_bound(m.dim1, static_cast<int>(r), static_cast<int>(sampled_rows));
        const std::int64_t begin = m.ia[i] - 1, end = m.ia[i + 1] - 1;
        const std::int64_t step = (end - begin + sampled_elements - 1) / sampled_elements;
        for (std::int64_t k = begin; k < end; k += step) {
            ++seen;
            far += m.ja[k] - 1 >= i + reach ? 1 : 0;
        }
    }
    return far * most_far <= seen;
}

}  // namespace

template <int B, std::signed_integral Index>
void multiply_symmetric(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                        matrix_view<double> y, int parts) {
    if constexpr (B > 1) {
        if (lies_near_diagonal(m, ring_size / 2))
            multiply_near<B>(m, alpha, x, beta, y, parts);
        else
            multiply_far<B>(m, alpha, x, beta, y, parts);
    } else {
        // So many equations of x and y stay in the last cache, and in reach of the address translation.
        constexpr std::int64_t cached = 1 << 18;
        if (lies_near_diagonal(m, cached))
            multiply_one_vector(m, alpha, x.data, beta, y.data, parts);
        else
            multiply_far<1>(m, alpha, x, beta, y, parts);
    }
}

template <std::signed_integral Index>
using symmetric_product = void(crs_view<Index>, double, matrix_view<const double>, double,
                               matrix_view<double>, int);

template symmetric_product<std::int32_t> multiply_symmetric<1>;
template symmetric_product<std::int32_t> multiply_symmetric<2>;
template symmetric_product<std::int32_t> multiply_symmetric<4>;
template symmetric_product<std::int32_t> multiply_symmetric<6>;
template symmetric_product<std::int32_t> multiply_symmetric<8>;
template symmetric_product<std::int32_t> multiply_symmetric<10>;
template symmetric_product<std::int64_t> multiply_symmetric<1>;
template symmetric_product<std::int64_t> multiply_symmetric<2>;
template symmetric_product<std::int64_t> multiply_symmetric<4>;
template symmetric_product<std::int64_t> multiply_symmetric<6>;
template symmetric_product<std::int64_t> multiply_symmetric<8>;
template symmetric_product<std::int64_t> multiply_symmetric<10>;

}  // namespace zendar::crs_mult
