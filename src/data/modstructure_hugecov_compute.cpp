#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modparameters.hpp"
#include "modsparse_detail.hpp"
#include "modstructure_hugecov.hpp"
#include "modstructure_hugecov_detail.hpp"

namespace zendar {
namespace {

using detail::hugecov_module;

constexpr const char* procedure = "computeghugediag";

std::string impossible(std::int32_t e) {
    return "Computation of covariance matrix for effect " + inttochar(e) +
           " is impossible because of wrong computation of sum2pq!\n"
           "Possible issue: an allele frequency file is not provided, or NaN values are present.";
}

/// The effect that opens the group of an effect with covariances, 0 for an effect without.
std::int32_t group_of(const param_type& param, std::int32_t e) {
    for (std::int32_t first = e; first >= 1; --first) {
        const random_type_entry* entry = find_random_type(param.type_random[first - 1]);
        if (entry == nullptr || entry->covariance != block_covariance::matrix_file) continue;
        return e <= first + detail::hugecov_followers(param, first) ? first : 0;
    }
    return 0;
}

/// An animal effect has one equation per level and trait.
void check_animal_effect(const param_type& param, std::int32_t e, std::int32_t link, logger& log) {
    const std::int32_t type = param.type_effect[link - 1];
    if (type == teff_class || (type == teff_covariable && param.n_cov[link - 1] == 1)) return;
    fatal(log,
          "The effect " + inttochar(link) + ", which the SNP effect " + inttochar(e) +
              " is linked to, is neither a class effect nor a single covariable",
          hugecov_module, procedure);
}

/// The animal group that each effect of the SNP group is linked to, in any order.
std::int32_t linked_group(const param_type& param, std::int32_t e, logger& log) {
    const auto& links = param.link_effect[e - 1];
    if (links.empty())
        fatal(log,
              impossible(e) +
                  "\nThe effect is linked to no animal effect: a file with its covariance matrix is "
                  "missing (the instruction file says \"compute\")",
              hugecov_module, procedure);
    const std::int32_t first = group_of(param, links.front());
    if (first == 0)
        fatal(log,
              "The effect " + inttochar(links.front()) + ", which the SNP effect " + inttochar(e) +
                  " is linked to, has no (co)variance matrix",
              hugecov_module, procedure);
    std::vector<std::int32_t> linked = links, members;
    std::ranges::sort(linked);
    for (std::int32_t k = 0; k <= detail::hugecov_followers(param, first); ++k) members.push_back(first + k);
    if (linked != members || std::ssize(links) != detail::hugecov_followers(param, e) + 1) {
        std::string list;
        for (const std::int32_t link : links) list += " " + inttochar(link);
        fatal(log,
              "The SNP effects of the group of the effect " + inttochar(e) + " are linked to the effects" +
                  list + ", but they must be linked to each of the effects " + inttochar(first) + " to " +
                  inttochar(members.back()) + " once, which have one (co)variance matrix",
              hugecov_module, procedure);
    }
    for (const std::int32_t link : links) check_animal_effect(param, e, link, log);
    return first;
}

/// G0^-1 in the order of the SNP effects: member slowest, then trait.
matrix<double> linked_covariances(const param_type& param, std::int32_t e, logger& log) {
    const std::int32_t group = linked_group(param, e, log), nt = param.ntrait;
    const auto& links = param.link_effect[e - 1];
    const matrix<double>& animals = param.g[group - 1];
    const std::int64_t order = std::ssize(links) * nt;
    if (animals.rows() != order || animals.cols() != order)
        fatal(log,
              "The (co)variance matrix of effect " + inttochar(group) + " has " + inttochar(animals.rows()) +
                  " rows, but the SNP effect " + inttochar(e) + " needs " + inttochar(order),
              hugecov_module, procedure);
    const auto place = [&](std::int64_t i) { return std::int64_t{links[i / nt] - group} * nt + i % nt; };
    const auto present = [&](std::int64_t i) { return param.pos_effects(i % nt, links[i / nt] - 1) > 0; };
    matrix<double> ginv(order, order);
    for (std::int64_t j = 0; j < order; ++j)
        for (std::int64_t i = 0; i < order; ++i)
            if (present(i) && present(j)) ginv(i, j) = animals(place(i), place(j));
    return ginv;
}

double sum_of_2pq(const param_type& param, std::int32_t e, const covariable_type& cov, logger& log) {
    const bool file = e <= std::ssize(param.allelefreq) && trim(param.allelefreq[e - 1]) != "none";
    if (!file && param.sum2pq != 0.0) return param.sum2pq;
    covariable_type own;
    if (file && cov.allelefreq.empty()) {  // coefficients of another form than genotypes
        const std::vector<plink_counts> uncounted(static_cast<std::size_t>(param.n_cov[e - 1]));
        readallelefreq(own, param, e, uncounted, log);
    }
    double sum = 0.0;
    for (const double f : own.allelefreq.empty() ? cov.allelefreq : own.allelefreq)
        sum += 2.0 * f * (1.0 - f);
    return sum;
}

std::int32_t number_of_snps(const param_type& param, std::int32_t e, logger& log) {
    for (std::int32_t k = e + 1; k <= e + detail::hugecov_followers(param, e); ++k)
        if (param.n_cov[k - 1] != param.n_cov[e - 1])
            fatal(log,
                  "The correlated SNP effects " + inttochar(e) + " and " + inttochar(k) +
                      " have different numbers of SNPs: " + inttochar(param.n_cov[e - 1]) + " and " +
                      inttochar(param.n_cov[k - 1]) + ". Their covariances cannot be computed",
                  hugecov_module, procedure);
    return param.n_cov[e - 1];
}

/// The upper triangle of a matrix that holds `block` for each SNP; entry k nt + t of a block belongs to the
/// equation (k nsnp + SNP) nt + t.
crssparse repeat_block(const matrix<double>& block, std::int64_t nsnp, std::int32_t nt, std::int32_t e,
                       logger& log) {
    const std::int64_t order = block.rows();
    std::vector<std::vector<std::int64_t>> columns(static_cast<std::size_t>(order));
    std::vector<std::int64_t> before(static_cast<std::size_t>(order) + 1,
                                     0);  // elements of a block before a row
    for (std::int64_t i = 0; i < order; ++i) {
        for (std::int64_t j = i; j < order; ++j)
            if (j == i || block(i, j) != 0.0) columns[i].push_back(j);
        before[i + 1] = before[i] + std::ssize(columns[i]);
    }
    const std::int64_t nel = before[order] * nsnp;
    if (nel > detail::most_elements<std::int32_t>)
        fatal(log,
              "The inverse of the covariances of the huge effect " + inttochar(e) + " has " + inttochar(nel) +
                  " elements, which is too many",
              hugecov_module, procedure);

    const auto n = narrow<std::int32_t>(order * nsnp);
    crssparse ginv(n, nel, n, true, &log);
    const auto ia = crs_arrays::ia(ginv), ja = crs_arrays::ja(ginv);
    const auto a = crs_arrays::a(ginv);
#pragma omp parallel for schedule(static) default(none) \
    shared(block, nsnp, nt, order, columns, before, ia, ja, a)
    for (std::int64_t snp = 0; snp < nsnp; ++snp)
        for (std::int64_t i = 0; i < order; ++i) {
            const std::int64_t first = i / nt * nt;                       // entry of the member's first trait
            const std::int64_t own = before[first + nt] - before[first];  // elements of a SNP in the member
            std::int64_t at = before[first] * nsnp + own * snp + (before[i] - before[first]);
            ia[(first * nsnp) + snp * nt + i % nt] = static_cast<std::int32_t>(at + 1);
            for (const std::int64_t j : columns[i]) {
                ja[at] = static_cast<std::int32_t>((j / nt * nsnp + snp) * nt + j % nt + 1);
                a[at++] = block(i, j);
            }
        }
    ia[n] = static_cast<std::int32_t>(nel + 1);
    ginv.setsorted(true);
    ginv.setsymmetric();
    return ginv;
}

}  // namespace

crssparse computeghugediag(const param_type& param, std::int32_t e, const covariable_type& cov, logger& log) {
    log.message("Computation of covariance matrix for effect " + inttochar(e));
    matrix<double> block = linked_covariances(param, e, log);
    const std::int32_t nsnp = number_of_snps(param, e, log);
    const double sum2pq = sum_of_2pq(param, e, cov, log);
    if (!std::isfinite(sum2pq) || sum2pq <= 0.0) fatal(log, impossible(e), hugecov_module, procedure);
    log.message("Inverted (co)variances for effect " + inttochar(e) +
                " is scaled by  (sum2pq): " + realtochar(sum2pq, "(g0.4)"));
    const double scale = detail::hugecov_scale(param, e, procedure, log);
    for (double& value : block.values()) {
        value *= sum2pq;
        if (!std::isfinite(value) || !std::isfinite(value * scale))
            fatal(log, "The inverted (co)variances of the huge effect " + inttochar(e) + " are not finite",
                  hugecov_module, procedure);
    }
    crssparse ginv = repeat_block(block, nsnp, param.ntrait, e, log);
    detail::report_hugecov(ginv, e, log);
    detail::write_hugecov(ginv, param, e, ".scaled", procedure, log);
    ginv.scale(scale);
    detail::write_hugecov(ginv, param, e, "", procedure, log);
    return ginv;
}

}  // namespace zendar
