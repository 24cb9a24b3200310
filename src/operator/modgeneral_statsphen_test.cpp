#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "modgeneral.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

class Statsphen : public testing::Test {
  protected:
    Statsphen() {
        report_.configure({.max_width = 1000, .indent = false});
        report_.add_stream(text_);
        log_.add_stream(screen_);
    }
    /// `values` are records of `ntrait` phenotypes.
    void run(std::int32_t ntrait, const std::vector<double>& values, double rmissing = -9.0) {
        param_.ntrait = ntrait;
        const std::int64_t nrec = std::ssize(values) / ntrait;
        combitrait_.assign(static_cast<std::size_t>(nrec), 0);
        statsphen(param_, {values.data(), ntrait, nrec, ntrait}, combitrait_, rmissing, report_, log_);
    }

    param_type param_;
    std::vector<std::int32_t> combitrait_;
    std::ostringstream text_, screen_;
    logger report_, log_;
};

TEST_F(Statsphen, WritesTheReport) {
    // Trait 1: 1, 2, 3, 6: mean 3, squares 50 / 4 - 9 = 3.5. Trait 2: 10.5 and -2.5: mean 4, 58.25 - 16
    // = 42.25.
    run(3, {1, 10.5, -9, 2, -9, -9, 3, -2.5, -9, 6, -9, -9});

    EXPECT_EQ(text_.str(),
              "STATISTICS FOR PHENOTYPES\n"
              "\n"
              "Number of phenotypes: 4\n"
              "Number of traits    : 3\n"
              "Trait             Mean          SD         Min         Max       #obs   %obs\n"
              "Trait  1          3.00        1.87        1.00        6.00          4 100.00\n"
              "Trait  2          4.00        6.50       -2.50       10.50          2  50.00\n"
              "Trait  3    Warning : No record for this trait!\n"
              "Number of trait combinations: 2\n"
              "Combination                1: TT.\n"
              "Combination                2: T..\n");
    EXPECT_EQ(screen_.str(), "");
}

TEST_F(Statsphen, NumbersCombinationsByTheirFirstAppearance) {
    run(2, {-9, 1, 1, 1, 1, -9, 2, 2, -9, 3, -9, 4});

    EXPECT_THAT(combitrait_, ElementsAre(1, 2, 3, 2, 1, 1));
    EXPECT_EQ(param_.ncombination, 3);
    EXPECT_THAT(param_.combination, ElementsAre(2, 3, 1));
}

TEST_F(Statsphen, WarnsOfRecordsWithMissingTraitsOnly) {
    run(2, {1, 1, -9, -9, -9, -9});

    EXPECT_THAT(text_.str(), EndsWith("Combination                1: TT\n"
                                      "Combination                2: ..\n"
                                      "WARN: Some observations have only missing records\n"));
    EXPECT_THAT(combitrait_, ElementsAre(1, 2, 2));
    EXPECT_THAT(param_.combination, ElementsAre(3, 0));
}

TEST_F(Statsphen, GivesNoWarningWhenEveryRecordHasAnObservation) {
    run(2, {1, -9, -9, 1});
    EXPECT_THAT(text_.str(), Not(HasSubstr("Some observations")));
}

TEST_F(Statsphen, ComparesTheMissingValueExactly) {
    run(1, {-9, -9.0000001, -9.0000000000000018});
    EXPECT_THAT(combitrait_, ElementsAre(1, 2, 2));
}

TEST_F(Statsphen, TakesAnotherMissingValue) {
    run(1, {-9, -99}, -99.0);
    EXPECT_THAT(combitrait_, ElementsAre(1, 2));
    EXPECT_THAT(text_.str(),
                HasSubstr("Trait  1         -9.00        0.00       -9.00       -9.00          1  50.00\n"));
}

TEST_F(Statsphen, GivesNoStandardDeviationOfAConstantTrait) {
    run(1, {0.1, 0.1, 0.1, 0.1, 0.1, 0.1, 0.1, 0.1, 0.1, 0.1});  // the variance comes out as -1.7e-18
    EXPECT_THAT(text_.str(),
                HasSubstr("Trait  1          0.10        0.00        0.10        0.10         10 100.00\n"));
}

TEST_F(Statsphen, FillsFieldsThatAreTooNarrowWithAsterisks) {
    run(1, {12345678, 12345678});
    EXPECT_THAT(text_.str(),
                HasSubstr("Trait  1    **********        0.00  **********  **********          2 100.00\n"));
}

