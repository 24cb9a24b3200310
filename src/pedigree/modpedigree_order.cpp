#include <algorithm>
#include <cassert>
#include <stdexcept>
#include <string>
#include <vector>

#include "modbasic.hpp"
#include "modpedigree.hpp"
#include "modpedigree_detail.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modpedigree";

/// Walks from an animal to its ancestors and back. The stack lives in the entries of `order` that have no
/// position yet: -1 - c for an animal that was reached from its offspring c, or -1 for the start of a walk.
class ancestor_walk {
  public:
    ancestor_walk(const matrix<std::int32_t>& ped, std::int32_t nani, pedigree_order& order)
        : ped_(ped.data()), nani_(nani), order_(order.order.data()), neworder_(order.neworder.data()) {}

    /// Gives a position to the ancestors of `animal`, sire's side first, and then to itself.
    /// @returns 0, or an animal that has one of its own descendants as a parent; see `loop`.
    std::int32_t place(std::int32_t animal, std::int32_t& last) {
        if (order_[animal - 1] > 0) return 0;
        order_[animal - 1] = -1;
        while (animal != 0) {
            const std::int32_t next = parent_to_place(animal);
            if (next == 0) {
                const std::int32_t offspring = -1 - order_[animal - 1];
                order_[animal - 1] = ++last;
                neworder_[last - 1] = animal;
                animal = offspring;
            } else if (order_[next - 1] < 0) {
                looped_to_ = next;
                return animal;
            } else {
                order_[next - 1] = -1 - animal;
                animal = next;
            }
        }
        return 0;
    }
    /// The animals of a loop, each followed by one of its offspring, from what `place` returned.
    [[nodiscard]] std::vector<std::int32_t> loop(std::int32_t animal) const {
        std::vector<std::int32_t> animals{animal};
        while (animal != looped_to_) {
            animal = -1 - order_[animal - 1];
            animals.push_back(animal);
        }
        return animals;
    }

  private:
    /// The first parent that has no position; 0 when there is none.
    [[nodiscard]] std::int32_t parent_to_place(std::int32_t animal) const {
        for (std::int64_t k = 0; k < 2; ++k) {
            const std::int32_t parent = ped_[2 * (std::int64_t{animal} - 1) + k];
            if (parent > 0 && parent <= nani_ && order_[parent - 1] <= 0) return parent;
        }
        return 0;
    }

    const std::int32_t* ped_;
    std::int32_t nani_;
    std::int32_t *order_, *neworder_;
    std::int32_t looped_to_ = 0;
};

void check_parents(const matrix<std::int32_t>& ped, logger& log) {
    const auto n = static_cast<std::int32_t>(ped.cols());
    for (const std::int32_t& parent : ped.values())
        if (parent < 0 || parent > n)
            fatal(log,
                  "A parent of level " + inttochar((&parent - ped.data()) / 2 + 1) + " is " +
                      inttochar(parent) + ", which is not one of the " + inttochar(n) + " levels",
                  module_tag, "getorder");
}

/// All parents stand before their offspring already.
bool is_in_order(const matrix<std::int32_t>& ped, std::int32_t nani) {
    const std::int32_t* const parents = ped.data();
    bool ordered = true;
    for (std::int64_t k = 0; k < 2 * std::int64_t{nani} && ordered; ++k)
        ordered = parents[k] <= k / 2 || parents[k] > nani;
    return ordered;
}

std::int32_t number_of_animals(const pedigree_type& ped) {
    return ped.nlength() - std::clamp(ped.nupg, 0, ped.nlength());
}

void check_list(std::span<const std::int32_t> list, std::int32_t n) {
    for (const std::int32_t level : list)
        if (level < 1 || level > n)
            throw std::out_of_range("Level " + inttochar(level) + " is not one of the " + inttochar(n) +
                                    " levels of the pedigree");
}

/// The offspring of each animal.
struct offspring_lists {
    std::vector<std::int64_t> begin;      // [animal - 1], and the end of the last one
    std::vector<std::int32_t> offspring;  // with two entries for selfed ones

