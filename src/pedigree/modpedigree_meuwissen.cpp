#include <algorithm>
#include <cassert>
#include <cstddef>
#include <vector>

#include "modpedigree_detail.hpp"

namespace zendar::detail {

namespace {

/// Shares below this one add nothing to a sum of order 1, and nothing is passed on: all that could be left
/// out together is many orders of magnitude below the rounding of the sum. It also keeps shares of long
/// lines away from 0, which stands for an ancestor that is not pending.
constexpr double negligible = 1e-100;

/// The pending ancestors of one animal with their shares in it.
class pending_ancestors {
  public:
    explicit pending_ancestors(const parent_table& table)
        : records_(table.records.data()),
          lists_(table),
          shares_(table.records.size()),
          share_(shares_.data()) {
        share_[0] = 1.0;  // so that an unknown parent never becomes pending
    }

    void add(std::int32_t record, std::int32_t generation, double share) {
        double& sum = share_[record];
        if (sum == 0.0) {
            lists_.push(generation, record);
            __builtin_prefetch(&records_[record]);
        }
        sum += share;
    }

    /// Takes a generation off, whose parents get their shares. @returns the sum of share * share * d.
    double pass_on(std::int32_t generation) {
        double sum = 0.0;
        const std::span<const std::int32_t> list = lists_[generation];
        for (std::size_t k = 0; k < std::min(ahead, list.size()); ++k) prefetch_parents(list[k]);
        for (std::size_t k = 0; k < list.size(); ++k) {
            if (k + ahead < list.size()) prefetch_parents(list[k + ahead]);
            const parent_record& from = records_[list[k]];
            const double share = take(list[k]), half = 0.5 * share;
            sum += share * (share * from.d);
            if (half < negligible) continue;
            add(from.parents[0], from.of_generations[0], half);
            add(from.parents[1], from.of_generations[1], half);
        }
        lists_.clear(generation);
        return sum;
    }

    /// The same for the oldest generation, whose variances are 1.
    double finish() {
        double sum = 0.0;
        for (const std::int32_t j : lists_[0]) {
            const double share = take(j);
            sum += share * share;
        }
        lists_.clear(0);
        return sum;
    }
    /// The same for metafounders, which are related.
    double finish(matrix_view<const double> metarel) {
        double sum = 0.0;
        for (const std::int32_t i : lists_[0]) {
            double off = 0.0;
            for (const std::int32_t j : lists_[0])
                if (j < i) off += share_[j] * metarel(i - 1, j - 1);
            sum += share_[i] * (2.0 * off + share_[i] * metarel(i - 1, i - 1));
        }
        for (const std::int32_t i : lists_[0]) share_[i] = 0.0;
        lists_.clear(0);
        return sum;
    }

  private:
    static constexpr std::size_t ahead = 16;

    void prefetch_parents(std::int32_t record) const {
        for (const std::int32_t parent : records_[record].parents) __builtin_prefetch(&share_[parent], 1);
    }

    double take(std::int32_t record) {
        const double share = share_[record];
        share_[record] = 0.0;
        return share;
    }

    const parent_record* records_;
    generation_lists lists_;
    page_array<double> shares_;
    double* share_;  // [record]; 0: not pending
};

/// One animal with two known parents, `d` its own Mendelian sampling variance.
template <bool meta>
double meuwluo(const parent_table& table, pending_ancestors& pending, std::int32_t sire, std::int32_t dam,
               double d, matrix_view<const double> metarel) {
    const std::int32_t of_sire = table.records.data()[sire].generation,
                       of_dam = table.records.data()[dam].generation;
    double acc = d - 1.0;  // its own share is 1
    pending.add(sire, of_sire, 0.5);
    pending.add(dam, of_dam, 0.5);
    for (std::int32_t g = std::max(of_sire, of_dam); g > 0; --g) acc += pending.pass_on(g);
    if constexpr (meta)
        return acc + pending.finish(metarel);
    else
        return acc + pending.finish();
}

template <bool meta>
void compute(matrix_view<const std::int32_t> tped, std::int32_t nupg, matrix_view<const double> metarel,
             std::span<double> f, inbreeding_progress& progress) {
    const auto n = static_cast<std::int32_t>(tped.cols);
    assert(std::ssize(f) == std::int64_t{n} + 1);
    parent_table table = make_parent_table(tped, meta ? nupg : 0);
    pending_ancestors pending(table);
    std::ranges::fill(f, 0.0);
    f[0] = -1.0;
    if constexpr (meta)
        for (std::int32_t m = 1; m <= nupg; ++m) f[m] = metarel(m - 1, m - 1) - 1.0;

    std::int32_t last_sire = 0, last_dam = 0;
    double last_f = 0.0;
    for (std::int32_t i = nupg + 1; i <= n; ++i) {
        progress.treated(i);
        const std::int32_t s = tped(0, i - 1), d = tped(1, i - 1);
        const double variance = sampling_variance(f[s], f[d]);
        if (const std::int32_t record = table.record_of[i]; record != 0)
            table.records.data()[record].d = variance;
        if (s == 0 || d == 0) continue;
        if (s != last_sire || d != last_dam) {  // else full sibs
            last_f = meuwluo<meta>(table, pending, table.record_of[s], table.record_of[d], variance, metarel);
            last_sire = s;
            last_dam = d;
        }
        f[i] = last_f;
    }
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
