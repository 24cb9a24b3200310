#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modpedigree_ploidy.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

template <class T>
std::vector<T> all(const matrix<T>& m) {
    return {m.values().begin(), m.values().end()};
}

class PloidyFile : public testing::Test {
  protected:
    [[nodiscard]] std::string file() const { return (directory_ / "file.txt").string(); }
    void write(std::string_view text) const { directory_.write("file.txt", text); }

    pedigree_ploidy_type read(std::string_view text, std::int32_t nmax, std::int32_t nupg = 0) {
        write(text);
        pedigree_ploidy_type ped;
        ped.readpedigree_ploidy(file(), nmax, nupg, log_);
        return ped;
    }
    pedigree_ploidy_type scan(std::string_view text) {
        write(text);
        pedigree_ploidy_type ped;
        ped.readpedigree_ploidy(file(), log_);
        return ped;
    }

    test::temporary_directory directory_;
    captured_log log_;
};

using ReadpedigreePloidy = PloidyFile;

TEST_F(ReadpedigreePloidy, FindsTheRowByTheIdAndLeavesTheOthersWithoutCopies) {
    const pedigree_ploidy_type ped = read("4 1 2 2 1 .25 0\n\t3 , 2 1 0 4 1d-1 2*.5 \r\n", 5);
    EXPECT_EQ(ped.nlength(), 5);
    EXPECT_THAT(all(ped.ped), ElementsAre(0, 0, 0, 0, 2, 1, 1, 2, 0, 0));
    EXPECT_THAT(all(ped.tau), ElementsAre(0, 0, 0, 0, 0, 4, 2, 1, 0, 0));
    EXPECT_THAT(all(ped.lambda), ElementsAre(0, 0, 0, 0, 0.1, 0.5, 0.25, 0, 0, 0));
    EXPECT_EQ(ped.ploidy(3), 4);
    EXPECT_EQ(ped.giver(0, 3), 0);  // no copies
    EXPECT_EQ(ped.giver(1, 3), 1);
    EXPECT_EQ(ped.filename, file());
    EXPECT_EQ(ped.nupg, 0);
    EXPECT_TRUE(ped.f.empty() && ped.kdiag.empty() && ped.kparents.empty());
    EXPECT_EQ(log_.text(), "");
}

TEST_F(ReadpedigreePloidy, PassesOverFurtherWordsAndTakesNoAggregates) {
    EXPECT_THAT(all(read("1 0 0 1 1 0 0 1980 x\n2 1 0 1 1 0 0 # son\n\n", 2).ped), ElementsAre(0, 0, 1, 0));
    pedigree_ploidy_type ped;
    EXPECT_EQ(fatal_message([&] { ped.readpedigree_ploidy(file(), 2, 0, log_, true); }),
              "Aggregate pedigrees following Henderson (1988) are not supported");
    EXPECT_EQ(fatal_message([&] { ped.readpedigree_ploidy(file(), log_, true); }),
              "Aggregate pedigrees following Henderson (1988) are not supported");
}

TEST_F(ReadpedigreePloidy, ReplacesWhatWasReadBefore) {
    pedigree_ploidy_type ped = read("2 1 1 2 2 0 0\n", 2);
    ped.f = ped.kdiag = ped.kparents = {0, 0.5};
    ped.readpedigree_ploidy(file(), 3, 0, log_);
    EXPECT_TRUE(ped.f.empty() && ped.kdiag.empty() && ped.kparents.empty());
    EXPECT_EQ(ped.tau.cols(), 3);
}

TEST_F(ReadpedigreePloidy, TakesTheLastLineOfAnAnimalAndWarnsWhenTheyDiffer) {
    const pedigree_ploidy_type ped = read(
        "3 1 2 2 2 0 0\n4 1 2 2 2 0 0\n5 1 2 2 2 0 0\n6 1 2 2 2 0 0\n"
        "3 1 2 2 2 0 0\n4 1 0 2 2 0 0\n5 1 2 2 1 0 0\n6 1 2 2 2 0 .1\n",
        6);
    EXPECT_THAT(all(ped.ped), ElementsAre(0, 0, 0, 0, 1, 2, 1, 0, 1, 2, 1, 2));
    EXPECT_THAT(all(ped.tau), ElementsAre(0, 0, 0, 0, 2, 2, 2, 2, 2, 1, 2, 2));
    EXPECT_EQ(ped.lambda(1, 5), 0.1);
    EXPECT_EQ(
        log_.text(),
        "modpedigree % readpedigree: WARN: Animals given again with other values in the pedigree file " +
            file() + ": 3, of which the last line is taken (4, 5, 6)\n");
}

TEST_F(ReadpedigreePloidy, TakesTheLastLineWithAnyNumberOfThreads) {
    std::mt19937 random(5);
    constexpr std::int32_t n = 60'000;
    std::string text;
    std::vector<std::int32_t> parents(2 * n, 0), copies(2 * n, 0);
    for (int round = 0; round < 2; ++round)
        for (std::int32_t i = 1; i <= n; ++i) {
            text += std::to_string(i);
            for (std::int32_t k = 0; k < 2; ++k)
                text +=
                    " " + std::to_string(parents[2 * i - 2 + k] = static_cast<std::int32_t>(random() % i));
            for (std::int32_t k = 0; k < 2; ++k)
                text +=
                    " " + std::to_string(copies[2 * i - 2 + k] = 1 + static_cast<std::int32_t>(random() % 3));
            text += " 0.25 0.125\n";
        }
    ASSERT_GT(text.size(), std::size_t{2} << 20);
    const int before = omp_get_max_threads();
    for (const int threads : {1, 2, 5}) {
        omp_set_num_threads(threads);
        const pedigree_ploidy_type ped = read(text, n);
        EXPECT_TRUE(std::ranges::equal(ped.ped.values(), parents)) << threads;
        EXPECT_TRUE(std::ranges::equal(ped.tau.values(), copies)) << threads;
    }
    omp_set_num_threads(before);
}

