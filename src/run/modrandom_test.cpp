#include "modrandom.hpp"

#include <gmock/gmock.h>

#include <vector>

namespace zendar {
namespace {

using testing::ElementsAre;

TEST(BernoulliStream, HasThePublishedStates) {
    bernoulli_stream stream(1);
    std::vector<std::uint64_t> states;
    for (int k = 0; k < 6; ++k) {
        states.push_back(stream.state());
        stream.next(0.5);
    }
    EXPECT_THAT(states, ElementsAre(1, 1132489760, 826537482, 289798557, 480863449, 1381340036));
    for (int k = 6; k < 10'000; ++k) stream.next(0.5);
    EXPECT_EQ(stream.state(), 1364068467U);
}

TEST(BernoulliStream, GivesOneBelowTheProbability) {
    bernoulli_stream stream(1);
    std::vector<std::int32_t> values;
    for (int k = 0; k < 10; ++k) values.push_back(stream.next(0.5));
    EXPECT_THAT(values, ElementsAre(1, 0, 1, 1, 1, 0, 0, 0, 0, 1));
}

TEST(BernoulliStream, TakesTheSeedModuloItsPeriod) {
    EXPECT_EQ(bernoulli_stream(0).state(), 1U);
    EXPECT_EQ(bernoulli_stream(2'147'483'647U).state(), 1U);
    EXPECT_EQ(bernoulli_stream(2'147'483'649U).state(), 2U);
}

TEST(BernoulliStream, IsCertainAtTheEnds) {
    bernoulli_stream stream(7);
    for (int k = 0; k < 1000; ++k) {
        EXPECT_EQ(stream.next(0.0), 0);
        EXPECT_EQ(stream.next(1.0), 1);
    }
}

}  // namespace
}  // namespace zendar
