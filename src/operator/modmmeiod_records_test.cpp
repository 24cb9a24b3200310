#include "modmmeiod_records.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace zendar::modmmeiod {
namespace {

/// Records of three effects: a class effect of all traits, one of the even traits, and a covariable with two
/// coefficients; all with levels left out. More than two batches, the last one short.
class RecordLoops : public testing::TestWithParam<std::tuple<std::int32_t, bool>> {
  protected:
    static constexpr std::int32_t nrec = 301, nlevel = 7, nclass = 2, ncombi = 3, neffect = 3;

    RecordLoops() {
        const auto [ntrait, weighted] = GetParam();
        nt_ = ntrait;
        for (std::int32_t i = 0; i < nrec; ++i) {
            for (std::int32_t e = 0; e < neffect; ++e) levels_.push_back(integer(0, nlevel));
            levels_.push_back(integer(1, nclass));
            combi_.push_back(integer(1, ncombi));
        }
        y_ = reals(nrec * nt_);
        if (weighted) weight_ = reals(nrec * nt_);
        x_ = reals((2 * nlevel + 2) * nt_);
        rinv_ = {.ntrait = nt_, .nclass = nclass, .values = reals(ncombi * nclass * nt_ * nt_)};
        for (std::int32_t e = 0; e < neffect; ++e) {
            record_term term;
            term.effect = e + 1;
            term.row = e;
            for (std::int32_t t = 0; t < nt_; ++t) {
                term.mask.push_back(e == 1 && t % 2 == 0 ? 0.0 : 1.0);
                term.slot.push_back(t);
            }
            term.all_traits = e != 1;
            term.first = e * nlevel * nt_;
            term.last = e < 2 ? (e + 1) * nlevel * nt_ : term.first + 2 * nt_;
            term.stride = nt_;
            terms_.push_back(term);
        }
        terms_[2].covariable = true;
        terms_[2].nx = 2;
        terms_[2].rows = rows_;
        terms_[2].value = {value_.data(), 2, nlevel, 2};
    }

    std::int32_t integer(std::int32_t lo, std::int32_t hi) {
        return std::uniform_int_distribution<std::int32_t>(lo, hi)(random_);
    }
    double real() { return std::normal_distribution<double>()(random_); }
    std::vector<double> reals(std::int64_t n) {
        std::vector<double> values(static_cast<std::size_t>(n));
        for (double& value : values) value = real();
        return values;
    }

    [[nodiscard]] record_input input(bool rhs, bool wide) const {
        record_input in;
        in.ntrait = nt_;
        in.effect = {levels_.data(), neffect + 1, nrec, neffect + 1};
        in.combi = combi_;
        in.rinv = &rinv_;
        in.terms = terms_;
        in.x = rhs ? nullptr : x_.data();
        in.y = {y_.data(), nt_, nrec, nt_};
        in.wide = wide;
        if (!weight_.empty()) in.weight = {weight_.data(), nt_, nrec, nt_};
        return in;
    }
    [[nodiscard]] std::vector<double> sums(bool rhs, bool wide) const {
        const record_input in = input(rhs, wide);
        record_scratch scratch(in);
        std::vector<double> r(x_.size());
        add_records(in, {0, nrec}, std::vector<scatter_target>(neffect, {r.data(), 0}), scratch);
        return r;
    }

    /// The design matrix of a record, traits x equations.
    [[nodiscard]] std::vector<std::vector<double>> design(std::int32_t rec) const {
        std::vector<std::vector<double>> z(nt_, std::vector<double>(x_.size()));
        for (std::int32_t t = 0; t < nt_; ++t) {
            const std::int32_t* const level = levels_.data() + rec * (neffect + 1);
            for (std::int32_t e = 0; e < 2; ++e)
                if (level[e] > 0 && (e == 0 || t % 2 == 1)) z[t][(e * nlevel + level[e] - 1) * nt_ + t] = 1.0;
            for (std::int32_t j = 0; level[2] > 0 && j < 2; ++j)
                z[t][(2 * nlevel + j) * nt_ + t] = value_[2 * (rows_[level[2] - 1] - 1) + j];
        }
        return z;
    }
    [[nodiscard]] std::vector<double> expected(bool rhs) const {
        std::vector<double> r(x_.size());
        for (std::int32_t rec = 0; rec < nrec; ++rec) {
            const auto z = design(rec);
            const auto weight = [&](std::int32_t t) {
                return weight_.empty() ? 1.0 : weight_[rec * nt_ + t];
            };
            const std::int32_t block =
                (combi_[rec] - 1) * nclass + levels_[rec * (neffect + 1) + neffect] - 1;
            for (std::int32_t t = 0; t < nt_; ++t) {
                double w = 0.0;
                for (std::int32_t u = 0; u < nt_; ++u) {
                    double v = rhs ? y_[rec * nt_ + u] : 0.0;
                    for (std::size_t k = 0; !rhs && k < x_.size(); ++k) v += z[u][k] * x_[k];
                    w += weight(t) * rinv_.values[(block * nt_ + u) * nt_ + t] * weight(u) * v;
                }
                for (std::size_t k = 0; k < x_.size(); ++k) r[k] += z[t][k] * w;
            }
        }
        return r;
    }

    std::mt19937_64 random_{7};
    std::int32_t nt_ = 0;
    std::vector<std::int32_t> levels_, combi_;
    std::vector<double> y_, weight_, x_;
    residual_table rinv_;
    std::vector<std::int32_t> rows_{1, 3, 2, 7, 6, 5, 4};
    std::vector<double> value_ = reals(2 * nlevel);
    std::vector<record_term> terms_;
};

TEST_P(RecordLoops, AddWhatTheDesignMatrixGives) {
    for (const bool rhs : {false, true})
        for (const bool wide : {false, true})
            EXPECT_THAT(sums(rhs, wide), testing::Pointwise(testing::DoubleNear(1e-10), expected(rhs)))
                << rhs << wide;
}

TEST_P(RecordLoops, GiveTheSameBitsInVectorsOfFour) {
    for (const bool rhs : {false, true}) EXPECT_EQ(sums(rhs, true), sums(rhs, false)) << rhs;
}

TEST_P(RecordLoops, LeaveTheSumsOfACovariableAloneThatNoRecordHas) {
    for (std::int32_t rec = 0; rec < nrec; ++rec) levels_[rec * (neffect + 1) + 2] = 0;
    for (const bool rhs : {false, true}) {
        const record_input in = input(rhs, true);
        record_scratch scratch(in);
        std::vector<double> r(x_.size());
        // Another thread may be writing there.
        add_records(in, {0, nrec}, std::vector<scatter_target>{{r.data(), 0}, {r.data(), 0}, {nullptr, 0}},
                    scratch);
        EXPECT_THAT(r, testing::Pointwise(testing::DoubleNear(1e-10), expected(rhs))) << rhs;
    }
}

INSTANTIATE_TEST_SUITE_P(Traits, RecordLoops, testing::Combine(testing::Range(1, 7), testing::Bool()));

TEST(WideLoops, AreThereForThreeAndFourTraitsOnly) {
    for (const std::int32_t ntrait : {1, 2, 5, 6}) EXPECT_EQ(find_wide_loops(ntrait), nullptr);
#if defined(__x86_64__)
    for (const std::int32_t ntrait : {3, 4})
        EXPECT_EQ(find_wide_loops(ntrait) != nullptr, __builtin_cpu_supports("avx2") != 0);
#endif
}

}  // namespace
}  // namespace zendar::modmmeiod
