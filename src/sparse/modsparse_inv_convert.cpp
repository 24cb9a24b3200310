#include <omp.h>

#include <algorithm>
#include <atomic>
#include <tuple>
#include <utility>

#include "modsparse_inv.hpp"

namespace zendar::modsparse_inv {

namespace {

/// For each row of each supernode, the first column in which the factor has an element: from there on, up to
/// the last column (or the diagonal), all have one, as the columns of a supernode are one path of the tree.
std::vector<std::int32_t> first_columns(const supernodal_structure& s) {
    const std::int32_t nsuper = s.nsuper();
    std::vector<std::int32_t> first(s.lindx.size()), seen(nsuper, -1);
    std::vector<std::int64_t> next(nsuper), at(nsuper);
    for (std::int32_t k = 0; k < nsuper; ++k) next[k] = s.xlindx[k] + s.columns(k);
    for (std::int32_t i = 0; i < s.n; ++i) {
        const std::int32_t own = s.snode[i];
        seen[own] = i;
        at[own] = s.xlindx[own] + (i - s.nodes.xsuper[own]);
        first[at[own]] = i;
        for (std::int64_t e = s.xrow[i]; e < s.xrow[i + 1]; ++e)
            for (std::int32_t column = s.rowcol[e];;) {
                const std::int32_t k = s.snode[column];
                if (seen[k] == i) {
                    first[at[k]] = std::min(first[at[k]], column);
                    break;
                }
                seen[k] = i;
                at[k] = next[k]++;
                first[at[k]] = column;
                column = s.parent[s.nodes.xsuper[k + 1] - 1];
            }
    }
    return first;
}

/// Calls visit(column, row, value) for the elements of the factor's pattern in supernode k, column by column.
template <class Visit>
void visit_elements(const supernodal_structure& s, const supernodal_factor& f,
                    std::span<const std::int32_t> first, std::int32_t k, const Visit& visit) {
    const auto rows = s.rows_of(k);
    const std::int32_t nr = s.rows(k);
    const std::int32_t* const from = first.data() + s.xlindx[k];
    const double* value = f.lnz.get() + s.xlnz[k];
    for (std::int32_t c = 0; c < s.columns(k); ++c, value += nr) {
        const std::int32_t j = rows[c];
        for (std::int32_t i = c; i < nr; ++i)
            if (from[i] <= j) visit(j, rows[i], value[i]);
    }
}

/// Row pointers from the number of elements of each row.
template <std::signed_integral Index>
void set_pointers(std::span<Index> ia, std::span<const std::int64_t> count) {
    std::int64_t sum = 1;
    for (std::size_t i = 0; i < count.size(); ++i) {
        ia[i] = static_cast<Index>(sum);
        sum += count[i];
    }
    ia[count.size()] = static_cast<Index>(sum);
}

}  // namespace

template <std::signed_integral Index>
void convertfactortoija(const supernodal_structure& s, const supernodal_factor& f, factor_form form,
                        std::span<Index> ia, std::span<std::int32_t> ja, std::span<double> a,
                        std::span<double> d) {
    std::vector<std::int64_t> count(s.n);
    for (std::int32_t j = 0; j < s.n; ++j) count[s.place[j]] = s.colcount[j];
    set_pointers(ia, std::span<const std::int64_t>(count));
    const std::vector<std::int32_t> first = first_columns(s);
    const std::int32_t nsuper = s.nsuper();
#pragma omp parallel for schedule(dynamic, 16) default(none) shared(s, f, form, ia, ja, a, d, first, nsuper)
    for (std::int32_t k = 0; k < nsuper; ++k) {
        std::int64_t at = 0;
        double scale = 1.0;
        visit_elements(s, f, first, k, [&](std::int32_t j, std::int32_t i, double value) {
            if (i == j) {
                at = std::int64_t{ia[s.place[j]]} - 1;
                if (form == factor_form::ldlt) {
                    const bool dropped = !f.dropped.empty() && f.dropped[j] != 0;
                    d[s.place[j]] = dropped ? 0.0 : value * value;
                    scale = 1.0 / std::exchange(value, 1.0);
                }
            } else {
                value *= scale;
            }
            ja[at] = s.place[i] + 1;
            a[at++] = value;
        });
    }
}

template <std::signed_integral Index>
void converttoija_noperm(const supernodal_structure& s, const permuted_matrix& m, std::span<Index> ia,
                         std::span<std::int32_t> ja, std::span<double> a) {
    std::vector<std::int64_t> count(s.n);
    for (std::int32_t j = 0; j < s.n; ++j) count[s.place[j]] = 1 + m.xcol[j + 1] - m.xcol[j];
    set_pointers(ia, std::span<const std::int64_t>(count));
#pragma omp parallel for schedule(static) default(none) shared(s, m, ia, ja, a)
    for (std::int32_t j = 0; j < s.n; ++j) {
        std::int64_t at = std::int64_t{ia[s.place[j]]} - 1;
        ja[at] = s.place[j] + 1;
        a[at++] = m.diag[j];
        for (std::int64_t e = m.xcol[j]; e < m.xcol[j + 1]; ++e) {
            ja[at] = s.place[m.row[e]] + 1;
            a[at++] = m.value[e];
        }
    }
}

template <std::signed_integral Index>
void converttoija(const supernodal_structure& s, const supernodal_factor& f, std::span<Index> ia,
                  std::span<std::int32_t> ja, std::span<double> a) {
    const std::vector<std::int32_t> first = first_columns(s);
    const std::int32_t n = s.n, nsuper = s.nsuper();
    std::vector<std::int64_t> next(n, 0);
#pragma omp parallel for schedule(dynamic, 16) default(none) shared(s, f, first, next, nsuper)
    for (std::int32_t k = 0; k < nsuper; ++k)
        visit_elements(s, f, first, k, [&](std::int32_t j, std::int32_t i, double) {
            const std::int32_t row = std::min(s.equation[j], s.equation[i]);
            std::atomic_ref(next[row]).fetch_add(1, std::memory_order_relaxed);
        });
    const std::int64_t longest = n == 0 ? 0 : *std::ranges::max_element(next);
    set_pointers(ia, std::span<const std::int64_t>(next));
    for (std::int32_t i = 0; i < n; ++i) next[i] = std::int64_t{ia[i]} - 1;
#pragma omp parallel for schedule(dynamic, 16) default(none) shared(s, f, first, next, nsuper, ja, a)
    for (std::int32_t k = 0; k < nsuper; ++k)
        visit_elements(s, f, first, k, [&](std::int32_t j, std::int32_t i, double value) {
            const auto [row, column] = std::minmax(s.equation[j], s.equation[i]);
            const std::int64_t at = std::atomic_ref(next[row]).fetch_add(1, std::memory_order_relaxed);
            ja[at] = column + 1;
            a[at] = value;
        });

    using element = std::pair<std::int32_t, double>;
    std::vector<std::vector<element>> work(omp_get_max_threads(), std::vector<element>(longest));
#pragma omp parallel for schedule(dynamic, 256) default(none) shared(ia, ja, a, work, n)
    for (std::int32_t i = 0; i < n; ++i) {
        const std::int64_t begin = std::int64_t{ia[i]} - 1, end = std::int64_t{ia[i + 1]} - 1;
        if (std::is_sorted(ja.begin() + begin, ja.begin() + end)) continue;
        const auto row = work[omp_get_thread_num()].begin();
        for (std::int64_t e = begin; e < end; ++e) row[e - begin] = {ja[e], a[e]};
        std::sort(row, row + (end - begin),
                  [](const element& x, const element& y) { return x.first < y.first; });
        for (std::int64_t e = begin; e < end; ++e) std::tie(ja[e], a[e]) = row[e - begin];
    }
}

template <std::signed_integral Index>
void converttoija_pattern(const supernodal_structure& s, const supernodal_factor& f,
                          std::span<const Index> ia, std::span<const std::int32_t> ja, std::span<double> a) {
#pragma omp parallel for schedule(dynamic, 256) default(none) shared(s, f, ia, ja, a)
    for (std::int32_t r = 0; r < s.n; ++r)
        for (std::int64_t e = std::int64_t{ia[r]} - 1; e < std::int64_t{ia[r + 1]} - 1; ++e) {
            const auto [j, i] = std::minmax(s.iequation[r], s.iequation[ja[e] - 1]);
            const std::int32_t k = s.snode[j];
            const auto rows = s.rows_of(k);
            const std::int64_t at = std::lower_bound(rows.begin(), rows.end(), i) - rows.begin();
            a[e] = f.lnz[s.xlnz[k] + at + std::int64_t{j - s.nodes.xsuper[k]} * s.rows(k)];
        }
}

template void convertfactortoija(const supernodal_structure&, const supernodal_factor&, factor_form,
                                 std::span<std::int32_t>, std::span<std::int32_t>, std::span<double>,
                                 std::span<double>);
template void convertfactortoija(const supernodal_structure&, const supernodal_factor&, factor_form,
                                 std::span<std::int64_t>, std::span<std::int32_t>, std::span<double>,
                                 std::span<double>);
template void converttoija_noperm(const supernodal_structure&, const permuted_matrix&,
                                  std::span<std::int32_t>, std::span<std::int32_t>, std::span<double>);
template void converttoija_noperm(const supernodal_structure&, const permuted_matrix&,
                                  std::span<std::int64_t>, std::span<std::int32_t>, std::span<double>);
template void converttoija(const supernodal_structure&, const supernodal_factor&, std::span<std::int32_t>,
                           std::span<std::int32_t>, std::span<double>);
template void converttoija(const supernodal_structure&, const supernodal_factor&, std::span<std::int64_t>,
                           std::span<std::int32_t>, std::span<double>);
template void converttoija_pattern(const supernodal_structure&, const supernodal_factor&,
                                   std::span<const std::int32_t>, std::span<const std::int32_t>,
                                   std::span<double>);
template void converttoija_pattern(const supernodal_structure&, const supernodal_factor&,
                                   std::span<const std::int64_t>, std::span<const std::int32_t>,
                                   std::span<double>);

}  // namespace zendar::modsparse_inv
