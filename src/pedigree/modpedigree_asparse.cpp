#include <string>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modmatop.hpp"
#include "modpedigree_elements.hpp"
#include "modpedigree_rules.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

void addrandompart_eff_ani_inb(const pedigree_type& ped, element_store& store) {
    for (std::int32_t i = 1; i <= ped.nlength(); ++i)
        add_contributions(ped, i, mendelian_factor(ped, i, ped.nlength()),
                          [&](std::int32_t p, std::int32_t q, double v) { store.add(p, q, v); });
}

void addrandompart_eff_ani_upg_inb(const pedigree_type& ped, element_store& store) {
    const std::int32_t nani = ped.nlength() - ped.nupg;
    for (std::int32_t i = 1; i <= nani; ++i)
        add_contributions(ped, i, mendelian_factor(ped, i, nani),
                          [&](std::int32_t p, std::int32_t q, double v) { store.add(p, q, v); });
}

void addrandompart_eff_ani_meta(const pedigree_type& ped, const matrix<double>& inverse,
                                element_store& store) {
    const std::int32_t nani = ped.nlength() - ped.nupg;
    for (std::int32_t j = 0; j < ped.nupg; ++j)
        for (std::int32_t i = 0; i < ped.nupg; ++i) store.add(nani + i + 1, nani + j + 1, inverse(i, j));
    for (std::int32_t i = 1; i <= nani; ++i)
        add_contributions(ped, i, mendelian_factor_meta(ped, i),
                          [&](std::int32_t p, std::int32_t q, double v) { store.add(p, q, v); });
}

/// What the log says of a type; null for metafounders, of which it says nothing.
const char* announcement(std::int32_t efftype, logger& log) {
    switch (efftype) {
        case trandom_ani:
        case trandom_ani_a22i:
            return "Random contributions for the animal (with inbreeding) effect ";
        case trandom_ani_upg:
        case trandom_ani_upg_a22i:
            return "Random contributions for the animal (with unknown parents groups + inbreeding) effect ";
        case trandom_ani_rupg:
        case trandom_ani_rupg_a22i:
            return "Random contributions for the animal (with random unknown parents groups + inbreeding) "
                   "effect ";
        case trandom_ani_meta:
            return nullptr;
        default:
            fatal(log, "This type of effect " + inttochar(efftype) + " is not implemented", "modpedigree",
                  "computeasparse_ped");
    }
}

}  // namespace

void check_metafounders(const pedigree_type& ped, std::string_view procedure, logger& log) {
    for (std::int32_t i = 1; i <= ped.nlength() - ped.nupg; ++i)
        if (ped.sire(i) == 0 || ped.dam(i) == 0)
            fatal(log, "Metafounder (=0) not defined.\nCheck your pedigree", "modpedigree", procedure);
}

crssparse pedigree_type::computeasparse_ped(std::int32_t efftype, double weightupg,
                                            std::optional<std::int32_t> effect, logger& log) const {
    const wtime clock;
    const std::string which = effect ? inttochar(*effect) : std::string();
    const char* const text = announcement(efftype, log);
    const std::int32_t n = nlength();
    if (std::ssize(f) != n)
        fatal(log, "No inbreeding coefficients allocated", "modpedigree", "computeasparse_ped");
    if (efftype == trandom_ani_meta) check_metafounders(*this, "computeasparse_ped", log);
    if (text != nullptr) log.message(text + which);

    matrix<double> inverse;
    if (efftype == trandom_ani_meta) {
        inverse = metarel;
        std::int32_t rank = 0;
        ginv1_real8(inverse.view(), 1e-8, rank);
    }
    return inverse_from_elements(
        n,
        [&](element_store& store) {
            if (efftype == trandom_ani || efftype == trandom_ani_a22i)
                addrandompart_eff_ani_inb(*this, store);
            else if (efftype == trandom_ani_meta)
                addrandompart_eff_ani_meta(*this, inverse, store);
            else
                addrandompart_eff_ani_upg_inb(*this, store);
            if (efftype == trandom_ani_rupg || efftype == trandom_ani_rupg_a22i)
                for (std::int32_t g = n - nupg + 1; g <= n; ++g) store.add(g, g, weightupg);
        },
        clock, log);
}

}  // namespace zendar
