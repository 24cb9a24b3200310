#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <random>

#include "modmmeiod.hpp"
#include "modmmeiod_huge.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

/// Models with SNP effects against dense equations.
namespace zendar::test {
namespace {

constexpr std::array types{0, 20, 22, 23, 30};

model_choice choice_of(std::uint64_t seed) {
    std::mt19937_64 random(seed * 6007);
    const auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    model_choice choice;
    choice.ntrait = pick(1, 3);
    choice.nrec = pick(1, 60);
    choice.neffect = pick(1, 3);
    choice.sorted = seed % 2 == 0;
    choice.pedigrees = seed % 3 == 0;
    choice.bed = true;
    choice.huge = types[seed % types.size()];
    return choice;
}

TEST(HugeReference, ProductAndRightHandSideOfRandomModels) {
    int nproduct = 0;
    for (std::uint64_t seed = 1; seed <= 300; ++seed) {
        const random_model model(choice_of(seed), seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const std::int32_t type = choice_of(seed).huge;
        read_model read(model);
        ASSERT_EQ(read.run.param.neq, model.neq);
        const std::vector<double> x = random_vector(model.neq, seed);
        const std::vector<double> cx = dense_product(model.c, x), xrxx = dense_product(model.xrx, x);
        for (const std::int32_t kernel : {0, 1, 2, 5}) {
            if ((kernel == 0) != (type == 22) || (kernel == 1 && type == 23)) continue;
            const threads scope(static_cast<int>(1 + (seed + static_cast<std::uint64_t>(kernel)) % 4));
            mme_iod op(read.run.param, read.run.data, read.run.cov, read.run.log, read.run.ped,
                       read.run.ghuge);
            op.setup_lhsrhs_iod(kernel);
            std::vector<double> r(model.neq, 99.0), b(model.neq, 99.0), zero(model.neq, 0.0);
            op.compute_sumestimates(x);
            op.computeleastsquarepart(x, r);
            EXPECT_LT(difference(r, xrxx), 1e-12) << "kernel " << kernel;
            op.atimesx(x, r);
            EXPECT_LT(difference(r, cx), 1e-11) << "kernel " << kernel;
            op.r_equal_b_minus_atimesx(zero, b, r);
            EXPECT_LT(difference(b, model.b), 1e-12) << "kernel " << kernel;
            EXPECT_EQ(r, b);
            ++nproduct;
        }
        EXPECT_NE(read.screen.str().find(" Huge_covariable * x     : "), std::string::npos);
        if (HasFailure()) break;
    }
    EXPECT_EQ(nproduct, 60 * (1 + 2 + 3 * 3));  // type 22 has one kernel, type 23 two, the others three
}

TEST(HugeReference, TheDiagonalsAndMatricesOfGenotypesAreExact) {
    int nmodel = 0;
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
        model_choice choice = choice_of(seed);
        choice.huge = seed % 2 == 0 ? 22 : 30;
        const random_model model(choice, seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        read_model read(model);
        mme_iod op(read.run.param, read.run.data, read.run.cov, read.run.log, read.run.ped, read.run.ghuge);
        op.setup_lhsrhs_iod(choice.huge == 22 ? 0 : 2);
        modmmeiod::single_step_block& block = *op.state().single_step.front();
        const covariable_type& cov = read.run.cov[block.effect() - 1];
        const matrix<double> between = model.between_genotypes();
        // With all animals genotyped nothing is left of the difference.
        if (std::ranges::none_of(between.values(), [](double v) { return std::abs(v) > 1e-10; })) continue;
        ++nmodel;
        const bool liu = choice.huge == 30;
        const matrix<double> whole = liu ? computema22mina21a11ia12m_all_mat(cov, block, read.run.log)
                                         : computema22pa21a11ia12m_all_mat(cov, block, read.run.log);
        EXPECT_LT(difference(whole.values(), between.values()), 1e-11);
        const std::vector<double> diagonal = liu ? computema22mina21a11ia12m_all(cov, block, read.run.log)
                                                 : computema22pa21a11ia12m_all(cov, block, read.run.log);
        std::vector<double> expected;
        for (std::int64_t j = 0; j < between.rows(); ++j) expected.push_back(between(j, j));
        EXPECT_LT(difference(diagonal, expected), 1e-11);
        EXPECT_EQ(op.diagonal_of_snps(block.effect()), liu ? std::vector<double>() : diagonal);
        EXPECT_THAT(read.screen.str(),
                    testing::HasSubstr(liu ? "M*(A^22-A^21*inv(A^11)*A^12)*M for "
                                           : "diag(M*(A^diff+A^21*inv(A^11)*A^12)*M) for "));
    }
    EXPECT_GT(nmodel, 30);
}

TEST(HugeReference, SingleStepModelsHaveTheBreedingValuesOfHInverse) {
    int nmodel = 0;
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        model_choice choice = choice_of(seed);
        choice.huge = seed % 2 == 0 ? 22 : 30;
        choice.single_step = choice.always_random = true;
        choice.missing = false;
        const random_model model(choice, seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        if (std::ranges::any_of(model.effects, [](const auto& e) { return e.type_random % 100 == 5; }))
            continue;  // with fixed groups breeding values are not unique
        ++nmodel;
        const auto [c, b] = model.single_step_equations();
        const std::vector<double> expected = model.breeding_values(dense_solution(c, b), false);
        const std::vector<double> x = dense_solution(model.c, model.b);
        EXPECT_LT(difference(model.breeding_values(x, true), expected), 1e-8);
    }
    EXPECT_GT(nmodel, 40);
}

}  // namespace
}  // namespace zendar::test
