#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "modbasic.hpp"
#include "modgeneral.hpp"
#include "modgeneral_test_model.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_text;
using test::small_model;
using test::solution_row;
using test::temporary_directory;
using ::testing::HasSubstr;

template <class T>
std::vector<T> counting(std::int64_t n) {
    std::vector<T> values;
    for (std::int64_t i = 1; i <= n; ++i) values.push_back(static_cast<T>(i));
    return values;
}

/// Values of all magnitudes and both signs, some of them zero.
std::vector<double> random_values(std::int64_t n, std::uint32_t seed) {
    std::mt19937 generator(seed);
    std::vector<double> values;
    for (std::int64_t i = 0; i < n; ++i) {
        const double mantissa = static_cast<double>(generator()) / 4294967296.0 * 2.0 - 1.0;
        values.push_back(
            generator() % 9 == 0 ? 0.0 : mantissa * std::pow(10.0, static_cast<int>(generator() % 20) - 10));
    }
    return values;
}

/// The text file that the rows of a model call for; `value` gives the text at an equation.
template <class Value>
std::string expected_text(const small_model& model, bool with_equation, std::int32_t offset, Value&& value) {
    std::string text;
    for (const solution_row& row : model.rows()) {
        if (with_equation) text += std::to_string(row.equation) + " ";
        text += std::to_string(row.t) + " " + std::to_string(row.e + offset) + " " + std::to_string(row.lev) +
                " " + std::to_string(row.k) + " " + value(row.equation - 1) + "\n";
    }
    return text;
}

template <class T>
void append(std::string& bytes, T value) {
    char raw[sizeof value];
    std::memcpy(raw, &value, sizeof value);
    bytes.append(raw, sizeof value);
}

std::string expected_stream(const small_model& model, std::span<const double> vector) {
    std::string bytes;
    append(bytes, std::int32_t{0});
    for (std::int32_t e = 1; e <= model.param.neffect; ++e) append(bytes, model.param.nx[e]);
    append(bytes, std::int32_t{0});
    for (const solution_row& row : model.rows()) {
        append(bytes, row.t);
        append(bytes, row.e);
        append(bytes, row.lev);
        append(bytes, row.k);
        append(bytes, vector[row.equation - 1]);
    }
    return bytes;
}

TEST(WriteoutputReal8, WritesAClassEffectByLevelThenTrait) {
    const small_model model(2, {{.nlevel = 2}});
    const temporary_directory here;
    captured_log log;

    writeoutput_real8_ori(model.param, std::vector<double>{1.5, -2.25, 0.0, 1234567.0},
                          here / "solutions.dat", log);

    EXPECT_EQ(here.read("solutions.dat"), "1 1 1 0 1.50000\n2 1 1 0 -2.25000\n1 1 2 0 " +
                                              format_real(0.0, "g0.6") + "\n2 1 2 0 " +
                                              format_real(1234567.0, "g0.6") + "\n");
    EXPECT_EQ(log.text(), "");
}

TEST(WriteoutputReal8, WritesACovariableByTraitThenCovariable) {
    const small_model model(3, {{.type = 1, .ncov = 2}});
    const temporary_directory here;
    captured_log log;

    writeoutput_int4_ori(model.param, counting<std::int32_t>(6), here / "x", log);

    EXPECT_EQ(here.read("x"), "1 1 0 1 1\n1 1 0 2 4\n2 1 0 1 2\n2 1 0 2 5\n3 1 0 1 3\n3 1 0 2 6\n");
}

TEST(WriteoutputReal8, WritesANestedCovariableByTraitThenLevelThenCovariable) {
    const small_model model(2, {{.nlevel = 1}, {.type = 1, .ncov = 2, .nnest = 2}});
    const temporary_directory here;
    captured_log log;

    writeoutput_int4_ori(model.param, counting<std::int32_t>(10), here / "x", log);

    EXPECT_EQ(here.read("x"),
              "1 1 1 0 1\n2 1 1 0 2\n"
              "1 2 1 1 3\n1 2 1 2 5\n1 2 2 1 7\n1 2 2 2 9\n"
              "2 2 1 1 4\n2 2 1 2 6\n2 2 2 1 8\n2 2 2 2 10\n");
}

