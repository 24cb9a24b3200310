#include <algorithm>
#include <array>
#include <string_view>

#include "modpreconditioneriod_detail.hpp"

namespace zendar::modpreconditioneriod {

namespace {

constexpr std::string_view procedure = "setstructure_to_preconditioner";

/// One row per random type that may stand in a model.
constexpr std::array<std::int32_t, 14> block_types{1, 3, 5, 7, 9, 10, 20, 22, 23, 30, 103, 105, 109, 203};

/// One row per letter, in lower case. `group`: it opens one, which `u` goes on with.
struct letter_entry {
    char letter;
    std::int32_t code;
    bool group;
};
constexpr std::array<letter_entry, 6> letters{{{'d', precond_diagonal, false},
                                               {'b', precond_block, false},
                                               {'f', precond_dense, true},
                                               {'w', precond_whole, false},
                                               {'s', precond_sparse, true},
                                               {'r', precond_reorder, true}}};

bool opens_group(std::int32_t code) {
    return code == precond_dense || code == precond_sparse || code == precond_auto || code == precond_reorder;
}

bool takes_letter(std::int32_t type_random) {
    return type_random < 20 || type_random == 23 || type_random == 30 || is_a22i_effect(type_random);
}

std::int32_t default_code(std::int32_t type_random) {
    return type_random == 0 ? precond_diagonal : precond_block;
}

[[noreturn]] void refuse_letter(char letter, std::int32_t e, std::string_view reason, logger& log) {
    fatal(log,
          " This type of effect " + std::string(1, letter) + " " + std::string(reason) + " (effect " +
              inttochar(e) + ")",
          module_tag, procedure);
}

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

void apply_letters(const param_type& param, std::span<mija> mija_global, logger& log) {
    std::int32_t open = 0;  // code of the open group
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const char given = param.structprecond[e - 1], letter = lower(given);
        if (is_absorbed(param, e)) continue;  // without equations: a group passes over it
        if (given == 'N' || !takes_letter(param.type_random_eff[e - 1])) {
            open = 0;
            continue;
        }
        mija& part = mija_global[e - 1];
        if (letter == 'u') {
            if (open == 0) refuse_letter(given, e, "continues no group", log);
            part.type = -open;
            continue;
        }
        open = 0;
        if (letter == 'c' || letter == 'a') continue;
        const auto row = std::ranges::find(letters, letter, &letter_entry::letter);
        if (row == letters.end()) refuse_letter(given, e, "is not implemented", log);
        part.type = row->code;
        if (row->group) open = row->code;
    }
}

/// The effect after e, or before it, with equations of its own; 0 for none.
std::int32_t neighbour(const param_type& param, std::int32_t e, std::int32_t step) {
    do e += step;
    while (e >= 1 && e <= param.neffect && is_absorbed(param, e));
    return e <= param.neffect ? e : 0;
}

/// A letter may have cut a run of `autoprecond`: what follows the cut starts a run of its own.
void mend_runs(const param_type& param, std::span<mija> mija_global) {
    const auto code = [&](std::int32_t e) { return e == 0 ? precond_none : mija_global[e - 1].type; };
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        std::int32_t& type = mija_global[e - 1].type;
        const std::int32_t before = code(neighbour(param, e, -1));
        if (type == -precond_auto && before != precond_auto && before != -precond_auto) type = precond_auto;
        if (type == precond_auto && code(neighbour(param, e, 1)) != -precond_auto)
            type = default_code(param.type_random_eff[e - 1]);
    }
}

/// The opener of each effect's group, 0 where it is in none.
std::vector<std::int32_t> find_openers(std::span<const mija> mija_global) {
    std::vector<std::int32_t> opener(mija_global.size(), 0);
    std::int32_t last = 0;
    for (std::size_t i = 0; i < opener.size(); ++i) {
        const std::int32_t type = mija_global[i].type;
        if (opens_group(type)) last = static_cast<std::int32_t>(i) + 1;
        if (opens_group(type) || type < 0) opener[i] = last;
    }
    return opener;
}

/// Correlated effects take the code of the first of them.
void join_correlated(const param_type& param, std::span<mija> mija_global, logger& log) {
    std::vector<std::int32_t> opener = find_openers(mija_global);
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const std::int32_t code = mija_global[e - 1].type;
        for (std::int32_t k = e + 1; k <= e + param.n_correlated[e - 1]; ++k) {
            if (is_absorbed(param, k)) continue;
            if (opener[k - 1] != 0 && opener[k - 1] != opener[e - 1])
                fatal(log,
                      "The preconditioner of effect " + inttochar(k) +
                          " is part of another group than that of its correlated effect " + inttochar(e),
                      module_tag, procedure);
            mija_global[k - 1].type = opens_group(code) ? -code : code;
            opener[k - 1] = opener[e - 1];
        }
    }
}

