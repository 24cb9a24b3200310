#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modparameters_utils.hpp"
#include "modpedigree_ploidy.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modparameters_utils";
constexpr const char *procedure_tag = "readdata_ped_ascii",
                     *procedure_tag_ploidy = "readdata_pedploidy_ascii";

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
        case trandom_ani_ploidy:  // see below
            return pedigree_kind::none;
        default:
            fatal(log, "This type of effect " + inttochar(type) + " is not implemented", module_tag,
                  procedure_tag);
    }
}

std::string input(const param_type& param, std::int32_t e, std::size_t which) {
    return std::string(trim(param.file[static_cast<std::size_t>(e)][which - 1]));
}

bool has_pedigree_file(const param_type& param, std::int32_t e) {
    const std::string name = input(param, e, 1);
    return !name.empty() && name != "none" && name != "compute";
}

std::int32_t groups_of(const param_type& param, std::int32_t e) {
    return param.nupg.empty() ? 0 : param.nupg[e - 1];
}

/// Animals and groups of an effect.
std::int32_t levels_of(const param_type& param, std::int32_t e, std::string_view procedure, logger& log) {
    if (param.type_effect[e - 1] == teff_class) return param.n_level[e - 1];
    if (param.n_level_nested[e - 1] < 1)
        fatal(log, "Covariables are not possible with animal effects", module_tag, procedure);
    return param.n_level_nested[e - 1];  // random regression
}

void tell_memory(std::int32_t n, logger& log) {
    log.message("Memory (MB) needed for ped   : " + realtochar(mib(std::int64_t{8} * n), "(f0.2)"));
}

void read_pedigree(const param_type& param, std::int32_t e, pedigree_type& ped, logger& log) {
    const std::int32_t n = levels_of(param, e, procedure_tag, log), nupg = groups_of(param, e);
    if (nupg > n)
        fatal(log,
              "The effect " + inttochar(e) + " has " + inttochar(nupg) + " genetic groups, but only " +
                  inttochar(n) + " levels",
              module_tag, procedure_tag);
    tell_memory(n, log);
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
    if (ped.nupg != groups_of(param, e))
        fatal(log, "Number of UPGs in param and ped are different (internal)", module_tag, procedure_tag);
    if (ped.nlength() != levels_of(param, e, procedure_tag, log))
        fatal(log, "Number of animals in param and ped are different (internal)", module_tag, procedure_tag);
    ped.computeinbreeding_ped(options, log);
}

/// An effect whose animals have any number of gene copies.
std::unique_ptr<pedigree_ploidy_type> read_ploidy_pedigree(const param_type& param, std::int32_t e,
                                                           logger& log) {
    if (param.type_random[e - 1] != trandom_ani_ploidy)
        fatal(log, "This type of effect " + inttochar(param.type_random[e - 1]) + " is not implemented",
              module_tag, procedure_tag_ploidy);
    if (groups_of(param, e) > 0)
        fatal(log, "Genetic groups for ploidy animal effect is not supported yet", module_tag,
              procedure_tag_ploidy);
    const std::int32_t n = levels_of(param, e, procedure_tag_ploidy, log);
    if (input(param, e, 2) != "compute")
        fatal(log, "Ped ploidy: only the option \"compute\" is supported\"", module_tag,
              procedure_tag_ploidy);
    tell_memory(n, log);
    auto ped = std::make_unique<pedigree_ploidy_type>();
    ped->readpedigree_ploidy(input(param, e, 1), n, 0, log);
    return ped;
}

}  // namespace

pedigree_list readdata_ped_ascii(const param_type& param, std::int32_t inbmethod, logger& log) {
    pedigree_list list(static_cast<std::size_t>(param.neffect));
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (!has_pedigree_file(param, e) || kind_of(param.type_random[e - 1], log) == pedigree_kind::none)
            continue;
        list[e - 1] = std::make_unique<pedigree_type>();
        read_pedigree(param, e, *list[e - 1], log);
    }
    const inbreeding_options options{.inbmethod = inbmethod, .directory = output_directory(param)};
    for (std::int32_t e = 1; e <= param.neffect; ++e)
        if (list[e - 1] != nullptr) read_coefficients(param, e, *list[e - 1], options, log);
    return list;
}

void readdata_pedploidy_ascii(const param_type& param, pedigree_list& list, logger& log) {
    list.resize(static_cast<std::size_t>(param.neffect));
    std::vector<pedigree_ploidy_type*> read;
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (!is_ploidy_code(param.type_random[e - 1]) || !has_pedigree_file(param, e)) continue;
        auto ped = read_ploidy_pedigree(param, e, log);
        read.push_back(ped.get());
        list[e - 1] = std::move(ped);
    }
    const inbreeding_options options{.inbmethod = meuwissen_and_luo, .directory = output_directory(param)};
    for (pedigree_ploidy_type* ped : read) {
        ped->computefounderploidy(log);
        ped->computeinbreedingploidy(options, log);
    }
}

}  // namespace zendar
