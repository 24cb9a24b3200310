#include <gmock/gmock.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <limits>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using testing::ElementsAre;

text_reader text_of(std::string text) {
    text_reader input;
    input.open_text(std::move(text), "text");
    return input;
}

/// The words of one statement, as many as there are.
std::vector<std::string> all_words(const std::string& text) {
    text_reader input = text_of(text);
    list_read read(input);
    std::vector<std::string> words;
    for (std::string word = "null"; read.get(word).ok(); word = "null") words.push_back(word);
    return words;
}

template <class T>
void expect_error(const std::string& text, T, const std::string& message, std::int32_t iostat = 5010) {
    text_reader input = text_of(text);
    list_read read(input);
    T value{};
    read_status status;
    while (status.ok()) {
        value = T{};
        status = read.get(value);
    }
    EXPECT_EQ(status.iomsg, message) << text;
    EXPECT_EQ(status.iostat, iostat) << text;
    EXPECT_EQ(value, T{}) << text;
}

double real_of(const std::string& word) {
    double value = -99.0;
    const read_status status = parse_number(word, value);
    EXPECT_TRUE(status.ok()) << word << ": " << status.iomsg;
    return value;
}

TEST(ListRead, SplitsAtBlanksTabsAndCommas) {
    EXPECT_THAT(all_words("a b\tc,d , e\t,\tf"), ElementsAre("a", "b", "c", "d", "e", "f"));
}

TEST(ListRead, GoesOnOverLinesAndSkipsEmptyOnes) {
    EXPECT_THAT(all_words("\n  \na b\n\n\t\nc\n"), ElementsAre("a", "b", "c"));
}

TEST(ListRead, TakesTheCommaOnTheNextLineAsTheSeparator) {
    EXPECT_THAT(all_words("a\n,b,\nc\n"), ElementsAre("a", "b", "c"));
}

TEST(ListRead, KnowsNullValues) {
    EXPECT_THAT(all_words(",a"), ElementsAre("null", "a"));
    EXPECT_THAT(all_words("a,,b"), ElementsAre("a", "null", "b"));
    EXPECT_THAT(all_words("a , , , b"), ElementsAre("a", "null", "null", "b"));
    EXPECT_THAT(all_words("a,\n,b"), ElementsAre("a", "null", "b"));
    EXPECT_THAT(all_words("2* b"), ElementsAre("null", "null", "b"));
    EXPECT_THAT(all_words("2*,b"), ElementsAre("null", "null", "b"));
    EXPECT_THAT(all_words("1*,,b"), ElementsAre("null", "null", "b"));
}

TEST(ListRead, KeepsTheValueOfAVariableAtANull) {
    text_reader input = text_of("1,,3,2*");
    list_read read(input);
    std::array<std::int32_t, 5> values = {-1, -2, -3, -4, -5};

    EXPECT_TRUE(read.get(std::span<std::int32_t>(values)).ok());

    EXPECT_THAT(values, ElementsAre(1, -2, 3, -4, -5));
}

TEST(ListRead, RepeatsValues) {
    text_reader input = text_of("2*7 3*0.5,1");
    list_read read(input);
    std::array<double, 6> values{};

    EXPECT_TRUE(read.get(std::span<double>(values)).ok());

    EXPECT_THAT(values, ElementsAre(7.0, 7.0, 0.5, 0.5, 0.5, 1.0));
}

TEST(ListRead, RepeatsWords) {
    EXPECT_THAT(all_words("2*ab 2*'c d' 1*e"), ElementsAre("ab", "ab", "c d", "c d", "e"));
}

TEST(ListRead, SharesARepeatedValueAmongVariablesOfDifferentType) {
    text_reader input = text_of("4*12");
    list_read read(input);
    std::int32_t short_integer = 0;
    std::int64_t long_integer = 0;
    double real = 0.0;
    std::string word;

    EXPECT_TRUE(read.get(short_integer).ok());
    EXPECT_TRUE(read.get(long_integer).ok());
    EXPECT_TRUE(read.get(real).ok());
    EXPECT_TRUE(read.get(word).ok());

    EXPECT_EQ(short_integer, 12);
    EXPECT_EQ(long_integer, 12);
    EXPECT_EQ(real, 12.0);
    EXPECT_EQ(word, "12");
}

