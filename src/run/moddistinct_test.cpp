#include "moddistinct.hpp"

#include <gtest/gtest.h>

namespace zendar::test {
namespace {

TEST(DistinctCount, IsNearTheNumberOfDifferentKeysHoweverOftenTheyCome) {
    EXPECT_EQ(distinct_count{}.estimate(), 0.0);
    for (const std::uint64_t step : {std::uint64_t{1}, std::uint64_t{1} << 32, std::uint64_t{0x100000001}})
        for (const std::uint64_t n : {1U, 10U, 1000U, 20000U, 50000U, 1000000U}) {
            distinct_count seen;
            for (int round = 0; round < 3; ++round)
                for (std::uint64_t k = 0; k < n; ++k) seen.add(k * step);
            const auto exact = static_cast<double>(n);
            EXPECT_NEAR(seen.estimate(), exact, 0.03 * exact) << n << " keys, " << step << " apart";
        }
}

}  // namespace
}  // namespace zendar::test
