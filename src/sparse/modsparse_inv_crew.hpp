#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "modsparse_inv_detail.hpp"

namespace zendar::modsparse_inv {

/// Threads that go through a forest together: up, where a node begins when its children are done, or down,
/// where it begins when its parent is.
///
/// A node of much work gives out blocks of it, which idle threads take before they begin anything else. In
/// contrast to tasks, a thread that waits for its blocks begins no other node: it never holds the work space
/// of two, and how many of the demanding nodes are at hand together can be limited.
class tree_crew {
  public:
    using work_function = std::function<void(std::int32_t)>;

    enum class direction : std::uint8_t { up, down };

    /// Without a limit for any node.
    explicit tree_crew(const tree_schedule& schedule) : tree_crew(schedule, {}, 1) {}
    /// @param demanding  per node, whether it counts among the `most_demanding` (at least 1) of these that
    /// may
    ///                   be at hand; no small subtree of the schedule holds such a node.
    tree_crew(const tree_schedule& schedule, std::span<const char> demanding, int most_demanding);

    /// Calls node(i) for every node, in one parallel region; returns when all are done. It must not throw.
    void run(direction way, const work_function& node);
    /// To be called by a node: block(0) to block(count - 1), in any order and by several threads.
    void share(std::int32_t count, const work_function& block);

  private:
    struct job {
        const work_function& block;
        std::int32_t count, next, done;
    };
    /// What a thread takes up: a node, or a batch of small subtrees.
    struct item {
        bool is_batch;
        std::int32_t number;
    };

    void work();
    [[nodiscard]] job* open_job();
    [[nodiscard]] std::optional<item> take();
    void run_block(job& j, std::unique_lock<std::mutex>& lock);
    void run_item(item i, std::unique_lock<std::mutex>& lock);
    void make_ready(std::int32_t node);
    void make_children_ready(std::int32_t node);
    void count_down(std::int32_t parent, std::int32_t children);
    [[nodiscard]] bool is_demanding(std::int32_t node) const {
        return !demanding_.empty() && demanding_[node] != 0;
    }
    [[nodiscard]] std::size_t ready() const;

    const tree_schedule& schedule_;
    std::span<const char> demanding_;
    const int most_demanding_;
    const work_function* node_ = nullptr;
    direction way_ = direction::up;

    std::mutex guard_;  // of all that follows
    std::condition_variable changed_;
    std::vector<std::int32_t> ready_demanding_, ready_nodes_, ready_batches_;
    std::vector<job*> jobs_;
    std::vector<std::int32_t> children_to_come_;  // on the way up
    std::int64_t open_ = 0;                       // items that are ready or at hand
    int demanding_at_hand_ = 0, waiting_ = 0;
};

}  // namespace zendar::modsparse_inv