TEST(ListRead, DropsUnusedRepeatsAndTheRestOfTheLineAtTheEnd) {
    text_reader input = text_of("1 5*2 9\n3 4\n");
    std::int32_t value = 0;
    {
        list_read read(input);
        EXPECT_TRUE(read.get(value).ok());
        EXPECT_TRUE(read.get(value).ok());
    }
    list_read read(input);

    EXPECT_TRUE(read.get(value).ok());

    EXPECT_EQ(value, 3);
    EXPECT_EQ(input.line_number(), 2);
}

TEST(ListRead, ConsumesNoLineWithoutAnItem) {
    text_reader input = text_of("1\n2\n");
    { const list_read read(input); }

    EXPECT_EQ(input.line(), "1");
}

TEST(ListRead, TakesQuotesOffWords) {
    EXPECT_THAT(all_words("'a b' \"c, d\",'' e"), ElementsAre("a b", "c, d", "", "e"));
    EXPECT_THAT(all_words("'it''s' \"a\"\"b\" \"it's\""), ElementsAre("it's", "a\"b", "it's"));
    EXPECT_THAT(all_words("O'Brien 5\""), ElementsAre("O'Brien", "5\""));
}

TEST(ListRead, RefusesBrokenQuotes) {
    expect_error("a 'b c", std::string(), "Missing end of the quoted word in item 2 of list input");
    expect_error("'a'b c", std::string(), "Invalid string input in item 1");
    expect_error("'", std::string(), "Missing end of the quoted word in item 1 of list input");
    expect_error("'''", std::string(), "Missing end of the quoted word in item 1 of list input");
}

TEST(ListRead, TakesASlashAsAnOrdinaryCharacter) {
    EXPECT_THAT(all_words("data/ped.txt / b"), ElementsAre("data/ped.txt", "/", "b"));
    expect_error("1 2/ 3", std::int32_t{}, "Bad integer for item 2 in list input");
    expect_error("1 /", double{}, "Bad real number in item 2 of list input");
}

TEST(ListRead, TakesAStarWithoutCountAsAnOrdinaryCharacter) {
    EXPECT_THAT(all_words("* a*b 2x*c"), ElementsAre("*", "a*b", "2x*c"));
    expect_error("-2*3", std::int32_t{}, "Bad integer for item 1 in list input");
    expect_error("2*3*4", std::int32_t{}, "Bad integer for item 1 in list input");
}

TEST(ListRead, RefusesBadRepeatCounts) {
    expect_error("1 0*3", std::int32_t{}, "Zero repeat count in item 2 of list input");
    expect_error("99999999999999999999*3", double{}, "Repeat count overflow in item 1 of list input");
}

TEST(ListRead, ServesAHugeRepeatCountWithoutWork) {
    text_reader input = text_of("9000000000000000000*4 5");
    list_read read(input);
    std::vector<std::int32_t> values(1000, 0);

    EXPECT_TRUE(read.get(std::span(values)).ok());

    EXPECT_THAT(values, testing::Each(4));
}

TEST(ListRead, ReadsIntegersOfBothSizes) {
    text_reader input = text_of("+5 -0007 2147483647 -2147483648 9223372036854775807 -9223372036854775808");
    list_read read(input);
    std::array<std::int32_t, 4> values{};
    std::array<std::int64_t, 2> large{};

    EXPECT_TRUE(read.get(std::span<std::int32_t>(values)).ok());
    EXPECT_TRUE(read.get(large[0]).ok());
    EXPECT_TRUE(read.get(large[1]).ok());

    EXPECT_THAT(values, ElementsAre(5, -7, std::numeric_limits<std::int32_t>::max(),
                                    std::numeric_limits<std::int32_t>::min()));
    EXPECT_THAT(large, ElementsAre(std::numeric_limits<std::int64_t>::max(),
                                   std::numeric_limits<std::int64_t>::min()));
}

