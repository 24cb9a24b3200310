#include <array>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modmme_detail.hpp"
#include "modmmeiod_a22i.hpp"
#include "modmmeiod_external.hpp"
#include "modstats.hpp"

namespace zendar::modmme {

namespace {

constexpr std::string_view procedure = "addrandompart";

/// One row per random type that has a place in memory.
struct random_addition {
    std::int32_t type;
    bool huge;
    std::string_view text;
};
constexpr std::array<random_addition, 16> additions{{
    {0, false, ""},
    {1, false, "Addition of the random contributions for the diagonal effect "},
    {trandom_ani, false, "Addition of the random contributions for the animal (with inbreeding) effect "},
    {trandom_ani_upg, false,
     "Addition of the random contributions for the animal (with unknown parents groups + inbreeding) "
     "effect "},
    {trandom_ani_meta, false,
     "Addition of the random contributions for the animal (with inbreeding AND metafounders) effect "},
    {trandom_ani_rupg, false,
     "Addition of the random contributions for the animal (with random unknown parents groups + inbreeding) "
     "effect "},
    {10, false, "Addition of the random contributions for the external effect "},
    {trandom_ani_a22i, false,
     "Addition of the random contributions for the animal (with inbreeding) effect "},
    {trandom_ani_upg_a22i, false,
     "Addition of the random contributions for the animal (with unknown parents groups + inbreeding) "
     "effect "},
    {trandom_ani_rupg_a22i, false,
     "Addition of the random contributions for the animal (with random unknown parents groups + inbreeding) "
     "effect "},
    {trandom_ani_ploidy, false, "Addition of the random contributions for the animal (with ploidy) effect "},
    {0, true, ""},
    {20, true, "Addition of the random contributions for the huge diagonal effect "},
    {22, true, "Addition of the random contributions for the huge diagonal effect "},
    {23, true, "Addition of the random contributions for the huge diagonal effect "},
    {30, true, "Addition of the random contributions for the huge diagonal effect "},
}};

const random_addition* find_addition(std::int32_t type, bool huge) {
    const auto found = std::ranges::find_if(
        additions, [&](const random_addition& own) { return own.type == type && own.huge == huge; });
    return found == additions.end() ? nullptr : &*found;
}

bool is_huge(const param_type& param, std::int32_t e) {
    return e > param.neffect - param.nhuge;
}

/// Between levels of the A-inverse or of an external matrix.
void addrandompart_sparse(const effect_group& group, const crssparse& asparse, element_store& store) {
    const crs_view<std::int32_t> m = asparse.view();
    for (std::int32_t k = 0; k < m.dim1; ++k)
        for (std::int32_t at = m.ia[k] - 1; at < m.ia[k + 1] - 1; ++at)
            if (m.a[at] != 0.0) addrandompart_elem(group, k, m.ja[at] - 1, m.a[at], store);
}

/// Options whose matrices take part in the iteration on data only.
void refuse_iod_options(const param_type& param, logger& log) {
    struct option {
        const char* name;
        const std::vector<std::string>& files;
    };
    for (const option& own : {option{"!gapy", param.gapy}, option{"!ktamatrix", param.ktamatrix},
                              option{"!qptransfo", param.qptransfo}, option{"!tamatrix", param.tamatrix},
                              option{"!tageno", param.tageno}})
        if (std::ranges::any_of(own.files, [](const std::string& file) { return file != "none"; }))
            fatal(log, std::string("The option ") + own.name + " is only available with the IOD solvers",
                  module_tag, procedure);
}

/// addrandompart_gima22i: a matrix as it stands, times the covariances of the group.
void addrandompart_gima22i(const effect_group& group, const modmmeiod::external_term& term,
                           const assembly& a) {
    const std::span<const std::int32_t> levels = term.levels();
    const external_matrix& m = *term.elements();
    if (m.is_sparse()) {
        const crs_view<std::int32_t> own = m.sparse.view();
        for (std::int32_t k = 0; k < own.dim1; ++k)
            for (std::int32_t at = own.ia[k] - 1; at < own.ia[k + 1] - 1; ++at)
                if (own.a[at] != 0.0)
                    addrandompart_elem(group, levels[k] - 1, levels[own.ja[at] - 1] - 1, own.a[at], a.store);
    } else {
        for (std::int64_t l = 0; l < term.size(); ++l)
            for (std::int64_t k = 0; k <= l; ++k)
                if (m.dense(k, l) != 0.0)
                    addrandompart_elem(group, levels[k] - 1, levels[l] - 1, m.dense(k, l), a.store);
    }
    a.log.message("Addition of Gi-A22i");
}

}  // namespace

void check_random_types(const mme_input& in, logger& log) {
    refuse_iod_options(in.param, log);
    for (std::int32_t e = 1; e <= in.param.neffect; ++e) {
        const std::int32_t type = in.param.type_random[e - 1];
        if (find_addition(type, is_huge(in.param, e)) == nullptr)
            fatal(log,
                  "This type of effect " + inttochar(type) + " for effect " + inttochar(e) +
                      " is not implemented",
                  module_tag, procedure);
        if (!is_huge(in.param, e) || type == 0) continue;
        if (in.ghuge.empty()) fatal(log, "ghuge is not allocated", module_tag, procedure);
        // One matrix serves a group of correlated effects, and stands with its first one.
        if (in.param.n_correlated[e - 1] >= 0 &&
            (e > std::ssize(in.ghuge) || in.ghuge[e - 1] == nullptr || in.ghuge[e - 1]->getdim(1) < 1))
            fatal(log, "size(ghuge) is equal to 0", module_tag, procedure);
    }
}

void addrandompart_elem(const effect_group& group, std::int64_t k, std::int64_t l, double value,
                        element_store& store) {
    const std::int64_t order = group.order();
    for (std::int64_t i = 0; i < order; ++i) {
        const std::int64_t row = group.at(i, k);
        for (std::int64_t j = 0; j < order; ++j) {
            const std::int64_t col = group.at(j, l);
            // Of one level with itself both (i, j) and (j, i) come up.
            if (group.ginv(i, j) != 0.0 && (k != l || row <= col))
                store.add_any(row, col, value * group.ginv(i, j));
        }
    }
}

void addrandompart_a22(const effect_group& group, a22_inverse& a22i, double weight, const assembly& a) {
    constexpr std::int64_t columns = 64;
    if (weight == 0.0) return;
    const wtime clock;
    const std::int64_t n = a22i.size();
    const std::span<const std::int32_t> levels = a22i.levels();
    if (a.store.counts()) {
        for (std::int64_t l = 0; l < n; ++l)
            for (std::int64_t k = 0; k <= l; ++k)
                addrandompart_elem(group, levels[k] - 1, levels[l] - 1, 1.0, a.store);
        return;
    }
    matrix<double> in(n, columns), out(n, columns);
    std::vector<double> work(static_cast<std::size_t>(a22i.work_size(columns)));
    for (std::int64_t first = 0; first < n; first += columns) {
        const std::int64_t m = std::min(columns, n - first);
        const matrix_view<double> unit{in.data(), n, m, n}, inverse{out.data(), n, m, n};
        std::ranges::fill(in.values(), 0.0);
        for (std::int64_t c = 0; c < m; ++c) unit(first + c, c) = 1.0;
        a22i.computea22i_timesx(unit, inverse, work);
        for (std::int64_t c = 0; c < m; ++c)
            for (std::int64_t k = 0; k <= first + c; ++k)
                addrandompart_elem(group, levels[k] - 1, levels[first + c] - 1, weight * inverse(k, c),
                                   a.store);
    }
    clock.end(a.log, "Addition of A22-1 for effect " + inttochar(group.effect));
}

void addrandompart(const assembly& a) {
    const modmmeiod::operator_state& state = a.on_data.state();
    for (const effect_group& group : state.groups) {
        const std::int32_t e = group.effect, type = a.param.type_random[e - 1];
        a.log.message(std::string(find_addition(type, false)->text) + inttochar(e));
        for (const auto& [effect, term] : state.external->terms)
            if (effect == e) addrandompart_gima22i(group, *term, a);
        if (type == 1) {
            for (std::int64_t level = 0; level < group.nlevel; ++level)
                addrandompart_elem(group, level, level, 1.0, a.store);
            continue;
        }
        for (std::int32_t k = e + 1; is_pedigree_code(type) && k < e + group.nmember; ++k)
            a.log.message(
                "Addition of the random contributions (off-block) for the animal (with inbreeding) " +
                inttochar(e) + " " + inttochar(k));
        addrandompart_sparse(group, *state.asparse[e - 1], a.store);
        if (const auto& a22i = state.asparsesub[e - 1]; a22i != nullptr)
            addrandompart_a22(group, *a22i, state.a22i_weight, a);
    }
    for (const modmmeiod::across_term& block : state.external->across)
        if (std::min(block.effect1(), block.effect2()) <= a.param.neffect - a.param.nhuge)
            block.for_each_element([&a](std::int64_t equation1, std::int64_t equation2, double value) {
                a.store.add_any(equation1, equation2, value);
            });
    for (std::int32_t e = a.param.neffect - a.param.nhuge + 1; e <= a.param.neffect; ++e)
        if (const std::int32_t type = a.param.type_random[e - 1]; type != 0)
            a.log.message(std::string(find_addition(type, true)->text) + inttochar(e));
}

}  // namespace zendar::modmme
