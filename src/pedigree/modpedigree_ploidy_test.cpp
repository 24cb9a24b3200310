#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modenum.hpp"
#include "modpedigree_ploidy.hpp"
#include "modpedigree_ploidy_rules.hpp"
#include "modpedigree_test_support.hpp"
#include "ploidy_relationship.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::dense;
using test::fatal_message;
using test::largest_difference;
using testing::AllOf;
using testing::DoubleNear;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

struct level {
    std::int32_t sire, dam, ts, td;
    double ls = 0.0, ld = 0.0;
};

pedigree_ploidy_type pedigree(const std::vector<level>& levels) {
    pedigree_ploidy_type ped;
    const std::int64_t n = std::ssize(levels);
    ped.nupg = 0;
    ped.ped = matrix<std::int32_t>(2, n);
    ped.tau = matrix<std::int32_t>(2, n);
    ped.lambda = matrix<double>(2, n);
    for (std::int64_t i = 0; i < n; ++i) {
        const level& own = levels[static_cast<std::size_t>(i)];
        ped.ped(0, i) = own.sire;
        ped.ped(1, i) = own.dam;
        ped.tau(0, i) = own.ts;
        ped.tau(1, i) = own.td;
        ped.lambda(0, i) = own.ls;
        ped.lambda(1, i) = own.ld;
    }
    return ped;
}

void compute(pedigree_ploidy_type& ped) {
    captured_log log;
    ped.computeinbreedingploidy({}, log);
}

double largest_difference(const std::vector<double>& x, const std::vector<double>& y, double times = 1.0) {
    double largest = x.size() == y.size() ? 0.0 : 1.0;
    for (std::size_t i = 0; i < std::min(x.size(), y.size()); ++i)
        largest = std::max(largest, test::magnitude(x[i] - times * y[i]));
    return largest;
}

test::ploidy_choice choice_of(std::uint64_t seed) {
    test::ploidy_choice choice;
    choice.nanimal = 1 + static_cast<std::int32_t>(seed * 7 % 40);
    choice.unknown = 0.05 + 0.1 * static_cast<double>(seed % 5);
    choice.one_sided = seed % 2 == 0 ? 0.2 : 0.0;
    choice.selfing = seed % 3 != 0;
    choice.shuffled = seed % 4 != 0;
    if (seed % 5 == 0) choice.ploidies = {4};
    if (seed % 7 == 0) choice.ploidies = {1, 2};
    return choice;
}

// ---- inbreeding and coancestries
// -------------------------------------------------------------------------------

TEST(Computeinbreedingploidy, AgreesWithTheTableOfGeneCopies) {
    int inbred = 0, related = 0;
    for (std::uint64_t seed = 1; seed <= 250; ++seed) {
        SCOPED_TRACE(seed);
        pedigree_ploidy_type ped = test::random_ploidy_pedigree(choice_of(seed), seed);
        const test::ploidy_coancestries expected = test::tabular_coancestries(ped);
        compute(ped);
        ASSERT_LT(largest_difference(ped.f, expected.f), 1e-12);
        ASSERT_LT(largest_difference(ped.kparents, expected.kparents, 2.0), 1e-12);
        std::vector<double> diagonal;
        for (std::int64_t i = 0; i < expected.k.rows(); ++i) diagonal.push_back(expected.k(i, i));
        ASSERT_LT(largest_difference(ped.kdiag, diagonal, 2.0), 1e-12);
        for (const double f : expected.f) inbred += f > 0.05 ? 1 : 0;
        for (const double k : expected.kparents) related += k > 0.05 ? 1 : 0;
    }
    EXPECT_GT(inbred, 1000);
    EXPECT_GT(related, 1000);
}

