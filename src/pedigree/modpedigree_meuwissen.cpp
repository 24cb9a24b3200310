#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <limits>
#include <numeric>
#include <utility>
#include <vector>

#include "modpedigree_detail.hpp"

namespace zendar::detail {

namespace {

/// Shares below this one add nothing to a sum of order 1, and nothing is passed on: all that could be left
/// out together is many orders of magnitude below the rounding of the sum. It also keeps shares of long
/// lines away from 0, which stands for an ancestor that is not pending.
constexpr double negligible = 1e-100;

/// Animals of one generation are traced together, a few at a time: an ancestor of several of them is visited
/// once for all. They come by sires, so that most of these ancestors are common ones.
struct shares {
    static constexpr std::size_t nlane = 4;
    using half = double __attribute__((vector_size(16)));
    half low{}, high{};

    /// @pre No share is below 0.
    [[nodiscard]] bool all_below(double limit) const {
        const half most = low + high;
        return most[0] < limit && most[1] < limit;
    }
    [[nodiscard]] bool none() const { return all_below(std::numeric_limits<double>::denorm_min()); }
    [[nodiscard]] double operator[](std::size_t lane) const { return lane < 2 ? low[lane] : high[lane - 2]; }
    void set(std::size_t lane, double share) {
        if (lane < 2)
            low[lane] = share;
        else
            high[lane - 2] = share;
    }
    void operator+=(const shares& other) {
        low += other.low;
        high += other.high;
    }
    void operator*=(double factor) {
        low *= factor;
        high *= factor;
    }
    /// Adds own * own * d.
    void add_squares(const shares& own, double d) {
        low += own.low * (own.low * d);
        high += own.high * (own.high * d);
    }
};
constexpr std::size_t nlane = shares::nlane;

/// A visit takes one cache line.
struct ancestor {
    parent_record known;
    shares share;  // all 0: not pending
};
static_assert(sizeof(ancestor) == 64);

/// The pending ancestors of a few animals with their shares in these.
class pending_ancestors {
  public:
    explicit pending_ancestors(const parent_table& table)
        : lists_(table), all_(table.records.size()), ancestor_(all_.data()) {
        for (std::int64_t record = 0; record < all_.size(); ++record)
            ancestor_[record].known = table.records.data()[record];
        ancestor_[0].share.set(0, 1.0);  // so that an unknown parent never becomes pending
    }
    void set_variance(std::int32_t record, double d) { ancestor_[record].known.d = d; }

    void add(std::int32_t record, std::int32_t generation, const shares& more) {
        shares& sum = ancestor_[record].share;
        if (sum.none()) lists_.push(generation, record);
        sum += more;
    }
    void add(std::int32_t record, std::size_t lane, double share) {
        shares more;
        more.set(lane, share);
        add(record, ancestor_[record].known.generation, more);
    }

    /// Takes a generation off, whose parents get their shares, and adds share * share * d to `sum`.
    void pass_on(std::int32_t generation, shares& sum) {
        const std::span<const std::int32_t> list = lists_[generation];
        for (std::size_t k = 0; k < std::min(ahead, list.size()); ++k) prefetch_parents(list[k]);
        for (std::size_t k = 0; k < list.size(); ++k) {
            if (k + ahead < list.size()) prefetch_parents(list[k + ahead]);
            const parent_record& from = ancestor_[list[k]].known;
            shares share = std::exchange(ancestor_[list[k]].share, shares());
            sum.add_squares(share, from.d);
            share *= 0.5;
            if (share.all_below(negligible)) continue;
            add(from.parents[0], from.of_generations[0], share);
            add(from.parents[1], from.of_generations[1], share);
        }
        lists_.clear(generation);
    }

    /// The same for the oldest generation, whose variances are 1.
    void finish(shares& sum) {
        for (const std::int32_t j : lists_[0]) {
            const shares own = std::exchange(ancestor_[j].share, shares());
            sum.add_squares(own, 1.0);
        }
        lists_.clear(0);
    }
    /// The same for metafounders, which are related.
    void finish(matrix_view<const double> metarel, shares& sum) {
        for (const std::int32_t i : lists_[0]) {
            const shares& own = ancestor_[i].share;
            for (std::size_t lane = 0; lane < nlane; ++lane) {
                double off = 0.0;
                for (const std::int32_t j : lists_[0])
                    if (j < i) off += ancestor_[j].share[lane] * metarel(i - 1, j - 1);
                sum.set(lane, sum[lane] + own[lane] * (2.0 * off + own[lane] * metarel(i - 1, i - 1)));
            }
        }
        for (const std::int32_t i : lists_[0]) ancestor_[i].share = shares();
        lists_.clear(0);
    }

  private:
    static constexpr std::size_t ahead = 16;

    void prefetch_parents(std::int32_t record) const {
        for (const std::int32_t parent : ancestor_[record].known.parents)
            __builtin_prefetch(&ancestor_[parent], 1);
    }

    generation_lists lists_;
    page_array<ancestor> all_;
    ancestor* ancestor_;  // [record]
};

/// All animals: by generation, within it by sire, then by dam.
struct sorted_animals {
    std::vector<std::int32_t> positions;
    std::vector<std::int32_t> end;  ///< [generation]

