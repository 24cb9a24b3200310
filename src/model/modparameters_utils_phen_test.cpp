#include "modparameters_utils.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "modparameters_utils_detail.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using detail::reading_sizes;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// Sets the number of threads for as long as it lives.
class thread_count {
  public:
    explicit thread_count(int n) : old_(omp_get_max_threads()) { omp_set_num_threads(n); }
    ~thread_count() { omp_set_num_threads(old_); }
    thread_count(const thread_count&) = delete;
    thread_count& operator=(const thread_count&) = delete;

  private:
    int old_;
};

/// Two traits in columns 3 and 4, two effects in columns 1 and 2.
param_type two_traits(const std::string& file) {
    param_type param;
    param.ntrait = 2;
    param.neffect = 2;
    param.n_residual_cov = 1;
    param.pos_traits = {3, 4};
    param.pos_weights = {0, 0};
    param.pos_effects = matrix<std::int32_t>(2, 2);
    param.pos_effects(0, 0) = param.pos_effects(1, 0) = 1;
    param.pos_effects(0, 1) = param.pos_effects(1, 1) = 2;
    param.pos_nested = matrix<std::int32_t>(2, 2);
    param.pos_nested2 = matrix<std::int32_t>(2, 2);
    param.file.resize(3);
    param.file[0][0] = file;
    return param;
}

/// One trait in column 1, no effects: for tests of the reading alone.
param_type one_trait(const std::string& file) {
    param_type param;
    param.ntrait = 1;
    param.n_residual_cov = 1;
    param.pos_traits = {1};
    param.pos_weights = {0};
    param.file.resize(1);
    param.file[0][0] = file;
    return param;
}

class ReaddataPhenAscii : public testing::Test {
  protected:
    ReaddataPhenAscii() {
        log_.configure({.max_width = 1000, .indent = false});
        log_.add_stream(screen_);
    }

    std::string write(std::string_view text) const { return directory_.write("data.txt", text).string(); }
    [[nodiscard]] std::string log_text() const {
        std::string text = screen_.str();
        std::replace(text.begin(), text.end(), '\n', ' ');
        return text;
    }
    phenotype_data read(param_type& param, const reading_sizes& sizes = {}) {
        phenotype_data data;
        detail::read_phenotypes(param, data, log_, sizes);
        return data;
    }
    phenotype_data read_two_traits(std::string_view text) {
        param_type param = two_traits(write(text));
        return read(param);
    }
    /// The log of a reading that must stop.
    std::string log_of_failure(param_type& param, const reading_sizes& sizes = {}) {
        EXPECT_THROW(read(param, sizes), fatal_error);
        return log_text();
    }
    std::string log_of_failure(std::string_view text) {
        param_type param = two_traits(write(text));
        return log_of_failure(param);
    }

    test::temporary_directory directory_;
    std::ostringstream screen_;
    logger log_;
};

std::vector<double> values(const matrix<double>& m) {
    return {m.values().begin(), m.values().end()};
}
std::vector<std::int32_t> values(const matrix<std::int32_t>& m) {
    return {m.values().begin(), m.values().end()};
}

TEST_F(ReaddataPhenAscii, LaysTraitsAndLevelsOfARecordSideBySide) {
    param_type param = two_traits(write("1 11 1.5 -2\n2 12 2.5 -9\n3 13 3.5 1e1\n"));

    phenotype_data data;
    readdata_phen_ascii(param, data, log_);

    EXPECT_EQ(param.nphen, 3);
    EXPECT_EQ(data.phen.rows(), 2);
    EXPECT_EQ(data.phen.cols(), 3);
    EXPECT_THAT(values(data.phen), ElementsAre(1.5, -2, 2.5, -9, 3.5, 10));
    EXPECT_THAT(values(data.effect), ElementsAre(1, 11, 1, 2, 12, 1, 3, 13, 1));
    EXPECT_THAT(data.combitrait, ElementsAre(0, 0, 0));
    EXPECT_TRUE(data.weight.empty());
}