TEST(Computeinbreedingploidy, GivesADiploidTheCoefficientsOfTheOrdinaryClass) {
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        test::pedigree_choice choice;
        choice.nanimal = seed % 10 == 0 ? 3000 : 100;
        choice.selfing = seed % 3 == 0;
        choice.generations = seed % 2 == 0 ? 8 : 0;
        pedigree_type plain;
        plain.nupg = 0;
        plain.ped = test::random_pedigree(choice, seed);
        pedigree_ploidy_type ped;
        ped.nupg = 0;
        ped.ped = plain.ped;
        ped.tau = matrix<std::int32_t>(2, ped.nlength(), 1);
        ped.lambda = matrix<double>(2, ped.nlength());
        captured_log log;
        plain.computeinbreeding_ped({}, log);
        compute(ped);
        ASSERT_LT(largest_difference(ped.f, plain.f), 1e-14);
        for (std::int32_t i = 0; i < ped.nlength(); ++i) ASSERT_EQ(ped.kdiag[i], 1.0 + ped.f[i]);

        const crssparse expected = plain.computeasparse_ped(trandom_ani, 0.0, 1, log),
                        actual = ped.computeasparse_ped(trandom_ani_ploidy, 0.0, 1, log);
        ASSERT_EQ(actual.totalnumberofelements(), expected.totalnumberofelements());
        for (std::int32_t i = 1; i <= std::min(ped.nlength(), 100); ++i)
            for (std::int32_t j = i; j <= ped.nlength(); ++j) {
                const double e = expected.get(i, j);
                ASSERT_LE(test::magnitude(actual.get(i, j) - e), 1e-13 * std::max(1.0, std::abs(e)));
            }
    }
}

TEST(Computeinbreedingploidy, IsKnownForSmallFamilies) {
    // Founders of four copies; the second one has gametes with a chance of 0.1.
    pedigree_ploidy_type ped = pedigree({{0, 0, 2, 2},
                                         {0, 0, 2, 2, 0.1, 0.1},
                                         {1, 2, 2, 2},
                                         {1, 1, 2, 2},            // selfed
                                         {1, 0, 4, 0},            // a copy of 1
                                         {2, 0, 2, 0, 0.5, 0.0},  // two copies of one parent
                                         {6, 0, 1, 0},            // one of these
                                         {3, 0, 2, 2, 0.0, 0.0}});
    compute(ped);
    const double w = 0.1 + 0.9 * (0.1 / 2.1), f2 = 2 * 2 * w / 12;
    EXPECT_NEAR(f2, 0.047619047619047616, 1e-15);
    EXPECT_THAT(ped.f, ElementsAre(0, DoubleNear(f2, 1e-15), DoubleNear(2 * f2 / 12, 1e-15),
                                   DoubleNear(8 * 0.25 / 12, 1e-15), 0, DoubleNear(0.5 + 0.5 * f2, 1e-15), 0,
                                   DoubleNear(2 * 2 * f2 / 12 / 12, 1e-15)));
    EXPECT_THAT(ped.kparents, ElementsAre(0, 0, 0, 0.5, 0, 0, 0, 0));
    EXPECT_EQ(ped.kdiag[0], 0.5);
    EXPECT_EQ(ped.kdiag[4], 0.5);
    EXPECT_EQ(ped.kdiag[6], 2.0);  // a haploid
}

TEST(Computeinbreedingploidy, CountsAParentThatGivesNoCopiesForNothing) {
    pedigree_ploidy_type with = pedigree({{0, 0, 1, 1}, {1, 1, 1, 1}, {1, 2, 2, 0, 0.25, 0.5}}),
                         without = pedigree({{0, 0, 1, 1}, {1, 1, 1, 1}, {1, 0, 2, 0, 0.25, 0.0}});
    compute(with);
    compute(without);
    EXPECT_EQ(with.f, without.f);
    EXPECT_EQ(with.f[2], 0.25);
    EXPECT_EQ(with.kparents[2], 0.0);
    captured_log log;
    EXPECT_EQ(dense(with.computeaploidy(203, 0.0, 1, log)), dense(without.computeaploidy(203, 0.0, 1, log)));
}

