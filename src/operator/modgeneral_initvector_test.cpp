#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

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
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

/// What a file gives as starting values; the vector held other values before.
std::vector<double> initiated(const param_type& param, const std::string& file, captured_log& log) {
    std::vector<double> vector(static_cast<std::size_t>(param.neq), 99.0);
    initvectorfromfile_real8(param, vector, file, log);
    return vector;
}

std::vector<double> from_text(const param_type& param, std::string_view text, captured_log& log) {
    const temporary_directory here;
    return initiated(param, here.write("start.dat", text).string(), log);
}

/// The error of a text and the name of its file, which is taken out of the message.
std::string error_of_text(const param_type& param, std::string_view text) {
    const temporary_directory here;
    captured_log log;
    const std::string file = here.write("start.dat", text).string();
    std::string message = fatal_text([&] { initiated(param, file, log); });
    if (const auto at = message.find(file); at != std::string::npos) message.replace(at, file.size(), "FILE");
    return message;
}

/// Class effect of 2 levels, covariable of 2 coefficients, nested covariable of 2 levels with 2 coefficients,
/// huge effect of 2 coefficients; 2 traits.
small_model mixed_model() {
    return small_model(2, {{.nlevel = 2},
                           {.type = 1, .nlevel = 3, .ncov = 2},
                           {.type = 1, .nlevel = 3, .ncov = 2, .nnest = 2},
                           {.type = 2, .nlevel = 3, .ncov = 2}});
}

TEST(InitvectorfromfileReal8, PutsEveryRowOnItsEquation) {
    const small_model model = mixed_model();
    captured_log log;

    const auto vector = from_text(model.param,
                                  "2 1 2 0 1.5\n"
                                  "1 2 0 2 -2.5\n"
                                  "2 3 2 1 .5\n"
                                  "1 4 0 2 1E-3\n",
                                  log);

    std::vector<double> expected(20, 0.0);
    expected[4 - 1] = 1.5;
    expected[4 + 3 - 1] = -2.5;
    expected[8 + 6 - 1] = 0.5;
    expected[16 + 3 - 1] = 1e-3;
    EXPECT_EQ(vector, expected);
}

TEST(InitvectorfromfileReal8, LogsTheFileAndTheNumberOfRows) {
    const small_model model = mixed_model();
    const temporary_directory here;
    const std::string file = here.write("start.dat", "1 1 1 0 1.0\n2 1 1 0 2.0\n").string();
    captured_log log;

    initiated(model.param, file, log);

    EXPECT_EQ(log.text(), "Vector initiated from: " + file + "\nNumber of rows read from " + file + ": 2\n");
}

TEST(InitvectorfromfileReal8, WarnsOfAMissingFileAndGivesZeros) {
    const small_model model = mixed_model();
    captured_log log;

    for (const char* name : {"nowhere.dat", "nowhere.stream", "no/such/ca491pcn.bin"}) {
        EXPECT_THAT(initiated(model.param, name, log), Each(0.0));
        EXPECT_THAT(log.text(), HasSubstr("WARN: The file \"" + std::string(name) + "\" does not exist!\n"));
    }
    EXPECT_THAT(log.text(), HasSubstr("WARN: The vector will be set to 0\n"));
    EXPECT_THAT(log.text(), Not(HasSubstr("Vector initiated")));
}

TEST(InitvectorfromfileReal8, TakesWhatAListDirectedReadTakes) {
    const small_model model(1, {{.nlevel = 8}});
    captured_log log;

    const auto vector = from_text(model.param,
                                  "  1\t1 1   0\t1.5   and a comment\n"
                                  "\n"
                                  "1,1,2,0,2.5\n"
                                  "1 1 3 0 3.5D0\n"
                                  "2*1 4 0 4\n"
                                  "+1 +1 +5\n"
                                  " 0\n"
                                  "+5.5\n"
                                  "1 1 6 0 6.5\r\n"
                                  "1 1 7 0 -.75E+01 1 1 8 0 9\n"
                                  "1 1 8 0 8.5\n"
                                  "  \n"
                                  "\n",
                                  log);

    EXPECT_THAT(vector, ElementsAre(1.5, 2.5, 3.5, 4.0, 5.5, 6.5, -7.5, 8.5));
    EXPECT_THAT(log.text(), HasSubstr(": 8\n"));
}

