#include "modpedigree_partition.hpp"

#include <algorithm>
#include <string>

#include "modbasic.hpp"
#include "modmatop.hpp"
#include "modpedigree_elements.hpp"
#include "modpedigree_rules.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modpedigree";

/// Where a level stands: its place in the list (type 2), or among the others (type 1).
struct level_types {
    std::vector<std::int32_t> recode;  ///< [level - 1]; negative for type 1
    std::vector<std::int32_t> type1;   ///< levels

    level_types(const pedigree_type& ped, std::span<const std::int32_t> list)
        : recode(static_cast<std::size_t>(ped.nlength()), 0) {
        for (std::size_t k = 0; k < list.size(); ++k) recode[list[k] - 1] = static_cast<std::int32_t>(k + 1);
        for (std::int32_t level = 1; level <= ped.nlength(); ++level)
            if (recode[level - 1] == 0) {
                type1.push_back(level);
                recode[level - 1] = -static_cast<std::int32_t>(type1.size());
            }
    }
};

/// The stores of the blocks that are asked for.
struct block_stores {
    std::optional<element_store> a11, a12, a22;

    void add(const level_types& types, std::int32_t p, std::int32_t q, double value) {
        const std::int32_t i = types.recode[p - 1], j = types.recode[q - 1];
        if (i > 0 && j > 0) {
            if (a22) a22->add(i, j, value);
        } else if (i < 0 && j < 0) {
            if (a11) a11->add(-i, -j, value);
        } else if (i < 0) {
            if (a12) a12->add(-i, j, value);
        }
    }
    void begin_storing() {
        for (std::optional<element_store>* store : {&a11, &a12, &a22})
            if (*store) (*store)->begin_storing();
    }
};

void offer_contributions(const pedigree_type& ped, const level_types& types, const matrix<double>& inverse,
                         block_stores& stores) {
    const auto add = [&](std::int32_t p, std::int32_t q, double v) { stores.add(types, p, q, v); };
    const std::int32_t n = ped.nlength(), nani = n - (ped.ismeta ? ped.nupg : 0);
    for (std::int32_t j = 0; ped.ismeta && j < ped.nupg; ++j)
        for (std::int32_t i = 0; i < ped.nupg; ++i) add(nani + i + 1, nani + j + 1, inverse(i, j));
    for (std::int32_t i = 1; i <= nani; ++i)
        add_contributions(ped, i, ped.ismeta ? mendelian_factor_meta(ped, i) : mendelian_factor(ped, i, nani),
                          add);
}

void report(std::int32_t effect, std::int64_t n, std::int64_t listed, logger& log) {
    log.message("Computation of sparse relationship matrices...\nEffect " + inttochar(effect) +
                "\nNumber of levels (animals)                        : " + inttochar(n) +
                "\nNumber of levels (animals) considered (type 2)    : " + inttochar(listed) +
                "\nNumber of levels (animals) not considered (type 1): " + inttochar(n - listed));
}

void report_memory(const char* name, const crssparse& block, logger& log) {
    log.message(
        "    Memory (MB) needed for sparse sub-Ainv (" + std::string(name) + "): " +
        realtochar(mib(12 * block.totalnumberofelements() + 4 * std::int64_t{block.getdim(1)}), "(f0.2)"));
}

void check_list(const pedigree_type& ped, std::span<const std::int32_t> list, const char* procedure,
                logger& log) {
    const std::int32_t nani = ped.nlength() - std::max(ped.nupg, 0);
    std::vector<std::uint8_t> seen(static_cast<std::size_t>(nani), 0);
    for (const std::int32_t level : list) {
        if (level < 1 || level > nani)
            fatal(log,
                  "Level " + inttochar(level) + " is listed, but the pedigree has the animals 1 to " +
                      inttochar(nani),
                  module_tag, procedure);
        if (seen[level - 1]++ != 0)
            fatal(log, "Level " + inttochar(level) + " is listed twice", module_tag, procedure);
    }
}

}  // namespace

