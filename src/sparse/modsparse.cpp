#include "modsparse.hpp"

#include <algorithm>
#include <array>

#include "modsparse_detail.hpp"

namespace zendar {

namespace {

[[noreturn]] void fail(logger* unlog, const std::string& text) {
    if (unlog != nullptr) unlog->message(text);
    throw fatal_error(text);
}

constexpr const char* too_many =
    " ERROR: impossible conversion due to a too large number of non-zero elements";
constexpr const char* too_many_in_lists =
    " ERROR: impossible conversion due a too large number of non-zero elements";

/// A compressed-row matrix on the way: the reserved elements stand at the heads of their rows, the others are
/// put behind them.
struct row_builder {
    crssparse result;
    page_array<std::int32_t> next;  // where the next element of each row goes, from 0
    std::span<std::int32_t> ja;
    std::span<double> a;

    /// @param count  elements of each row without the reserved one; taken over.
    row_builder(const gen_sparse& source, page_array<std::int32_t> count, std::int64_t limit,
                const char* message)
        : next(std::move(count)) {
        const std::int32_t dim1 = source.getdim(1), dim2 = source.getdim(2);
        const detail::reserved_column reserved(source);
        const std::int32_t head = reserved.per_row;
        std::int64_t nel = std::int64_t{dim1} * head;
        for (const std::int32_t n : next.span()) nel += n;
        if (nel > limit) fail(source.getoutputunit(), message);

        result = crssparse(dim1, nel, dim2, source.isupperstorage(), source.getoutputunit());
        result.take_common(source);
        const std::span<std::int32_t> ia = crs_arrays::ia(result);
        ja = crs_arrays::ja(result);
        a = crs_arrays::a(result);
        ia[0] = 1;
        for (std::int32_t i = 0; i < dim1; ++i) {
            ia[i + 1] = ia[i] + next.data()[i] + head;
            if (head > 0) ja[ia[i] - 1] = reserved(i + 1);
            next.data()[i] = ia[i] - 1 + head;
        }
    }

    void put(std::int32_t row, std::int32_t col, double value, bool is_reserved) {
        const std::int32_t k = is_reserved ? crs_arrays::ia(result)[row - 1] - 1 : next.data()[row - 1]++;
        ja[k] = col;
        a[k] = value;
    }

