#include "modmatrices_options.hpp"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <set>
#include <system_error>
#include <variant>

#include "modarguments.hpp"
#include "modbasic.hpp"

namespace zendar::matrices {
namespace {

constexpr const char *module_tag = "modmatrices", *procedure = "read_options";
constexpr const char* try_help = ". Try zendar-matrices --help";

enum class option_kind : std::uint8_t { flag, input, matrix_output, text_output, number };

using option_target = std::variant<bool matrix_options::*, std::string matrix_options::*,
                                   std::int32_t matrix_options::*, double matrix_options::*>;

/// All there is to know of an option.
struct option_row {
    const char* name;
    const char* value;  ///< what stands for its value in the help
    const char* help;
    option_kind kind;
    option_target target;
    double lowest = 0.0, highest = 0.0;  ///< of a number
    bool shows_default = false;
};

constexpr double most = std::numeric_limits<std::int32_t>::max(),
                 any = std::numeric_limits<double>::infinity();
using options = matrix_options;
using enum option_kind;

const option_row rows[] = {
    {"--help", "", "Print this help.", flag, &options::help},
    {"--bfile", "STEM",
     "The genotypes: STEM.bed, STEM.bim and STEM.fam. Integers as second words of the "
     ".fam file are the levels; otherwise the levels are its line numbers.",
     input, &options::bfile},
    {"--ped", "FILE", "The pedigree: lines with animal, sire and dam, as the solver reads them.", input,
     &options::ped},
    {"--pedtype", "3|5|7|9",
     "The random type of the animal effect: 3 without groups, 5 and 9 with groups, which have no part in "
     "these matrices, 7 with metafounders.",
     number, &options::pedtype, 3, 9, true},
    {"--nlevel", "N",
     "Levels of the animal effect, groups included. Default: the largest code of the "
     "pedigree.",
     number, &options::nlevel, 1, most},
    {"--nupg", "N", "Groups or metafounders, the last N levels. Default: the codes behind the last animal.",
     number, &options::nupg, 1, most},
    {"--gamma", "FILE", "The relationships between the metafounders: lines with row, column and value.",
     input, &options::gamma},
    {"--allelefreq", "FILE", "Frequencies of the second allele, one a line. Default: those of the genotypes.",
     input, &options::allelefreq},
    {"--alpha", "VALUE", "Weight of the genotypes in G. Default: 1 - beta.", number, &options::alpha, 0.0,
     any},
    {"--beta", "VALUE", "Weight of the pedigree in G.", number, &options::beta, 0.0, any, true},
    {"--tau", "VALUE", "Weight of G^-1 in the matrix of --gima22i.", number, &options::tau, -any, any, true},
    {"--omega", "VALUE", "Weight of A22^-1 in the matrix of --gima22i.", number, &options::omega, -any, any,
     true},
    {"--effect", "N", "The number of the animal effect in the instruction file.", number, &options::effect, 1,
     9999, true},
    {"--threads", "N", "Threads. Default: as the environment says.", number, &options::threads, 1, 1024},
    {"--g", "OUT", "G = alpha W W' / s + beta A22.", matrix_output, &options::g},
    {"--gi", "OUT", "G^-1.", matrix_output, &options::gi},
    {"--gima22i", "OUT", "tau G^-1 - omega A22^-1.", matrix_output, &options::gima22i},
    {"--a22", "OUT", "A22, the relationships between the animals with genotypes by the pedigree.",
     matrix_output, &options::a22},
    {"--a22i", "OUT", "A22^-1.", matrix_output, &options::a22i},
    {"--apy", "OUT", "G^-1 by the algorithm for proven and young, with the core animals of --core.",
     matrix_output, &options::apy},
    {"--core", "FILE", "The levels of the core animals, one a line.", input, &options::core},
    {"--ta", "OUT", "Ta = L^-1 W' A22^-1 / beta, with L L' = W' A22^-1 W / beta + (s / alpha) I.",
     matrix_output, &options::ta},
    {"--k", "OUT", "L of the same, which !ktamatrix reads.", matrix_output, &options::k},
    {"--freq", "OUT", "The frequencies of the second allele, one a line.", text_output, &options::freq},
};

std::string given(const matrix_options& values, const option_row& row) {
    const auto* const text = std::get_if<std::string matrix_options::*>(&row.target);
    return text == nullptr ? std::string() : values.**text;
}

[[noreturn]] void refuse(logger& log, const std::string& message) {
    fatal(log, message, module_tag, procedure);
}

std::string text_of(double value) {
    return std::abs(value) < 1e15 && value == std::floor(value) ? inttochar(static_cast<std::int64_t>(value))
                                                                : realtochar(value, "(g0)");
}

std::string allowed(const option_row& row) {
    if (row.highest == any) return "must not be below " + text_of(row.lowest);
    return "must lie between " + text_of(row.lowest) + " and " + text_of(row.highest);
}

/// Sets the number of a row, a std::int32_t or a double.
template <class Number>
void set_number(Number& target, const option_row& row, const std::string& word, logger& log) {
    Number value{};
    if (!parse_number(word, value).ok() || !std::isfinite(static_cast<double>(value)))
        refuse(log, "The value of " + std::string(row.name) +
                        (std::is_integral_v<Number> ? " is not an integer: \"" : " is not a number: \"") +
                        word + "\"");
    if (static_cast<double>(value) < row.lowest || static_cast<double>(value) > row.highest)
        refuse(log, "The value of " + std::string(row.name) + " " + allowed(row) + ": " + word);
    target = value;
}

void set(matrix_options& values, const option_row& row, const std::string& word, logger& log) {
    if (const auto* const text = std::get_if<std::string matrix_options::*>(&row.target))
        values.** text = std::string(trim(word));
    else if (const auto* const integer = std::get_if<std::int32_t matrix_options::*>(&row.target))
        set_number(values.**integer, row, word, log);
    else if (const auto* const real = std::get_if<double matrix_options::*>(&row.target))
        set_number(values.**real, row, word, log);
    else
        values.*std::get<bool matrix_options::*>(row.target) = true;
}

std::string default_of(const option_row& row) {
    const matrix_options fresh;
    if (const auto* const integer = std::get_if<std::int32_t matrix_options::*>(&row.target))
        return inttochar(fresh.**integer);
    if (const auto* const real = std::get_if<double matrix_options::*>(&row.target))
        return realtochar(fresh.**real, "(f4.2)");
    return {};
}

// ---- what must hold between options
// ------------------------------------------------------------------------

void check_outputs(const matrix_options& values, logger& log) {
    std::vector<std::pair<std::string, const char*>> files;
    for (const option_row& row : rows) {
        const std::string name = given(values, row);
        if (name.empty() || (row.kind != matrix_output && row.kind != text_output)) continue;
        if (row.kind == matrix_output && !name.ends_with("_tri") && !name.ends_with(".stream"))
            refuse(log, "The file of " + std::string(row.name) +
                            ", whose ending is its form, must end in _tri or .stream: " + name);
        const std::filesystem::path path(name), folder = path.parent_path();
        std::error_code unreadable;
        if (!folder.empty() && !std::filesystem::is_directory(folder, unreadable))
            refuse(log, "The folder of the file of " + std::string(row.name) + " does not exist: " + name);
        if (std::filesystem::is_directory(path, unreadable))
            refuse(log, "The file of " + std::string(row.name) + " is a folder: " + name);
        const std::string normal = path.lexically_normal().string();
        for (const auto& [other, option] : files)
            if (other == normal)
                refuse(log, std::string(option) + " and " + row.name + " name the same file: " + name);
        files.emplace_back(normal, row.name);
    }
    if (files.empty()) refuse(log, std::string("No output is asked for") + try_help);
}

void check_pedigree(const matrix_options& values, logger& log) {
    const std::string type = inttochar(values.pedtype);
    if (values.pedtype % 2 == 0) refuse(log, "The value of --pedtype must be 3, 5, 7 or 9: " + type);
    if (values.wants_pedigree() && values.ped.empty())
        refuse(log, "--ped is missing: only --freq does without a pedigree");
    if (values.pedtype == 7 && values.gamma.empty())
        refuse(log, "--gamma is missing: a pedigree of type 7 has metafounders");
    if (values.pedtype != 7 && !values.gamma.empty())
        refuse(log, "--gamma belongs to a pedigree of type 7, and not to one of type " + type);
    if (values.pedtype == 3 && values.nupg > 0)
        refuse(log, "--nupg belongs to a pedigree of type 5, 7 or 9, and not to one of type 3");
    if (values.nlevel > 0 && values.nupg >= values.nlevel)
        refuse(log, "--nupg leaves no animals among the " + inttochar(values.nlevel) +
                        " levels of --nlevel: " + inttochar(values.nupg));
}

void check(const matrix_options& values, logger& log) {
    check_outputs(values, log);
    if (values.bfile.empty()) refuse(log, "--bfile is missing");
    check_pedigree(values, log);
    if (values.apy.empty() != values.core.empty())
        refuse(log, values.core.empty() ? "--core is missing: --apy needs core animals"
                                        : "--core belongs to --apy, which is missing");
    if (!(values.alpha > 0.0))
        refuse(log, "The value of --alpha must be above 0: " + text_of(values.alpha) +
                        (values.lalpha ? "" : ", which is 1 - beta"));
    if (values.wants_ta() && !(values.beta > 0.0))
        refuse(log, "The value of --beta must be above 0 for --ta and --k");
}

}  // namespace

matrix_options read_options(std::span<const std::string> words, logger& log) {
    matrix_options values;
    const std::set<std::string> seen = read_arguments(
        words, rows, {"zendar-matrices", module_tag, procedure}, log,
        [&](const option_row& row, const std::string& word) { set(values, row, word, log); },
        [](const std::string&) { return false; });
    if (values.help) return values;
    values.lalpha = seen.contains("--alpha");
    if (!values.lalpha) values.alpha = 1.0 - values.beta;
    check(values, log);
    return values;
}

std::string usage() {
    return "usage: zendar-matrices --bfile STEM --ped FILE [options] outputs\n\n" +
           wrapped(
               "Prepares the matrices that the solver reads for animals with genotypes. W are the genotypes, "
               "centred by twice the frequencies p of the second allele, a missing one being 0; s is the sum "
               "of 2 p (1 - p). The ending of OUT is its form: _tri is text, .stream is binary. Several "
               "outputs of one run share their work.",
               "") +
           "\nOptions:\n" + help_of_arguments(rows, [](const option_row& row) {
               return row.shows_default ? " Default: " + default_of(row) + "." : std::string();
           });
}

std::vector<std::string> option_names() {
    return names_of_arguments(rows);
}

}  // namespace zendar::matrices
