#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "captured_log.hpp"
#include "modblas.hpp"
#include "modmatop.hpp"
#include "modpreconditioneriod_chols.hpp"
#include "modpreconditioneriod_test_model.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using modpreconditioneriod::invertpreconditioner;
using modpreconditioneriod::invertpreconditioner_block;
using modpreconditioneriod::preconditionertimesx;
using test::captured_log;
using test::fatal_message;
using test::model_case;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr float not_a_number = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

/// A model of one effect with the codes and arrays of a test.
struct one_part {
    model_case model{1, {{.nlevel = 4}}};
    std::vector<mija> m{1};

    one_part() {
        m[0].first = 1;
        m[0].last = 4;
    }
    void diagonal(std::vector<float> values) {
        m[0].type = 1;
        m[0].mat = std::move(values);
        m[0].dim1 = 4;
    }
    void blocks(std::int32_t order, std::vector<float> values) {
        m[0].type = 2;
        m[0].dim1 = m[0].dim2 = order;
        m[0].dim3 = static_cast<std::int32_t>(std::ssize(values)) / (order * (order + 1) / 2);
        m[0].block = std::move(values);
        m[0].stretches = {{0, order, order}};
    }
    [[nodiscard]] std::vector<double> times(const std::vector<double>& x) {
        std::vector<double> y(x.size(), -1.0), work;
        const preconditioned_sums sums = preconditionertimesx(y, m, x, work, model.log);
        double yy = 0.0, xy = 0.0, size = 0.0;
        for (std::size_t i = 0; i < y.size(); ++i) {
            yy += y[i] * y[i];
            xy += x[i] * y[i];
            size += std::fabs(x[i] * y[i]);
        }
        EXPECT_NEAR(sums.yy, yy, 1e-13 * yy);
        EXPECT_NEAR(sums.xy, xy, 1e-13 * size);
        return y;
    }
};

TEST(Invertpreconditioner, LeavesZerosOfADiagonal) {
    one_part part;
    part.diagonal({2.0f, 0.0f, -4.0f, 0.5f});
    invertpreconditioner(part.model.param, part.m, part.model.log);
    EXPECT_THAT(part.m[0].mat, ElementsAre(0.5f, 0.0f, -0.25f, 2.0f));
    EXPECT_THAT(part.times({1.0, 1e300, 4.0, 3.0}), ElementsAre(0.5, 0.0, -1.0, 6.0));
}

TEST(Invertpreconditioner, RefusesDiagonalsThatAreNotFinite) {
    for (const float bad :
         {not_a_number, infinity, -infinity, 1e-41f}) {  // the inverse of the last overflows
        one_part part;
        part.diagonal({2.0f, 1.0f, bad, bad});
        captured_log log;
        EXPECT_THAT(
            fatal_message([&] { invertpreconditioner(part.model.param, part.m, log); }),
            HasSubstr("The preconditioner of effect 1, or its inverse, is not finite at its equation 3"));
        EXPECT_THAT(log.text(), HasSubstr("modpreconditioneriod % invertpreconditioner ("));
    }
}

TEST(Invertpreconditioner, RefusesBlocksThatAreNotFinite) {
    for (const float bad : {not_a_number, infinity}) {
        one_part part;
        part.blocks(2, {1.0f, 0.0f, 1.0f, 1.0f, bad, 1.0f});
        EXPECT_THAT(fatal_message([&] { invertpreconditioner(part.model.param, part.m, part.model.log); }),
                    HasSubstr("is not finite at level 2"));
    }
    one_part part;
    part.m[0].type = 4;
    part.m[0].dim1 = 1;
    part.m[0].w = {std::numeric_limits<double>::quiet_NaN()};
    EXPECT_THAT(fatal_message([&] { invertpreconditioner(part.model.param, part.m, part.model.log); }),
                HasSubstr("The preconditioner of effect 1, or its inverse, is not finite"));
    part.m[0].type = 3;
    part.m[0].dense = matrix<double>(1, 1, std::numeric_limits<double>::infinity());
    EXPECT_THAT(fatal_message([&] { invertpreconditioner(part.model.param, part.m, part.model.log); }),
                HasSubstr("The preconditioner of effect 1, or its inverse, is not finite"));
}