TEST(Computeinbreedingploidy, GivesUnrelatedParentsExactlyNothing) {
    std::vector<level> levels(40, level{0, 0, 2, 2, 0.3, 0.3});
    for (std::int32_t i = 1; i < 20; ++i) levels.push_back({2 * i - 1, 2 * i, 2, 2, 0.3, 0.3});
    pedigree_ploidy_type ped = pedigree(levels);
    compute(ped);
    for (const double k : ped.kparents) EXPECT_EQ(k, 0.0);
}

TEST(Computeinbreedingploidy, TakesLongLinesAndMeetsTheirLimits) {
    // Selfing of six copies, and mates that are not related to a line whose shares get too small for a
    // double.
    std::vector<level> selfed{{0, 0, 3, 3}}, mated{{0, 0, 1, 3}, {0, 0, 1, 3}};
    for (std::int32_t i = 1; i < 2000; ++i) selfed.push_back({i, i, 3, 3});
    for (std::int32_t i = 1; i < 2000; ++i) {
        const auto last = static_cast<std::int32_t>(mated.size());
        mated.push_back({0, 0, 2, 2});
        mated.push_back({last, last + 1, 1, 3});
    }
    mated.push_back({2, static_cast<std::int32_t>(mated.size()), 2, 2});
    pedigree_ploidy_type line = pedigree(selfed), cross = pedigree(mated);
    compute(line);
    compute(cross);
    EXPECT_NEAR(line.f[1], 0.1, 1e-15);  // 18 of 30 pairs are across, and 1 of 6 of these are one copy twice
    EXPECT_NEAR(line.f[1999], 1.0, 1e-12);
    for (const double f : cross.f) ASSERT_NEAR(f, 0.0, 1e-15);
    captured_log log;
    const crssparse inverse = line.computeaploidy(203, 0.0, 1, log);
    for (std::int32_t i = 1; i <= 2000; ++i)
        ASSERT_TRUE(std::isfinite(inverse.get(i, i)) && inverse.get(i, i) >= 0.0);
}

TEST(Computeinbreedingploidy, TakesPedigreesOfNothing) {
    pedigree_ploidy_type ped = pedigree({});
    compute(ped);
    EXPECT_TRUE(ped.f.empty() && ped.kdiag.empty());
}

TEST(Computeinbreedingploidy, StopsForGroupsLoopsAndUnknownPloidies) {
    captured_log log;
    const auto message = [&](pedigree_ploidy_type ped, std::int32_t nupg = 0) {
        ped.nupg = nupg;
        return fatal_message([&] { ped.computeinbreeding_ped({}, log); });
    };
    EXPECT_EQ(message(pedigree({{0, 0, 1, 1}}), -1), "Number of UPGs < 0 (internal error)");
    EXPECT_EQ(message(pedigree({{0, 0, 1, 1}}), 1),
              "Genetic groups for ploidy animal effect is not supported yet");
    EXPECT_EQ(message(pedigree({{0, 0, 1, 1}, {0, 0, 0, 0}})),
              "The ploidy of level 2 is not known (internal error)");
    EXPECT_THAT(message(pedigree({{2, 0, 2, 2}, {1, 0, 2, 2}})), HasSubstr("is its own ancestor: 2, 1"));
    EXPECT_THAT(message(pedigree({{1, 0, 2, 2}})), HasSubstr("is its own ancestor: 1"));
    pedigree_ploidy_type bare;
    bare.ped = matrix<std::int32_t>(2, 1);
    EXPECT_EQ(message(std::move(bare)),
              "The copies and lambdas of the pedigree have not been read (internal error)");
}

// ---- the cache
// -------------------------------------------------------------------------------------------------