void join_blocks(const param_type& param, std::span<mija> mija_global, std::int32_t e, logger& log) {
    for (std::int32_t k = e + 1; k <= e + param.n_correlated[e - 1]; ++k) {
        if (is_absorbed(param, k)) continue;
        if (levels_of(param, k) != levels_of(param, e))
            fatal(log,
                  "The correlated effects " + inttochar(e) + " and " + inttochar(k) +
                      " have different numbers of levels: " + inttochar(levels_of(param, e)) + " and " +
                      inttochar(levels_of(param, k)),
                  module_tag, procedure);
        mija_global[k - 1].firsteffect = e;
        mija_global[e - 1].firsteffect = e;
        mija_global[e - 1].lasteffect = k;
    }
}

void set_effects(const param_type& param, std::span<mija> mija_global, logger& log) {
    std::int32_t opener = 0;
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        mija& part = mija_global[e - 1];
        switch (part.type) {
            case precond_block:
                join_blocks(param, mija_global, e, log);
                break;
            case precond_none:
            case precond_diagonal:
            case precond_whole:
                break;
            case precond_dense:
            case precond_sparse:
            case precond_auto:
            case precond_reorder:
                part.firsteffect = part.lasteffect = opener = e;
                break;
            case -precond_dense:
            case -precond_sparse:
            case -precond_auto:
            case -precond_reorder:
                if (opener > 0 && mija_global[opener - 1].type == -part.type) {
                    part.firsteffect = opener;
                    mija_global[opener - 1].lasteffect = e;
                    break;
                }
                [[fallthrough]];
            default:
                fatal(log, "The requested type of preconditioner is unknown", module_tag, procedure);
        }
    }
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        mija& part = mija_global[e - 1];
        if (part.type == precond_none || opener_of(mija_global, e) != e) continue;
        const std::int32_t last = std::max(part.lasteffect, e);
        part.first = narrow<std::int32_t>(param.sumequation[e] + 1);
        part.last = narrow<std::int32_t>(param.sumequation[param.nexteffect[last - 1]]);
    }
}

}  // namespace

std::vector<mija> setstructure_to_preconditioner(const param_type& param, logger& log) {
    std::vector<mija> mija_global(static_cast<std::size_t>(param.neffect));
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const std::int32_t type = param.type_random_eff[e - 1];
        if (is_absorbed(param, e)) continue;
        if (type != 0 && std::ranges::count(block_types, type) == 0)
            fatal(log, " This type of effect " + inttochar(type) + " is not implemented", module_tag,
                  procedure);
        mija_global[e - 1].type = default_code(type);
    }
    if (param.autoprecond) autoprecond(param, mija_global);
    if (param.lstructprecond && !param.structprecond.empty()) apply_letters(param, mija_global, log);
    mend_runs(param, mija_global);
    join_correlated(param, mija_global, log);
    for (std::int32_t e = 1; e <= param.neffect; ++e)
        if (mija_global[e - 1].type == precond_whole && param.type_random_eff[e - 1] != 0)
            fatal(log, "The type of preconditioner w is not implemented for random effects", module_tag,
                  procedure);
    set_effects(param, mija_global, log);
    return mija_global;
}

