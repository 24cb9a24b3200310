#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modpreconditioneriod.hpp"

/// What the sources of modpreconditioneriod share; nobody else includes this.
namespace zendar::modpreconditioneriod {

inline constexpr std::string_view module_tag = "modpreconditioneriod";

[[noreturn]] inline void unknown_code(std::int32_t code, std::string_view procedure, logger& log,
                                      std::string_view blank = "") {
    fatal(log, std::string(blank) + "This type of preconditioner " + inttochar(code) + " is not implemented",
          module_tag, procedure);
}

/// True for an effect whose equations are those of another one.
inline bool is_absorbed(const param_type& param, std::int32_t e) {
    return param.landeffect && param.andeffect[e - 1] != e;
}

/// The effect with the equations of effect e.
inline std::int32_t owner_of(const param_type& param, std::int32_t e) {
    return param.landeffect ? param.andeffect[e - 1] : e;
}

/// The effect that holds the part of an effect with equations: itself, the opener of its group, or the first
/// of its correlated effects.
inline std::int32_t opener_of(std::span<const mija> mija_global, std::int32_t e) {
    const mija& part = mija_global[e - 1];
    return part.firsteffect > 0 ? part.firsteffect : e;
}

/// Levels of effect e, each of which has a block of its own: those of a class effect or of the nesting, the
/// coefficients of a huge effect, and a single one for the other covariables.
inline std::int64_t levels_of(const param_type& param, std::int32_t e) {
    if (is_huge_effect(param.type_effect[e - 1])) return param.n_cov[e - 1];
    return std::max(get_nlevel(param, e), 1);
}

/// Equations of one level of effect e.
inline std::int64_t equations_of_level(const param_type& param, std::int32_t e) {
    return std::int64_t{is_huge_effect(param.type_effect[e - 1]) ? 1 : param.nx[e]} * param.ntrait;
}

/// Equations of effect e, which has some of its own.
inline std::int64_t equations_of(const param_type& param, std::int32_t e) {
    return param.sumequation[param.nexteffect[e - 1]] - param.sumequation[e];
}

/// Place of element (i, k), i <= k, from 0, in an upper triangle by columns.
constexpr std::int64_t packed(std::int64_t i, std::int64_t k) {
    return k * (k + 1) / 2 + i;
}

/// Elements of the block of a level.
inline std::int64_t packed_size(const mija& part) {
    return packed(0, part.dim1);
}

}  // namespace zendar::modpreconditioneriod