TEST(WriteoutputReal8, WritesHugeEffectsAsCovariables) {
    for (const std::int32_t type : {2, 3}) {
        const small_model model(2, {{.type = type, .nlevel = 7, .ncov = 2}});
        const temporary_directory here;
        captured_log log;

        writeoutput_int4_ori(model.param, counting<std::int32_t>(4), here / "x", log);

        EXPECT_EQ(here.read("x"), "1 1 0 1 1\n1 1 0 2 3\n2 1 0 1 2\n2 1 0 2 4\n");
    }
}

TEST(WriteoutputReal8, AddsTheOffsetToTheEffect) {
    const small_model model(1, {{.nlevel = 1}, {.type = 1}});
    const temporary_directory here;
    captured_log log;

    writeoutput_int4(model.param, counting<std::int32_t>(2), here / "x", log, 12);
    writeoutput_neq_int4(model.param, counting<std::int32_t>(2), here / "y", log, 12);
    writeoutput_real8(model.param, counting<double>(2), here / "z", log, 2147483600);

    EXPECT_EQ(here.read("x"), "1 13 1 0 1\n1 14 0 1 2\n");
    EXPECT_EQ(here.read("y"), "1 1 13 1 0 1\n2 1 14 0 1 2\n");
    EXPECT_EQ(here.read("z"), "1 2147483601 1 0 1.00000\n1 2147483602 0 1 2.00000\n");
}

TEST(WriteoutputReal8, WritesNoRowsOfAnAbsorbedEffect) {
    const small_model model(1, {{.nlevel = 2}, {.nlevel = 1}, {.nlevel = 2}}, {1, 2, 1});
    const temporary_directory here;
    captured_log log;

    writeoutput_int4(model.param, counting<std::int32_t>(3), here / "x", log);

    EXPECT_EQ(here.read("x"), "1 1 1 0 1\n1 1 2 0 2\n1 2 1 0 3\n");
}

TEST(WriteoutputReal8, TakesTheValueOfTheTraitsSlotWhenEffectsAreCombined) {
    small_model model(3, {{.nlevel = 2}, {.type = 1, .ncov = 1}});
    model.param.lcombieff = true;
    for (std::int32_t t = 0; t < 3; ++t) model.param.combieff_trait(t, 0) = t == 1 ? 2 : 1;
    const temporary_directory here;
    captured_log log;

    writeoutput_int4(model.param, counting<std::int32_t>(9), here / "x", log);
    writeoutput_neq_int4(model.param, counting<std::int32_t>(9), here / "y", log);
    writeoutput_int4_ori(model.param, counting<std::int32_t>(9), here / "z", log);

    EXPECT_EQ(here.read("x"),
              "1 1 1 0 1\n2 1 1 0 2\n3 1 1 0 1\n1 1 2 0 4\n2 1 2 0 5\n3 1 2 0 4\n1 2 0 1 7\n2 2 0 1 8\n3 2 0 "
              "1 9\n");
    EXPECT_THAT(here.read("y"), HasSubstr("\n1 3 1 1 0 1\n4 1 1 2 0 4\n"));
    EXPECT_THAT(here.read("z"), HasSubstr("\n3 1 1 0 3\n"));
}

TEST(WriteoutputInt4, WritesTheExtremeIntegers) {
    const small_model model(1, {{.nlevel = 2}});
    const temporary_directory here;
    captured_log log;

    writeoutput_int4(model.param, std::vector<std::int32_t>{-2147483647 - 1, 2147483647}, here / "x", log);

    EXPECT_EQ(here.read("x"), "1 1 1 0 -2147483648\n1 1 2 0 2147483647\n");
}

