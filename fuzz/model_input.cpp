#include "model_input.hpp"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <string>

#include "modparameters_utils.hpp"
#include "modsnpmodel.hpp"

namespace zendar::fuzz {
namespace {

constexpr std::array<const char*, 5> names = {"model.par", "data.txt", "residual.txt", "g.txt",
                                              "model.par_options"};
constexpr std::string_view separator = "\n%%\n";
constexpr std::int64_t most_coefficients = 1'000'000;

void write_files(std::string_view input) {
    for (const char* name : names) {
        const auto end = std::min(input.find(separator), input.size());
        std::ofstream(name, std::ios::binary) << input.substr(0, end);
        input.remove_prefix(std::min(input.size(), end + separator.size()));
    }
}

void address_records(const run_state& run, logger& log) {
    const std::int64_t coefficients =
        std::int64_t{run.param.pos[static_cast<std::size_t>(run.param.neffect + 1)]} * run.param.ntrait;
    if (coefficients > most_coefficients) return;
    const std::vector<covariable_type> cov(static_cast<std::size_t>(run.param.neffect));
    record_address address(run.param);
    for (std::int64_t i = 1; i <= std::min<std::int64_t>(run.param.nphen, 10); ++i)
        setaddressx_alter(run.param, run.data.effect.view(), cov, i, address, log);
}

}  // namespace

void read_model(std::string_view input) {
    write_files(input);
    run_state run;
    logger& log = run.log;
    try {
        const std::string parfile = names[0];
        read_parameter_file(run.param, parfile, log);
        modsnpmodel::read_parameter_file_options(run.param, run.options, parfile, log);
        modsnpmodel::read_parameter_file_options(run.param, run.options, names[4], log);
        check_and_finalize(run.param, true, log);
        invertg(run.param, log);
        write_parameter_file(run.param, "written.par", log);
        readdata_phen_ascii(run.param, run.data, log);
        check_levels(run.param, run.data.effect.view(), log);
        statsdata(run.param, run.data, run.options.rmissing, log);
        initresidualmatrix(run.param, log);
        address_records(run, log);
    } catch (const fatal_error&) {
        return;
    }
}

}  // namespace zendar::fuzz
