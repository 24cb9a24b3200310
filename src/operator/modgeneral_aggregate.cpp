#include <algorithm>
#include <cassert>

#include "modgeneral.hpp"
#include "modgeneral_detail.hpp"
#include "modstructure_product.hpp"

namespace zendar {

namespace {

constexpr std::string_view aggregate_procedure = "computeaggregatesolutions";

std::int32_t slot_of(const param_type& param, std::int32_t t, std::int32_t e) {
    return param.lcombieff ? detail::slot_of<detail::addressing::combieff>(param, t, e) : t;
}

bool has_type_22(const param_type& param) {
    return std::ranges::find(param.type_random_eff, 22) != param.type_random_eff.end();
}

bool is_selected(const solver_type& solver, std::int32_t iteration) {
    const std::int64_t since = std::int64_t{iteration} - solver.peek_first;
    return since == 0 || (since > 0 && solver.peek_step > 0 && since % solver.peek_step == 0);
}

[[noreturn]] void does_not_fit(logger& log, const std::string& cause) {
    detail::internal_error(log, aggregate_procedure, cause);
}

/// Stops unless the covariables of effect `from` can be added to the levels of effect `to`.
void check_pair(const param_type& param, std::span<const covariable_type> cov, std::int32_t from,
                std::int32_t to, logger& log) {
    for (const std::int32_t e : {from, to})
        if (e < 1 || e > param.neffect) does_not_fit(log, "effect " + inttochar(e) + " does not exist");
    if (param.type_effect[to - 1] != teff_class) {
        if (is_pedigree_code(param.type_random_eff[to - 1]))
            fatal(log, "Covariables are not possible with animal effect", "modgeneral", aggregate_procedure);
        does_not_fit(log, "effect " + inttochar(to) + " is not a class effect");
    }
    if (param.type_effect[from - 1] == teff_class || param.n_level_nested[from - 1] > 0 ||
        std::ssize(cov) < param.neffect)
        does_not_fit(log, "effect " + inttochar(from) + " has no covariates");
    if (coefficient_columns(cov[from - 1]) != param.nx[from])
        does_not_fit(log, "effect " + inttochar(from) + " has no covariates");
}

/// aggregate(to, level, t) += coefficients of the level in effect `from` times the solutions of `from`.
void add_covariates(const param_type& param, std::span<const double> solutions, const covariable_type& cov,
                    std::int32_t from, std::int32_t to, std::span<double> aggregate, logger& log) {
    const std::int64_t ntrait = param.ntrait;
    const std::int64_t nx = param.nx[from];

    matrix<double> effects(nx, ntrait);
    for (std::int64_t t = 0; t < ntrait; ++t)
        for (std::int64_t k = 0; k < nx; ++k)
            effects(k, t) = solutions[param.sumequation[from] + k * ntrait +
                                      slot_of(param, static_cast<std::int32_t>(t + 1), from) - 1];
    matrix<double> sums(coefficient_rows(cov), ntrait);
    if (nx > 0 && !sums.empty()) multiply_coefficients(cov, 'n', effects.view(), sums.view(), log);

    for (std::int32_t t = 1; t <= ntrait; ++t) {
        // Traits that share a slot share one solution, which takes the sum once.
        const std::int32_t slot = slot_of(param, t, to);
        bool taken = false;
        for (std::int32_t before = 1; before < t; ++before)
            taken = taken || slot_of(param, before, to) == slot;
        if (taken) continue;
        for (std::int32_t lev = 1; lev <= param.n_level[to - 1]; ++lev) {
            const std::int64_t row = cov.row_of(lev);
            if (row < 1 || row > sums.rows()) continue;
            aggregate[param.sumequation[to] + (lev - 1) * ntrait + slot - 1] += sums(row - 1, t - 1);
        }
    }
}

}  // namespace

std::vector<effect_pair> aggregate_pairs(const param_type& param) {
    std::vector<effect_pair> pairs = param.sumeffect;
    for (std::int32_t e = 1; e <= param.neffect; ++e)
        if (param.type_random_eff[e - 1] == 22) pairs.push_back({e, detail::linked_effect(param, e)});
    return pairs;
}

void computeaggregatesolutions(const param_type& param, std::span<const double> solutions,
                               std::span<const covariable_type> cov, std::vector<double>& aggregatesolutions,
                               logger& log) {
    assert(std::ssize(solutions) == param.neq);
    aggregatesolutions = {};
    if (!has_type_22(param) && param.sumeffect.empty()) return;

    std::vector<double> sum(solutions.begin(), solutions.end());
    for (const effect_pair& pair : param.sumeffect) {
        log.message("Addition of covariates*solutions of effect " + inttochar(pair.effect1) + " + effect " +
                    inttochar(pair.effect2));
        check_pair(param, cov, pair.effect1, pair.effect2, log);
        add_covariates(param, solutions, cov[pair.effect1 - 1], pair.effect1, pair.effect2, sum, log);
    }
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (param.type_random_eff[e - 1] != 22) continue;
        const std::int32_t link = detail::linked_effect(param, e);
        log.message("Computation of covariates*solutions of SNP effect " + inttochar(e) +
                    " + animal effect " + inttochar(link));
        check_pair(param, cov, e, link, log);
        add_covariates(param, solutions, cov[e - 1], e, link, sum, log);
    }
    aggregatesolutions = std::move(sum);
}

void peekoption(const param_type& param, std::int32_t iteration, std::span<const double> solutions,
                std::span<const covariable_type> cov, logger& log) {
    if (!is_selected(param.solver, iteration)) return;

    const auto write = [&](const std::string& name, std::span<const double> vector) {
        writeoutput_real8(param, vector, name + ".dat", log);
        if (param.solstream) writeoutputstream_real8(param, vector, name + ".stream", log);
    };
    write("solutions_" + inttochar(iteration), solutions);
    std::vector<double> aggregatesolutions;
    computeaggregatesolutions(param, solutions, cov, aggregatesolutions, log);
    if (!aggregatesolutions.empty()) write("agg_sol" + inttochar(iteration), aggregatesolutions);
}

}  // namespace zendar
