#include <algorithm>
#include <utility>

#include "modmmeiod_detail.hpp"
#include "modmmeiod_external.hpp"
#include "modmmeiod_huge.hpp"
#include "modstructure_product.hpp"

/// Products with many vectors at once of what stands between the equations of huge effects: the coarse matrix
/// of a deflated solver needs no more.
namespace zendar {

namespace {

/// Vectors of one huge effect or their products, (row or coefficient) x (trait, vector), traits fastest.
using effect_columns = std::vector<matrix<double>>;

/// X of one effect, from the equations.
matrix<double> columns_of(matrix_view<const double> x, std::int64_t before, std::int64_t ncov,
                          std::int64_t ntrait) {
    matrix<double> own(ncov, ntrait * x.cols);
#pragma omp parallel for schedule(static) default(none) shared(x, before, ncov, ntrait, own)
    for (std::int64_t v = 0; v < x.cols; ++v)
        for (std::int64_t j = 0; j < ncov; ++j)
            for (std::int64_t t = 0; t < ntrait; ++t) own(j, v * ntrait + t) = x(before + j * ntrait + t, v);
    return own;
}

}  // namespace

std::int64_t mme_iod::first_structured() const {
    return param_.sumequation[param_.neffect - param_.nhuge + 1];
}

void mme_iod::atimesx_onlyhuge(matrix_view<const double> x, matrix_view<double> r) {
    const std::int64_t nt = param_.ntrait, first = first_structured();
    effect_columns zx, sums;
    for (const modmmeiod::huge_effect& huge : state_.huge) {
        const matrix<double> own = columns_of(x, huge.first - first, huge.ncov, nt);
        zx.emplace_back(huge.nrow, own.cols());
        sums.emplace_back(huge.nrow, own.cols());
        multiply_coefficients(cov_[huge.effect - 1], 'n', own.view(), zx.back().view(), log_);
    }
    atimesx_onlyhuge_onlymzrizm_1(zx, sums);
    for (const auto& block : state_.single_step) {
        const auto place = static_cast<std::size_t>(block->effect() - 1 - (param_.neffect - param_.nhuge));
        const auto n = static_cast<std::size_t>(std::max(param_.n_correlated[block->effect() - 1], 0) + 1);
        block->add_between_snps(std::span<const matrix<double>>(zx).subspan(place, n),
                                std::span<matrix<double>>(sums).subspan(place, n));
    }
    for (std::int64_t v = 0; v < r.cols; ++v) std::ranges::fill(r.column(v), 0.0);
    for (std::int32_t e = param_.neffect - param_.nhuge + 1; e <= param_.neffect; ++e) {
        if (param_.type_random[e - 1] == 0) continue;
        const crssparse& ginv = *ghuge_[e - 1];
        const std::int64_t before = param_.sumequation[e] - first, n = ginv.getdim(1);
        ginv.multgenm(1.0, 'n', {x.data + before, n, x.cols, x.ld}, 0.0, {r.data + before, n, r.cols, r.ld});
    }
    for (const modmmeiod::across_term& block : state_.external->across)
        if (std::min(block.effect1(), block.effect2()) > param_.neffect - param_.nhuge)
            for (std::int64_t v = 0; v < r.cols; ++v)
                block.timesx(x.column(v), r.column(v), first, state_.tmpvector1);
    for (std::size_t k = 0; k < state_.huge.size(); ++k) {
        const modmmeiod::huge_effect& huge = state_.huge[k];
        matrix<double> back(huge.ncov, nt * x.cols);
        multiply_coefficients(cov_[huge.effect - 1], 't', sums[k].view(), back.view(), log_);
        const std::int64_t before = huge.first - first;
#pragma omp parallel for schedule(static) default(none) shared(huge, back, before, nt, r)
        for (std::int64_t v = 0; v < r.cols; ++v)
            for (std::int64_t j = 0; j < huge.ncov; ++j)
                for (std::int64_t t = 0; t < nt; ++t) r(before + j * nt + t, v) += back(j, v * nt + t);
    }
}

/// sums += R^-1 of the records between the rows of huge effects times `zx`.
void mme_iod::atimesx_onlyhuge_onlymzrizm_1(std::span<const matrix<double>> zx,
                                            std::span<matrix<double>> sums) const {
    const std::int64_t nt = param_.ntrait;
    const std::int64_t nvector = zx.empty() ? 0 : zx.front().cols() / nt, nrec = data_.effect.cols();
    struct seen {
        std::size_t huge;
        std::int64_t row;
        const modmmeiod::record_term* term;
    };
    std::vector<seen> active;
    std::vector<double> w(static_cast<std::size_t>(nt)), u(w.size());
    for (std::int64_t rec = 0; rec < nrec; ++rec) {
        active.clear();
        for (const modmmeiod::record_term& term : state_.terms) {
            if (!term.huge) continue;
            std::int64_t at = 0;
            if (term.locate(data_.effect.data() + rec * data_.effect.rows(), at) == nullptr) continue;
            const auto huge = static_cast<std::size_t>(term.effect - 1 - (param_.neffect - param_.nhuge));
            active.push_back({huge, at / nt, &term});
        }
        if (active.empty()) continue;
        const double* const rinv = state_.rinv.of(data_.combitrait[static_cast<std::size_t>(rec)],
                                                  data_.effect(data_.effect.rows() - 1, rec));
        const double* const weight = param_.nweight > 0 ? data_.weight.data() + rec * nt : nullptr;
        for (std::int64_t v = 0; v < nvector; ++v) {
            std::ranges::fill(w, 0.0);
            for (const seen& s : active)
                for (std::int64_t t = 0; t < nt; ++t)
                    w[t] += s.term->mask[t] * zx[s.huge](s.row, v * nt + s.term->slot[t]);
            for (std::int64_t t = 0; t < nt; ++t) {
                u[t] = 0.0;
                for (std::int64_t q = 0; q < nt; ++q)
                    u[t] += rinv[q * nt + t] * w[q] * (weight == nullptr ? 1.0 : weight[t] * weight[q]);
            }
            for (const seen& s : active)
                for (std::int64_t t = 0; t < nt; ++t)
                    sums[s.huge](s.row, v * nt + s.term->slot[t]) += s.term->mask[t] * u[t];
        }
    }
}

namespace modmmeiod {

void single_step_block::add_between_snps(std::span<const matrix<double>> zx, std::span<matrix<double>> sums) {
    const std::int64_t n = a22i_.size(), nt = ntrait_;
    const std::int64_t nvector = zx.front().cols() / nt, order = std::ssize(members_) * nt;
    const matrix<double> ginv = ginv_of_snps();
    const double factor = type_ == 22 ? 1.0 : tau_by_beta_;
    std::vector<matrix<double>> weighed;
    for (const matrix<double>& own : zx) {
        weighed.emplace_back(n, own.cols());
        between_genotypes(own.view(), weighed.back().view());
    }
    for (std::int64_t v = 0; v < nvector; ++v)
        for (std::int64_t i = 0; i < order; ++i)
            for (std::int64_t j = 0; j < order; ++j) {
                const double g = factor * ginv(i, j);
                if (g == 0.0) continue;
                const std::span<double> to = sums[i / nt].column(v * nt + i % nt);
                const std::span<const double> from = std::as_const(weighed[j / nt]).column(v * nt + j % nt);
                for (std::int64_t k = 0; k < n; ++k) to[k] += g * from[k];
            }
}

std::int64_t single_step_block::entry(std::int32_t e, std::int64_t trait) const {
    return members_[static_cast<std::size_t>(e - effect_)].entry[static_cast<std::size_t>(trait)];
}

void single_step_block::animals_times_snps(matrix_view<const double> snps, matrix_view<double> out) {
    const std::int64_t n = a22i_.size();
    std::vector<double> work(static_cast<std::size_t>(a22i_.work_size(snps.cols)));
    if (type_ != 22) {
        a22i_.computea22i_timesx(snps, out, work);
        for (std::int64_t j = 0; j < out.cols; ++j)
            for (double& v : out.column(j)) v *= -tau_by_beta_;
        return;
    }
    matrix<double> inverse(n, snps.cols);
    a22i_.computea22i_timesx(snps, inverse.view(), work);
    beside_.multgenm(1.0, 't', snps, 0.0, out);
    for (std::int64_t j = 0; j < out.cols; ++j)
        for (std::int64_t k = 0; k < n; ++k) out(place_[k], j) -= inverse(k, j);
}

}  // namespace modmmeiod
}  // namespace zendar