TEST(WriteoutputstreamReal8, WritesTheHeaderAndTheRows) {
    const small_model model(1, {{.nlevel = 1}, {.type = 1, .ncov = 2}});
    const temporary_directory here;
    captured_log log;

    writeoutputstream_real8_ori(model.param, std::vector<double>{0.1, -0.2, 1e300}, here / "s.stream", log);

    std::string bytes;
    for (const std::int32_t n : {0, 1, 2, 0}) append(bytes, n);
    const solution_row rows[] = {{1, 1, 1, 0, 0}, {1, 2, 0, 1, 0}, {1, 2, 0, 2, 0}};
    const double values[] = {0.1, -0.2, 1e300};
    for (int i = 0; i < 3; ++i) {
        append(bytes, rows[i].t);
        append(bytes, rows[i].e);
        append(bytes, rows[i].lev);
        append(bytes, rows[i].k);
        append(bytes, values[i]);
    }
    EXPECT_EQ(here.read("s.stream"), bytes);
    EXPECT_EQ(bytes.size(), 4u * 4 + 3 * 24);
}

TEST(Writeoutput, GivesTheRowsOfRandomModelsInAllForms) {
    for (std::uint32_t seed = 1; seed <= 300; ++seed) {
        SCOPED_TRACE(seed);
        small_model model = test::random_model(seed);
        const auto real = random_values(model.param.neq, seed);
        const auto integer = counting<std::int32_t>(model.param.neq);
        const auto real_text = [&](std::int64_t i) { return format_real(real[i], "g0.6"); };
        const auto integer_text = [&](std::int64_t i) { return std::to_string(integer[i]); };
        const temporary_directory here;
        captured_log log;

        writeoutput_real8(model.param, real, here / "real", log);
        writeoutput_int4(model.param, integer, here / "int", log);
        writeoutput_neq_int4(model.param, integer, here / "neq", log);
        writeoutputstream_real8(model.param, real, here / "stream", log);

        ASSERT_EQ(here.read("real"), expected_text(model, false, 0, real_text));
        ASSERT_EQ(here.read("int"), expected_text(model, false, 0, integer_text));
        ASSERT_EQ(here.read("neq"), expected_text(model, true, 0, integer_text));
        ASSERT_EQ(here.read("stream"), expected_stream(model, real));

        // The named forms, whatever the model asks for.
        const bool combined = model.param.lcombieff;
        for (const bool combieff : {false, true}) {
            model.param.lcombieff = combieff;
            const auto text = expected_text(model, false, 3, real_text);
            const auto integers = expected_text(model, false, 3, integer_text);
            const auto numbered = expected_text(model, true, 3, integer_text);
            const auto stream = expected_stream(model, real);
            model.param.lcombieff = combined;
            (combieff ? writeoutput_real8_combieff : writeoutput_real8_ori)(model.param, real, here / "a",
                                                                            log, 3);
            (combieff ? writeoutput_int4_combieff : writeoutput_int4_ori)(model.param, integer, here / "b",
                                                                          log, 3);
            (combieff ? writeoutput_neq_int4_combieff : writeoutput_neq_int4_ori)(model.param, integer,
                                                                                  here / "c", log, 3);
            (combieff ? writeoutputstream_real8_combieff : writeoutputstream_real8_ori)(model.param, real,
                                                                                        here / "d", log);
            ASSERT_EQ(here.read("a"), text);
            ASSERT_EQ(here.read("b"), integers);
            ASSERT_EQ(here.read("c"), numbered);
            ASSERT_EQ(here.read("d"), stream);
        }
    }
}

TEST(Writeoutput, WritesMoreRowsThanABufferHolds) {
    const small_model model(3, {{.nlevel = 40000}});
    const auto real = random_values(model.param.neq, 5);
    const temporary_directory here;
    captured_log log;

    writeoutput_real8(model.param, real, here / "real", log);
    writeoutputstream_real8(model.param, real, here / "stream", log);

    EXPECT_EQ(here.read("real"),
              expected_text(model, false, 0, [&](std::int64_t i) { return format_real(real[i], "g0.6"); }));
    EXPECT_EQ(here.read("stream"), expected_stream(model, real));
}

