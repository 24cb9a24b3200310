#include "modmatrices_input.hpp"

#include <algorithm>
#include <numeric>
#include <string_view>
#include <utility>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modfile.hpp"

namespace zendar::matrices {
namespace {

constexpr const char* module_tag = "modmatrices";

pedigree_type read_pedigree(const matrix_options& options, logger& log) {
    pedigree_type ped;
    log.message("Pedigree file: " + options.ped);
    if (options.nlevel == 0) ped.readpedigree_nomax(options.ped, log);
    const std::int32_t nlevel = options.nlevel > 0 ? options.nlevel : ped.nlength();
    std::int32_t nupg = options.pedtype == trandom_ani ? 0 : std::max(options.nupg, 0);
    if (nupg == 0 && options.pedtype != trandom_ani && options.nlevel == 0) nupg = ped.nupg;
    if (options.pedtype != trandom_ani && nupg == 0)
        fatal(log,
              "The pedigree file " + options.ped + " has no groups, which a pedigree of type " +
                  inttochar(options.pedtype) + " needs" + (options.nlevel > 0 ? ": --nupg is missing" : ""),
              module_tag, "read_pedigree");
    if (nupg >= nlevel)
        fatal(log,
              "The pedigree file " + options.ped + " has " + inttochar(nlevel) +
                  " levels: no animals are left beside " + inttochar(nupg) + " groups",
              module_tag, "read_pedigree");
    if (options.nlevel > 0 || ped.nupg != nupg) ped.readpedigree_max(options.ped, nlevel, nupg, log);
    ped.ismeta = options.pedtype == trandom_ani_meta;
    if (ped.ismeta) ped.readmetarel(options.gamma, options.effect, log);
    // Without a name no file of coefficients, which have six digits only, is used or left behind.
    ped.filename.reset();
    ped.computeinbreeding_ped({}, log);
    log.message("Number of animals in the pedigree: " + inttochar(nlevel - nupg));
    return ped;
}

/// The genotypes as a huge effect, which is all that their reader looks at.
/// @param nanimal  largest level; 0: any
covariable_type read_genotypes(const matrix_options& options, std::int32_t nanimal, logger& log) {
    const auto n = static_cast<std::size_t>(options.effect);
    param_type model;
    model.neffect = options.effect;
    model.ntrait = 1;
    model.cov_file.assign(n, options.bfile + ".bed");
    model.n_level.assign(n, nanimal);
    model.n_cov.assign(n, count_plink_snps(options.bfile, log));
    model.type_effect.assign(n, teff_huge);
    model.allelefreq.assign(n, options.allelefreq.empty() ? "none" : options.allelefreq);
    covariable_type genotypes;
    readcovariable_bed(genotypes, model, options.effect, 0, log);
    return genotypes;
}

}  // namespace

matrix_input read_input(const matrix_options& options, logger& log) {
    matrix_input input;
    std::int32_t nanimal = 0;
    if (options.wants_pedigree()) {
        input.ped = read_pedigree(options, log);
        nanimal = input.ped.nlength() - input.ped.nupg;
    }
    input.genotypes = read_genotypes(options, nanimal, log);
    const std::span<const std::int32_t> row = input.genotypes.rows();
    for (std::int32_t level = 1; level <= std::ssize(row); ++level)
        if (row[level - 1] > 0) {
            input.levels.push_back(level);
            input.rows.push_back(row[level - 1] - 1);
        }
    for (const double p : input.genotypes.allelefreq) input.sum2pq += 2.0 * p * (1.0 - p);
    log.message("Sum of 2pq: " + realtochar(input.sum2pq, "(g0)"));
    if (options.wants_genomic() && !(input.sum2pq > 0.0))
        fatal(log, "The sum of 2pq of the genotypes " + options.bfile + " is 0: no SNP segregates",
              module_tag, "read_input");
    return input;
}

core_split read_core(const std::string& file, const std::vector<std::int32_t>& levels, logger& log) {
    constexpr const char* procedure = "read_core";
    text_reader in;
    const auto stop_unreadable = [&](const file_error& failure) {
        fatal_io(log, "The file " + file + " with the core levels cannot be read", module_tag, procedure,
                 failure.iostat, failure.iomsg);
    };
    if (const auto failure = in.open(file)) stop_unreadable(*failure);
    core_split split;
    std::vector<std::int64_t> line_of(levels.size(), 0);
    while (const auto line = in.line()) {
        const std::string_view text = trim(*line);
        if (text.empty()) continue;
        const auto stop = [&](const std::string& why) {
            fatal(log,
                  "The file " + file + " with the core levels is not correct at line " +
                      inttochar(in.line_number()) + ": " + why,
                  module_tag, procedure);
        };
        std::int32_t level = 0;
        if (!parse_number(text, level).ok()) stop("it is not one integer: \"" + std::string(text) + "\"");
        const auto at = std::ranges::lower_bound(levels, level);
        if (at == levels.end() || *at != level) stop("the level " + inttochar(level) + " has no genotypes");
        const std::int64_t place = at - levels.begin();
        if (line_of[place] > 0)
            stop("the level " + inttochar(level) + " stands at line " + inttochar(line_of[place]) +
                 " as well");
        line_of[place] = in.line_number();
        split.order.push_back(static_cast<std::int32_t>(place));
    }
    if (const auto failure = in.error()) stop_unreadable(*failure);
    split.ncore = std::ssize(split.order);
    if (split.ncore == 0)
        fatal(log, "The file " + file + " with the core levels is empty", module_tag, procedure);
    for (std::size_t place = 0; place < levels.size(); ++place)
        if (line_of[place] == 0) split.order.push_back(static_cast<std::int32_t>(place));
    log.message("Number of core animals: " + inttochar(split.ncore) + " of " + inttochar(std::ssize(levels)));
    return split;
}

}  // namespace zendar::matrices
