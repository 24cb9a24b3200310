#include "modsparse_crs_mult_rows.hpp"

// Columns anywhere in long vectors. All rows are gathered before they are scattered: to read the matrix twice
// costs little beside the places that it leads to, and cache and address translation serve one vector at a
// time instead of two. Of one column, what is asked for ahead is the matrix: with enough elements at hand the
// processor reaches for many of their places at once. Of several columns there is a row-major copy, of x and
// then of what is scattered, so that an element costs one place in memory and not one per column; here it is
// the places that are asked for.

namespace zendar::crs_mult {

namespace {

/// Rows that are taken together, and what a row counts beside its elements: nothing, as the elements' places
/// are what the time goes to.
constexpr std::int64_t chunk = 16, row_cost = 0;

/// Calls work(from, to) for the chunks of [from, to).
void for_chunks(std::int64_t from, std::int64_t to, auto&& work) {
    for (std::int64_t i = from; i < to; i += chunk) work(i, std::min(i + chunk, to));
}

/// One share of the sums of each spill.
template <int B>
void zero_spills(std::vector<spill>& spills, int part, int parts) {
    for (const spill& s : spills) {
        const std::int64_t n = s.end - s.first;
        zero_rows<B>(s.sums, even_bound(n, part, parts), even_bound(n, part + 1, parts));
    }
}

// ---- one column ------------------------------------------------------------------------------------------

/// y = beta y + the sums over the elements of each row. Returns the last column.
template <int Lines, std::signed_integral Index>
std::int64_t gather(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha, const double* x,
                    double beta, double* y) {
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    const elements_ahead<Index, 2, Lines> ahead(m);
    std::int64_t last = 0;
    for_chunks(from, to, [&](std::int64_t begin, std::int64_t stop) {
        for (std::int64_t i = begin; i < stop; ++i) {
            double sum = 0.0;
            std::int64_t k = m.ia[i] - 1;
            const std::int64_t end = m.ia[i + 1] - 1;
            ahead.ask_for(k, end);
            for (; k < end; ++k) sum += a[k] * x[std::int64_t{ja[k]} - 1];
            y[i] = beta == 0.0 ? alpha * sum : beta * y[i] + alpha * sum;
        }
        last = std::max(last, last_column(m, begin, stop));
    });
    return last;
}

/// Adds what the rows scatter to y and to the part's spill.
template <int Lines, std::signed_integral Index>
void scatter(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha, const double* x, double* y,
             const spill& out) {
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    const elements_ahead<Index, 2, Lines> ahead(m);
    for (std::int64_t i = from; i < to; ++i) {
        const double xi = alpha * x[i];
        std::int64_t k = m.ia[i] - 1;
        const std::int64_t end = m.ia[i + 1] - 1;
        ahead.ask_for(k, end);
        for (; k < end; ++k) {
            const std::int64_t c = std::int64_t{ja[k]} - 1;
            double* const base = c < to ? y : out.sums;
            if (c != i) base[c < to ? c : c - out.first] += a[k] * xi;
        }
    }
}

template <std::signed_integral Index>
struct vector_loops {
    std::int64_t (*gather)(crs_view<Index>, std::int64_t, std::int64_t, double, const double*, double,
                           double*);
    void (*scatter)(crs_view<Index>, std::int64_t, std::int64_t, double, const double*, double*,
                    const spill&);
};

// ---- several columns -------------------------------------------------------------------------------------

/// The memory that an element leads to is asked for so many elements ahead.
constexpr std::int64_t far_ahead = 128;

/// Asks for B values, which need not lie in one cache line.
template <int B, int Write>
void ask_for_row(const double* at) {
    __builtin_prefetch(at, Write, 2);
    if constexpr (line % B != 0) __builtin_prefetch(at + B - 1, Write, 2);
}

/// As for one column; x stands in rows.
template <int B, std::signed_integral Index>
std::int64_t gather_rows(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha, const double* x,
                         double beta, matrix_view<double> y) {
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    const std::int64_t elements = std::ssize(m.ja);
    double of_rows[chunk * B];
    std::int64_t last = 0;
    const elements_ahead<Index, 2> ahead(m);
    for_chunks(from, to, [&](std::int64_t begin, std::int64_t stop) {
        ahead.ask_for(m.ia[begin] - 1, m.ia[stop] - 1);
        for (std::int64_t i = begin; i < stop; ++i) {
            lanes<B> sum;  // pairs: fours would lie across two cache lines more often
            for (std::int64_t k = m.ia[i] - 1, end = m.ia[i + 1] - 1; k < end; ++k) {
                ask_for_row<B, 0>(x + (std::int64_t{ja[std::min(k + far_ahead, elements - 1)]} - 1) * B);
                sum.add(a[k], lanes<B>::load(x + (std::int64_t{ja[k]} - 1) * B));
            }
            sum.times(alpha).store(of_rows + (i - begin) * B);
        }
        add_to_columns<B>(of_rows, begin, stop, beta, y);
        last = std::max(last, last_column(m, begin, stop));
    });
    return last;
}

/// As for one column; the sums of the part's own equations stand in rows like the spill.
template <int B, std::signed_integral Index>
void scatter_rows(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha,
                  matrix_view<const double> x, double* sums, const spill& out) {
    const auto place = [&](std::int64_t c) { return c < to ? sums + c * B : out.sums + (c - out.first) * B; };
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    const std::int64_t elements = std::ssize(m.ja);
    double of_rows[chunk * B] = {};
    const elements_ahead<Index, 2> ahead(m);
    for_chunks(from, to, [&](std::int64_t begin, std::int64_t stop) {
        ahead.ask_for(m.ia[begin] - 1, m.ia[stop] - 1);
        into_rows<B>(x, begin, stop, of_rows);
        for (std::int64_t i = begin; i < stop; ++i) {
            const lanes<B> xi = lanes<B>::load(of_rows + (i - begin) * B).times(alpha);
            for (std::int64_t k = m.ia[i] - 1, end = m.ia[i + 1] - 1; k < end; ++k) {
                ask_for_row<B, 1>(place(std::int64_t{ja[std::min(k + far_ahead, elements - 1)]} - 1));
                const std::int64_t c = std::int64_t{ja[k]} - 1;
                if (c != i) xi.add_to(place(c), a[k]);
            }
        }
    });
}

/// y += sums + the spills, which the sums take up.
template <int B>
void add_rows(double* sums, const std::vector<spill>& spills, std::int64_t from, std::int64_t to,
              matrix_view<double> y) {
    for_chunks(from, to, [&](std::int64_t begin, std::int64_t stop) {
        add_spills<B>(spills, static_cast<int>(spills.size()), begin, stop, sums);
        add_to_columns<B>(sums + begin * B, begin, stop, 1.0, y);
    });
}

}  // namespace

template <std::signed_integral Index>
void multiply_one_vector_far(crs_view<Index> m, double alpha, const double* x, double beta, double* y,
                             int parts) {
    const std::int64_t n = m.dim1;
    const std::vector<std::int64_t> bounds = row_bounds(m, parts, row_cost);
    spill_store store(bounds, n, 1);
    std::vector<spill>& spills = store.spills;
    const auto loops = with_lines_of_row(m, []<int Lines>() {
        return vector_loops<Index>{gather<Lines, Index>, scatter<Lines, Index>};
    });
#pragma omp parallel num_threads(parts) default(none) \
    shared(m, n, alpha, x, beta, y, parts, bounds, spills, loops)
    {
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            spills[p].reach_to(loops.gather(m, bounds[p], bounds[p + 1], alpha, x, beta, y));
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) zero_spills<1>(spills, p, parts);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) loops.scatter(m, bounds[p], bounds[p + 1], alpha, x, y, spills[p]);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            add_spills<1>(spills, parts, even_bound(n, p, parts), even_bound(n, p + 1, parts), y);
    }
}

