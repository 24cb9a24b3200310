#include "modoption.hpp"

#include <gmock/gmock.h>

#include <limits>
#include <sstream>

#include "modfatal.hpp"
#include "modparameters.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class OptionLines : public testing::Test {
  protected:
    OptionLines() {
        log_.add_stream(text_);
        log_.configure({.max_width = 100'000, .indent = false});
    }

    std::vector<option_line> read(std::string_view lines) {
        return read_option_lines(directory_.write("model.par", lines).string(), 3, log_);
    }
    /// The words of the only option line.
    std::vector<std::string> words(std::string_view line) {
        const auto lines = read(line);
        std::vector<std::string> found;
        if (lines.size() == 1)
            for (std::int32_t i = 0; i < lines[0].size(); ++i) found.push_back(lines[0].word(i));
        return found;
    }
    /// The message that ends the run; empty when none does.
    template <class Action>
    std::string fatal_message(Action action) {
        try {
            static_cast<void>(action());
        } catch (const fatal_error& error) {
            EXPECT_THAT(text_.str(), HasSubstr("ERROR: " + std::string(error.what())));
            return error.what();
        }
        return {};
    }

    test::temporary_directory directory_;
    std::ostringstream text_;
    logger log_;
};

TEST_F(OptionLines, AreFoundAnywhereInTheFile) {
    const auto lines = read("!first 1\nN_TRAITS\n 2\n   !second a b\nPHENO_FILE\nx !no\n!third\n");

    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].keyword(), "first");
    EXPECT_EQ(lines[1].keyword(), "second");
    EXPECT_EQ(lines[1].size(), 3);
    EXPECT_EQ(lines[2].keyword(), "third");
}

TEST_F(OptionLines, AreSplitAtBlanksOnly) {
    EXPECT_THAT(words("!a,b  c\td   e\n"), ElementsAre("a,b", "c\td", "e"));
    EXPECT_THAT(words("   !  beta   0.1   \n"), ElementsAre("beta", "0.1"));
    EXPECT_THAT(words("!!beta 0.1"), ElementsAre("!beta", "0.1"));
}

TEST_F(OptionLines, MayEndWithACarriageReturnAndFollowAByteOrderMark) {
    EXPECT_THAT(words("\xEF\xBB\xBF!beta 0.1\r\n"), ElementsAre("beta", "0.1"));
}

TEST_F(OptionLines, OfNoWordPass) {
    EXPECT_THAT(read("!\n!   \n\n"), IsEmpty());
    EXPECT_THAT(read(""), IsEmpty());
}

TEST_F(OptionLines, MayHave2500Characters) {
    const std::string longest = "!file " + std::string(max_option_line - 6, 'x');

    EXPECT_EQ(words(longest + "   \n")[1].size(), max_option_line - 6);
    EXPECT_THAT(fatal_message([&] { return read("\n" + longest + "y\n"); }),
                "An option line has more than 2500 characters!\nFile " + (directory_ / "model.par").string() +
                    ", line 2");
    EXPECT_THAT(read(std::string(5000, 'x') + "\n"), IsEmpty());
}

TEST_F(OptionLines, OfAMissingFileAreFatal) {
    const std::string file = (directory_ / "missing").string();

    EXPECT_EQ(fatal_message([&] { return read_option_lines(file, 1, log_); }),
              "Cannot open the file " + file);
    EXPECT_THAT(text_.str(), HasSubstr("With iostat = "));
    EXPECT_EQ(fatal_message([&] { return read_option_lines(directory_.path().string(), 1, log_); }),
              "Cannot open the file " + directory_.path().string());
}

TEST_F(OptionLines, GiveNumbers) {
    const auto line = read("!x 12 -7 1.5 2d-3 .5 3\n").front();

    EXPECT_EQ(line.int32(1), 12);
    EXPECT_EQ(line.int32(2), -7);
    EXPECT_EQ(line.real(1), 12.0);
    EXPECT_EQ(line.real(3), 1.5);
    EXPECT_EQ(line.real(4), 2e-3);
    EXPECT_EQ(line.real(5), 0.5);
    EXPECT_EQ(line.effect(6), 3);
    EXPECT_EQ(line.int32_from(1, 12), 12);
}