class PloidyCache : public testing::Test {
  protected:
    pedigree_ploidy_type read() {
        pedigree_ploidy_type ped;
        ped.readpedigree_ploidy(file(), 5, 0, log_);
        return ped;
    }
    void SetUp() override {
        directory_.write("a.ped",
                         "1 0 0 2 2 .1 .1\n2 0 0 1 1 0 0\n3 1 2 2 1 .1 0\n4 1 3 2 2 .1 .2\n5 4 4 2 2 0 0\n");
    }
    [[nodiscard]] std::string file() const { return (directory_ / "a.ped").string(); }

    test::temporary_directory directory_;
    captured_log log_;
};

TEST_F(PloidyCache, IsWrittenBesideThePedigreeAndTold) {
    pedigree_ploidy_type ped = read();
    ped.computeinbreeding_ped({}, log_);
    std::string expected = "# " + std::to_string(5 + (1 + 1 + 4) + (2 + 3 + 4)) + "\n";
    char value[32];
    for (std::size_t i = 0; i < 5; ++i) {
        std::snprintf(value, sizeof value, "%.6f", ped.f[i]);
        expected += std::to_string(i + 1) + " " + (value[0] == '0' ? value + 1 : value) + "\n";
    }
    EXPECT_EQ(directory_.read("a.ped.inb"), expected);
    std::istringstream lines(log_.text());
    std::string without_times;
    for (std::string line; std::getline(lines, line);)
        without_times += line.substr(0, line.find(" (s): ")) + "\n";
    EXPECT_EQ(without_times,
              "Start computation of inbreeding\n"
              "1. Get the order from old to young...\n"
              "Start to find the order from old to young\n"
              "Find order from old to young - Wall clock time\n"
              "2. Computation of sub-K...\n"
              "Computation of inbreeding coefficients - Wall clock time\n"
              "Inbreeding coefficients saved in " +
                  file() + ".inb - Wall clock time\n");
}

TEST_F(PloidyCache, IsReadAndTheCoancestriesFollowFromIt) {
    pedigree_ploidy_type first = read(), second = read();
    first.computeinbreeding_ped({}, log_);
    captured_log log;
    second.computeinbreeding_ped({}, log);
    EXPECT_THAT(log.text(),
                MatchesRegex("Start computation of inbreeding\nInbreeding coefficients read from .*"
                             "a\\.ped\\.inb - Wall clock time \\(s\\): [0-9]*\\.[0-9]+\n"));
    EXPECT_LT(largest_difference(second.f, first.f), 5.1e-7);
    EXPECT_LT(largest_difference(second.kdiag, first.kdiag), 1e-6);
    EXPECT_LT(largest_difference(second.kparents, first.kparents), 4e-6);
    for (std::int32_t i = 1; i <= 5; ++i) {
        EXPECT_EQ(second.kdiag[i - 1], 2.0 * self_coancestry(second.ploidy(i), second.f[i - 1]));
        EXPECT_NEAR(ploidy_sampling_variance(second, i), ploidy_sampling_variance(first, i), 4e-6);
    }
    EXPECT_EQ(second.kparents[2], 0.0);
    EXPECT_EQ(second.kparents[4], second.kdiag[3]);
}

TEST_F(PloidyCache, OfRandomPedigreesLeadsBackToTheCoancestries) {
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        pedigree_ploidy_type ped = test::random_ploidy_pedigree(choice_of(seed), seed);
        ped.filename = (directory_ / ("r" + std::to_string(seed))).string();
        captured_log log;
        ped.computeinbreeding_ped({}, log);
        const std::vector<double> k = ped.kparents;
        ped.computeinbreeding_ped({}, log);
        ASSERT_THAT(log.text(), AllOf(HasSubstr("read from"), Not(HasSubstr("do not fit"))));
        for (std::int32_t i = 1; i <= ped.nlength(); ++i) {
            const copy_pairs pairs(ped, i);
            if (k[i - 1] == 0.0) continue;
            ASSERT_NEAR(ped.kparents[i - 1], k[i - 1], 4e-6 * pairs.all() / pairs.across);
        }
    }
}