template <int B, std::signed_integral Index>
void multiply_far(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                  matrix_view<double> y, int parts) {
    const std::int64_t n = m.dim1;
    const std::vector<std::int64_t> bounds = row_bounds(m, parts, row_cost);
    spill_store store(bounds, n, B);
    std::vector<spill>& spills = store.spills;
    const std::unique_ptr<double[]> memory = raw_memory(n * B + line);
    double* const copy = to_line(memory.get());
#pragma omp parallel num_threads(parts) default(none) \
    shared(m, n, alpha, x, beta, y, parts, bounds, spills, copy)
    {
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            for_chunks(even_bound(n, p, parts), even_bound(n, p + 1, parts),
                       [&](std::int64_t from, std::int64_t to) {
                           if (x.cols < B) zero_rows<B>(copy, from, to);
                           into_rows<B>(x, from, to, copy + from * B);
                       });
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            spills[p].reach_to(gather_rows<B>(m, bounds[p], bounds[p + 1], alpha, copy, beta, y));
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) {
            zero_rows<B>(copy, even_bound(n, p, parts), even_bound(n, p + 1, parts));
            zero_spills<B>(spills, p, parts);
        }
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            scatter_rows<B>(m, bounds[p], bounds[p + 1], alpha, x, copy, spills[p]);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            add_rows<B>(copy, spills, even_bound(n, p, parts), even_bound(n, p + 1, parts), y);
    }
}

template void multiply_one_vector_far(crs_view<std::int32_t>, double, const double*, double, double*, int);
template void multiply_one_vector_far(crs_view<std::int64_t>, double, const double*, double, double*, int);

template <std::signed_integral Index>
using far_product = void(crs_view<Index>, double, matrix_view<const double>, double, matrix_view<double>,
                         int);

template far_product<std::int32_t> multiply_far<2>;
template far_product<std::int64_t> multiply_far<2>;
template far_product<std::int32_t> multiply_far<4>;
template far_product<std::int64_t> multiply_far<4>;
template far_product<std::int32_t> multiply_far<6>;
template far_product<std::int64_t> multiply_far<6>;
template far_product<std::int32_t> multiply_far<8>;
template far_product<std::int64_t> multiply_far<8>;
template far_product<std::int32_t> multiply_far<10>;
template far_product<std::int64_t> multiply_far<10>;

}  // namespace zendar::crs_mult
