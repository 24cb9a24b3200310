#include "modsparse_inv_crew.hpp"

#include <algorithm>

namespace zendar::modsparse_inv {

tree_crew::tree_crew(const tree_schedule& schedule, std::span<const char> demanding, int most_demanding)
    : schedule_(schedule), demanding_(demanding), most_demanding_(most_demanding) {
    // Nothing is allocated while the threads run.
    const auto single = static_cast<std::size_t>(schedule.nsingle());
    const auto ndemanding =
        static_cast<std::size_t>(std::ranges::count_if(demanding, [](char d) { return d != 0; }));
    ready_demanding_.reserve(ndemanding);
    ready_nodes_.reserve(single - std::min(single, ndemanding));
    ready_batches_.reserve(schedule.batches().size());
    jobs_.reserve(static_cast<std::size_t>(schedule.nthreads()));
}

void tree_crew::run(direction way, const work_function& node) {
    const std::int32_t n = schedule_.nnodes();
    if (schedule_.nthreads() == 1) {
        run_alone([&] {
            for (std::int32_t i = 0; i < n; ++i) node(way == direction::up ? i : n - 1 - i);
        });
        return;
    }
    node_ = &node;
    way_ = way;
    const auto batches = schedule_.batches();
    for (std::int32_t b = 0; b < std::ssize(batches); ++b)
        if (way == direction::up || batches[b].parent < 0) ready_batches_.push_back(b);
    if (way == direction::up)
        children_to_come_.assign(schedule_.nchildren().begin(), schedule_.nchildren().end());
    for (std::int32_t i = 0; i < n; ++i)
        if (way == direction::up ? schedule_.is_single(i) && children_to_come_[i] == 0
                                 : schedule_.is_single_root(i))
            make_ready(i);
    open_ = static_cast<std::int64_t>(ready());
#pragma omp parallel num_threads(schedule_.nthreads()) default(none)
    work();
}

void tree_crew::work() {
    std::unique_lock lock(guard_);
    while (open_ > 0) {
        if (job* const j = open_job()) {
            run_block(*j, lock);
        } else if (const std::optional<item> i = take()) {
            run_item(*i, lock);
        } else {
            ++waiting_;
            changed_.wait(lock);
            --waiting_;
        }
    }
}

void tree_crew::share(std::int32_t count, const work_function& block) {
    if (schedule_.nthreads() == 1 || count == 1) {
        for (std::int32_t i = 0; i < count; ++i) block(i);
        return;
    }
    std::unique_lock lock(guard_);
    job mine{block, count, 0, 0};
    jobs_.push_back(&mine);
    if (waiting_ > 0) changed_.notify_all();
    while (mine.next < count) run_block(mine, lock);
    while (mine.done < count) changed_.wait(lock);
    std::erase(jobs_, &mine);
}

tree_crew::job* tree_crew::open_job() {
    for (job* const j : jobs_)
        if (j->next < j->count) return j;
    return nullptr;
}

std::optional<tree_crew::item> tree_crew::take() {
    const auto pop = [](std::vector<std::int32_t>& from) {
        const std::int32_t number = from.back();
        from.pop_back();
        return number;
    };
    if (!ready_demanding_.empty() && demanding_at_hand_ < most_demanding_) {
        ++demanding_at_hand_;
        return item{false, pop(ready_demanding_)};
    }
    if (!ready_nodes_.empty()) return item{false, pop(ready_nodes_)};
    if (!ready_batches_.empty()) return item{true, pop(ready_batches_)};
    return std::nullopt;
}

void tree_crew::run_block(job& j, std::unique_lock<std::mutex>& lock) {
    const std::int32_t i = j.next++;
    lock.unlock();
    j.block(i);
    lock.lock();
    if (++j.done == j.count) changed_.notify_all();  // its owner may wait
}

void tree_crew::run_item(item i, std::unique_lock<std::mutex>& lock) {
    lock.unlock();
    if (i.is_batch) {
        const tree_schedule::batch& b = schedule_.batches()[i.number];
        const std::int32_t n = b.last - b.first;
        for (std::int32_t k = 0; k < n; ++k) (*node_)(way_ == direction::up ? b.first + k : b.last - 1 - k);
    } else {
        (*node_)(i.number);
    }
    lock.lock();
    if (!i.is_batch && is_demanding(i.number)) --demanding_at_hand_;
    if (way_ == direction::down) {
        if (!i.is_batch) make_children_ready(i.number);
    } else if (i.is_batch) {
        count_down(schedule_.batches()[i.number].parent, schedule_.batches()[i.number].subtrees);
    } else {
        count_down(schedule_.parent(i.number), 1);
    }
    --open_;
    // One item is for this thread: along a chain nobody is woken in vain.
    if (waiting_ > 0 && (open_ == 0 || ready() > 1)) changed_.notify_all();
}

void tree_crew::make_ready(std::int32_t node) {
    (is_demanding(node) ? ready_demanding_ : ready_nodes_).push_back(node);
}

void tree_crew::make_children_ready(std::int32_t node) {
    const std::size_t before = ready();
    schedule_.each_batch_below(node, [this](std::int32_t b) { ready_batches_.push_back(b); });
    schedule_.each_child(node, [this](std::int32_t child) { make_ready(child); });
    open_ += static_cast<std::int64_t>(ready() - before);
}

void tree_crew::count_down(std::int32_t parent, std::int32_t children) {
    if (parent < 0 || (children_to_come_[parent] -= children) > 0) return;
    make_ready(parent);
    ++open_;
}

std::size_t tree_crew::ready() const {
    return ready_demanding_.size() + ready_nodes_.size() + ready_batches_.size();
}

}  // namespace zendar::modsparse_inv