TEST_F(PloidyCache, OfOtherCopiesOrLambdasIsUsedWithAWarning) {
    pedigree_ploidy_type first = read();
    first.computeinbreeding_ped({}, log_);
    directory_.write("a.ped",
                     "1 0 0 2 2 .5 .5\n2 0 0 1 1 0 0\n3 1 2 2 1 .1 0\n4 1 3 2 2 .1 .2\n5 4 4 2 2 0 0\n");
    pedigree_ploidy_type second = read();
    second.computeinbreeding_ped({}, log_);
    EXPECT_THAT(second.f[0], DoubleNear(first.f[0], 5.1e-7));
    EXPECT_THAT(log_.text(),
                HasSubstr("WARN: Inbreeding coefficients of the file with those of an earlier run do not "
                          "fit the copies and lambdas of the pedigree: 1 (1). They are used "
                          "nevertheless; remove the file if the pedigree has changed\n"));
}

TEST_F(PloidyCache, ThatIsWrongGivesAWarningAndIsNotOverwritten) {
    directory_.write("a.ped.inb", "# 20\n1 .1\n");
    pedigree_ploidy_type ped = read();
    ped.computeinbreeding_ped({}, log_);
    EXPECT_THAT(log_.text(),
                AllOf(HasSubstr("a.ped.inb exists, but is incorrect (magic number or number of lines)"),
                      HasSubstr("hash: 20 vs 20\n"), HasSubstr("2. Computation of sub-K...")));
    EXPECT_NEAR(ped.f[0], 0.1 / 2.1, 1e-15);
    EXPECT_EQ(directory_.read("a.ped.inb"), "# 20\n1 .1\n");
}

// ---- A-inverse
// -------------------------------------------------------------------------------------------------

TEST(Computeaploidy, IsTheInverseOfTwiceTheCoancestries) {
    for (std::uint64_t seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE(seed);
        test::ploidy_choice choice = choice_of(seed);
        choice.invertible = true;
        pedigree_ploidy_type ped = test::random_ploidy_pedigree(choice, seed);
        matrix<double> a = test::tabular_coancestries(ped).k;
        for (double& v : a.values()) v *= 2.0;
        compute(ped);
        captured_log log;
        const crssparse ainv = ped.computeasparse_ped(trandom_ani_ploidy, 0.0, 2, log);
        ASSERT_LT(largest_difference(dense(ainv), test::dense_inverse(a)), 1e-10);
        EXPECT_TRUE(ainv.issymmetric() && ainv.isupperstorage() && ainv.issorted());
        EXPECT_THAT(log.text(), Not(HasSubstr("WARN")));
    }
}

TEST(Computeaploidy, HasTheVariancesThatTheCoancestriesLeave) {
    for (std::uint64_t seed = 1; seed <= 100; ++seed) {
        pedigree_ploidy_type ped = test::random_ploidy_pedigree(choice_of(seed), seed);
        compute(ped);
        for (std::int32_t i = 1; i <= ped.nlength(); ++i) {
            const auto row = ploidy_contribution_row(ped, i);
            const std::int32_t s = ped.giver(0, i), d = ped.giver(1, i);
            double variance = ped.kdiag[i - 1];
            if (s > 0) variance -= row[1] * row[1] * ped.kdiag[s - 1];
            if (d > 0) variance -= row[2] * row[2] * ped.kdiag[d - 1];
            if (s > 0 && d > 0) variance -= 2.0 * row[1] * row[2] * ped.kparents[i - 1];
            ASSERT_NEAR(ploidy_sampling_variance(ped, i), variance, 1e-13) << seed << " " << i;
        }
    }
}

