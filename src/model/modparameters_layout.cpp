#include <cassert>
#include <limits>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modparameters.hpp"
#include "modparameters_detail.hpp"

namespace zendar {

namespace {

using detail::max_equations;
using detail::modparameters_tag;

constexpr std::string_view procedure = "setsumlevel";

/// Coefficient columns of an effect in one record.
std::int32_t columns_of(const param_type& param, std::int32_t e) {
    return param.type_effect[e - 1] == teff_class ? 1 : param.n_cov[e - 1];
}

/// Level slots of an effect that owns its equations.
std::int64_t slots_of(const param_type& param, std::int32_t e, logger& log) {
    const std::int32_t type = param.type_effect[e - 1];
    const bool nested = param.n_level_nested[e - 1] > 0;
    if (type != teff_class && type != teff_covariable && !is_huge_effect(type))
        fatal(log, "This effect does not exist: " + inttochar(type), modparameters_tag, procedure);
    if (type == teff_class) return param.n_level[e - 1];
    if (param.n_cov[e - 1] < 1)
        fatal(log,
              "Effect " + inttochar(e) + ": the number of covariables is " + inttochar(param.n_cov[e - 1]) +
                  ", but must be at least 1!",
              modparameters_tag, procedure);
    if (!nested) return param.n_cov[e - 1];
    if (type != teff_covariable)
        fatal(log,
              "Nested huge covariables are not implemented\n"
              "STOP: not fully implemented yet for ghuge+extra covariables",
              modparameters_tag, procedure);
    return std::int64_t{param.n_cov[e - 1]} * param.n_level_nested[e - 1];
}

/// The next effect with equations of its own; `nslot` is indexed by [e].
void setnexteffect(param_type& param, const std::vector<std::int64_t>& nslot) {
    std::int32_t next = param.neffect + 1;
    for (std::int32_t e = param.neffect; e >= 1; --e) {
        param.nexteffect[e - 1] = next;
        if (nslot[e] != 0) next = e;
    }
    for (std::int32_t e = 1; e <= param.neffect; ++e)
        if (nslot[e] == 0) param.nexteffect[e - 1] = param.nexteffect[param.andeffect[e - 1] - 1];
}

}  // namespace

void setsumlevel(param_type& param, logger& log) {
    const auto n = static_cast<std::size_t>(param.neffect);
    param.nx.assign(n + 2, 0);
    param.pos.assign(n + 2, 0);
    param.sumlevel.assign(n + 3, 0);
    param.sumequation.assign(n + 3, 0);
    param.nexteffect.assign(n, 0);

    std::vector<std::int64_t> nslot(n + 1, 0), before(n + 2, 0);  // [e]; slots of the effects before e
    std::int64_t columns = 0;
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        nslot[e] = slots_of(param, e, log);
        if (param.landeffect && param.andeffect[e - 1] != e) nslot[e] = 0;
        before[e + 1] = before[e] + nslot[e];
        if (before[e + 1] > max_equations / param.ntrait)
            fatal(log,
                  "Effect " + inttochar(e) + ": the model has more than " + inttochar(max_equations) +
                      " equations, which cannot be numbered!",
                  modparameters_tag, procedure);

        param.nx[e] = columns_of(param, e);
        param.pos[e] = static_cast<std::int32_t>(columns + 1);
        columns += param.nx[e];
        if (columns >= max_equations)
            fatal(log,
                  "Effect " + inttochar(e) + ": the model has more than " + inttochar(max_equations) +
                      " columns of coefficients, which cannot be numbered!",
                  modparameters_tag, procedure);
    }
    param.pos[n + 1] = static_cast<std::int32_t>(columns + 1);

    for (std::int32_t e = 1; e <= param.neffect; ++e)
        param.sumlevel[e] = before[param.landeffect ? param.andeffect[e - 1] : e];
    param.sumlevel[n + 1] = param.sumlevel[n + 2] = before[n + 1];
    for (std::size_t i = 0; i < param.sumlevel.size(); ++i)
        param.sumequation[i] = param.sumlevel[i] * param.ntrait;

    if (param.landeffect) {
        setnexteffect(param, nslot);
    } else {
        for (std::int32_t e = 1; e <= param.neffect; ++e) param.nexteffect[e - 1] = e + 1;
    }
}

std::int32_t get_nlevel(const param_type& param, std::int32_t e) {
    const std::int32_t type = param.type_effect[e - 1];
    if (type == teff_class) return param.n_level[e - 1];
    if (type == teff_covariable && param.n_level_nested[e - 1] > 0) return param.n_level_nested[e - 1];
    return -9;
}

std::int64_t computenrhscontributions(const param_type& param, std::int32_t e) {
    std::int64_t columns = 0;
    assert(e + std::int64_t{param.n_correlated[e - 1]} <= param.neffect);
    for (std::int32_t k = 0; k <= param.n_correlated[e - 1]; ++k) columns += columns_of(param, e + k);
    return columns * param.ntrait;
}

}  // namespace zendar
