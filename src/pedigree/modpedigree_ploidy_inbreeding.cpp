#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "modbasic.hpp"
#include "modpedigree_detail.hpp"
#include "modpedigree_ploidy.hpp"
#include "modpedigree_ploidy_detail.hpp"
#include "modpedigree_ploidy_rules.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modpedigree";
constexpr const char* procedure_tag = "computeinbreedingploidy";

void check(const pedigree_ploidy_type& ped, logger& log) {
    const std::int32_t n = ped.nlength();
    if (ped.nupg < 0) fatal(log, "Number of UPGs < 0 (internal error)", module_tag, procedure_tag);
    if (ped.nupg > 0)
        fatal(log, "Genetic groups for ploidy animal effect is not supported yet", module_tag, procedure_tag);
    if (ped.tau.cols() != n || ped.lambda.cols() != n)
        fatal(log, "The copies and lambdas of the pedigree have not been read (internal error)", module_tag,
              procedure_tag);
    for (std::int32_t i = 1; i <= n; ++i)
        if (ped.ploidy(i) <= 0)
            fatal(log, "The ploidy of level " + inttochar(i) + " is not known (internal error)", module_tag,
                  procedure_tag);
}

/// Parents by position in the order from old to young; 0 for those that give no copies.
matrix<std::int32_t> temporary_pedigree(const pedigree_ploidy_type& ped, const pedigree_order& order) {
    matrix<std::int32_t> tped(2, ped.nlength());
    for (std::int64_t position = 0; position < tped.cols(); ++position)
        for (std::int64_t k = 0; k < 2; ++k) {
            const std::int32_t giver = ped.giver(k, order.neworder[position]);
            tped(k, position) = giver == 0 ? 0 : order.order[giver - 1];
        }
    return tped;
}

/// f of a level from those of its parents and from K(s,d).
double inbreeding(const pedigree_ploidy_type& ped, std::int32_t level, const copy_pairs& pairs,
                  double coancestry) {
    const auto identity = [&](std::int64_t which) {
        return identity_in_gamete(ped.lambda(which, level - 1), giver_inbreeding(ped, which, level));
    };
    double sum = pairs.across * coancestry;
    if (pairs.of_sire > 0.0) sum += pairs.of_sire * identity(0);
    if (pairs.of_dam > 0.0) sum += pairs.of_dam * identity(1);
    return pairs.all() > 0.0 ? sum / pairs.all() : 0.0;
}

/// Fills `kdiag` and `kparents` from `f`. K(s,d) is what the step to f leads back to.
void coancestries_of_cache(pedigree_ploidy_type& ped, logger& log) {
    constexpr double digits = 2e-6;  // those of a cache, twice
    std::vector<std::int32_t> others;
    for (std::int32_t i = 1; i <= ped.nlength(); ++i)
        ped.kdiag[i - 1] = 2.0 * self_coancestry(ped.ploidy(i), ped.f[i - 1]);
    for (std::int32_t i = 1; i <= ped.nlength(); ++i) {
        const copy_pairs pairs(ped, i);
        const std::int32_t s = ped.giver(0, i), d = ped.giver(1, i);
        double coancestry = 0.0;
        if (s > 0 && s == d)
            coancestry = 0.5 * ped.kdiag[s - 1];
        else if (s > 0 && d > 0) {
            const double within = inbreeding(ped, i, pairs, 0.0) * pairs.all();
            coancestry = std::max((ped.f[i - 1] * pairs.all() - within) / pairs.across, 0.0);
        }
        ped.kparents[i - 1] = 2.0 * coancestry;
        if (!(std::abs(inbreeding(ped, i, pairs, coancestry) - ped.f[i - 1]) <= digits)) others.push_back(i);
    }
    if (!others.empty())
        log.warning(
            "Inbreeding coefficients of the file with those of an earlier run do not fit the copies and "
            "lambdas of the pedigree: " +
                inttochar(std::ssize(others)) + " (" + detail::first_few(others) +
                "). They are used nevertheless; remove the file if the pedigree has changed",
            module_tag, procedure_tag);
}

void compute(pedigree_ploidy_type& ped, const matrix<std::int32_t>& tped,
             std::span<const std::int32_t> neworder, detail::inbreeding_progress& progress) {
    detail::coancestry_walk walk(tped.view());
    std::int32_t last_sire = 0, last_dam = 0;
    double last_coancestry = 0.0;
    for (std::int32_t position = 1; position <= ped.nlength(); ++position) {
        progress.treated(position);
        const std::int32_t i = neworder[position - 1];
        const std::int32_t s = tped(0, position - 1), d = tped(1, position - 1);
        double coancestry = 0.0;
        if (s > 0 && s == d) {
            coancestry = 0.5 * ped.kdiag[neworder[s - 1] - 1];
        } else if (s > 0 && d > 0) {
            if (s != last_sire || d != last_dam) last_coancestry = walk.coancestry(s, d);  // else full sibs
            last_sire = s;
            last_dam = d;
            coancestry = last_coancestry;
        }
        ped.f[i - 1] = inbreeding(ped, i, copy_pairs(ped, i), coancestry);
        ped.kparents[i - 1] = 2.0 * coancestry;
        ped.kdiag[i - 1] = 2.0 * self_coancestry(ped.ploidy(i), ped.f[i - 1]);
        walk.add(position, -ploidy_contribution_row(ped, i)[1], 0.5 * ploidy_sampling_variance(ped, i));
    }
}

}  // namespace

void pedigree_ploidy_type::computeinbreedingploidy(const inbreeding_options& options, logger& log) {
    log.message("Start computation of inbreeding");
    check(*this, log);
    const auto n = static_cast<std::size_t>(nlength());
    f.assign(n, 0.0);
    kdiag.assign(n, 0.0);
    kparents.assign(n, 0.0);
    bool exists = false;
    if (read_inbreeding_cache(options, log, exists)) return coancestries_of_cache(*this, log);

    const wtime clock;
    log.message("1. Get the order from old to young...");
    pedigree_order order = getorder(log);
    log.message("2. Computation of sub-K...");
    const matrix<std::int32_t> tped = temporary_pedigree(*this, order);
    order.order = {};
    detail::inbreeding_progress progress(log);
    compute(*this, tped, order.neworder, progress);
    clock.end(log, "Computation of inbreeding coefficients");
    if (!exists) write_inbreeding_cache(options, log);
}

}  // namespace zendar