void autoprecond(const param_type& param, std::span<mija> mija_global) {
    constexpr std::int64_t most_elements = 33554432, most_equations = 5000001;
    const std::int32_t n = param.neffect;
    std::vector<std::int32_t> type_random = param.type_random;
    for (std::int32_t e = 1; e <= n; ++e)
        for (std::int32_t k = e + 1; k <= e + param.n_correlated[e - 1]; ++k)
            type_random[k - 1] = type_random[e - 1];

    // Sizes are judged in single precision.
    const float nt2 = static_cast<float>(param.ntrait) * static_cast<float>(param.ntrait + 1);
    const auto levels = [&](std::int32_t from, std::int32_t to) {
        return static_cast<float>(param.sumlevel[to + 1] - param.sumlevel[from]);
    };
    const auto is_small = [&](float elements, std::int32_t from, std::int32_t to) {
        return static_cast<std::int64_t>(elements) < most_elements &&
               param.sumequation[to + 1] - param.sumequation[from] < most_equations;
    };
    std::int32_t open = 0;
    for (std::int32_t e = 1; e <= n; ++e) {
        if (type_random[e - 1] >= 1 || param.landeffect) {
            open = 0;
            continue;
        }
        const bool joins =
            open > 0 && is_small(levels(open, e) * static_cast<float>(e - open + 2) * nt2 * 0.5f, open, e);
        if (joins) {
            mija_global[e - 1].type = -precond_auto;
        } else if (is_small(levels(e, e) * nt2 * 0.5f, e, e)) {
            mija_global[e - 1].type = precond_auto;
            open = e;
        } else {
            open = 0;
        }
    }

    const auto code = [&](std::int32_t e) { return e < 1 || e > n ? precond_none : mija_global[e - 1].type; };
    const auto reset = [&](std::int32_t e) { mija_global[e - 1].type = default_code(type_random[e - 1]); };
    for (std::int32_t e = 1; e <= n; ++e) {
        if (code(e) == precond_auto && code(e + 1) != -precond_auto) reset(e);
        if (code(e) == -precond_auto && code(e - 1) != precond_auto && code(e - 1) != -precond_auto) {
            reset(e);
            if (e > 1) reset(e - 1);
        }
    }
}

void setordering(const param_type& param, std::int32_t e, std::span<mija> mija_global, logger& log) {
    mija& part = mija_global[e - 1];
    part.stretches.clear();
    const std::int32_t nlevel = get_nlevel(param, e);
    std::int64_t order = 0;
    for (std::int32_t k = e; k <= part.lasteffect; ++k) {
        if (is_absorbed(param, k)) continue;
        if (get_nlevel(param, k) != nlevel)
            fatal(log,
                  "Internal error: the effects " + inttochar(e) + " and " + inttochar(k) +
                      " of one block have different numbers of levels",
                  "modpreconditioner", "setordering");
        const std::int64_t length = equations_of_level(param, k);
        part.stretches.push_back({param.sumequation[k], length, length});
        order += length;
    }
    const std::int64_t levels = levels_of(param, e);
    if (order * levels != std::int64_t{part.last} - part.first + 1)
        fatal(log, "Internal error: the levels of the block of effect " + inttochar(e) + " do not fill it",
              "modpreconditioner", "setordering");
    part.dim1 = part.dim2 = narrow<std::int32_t>(order);
    part.dim3 = narrow<std::int32_t>(levels);
    part.perm.clear();
    part.perm.reserve(static_cast<std::size_t>(order * levels));
    for (std::int64_t level = 0; level < levels; ++level)
        for (const block_stretch& stretch : part.stretches)
            for (std::int64_t i = 0; i < stretch.length; ++i)
                part.perm.push_back(
                    narrow<std::int32_t>(stretch.first + level * stretch.stride + i + 2 - part.first));
}

void stats_mija_lhs(const param_type& param, std::span<const mija> mija_global, logger& log) {
    log.message("Size of the preconditioner (per effect):");
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const mija& part = mija_global[e - 1];
        if (part.type < 0 || opener_of(mija_global, e) != e) continue;
        if (part.type == precond_none && is_absorbed(param, e)) continue;
        const std::string one = "    Effect " + inttochar(e) + " ";
        const std::string several =
            "    Effect(s) " + inttochar(part.firsteffect) + "-" + inttochar(part.lasteffect) + " ";
        const auto times = [](std::int64_t a, std::int64_t b) { return inttochar(a) + " x " + inttochar(b); };
        const std::string blocks = times(part.dim1, part.dim2) + " x " + inttochar(part.dim3);
        const std::string sparse = times(part.dim1, part.dim2) +
                                   ", number of elements: " + inttochar(part.sparse.totalnumberofelements());
        switch (part.type) {
            case precond_diagonal:
                log.message(one + "(d): " + inttochar(part.dim1));
                break;
            case precond_block:
                log.message((part.firsteffect > 0 ? several : one) + "(b): " + blocks);
                break;
            case precond_dense:
                log.message(several + "(f): " + times(part.dim1, part.dim2));
                break;
            case precond_whole:
                log.message(one + "(w): " + times(part.dim1, part.dim2));
                break;
            case precond_sparse:
                log.message(several + "(s): " + sparse);
                break;
            case precond_auto:
                log.message(several + "(a): " + sparse);
                break;
            case precond_reorder:
                log.message(several + "(r): " + blocks);
                break;
            default:
                unknown_code(part.type, "stats_mija_lhs", log, " ");
        }
    }
}

}  // namespace zendar::modpreconditioneriod