TEST(Computeaploidy, TakesTheTypesOfOrdinaryAnimalsAlike) {
    pedigree_ploidy_type ped = pedigree({{0, 0, 2, 2}, {1, 0, 1, 1}, {1, 2, 2, 1}});
    compute(ped);
    captured_log log;
    const matrix<double> expected = dense(ped.computeaploidy(203, 0.0, 1, log));
    for (const std::int32_t type : {trandom_ani, trandom_ani_a22i})
        EXPECT_EQ(dense(ped.computeasparse_ped(type, 0.5, {}, log)), expected);
    // Twice the coancestry of a founder of four copies with itself is 1 / 2; it gives one of two copies, and
    // then two of three.
    EXPECT_DOUBLE_EQ(ploidy_sampling_variance(ped, 1), 0.5);
    EXPECT_DOUBLE_EQ(ploidy_sampling_variance(ped, 2), 2 * 0.25 * (0.75 + 1.0));
    EXPECT_DOUBLE_EQ(ploidy_sampling_variance(ped, 3), 2 * (4.0 / 9 * 0.25 + 1.0 / 9 * 0.5));
    EXPECT_DOUBLE_EQ(expected(2, 2), 1.0 / ploidy_sampling_variance(ped, 3));
    EXPECT_DOUBLE_EQ(expected(0, 2), -2.0 / 3 / ploidy_sampling_variance(ped, 3));
}

TEST(Computeaploidy, AddsNothingForALevelWithoutVariance) {
    // All copies of 1; both parents haploid; both copies of a gamete alike from a parent that is one line.
    pedigree_ploidy_type ped = pedigree(
        {{0, 0, 2, 2}, {1, 0, 4, 0}, {0, 0, 1, 0}, {0, 3, 0, 1}, {3, 4, 1, 1}, {3, 0, 3, 0, 1.0, 0.0}});
    compute(ped);
    captured_log log;
    const crssparse ainv = ped.computeaploidy(203, 0.0, 1, log);
    for (const std::int32_t i : {2, 4, 5, 6}) EXPECT_EQ(ainv.get(i, i), 0.0) << i;
    EXPECT_EQ(ainv.get(1, 1), 2.0);
    EXPECT_EQ(ainv.get(3, 3), 0.5);
    EXPECT_THAT(log.text(), Not(HasSubstr("WARN")));
}

TEST(Computeaploidy, WarnsOfGametesWithMoreCopiesThanTheirParentHas) {
    pedigree_ploidy_type ped = pedigree({{0, 0, 1, 0}, {1, 0, 2, 0, 0.5, 0.0}});
    compute(ped);
    captured_log log;
    const crssparse ainv = ped.computeaploidy(203, 0.0, 1, log);
    EXPECT_DOUBLE_EQ(ainv.get(2, 2), 1.0 / (1.5 - 2.0));
    EXPECT_THAT(log.text(),
                HasSubstr("WARN: Levels with a negative Mendelian sampling variance, to which a parent "
                          "gives more copies than it has, with too low a lambda: 1 (2)\n"));
}

TEST(Computeaploidy, TellsWhatItDoes) {
    pedigree_ploidy_type ped = pedigree({{0, 0, 2, 2}, {1, 0, 2, 2}});
    compute(ped);
    captured_log log;
    static_cast<void>(ped.computeaploidy(203, 0.0, 3, log));
    EXPECT_THAT(log.text(),
                MatchesRegex("Random contributions for the animal \\(with inbreeding\\) effect 3\n"
                             "Temporary memory \\(MB\\)             : .00\n"
                             "Memory \\(MB\\) needed for sparse Ainv: .00\n"
                             "Wall clock time \\(s\\)               : [0-9]*\\.[0-9]+\n"));
}

