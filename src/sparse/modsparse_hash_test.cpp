#include "modsparse_hash.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <sstream>
#include <vector>

namespace zendar::test {
namespace {

struct probes {
    std::int32_t row, col;
    std::int64_t nel;
    std::array<std::int64_t, 3> slots;
};

constexpr probes pairs[] = {
    {1, 1, 128, {82, 64, 100}},
    {1, 2, 128, {35, 25, 62}},
    {2, 1, 128, {71, 44, 41}},
    {3, 7, 1024, {998, 101, 429}},
    {100, 100, 128, {116, 73, 92}},
    {123456, 654321, 1048576, {785037, 473145, 6941}},
    {2147483647, 1, 4194304, {50226, 1878464, 1880157}},
};
constexpr probes keys[] = {
    {1, 0, 128, {70, 97, 6}},
    {77, 0, 1024, {250, 861, 937}},
    {2000000000, 0, 1048576, {920562, 29731, 481783}},
};

/// Fills the slots that a key meets one after the other with a foreign key.
TEST(HashfArray, FollowsTheProbeSequenceOfAPair) {
    for (const probes& p : pairs) {
        SCOPED_TRACE(p.row);
        std::vector<coo_slot> slots(static_cast<std::size_t>(p.nel), coo_slot{0, 0, 0.0});
        std::int64_t filled = 0;
        for (const std::int64_t expected : p.slots) {
            EXPECT_EQ(hashf_array(p.row, p.col, slots, filled, false, nullptr), expected);
            EXPECT_EQ(hashf_array(p.row, p.col, slots, filled, true, nullptr), expected);
            EXPECT_EQ(hashf_array_getval(p.row, p.col, slots), expected);
            EXPECT_EQ(slots[expected - 1].row, p.row);
            EXPECT_EQ(slots[expected - 1].col, p.col);
            slots[expected - 1] = {5, 6, 1.0};
        }
        EXPECT_EQ(filled, 3);
        EXPECT_EQ(hashf_array_getval(p.row, p.col, slots), 0);
    }
}

TEST(HashfVect, FollowsTheProbeSequenceOfAKey) {
    for (const probes& p : keys) {
        SCOPED_TRACE(p.row);
        std::vector<std::int32_t> slots(static_cast<std::size_t>(p.nel), 0);
        std::int64_t filled = 0;
        for (const std::int64_t expected : p.slots) {
            EXPECT_EQ(hashf_vect(p.row, slots, filled, true, nullptr), 0);
            EXPECT_EQ(hashf_vect(p.row, slots, filled, false, nullptr), expected);
            EXPECT_EQ(hashf_vect(p.row, slots, filled, true, nullptr), expected);
            slots[expected - 1] = 9;
        }
        EXPECT_EQ(filled, 3);
    }
}

TEST(HashfArray, TakesASlotWithHalfAZeroKeyAsFree) {
    std::vector<coo_slot> slots(128, coo_slot{0, 0, 0.0});
    slots[82 - 1] = {0, 4, 0.0};
    std::int64_t filled = 0;

    EXPECT_EQ(hashf_array(1, 1, slots, filled, true, nullptr), 0);
    EXPECT_EQ(hashf_array(1, 1, slots, filled, false, nullptr), 82);

    slots[82 - 1] = {4, 0, 0.0};
    EXPECT_EQ(hashf_array(1, 1, slots, filled, false, nullptr), 82);
    EXPECT_EQ(filled, 2);
}

TEST(HashfArray, WarnsAfterFiveThousandProbesAndGivesMinusOne) {
    std::vector<coo_slot> slots(128, coo_slot{5, 6, 1.0});
    std::ostringstream out;
    logger log;
    log.add_stream(out);
    std::int64_t filled = 128;

    EXPECT_EQ(hashf_array(1, 1, slots, filled, false, &log), -1);

    EXPECT_EQ(out.str(), " Warning: the maximum number of searches was reached!\n");
    EXPECT_EQ(filled, 128);
    out.str("");
    EXPECT_EQ(hashf_array_getval(1, 1, slots), -1);
    EXPECT_EQ(out.str(), "");
}

TEST(HashfVect, WarnsAfterFiveThousandProbes) {
    std::vector<std::int32_t> slots(8, 3);
    std::ostringstream out;
    logger log;
    log.add_stream(out);
    std::int64_t filled = 8;

    EXPECT_EQ(hashf_vect(4, slots, filled, false, &log), -1);

    EXPECT_EQ(out.str(), " Warning: the maximum number of searches was reached!\n");
}

TEST(HashfArray, FindsNothingInATableWithoutSlots) {
    std::int64_t filled = 0;

    EXPECT_EQ(hashf_array(1, 1, {}, filled, false, nullptr), -1);
    EXPECT_EQ(hashf_array_getval(1, 1, {}), -1);
}

TEST(Rot, ShiftsTheSixtyFourBitWordByThirtyTwoMinusK) {
    EXPECT_EQ(rot(1, 4), 16U);
    EXPECT_EQ(rot(std::uint64_t{1} << 28, 4), (std::uint64_t{1} << 32) | 1U);
    EXPECT_EQ(rot(std::uint64_t{1} << 40, 4), (std::uint64_t{1} << 44) | (std::uint64_t{1} << 12));
}

TEST(Roundinguppower2, GivesTheNextPowerOfTwo) {
    EXPECT_EQ(roundinguppower2(1), 1);
    EXPECT_EQ(roundinguppower2(2), 2);
    EXPECT_EQ(roundinguppower2(3), 4);
    EXPECT_EQ(roundinguppower2(100), 128);
    EXPECT_EQ(roundinguppower2(128), 128);
    EXPECT_EQ(roundinguppower2(129), 256);
    EXPECT_EQ(roundinguppower2(192), 256);
    EXPECT_EQ(roundinguppower2(std::int64_t{3} << 29), std::int64_t{1} << 31);
}

TEST(Roundinguppower2, RoundsSomePowersUpAsDoublePrecisionDoes) {
    EXPECT_EQ(roundinguppower2(std::int64_t{1} << 28), std::int64_t{1} << 28);
    EXPECT_EQ(roundinguppower2(std::int64_t{1} << 29), std::int64_t{1} << 30);  // log(2^29) / log(2) > 29
}

TEST(Roundinguppower2, GivesOneForWhatHasNoLogarithm) {
    EXPECT_EQ(roundinguppower2(0), 1);
    EXPECT_EQ(roundinguppower2(-5), 1);
}

}  // namespace
}  // namespace zendar::test
