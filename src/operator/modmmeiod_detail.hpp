#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "modmmeiod.hpp"

/// The record step, shared by the sources of modmmeiod.
namespace zendar::modmmeiod {

inline constexpr double coefficient_one = 1.0;

/// How the records of one effect are read: which equations a record has in it, and with which coefficients.
/// A huge effect is read like a class effect whose levels are the rows of its coefficients: its "equations"
/// are the elements of `sumestimates` and `res_edhc`, and the coefficients come in by products with whole
/// matrices.
struct record_term {
    std::int32_t effect = 0;       ///< from 1
    std::int32_t row = 0;          ///< of the levels, from 0
    std::int32_t nested_row = -1;  ///< of the nesting levels, from 0; -1 for none
    std::int32_t nx = 1;           ///< coefficients of a record
    bool covariable = false;
    bool huge = false;
    std::size_t result =
        0;  ///< number of the vector that takes its sums: 0 is r, the others are of huge effects
    const double* x = nullptr;           ///< `sumestimates` of a huge effect; null: the vector itself
    bool all_traits = true;              ///< present for all traits
    std::int64_t first = 0;              ///< equations before the effect
    std::int64_t last = 0;               ///< equations up to the end of the effect
    std::int64_t stride = 0;             ///< equations of one (nesting) level
    std::span<const std::int32_t> rows;  ///< coefficient row of each level
    matrix_view<const double> value;     ///< nx x rows
    std::vector<double> mask;            ///< per trait: 1.0 where the effect is present, else 0.0
    std::vector<std::int32_t> slot;      ///< per trait: its slot, from 0

    /// The coefficients of a record and, in `equation`, the block they belong to (from 0); null when the
    /// record leaves the effect out.
    [[nodiscard]] const double* locate(const std::int32_t* levels, std::int64_t& equation) const {
        const std::int32_t level = levels[row];
        if (level < 1) return nullptr;
        if (!covariable) {
            equation = first + (std::int64_t{level} - 1) * stride;
            return &coefficient_one;
        }
        if (huge) {
            const std::int32_t r = static_cast<std::size_t>(level) <= rows.size() ? rows[level - 1] : 0;
            equation = (std::int64_t{r} - 1) * stride;
            return r < 1 ? nullptr : &coefficient_one;
        }
        equation = first;
        if (nested_row >= 0) {
            const std::int32_t nesting = levels[nested_row];
            if (nesting < 1) return nullptr;
            equation += (std::int64_t{nesting} - 1) * stride;
        }
        const std::int32_t r = static_cast<std::size_t>(level) <= rows.size() ? rows[level - 1] : 0;
        return r < 1 ? nullptr : value.data + (std::int64_t{r} - 1) * value.ld;
    }
};

/// The terms of all effects that records address. The huge effects among them, which are those with sums over
/// rows in `huge`, come behind the others.
[[nodiscard]] std::vector<record_term> make_record_terms(const param_type& param,
                                                         std::span<const covariable_type> cov,
                                                         std::span<const huge_effect> huge = {});

/// Everything that the record step reads.
struct record_input {
    std::int32_t ntrait = 0;
    matrix_view<const std::int32_t> effect;
    std::span<const std::int32_t> combi;
    matrix_view<const double> weight;  ///< ntrait x nrec, or empty
    const residual_table* rinv = nullptr;
    std::span<const record_term> terms;
    const double* x = nullptr;    ///< the vector (neq)
    matrix_view<const double> y;  ///< instead of the vector: the phenotypes, for the right-hand side
    bool lcombieff = false;
    bool wide = true;  ///< with the processor's vectors of four where it has them; the sums are the same
};

/// Where the sums of one term go: the array that holds equation `lo` (from 0) first.
struct scatter_target {
    double* data = nullptr;
    std::int64_t lo = 0;
};

/// Work arrays of one thread for a batch of records: the block of each record in each effect (from 0; -1 or
/// no coefficients where the record leaves the effect out), and the values of its traits.
struct record_scratch {
    explicit record_scratch(const record_input& in);
    std::vector<std::int64_t> equation;
    std::vector<const double*> coefficient;
    std::vector<double> v, w;

    /// A class effect whose blocks of the vector are asked for ahead of their use.
    struct far_blocks {
        std::int32_t row;  ///< of its levels
        const double* x;   ///< where the block of level 0 would lie
    };
    std::vector<far_blocks> ahead;
};

/// Adds Z' R^-1 Z x (or Z' R^-1 y, without a vector) of a stretch of records to the targets, one per term.
/// Allocates nothing.
void add_records(const record_input& in, record_block block, std::span<const scatter_target> targets,
                 record_scratch& scratch);

/// The stretches of `nblock` threads: equal ones, whose ends are moved on to where the level of the effect
/// with the most equations changes, so that sorted records leave each of its levels to one thread.
[[nodiscard]] std::vector<record_block> make_blocks(const record_input& in, std::int64_t nblock);

/// First and last equation (from 1) of each term in a stretch of records; lo = neq and hi = 0 for none.
struct equation_bounds {
    std::int64_t lo, hi;
};
void find_bounds(const record_input& in, record_block block, std::int64_t neq,
                 std::span<equation_bounds> bounds);

/// r += (A^-1 kron G^-1) x or (I kron G^-1) x for one group.
void computerandompart_eff_dia_timesx(const effect_group& group, std::span<const double> x,
                                      std::span<double> r);
/// r += (A^-1 kron G^-1) x from the pedigree itself, animal by animal; parents above the animals are groups.
/// By one thread: two animals write to their common parent.
void computerandompart_eff_ani_inb_timesx(const effect_group& group, const pedigree_type& ped,
                                          std::span<const double> x, std::span<double> r);
/// r += weightupg (I kron G^-1) x for the last `nupg` levels.
void computerandompart_eff_upg_timesx(const effect_group& group, std::int32_t nupg, double weightupg,
                                      std::span<const double> x, std::span<double> r);
/// r += weight (A22^-1 kron G^-1) x at the levels of A22. `work` is that of the random part.
struct random_work;
void addrandompart_a22i_timesx(const effect_group& group, a22_inverse& a22i, double weight, random_work& work,
                               std::span<const double> x, std::span<double> r);
/// r += (A^-1 kron G^-1) x from the lower triangle of A^-1, by the parts of the threads.
/// @param memory  parts.spill_size(order) values, of which only those are touched that are needed
void addrandompartsparse_timesx(const effect_group& group, const crssparse& asparse,
                                const sparse_parts& parts, std::span<double> memory,
                                std::span<const double> x, std::span<double> r);
/// The same symmetric matrix by the rows of its lower triangle, columns ascending; takes its size once more.
[[nodiscard]] crssparse lower_triangle(crssparse upper);
/// Parts of about equal work.
[[nodiscard]] sparse_parts make_sparse_parts(const crssparse& asparse, std::int64_t nthread);

}  // namespace zendar::modmmeiod