TEST_F(ReaddataPhenAscii, AnnouncesTheMemory) {
    std::string text;
    for (int i = 0; i < 100000; ++i) text += "1 2 3 4\n";
    param_type param = two_traits(write(text));
    param.nweight = 1;

    read(param);

    // 100000 records: 2 x 8 bytes and 3 x 4 bytes each
    EXPECT_EQ(screen_.str(),
              "Memory (MB) needed for phen  : 1.53\n"
              "Memory (MB) needed for effect: 1.14\n"
              "Memory (MB) needed for weight: 1.53\n");
}

TEST_F(ReaddataPhenAscii, FindsTheFileBehindBlanks) {
    param_type param = two_traits("   " + write("1 2 3 4\n") + "  ");
    EXPECT_EQ(read(param).phen.cols(), 1);
}

TEST_F(ReaddataPhenAscii, ReadsOnlyTheFirstRecordsThatAreAskedFor) {
    std::string text;
    for (int i = 1; i <= 1000; ++i) text += std::to_string(i) + " 2 3 4\n";
    text += "this line is never reached\n";
    param_type param = two_traits(write(text));
    param.nphen = 10;

    const phenotype_data data = read(param, {.block = 64});

    EXPECT_EQ(param.nphen, 10);
    EXPECT_EQ(data.phen.cols(), 10);
    EXPECT_EQ(data.effect(0, 9), 10);
}

TEST_F(ReaddataPhenAscii, ReadsAllRecordsWhenExactlyTheirNumberIsAskedFor) {
    param_type param = two_traits(write("1 2 3 4\n5 6 7 8"));
    param.nphen = 2;
    EXPECT_THAT(values(read(param).phen), ElementsAre(3, 4, 7, 8));
}

TEST_F(ReaddataPhenAscii, StopsWhenTheFileHasFewerRecordsThanAskedFor) {
    param_type param = two_traits(write("1 2 3 4\n5 6 7 8\n\n"));
    param.nphen = 2000000000;

    const std::string log = log_of_failure(param);

    EXPECT_THAT(log, HasSubstr("Phenotype (record) not correctly read at line 3 "));
    EXPECT_THAT(log, HasSubstr("With iostat = -1 "));
    EXPECT_THAT(log, HasSubstr("End of file: the file has 2 records, !nphen asks for 2000000000"));
}

TEST_F(ReaddataPhenAscii, ReportsABadLineBeforeTheEndOfTheFile) {
    param_type param = two_traits(write("1 2 3 4\n5 x 7 8\n"));
    param.nphen = 10;
    EXPECT_THAT(log_of_failure(param), HasSubstr("not correctly read at line 2 "));
}

TEST_F(ReaddataPhenAscii, TruncatesLevels) {
    const phenotype_data data = read_two_traits("2.9 -0.5 1 1\n-2.9 2147483647.5 1 1\n-2147483648.9 0 1 1\n");
    EXPECT_THAT(values(data.effect), ElementsAre(2, 0, 1, -2, 2147483647, 1, -2147483647 - 1, 0, 1));
}

TEST_F(ReaddataPhenAscii, KeepsMissingValuesAsTheyAre) {
    EXPECT_THAT(values(read_two_traits("1 1 -9 -9.0000001\n").phen), ElementsAre(-9, -9.0000001));
}

TEST_F(ReaddataPhenAscii, ReadsWeightsOfTheTraitsThatHaveAColumn) {
    param_type param = two_traits(write("1 2 3 4 0.5\n1 2 3 4 7\n"));
    param.nweight = 1;
    param.pos_weights = {0, 5};
    EXPECT_THAT(values(read(param).weight), ElementsAre(1, 0.5, 1, 7));
}

TEST_F(ReaddataPhenAscii, LeavesWeightsOutWithoutThem) {
    param_type param = two_traits(write("1 2 3 4 0.5\n"));
    param.pos_weights = {0, 5};
    EXPECT_TRUE(read(param).weight.empty());
}

