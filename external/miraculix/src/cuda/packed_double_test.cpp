#include "cuda/packed_double.hpp"

#include <gtest/gtest.h>

namespace {

using namespace miraculix::gpu;

constexpr double value_by_code[4] = {0.0, 0.0, 1.0, 2.0};

TEST(PackedDouble, TakesACodeByThePlainRule) {
    for (unsigned code = 0; code < 4; ++code) EXPECT_EQ(value_of_code(code), value_by_code[code]);
}

TEST(PackedDouble, PermutesBytesAsTheInstructionDoes) {
    EXPECT_EQ(permute_bytes(0x33221100, 0x77665544, 0x7531), 0x77553311U);
    EXPECT_EQ(permute_bytes(0x33221100, 0x77665544, 0xABCD0246), 0x00224466U);  // the lower 16 bits only
    EXPECT_EQ(permute_bytes(0x00008000, 0x00000000, 0x8999), 0x00FFFFFFU);      // 8 to 15: the sign
}

/// Every content of eight codes, in either half, with all that can stand in the other one.
TEST(PackedDouble, DecodesEveryWord) {
    for (std::uint32_t codes = 0; codes < 1U << 16; ++codes)
        for (const std::uint32_t other : {0x0000U, 0xFFFFU, 0x5AC3U})
            for (int half = 0; half < 2; ++half) {
                const std::uint32_t word = half == 0 ? other << 16 | codes : codes << 16 | other;
                const spread_codes spreaded = spread(word, half);
                for (int i = 0; i < 8; ++i)
                    ASSERT_EQ(value_of(spreaded, i), value_by_code[codes >> 2 * i & 3])
                        << std::hex << word << ", half " << half << ", code " << i;
            }
}

}  // namespace
