#include <gmock/gmock.h>

#include <array>
#include <random>

#include "captured_log.hpp"
#include "modbasic.hpp"
#include "modmatop.hpp"
#include "modparameters.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;

param_type model(std::int32_t ntrait, std::vector<std::int64_t> combinations, std::vector<matrix<double>> r) {
    param_type param;
    param.ntrait = ntrait;
    param.n_residual_cov = static_cast<std::int32_t>(r.size());
    param.r = std::move(r);
    param.ncombination = static_cast<std::int32_t>(combinations.size());
    param.combination = std::move(combinations);
    return param;
}

matrix<double> diagonal_and_off(std::int64_t n, double diagonal, double off) {
    matrix<double> a(n, n, off);
    for (std::int64_t i = 0; i < n; ++i) a(i, i) = diagonal;
    return a;
}

TEST(Initresidualmatrix, InvertsTheObservedTraitsOnly) {
    param_type param = model(3, {0b010, 0b101, 0b111}, {diagonal_and_off(3, 4.0, 1.0)});
    captured_log log;

    initresidualmatrix(param, log);

    ASSERT_EQ(param.rinv_vect.size(), 3u);
    ASSERT_EQ(param.rinv_vect[0].rinv.size(), 1u);
    EXPECT_THAT(param.rinv_vect[0].rinv[0].values(), ElementsAre(0, 0, 0, 0, 0.25, 0, 0, 0, 0));
    const matrix<double>& first_and_third = param.rinv_vect[1].rinv[0];
    EXPECT_NEAR(first_and_third(0, 0), 4.0 / 15.0, 1e-15);
    EXPECT_NEAR(first_and_third(2, 2), 4.0 / 15.0, 1e-15);
    EXPECT_NEAR(first_and_third(0, 2), -1.0 / 15.0, 1e-15);
    EXPECT_NEAR(first_and_third(2, 0), -1.0 / 15.0, 1e-15);
    for (std::int64_t t = 0; t < 3; ++t) EXPECT_EQ(first_and_third(t, 1) + first_and_third(1, t), 0.0);
    EXPECT_NEAR(param.rinv_vect[2].rinv[0](0, 0), 5.0 / 18.0, 1e-15);
    EXPECT_EQ(log.text(), "");
}

TEST(Initresidualmatrix, KeepsOneMatrixPerClassWithZerosForAMissingClass) {
    param_type param = model(1, {1}, {diagonal_and_off(1, 2.0, 0.0), matrix<double>(1, 1)});
    captured_log log;

    initresidualmatrix(param, log);

    ASSERT_EQ(param.rinv_vect[0].rinv.size(), 2u);
    EXPECT_EQ(param.rinv_vect[0].rinv[0](0, 0), 0.5);
    EXPECT_EQ(param.rinv_vect[0].rinv[1](0, 0), 0.0);
}

TEST(Initresidualmatrix, WarnsOfRecordsWithoutAnyTraitAndGivesThemZeros) {
    param_type param = model(2, {0b11, 0}, {diagonal_and_off(2, 2.0, 1.0)});
    captured_log log;

    initresidualmatrix(param, log);

    EXPECT_EQ(log.text(), "WARN: Some observations have only missing records!\n");
    ASSERT_EQ(param.rinv_vect[1].rinv.size(), 1u);
    EXPECT_EQ(param.rinv_vect[1].rinv[0], matrix<double>(2, 2));
}

TEST(Initresidualmatrix, TakesTheLastBitForTrait64) {
    matrix<double> r = diagonal_and_off(64, 1.0, 0.0);
    r(63, 63) = 8.0;
    param_type param = model(64, {static_cast<std::int64_t>(std::uint64_t{1} << 63)}, {r});
    captured_log log;

    initresidualmatrix(param, log);

    matrix<double> expected(64, 64);
    expected(63, 63) = 0.125;
    EXPECT_EQ(param.rinv_vect[0].rinv[0], expected);
    EXPECT_EQ(log.text(), "");
}

TEST(Initresidualmatrix, RefusesMatricesThatAreNotPositiveDefiniteUnderCheckpd) {
    param_type param = model(2, {0b11}, {diagonal_and_off(2, 2.0, 1.0), diagonal_and_off(2, 1.0, 0.99999)});
    captured_log log;
    EXPECT_EQ(fatal_message([&] { initresidualmatrix(param, log); }), "no fatal_error");

    param.lcheckpd = true;
    EXPECT_EQ(fatal_message([&] { initresidualmatrix(param, log); }),
              "The residual matrix for the class 2 is not positive definite! Smallest eigenvalue allowed: " +
                  realtochar(0.0001, "(g0.3)"));
    EXPECT_THAT(log.text(), HasSubstr("modparameters % initresidualmatrix ("));
}

TEST(Initresidualmatrix, GivesTheInverseOfTheObservedBlockForRandomMatrices) {
    for (std::uint64_t seed = 1; seed <= 100; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 random(seed);
        std::normal_distribution<double> normal;
        const std::int64_t n = 1 + static_cast<std::int64_t>(random() % 6);
        matrix<double> b(n, n), r = diagonal_and_off(n, 1.0, 0.0);
        for (double& x : b.values()) x = normal(random);
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int64_t j = 0; j < n; ++j)
                for (std::int64_t k = 0; k < n; ++k) r(i, j) += b(i, k) * b(j, k);
        const auto code = static_cast<std::int64_t>(1 + random() % ((std::uint64_t{1} << n) - 1));
        param_type param = model(static_cast<std::int32_t>(n), {code}, {r});
        captured_log log;

        initresidualmatrix(param, log);

        const matrix<double>& inverse = param.rinv_vect[0].rinv[0];
        for (std::int64_t i = 0; i < n; ++i) {
            for (std::int64_t j = 0; j < n; ++j) {
                const bool observed = ((code >> i) & 1) != 0 && ((code >> j) & 1) != 0;
                double product = 0.0;
                for (std::int64_t k = 0; k < n; ++k) product += inverse(i, k) * r(k, j);
                if (observed)
                    ASSERT_NEAR(product, i == j ? 1.0 : 0.0, 1e-10);
                else
                    ASSERT_EQ(inverse(i, j), 0.0);
            }
        }
    }
}

TEST(DeallocrinvVect, ReleasesTheMatrices) {
    param_type param = model(1, {1}, {diagonal_and_off(1, 2.0, 0.0)});
    captured_log log;
    initresidualmatrix(param, log);

    deallocrinv_vect(param);

    EXPECT_EQ(param.rinv_vect.capacity(), 0u);
}

TEST(ScaleRi, WeighsRowsAndColumns) {
    matrix<double> ri = diagonal_and_off(2, 3.0, 1.0);
    const std::array w{2.0, 5.0};

    scale_ri(ri.view(), w);

    EXPECT_THAT(ri.values(), ElementsAre(12, 10, 10, 75));
}

}  // namespace
}  // namespace zendar