TEST_F(ReaddataPhenAscii, PutsNestingColumnsBehindTheEffectsInTheirOrder) {
    param_type param = two_traits(write("1 2 3 4 50.7 60 2\n"));
    param.nnested = 2;
    param.pos_nested(0, 0) = param.pos_nested(1, 0) = 6;  // the first to appear has the first row
    param.pos_nested(0, 1) = param.pos_nested(1, 1) = 5;
    param.pos_nested2(0, 0) = param.pos_nested2(1, 0) = 3;
    param.pos_nested2(0, 1) = param.pos_nested2(1, 1) = 4;
    param.n_residual_cov = 3;
    param.pos_residual = 7;

    EXPECT_THAT(values(read(param).effect), ElementsAre(1, 2, 60, 50, 2));
}

TEST_F(ReaddataPhenAscii, EffectsMayShareANestingRow) {
    param_type param = two_traits(write("1 2 3 4 50\n"));
    param.nnested = 1;
    for (int e = 0; e < 2; ++e)
        for (int t = 0; t < 2; ++t) {
            param.pos_nested(t, e) = 5;
            param.pos_nested2(t, e) = 3;
        }
    EXPECT_THAT(values(read(param).effect), ElementsAre(1, 2, 50, 1));
}

TEST_F(ReaddataPhenAscii, StopsAtNestingColumnsThatDiffer) {
    param_type param = two_traits(write("1 2 3 4 5 6\n"));
    param.nnested = 1;
    param.pos_nested(0, 1) = 5;
    param.pos_nested(1, 1) = 6;
    param.pos_nested2(0, 1) = param.pos_nested2(1, 1) = 3;
    EXPECT_THAT(log_of_failure(param),
                HasSubstr("Wrong definition for effect 2 These 2 values should be the same: 5 and 6"));
}

TEST_F(ReaddataPhenAscii, ReplacesWhatWasReadBefore) {
    param_type param = two_traits(write("1 2 3 4\n"));
    phenotype_data data;
    data.phen = matrix<double>(5, 5, 1.0);
    data.weight = matrix<double>(5, 5, 1.0);
    data.combitrait = {1, 2, 3};

    readdata_phen_ascii(param, data, log_);

    EXPECT_THAT(values(data.phen), ElementsAre(3, 4));
    EXPECT_THAT(data.combitrait, ElementsAre(0));
    EXPECT_TRUE(data.weight.empty());
}

// ---- columns ----------------------------------------------------------------------------------------------

TEST_F(ReaddataPhenAscii, StopsWhenTheFirstLineHasTooFewColumns) {
    EXPECT_THAT(
        log_of_failure("1 2 3\n1 2 3 4\n"),
        HasSubstr("ERROR: The number of columns in the phenotype file is lower than the highest position "
                  "declared in the parameter file (that is 3 < 4)"));
    EXPECT_THAT(log_text(), HasSubstr("modparameters_utils % readdata_phen_ascii ("));
}

struct highest_column_case {
    const char* what;
    std::function<void(param_type&)> name_column_9;
    bool counts;
};

TEST_F(ReaddataPhenAscii, LooksAtAllPositionsForTheHighestColumn) {
    const highest_column_case cases[] = {
        {"trait", [](param_type& p) { p.pos_traits[1] = 9; }, true},
        {"effect", [](param_type& p) { p.pos_effects(0, 1) = p.pos_effects(1, 1) = 9; }, true},
        {"nesting", [](param_type& p) { p.pos_nested(0, 1) = 9; }, true},
        {"weight", [](param_type& p) { p.pos_weights[0] = 9; }, true},
        {"residual class", [](param_type& p) { p.pos_residual = 9, p.n_residual_cov = 2; }, true},
        {"unused residual class", [](param_type& p) { p.pos_residual = 9; }, false},
    };
    for (const highest_column_case& c : cases) {
        SCOPED_TRACE(c.what);
        param_type param = two_traits(write("1 2 3 4\n"));
        c.name_column_9(param);
        if (c.counts)
            EXPECT_THAT(log_of_failure(param), HasSubstr("(that is 4 < 9)"));
        else
            EXPECT_NO_THROW(read(param));
        screen_.str("");
    }
}

