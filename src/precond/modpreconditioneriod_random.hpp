#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "modpreconditioneriod_detail.hpp"

/// The random part: every kind of effect offers its contributions to one of three sinks, one for each form of
/// the preconditioner. A contribution is `factor` times the inverse covariance block of the group, at a level
/// or at a pair of levels. A new kind is a function template over the sink and a row of the table in
/// modpreconditioneriod_random.cpp.
namespace zendar::modpreconditioneriod {

/// `_d`: the diagonals of the group's effects.
class diagonal_sink {
  public:
    static constexpr bool pairs = false;                  ///< takes pairs of different levels
    static constexpr bool levels_are_independent = true;  ///< different levels may be added to at once

    diagonal_sink(const effect_group& group, std::span<mija> mija_global, const param_type& param) {
        std::size_t i = 0;
        for (std::int32_t e = group.effect; e < group.effect + group.nmember; ++e)
            for (std::int64_t k = 0; k < equations_of_level(param, e); ++k, ++i)
                if (const double value =
                        group.ginv(static_cast<std::int64_t>(i), static_cast<std::int64_t>(i));
                    value != 0.0)
                    entries_.push_back(
                        {mija_global[e - 1].mat.data() + (group.equation[i] - param.sumequation[e]),
                         group.stride[i], value});
    }
    void add(std::int64_t level, double factor) const {
        if (factor == 0.0) return;
        for (const entry& q : entries_) {
            float& sum = q.first[level * q.stride];
            sum = static_cast<float>(static_cast<double>(sum) + factor * q.value);
        }
    }

  private:
    struct entry {
        float* first;
        std::int64_t stride;
        double value;
    };
    std::vector<entry> entries_;
};

/// `_b`: the blocks per level of the group.
class block_sink {
  public:
    static constexpr bool pairs = false;
    static constexpr bool levels_are_independent = true;

    block_sink(const effect_group& group, mija& part) : block_(part.block.data()), size_(packed_size(part)) {
        for (std::int64_t k = 0; k < group.order(); ++k)
            for (std::int64_t i = 0; i <= k; ++i)
                if (group.ginv(i, k) != 0.0) entries_.push_back({packed(i, k), group.ginv(i, k)});
    }
    void add(std::int64_t level, double factor) const {
        if (factor == 0.0) return;
        float* const block = block_ + level * size_;
        for (const entry& q : entries_)
            block[q.place] = static_cast<float>(static_cast<double>(block[q.place]) + factor * q.value);
    }

  private:
    struct entry {
        std::int64_t place;
        double value;
    };
    float* block_;
    std::int64_t size_;
    std::vector<entry> entries_;
};

/// `_s`: the matrix of a group of effects, in a hash table or dense. `Target` has add(row, column, value),
/// row <= column, both from 1 within the group.
template <class Target>
class matrix_sink {
  public:
    static constexpr bool pairs = true;
    static constexpr bool levels_are_independent = false;

    matrix_sink(const effect_group& group, std::int32_t first, Target& target)
        : group_(group), first_(first), target_(target) {}

    void add(std::int64_t level, double factor) const {
        if (factor == 0.0) return;
        for (std::int64_t k = 0; k < group_.order(); ++k)
            for (std::int64_t i = 0; i <= k; ++i) add_element(i, level, k, level, factor);
    }
    /// The block of two different levels; each pair of levels is offered in one order only.
    void add(std::int64_t level1, std::int64_t level2, double factor) const {
        if (factor == 0.0) return;
        for (std::int64_t k = 0; k < group_.order(); ++k)
            for (std::int64_t i = 0; i < group_.order(); ++i) add_element(i, level1, k, level2, factor);
    }

  private:
    void add_element(std::int64_t i, std::int64_t level1, std::int64_t k, std::int64_t level2,
                     double factor) const {
        const double value = factor * group_.ginv(i, k);
        if (value == 0.0) return;
        const auto a = static_cast<std::int32_t>(group_.at(i, level1) + 2 - first_);
        const auto b = static_cast<std::int32_t>(group_.at(k, level2) + 2 - first_);
        target_.add(std::min(a, b), std::max(a, b), value);
    }

    const effect_group& group_;
    std::int64_t first_;
    Target& target_;
};

/// The lower triangle of a dense matrix as a target.
class dense_target {
  public:
    explicit dense_target(matrix<double>& dense) : dense_(dense) {}
    void add(std::int32_t row, std::int32_t col, double value) { dense_(col - 1, row - 1) += value; }

  private:
    matrix<double>& dense_;
};

/// Hands the sink of a group's structure code to `contribute`.
/// @param procedure  named in the message of an unknown code.
template <class Contribute>
void add_to_preconditioner(const precond_input& in, const effect_group& group, std::span<mija> mija_global,
                           cootmp_type& cootmp, std::string_view procedure, logger& log,
                           Contribute&& contribute) {
    for (std::int32_t e = group.effect; e < group.effect + group.nmember; ++e)
        if (mija_global[e - 1].type == precond_none) unknown_code(precond_none, procedure, log);
    const std::int32_t opener = opener_of(mija_global, group.effect);
    mija& part = mija_global[opener - 1];
    switch (part.type) {
        case precond_diagonal:
            contribute(diagonal_sink(group, mija_global, in.param));
            break;
        case precond_block:
            contribute(block_sink(group, part));
            break;
        case precond_dense: {
            dense_target target(part.dense);
            contribute(matrix_sink(group, part.first, target));
            break;
        }
        case precond_sparse:
        case precond_auto:
        case precond_reorder:
            contribute(matrix_sink(group, part.first, cootmp[opener - 1]));
            break;
        default:
            unknown_code(part.type, procedure, log);
    }
}

/// What the table of random types calls.
struct random_context {
    const precond_input& in;
    std::span<mija> mija_global;
    cootmp_type& cootmp;
    logger& log;
};

/// The random part of all huge effects.
void addrandompart_huge_to_preconditioner(const random_context& context);
void addrandompart_eff_dia_to_preconditioner(const random_context& context, const effect_group& group);
void addrandompart_externalmat_to_preconditioner(const random_context& context, const effect_group& group);
void addrandompart_eff_ani_inb_to_preconditioner(const random_context& context, const effect_group& group);
void addrandompart_eff_ani_upg_inb_to_preconditioner(const random_context& context,
                                                     const effect_group& group);
void addrandompart_eff_ani_rupg_inb_to_preconditioner(const random_context& context,
                                                      const effect_group& group);
void addrandompart_eff_ani_inb_meta_to_preconditioner(const random_context& context,
                                                      const effect_group& group);
/// An external matrix among some levels of a group.
void addrandompart_external_to_preconditioner(const random_context& context, const effect_group& group,
                                              modmmeiod::external_term& term);
/// A matrix between the levels of a group, given by its upper triangle.
void add_relationship_matrix(const random_context& context, const effect_group& group,
                             const crssparse& matrix, std::string_view procedure);

/// One row per random type that is implemented.
struct random_addition {
    std::int32_t type_random;
    std::string_view text;  ///< logged first, with the effect behind it; empty for none
    /// Null for a type that adds nothing.
    void (*add)(const random_context& context, const effect_group& group);
};

/// The row of a random type.
/// @throws fatal_error  when there is none.
[[nodiscard]] const random_addition& find_random_addition(std::int32_t type_random, logger& log);

}  // namespace zendar::modpreconditioneriod
