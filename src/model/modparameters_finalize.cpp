#include <algorithm>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modparameters.hpp"
#include "modparameters_detail.hpp"

namespace zendar {

namespace {

using detail::modparameters_tag;

constexpr std::string_view procedure = "check_and_finalize";

void check_levels_of_effects(const param_type& param, logger& log) {
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        // Covariables and huge effects may leave the number of levels to their file.
        const std::int32_t fewest = param.type_effect[e - 1] == teff_class ? 1 : 0;
        if (param.n_level[e - 1] < fewest)
            fatal(log, "Instruction file: at least one effect has less than 1 level!", modparameters_tag,
                  procedure);
    }
}

void change_huge_codes(param_type& param, logger& log) {
    log.warning("Code teff_huge (2) will be changed teff_huge_iod (3) (if needed)!");
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (param.type_effect[e - 1] != teff_huge) continue;
        param.type_effect[e - 1] = teff_huge_iod;
        log.warning("Effect " + inttochar(e) + ": code teff_huge changed to teff_huge_iod");
    }
}

/// Effects that share equations must number them alike.
void check_combined_effects(const param_type& param, logger& log) {
    if (!param.landeffect) return;
    const auto layout = [&param](std::int32_t e) {
        const std::int32_t levels = get_nlevel(param, e);
        const bool class_effect = param.type_effect[e - 1] == teff_class;
        return std::pair(levels < 0 ? 1 : levels, class_effect ? 1 : param.n_cov[e - 1]);
    };
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const std::int32_t with = param.andeffect[e - 1];
        if (with == e) continue;
        const std::string both = "The effect " + inttochar(e) + " cannot be combined with the effect " +
                                 inttochar(with) + " (option !andeffect): ";
        if (with < 1 || with > param.neffect)
            fatal(log, both + "there is no such effect!", modparameters_tag, procedure);
        if (param.andeffect[with - 1] != with)
            fatal(log, both + "the latter is combined with another effect itself!", modparameters_tag,
                  procedure);
        if (is_huge_effect(param.type_effect[e - 1]) || is_huge_effect(param.type_effect[with - 1]))
            fatal(log, both + "huge effects cannot be combined!", modparameters_tag, procedure);
        if (layout(e) != layout(with))
            fatal(log, both + "their numbers of levels or of columns differ!", modparameters_tag, procedure);
    }
}

}  // namespace

void check_and_finalize(param_type& param, bool liod, logger& log, const bool* lpec,
                        const std::string* relparam) {
    check_levels_of_effects(param, log);
    if (liod) change_huge_codes(param, log);
    if (param.alpha != 1.0 - param.beta)
        log.warning("alpha (" + realtochar(param.alpha, "(g0.4)") + ") is not equal to 1-beta (1-" +
                    realtochar(param.beta, "(g0.4)") + ")");

    setnestedcovtoall(param, log);
    checknestedcov(param, log);
    // Without columns a negative count says the same as 0, which is what the kernels test for.
    for (std::int32_t& levels : param.n_level_nested) levels = std::max(levels, 0);
    check_combined_effects(param, log);
    setsumlevel(param, log);
    setnestedcov(param, log);

    param.neq =
        narrow<std::int32_t>(param.sumlevel[static_cast<std::size_t>(param.neffect) + 2] * param.ntrait);
    log.message("Number of equations: " + inttochar(param.neq));
    if (lpec != nullptr) param.lpec = *lpec;
    if (relparam != nullptr) param.relparam = *relparam;
}

void setnestedcovtoall(param_type& param, logger& log) {
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        std::int32_t nesting = 0;
        bool everywhere = true;
        for (std::int32_t t = 0; t < param.ntrait; ++t) {
            const std::int32_t column = param.pos_nested(t, e - 1);
            everywhere = everywhere && column > 0;
            if (column <= 0) continue;
            if (nesting > 0 && column != nesting)
                fatal(log,
                      "Effect " + inttochar(e) + ": different columns for nested covariables are provided: " +
                          inttochar(nesting) + " and " + inttochar(column),
                      modparameters_tag, procedure);
            nesting = column;
        }
        if (nesting == 0 || everywhere) continue;
        for (std::int32_t t = 0; t < param.ntrait; ++t) param.pos_nested(t, e - 1) = nesting;
        log.message("Effect " + inttochar(e) + " is now a nested covariable for all traits!");
    }
}

void checknestedcov(const param_type& param, logger& log) {
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const auto columns = param.pos_nested.column(e - 1);
        const bool nested = std::ranges::any_of(columns, [](std::int32_t column) { return column > 0; });
        const std::int32_t levels = param.n_level_nested[e - 1];
        if (nested && levels <= 0)
            fatal(log,
                  "Effect " + inttochar(e) +
                      ": columns for nested covariables are provided but the number of levels is <= 0!",
                  modparameters_tag, procedure);
        if (!nested && levels > 0)
            fatal(log,
                  "Effect " + inttochar(e) +
                      ": columns for nested covariables are all 0 but the number of levels is > 0!",
                  modparameters_tag, procedure);
    }
}

void setnestedcov(param_type& param, logger& log) {
    param.pos_nested2 = matrix<std::int32_t>(param.ntrait, param.neffect);
    std::vector<std::int32_t> nesting_columns;  // by first appearance
    for (std::int32_t e = 0; e < param.neffect; ++e) {
        if (param.type_effect[e] == teff_class) continue;
        for (std::int32_t t = 0; t < param.ntrait; ++t) {
            const std::int32_t column = param.pos_nested(t, e);
            if (column <= 0) continue;
            const auto known = std::ranges::find(nesting_columns, column);
            const auto k = static_cast<std::int32_t>(known - nesting_columns.begin()) + 1;
            if (known == nesting_columns.end()) nesting_columns.push_back(column);
            param.pos_nested2(t, e) = param.neffect + k;
        }
    }
    param.nnested = static_cast<std::int32_t>(std::ssize(nesting_columns));
    log.message("Number of different columns for nested covariables: " + inttochar(param.nnested));
}

}  // namespace zendar