TEST(Writeoutput, SaysWhichFileCannotBeWritten) {
    const small_model model(1, {{.nlevel = 20000}});
    const auto real = counting<double>(20000);
    const auto integer = counting<std::int32_t>(20000);
    const temporary_directory here;

    for (const std::filesystem::path& file :
         {std::filesystem::path("/dev/full"), here / "none/x", here.path()}) {
        captured_log log;
        const std::string text = "Cannot write the file " + file.string();
        EXPECT_EQ(fatal_text([&] { writeoutput_real8(model.param, real, file, log); }), text);
        EXPECT_EQ(fatal_text([&] { writeoutput_int4(model.param, integer, file, log); }), text);
        EXPECT_EQ(fatal_text([&] { writeoutput_neq_int4(model.param, integer, file, log); }), text);
        EXPECT_EQ(fatal_text([&] { writeoutputstream_real8(model.param, real, file, log); }), text);
        EXPECT_EQ(fatal_text([&] { write_raw_stream(real, file, log); }), text);
        for (const char* name : {"writeoutput_real8", "writeoutput_int4", "writeoutput_neq_int4",
                                 "writeoutputstream_real8", "write_raw_stream"})
            EXPECT_THAT(log.text(), HasSubstr("modgeneral % " + std::string(name) + " ("));
        EXPECT_THAT(log.text(), HasSubstr("I/O ERROR: " + text + "\n"));
        EXPECT_THAT(log.text(), HasSubstr("With iostat = "));
    }
    captured_log log;
    try {
        writeoutput_real8(model.param, real, "/dev/full", log);
        FAIL();
    } catch (const fatal_error& error) {
        EXPECT_NE(error.status(), 0);
    }
}

TEST(Writeoutput, KeepsTheOldFileUntilTheNewOneIsComplete) {
    small_model model(2, {{.nlevel = 2}, {.nlevel = 2}});
    model.param.lcombieff = true;
    model.param.combieff_trait(1, 1) = 3;
    const temporary_directory here;
    here.write("solutions.dat", "old\n");
    captured_log log;

    EXPECT_EQ(
        fatal_text([&] { writeoutput_real8(model.param, counting<double>(8), here / "solutions.dat", log); }),
        "Internal error: trait slot outside the traits for effect 2");
    EXPECT_EQ(here.read("solutions.dat"), "old\n");

    model.param.lcombieff = false;
    writeoutput_real8(model.param, counting<double>(8), here / "solutions.dat", log);
    EXPECT_THAT(here.read("solutions.dat"), HasSubstr("2 2 2 0 8.00000\n"));
}

TEST(Writeoutput, RefusesALayoutThatDoesNotFitTheEquations) {
    small_model model(1, {{.nlevel = 2}, {.nlevel = 2}});
    const auto real = counting<double>(4);
    const temporary_directory here;
    captured_log log;

    model.param.n_level[1] = 3;
    EXPECT_EQ(fatal_text([&] { writeoutput_real8(model.param, real, here / "x", log); }),
              "Internal error: effect 2 lies outside the equations");
    model.param.type_effect[0] = 4;
    EXPECT_EQ(fatal_text([&] { writeoutput_real8(model.param, real, here / "x", log); }),
              "Internal error: the type of effect 1 does not exist");
    EXPECT_FALSE(here.exists("x"));
}

TEST(WriteRawStream, WritesTheValuesWithoutAHeader) {
    const std::vector<double> values{0.1, -1e-300, 0.0};
    const temporary_directory here;
    captured_log log;

    write_raw_stream(values, here / "ca491pcn.bin", log);
    write_raw_stream({}, here / "empty.bin", log);

    std::string bytes;
    for (const double value : values) append(bytes, value);
    EXPECT_EQ(here.read("ca491pcn.bin"), bytes);
    EXPECT_TRUE(here.exists("empty.bin"));
    EXPECT_EQ(here.read("empty.bin"), "");
}

}  // namespace
}  // namespace zendar
