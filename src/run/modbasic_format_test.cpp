#include "modbasic.hpp"

#include <gmock/gmock.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <stdexcept>

#include "places.hpp"

namespace zendar {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

struct table_row {
    std::string descriptor, bits, text;

    [[nodiscard]] std::uint64_t value() const {
        std::uint64_t number = 0;
        std::from_chars(bits.data(), bits.data() + bits.size(), number, 16);
        return number;
    }
};

std::vector<table_row> format_table() {
    std::ifstream file(test::source_folder() / "tests/data/format_table.txt");
    std::vector<table_row> rows;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with('#')) continue;
        const std::size_t first = line.find('|');
        const std::size_t second = line.find('|', first + 1);
        rows.push_back({line.substr(0, first), line.substr(first + 1, second - first - 1),
                        line.substr(second + 1, line.rfind('|') - second - 1)});
    }
    return rows;
}

std::string formatted(const table_row& row) {
    const std::uint64_t bits = row.value();
    const auto real32 = std::bit_cast<float>(static_cast<std::uint32_t>(bits));
    if (row.descriptor == "list_real64") return list_form(std::bit_cast<double>(bits));
    if (row.descriptor == "list_real32") return list_form(real32);
    if (row.descriptor == "list_int32") return list_form(static_cast<std::int32_t>(bits));
    if (row.descriptor == "list_int64") return list_form(static_cast<std::int64_t>(bits));
    if (row.descriptor.starts_with("s:")) return realtochar(real32, row.descriptor.substr(2));
    if (row.descriptor.starts_with("i:"))
        return format_int(static_cast<std::int64_t>(bits), row.descriptor.substr(2));
    return format_real(std::bit_cast<double>(bits), row.descriptor);
}

/// The compiler of the table writes the exponent of g0 and g0.d with the fewest digits ("E-1"); our files
/// have at least two ("E-01"), as every other descriptor.
std::string with_two_exponent_digits(const table_row& row) {
    std::string text = row.text;
    if (!row.descriptor.starts_with("g0") && !row.descriptor.starts_with("s:g0")) return text;
    const std::size_t sign = text.find_first_of("+-", 1);
    if (sign != std::string::npos && sign + 2 == text.size()) text.insert(sign + 1, "0");
    return text;
}

std::string g06(double x) {
    char text[16];
    return {text, write_g06(text, x)};
}

TEST(FormatTable, IsMetByteForByte) {
    const auto rows = format_table();

    ASSERT_GE(rows.size(), 1000U);
    for (const table_row& row : rows) {
        const bool trimmed = row.descriptor.starts_with("s:");  // realtochar gives no blanks
        const std::string text = with_two_exponent_digits(row);
        EXPECT_EQ(formatted(row), trimmed ? std::string(trim(text)) : text)
            << row.descriptor << ' ' << row.bits;
    }
}

TEST(FormatTable, IsMetByTheFastForm) {
    std::int32_t compared = 0;
    for (const table_row& row : format_table()) {
        if (row.descriptor != "g0.6") continue;
        EXPECT_EQ(g06(std::bit_cast<double>(row.value())), with_two_exponent_digits(row)) << row.bits;
        ++compared;
    }
    EXPECT_GE(compared, 90);
}

TEST(FormatReal, TakesDescriptorsInParenthesesAndEitherCase) {
    EXPECT_EQ(format_real(0.5, "(f0.3)"), ".500");
    EXPECT_EQ(format_real(0.5, "( F8.3 )"), "   0.500");
    EXPECT_EQ(format_real(12.3456, "(E12.5)"), " 0.12346E+02");
    EXPECT_EQ(format_real(12.3456, "(G0.5)"), "12.346");
}

TEST(FormatReal, RoundsTiesToEven) {
    EXPECT_EQ(format_real(0.5, "f0.0"), "0.");
    EXPECT_EQ(format_real(1.5, "f0.0"), "2.");
    EXPECT_EQ(format_real(2.5, "f0.0"), "2.");
    EXPECT_EQ(format_real(0.125, "f0.2"), ".12");
    EXPECT_EQ(format_real(0.375, "f0.2"), ".38");
}