    sorted_animals(matrix_view<const std::int32_t> tped, const parent_table& table, std::int32_t nupg)
        : positions(static_cast<std::size_t>(tped.cols - nupg)), from_(positions.size()) {
        std::iota(positions.begin(), positions.end(), nupg + 1);
        const std::int64_t nrecord = table.records.size();
        const auto record_of_parent = [&](std::int32_t i, std::int64_t p) {
            return table.record_of[tped(p, i - 1)];
        };
        sort_by(nrecord, [&](std::int32_t i) { return record_of_parent(i, 1); });
        sort_by(nrecord, [&](std::int32_t i) { return record_of_parent(i, 0); });
        const auto generation_of = [&](std::int32_t record) {
            return record == 0 ? -1 : table.records.data()[record].generation;
        };
        sort_by(std::ssize(table.begin), [&](std::int32_t i) {
            return 1 + std::max(generation_of(record_of_parent(i, 0)), generation_of(record_of_parent(i, 1)));
        });
        from_ = {};
    }

  private:
    /// Leaves the end of each key's range in `end`.
    template <class Key>
    void sort_by(std::int64_t nkey, const Key& key) {
        end.assign(static_cast<std::size_t>(nkey) + 1, 0);
        for (const std::int32_t i : positions) ++end[key(i) + 1];
        std::partial_sum(end.begin(), end.end(), end.begin());
        positions.swap(from_);
        for (const std::int32_t i : from_) positions[end[key(i)]++] = i;
        end.pop_back();
    }

    std::vector<std::int32_t> from_;
};

/// Full sibs of one generation: a range of the sorted animals.
struct family {
    std::size_t begin = 0, end = 0;
};

template <bool meta>
void compute(matrix_view<const std::int32_t> tped, std::int32_t nupg, matrix_view<const double> metarel,
             std::span<double> f, inbreeding_progress& progress) {
    assert(std::ssize(f) == tped.cols + 1);
    parent_table table = make_parent_table(tped, meta ? nupg : 0);
    const sorted_animals animals(tped, table, nupg);
    const std::vector<std::int32_t>& sorted = animals.positions;
    pending_ancestors pending(table);
    table.records.clear();
    std::ranges::fill(f, 0.0);
    f[0] = -1.0;
    if constexpr (meta)
        for (std::int32_t m = 1; m <= nupg; ++m) f[m] = metarel(m - 1, m - 1) - 1.0;

    std::array<family, nlane> traced;  // together, all of one generation
    std::size_t ntraced = 0;
    std::int32_t generation = 0;
    shares sum;
    constexpr std::size_t ahead = 8;
    const auto trace = [&] {
        for (std::int32_t g = generation - 1; g > 0; --g) pending.pass_on(g, sum);
        if constexpr (meta)
            pending.finish(metarel, sum);
        else
            pending.finish(sum);
        for (std::size_t lane = 0; lane < ntraced; ++lane)
            for (std::size_t k = traced[lane].begin; k < traced[lane].end; ++k) f[sorted[k]] = sum[lane];
        ntraced = 0;
    };
    std::int32_t treated = nupg;
    for (family sibs; sibs.begin < sorted.size(); sibs.begin = sibs.end) {
        const std::int32_t first = sorted[sibs.begin], s = tped(0, first - 1), d = tped(1, first - 1);
        const bool next_generation = std::cmp_greater_equal(sibs.begin, animals.end[generation]);
        if (ntraced > 0 && (ntraced == nlane || next_generation)) trace();
        while (std::cmp_greater_equal(sibs.begin, animals.end[generation])) ++generation;
        if (sibs.begin + 2 * ahead < sorted.size()) {
            const std::int32_t later = sorted[sibs.begin + 2 * ahead];
            __builtin_prefetch(&tped(0, later - 1));
            __builtin_prefetch(&table.record_of[later]);
            const std::int32_t dam = tped(1, sorted[sibs.begin + ahead] - 1);
            __builtin_prefetch(&f[dam]);
            __builtin_prefetch(&table.record_of[dam]);
        }
        const double variance = sampling_variance(f[s], f[d]);
        for (sibs.end = sibs.begin; sibs.end < sorted.size(); ++sibs.end) {
            const std::int32_t i = sorted[sibs.end];
            if (tped(0, i - 1) != s || tped(1, i - 1) != d) break;
            progress.treated(++treated);
            if (const std::int32_t record = table.record_of[i]; record != 0)
                pending.set_variance(record, variance);
        }
        if (s == 0 || d == 0) continue;
        pending.add(table.record_of[s], ntraced, 0.5);
        pending.add(table.record_of[d], ntraced, 0.5);
        sum.set(ntraced, variance - 1.0);  // the share of an animal in itself is 1
        traced[ntraced++] = sibs;
    }
    if (ntraced > 0) trace();
    f[0] = 0.0;
}

}  // namespace

void compute_f_meuwissen_and_luo(matrix_view<std::int32_t> tped, std::int32_t nupg, std::span<double> f,
                                 inbreeding_progress& progress) {
    forget_groups(tped, nupg);
    compute<false>(tped, nupg, {}, f, progress);
}

void compute_f_meuwissen_and_luo_meta(matrix_view<std::int32_t> tped, std::int32_t nupg,
                                      matrix_view<const double> metarel, std::span<double> f,
                                      inbreeding_progress& progress) {
    compute<true>(tped, nupg, metarel, f, progress);
}

}  // namespace zendar::detail