TEST_F(Statsphen, TellsSixtyFourTraitsApart) {
    std::vector<double> phen(64 * 2, -9.0);
    phen[63] = 1.0;
    phen[64] = 1.0;

    run(64, phen);

    EXPECT_EQ(param_.combination[0], std::numeric_limits<std::int64_t>::min());  // bit 63
    EXPECT_EQ(param_.combination[1], 1);
    EXPECT_THAT(text_.str(), HasSubstr("Combination                1: " + std::string(63, '.') + "T\n"));
    EXPECT_THAT(text_.str(), HasSubstr("Combination                2: T" + std::string(63, '.') + "\n"));
    EXPECT_THAT(text_.str(), HasSubstr("Trait 64          1.00        0.00"));
}

TEST_F(Statsphen, StopsWithMoreThanSixtyFourTraits) {
    EXPECT_THROW(run(65, std::vector<double>(65, 1.0)), fatal_error);
    EXPECT_THAT(screen_.str(), HasSubstr("up to 64 traits"));
    EXPECT_EQ(text_.str(), "");
}

TEST_F(Statsphen, KeepsMoreThanTenThousandCombinations) {
    constexpr std::int32_t ntrait = 15;
    std::vector<double> phen;
    std::map<std::int64_t, std::int32_t> numbers;
    std::vector<std::int32_t> expected;
    std::mt19937 random(7);
    for (int i = 0; i < 40000; ++i) {
        const auto code = static_cast<std::int64_t>(random() % (1U << ntrait));
        for (std::int32_t t = 0; t < ntrait; ++t) phen.push_back((code >> t & 1) != 0 ? 1.5 : -9.0);
        expected.push_back(
            numbers.try_emplace(code, static_cast<std::int32_t>(numbers.size()) + 1).first->second);
    }

    run(ntrait, phen);

    EXPECT_GT(param_.ncombination, 20000);
    EXPECT_EQ(param_.ncombination, std::ssize(numbers));
    EXPECT_EQ(combitrait_, expected);
    for (const auto& [code, number] : numbers) EXPECT_EQ(param_.combination[number - 1], code);
}

class Statsdata : public testing::Test {
  protected:
    Statsdata() { log_.add_stream(screen_); }

    test::temporary_directory directory_;
    test::working_directory there_{directory_.path()};
    std::ostringstream screen_;
    logger log_;
};

phenotype_data two_records(std::int32_t ntrait) {
    phenotype_data data;
    data.phen = matrix<double>(ntrait, 2, 1.0);
    data.phen(0, 1) = -9.0;
    return data;
}

TEST_F(Statsdata, WritesItsOwnFileAndNothingToTheScreen) {
    directory_.write("log_stats.dat", std::string(5000, 'x'));
    param_type param;
    param.ntrait = 2;
    phenotype_data data = two_records(2);

    statsdata(param, data, -9.0, log_);

    EXPECT_EQ(directory_.read("log_stats.dat"),
              "STATISTICS FOR PHENOTYPES\n"
              "\n"
              "Number of phenotypes: 2\n"
              "Number of traits    : 2\n"
              "Trait             Mean          SD         Min         Max       #obs   %obs\n"
              "Trait  1          1.00        0.00        1.00        1.00          1  50.00\n"
              "Trait  2          1.00        0.00        1.00        1.00          2 100.00\n"
              "Number of trait combinations: 2\n"
              "Combination                1: TT\n"
              "Combination                2: .T\n"
              "\nSTATISTICS FOR PEDIGREE (if any)\n\n");
    EXPECT_EQ(screen_.str(), "");
    EXPECT_THAT(data.combitrait, ElementsAre(1, 2));
}

TEST_F(Statsdata, DoesNotBreakThePatternOfManyTraits) {
    param_type param;
    param.ntrait = 64;
    phenotype_data data = two_records(64);

    statsdata(param, data, -9.0, log_);

    EXPECT_THAT(directory_.read("log_stats.dat"),
                HasSubstr("Combination                1: " + std::string(64, 'T') + "\n"));
}

TEST_F(Statsdata, StopsWhenTheReportCannotBeOpened) {
    std::filesystem::create_directory("log_stats.dat");
    param_type param;
    param.ntrait = 2;
    phenotype_data data = two_records(2);

    EXPECT_THROW(statsdata(param, data, -9.0, log_), fatal_error);
    EXPECT_THAT(screen_.str(), HasSubstr("Cannot open the log file log_stats.dat"));
}

}  // namespace
}  // namespace zendar