TEST(Computeaploidy, RefusesGroupsOtherTypesAndMissingCoefficients) {
    pedigree_ploidy_type ped = pedigree({{0, 0, 2, 2}, {1, 0, 2, 2}});
    captured_log log;
    const auto message = [&](std::int32_t type) {
        return fatal_message([&] { static_cast<void>(ped.computeasparse_ped(type, 0.0, 1, log)); });
    };
    EXPECT_EQ(message(203), "No inbreeding coefficients allocated");
    ped.f = {0, 0};
    EXPECT_EQ(message(203), "No inbreeding coefficients allocated");
    compute(ped);
    for (const std::int32_t type : {5, 7, 9, 105, 109})
        EXPECT_EQ(message(type), "Genetic groups for ploidy animal effect is not supported yet") << type;
    for (const std::int32_t type : {0, 1, 4, 10, 204})
        EXPECT_EQ(message(type), "This type of effect " + std::to_string(type) + " is not implemented");
}

// ---- founders
// --------------------------------------------------------------------------------------------------

std::string founders(pedigree_ploidy_type& ped) {
    captured_log log;
    const std::string message = fatal_message([&] { ped.computefounderploidy(log); });
    return message == "no fatal_error" ? log.text() : message;
}
std::string founders(const std::vector<level>& levels) {
    pedigree_ploidy_type ped = pedigree(levels);
    return founders(ped);
}

const std::string start = "Start computation of founders\n";

TEST(Computefounderploidy, PassesRegularGametesOfOneLambda) {
    EXPECT_EQ(founders({{0, 0, 2, 2}, {0, 0, 1, 1}, {1, 2, 2, 1}, {1, 3, 2, 2}}), start);
    EXPECT_EQ(
        founders({{0, 0, 2, 2}, {0, 0, 2, 2, 0.1, 0.1}, {1, 2, 2, 2, 0.2, 0.3}, {2, 1, 2, 2, 0.3, 0.2}}),
        start +
            "modpedigree % computefounderploidy: WARN: Lambda of some founders are higher than 0: 2 (1, "
            "2)\n");
}

TEST(Computefounderploidy, LeavesUnreducedGametesAlone) {
    EXPECT_EQ(founders({{0, 0, 1, 1}, {1, 0, 2, 0, 0.041, 0.0}, {1, 1, 1, 2, 0.0, 0.918}}), start);
    EXPECT_EQ(founders({{0, 0, 2, 1}, {1, 0, 2, 2, 0.1, 0.0}, {1, 0, 1, 2, 0.2, 0.0}}), start);
}

TEST(Computefounderploidy, LooksAtFoundersOnly) {
    EXPECT_EQ(founders({{0, 0, 2, 2}, {1, 0, 2, 2}, {2, 0, 2, 2, 0.1, 0.0}, {2, 0, 2, 2, 0.2, 0.0}}), start);
    EXPECT_EQ(founders({{0, 0, 1, 1}, {1, 0, 1, 1}, {2, 2, 1, 1, 0.5, 0.5}}), start);
}

TEST(Computefounderploidy, StopsForLambdasThatDiffer) {
    EXPECT_EQ(founders({{0, 0, 2, 2}, {1, 0, 2, 2, 0.1, 0.0}, {0, 1, 2, 2, 0.0, 0.2}}),
              "The same founder is associated with different values of lambda.\n"
              "Level 1: 0.100000 and, at level 3, 0.200000");
    EXPECT_THAT(founders({{0, 0, 2, 2}, {1, 1, 2, 2, 0.0, 0.1}}), HasSubstr("different values of lambda."));
}

TEST(Computefounderploidy, StopsForLambdasThatAreNoChances) {
    for (const double bad : {-0.1, 1.5, std::nan("")}) {
        EXPECT_THAT(founders({{0, 0, 2, 2}, {1, 0, 2, 2, bad, 0.0}}),
                    testing::StartsWith("Issue with values of lambda\nLevel 2: "));
        EXPECT_THAT(founders({{0, 0, 2, 2, 0.0, bad}}),
                    testing::StartsWith("Issue with values of lambda\nLevel 1: "));
    }
    EXPECT_EQ(founders({{0, 0, 2, 2}, {1, 0, 2, 2, 1.5, 0.0}}),
              "Issue with values of lambda\nLevel 2: 1.50000 does not lie between 0 and 1");
}