TEST(InitvectorfromfileReal8, TakesAnEmptyFileAndALastLineWithoutAnEnd) {
    const small_model model(1, {{.nlevel = 2}});
    captured_log log;

    EXPECT_THAT(from_text(model.param, "", log), Each(0.0));
    EXPECT_THAT(log.text(), HasSubstr(": 0\n"));
    EXPECT_THAT(from_text(model.param, "1 1 2 0 7", log), ElementsAre(0.0, 7.0));
}

TEST(InitvectorfromfileReal8, StopsAtARowThatCannotBeRead) {
    const small_model model(1, {{.nlevel = 2}});

    EXPECT_EQ(error_of_text(model.param, "1 1 1 0 1.0\n1 1 x 0 1.0\n"),
              "Cannot read the solution in line 2 of the file FILE");
    EXPECT_EQ(error_of_text(model.param, "1 1 1.5 0 1.0\n"),
              "Cannot read the solution in line 1 of the file FILE");
    EXPECT_EQ(error_of_text(model.param, "1 1 1 0 1.0.0\n"),
              "Cannot read the solution in line 1 of the file FILE");
    EXPECT_EQ(error_of_text(model.param, "1 1 99999999999 0 1.0\n"),
              "Cannot read the solution in line 1 of the file FILE");
    EXPECT_EQ(error_of_text(model.param, "1 1 1 0 1.0\n1 1 2 0\n"),
              "Cannot read the solution in line 2 of the file FILE");
    EXPECT_EQ(error_of_text(model.param, "1 1 1 0 1.0\n\n\n1 1 2 0\n"),
              "Cannot read the solution in line 4 of the file FILE");
}

TEST(InitvectorfromfileReal8, StopsAtARowThatFitsNoEquation) {
    const small_model model = mixed_model();
    const auto error = [](std::string_view row) {
        return error_of_text(mixed_model().param, "1 1 1 0 1.0\n" + std::string(row));
    };
    const std::string prefix = "Internal error: row 2 of the file FILE has no equation in the model ";

    EXPECT_EQ(error("1 5 1 0 1.0\n"), prefix + "(trait 1, effect 5, level 1, covariable 0)");
    EXPECT_THAT(error("1 0 1 0 1.0\n"), StartsWith(prefix));
    EXPECT_THAT(error("1 -2147483648 1 0 1.0\n"), StartsWith(prefix));
    EXPECT_THAT(error("1 1 11 0 1.0\n"), StartsWith(prefix));  // equation 21 of 20
    EXPECT_THAT(error("1 1 0 0 1.0\n"), StartsWith(prefix));   // equation -1
    EXPECT_THAT(error("2147483647 3 2147483647 2147483647 1.0\n"), StartsWith(prefix));
    EXPECT_THAT(error("-2147483648 3 -2147483648 -2147483648 1.0\n"), StartsWith(prefix));

    param_type strange = model.param;
    strange.type_effect[3] = 4;
    EXPECT_EQ(
        error_of_text(strange, "1 4 0 1 1.0\n"),
        "Internal error: row 1 of the file FILE has no equation in the model (trait 1, effect 4, level 0, "
        "covariable 1)");
}

TEST(InitvectorfromfileReal8, LetsOtherLevelsLandOnOtherEquations) {
    const small_model model = mixed_model();
    captured_log log;

    const auto vector = from_text(model.param, "1 1 10 0 1.0\n2 2 0 -1 2.0\n3 1 1 0 3.0\n", log);

    EXPECT_EQ(vector[18], 1.0);  // level 10 of effect 1
    EXPECT_EQ(vector[1], 2.0);   // covariable -1 of effect 2
    EXPECT_EQ(vector[2], 3.0);   // trait 3 of two
}

TEST(InitvectorfromfileReal8, ReadsCombinedTraitsIntoTheirSlot) {
    small_model model(3, {{.nlevel = 2}});
    model.param.lcombieff = true;
    for (std::int32_t t = 0; t < 3; ++t) model.param.combieff_trait(t, 0) = 2;
    captured_log log;

    EXPECT_THAT(from_text(model.param, "1 1 1 0 5.0\n2 1 1 0 5.0\n3 1 1 0 5.0\n3 1 2 0 6.0\n", log),
                ElementsAre(0, 5, 0, 0, 6, 0));
    EXPECT_THAT(error_of_text(model.param, "4 1 1 0 5.0\n"), StartsWith("Internal error: row 1 "));
    EXPECT_THAT(error_of_text(model.param, "0 1 1 0 5.0\n"), StartsWith("Internal error: row 1 "));
}