TEST(FormatReal, RoundsTheExactValueWhereAGeneralFormSwitches) {
    EXPECT_EQ(format_real(99.99995, "g0.6"), "99.9999");  // 99.9999499999999983...
    EXPECT_EQ(format_real(99999.95, "g0.6"), "99999.9");  // 99999.9499999999970...
    EXPECT_EQ(format_real(0.95, "g0.1"), "0.9");          // 0.9499999999999999555...
    EXPECT_EQ(format_real(std::nextafter(99.99995, 100.0), "g0.6"), "100.000");
}

TEST(FormatReal, HasNoLimitOnTheDigitsOfAFixedForm) {
    EXPECT_EQ(format_real(0x1p-20, "f0.25"), ".0000009536743164062500000");
    EXPECT_EQ(format_real(1e23, "f0.1"), "99999999999999991611392.0");
    const std::string longest = format_real(-std::numeric_limits<double>::max(), "f0.9999");
    EXPECT_EQ(longest.size(), 1U + 309U + 1U + 9999U);
    EXPECT_TRUE(longest.starts_with("-17976931348623157081452742373170435679807056752584499659891747680315"));
}

TEST(FormatReal, RefusesOtherDescriptors) {
    for (const char* descriptor : {"",         "()",
                                   "f",        "f5",
                                   "f.3",      "f0.",
                                   "f-1.2",    "f1.2x",
                                   "(f0.3",    "e12",
                                   "e0.5",     "e12.0",
                                   "g",        "g10",
                                   "g10.0",    "g0.-1",
                                   "x3.1",     "i5",
                                   "es12.5",   "f10000.1",
                                   "f0.10000", "f99999999999999999999.1",
                                   "f 8.3",    "*"})
        EXPECT_THROW(format_real(1.0, descriptor), std::invalid_argument) << descriptor;
}

TEST(FormatInt, FillsItsWidth) {
    EXPECT_EQ(format_int(42, "i0"), "42");
    EXPECT_EQ(format_int(42, "(I6)"), "    42");
    EXPECT_EQ(format_int(-42, "i2"), "**");
}

TEST(FormatInt, RefusesOtherDescriptors) {
    for (const char* descriptor : {"", "i", "i-1", "i5.2", "f0.2", "g0", "i5x", "i10000"})
        EXPECT_THROW(format_int(1, descriptor), std::invalid_argument) << descriptor;
}

TEST(Realtochar, LeavesNoBlanks) {
    EXPECT_EQ(realtochar(0.5, "(f8.3)"), "0.500");
    EXPECT_EQ(realtochar(1.5, "(g14.6)"), "1.50000");
    EXPECT_EQ(realtochar(-infinity, "(e12.5)"), "-Infinity");
}

TEST(Realtochar, HasTheDigitsOfSinglePrecision) {
    EXPECT_EQ(realtochar(0.1F, "(g0)"), "0.100000001");
    EXPECT_EQ(realtochar(double{0.1F}, "(g0)"), "0.10000000149011612");
}

TEST(ListForm, HasItsWidth) {
    EXPECT_EQ(list_form(std::int32_t{1}), "           1");
    EXPECT_EQ(list_form(std::int64_t{1}), "                    1");
    EXPECT_EQ(list_form(1.0), "   1.0000000000000000     ");
    EXPECT_EQ(list_form(1.0F), "   1.00000000    ");
    EXPECT_EQ(list_form(std::numeric_limits<std::int32_t>::min()).size(), 12U);
    EXPECT_EQ(list_form(std::numeric_limits<std::int64_t>::min()).size(), 21U);
    EXPECT_EQ(list_form(-std::numeric_limits<double>::denorm_min()).size(), 26U);
    EXPECT_EQ(list_form(-std::numeric_limits<float>::max()).size(), 17U);
}

TEST(ListForm, GivesEveryNumberBack) {
    std::mt19937_64 random(1);
    for (std::int32_t i = 0; i < 20000; ++i) {
        const auto x = std::bit_cast<double>(random());
        if (!std::isfinite(x)) continue;
        const std::string text(trim(list_form(x)));
        double back = 0.0;
        std::from_chars(text.data(), text.data() + text.size(), back);
        ASSERT_EQ(back, x) << text;
    }
}

