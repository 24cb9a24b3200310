#include "modsimulate_options.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>
#include <variant>

#include "modarguments.hpp"
#include "modbasic.hpp"

namespace zendar::simulate {
namespace {

using options = simulate_options;
using option_target =
    std::variant<bool options::*, std::int32_t options::*, std::int64_t options::*, double options::*,
                 std::vector<double> options::*, std::string options::*, std::vector<std::string> options::*>;

/// All there is to know of an option.
struct option_row {
    const char* name;
    const char* value;  ///< what stands for its value in the help
    const char* help;
    option_target target;
    double lowest = 0.0, highest = 0.0;  ///< of numbers
};

constexpr double largest_variance = 1e9, smallest_variance = 1e-9;
constexpr std::int32_t largest_count = 100'000'000;

const option_row rows[] = {
    {"--help", "", "Print this help.", &options::help},
    {"--animals", "N", "Animals of the pedigree. Default: 1000.", &options::animals, 4, largest_count},
    {"--generations", "N", "Generations. Default: 5.", &options::generations, 1, 10'000},
    {"--unknown", "SHARE", "Share of the parents behind the first generation that are unknown. Default: 0.",
     &options::unknown, 0.0, 0.9},
    {"--groups", "none|sex|generation",
     "Unknown-parent groups, with codes behind those of the animals: none, one for sires and one for dams, "
     "or one for each generation of the progeny. Default: none.",
     &options::groups},
    {"--traits", "N", "Traits. Default: 1.", &options::traits, 1, 6},
    {"--genetic", "LIST", "Genetic variances. Default: 0.5.", &options::genetic, smallest_variance,
     largest_variance},
    {"--residual", "LIST", "Residual variances. Default: 1.", &options::residual, smallest_variance,
     largest_variance},
    {"--rg", "VALUE", "Genetic correlation between any two traits. Default: 0.5.", &options::rg, -0.99, 0.99},
    {"--re", "VALUE", "Residual correlation between any two traits. Default: 0.2.", &options::re, -0.99,
     0.99},
    {"--missing", "LIST",
     "Share of the observations that are missing, written as -9, at random. A record without any observation "
     "is left out. Default: 0.",
     &options::missing, 0.0, 0.99},
    {"--herds", "N", "Herds; an animal stays in one. Default: 20.", &options::herds, 1, largest_count},
    {"--repeated", "N", "Records of each animal; with 2 and more it has a permanent environment. Default: 1.",
     &options::repeated, 1, 1000},
    {"--permanent", "LIST",
     "Variances of the permanent environment, of animals with repeated records and of dams, independent "
     "between traits. Default: 0.2.",
     &options::permanent, smallest_variance, largest_variance},
    {"--maternal", "LIST",
     "Maternal genetic variances, above 0 for each trait: records then have an effect of the dam, and a "
     "permanent environment by her, and animals without a known dam have no records. Default: 0.",
     &options::maternal, 0.0, largest_variance},
    {"--rdm", "VALUE",
     "Correlation between the direct and the maternal value of a trait, and 0 between traits. Default: -0.3.",
     &options::rdm, -0.99, 0.99},
    {"--genotyped", "N", "Animals with genotypes, the youngest ones. Default: 0.", &options::genotyped, 0,
     largest_count},
    {"--snps", "N", "SNPs. Default: 0.", &options::snps, 0, largest_count},
    {"--chromosomes", "N", "Chromosomes, each of one Morgan with the same number of SNPs. Default: 10.",
     &options::chromosomes, 1, 1000},
    {"--model", "LIST",
     "Instruction files: animal (model.par, random type 3, or 5 with groups), randomgroups "
     "(model_groups.par, type 9), metafounders (model_metafounders.par, type 7, with 0.5 on the diagonal of "
     "gamma.txt and 0.25 beside it), snpblup (model_snpblup.par, type 23, on the records of genotyped "
     "animals), ssgblup22 (model22.par) and ssgblup30 (model30.par). Default: animal.",
     &options::models},
    {"--names", "",
     "Write the pedigree and the data (traits, herd, animal, dam) by names such as NL000012 and herd03, too: "
     "pedigree_names.txt and data_names.txt, with names.txt, the code and the name of each animal, and "
     "snp_names.fam.",
     &options::names},
    {"--truth", "", "Write true_values.txt: each animal and its genetic values, direct before maternal ones.",
     &options::truth},
    {"--seed", "N", "Seed of the random numbers. The same options and seed give the same files. Default: 1.",
     &options::seed, 0, 9e15},
    {"--threads", "N", "Threads; the files do not depend on it. Default: as the environment says.",
     &options::threads, 1, 1024},
};

constexpr const char* model_words[] = {"animal",  "randomgroups", "metafounders",
                                       "snpblup", "ssgblup22",    "ssgblup30"};

constexpr const char *module_tag = "modsimulate", *procedure = "read_options";

[[noreturn]] void refuse(logger& log, const std::string& message) {
    fatal(log, message, module_tag, procedure);
}

std::vector<std::string> parts_of(const std::string& word) {
    std::vector<std::string> parts(1);
    for (const char c : word)
        if (c == ',')
            parts.emplace_back();
        else
            parts.back() += c;
    return parts;
}

std::string text_of(double value) {
    if (value == std::floor(value)) return inttochar(static_cast<std::int64_t>(value));
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

template <class Number>
Number number_of(const option_row& row, const std::string& word, logger& log) {
    Number value{};
    if (!parse_number(word, value).ok() || !std::isfinite(static_cast<double>(value)))
        refuse(log, "The value of " + std::string(row.name) +
                        (std::is_integral_v<Number> ? " is not an integer: \"" : " is not a number: \"") +
                        word + "\"");
    if (static_cast<double>(value) < row.lowest || static_cast<double>(value) > row.highest)
        refuse(log, "The value of " + std::string(row.name) + " must lie between " + text_of(row.lowest) +
                        " and " + text_of(row.highest) + ": " + word);
    return value;
}

void set(options& values, const option_row& row, const std::string& word, logger& log) {
    const auto assign = [&]<class T>(T options::*member) {
        if constexpr (std::is_same_v<T, bool>)
            values.*member = true;
        else if constexpr (std::is_same_v<T, std::string>)
            values.*member = word;
        else if constexpr (std::is_same_v<T, std::vector<std::string>>)
            values.*member = parts_of(word);
        else if constexpr (std::is_same_v<T, std::vector<double>>) {
            (values.*member).clear();
            for (const std::string& part : parts_of(word))
                (values.*member).push_back(number_of<double>(row, part, log));
        } else
            values.*member = number_of<T>(row, word, log);
    };
    std::visit(assign, row.target);
}

/// One value stands for all traits.
void expand_lists(options& values, logger& log) {
    for (const option_row& row : rows) {
        const auto* const list = std::get_if<std::vector<double> options::*>(&row.target);
        if (list == nullptr) continue;
        std::vector<double>& v = values.**list;
        if (v.size() == 1) v.resize(static_cast<std::size_t>(values.traits), v.front());
        if (std::ssize(v) != values.traits)
            refuse(log, "The list of " + std::string(row.name) + " has " + inttochar(std::ssize(v)) +
                            " values, but it must have one, or one for each of the " +
                            inttochar(values.traits) + " traits");
    }
}

void check_models(const options& values, logger& log) {
    for (const std::string& word : values.models) {
        if (std::ranges::find(model_words, word) == std::end(model_words))
            refuse(log, "The model \"" + word + "\" is unknown. Try zendar-simulate --help");
        if (std::ranges::count(values.models, word) > 1)
            refuse(log, "The model \"" + word + "\" was given twice");
        if ((word == "randomgroups" || word == "metafounders") && values.groups == "none")
            refuse(log, "The model " + word + " needs --groups");
        if ((word == "snpblup" || word.starts_with("ssgblup")) && values.genotyped == 0)
            refuse(log, "The model " + word + " needs --genotyped and --snps");
        if ((word == "snpblup" || word.starts_with("ssgblup")) && values.has_maternal())
            refuse(log, "The model " + word + " is not written with --maternal");
        if (word == "metafounders" && values.has_maternal())
            refuse(log, "The model " + word + " is not written with --maternal");
    }
}

void check(const options& values, logger& log) {
    if (values.folder.empty()) refuse(log, "The folder for the files is missing. Try zendar-simulate --help");
    if (values.animals < 2 * values.generations)
        refuse(log, "--animals must be at least two for each of the " + inttochar(values.generations) +
                        " generations: " + inttochar(values.animals));
    if (values.groups != "none" && values.groups != "sex" && values.groups != "generation")
        refuse(log, "The value of --groups must be none, sex or generation: " + values.groups);
    if (values.groups == "generation" && values.unknown == 0.0)
        refuse(log, "--groups generation needs --unknown: only the first generation has unknown parents");
    if ((values.genotyped > 0) != (values.snps > 0)) refuse(log, "--genotyped and --snps need each other");
    if (values.genotyped > values.animals)
        refuse(log, "--genotyped must not be above the " + inttochar(values.animals) +
                        " animals: " + inttochar(values.genotyped));
    if (values.has_maternal() && values.generations < 2)
        refuse(log, "--maternal needs two generations: founders have no known dam");
    if (cholesky(values.genetic_matrix(), values.nvalue()).empty())
        refuse(log, "The genetic (co)variances are not positive definite: --rg, --rdm or --maternal");
    if (cholesky(values.residual_matrix(), values.traits).empty())
        refuse(log, "The residual (co)variances are not positive definite: --re");
    check_models(values, log);
}

constexpr const char* paragraphs[] = {
    "Writes a simulated population to FOLDER: pedigree.txt (animal, sire, dam), data.txt, the variances and "
    "the instruction files. LIST is one value for all traits, or one for each, separated by commas.",
    "Pedigree: generations of equal size; the first animals have unknown parents. A fiftieth of each "
    "generation, at least one, are the sires of the next one, half of it, at least one, the dams, drawn at "
    "random. Nothing is selected.",
    "Genetic values: without SNPs by the infinitesimal model, half the sum of the parents and a Mendelian "
    "deviation with half the genetic variance, with 3/4 of it for one unknown parent, and all of it for two; "
    "the inbreeding of the parents is ignored there. The k-th group has the mean (k - 1) / 2 genetic "
    "standard "
    "deviations.",
    "With SNPs, 95 % of the genetic variance among founders come from normal effects of all SNPs and 5 % "
    "from "
    "the infinitesimal model. Genes are dropped through the pedigree: alleles of founders, and of unknown "
    "parents, have frequencies between 0.05 and 0.95, in linkage equilibrium; gametes have crossovers at "
    "random (Haldane), one for each chromosome on average. Genotypes: snp.bed, snp.bim and snp.fam, held in "
    "memory with two bits each.",
    "Records: 10 for the first trait, 20 for the second, and so on, + herd (variance a quarter of the "
    "residual one) + genetic value + what the options add + residual. Columns of data.txt: traits, herd, "
    "animal; with genotypes the animal again, if it has any, else 0, and a column of 0; with --maternal the "
    "dam.",
    "All random numbers come from generators of the program's own: the files are the same on every machine."};

}  // namespace

bool simulate_options::has_maternal() const {
    return std::ranges::any_of(maternal, [](double v) { return v > 0.0; });
}

std::vector<double> simulate_options::genetic_matrix() const {
    const std::int32_t n = nvalue();
    std::vector<double> m(static_cast<std::size_t>(n) * n);
    for (std::int32_t i = 0; i < n; ++i)
        for (std::int32_t j = 0; j < n; ++j) {
            const auto variance = [&](std::int32_t k) {
                return k < traits ? genetic[k] : maternal[k - traits];
            };
            const bool same_kind = (i < traits) == (j < traits), same_trait = i % traits == j % traits;
            const double r = i == j ? 1.0 : same_kind ? rg : same_trait ? rdm : 0.0;
            m[i * n + j] = i == j ? variance(i) : r * std::sqrt(variance(i) * variance(j));
        }
    return m;
}

std::vector<double> simulate_options::residual_matrix() const {
    std::vector<double> m(static_cast<std::size_t>(traits) * traits);
    for (std::int32_t i = 0; i < traits; ++i)
        for (std::int32_t j = 0; j < traits; ++j)
            m[i * traits + j] = i == j ? residual[i] : re * std::sqrt(residual[i] * residual[j]);
    return m;
}

std::vector<double> cholesky(const std::vector<double>& m, std::int32_t n) {
    std::vector<double> l(m.size(), 0.0);
    for (std::int32_t j = 0; j < n; ++j)
        for (std::int32_t i = j; i < n; ++i) {
            double sum = m[i * n + j];
            for (std::int32_t k = 0; k < j; ++k) sum -= l[i * n + k] * l[j * n + k];
            if (i == j && sum <= 1e-12 * m[j * n + j]) return {};
            l[i * n + j] = i == j ? std::sqrt(sum) : sum / l[j * n + j];
        }
    return l;
}

simulate_options read_options(std::span<const std::string> words, logger& log) {
    options values;
    read_arguments(
        words, rows, {"zendar-simulate", module_tag, procedure}, log,
        [&](const option_row& row, const std::string& word) { set(values, row, word, log); },
        [&](const std::string& word) {
            if (!values.folder.empty())
                refuse(log, "There are two folders: \"" + values.folder + "\" and \"" + word + "\"");
            values.folder = word;
            return true;
        });
    if (values.help) return values;
    if (values.models.empty()) values.models = {"animal"};
    expand_lists(values, log);
    check(values, log);
    return values;
}

std::string usage() {
    std::string text = "usage: zendar-simulate FOLDER [options]\n\n";
    for (const char* paragraph : paragraphs) text += wrapped(paragraph, "") + "\n";
    return text + "Options:\n" + help_of_arguments(rows, [](const option_row&) { return std::string(); });
}

std::vector<std::string> option_names() {
    return names_of_arguments(rows);
}

}  // namespace zendar::simulate
