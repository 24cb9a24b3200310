#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modmmeiod_external.hpp"
#include "modstructure_product.hpp"

namespace zendar::modmmeiod {

namespace {

constexpr const char* module_tag = "modmmeiod";
constexpr const char* procedure = "setup_lhsrhs_iod";

// ---- which effects take which option

/// Random types with a place for an option when the iteration goes over the sparse A-inverse or, without
/// `useasparse`, over the pedigree.
struct option_types {
    const char* option;
    std::span<const std::int32_t> sparse, pedigree;
};
constexpr std::array<std::int32_t, 9> relationships{
    trandom_ani,      trandom_ani_upg,      trandom_ani_meta,      trandom_ani_rupg,  10,
    trandom_ani_a22i, trandom_ani_upg_a22i, trandom_ani_rupg_a22i, trandom_ani_ploidy};
constexpr std::array<std::int32_t, 10> relationships_and_diagonal{
    1,  trandom_ani,      trandom_ani_upg,      trandom_ani_meta,      trandom_ani_rupg,
    10, trandom_ani_a22i, trandom_ani_upg_a22i, trandom_ani_rupg_a22i, trandom_ani_ploidy};
constexpr std::array<std::int32_t, 3> pedigrees{trandom_ani, trandom_ani_upg, trandom_ani_rupg};
constexpr std::array<std::int32_t, 4> pedigrees_and_diagonal{1, trandom_ani, trandom_ani_upg,
                                                             trandom_ani_rupg};
constexpr std::array<std::int32_t, 2> linked{trandom_ani, trandom_ani_meta};
constexpr std::array<std::int32_t, 1> linked_pedigree{trandom_ani};
constexpr std::array<std::int32_t, 14> across{
    1,  trandom_ani,      trandom_ani_upg,      trandom_ani_meta,      trandom_ani_rupg,  10, 20, 22, 23,
    30, trandom_ani_a22i, trandom_ani_upg_a22i, trandom_ani_rupg_a22i, trandom_ani_ploidy};

const option_types of_gima22i{"!gima22i", relationships, pedigrees};
const option_types of_gapy{"!gapy", relationships, pedigrees};
const option_types of_qptransfo{"!qptransfo", relationships_and_diagonal, pedigrees_and_diagonal};
const option_types of_tamatrix{"!tamatrix", relationships, linked_pedigree};
const option_types of_tageno{"!tageno", linked, linked_pedigree};
const option_types of_acrosseff{"!acrosseff", across, across};

/// The option's file of effect e; empty without one.
std::string file_of(const std::vector<std::string>& files, std::int32_t e) {
    if (e > std::ssize(files) || files[e - 1] == "none") return {};
    return std::string(trim(files[e - 1]));
}

/// The random type of the group that effect e belongs to.
std::int32_t type_of_group(const param_type& param, std::int32_t e) {
    for (std::int32_t first = e; first >= 1; --first)
        if (param.n_correlated[first - 1] >= 0)
            return e <= first + param.n_correlated[first - 1] ? param.type_random[first - 1] : 0;
    return 0;
}

void check_type(const param_type& param, std::int32_t e, std::int32_t type, const option_types& types,
                logger& log) {
    const std::span<const std::int32_t> taken = param.useasparse ? types.sparse : types.pedigree;
    if (std::ranges::find(taken, type) == taken.end())
        fatal(log,
              " This type of effect " + inttochar(type) + " is not implemented for the option " +
                  types.option + " (effect " + inttochar(e) + ")",
              module_tag, procedure);
}

/// Calls read(e, file) for each effect with a file of the option.
template <class Read>
void for_each_file(const param_type& param, const std::vector<std::string>& files, const option_types& types,
                   const char* text, logger& log, const Read& read) {
    bool any = false;
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const std::string file = file_of(files, e);
        if (file.empty()) continue;
        check_type(param, e, param.type_random[e - 1], types, log);
        if (!any) log.message(text);
        any = true;
        read(e, file);
    }
}

/// A model of effect e with the coefficients that the option names.
param_type model_of_genotypes(const param_type& param, std::int32_t e, const std::string& file,
                              std::int32_t nsnp) {
    param_type model;
    const auto n = static_cast<std::size_t>(param.neffect);
    model.ntrait = param.ntrait;
    model.neffect = param.neffect;
    model.ncpus = param.ncpus;
    model.cov_file.assign(n, "none");
    model.cov_file[e - 1] = file;
    model.n_level.assign(n, declared_levels(param, e));
    model.n_cov.assign(n, nsnp);
    model.type_effect.assign(n, teff_huge_iod);
    model.allelefreq = param.allelefreq;
    model.miraculix = param.miraculix;
    model.miraculix_gpu = param.miraculix_gpu;
    return model;
}

taplink_type read_taplink(const param_type& param, std::int32_t e, const std::string& file, logger& log) {
    const std::string k_file = file_of(param.ktamatrix, e);
    if (k_file.empty())
        fatal(log, "The option !tageno needs the option !ktamatrix for effect " + inttochar(e), module_tag,
              procedure);
    taplink_type link;
    ktmatrix_type kt;
    readktamatrix(param, e, k_file, kt, log);
    link.l = std::move(kt.k);
    if (names_plink_files(file) && count_plink_snps(file, log) != link.l.n)
        fatal(log, "The number of SNPs in " + k_file + " and " + file + " is different!", module_tag,
              procedure);
    readcovariable(link.genotypes, model_of_genotypes(param, e, file, link.l.n), e, log,
                   narrow<std::int32_t>(computenrhscontributions(param, e)));
    link.levels.assign(static_cast<std::size_t>(coefficient_rows(link.genotypes)), 0);
    const std::span<const std::int32_t> rows = link.genotypes.rows();
    for (std::size_t level = 0; level < rows.size(); ++level)
        if (rows[level] > 0) link.levels[rows[level] - 1] = static_cast<std::int32_t>(level) + 1;
    return link;
}

// ---- A22^-1

/// A22^-1 among animals of the pedigree of effect e.
std::unique_ptr<a22_inverse> make_a22i(std::span<const std::unique_ptr<pedigree_type>> ped, std::int32_t e,
                                       std::span<const std::int32_t> levels, const char* option,
                                       logger& log) {
    const pedigree_type* const own = e <= std::ssize(ped) ? ped[e - 1].get() : nullptr;
    if (own == nullptr || own->f.empty())
        fatal(log, std::string("The option ") + option + " needs a pedigree for effect " + inttochar(e),
              module_tag, procedure);
    const std::int64_t nanimal = own->nlength() - own->nupg;
    for (const std::int32_t level : levels)
        if (level > nanimal)
            fatal(log,
                  "The level " + inttochar(level) + " of the option " + option + " is no animal of effect " +
                      inttochar(e) + ": its pedigree has " + inttochar(nanimal) + " animals",
                  module_tag, procedure);
    return std::make_unique<a22_inverse>(*own, e, std::vector<std::int32_t>(levels.begin(), levels.end()),
                                         log);
}

ta_weights weights_of(const param_type& param, std::int32_t e, logger& log) {
    const ta_weights w{param.tau, param.beta, param.omega};
    if (!std::isfinite(w.a22i()) || w.beta == 0.0)
        fatal(log, "tau / beta - omega of effect " + inttochar(e) + " is not a finite number", module_tag,
              procedure);
    return w;
}

// ---- the sum of 2pq

/// L L' = W' A22^-1 W / beta + (s / alpha) I tells s of L by its first row. Another one than that of the
/// genotypes means other genotypes, frequencies, pedigrees or weights.
void check_sum2pq(const param_type& param, std::int32_t e, const taplink_type& link, a22_inverse& a22i,
                  logger& log) {
    if (link.genotypes.allelefreq.empty()) return;
    constexpr double tolerance = 1e-3;  // a text may hold few digits
    double computed = 0.0;
    for (const double p : link.genotypes.allelefreq) computed += 2.0 * p * (1.0 - p);
    const std::int64_t n = std::ssize(link.levels);
    matrix<double> snp(n, 1), product(n, 1);
    expand_coefficients(link.genotypes, 0, snp.view());
    std::vector<double> work(static_cast<std::size_t>(a22i.work_size(1)));
    a22i.computea22i_timesx(snp.view(), product.view(), work);
    double own = 0.0;
    for (std::int64_t i = 0; i < n; ++i) own += snp(i, 0) * product(i, 0);
    const double diagonal = link.l.value(0, 0) * link.l.value(0, 0);
    const double of_file = param.alpha * (diagonal - own / param.beta);
    if (std::abs(of_file - computed) <= tolerance * std::max(computed, param.alpha * diagonal)) return;
    fatal(log,
          "The sum of 2pq in " + file_of(param.ktamatrix, e) + " and computed from " +
              file_of(param.tageno, e) + " is different! " + realtochar(of_file, "(g0)") + " vs " +
              realtochar(computed, "(g0)"),
          module_tag, procedure);
}

}  // namespace

