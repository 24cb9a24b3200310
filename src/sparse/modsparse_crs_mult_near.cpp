#include "modsparse_crs_mult_spill.hpp"

// One column near the diagonal. An element is gathered and scattered at once: what it leads to is in the
// cache.

namespace zendar::crs_mult {

namespace {

/// What the loops over rows have in common.
template <std::signed_integral Index>
struct product {
    crs_view<Index> m;
    double alpha;
    const double* x;
    double* y;
    std::int64_t front;  // equations before a row x and y are asked for
};

/// Rows [from, to) of a part, their columns in order and the first with an element, up to the first that
/// reaches beyond the part, which it returns. Only the last column of a row is looked at: looking at all
/// would be a third of the time.
template <class Ahead, std::signed_integral Index>
[[gnu::always_inline]] inline std::int64_t rows_within(const product<Index>& p, std::int64_t from,
                                                       std::int64_t to) {
    const Index* const ia = p.m.ia.data();
    const Index* const ja = p.m.ja.data();
    const double* const a = p.m.a.data();
    const double* const x = p.x;
    double* const y = p.y;
    const double alpha = p.alpha;
    const std::int64_t front = p.front;
    const Ahead ahead(p.m);
    std::int64_t k = ia[from] - 1;
    for (std::int64_t i = from; i < to; ++i) {
        const double xi = alpha * x[i];
        double sum = 0.0;
        const std::int64_t end = ia[i + 1] - 1;
        if (ja[end - 1] > to) [[unlikely]]  // the last one before an empty row does no harm
            return i;
        ahead.ask_for(k, end);
        ask<3>(x, i + front);
        ask<3, 1>(y, i + front);
        const auto take = [&](std::int64_t e) {
            const std::int64_t c = std::int64_t{ja[e]} - 1;
            sum += a[e] * x[c];
            y[c] += a[e] * xi;
        };
        if (k < end && ja[k] - 1 == i) sum = a[k++] * x[i];
        if ((end - k) % 2 != 0) take(k++);
        for (; k < end; k += 2) take(k), take(k + 1);
        y[i] += alpha * sum;
    }
    return to;
}

/// Any rows of the part. Where an element goes is selected, not branched on.
template <class Ahead, std::signed_integral Index>
[[gnu::always_inline]] inline void any_rows(const product<Index>& p, std::int64_t from, std::int64_t to,
                                            std::int64_t part_end, spill& out) {
    const crs_view<Index> m = p.m;
    const Ahead ahead(m);
    spill beyond = out;
    for (std::int64_t i = from; i < to; ++i) {
        const double xi = p.alpha * p.x[i];
        double sum = 0.0;
        std::int64_t k = m.ia[i] - 1;
        const std::int64_t end = m.ia[i + 1] - 1;
        ahead.ask_for(k, end);
        for (; k < end; ++k) {
            const std::int64_t c = std::int64_t{m.ja[k]} - 1;
            const double a = m.a[k];
            if (c >= beyond.end && c >= part_end) [[unlikely]]
                beyond.reach<1>(c, m.dim1);
            double* const base = c < part_end ? p.y : beyond.sums;
            const std::int64_t offset = c < part_end ? c : c - beyond.first;
            sum += a * p.x[c];
            if (c != i) base[offset] += a * xi;
        }
        p.y[i] += p.alpha * sum;
    }
    out.end = beyond.end;
}

/// The loops, each a function of its own: together they would not find enough registers.
template <std::signed_integral Index>
struct loops {
    std::int64_t (*within)(const product<Index>&, std::int64_t, std::int64_t);
    void (*any)(const product<Index>&, std::int64_t, std::int64_t, std::int64_t, spill&);
};

template <class Ahead, std::signed_integral Index>
loops<Index> loops_for_any_processor() {
    return {[](const product<Index>& p, std::int64_t from, std::int64_t to) {
                return rows_within<Ahead>(p, from, to);
            },
            [](const product<Index>& p, std::int64_t from, std::int64_t to, std::int64_t part_end,
               spill& out) { any_rows<Ahead>(p, from, to, part_end, out); }};
}
template <class Ahead, std::signed_integral Index>
ZENDAR_FMA std::int64_t rows_within_fma(const product<Index>& p, std::int64_t from, std::int64_t to) {
    return rows_within<Ahead>(p, from, to);
}
template <class Ahead, std::signed_integral Index>
ZENDAR_FMA void any_rows_fma(const product<Index>& p, std::int64_t from, std::int64_t to,
                             std::int64_t part_end, spill& out) {
    any_rows<Ahead>(p, from, to, part_end, out);
}
template <int Lines, std::signed_integral Index>
loops<Index> loops_of() {
    using ahead = elements_ahead<Index, 3, Lines>;
    if (has_fma()) return {rows_within_fma<ahead, Index>, any_rows_fma<ahead, Index>};
    return loops_for_any_processor<ahead, Index>();
}

/// y is made ready as a whole.
template <std::signed_integral Index>
void part_of_rows(const product<Index>& p, const loops<Index>& loop, std::int64_t from, std::int64_t to,
                  double beta, spill& out) {
    if (beta == 0.0)
        std::fill(p.y + from, p.y + to, 0.0);
    else if (beta != 1.0)
        for (std::int64_t i = from; i < to; ++i) p.y[i] *= beta;
    if (!p.m.sorted) return loop.any(p, from, to, to, out);
    // Where a row reaches beyond the part, the next ones are likely to do so.
    constexpr std::int64_t together = 64;
    std::int64_t i = from;
    while (i < to && p.m.ia[i + 1] == 1) ++i;  // nothing stands before the first element
    while ((i = loop.within(p, i, to)) < to) {
        const std::int64_t end = std::min(i + together, to);
        loop.any(p, i, end, to, out);
        i = end;
    }
}

}  // namespace

template <std::signed_integral Index>
void multiply_one_vector(crs_view<Index> m, double alpha, const double* x, double beta, double* y,
                         std::int64_t front, int parts) {
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
    spill_store store(bounds, m.dim1, 1);
    std::vector<spill>& spills = store.spills;
    const product<Index> p{m, alpha, x, y, front};
    const loops<Index> loop = with_lines_of_row(m, []<int Lines>() { return loops_of<Lines, Index>(); });
#pragma omp parallel num_threads(parts) default(none) shared(p, loop, beta, y, parts, bounds, spills)
    {
#pragma omp for schedule(static, 1)
        for (int t = 0; t < parts; ++t) part_of_rows(p, loop, bounds[t], bounds[t + 1], beta, spills[t]);
#pragma omp for schedule(static, 1)
        for (int t = 0; t < parts; ++t) add_spills(spills, t, bounds[t], bounds[t + 1], y);
    }
}

template void multiply_one_vector(crs_view<std::int32_t>, double, const double*, double, double*,
                                  std::int64_t, int);
template void multiply_one_vector(crs_view<std::int64_t>, double, const double*, double, double*,
                                  std::int64_t, int);

}  // namespace zendar::crs_mult