TEST_F(ReaddataPhenAscii, StopsAtAFirstLineWithCommasOrTabs) {
    for (const char* line : {"1,2,3,4\n", "1\t2\t3\t4\n", "1 2 3,4\n", "1 , 2 3 4\n", "1,,2 3 4\n"}) {
        SCOPED_TRACE(line);
        const std::string log = log_of_failure(line);
        EXPECT_THAT(log, HasSubstr("The columns of the phenotype file "));
        EXPECT_THAT(log, HasSubstr("data.txt are separated by commas or tabs: only blanks may separate the "
                                   "columns of its first line"));
        screen_.str("");
    }
}

TEST_F(ReaddataPhenAscii, TakesCommasAndTabsBesideBlanksInTheFirstLine) {
    EXPECT_THAT(values(read_two_traits("1, 2,\t 3 ,4\n").phen), ElementsAre(3, 4));
}

TEST_F(ReaddataPhenAscii, StopsAtAnEffectWithTwoColumns) {
    param_type param = two_traits(write("1 2 3 4 5 6\n"));
    param.pos_effects(0, 1) = 5;
    param.pos_effects(1, 1) = 6;
    EXPECT_THROW(read(param), fatal_error);
    EXPECT_THAT(screen_.str(), HasSubstr("ERROR: Wrong definition for effect 2\n"
                                         "These 2 values should be the same: 5 and 6\n"));
}

TEST_F(ReaddataPhenAscii, StopsAtAnEffectWithoutColumns) {
    param_type param = two_traits(write("1 2 3 4\n"));
    param.pos_effects(0, 1) = param.pos_effects(1, 1) = 0;
    EXPECT_THROW(read(param), fatal_error);
    EXPECT_THAT(screen_.str(),
                HasSubstr("ERROR: Wrong definition for effect 2\nAll values (positions) are 0!\n"));
}

TEST_F(ReaddataPhenAscii, AnEffectMayBeAbsentForSomeTraits) {
    param_type param = two_traits(write("1 2 3 4\n"));
    param.pos_effects(0, 1) = 0;
    EXPECT_THAT(values(read(param).effect), ElementsAre(1, 2, 1));
}

TEST_F(ReaddataPhenAscii, StopsAtATraitOrResidualClassWithoutColumn) {
    param_type trait = two_traits(write("1 2 3 4\n"));
    trait.pos_traits[1] = 0;
    EXPECT_THAT(log_of_failure(trait), HasSubstr("Wrong definition for trait 2 The position 0 is no column"));

    param_type residual = two_traits(write("1 2 3 4\n"));
    residual.n_residual_cov = 2;
    EXPECT_THAT(log_of_failure(residual), HasSubstr("Wrong definition for the residual class"));
}

// ---- forms of lines ---------------------------------------------------------------------------------------

TEST_F(ReaddataPhenAscii, UnderstandsAllSeparators) {
    const auto expected = ElementsAre(3, 4, 3, 4, 3, 4, 3, 4, 3, 4);
    EXPECT_THAT(values(read_two_traits("1 2 3 4\n1,2,3,4\n1\t2\t3\t4\n  1 , 2,3  ,4  \n1,2 ,\t3 4,\n").phen),
                expected);
}

TEST_F(ReaddataPhenAscii, LeavesTheRestOfALongerLineAlone) {
    EXPECT_THAT(values(read_two_traits("1 2 3 4\n1 2 3 4 5 what follows is not read\n1 2 5 6,\n").phen),
                ElementsAre(3, 4, 3, 4, 5, 6));
}

TEST_F(ReaddataPhenAscii, ExpandsRepeatCounts) {
    const phenotype_data data = read_two_traits("1 2 3 4\n4*7\n1 2*6 1\n2*1.5 9*2\n");
    EXPECT_THAT(values(data.phen), ElementsAre(3, 4, 7, 7, 6, 1, 2, 2));
    EXPECT_THAT(values(data.effect), ElementsAre(1, 2, 1, 7, 7, 1, 1, 6, 1, 1, 1, 1));
}

