#pragma once

#include <cstdint>
#include <vector>

#include "modpedigree_detail.hpp"
#include "modsparse_pages.hpp"
#include "modview.hpp"

/// What the sources of polyploid pedigrees share; nobody else includes this.
namespace zendar::detail {

/// Coancestries of pairs of animals, from old to young, by tracing the paths from both to all of their
/// ancestors.
///
/// The decomposition K = T D T' of Quaas (1976), Biometrics 32:949-953, holds for gene copies of any number,
/// with the shares of both parents in the rows of T and the Mendelian sampling variances in D. So K(s,d) is
/// the sum over the common ancestors of the product of their shares in s and in d with their variance, and
/// exactly 0 when there are none. The shares are traced as in `compute_f_meuwissen_and_luo`, those in s and
/// in d side by side.
///
/// O(number of ancestors of both) time a pair; 4 bytes an animal and 72 a parent of work space.
/// Single-threaded.
class coancestry_walk {
  public:
    /// @param tped  2 x n, parents by position in the order from old to young; 0 = unknown.
    explicit coancestry_walk(matrix_view<const std::int32_t> tped);

    /// Tells of an animal, which has to be known before its descendants are asked for: the share of its
    /// sire's copies among its own, and its Mendelian sampling variance, of coancestries.
    void add(std::int32_t position, double of_sire, double variance);

    /// K of two different animals that have offspring and are known with all of their ancestors.
    [[nodiscard]] double coancestry(std::int32_t sire, std::int32_t dam);

  private:
    struct pair_of_shares {
        double in_sire, in_dam;
        [[nodiscard]] bool any() const { return in_sire != 0.0 || in_dam != 0.0; }
    };

    /// What is known of an animal with offspring, in 32 bytes: no two cache lines in a big array.
    struct ancestor {
        double d;        ///< its Mendelian sampling variance
        double of_sire;  ///< the share of its sire; that of its dam is the rest
        std::int32_t parents[2];
        std::int32_t of_generations[2];

        [[nodiscard]] std::int32_t generation() const;
    };
    static_assert(sizeof(ancestor) == 32);

    explicit coancestry_walk(parent_table&& table);
    void pend(std::int32_t record, std::int32_t generation, pair_of_shares shares);
    void prefetch_parents(std::int32_t record) const;
    pair_of_shares take(std::int32_t record);
    double pass_on(std::int32_t generation);
    double finish();

    std::vector<std::int32_t> record_of_;  // [position]: 0 for animals without offspring
    generation_lists lists_;
    page_array<ancestor> ancestors_;    // [record]
    page_array<pair_of_shares> share_;  // [record]: its shares in the two animals; none: not pending
};

}  // namespace zendar::detail