TEST(InitvectorfromfileReal8, ReadsAnAbsorbedEffectIntoTheEquationsOfItsOwner) {
    const small_model model(1, {{.nlevel = 2}, {.nlevel = 2}, {.nlevel = 2}}, {1, 2, 1});
    captured_log log;

    EXPECT_THAT(from_text(model.param, "1 3 2 0 5.0\n1 2 1 0 6.0\n", log), ElementsAre(0, 5, 6, 0));
}

TEST(InitvectorfromfileReal8, ReadsTheRawVector) {
    const small_model model(1, {{.nlevel = 3}});
    const temporary_directory here;
    const std::string file = (here / "ca491pcn.bin").string();
    captured_log log;
    write_raw_stream(std::vector<double>{0.1, -2e-300, 3.0}, file, log);

    EXPECT_THAT(initiated(model.param, file, log), ElementsAre(0.1, -2e-300, 3.0));
    EXPECT_EQ(log.text(), "Vector initiated from: " + file + "\nNumber of rows read from " + file + ": 3\n");
}

TEST(InitvectorfromfileReal8, WarnsOfADamagedRawVectorAndGivesZeros) {
    const small_model model(1, {{.nlevel = 3}});
    const temporary_directory here;
    const std::string file = (here / "ca491pcn.bin").string();

    for (const std::size_t bytes : {0, 16, 23, 25, 32}) {
        captured_log log;
        here.write("ca491pcn.bin", std::string(bytes, 'x'));
        EXPECT_THAT(initiated(model.param, file, log), Each(0.0));
        EXPECT_THAT(log.text(), AllOf(HasSubstr("WARN: Issue while reading binary file: " + file + "\n"),
                                      HasSubstr("WARN: The vector will be set to 0\n"),
                                      Not(HasSubstr("Vector initiated"))));
    }
    for (const double odd :
         {std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::infinity()}) {
        captured_log log;
        write_raw_stream(std::vector<double>{1.0, odd, 3.0}, file, log);
        EXPECT_THAT(initiated(model.param, file, log), Each(0.0));
        EXPECT_THAT(log.text(), HasSubstr("WARN: Issue while reading binary file: " + file + "\n"));
    }
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    captured_log log;
    EXPECT_THAT(initiated(model.param, file, log), Each(0.0));
    EXPECT_THAT(log.text(), HasSubstr("WARN: Issue while reading binary file: " + file + "\n"));
}

TEST(InitvectorfromfileReal8, RefusesRowsWithAValueThatIsNotFinite) {
    const small_model model(1, {{.nlevel = 3}});
    captured_log log;

    for (const char* value : {"NaN", "-Infinity"})
        EXPECT_THAT(fatal_text([&] {
                        from_text(model.param, "1 1 1 0 2.0\n1 1 2 0 " + std::string(value) + "\n", log);
                    }),
                    MatchesRegex("Row 2 of the file .* has a value that is not finite"));
}

TEST(InitvectorfromfileReal8, SaysWhichFileCannotBeRead) {
    const small_model model(1, {{.nlevel = 3}});
    const temporary_directory here;
    captured_log log;

    for (const char* name : {"start.dat", "start.stream"}) {
        std::filesystem::create_directory(here / name);
        const std::string file = (here / name).string();
        EXPECT_EQ(fatal_text([&] { initiated(model.param, file, log); }), "Cannot read the file " + file);
        EXPECT_THAT(log.text(), HasSubstr("I/O ERROR: Cannot read the file " + file));
    }
}

template <class T>
void append(std::string& bytes, T value) {
    char raw[sizeof value];
    std::memcpy(raw, &value, sizeof value);
    bytes.append(raw, sizeof value);
}

std::string stream_bytes(const std::vector<std::int32_t>& header,
                         const std::vector<std::array<std::int32_t, 4>>& rows) {
    std::string bytes;
    for (const auto n : header) append(bytes, n);
    double value = 0.5;
    for (const auto& row : rows) {
        for (const auto n : row) append(bytes, n);
        append(bytes, value++);
    }
    return bytes;
}

