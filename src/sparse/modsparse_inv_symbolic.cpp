#include <algorithm>
#include <numeric>
#include <utility>

#include "modsparse_inv.hpp"

namespace zendar::modsparse_inv {

namespace {

/// Columns of the strict lower triangle under the new numbering `inew`, unsorted.
struct column_lists {
    std::vector<std::int64_t> start;
    std::vector<std::int32_t> row;
};

template <std::signed_integral Index>
column_lists lower_columns(std::int32_t n, std::span<const Index> ia, std::span<const std::int32_t> ja,
                           std::span<const std::int32_t> inew) {
    column_lists c;
    c.start.assign(std::size_t{0} + n + 1, 0);
    const auto each = [&](auto&& visit) {
        for (std::int32_t r = 0; r < n; ++r)
            for (std::int64_t k = std::int64_t{ia[r]} - 1; k < std::int64_t{ia[r + 1]} - 1; ++k) {
                const std::int32_t i = inew[r], j = inew[ja[k] - 1];
                if (i != j) visit(std::min(i, j), std::max(i, j));
            }
    };
    each([&](std::int32_t low, std::int32_t) { ++c.start[low + 1]; });
    std::partial_sum(c.start.begin(), c.start.end(), c.start.begin());
    c.row.resize(static_cast<std::size_t>(c.start[n]));
    std::vector<std::int64_t> next(c.start.begin(), c.start.end() - 1);
    each([&](std::int32_t low, std::int32_t high) { c.row[next[low]++] = high; });
    return c;
}

/// The other orientation, whose lists come out sorted.
column_lists transposed(std::int32_t n, const column_lists& c) {
    column_lists t;
    t.start.assign(std::size_t{0} + n + 1, 0);
    for (const std::int32_t i : c.row) ++t.start[i + 1];
    std::partial_sum(t.start.begin(), t.start.end(), t.start.begin());
    t.row.resize(c.row.size());
    std::vector<std::int64_t> next(t.start.begin(), t.start.end() - 1);
    for (std::int32_t j = 0; j < n; ++j)
        for (std::int64_t k = c.start[j]; k < c.start[j + 1]; ++k) t.row[next[c.row[k]]++] = j;
    return t;
}

/// Liu's algorithm with path compression; `rows` lists the columns below the diagonal of each row.
std::vector<std::int32_t> elimination_tree(std::int32_t n, const column_lists& rows) {
    std::vector<std::int32_t> parent(n, -1), ancestor(n, -1);
    for (std::int32_t i = 0; i < n; ++i)
        for (std::int64_t k = rows.start[i]; k < rows.start[i + 1]; ++k)
            for (std::int32_t j = rows.row[k]; j != -1 && j != i;) {
                const std::int32_t up = std::exchange(ancestor[j], i);
                if (up == -1) parent[j] = i;
                j = up;
            }
    return parent;
}

/// Postorder in which the child that sorts last by `weight` directly precedes its parent.
std::vector<std::int32_t> postorder(std::span<const std::int32_t> parent,
                                    std::span<const std::int32_t> weight) {
    const auto n = static_cast<std::int32_t>(parent.size());
    std::vector<std::int32_t> by_weight(n), head(n, -1), sibling(n, -1), order, stack;
    std::iota(by_weight.begin(), by_weight.end(), 0);
    if (!weight.empty())
        std::stable_sort(by_weight.begin(), by_weight.end(),
                         [&](std::int32_t x, std::int32_t y) { return weight[x] < weight[y]; });
    for (auto it = by_weight.rbegin(); it != by_weight.rend(); ++it)  // so that lists begin with the lightest
        if (parent[*it] >= 0) sibling[*it] = std::exchange(head[parent[*it]], *it);
    order.reserve(n);
    for (std::int32_t root = 0; root < n; ++root) {
        if (parent[root] >= 0) continue;
        stack.push_back(root);
        while (!stack.empty()) {
            const std::int32_t j = stack.back(), child = head[j];
            if (child >= 0) {
                head[j] = sibling[child];
                stack.push_back(child);
            } else {
                order.push_back(j);
                stack.pop_back();
            }
        }
    }
    return order;
}

/// Elements of each column of the factor (Gilbert, Ng & Peyton): leaves of the row subtrees count one, and
/// the least common ancestor of two leaves that follow each other takes one back.
std::vector<std::int32_t> column_counts(const column_lists& columns, std::span<const std::int32_t> parent,
                                        std::span<const std::int32_t> post) {
    const auto n = static_cast<std::int32_t>(parent.size());
    std::vector<std::int32_t> count(n, 0), first(n, -1), last_first(n, -1), last_leaf(n, -1), root(n);
    std::iota(root.begin(), root.end(), 0);
    for (std::int32_t k = 0; k < n; ++k) {
        count[post[k]] = first[post[k]] == -1 ? 1 : 0;
        for (std::int32_t j = post[k]; j != -1 && first[j] == -1; j = parent[j]) first[j] = k;
    }
    for (std::int32_t k = 0; k < n; ++k) {
        const std::int32_t j = post[k];
        if (parent[j] >= 0) --count[parent[j]];
        for (std::int64_t e = columns.start[j]; e < columns.start[j + 1]; ++e) {
            const std::int32_t i = columns.row[e];
            if (first[j] <= last_first[i]) continue;  // not a leaf of row i's subtree
            last_first[i] = first[j];
            ++count[j];
            const std::int32_t previous = std::exchange(last_leaf[i], j);
            if (previous == -1) continue;
            std::int32_t common = previous;
            while (common != root[common]) common = root[common];
            for (std::int32_t x = previous; x != common;) x = std::exchange(root[x], common);
            --count[common];
        }
        if (parent[j] >= 0) root[j] = parent[j];
    }
    for (std::int32_t k = 0; k < n; ++k)
        if (parent[post[k]] >= 0) count[parent[post[k]]] += count[post[k]];
    return count;
}

}  // namespace

std::int64_t supernodal_structure::elements() const {
    return std::accumulate(colcount.begin(), colcount.end(), std::int64_t{0});
}

template <std::signed_integral Index>
supernodal_structure symbolicfact(std::int32_t n, std::span<const Index> ia, std::span<const std::int32_t> ja,
                                  std::span<const std::int32_t> perm) {
    supernodal_structure s;
    s.n = n;
    std::vector<std::int32_t> inew(n);
    for (std::int32_t k = 0; k < n; ++k) inew[perm.empty() ? k : perm[k] - 1] = k;

    std::vector<std::int32_t> parent;
    {
        const column_lists columns = lower_columns(n, ia, ja, std::span<const std::int32_t>(inew));
        parent = elimination_tree(n, transposed(n, columns));
        const auto count = column_counts(columns, parent, postorder(parent, {}));
        s.place = postorder(parent, count);
        s.colcount.resize(n);
        for (std::int32_t j = 0; j < n; ++j) s.colcount[j] = count[s.place[j]];
    }
    std::vector<std::int32_t> column(n);  // internal column of each place
    for (std::int32_t j = 0; j < n; ++j) column[s.place[j]] = j;
    s.parent.resize(n);
    s.equation.resize(n);
    s.iequation.resize(n);
    for (std::int32_t j = 0; j < n; ++j) {
        const std::int32_t p = parent[s.place[j]];
        s.parent[j] = p < 0 ? -1 : column[p];
        s.equation[j] = perm.empty() ? s.place[j] : perm[s.place[j]] - 1;
        s.iequation[s.equation[j]] = j;
    }
    column_lists rows = transposed(n, lower_columns(n, ia, ja, std::span<const std::int32_t>(s.iequation)));
    s.xrow = std::move(rows.start);
    s.rowcol = std::move(rows.row);
    return s;
}

template <std::signed_integral Index>
permuted_matrix computexsparsdiag(const supernodal_structure& s, std::span<const Index> ia,
                                  std::span<const std::int32_t> ja, std::span<const double> a) {
    permuted_matrix m;
    const column_lists columns =
        transposed(s.n, {s.xrow, s.rowcol});  // rows by column, sorted; the values follow below
    m.xcol = columns.start;
    m.row = columns.row;
    m.value.resize(m.row.size());
    m.diag.assign(s.n, 0.0);
    for (std::int32_t r = 0; r < s.n; ++r)
        for (std::int64_t k = std::int64_t{ia[r]} - 1; k < std::int64_t{ia[r + 1]} - 1; ++k) {
            const std::int32_t i = s.iequation[r], j = s.iequation[ja[k] - 1];
            if (i == j) {
                m.diag[i] = a[k];
                continue;
            }
            const auto begin = m.row.begin() + m.xcol[std::min(i, j)],
                       end = m.row.begin() + m.xcol[std::min(i, j) + 1];
            m.value[std::lower_bound(begin, end, std::max(i, j)) - m.row.begin()] = a[k];
        }
    return m;
}

void smbfct(supernodal_structure& s) {
    const std::int32_t n = s.n, nsuper = s.nsuper();
    const auto& first = s.nodes.xsuper;
    s.snode.resize(n);
    s.sparent.resize(nsuper);
    s.xlindx.assign(std::size_t{0} + nsuper + 1, 0);
    s.xlnz.assign(std::size_t{0} + nsuper + 1, 0);
    for (std::int32_t k = 0; k < nsuper; ++k) {
        const std::int32_t columns = s.columns(k), last = first[k + 1] - 1;
        const std::int64_t rows = std::int64_t{columns} + s.colcount[last] - 1;
        std::fill(s.snode.begin() + first[k], s.snode.begin() + first[k + 1], k);
        s.xlindx[k + 1] = s.xlindx[k] + rows;
        s.xlnz[k + 1] = s.xlnz[k] + rows * columns;
    }
    s.lindx.resize(static_cast<std::size_t>(s.xlindx[nsuper]));
    std::vector<std::int64_t> next(nsuper);
    for (std::int32_t k = 0; k < nsuper; ++k) {
        const std::int32_t up = s.parent[first[k + 1] - 1];
        s.sparent[k] = up < 0 ? -1 : s.snode[up];
        std::iota(s.lindx.begin() + s.xlindx[k], s.lindx.begin() + s.xlindx[k] + s.columns(k), first[k]);
        next[k] = s.xlindx[k] + s.columns(k);
    }
    // Row i appears in the supernodes on the paths from the columns of its elements up to its own: as i
    // grows, the lists fill in order.
    std::vector<std::int32_t> seen(nsuper, -1);
    for (std::int32_t i = 0; i < n; ++i) {
        seen[s.snode[i]] = i;
        for (std::int64_t e = s.xrow[i]; e < s.xrow[i + 1]; ++e)
            for (std::int32_t k = s.snode[s.rowcol[e]]; seen[k] != i; k = s.sparent[k]) {
                seen[k] = i;
                s.lindx[next[k]++] = i;
            }
    }
}

template supernodal_structure symbolicfact(std::int32_t, std::span<const std::int32_t>,
                                           std::span<const std::int32_t>, std::span<const std::int32_t>);
template supernodal_structure symbolicfact(std::int32_t, std::span<const std::int64_t>,
                                           std::span<const std::int32_t>, std::span<const std::int32_t>);
template permuted_matrix computexsparsdiag(const supernodal_structure&, std::span<const std::int32_t>,
                                           std::span<const std::int32_t>, std::span<const double>);
template permuted_matrix computexsparsdiag(const supernodal_structure&, std::span<const std::int64_t>,
                                           std::span<const std::int32_t>, std::span<const double>);

}  // namespace zendar::modsparse_inv
