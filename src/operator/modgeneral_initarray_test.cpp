#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "modbasic.hpp"
#include "modgeneral.hpp"
#include "modgeneral_test_model.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_text;
using test::small_model;
using test::temporary_directory;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

matrix<double> from_text(const param_type& param, std::string_view text) {
    const temporary_directory here;
    captured_log log;
    matrix<double> array(1, 1, 9.0);
    initvectorfromfile_array_real8(param, array, here.write("v", text).string(), log);
    return array;
}

/// The error of a text, with FILE for the name of its file.
std::string error_of(const param_type& param, std::string_view text) {
    const temporary_directory here;
    captured_log log;
    matrix<double> array;
    const std::string file = here.write("v", text).string();
    std::string message = fatal_text([&] { initvectorfromfile_array_real8(param, array, file, log); });
    if (const auto at = message.find(file); at != std::string::npos) message.replace(at, file.size(), "FILE");
    return message;
}

/// Class effect of 2 levels, covariable of 2 coefficients, nested one of 2 levels with 2; 1 trait, 8
/// equations.
small_model mixed_model() {
    return small_model(1, {{.nlevel = 2}, {.type = 1, .ncov = 2}, {.type = 1, .ncov = 2, .nnest = 2}});
}

const std::vector<std::string> mixed_rows = {"1 1 1 0 1 .5\n",    "1 1 2 0 2 -.5\n",  "1 2 0 1 3 1e-3\n",
                                             "1 2 0 2 4 0\n",     "1 3 1 1 5 7.25\n", "1 3 1 2 6 1E+2\n",
                                             "1 3 2 1 7 -3D-1\n", "1 3 2 2 8 2*0.5\n"};

std::string joined(const std::vector<std::string>& rows) {
    std::string text;
    for (const std::string& row : rows) text += row;
    return text;
}

/// `mixed_rows` with another row at a place.
std::string mixed_with(std::size_t place, const std::string& row) {
    std::vector<std::string> rows = mixed_rows;
    rows.back() = "1 3 2 2 8 0.5\n";
    rows[place] = row;
    return joined(rows);
}

TEST(InitvectorfromfileArrayReal8, ReadsOneColumnPerVector) {
    const small_model model(1, {{.nlevel = 4}});
    const temporary_directory here;
    const std::string file =
        here.write("vectors.txt", " 1 2.5 -3\n\n4,5D0,6\n 2*7 8\n1e-3\t.5 9\n\n").string();
    captured_log log;
    matrix<double> array(1, 1, 9.0);

    initvectorfromfile_array_real8(model.param, array, file, log);

    ASSERT_EQ(array.rows(), 4);
    ASSERT_EQ(array.cols(), 3);
    EXPECT_THAT(array.column(0), ElementsAre(1, 4, 7, 1e-3));
    EXPECT_THAT(array.column(1), ElementsAre(2.5, 5, 7, .5));
    EXPECT_THAT(array.column(2), ElementsAre(-3, 6, 8, 9));
    EXPECT_EQ(log.text(), "Array initiated from: " + file + "\nNumber of columns: 3\n");
}

TEST(InitvectorfromfileArrayReal8, CountsTheColumnsOfAFirstLineInAnyForm) {
    const small_model model(1, {{.nlevel = 3}});
    for (const char* first : {"1,2", "1\t2", "2*1", " +1.0 2d0 ", "1 ,\t2"})
        EXPECT_EQ(from_text(model.param, std::string(first) + "\n0 1\n5 6").cols(), 2) << first;
}

TEST(InitvectorfromfileArrayReal8, TakesManyColumnsOfWholeNumbersForVectors) {
    const small_model model(1, {{.nlevel = 7}});
    std::string text;
    for (int i = 0; i < 7; ++i) {
        for (int j = 0; j < 6; ++j) text += i == j ? "1 " : "0 ";
        text += "\n";
    }

    const matrix<double> array = from_text(model.param, text);

    ASSERT_EQ(array.cols(), 6);
    for (int i = 0; i < 7; ++i)
        for (int j = 0; j < 6; ++j) EXPECT_EQ(array(i, j), i == j ? 1.0 : 0.0);
}

