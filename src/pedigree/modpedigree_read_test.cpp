#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modpedigree.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

std::vector<std::int32_t> parents(const pedigree_type& ped) {
    return {ped.ped.values().begin(), ped.ped.values().end()};
}

class PedigreeFile : public testing::Test {
  protected:
    [[nodiscard]] std::string file() const { return (directory_ / "file.txt").string(); }
    void write(std::string_view text) const { directory_.write("file.txt", text); }

    pedigree_type read(std::string_view text, std::int32_t nmax, std::int32_t nupg = 0) {
        write(text);
        pedigree_type ped;
        ped.readpedigree_max(file(), nmax, nupg, log_);
        return ped;
    }
    std::string failure(std::string_view text, std::int32_t nmax = 3, std::int32_t nupg = 0) {
        EXPECT_NE(fatal_message([&] { read(text, nmax, nupg); }), "no fatal_error") << text;
        return log_.text();
    }
    pedigree_type of_size(std::int32_t n) {
        pedigree_type ped;
        ped.ped = matrix<std::int32_t>(2, n);
        return ped;
    }

    test::temporary_directory directory_;
    captured_log log_;
};

using ReadpedigreeMax = PedigreeFile;

TEST_F(ReadpedigreeMax, FindsTheRowByTheIdAndLeavesTheOthersAsFounders) {
    const pedigree_type ped = read("4 1 2\n\t3  2 , 1 \r\n", 5);

    EXPECT_EQ(ped.nlength(), 5);
    EXPECT_THAT(parents(ped), ElementsAre(0, 0, 0, 0, 2, 1, 1, 2, 0, 0));
    EXPECT_EQ(ped.filename, file());
    EXPECT_EQ(ped.nupg, 0);
    EXPECT_FALSE(ped.ismeta);
    EXPECT_TRUE(ped.f.empty());
    EXPECT_EQ(log_.text(), "");
}

TEST_F(ReadpedigreeMax, PassesOverFurtherWordsBlankLinesAtTheEndAndAByteOrderMark) {
    EXPECT_THAT(parents(read("\xEF\xBB\xBF"
                             "1 0 0 1980 x\n2 1 0 # son\n\n \n",
                             2)),
                ElementsAre(0, 0, 1, 0));
}

TEST_F(ReadpedigreeMax, TrimsTheName) {
    write("1 0 0\n");
    pedigree_type ped;
    ped.readpedigree_max("  " + file() + " ", 1, 0, log_);
    EXPECT_EQ(ped.filename, file());
}

TEST_F(ReadpedigreeMax, ReplacesWhatWasReadBefore) {
    pedigree_type ped = read("2 1 1\n", 2);
    ped.f = {0, 0.5};
    ped.ismeta = true;
    ped.metarel = matrix<double>(1, 1);

    write("3 1 0\n");
    ped.readpedigree_max(file(), 3, 1, log_);

    EXPECT_TRUE(ped.f.empty());
    EXPECT_TRUE(ped.metarel.empty());
    EXPECT_FALSE(ped.ismeta);
    EXPECT_EQ(ped.nupg, 1);
}

TEST_F(ReadpedigreeMax, TakesTheLastLineOfAnAnimalAndWarnsWhenTheyDiffer) {
    const pedigree_type ped = read("3 1 2\n4 1 2\n3 1 2\n4 2 1\n5 0 0\n5 1 0\n", 5);

    EXPECT_THAT(parents(ped), ElementsAre(0, 0, 0, 0, 1, 2, 2, 1, 1, 0));
    EXPECT_EQ(
        log_.text(),
        "modpedigree % readpedigree: WARN: Animals given again with other parents in the pedigree file " +
            file() + ": 2, of which the last line is taken (4, 5)\n");
}

TEST_F(ReadpedigreeMax, NamesOnlyTheFirstAnimalsThatAreGivenAgain) {
    std::string text;
    for (int i = 2; i <= 40; ++i) text += std::to_string(i) + " 0 0\n" + std::to_string(i) + " 1 0\n";
    read(text, 40);
    EXPECT_THAT(log_.text(), HasSubstr(": 39, of which the last line is taken (2, 3, 4, 5, 6, 7, 8, 9, 10, "
                                       "11, ...)\n"));
}

