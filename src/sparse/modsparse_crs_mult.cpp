#include "modsparse_crs_mult.hpp"

#include <omp.h>

#include <cassert>

#include "modsparse_crs_mult_rows.hpp"
#include "modsparse_crs_mult_spread.hpp"

namespace zendar {

namespace crs_mult {

template <std::signed_integral Index>
std::vector<std::int64_t> row_bounds(crs_view<Index> m, int parts, std::int64_t row_cost) {
    const auto work = [&](std::int64_t row) { return std::int64_t{m.ia[row]} - 1 + row_cost * row; };
    std::vector<std::int64_t> bounds(static_cast<std::size_t>(parts) + 1, m.dim1);
    bounds[0] = 0;
    for (int p = 1; p < parts; ++p) {
        const std::int64_t target = even_bound(work(m.dim1), p, parts);
        std::int64_t low = bounds[p - 1], high = m.dim1;
        while (low < high) {
            const std::int64_t middle = (low + high) / 2;
            if (work(middle) < target)
                low = middle + 1;
            else
                high = middle;
        }
        bounds[p] = low;
    }
    return bounds;
}

template std::vector<std::int64_t> row_bounds(crs_view<std::int32_t>, int, std::int64_t);
template std::vector<std::int64_t> row_bounds(crs_view<std::int64_t>, int, std::int64_t);

namespace {

template <std::signed_integral Index>
void multiply_one_vector_plain(crs_view<Index> m, double alpha, const double* x, double beta, double* y,
                               int parts) {
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
    with_lines_of_row(m, [&]<int Lines>() {
#pragma omp parallel for num_threads(parts) schedule(static, 1) default(none) \
    shared(m, alpha, x, beta, y, parts, bounds)
        for (int p = 0; p < parts; ++p)
            gather_vector<Lines>(m, bounds[p], bounds[p + 1], alpha, x, beta, y);
    });
}

/// Several columns near the diagonal, where x stays in the cache. It is asked for `front` equations ahead.
template <int B, std::signed_integral Index>
void gather_columns(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha,
                    matrix_view<const double> x, double beta, matrix_view<double> y, std::int64_t front) {
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    const elements_ahead<Index, 3> ahead(m);
    std::int64_t column[B];  // that are not there repeat the last
    for (std::int64_t b = 0; b < B; ++b) column[b] = std::min(b, x.cols - 1) * x.ld;
    for (std::int64_t begin = from; begin < to; begin += line) {
        const std::int64_t stop = std::min(begin + line, to);
        ask_columns<B, 0>(x, begin + front);
        ask_columns<B, 1>(y, begin + front);
        ahead.ask_for(m.ia[begin] - 1, m.ia[stop] - 1);
        for (std::int64_t i = begin; i < stop; ++i) {
            double sum[B] = {};
            for (std::int64_t k = m.ia[i] - 1, end = m.ia[i + 1] - 1; k < end; ++k) {
                const double* const xc = x.data + (std::int64_t{ja[k]} - 1);
                for (int b = 0; b < B; ++b) sum[b] += a[k] * xc[column[b]];
            }
            for (std::int64_t j = 0; j < y.cols; ++j) {
                double& value = y.data[i + j * y.ld];
                value = beta == 0.0 ? alpha * sum[j] : alpha * sum[j] + beta * value;
            }
        }
    }
}

template <int B, std::signed_integral Index>
void multiply_plain_near(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                         matrix_view<double> y, std::int64_t front, int parts) {
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
#pragma omp parallel for num_threads(parts) schedule(static, 1) default(none) \
    shared(m, alpha, x, beta, y, front, parts, bounds)
    for (int p = 0; p < parts; ++p) gather_columns<B>(m, bounds[p], bounds[p + 1], alpha, x, beta, y, front);
}

/// Several columns, of which there is a row-major copy.
template <int B, std::signed_integral Index>
void multiply_plain(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                    matrix_view<double> y, int parts) {
    constexpr std::int64_t near = 1 << 10, margin = 64;
    if (const std::int64_t reach = m.dim1 <= near ? 0 : spread(m).reach(); reach <= near)
        return multiply_plain_near<B>(m, alpha, x, beta, y, reach + margin, parts);
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
    const std::int64_t n = m.dim2;
    const std::unique_ptr<double[]> memory = raw_memory(n * B + line);
    double* const copy = to_line(memory.get());
#pragma omp parallel num_threads(parts) default(none) shared(m, n, alpha, x, beta, y, parts, bounds, copy)
    {
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            copy_rows<B>(x, even_bound(n, p, parts), even_bound(n, p + 1, parts), copy);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            for_chunks(bounds[p], bounds[p + 1], [&](std::int64_t from, std::int64_t to) {
                double sums[chunk * B];
                gather_rows<B>(m, from, to, alpha, copy, sums);
                add_to_columns<B>(sums, from, to, beta, y);
            });
    }
}

/// What the rows of a part have scattered: sums for the columns [begin, end), which grows both ways.
struct window {
    double* sums = nullptr;  // of column 0
    std::int64_t begin = 0, end = 0;

