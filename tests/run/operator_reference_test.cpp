#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "modmmeiod.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

/// The operator on data against dense equations of small random models, from the files on.
namespace zendar::test {
namespace {

model_choice choice_of(std::uint64_t seed) {
    std::mt19937_64 random(seed * 7919);
    const auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    model_choice choice;
    choice.ntrait = pick(1, 6);
    choice.nrec = pick(1, 60);
    choice.neffect = pick(1, 5);
    choice.combieff = seed % 4 == 1;
    choice.andeffect = seed % 5 == 2;
    choice.sorted = seed % 2 == 0;
    return choice;
}

TEST(OperatorReference, ProductAndRightHandSideOfRandomModelsWithEveryKernelAndNumberOfThreads) {
    int nproduct = 0;
    for (std::uint64_t seed = 1; seed <= 300; ++seed) {
        const random_model model(choice_of(seed), seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        read_model read(model);
        ASSERT_EQ(read.run.param.neq, model.neq);
        const std::vector<double> x = random_vector(model.neq, seed);
        const std::vector<double> cx = dense_product(model.c, x), xrxx = dense_product(model.xrx, x);
        for (const std::int32_t kernel : {1, 2, 5}) {
            const threads scope(static_cast<int>(1 + (seed + static_cast<std::uint64_t>(kernel)) % 8));
            mme_iod op(read.run.param, read.run.data, read.run.cov, read.run.log, read.run.ped);
            op.setup_lhsrhs_iod(kernel + (read.run.param.lcombieff ? 10 : 0));
            std::vector<double> r(model.neq, 99.0), b(model.neq, 99.0), zero(model.neq, 0.0);
            op.computeleastsquarepart(x, r);
            EXPECT_LT(difference(r, xrxx), 1e-12) << "kernel " << kernel;
            op.atimesx(x, r);
            EXPECT_LT(difference(r, cx), 1e-12) << "kernel " << kernel;
            op.r_equal_b_minus_atimesx(zero, b, r);
            EXPECT_LT(difference(b, model.b), 1e-12) << "kernel " << kernel;
            EXPECT_EQ(r, b);
            std::vector<double> expected = model.b;
            for (std::int64_t i = 0; i < model.neq; ++i) expected[i] -= cx[i];
            op.r_equal_savedb_minus_atimesx(x, r);
            EXPECT_LT(difference(r, expected), 1e-11) << "kernel " << kernel;
            ++nproduct;
        }
        if (HasFailure()) break;
    }
    EXPECT_EQ(nproduct, 900);
}

bool has_type(const random_model& model, std::int32_t type) {
    return std::ranges::count(model.effects, type, &random_effect::type_random) > 0;
}

TEST(OperatorReference, PedigreesOfEveryKindBySparseMatricesAndByThePedigreesThemselves) {
    int nsparse = 0, nped = 0;
    for (std::uint64_t seed = 1; seed <= 200; ++seed) {
        model_choice choice = choice_of(seed + 1000);
        choice.neffect = std::max(choice.neffect, 2);
        choice.pedigrees = true;
        const random_model model(choice, seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const std::vector<double> x = random_vector(model.neq, seed), cx = dense_product(model.c, x);
        for (const bool sparse : {true, false}) {
            if (!sparse && model.needs_asparse()) continue;
            read_model read(model, sparse ? "" : "!notuseasparse\n");
            const threads scope(static_cast<int>(1 + seed % 8));
            mme_iod op(read.run.param, read.run.data, read.run.cov, read.run.log, read.run.ped);
            op.setup_lhsrhs_iod(read.run.param.lcombieff ? 12 : 2);
            std::vector<double> r(model.neq);
            op.atimesx(x, r);
            EXPECT_LT(difference(r, cx), 1e-11) << (sparse ? "sparse" : "pedigree");
            const bool a22i = has_type(model, 103) || has_type(model, 105) || has_type(model, 109);
            EXPECT_EQ(read.screen.str().find(" (tau/beta - omega) * A22i * x : ") != std::string::npos, a22i);
            ++(sparse ? nsparse : nped);
        }
        if (HasFailure()) break;
    }
    EXPECT_EQ(nsparse, 200);
    EXPECT_GT(nped, 30);
}

TEST(OperatorReference, TheSameForEveryNumberOfThreads) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        const random_model model(choice_of(seed), seed);
        read_model read(model);
        const std::vector<double> x = random_vector(model.neq, seed);
        std::vector<double> first(model.neq);
        for (const std::int32_t kernel : {1, 2, 5})
            for (int n = 1; n <= 8; ++n) {
                const threads scope(n);
                mme_iod op(read.run.param, read.run.data, read.run.cov, read.run.log, read.run.ped);
                op.setup_lhsrhs_iod(kernel + (read.run.param.lcombieff ? 10 : 0));
                std::vector<double> r(model.neq);
                op.atimesx(x, r);
                if (kernel == 1 && n == 1) first = r;
                EXPECT_LT(difference(r, first), 1e-12) << "seed " << seed << " threads " << n;
            }
    }
}

}  // namespace
}  // namespace zendar::test