/// Compares both forms and checks that nothing is written behind the sixteenth character.
void expect_same_g06(double x) {
    char text[24];
    std::memset(text, '~', sizeof text);
    const char* end = write_g06(text, x);
    ASSERT_LE(end - text, 16);
    ASSERT_EQ(std::string(text + 16, 8), "~~~~~~~~");
    ASSERT_EQ(std::string(text, static_cast<std::size_t>(end - text)), format_real(x, "g0.6"))
        << std::hex << std::bit_cast<std::uint64_t>(x);
}

TEST(WriteG06, AgreesWithFormatRealOnRandomBits) {
    std::mt19937_64 random(20240611);
    for (std::int32_t i = 0; i < 1000000; ++i)
        ASSERT_NO_FATAL_FAILURE(expect_same_g06(std::bit_cast<double>(random())));
}

TEST(WriteG06, AgreesWithFormatRealOnNumbersOfDailySize) {
    std::mt19937_64 random(7);
    std::normal_distribution<> normal;
    for (std::int32_t i = 0; i < 300000; ++i)
        ASSERT_NO_FATAL_FAILURE(expect_same_g06(normal(random) * std::pow(10.0, i % 13 - 6)));
}

TEST(WriteG06, AgreesWithFormatRealAroundPowersOfTen) {
    for (std::int32_t power = -324; power <= 308; ++power) {
        const std::string text = "1e" + std::to_string(power);
        double x = 0.0;
        std::from_chars(text.data(), text.data() + text.size(), x);
        const auto bits = static_cast<std::int64_t>(std::bit_cast<std::uint64_t>(x));
        for (std::int64_t near = bits - 100; near <= bits + 100; ++near)
            ASSERT_NO_FATAL_FAILURE(expect_same_g06(std::bit_cast<double>(near)));
    }
}

TEST(WriteG06, AgreesWithFormatRealNextToTheMiddleOfTwoResults) {
    std::mt19937_64 random(3);
    for (std::int32_t i = 0; i < 100000; ++i) {
        const std::string text = std::to_string(100000 + random() % 900000) + ".5e" +
                                 std::to_string(static_cast<std::int32_t>(random() % 620) - 315);
        double x = 0.0;
        std::from_chars(text.data(), text.data() + text.size(), x);
        for (const double near : {std::nextafter(x, 0.0), x, std::nextafter(x, infinity)})
            ASSERT_NO_FATAL_FAILURE(expect_same_g06(near)) << text;
    }
}

TEST(WriteG06, AgreesWithFormatRealOnTies) {
    for (std::int32_t i = 199980; i < 2000100; i += 7) ASSERT_NO_FATAL_FAILURE(expect_same_g06(0.5 * i));
    for (std::int32_t i = 0; i < 100000; ++i) ASSERT_NO_FATAL_FAILURE(expect_same_g06(1234565.0 + 10.0 * i));
}

TEST(WriteG06, AgreesWithFormatRealOnFewBits) {
    for (std::int32_t power = -1074; power < 1024; ++power)
        for (std::int32_t significand = 1; significand < 150; significand += 2)
            ASSERT_NO_FATAL_FAILURE(expect_same_g06(-std::ldexp(significand, power)));
}

TEST(WriteG06, WritesSpecialValues) {
    EXPECT_EQ(g06(0.0), "0.00000");
    EXPECT_EQ(g06(-0.0), "-0.00000");
    EXPECT_EQ(g06(infinity), "Inf");
    EXPECT_EQ(g06(-infinity), "-Inf");
    EXPECT_EQ(g06(std::numeric_limits<double>::quiet_NaN()), "NaN");
    EXPECT_EQ(g06(std::numeric_limits<double>::denorm_min()), "0.494066E-323");
    EXPECT_EQ(g06(-std::numeric_limits<double>::max()), "-0.179769E+309");
}

TEST(WriteI0, WritesWhatInttocharGives) {
    std::mt19937_64 random(5);
    for (std::int32_t i = 0; i < 10000; ++i) {
        const auto n = static_cast<std::int64_t>(random()) >> (i % 64);
        char text[20];
        ASSERT_EQ(std::string(text, write_i0(text, n)), std::to_string(n));
    }
}

}  // namespace
}  // namespace zendar
