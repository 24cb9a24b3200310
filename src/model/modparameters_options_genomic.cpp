#include <algorithm>
#include <utility>

#include "modbasic.hpp"
#include "modoption_rows.hpp"
#include "modparameters_options_detail.hpp"

namespace zendar::detail {

namespace {

using option_rows::texts;

/// One line per file that is not "none", with the effects that it belongs to.
std::vector<std::string> written_files(std::string_view keyword, const std::vector<std::string>& files) {
    std::vector<std::string> lines;
    std::vector<unsigned char> done(files.size());
    for (std::size_t e = 0; e < files.size(); ++e) {
        if (files[e] == "none" || done[e] != 0) continue;
        std::vector<unsigned char> same(files.size());
        for (std::size_t k = e; k < files.size(); ++k)
            if (files[k] == files[e]) done[k] = same[k] = 1;
        lines.push_back(option_text(keyword, {files[e], counted_list(flagged_effects(same))}));
    }
    // The option was given, though with "none" only.
    if (lines.empty() && !files.empty()) lines.push_back(option_text(keyword, {"none", "1 1"}));
    return lines;
}

/// "!keyword file #effects id_effect": a file for each effect of a list, logged effect by effect.
model_option file_of_effects(std::vector<std::string_view> keywords, texts text,
                             std::vector<std::string> param_type::*member, std::string ignored = {}) {
    const std::string keyword(keywords.front());
    return {.usage = std::move(text.usage),
            .help = std::move(text.help),
            .keywords = std::move(keywords),
            .min_words = 4,
            .max_words = any_number_of_words,
            .ignored = std::move(ignored),
            .read =
                [member, taken = std::move(text.taken)](const option_line& line, param_type& param) {
                    const auto effects = line.effects(2);
                    if (!effects) return false;
                    auto& files = param.*member;
                    files.resize(static_cast<std::size_t>(param.neffect), "none");
                    for (const std::int32_t e : *effects) {
                        files[e - 1] = line.word(1);
                        line.log().message(taken + inttochar(e));
                    }
                    return true;
                },
            .write = [member,
                      keyword](const param_type& param) { return written_files(keyword, param.*member); }};
}

/// "!keyword value": a flag for one effect.
model_option flag_of_effect(std::string_view keyword, texts text,
                            std::vector<unsigned char> param_type::*member) {
    return {.usage = std::move(text.usage),
            .help = std::move(text.help),
            .keywords = {keyword},
            .min_words = 2,
            .max_words = 2,
            .read =
                [member, taken = std::move(text.taken)](const option_line& line, param_type& param) {
                    const std::int32_t e = line.effect(1);
                    auto& flags = param.*member;
                    flags.resize(static_cast<std::size_t>(param.neffect));
                    flags[e - 1] = 1;
                    line.log().message(taken + inttochar(e));
                    return true;
                },
            .write =
                [member, keyword](const param_type& param) {
                    std::vector<std::string> lines;
                    for (const std::int32_t e : flagged_effects(param.*member))
                        lines.push_back(option_text(keyword, {inttochar(e)}));
                    return lines;
                }};
}

bool read_pvalue(const option_line& line, param_type& param) {
    const pvalue_option option{.effect = line.effect(1),
                               .gifile = line.word(2),
                               .genotypefile = line.word(3),
                               .allelefreqfile = line.word(4)};
    const auto same = std::ranges::find(param.pvalue, option.effect, &pvalue_option::effect);
    if (same != param.pvalue.end())
        *same = option;
    else
        param.pvalue.push_back(option);
    logger& log = line.log();
    log.message("Computation of P-values for the effect " + inttochar(option.effect) + ":");
    log.message("Gi file         : " + option.gifile);
    log.message("Genotype file   : " + option.genotypefile);
    log.message("Allele freq file: " + option.allelefreqfile);
    return true;
}

std::vector<std::string> written_pvalue(const param_type& param) {
    std::vector<std::string> lines;
    for (const pvalue_option& p : param.pvalue)
        lines.push_back(
            option_text("pvalue", {inttochar(p.effect), p.gifile, p.genotypefile, p.allelefreqfile}));
    return lines;
}

bool read_tamatrix_blocks(const option_line& line, param_type& param) {
    const std::int32_t e = line.effect(1);
    const std::int32_t snps = line.int32_from(2, 1);
    param.tamatrix_blocks.resize(static_cast<std::size_t>(param.neffect));
    param.tamatrix_blocks[e - 1] = snps;
    return true;
}

std::vector<std::string> written_tamatrix_blocks(const param_type& param) {
    std::vector<std::string> lines;
    for (std::size_t e = 0; e < param.tamatrix_blocks.size(); ++e)
        if (param.tamatrix_blocks[e] != 0)
            lines.push_back(option_text("tamatrix_blocks", {inttochar(static_cast<std::int64_t>(e) + 1),
                                                            inttochar(param.tamatrix_blocks[e])}));
    return lines;
}

}  // namespace

std::vector<model_option> genomic_options() {
    return {
        file_of_effects({"allelefreq"},
                        {"!allelefreq file #effects id_effect",
                         "This option allows to use specific allele frequencies for the effect(s) id_effect.",
                         "A file with allele frequencies is present for the effect "},
                        &param_type::allelefreq),
        file_of_effects({"gapy"},
                        {"!gapy file #effects id_effect",
                         R"(This option allows to use an external matrix that is equal to (1-beta)\**GAPY*. )"
                         "This option is only available with the IOD solvers.",
                         "A matrix GAPY is present for the effect "},
                        &param_type::gapy),
        file_of_effects(
            {"gima22i"},
            {"!gima22i file #effects id_effect",
             R"(This option allows to use an external matrix that is equal to (1-beta)\**G*-1 minus )"
             R"(beta\**A22*-1.)",
             "A matrix Gi-A22i is present for the effect "},
            &param_type::gima22i),
        file_of_effects({"ktamatrix"},
                        {"!ktamatrix file #effects id_effect",
                         "This option allows to compute SNP effects with ssGTaBLUP solutions. This option is "
                         "only available with the IOD solvers.",
                         "A KTa matrix is present for the effect "},
                        &param_type::ktamatrix),
        flag_of_effect("miraculix",
                       {"!miraculix value", "This option will call Miraculix for the effect *value*.",
                        "Miraculix will be called for the effect "},
                       &param_type::miraculix),
        flag_of_effect(
            "miraculix_gpu",
            {"!miraculix_gpu value", "This option will call Miraculix on NVIDIA GPU for the effect *value*.",
             "Miraculix GPU will be called for the effect "},
            &param_type::miraculix_gpu),
        option_rows::flag({"no_beta_snp"},
                          {"!no_beta_snp", "Will not scale the SNP (co)variances by (1-beta).",
                           "Scaling with beta will not be applied for SNP effects"},
                          &param_type::lbetasnp, false),
        option_rows::flag({"precondzaaaz"},
                          {"!precondzaaaz", "Computation of diag(ZAAAZ) (if applicable).",
                           "Computation of diag(ZAAAZ) (if applicable)."},
                          &param_type::precondzaaaz),
        {.usage = "!pvalue id_effect Gi_file Genotype_file Allele_freq_file",
         .help = "This option allows to compute P-values from ssGBLUP. This option only works with in-memory "
                 "solvers and the command line argument \"--ebvpev\".",
         .keywords = {"pvalue"},
         .min_words = 5,
         .max_words = 5,
         .read = read_pvalue,
         .write = written_pvalue},
        file_of_effects(
            {"qptransfo"},
            {"!qptransfo file #effects id_effect",
             "This option allows to use an external matrix for the QP transformation. This option "
             "is only available with the IOD solvers.",
             "A matrix QPTRANSFO is present for the effect "},
            &param_type::qptransfo),
        option_rows::real({"sum2pq"},
                          {"!sum2pq value",
                           "Sets the sum of 2 pq  at value (default: 0.0). This value is used when no "
                           "covariance file is mentionned for SNP effects.",
                           "Sum of 2pq (default: 0.0): "},
                          "(e16.8)", &param_type::sum2pq,
                          option_ignored("sum2pq", realtochar(param_type{}.sum2pq, "(g0.2)"))),
        file_of_effects(
            {"tamatrix"},
            {"!tamatrix file #effects id_effect",
             "This option allows to use an external matrix that is equal to the Ta matrix as defined by "
             "Mantysaari et al. (2017). This option is only available with the IOD solvers.",
             "A Ta matrix is present for the effect "},
            &param_type::tamatrix),
        {.usage = "!tamatrix_blocks id_effect #SNPs",
         .help = "This option allows the multiplication of the Ta matrix by a matrix by blocks of #SNPs.",
         .keywords = {"tamatrix_blocks"},
         .min_words = 3,
         .max_words = 3,
         .read = read_tamatrix_blocks,
         .write = written_tamatrix_blocks},
        file_of_effects(
            {"tageno", "taplink"},
            {"!tageno file #effects id_effect, !taplink file #effects id_effect",
             "This option allows to use a genotype matrix that will be used for the computation of the Ta "
             "matrix as defined by Mantysaari et al. (2017). This option must be used in combination with "
             "the "
             "option !ktamatrix and !allelefreq (if a Plink bed genotype file is provided). This option is "
             "only available with the IOD solvers and is equivalent to \"!taplink\".",
             "A genotype matrix for computing the Ta matrix is present for the effect "},
            &param_type::tageno, option_ignored("!tageno or !taplink")),
    };
}

}  // namespace zendar::detail