TEST_F(ReadpedigreeMax, TakesTheLastLineWithAnyNumberOfThreads) {
    // Several blocks of a megabyte, with every animal in two of them.
    std::mt19937 random(5);
    constexpr std::int32_t n = 100'000;
    std::string text;
    std::vector<std::int32_t> expected(2 * n, 0);
    for (int round = 0; round < 2; ++round)
        for (std::int32_t i = 1; i <= n; ++i) {
            for (std::int32_t k = 0; k < 2; ++k)
                expected[2 * i - 2 + k] = static_cast<std::int32_t>(random() % i);
            text += std::to_string(i) + " " + std::to_string(expected[2 * i - 2]) + " " +
                    std::to_string(expected[2 * i - 1]) + "\n";
        }
    ASSERT_GT(text.size(), std::size_t{2} << 20);
    const int before = omp_get_max_threads();
    for (const int threads : {1, 2, 5}) {
        omp_set_num_threads(threads);
        const pedigree_type ped = read(text, n);
        EXPECT_TRUE(std::ranges::equal(ped.ped.values(), expected)) << threads;
    }
    omp_set_num_threads(before);
}

TEST_F(ReadpedigreeMax, PassesOverLinesOfGroupsWithAWarning) {
    const pedigree_type ped = read("3 4 5\n4 1 1\n5 0 0\n4 1 1\n", 5, 2);

    EXPECT_THAT(parents(ped), ElementsAre(0, 0, 0, 0, 4, 5, 0, 0, 0, 0));
    EXPECT_EQ(log_.text(), "modpedigree % readpedigree: WARN: Lines of genetic groups in the pedigree file " +
                               file() + ", which are passed over: 3 (4, 5)\n");
}

TEST_F(ReadpedigreeMax, StopsAtTheFirstBadLine) {
    const struct {
        const char* text;
        int line;
        const char* why;
    } cases[] = {
        {"1 0 0\n2 1\n3 1 2\n", 2, "the line has 2 values, expected are 3"},
        {"1 0 0\n\n3 1 2\n", 2, "the line is blank, expected are 3 values"},
        {"1 0 0\n2 x 0\n", 2, "value 2 is not an integer: \\\"x\\\""},
        {"1 0 0\n2 1.0 0\n", 2, "value 2 is not an integer"},
        {"# id sire dam\n1 0 0\n", 1, "value 1 is not an integer"},
        {"1 0 0\n4 0 0\n", 2, "value 1 must lie between 1 and 3"},
        {"0 0 0\n", 1, "value 1 must lie between 1 and 3"},
        {"-1 0 0\n", 1, "value 1 must lie between 1 and 3"},
        {"1 0 0\n2 4 0\n", 2, "value 2 must lie between 0 and 3: \"4\""},
        {"1 0 0\n2 1 -1\n", 2, "value 3 must lie between 0 and 3: \"-1\""},
        {"1 0 0\n2 1 99999999999\n", 2, "value 3 must lie between 0 and 3: \"99999999999\""},
        {"1 0 0\n2 1 99999999999999999999\n", 2, "value 3 is not an integer"},
        {"1 0 0\n2 1,,0\n", 2, "value 3 is missing"},
    };
    for (const auto& c : cases) {
        const std::string log = failure(c.text);
        std::string why(c.why);
        std::erase(why, '\\');
        EXPECT_THAT(log,
                    AllOf(HasSubstr("Pedigree not correctly read at line " + std::to_string(c.line) + "\n"),
                          HasSubstr("File " + file() + ": " + why)))
            << c.text;
    }
}

TEST_F(ReadpedigreeMax, StopsAtAMissingFileAndWarnsOfAnEmptyOne) {
    pedigree_type ped;
    EXPECT_NE(fatal_message([&] { ped.readpedigree_max("no_such_file", 2, 0, log_); }), "no fatal_error");
    EXPECT_THAT(log_.text(),
                AllOf(HasSubstr("The file no_such_file cannot be read"), HasSubstr("iostat = 2")));

    EXPECT_THAT(parents(read("", 1)), ElementsAre(0, 0));
    EXPECT_THAT(log_.text(),
                HasSubstr("WARN: The pedigree file " + file() + " is empty: all parents are unknown"));
}

TEST_F(ReadpedigreeMax, StopsForMoreGroupsThanLevels) {
    EXPECT_THAT(failure("1 0 0\n", 1, 2), HasSubstr("A pedigree of 1 levels cannot have 2 genetic groups"));
    EXPECT_THAT(failure("1 0 0\n", 1, -1), HasSubstr("A pedigree of 1 levels cannot have -1 genetic groups"));
}

TEST_F(ReadpedigreeMax, DoesNotCrashAtABinaryFile) {
    std::mt19937 random(3);
    for (int round = 0; round < 50; ++round) {
        std::string text(static_cast<std::size_t>(1 + random() % 3000), ' ');
        for (char& c : text) c = static_cast<char>(random());
        EXPECT_NE(fatal_message([&] { read(text, 3); }), "no fatal_error") << round;
    }
}

using ReadpedigreeNomax = PedigreeFile;

