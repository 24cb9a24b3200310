#include <algorithm>
#include <cassert>
#include <span>
#include <utility>

#include "modpedigree_ploidy_detail.hpp"

namespace zendar::detail {

namespace {

/// Shares below this one count for nothing: all that could be left out together is many orders of magnitude
/// below the rounding of the sum. No product of two others is lost.
constexpr double negligible = 1e-100;

double above_negligible(double share) {
    return share < negligible ? 0.0 : share;
}

}  // namespace

std::int32_t coancestry_walk::ancestor::generation() const {
    const bool founder = parents[0] == 0 && parents[1] == 0;
    return founder ? 0 : 1 + std::max(of_generations[0], of_generations[1]);
}

coancestry_walk::coancestry_walk(matrix_view<const std::int32_t> tped)
    : coancestry_walk(make_parent_table(tped, 0)) {}

coancestry_walk::coancestry_walk(parent_table&& table)
    : record_of_(std::move(table.record_of)),
      lists_(table),
      ancestors_(table.records.size()),
      share_(table.records.size()) {
    for (std::int64_t j = 0; j < table.records.size(); ++j) {
        const parent_record& from = table.records.data()[j];
        ancestor& to = ancestors_.data()[j];
        std::ranges::copy(from.parents, to.parents);
        std::ranges::copy(from.of_generations, to.of_generations);
    }
    share_.data()[0] = {1.0, 1.0};  // so that an unknown parent never becomes pending
}

void coancestry_walk::add(std::int32_t position, double of_sire, double variance) {
    const std::int32_t record = record_of_[position];
    if (record == 0) return;
    ancestors_.data()[record].d = variance;
    ancestors_.data()[record].of_sire = of_sire;
}

inline void coancestry_walk::pend(std::int32_t record, std::int32_t generation, pair_of_shares shares) {
    pair_of_shares& sum = share_.data()[record];
    if (!sum.any()) {
        if (!shares.any()) return;
        lists_.push(generation, record);
        __builtin_prefetch(&ancestors_.data()[record]);
    }
    sum.in_sire += shares.in_sire;
    sum.in_dam += shares.in_dam;
}

inline void coancestry_walk::prefetch_parents(std::int32_t record) const {
    for (const std::int32_t parent : ancestors_.data()[record].parents)
        __builtin_prefetch(&share_.data()[parent], 1);
}

inline coancestry_walk::pair_of_shares coancestry_walk::take(std::int32_t record) {
    const pair_of_shares shares = share_.data()[record];
    share_.data()[record] = {};
    return shares;
}

/// Takes a generation off, whose parents get their shares. @returns its part of the sum.
double coancestry_walk::pass_on(std::int32_t generation) {
    constexpr std::size_t ahead = 16;
    double sum = 0.0;
    const std::span<const std::int32_t> list = lists_[generation];
    for (std::size_t k = 0; k < std::min(ahead, list.size()); ++k) prefetch_parents(list[k]);
    for (std::size_t k = 0; k < list.size(); ++k) {
        if (k + ahead < list.size()) prefetch_parents(list[k + ahead]);
        const ancestor& from = ancestors_.data()[list[k]];
        const pair_of_shares shares = take(list[k]);
        sum += shares.in_sire * (shares.in_dam * from.d);
        const double of_dam = 1.0 - from.of_sire;
        pend(from.parents[0], from.of_generations[0],
             {above_negligible(from.of_sire * shares.in_sire),
              above_negligible(from.of_sire * shares.in_dam)});
        pend(from.parents[1], from.of_generations[1],
             {above_negligible(of_dam * shares.in_sire), above_negligible(of_dam * shares.in_dam)});
    }
    lists_.clear(generation);
    return sum;
}

/// The same for the oldest generation, which has no parents.
double coancestry_walk::finish() {
    double sum = 0.0;
    for (const std::int32_t j : lists_[0]) {
        const pair_of_shares shares = take(j);
        sum += shares.in_sire * (shares.in_dam * ancestors_.data()[j].d);
    }
    lists_.clear(0);
    return sum;
}

double coancestry_walk::coancestry(std::int32_t sire, std::int32_t dam) {
    assert(sire != dam);
    const std::int32_t s = record_of_[sire], d = record_of_[dam];
    assert(s > 0 && d > 0);
    const std::int32_t of_sire = ancestors_.data()[s].generation(),
                       of_dam = ancestors_.data()[d].generation();
    pend(s, of_sire, {1.0, 0.0});
    pend(d, of_dam, {0.0, 1.0});
    double sum = 0.0;
    for (std::int32_t g = std::max(of_sire, of_dam); g > 0; --g) sum += pass_on(g);
    return sum + finish();
}

}  // namespace zendar::detail
