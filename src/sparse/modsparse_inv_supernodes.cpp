#include <algorithm>

#include "modsparse_inv.hpp"

namespace zendar::modsparse_inv {

namespace {

/// Elements that a dense block of `columns` columns and `rows` rows stores, lower triangle.
double trapezoid(double columns, double rows) {
    return columns * rows - 0.5 * columns * (columns - 1.0);
}

/// Zeros that a supernode may hold, as a share of its elements: many while it is so small that the handling
/// of a further block costs more than its arithmetic.
bool may_merge(double columns, double zeros, double stored) {
    const double share = zeros / stored;
    if (columns <= 4.0) return share <= 0.8;
    if (columns <= 16.0) return share <= 0.6;
    if (columns <= 48.0) return share <= 0.1;
    return share <= 0.05;
}

}  // namespace

super_node_bounds super_nodes(std::span<const std::int32_t> parent, std::span<const std::int32_t> colcount) {
    const auto n = static_cast<std::int32_t>(parent.size());
    struct node {
        std::int32_t first, last;
        double elements;  // of the factor, without zeros
    };
    const auto joins_next = [&](std::int32_t j) {
        return parent[j] == j + 1 && colcount[j] == colcount[j + 1] + 1;
    };
    std::vector<node> stack;  // the supernodes of the columns so far, in order
    for (std::int32_t first = 0, last = 0; first < n; first = ++last) {
        double elements = colcount[first];
        for (; last + 1 < n && joins_next(last); ++last) elements += colcount[last + 1];
        stack.push_back({first, last, elements});
        while (stack.size() > 1) {
            const node& child = stack[stack.size() - 2];
            const node& top = stack.back();
            if (parent[child.last] != top.first) break;
            const double columns = last + 1 - child.first, rows = columns + colcount[last] - 1;
            const double stored = trapezoid(columns, rows), sum = child.elements + top.elements;
            if (!may_merge(columns, stored - sum, stored)) break;
            stack.pop_back();
            stack.back().last = last;
            stack.back().elements = sum;
        }
    }
    super_node_bounds bounds;
    bounds.xsuper.reserve(stack.size() + 1);
    for (const node& x : stack) bounds.xsuper.push_back(x.first);
    bounds.xsuper.push_back(n);
    for (std::size_t k = 0; k + 1 < bounds.xsuper.size(); ++k) {
        const std::int32_t size = bounds.xsuper[k + 1] - bounds.xsuper[k];
        bounds.largest = std::max(bounds.largest, size);
        bounds.smallest = k == 0 ? size : std::min(bounds.smallest, size);
    }
    return bounds;
}

}  // namespace zendar::modsparse_inv
