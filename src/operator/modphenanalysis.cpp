#include "modphenanalysis.hpp"

#include <algorithm>
#include <cassert>
#include <string>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modgeneral.hpp"
#include "modgeneral_detail.hpp"
#include "modgeneral_temporary.hpp"
#include "modmmeiod_detail.hpp"
#include "modstats.hpp"
#include "modstructure_product.hpp"

namespace zendar {
namespace {

using detail::addressing;
using modmmeiod::huge_effect;
using modmmeiod::record_term;

constexpr const char* module_tag = "modphenanalysis";

bool is_excluded(std::span<const unsigned char> exclude, std::int32_t e) {
    return !exclude.empty() && exclude[e - 1] != 0;
}

void log_seconds(logger& log, const std::string& text, const wtime& clock) {
    log.message("     " + text + " " + realtochar(clock.seconds(), "(f0.3)"));
}

/// A trait of an effect and its place in a block of equations, both from 0.
struct trait_place {
    std::int32_t trait, slot;
};

/// The traits that an effect has.
template <addressing A>
std::vector<trait_place> places_of(const record_term& term) {
    std::vector<trait_place> places;
    for (std::int32_t t = 0; t < std::ssize(term.mask); ++t)
        if (term.mask[t] != 0.0) places.push_back({t, A == addressing::combieff ? term.slot[t] : t});
    return places;
}

/// One effect as the sums read it.
struct estimate_term {
    record_term record;
    std::vector<trait_place> places;
};

template <addressing A>
std::vector<estimate_term> make_terms(const estimate_input& in, std::span<const unsigned char> exclude,
                                      std::span<const huge_effect> huge) {
    std::vector<estimate_term> terms;
    for (record_term& record : modmmeiod::make_record_terms(in.param, in.cov, huge))
        if (!is_excluded(exclude, record.effect)) {
            std::vector<trait_place> places = places_of<A>(record);
            terms.push_back({std::move(record), std::move(places)});
        }
    return terms;
}

/// Adds one effect to the estimates of the records [first, end).
void add_term(const estimate_input& in, const estimate_term& term, std::int64_t first, std::int64_t end,
              double* yhat) {
    const std::int64_t ntrait = in.param.ntrait;
    const record_term& record = term.record;
    const double* const x = record.huge ? record.x : in.solutions.data();
    for (std::int64_t rec = first; rec < end; ++rec) {
        std::int64_t equation = 0;
        const double* const c = record.locate(in.effect.data + rec * in.effect.ld, equation);
        if (c == nullptr) continue;
        const double* own = x + equation;
        double* const sum = yhat + rec * ntrait;
        for (std::int32_t j = 0; j < record.nx; ++j, own += ntrait)
            for (const auto [trait, slot] : term.places) sum[trait] += c[j] * own[slot];
    }
}

/// Estimates of all records. With phenotypes (ntrait x records) they are taken off these.
template <addressing A>
void estimate(const estimate_input& in, std::span<const unsigned char> exclude,
              matrix_view<const double> phen, double rmissing, matrix<double>& result, logger& log) {
    // Effects take turns in batches whose sums stay in the first cache.
    constexpr std::int64_t batch = 128;
    const std::int64_t nrec = in.effect.cols, nvalue = batch * in.param.ntrait;
    const std::vector<huge_effect> huge = [&] {
        const wtime clock;
        std::vector<huge_effect> all = initsumestimate(in.param, in.cov, exclude, log);
        std::int64_t size = 0;
        for (const huge_effect& own : all) size = std::max(size, huge_work_size(own, in.param.ntrait));
        std::vector<double> work(static_cast<std::size_t>(size));
        for (huge_effect& own : all)
            compute_sumestimates(own, in.param.ntrait, in.cov[own.effect - 1], in.solutions, work, log);
        if (!all.empty()) log_seconds(log, "Wall clock time (s) for huge_covariable*solutions:", clock);
        return all;
    }();
    const std::vector<estimate_term> terms = make_terms<A>(in, exclude, huge);
    double* const to = result.data();
    const std::int64_t end = nrec * in.param.ntrait;
#pragma omp parallel for schedule(static) default(none) \
    shared(in, terms, phen, rmissing, to, nrec, nvalue, end)
    for (std::int64_t first = 0; first < nrec; first += batch) {
        for (const estimate_term& term : terms) add_term(in, term, first, std::min(first + batch, nrec), to);
        if (phen.data == nullptr) continue;
        const std::int64_t at = first * in.param.ntrait;
        for (std::int64_t i = at; i < std::min(at + nvalue, end); ++i)
            to[i] = phen.data[i] == rmissing ? rmissing : phen.data[i] - to[i];
    }
}

matrix<double> allocate_result(const estimate_input& in, const char* name, logger& log) {
    const std::int64_t bytes = in.effect.cols * in.param.ntrait * static_cast<std::int64_t>(sizeof(double));
    log.message("Memory (MB) needed for " + std::string(name) + ": " + realtochar(mib(bytes), "(f0.2)"));
    return {in.param.ntrait, in.effect.cols};
}

template <addressing A>
void yhat_of(matrix<double>& yhat, std::span<const unsigned char> exclude, const estimate_input& in,
             logger& log) {
    check_levels(in.param, in.effect, log);
    yhat = allocate_result(in, "yhat", log);
    const wtime clock;
    estimate<A>(in, exclude, {}, 0.0, yhat, log);
    log_seconds(log, "Wall clock time (s) for yhat :", clock);
}

template <addressing A>
void phendeviations_of(matrix<double>& phendev, std::span<const unsigned char> exclude,
                       const estimate_input& in, matrix<double>& phen, double rmissing, logger& log) {
    if (!phen.empty()) {
        log.message("Presence of an allocated phen array!");
    } else {
        const wtime clock;
        phen = read_phentmp(in.param.ntrait, in.effect.cols,
                            "The file phentmp.stream does not exist, AND phen is not present!", module_tag,
                            "compute_phendeviations", log);
        log_seconds(log, "Wall clock time (s) to read phendeviations:", clock);
    }
    assert(phen.rows() == in.param.ntrait && phen.cols() == in.effect.cols);
    check_levels(in.param, in.effect, log);
    phendev = allocate_result(in, "phendev", log);
    const wtime clock;
    estimate<A>(in, exclude, phen.view(), rmissing, phendev, log);
    log_seconds(log, "Wall clock time (s) for phenotype deviations :", clock);
}

}  // namespace

std::vector<huge_effect> initsumestimate(const param_type& param, std::span<const covariable_type> cov,
                                         std::span<const unsigned char> exclude, logger& log) {
    std::vector<huge_effect> all;
    for (std::int32_t e = param.neffect - param.nhuge + 1; e <= param.neffect; ++e) {
        if (!is_huge_effect(param.type_effect[e - 1]))
            fatal(log, "This type of effect " + inttochar(param.type_effect[e - 1]) + " is not implemented",
                  module_tag, "initsumestimate");
        if (is_excluded(exclude, e) || !modmmeiod::has_records(param, e)) continue;
        huge_effect& huge = all.emplace_back();
        huge.effect = e;
        huge.nrow = coefficient_rows(cov[e - 1]);
        huge.ncov = coefficient_columns(cov[e - 1]);
        huge.first = param.sumequation[e];
        assert(huge.nrow > 0 && huge.ncov == param.n_cov[e - 1]);
        const std::int64_t n = huge.nrow * param.ntrait;
        log.message("Memory (MB) needed for the sum of estimates of the huge effect " + inttochar(e) + ": " +
                    realtochar(mib(n * static_cast<std::int64_t>(sizeof(double))), "(f0.2)"));
        huge.sumestimates.assign(static_cast<std::size_t>(n), 0.0);
    }
    return all;
}

void compute_yhat_ori(matrix<double>& yhat, std::span<const unsigned char> exclude, const estimate_input& in,
                      logger& log) {
    yhat_of<addressing::ori>(yhat, exclude, in, log);
}

void compute_yhat_combieff(matrix<double>& yhat, std::span<const unsigned char> exclude,
                           const estimate_input& in, logger& log) {
    yhat_of<addressing::combieff>(yhat, exclude, in, log);
}

void compute_yhat(matrix<double>& yhat, std::span<const unsigned char> exclude, const estimate_input& in,
                  logger& log) {
    (in.param.lcombieff ? compute_yhat_combieff : compute_yhat_ori)(yhat, exclude, in, log);
}

void compute_phendeviations_ori(matrix<double>& phendev, std::span<const unsigned char> exclude,
                                const estimate_input& in, matrix<double>& phen, double rmissing,
                                logger& log) {
    phendeviations_of<addressing::ori>(phendev, exclude, in, phen, rmissing, log);
}

void compute_phendeviations_combieff(matrix<double>& phendev, std::span<const unsigned char> exclude,
                                     const estimate_input& in, matrix<double>& phen, double rmissing,
                                     logger& log) {
    phendeviations_of<addressing::combieff>(phendev, exclude, in, phen, rmissing, log);
}

void compute_phendeviations(matrix<double>& phendev, std::span<const unsigned char> exclude,
                            const estimate_input& in, matrix<double>& phen, double rmissing, logger& log) {
    (in.param.lcombieff ? compute_phendeviations_combieff : compute_phendeviations_ori)(phendev, exclude, in,
                                                                                        phen, rmissing, log);
}

}  // namespace zendar