extracted_pedigree extractped(const pedigree_type& ped, std::span<const std::int32_t> list, logger& log) {
    check_list(ped, list, "extractped", log);
    log.message("Extraction of the ancestors");
    std::vector<std::uint8_t> flag = ped.getancestors(list);
    const std::int32_t n = ped.nlength();
    if (ped.ismeta) std::fill(flag.end() - ped.nupg, flag.end(), std::uint8_t{1});

    extracted_pedigree result;
    std::vector<std::int32_t> code(static_cast<std::size_t>(n), 0);
    for (std::int32_t level = 1; level <= n; ++level)
        if (flag[level - 1] != 0) {
            result.level.push_back(level);
            code[level - 1] = static_cast<std::int32_t>(result.level.size());
        }
    const std::int64_t m = std::ssize(result.level);
    log.message("Number of extracted animals: " + inttochar(m));
    result.ped.ped = matrix<std::int32_t>(2, m);
    if (!ped.f.empty()) result.ped.f.resize(static_cast<std::size_t>(m));
    for (std::int64_t i = 0; i < m; ++i) {
        const std::int32_t level = result.level[i];
        for (std::int64_t k = 0; k < 2; ++k) {
            const std::int32_t parent = ped.ped(k, level - 1);
            result.ped.ped(k, i) = parent == 0 ? 0 : code[parent - 1];  // 0 for a group
        }
        if (!ped.f.empty()) result.ped.f[i] = ped.f[level - 1];
    }
    result.ped.nupg = ped.ismeta ? ped.nupg : 0;
    result.ped.ismeta = ped.ismeta;
    result.ped.metarel = ped.metarel;
    for (const std::int32_t level : list) result.list.push_back(code[level - 1]);
    return result;
}

std::vector<std::int32_t> extractprogeny(const pedigree_type& ped, std::span<const std::int32_t> list,
                                         logger& log) {
    check_list(ped, list, "extractprogeny", log);
    log.message("Extraction of the progeny of the provided animals");
    const std::vector<std::uint8_t> flag = ped.getdescendants(list);
    std::vector<std::int32_t> result;
    for (std::int32_t level = 1; level <= std::ssize(flag); ++level)
        if (flag[level - 1] != 0) result.push_back(level);
    log.message("Number of extracted animals (listed + progeny): " + inttochar(std::ssize(result)));
    return result;
}

void zeroupgineped(std::int32_t nanimal, pedigree_type& ped) {
    if (ped.ismeta || ped.nupg <= 0) return;
    for (std::int32_t& parent : ped.ped.values())
        if (parent > nanimal) parent = 0;
}

partitioned_ainv computeasubsparse(const pedigree_type& ped, std::int32_t effect,
                                   std::span<const std::int32_t> list, partition_blocks blocks, logger& log) {
    const char* const procedure = ped.ismeta ? "computeasubsparse_meta" : "computeasubsparse_nometa";
    if (!blocks.a11 && !blocks.a12 && !blocks.a22)
        fatal(log, "Internal error: this option is not possible!", module_tag, "computeasubsparse");
    const std::int32_t n = ped.nlength();
    report(effect, n, std::ssize(list), log);
    if (std::ssize(ped.f) != n)
        fatal(log,
              ped.ismeta ? "Pedigree inbreeding must be available with metafounders!"
                         : "No inbreeding coefficients allocated",
              module_tag, procedure);
    matrix<double> inverse;
    if (ped.ismeta) {
        check_metafounders(ped, procedure, log);
        inverse = ped.metarel;
        std::int32_t rank = 0;
        ginv1_real8(inverse.view(), 1e-8, rank);
    }

    const level_types types(ped, list);
    partitioned_ainv result;
    result.type1_level = types.type1;
    const bool dummy = types.type1.empty();
    if (dummy) {
        log.message("Effect " + inttochar(effect) +
                    ": no ungenotyped ancestors of genotyped individuals were found!");
        log.message("A dummy (unrelated) ungenotyped ancestor will be assigned!");
        result.type1_level.push_back(0);
    }
    const auto n1 = static_cast<std::int32_t>(result.type1_level.size());
    const auto n2 = static_cast<std::int32_t>(list.size());
    block_stores stores;
    if (blocks.a11) stores.a11.emplace(n1, n1, true);
    if (blocks.a12) stores.a12.emplace(n1, n2, false);
    if (blocks.a22) stores.a22.emplace(n2, n2, true);
    offer_contributions(ped, types, inverse, stores);
    stores.begin_storing();
    offer_contributions(ped, types, inverse, stores);
    if (dummy && stores.a11) stores.a11->add(1, 1, 1.0);

    const auto take = [&](std::optional<element_store>& store, const char* name, crssparse& block) {
        if (!store) return;
        block = store->finish(log);
        store.reset();
        report_memory(name, block, log);
    };
    take(stores.a22, "A22", result.a22);
    take(stores.a11, "A11", result.a11);
    take(stores.a12, "A12", result.a12);
    return result;
}

}  // namespace zendar
