#include <algorithm>
#include <cassert>
#include <cstddef>
#include <vector>

#include "modpedigree_detail.hpp"

namespace zendar::detail {

namespace {

/// Animals in ascending order of their sires, those of one sire by position; unknown sires come first.
std::vector<std::int32_t> sort_by_sire(matrix_view<const std::int32_t> tped, std::int32_t nupg) {
    const auto n = static_cast<std::int32_t>(tped.cols);
    std::vector<std::int32_t> begin(static_cast<std::size_t>(n) + 2, 0);
    for (std::int32_t i = nupg + 1; i <= n; ++i) ++begin[tped(0, i - 1) + 1];
    for (std::int32_t s = 0; s <= n; ++s) begin[s + 1] += begin[s];
    std::vector<std::int32_t> sorted(static_cast<std::size_t>(n - nupg));
    for (std::int32_t i = nupg + 1; i <= n; ++i) sorted[begin[tped(0, i - 1)]++] = i;
    return sorted;
}

/// Relationships of one sire after the other with its mates.
template <bool meta>
class mate_relationships {
  public:
    mate_relationships(const parent_table& table, matrix_view<const double> metarel)
        : records_(table.records.data()),
          lists_(table),
          listed_(static_cast<std::size_t>(table.records.size()), 0),
          values_(table.records.size()),
          l_(values_.data()),
          metarel_(metarel) {
        listed_[0] = 1;
    }

    /// Makes the relationships of `sire` with `mates` (records; 0 for an unknown one).
    void set_up(std::int32_t sire, std::span<const std::int32_t> mates) {
        highest_ = records_[sire].generation;
        list(sire, highest_);
        l_[sire] = 1.0;
        for (const std::int32_t mate : mates) {
            const std::int32_t generation = records_[mate].generation;
            if (generation > 0) list(mate, generation);
            highest_ = std::max(highest_, generation);
        }
        for (std::int32_t g = highest_; g > 0; --g) to_parents(g);
        l_[0] = 0.0;
        if constexpr (meta) relate_metafounders();
        for (std::int32_t g = 1; g <= highest_; ++g) to_offspring(g);
    }
    [[nodiscard]] double operator()(std::int32_t mate) const { return l_[mate]; }

    void reset() {
        for (std::int32_t g = 0; g <= highest_; ++g) {
            for (const std::int32_t j : lists_[g]) {
                l_[j] = 0.0;
                listed_[j] = 0;
            }
            lists_.clear(g);
        }
        if constexpr (meta) std::fill_n(l_, metarel_.rows + 1, 0.0);
    }

  private:
    static constexpr std::size_t ahead = 8;

    void list(std::int32_t record, std::int32_t generation) {
        if (listed_[record] != 0) return;
        listed_[record] = 1;
        lists_.push(generation, record);
        __builtin_prefetch(&records_[record]);
    }
    void prefetch_parents(const parent_record& of) const {
        for (const std::int32_t parent : of.parents) __builtin_prefetch(&l_[parent], 1);
    }

    /// Shares of ancestors in the sire, times their Mendelian sampling variances, which are 1 in the oldest
    /// generation. Ancestors of mates are listed on the way; those of the oldest generation stay 0 without
    /// it.
    void to_parents(std::int32_t generation) {
        const std::span<const std::int32_t> listed = lists_[generation];
        for (std::size_t k = 0; k < listed.size(); ++k) {
            if (k + ahead < listed.size()) prefetch_parents(records_[listed[k + ahead]]);
            const std::int32_t j = listed[k];
            const parent_record& from = records_[j];
            const double share = l_[j], half = 0.5 * share;
            for (std::int64_t p = 0; p < 2; ++p) {
                const std::int32_t parent = from.parents[p];
                if (share != 0.0) l_[parent] += half;
                if (share != 0.0 || from.of_generations[p] > 0) list(parent, from.of_generations[p]);
            }
            l_[j] = share * from.d;
        }
    }
    void to_offspring(std::int32_t generation) {
        const std::span<const std::int32_t> listed = lists_[generation];
        for (std::size_t k = 0; k < listed.size(); ++k) {
            if (k + ahead < listed.size()) prefetch_parents(records_[listed[k + ahead]]);
            const std::int32_t j = listed[k];
            const parent_record& to = records_[j];
            l_[j] += 0.5 * (l_[to.parents[0]] + l_[to.parents[1]]);
        }
    }
    void relate_metafounders() {
        std::vector<double>& related = of_metafounders_;
        related.assign(static_cast<std::size_t>(metarel_.rows), 0.0);
        for (const std::int32_t record : lists_[0]) {
            const std::int64_t j = record - 1;
            for (std::int64_t i = 0; i < metarel_.rows; ++i)
                related[i] += l_[record] * metarel_(std::max(i, j), std::min(i, j));
        }
        std::ranges::copy(related, l_ + 1);
    }

    const parent_record* records_;
    generation_lists lists_;
    std::vector<std::uint8_t> listed_;  // [record]
    page_array<double> values_;
    double* l_;  // [record]: share in the sire, then relationship with it
    matrix_view<const double> metarel_;
    std::vector<double> of_metafounders_;
    std::int32_t highest_ = 0;  // the youngest generation in use
};

template <bool meta>
void compute(matrix_view<const std::int32_t> tped, std::int32_t nupg, matrix_view<const double> metarel,
             std::span<double> f, inbreeding_progress& progress) {
    assert(std::ssize(f) == tped.cols + 1);
    parent_table table = make_parent_table(tped, meta ? nupg : 0);
    mate_relationships<meta> related(table, metarel);
    const std::vector<std::int32_t> sorted = sort_by_sire(tped, nupg);
    std::ranges::fill(f, 0.0);
    f[0] = -1.0;
    if constexpr (meta)
        for (std::int32_t m = 1; m <= nupg; ++m) f[m] = metarel(m - 1, m - 1) - 1.0;

    std::int32_t treated = nupg, with_variance = nupg;
    std::vector<std::int32_t> mates;
    for (std::size_t at = 0; at < sorted.size();) {
        const std::int32_t sire = tped(0, sorted[at] - 1);
        const std::size_t begin = at;
        for (mates.clear(); at < sorted.size() && tped(0, sorted[at] - 1) == sire; ++at) {
            progress.treated(++treated);
            if (sire != 0) mates.push_back(table.record_of[tped(1, sorted[at] - 1)]);
        }
        if (sire == 0) continue;
        // The coefficients of all parents of these are known, as these parents' own sires stand before
        // `sire`.
        for (; with_variance < sire; ++with_variance)
            if (const std::int32_t record = table.record_of[with_variance + 1]; record != 0)
                table.records.data()[record].d =
                    sampling_variance(f[tped(0, with_variance)], f[tped(1, with_variance)]);
        related.set_up(table.record_of[sire], mates);
        for (std::size_t k = begin; k < at; ++k) f[sorted[k]] = 0.5 * related(mates[k - begin]);
        related.reset();
    }
    f[0] = 0.0;
}

}  // namespace

void compute_f_sargolzaei_etal(matrix_view<std::int32_t> tped, std::int32_t nupg, std::span<double> f,
                               inbreeding_progress& progress) {
    forget_groups(tped, nupg);
    compute<false>(tped, nupg, {}, f, progress);
}

void compute_f_sargolzaei_etal_meta(matrix_view<std::int32_t> tped, std::int32_t nupg,
                                    matrix_view<const double> metarel, std::span<double> f,
                                    inbreeding_progress& progress) {
    compute<true>(tped, nupg, metarel, f, progress);
}

}  // namespace zendar::detail
