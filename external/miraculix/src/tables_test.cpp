#include "tables.hpp"

#include <gmock/gmock.h>

namespace {

using namespace miraculix;
using testing::ElementsAre;

TEST(Plink2Five, IsTheBaseThreeNumberOfFiveCodesFirstGenotypeLowest) {
    EXPECT_EQ(PLINK2FIVE()[0b00'00'00'00'00], 0);
    EXPECT_EQ(PLINK2FIVE()[0b00'00'00'00'10], 1);
    EXPECT_EQ(PLINK2FIVE()[0b00'00'00'00'11], 2);
    EXPECT_EQ(PLINK2FIVE()[0b00'00'00'10'00], 3);
    EXPECT_EQ(PLINK2FIVE()[0b10'00'00'00'00], 81);
    EXPECT_EQ(PLINK2FIVE()[0b11'10'00'11'10], 1 + 2 * 3 + 0 * 9 + 1 * 27 + 2 * 81);
    EXPECT_EQ(PLINK2FIVE()[0b11'11'11'11'11], 242);
}

TEST(Plink2Five, CountsAMissingGenotypeAsNull) {
    EXPECT_EQ(PLINK2FIVE()[0b01'01'01'01'01], 0);
    EXPECT_EQ(PLINK2FIVE()[0b11'01'10'01'11], 2 + 1 * 9 + 2 * 81);
}

TEST(Plink2Five, HoldsNoValueAbove242) {
    for (std::int32_t codes = 0; codes < five_plink_codes; ++codes) {
        std::int32_t expected = 0, power = 1;
        for (std::int32_t k = 0; k < 5; ++k, power *= 3) {
            const std::int32_t code = (codes / (1 << (2 * k))) % 4;
            expected += power * (code < 2 ? 0 : code - 1);
        }
        ASSERT_EQ(PLINK2FIVE()[codes], expected) << codes;
        ASSERT_LT(PLINK2FIVE()[codes], 243) << codes;
    }
}

TEST(CodingTable5, HoldsTheDigitsOfEachByte) {
    EXPECT_THAT(CODING_TABLE5()[0], ElementsAre(0, 0, 0, 0, 0));
    EXPECT_THAT(CODING_TABLE5()[5], ElementsAre(2, 1, 0, 0, 0));
    EXPECT_THAT(CODING_TABLE5()[100], ElementsAre(1, 0, 2, 0, 1));
    EXPECT_THAT(CODING_TABLE5()[242], ElementsAre(2, 2, 2, 2, 2));
    for (std::int32_t byte = 0; byte < five_code_values; ++byte) {
        const auto& g = CODING_TABLE5()[byte];
        ASSERT_EQ(g[0] + 3 * g[1] + 9 * g[2] + 27 * g[3] + 81 * g[4], byte);
    }
}

TEST(AlleleSum, IsTheSumOfTheDigits) {
    EXPECT_EQ(ALLELESUM()[0], 0);
    EXPECT_EQ(ALLELESUM()[100], 4);
    EXPECT_EQ(ALLELESUM()[242], 10);
    for (std::int32_t byte = 0; byte < five_code_values; ++byte)
        ASSERT_EQ(ALLELESUM()[byte], byte % 3 + byte / 3 % 3 + byte / 9 % 3 + byte / 27 % 3 + byte / 81)
            << byte;
}

TEST(PlinkDigits, GiveFourFiveCodeBytesAsTheSumOverFiveRows) {
    const std::uint32_t rows[5] = {0b00'11'01'10, 0b11'11'10'10, 0b10'00'00'00, 0b11'01'11'10, 0b01'11'10'11};

    std::uint32_t sum = 0;
    for (std::int32_t k = 0; k < 5; ++k) sum += PLINK_DIGITS()[k][rows[k]];

    EXPECT_EQ(sum & 255, PLINK2FIVE()[0b11'10'00'10'10]);
    EXPECT_EQ(sum >> 8 & 255, PLINK2FIVE()[0b10'11'00'10'01]);
    EXPECT_EQ(sum >> 16 & 255, PLINK2FIVE()[0b11'01'00'11'11]);
    EXPECT_EQ(sum >> 24, PLINK2FIVE()[0b01'11'10'11'00]);
}

}  // namespace