TEST_F(ReaddataPhenAscii, ReadsTheFormsOfLineEndsAndTheByteOrderMark) {
    for (const char* text :
         {"1 2 3 4\n5 6 7 8\n", "1 2 3 4\n5 6 7 8", "1 2 3 4\r\n5 6 7 8\r\n", "1 2 3 4\r\n5 6 7 8\r",
          "\xEF\xBB\xBF"
          "1 2 3 4\n5 6 7 8",
          "1 2 3 4 \r\n5 6 7 8\n\n \t\r\n\n   "}) {
        SCOPED_TRACE(text);
        EXPECT_THAT(values(read_two_traits(text).phen), ElementsAre(3, 4, 7, 8));
    }
}

TEST_F(ReaddataPhenAscii, ReadsAFileOfOneColumn) {
    param_type param = one_trait(write("1\n2.5\n  3"));
    EXPECT_THAT(values(read(param).phen), ElementsAre(1, 2.5, 3));
}

TEST_F(ReaddataPhenAscii, ReadsLinesOfAMillionCharacters) {
    std::string text;
    for (int line = 0; line < 3; ++line) {
        for (int k = 0; k < 250000; ++k) text += std::to_string(100 + k % 7 + line) + " ";
        text += "\n";
    }
    param_type param = one_trait(write(text));
    param.pos_traits = {250000};  // 249999 % 7 = 1
    EXPECT_THAT(values(read(param).phen), ElementsAre(101, 102, 103));
}

TEST_F(ReaddataPhenAscii, ReadsALineMuchLongerThanABlockWhenItsValuesStandInFront) {
    param_type param = one_trait(write("1 2\n3 4 " + std::string(500000, 'x') + "\n5 6\n"));
    EXPECT_THAT(values(read(param, {.block = 32, .longest_record = 4096, .overhang = 16}).phen),
                ElementsAre(1, 3, 5));
}

TEST_F(ReaddataPhenAscii, StopsAtARecordThatDoesNotEnd) {
    param_type param = one_trait(write("1 2\n3 " + std::string(50000, ' ') + "\n5 6\n"));
    const std::string log = log_of_failure(param, {.block = 32, .longest_record = 4096, .overhang = 16});
    EXPECT_THAT(log, HasSubstr("not correctly read at line 2 "));
    EXPECT_THAT(log, HasSubstr("the line is too long, expected are 2 values"));
}

// ---- bad lines --------------------------------------------------------------------------------------------

struct bad_line_case {
    const char* line;
    const char* why;
};

class ReaddataPhenAsciiBadLine : public ReaddataPhenAscii,
                                 public testing::WithParamInterface<bad_line_case> {};

TEST_P(ReaddataPhenAsciiBadLine, IsNamedWithTheReason) {
    const std::string file = "1 2 3 4\n1 2 3 4\n" + std::string(GetParam().line) + "\n1 2 3 4\n";

    const std::string log = log_of_failure(file);

    EXPECT_THAT(log, HasSubstr("modparameters_utils % readdata_phen_ascii ("));
    EXPECT_THAT(log, HasSubstr("I/O ERROR: Phenotype (record) not correctly read at line 3 With iostat = "));
    EXPECT_THAT(log, HasSubstr("data.txt: " + std::string(GetParam().why) + "\""));
}