TEST(InitvectorfromfileReal8, ReadsAStreamFile) {
    const small_model model(1, {{.nlevel = 2}, {.type = 1, .ncov = 2}});
    const temporary_directory here;
    const std::string file =
        here.write("a.stream", stream_bytes({0, 1, 2, 0}, {{1, 2, 0, 2}, {1, 1, 1, 0}, {1, 1, 3, 0}}))
            .string();
    captured_log log;

    EXPECT_THAT(initiated(model.param, file, log), ElementsAre(1.5, 0, 2.5, 0.5));
    EXPECT_EQ(log.text(), "Vector initiated from: " + file + "\nNumber of rows read from " + file + ": 3\n");
}

TEST(InitvectorfromfileReal8, StopsAtAStreamFileOfAnotherModel) {
    const small_model model(1, {{.nlevel = 2}, {.type = 1, .ncov = 2}});
    const temporary_directory here;
    const auto error = [&](const std::string& bytes) {
        captured_log log;
        const std::string file = here.write("a.stream", bytes).string();
        std::string message = fatal_text([&] { initiated(model.param, file, log); });
        if (const auto at = message.find(file); at != std::string::npos)
            message.replace(at, file.size(), "FILE");
        return message;
    };
    const std::string other =
        "The file FILE was written for another model: its coefficient columns do not fit!";

    EXPECT_EQ(error(""), other);
    EXPECT_EQ(error(stream_bytes({0, 1, 2}, {})), other);
    EXPECT_EQ(error(stream_bytes({0, 1, 3, 0}, {{1, 1, 1, 0}})), other);
    EXPECT_EQ(error(stream_bytes({0, 1, 2, 1, 0}, {{1, 1, 1, 0}})), other);
    EXPECT_EQ(error(stream_bytes({0, 1, 2, 0}, {})), "");
    std::string bytes = stream_bytes({0, 1, 2, 0}, {{1, 1, 1, 0}, {1, 1, 2, 0}});
    bytes.pop_back();
    EXPECT_EQ(error(bytes), "The file FILE ends within row 2!");
    EXPECT_EQ(
        error(stream_bytes({0, 1, 2, 0}, {{1, 1, 1, 0}, {1, 3, 1, 0}})),
        "Internal error: row 2 of the file FILE has no equation in the model (trait 1, effect 3, level 1, "
        "covariable 0)");
    EXPECT_THAT(error(stream_bytes({0, 1, 2, 0}, {{1, 1, 5, 0}})),
                StartsWith("Internal error: row 1 of the file FILE"));
}

TEST(InitvectorfromfileReal8, ReadsBackWhatTheWritersWriteForRandomModels) {
    for (std::uint32_t seed = 1; seed <= 300; ++seed) {
        SCOPED_TRACE(seed);
        const small_model model = test::random_model(seed);
        const param_type& param = model.param;
        std::mt19937 generator(seed);
        std::vector<double> vector(static_cast<std::size_t>(param.neq), 0.0);
        // Slots that no trait points to stay empty.
        for (const auto& row : model.rows())
            vector[row.equation - 1] = (static_cast<double>(generator()) / 4294967296.0 - 0.5) *
                                       std::pow(10.0, static_cast<int>(generator() % 14) - 7);
        const temporary_directory here;
        captured_log log;

        writeoutput_real8(param, vector, here / "solutions.dat", log);
        writeoutputstream_real8(param, vector, here / "solutions.stream", log);
        write_raw_stream(vector, here / "ca491pcn.bin", log);

        const auto text = initiated(param, (here / "solutions.dat").string(), log);
        for (std::size_t i = 0; i < vector.size(); ++i)
            ASSERT_NEAR(text[i], vector[i], 0.5000001e-5 * std::abs(vector[i]));
        ASSERT_EQ(initiated(param, (here / "solutions.stream").string(), log), vector);
        ASSERT_EQ(initiated(param, (here / "ca491pcn.bin").string(), log), vector);
    }
}

TEST(InitvectorfromfileReal8, ReadsAStreamLongerThanItsBlock) {
    const small_model model(3, {{.nlevel = 7001}});
    std::vector<double> vector;
    for (std::int32_t i = 0; i < model.param.neq; ++i) vector.push_back(1.0 / (i + 3));
    const temporary_directory here;
    captured_log log;

    writeoutputstream_real8(model.param, vector, here / "x.stream", log);

    EXPECT_EQ(initiated(model.param, (here / "x.stream").string(), log), vector);
}

}  // namespace
}  // namespace zendar
