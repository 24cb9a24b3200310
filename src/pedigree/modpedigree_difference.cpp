#include <algorithm>
#include <array>
#include <string>

#include "modbasic.hpp"
#include "modpedigree_elements.hpp"
#include "modpedigree_partition.hpp"
#include "modpedigree_rules.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modpedigree";

/// What an animal without inbreeding adds, by the number of its known parents.
double factor_without_inbreeding(const pedigree_type& ped, std::int32_t animal, std::int32_t nani) {
    constexpr std::array<double, 3> m{1.0, 4.0 / 3.0, 2.0};
    const auto known = [nani](std::int32_t parent) { return parent > 0 && parent <= nani ? 1U : 0U; };
    return m[known(ped.sire(animal)) + known(ped.dam(animal))];
}

}  // namespace

std::vector<std::int32_t> diffpedigree(const pedigree_type& ped, std::span<const std::int32_t> list,
                                       logger& log) {
    const wtime clock;
    const std::int32_t nani = ped.nlength() - std::max(ped.nupg, 0);
    std::vector<std::uint8_t> listed(static_cast<std::size_t>(ped.nlength()), 0);
    for (const std::int32_t level : list) listed[level - 1] = 1;
    const std::vector<std::uint8_t> extracted = ped.getancestors(list);
    const auto is_listed = [&](std::int32_t level) { return level > 0 && listed[level - 1] != 0; };
    std::vector<std::int32_t> levels;
    std::int64_t removed = 0;
    for (std::int32_t level = 1; level <= nani; ++level) {
        if (extracted[level - 1] != 0) continue;
        if (is_listed(ped.sire(level)) || is_listed(ped.dam(level)))
            levels.push_back(level);
        else
            ++removed;
    }
    log.message("Number of animals removed from pedigree: " + inttochar(removed));
    log.message("Wall clock time (s): " + realtochar(clock.seconds(), "(f0.3)"));
    return levels;
}

crssparse computeadiffsparse(const pedigree_type& ped, std::int32_t effect,
                             std::span<const std::int32_t> list, std::span<const std::int32_t> virtual_levels,
                             logger& log) {
    const char* const procedure = ped.ismeta ? "computeadiffsparse_meta" : "computeadiffsparse_nometa";
    const std::int32_t n = ped.nlength(), nani = n - std::max(ped.nupg, 0);
    log.message(ped.ismeta ? "Computation of diff sparse relationship matrices with metafounders..."
                           : "Computation of diff sparse relationship matrices (without metafounders)...");
    log.message("Effect " + inttochar(effect) +
                "\nNumber of virtual levels (animals)            : " + inttochar(std::ssize(virtual_levels)) +
                "\nNumber of levels (animals) considered (type 2): " + inttochar(std::ssize(list)) +
                "\nSize of cov%indice / maximum ID               : " + inttochar(n));
    const bool inbreeding = !ped.f.empty();
    if (ped.ismeta) {
        if (!inbreeding)
            fatal(log, "Pedigree inbreeding must be available with metafounders!", module_tag, procedure);
        check_metafounders(ped, procedure, log);
    }
    std::vector<std::int32_t> recode(static_cast<std::size_t>(n), 0);
    for (std::size_t k = 0; k < list.size(); ++k) recode[list[k] - 1] = static_cast<std::int32_t>(k + 1);
    const auto size = static_cast<std::int32_t>(list.size());
    element_store store(size, size, true);
    const auto add = [&](std::int32_t p, std::int32_t q, double value) {
        if (recode[p - 1] > 0 && recode[q - 1] > 0) store.add(recode[p - 1], recode[q - 1], value);
    };
    const auto offer = [&] {
        for (const std::int32_t level : virtual_levels)
            add_contributions(ped, level,
                              ped.ismeta   ? mendelian_factor_meta(ped, level)
                              : inbreeding ? mendelian_factor(ped, level, nani)
                                           : factor_without_inbreeding(ped, level, nani),
                              add);
    };
    offer();
    store.begin_storing();
    offer();
    crssparse result = store.finish(log);
    log.message("    Memory (MB) needed for sparse sub-Ainv (A22): " +
                realtochar(mib(12 * result.totalnumberofelements() + 4 * std::int64_t{size}), "(f0.2)"));
    return result;
}

}  // namespace zendar
