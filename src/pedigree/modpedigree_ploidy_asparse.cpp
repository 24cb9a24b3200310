#include <string>
#include <vector>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modpedigree_detail.hpp"
#include "modpedigree_elements.hpp"
#include "modpedigree_ploidy.hpp"
#include "modpedigree_ploidy_rules.hpp"
#include "modpedigree_rules.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modpedigree";
constexpr const char* procedure_tag = "computeaploidy";

void addrandompart_ploidy_eff_ani_inb(const pedigree_ploidy_type& ped, element_store& store) {
    for (std::int32_t i = 1; i <= ped.nlength(); ++i)
        add_contributions(
            ped, i, ploidy_factor(ped, i),
            [&](std::int32_t p, std::int32_t q, double v) { store.add(p, q, v); },
            ploidy_contribution_row(ped, i));
}

void check_type(std::int32_t efftype, logger& log) {
    switch (efftype) {
        case trandom_ani:
        case trandom_ani_a22i:
        case trandom_ani_ploidy:
            return;
        case trandom_ani_upg:
        case trandom_ani_rupg:
        case trandom_ani_meta:
        case trandom_ani_upg_a22i:
        case trandom_ani_rupg_a22i:
            fatal(log, "Genetic groups for ploidy animal effect is not supported yet", module_tag,
                  procedure_tag);
        default:
            fatal(log, "This type of effect " + inttochar(efftype) + " is not implemented", module_tag,
                  procedure_tag);
    }
}

/// Such levels make a matrix that is no inverse of coancestries.
void warn_of_negative_variances(const pedigree_ploidy_type& ped, logger& log) {
    std::vector<std::int32_t> levels;
    for (std::int32_t i = 1; i <= ped.nlength(); ++i)
        if (ploidy_factor(ped, i) < 0.0) levels.push_back(i);
    if (!levels.empty())
        log.warning(
            "Levels with a negative Mendelian sampling variance, to which a parent gives more copies than "
            "it has, with too low a lambda: " +
                inttochar(std::ssize(levels)) + " (" + detail::first_few(levels) + ")",
            module_tag, procedure_tag);
}

}  // namespace

crssparse pedigree_ploidy_type::computeaploidy(std::int32_t efftype, double,
                                               std::optional<std::int32_t> effect, logger& log) const {
    const wtime clock;
    const std::int32_t n = nlength();
    check_type(efftype, log);
    if (std::ssize(f) != n || std::ssize(kdiag) != n || std::ssize(kparents) != n)
        fatal(log, "No inbreeding coefficients allocated", module_tag, procedure_tag);
    log.message("Random contributions for the animal (with inbreeding) effect " +
                (effect ? inttochar(*effect) : std::string()));
    warn_of_negative_variances(*this, log);
    return inverse_from_elements(
        n, [&](element_store& store) { addrandompart_ploidy_eff_ani_inb(*this, store); }, clock, log);
}

}  // namespace zendar