TEST(Invertpreconditioner, RefusesUnknownCodes) {
    for (const std::int32_t code : {0, 8, -4}) {
        one_part part;
        part.m[0].type = code;
        captured_log log;
        EXPECT_EQ(fatal_message([&] { invertpreconditioner(part.model.param, part.m, log); }),
                  "This type of preconditioner " + std::to_string(code) + " is not implemented");
        EXPECT_THAT(log.text(), HasSubstr("modpreconditioneriod % invertpreconditioner ("));
    }
}

TEST(StatsMijaLhs, RefusesUnknownCodes) {
    one_part part;
    part.m[0].type = 8;
    captured_log log;
    EXPECT_EQ(fatal_message([&] { modpreconditioneriod::stats_mija_lhs(part.model.param, part.m, log); }),
              " This type of preconditioner 8 is not implemented");
    EXPECT_THAT(log.text(), HasSubstr("modpreconditioneriod % stats_mija_lhs ("));
}

TEST(Preconditionertimesx, RefusesUnknownCodes) {
    one_part part;
    part.m[0].type = 8;
    captured_log log;
    const std::vector<double> x(4);
    std::vector<double> y(4), work;
    EXPECT_EQ(fatal_message([&] { preconditionertimesx(y, part.m, x, work, log); }),
              "This type of preconditioner 8 is not implemented");
    EXPECT_THAT(log.text(), HasSubstr("modpreconditioneriod % preconditionertimesx ("));
}

TEST(Preconditionertimesx, LogsTheElapsedTime) {
    one_part part;
    part.diagonal({1.0f, 1.0f, 1.0f, 1.0f});
    captured_log log;
    const std::vector<double> x(4);
    std::vector<double> y(4), work;
    preconditionertimesx(y, part.m, x, work, log);
    EXPECT_THAT(log.text(), testing::MatchesRegex("  Elapsed time \\(s\\) - M-1 \\* x: [0-9]*\\.[0-9]+\n"));
}

TEST(Preconditionertimesx, SolvesWithADenseFactor) {
    one_part part;
    part.m[0].type = 3;
    part.m[0].dim1 = part.m[0].dim2 = 4;
    part.m[0].dense = matrix<double>(4, 4);
    const double values[4][4] = {
        {4, 2, 0, 2}, {2, 5, 0, 1}, {0, 0, 0, 0}, {2, 1, 0, 1}};  // row 4 = row 1 / 2
    for (std::int64_t i = 0; i < 4; ++i)
        for (std::int64_t j = 0; j < 4; ++j) part.m[0].dense(i, j) = values[i][j];
    invertpreconditioner(part.model.param, part.m, part.model.log);
    const std::vector<double> y = part.times({8.0, 8.0, 3.0, 4.0});  // 4 a + 2 b = 8, 2 a + 5 b = 8
    EXPECT_THAT(y, ElementsAre(testing::DoubleNear(1.5, 1e-12), testing::DoubleNear(1.0, 1e-12), 0.0, 0.0));
}

/// Packed blocks of random definite matrices; every third of them has a row that depends on the first, or is
/// zero.
std::vector<float> random_blocks(std::int32_t order, std::int32_t nlevel, std::mt19937& generator) {
    std::vector<float> values;
    for (std::int32_t level = 0; level < nlevel; ++level) {
        matrix<double> a = test::random_definite(order, generator);
        if (level % 3 == 1)
            for (std::int32_t i = 0; i < order; ++i) a(i, order - 1) = a(order - 1, i) = 0.0;
        if (level % 6 == 2 && order > 1) {
            for (std::int32_t i = 0; i < order; ++i) a(i, order - 1) = 2.0 * a(i, 0);
            for (std::int32_t i = 0; i < order; ++i) a(order - 1, i) = a(i, order - 1);
            a(order - 1, order - 1) = 4.0 * a(0, 0);
        }
        for (std::int32_t k = 0; k < order; ++k)
            for (std::int32_t i = 0; i <= k; ++i)
                values.push_back(level % 7 == 6 ? 0.0f : static_cast<float>(a(i, k)));
    }
    return values;
}