    template <int B>
    void reach(std::int64_t column, std::int64_t columns) {
        constexpr std::int64_t step = 512;
        if (begin == end) begin = end = column;
        if (column < begin) {
            const std::int64_t to = std::max<std::int64_t>(column - step, 0);
            zero_rows<B>(sums, to, begin);
            begin = to;
        } else if (column >= end) {
            const std::int64_t to = std::min(column + step, columns);
            zero_rows<B>(sums, end, to);
            end = to;
        }
    }
};

/// Adds what the rows of a part scatter. Of several columns, the sums of an element are asked for ahead.
template <int B, std::signed_integral Index>
void scatter_rows(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha,
                  matrix_view<const double> x, window& sums) {
    window w = sums;
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    const std::int64_t elements = std::ssize(m.ja);
    const elements_ahead<Index, 2> ahead(m);
    double of_rows[chunk * B] = {};
    for_chunks(from, to, [&](std::int64_t begin, std::int64_t stop) {
        ahead.ask_for(m.ia[begin] - 1, m.ia[stop] - 1);
        if constexpr (B > 1) into_rows<B>(x, begin, stop, of_rows);
        for (std::int64_t i = begin; i < stop; ++i) {
            const double* const xi = B == 1 ? x.data + i : of_rows + (i - begin) * B;
            for (std::int64_t k = m.ia[i] - 1, end = m.ia[i + 1] - 1; k < end; ++k) {
                const std::int64_t c = std::int64_t{ja[k]} - 1;
                if (c < w.begin || c >= w.end) [[unlikely]]
                    w.reach<B>(c, m.dim2);
                const double v = alpha * a[k];
                if constexpr (B == 1) {
                    w.sums[c] += v * *xi;
                } else {
                    const std::int64_t later = std::min(k + places_ahead, elements - 1);
                    ask_for_row<B, 1>(w.sums + (std::int64_t{ja[later]} - 1) * B);
                    lanes<B>::load(xi).add_to(w.sums + c * B, v);
                }
            }
        }
    });
    sums = w;
}

/// y = beta y + the windows in their order, for the columns [from, to) of the matrix.
template <int B>
void add_windows(const std::vector<window>& windows, double beta, std::int64_t from, std::int64_t to,
                 matrix_view<double> y) {
    for_chunks(from, to, [&](std::int64_t begin, std::int64_t stop) {
        double sums[chunk * B] = {};
        for (const window& w : windows)
            for (std::int64_t k = std::max(begin, w.begin) * B; k < std::min(stop, w.end) * B; ++k)
                sums[k - begin * B] += w.sums[k];
        if constexpr (B == 1)
            for (std::int64_t c = begin; c < stop; ++c)
                y.data[c] = beta == 0.0 ? sums[c - begin] : beta * y.data[c] + sums[c - begin];
        else
            add_to_columns<B>(sums, begin, stop, beta, y);
    });
}

template <int B, std::signed_integral Index>
void multiply_transposed(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                         matrix_view<double> y, int parts) {
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
    const std::int64_t columns = m.dim2;
    const std::unique_ptr<double[]> memory = raw_memory(columns * B * parts);
    std::vector<window> windows(static_cast<std::size_t>(parts));
    for (int p = 0; p < parts; ++p) windows[p].sums = memory.get() + columns * B * p;
#pragma omp parallel num_threads(parts) default(none) \
    shared(m, alpha, x, beta, y, parts, bounds, columns, windows)
    {
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            scatter_rows<B>(m, bounds[p], bounds[p + 1], alpha, x, windows[p]);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            add_windows<B>(windows, beta, even_bound(columns, p, parts), even_bound(columns, p + 1, parts),
                           y);
    }
}

template <int B, std::signed_integral Index>
void multiply(crs_view<Index> m, storage s, bool transposed, double alpha, matrix_view<const double> x,
              double beta, matrix_view<double> y, int parts) {
    if (s == storage::symmetric_upper)
        multiply_symmetric<B>(m, alpha, x, beta, y, parts);
    else if (transposed)
        multiply_transposed<B>(m, alpha, x, beta, y, parts);
    else if constexpr (B == 1)
        multiply_one_vector_plain(m, alpha, x.data, beta, y.data, parts);
    else
        multiply_plain<B>(m, alpha, x, beta, y, parts);
}

/// Threads that are worth their start.
template <std::signed_integral Index>
int number_of_parts(crs_view<Index> m, std::int64_t columns) {
    constexpr std::int64_t least_work = 4096;
    if (omp_in_parallel() != 0) return 1;
    const std::int64_t work = (std::ssize(m.a) + m.dim1 + m.dim2) * std::min<std::int64_t>(columns, widest);
    return static_cast<int>(std::clamp<std::int64_t>(work / least_work, 1, omp_get_max_threads()));
}

}  // namespace

}  // namespace crs_mult

template <std::signed_integral Index>
void crs_multiply(crs_view<Index> m, storage s, bool transposed, double alpha, matrix_view<const double> x,
                  double beta, matrix_view<double> y) {
    assert(std::ssize(m.ia) == m.dim1 + 1 && m.ja.size() == m.a.size());
    assert(s != storage::symmetric_upper || m.dim1 == m.dim2);
    assert(x.cols == y.cols && x.rows == (transposed ? m.dim1 : m.dim2) &&
           y.rows == (transposed ? m.dim2 : m.dim1));
    if (y.rows == 0 || y.cols == 0) return;

    // As few passes as the widest block allows, all about equally wide.
    const int parts = crs_mult::number_of_parts(m, x.cols);
    const std::int64_t passes = (x.cols + crs_mult::widest - 1) / crs_mult::widest;
    for (std::int64_t pass = 0; pass < passes; ++pass) {
        const std::int64_t first = x.cols * pass / passes, width = x.cols * (pass + 1) / passes - first;
        const matrix_view<const double> xb{x.data + first * x.ld, x.rows, width, x.ld};
        const matrix_view<double> yb{y.data + first * y.ld, y.rows, width, y.ld};
        switch ((width + 1) / 2) {
            case 1:
                if (width == 1)
                    crs_mult::multiply<1>(m, s, transposed, alpha, xb, beta, yb, parts);
                else
                    crs_mult::multiply<2>(m, s, transposed, alpha, xb, beta, yb, parts);
                break;
            case 2: crs_mult::multiply<4>(m, s, transposed, alpha, xb, beta, yb, parts); break;
            case 3: crs_mult::multiply<6>(m, s, transposed, alpha, xb, beta, yb, parts); break;
            case 4: crs_mult::multiply<8>(m, s, transposed, alpha, xb, beta, yb, parts); break;
            default: crs_mult::multiply<10>(m, s, transposed, alpha, xb, beta, yb, parts); break;
        }
    }
}

template void crs_multiply(crs_view<std::int32_t>, storage, bool, double, matrix_view<const double>, double,
                           matrix_view<double>);
template void crs_multiply(crs_view<std::int64_t>, storage, bool, double, matrix_view<const double>, double,
                           matrix_view<double>);

}  // namespace zendar