const bad_line_case bad_lines[] = {
    {"", "the line is blank, expected are 4 values"},
    {" \t \r", "the line is blank, expected are 4 values"},
    {"1 2 3", "the line has 3 values, expected are 4"},
    {"1 2 3,", "the line has 3 values, expected are 4"},
    {"3*1", "the line has 3 values, expected are 4"},
    {"1 2,,4", "value 3 is missing, expected is a number"},
    {",1 2 3 4", "value 1 is missing, expected is a number"},
    {",", "value 1 is missing, expected is a number"},
    {"1 2* 3", "value 2 is missing, expected is a number instead of \"2*\""},
    {"1 2 abc 4", "value 3 is not a number: \"abc\""},
    {"1 2 3 4x", "value 4 is not a number: \"4x\""},
    {"1 2 3 0123456789012345678901234567890123456789x",
     "value 4 is not a number: \"0123456789012345678901234567890123456789\""},
    {"1 2 1.2.3 4", "value 3 is not a number: \"1.2.3\""},
    {"1 2 1e 4", "value 3 is not a number: \"1e\""},
    {"1 2 1e+ 4", "value 3 is not a number: \"1e+\""},
    {"1 2 . 4", "value 3 is not a number: \".\""},
    {"1 2 - 4", "value 3 is not a number: \"-\""},
    {"1 2 --3 4", "value 3 is not a number: \"--3\""},
    {"1 2 0x10 4", "value 3 is not a number: \"0x10\""},
    {"1 2 \"3\" 4", "value 3 is not a number: \"\"3\"\""},
    {"1 2 3;4", "value 3 is not a number: \"3;4\""},
    {"1 2 3/4", "value 3 is not a number: \"3/4\""},
    {"1 2 3\r4", "value 3 is not a number: \"3?4\""},
    {"1 2 0*3 4", "value 3 is not a number: \"0*3\""},
    {"1 2 *3 4", "value 3 is not a number: \"*3\""},
    {"1 2 99999999999999999999*3 4", "value 3 is not a number: \"99999999999999999999*3\""},
    {"1 2 2*3*4", "value 3 is not a number: \"2*3*4\""},
    {"1 2 NA 4", "value 3 is not a number: \"NA\""},
    {"1 2 nan 4", "value 3 is not a finite number: \"nan\""},
    {"1 2 3 -Infinity", "value 4 is not a finite number: \"-Infinity\""},
    {"1 2 1e400 4", "value 3 is not a finite number: \"1e400\""},
    {"1 2147483648 3 4", "value 2 is a level, which must be an integer of 32 bits: \"2147483648\""},
    {"-2147483649 2 3 4", "value 1 is a level, which must be an integer of 32 bits: \"-2147483649\""},
    {"nan 2 3 4", "value 1 is a level, which must be an integer of 32 bits: \"nan\""},
    {"2*3e9 2 3", "value 1 is a level, which must be an integer of 32 bits: \"3e9\""},
};
INSTANTIATE_TEST_SUITE_P(AllReasons, ReaddataPhenAsciiBadLine, testing::ValuesIn(bad_lines));

TEST_F(ReaddataPhenAscii, ABadLineMayHoldNulBytes) {
    const std::string log =
        log_of_failure(std::string("1 2 3 4\n1 2 3 \0"
                                   "4\n",
                                   17));
    EXPECT_THAT(log, HasSubstr("at line 2 "));
    EXPECT_THAT(log, HasSubstr("value 4 is not a number: \"?4\""));
}

TEST_F(ReaddataPhenAscii, StopsAtWeightsThatAreNotFinite) {
    param_type param = two_traits(write("1 2 3 4 1\n1 2 3 4 inf\n"));
    param.nweight = 1;
    param.pos_weights = {5, 0};
    const std::string log = log_of_failure(param);
    EXPECT_THAT(log, HasSubstr("at line 2 "));
    EXPECT_THAT(log, HasSubstr("value 5 is not a finite number: \"inf\""));
}

TEST_F(ReaddataPhenAscii, StopsAtAResidualClassOutsideTheModel) {
    for (const char* word : {"0", "3", "nan", "-1", "0.9", "1e300"}) {
        SCOPED_TRACE(word);
        param_type param = two_traits(write("1 2 3 4 2.9\n1 2 3 4 " + std::string(word) + "\n"));
        param.n_residual_cov = 2;
        param.pos_residual = 5;
        const std::string log = log_of_failure(param);
        EXPECT_THAT(log, HasSubstr("at line 2 "));
        EXPECT_THAT(log, HasSubstr("value 5 is not a residual class of the model: \"" + std::string(word)));
        screen_.str("");
    }
}

