#include <gmock/gmock.h>

#include "captured_log.hpp"
#include "modbasic.hpp"
#include "modparameters.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// ---- residual files --------------------------------------------------------------------------------------

struct residual_result {
    std::vector<matrix<double>> r;
    std::string message, log, file;
};

residual_result read_residual(std::string_view text, std::int32_t ntrait, std::int32_t nclass) {
    const test::temporary_directory folder;
    captured_log log;
    residual_result result;
    result.file = folder.write("residual.txt", text).string();
    result.message = fatal_message([&] { readrf(result.file, ntrait, nclass, result.r, log); });
    result.log = log.text();
    return result;
}

TEST(Readrf, TakesRowsInAnyOrder) {
    const auto result = read_residual("2 2 0.1,4\n1 1 2\n\n  2 1 0.5 3 # rest\n1 2 1d0\n", 2, 2);

    ASSERT_EQ(result.message, "no fatal_error");
    EXPECT_EQ(result.log, "");
    ASSERT_EQ(result.r.size(), 2u);
    EXPECT_THAT(result.r[0].values(), ElementsAre(2, 0.5, 0.5, 3));
    EXPECT_THAT(result.r[1].values(), ElementsAre(1, 0.1, 0.1, 4));
}

TEST(Readrf, GoesOnWithAZeroMatrixForAMissingClass) {
    const auto result = read_residual("1 1 2\n1 3 5", 1, 3);

    ASSERT_EQ(result.message, "no fatal_error");
    EXPECT_EQ(result.log, "The class 2 of the residual covariance matrix is not provided!\n");
    EXPECT_EQ(result.r[1](0, 0), 0.0);
    EXPECT_EQ(result.r[2](0, 0), 5.0);
}

TEST(Readrf, RefusesAMatrixThatIsNotPositiveDefinite) {
    const auto indefinite = read_residual("1 1 1\n2 1 2 1\n1 2 1\n2 2 0 1\n", 2, 2);
    EXPECT_EQ(indefinite.message,
              "The residual matrix for the class 1 is not positive definite!\nFile " + indefinite.file);
    const auto row_missing = read_residual("1 1 1\n", 2, 1);
    EXPECT_THAT(row_missing.message,
                StartsWith("The residual matrix for the class 1 is not positive definite!"));
}

TEST(Readrf, RefusesBadLinesWithFileAndLine) {
    const auto refused = [](std::string_view text, std::string_view line_and_reason) {
        const auto result = read_residual(text, 2, 2);
        EXPECT_EQ(result.message, "The format of the residual covariance file is not correct!\nFile " +
                                      result.file + ", line " + std::string(line_and_reason));
        EXPECT_THAT(result.log, HasSubstr("modparameters % readrf ("));
    };
    refused("1 1 2\nx 1 2\n", "2: a row number and a class number were expected");
    refused("1\n1 1 2\n", "1: a row number and a class number were expected");
    refused("1 1 2\n\n3 1 2 2 2\n", "3: row 3 is not one of the 2 traits");
    refused("0 1 2\n", "1: row 0 is not one of the 2 traits");
    refused("-1 1 2\n", "1: row -1 is not one of the 2 traits");
    refused("1 3 2\n", "1: class 3 is not one of the 2 residual classes");
    refused("1 0 2\n", "1: class 0 is not one of the 2 residual classes");
    refused("1 1 abc\n", "1: 1 values were expected behind the row and class numbers");
    refused("2 1 0.5\n1 1 3\n", "1: 2 values were expected behind the row and class numbers");
    refused("1 1 3\n2 1 0.5\n", "2: 2 values were expected behind the row and class numbers");
    refused("2 1 0.5,,3\n", "1: 2 values were expected behind the row and class numbers");
    refused("1 1 nan\n", "1: 1 values were expected behind the row and class numbers");
    refused("1 1 inf\n", "1: 1 values were expected behind the row and class numbers");
    refused("99999999999 1 2\n", "1: a row number and a class number were expected");
}

TEST(Readrf, StopsWhenTheFileCannotBeOpened) {
    captured_log log;
    std::vector<matrix<double>> r;
    EXPECT_EQ(fatal_message([&] { readrf("/no/such/file", 1, 1, r, log); }),
              "Cannot open the file /no/such/file");
    EXPECT_THAT(log.text(),
                AllOf(HasSubstr("I/O ERROR: "), HasSubstr("With iostat = "), HasSubstr("With iomsg = ")));
}

