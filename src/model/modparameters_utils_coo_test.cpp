#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modparameters_utils.hpp"
#include "modparameters_utils_triplets.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::ElementsAre;
using testing::HasSubstr;

class Readcootoija : public testing::Test {
  protected:
    crssparse read(std::string_view text, std::int32_t n) {
        return readcootoija(directory_.write("matrix.txt", text).string(), n, log_);
    }
    std::string failure(std::string_view text, std::int32_t n = 3) {
        EXPECT_NE(fatal_message([&] { static_cast<void>(read(text, n)); }), "no fatal_error");
        return log_.text();
    }
    [[nodiscard]] std::string file() const { return (directory_ / "matrix.txt").string(); }

    test::temporary_directory directory_;
    captured_log log_;
};

TEST_F(Readcootoija, MakesTheSameUpperTriangleOfEitherAndBothTriangles) {
    for (const char* text :
         {"1 1 2\n1 3 -1\n3 3 4\n", "3 3 4\n3 1 -1\n1 1 2\n", "1 3 -1\n3 3 4\n3 1 -1\n1 1 2\n"}) {
        const crssparse crs = read(text, 3);

        EXPECT_EQ(crs.getdim(1), 3);
        EXPECT_EQ(crs.getdim(2), 3);
        EXPECT_TRUE(crs.issymmetric());
        EXPECT_TRUE(crs.isupperstorage());
        EXPECT_TRUE(crs.issorted());
        EXPECT_THAT(crs.get_rowptr(), ElementsAre(1, 3, 4, 5));
        EXPECT_THAT(crs.get_colval(), ElementsAre(1, 3, 2, 3));
        EXPECT_THAT(crs.get_nzval(), ElementsAre(2, -1, 0, 4));
        EXPECT_EQ(crs.get(3, 1), -1);
    }
}

TEST_F(Readcootoija, AddsUpWhatIsRepeatedWithinOneTriangle) {
    EXPECT_THAT(read("1 2 1\n1 2 0.5\n1 1 1\n1 1 1\n", 2).get_nzval(), ElementsAre(2, 1.5, 0));
    EXPECT_THAT(read("2 1 1\n2 1 0.5\n", 2).get_nzval(), ElementsAre(0, 1.5, 0));
    EXPECT_THAT(read("2 1 1\n1 2 0.5\n2 1 0.5\n1 2 1\n", 2).get_nzval(), ElementsAre(0, 1.5, 0));
}

TEST_F(Readcootoija, TakesTheTwoTrianglesOfAnotherOrderOfAddition) {
    const crssparse crs = read("1 2 0.1\n1 2 0.2\n1 2 0.3\n2 1 0.3\n2 1 0.3\n", 2);
    EXPECT_DOUBLE_EQ(crs.get(1, 2), 0.6);
}

TEST_F(Readcootoija, StopsAtUnequalTriangles) {
    EXPECT_THAT(failure("1 1 2\n2 3 0.5\n1 2 3\n3 2 0.25\n"),
                HasSubstr("The elements (2,3) and (3,2) of the external matrix " + file() +
                          " are not equal: 0.50000000000000000 and 0.25000000000000000"));
    EXPECT_THAT(failure("2 3 0\n3 2 0.25\n"), HasSubstr("The elements (2,3) and (3,2)"));
    EXPECT_THAT(failure("1 3 0.5\n3 1 -0.5\n"), HasSubstr("The elements (1,3) and (3,1)"));
    // Sums, with others of the row before them.
    EXPECT_THAT(failure("1 2 1\n1 2 2\n2 1 3\n1 3 1\n1 3 1\n3 1 3\n3 1 4\n"),
                HasSubstr("The elements (1,3) and (3,1) of the external matrix " + file() +
                          " are not equal: 2.0000000000000000 and 7.0000000000000000"));
}

TEST_F(Readcootoija, StopsAtASumBeyondTheNumbers) {
    EXPECT_THAT(failure("1 2 1e308\n1 2 1e308\n"),
                HasSubstr("The values of the element (1,2) of the external matrix " + file() +
                          " do not have a finite sum"));
}

TEST_F(Readcootoija, Logs) {
    static_cast<void>(read("1 1 2\n", 1));
    EXPECT_EQ(log_.text(), "External matrix\nFile name: " + file() +
                               "\nTemporary memory (MB): .00\nMemory (MB)          : .00\n");
}

