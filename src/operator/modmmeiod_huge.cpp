#include "modmmeiod_huge.hpp"

#include <algorithm>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modgeneral_detail.hpp"
#include "modmmeiod_detail.hpp"
#include "modstats.hpp"
#include "modstructure_product.hpp"

namespace zendar {
namespace modmmeiod {

bool has_records(const param_type& param, std::int32_t e) {
    switch (param.type_random_eff[e - 1]) {
        case 0:
        case 20:
        case 23:
            return true;
        case 22: {
            const std::int32_t link = detail::linked_effect(param, e);
            return link > 0 && param.type_effect[link - 1] == teff_class;
        }
        default:
            return false;
    }
}

namespace {

/// to(j, t) = from[j * ntrait + t].
void to_columns(std::span<const double> from, matrix_view<double> to) {
    const std::int64_t n = to.rows, ntrait = to.cols;
#pragma omp parallel for schedule(static) default(none) shared(from, to, n, ntrait)
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t t = 0; t < ntrait; ++t) to(j, t) = from[j * ntrait + t];
}

}  // namespace

std::vector<huge_effect> make_huge_effects(const param_type& param, std::span<const covariable_type> cov,
                                           logger& log) {
    std::vector<huge_effect> all;
    for (std::int32_t e = param.neffect - param.nhuge + 1; e <= param.neffect; ++e) {
        huge_effect& huge = all.emplace_back();
        huge.effect = e;
        huge.nrow = coefficient_rows(cov[e - 1]);
        huge.ncov = coefficient_columns(cov[e - 1]);
        huge.first = param.sumequation[e];
        if (huge.nrow < 1 || huge.ncov != param.n_cov[e - 1])
            fatal(log, "The coefficients of the huge effect " + inttochar(e) + " are not available",
                  "modmmeiod", "setup_lhsrhs_iod");
        if (!has_records(param, e)) continue;
        huge.sumestimates.assign(static_cast<std::size_t>(huge.nrow * param.ntrait), 0.0);
        huge.res_edhc = huge.sumestimates;
    }
    return all;
}

std::int64_t huge_work_size(const huge_effect& huge, std::int32_t ntrait) {
    return (huge.nrow + huge.ncov) * ntrait;
}

void compute_sumestimates(huge_effect& huge, std::int32_t ntrait, const covariable_type& cov,
                          std::span<const double> x, std::span<double> work, logger& log) {
    const double* const own = x.data() + huge.first;
    if (ntrait == 1) {
        multiply_coefficients(cov, 'n', {own, huge.ncov, 1, huge.ncov},
                              {huge.sumestimates.data(), huge.nrow, 1, huge.nrow}, log);
        return;
    }
    const matrix_view<double> b{work.data(), huge.ncov, ntrait, huge.ncov};
    const matrix_view<double> c{work.data() + huge.ncov * ntrait, huge.nrow, ntrait, huge.nrow};
    to_columns({own, static_cast<std::size_t>(huge.ncov * ntrait)}, b);
    multiply_coefficients(cov, 'n', b, c, log);
    double* const sums = huge.sumestimates.data();
#pragma omp parallel for schedule(static) default(none) shared(sums, c, ntrait)
    for (std::int64_t row = 0; row < c.rows; ++row)
        for (std::int64_t t = 0; t < ntrait; ++t) sums[row * ntrait + t] = c(row, t);
}

void summarize_sumestimates(huge_effect& huge, std::int32_t ntrait, const covariable_type& cov,
                            std::span<double> work, std::span<double> r, logger& log) {
    matrix_view<double> b{work.data(), huge.nrow, ntrait, huge.nrow};
    if (ntrait == 1)
        b.data = huge.res_edhc.data();
    else
        to_columns(huge.res_edhc, b);
    const matrix_view<double> c{work.data() + huge.nrow * ntrait, huge.ncov, ntrait, huge.ncov};
    multiply_coefficients(cov, 't', b, c, log);
    double* const own = r.data() + huge.first;
#pragma omp parallel for schedule(static) default(none) shared(own, c, ntrait)
    for (std::int64_t j = 0; j < c.rows; ++j)
        for (std::int64_t t = 0; t < ntrait; ++t) own[j * ntrait + t] += c(j, t);
    huge.pending = false;
}

}  // namespace modmmeiod

void mme_iod::setup_huge_effects() {
    if (param_.nhuge < 1) return;
    log_.message("Setting-up of matrices and arrays for huge effects (ssSNPBLUP)");
    state_.huge = modmmeiod::make_huge_effects(param_, cov_, log_);
    std::int64_t work = 0, doubles = 0;
    for (const modmmeiod::huge_effect& huge : state_.huge) {
        doubles += 2 * std::ssize(huge.sumestimates);
        work = std::max(work, modmmeiod::huge_work_size(huge, param_.ntrait));
    }
    state_.tmpvector2.assign(static_cast<std::size_t>(work), 0.0);
    std::int64_t bytes = (doubles + work) * static_cast<std::int64_t>(sizeof(double));
    for (std::int32_t e = param_.neffect - param_.nhuge + 1; e <= param_.neffect; ++e) {
        const std::int32_t type = param_.type_random[e - 1];
        if (type == 0) continue;
        if (type == 20 || type == 22 || type == 23 || type == 30) {
            if (e > std::ssize(ghuge_) || ghuge_[e - 1] == nullptr)
                fatal(log_, "The huge effect " + inttochar(e) + " has no covariances", "modmmeiod",
                      "setup_lhsrhs_iod");
        } else {
            fatal(log_, " This type of effect " + inttochar(type) + " is not implemented", "modmmeiod",
                  param_.useasparse ? "computerandompartsparse_timesx" : "computerandompart_timesx");
        }
        if (type == 22 || type == 30) {
            setup_single_step(e);
            bytes += state_.single_step.back()->bytes();
        }
    }
    log_.message("Memory (MB) needed for tmp arrays for huge effects: " + realtochar(mib(bytes), "(f0.2)"));
}