TEST(Readrf, StopsWhenTheReadingFails) {
    if (!std::filesystem::exists("/proc/self/mem")) GTEST_SKIP() << "no file that opens and cannot be read";
    captured_log log;
    std::vector<matrix<double>> r;
    EXPECT_EQ(fatal_message([&] { readrf("/proc/self/mem", 1, 1, r, log); }),
              "Cannot read the file properly\nFile /proc/self/mem, line 0");
    EXPECT_THAT(log.text(), HasSubstr("I/O ERROR: "));
}

// ---- covariance files ------------------------------------------------------------------------------------

std::string read_matrix(std::string_view text, std::int32_t dim_g, matrix<double>& g,
                        std::string* logged = nullptr) {
    const test::temporary_directory folder;
    const std::string file = folder.write("g.txt", text).string();
    captured_log log;
    std::string message = fatal_message([&] { readgf(file, 4, dim_g, g, log); });
    if (logged != nullptr) *logged = log.text();
    if (const auto at = message.find(file); at != std::string::npos)
        message.replace(at, file.size(), "g.txt");
    return message;
}

TEST(Readgf, MirrorsTheLowerTriangle) {
    matrix<double> g;
    ASSERT_EQ(read_matrix("4 skipped\n\n-1,\n 5D0\n0.5 2\n 6\n", 3, g), "no fatal_error");
    EXPECT_THAT(g.values(), ElementsAre(4, -1, 0.5, -1, 5, 2, 0.5, 2, 6));
}

TEST(Readgf, StopsAtBadValuesWithFileLineAndRow) {
    matrix<double> g;
    std::string logged;
    EXPECT_EQ(read_matrix("1\n2 x\n", 2, g, &logged),
              "Cannot read the file properly\nFile g.txt, line 2, row 2 of 2 of the covariance matrix of the "
              "effect 4");
    EXPECT_THAT(logged, AllOf(HasSubstr("modparameters % readgf ("), HasSubstr("I/O ERROR: "),
                              HasSubstr("With iostat = "), HasSubstr("With iomsg = ")));
    EXPECT_THAT(read_matrix("1\n2\n", 2, g), StartsWith("Cannot read the file properly\nFile g.txt, line 2"));
    EXPECT_THAT(read_matrix("", 1, g), StartsWith("Cannot read the file properly\nFile g.txt, line 0"));
    EXPECT_THAT(read_matrix("1\n,2\n", 2, g),
                StartsWith("Cannot read the file properly\nFile g.txt, line 2"));
    EXPECT_THAT(read_matrix("nan\n", 1, g), StartsWith("Cannot read the file properly\nFile g.txt, line 1"));
}

TEST(Readgf, StopsWhenTheFileCannotBeOpened) {
    const test::temporary_directory folder;
    captured_log log;
    matrix<double> g;
    EXPECT_EQ(fatal_message([&] { readgf("/no/such/file", 1, 1, g, log); }),
              "Cannot open the file /no/such/file");
    EXPECT_THAT(log.text(), AllOf(HasSubstr("modparameters % readgf ("), HasSubstr("I/O ERROR: "),
                                  HasSubstr("With iostat = "), HasSubstr("With iomsg = ")));
    EXPECT_EQ(fatal_message([&] { readgf(folder.path().string(), 1, 1, g, log); }),
              "Cannot open the file " + folder.path().string());
}

// ---- inversion -------------------------------------------------------------------------------------------

/// One effect per random type, each with the matrix (2 1; 1 2) for two traits.
param_type random_effects(std::vector<std::int32_t> types) {
    param_type param;
    param.ntrait = 2;
    param.neffect = static_cast<std::int32_t>(types.size());
    allocpar(param);
    param.type_random = std::move(types);
    for (auto& g : param.g) {
        g = matrix<double>(2, 2, 1.0);
        g(0, 0) = g(1, 1) = 2.0;
    }
    param.dim_g.assign(param.g.size(), 2);
    return param;
}

