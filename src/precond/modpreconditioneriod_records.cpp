#include <omp.h>

#include <algorithm>
#include <array>
#include <limits>

#include "modpreconditioneriod_detail.hpp"
#include "modstats.hpp"

/// The least-squares part: the pass over the records.
///
/// Diagonals and level blocks are filled by all threads at once: each passes over all records, and adds to
/// the levels that are its own. So nothing is shared, and the additions to a level keep the order of the
/// records. The matrices of groups follow on one thread, chunk of records by chunk of records.
namespace zendar::modpreconditioneriod {

namespace {

/// Parts up to this size are summed in double: many records meet in few levels, where single precision would
/// stop to grow.
constexpr std::int64_t largest_wide = 1 << 16;
/// Parts up to this size belong to one thread, as threads would meet in the same cache lines.
constexpr std::int64_t largest_unshared = 4096;
constexpr std::int64_t records_of_chunk = 1 << 16;
constexpr std::size_t elements_of_batch = 4096;
constexpr double one = 1.0;

/// An element of R^-1 that goes to an element of the block of a level.
struct block_element {
    std::int32_t from;  ///< in the packed R^-1 of the record
    std::int32_t to;    ///< in the packed block
    double factor;      ///< 2 where an element off the diagonal of R^-1 comes to stand on that of the block
};

/// A trait that the effect has, and its place in the equations of a column.
struct trait_place {
    std::int32_t trait, slot;  ///< from 0
};

/// How the records of one effect are read, and where they are added.
struct record_entry {
    std::int32_t row = 0, nested_row = -1;  ///< of the levels, from 0; -1 for none
    std::int32_t nx = 1;
    bool covariable = false;
    bool plain = false;  ///< one column of all traits, each in its own slot, and nothing else in the block
    std::span<const std::int32_t> rows;
    matrix_view<const double> value;
    std::vector<trait_place> traits;
    std::vector<block_element> elements;  ///< of one column
    std::int64_t offset = 0;              ///< blocks: first equation of the effect in the block of a level
    std::int64_t first = 0, stride = 0;   ///< first equation (from 0) of level 1, equations of a level

    /// The coefficients of a record and, in `level`, its level from 0; null when it leaves the effect out.
    [[nodiscard]] const double* locate(const std::int32_t* levels, std::int64_t& level) const {
        const std::int32_t given = levels[row];
        if (given < 1) return nullptr;
        if (!covariable) {
            level = std::int64_t{given} - 1;
            return &one;
        }
        level = 0;
        if (nested_row >= 0) {
            const std::int32_t nesting = levels[nested_row];
            if (nesting < 1) return nullptr;
            level = std::int64_t{nesting} - 1;
        }
        const std::int32_t r = static_cast<std::size_t>(given) <= rows.size() ? rows[given - 1] : 0;
        return r < 1 ? nullptr : value.data + (std::int64_t{r} - 1) * value.ld;
    }
};

/// All entries of one part.
struct part_entries {
    mija* part = nullptr;
    coosparse* coo = nullptr;
    std::vector<record_entry> entries;
    std::int64_t size = 0;  ///< diagonals and blocks: elements of a level
    std::int64_t nlevel = 0;
    bool uneven = false;   ///< effects that share the equations of a diagonal differ in the size of a level
    bool classes = false;  ///< a diagonal of class effects alone: its records need no list
    std::vector<double> wide;  ///< in the place of the part's own array
};

/// R^-1 of a record, scaled by its weights: upper triangle by columns.
class record_weights {
  public:
    explicit record_weights(const precond_input& in)
        : in_(in), values_(static_cast<std::size_t>(packed(0, in.param.ntrait))) {}

    [[nodiscard]] const double* of(std::int64_t rec) {
        const std::int32_t nt = in_.param.ntrait;
        const auto& effect = in_.data.effect;
        const std::int32_t residual_class = effect(effect.rows() - 1, rec);
        const double* const rinv = in_.rinv.of(in_.data.combitrait[rec], residual_class);
        const double* const w = in_.param.nweight > 0 ? in_.data.weight.data() + rec * nt : nullptr;
        double* value = values_.data();
        for (std::int32_t k = 0; k < nt; ++k)
            for (std::int32_t i = 0; i <= k; ++i, ++value)
                *value = rinv[k * nt + i] * (w == nullptr ? 1.0 : w[i] * w[k]);
        return values_.data();
    }