TEST(InvertpreconditionerBlock, EqualsTheGeneralInverseOnItsPivots) {
    std::mt19937 generator(11);
    for (const std::int32_t order : {1, 2, 3, 4, 5, 6, 7, 12, 40}) {
        one_part part;
        part.blocks(order, random_blocks(order, 30, generator));
        const std::vector<float> before = part.m[0].block;
        const std::int64_t size = std::int64_t{order} * (order + 1) / 2;
        const double tolerance = 10.0 * std::numeric_limits<float>::epsilon() * order * order;

        EXPECT_EQ(invertpreconditioner_block(part.m[0]), 0);

        for (std::int64_t level = 0; level < part.m[0].dim3; ++level) {
            matrix<double> a(order, order);
            for (std::int64_t k = 0; k < order; ++k)
                for (std::int64_t i = 0; i <= k; ++i)
                    a(i, k) = a(k, i) = before[level * size + k * (k + 1) / 2 + i];
            const matrix<double> given = a;
            std::int32_t rank = 0;
            ginv1_real8(a.view(), tolerance, rank);
            for (std::int64_t k = 0; k < order; ++k)
                if (a(k, k) == 0.0 && given(k, k) > 0.0) a(k, k) = 1.0 / given(k, k);
            for (std::int64_t k = 0; k < order; ++k)
                for (std::int64_t i = 0; i <= k; ++i)
                    EXPECT_FLOAT_EQ(part.m[0].block[level * size + k * (k + 1) / 2 + i],
                                    static_cast<float>(a(i, k)))
                        << order << " " << level;
        }
    }
}

TEST(InvertpreconditionerBlock, TakesTheDiagonalOfDependentEquations) {
    one_part part;
    part.blocks(2, {2.0f, 4.0f, 8.0f, 0.0f, 0.0f, 4.0f, 0.0f, 0.0f, 0.0f, 2.0f, 1.0f, 1.0f});
    EXPECT_EQ(invertpreconditioner_block(part.m[0]), 0);
    EXPECT_THAT(part.m[0].block, ElementsAre(0.5f, 0.0f, 0.125f,  // the second is twice the first
                                             0.0f, 0.0f, 0.25f,   // the first is empty
                                             0.0f, 0.0f, 0.0f,    // both are
                                             1.0f, -1.0f, 2.0f));
}

TEST(PreconditionertimesxBlock, AgreesWithTheFullProductForEveryOrder) {
    std::mt19937 generator(5);
    for (const std::int32_t order : {1, 2, 3, 4, 5, 6, 7, 12, 31, 32, 33, 50})
        for (const bool gathered : {false, true}) {
            constexpr std::int32_t nlevel = 37;
            one_part part;
            part.blocks(order, random_blocks(order, nlevel, generator));
            // Gathered: the first equation of each level stands alone, in front of all others.
            if (gathered && order > 1) part.m[0].stretches = {{0, 1, 1}, {nlevel, order - 1, order - 1}};
            const auto at = [&](std::int64_t level, std::int64_t i) {
                if (!gathered || order == 1) return level * order + i;
                return i == 0 ? level : nlevel + level * (order - 1) + i - 1;
            };
            std::vector<double> x(static_cast<std::size_t>(order) * nlevel), expected(x.size(), 0.0);
            for (double& value : x) value = part.model.real();
            const std::int64_t size = std::int64_t{order} * (order + 1) / 2;
            for (std::int64_t level = 0; level < nlevel; ++level)
                for (std::int64_t k = 0; k < order; ++k)
                    for (std::int64_t i = 0; i < order; ++i)
                        expected[at(level, k)] +=
                            static_cast<double>(
                                part.m[0].block[level * size + std::max(i, k) * (std::max(i, k) + 1) / 2 +
                                                std::min(i, k)]) *
                            x[at(level, i)];

            const std::vector<double> y = part.times(x);

            for (std::size_t i = 0; i < y.size(); ++i) ASSERT_NEAR(y[i], expected[i], 1e-12 * order) << order;
        }
}

