#include <algorithm>
#include <filesystem>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modheader.hpp"
#include "modparameters_utils.hpp"
#include "modsnpmodel.hpp"
#include "modstats.hpp"

namespace zendar {
namespace {

void report_pedigrees(const param_type& param, logger& log) {
    if (std::ranges::none_of(param.type_random, is_pedigree_code))
        log.debug("No effect with pedigree present");
    if (std::ranges::none_of(param.type_random, is_ploidy_code))
        log.debug("No effect with pedigree (ploidy) present");
}

void report_combined_effects(const param_type& param, logger& log) {
    if (!param.lcombieff) {
        log.information("No combination of effects across traits.");
        return;
    }
    log.information("Some combinations of effects across traits were provided.");
    log.message(" Combinations of effects across traits: ");
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        std::string line = list_form(e);
        for (std::int32_t t = 0; t < param.ntrait; ++t) line += list_form(param.combieff_trait(t, e - 1));
        log.message(line);
    }
}

}  // namespace

void initparfile(run_state& run, const std::string& parfile, const run_mode& mode) {
    logger& log = run.log;
    param_type& param = run.param;
    cputime clock(log, "START: reading parameter file");
    read_parameter_file(param, parfile, log);
    param.ncpus = mode.ncpus;
    report_pedigrees(param, log);
    modsnpmodel::read_parameter_file_options(param, run.options, parfile, log);
    const std::string more_options = parfile + "_options";
    if (std::filesystem::exists(more_options))
        modsnpmodel::read_parameter_file_options(param, run.options, more_options, log);
    run_script(log, parfile + "_before");

    const bool liod = is_iod_solver(param.solver.solver);
    if (mode.lpec)
        check_and_finalize(param, liod, log, &mode.lpec, &mode.relparam);
    else if (mode.lebvpev)
        check_and_finalize(param, liod, log, &mode.lebvpev);
    else
        check_and_finalize(param, liod, log);
    invertg(param, log);
    clock.end("END: reading parameter file");

    readdata_ascii(run);
    statsdata(param, run.data, run.options.rmissing, log, run.ped);
    report_combined_effects(param, log);
}

void readdata_ascii(run_state& run) {
    cputime clock(run.log, "START: reading data");
    readdata_phen_ascii(run.param, run.data, run.log);
    readdata_cov_ascii(run.param, run.cov, run.log);
    run.ped = readdata_ped_ascii(run.param, run.options.inbmethod, run.log);
    readdata_pedploidy_ascii(run.param, run.ped, run.log);
    readdata_hugecov_ascii(run.param, run.cov, run.ghuge, run.log);
    check_levels(run.param, run.data.effect.view(), run.log);
    clock.end("END: reading data");
}

}  // namespace zendar
