#include <algorithm>
#include <cassert>

#include "modgeneral.hpp"
#include "modgeneral_detail.hpp"

namespace zendar {

namespace {

/// What keeps a record from being addressed.
enum class address_fault { none, level, nesting_level, nested_huge, linked_type, random_type, effect_type };

constexpr std::int32_t no_limit = std::numeric_limits<std::int32_t>::max();

bool is_nested(const param_type& param, std::int32_t ie) {
    return param.n_level_nested[ie] > 0;
}

/// The nesting level of a record, 0 when no column is known for it.
std::int32_t nesting_level(const param_type& param, const std::int32_t* levels, std::int32_t ie) {
    const std::int32_t row = param.pos_nested2(0, ie);
    return row > 0 ? levels[row - 1] : 0;
}

/// `limit`, or how many blocks of an effect fit into the slots of the effect whose equations it shares.
std::int32_t shared_limit(const param_type& param, std::int32_t ie, std::int32_t limit) {
    if (!detail::is_absorbed(param, ie + 1)) return limit;
    detail::effect_layout owner;
    if (!detail::layout_of(param, param.andeffect[ie], owner)) return 0;
    return static_cast<std::int32_t>(std::min<std::int64_t>(limit, owner.slots() / param.nx[ie + 1]));
}

/// Highest level of an effect. A covariable without N_LEVEL takes any: its coefficient file has the say.
std::int32_t level_limit(const param_type& param, std::int32_t ie) {
    const std::int32_t limit = param.n_level[ie];
    if (param.type_effect[ie] == teff_class) return shared_limit(param, ie, limit);
    return limit > 0 ? limit : no_limit;
}

std::int32_t nesting_limit(const param_type& param, std::int32_t ie) {
    return shared_limit(param, ie, param.n_level_nested[ie]);
}

/// The fault that every record with a level has, whatever the level.
address_fault type_fault(const param_type& param, std::int32_t ie) {
    switch (param.type_effect[ie]) {
        case teff_class:
        case teff_covariable:
            return address_fault::none;
        case teff_huge:
            return is_nested(param, ie) ? address_fault::nested_huge : address_fault::none;
        case teff_huge_iod:
            switch (param.type_random[ie]) {
                case 0:
                case 20:
                case 23:
                    return address_fault::none;
                case 22: {
                    const std::int32_t link = detail::linked_effect(param, ie + 1);
                    return link > 0 && param.type_effect[link - 1] == teff_class ? address_fault::none
                                                                                 : address_fault::linked_type;
                }
                default:
                    return address_fault::random_type;
            }
        default:
            return address_fault::effect_type;
    }
}

/// The fault of one record in one effect (from 0), `levels` being the record's column.
address_fault fault_of(const param_type& param, const std::int32_t* levels, std::int32_t ie) {
    const std::int32_t lev = levels[ie];
    if (lev < 1) return address_fault::none;
    // Most effects of most models need no closer look.
    if (param.type_effect[ie] == teff_class && lev <= param.n_level[ie] && !param.landeffect)
        return address_fault::none;
    if (const address_fault fault = type_fault(param, ie); fault != address_fault::none) return fault;
    if (lev > level_limit(param, ie)) return address_fault::level;
    if (param.type_effect[ie] == teff_covariable && is_nested(param, ie) &&
        nesting_level(param, levels, ie) > nesting_limit(param, ie))
        return address_fault::nesting_level;
    return address_fault::none;
}

[[noreturn]] void stop_at(const param_type& param, const std::int32_t* levels, std::int64_t irec,
                          std::int32_t ie, address_fault fault, std::string_view procedure, logger& log) {
    const std::string effect = inttochar(ie + 1);
    const auto above = [&](const std::string& what, std::int32_t level, std::int32_t limit) {
        fatal(log,
              "Record " + inttochar(irec) + ": " + what + inttochar(level) + " of effect " + effect +
                  " is above its number of levels (" + inttochar(limit) + ")",
              "modgeneral", procedure);
    };
    switch (fault) {
        case address_fault::level:
            above("level ", levels[ie], level_limit(param, ie));
            break;
        case address_fault::nesting_level:
            above("nesting level ", nesting_level(param, levels, ie), nesting_limit(param, ie));
            break;
        case address_fault::nested_huge:
            fatal_plain(log, " Not yet implemented mmeaddress");
        case address_fault::linked_type:
            fatal_plain(log, " ERROR (modgeneral, 350): This type of effect 22 is not implemented");
        case address_fault::random_type:
            fatal_plain(log, " ERROR (modgeneral, 354): This type of effect " +
                                 inttochar(param.type_random[ie]) +
                                 " is not implemented\n   Most likely issue: non-negative number in the "
                                 "corresponding column");
        case address_fault::effect_type:
            fatal_plain(log, " ERROR: Effect type " + inttochar(param.type_effect[ie]) + " for effect " +
                                 effect + " does not exist!");
        case address_fault::none:
            break;
    }
    detail::internal_error(log, procedure, "effect " + effect);
}

/// A covariable that is not nested has one block, which must fit whatever its levels.
void check_shared_equations(const param_type& param, logger& log) {
    for (std::int32_t e = 1; e <= param.neffect; ++e)
        if (param.type_effect[e - 1] != teff_class && !is_nested(param, e - 1) &&
            shared_limit(param, e - 1, 1) < 1)
            fatal(log,
                  "Effect " + inttochar(e) + " has more covariables than effect " +
                      inttochar(param.andeffect[e - 1]) + ", whose equations it shares!",
                  "modgeneral", "check_levels");
}

/// The same for a row of the sparse store; the other coefficients are zero already.
void set_sparse_coefficients(crs_view<std::int32_t> rows, std::int32_t row, std::int32_t ntrait,
                             const std::int32_t* present, double* x) {
    for (std::int32_t k = rows.ia[row - 1] - 1; k < rows.ia[row] - 1; ++k)
        for (std::int32_t t = 0; t < ntrait; ++t)
            if (present[t] > 0) x[std::int64_t{rows.ja[k] - 1} * ntrait + t] = rows.a[k];
}

/// Coefficients of a level for the traits of the effect. A level without a line in the coefficient file has
/// none.
void set_coefficients(const param_type& param, const covariable_type& cov, std::int32_t lev, std::int32_t ie,
                      double* x) {
    const std::int32_t row = cov.row_of(lev);
    const std::int32_t* present = param.pos_effects.data() + std::int64_t{ie} * param.ntrait;
    if (cov.is_sparse()) {
        if (row > 0) set_sparse_coefficients(cov.data->sparse.view(), row, param.ntrait, present, x);
        return;
    }
    if (cov.is_plink()) {
        for (std::int32_t j = 1; row > 0 && j <= param.nx[ie + 1]; ++j, x += param.ntrait)
            for (std::int32_t t = 0; t < param.ntrait; ++t)
                if (present[t] > 0) x[t] = getval(cov, row, j);
        return;
    }
    const auto values = cov.values();
    if (row < 1 || row > values.cols) return;
    assert(values.rows == param.nx[ie + 1]);
    const double* value = values.data + (row - std::int64_t{1}) * values.ld;
    for (std::int32_t j = 0; j < param.nx[ie + 1]; ++j, x += param.ntrait)
        for (std::int32_t t = 0; t < param.ntrait; ++t)
            if (present[t] > 0) x[t] = value[j];
}

void set_ones(const param_type& param, std::int32_t ie, double* x) {
    const std::int32_t* present = param.pos_effects.data() + std::int64_t{ie} * param.ntrait;
    for (std::int32_t t = 0; t < param.ntrait; ++t)
        if (present[t] > 0) x[t] = 1.0;
}

}  // namespace

record_address::record_address(const param_type& param)
    : address(static_cast<std::size_t>(param.neffect)),
      x(param.ntrait, param.pos[param.neffect + 1] - 1),
      hugeactive(static_cast<std::size_t>(param.neffect)) {}

void setaddressx_alter(const param_type& param, matrix_view<const std::int32_t> effect,
                       std::span<const covariable_type> cov, std::int64_t irec, record_address& out,
                       logger& log) {
    assert(irec >= 1 && irec <= effect.cols && effect.rows >= param.neffect);
    const std::int32_t* levels = effect.data + (irec - 1) * effect.ld;
    const std::int64_t ntrait = param.ntrait;
    std::ranges::fill(out.x.values(), 0.0);
    std::ranges::fill(out.hugeactive, static_cast<unsigned char>(0));

    for (std::int32_t ie = 0; ie < param.neffect; ++ie) {
        // Offsets are those of equations, whose number fits 32 bits.
        std::int64_t address = param.sumequation[ie + 1];
        if (const std::int32_t lev = levels[ie]; lev >= 1) {
            if (const address_fault fault = fault_of(param, levels, ie); fault != address_fault::none)
                stop_at(param, levels, irec, ie, fault, "setaddressx_alter", log);

            double* x = out.x.data() + (param.pos[ie + 1] - 1) * ntrait;
            switch (param.type_effect[ie]) {
                case teff_class:
                    address += (lev - 1) * ntrait;
                    set_ones(param, ie, x);
                    break;
                case teff_covariable:
                    if (is_nested(param, ie)) {
                        const std::int32_t lnest = nesting_level(param, levels, ie);
                        if (lnest < 1) break;
                        address += (lnest - 1) * ntrait * param.n_cov[ie];
                    }
                    set_coefficients(param, cov[ie], lev, ie, x);
                    break;
                case teff_huge:
                    out.hugeactive[ie] = 1;
                    set_coefficients(param, cov[ie], lev, ie, x);
                    break;
                case teff_huge_iod:
                    out.hugeactive[ie] = 1;
                    set_ones(param, ie, x);  // the genotypes come in through the huge effect's own products
                    break;
            }
        }
        out.address[ie] = static_cast<std::int32_t>(address);
    }
}

void check_levels(const param_type& param, matrix_view<const std::int32_t> effect, logger& log) {
    check_shared_equations(param, log);
    const std::int64_t nrec = effect.cols;
    std::int64_t bad = nrec;
#pragma omp parallel for schedule(static) default(none) shared(param, effect, nrec) reduction(min : bad)
    for (std::int64_t irec = 0; irec < nrec; ++irec) {
        if (irec > bad) continue;
        const std::int32_t* levels = effect.data + irec * effect.ld;
        for (std::int32_t ie = 0; ie < param.neffect; ++ie)
            if (fault_of(param, levels, ie) != address_fault::none) {
                bad = std::min(bad, irec);
                break;
            }
    }
    if (bad == nrec) return;

    const std::int32_t* levels = effect.data + bad * effect.ld;
    for (std::int32_t ie = 0; ie < param.neffect; ++ie)
        if (const address_fault fault = fault_of(param, levels, ie); fault != address_fault::none)
            stop_at(param, levels, bad + 1, ie, fault, "check_levels", log);
}

}  // namespace zendar