// ---- chols8, solvs8

TEST(Chols8, FactorisesLikeLapack) {
    std::mt19937 generator(3);
    for (const std::int64_t n : {1, 2, 5, 30}) {
        matrix<double> a = test::random_definite(n, generator), reference = a;
        ASSERT_EQ(lapack_dpotrf(reference.view()), 0);
        chols8(a.view());
        for (std::int64_t j = 0; j < n; ++j)
            for (std::int64_t i = 0; i < n; ++i) EXPECT_NEAR(a(i, j), i < j ? 0.0 : reference(i, j), 1e-13);
    }
}

TEST(Chols8, HasTheSameResultForAnyStride) {
    std::mt19937 generator(4);
    constexpr std::int64_t n = 9, stride = 3, ld = 40;
    matrix<double> a = test::random_definite(n, generator);
    for (std::int64_t i = 0; i < n; ++i) a(i, 4) = a(4, i) = 0.0;
    std::vector<double> wide(n * ld, -7.0);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j) wide[i * stride + j * ld] = a(i, j);
    chols8(a.view());
    chols8(wide.data(), n, stride, ld);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j) EXPECT_EQ(wide[i * stride + j * ld], a(i, j));
    EXPECT_EQ(wide[1], -7.0);
}

TEST(Chols8, DropsSmallDiagonalsAndDependentRows) {
    matrix<double> a(4, 4);
    const double values[4][4] = {{4, 2, 1, 2}, {2, 1, 0, 1}, {1, 0, 0.9e-8, 0}, {2, 1, 0, 2}};
    for (std::int64_t i = 0; i < 4; ++i)
        for (std::int64_t j = 0; j < 4; ++j) a(i, j) = values[i][j];
    chols8(a.view());
    for (std::int64_t i = 0; i < 4; ++i) {
        EXPECT_EQ(a(1, i), 0.0);  // half of the first row
        EXPECT_EQ(a(i, 1), 0.0);
        EXPECT_EQ(a(2, i), 0.0);  // below the smallest diagonal
        EXPECT_EQ(a(i, 2), 0.0);
    }
    EXPECT_EQ(a(0, 0), 2.0);
    EXPECT_EQ(a(3, 0), 1.0);
    EXPECT_EQ(a(3, 3), 1.0);
}

TEST(Chols8, KeepsADiagonalAtTheLimit) {
    matrix<double> a(1, 1, 1e-8);
    chols8(a.view());
    EXPECT_DOUBLE_EQ(a(0, 0), 1e-4);
}

TEST(Solvs8, SolvesAndLeavesDroppedEquationsZero) {
    std::mt19937 generator(6);
    constexpr std::int64_t n = 12;
    matrix<double> a = test::random_definite(n, generator);
    for (std::int64_t i = 0; i < n; ++i) a(i, 7) = a(7, i) = 0.0;
    const matrix<double> inverted = test::inverse(a);
    std::vector<double> x(n), y(n, 9.0);
    for (std::int64_t i = 0; i < n; ++i) x[i] = static_cast<double>(i) - 3.5;
    chols8(a.view());
    solvs8(a.view(), y, x);
    for (std::int64_t i = 0; i < n; ++i) {
        double expected = 0.0;
        for (std::int64_t j = 0; j < n; ++j) expected += inverted(i, j) * x[j];
        EXPECT_NEAR(y[i], expected, 1e-12);
    }
    EXPECT_EQ(y[7], 0.0);
}

// ---- files

