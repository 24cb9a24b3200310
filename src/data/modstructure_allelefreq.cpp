#include <string>
#include <utility>

#include "modbasic.hpp"
#include "modparameters.hpp"
#include "modstructure_covariable_detail.hpp"

namespace zendar {
namespace {

constexpr const char* procedure = "readallelefreq";

[[noreturn]] void stop_at_line(const std::string& file, std::int64_t line, const std::string& why,
                               logger& log) {
    fatal(log,
          "Allele frequencies not correctly read at line " + inttochar(line) + "\nFile " + file + ": " + why,
          detail::covariable_module, procedure);
}

double frequency_of(std::string_view line, const std::string& file, std::int64_t number, logger& log) {
    const std::string_view word = detail::word_of(line, 1);
    double frequency = 0.0;
    if (word.empty() || !detail::word_of(line, 2).empty())
        stop_at_line(file, number, "one frequency is needed, and nothing else", log);
    if (const read_status status = parse_number(word, frequency); !status.ok())
        stop_at_line(file, number, status.iomsg, log);
    if (!(frequency >= 0.0 && frequency <= 1.0))
        stop_at_line(file, number, "the frequency " + std::string(word) + " does not lie between 0 and 1",
                     log);
    return frequency;
}

/// One frequency a line; blank lines may stand at the end only.
std::vector<double> read_frequencies(const std::string& file, std::int64_t nsnp, logger& log) {
    text_reader input;
    if (const auto failure = input.open(file))
        fatal_io(log, "File with allele frequencies not found: " + file, detail::covariable_module, procedure,
                 failure->iostat, failure->iomsg);
    std::vector<double> frequencies;
    while (const auto line = input.line()) {
        const bool is_blank = detail::word_of(*line, 1).empty();
        if (std::ssize(frequencies) == nsnp) {
            if (is_blank) continue;
            stop_at_line(file, input.line_number(), "the genotypes have " + inttochar(nsnp) + " SNPs only",
                         log);
        }
        frequencies.push_back(frequency_of(*line, file, input.line_number(), log));
    }
    if (const auto failure = input.error())
        fatal_io(log, "The file with allele frequencies cannot be read: " + file, detail::covariable_module,
                 procedure, failure->iostat, failure->iomsg);
    if (std::ssize(frequencies) < nsnp)
        stop_at_line(file, std::ssize(frequencies) + 1,
                     "the file ends, but the genotypes have " + inttochar(nsnp) + " SNPs", log);
    return frequencies;
}

/// From the genotypes that are not missing.
std::vector<double> counted_frequencies(std::span<const plink_counts> counts, std::int32_t nind,
                                        std::int32_t e, logger& log) {
    std::vector<double> frequencies;
    frequencies.reserve(counts.size());
    std::int64_t nmissing = 0, nmonomorphic = 0;
    for (const plink_counts& snp : counts) {
        const std::int64_t alleles = 2 * (std::int64_t{nind} - snp.missing);
        const std::int64_t second = std::int64_t{snp.het} + 2 * std::int64_t{snp.hom2};
        frequencies.push_back(alleles > 0 ? static_cast<double>(second) / static_cast<double>(alleles) : 0.0);
        if (alleles == 0)
            ++nmissing;
        else if (second == 0 || second == alleles)
            ++nmonomorphic;
    }
    if (nmissing > 0)
        log.warning("Effect " + inttochar(e) + ": all genotypes are missing for " + inttochar(nmissing) +
                        " SNPs, whose allele frequencies are set to 0",
                    detail::covariable_module, procedure);
    if (nmonomorphic > 0)
        log.information("Effect " + inttochar(e) + ": " + inttochar(nmonomorphic) + " SNPs are monomorphic",
                        detail::covariable_module, procedure);
    return frequencies;
}

}  // namespace

void readallelefreq(covariable_type& cov, const param_type& param, std::int32_t e,
                    std::span<const plink_counts> counts, logger& log) {
    const std::string file = param.allelefreq.empty() ? "none" : std::string(trim(param.allelefreq[e - 1]));
    if (file == "none") {
        cov.allelefreq = counted_frequencies(counts, cov.data->plink.nrow, e, log);
        return;
    }
    log.message("Effect " + inttochar(e) + ": File with allele frequencies to be read: " + file);
    cov.allelefreq = read_frequencies(file, std::ssize(counts), log);
}

}  // namespace zendar