TEST_F(Readcootoija, LogsTheMemory) {
    std::string text;
    for (int i = 1; i <= 100'000; ++i) text += std::to_string(i) + " " + std::to_string(i) + " 1\n";
    static_cast<void>(read(text, 100'000));
    EXPECT_THAT(log_.text(), HasSubstr("\nTemporary memory (MB): 3.05\nMemory (MB)          : 1.53\n"));
}

TEST_F(Readcootoija, TakesBlanksTabsCommasCarriageReturnsAndAByteOrderMark) {
    EXPECT_THAT(read("\xEF\xBB\xBF 1,1,2\r\n\t1\t2 , 1d0 \r\n2 2 1*5\r\n\n", 2).get_nzval(),
                ElementsAre(2, 1, 5));
}

TEST_F(Readcootoija, StopsAtAMissingAndAnEmptyFile) {
    EXPECT_NE(fatal_message([&] { static_cast<void>(readcootoija("no_such_file", 2, log_)); }),
              "no fatal_error");
    EXPECT_THAT(log_.text(), HasSubstr("The file no_such_file of the external matrix cannot be read"));
    EXPECT_THAT(log_.text(), HasSubstr("With iostat = 2"));
    EXPECT_THAT(failure(""), HasSubstr("The file " + file() + " of the external matrix is empty"));
    EXPECT_THAT(failure("\n\n"), HasSubstr("The file " + file() + " of the external matrix is empty"));
}

struct bad_line {
    const char* text;
    int line;
    const char* why;
};

class ReadcootoijaLine : public Readcootoija, public testing::WithParamInterface<bad_line> {};

TEST_P(ReadcootoijaLine, Stops) {
    const std::string log = failure(GetParam().text);

    EXPECT_THAT(log, HasSubstr("modparameters_utils % readcootoija ("));
    EXPECT_THAT(log, HasSubstr("I/O ERROR: External matrix not correctly read at line " +
                               std::to_string(GetParam().line) + "\n"));
    EXPECT_THAT(log, HasSubstr("File " + file() + ": " + GetParam().why));
}

INSTANTIATE_TEST_SUITE_P(
    Faults, ReadcootoijaLine,
    testing::Values(bad_line{"1 1 1\n0 1 5\n", 2, "value 1 must lie between 1 and 3: \"0\""},
                    bad_line{"1 1 1\n4 1 5\n", 2, "value 1 must lie between 1 and 3: \"4\""},
                    bad_line{"1 1 1\n1 0 5\n", 2, "value 2 must lie between 1 and 3: \"0\""},
                    bad_line{"1 1 1\n1 -2 5\n", 2, "value 2 must lie between 1 and 3: \"-2\""},
                    bad_line{"1 1 1\n1 4 5\n", 2, "value 2 must lie between 1 and 3: \"4\""},
                    bad_line{"1 1 1\n1 4294967297 5\n", 2,
                             "value 2 must lie between 1 and 3: \"4294967297\""},
                    bad_line{"1 1 1\n1 1.5 5\n", 2, "value 2 is not an integer: \"1.5\""},
                    bad_line{"i j v\n", 1, "value 1 is not an integer: \"i\""},
                    bad_line{"1 1 1\n\n1 1 3\n", 2, "the line is blank, expected are 3 values"},
                    bad_line{"1 1 1\n1\n", 2, "the line has 1 values, expected are 3"},
                    bad_line{"1 1 1\n1 2\n", 2, "the line has 2 values, expected are 3"},
                    bad_line{"1 1 1\n1 2 3 4\n", 2, "the line has more than 3 values"},
                    bad_line{"1 1 1\n1 2 2*4\n", 2, "the line has more than 3 values"},
                    bad_line{"1 1 1\n1 2 x\n", 2, "value 3 is not a number: \"x\""},
                    bad_line{"1 1 1\n1 2,,3\n", 2, "value 3 is missing"},
                    bad_line{"1 1 1\n1 2 nan\n", 2, "value 3 is not a finite number: \"nan\""},
                    bad_line{"1 1 1\n1 2 1e400\n", 2, "value 3 is not a finite number: \"1e400\""}));

TEST_F(Readcootoija, ReadsRandomMatrices) {
    const int old = omp_get_max_threads();
    for (std::uint32_t seed = 1; seed <= 80; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 generator(seed);
        const auto n = 1 + static_cast<std::int32_t>(generator() % 60);
        std::map<std::pair<std::int32_t, std::int32_t>, double> expected;
        std::vector<std::string> lines;
        const auto add = [&](std::int32_t i, std::int32_t j, int value) {
            lines.push_back(std::to_string(i) + " " + std::to_string(j) + " " + std::to_string(value) +
                            ".25\n");
        };
        for (int k = 0; k < 300; ++k) {
            const auto i = 1 + static_cast<std::int32_t>(generator() % n),
                       j = 1 + static_cast<std::int32_t>(generator() % n);
            const auto place = std::minmax(i, j);
            if (expected.contains({place.first, place.second})) continue;
            const int value = static_cast<int>(generator() % 50);
            const auto times = 1 + static_cast<int>(generator() % 2), way = static_cast<int>(generator() % 3);
            expected[{place.first, place.second}] = times * (value + 0.25);
            for (int copy = 0; copy < times; ++copy) {
                if (way != 1) add(place.first, place.second, value);
                if (way != 0 && (way == 1 || i != j)) add(place.second, place.first, value);
            }
        }
        std::shuffle(lines.begin(), lines.end(), generator);
        std::string text;
        for (const std::string& line : lines) text += line;
        omp_set_num_threads(1 + static_cast<int>(seed % 4));

        const crssparse crs = read(text, n);

        for (std::int32_t i = 1; i <= n; ++i) {
            for (std::int32_t j = i; j <= n; ++j) {
                const auto element = expected.find({i, j});
                ASSERT_EQ(crs.get(i, j), element == expected.end() ? 0.0 : element->second);
            }
            ASSERT_EQ(crs.get_colval()[crs.get_rowptr()[i - 1] - 1], i);  // the diagonal
            expected.try_emplace({i, i}, 0.0);
        }
        ASSERT_EQ(crs.totalnumberofelements(), std::ssize(expected));
    }
    omp_set_num_threads(old);
}

TEST(TripletRows, TakesNoMoreElementsThanWereCounted) {
    detail::triplet_rows rows(2);
    rows.count(1);
    rows.count(2);
    rows.allocate();

    EXPECT_TRUE(rows.put(1, 2, 1.0));
    EXPECT_FALSE(rows.put(1, 1, 1.0));
    EXPECT_TRUE(rows.put(2, 2, 1.0));
    EXPECT_EQ(rows.bytes(), 2 * 16 + 5 * 8);
}

}  // namespace
}  // namespace zendar