TEST_F(ReadpedigreePloidy, StopsAtTheFirstBadLine) {
    const struct {
        const char* text;
        const char* why;
    } cases[] = {
        {"2 1 0 1 1 0", "the line has 6 values, expected are 7"},
        {"2 1 0 1 1", "the line has 5 values, expected are 7"},
        {"2 1 0 1", "the line has 4 values, expected are 7"},
        {"2 1 0", "the line has 3 values, expected are 7"},
        {"", "the line is blank, expected are 7 values"},
        {"x 1 0 1 1 0 0", "value 1 is not an integer: \"x\""},
        {"2 1 0 1.5 1 0 0", "value 4 is not an integer: \"1.5\""},
        {"4 1 0 1 1 0 0", "value 1 must lie between 1 and 3: \"4\""},
        {"0 1 0 1 1 0 0", "value 1 must lie between 1 and 3: \"0\""},
        {"2 4 0 1 1 0 0", "value 2 must lie between 0 and 3: \"4\""},
        {"2 1 -1 1 1 0 0", "value 3 must lie between 0 and 3: \"-1\""},
        {"2 1 0 -1 3 0 0", "value 4 must lie between 0 and 2147483647: \"-1\""},
        {"2 1 0 1 9999999999 0 0", "value 5 must lie between 0 and 2147483647: \"9999999999\""},
        {"2 1 0 0 0 0 0", "values 4 and 5 are both 0: no parent gives a gene copy"},
        {"2 1 0 1 1 x 0", "value 6 is not a number: \"x\""},
        {"2 1 0 1 1 0 x", "value 7 is not a number: \"x\""},
        {"2 1 0 1 1 nan 0", "value 6 is not a finite number: \"nan\""},
        {"2 1 0 1 1 0 -inf", "value 7 is not a finite number: \"-inf\""},
        {"2 1 0 1 1 ,,0", "value 6 is missing"},
    };
    for (const auto& c : cases) {
        captured_log log;
        write("1 0 0 1 1 0 0\n" + std::string(c.text) + "\n3 0 0 1 1 0 0\n");
        pedigree_ploidy_type ped;
        EXPECT_NE(fatal_message([&] { ped.readpedigree_ploidy(file(), 3, 0, log); }), "no fatal_error")
            << c.text;
        EXPECT_THAT(log.text(), AllOf(HasSubstr("Pedigree not correctly read at line 2\n"),
                                      HasSubstr("File " + file() + ": " + c.why)))
            << c.text;
    }
}

TEST_F(ReadpedigreePloidy, StopsAtAMissingFileAndWarnsOfAnEmptyOne) {
    pedigree_ploidy_type ped;
    EXPECT_EQ(fatal_message([&] { ped.readpedigree_ploidy("no_such_file", 2, 0, log_); }),
              "The file no_such_file cannot be read");
    EXPECT_THAT(all(read("", 1).tau), ElementsAre(0, 0));
    EXPECT_THAT(log_.text(),
                HasSubstr("WARN: The pedigree file " + file() + " is empty: all parents are unknown"));
    EXPECT_EQ(fatal_message([&] { read("1 0 0 1 1 0 0\n", 1, 2); }),
              "A pedigree of 1 levels cannot have 2 genetic groups (internal error)");
}

TEST_F(ReadpedigreePloidy, DoesNotCrashAtABinaryFile) {
    std::mt19937 random(3);
    for (int round = 0; round < 50; ++round) {
        std::string text(static_cast<std::size_t>(1 + random() % 3000), ' ');
        for (char& c : text) c = static_cast<char>(random());
        EXPECT_NE(fatal_message([&] { read(text, 3); }), "no fatal_error") << round;
    }
}

TEST_F(ReadpedigreePloidy, ScansTheFileForItsLargestInteger) {
    pedigree_ploidy_type ped = scan("3 1 2 2 2 .1 0\n1 0 0 2 2 0 0\n");
    EXPECT_EQ(ped.nlength(), 3);
    EXPECT_EQ(ped.nupg, 0);
    EXPECT_THAT(all(ped.tau), ElementsAre(2, 2, 0, 0, 2, 2));
    ped = scan("2 1 4 2 2 0 0\n");
    EXPECT_EQ(ped.nlength(), 4);
    EXPECT_EQ(ped.nupg, 2);
    ped = scan("1 0 0 3 1 0 0\n");  // copies count, too
    EXPECT_EQ(ped.nlength(), 3);
    EXPECT_EQ(ped.nupg, 2);
    EXPECT_EQ(log_.text(), "");
}

TEST_F(ReadpedigreePloidy, ScansNoEmptyFilesAndNoStrayCodes) {
    EXPECT_EQ(fatal_message([&] { scan(""); }), "The pedigree file " + file() + " is empty");
    EXPECT_EQ(fatal_message([&] { scan("1 0 2147483647 1 1 0 0\n"); }),
              "The pedigree file " + file() +
                  " has codes up to 2147483647 on only 1 lines: codes must be consecutive numbers");
    EXPECT_EQ(fatal_message([&] { scan("1 0 0 0 0 0 0\n"); }), "Pedigree not correctly read at line 1");
}

}  // namespace
}  // namespace zendar