TEST(Printprecondiag, WritesTheDiagonalsBeforeAndAfterTheInversion) {
    const test::temporary_directory directory;
    model_case model(1,
                     {{.nlevel = 2},
                      {.nlevel = 2, .shares = 1},
                      {.nlevel = 2},
                      {.nlevel = 1},
                      {.nlevel = 2, .random = 1, .ncorrelated = 1},
                      {.nlevel = 2, .random = 1},
                      {.nlevel = 2}},
                     2, 6);
    // One record at the levels 1 of effects 1, 5 and 6, one at level 2 of effect 1 and level 1 of effect 7.
    model.data.effect = matrix<std::int32_t>(8, 2);
    for (std::int32_t e : {1, 5, 6}) model.data.effect(e - 1, 0) = 1;
    model.data.effect(0, 1) = 2;
    model.data.effect(6, 1) = 1;
    model.data.effect(7, 0) = model.data.effect(7, 1) = 1;
    model.data.combitrait = {1, 1};
    model.rinv.values = {4.0, 4.0};
    model.groups[0].ginv(0, 0) = model.groups[0].ginv(1, 1) = 1.0;
    model.groups[0].ginv(0, 1) = model.groups[0].ginv(1, 0) = 0.0;
    test::set_letters(model.param, "NNsuNNb");
    model.param.outputdir = directory.path().string();
    model.param.printprecond = true;
    model.data.effect(2, 0) = 1;
    model.data.effect(3, 0) = 1;

    static_cast<void>(create_mija_lhs(model.input(), model.log));

    EXPECT_EQ(directory.read("diagprec.dat"),
              "Effect 1: diagonal\n1 4.00000000\n2 4.00000000\nEffect 2: equations of effect 1\n"
              "Effect 3: sparse matrix\nEffect 4: in the group of effect 3\n"
              "Effect 5: diagonal of the blocks\n6 5.00000000\n8 5.00000000\n7 1.00000000\n9 1.00000000\n"
              "Effect 6: in the group of effect 5\nEffect 7: diagonal of the blocks\n10 4.00000000\n"
              "11 0.00000000\n");
    EXPECT_EQ(directory.read("crs_3"),
              "1 1 4.0004000000000000\n1 3 4.0000000000000000\n2 2 0.0000000000000000\n"
              "3 3 4.0004000000000000\n");
    // The block [5 4; 4 5] has the inverse [5 -4; -4 5] / 9.
    EXPECT_EQ(directory.read("invdiagprec.dat"),
              "Effect 1: diagonal\n1 0.250000000\n2 0.250000000\nEffect 2: equations of effect 1\n"
              "Effect 3: sparse matrix\nEffect 4: in the group of effect 3\n"
              "Effect 5: diagonal of the blocks\n6 0.555555582\n8 0.555555582\n7 1.00000000\n9 1.00000000\n"
              "Effect 6: in the group of effect 5\nEffect 7: diagonal of the blocks\n10 0.250000000\n"
              "11 0.00000000\n");
}

TEST(Printprecondiag, WritesBothFilesForADiagonalOnly) {
    const test::temporary_directory directory;
    model_case model(1, {{.nlevel = 2}});
    model.param.outputdir = directory.path().string();
    static_cast<void>(create_mija_lhs(model.input(), model.log));
    EXPECT_FALSE(directory.exists("diagprec.dat"));
    model.param.printprecond = true;
    static_cast<void>(create_mija_lhs(model.input(), model.log));
    EXPECT_TRUE(directory.exists("diagprec.dat"));
    EXPECT_TRUE(directory.exists("invdiagprec.dat"));
}

TEST(Printprecondiag, TellsWhenTheFileCannotBeWritten) {
    const test::temporary_directory directory;
    model_case model(1, {{.nlevel = 2}});
    model.param.outputdir = (directory / "missing").string();
    model.param.printprecond = true;
    EXPECT_THAT(fatal_message([&] { static_cast<void>(create_mija_lhs(model.input(), model.log)); }),
                HasSubstr("missing/diagprec.dat cannot be written"));
}

}  // namespace
}  // namespace zendar