TEST(InitvectorfromfileArrayReal8, PutsEachRowOnItsEquationInAnyOrder) {
    const small_model model = mixed_model();
    std::vector<std::string> rows = mixed_rows;
    rows.back() = "1,3,+2,2,8,0.5\n";
    std::mt19937 generator(1);
    for (int turn = 0; turn < 5; ++turn) {
        const matrix<double> array = from_text(model.param, joined(rows) + "\n  \n");
        ASSERT_EQ(array.cols(), 2);
        EXPECT_THAT(array.column(0), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
        EXPECT_THAT(array.column(1), ElementsAre(.5, -.5, 1e-3, 0, 7.25, 100, -.3, .5));
        std::ranges::shuffle(rows, generator);
    }
}

TEST(InitvectorfromfileArrayReal8, ReadsTheRowsOfRandomModels) {
    int nread = 0;
    for (std::uint32_t seed = 1; seed <= 300; ++seed) {
        SCOPED_TRACE(seed);
        const small_model model = test::random_model(seed);
        const auto rows = model.rows();
        if (model.param.neq < 2) continue;  // two vectors are too many
        ASSERT_EQ(std::ssize(rows), model.param.neq);
        matrix<double> expected(model.param.neq, 2);
        std::string text;
        for (const auto& row : rows) {
            expected(row.equation - 1, 0) = static_cast<double>(row.equation) + 0.25;
            expected(row.equation - 1, 1) = 1.0 / static_cast<double>(row.equation);
            text += inttochar(row.t) + " " + inttochar(row.e) + " " + inttochar(row.lev) + " " +
                    inttochar(row.k) + " " + realtochar(expected(row.equation - 1, 0), "(g0)") + " " +
                    realtochar(expected(row.equation - 1, 1), "(g0)") + "\n";
        }
        EXPECT_EQ(from_text(model.param, text), expected);
        ++nread;
    }
    EXPECT_GT(nread, 250);
}

TEST(InitvectorfromfileArrayReal8, TakesTheValuesOfCombinedTraitsOnce) {
    small_model model(2, {{.nlevel = 2}});
    model.param.lcombieff = true;
    for (std::int32_t t = 0; t < 2; ++t) model.param.combieff_trait(t, 0) = 2;

    EXPECT_THAT(from_text(model.param, "1 1 1 0 5.0\n2 1 1 0 5.0\n1 1 2 0 6.0\n2 1 2 0 6.0\n").column(0),
                ElementsAre(0, 5, 0, 6));
    EXPECT_EQ(
        error_of(model.param, "1 1 1 0 5.0\n2 1 1 0 5.5\n1 1 2 0 6.0\n2 1 2 0 6.0\n"),
        "Line 2 of the file FILE has other values than another trait of the same equation (trait 2, effect "
        "1, level 1, covariable 0)");
}

TEST(InitvectorfromfileArrayReal8, StopsAtRowsThatDoNotFitTheModel) {
    const small_model model = mixed_model();
    const auto no_equation = [&](const std::string& numbers) {
        return error_of(model.param, mixed_with(3, numbers + " 1 2\n"));
    };

    EXPECT_EQ(
        error_of(model.param, mixed_with(3, "1 2 0 1 4 0\n")),
        "Line 4 of the file FILE has an equation for the second time (trait 1, effect 2, level 0, covariable "
        "1)");
    EXPECT_EQ(error_of(model.param, mixed_with(0, "1 1 1 0 1 .5\n\n\n1 1 1 0 1 .5\n")),
              "The file FILE has 9 rows, but the number of equations is 8!");
    EXPECT_EQ(
        no_equation("1 4 1 0"),
        "Line 4 of the file FILE has no equation in the model (trait 1, effect 4, level 1, covariable 0)");
    for (const char* numbers :
         {"1 0 1 0", "2 1 1 0", "0 1 1 0", "1 1 3 0", "1 1 0 0", "1 2 0 0", "1 2 0 3", "1 3 0 1", "1 3 3 1",
          "1 3 1 3", "-2147483648 2147483647 1 0", "1 3 2147483647 2147483647", "1 1 -2147483648 0"})
        EXPECT_THAT(no_equation(numbers),
                    StartsWith("Line 4 of the file FILE has no equation in the model (trait"))
            << numbers;
    EXPECT_EQ(no_equation("1 2 0 2.0"), "Cannot read line 4 of the file FILE");
    EXPECT_EQ(no_equation("1 2 x 2"), "Cannot read line 4 of the file FILE");
    EXPECT_EQ(no_equation("1 2 0 2 9"), "Line 4 of the file FILE has more than 6 columns!");
    // The first row as well: most rows tell what the file is.
    EXPECT_THAT(error_of(model.param, mixed_with(0, "1 9 1 0 1 2\n")),
                StartsWith("Line 1 of the file FILE has no equation in the model"));
}

TEST(InitvectorfromfileArrayReal8, StopsAtLinesOfAnotherLength) {
    const small_model model(1, {{.nlevel = 3}});

    EXPECT_EQ(error_of(model.param, "1 2\n3\n5 6\n"), "Line 2 of the file FILE has 1 columns instead of 2!");
    EXPECT_EQ(error_of(model.param, "1 2\n3 4\n5 6 7\n"), "Line 3 of the file FILE has more than 2 columns!");
    EXPECT_EQ(error_of(model.param, "1 2\n\n3,4,5\n5 6\n"),
              "Line 3 of the file FILE has more than 2 columns!");
    EXPECT_EQ(error_of(model.param, "1 2\n1000000000*0\n5 6\n"),
              "Line 2 of the file FILE has more than 2 columns!");
    EXPECT_EQ(error_of(model.param, "1 2\n3 4\n5,\n"), "Line 3 of the file FILE has 1 columns instead of 2!");
    EXPECT_EQ(error_of(mixed_model().param, mixed_with(4, "1 3 1 1 5\n")),
              "Line 5 of the file FILE has 5 columns instead of 6!");
}

TEST(InitvectorfromfileArrayReal8, StopsAtAnotherNumberOfRowsOrTooManyVectors) {
    const small_model model(1, {{.nlevel = 3}});

    EXPECT_EQ(error_of(model.param, ""), "The file FILE has 0 rows, but the number of equations is 3!");
    EXPECT_EQ(error_of(model.param, "\n \n"), "The file FILE has 0 rows, but the number of equations is 3!");
    EXPECT_EQ(error_of(model.param, "1 2\n3 4\n"),
              "The file FILE has 2 rows, but the number of equations is 3!");
    EXPECT_EQ(error_of(model.param, "1\n2\n3\n4\n"),
              "The file FILE has 4 rows, but the number of equations is 3!");
    EXPECT_EQ(error_of(model.param, "1 1 1 0 2.5\n1 1 2 0 2.5\n"),
              "The file FILE has 2 rows, but the number of equations is 3!");
    EXPECT_EQ(error_of(model.param, "\n1\n2\n3\n"), "The first line of the file FILE holds no columns!");
    EXPECT_EQ(error_of(model.param, ".1 2 3 4\n1 2 3 4\n1 2 3 4\n"),
              "The file FILE has 4 vectors, but the number of equations is 3!");
    EXPECT_EQ(error_of(model.param, "1000000000*0\n"),
              "Line 1 of the file FILE has more columns than vectors can be independent!");
}

TEST(InitvectorfromfileArrayReal8, StopsAtWhatIsNoFiniteNumber) {
    const small_model model(1, {{.nlevel = 3}});

    for (const char* value : {"NaN", "-Infinity", "nan"})
        EXPECT_EQ(error_of(model.param, "1 2\n3 " + std::string(value) + "\n5 6\n"),
                  "Line 2 of the file FILE has a value that is not finite!");
    EXPECT_EQ(error_of(mixed_model().param, mixed_with(6, "1 3 2 1 NaN 1\n")),
              "Line 7 of the file FILE has a value that is not finite!");
    for (const char* word : {"x", "1.0.0", "1-2", "--1"})
        EXPECT_EQ(error_of(model.param, "1 2\n\n3 " + std::string(word) + "\n5 6\n"),
                  "Cannot read line 3 of the file FILE")
            << word;
    EXPECT_EQ(error_of(model.param, "# vectors\n1 2\n3 4\n"), "Cannot read line 1 of the file FILE");
    EXPECT_THAT(error_of(model.param, "1 2\n3 1e999\n5 6\n"),
                testing::AnyOf("Line 2 of the file FILE has a value that is not finite!",
                               "Cannot read line 2 of the file FILE"));
}

TEST(InitvectorfromfileArrayReal8, WarnsOfAMissingFileAndIsEmpty) {
    const small_model model(1, {{.nlevel = 4}});
    captured_log log;
    matrix<double> array(1, 1, 9.0);

    initvectorfromfile_array_real8(model.param, array, "nowhere.txt", log);

    EXPECT_TRUE(array.empty());
    EXPECT_THAT(log.text(),
                AllOf(HasSubstr("WARN: The file \"nowhere.txt\" does not exist!\n"),
                      HasSubstr("WARN: The array will be set to 0.\n"), Not(HasSubstr("Array initiated"))));
}

TEST(InitvectorfromfileArrayReal8, SaysWhichFileCannotBeRead) {
    const small_model model(1, {{.nlevel = 3}});
    const temporary_directory here;
    captured_log log;
    matrix<double> array;

    EXPECT_EQ(
        fatal_text([&] { initvectorfromfile_array_real8(model.param, array, here.path().string(), log); }),
        "Cannot read the file " + here.path().string());
}

}  // namespace
}  // namespace zendar
