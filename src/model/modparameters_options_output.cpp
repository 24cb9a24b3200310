#include <algorithm>
#include <utility>

#include "modbasic.hpp"
#include "modoption_rows.hpp"
#include "modparameters_options_detail.hpp"

namespace zendar::detail {

namespace {

/// "!keyword [#effects id_effect]": a flag per effect; without a list none is set.
model_option effect_selection(std::string_view keyword, option_rows::texts text, std::string none_taken,
                              std::vector<unsigned char> param_type::*member) {
    constexpr std::int32_t shortest_list = 3;
    return {.usage = std::move(text.usage),
            .help = std::move(text.help),
            .keywords = {keyword},
            .max_words = any_number_of_words,
            .read =
                [member, none_taken = std::move(none_taken), taken = std::move(text.taken)](
                    const option_line& line, param_type& param) {
                    auto& flags = param.*member;
                    if (line.size() < shortest_list) {
                        flags.assign(static_cast<std::size_t>(param.neffect), 0);
                        line.log().message(none_taken);
                        return true;
                    }
                    const auto effects = line.effects(1);
                    if (!effects) return false;
                    flags.resize(static_cast<std::size_t>(param.neffect));
                    for (const std::int32_t e : *effects) {
                        flags[e - 1] = 1;
                        line.log().message(taken + inttochar(e));
                    }
                    return true;
                },
            .write =
                [member, keyword](const param_type& param) {
                    std::vector<std::string> lines;
                    const auto effects = flagged_effects(param.*member);
                    if (!effects.empty())
                        lines.push_back(option_text(keyword, {counted_list(effects)}));
                    else if (!(param.*member).empty())
                        lines.push_back(option_text(keyword));
                    return lines;
                }};
}

bool read_computeeigen(const option_line& line, param_type& param) {
    param.computeeigen = line.int32(1);
    line.log().message("Extremal eigenvalues computed each " + inttochar(param.computeeigen) + " iteration!");
    return true;
}

std::vector<std::string> written_computeeigen(const param_type& param) {
    if (param.computeeigen == param_type{}.computeeigen) return {};
    return {option_text("computeeigen", {inttochar(param.computeeigen)})};
}

bool read_nphen(const option_line& line, param_type& param) {
    param.nphen = line.int32(1);
    const std::string phenotype_file = param.file.empty() ? std::string() : param.file[0][0];
    line.log().message("Number of phenotypes (records) read from top of " + phenotype_file);
    return true;
}

std::vector<std::string> written_nphen(const param_type& param) {
    if (param.nphen == param_type{}.nphen) return {};
    return {option_text("nphen", {inttochar(param.nphen)})};
}

bool read_sumeffect(const option_line& line, param_type& param) {
    const effect_pair pair{.effect1 = line.effect(1), .effect2 = line.effect(2)};
    if (std::ranges::count(param.sumeffect, pair) == 0) param.sumeffect.push_back(pair);
    line.log().message("The effect " + inttochar(pair.effect1) + " will be added to the effect " +
                       inttochar(pair.effect2) + ".");
    return true;
}

std::vector<std::string> written_sumeffect(const param_type& param) {
    std::vector<std::string> lines;
    for (const effect_pair& pair : param.sumeffect)
        lines.push_back(option_text("sumeffect", {inttochar(pair.effect1), inttochar(pair.effect2)}));
    return lines;
}

}  // namespace

std::vector<model_option> output_options() {
    using option_rows::flag;
    using option_rows::word;
    return {
        {.usage = "!computeeigen value",
         .help = "Computes the extremal eigenvalues at each value th iteration starting from the 100th "
                 "iteration.",
         .keywords = {"computeeigen"},
         .min_words = 2,
         .max_words = 2,
         .read = read_computeeigen,
         .write = written_computeeigen},
        flag({"quorlen", "solquorlen"},
             {"!quorlen, !solquorlen",
              "This option allows to write the aggregate solutions to the file solutions_quorlen.dat.",
              "Solutions (i.e. aggregate solutions) will be written to solutions_quorlen.dat."},
             &param_type::lquorlen),
        {.usage = "!nphen value",
         .help = "Only the first value phenotypes will be read from the data file",
         .keywords = {"nphen"},
         .min_words = 2,
         .max_words = 2,
         .read = read_nphen,
         .write = written_nphen},
        word({"outputdir"},
             {"!outputdir value",
              "Path of a directory to output generated files. If the directory does not exist, it will be "
              "created.",
              ""},
             &param_type::outputdir),
        effect_selection(
            "phendev",
            {"!phendev [#effects id_effect]",
             "Compute the deviations of the phenotypes from the estimated phenotypes (y hat). If "
             "some effects are mentionned, these effects will be included in the phenotype "
             "deviations, that is ignored for the computation of the estimated phenotypes (y "
             "hat).",
             "Effect included in the phenotype deviations: "},
            "Only the residual will be included in the phenotype deviations!", &param_type::phendev),
        flag({"plotsolutions"},
             {"!plotsolutions",
              "Draws histograms of the solutions, one for each effect and trait, to solutions.png, by "
              "gnuplot.",
              "Histograms of the solutions will be drawn to solutions.png, if gnuplot is installed"},
             &param_type::plotsolutions),
        flag({"printprecond"},
             {"!printprecond", "Will save the preconditioner and its inverse in a file",
              "Will save the preconditioner and its inverse in a file"},
             &param_type::printprecond),
        word({"priormean"},
             {"!priormean file", "Read the prior means of MME from file file.",
              "Provided prior mean (if applicable): "},
             &param_type::priormean),
        word({"providedrhs"},
             {"!providedrhs file",
              "Read the RHS from file file instead of computing it from the data (only for IOD ).",
              "Provided RHS (if applicable): "},
             &param_type::providedrhs),
        {.usage = "!sumeffect effect1 effect2",
         .help =
             "The effect effect1 (e.g., genetic groups) will be added to the effect effect2 (e.g., animal "
             "effect).",
         .keywords = {"sumeffect"},
         .min_words = 3,
         .max_words = 3,
         .read = read_sumeffect,
         .write = written_sumeffect},
        flag({"solstream"},
             {"!solstream", "Will write the solutions to a stream binary file.",
              "Will write solutions to stream files (solutions.stream), if applicable"},
             &param_type::solstream),
        flag({"thread_effect"},
             {"!thread_effect",
              "Will output information on the distribution of equations across threads, if applicable",
              "Will output information on the distribution of equations across threads, if applicable"},
             &param_type::thread_effect),
        effect_selection("yhat",
                         {"!yhat [#effects id_effect]",
                          "Compute estimated phenotypes (y hat) from the solutions. If some effects are "
                          "mentionned, these effects will be ignored for the computation of the estimated "
                          "phenotypes (y hat).",
                          "Effect not included in yhat: "},
                         "All effects will be included in yhat!", &param_type::yhat),
    };
}

}  // namespace zendar::detail
