#include <algorithm>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modoption_rows.hpp"
#include "modsnpmodel.hpp"
#include "modsnpmodel_options_detail.hpp"

namespace zendar {

namespace {

using other_option = option_entry<run_options>;

/// Added to the kernel number when effects are combined across traits.
constexpr std::int32_t combined_kernels = 10;

std::int32_t plain_kernel(std::int32_t loptimem) {
    return loptimem >= combined_kernels ? loptimem - combined_kernels : loptimem;
}

bool read_inbreeding(const option_line& line, run_options& options) {
    const std::string& word = line.word(1);
    if (word == "meuw" || word == "meuwissen") {
        options.inbmethod = 1;
        line.log().message(
            "Chosen algorithm for computing inbreeding coefficients: Meuwissen and Luo (1993)");
    } else if (word == "sargo" || word == "sargol" || word == "sargolzaei") {
        options.inbmethod = 2;
        line.log().message(
            "Chosen algorithm for computing inbreeding coefficients: Sargolzaei et al. (2005)");
    } else {
        line.fail("The option !inbreeding has a wrong argument!");
    }
    return true;
}

bool read_optimem(const option_line& line, run_options& options) {
    const std::string& word = line.word(1);
    if (word == "-9") {
        options.loptimem = -9;
        line.fail("The option !optimem with this argument is not implemented yet!");
    }
    if (word == "0")
        options.loptimem = 1;
    else if (word == "1")
        options.loptimem = 2;
    else if (word == "5")
        options.loptimem = 5;
    else
        return false;
    line.log().message("PCG + IOD (if applicable) will use a memory-optimized version (option " + word + ")");
    return true;
}

/// A line when the run uses kernel `kernel`, which is not the default.
std::vector<std::string> written_kernel(const run_options& options, std::int32_t kernel,
                                        const std::string& line) {
    return plain_kernel(options.loptimem) == kernel ? std::vector{line} : std::vector<std::string>{};
}

std::vector<other_option> make_other_options() {
    return {
        {.usage = "!inbreeding value",
         .help = "Sets the algorithm for computing inbreeding coefficients. For Meuwissen and Luo (1993), "
                 "value = "
                 "\"meuw\". For Sargolzaei et al. (2005), value = \"sargolzaei\".",
         .keywords = {"inbreeding"},
         .min_words = 2,
         .max_words = 2,
         .read = read_inbreeding,
         .write =
             [](const run_options& options) {
                 return options.inbmethod == 2 ? std::vector{option_text("inbreeding", {"sargolzaei"})}
                                               : std::vector<std::string>{};
             }},
        option_rows::real(
            {"miss_phen"},
            {"!miss_phen value", "This option sets the missing value equal to *value* (default = -9).",
             "The missing value for reals is set to (instead of -9): "},
            "(f0.2)", &run_options::rmissing),
        {.usage = "!notoptimem",
         .help = "PCG + IOD will use a not memory-optimized version (if applicable).",
         .keywords = {"notoptimem"},
         .read =
             [](const option_line& line, run_options& options) {
                 options.loptimem = 1;
                 line.log().message("PCG + IOD (if applicable) will not use a memory-optimized version.");
                 return true;
             },
         .write = [](const run_options& options) { return written_kernel(options, 1, "!notoptimem"); }},
        {.usage = "!optimem value",
         .help =
             "PCG + IOD will use a memory-optimized version (if applicable). Values can be 0 (no "
             "optimization), 1 or 5. Performance of the options 1 and 5  depends on the properties of the "
             "datasets.",
         .keywords = {"optimem"},
         .min_words = 2,
         .max_words = 2,
         .read = read_optimem,
         .write = [](const run_options& options) { return written_kernel(options, 5, "!optimem 5"); }},
    };
}

void warn_of_unknown_options(std::span<const option_line> lines, logger& log) {
    for (const option_line& line : lines) {
        const std::string& keyword = line.keyword();
        const bool known = modparameters::takes_option(keyword) || solver_takes_option(keyword) ||
                           find_option(detail::other_options(), keyword) != nullptr;
        if (!known) log.warning("Unknown option: !" + keyword);
    }
}

}  // namespace

std::span<const other_option> detail::other_options() {
    static const std::vector<other_option> rows = make_other_options();
    return rows;
}

void modsnpmodel::read_parameter_file_options(param_type& param, run_options& options,
                                              const std::string& file, logger& log) {
    modparameters::read_parameter_file_options(param, file, log);
    read_parameter_file_options_solver(param.solver, file, param.neffect, log);

    log.message("+++++++++++ Additional options ++++++++++");
    const std::vector<option_line> lines = read_option_lines(file, param.neffect, log);
    options.loptimem = plain_kernel(options.loptimem);  // as an earlier file left it
    read_options<run_options>(detail::other_options(), lines, options);
    if (std::ranges::count(param.type_random, 22) > 0) options.loptimem = 0;
    if (param.lcombieff) options.loptimem += combined_kernels;
    log.message("+++++++ End of additional options +++++++");
    log.message("");
    warn_of_unknown_options(lines, log);
}

void modsnpmodel::write_parameter_file_options(const param_type& param, const run_options& options,
                                               file_writer& out) {
    zendar::write_parameter_file_options(param, out);
    for (const std::string& line : written_options<run_options>(detail::other_options(), options))
        out.write(line + "\n");
}

}  // namespace zendar