    crssparse finish() {
        result.sort();
        return std::move(result);
    }
};

bool is_free(const coo_slot& slot) {
    return slot.row == 0 || slot.col == 0;
}

/// One row of a list, sorted by column, with sums for columns that stand there twice.
void gather_row(const llsparse& ll, std::int32_t row, std::vector<std::pair<std::int32_t, double>>& out) {
    out.clear();
    for (std::int64_t k = ll.row_list(row).head; k != llsparse::none; k = ll.at(k).next)
        out.emplace_back(ll.at(k).col, ll.at(k).value);
    std::ranges::stable_sort(out, {}, &std::pair<std::int32_t, double>::first);
    std::size_t kept = 0;
    for (std::size_t k = 0; k < out.size(); ++k) {
        if (kept > 0 && out[kept - 1].first == out[k].first)
            out[kept - 1].second += out[k].second;
        else
            out[kept++] = out[k];
    }
    out.resize(kept);
}

/// Slots for so many elements without growth.
std::int64_t slots_for(std::int64_t elements) {
    return elements + elements / 4 + 8;
}

template <std::signed_integral Index>
coosparse crs_to_coo(const crs_matrix<Index>& crs) {
    coosparse coo(crs.getdim(1), crs.getdim(2), slots_for(crs.totalnumberofelements()), crs.isupperstorage(),
                  crs.getoutputunit());
    coo.take_common(crs);
    const crs_view<Index> m = crs.view();
    constexpr std::int64_t block = 1024;
    std::array<std::int32_t, block> rows, cols;
    for (std::int32_t i = 1; i <= m.dim1; ++i) {
        rows.fill(i);
        const std::int64_t end = m.ia[i] - 1;
        for (std::int64_t k = m.ia[i - 1] - 1; k < end; k += block) {
            const std::int64_t n = std::min(block, end - k);
            for (std::int64_t e = 0; e < n; ++e) cols[e] = static_cast<std::int32_t>(m.ja[k + e]);
            coo.add(std::span(rows).first(n), std::span(cols).first(n), m.a.subspan(k, n));
        }
    }
    return coo;
}

}  // namespace

namespace detail {

void too_many_elements(logger* unlog) {
    fail(unlog, too_many);
}

crssparse ll_to_crs(const llsparse& ll, std::int64_t limit) {
    const reserved_column reserved(ll);
    std::vector<std::pair<std::int32_t, double>> row;
    page_array<std::int32_t> count(ll.getdim(1));
    for (std::int32_t i = 1; i <= ll.getdim(1); ++i) {
        gather_row(ll, i, row);
        for (const auto& element : row)
            if (element.first != reserved(i)) ++count.data()[i - 1];
    }
    row_builder build(ll, std::move(count), limit, too_many_in_lists);
    for (std::int32_t i = 1; i <= ll.getdim(1); ++i) {
        gather_row(ll, i, row);
        for (const auto& [col, value] : row) build.put(i, col, value, col == reserved(i));
    }
    return build.finish();
}

metisgraph crs_to_metisgraph(const crssparse& crs, std::int64_t limit) {
    if (!crs.issquare() || !crs.isupperstorage())
        fail(crs.getoutputunit(), " ERROR: the CRS matrix must be square and upper triangular stored");
    const crs_view<std::int32_t> m = crs.view();
    metisgraph graph;
    graph.n = m.dim1;
    const auto each_edge = [&m](const auto& work) {
        for (std::int32_t i = 0; i < m.dim1; ++i)
            for (std::int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
                if (m.ja[k] - 1 != i) work(i, m.ja[k] - 1);
    };

    std::vector<std::int64_t> next(static_cast<std::size_t>(m.dim1) + 1, 0);
    each_edge([&](std::int32_t i, std::int32_t j) {
        ++next[i + 1];
        ++next[j + 1];
    });
    for (std::int32_t i = 0; i < m.dim1; ++i) next[i + 1] += next[i];
    if (next.back() > limit) fail(crs.getoutputunit(), too_many);

    graph.xadj.assign(next.begin(), next.end());
    graph.adjncy.resize(static_cast<std::size_t>(next.back()));
    // Rows in ascending order: with sorted rows each vertex gets its neighbours in ascending order.
    each_edge([&](std::int32_t i, std::int32_t j) {
        graph.adjncy[next[i]++] = j;
        graph.adjncy[next[j]++] = i;
    });
    return graph;
}

}  // namespace detail

coosparse convertfromlltocoo(const llsparse& ll) {
    coosparse coo(ll.getdim(1), ll.getdim(2), slots_for(ll.totalnumberofelements()), ll.isupperstorage(),
                  ll.getoutputunit());
    coo.take_common(ll);
    for (std::int32_t i = 1; i <= ll.getdim(1); ++i)
        for (std::int64_t k = ll.row_list(i).head; k != llsparse::none; k = ll.at(k).next)
            coo.add(i, ll.at(k).col, ll.at(k).value);
    return coo;
}

coosparse convertfromcrstocoo(const crssparse& crs) {
    return crs_to_coo(crs);
}

coosparse convertfromcrs64tocoo(const crssparse64& crs) {
    return crs_to_coo(crs);
}

llsparse convertfromcootoll(const coosparse& coo) {
    llsparse ll(coo.getdim(1), coo.getdim(2), coo.isupperstorage(), coo.getoutputunit());
    ll.take_common(coo);
    for (const coo_slot& slot : coo.slots())
        if (!is_free(slot)) ll.addinorder(slot.row, slot.col, slot.value);
    ll.setsorted(true);
    return ll;
}

llsparse convertfromcrstoll(const crssparse& crs) {
    llsparse ll(crs.getdim(1), crs.getdim(2), crs.isupperstorage(), crs.getoutputunit());
    ll.take_common(crs);
    const crs_view<std::int32_t> m = crs.view();
    for (std::int32_t i = 1; i <= m.dim1; ++i)
        for (std::int32_t k = m.ia[i - 1] - 1; k < m.ia[i] - 1; ++k) ll.addinorder(i, m.ja[k], m.a[k]);
    ll.setsorted(true);
    return ll;
}

crssparse convertfromlltocrs(const llsparse& ll) {
    return detail::ll_to_crs(ll);
}

crssparse convertfromcootocrs(const coosparse& coo) {
    return detail::coo_to_crs<std::int32_t>(coo);
}

crssparse64 convertfromcootocrs64(const coosparse& coo) {
    return detail::coo_to_crs<std::int64_t>(coo);
}

metisgraph convertfromcrstometisgraph(const crssparse& crs) {
    return detail::crs_to_metisgraph(crs);
}

// ---- assignment of one format to another -----------------------------------------------------------------

coosparse& coosparse::operator=(const llsparse& other) {
    return *this = convertfromlltocoo(other);
}

template <std::signed_integral Index>
coosparse& coosparse::operator=(const crs_matrix<Index>& other) {
    return *this = crs_to_coo(other);
}
template coosparse& coosparse::operator=(const crssparse&);
template coosparse& coosparse::operator=(const crssparse64&);

llsparse& llsparse::operator=(const coosparse& other) {
    return *this = convertfromcootoll(other);
}

llsparse& llsparse::operator=(const crssparse& other) {
    return *this = convertfromcrstoll(other);
}

template <std::signed_integral Index>
crs_matrix<Index>& crs_matrix<Index>::operator=(const coosparse& other) {
    return *this = detail::coo_to_crs<Index>(other);
}
template crssparse& crs_matrix<std::int32_t>::operator=(const coosparse&);
template crssparse64& crs_matrix<std::int64_t>::operator=(const coosparse&);

template <std::signed_integral Index>
crs_matrix<Index>& crs_matrix<Index>::operator=(const llsparse& other)
    requires(std::same_as<Index, std::int32_t>)
{
    return *this = detail::ll_to_crs(other);
}
template crssparse& crs_matrix<std::int32_t>::operator=(const llsparse&);

}  // namespace zendar