    offspring_lists(const matrix<std::int32_t>& ped, std::int32_t nani)
        : begin(static_cast<std::size_t>(nani) + 1, 0) {
        const auto for_all = [&](auto&& use) {
            for (std::int32_t i = 1; i <= nani; ++i)
                for (const std::int32_t parent : ped.column(i - 1))
                    if (parent > 0 && parent <= nani) use(parent, i);
        };
        for_all([&](std::int32_t parent, std::int32_t) { ++begin[parent - 1]; });
        std::int64_t sum = 0;
        for (std::int64_t& b : begin) b = sum += b;
        offspring.resize(static_cast<std::size_t>(sum));
        for_all([&](std::int32_t parent, std::int32_t i) { offspring[--begin[parent - 1]] = i; });
    }
};

/// Flags the listed animals and all that `next` leads to from them.
template <class Next>
std::vector<std::uint8_t> reach(std::int32_t n, std::int32_t nani, std::span<const std::int32_t> list,
                                Next&& next) {
    check_list(list, n);
    std::vector<std::uint8_t> flag(static_cast<std::size_t>(n), 0);
    std::vector<std::int32_t> pending;
    const auto add = [&](std::int32_t level) {
        if (level < 1 || level > nani || flag[level - 1] != 0) return;
        flag[level - 1] = 1;
        pending.push_back(level);
    };
    for (const std::int32_t level : list) add(level);
    while (!pending.empty()) {
        const std::int32_t level = pending.back();
        pending.pop_back();
        for (const std::int32_t other : next(level)) add(other);
    }
    return flag;
}

/// The order of `getorder`.
pedigree_order walk_to_ancestors(const pedigree_type& ped, logger& log) {
    check_parents(ped.ped, log);
    const std::int32_t n = ped.nlength(), nani = number_of_animals(ped);
    pedigree_order order;
    order.order.assign(static_cast<std::size_t>(n), 0);
    order.neworder.assign(static_cast<std::size_t>(n), 0);
    std::int32_t last = 0;
    for (std::int32_t group = nani + 1; group <= n; ++group) {
        order.order[group - 1] = ++last;
        order.neworder[last - 1] = group;
    }
    ancestor_walk walk(ped.ped, nani, order);
    for (std::int32_t i = 1; i <= nani; ++i) {
        const std::int32_t looped = walk.place(i, last);
        if (looped == 0) continue;
        const std::vector<std::int32_t> animals = walk.loop(looped);
        fatal(log,
              "An animal of the pedigree is its own ancestor: " + detail::first_few(animals) +
                  (animals.size() > 1 ? " (each a parent of the next one, the last one of the first)" : "") +
                  (ped.filename ? "\nFile " + *ped.filename : std::string()),
              module_tag, "getorder");
    }
    return order;
}

}  // namespace

pedigree_order pedigree_type::getorder(logger& log) const {
    log.message("Start to find the order from old to young");
    const wtime clock;
    pedigree_order order = walk_to_ancestors(*this, log);
    clock.end(log, "Find order from old to young");
    return order;
}

void pedigree_type::check_loops(logger& log) const {
    if (!is_in_order(ped, number_of_animals(*this))) static_cast<void>(walk_to_ancestors(*this, log));
}

std::vector<std::uint8_t> pedigree_type::getancestors(std::span<const std::int32_t> list) const {
    return reach(nlength(), number_of_animals(*this), list,
                 [this](std::int32_t level) { return ped.column(level - 1); });
}

std::vector<std::uint8_t> pedigree_type::getdescendants(std::span<const std::int32_t> list) const {
    const std::int32_t nani = number_of_animals(*this);
    const offspring_lists lists(ped, nani);
    return reach(nlength(), nani, list, [&](std::int32_t level) {
        return std::span<const std::int32_t>(lists.offspring.data() + lists.begin[level - 1],
                                             lists.offspring.data() + lists.begin[level]);
    });
}

void pedigree_type::compute_pa(matrix_view<double> x, std::span<std::int32_t> flag, logger& log) const {
    assert(x.rows >= nlength() && std::ssize(flag) >= nlength());
    const pedigree_order order = getorder(log);
    for (const std::int32_t level : order.neworder) {
        if (flag[level - 1] != 0) continue;
        for (std::int64_t c = 0; c < x.cols; ++c) {
            double sum = 0.0;
            for (const std::int32_t parent : ped.column(level - 1))
                if (parent != 0) sum += 0.5 * x(parent - 1, c);
            x(level - 1, c) = sum;
        }
        flag[level - 1] = -1;
    }
}

}  // namespace zendar
