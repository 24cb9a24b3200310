#pragma once

#include <omp.h>

#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

#include "modsparse_inv.hpp"

/// What the sources of `modsparse_inv` share.
namespace zendar::modsparse_inv {

/// Columns of a tile of a big supernode, and of a step of the selected inverse.
inline constexpr std::int32_t tile_columns = 128, tile_rows = 512, gather_columns = 64;

/// Splits a postordered forest for threads: whole small subtrees, several to a batch, and the nodes above
/// them one by one. A node never starts before its children (`bottom_up`) or its parent (`top_down`) are
/// done.
class tree_schedule {
  public:
    /// `work` in any unit, per node. `nthreads` is a hint on how finely to cut.
    tree_schedule(std::span<const std::int32_t> parent, std::span<const double> work, int nthreads);

    /// Calls node(i) for every node within one parallel region. `node` must not throw; it may start tasks and
    /// has to wait for them. While it waits, its thread may run other nodes in `top_down`, but none in
    /// `bottom_up`.
    template <class Node>
    void bottom_up(const Node& node) const;
    template <class Node>
    void top_down(const Node& node) const;

  private:
    struct batch {
        std::int32_t first, last;      // nodes [first, last)
        std::int32_t parent;           // of all its subtrees
        std::int32_t next;             // batch of this parent, or -1
        std::int32_t xroot, end_root;  // its subtree roots, in roots_
    };
    template <class Node>
    void climb(std::int32_t from, std::vector<std::atomic<std::int32_t>>& open, const Node& node) const;
    /// Node `from` and what hangs below it. The heaviest child goes on in this task, so that a chain does not
    /// nest tasks, which the runtime may start at once.
    template <class Node>
    void descend(std::int32_t from, const Node& node) const;
    template <class Node>
    void run_batch_down(const batch& b, const Node& node) const {
        for (std::int32_t i = b.last - 1; i >= b.first; --i) node(i);
    }

    int nthreads_;
    std::span<const std::int32_t> parent_;
    std::vector<batch> batches_;
    std::vector<std::int32_t> roots_;
    std::vector<std::int32_t> first_batch_;     // of each single node, or -1
    std::vector<std::int32_t> xchild_, child_;  // single children of single nodes, the heaviest last
    std::vector<std::int32_t> nchildren_;       // of the single nodes, else 0
    std::vector<std::int32_t> batch_of_;        // -1 for a single node
    std::vector<std::int32_t> leaves_;          // single nodes without children
};

template <class Node>
void tree_schedule::climb(std::int32_t from, std::vector<std::atomic<std::int32_t>>& open,
                          const Node& node) const {
    for (std::int32_t p = parent_[from]; p >= 0 && open[p].fetch_sub(1, std::memory_order_acq_rel) == 1;
         p = parent_[p])
        node(p);
}

template <class Node>
void tree_schedule::bottom_up(const Node& node) const {
    const auto n = static_cast<std::int32_t>(parent_.size());
    if (nthreads_ == 1) {
        for (std::int32_t i = 0; i < n; ++i) node(i);
        return;
    }
    std::vector<std::atomic<std::int32_t>> open(nchildren_.size());
    for (std::size_t i = 0; i < open.size(); ++i) open[i].store(nchildren_[i], std::memory_order_relaxed);
#pragma omp parallel default(none) shared(open, node)
#pragma omp single
    {
        for (const batch& b : batches_) {
#pragma omp task default(none) firstprivate(b) shared(open, node)
            {
                for (std::int32_t i = b.first; i < b.last; ++i) node(i);
                for (std::int32_t r = b.xroot; r < b.end_root; ++r) climb(roots_[r], open, node);
            }
        }
        for (const std::int32_t leaf : leaves_) {
#pragma omp task default(none) firstprivate(leaf) shared(open, node)
            {
                node(leaf);
                climb(leaf, open, node);
            }
        }
    }
}

template <class Node>
void tree_schedule::top_down(const Node& node) const {
    const auto n = static_cast<std::int32_t>(parent_.size());
    if (nthreads_ == 1) {
        for (std::int32_t i = n - 1; i >= 0; --i) node(i);
        return;
    }
    const auto nbatch = static_cast<std::int32_t>(batches_.size());
#pragma omp parallel default(none) shared(node, n, nbatch)
#pragma omp single
    {
        for (std::int32_t i = n - 1; i >= 0; --i) {
            if (parent_[i] >= 0 || batch_of_[i] >= 0) continue;
#pragma omp task default(none) firstprivate(i) shared(node)
            descend(i, node);
        }
        for (std::int32_t b = 0; b < nbatch; ++b) {
            if (batches_[b].parent >= 0) continue;
#pragma omp task default(none) firstprivate(b) shared(node)
            run_batch_down(batches_[b], node);
        }
    }
}

template <class Node>
void tree_schedule::descend(std::int32_t from, const Node& node) const {
    for (std::int32_t i = from; i >= 0;) {
        node(i);
        for (std::int32_t b = first_batch_[i]; b >= 0; b = batches_[b].next) {
#pragma omp task default(none) firstprivate(b) shared(node)
            run_batch_down(batches_[b], node);
        }
        std::int32_t next = -1;
        for (std::int32_t k = xchild_[i]; k < xchild_[i + 1]; ++k) {
            if (next >= 0) {
#pragma omp task default(none) firstprivate(next) shared(node)
                descend(next, node);
            }
            next = child_[k];
        }
        i = next;
    }
}

}  // namespace zendar::modsparse_inv
