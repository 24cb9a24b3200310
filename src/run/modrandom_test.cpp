#include "modrandom.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
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

TEST(NormalStream, RepeatsItselfForASeed) {
    normal_stream one, two(1), other(2);
    std::vector<double> first;
    for (int k = 0; k < 101; ++k) first.push_back(one.rand_stdnormal());
    for (const double value : first) EXPECT_EQ(two.rand_stdnormal(), value);
    EXPECT_NE(other.rand_stdnormal(), first[0]);

    one.setseed(1);  // also forgets the second deviate of a pair
    for (const double value : first) EXPECT_EQ(one.rand_stdnormal(), value);
}

TEST(NormalStream, HasTheMomentsAndTailsOfTheStandardNormal) {
    normal_stream stream(5);
    constexpr int n = 1'000'000;
    double sum = 0.0, square = 0.0, cube = 0.0, fourth = 0.0, lag = 0.0, before = 0.0;
    int beyond_one = 0, beyond_two = 0;
    for (int k = 0; k < n; ++k) {
        const double x = stream.rand_stdnormal();
        ASSERT_TRUE(std::isfinite(x));
        sum += x, square += x * x, cube += x * x * x, fourth += x * x * x * x, lag += x * before;
        beyond_one += std::fabs(x) > 1.0 ? 1 : 0;
        beyond_two += std::fabs(x) > 2.0 ? 1 : 0;
        before = x;
    }

    // Five standard errors each.
    const double unit = 5.0 / std::sqrt(static_cast<double>(n));
    EXPECT_NEAR(sum / n, 0.0, unit);
    EXPECT_NEAR(square / n, 1.0, unit * std::sqrt(2.0));
    EXPECT_NEAR(cube / n, 0.0, unit * std::sqrt(15.0));
    EXPECT_NEAR(fourth / n, 3.0, unit * std::sqrt(96.0));
    EXPECT_NEAR(lag / n, 0.0, unit);
    EXPECT_NEAR(beyond_one / static_cast<double>(n), std::erfc(1.0 / std::sqrt(2.0)), unit * 0.47);
    EXPECT_NEAR(beyond_two / static_cast<double>(n), std::erfc(2.0 / std::sqrt(2.0)), unit * 0.21);
}

}  // namespace
}  // namespace zendar
