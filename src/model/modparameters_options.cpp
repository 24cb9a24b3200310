#include <algorithm>
#include <cassert>
#include <filesystem>
#include <system_error>
#include <utility>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modparameters.hpp"
#include "modparameters_options_detail.hpp"
#include "modsolvertype_options_detail.hpp"

namespace zendar {

namespace {

/// The order of the manual and of written files, by the first keyword of each row.
constexpr std::string_view option_order[] = {
    "acrosseff",     "allelefreq",    "andeffect",       "alpha",     "beta",
    "checkpd",       "combieff",      "computeeigen",    "gapy",      "gima22i",
    "ktamatrix",     "miraculix",     "miraculix_gpu",   "quorlen",   "nphen",
    "no_beta_snp",   "notuseasparse", "omega",           "outputdir", "phendev",
    "plotsolutions", "precondzaaaz",  "printprecond",    "priormean", "providedrhs",
    "pvalue",        "qptransfo",     "structprecond",   "sum2pq",    "sumeffect",
    "solstream",     "tamatrix",      "tamatrix_blocks", "tageno",    "tau",
    "thread_effect", "useasparse",    "weightupg",       "yhat"};

std::vector<detail::model_option> ordered_options() {
    std::vector<detail::model_option> rows;
    for (auto part : {detail::genomic_options(), detail::relationship_options(), detail::output_options()})
        std::ranges::move(part, std::back_inserter(rows));
    assert(rows.size() == std::size(option_order));
    const auto position = [](const detail::model_option& row) {
        const auto* const at = std::ranges::find(option_order, row.keywords.front());
        assert(at != std::end(option_order));
        return at;
    };
    std::ranges::sort(rows, {}, position);
    return rows;
}

void make_output_directory(const std::string& outputdir) {
    if (outputdir == "." || outputdir == "./") return;
    // Whether it is there shows when the first file is written into it.
    std::error_code ignored;
    std::filesystem::create_directories(outputdir, ignored);
}

}  // namespace

std::span<const detail::model_option> detail::model_options() {
    static const std::vector<model_option> rows = ordered_options();
    return rows;
}

bool modparameters::takes_option(std::string_view keyword) {
    return find_option(detail::model_options(), keyword) != nullptr;
}

void modparameters::read_parameter_file_options(param_type& param, const std::string& file, logger& log) {
    log.message("");
    log.message("+++++++++++ Additional options ++++++++++");
    read_options<param_type>(detail::model_options(), read_option_lines(file, param.neffect, log), param);

    if (!param.lalpha) {
        param.alpha = 1.0 - param.beta;
        log.message("The value for alpha is set to 1 - beta: " + realtochar(param.alpha, "(g0.4)"));
    }
    if (std::ranges::count(param.type_random, 22) > 0) {
        log.warning(
            "Omega different than 1 is not supported with the requested options! "
            "Omega will be set to 1.");
        param.omega = 1.0;
    }
    if (param.outputdir.empty()) param.outputdir = ".";
    make_output_directory(param.outputdir);
    log.message("Output directory: " + param.outputdir);
    log.message("+++++++ End of additional options +++++++");
    log.message("");
}

std::string output_directory(const param_type& param) {
    const std::string& directory = param.outputdir;
    if (directory.empty() || directory == "." || directory == "./") return {};
    return directory.ends_with('/') ? directory : directory + "/";
}

void write_parameter_file_options(const param_type& param, file_writer& out) {
    for (const std::string& line : written_options<param_type>(detail::model_options(), param))
        out.write(line + "\n");
    for (const std::string& line : written_options<solver_type>(detail::solver_options(), param.solver))
        out.write(line + "\n");
}

void man_param(bool markdown, logger& log) {
    constexpr manual_frame frame{
        .begin = "+++++ MANUAL: options for the model available through the parameter file +++++",
        .end = "+++++ End of manual for the model +++++",
        .heading = "### Options for the model available through the parameter file"};
    print_manual(frame, detail::model_options(), markdown, log);
}

}  // namespace zendar