external_matrices read_external_matrices(const param_type& param, logger& log) {
    external_matrices all;
    for_each_file(param, param.gima22i, of_gima22i, "Read external relationship matrices (Gi minus A22i)",
                  log, [&](std::int32_t e, const std::string& file) {
                      readgima22i(param, e, file, all.gima22i.emplace_back(e).matrix, log);
                  });
    for_each_file(param, param.gapy, of_gapy, "Read external relationship matrices (GAPY)", log,
                  [&](std::int32_t e, const std::string& file) {
                      readgapy(param, e, file, all.gapy.emplace_back(e).matrix, log);
                  });
    for_each_file(param, param.qptransfo, of_qptransfo, "Read external matrices for QP transformation", log,
                  [&](std::int32_t e, const std::string& file) {
                      readqptransfo(param, e, file, all.qptransfo.emplace_back(e).matrix, log);
                  });
    if (!param.acrosseff.empty()) log.message("Read external matrices for across-effect blocks");
    for (const across_effects& option : param.acrosseff) {
        for (const std::int32_t e : {option.effect1, option.effect2})
            check_type(param, e, type_of_group(param, e), of_acrosseff, log);
        readacrosseff(param, option.effect1, option.effect2, option.file, all.acrosseff.emplace_back(), log);
    }
    for_each_file(
        param, param.tamatrix, of_tamatrix, "Read external relationship matrices (Ta matrix)", log,
        [&](std::int32_t e, const std::string& file) {
            readtamatrix(param, e, file, all.tamatrix.emplace_back(e).matrix, log);
            const std::int32_t block =
                e <= std::ssize(param.tamatrix_blocks) ? param.tamatrix_blocks[e - 1] : 0;
            log.message("Effect " + inttochar(e) + " - Ta matrix GEMM block size: " + inttochar(block));
        });
    for_each_file(param, param.tageno, of_tageno, "Read the genotype matrix for the Ta matrix", log,
                  [&](std::int32_t e, const std::string& file) {
                      all.taplink.push_back({e, read_taplink(param, e, file, log)});
                  });
    return all;
}

