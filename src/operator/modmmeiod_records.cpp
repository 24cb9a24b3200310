#include <algorithm>
#include <cassert>

#include "modenum.hpp"
#include "modmmeiod_huge.hpp"
#include "modmmeiod_records.hpp"

namespace zendar::modmmeiod {

namespace {

/// Which traits an effect has, and where: all of them in their order, some of them, or in slots of its own.
enum class trait_map { all, some, slots };

/// Element t of a block for a trait, and how much of it counts.
template <trait_map M>
inline std::int32_t place(const record_term& term, std::int32_t t) {
    if constexpr (M == trait_map::slots)
        return term.slot[t];
    else
        return t;
}
template <trait_map M>
inline double share(const record_term& term, std::int32_t t, double c) {
    if constexpr (M == trait_map::all)
        return c;
    else
        return term.mask[t] * c;
}

/// The values of one record's traits, in registers where their number is known.
template <int NT>
struct trait_values {
    double value[NT];
    explicit trait_values(const double* from) { std::copy_n(from, NT, value); }
    void store(double* to) const { std::copy_n(value, NT, to); }
    double& operator[](std::int32_t t) { return value[t]; }
};
template <>
struct trait_values<0> {
    double* value;
    explicit trait_values(double* from) : value(from) {}
    void store(const double*) const {}
    double& operator[](std::int32_t t) { return value[t]; }
};

/// Adds a class effect to the fitted values of a batch.
template <int NT, trait_map M>
void gather_class(const record_input& in, const record_term& term, record_block batch, record_scratch& s,
                  std::size_t, scatter_target) {
    const std::int64_t nt = NT > 0 ? NT : in.ntrait, nv = value_stride(NT > 0 ? NT : in.ntrait);
    const std::int64_t before = term.first - nt;
    const double* const x = in.x;
    const std::int32_t* const levels = in.effect.data + batch.first * in.effect.ld + term.row;
    double* const v = s.v.data();
#pragma GCC unroll 2
    for (std::int64_t i = 0; i < batch.end - batch.first; ++i) {
        const std::int64_t level = levels[i * in.effect.ld];
        if (level < 1) continue;
        const double* const own = x + (before + level * nt);
        trait_values<NT> sum(v + i * nv);
        for (std::int32_t t = 0; t < nt; ++t) sum[t] += share<M>(term, t, 1.0) * own[place<M>(term, t)];
        sum.store(v + i * nv);
    }
}

template <int NT, trait_map M>
void scatter_class(const record_input& in, const record_term& term, record_block batch,
                   const record_scratch& s, std::size_t, scatter_target target) {
    const std::int64_t nt = NT > 0 ? NT : in.ntrait, nv = value_stride(NT > 0 ? NT : in.ntrait);
    const std::int64_t before = term.first - nt - target.lo;
    const std::int32_t* const levels = in.effect.data + batch.first * in.effect.ld + term.row;
    const double* const w = s.w.data();
#pragma GCC unroll 2
    for (std::int64_t i = 0; i < batch.end - batch.first; ++i) {
        const std::int64_t level = levels[i * in.effect.ld];
        if (level < 1) continue;
        double* const own = target.data + (before + level * nt);
        if constexpr (M == trait_map::slots) {
            for (std::int32_t t = 0; t < nt; ++t)
                own[place<M>(term, t)] += share<M>(term, t, 1.0) * w[i * nv + t];
        } else {
            trait_values<NT> sum(own);
            for (std::int32_t t = 0; t < nt; ++t) sum[t] += share<M>(term, t, 1.0) * w[i * nv + t];
            sum.store(own);
        }
    }
}

/// Finds the coefficients of a batch, NX of them a record (0: any number), and, unless the phenotypes take
/// their place, adds to the fitted values.
template <int NT, trait_map M, int NX, bool rhs>
void gather_covariable(const record_input& in, const record_term& term, record_block batch, record_scratch& s,
                       std::size_t k, scatter_target) {
    const std::int32_t nt = NT > 0 ? NT : in.ntrait, nx = NX > 0 ? NX : term.nx, nv = value_stride(nt);
    std::int64_t* const equation = s.equation.data() + k * batch_size;
    const double** const coefficient = s.coefficient.data() + k * batch_size;
    double* v = s.v.data();
    const double* const from = term.x != nullptr ? term.x : in.x;
    const std::int32_t* levels = in.effect.data + batch.first * in.effect.ld;
    for (std::int64_t i = 0; i < batch.end - batch.first; ++i, levels += in.effect.ld, v += nv) {
        const double* const c = term.locate(levels, equation[i]);
        coefficient[i] = c;
        if (rhs || c == nullptr) continue;
        const double* x = from + equation[i];
        trait_values<NT> sum(v);
        for (std::int32_t j = 0; j < nx; ++j, x += nt)
            for (std::int32_t t = 0; t < nt; ++t) sum[t] += share<M>(term, t, c[j]) * x[place<M>(term, t)];
        sum.store(v);
    }
}

template <int NT, trait_map M, int NX>
void scatter_covariable(const record_input& in, const record_term& term, record_block batch,
                        const record_scratch& s, std::size_t k, scatter_target target) {
    const std::int32_t nt = NT > 0 ? NT : in.ntrait, nx = NX > 0 ? NX : term.nx, nv = value_stride(nt);
    const std::int64_t* const equation = s.equation.data() + k * batch_size;
    const double* const* const coefficient = s.coefficient.data() + k * batch_size;
    for (std::int64_t i = 0; i < batch.end - batch.first; ++i) {
        const double* const c = coefficient[i];
        if (c == nullptr) continue;
        double* r = target.data + (equation[i] - target.lo);
        trait_values<NT> w(const_cast<double*>(s.w.data() + i * nv));
        for (std::int32_t j = 0; j < nx; ++j, r += nt)
            for (std::int32_t t = 0; t < nt; ++t) r[place<M>(term, t)] += share<M>(term, t, c[j]) * w[t];
    }
}

/// The same for a covariable that is not nested: all records have the same equations, whose values and sums
/// stay in registers.
template <int NT, int NX, bool rhs>
void gather_regression(const record_input& in, const record_term& term, record_block batch, record_scratch& s,
                       std::size_t k, scatter_target) {
    const double** const coefficient = s.coefficient.data() + k * batch_size;
    double* v = s.v.data();
    trait_values<NX * NT> x(rhs ? v : in.x + term.first);  // the right-hand side takes none
    const std::int32_t* levels = in.effect.data + batch.first * in.effect.ld;
    std::int64_t equation = 0;
    for (std::int64_t i = 0; i < batch.end - batch.first;
         ++i, levels += in.effect.ld, v += value_stride(NT)) {
        const double* const c = term.locate(levels, equation);
        coefficient[i] = c;
        if (rhs || c == nullptr) continue;
        trait_values<NT> sum(v);
        for (std::int32_t j = 0; j < NX; ++j)
            for (std::int32_t t = 0; t < NT; ++t) sum[t] += c[j] * x[j * NT + t];
        sum.store(v);
    }
}

template <int NT, int NX>
void scatter_regression(const record_input&, const record_term& term, record_block batch,
                        const record_scratch& s, std::size_t k, scatter_target target) {
    const double* const* const coefficient = s.coefficient.data() + k * batch_size;
    double sum[NX * NT] = {};
    bool any = false;
    const double* w = s.w.data();
    for (std::int64_t i = 0; i < batch.end - batch.first; ++i, w += value_stride(NT)) {
        const double* const c = coefficient[i];
        if (c == nullptr) continue;
        for (std::int32_t j = 0; j < NX; ++j)
            for (std::int32_t t = 0; t < NT; ++t) sum[j * NT + t] += c[j] * w[t];
        any = true;
    }
    if (!any) return;  // the place may belong to another thread
    double* const r = target.data + (term.first - target.lo);
    for (std::int32_t q = 0; q < NX * NT; ++q) r[q] += sum[q];
}

/// w = R^-1 v of every record of a batch, with its weights on both sides.
template <int NT, bool weighted>
void apply_residuals(const record_input& in, record_block batch, record_scratch& s, std::int64_t) {
    const std::int32_t nt = NT > 0 ? NT : in.ntrait, nv = value_stride(nt);
    const std::int32_t* classes = in.effect.data + batch.first * in.effect.ld + in.effect.rows - 1;
    const double* weight = weighted ? in.weight.data + batch.first * in.weight.ld : nullptr;
    double* v = s.v.data();
    double* w = s.w.data();
    for (std::int64_t rec = batch.first; rec < batch.end; ++rec, v += nv, w += nv, classes += in.effect.ld) {
        const double* const rinv = in.rinv->of(in.combi[static_cast<std::size_t>(rec)], *classes);
        trait_values<NT> from(v), to(w);
        for (std::int32_t t = 0; weighted && t < nt; ++t) from[t] *= weight[t];
        for (std::int32_t t = 0; t < nt; ++t) to[t] = rinv[t] * from[0];
        for (std::int32_t u = 1; u < nt; ++u)
            for (std::int32_t t = 0; t < nt; ++t) to[t] += rinv[u * nt + t] * from[u];
        for (std::int32_t t = 0; weighted && t < nt; ++t) to[t] *= weight[t];
        to.store(w);
        if (weighted) weight += in.weight.ld;
    }
}

struct term_loops {
    gather_loop gather;
    scatter_loop scatter;
};

void gather_nothing(const record_input&, const record_term&, record_block, record_scratch&, std::size_t,
                    scatter_target) {}

template <int NT, trait_map M, int NX>
term_loops covariable_loops(const record_term& term, bool rhs) {
    if constexpr (NX > 0)
        if (term.nested_row < 0 && !term.huge)
            return {rhs ? gather_loop{gather_regression<NT, NX, true>}
                        : gather_loop{gather_regression<NT, NX, false>},
                    scatter_regression<NT, NX>};
    return {rhs ? gather_loop{gather_covariable<NT, M, NX, true>}
                : gather_loop{gather_covariable<NT, M, NX, false>},
            scatter_covariable<NT, M, NX>};
}
template <int NT, trait_map M>
term_loops loops_of(const record_term& term, bool rhs, const wide_loops* wide) {
    if (!term.covariable && M == trait_map::all && wide != nullptr)
        return {rhs ? gather_loop{gather_nothing} : wide->gather_class, wide->scatter_class};
    if (!term.covariable)
        return {rhs ? gather_loop{gather_nothing} : gather_loop{gather_class<NT, M>}, scatter_class<NT, M>};
    if constexpr (M == trait_map::all && NT > 0) {
        switch (term.nx) {
            case 1:
                return covariable_loops<NT, M, 1>(term, rhs);
            case 2:
                return covariable_loops<NT, M, 2>(term, rhs);
            case 3:
                return covariable_loops<NT, M, 3>(term, rhs);
            case 4:
                return covariable_loops<NT, M, 4>(term, rhs);
            default:
                break;
        }
    }
    return covariable_loops<NT, M, 0>(term, rhs);
}
template <int NT>
term_loops loops_of(const record_input& in, const record_term& term, const wide_loops* wide) {
    const bool rhs = in.x == nullptr;
    if (in.lcombieff) return loops_of<NT, trait_map::slots>(term, rhs, wide);
    return term.all_traits ? loops_of<NT, trait_map::all>(term, rhs, wide)
                           : loops_of<NT, trait_map::some>(term, rhs, wide);
}

/// The blocks of the other effects stay in the nearest cache.
void find_far_blocks(const record_input& in, record_scratch& s) {
    constexpr std::int64_t near_equations = 4096;
    s.ahead.clear();
    if (in.x == nullptr) return;
    for (const record_term& term : in.terms)
        if (!term.covariable && term.last - term.first > near_equations)
            s.ahead.push_back({term.row, in.x + (term.first - in.ntrait)});
}

template <int NT>
void add_records_of(const record_input& in, record_block block, std::span<const scatter_target> targets,
                    record_scratch& s) {
    const std::size_t nterm = in.terms.size();
    const std::int64_t nv = value_stride(in.ntrait);
    const wide_loops* const wide = in.wide ? find_wide_loops(in.ntrait) : nullptr;
    residual_loop residuals =
        in.weight.data != nullptr ? apply_residuals<NT, true> : apply_residuals<NT, false>;
    if (wide != nullptr) residuals = in.weight.data != nullptr ? wide->weighted_residuals : wide->residuals;
    find_far_blocks(in, s);
    const bool starts_wide = wide != nullptr && in.x != nullptr && !in.lcombieff && nterm > 0 &&
                             !in.terms[0].covariable && in.terms[0].all_traits;
    for (std::int64_t first = block.first; first < block.end; first += batch_size) {
        const record_block batch{first, std::min(first + batch_size, block.end)};
        if (in.x == nullptr)
            for (std::int64_t i = 0; i < batch.end - batch.first; ++i)
                std::copy_n(in.y.data + (first + i) * in.y.ld, in.ntrait, s.v.data() + i * nv);
        else if (starts_wide)
            wide->first_class(in, in.terms[0], batch, s, 0, targets[0]);
        else
            std::fill_n(s.v.data(), (batch.end - batch.first) * nv, 0.0);
        for (std::size_t k = starts_wide ? 1 : 0; k < nterm; ++k)
            loops_of<NT>(in, in.terms[k], wide).gather(in, in.terms[k], batch, s, k, targets[k]);
        residuals(in, batch, s, block.end);
        for (std::size_t k = 0; k < nterm; ++k)
            loops_of<NT>(in, in.terms[k], wide).scatter(in, in.terms[k], batch, s, k, targets[k]);
    }
}

}  // namespace

namespace {

/// What all kinds of terms have.
record_term make_term(const param_type& param, std::int32_t ie) {
    record_term term;
    term.effect = ie + 1;
    term.row = ie;
    for (std::int32_t t = 0; t < param.ntrait; ++t) {
        const bool present = param.pos_effects(t, ie) > 0;
        term.mask.push_back(present ? 1.0 : 0.0);
        term.all_traits = term.all_traits && present;
        term.slot.push_back(param.lcombieff ? param.combieff_trait(t, ie) - 1 : t);
    }
    return term;
}

}  // namespace

std::vector<record_term> make_record_terms(const param_type& param, std::span<const covariable_type> cov,
                                           std::span<const huge_effect> huge) {
    std::vector<record_term> terms;
    for (std::int32_t e = 1; e <= param.neffect - param.nhuge; ++e) {
        const std::int32_t ie = e - 1;
        record_term term = make_term(param, ie);
        term.nx = param.nx[e];
        term.first = param.sumequation[e];
        term.stride = param.ntrait;
        std::int64_t slots = param.n_level[ie];
        if (param.type_effect[ie] == teff_covariable) {
            term.covariable = true;
            term.rows = cov[ie].rows();
            term.value = cov[ie].values();
            slots = param.n_cov[ie];
            if (param.n_level_nested[ie] > 0) {
                term.nested_row = param.pos_nested2(0, ie) - 1;
                term.stride = std::int64_t{param.ntrait} * param.n_cov[ie];
                slots *= param.n_level_nested[ie];
            }
        }
        term.last = term.first + slots * param.ntrait;
        terms.push_back(std::move(term));
    }
    std::size_t nresult = 1;
    for (const huge_effect& own : huge) {
        if (own.sumestimates.empty()) continue;
        record_term term = make_term(param, own.effect - 1);
        term.covariable = term.huge = true;
        term.result = nresult++;
        term.x = own.sumestimates.data();
        term.last = std::ssize(own.sumestimates);
        term.stride = param.ntrait;
        term.rows = cov[own.effect - 1].rows();
        terms.push_back(std::move(term));
    }
    return terms;
}

record_scratch::record_scratch(const record_input& in)
    : equation(in.terms.size() * batch_size),
      coefficient(in.terms.size() * batch_size),
      v(static_cast<std::size_t>(value_stride(in.ntrait) * batch_size)),
      w(static_cast<std::size_t>(value_stride(in.ntrait) * batch_size)) {
    ahead.reserve(in.terms.size());
}

void add_records(const record_input& in, record_block block, std::span<const scatter_target> targets,
                 record_scratch& scratch) {
    assert(targets.size() == in.terms.size());
    switch (in.ntrait) {
        case 1:
            return add_records_of<1>(in, block, targets, scratch);
        case 2:
            return add_records_of<2>(in, block, targets, scratch);
        case 3:
            return add_records_of<3>(in, block, targets, scratch);
        case 4:
            return add_records_of<4>(in, block, targets, scratch);
        default:
            return add_records_of<0>(in, block, targets, scratch);
    }
}

}  // namespace zendar::modmmeiod