/// The group of SNP effects that effect e opens.
void mme_iod::setup_single_step(std::int32_t e) {
    constexpr const char* procedure = "setup_lhsrhs_iod";
    const std::int32_t link = detail::linked_effect(param_, e);
    const auto group = std::ranges::find_if(state_.groups, [&](const effect_group& g) {
        return link >= g.effect && link < g.effect + g.nmember;
    });
    if (group == state_.groups.end() || state_.pedigree[group->effect - 1] == nullptr)
        fatal(log_,
              "The effect " + inttochar(link) + ", which the SNP effect " + inttochar(e) +
                  " is linked to, has no pedigree",
              "modmmeiod", procedure);
    if (!param_.useasparse)
        fatal(log_,
              "Use of huge effects must be done with using sparse A matrices (effect " + inttochar(e) + ")",
              "modmmeiod", procedure);
    for (const auto& other : state_.single_step)
        if (&other->animals() == &*group)
            fatal(log_,
                  "The SNP effects " + inttochar(other->effect()) + " and " + inttochar(e) +
                      " are both linked to the animal effect " + inttochar(group->effect) +
                      ", which can have the part of one only",
                  "modmmeiod", procedure);
    std::string links;
    for (std::int32_t k = 0; k <= std::max(param_.n_correlated[e - 1], 0); ++k)
        links += (k > 0 ? " " : "") + inttochar(detail::linked_effect(param_, e + k));
    log_.message("Addition of A22 to sparse A matrix + computation of the A submatrices for effects " +
                 links);
    const auto animal = static_cast<std::size_t>(group->effect - 1);
    const bool difference = param_.type_random[e - 1] == 22;
    state_.single_step.push_back(std::make_unique<modmmeiod::single_step_block>(
        param_, e, *group, *state_.pedigree[animal], difference ? state_.asparse[animal].get() : nullptr,
        cov_, log_));
}

std::vector<double> mme_iod::diagonal_of_snps(std::int32_t e) const {
    const auto block = std::ranges::find(state_.single_step, e, [](const auto& b) { return b->effect(); });
    if (block == state_.single_step.end() || param_.type_random[e - 1] != 22) return {};
    return computema22pa21a11ia12m_all(cov_[e - 1], **block, log_);
}

void mme_iod::compute_sumestimates(std::span<const double> x) {
    for (modmmeiod::huge_effect& huge : state_.huge)
        if (!huge.sumestimates.empty())
            modmmeiod::compute_sumestimates(huge, param_.ntrait, cov_[huge.effect - 1], x, state_.tmpvector2,
                                            log_);
}

void mme_iod::summarize(modmmeiod::huge_effect& huge, std::span<double> r) {
    if (huge.pending)
        modmmeiod::summarize_sumestimates(huge, param_.ntrait, cov_[huge.effect - 1], state_.tmpvector2, r,
                                          log_);
}

void mme_iod::summarize_all(std::span<double> r) {
    for (modmmeiod::huge_effect& huge : state_.huge) summarize(huge, r);
}

/// The covariances of the SNP effects, then what couples them with animals.
void mme_iod::computerandompart_huge(std::span<const double> x, std::span<double> r, std::string& text) {
    for (std::int32_t e = param_.neffect - param_.nhuge + 1; e <= param_.neffect; ++e) {
        if (param_.type_random[e - 1] == 0) continue;
        const crssparse& ginv = *ghuge_[e - 1];
        const auto first = static_cast<std::size_t>(param_.sumequation[e]);
        const auto n = static_cast<std::size_t>(ginv.getdim(1));
        ginv.multgenv(1.0, 'n', x.subspan(first, n), 1.0, r.subspan(first, n));
    }
    for (const auto& block : state_.single_step) {
        const auto first = static_cast<std::size_t>(block->effect() - 1 - (param_.neffect - param_.nhuge));
        const auto n = static_cast<std::size_t>(std::max(param_.n_correlated[block->effect() - 1], 0) + 1);
        block->timesx(std::span(state_.huge).subspan(first, n), x, r, text, log_);
    }
    if (std::ranges::none_of(state_.huge, &modmmeiod::huge_effect::pending)) return;
    const wtime clock;
    summarize_all(r);
    text += " Huge_covariable * x (single step) : " + realtochar(clock.seconds(), "(f0.3)");
}

}  // namespace zendar