TEST(ListRead, RefusesWhatIsNoInteger) {
    for (const char* word :
         {"12.0", "1.", "a", "-", "+", "+-5", "--5", "-+5", "5-", "1e3", "0x10", "'5'", "1;2", "nan"})
        expect_error(std::string("1 ") + word, std::int32_t{}, "Bad integer for item 2 in list input");
    expect_error(std::string("1 2\0", 4), std::int32_t{}, "Bad integer for item 2 in list input");
    expect_error("3\xc2\xa0", std::int64_t{}, "Bad integer for item 1 in list input");
}

TEST(ListRead, RefusesIntegersOutOfRange) {
    expect_error("1 2147483648", std::int32_t{}, "Integer overflow while reading item 2");
    expect_error("-2147483649", std::int32_t{}, "Integer overflow while reading item 1");
    expect_error("9223372036854775808", std::int64_t{}, "Integer overflow while reading item 1");
    expect_error("2147483648x", std::int32_t{}, "Bad integer for item 1 in list input");
}

TEST(ListRead, CountsRepeatedItemsInMessages) {
    expect_error("3*1 , , x", std::int32_t{}, "Bad integer for item 5 in list input");
}

TEST(ListRead, ReportsTheEndOfTheFile) {
    expect_error("1 2\n3\n", std::int32_t{}, "End of file", -1);
    expect_error("", double{}, "End of file", -1);
    expect_error("a,", std::string(), "End of file", -1);
}

TEST(ListRead, StaysFailed) {
    text_reader input = text_of("x 2\n3\n");
    list_read read(input);
    std::int32_t value = -1;
    EXPECT_FALSE(read.get(value).ok());

    const read_status status = read.get(value);

    EXPECT_EQ(status.iomsg, "Bad integer for item 1 in list input");
    EXPECT_EQ(value, -1);
}

TEST(ListRead, LeavesTheRestOfASpanAtAnError) {
    text_reader input = text_of("1 2 x 4");
    list_read read(input);
    std::array<std::int32_t, 4> values = {-1, -1, -1, -1};

    EXPECT_EQ(read.get(std::span<std::int32_t>(values)).iomsg, "Bad integer for item 3 in list input");

    EXPECT_THAT(values, ElementsAre(1, 2, -1, -1));
}

TEST(ListRead, PassesOnTheErrorOfTheReader) {
    text_reader input;  // this file opens, but its first page cannot be read
    if (input.open("/proc/self/mem")) GTEST_SKIP() << "no file that fails in reading";
    list_read read(input);
    std::int32_t value = -1;

    const read_status status = read.get(value);

    EXPECT_EQ(status.iostat, EIO);
    EXPECT_EQ(status.iomsg, input.error().value_or(file_error{}).iomsg);
    EXPECT_FALSE(status.iomsg.empty());
    EXPECT_EQ(value, -1);
}

TEST(ListRead, ReadsFilesWithCarriageReturns) {
    const test::temporary_directory directory;
    text_reader input;
    ASSERT_FALSE(input.open(directory.write("dos.txt",
                                            "\xEF\xBB\xBF"
                                            "1 2\r\n3\r\n")));
    list_read read(input);
    std::array<std::int32_t, 3> values{};

    EXPECT_TRUE(read.get(std::span<std::int32_t>(values)).ok());

    EXPECT_THAT(values, ElementsAre(1, 2, 3));
}

TEST(ListRead, ReadsWordsOfAMillionCharacters) {
    constexpr std::size_t million = 1000000;
    const std::string digits(million, '1');
    EXPECT_THAT(all_words(digits + " " + std::string(million, ',')), testing::SizeIs(million));
    expect_error(digits, std::int32_t{}, "Integer overflow while reading item 1");
    expect_error(digits, double{}, "Floating point overflow while reading item 1");
    expect_error(digits + "*3", double{}, "Repeat count overflow in item 1 of list input");
    expect_error(std::string(million, '-'), double{}, "Bad real number in item 1 of list input");
    EXPECT_EQ(real_of("0." + digits), 1.0 / 9.0);
    EXPECT_EQ(real_of("0." + digits + "d1"), 10.0 / 9.0);
    EXPECT_EQ(real_of(std::string(million, '0') + "2.5D0"), 2.5);
    EXPECT_EQ(all_words("'" + std::string(million, '\'') + "'"), std::vector{std::string(million / 2, '\'')});
}