TEST(Computefounderploidy, StopsForDiploidFoundersWithALambda) {
    const std::string expected = "Diploid founders with a lambda different than 0\nLevel 1";
    EXPECT_EQ(founders({{0, 0, 1, 1}, {1, 0, 1, 1, 0.1, 0.0}}), expected);
    EXPECT_EQ(founders({{0, 0, 1, 1, 0.0, 0.1}}), expected);
    EXPECT_EQ(founders({{0, 0, 2, 0, 0.1, 0.0}}), start);  // of one gamete
}

TEST(Computefounderploidy, NamesTheFile) {
    pedigree_ploidy_type ped = pedigree({{0, 0, 1, 1, 0.1, 0.1}});
    ped.filename = "a.ped";
    EXPECT_THAT(founders(ped), testing::EndsWith("Level 1\nFile a.ped"));
}

TEST(Computefounderploidy, CompletesFoundersWithoutALineFromTheirSmallestGametes) {
    pedigree_ploidy_type ped = pedigree({{0, 0, 0, 0},
                                         {0, 0, 0, 0},
                                         {0, 0, 0, 0},
                                         {1, 2, 2, 1, 0.1, 0.0},
                                         {1, 2, 4, 2, 0.3, 0.9},
                                         {1, 0, 2, 2, 0.1, 0.0}});
    EXPECT_EQ(founders(ped),
              start +
                  "modpedigree % computefounderploidy: WARN: Levels without a line and without "
                  "offspring, which count as diploid founders: 1 (3)\n"
                  "modpedigree % computefounderploidy: WARN: Lambda of some founders are higher than "
                  "0: 1 (1)\n");
    EXPECT_THAT(std::vector(ped.tau.values().begin(), ped.tau.values().begin() + 6),
                ElementsAre(2, 2, 1, 1, 1, 1));
    EXPECT_THAT(std::vector(ped.lambda.values().begin(), ped.lambda.values().begin() + 6),
                ElementsAre(0.1, 0.1, 0, 0, 0, 0));
}

TEST(Computefounderploidy, SaysNothingOfLevelsWithoutALineAmongDiploids) {
    EXPECT_EQ(founders({{0, 0, 0, 0}, {0, 0, 0, 0}, {1, 0, 1, 1}}), start);
}

TEST(Computefounderploidy, StopsWithoutGroupsKnown) {
    pedigree_ploidy_type ped = pedigree({{0, 0, 1, 1}});
    ped.nupg = -1;
    EXPECT_EQ(founders(ped), "Number of UPGs < 0 (internal error)");
}

// ---- reports
// ---------------------------------------------------------------------------------------------------

TEST(PrintPedigreePloidy, WritesBothFiles) {
    const test::temporary_directory directory;
    pedigree_ploidy_type ped = pedigree({{0, 0, 2, 2, 0.1, 0.25}, {1, 0, 2, 10, 1.0, 0.0}, {1, 2, 1, 1}});
    ped.f = {0.0476, 0.5, 1.0};
    captured_log log;
    ped.print_pedigree((directory / "a_").string(), log);
    EXPECT_EQ(directory.read("a_pedigree.varquil"),
              "0 0 2 2 .100 .250\n"
              "1 0 2 10 1.000 .000\n"
              "1 2 1 1 .000 .000\n");
    EXPECT_EQ(directory.read("a_inbreeding.varquil"), "1 .048\n2 .500\n3 1.000\n");
    EXPECT_NE(fatal_message([&] { ped.print_pedigree((directory / "no/").string(), log); }),
              "no fatal_error");
    EXPECT_THAT(log.text(), HasSubstr("Cannot write the file "));
}

}  // namespace
}  // namespace zendar