TEST_F(ReadpedigreeNomax, TakesCodesAboveTheLargestIdAsGroups) {
    write("4 1 6\n1 5 6\n2 1 0\n");
    pedigree_type ped;
    ped.readpedigree_nomax(file(), log_);

    EXPECT_EQ(ped.nlength(), 6);
    EXPECT_EQ(ped.nupg, 2);
    EXPECT_THAT(parents(ped), ElementsAre(5, 6, 1, 0, 0, 0, 1, 6, 0, 0, 0, 0));
    EXPECT_EQ(ped.filename, file());
    EXPECT_EQ(log_.text(), "");
}

TEST_F(ReadpedigreeNomax, HasNoGroupsWhenTheLargestCodeIsAnId) {
    write("3 1 2\n");
    pedigree_type ped;
    ped.readpedigree_nomax(file(), log_);
    EXPECT_EQ(ped.nlength(), 3);
    EXPECT_EQ(ped.nupg, 0);
}

TEST_F(ReadpedigreeNomax, StopsAtBadLinesAnEmptyFileAndStrayCodes) {
    pedigree_type ped;
    write("1 0 0\n2 -1 0\n");
    EXPECT_NE(fatal_message([&] { ped.readpedigree_nomax(file(), log_); }), "no fatal_error");
    EXPECT_THAT(log_.text(), HasSubstr("Pedigree not correctly read at line 2\n"));

    write("");
    EXPECT_EQ(fatal_message([&] { ped.readpedigree_nomax(file(), log_); }),
              "The pedigree file " + file() + " is empty");

    write("1 0 2147483647\n");
    EXPECT_EQ(fatal_message([&] { ped.readpedigree_nomax(file(), log_); }),
              "The pedigree file " + file() +
                  " has codes up to 2147483647 on only 1 lines: codes must be consecutive numbers");
}

using Readinbreeding = PedigreeFile;

TEST_F(Readinbreeding, ReadsPairsInAnyOrderAndZeroesTheOthers) {
    pedigree_type ped = of_size(3);
    ped.f = {9, 9, 9};
    write("# id f\n3 0.25\n1 1d-1 x\n");

    ped.readinbreeding(file(), log_);

    EXPECT_THAT(ped.f, ElementsAre(0.1, 0, 0.25));
    EXPECT_EQ(log_.text(), "Number of inbreeding coefficients read from " + file() + ": 2\n");
}

TEST_F(Readinbreeding, TakesCommentsUpToTheTenthValueOnly) {
    std::string text;
    for (int i = 1; i <= 9; ++i) text += std::to_string(i) + " 0.5\n#" + std::to_string(i) + "\n";
    pedigree_type ped = of_size(11);

    write(text + "10 0.5\n11 0.5\n");
    ped.readinbreeding(file(), log_);
    EXPECT_EQ(ped.f, std::vector<double>(11, 0.5));

    write(text + "10 0.5\n# the end\n11 0.5\n");
    ped.readinbreeding(file(), log_);
    EXPECT_EQ(ped.f[9], 0.5);
    EXPECT_EQ(ped.f[10], 0.0);
    EXPECT_THAT(log_.text(),
                AllOf(HasSubstr("The reading of inbreeding coefficients ends at line 20 of the file " +
                                file() + ", which is not an id and a value"),
                      HasSubstr("read from " + file() + ": 10\n")));
}

TEST_F(Readinbreeding, EndsAtTheFirstRecordThatFails) {
    pedigree_type ped = of_size(3);
    for (const char* bad : {"2", "x 0.5", "2 y", "2.5 0.5", "2 ,,"}) {
        write("1 0.5\n" + std::string(bad) + "\n3 0.5\n");
        ped.readinbreeding(file(), log_);
        EXPECT_THAT(ped.f, ElementsAre(0.5, 0, 0)) << bad;
    }
}

TEST_F(Readinbreeding, WarnsOfValuesThatCannotBe) {
    pedigree_type ped = of_size(4);
    write("1 1\n2 -1.5\n3 -1\n4 1.01\n");
    ped.readinbreeding(file(), log_);
    EXPECT_THAT(ped.f, ElementsAre(1, -1.5, -1, 1.01));
    EXPECT_THAT(log_.text(), HasSubstr("WARN: Inbreeding coefficients below -1 or above 1 in the file " +
                                       file() + ": 2 (2, 4)\n"));
}

TEST_F(Readinbreeding, StopsAtALoopOfThePedigree) {
    pedigree_type ped = of_size(3);
    ped.ped(0, 0) = 3;
    ped.ped(1, 2) = 1;
    write("1 0\n");
    EXPECT_THAT(fatal_message([&] { ped.readinbreeding(file(), log_); }),
                HasSubstr("is its own ancestor: 3, 1"));
}

