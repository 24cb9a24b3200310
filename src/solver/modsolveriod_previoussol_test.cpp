#include <gmock/gmock.h>

#include <cmath>

#include "modbasic.hpp"
#include "modgeneral.hpp"
#include "modsolveriod.hpp"
#include "modsolveriod_test_support.hpp"

namespace zendar {
namespace {

using testing::HasSubstr;

class ComputeStatsPreviousSol : public testing::Test {
  protected:
    void save(const std::vector<double>& previous) { write_raw_stream(previous, "ca491pcn.bin", log_); }
    std::string compare(const std::vector<double>& x, const std::vector<equation_range>& groups = {}) {
        computestatsprevioussol(param_, 100, x, groups, log_);
        return place_.directory.read("stats_previous_sol.dat");
    }

    test::solver_place place_;
    test::captured_log log_;
    param_type param_;
};

TEST_F(ComputeStatsPreviousSol, WritesTheStatisticsOfAllEquationsAndOfTheGroups) {
    save({1.0, 2.0, 3.0, 4.0});
    // All: a = 1 2 3 4, c = 2 4 6 4: n sum(ac) - sum a sum c = 4 * 44 - 10 * 16 = 16; a: 4 * 30 - 100 = 20,
    // c: 4 * 72 - 256 = 32. Group 2 to 3: a = 2 3, c = 4 6: slope 2, no intercept, mse (4 + 9) / 2.
    EXPECT_EQ(compare({2.0, 4.0, 6.0, 4.0}, {{2, 3}}),
              "Iteration 100 = " + realtochar(16.0 / std::sqrt(20.0 * 32.0), "(g0.5)") + " " +
                  realtochar(1.0, "(g0.5)") + " " + realtochar(0.8, "(g0.5)") + " " +
                  realtochar(2.0, "(g0.5)") + " " + realtochar(2.0, "(g0.5)") + " " +
                  realtochar(0.0, "(g0.5)") + " " + realtochar(3.5, "(g0.5)") + " " +
                  realtochar(6.5, "(g0.5)") + " " + realtochar(3.0, "(g0.5)") + " " +
                  realtochar(3.0, "(g0.5)") + " " + realtochar(50.0, "(g0.5)") + " " +
                  realtochar(50.0, "(g0.5)") + " \n");
    EXPECT_EQ(log_.text(), "");
}

TEST_F(ComputeStatsPreviousSol, AddsALineACall) {
    save({1.0, 2.0, 3.0});
    const std::string one = compare({1.0, 2.0, 4.0});
    EXPECT_EQ(compare({1.0, 2.0, 4.0}), one + one);
}

TEST_F(ComputeStatsPreviousSol, HasNoRegressionOnZeros) {
    save({0.0, 0.0});
    EXPECT_EQ(compare({1.0, 2.0}), "Iteration 100 = NaN NaN NaN 2.5000 2.0000 100.00 \n");
}

TEST_F(ComputeStatsPreviousSol, ReadsLongVectorsWhole) {
    std::vector<double> previous(20001), x(20001);
    for (std::size_t i = 0; i < x.size(); ++i) {
        previous[i] = std::sin(static_cast<double>(i));
        x[i] = 2.0 * previous[i] + 1.0;
    }
    save(previous);
    EXPECT_THAT(compare(x, {{20000, 20001}}),
                testing::StartsWith("Iteration 100 = 1.0000 1.0000 2.0000 2.0000 "));
}

TEST_F(ComputeStatsPreviousSol, SaysNothingWithoutAFile) {
    EXPECT_EQ(compare({1.0}), "");
    EXPECT_EQ(log_.text(), "");
}

TEST_F(ComputeStatsPreviousSol, WarnsOfAFileOfAnotherModel) {
    for (const std::string& content :
         {std::string(), std::string("x"), std::string(15, 'x'), std::string(24, 'x')}) {
        place_.directory.write("ca491pcn.bin", content);
        EXPECT_EQ(compare({1.0, 2.0}), "");
        EXPECT_THAT(
            log_.text(),
            HasSubstr("WARN: The file ca491pcn.bin holds no previous solutions of this model: it has " +
                      std::to_string(content.size()) + " bytes instead of 16\n"));
    }
}

TEST_F(ComputeStatsPreviousSol, WarnsOfAFileThatCannotBeOpened) {
    std::filesystem::create_directory("ca491pcn.bin");
    EXPECT_EQ(compare({1.0, 2.0}), "");
    EXPECT_THAT(log_.text(),
                HasSubstr("WARN: The file ca491pcn.bin holds no previous solutions of this model: "));
}

TEST_F(ComputeStatsPreviousSol, BearsAnyContentOfTheRightLength) {
    place_.directory.write("ca491pcn.bin", std::string(16, '\xff'));  // no numbers
    EXPECT_EQ(compare({1.0, 2.0}), "Iteration 100 = NaN NaN NaN NaN NaN NaN \n");
}

}  // namespace
}  // namespace zendar
