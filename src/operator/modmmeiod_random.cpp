#include <algorithm>
#include <array>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modmmeiod_a22i.hpp"
#include "modmmeiod_detail.hpp"
#include "modmmeiod_external.hpp"
#include "modmmeiod_ls.hpp"
#include "modmmeiod_random.hpp"
#include "modstats.hpp"

namespace zendar {

effect_group make_effect_group(const param_type& param, std::int32_t e, logger& log) {
    effect_group group;
    group.effect = e;
    group.nmember = std::max(param.n_correlated[e - 1], 0) + 1;
    const auto levels = [&](std::int32_t k) -> std::int64_t {
        if (param.type_effect[k - 1] == teff_class) return param.n_level[k - 1];
        return param.n_level_nested[k - 1] > 0 ? param.n_level_nested[k - 1] : 1;
    };
    group.nlevel = levels(e);
    const std::int64_t nt = param.ntrait;
    std::vector<unsigned char> present;
    for (std::int32_t k = e; k < e + group.nmember; ++k) {
        if (levels(k) != group.nlevel)
            fatal(log,
                  "The correlated effects " + inttochar(e) + " and " + inttochar(k) +
                      " have different numbers of levels: " + inttochar(group.nlevel) + " and " +
                      inttochar(levels(k)),
                  "modmmeiod", "setup_lhsrhs_iod");
        const std::int64_t nx = param.nx[k];
        for (std::int64_t j = 0; j < nx; ++j)
            for (std::int64_t t = 0; t < nt; ++t) {
                group.equation.push_back(param.sumequation[k] + j * nt + t);
                group.stride.push_back(nx * nt);
                present.push_back(param.pos_effects(t, k - 1) > 0 ? 1 : 0);
            }
    }
    const matrix<double>& ginv = param.g[e - 1];
    if (ginv.rows() != group.order() || ginv.cols() != group.order())
        fatal(log,
              "The (co)variance matrix of effect " + inttochar(e) + " has " + inttochar(ginv.rows()) +
                  " rows, but its traits and covariables need " + inttochar(group.order()),
              "modmmeiod", "setup_lhsrhs_iod");
    group.ginv = ginv;
    for (std::int64_t j = 0; j < group.order(); ++j)
        for (std::int64_t i = 0; i < group.order(); ++i)
            if (present[i] == 0 || present[j] == 0) group.ginv(i, j) = 0.0;
    return group;
}

namespace modmmeiod {

namespace {

/// r += G^-1 x of each level, or r = G^-1 x; N entries (0: any number).
template <int N, bool set>
void diagonal_levels(const effect_group& group, const double* x, double* r) {
    const std::int64_t order = N > 0 ? N : group.order(), nlevel = group.nlevel;
    const double* const ginv = group.ginv.data();
    const std::int64_t* const equation = group.equation.data();
    const std::int64_t* const stride = group.stride.data();
#pragma omp parallel default(none) shared(x, r, order, nlevel, ginv, equation, stride)
    {
        std::array<double, (N > 0 ? N : max_dim_g)> small;
        std::vector<double> large(order > std::ssize(small) ? static_cast<std::size_t>(order) : 0);
        double* const own = large.empty() ? small.data() : large.data();
#pragma omp for schedule(static)
        for (std::int64_t level = 0; level < nlevel; ++level) {
            for (std::int64_t i = 0; i < order; ++i) own[i] = x[equation[i] + level * stride[i]];
            for (std::int64_t i = 0; i < order; ++i) {
                double sum = 0.0;
                for (std::int64_t j = 0; j < order; ++j) sum += ginv[i * order + j] * own[j];
                double& own_r = r[equation[i] + level * stride[i]];
                own_r = set ? sum : own_r + sum;
            }
        }
    }
}

template <bool set>
void diagonal_levels(const effect_group& group, std::span<const double> x, std::span<double> r) {
    switch (group.order()) {
        case 1:
            return diagonal_levels<1, set>(group, x.data(), r.data());
        case 2:
            return diagonal_levels<2, set>(group, x.data(), r.data());
        case 3:
            return diagonal_levels<3, set>(group, x.data(), r.data());
        case 4:
            return diagonal_levels<4, set>(group, x.data(), r.data());
        default:
            return diagonal_levels<0, set>(group, x.data(), r.data());
    }
}

}  // namespace

void computerandompart_eff_dia_timesx(const effect_group& group, std::span<const double> x,
                                      std::span<double> r) {
    diagonal_levels<false>(group, x, r);
}

void addrandompart_a22i_timesx(const effect_group& group, a22_inverse& a22i, double weight, random_work& work,
                               std::span<const double> x, std::span<double> r) {
    const std::int64_t order = group.order(), n = a22i.size();
    const std::span<const std::int32_t> levels = a22i.levels();
    const matrix_view<double> in{work.a22i.data(), n, order, n}, out{in.data + n * order, n, order, n};
#pragma omp parallel for schedule(static) default(none) shared(group, levels, in, x, order, n)
    for (std::int64_t k = 0; k < n; ++k)
        for (std::int64_t i = 0; i < order; ++i)
            in(k, i) = x[static_cast<std::size_t>(group.at(i, levels[static_cast<std::size_t>(k)] - 1))];
    a22i.computea22i_timesx(in, out, work.a22i.subspan(static_cast<std::size_t>(2 * n * order)));
#pragma omp parallel for schedule(static) default(none) shared(group, levels, out, r, order, n, weight)
    for (std::int64_t k = 0; k < n; ++k)
        for (std::int64_t i = 0; i < order; ++i) {
            double sum = 0.0;
            for (std::int64_t j = 0; j < order; ++j) sum += group.ginv(j, i) * out(k, j);
            r[static_cast<std::size_t>(group.at(i, levels[static_cast<std::size_t>(k)] - 1))] += weight * sum;
        }
}

namespace {

void add_diagonal(const operator_state&, const effect_group& group, random_work&, std::span<const double> x,
                  std::span<double> r) {
    computerandompart_eff_dia_timesx(group, x, r);
}

void add_sparse(const operator_state& state, const effect_group& group, random_work& work,
                std::span<const double> x, std::span<double> r) {
    const auto e = static_cast<std::size_t>(group.effect - 1);
    addrandompartsparse_timesx(group, *state.asparse[e], state.parts[e], work.spill, x, r);
}

void add_sparse_and_a22i(const operator_state& state, const effect_group& group, random_work& work,
                         std::span<const double> x, std::span<double> r) {
    add_sparse(state, group, work, x, r);
    a22_inverse* const a22i = state.asparsesub[group.effect - 1].get();
    if (a22i == nullptr) return;
    const wtime clock;
    addrandompart_a22i_timesx(group, *a22i, state.a22i_weight, work, x, r);
    work.text += " (tau/beta - omega) * A22i * x : " + realtochar(clock.seconds(), "(f0.3)");
}

void add_pedigree(const operator_state& state, const effect_group& group, random_work&,
                  std::span<const double> x, std::span<double> r) {
    computerandompart_eff_ani_inb_timesx(group, *state.pedigree[group.effect - 1], x, r);
}

void add_pedigree_and_groups(const operator_state& state, const effect_group& group, random_work& work,
                             std::span<const double> x, std::span<double> r) {
    add_pedigree(state, group, work, x, r);
    computerandompart_eff_upg_timesx(group, state.pedigree[group.effect - 1]->nupg, state.weightupg, x, r);
}

constexpr std::array<random_product, 5> pedigree_products{{{0, nullptr},
                                                           {1, add_diagonal},
                                                           {trandom_ani, add_pedigree},
                                                           {trandom_ani_upg, add_pedigree},
                                                           {trandom_ani_rupg, add_pedigree_and_groups}}};
constexpr std::array<random_product, 11> sparse_products{{{0, nullptr},
                                                          {1, add_diagonal},
                                                          {trandom_ani, add_sparse},
                                                          {trandom_ani_upg, add_sparse},
                                                          {trandom_ani_meta, add_sparse},
                                                          {trandom_ani_rupg, add_sparse},
                                                          {10, add_sparse},
                                                          {trandom_ani_a22i, add_sparse_and_a22i},
                                                          {trandom_ani_upg_a22i, add_sparse_and_a22i},
                                                          {trandom_ani_rupg_a22i, add_sparse_and_a22i},
                                                          {trandom_ani_ploidy, add_sparse}}};

}  // namespace

const random_product* find_random_product(std::int32_t type_random, bool useasparse) {
    const std::span<const random_product> table = useasparse
                                                      ? std::span<const random_product>(sparse_products)
                                                      : std::span<const random_product>(pedigree_products);
    const auto found = std::ranges::find(table, type_random, &random_product::type_random);
    return found == table.end() ? nullptr : &*found;
}

}  // namespace modmmeiod

/// The groups whose I kron G^-1 is what r begins with.
bool mme_iod::begins_with(const effect_group& group) const {
    return param_.type_random[group.effect - 1] == 1 && !param_.landeffect && !param_.lcombieff;
}

std::vector<modmmeiod::equation_stretch> mme_iod::set_random_diagonals(std::span<const double> x,
                                                                       std::span<double> r) const {
    std::vector<modmmeiod::equation_stretch> set;
    for (const effect_group& group : state_.groups) {
        if (!begins_with(group)) continue;
        modmmeiod::diagonal_levels<true>(group, x, r);
        for (std::int32_t e = group.effect; e < group.effect + group.nmember; ++e) {
            const std::int64_t first = param_.sumequation[e];
            set.push_back({first, first + group.nlevel * param_.nx[e] * param_.ntrait});
        }
    }
    std::ranges::sort(set, {}, &modmmeiod::equation_stretch::first);
    return set;
}

void mme_iod::computerandompart(std::span<const double> x, std::span<double> r, std::string& text) {
    add_random_part(x, r, false, text);
}

void mme_iod::add_random_part(std::span<const double> x, std::span<double> r, bool begun, std::string& text) {
    modmmeiod::random_work work{state_.tmpvector.span(), state_.tmpvector1, text};
    for (const effect_group& group : state_.groups) {
        const modmmeiod::random_product* product =
            modmmeiod::find_random_product(param_.type_random[group.effect - 1], param_.useasparse);
        if (!begun || !begins_with(group)) product->timesx(state_, group, work, x, r);
        computerandompart_external(group, x, r, text);
    }
    addacrosseffectblock(x, r, text);
    computerandompart_huge(x, r, text);
}

void mme_iod::computerandompart_external(const effect_group& group, std::span<const double> x,
                                         std::span<double> r, std::string& text) {
    for (const auto& [effect, term] : state_.external->terms) {
        if (effect != group.effect) continue;
        const wtime clock;
        modmmeiod::addrandompart_external_timesx(group, *term, state_.tmpvector1, x, r, log_);
        text += " " + std::string(term->label()) + realtochar(clock.seconds(), "(f0.3)");
    }
}

void mme_iod::addacrosseffectblock(std::span<const double> x, std::span<double> r, std::string& text) {
    for (const modmmeiod::across_term& block : state_.external->across) {
        const wtime clock;
        block.timesx(x, r, 0, state_.tmpvector1);
        text += " Acrosseff * x           : " + realtochar(clock.seconds(), "(f0.3)");
    }
}

}  // namespace zendar