external_terms make_external_terms(external_matrices matrices, const param_type& param,
                                   std::span<const std::unique_ptr<pedigree_type>> ped, logger& log) {
    external_terms result;
    for (auto& own : matrices.gima22i)
        result.terms.push_back({own.effect, std::make_unique<gima22i_term>(std::move(own.matrix))});
    if (!matrices.gapy.empty()) log.message("Setting-up of matrices for APY");
    for (auto& own : matrices.gapy) {
        std::unique_ptr<a22_inverse> a22i;
        if (param.omega != 0.0) a22i = make_a22i(ped, own.effect, own.matrix.levels.level, "!gapy", log);
        result.terms.push_back(
            {own.effect,
             std::make_unique<gapy_term>(std::move(own.matrix), std::move(a22i), param.tau, param.omega)});
    }
    for (auto& own : matrices.qptransfo)
        result.terms.push_back({own.effect, std::make_unique<qptransfo_term>(std::move(own.matrix))});
    if (!matrices.tamatrix.empty()) log.message("Setting-up of matrices for Ta matrices");
    for (auto& own : matrices.tamatrix) {
        const std::int32_t e = own.effect;
        const ta_weights w = weights_of(param, e, log);
        std::unique_ptr<a22_inverse> a22i;
        if (w.a22i() != 0.0) a22i = make_a22i(ped, e, own.matrix.levels.level, "!tamatrix", log);
        const std::int32_t block = e <= std::ssize(param.tamatrix_blocks) ? param.tamatrix_blocks[e - 1] : 0;
        result.terms.push_back(
            {e, std::make_unique<tamatrix_term>(std::move(own.matrix), std::move(a22i), w, block)});
    }
    if (!matrices.taplink.empty()) log.message("Setting-up of matrices for Ta component-wise matrices");
    for (auto& own : matrices.taplink) {
        const ta_weights w = weights_of(param, own.effect, log);
        std::unique_ptr<a22_inverse> a22i = make_a22i(ped, own.effect, own.matrix.levels, "!tageno", log);
        check_sum2pq(param, own.effect, own.matrix, *a22i, log);
        result.terms.push_back(
            {own.effect, std::make_unique<taplink_term>(std::move(own.matrix), std::move(a22i), w)});
    }
    std::ranges::stable_sort(result.terms, {}, &effect_term::effect);
    for (across_block& block : matrices.acrosseff) result.across.emplace_back(param, std::move(block), log);
    return result;
}

}  // namespace zendar::modmmeiod