TEST_F(Readinbreeding, StopsAtAnotherIdAndAtValuesThatAreNotFinite) {
    pedigree_type ped = of_size(3);
    for (const char* id : {"0", "4", "-1", "5000000000"}) {
        write("1 0.5\n" + std::string(id) + " 0.1\n");
        EXPECT_EQ(
            fatal_message([&] { ped.readinbreeding(file(), log_); }),
            "The id " + std::string(id) + " at line 2 of the file " + file() + " is not one of the 3 levels");
    }
    write("1 nan\n");
    EXPECT_EQ(fatal_message([&] { ped.readinbreeding(file(), log_); }),
              "The inbreeding coefficient at line 1 of the file " + file() + " is not a finite number");
    EXPECT_EQ(fatal_message([&] { ped.readinbreeding("no_such_file", log_); }),
              "Issue while opening the file no_such_file");
}

using Readmetarel = PedigreeFile;

TEST_F(Readmetarel, FillsBothTrianglesAndLogs) {
    pedigree_type ped = of_size(5);
    ped.nupg = 2;
    write("1 1 0.5\n2 1 .25\n");

    ped.readmetarel(file(), 3, log_);

    EXPECT_THAT(ped.metarel.values(), ElementsAre(0.5, 0.25, 0.25, 0));
    EXPECT_FALSE(ped.ismeta);
    EXPECT_EQ(
        log_.text(),
        "Effect 3\nNumber of metafounders    : 2\nNumber of real individuals: 3\nName of the file        "
        "  : " +
            file() + "\n");
}

TEST_F(Readmetarel, WarnsOfElementsGivenTwiceWithOtherValues) {
    pedigree_type ped = of_size(5);
    ped.nupg = 2;
    write("1 2 0.5\n2 1 .5\n2 1 .25\n");
    ped.readmetarel(file(), 3, log_);
    EXPECT_THAT(ped.metarel.values(), ElementsAre(0, 0.25, 0.25, 0));
    EXPECT_THAT(log_.text(), HasSubstr("WARN: Elements given again with other values in the file " + file() +
                                       ": 1 (the first one at line 3), of which the last line is taken\n"));
}

TEST_F(Readmetarel, StopsWithoutMetafoundersAndAtBadLines) {
    pedigree_type ped = of_size(5);
    for (const std::int32_t nupg : {-1, 0}) {
        ped.nupg = nupg;
        EXPECT_EQ(fatal_message([&] { ped.readmetarel(file(), 1, log_); }),
                  "Number of metafounders <= 0 (internal error)");
    }
    ped.nupg = 2;
    EXPECT_EQ(fatal_message([&] { ped.readmetarel("no_such_file", 1, log_); }),
              "The file no_such_file cannot be read");
    const std::pair<const char*, const char*> cases[] = {
        {"1 3 0.5", "value 2 must lie between 1 and 2: \"3\""},
        {"0 1 0.5", "value 1 must lie between 1 and 2: \"0\""},
        {"1 1", "the line has 2 values, expected are 3"},
        {"1 1 x", "value 3 is not a number: \"x\""},
        {"1 1 inf", "value 3 is not a finite number: \"inf\""},
        {"a 1 1", "value 1 is not an integer: \"a\""},
    };
    for (const auto& [line, why] : cases) {
        write("1 1 1\n" + std::string(line) + "\n");
        EXPECT_NE(fatal_message([&] { ped.readmetarel(file(), 1, log_); }), "no fatal_error");
        EXPECT_THAT(log_.text(),
                    AllOf(HasSubstr("Relationships of metafounders not correctly read at line 2\n"),
                          HasSubstr("File " + file() + ": " + why)));
    }
}

TEST(Checkval, AddsTheFirst100SiresAndTheLast101Dams) {
    pedigree_type ped;
    ped.ped = matrix<std::int32_t>(2, 1);
    EXPECT_EQ(ped.checkval(), 1);
    ped.ped(0, 0) = 3;
    ped.ped(1, 0) = 5;
    EXPECT_EQ(ped.checkval(), 9);

    ped.ped = matrix<std::int32_t>(2, 300);
    for (std::int32_t i = 0; i < 300; ++i) {
        ped.ped(0, i) = 1;
        ped.ped(1, i) = 1000;
    }
    EXPECT_EQ(ped.checkval(), 300 + 100 + 101'000);
}

TEST(Checkval, WrapsAround) {
    pedigree_type ped;
    ped.ped = matrix<std::int32_t>(2, 2, 2147483647);
    EXPECT_EQ(ped.checkval(), 2 + 2 * -2);  // 4 (2^31 - 1) = -4 modulo 2^32
}

}  // namespace
}  // namespace zendar