TEST_F(OptionLines, RefuseWordsThatAreNoNumbersWithTheirPlace) {
    const auto line = read("\n!x abc 1.5 nan inf 99999999999 1e999 0 4 -1\n").front();
    const std::string place = "\nFile " + (directory_ / "model.par").string() +
                              ", line 2: !x abc 1.5 nan inf 99999999999 1e999 0 4 -1";

    EXPECT_EQ(fatal_message([&] { return line.int32(1); }),
              "The option !x: \"abc\" is not an integer!" + place);
    EXPECT_EQ(fatal_message([&] { return line.int32(2); }),
              "The option !x: \"1.5\" is not an integer!" + place);
    EXPECT_EQ(fatal_message([&] { return line.real(1); }), "The option !x: \"abc\" is not a number!" + place);
    EXPECT_EQ(fatal_message([&] { return line.real(3); }), "The option !x: \"nan\" is not a number!" + place);
    EXPECT_EQ(fatal_message([&] { return line.real(4); }), "The option !x: \"inf\" is not a number!" + place);
    EXPECT_EQ(fatal_message([&] { return line.int32(5); }),
              "The option !x: \"99999999999\" is not an integer!" + place);
    EXPECT_EQ(fatal_message([&] { return line.real(6); }),
              "The option !x: \"1e999\" is not a number!" + place);
    EXPECT_EQ(fatal_message([&] { return line.int32_from(7, 1); }),
              "The option !x: \"0\" is less than 1!" + place);
    for (const std::int32_t i : {7, 8, 9})
        EXPECT_EQ(fatal_message([&] { return line.effect(i); }),
                  "The option !x: \"" + line.word(i) + "\" is not the number of an effect (1 to 3)!" + place);
}

TEST_F(OptionLines, GiveListsWhoseCountFits) {
    EXPECT_THAT(read("!x f 2 3 1").front().effects(2), testing::Optional(ElementsAre(3, 1)));
    EXPECT_EQ(read("!x f 1 3 1").front().effects(2), std::nullopt);
    EXPECT_EQ(read("!x f 3 3 1").front().effects(2), std::nullopt);
    EXPECT_EQ(read("!x f 0").front().effects(2), std::nullopt);
    EXPECT_EQ(read("!x f -1").front().effects(2), std::nullopt);
    EXPECT_THAT(fatal_message([&] { return read("!x f 1 4").front().effects(2); }),
                HasSubstr("\"4\" is not the number of an effect"));
}

TEST_F(OptionLines, ShowNumbersThatReadBackAsTheSame) {
    for (const double x : {0.1, 1.0 / 3.0, -2.5e-300, 1.7976931348623157e308, 5e-324, 123456789.123456789,
                           0.0, static_cast<double>(1e-12f)}) {
        const auto line = read("!x " + option_number(x)).front();
        EXPECT_EQ(line.real(1), x) << option_number(x);
    }
}

struct small_record {
    bool flag = false;
    double value = 1.0;
};

std::vector<option_entry<small_record>> small_table() {
    option_entry<small_record> value, flag, manual;
    value.usage = "!value x";
    value.help = "A value.";
    value.keywords = {"value", "wert"};
    value.min_words = value.max_words = 2;
    value.read = [](const option_line& line, small_record& record) {
        record.value = line.real(1);
        return record.value > 0.0;
    };
    flag.keywords = {"flag"};
    flag.ignored = "no flag";
    flag.read = [](const option_line&, small_record& record) { return record.flag = true; };
    manual.usage = "!manual";
    manual.help = "First line:\nitem 1\nitem 2";
    manual.keywords = {"manual"};
    return {value, flag, manual};
}

TEST_F(OptionLines, AreTakenByTheRowOfTheirKeyword) {
    const auto table = small_table();
    small_record record;

    read_options<small_record>(table, read("!wert 3\n!Flag\n!flag\n!other 1 2\n!manual 1 2 3\n"), record);

    EXPECT_EQ(record.value, 3.0);
    EXPECT_TRUE(record.flag);
    EXPECT_EQ(text_.str(), "");
    EXPECT_NE(find_option<small_record>(table, "manual"), nullptr);
    EXPECT_EQ(find_option<small_record>(table, "Manual"), nullptr);
}

TEST_F(OptionLines, WithAWrongNumberOfWordsAreDroppedWithAWarning) {
    small_record record;

    read_options<small_record>(small_table(), read("!wert\n!wert 1 2\n!flag x\n!value -1\n"), record);

    EXPECT_FALSE(record.flag);
    EXPECT_EQ(text_.str(),
              "WARN: The option !wert was found and will be ignored!\n"
              "WARN: The option !wert was found and will be ignored!\n"
              "WARN: no flag\n"
              "WARN: The option !value was found and will be ignored!\n");
}

TEST_F(OptionLines, HaveAManualForTheScreen) {
    print_manual<small_record>({"begin", "end", "### Heading"}, small_table(), false, log_);

    EXPECT_EQ(
        text_.str(),
        "\nbegin\n\n!value x\n   A value.\n!manual\n   First line:\n      item 1\n      item 2\n\nend\n");
}

TEST_F(OptionLines, HaveAManualInMarkdownWithoutBrokenLines) {
    log_.configure({.max_width = 10, .indent = true});

    print_manual<small_record>({"begin", "end", "### A long heading"}, small_table(), true, log_);

    EXPECT_EQ(text_.str(),
              "\n### A long heading\n\n- `!value x`\n\n  A value.\n\n"
              "- `!manual`\n\n  First line:\n\n  - item 1\n  - item 2\n\n");
    EXPECT_EQ(log_.layout().max_width, 10);
    EXPECT_TRUE(log_.layout().indent);
}

}  // namespace
}  // namespace zendar
