#include "modsparse_crs_mult_spill.hpp"

// One column, elements anywhere in long vectors. All rows are gathered before they are scattered: to read the
// matrix twice costs little beside the places that it leads to, and cache and address translation serve one
// vector at a time instead of two. What is asked for ahead is the matrix: with enough elements at hand the
// processor reaches for many of their places at once.

namespace zendar::crs_mult {

namespace {

/// What a row counts beside its elements: nothing, as the elements' places are what the time goes to.
constexpr std::int64_t row_cost = 0;

/// One share of the sums of each spill.
void zero_spills(std::vector<spill>& spills, int part, int parts) {
    for (const spill& s : spills) {
        const std::int64_t n = s.end - s.first;
        zero_rows<1>(s.sums, even_bound(n, part, parts), even_bound(n, part + 1, parts));
    }
}

/// y = beta y + the sums over the elements of each row. Returns the last column.
template <int Lines, std::signed_integral Index>
std::int64_t gather(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha, const double* x,
                    double beta, double* y) {
    std::int64_t last = 0;
    for_chunks(from, to, [&](std::int64_t begin, std::int64_t stop) {
        gather_vector<Lines>(m, begin, stop, alpha, x, beta, y);
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
        for (int p = 0; p < parts; ++p) zero_spills(spills, p, parts);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) loops.scatter(m, bounds[p], bounds[p + 1], alpha, x, y, spills[p]);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            add_spills(spills, parts, even_bound(n, p, parts), even_bound(n, p + 1, parts), y);
    }
}

template void multiply_one_vector_far(crs_view<std::int32_t>, double, const double*, double, double*, int);
template void multiply_one_vector_far(crs_view<std::int64_t>, double, const double*, double, double*, int);

}  // namespace zendar::crs_mult