  private:
    const precond_input& in_;
    std::vector<double> values_;
};

double element_of(const double* rinv, std::int32_t t, std::int32_t s) {
    return rinv[t <= s ? packed(t, s) : packed(s, t)];
}

/// Sums in single precision are rounded once for each addition.
template <class Real>
inline void add_to(Real& sum, double value) {
    sum = static_cast<Real>(static_cast<double>(sum) + value);
}

template <class Real>
void add_diagonal(const record_entry& entry, const double* x, const double* rinv, Real* d,
                  std::int64_t ntrait) {
    for (std::int32_t j = 0; j < entry.nx; ++j)
        for (const trait_place& p : entry.traits)
            add_to(d[j * ntrait + p.slot], x[j] * x[j] * rinv[packed(p.trait, p.trait)]);
}

/// The pairs of one effect with itself.
template <class Real>
void add_block(const record_entry& entry, const double* x, const double* rinv, Real* block, std::int64_t size,
               std::int64_t ntrait) {
    if (entry.plain) {
        const double square = x[0] * x[0];
        for (std::int64_t i = 0; i < size; ++i) add_to(block[i], square * rinv[i]);
        return;
    }
    if (entry.nx == 1) {
        const double square = x[0] * x[0];
        for (const block_element& q : entry.elements) add_to(block[q.to], square * q.factor * rinv[q.from]);
        return;
    }
    for (std::int32_t k = 0; k < entry.nx; ++k)
        for (const trait_place& s : entry.traits) {
            const std::int64_t to = entry.offset + k * ntrait + s.slot;
            for (std::int32_t j = 0; j < k; ++j)
                for (const trait_place& t : entry.traits)
                    add_to(block[packed(entry.offset + j * ntrait + t.slot, to)],
                           x[j] * x[k] * element_of(rinv, t.trait, s.trait));
            for (const trait_place& t : entry.traits)  // both orders of a pair in one slot, else one of them
                if (t.slot <= s.slot)
                    add_to(block[packed(entry.offset + k * ntrait + t.slot, to)],
                           x[k] * x[k] * element_of(rinv, t.trait, s.trait));
        }
}

/// The pairs of two effects at the same level of one block.
template <class Real>
void add_cross(const record_entry& a, const double* xa, const record_entry& b, const double* xb,
               const double* rinv, Real* block, std::int64_t ntrait) {
    for (std::int32_t j = 0; j < a.nx; ++j)
        for (const trait_place& t : a.traits)
            for (std::int32_t k = 0; k < b.nx; ++k)
                for (const trait_place& s : b.traits) {
                    const std::int64_t from = a.offset + j * ntrait + t.slot,
                                       to = b.offset + k * ntrait + s.slot;
                    const double value = xa[j] * xb[k] * element_of(rinv, t.trait, s.trait);
                    add_to(block[packed(std::min(from, to), std::max(from, to))],
                           from == to ? 2.0 * value : value);
                }
}

/// What one thread adds to, of one part.
struct level_range {
    std::int64_t first = 0, end = 0;
};

level_range range_of(const part_entries& p, std::int64_t number, std::int64_t thread, std::int64_t nthread) {
    if (p.uneven || p.nlevel * p.size <= largest_unshared)
        return number % nthread == thread ? level_range{0, std::numeric_limits<std::int64_t>::max()}
                                          : level_range{};
    return {p.nlevel * thread / nthread, p.nlevel * (thread + 1) / nthread};
}

struct active_entry {
    const record_entry* entry;
    const double* x;
    std::int64_t level;
};

/// Adds one record's active entries to a part.
template <class Real>
void add_levels(const part_entries& p, std::span<const active_entry> active, const double* rinv, Real* data,
                std::int64_t ntrait) {
    for (std::size_t a = 0; a < active.size(); ++a) {
        if (p.part->type == precond_diagonal) {
            const record_entry& entry = *active[a].entry;
            add_diagonal(entry, active[a].x, rinv, data + active[a].level * entry.stride, ntrait);
            continue;
        }
        Real* const target = data + active[a].level * p.size;
        add_block(*active[a].entry, active[a].x, rinv, target, p.size, ntrait);
        for (std::size_t b = 0; b < a; ++b)
            if (active[b].level == active[a].level)
                add_cross(*active[b].entry, active[b].x, *active[a].entry, active[a].x, rinv, target, ntrait);
    }
}

/// The work of one thread that outlives a chunk of records.
struct level_scratch {
    record_weights weights;
    std::vector<active_entry> active;
    std::vector<level_range> ranges;
};

/// Calls `add(first equation, R^-1, weights)` for the records of a class effect whose levels are in the
/// range: 8 bytes a record, the weights, and what is added to. Without weights they are null.
template <class Add>
void for_each_of_class(const precond_input& in, const record_entry& entry, const level_range& range,
                       std::int64_t first, std::int64_t end, const Add& add) {
    const std::int64_t nt = in.param.ntrait;
    const auto& effect = in.data.effect;
    const double* const weight = in.param.nweight > 0 ? in.data.weight.data() : nullptr;
    for (std::int64_t rec = first; rec < end; ++rec) {
        const std::int32_t* const levels = effect.data() + rec * effect.rows();
        const std::int64_t level = std::int64_t{levels[entry.row]} - 1;
        if (level < range.first || level >= range.end) continue;
        add(level, in.rinv.of(in.data.combitrait[rec], levels[effect.rows() - 1]),
            weight == nullptr ? nullptr : weight + rec * nt);
    }
}

template <class Real>
void add_class(const precond_input& in, const part_entries& p, const record_entry& entry,
               const level_range& range, std::int64_t first, std::int64_t end, Real* data) {
    const std::int64_t nt = in.param.ntrait;
    if (p.part->type == precond_diagonal) {
        for_each_of_class(
            in, entry, range, first, end, [&](std::int64_t level, const double* rinv, const double* w) {
                Real* const to = data + level * entry.stride;
                for (const trait_place& own : entry.traits) {
                    const double of_trait = w == nullptr ? 1.0 : w[own.trait];
                    add_to(to[own.slot], rinv[own.trait * nt + own.trait] * (of_trait * of_trait));
                }
            });
        return;
    }
    for_each_of_class(in, entry, range, first, end,
                      [&](std::int64_t level, const double* rinv, const double* w) {
                          Real* to = data + level * p.size;
                          for (std::int64_t k = 0; k < nt; ++k)
                              for (std::int64_t i = 0; i <= k; ++i, ++to)
                                  add_to(*to, rinv[k * nt + i] * (w == nullptr ? 1.0 : w[i] * w[k]));
                      });
}

float* own_values(const part_entries& p) {
    return p.part->type == precond_diagonal ? p.part->mat.data() : p.part->block.data();
}

void add_level_parts(const precond_input& in, std::span<part_entries> parts, std::int64_t first,
                     std::int64_t end, level_scratch& scratch) {
    const std::int64_t ntrait = in.param.ntrait;
    const auto& effect = in.data.effect;
    bool others = false;
    for (std::size_t k = 0; k < parts.size(); ++k) {
        part_entries& p = parts[k];
        others = others || !p.classes;
        for (const record_entry& entry : p.entries) {
            if (!p.classes) break;
            if (p.wide.empty())
                add_class(in, p, entry, scratch.ranges[k], first, end, own_values(p));
            else
                add_class(in, p, entry, scratch.ranges[k], first, end, p.wide.data());
        }
    }
    if (!others) return;
    for (std::int64_t rec = first; rec < end; ++rec) {
        const std::int32_t* const levels = effect.data() + rec * effect.rows();
        const double* rinv = nullptr;
        for (std::size_t k = 0; k < parts.size(); ++k) {
            part_entries& p = parts[k];
            if (p.classes) continue;
            const level_range range = scratch.ranges[k];
            std::size_t n = 0;
            for (const record_entry& entry : p.entries) {
                std::int64_t level = 0;
                const double* const x = entry.locate(levels, level);
                if (x == nullptr || level < range.first || level >= range.end) continue;
                scratch.active[n++] = {&entry, x, level};
            }
            if (n == 0) continue;
            if (rinv == nullptr) rinv = scratch.weights.of(rec);
            const std::span<const active_entry> active(scratch.active.data(), n);
            if (!p.wide.empty())
                add_levels(p, active, rinv, p.wide.data(), ntrait);
            else
                add_levels(p, active, rinv, own_values(p), ntrait);
        }
    }
}

/// A coefficient of a record in the equations of a group.
struct group_item {
    std::int32_t equation;  ///< in the group, from 1
    std::int32_t trait;
    double x;
};

/// Elements on their way to a hash table, which takes many at once faster than one by one.
class coo_batch {
  public:
    explicit coo_batch(coosparse& coo) : coo_(coo) {}
    void add(std::int32_t row, std::int32_t col, double value) {
        rows_.push_back(row);
        cols_.push_back(col);
        values_.push_back(value);
        if (rows_.size() >= elements_of_batch) flush();
    }
    void flush() {
        coo_.add(rows_, cols_, values_);
        rows_.clear();
        cols_.clear();
        values_.clear();
    }

