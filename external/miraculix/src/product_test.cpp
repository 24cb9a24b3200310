#include "product.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>

#include "genotype_sample.hpp"
#include "modfatal.hpp"
#include "product_check.hpp"
#include "reports.hpp"

namespace {

using namespace miraculix;
using miraculix::test::expect_product;
using miraculix::test::genotype_sample;
using miraculix::test::random_values;
using testing::HasSubstr;

/// All members of the family that run here, by name.
std::vector<std::pair<std::string, any_genovector5_member>> members_here() {
    std::vector<std::pair<std::string, any_genovector5_member>> members;
    for (const genovector5_member<double>* member : genovector5_members())
        if (processor_has(member->bits)) members.emplace_back(member->name, std::cref(*member));
    members.emplace_back(genoVector5v32_longD.name, std::cref(genoVector5v32_longD));
    return members;
}

class GenoVector5 : public testing::TestWithParam<std::int32_t> {};

TEST_P(GenoVector5, AgreesWithTheDenseProductForAllSmallSizes) {
    const std::int32_t cores = GetParam();
    for (const auto& [name, member] : members_here())
        for (std::int64_t size = 1; size <= 70; ++size) {
            const std::int64_t other = 1 + (size * 37) % 70, n = 1 + size % 11;
            const genotype_sample g(size, other, static_cast<std::uint64_t>(size));
            ASSERT_NO_FATAL_FAILURE(expect_product(g, name, member, n, size % 3, cores));
        }
}

TEST_P(GenoVector5, AgreesWithTheDenseProductForOneToFortyColumns) {
    const genotype_sample g(43, 58, 5);
    for (const auto& [name, member] : members_here())
        for (std::int64_t n = 1; n <= 40; ++n)
            ASSERT_NO_FATAL_FAILURE(expect_product(g, name, member, n, n % 2, GetParam()));
}

TEST_P(GenoVector5, AgreesWithTheDenseProductWhereItIsCut) {
    const genotype_sample wide(10'300, 41, 6), high(61, 4'500, 7);
    for (const auto& [name, member] : members_here()) {
        ASSERT_NO_FATAL_FAILURE(expect_product(wide, name, member, 3, 1, GetParam()));
        ASSERT_NO_FATAL_FAILURE(expect_product(high, name, member, 5, 0, GetParam()));
    }
}

INSTANTIATE_TEST_SUITE_P(Threads, GenoVector5, testing::Values(1, 2, 3, 4));

TEST(GenoVector5, GivesTheNumbersDoneByHand) {
    // Two SNPs on three individuals: values 2 1 0 and 0 (missing) 2 1; frequencies 0.5 and 0.25.
    genotype_sample g(2, 3, 1);
    g.codes = {3, 2, 0, 1, 3, 2};
    const double freq[2] = {0.5, 0.25}, b[3] = {1, 10, 100}, a[2] = {3, 4};
    const auto store = plinkToSxI(g.plink().data(), 2, 3, freq, 1);
    for (const auto& [name, member] : members_here()) {
        double c[3];
        genoVector5api(member, *store, 1, b, 3, c, 2, true, 1);
        EXPECT_EQ(c[0], 12 - 111) << name;
        EXPECT_EQ(c[1], 120 - 0.5 * 111) << name;
        genoVector5api(member, *store, 1, b, 3, c, 2, false, 1);
        EXPECT_EQ(c[0], 12) << name;
        EXPECT_EQ(c[1], 120) << name;
        vectorGeno_means_double(member, *store, 1, a, 2, c, 3, true, 1);
        EXPECT_EQ(c[0], 6 - 5) << name;
        EXPECT_EQ(c[1], 11 - 5) << name;
        EXPECT_EQ(c[2], 4 - 5) << name;
    }
}

TEST(GenoVector5, DoesNotLookAtBitsBehindTheLastIndividual) {
    for (const std::int64_t individuals : {1, 2, 3, 5, 6, 7, 21, 23, 62}) {
        const genotype_sample g(9, individuals, 8);
        const std::vector<double> freq(9, 0.3), b = random_values(individuals * 2, 9);
        std::vector<double> c[2] = {std::vector<double>(18), std::vector<double>(18)};
        for (int garbage = 0; garbage < 2; ++garbage) {
            const std::vector<std::uint8_t> plink = g.plink(garbage == 0 ? 0x00 : 0xff);
            const auto store =
                plinkToSxI(plink.data(), 9, static_cast<std::int32_t>(individuals), freq.data(), 1);
            genoVector5api(select_genovector5(0), *store, 2, b.data(), individuals, c[garbage].data(), 9,
                           true, 1);
        }
        EXPECT_EQ(c[0], c[1]) << individuals;
    }
}

TEST(GenoVector5, IsTheSameForAnyNumberOfThreads) {
    const genotype_sample g(1'500, 2'300, 10);
    const std::vector<double> freq(1'500, 0.3), b = random_values(2'300 * 6, 9);
    const auto store = plinkToSxI(g.plink().data(), 1'500, 2'300, freq.data(), 2);
    std::vector<double> one(1'500 * 6), many(one);
    genoVector5api(select_genovector5(0), *store, 6, b.data(), 2'300, one.data(), 1'500, true, 1);
    const double largest = std::abs(*std::ranges::max_element(one, {}, [](double x) { return std::abs(x); }));
    for (const std::int32_t cores : {2, 3, 7, 16, 64}) {
        genoVector5api(select_genovector5(0), *store, 6, b.data(), 2'300, many.data(), 1'500, true, cores);
        for (std::size_t i = 0; i < one.size(); ++i) ASSERT_NEAR(one[i], many[i], 1e-13 * largest) << cores;
    }
}

TEST(GenoVector5, HoldsOnRandomShapes) {
    std::mt19937_64 random(20);
    const auto members = members_here();
    for (int round = 0; round < 60; ++round) {
        const auto snps = static_cast<std::int64_t>(1 + random() % 400);
        const auto individuals = static_cast<std::int64_t>(1 + random() % 400);
        const auto n = static_cast<std::int64_t>(1 + random() % 13);
        const auto& [name, member] = members[random() % members.size()];
        const genotype_sample g(snps, individuals, random());
        ASSERT_NO_FATAL_FAILURE(expect_product(g, name, member, n, static_cast<std::int64_t>(random() % 9),
                                               static_cast<std::int32_t>(1 + random() % 5)))
            << "round " << round;
    }
}

TEST(SelectGenoVector5, TakesTheWidestMemberOfTheProcessor) {
    const std::string bits = processor_has(512) ? "512" : processor_has(256) ? "256" : "128";
    const auto name = [](std::int32_t precision) {
        return std::visit([](const auto& member) { return std::string(member.get().name); },
                          select_genovector5(precision));
    };

    EXPECT_EQ(name(0), "genoVector5v" + bits + "_double");
    EXPECT_EQ(name(1), "genoVector5v" + bits + "_floatD");
    EXPECT_EQ(name(-1), "genoVector5v32_longD");
    RecordProperty("kernel", name(0));
}

TEST(SelectGenoVector5, KnowsAllMembersAndThatEachHasAKernelForOneColumn) {
    std::vector<std::string> names;
    for (const genovector5_member<double>* member : genovector5_members()) {
        names.emplace_back(member->name);
        EXPECT_NE(member->kernels[0], nullptr) << member->name;
    }
    EXPECT_THAT(names, testing::ElementsAre("genoVector5v32_double", "genoVector5v128_double",
                                            "genoVector5v256_double", "genoVector5v512_double",
                                            "genoVector5v32_floatD", "genoVector5v128_floatD",
                                            "genoVector5v256_floatD", "genoVector5v512_floatD"));
}

TEST(PlanProduct, CoversAllRowsAndColumnsOnceInTasksForAllThreads) {
    for (const std::int64_t nrow : {1, 7, 8, 40, 4'000, 1'000'000})
        for (const std::int64_t ncol :
             {1, 8, 63, 64, 65, 2'047, 2'048, 4'096, 10'240, 10'241, 20'000, 1'000'000})
            for (const std::int32_t cores : {1, 2, 3, 4, 7, 16, 64}) {
                const product_plan plan = plan_product(nrow, ncol, cores);
                ASSERT_GE(plan.nblock * plan.width, ncol);
                ASSERT_LT((plan.nblock - 1) * plan.width, ncol);
                ASSERT_GE(plan.npart * plan.rows, nrow);
                ASSERT_LT((plan.npart - 1) * plan.rows, nrow);
                ASSERT_EQ(plan.width % 8, 0);
                ASSERT_LE(plan.width, 10'240);
                if (nrow >= 4'000) {
                    ASSERT_GE(plan.nblock * plan.npart, cores) << nrow << " " << ncol;
                }
            }
}

std::string message_of(const auto& action) {
    testing::internal::CaptureStderr();
    std::string message;
    try {
        action();
    } catch (const zendar::fatal_error& error) {
        EXPECT_EQ(error.status(), 1);
        message = error.what();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), message.empty() ? "" : message + "\n");
    return message;
}

TEST(GvVg5Double, AssertsLeadingDimensionsThatHoldTheRows) {
    const genotype_sample g(6, 8, 1);
    const auto store = plinkToSxI(g.plink().data(), 6, 8, nullptr, 1);
    std::vector<double> b(32, 1.0), c(32);
    const auto product = [&](std::int64_t ldb, std::int64_t ldc) {
        return message_of(
            [&] { gV_vG5_double(select_genovector5(0), store->five, 2, b.data(), ldb, c.data(), ldc, 1); });
    };

    EXPECT_EQ(product(8, 6), "");
    EXPECT_THAT(product(7, 6),
                testing::MatchesRegex("'assert' failed in function 'gV_vG5_double' \\(product.cpp, "
                                      "line [0-9]+\\) Please inform the maintainer of the program."));
    EXPECT_THAT(product(8, 5), HasSubstr("'assert' failed in function 'gV_vG5_double' (product.cpp, line "));
}

TEST(VectorGenoMeansDouble, NeedsTheSecondOrientation) {
    const genotype_sample g(6, 8, 1);
    auto store = plinkToSxI(g.plink().data(), 6, 8, nullptr, 1);
    store->transposed.reset();
    std::vector<double> b(6, 1.0), c(8);

    EXPECT_THAT(message_of([&] {
                    vectorGeno_means_double(select_genovector5(0), *store, 1, b.data(), 6, c.data(), 8, true,
                                            1);
                }),
                HasSubstr("option 'addtransposed' must be true."));
}

TEST(Reports, CutLongNames) {
    const std::string message = message_of([] { severe_error(std::string(60, 'f'), std::string(300, 't')); });

    EXPECT_THAT(message,
                HasSubstr("function '" + std::string(50, 'f') + "' (file 'product_test.cpp', line "));
    EXPECT_TRUE(
        message.ends_with(")."
                          " " +
                          std::string(199, 't')))
        << message;
}

TEST(StopIfNotIntI, RefusesWhatDoesNotFitInto32Bits) {
    const auto stop = [](std::int64_t value) {
        return message_of([&] { stopIfNotIntI(value, "ldb", "dgemm_compressed"); });
    };

    EXPECT_EQ(stop(2147483647), "");
    EXPECT_EQ(stop(-2147483648), "");
    EXPECT_THAT(stop(2147483648), HasSubstr("ldb = 2147483648 does not fit into 32 bits."));
    EXPECT_THAT(stop(-2147483649), HasSubstr("ldb = -2147483649 does not fit into 32 bits."));
}

}  // namespace
