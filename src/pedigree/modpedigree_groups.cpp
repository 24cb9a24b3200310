#include <omp.h>

#include <algorithm>
#include <string>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modpedigree.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modpedigree";

void write_order(const pedigree_order& order, std::int32_t nupg, const std::string& file,
                 std::string_view procedure, logger& log) {
    file_writer output;
    auto failure = output.open(file);
    for (std::int32_t g = 0; g < nupg && !failure; ++g)
        output.write(list_form(g + 1) + list_form(order.neworder[g]) + "\n");
    if (!failure) failure = output.commit();
    if (failure)
        fatal_io(log, "Cannot write the file " + file, module_tag, procedure, failure->iostat,
                 failure->iomsg);
}

}  // namespace

matrix<double> pedigree_type::computeggcontributions_all(std::int32_t effect, const std::string& directory,
                                                         logger& log) const {
    const wtime clock;
    log.message("Start computation of contributions to genetic groups for effect " + inttochar(effect));
    if (nupg <= 0 || ped.empty()) {
        log.message("No (valid) genetic groups for effect " + inttochar(effect));
        return {};
    }
    const std::int32_t n = nlength();
    log.message("1. Get the order from old to young...");
    const pedigree_order order = getorder(log);
    log.message("2. Computes contributions from old to young...");
    matrix<double> q(nupg, n);
    for (std::int32_t g = 1; g <= nupg; ++g) q(g - 1, order.neworder[g - 1] - 1) = 1.0;
    for (std::int32_t at = nupg + 1; at <= n; ++at) {
        const std::int32_t level = order.neworder[at - 1];
        for (const std::int32_t parent : {sire(level), dam(level)}) {
            if (parent == 0) continue;
            const std::span<const double> from = q.column(parent - 1);
            const std::span<double> own = q.column(level - 1);
            for (std::int32_t g = 0; g < nupg; ++g) own[g] += 0.5 * from[g];
        }
    }
    log.message("3. Writes order of genetic groups...");
    write_order(order, nupg, directory + "gg_order_ped.dat", "computeggcontributions_all", log);
    clock.end(log, "Computation of contributions to genetic groups");
    return q;
}

matrix<double> pedigree_type::computeggcontributions_sel(std::int32_t effect,
                                                         std::span<const std::int32_t> list,
                                                         const std::string& directory, logger& log) const {
    constexpr const char* procedure = "computeggcontributions_sel";
    const wtime clock;
    log.message("Start computation of contributions to genetic groups for effect " + inttochar(effect));
    if (nupg <= 0 || ped.empty()) {
        log.message("No (valid) genetic groups for effect " + inttochar(effect));
        return {};
    }
    const std::int32_t n = nlength(), ngroup = nupg;
    for (const std::int32_t level : list)
        if (level < 1 || level > n)
            fatal(log,
                  "Level " + inttochar(level) + " is not one of the " + inttochar(n) + " levels of effect " +
                      inttochar(effect),
                  module_tag, procedure);
    log.message("1. Get the order from old to young...");
    const pedigree_order order = getorder(log);
    log.message("2. Computes contributions from old to young for a set of animals...");

    // Each group by itself, on a work row over all positions: n doubles a thread, whatever the number of
    // groups.
    matrix<std::int32_t> parents(2, n);
    for (std::int32_t at = nupg + 1; at <= n; ++at)
        for (std::int32_t k = 0; k < 2; ++k) {
            const std::int32_t parent = ped(k, order.neworder[at - 1] - 1);
            parents(k, at - 1) = parent == 0 ? 0 : order.order[parent - 1];
        }
    matrix<double> q(nupg, std::ssize(list));
    const int nthread = std::max(1, std::min(omp_get_max_threads(), static_cast<int>(nupg)));
    matrix<double> work(std::int64_t{n} + 1, nthread);
#pragma omp parallel for schedule(static) num_threads(nthread) default(none) \
    shared(q, work, parents, order, list, n, ngroup)
    for (std::int32_t g = 1; g <= ngroup; ++g) {
        double* const share = work.data() + omp_get_thread_num() * work.rows();
        for (std::int32_t at = 0; at <= ngroup; ++at) share[at] = at == g ? 1.0 : 0.0;
        for (std::int32_t at = ngroup + 1; at <= n; ++at)
            share[at] = 0.5 * (share[parents(0, at - 1)] + share[parents(1, at - 1)]);
        for (std::int64_t k = 0; k < std::ssize(list); ++k) q(g - 1, k) = share[order.order[list[k] - 1]];
    }
    log.message("3. Writes order of genetic groups...");
    write_order(order, nupg, directory + "gg_order_ped_sel.dat", procedure, log);
    clock.end(log, "Computation of contributions to genetic groups");
    return q;
}

}  // namespace zendar