class Invertg : public testing::Test {
  protected:
    test::temporary_directory folder_;
    test::working_directory inside_{folder_.path()};
    captured_log log_;
};

TEST_F(Invertg, InvertsTheMatricesOfTheRandomTypesThatHaveOne) {
    param_type param = random_effects({0, 1, 3, 5, 7, 9, 10, 20, 22, 23, 30, 103, 105, 109, 203});
    const matrix<double> before = param.g[0];

    invertg(param, log_);

    std::string expected_log;
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const std::int32_t type = param.type_random[e - 1];
        const bool inverted = type != 0 && (type < 20 || type > 100);
        const std::string number = std::to_string(e);
        EXPECT_EQ(folder_.exists("log_invcov_" + number + ".dat"), inverted) << type;
        if (!inverted) {
            EXPECT_EQ(param.g[e - 1], before) << type;
            continue;
        }
        expected_log += "Inversion of the (co)variance matrix for the effect " + number + "\n";
        EXPECT_NEAR(param.g[e - 1](0, 0), 2.0 / 3.0, 1e-15) << type;
        EXPECT_NEAR(param.g[e - 1](1, 0), -1.0 / 3.0, 1e-15) << type;
    }
    EXPECT_EQ(log_.text(), expected_log);
}

TEST_F(Invertg, PrintsTheMatrixBeforeAndAfterToALogOfItsOwn) {
    folder_.write("log_invcov_1.dat", "from an earlier run");
    param_type param = random_effects({1});

    invertg(param, log_);

    std::istringstream text(folder_.read("log_invcov_1.dat"));
    std::string line;
    std::getline(text, line);
    EXPECT_EQ(line, "Before inversion:");
    const auto row = [&text] {
        double a = 0.0, b = 0.0;
        text >> a >> b;
        return std::vector{a, b};
    };
    EXPECT_THAT(row(), ElementsAre(2, 1));
    EXPECT_THAT(row(), ElementsAre(1, 2));
    text >> std::ws;
    std::getline(text, line);
    EXPECT_EQ(line, "After inversion :");
    EXPECT_THAT(row(), ElementsAre(param.g[0](0, 0), param.g[0](0, 1)));
    EXPECT_THAT(row(), ElementsAre(param.g[0](1, 0), param.g[0](1, 1)));
    EXPECT_THAT(log_.text(), Not(HasSubstr("Before")));
}

TEST_F(Invertg, PutsOneInPlaceOfAZeroVariance) {
    param_type param = random_effects({3});
    param.g[0] = matrix<double>(2, 2);
    param.g[0](0, 0) = 4.0;
    param.lcheckpd = true;  // the check sees the matrix with the 1

    invertg(param, log_);

    EXPECT_THAT(param.g[0].values(), ElementsAre(0.25, 0, 0, 1));
}

TEST_F(Invertg, RefusesAMatrixThatIsNotPositiveDefiniteOnlyWhenAsked) {
    param_type param = random_effects({1, 1});
    param.g[1](0, 1) = param.g[1](1, 0) = 2.0;
    param_type checked = param;
    checked.lcheckpd = true;

    EXPECT_EQ(
        fatal_message([&] { invertg(checked, log_); }),
        "The covariance matrix for the effect 2 is (close to be) not positive definite. Smallest eigenvalue "
        "allowed: " +
            realtochar(0.0001, "(g0.3)"));
    EXPECT_THAT(log_.text(), HasSubstr("modparameters % invertg ("));

    invertg(param, log_);
    EXPECT_THAT(param.g[1].values(), ElementsAre(0.5, 0, 0, 0));
    EXPECT_THAT(log_.text(),
                HasSubstr("WARN: The (co)variance matrix for the effect 2 of order 2 has only rank "
                          "1: its inverse has zeros for the dependent rows\n"));
}

TEST_F(Invertg, StopsWithAMessageWhenItsLogCannotBeWritten) {
    std::filesystem::create_directory("log_invcov_1.dat");
    param_type param = random_effects({1});

    EXPECT_THAT(fatal_message([&] { invertg(param, log_); }), HasSubstr("log_invcov_1.dat"));

    EXPECT_THAT(log_.text(), HasSubstr("I/O ERROR: Cannot open the log file log_invcov_1.dat\n"));
}

}  // namespace
}  // namespace zendar