TEST_F(ReaddataPhenAscii, AColumnWithoutUseMustBeANumberButNeedNotBeFinite) {
    EXPECT_THAT(values(read_two_traits("1 2 3 4 nan\n1 2 3 4 -INF\n").phen), ElementsAre(3, 4, 3, 4));
    EXPECT_THAT(log_of_failure("1 2 3 4 5\n1 2 3 4 ID7\n"), HasSubstr("value 5 is not a number: \"ID7\""));
}

TEST_F(ReaddataPhenAscii, NamesTheFirstBadLineForAnyNumberOfThreads) {
    std::string text;
    for (int i = 1; i <= 5000; ++i) text += i == 3777 || i == 3778 || i > 4200 ? "1 2 x 4\n" : "1 2 3 4\n";
    for (const int threads : {1, 2, 3, 7}) {
        const thread_count guard(threads);
        for (const std::int64_t block : {16, 100, 4096, 0}) {
            SCOPED_TRACE(testing::Message() << threads << " threads, blocks of " << block);
            param_type param = two_traits(write(text));
            EXPECT_THAT(log_of_failure(param, {.block = block}),
                        HasSubstr("not correctly read at line 3777 "));
            screen_.str("");
        }
    }
}

// ---- files ------------------------------------------------------------------------------------------------

TEST_F(ReaddataPhenAscii, StopsWithoutTheFile) {
    param_type param = two_traits((directory_ / "absent.txt").string());
    const std::string log = log_of_failure(param);
    EXPECT_THAT(log, HasSubstr("I/O ERROR: The phenotype file "));
    EXPECT_THAT(log, HasSubstr("absent.txt cannot be read With iostat = 2"));
}

TEST_F(ReaddataPhenAscii, StopsAtADirectoryADeviceAndAPipe) {
    const auto pipe = directory_ / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const std::string& name : {directory_.path().string(), std::string("/dev/null"), pipe.string()}) {
        SCOPED_TRACE(name);
        param_type param = two_traits(name);
        EXPECT_THAT(log_of_failure(param), HasSubstr(" cannot be read"));
        screen_.str("");
    }
}

TEST_F(ReaddataPhenAscii, StopsAtAFileWithoutRecords) {
    for (const char* text : {"", "\n", " \n\r\n\t", "\xEF\xBB\xBF", "\xEF\xBB\xBF\n\n"}) {
        EXPECT_THAT(log_of_failure(text), HasSubstr("data.txt is empty"));
        screen_.str("");
    }
}

TEST_F(ReaddataPhenAscii, StopsAtABlankFirstLine) {
    EXPECT_THAT(log_of_failure("\n1 2 3 4\n"), HasSubstr("(that is 0 < 4)"));
}

TEST_F(ReaddataPhenAscii, ReportsProgressOfLargeFilesOnly) {
    std::string text;
    for (int i = 0; i < 1000; ++i) text += "1 2\n";
    param_type param = one_trait(write(text));
    read(param, {.block = 16});
    EXPECT_THAT(screen_.str(), Not(HasSubstr("%")));

    read(param, {.block = 16, .progress_from = 1});

    EXPECT_THAT(screen_.str(), HasSubstr("%  "));
    EXPECT_THAT(screen_.str(), testing::EndsWith("  100%\n"));
}

TEST(RandomReader, ReadsAtAnyPositionUpToTheEnd) {
    const test::temporary_directory directory;
    random_reader reader;
    ASSERT_FALSE(reader.open(directory.write("file", "abcdef")));
    char data[4] = {};

    EXPECT_EQ(reader.size(), 6);
    EXPECT_EQ(reader.read_at(2, data), 4);
    EXPECT_EQ(std::string(data, 4), "cdef");
    EXPECT_EQ(reader.read_at(5, data), 1);
    EXPECT_EQ(reader.read_at(9, data), 0);
    EXPECT_EQ(reader.read_at(-1, data), -1);
}

}  // namespace
}  // namespace zendar
