#pragma once

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "modsparse_inv.hpp"

/// What the sources of `modsparse_inv` share.
namespace zendar::modsparse_inv {

/// Columns and rows of a tile of a big supernode.
inline constexpr std::int32_t tile_columns = 128, tile_rows = 512;

/// Runs f on one thread. BLAS then starts no threads of its own: it looks for a region of more than one.
template <class F>
void run_alone(const F& f) {
    if (omp_in_parallel() || omp_get_max_threads() == 1) {
        f();
        return;
    }
#pragma omp parallel num_threads(2) default(none) shared(f)
#pragma omp master
    f();
}

/// Threads for which `fixed + n * each` elements of work space stay within `most`, at least one.
inline int threads_within(double most, double fixed, double each) {
    if (omp_in_parallel()) return 1;
    const double n = each > 0.0 ? (most - fixed) / each : omp_get_max_threads();
    return static_cast<int>(std::clamp<double>(n, 1.0, omp_get_max_threads()));
}

/// Share of the factor that the work space of all threads may take.
inline constexpr double workspace_share = 0.2;

/// Splits a postordered forest for threads: whole small subtrees, several to a batch, and the nodes above
/// them one by one. `tree_crew` carries the plan out.
class tree_schedule {
  public:
    /// Small subtrees of one parent that follow each other.
    struct batch {
        std::int32_t first, last;  // nodes [first, last)
        std::int32_t parent;       // of all its subtrees
        std::int32_t next;         // batch of this parent, or -1
        std::int32_t subtrees;
    };

    /// `work` in any unit, per node; a subtree of more than `most` of it is never small.
    tree_schedule(std::span<const std::int32_t> parent, std::span<const double> work, int nthreads,
                  double most = std::numeric_limits<double>::infinity());

    [[nodiscard]] int nthreads() const noexcept { return nthreads_; }
    [[nodiscard]] std::int32_t nnodes() const { return static_cast<std::int32_t>(parent_.size()); }

    // ---- the plan, for more than one thread

    [[nodiscard]] std::span<const batch> batches() const noexcept { return batches_; }
    /// Nodes that stand alone.
    [[nodiscard]] std::int32_t nsingle() const noexcept { return nsingle_; }
    /// Of single nodes; the subtrees of batches count one by one.
    [[nodiscard]] std::span<const std::int32_t> nchildren() const noexcept { return nchildren_; }
    [[nodiscard]] std::int32_t parent(std::int32_t node) const { return parent_[node]; }
    [[nodiscard]] bool is_single(std::int32_t node) const { return is_single_[node] != 0; }
    [[nodiscard]] bool is_single_root(std::int32_t node) const {
        return parent_[node] < 0 && is_single_[node] != 0;
    }
    template <class Visit>
    void each_batch_below(std::int32_t node, const Visit& visit) const {
        for (std::int32_t b = first_batch_[node]; b >= 0; b = batches_[b].next) visit(b);
    }
    /// The heaviest last.
    template <class Visit>
    void each_child(std::int32_t node, const Visit& visit) const {
        for (std::int32_t k = xchild_[node]; k < xchild_[node + 1]; ++k) visit(child_[k]);
    }

  private:
    int nthreads_;
    std::span<const std::int32_t> parent_;
    std::vector<batch> batches_;
    std::vector<std::int32_t> first_batch_;     // of each single node, or -1
    std::vector<std::int32_t> xchild_, child_;  // single children of single nodes
    std::vector<std::int32_t> nchildren_;       // of the single nodes, else 0
    std::vector<char> is_single_;
    std::int32_t nsingle_ = 0;
};

}  // namespace zendar::modsparse_inv
