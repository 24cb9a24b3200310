#include <algorithm>
#include <numeric>
#include <utility>

#include "modsparse_inv_detail.hpp"

namespace zendar::modsparse_inv {

tree_schedule::tree_schedule(std::span<const std::int32_t> parent, std::span<const double> work, int nthreads,
                             double most)
    : nthreads_(nthreads), parent_(parent) {
    const auto n = static_cast<std::int32_t>(parent.size());
    if (nthreads_ == 1) return;  // plain loops need no plan

    std::vector<double> below(work.begin(), work.end());
    std::vector<std::int32_t> size(n, 1);
    double total = 0.0;
    for (std::int32_t i = 0; i < n; ++i) {
        if (parent[i] >= 0) {
            below[parent[i]] += below[i];
            size[parent[i]] += size[i];
        } else {
            total += below[i];
        }
    }
    const double small = std::min(total / (16.0 * nthreads_), most);

    is_single_.assign(n, 0);
    nchildren_.assign(n, 0);
    double load = 0.0;
    for (std::int32_t i = 0; i < n; ++i) {
        const bool is_small = below[i] <= small;
        is_single_[i] = is_small ? 0 : 1;
        nsingle_ += is_single_[i];
        if (is_small && (parent[i] < 0 || below[parent[i]] > small)) {
            const std::int32_t first = i - size[i] + 1;
            if (batches_.empty() || batches_.back().last != first || batches_.back().parent != parent[i] ||
                load + below[i] > small) {
                batches_.push_back({first, first, parent[i], -1, 0});
                load = 0.0;
            }
            load += below[i];
            batches_.back().last = i + 1;
            ++batches_.back().subtrees;
        }
        if (parent[i] >= 0 && below[parent[i]] > small) ++nchildren_[parent[i]];
    }

    first_batch_.assign(n, -1);
    for (auto b = static_cast<std::int32_t>(batches_.size()) - 1; b >= 0; --b)
        if (const std::int32_t p = batches_[b].parent; p >= 0)
            batches_[b].next = std::exchange(first_batch_[p], b);
    xchild_.assign(n + 1, 0);
    const auto single_child = [&](std::int32_t i) { return parent[i] >= 0 && is_single_[i] != 0; };
    for (std::int32_t i = 0; i < n; ++i)
        if (single_child(i)) ++xchild_[parent[i] + 1];
    std::partial_sum(xchild_.begin(), xchild_.end(), xchild_.begin());
    child_.resize(xchild_[n]);
    std::vector<std::int32_t> next(xchild_.begin(), xchild_.end() - 1);
    for (std::int32_t i = 0; i < n; ++i)
        if (single_child(i)) child_[next[parent[i]]++] = i;
    for (std::int32_t i = 0; i < n; ++i)
        std::stable_sort(child_.begin() + xchild_[i], child_.begin() + xchild_[i + 1],
                         [&](std::int32_t x, std::int32_t y) { return below[x] < below[y]; });
}

}  // namespace zendar::modsparse_inv
