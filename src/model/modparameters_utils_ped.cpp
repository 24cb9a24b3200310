#include <string>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modparameters_utils.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modparameters_utils";
constexpr const char* procedure_tag = "readdata_ped_ascii";

enum class pedigree_kind { none, plain, meta };

/// What an effect reads here.
pedigree_kind kind_of(std::int32_t type, logger& log) {
    switch (type) {
        case trandom_ani:
        case trandom_ani_upg:
        case trandom_ani_rupg:
        case trandom_ani_a22i:
        case trandom_ani_upg_a22i:
        case trandom_ani_rupg_a22i:
            return pedigree_kind::plain;
        case trandom_ani_meta:
            return pedigree_kind::meta;
        case 10:  // read with the operator
        case 20:
        case 22:
        case 23:
        case 30:
        case 203:
            return pedigree_kind::none;
        default:
            fatal(log, "This type of effect " + inttochar(type) + " is not implemented", module_tag,
                  procedure_tag);
    }
}

std::string input(const param_type& param, std::int32_t e, std::size_t which) {
    return std::string(trim(param.file[static_cast<std::size_t>(e)][which - 1]));
}

/// Animals and groups of an effect.
std::int32_t levels_of(const param_type& param, std::int32_t e, logger& log) {
    if (param.type_effect[e - 1] == teff_class) return param.n_level[e - 1];
    if (param.n_level_nested[e - 1] < 1)
        fatal(log, "Covariables are not possible with animal effects", module_tag, procedure_tag);
    return param.n_level_nested[e - 1];  // random regression
}

void read_pedigree(const param_type& param, std::int32_t e, pedigree_type& ped, logger& log) {
    const std::int32_t n = levels_of(param, e, log);
    const std::int32_t nupg = param.nupg.empty() ? 0 : param.nupg[e - 1];
    if (nupg > n)
        fatal(log,
              "The effect " + inttochar(e) + " has " + inttochar(nupg) + " genetic groups, but only " +
                  inttochar(n) + " levels",
              module_tag, procedure_tag);
    log.message("Memory (MB) needed for ped   : " + realtochar(mib(std::int64_t{8} * n), "(f0.2)"));
    ped.readpedigree_max(input(param, e, 1), n, nupg, log);
}

void read_coefficients(const param_type& param, std::int32_t e, pedigree_type& ped,
                       const inbreeding_options& options, logger& log) {
    const std::string name = input(param, e, 2);
    if (kind_of(param.type_random[e - 1], log) == pedigree_kind::meta) {
        ped.ismeta = true;
        ped.readmetarel(input(param, e, 3), e, log);
    }
    if (name == "none") return;
    if (name != "compute") return ped.readinbreeding(name, log);
    if (ped.nupg != (param.nupg.empty() ? 0 : param.nupg[e - 1]))
        fatal(log, "Number of UPGs in param and ped are different (internal)", module_tag, procedure_tag);
    if (ped.nlength() != levels_of(param, e, log))
        fatal(log, "Number of animals in param and ped are different (internal)", module_tag, procedure_tag);
    ped.computeinbreeding_ped(options, log);
}

}  // namespace

pedigree_list readdata_ped_ascii(const param_type& param, std::int32_t inbmethod, logger& log) {
    pedigree_list list(static_cast<std::size_t>(param.neffect));
    const auto has_input = [&](std::int32_t e) {
        const std::string name = input(param, e, 1);
        return !name.empty() && name != "none" && name != "compute";
    };
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (!has_input(e) || kind_of(param.type_random[e - 1], log) == pedigree_kind::none) continue;
        list[e - 1] = std::make_unique<pedigree_type>();
        read_pedigree(param, e, *list[e - 1], log);
    }
    const inbreeding_options options{.inbmethod = inbmethod, .directory = output_directory(param)};
    for (std::int32_t e = 1; e <= param.neffect; ++e)
        if (list[e - 1] != nullptr) read_coefficients(param, e, *list[e - 1], options, log);
    return list;
}

}  // namespace zendar
