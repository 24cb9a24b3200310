#include "modbasic.hpp"

#include <gmock/gmock.h>

#include <limits>

#include "modfile.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Inttochar, WritesTheLeastWidth) {
    EXPECT_EQ(inttochar(0), "0");
    EXPECT_EQ(inttochar(-7), "-7");
    EXPECT_EQ(inttochar(std::numeric_limits<std::int64_t>::max()), "9223372036854775807");
    EXPECT_EQ(inttochar(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
}

TEST(PosWords, GivesTheStartsAndTheEndOfTheLastWord) {
    EXPECT_THAT(pos_words("maxiter 5000"), ElementsAre(1, 9, 13));
    EXPECT_THAT(pos_words("  a  bcd e   "), ElementsAre(3, 6, 10, 11));
}

TEST(PosWords, HasOneEntryForALineWithoutWords) {
    EXPECT_THAT(pos_words(""), ElementsAre(1));
    EXPECT_THAT(pos_words("    "), ElementsAre(1));
}

TEST(PosWords, TakesATabAsPartOfAWord) {
    EXPECT_THAT(pos_words("a\tb c"), ElementsAre(1, 5, 6));
}

TEST(PosWords, AgreesWithWordsOf) {
    const std::string_view line = " one two  three";
    const auto positions = pos_words(line);
    const auto words = words_of(line);

    ASSERT_EQ(positions.size(), words.size() + 1);
    for (std::size_t i = 0; i < words.size(); ++i)
        EXPECT_EQ(line.substr(static_cast<std::size_t>(positions[i]) - 1, words[i].size()), words[i]);
}

TEST(WordsOf, SplitsAtBlanksOnly) {
    EXPECT_THAT(words_of("  a,b \t 'c d' "), ElementsAre("a,b", "\t", "'c", "d'"));
    EXPECT_THAT(words_of("   "), IsEmpty());
}

TEST(WordsOf, KeepsZeroBytesAndOtherCharacters) {
    const std::string line("a\0b \xff\xc3", 6);

    EXPECT_THAT(words_of(line), ElementsAre(std::string("a\0b", 3), "\xff\xc3"));
}

TEST(CountWords, CountsWhatWordsOfGives) {
    EXPECT_EQ(count_words(""), 0);
    EXPECT_EQ(count_words("   "), 0);
    EXPECT_EQ(count_words("x"), 1);
    EXPECT_EQ(count_words(" 1 2.0  -3 "), 3);
}

TEST(Trim, TakesBlanksOff) {
    EXPECT_EQ(trim_left("  a b "), "a b ");
    EXPECT_EQ(trim_right("  a b "), "  a b");
    EXPECT_EQ(trim("  a b "), "a b");
}

TEST(Trim, LeavesNothingOfBlanks) {
    EXPECT_EQ(trim_left("   "), "");
    EXPECT_EQ(trim_right("   "), "");
    EXPECT_EQ(trim("   "), "");
    EXPECT_EQ(trim(""), "");
}

TEST(Trim, LeavesTabs) {
    EXPECT_EQ(trim(" \ta\t "), "\ta\t");
}

TEST(Outputfile, PutsTheDirectoryBeforeTheFileName) {
    EXPECT_EQ(outputfile("out/", "data/ped.txt"), "out/ped.txt");
    EXPECT_EQ(outputfile("out/", "/a/b/ped.txt"), "out/ped.txt");
    EXPECT_EQ(outputfile("", "../ped.txt"), "ped.txt");
    EXPECT_EQ(outputfile("out", "ped.txt"), "outped.txt");
    EXPECT_EQ(outputfile("out/", "data/"), "out/");
}

TEST(OutputPrefix, IsEmptyForTheWorkingDirectory) {
    EXPECT_EQ(output_prefix(""), "");
    EXPECT_EQ(output_prefix("."), "");
    EXPECT_EQ(output_prefix("./"), "");
}

TEST(OutputPrefix, EndsWithExactlyOneSlash) {
    EXPECT_EQ(output_prefix("out"), "out/");
    EXPECT_EQ(output_prefix("out/"), "out/");
    EXPECT_EQ(output_prefix("a/b//"), "a/b/");
    EXPECT_EQ(output_prefix("/"), "/");
    EXPECT_EQ(output_prefix(".."), "../");
}

TEST(Numcol, CountsTheWordsOfTheFirstLine) {
    const test::temporary_directory directory;
    std::int64_t columns = -1;

    EXPECT_FALSE(numcol(directory.write("data.txt", "1  2 3.5 a,b\n1 2\n"), columns));

    EXPECT_EQ(columns, 4);
}

TEST(Numcol, FindsNoColumnsInAnEmptyFileOrLine) {
    const test::temporary_directory directory;
    std::int64_t columns = -1;

    EXPECT_FALSE(numcol(directory.write("empty.txt", ""), columns));
    EXPECT_EQ(columns, 0);

    columns = -1;
    EXPECT_FALSE(numcol(directory.write("blank.txt", "\n1 2\n"), columns));
    EXPECT_EQ(columns, 0);
}

TEST(Numcol, CountsLinesLongerThanAMillionCharacters) {
    const test::temporary_directory directory;
    std::string line;
    for (std::int32_t i = 0; i < 700000; ++i) line += "1 ";
    std::int64_t columns = -1;

    EXPECT_FALSE(numcol(directory.write("wide.txt", line), columns));

    EXPECT_EQ(columns, 700000);
}

TEST(Numcol, ReportsAMissingFile) {
    const test::temporary_directory directory;
    std::int64_t columns = -1;

    const auto failure = numcol(directory / "none.txt", columns);

    ASSERT_TRUE(failure);
    EXPECT_NE(failure->iostat, 0);
    EXPECT_FALSE(failure->iomsg.empty());
    EXPECT_EQ(columns, -1);
}

}  // namespace
}  // namespace zendar