TEST(ParseNumber, ReadsRealsInEveryForm) {
    EXPECT_EQ(real_of("12"), 12.0);
    EXPECT_EQ(real_of("+5"), 5.0);
    EXPECT_EQ(real_of("-.5"), -0.5);
    EXPECT_EQ(real_of("5."), 5.0);
    EXPECT_EQ(real_of("1.5e3"), 1500.0);
    EXPECT_EQ(real_of("1.5E+3"), 1500.0);
    EXPECT_EQ(real_of("1.5d-3"), 0.0015);
    EXPECT_EQ(real_of("+15.D2"), 1500.0);
    EXPECT_EQ(real_of(".25D+02"), 25.0);
    EXPECT_EQ(real_of("1e005"), 1e5);
    EXPECT_TRUE(std::signbit(real_of("-0")));
}

TEST(ParseNumber, RoundsRealsCorrectly) {
    EXPECT_EQ(real_of("0.1"), 0.1);
    EXPECT_EQ(real_of("9007199254740993"), 9007199254740992.0);
    EXPECT_EQ(real_of("9007199254740993.0000000000000000000000000000001"), 9007199254740994.0);
    EXPECT_EQ(real_of("2.2250738585072014d-308"), std::numeric_limits<double>::min());
    EXPECT_EQ(real_of("1.7976931348623157D308"), std::numeric_limits<double>::max());
    EXPECT_EQ(real_of("4.9e-324"), std::numeric_limits<double>::denorm_min());
}

TEST(ParseNumber, ReadsNanAndInfinityInEitherCase) {
    EXPECT_TRUE(std::isnan(real_of("nan")));
    EXPECT_TRUE(std::isnan(real_of("NaN")));
    EXPECT_EQ(real_of("Inf"), std::numeric_limits<double>::infinity());
    EXPECT_EQ(real_of("+INFINITY"), std::numeric_limits<double>::infinity());
    EXPECT_EQ(real_of("-infinity"), -std::numeric_limits<double>::infinity());
}

TEST(ParseNumber, RefusesWhatIsNoReal) {
    for (const char* word :
         {"",      "-",     ".",     "+.",    "e5",  ".e5",   "1e",    "1e+",    "1d-",
          "1.5+3", "1.2.3", "1e5.0", "1e5e5", "1q5", "0x1p3", "infin", "nan(1)", "+-1",
          "-+1",   "1_8",   "1 2",   " 1",    "1 ",  "3*1",   "1,",    "1f",     "1\xc2\xa0"}) {
        double value = -99.0;
        EXPECT_EQ(parse_number(word, value).iomsg, "Bad real number in item 1 of list input") << word;
        EXPECT_EQ(value, -99.0) << word;
    }
}

TEST(ParseNumber, RefusesRealsOutOfRange) {
    for (const char* word :
         {"1e400", "-1d400", "1.8e308", "1e99999999999999999999", "0.001e312", "-179769313486231590D291"}) {
        double value = -99.0;
        EXPECT_EQ(parse_number(word, value).iomsg, "Floating point overflow while reading item 1") << word;
        EXPECT_EQ(value, -99.0) << word;
    }
}

TEST(ParseNumber, TakesWhatIsTooSmallAsZero) {
    EXPECT_EQ(real_of("1e-400"), 0.0);
    EXPECT_EQ(real_of("1e-99999999999999999999"), 0.0);
    EXPECT_EQ(real_of("0e99999999999999999999"), 0.0);
    EXPECT_EQ(real_of("0.0d400"), 0.0);
    EXPECT_EQ(real_of("1000d-400"), 0.0);
    EXPECT_TRUE(std::signbit(real_of("-1e-400")));
}

TEST(ParseNumber, ReadsIntegers) {
    std::int32_t value = 0;
    std::int64_t large = 0;

    EXPECT_TRUE(parse_number("-12", value).ok());
    EXPECT_TRUE(parse_number("+3000000000", large).ok());

    EXPECT_EQ(value, -12);
    EXPECT_EQ(large, 3000000000);
    EXPECT_EQ(parse_number("", value).iomsg, "Bad integer for item 1 in list input");
    EXPECT_EQ(parse_number("3000000000", value).iomsg, "Integer overflow while reading item 1");
    EXPECT_EQ(value, -12);
}

}  // namespace
}  // namespace zendar
