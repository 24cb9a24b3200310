#include "modmme.hpp"

#include <cmath>
#include <fstream>
#include <limits>
#include <string>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modgeneral.hpp"
#include "modmme_detail.hpp"
#include "modmmeiod_huge.hpp"
#include "modsparse.hpp"
#include "modstats.hpp"

namespace zendar {

namespace modmme {

std::int64_t available_memory(const char* meminfo) {
    std::ifstream in(meminfo);
    std::string word;
    std::int64_t kib = 0;
    while (in >> word)
        if (word == "MemAvailable:" && in >> kib) return kib * 1024;
    return std::numeric_limits<std::int64_t>::max();
}

void element_store::flush() {
    if (store_->may_grow(std::ssize(rows_))) {
        // The old table stays until its elements are in the new one, of twice its size.
        const std::int64_t needed = 2 * store_->nel() * static_cast<std::int64_t>(sizeof(coo_slot));
        const std::int64_t available = available_ > 0 ? available_ : available_memory();
        if (needed > available)
            fatal(log_,
                  "The left-hand side has more than " + inttochar(store_->filled()) +
                      " elements, and the next table for them needs " + realtochar(mib(needed), "(f0.2)") +
                      " MB of memory, but " + realtochar(mib(available), "(f0.2)") +
                      " MB are available: use a solver that iterates on the data",
                  module_tag, "setup_lhsrhs");
    }
    store_->add(rows_, cols_, values_);
    rows_.clear();
    cols_.clear();
    values_.clear();
}

namespace {

/// The model with its huge effects in the form of the iteration on data, whose matrices are used here.
param_type as_on_data(const param_type& param) {
    param_type copy = param;
    copy.useasparse = true;
    for (std::int32_t& type : copy.type_effect)
        if (type == teff_huge) type = teff_huge_iod;
    return copy;
}

void check_weights(const param_type& param, logger& log) {
    const auto refuse = [&](const char* text) {
        log.error(text, module_tag, "setup_lhsrhs");
        throw fatal_error(text);
    };
    if (param.omega != 1.0) refuse("Omega different than 1 is not supported with the requested options!");
    if (param.tau != 1.0) refuse("Tau different than 1 is not supported with the requested options!");
}

template <class Matrix>
Matrix finished(Matrix lhs, logger& log) {
    lhs.sort();
    lhs.setoutputunit(&log);
    if (log.level() == log_level::debug) lhs.printsquare();
    lhs.print_dim();
    return lhs;
}

/// Slots of the first table: as many as it will need, where there is memory for them.
std::int64_t first_slots(const param_type& param, mme_iod& on_data, std::span<const covariable_type> cov,
                         const lhs_limits& limits) {
    constexpr double most_filled = 0.8, margin = 1.03;  // of a table that does not grow; of the estimate
    const std::int64_t expected = expected_elements(param, on_data, cov);
    const auto slots = static_cast<std::int64_t>(margin / most_filled * static_cast<double>(expected)) + 1;
    const std::int64_t available = limits.bytes > 0 ? limits.bytes : available_memory();
    // Without memory for it the table starts small, and where it ends is told.
    const bool fits = roundinguppower2(slots) * static_cast<std::int64_t>(sizeof(coo_slot)) <= available;
    return fits ? slots : 4 * std::int64_t{param.neq};
}

/// Columns between the equations and the rows of genotypes.
std::int32_t genotype_rows(const mme_iod& on_data, std::int64_t ntrait) {
    std::int64_t n = 0;
    for (const modmmeiod::huge_effect& huge : on_data.state().huge)
        if (!huge.res_edhc.empty()) n += huge.nrow * ntrait;
    return narrow<std::int32_t>(std::max<std::int64_t>(n, 1));
}

}  // namespace
}  // namespace modmme

lhs_inmem setup_lhsrhs(const mme_input& in, const lhs_limits& limits, logger& log) {
    using namespace modmme;
    check_weights(in.param, log);
    check_random_types(in, log);
    param_type param = as_on_data(in.param);
    check_levels(param, in.data.effect.view(), log);
    mme_iod on_data(param, in.data, in.cov, log, in.ped, in.ghuge);
    on_data.setup_for_lhs();

    lhs_inmem result;
    result.rhs.assign(static_cast<std::size_t>(param.neq), 0.0);
    {
        std::vector<double> work(result.rhs.size());
        std::string text = "  Elapsed time (s) - b  :";
        on_data.right_hand_side(result.rhs, work, text);
        log.message(text);
    }

    coosparse hash(param.neq, {}, first_slots(param, on_data, in.cov, limits), true, &log);
    hash.setsymmetric();
    element_store store(hash, limits.bytes, log);
    const assembly a{param, on_data, in.cov, store, log};
    coosparse cross(param.neq, genotype_rows(on_data, param.ntrait), std::int64_t{1024}, false, &log);
    const wtime clock;
    addleastsquarepart(a, cross);
    clock.end(log, "Addition of the least square part");
    addrandompart(a);
    if (param.nhuge > 0) addhugepart(a, convertfromcootocrs(cross));
    store.flush();
    log.message("All contributions for effects are added");

    const std::int64_t nnz = hash.filled();
    log.message("   nnz    : " + list_form(nnz) + list_form(std::log2(static_cast<double>(nnz))) +
                list_form(limits.crs_elements));
    on_data.clean_lhs_iod();
    if (nnz <= limits.crs_elements) {
        log.message("CRS left hand side");
        result.lhsija = finished(convertfromcootocrs(hash), log);
    } else {
        log.message("CRS64 left hand side");
        result.lhsija64 = finished(convertfromcootocrs64(hash), log);
    }
    return result;
}

}  // namespace zendar
