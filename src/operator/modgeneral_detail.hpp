#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modlogger.hpp"
#include "modparameters.hpp"

/// The layout of the equations as the sources of modgeneral share it; nobody else includes this.
namespace zendar::detail {

/// The trait slot of a row: the trait itself, or the one of `combieff_trait`.
enum class addressing { ori, combieff };

/// The rows of one effect, all counts from 1.
struct effect_layout {
    std::int32_t e = 0;
    bool class_effect = false;  ///< level outermost, covariable printed as 0; otherwise trait outermost
    bool nested = false;        ///< level printed; otherwise 0
    std::int32_t nlevel = 0;    ///< levels (1 for a covariable that is not nested)
    std::int32_t nx = 0;        ///< covariables of a level (1 for a class effect)
    std::int64_t first = 0;     ///< equations before the effect

    /// Level slots of the effect.
    [[nodiscard]] std::int64_t slots() const { return std::int64_t{nlevel} * nx; }
};

/// The layout of effect e. False for an effect type that does not exist.
inline bool layout_of(const param_type& param, std::int32_t e, effect_layout& layout) {
    const std::int32_t type = param.type_effect[e - 1];
    if (type < teff_class || type > teff_huge_iod) return false;
    layout.e = e;
    layout.class_effect = type == teff_class;
    layout.nested = !layout.class_effect && param.n_level_nested[e - 1] > 0;
    layout.nlevel = layout.class_effect ? param.n_level[e - 1]
                    : layout.nested     ? param.n_level_nested[e - 1]
                                        : 1;
    layout.nx = layout.class_effect ? 1 : param.nx[e];
    layout.first = param.sumequation[e];
    return true;
}

/// True for an effect whose equations are those of another effect.
inline bool is_absorbed(const param_type& param, std::int32_t e) {
    return param.landeffect && param.andeffect[e - 1] != e;
}

/// The trait slot, from 1, of trait t in effect e.
template <addressing A>
std::int32_t slot_of(const param_type& param, std::int32_t t, std::int32_t e) {
    if constexpr (A == addressing::combieff)
        return param.combieff_trait(t - 1, e - 1);
    else
        return t;
}

/// What every "Internal error" says of its cause stands behind it.
[[noreturn]] inline void internal_error(logger& log, std::string_view procedure, const std::string& cause) {
    fatal(log, "Internal error: " + cause, "modgeneral", procedure);
}

/// Walks the rows of a vector in the order of the solution files and calls row(t, e, lev, k, equation).
///
/// Effect by effect: a class effect by level, then trait; the others by trait, then nesting level, then
/// covariable. An effect that shares the equations of another has no rows. With `combieff` the equation is
/// that of the trait's slot. Every equation lies in 1..neq: an effect that would not is refused before its
/// first row.
template <addressing A, class Row>
void for_each_row(const param_type& param, logger& log, std::string_view procedure, Row&& row) {
    const std::int64_t ntrait = param.ntrait;
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (is_absorbed(param, e)) continue;
        effect_layout layout;
        if (!layout_of(param, e, layout))
            internal_error(log, procedure, "the type of effect " + inttochar(e) + " does not exist");
        if (layout.first < 0 || layout.first + layout.slots() * ntrait > param.neq)
            internal_error(log, procedure, "effect " + inttochar(e) + " lies outside the equations");
        for (std::int32_t t = 1; t <= ntrait; ++t)
            if (slot_of<A>(param, t, e) < 1 || slot_of<A>(param, t, e) > ntrait)
                internal_error(log, procedure, "trait slot outside the traits for effect " + inttochar(e));

        if (layout.class_effect) {
            std::int64_t before = layout.first;
            for (std::int32_t lev = 1; lev <= layout.nlevel; ++lev, before += ntrait)
                for (std::int32_t t = 1; t <= ntrait; ++t)
                    row(t, e, lev, 0, before + slot_of<A>(param, t, e));
        } else {
            for (std::int32_t t = 1; t <= ntrait; ++t) {
                std::int64_t equation = layout.first + slot_of<A>(param, t, e);
                for (std::int32_t lev = 1; lev <= layout.nlevel; ++lev)
                    for (std::int32_t k = 1; k <= layout.nx; ++k, equation += ntrait)
                        row(t, e, layout.nested ? lev : 0, k, equation);
            }
        }
    }
}

/// The equation of a row that was read, from 1; 0 when the row has none: no such effect or effect type, an
/// equation outside 1..neq, or a trait without a slot. Levels and covariables beyond those of the effect are
/// not refused as long as an equation of the vector is met.
inline std::int64_t equation_of(const param_type& param, std::int32_t t, std::int32_t e, std::int32_t lev,
                                std::int32_t k) {
    effect_layout layout;
    if (e < 1 || e > param.neffect || !layout_of(param, e, layout)) return 0;
    std::int64_t slot = t;
    if (param.lcombieff) {
        if (t < 1 || t > param.ntrait) return 0;
        slot = slot_of<addressing::combieff>(param, t, e);
    }
    std::int64_t before = layout.class_effect ? 0 : std::int64_t{k} - 1;
    if (layout.class_effect || layout.nested) before += (std::int64_t{lev} - 1) * layout.nx;
    if (before > param.neq || before < -std::int64_t{param.neq}) return 0;  // keeps the product in range
    const std::int64_t equation = layout.first + before * param.ntrait + slot;
    return equation >= 1 && equation <= param.neq ? equation : 0;
}

/// The effect that a huge effect of type 22 is linked to; 0 for none. The list stands with the first effect
/// of a correlated group, one entry for each effect of the group.
inline std::int32_t linked_effect(const param_type& param, std::int32_t e) {
    for (std::int32_t first = e; first >= 1; --first) {
        const auto& links = param.link_effect[first - 1];
        if (links.empty()) continue;
        const std::int32_t member = e - first;
        if (member > 0 &&
            (param.n_correlated[first - 1] < member || links.size() <= static_cast<std::size_t>(member)))
            return 0;
        const std::int32_t link = links[member];
        return link >= 1 && link <= param.neffect ? link : 0;
    }
    return 0;
}

}  // namespace zendar::detail