  private:
    coosparse& coo_;
    std::vector<std::int32_t> rows_, cols_;
    std::vector<double> values_;
};

/// Adds records to a group, of which `add` takes the elements (row, column, value) with row <= column,
/// from 1.
template <class Add>
void add_group_records(const precond_input& in, const part_entries& p, std::int64_t first, std::int64_t end,
                       record_weights& weights, Add&& add) {
    const auto& effect = in.data.effect;
    std::vector<group_item> items;
    for (std::int64_t rec = first; rec < end; ++rec) {
        const std::int32_t* const levels = effect.data() + rec * effect.rows();
        items.clear();
        for (const record_entry& entry : p.entries) {
            std::int64_t level = 0;
            const double* const x = entry.locate(levels, level);
            if (x == nullptr) continue;
            std::int64_t equation = entry.first + level * entry.stride + 2 - p.part->first;
            for (std::int32_t j = 0; j < entry.nx; ++j, equation += in.param.ntrait)
                if (x[j] != 0.0)
                    for (const trait_place& t : entry.traits)
                        items.push_back({static_cast<std::int32_t>(equation + t.slot), t.trait, x[j]});
        }
        if (items.empty()) continue;
        const double* const rinv = weights.of(rec);
        for (std::size_t a = 0; a < items.size(); ++a)
            for (std::size_t b = 0; b <= a; ++b) {
                const double value =
                    items[a].x * items[b].x * element_of(rinv, items[a].trait, items[b].trait);
                if (value == 0.0) continue;
                const auto [row, col] = std::minmax(items[a].equation, items[b].equation);
                add(row, col, a != b && row == col ? 2.0 * value : value);
            }
    }
}

void add_group_part(const precond_input& in, const part_entries& p, std::int64_t first, std::int64_t end,
                    record_weights& weights) {
    mija& part = *p.part;
    if (part.type == precond_dense) {
        add_group_records(in, p, first, end, weights,
                          [&part](std::int64_t row, std::int64_t col, double value) {
                              part.dense(col - 1, row - 1) += value;
                          });
    } else if (part.type == precond_whole) {
        add_group_records(in, p, first, end, weights,
                          [&part](std::int64_t row, std::int64_t col, double value) {
                              part.w[packed(row - 1, col - 1)] += value;
                          });
    } else {
        coo_batch batch(*p.coo);
        add_group_records(
            in, p, first, end, weights,
            [&batch](std::int32_t row, std::int32_t col, double value) { batch.add(row, col, value); });
        batch.flush();
    }
}

// ---- set-up
// ----------------------------------------------------------------------------------------------------

std::vector<block_element> elements_of_column(const record_entry& entry) {
    std::vector<block_element> elements;
    for (std::size_t a = 0; a < entry.traits.size(); ++a)
        for (std::size_t b = 0; b <= a; ++b) {
            const trait_place &s = entry.traits[a], &t = entry.traits[b];  // t.trait <= s.trait
            const auto [low, high] = std::minmax(s.slot, t.slot);
            elements.push_back({static_cast<std::int32_t>(packed(t.trait, s.trait)),
                                static_cast<std::int32_t>(packed(entry.offset + low, entry.offset + high)),
                                a != b && low == high ? 2.0 : 1.0});
        }
    return elements;
}

/// The entry of effect e in the part of its owner.
record_entry make_entry(const precond_input& in, const mija& part, std::int32_t e) {
    const param_type& param = in.param;
    const std::int32_t ie = e - 1, owner = owner_of(param, e);
    record_entry entry;
    entry.row = ie;
    entry.nx = param.nx[e];
    if (param.type_effect[ie] == teff_covariable) {
        entry.covariable = true;
        entry.rows = in.cov[ie].rows();
        entry.value = in.cov[ie].values();
        if (param.n_level_nested[ie] > 0) entry.nested_row = param.pos_nested2(0, ie) - 1;
    }
    for (std::int32_t t = 0; t < param.ntrait; ++t)
        if (param.pos_effects(t, ie) > 0)
            entry.traits.push_back({t, param.lcombieff ? param.combieff_trait(t, ie) - 1 : t});
    entry.first = param.sumequation[e];
    entry.stride = equations_of_level(param, e);
    if (part.type == precond_block) {
        for (const block_stretch& stretch : part.stretches) {
            if (stretch.first == param.sumequation[owner]) break;
            entry.offset += stretch.length;
        }
        entry.elements = elements_of_column(entry);
        entry.plain = entry.nx == 1 && part.dim1 == param.ntrait && !param.lcombieff &&
                      std::ssize(entry.traits) == param.ntrait;
    }
    return entry;
}

/// True when two effects that share equations split them into levels alike: only then do the levels of the
/// one fall on those of the other.
bool has_levels_of(const param_type& param, std::int32_t e, std::int32_t owner) {
    return equations_of_level(param, e) == equations_of_level(param, owner);
}

std::vector<part_entries> make_parts(const precond_input& in, std::span<mija> mija_global,
                                     cootmp_type& cootmp, logger& log) {
    const param_type& param = in.param;
    std::vector<part_entries> parts(mija_global.size());
    for (std::int32_t e = 1; e <= param.neffect - param.nhuge; ++e) {
        const std::int32_t owner = owner_of(param, e), opener = opener_of(mija_global, owner);
        part_entries& p = parts[opener - 1];
        p.part = &mija_global[opener - 1];
        p.coo = &cootmp[opener - 1];
        switch (p.part->type) {
            case precond_block:
                if (!has_levels_of(param, e, owner))
                    fatal(log,
                          "The effects " + inttochar(owner) + " and " + inttochar(e) +
                              " share equations, but differ in the number of equations of a level",
                          module_tag, "create_mija_lhs");
                break;
            case precond_diagonal:
                p.uneven = p.uneven || !has_levels_of(param, e, owner);
                break;
            case precond_dense:
            case precond_whole:
            case precond_sparse:
            case precond_auto:
            case precond_reorder:
                break;
            default:
                fatal(log,
                      "This type of preconditioner " + inttochar(p.part->type) + " fort the effect " +
                          inttochar(e) + " is not implemented",
                      module_tag, "create_mija_lhs");
        }
        p.entries.push_back(make_entry(in, *p.part, e));
    }
    std::erase_if(parts, [](const part_entries& p) { return p.entries.empty(); });
    for (part_entries& p : parts) {
        const bool diagonal = p.part->type == precond_diagonal;
        if (!diagonal && p.part->type != precond_block) continue;
        p.size = diagonal ? p.entries.front().stride : packed_size(*p.part);
        p.nlevel = diagonal ? p.part->dim1 / p.size : p.part->dim3;
        p.classes = std::ranges::none_of(p.entries, &record_entry::covariable) &&
                    (diagonal || (p.entries.size() == 1 && p.entries.front().plain));
        if (p.size * p.nlevel <= largest_wide) p.wide.resize(static_cast<std::size_t>(p.size * p.nlevel));
    }
    return parts;
}

}  // namespace

void addleastsquarepart_to_preconditioner(const precond_input& in, std::span<mija> mija_global,
                                          cootmp_type& cootmp, logger& log) {
    std::vector<part_entries> all = make_parts(in, mija_global, cootmp, log);
    const auto is_level_part = [](const part_entries& p) { return p.size > 0; };
    const auto groups = std::ranges::stable_partition(all, is_level_part);
    const std::span<part_entries> level_parts(all.begin(), groups.begin());

    const std::int64_t nthread = level_parts.empty() ? 1 : omp_get_max_threads();
    std::size_t most_entries = 0;
    for (const part_entries& p : all) most_entries = std::max(most_entries, p.entries.size());
    std::vector<level_scratch> scratch;
    for (std::int64_t th = 0; th < nthread; ++th) {
        scratch.push_back({record_weights(in), std::vector<active_entry>(most_entries), {}});
        for (std::size_t k = 0; k < level_parts.size(); ++k)
            scratch.back().ranges.push_back(
                range_of(level_parts[k], static_cast<std::int64_t>(k), th, nthread));
    }

    const std::int64_t nrec = in.data.effect.cols();
    progress_line progress(log);
    record_weights weights(in);
    for (std::int64_t first = 0; first < nrec; first += records_of_chunk) {
        const std::int64_t end = std::min(first + records_of_chunk, nrec);
        // The ranges count, not the threads that the runtime gives: each is worked on by one of them.
#pragma omp parallel for schedule(static, 1) default(none) \
    shared(in, level_parts, first, end, scratch, nthread)
        for (std::int64_t th = 0; th < nthread; ++th)
            add_level_parts(in, level_parts, first, end, scratch[th]);
        for (const part_entries& p : groups) add_group_part(in, p, first, end, weights);
        progress.progressloop(end, nrec);
    }

    for (part_entries& p : level_parts) {
        std::vector<float>& own = p.part->type == precond_diagonal ? p.part->mat : p.part->block;
        for (std::size_t i = 0; i < p.wide.size(); ++i) own[i] = static_cast<float>(p.wide[i]);
    }
}

}  // namespace zendar::modpreconditioneriod
