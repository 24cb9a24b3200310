#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modgeneral.hpp"
#include "modpedigree_ploidy.hpp"

namespace zendar {

namespace {

constexpr std::int32_t many_offspring = 50;

bool is_reported(std::int32_t type) {
    return (type >= 3 && type <= 9) || is_a22i_effect(type);
}

bool has_groups(std::int32_t type) {
    return type == trandom_ani_upg || type == trandom_ani_rupg || type == trandom_ani_upg_a22i ||
           type == trandom_ani_rupg_a22i;
}

/// How often each level is a parent of an animal.
struct offspring_counts {
    std::vector<std::int32_t> of;  ///< [level - 1]
    std::int64_t unknown = 0;      ///< parents 0

    explicit offspring_counts(const pedigree_type& ped) : of(static_cast<std::size_t>(ped.nlength()), 0) {
        for (std::int32_t i = 1; i <= ped.nlength() - ped.nupg; ++i)
            for (const std::int32_t parent : {ped.sire(i), ped.dam(i)})
                if (parent == 0)
                    ++unknown;
                else
                    ++of[parent - 1];
    }
    /// Levels first .. last with more than `least` offspring.
    [[nodiscard]] std::int64_t count(std::int32_t first, std::int32_t last, std::int32_t least) const {
        return std::count_if(of.begin() + first - 1, of.begin() + last,
                             [=](std::int32_t n) { return n > least; });
    }
};

double sum_of(const std::vector<double>& values) {
    return std::accumulate(values.begin(), values.end(), 0.0);
}

std::string statistics(const pedigree_type& ped, std::int32_t e, std::int32_t type) {
    const std::int32_t n = ped.nlength(), nani = n - ped.nupg;
    const offspring_counts offspring(ped);
    std::string text =
        "Effect " + inttochar(e) + "\nNumber of levels                  : " + inttochar(n) +
        "\nNumber of (real) animals          : " + inttochar(nani) +
        "\nAverage inbreeding                : " + realtochar(sum_of(ped.f) / nani, "(f0.3)") +
        "\nNumber of known parents           : " + inttochar(offspring.count(1, nani, 0)) +
        "\nNumber of known parents (>50 off.): " + inttochar(offspring.count(1, nani, many_offspring)) +
        "\nNumber of unknown (0) parents     : " + inttochar(offspring.unknown);
    if (has_groups(type))
        text += "\nNumber of declared genetic groups : " + inttochar(ped.nupg) +
                "\nNumber of assigned genetic groups : " + inttochar(offspring.count(nani + 1, n, 0));
    return text;
}

}  // namespace

void statsped(const param_type& param, std::span<const std::unique_ptr<pedigree_type>> ped, logger& report,
              logger& log) {
    report.message("");
    report.message("STATISTICS FOR PEDIGREE (if any)");
    report.message("");
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const std::int32_t type = param.type_random[e - 1];
        if (!is_reported(type) || e > std::ssize(ped) || ped[e - 1] == nullptr) continue;
        if (param.type_effect[e - 1] != teff_class && param.n_level_nested[e - 1] < 1)
            fatal(log, "Covariables are not possible with animal effect", "modgeneral", "statsped");
        report.message(statistics(*ped[e - 1], e, type));
    }
}

void statspedploidy(const param_type& param, std::span<const std::unique_ptr<pedigree_type>> ped,
                    logger& report, logger& log) {
    report.message("");
    report.message("STATISTICS FOR PEDIGREE WITH PLOIDY (if any)");
    report.message("");
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const std::int32_t type = param.type_random[e - 1];
        if (!is_ploidy_code(type) || e > std::ssize(ped)) continue;
        const auto* const ploidy = dynamic_cast<const pedigree_ploidy_type*>(ped[e - 1].get());
        if (ploidy == nullptr) continue;
        if (param.type_effect[e - 1] != teff_class && param.n_level_nested[e - 1] < 1)
            fatal(log, "Covariables are not possible with ploidy animal effect", "modgeneral",
                  "statspedploidy");
        if (ploidy->nupg > 0)
            fatal(log, "Genetic groups for ploidy animal effect is not supported yet", "modgeneral",
                  "statspedploidy");
        const double coancestries = 0.5 * sum_of(ploidy->kdiag);
        report.message(statistics(*ploidy, e, type) + "\nAverage diagonal coancestry       : " +
                       realtochar(coancestries / ploidy->nlength(), "(f0.3)"));
    }
}

}  // namespace zendar
