#include <gmock/gmock.h>

#include <array>

#include "captured_log.hpp"
#include "modparameters.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

/// One trait, a class effect, an animal effect.
constexpr std::string_view animal_model =
    "N_TRAITS\n1\nN_WEIGHTS\n0\nN_EFFECTS\n2\nPOS_TRAITS\n3\nPOS_WEIGHTS\n0\n"
    "POS_EFFECTS TYPE_EFFECT N_LEVEL N_COV POS_NESTED N_LEVEL COV_FILE\n1 0 2 1 0 0 none\n2 0 9 1 0 0 none\n"
    "N_RESIDUAL_COV\n1 0\nr1.txt\n"
    "EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n2 3 0 1\nped.txt inb.txt\ng1.txt\n"
    "PHENO_FILE\ndata.txt\n";

/// Two traits; class, covariable, nested covariable, class and two huge effects.
std::string huge_model(const std::string& blocks) {
    return "N_TRAITS\n2\nN_WEIGHTS\n1\nN_EFFECTS\n6\nPOS_TRAITS\n7 8\nPOS_WEIGHTS\n0 9\nPOS_EFFECTS\n"
           "1 0 0 3 1 0 0 0 none\n"
           "2 2 1 4 1 0 0 0 one.txt\n"
           "2 2 1 4 2 5 0 7 two.txt\n"
           "3 3 0 9 1 0 0 0 none\n"
           "6 6 3 0 100 0 0 0 geno.bed\n"
           "0 6 2 0 100 0 0 0 geno.bed\n"
           "N_RESIDUAL_COV\n2 10\nr2.txt\n" +
           blocks + "PHENO_FILE\ndata.txt\n";
}

std::string block(std::string_view values, std::string_view lines) {
    return "EFFECT_ID\n" + std::string(values) + "\n" + std::string(lines) + "\n";
}

std::string replaced(std::string_view text, std::string_view from, std::string_view to) {
    std::string result(text);
    const auto at = result.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) result.replace(at, from.size(), to);
    return result;
}

class ReadParameterFile : public testing::Test {
  protected:
    ReadParameterFile() {
        folder_.write("r1.txt", "1 1 2\n");
        folder_.write("r2.txt", "1 1 2\n2 1 0.5 3\n1 2 4\n2 2 0 5\n");
        folder_.write("g1.txt", "0.5\n");
        folder_.write("g2.txt", "2\n0.5 3\n");
        folder_.write("g4.txt", "2\n0 3\n0 0 4\n0 0 0 5\n");
    }

    /// Reads a text; the message of the error, if there is one.
    std::string read(std::string_view text) {
        folder_.write("m.par", text);
        param_ = {};
        captured_log log;
        const std::string message = fatal_message([&] { read_parameter_file(param_, "m.par", log); });
        log_ = log.text();
        return message;
    }

    /// What is reported of a text with one part replaced.
    std::string error_of(std::string_view from, std::string_view to) {
        return read(replaced(animal_model, from, to));
    }

    test::temporary_directory folder_;
    test::working_directory inside_{folder_.path()};
    param_type param_;
    std::string log_;
};

const std::string fine = "no fatal_error";

TEST_F(ReadParameterFile, TakesAnAnimalModel) {
    ASSERT_EQ(read(animal_model), fine);

    EXPECT_EQ(param_.ntrait, 1);
    EXPECT_EQ(param_.nweight, 0);
    EXPECT_EQ(param_.neffect, 2);
    EXPECT_EQ(param_.nhuge, 0);
    EXPECT_THAT(param_.pos_traits, ElementsAre(3));
    EXPECT_THAT(param_.pos_weights, ElementsAre(0));
    EXPECT_THAT(param_.pos_effects.values(), ElementsAre(1, 2));
    EXPECT_THAT(param_.type_effect, ElementsAre(0, 0));
    EXPECT_THAT(param_.n_level, ElementsAre(2, 9));
    EXPECT_THAT(param_.n_cov, ElementsAre(1, 1));
    EXPECT_THAT(param_.cov_file, ElementsAre("none", "none"));
    EXPECT_THAT(param_.present.values(), ElementsAre(1, 1));
    EXPECT_EQ(param_.n_residual_cov, 1);
    EXPECT_EQ(param_.pos_residual, 0);
    EXPECT_EQ(param_.residualfile, "r1.txt");
    ASSERT_EQ(param_.r.size(), 1u);
    EXPECT_EQ(param_.r[0](0, 0), 2.0);
    EXPECT_THAT(param_.type_random, ElementsAre(0, 3));
    EXPECT_THAT(param_.type_random_eff, ElementsAre(0, 3));
    EXPECT_THAT(param_.n_correlated, ElementsAre(-1, 0));
    EXPECT_THAT(param_.dim_g, ElementsAre(0, 1));
    EXPECT_EQ(param_.file[2][0], "ped.txt");
    EXPECT_EQ(param_.file[2][1], "inb.txt");
    EXPECT_EQ(param_.gfile[1], "g1.txt");
    EXPECT_EQ(param_.g[1](0, 0), 0.5);
    EXPECT_TRUE(param_.g[0].empty());
    EXPECT_TRUE(param_.nupg.empty());
    EXPECT_EQ(param_.file[0][0], "data.txt");
    EXPECT_EQ(
        log_,
        "Parameter file: m.par\n\nRead the genetic covariance matrix\nWARN: Unused keyword: EFFECT_ID\n");
}

TEST_F(ReadParameterFile, PassesOverOptionsBlankLinesAndTheRestOfKeywordLines) {
    ASSERT_EQ(
        read("!maxiter 5\n\n  N_TRAITS and more\n ! N_TRAITS\n\n1 one\nN_WEIGHTS 4\n0\nN_EFFECTS\n2 two\n"
             "POS_TRAITS\n\t! x\n3\nPOS_WEIGHTS\n0\nPOS_EFFECTS\n!a\n1 0 2 1 0 0 none\n\n  !b c d\n"
             "2, 0,9 ,1 0\t0 none\n!c\nN_RESIDUAL_COV\n1\n! in between\n0\n! x\nr1.txt\n"
             "EFFECT_ID\n2,3\n!x\n0 1\n!y\nped.txt\n!z\ninb.txt\n!g\ng1.txt\n!p\nPHENO_FILE\n!d\ndata.txt"),
        fine);
    EXPECT_EQ(param_.pos_effects(0, 1), 2);
    EXPECT_EQ(param_.n_level[1], 9);
    EXPECT_EQ(param_.file[2][1], "inb.txt");
    EXPECT_EQ(param_.file[0][0], "data.txt");
}

TEST_F(ReadParameterFile, TakesQuotesOffNamesAndKeepsSlashes) {
    folder_.write("g, 1.txt", "0.5\n");
    ASSERT_EQ(
        read(replaced(replaced(animal_model, "ped.txt inb.txt\ng1.txt", "/d/ped.txt,'inb.txt'\n\"g, 1.txt\""),
                      "PHENO_FILE\ndata.txt", "PHENO_FILE\n'data.txt'")),
        fine);
    EXPECT_EQ(param_.file[2][0], "/d/ped.txt");
    EXPECT_EQ(param_.file[2][1], "inb.txt");
    EXPECT_EQ(param_.gfile[1], "g, 1.txt");
    EXPECT_EQ(param_.file[0][0], "data.txt");
}

TEST_F(ReadParameterFile, ReadsWindowsLineEnds) {
    std::string text(animal_model);
    for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2)
        text.replace(at, 1, "\r\n");
    ASSERT_EQ(read(text), fine);
    EXPECT_EQ(param_.file[0][0], "data.txt");
}

TEST_F(ReadParameterFile, ForgetsWhatTheRecordHeld) {
    ASSERT_EQ(read(huge_model(block("5 20 0 5", "snp.txt 1"))), fine);
    const param_type first = param_;
    folder_.write("other.par", animal_model);
    captured_log log;

    read_parameter_file(param_, "other.par", log);
    read_parameter_file(param_, "m.par", log);

    EXPECT_EQ(param_, first);
}

TEST_F(ReadParameterFile, WarnsOfTheUnusedKeywordInAModelWithoutRandomEffects) {
    ASSERT_EQ(
        error_of("EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n2 3 0 1\nped.txt inb.txt\ng1.txt\n", ""),
        fine);
    EXPECT_THAT(log_, EndsWith("WARN: Unused keyword: EFFECT_ID\n"));
    EXPECT_THAT(param_.n_correlated, ElementsAre(-1, -1));
    EXPECT_EQ(param_.file[0][0], "data.txt");
}

TEST_F(ReadParameterFile, StopsWhenTheFileCannotBeOpened) {
    captured_log log;
    EXPECT_EQ(fatal_message([&] { read_parameter_file(param_, "none.par", log); }),
              "Cannot open the file none.par");
    EXPECT_THAT(log.text(), AllOf(StartsWith("Parameter file: none.par\n\n"), HasSubstr("I/O ERROR: "),
                                  HasSubstr("With iostat = "), HasSubstr("With iomsg = ")));
    EXPECT_EQ(fatal_message([&] { read_parameter_file(param_, ".", log); }), "Cannot open the file .");
}

TEST_F(ReadParameterFile, StopsWhenTheReadingFails) {
    if (!std::filesystem::exists("/proc/self/mem")) GTEST_SKIP() << "no file that opens and cannot be read";
    captured_log log;
    EXPECT_EQ(fatal_message([&] { read_parameter_file(param_, "/proc/self/mem", log); }),
              "Cannot read the file properly\nFile /proc/self/mem, line 0");
    EXPECT_THAT(log.text(), HasSubstr("I/O ERROR: "));
}

TEST_F(ReadParameterFile, RefusesAFileThatIsNoInstructionFile) {
    std::string text(std::size_t{65} << 20, '1');
    for (std::size_t i = 999; i < text.size(); i += 1000) text[i] = '\n';
    EXPECT_THAT(read(text), StartsWith("The file is too large to be an instruction file\nFile m.par, line "));
    EXPECT_THAT(read(std::string_view("\0\xff\x01 binary", 10)),
                StartsWith("The following keyword is missing: N_TRAITS\nFile m.par, line 1\n"));
}

// ---- keywords and counts ---------------------------------------------------------------------------------

TEST_F(ReadParameterFile, StopsAtAMissingKeyword) {
    EXPECT_EQ(error_of("N_WEIGHTS", "n_weights"),
              "The following keyword is missing: N_WEIGHTS\nFile m.par, line 3\nLast line read: n_weights\n"
              "Please, check the parameter file.");
    EXPECT_THAT(log_, HasSubstr("modparameters % checkparam ("));
    for (const char* keyword :
         {"N_TRAITS", "N_EFFECTS", "POS_TRAITS", "POS_WEIGHTS", "POS_EFFECTS", "PHENO_FILE"})
        EXPECT_THAT(error_of(std::string(keyword), "XX"),
                    AllOf(StartsWith("The following keyword is missing: " + std::string(keyword) +
                                     "\nFile m.par, line "),
                          HasSubstr("\nLast line read: XX\n")));
}

TEST_F(ReadParameterFile, AddsAHintWhenTheResidualsAreNotWhereTheyShouldBe) {
    EXPECT_EQ(
        error_of("N_EFFECTS\n2", "N_EFFECTS\n1"),
        "The following keyword is missing: N_RESIDUAL_COV\n"
        "Possible issues: Too many or not enough effects in the previous section!\nFile m.par, line 13\n"
        "Last line read: 2\nPlease, check the parameter file.");
}

TEST_F(ReadParameterFile, StopsAtTheEndOfTheFileWhereverItIs) {
    const std::string text(animal_model.substr(0, animal_model.size() - 1));
    for (std::size_t length = 0; length < text.size(); ++length) {
        const std::string message = read(text.substr(0, length));
        if (text[length] == '\n' && text.substr(length + 1).starts_with("PHENO")) {
            EXPECT_EQ(message,
                      "The end of the file was found before the keyword PHENO_FILE\nFile m.par, line 20");
        }
        // a shorter name of the last file is a name as well
        if (length <= text.find("PHENO_FILE\n") + 10) {
            EXPECT_THAT(message, AllOf(Not(fine), Not(IsEmpty()))) << length;
        }
    }
    EXPECT_EQ(read(""), "The end of the file was found before the keyword N_TRAITS\nFile m.par, line 0");
    EXPECT_THAT(log_, AllOf(HasSubstr("I/O ERROR: "), HasSubstr("With iostat = -1")));
    EXPECT_EQ(read("N_TRAITS\n"), "Issue with the values of N_TRAITS\nFile m.par, line 1");
    EXPECT_EQ(error_of("PHENO_FILE\ndata.txt\n", "PHENO_FILE\n"),
              "Issue with the file name of PHENO_FILE\nFile m.par, line 21");
}

TEST_F(ReadParameterFile, StopsAtValuesThatAreNoIntegers) {
    EXPECT_EQ(error_of("N_TRAITS\n1", "N_TRAITS\none"),
              "Issue with the values of N_TRAITS\nFile m.par, line 2");
    EXPECT_THAT(log_, AllOf(HasSubstr("modparameters % read_parameter_file ("), HasSubstr("I/O ERROR: "),
                            HasSubstr("With iostat = "), HasSubstr("With iomsg = ")));
    EXPECT_EQ(error_of("N_WEIGHTS\n0", "N_WEIGHTS\n0.5"),
              "Issue with the values of N_WEIGHTS\nFile m.par, line 4");
    EXPECT_EQ(error_of("N_EFFECTS\n2", "N_EFFECTS\n99999999999"),
              "Issue with the values of N_EFFECTS\nFile m.par, line 6");
    EXPECT_EQ(error_of("POS_TRAITS\n3", "POS_TRAITS\nx"),
              "Issue with the values of POS_TRAITS\nFile m.par, line 8");
    EXPECT_EQ(error_of("POS_WEIGHTS\n0", "POS_WEIGHTS\n-"),
              "Issue with the values of POS_WEIGHTS\nFile m.par, line 10");
}

TEST_F(ReadParameterFile, RefusesCountsOutOfRange) {
    EXPECT_EQ(error_of("N_TRAITS\n1", "N_TRAITS\n0"),
              "N_TRAITS is 0, but must be at least 1!\nFile m.par, line 2");
    EXPECT_EQ(error_of("N_TRAITS\n1", "N_TRAITS\n65"),
              "N_TRAITS is 65, but must be at most 64!\nFile m.par, line 2");
    EXPECT_EQ(error_of("N_WEIGHTS\n0", "N_WEIGHTS\n-1"),
              "N_WEIGHTS is -1, but must be at least 0!\nFile m.par, line 4");
    EXPECT_EQ(error_of("N_EFFECTS\n2", "N_EFFECTS\n0"),
              "N_EFFECTS is 0, but must be at least 1!\nFile m.par, line 6");
    EXPECT_EQ(error_of("N_EFFECTS\n2", "N_EFFECTS\n2000000000"),
              "N_EFFECTS is 2000000000, but must be at most 1000000!\nFile m.par, line 6");
    EXPECT_EQ(error_of("N_EFFECTS\n2", "N_EFFECTS\n1000000"),
              "N_EFFECTS is 1000000, but the file is too short for so many effects!\nFile m.par, line 6");
    EXPECT_EQ(error_of("N_RESIDUAL_COV\n1 0", "N_RESIDUAL_COV\n0 0"),
              "N_RESIDUAL_COV is 0, but must be at least 1!\nFile m.par, line 15");
    EXPECT_EQ(error_of("N_RESIDUAL_COV\n1 0", "N_RESIDUAL_COV\n1000001 0"),
              "N_RESIDUAL_COV is 1000001, but must be at most 1000000!\nFile m.par, line 15");
    std::string present, absent;
    for (std::int32_t t = 0; t < 64; ++t) {
        present += "1 ";
        absent += "0 ";
    }
    const std::string many_traits =
        "N_TRAITS\n64\nN_WEIGHTS\n0\nN_EFFECTS\n1\nPOS_TRAITS\n64*1\nPOS_WEIGHTS\n64*0\nPOS_EFFECTS\n" +
        present + "0 2 1 " + absent + "0 none\nN_RESIDUAL_COV\n900000 10\nr2.txt\n";
    EXPECT_EQ(read(many_traits),
              "N_RESIDUAL_COV is 900000, which is too much for the number of traits!\nFile m.par, line 14");
}

TEST_F(ReadParameterFile, ReportsTheResidualSection) {
    EXPECT_EQ(error_of("1 0\nr1.txt", "1 x\nr1.txt"),
              "Issue with the description of N_RESIDUAL_COV\nFile m.par, line 15");
    EXPECT_THAT(log_, AllOf(HasSubstr("modparameters % read_parameter_file ("), HasSubstr("With iostat = "),
                            HasSubstr("With iomsg = ")));
    EXPECT_EQ(read(animal_model.substr(0, animal_model.find("r1.txt"))),
              "Issue with the description of N_RESIDUAL_COV\nFile m.par, line 15");
    EXPECT_EQ(error_of("r1.txt", "r9.txt"), "Cannot open the file r9.txt");
}

// ---- POS_EFFECTS -----------------------------------------------------------------------------------------

TEST_F(ReadParameterFile, TakesNamesAndKindsBehindTheTable) {
    ASSERT_EQ(read(replaced(animal_model, "1 0 2 1 0 0 none\n2 0 9 1 0 0 none",
                            "1 0 2 1 0 0 none herd F\n2 0 9 1 0 0 none animal Random")),
              fine);
    EXPECT_TRUE(param_.lnames);
    EXPECT_THAT(param_.name_effect, ElementsAre("herd", "animal"));
    EXPECT_THAT(param_.type_char, ElementsAre("F", "R"));
    EXPECT_THAT(param_.cov_file, ElementsAre("none", "none"));
    EXPECT_THAT(log_, HasSubstr("Names and types of effects are in the parameter file\n"));
}

TEST_F(ReadParameterFile, CountsThirteenOrFifteenWordsForFourTraits) {
    folder_.write("r4.txt", "1 1 1\n2 1 0 1\n3 1 0 0 1\n4 1 0 0 0 1\n");
    const auto text = [](std::string_view line) {
        return "N_TRAITS\n4\nN_WEIGHTS\n0\nN_EFFECTS\n1\nPOS_TRAITS\n3 4 5 6\nPOS_WEIGHTS\n0 0 0 "
               "0\nPOS_EFFECTS\n" +
               std::string(line) + "\nN_RESIDUAL_COV\n1 0\nr4.txt\nPHENO_FILE\nd\n";
    };
    EXPECT_EQ(read(text("1 1 0 1 0 2 1 0 0 0 0 0 none")), fine);
    EXPECT_THAT(param_.present.values(), ElementsAre(1, 1, 0, 1));
    EXPECT_EQ(read(text("1 1 1 1 0 2 1 0 0 0 0 0 none name k")), fine);
    for (const auto& [line, count] :
         {std::pair("1 1 1 1 0 2 1 0 0 0 0 0", "12"), std::pair("1 1 1 1 0 2 1 0 0 0 0 0 none name", "14"),
          std::pair("1 1 1 1 0 2 1 0 0 0 0 0 none name k x", "16")})
        EXPECT_EQ(read(text(line)),
                  std::string(count) +
                      " columns\nThe number of columns must be equal to (#traits*2 + 5) or to "
                      "(#traits*2 + 7)\nFile m.par, line 12");
    EXPECT_THAT(read(text("4*1 0 2 1 4*0 0 none")), StartsWith("7 columns\n"));  // a word is one value
}

TEST_F(ReadParameterFile, StopsAtALineOfAnotherFormThanTheFirst) {
    const std::string second =
        "Too many or not enough columns for describing the effect in the section POS_EFFECTS: 2\nFile m.par, "
        "line 13";
    EXPECT_EQ(error_of("1 0 2 1 0 0 none", "1 0 2 1 0 0 none herd F"), second);
    EXPECT_EQ(error_of("2 0 9 1 0 0 none", "2 0 9 1 0 0 none animal R"), second);
    EXPECT_EQ(error_of("2 0 9 1 0 0 none", "2 0 9 1 0 none"), second);
    EXPECT_EQ(error_of("2 0 9 1 0 0 none", "2 0 9.5 1 0 0 none"), second);
    EXPECT_EQ(error_of("2 0 9 1 0 0 none", "2 0 9,, 0 0 none"), second);
    EXPECT_EQ(error_of("1 0 2 1 0 0 none", "1 zero 2 1 0 0 none"),
              "Too many or not enough columns for describing the effect in the section POS_EFFECTS: 1\n"
              "File m.par, line 12");
}

TEST_F(ReadParameterFile, CountsHugeEffectsAndWantsThemLast) {
    ASSERT_EQ(read(huge_model("")), fine);
    EXPECT_EQ(param_.nhuge, 2);
    EXPECT_THAT(param_.present.column(5), ElementsAre(0, 1));

    EXPECT_EQ(
        error_of("1 0 2 1 0 0 none", "1 2 2 1 0 0 none"),
        "Effects of type 2 and 3 must be the last effects of the model! Please check your instruction file.\n"
        "File m.par, line 13");
}

TEST_F(ReadParameterFile, RefusesNestedHugeEffects) {
    EXPECT_EQ(error_of("2 0 9 1 0 0 none", "2 3 9 1 4 0 none"),
              "The huge effect 2 may not be a nested effect!\nFile m.par, line 13");
}

// ---- EFFECT_ID -------------------------------------------------------------------------------------------

TEST_F(ReadParameterFile, TakesTheWordsOfEachRandomType) {
    struct expectation {
        const char* type;
        const char* words;
        std::array<std::string, 4> files;
        std::int32_t nupg;
        const char* log;
    };
    const char* genetic = "Read the genetic covariance matrix\n";
    for (const expectation& x : {expectation{"1", "", {}, 0, "Read the covariance matrix\n"},
                                 expectation{"3", "p i\n", {"p", "i"}, 0, genetic},
                                 expectation{"5", "p 4 i\n", {"p", "i"}, 4, genetic},
                                 expectation{"7", "p\n4 i m\n", {"p", "i", "m"}, 4, genetic},
                                 expectation{"9", "p,4,i\n", {"p", "i"}, 4, genetic},
                                 expectation{"10", "p\n", {"p"}, 0, "Read the (genetic) covariance matrix\n"},
                                 expectation{"103", "p\ni\na\n", {"p", "i", "", "a"}, 0, genetic},
                                 expectation{"105", "p 4 i a\n", {"p", "i", "", "a"}, 4, genetic},
                                 expectation{"109", "p 4 i a\n", {"p", "i", "", "a"}, 4, genetic},
                                 expectation{"203", "p i\n", {"p", "i"}, 0, genetic}}) {
        SCOPED_TRACE(x.type);
        ASSERT_EQ(error_of("2 3 0 1\nped.txt inb.txt\n", "2 " + std::string(x.type) + " 0 1\n" + x.words),
                  fine);
        EXPECT_EQ(param_.file[2], x.files);
        EXPECT_EQ(param_.nupg.empty(), x.nupg == 0);
        if (x.nupg != 0) {
            EXPECT_THAT(param_.nupg, ElementsAre(0, x.nupg));
        }
        EXPECT_EQ(param_.g[1](0, 0), 0.5);
        EXPECT_THAT(log_, HasSubstr(x.log));
    }
}

TEST_F(ReadParameterFile, TreatsABlockOfType0AsNone) {
    ASSERT_EQ(error_of("2 3 0 1\nped.txt inb.txt\ng1.txt\n", "2 0 0 1\n"), fine);
    EXPECT_THAT(param_.type_random, ElementsAre(0, 0));
    EXPECT_THAT(param_.n_correlated, ElementsAre(-1, -1));
    EXPECT_THAT(param_.dim_g, ElementsAre(0, 0));
}

TEST_F(ReadParameterFile, TakesBlocksInAnyOrderAndCorrelatedGroups) {
    ASSERT_EQ(read(huge_model(block("5 20 1 900", "snp.txt 1") + block("3 1 0 4", "g4.txt") +
                              block("1 3 0 2", "ped inb\ng2.txt"))),
              fine);
    EXPECT_THAT(param_.type_random, ElementsAre(3, 0, 1, 0, 20, 0));
    EXPECT_THAT(param_.type_random_eff, ElementsAre(3, 0, 1, 0, 20, 20));
    EXPECT_THAT(param_.n_correlated, ElementsAre(0, -1, 0, -1, 1, -1));
    EXPECT_THAT(param_.dim_g, ElementsAre(2, 0, 4, 0, 900, 0));
    EXPECT_EQ(param_.file[5][0], "snp.txt");
    EXPECT_EQ(param_.ghuge_type[4], 1);
    EXPECT_THAT(param_.g[0].values(), ElementsAre(2, 0.5, 0.5, 3));
}

TEST_F(ReadParameterFile, DoesNotSpreadTheTypeOfOtherGroups) {
    folder_.write("g6.txt", "1\n0 1\n0 0 1\n0 0 0 1\n0 0 0 0 1\n0 0 0 0 0 1\n");
    ASSERT_EQ(read(huge_model(block("3 3 1 6", "ped inb\ng6.txt"))), fine);
    EXPECT_THAT(param_.type_random_eff, ElementsAre(0, 0, 3, 0, 0, 0));
}

TEST_F(ReadParameterFile, RefusesBadBlocks) {
    const auto at = [](std::int32_t line) { return "\nFile m.par, line " + std::to_string(line); };
    EXPECT_EQ(error_of("2 3 0 1\n", "2 3 x 1\n"), "Issue(s) with the description of effect 2" + at(18));
    EXPECT_THAT(log_, AllOf(HasSubstr("modparameters % read_parameter_file ("), HasSubstr("With iostat = "),
                            HasSubstr("With iomsg = ")));
    EXPECT_EQ(error_of("2 3 0 1\n", "3 3 0 1\n"), "The effect number 3 is greater than 2" + at(18));
    EXPECT_EQ(error_of("2 3 0 1\n", "0 3 0 1\n"),
              "The effect number of EFFECT_ID is 0, but must be at least 1!" + at(18));
    EXPECT_EQ(error_of("2 3 0 1\n", "2 4 0 1\n"), "This random type is not defined: 4" + at(18));
    EXPECT_EQ(error_of("2 3 0 1\n", "2 3 -1 1\n"),
              "N_CORRELATED_EFFECTS of the effect 2 is -1, but must be at least 0!" + at(18));
    EXPECT_EQ(error_of("2 3 0 1\n", "2 3 1 2\n"),
              "The group of the effect 2 with 1 correlated effects goes beyond the last effect 2!" + at(18));
    EXPECT_EQ(
        error_of("2 3 0 1\n", "2 3 1000000 2\n"),
        "The group of the effect 2 with 1000000 correlated effects goes beyond the last effect 2!" + at(18));
    EXPECT_EQ(error_of("PHENO_FILE", "EFFECT_ID\n2 1 0 1\ng1.txt\nPHENO_FILE"),
              "The effect 2 is described by more than one EFFECT_ID!" + at(22));
    EXPECT_EQ(error_of("2 3 0 1\nped.txt", "2 5 0 1\nped.txt"),
              "IO issue(s) with the description of effect 2" + at(19));
    EXPECT_THAT(log_, AllOf(HasSubstr("modparameters % read_parameter_file ("), HasSubstr("With iostat = "),
                            HasSubstr("With iomsg = ")));
    EXPECT_EQ(error_of("2 3 0 1\nped.txt", "2 5 0 1\nped.txt -1"),
              "The number of genetic groups of the effect 2 is -1, but must be at least 0!" + at(19));
    EXPECT_EQ(read(animal_model.substr(0, animal_model.find("g1.txt"))),
              "IO issue(s) with the description of effect 2" + at(19));
    EXPECT_EQ(error_of("g1.txt", "g9.txt"), "Cannot open the file g9.txt");
    folder_.write("bad.txt", "x\n");
    EXPECT_EQ(error_of("g1.txt", "bad.txt"),
              "Cannot read the file properly\nFile bad.txt, line 1, row 1 of 1 of the covariance matrix of "
              "the effect 2");
}

TEST_F(ReadParameterFile, LimitsTheDimensionOfDenseCovariances) {
    const std::string limit =
        "The dimension of the (co)variance matrix must be < 80\nThis limit could be modified on request!"
        "\nFile m.par, line 18";
    EXPECT_EQ(error_of("2 3 0 1\n", "2 3 0 81\n"), limit);
    EXPECT_EQ(error_of("2 3 0 1\n", "2 103 0 81\n"), limit);
    EXPECT_EQ(error_of("2 3 0 1\n", "2 203 0 81\n"), limit);
    EXPECT_EQ(read(huge_model(block("5 20 0 81", "snp.txt 1"))), fine);
    EXPECT_EQ(param_.dim_g[4], 81);
}

TEST_F(ReadParameterFile, WantsTheDimensionOfTheGroupsBlock) {
    const auto message = [](std::int32_t e, std::int32_t dim_g, std::int32_t order, std::int32_t line) {
        return "The dimension of the (co)variance matrix of the effect " + std::to_string(e) + " is " +
               std::to_string(dim_g) + ", but the traits and columns of its group make an order of " +
               std::to_string(order) + "!\nFile m.par, line " + std::to_string(line);
    };
    EXPECT_EQ(error_of("2 3 0 1\n", "2 3 0 2\n"), message(2, 2, 1, 18));
    EXPECT_EQ(error_of("2 3 0 1\n", "2 3 0 0\n"), message(2, 0, 1, 18));
    EXPECT_EQ(error_of("2 3 0 1\n", "2 203 0 80\n"), message(2, 80, 1, 18));
    EXPECT_EQ(error_of("2 3 0 1\n", "2 105 0 -1\n"), message(2, -1, 1, 18));
    EXPECT_EQ(read(huge_model(block("3 1 1 4", "g4.txt"))), message(3, 4, 6, 22));
    // the N_COV of a class effect does not count
    EXPECT_EQ(read(replaced(huge_model(block("1 1 0 2", "g2.txt")), "1 0 0 3 1", "1 0 0 3 7")), fine);
    EXPECT_EQ(param_.n_cov[0], 7);
    // nothing depends on the dimension of a huge effect
    for (const char* dim_g : {"0", "-3", "7"})
        EXPECT_EQ(read(huge_model(block("5 23 1 " + std::string(dim_g), "snp.txt 1"))), fine);
}

TEST_F(ReadParameterFile, RefusesBadHugeCovariances) {
    EXPECT_EQ(read(huge_model(block("5 20 0 1", "snp.txt 2"))),
              "This random type for huge effect is not defined: 2\nFile m.par, line 23");
    EXPECT_EQ(read(huge_model(block("5 20 0 1", "snp.txt one"))),
              "This random type for huge effect is not defined: one\nFile m.par, line 23");
    EXPECT_EQ(read(huge_model(block("4 20 0 1", "snp.txt 1"))),
              "The effect 4 was not declared as a ghuge effect!\nFile m.par, line 23");
    EXPECT_THAT(read(huge_model(block("5 30 1 1", "snp.txt 1\n4"))),
                StartsWith("IO issue(s) with the description of effect 5\nFile m.par, line 25"));
    EXPECT_EQ(
        read(huge_model(block("5 30 0 1", "snp.txt 1\n7"))),
        "An effect that the huge effect 5 is linked to is 7, but must be at most 6!\nFile m.par, line 24");
    EXPECT_EQ(
        read(huge_model(block("5 22 0 1", "snp.txt 1\n0"))),
        "An effect that the huge effect 5 is linked to is 0, but must be at least 1!\nFile m.par, line 24");
}

TEST_F(ReadParameterFile, LinksHugeEffects) {
    for (const char* type : {"22", "30"}) {
        ASSERT_EQ(read(huge_model(block("5 " + std::string(type) + " 1 1", "snp.txt 1\n4\n1"))), fine);
        EXPECT_THAT(param_.link_effect[4], ElementsAre(4, 1));
        EXPECT_THAT(param_.link_effect[5], ElementsAre(1));
        EXPECT_THAT(param_.type_random_eff, ElementsAre(0, 0, 0, 0, std::stoi(type), std::stoi(type)));
        EXPECT_THAT(log_, EndsWith("The SNP effect (teff_huge*) 5 is linked to the animal effect 4\n"
                                   "The SNP effect (teff_huge*) 6 is linked to the animal effect 1\n"));
    }
}

TEST_F(ReadParameterFile, LinksSingleCovariablesToType30Only) {
    EXPECT_EQ(read(huge_model(block("5 30 0 1", "snp.txt 1\n2"))), fine);
    EXPECT_EQ(read(huge_model(block("5 22 0 1", "snp.txt 1\n2"))),
              "This type of effect 22 is not implemented");
    EXPECT_THAT(log_, HasSubstr("modsnpmodel % read_parameter_file ("));
    EXPECT_EQ(read(huge_model(block("5 30 0 1", "snp.txt 1\n3"))),
              "This type of effect 30 is not implemented");
    EXPECT_EQ(read(huge_model(block("5 30 0 1", "snp.txt 1\n6"))),
              "This type of effect 30 is not implemented");
}

TEST_F(ReadParameterFile, KeepsOverlappingLinkedGroupsApart) {
    const std::string first = block("5 30 1 1", "snp.txt 1\n4 1"), second = block("6 30 0 1", "snp.txt 1\n2");
    for (const std::string& blocks : {first + second, second + first}) {
        ASSERT_EQ(read(huge_model(blocks)), fine);
        EXPECT_THAT(param_.link_effect[4], ElementsAre(4, 1));
        EXPECT_THAT(param_.link_effect[5], ElementsAre(2));
    }
}

// ---- the procedures of their own -------------------------------------------------------------------------

TEST(Checkparam, AcceptsTheKeywordOrTheAlternative) {
    captured_log log;
    checkparam(log, " N_TRAITS  ", "N_TRAITS ");
    checkparam(log, "OTHER", "N_TRAITS", "OTHER", "message");
    EXPECT_EQ(log.text(), "");
}

TEST(Checkparam, BuildsItsMessageFromTheGivenParts) {
    captured_log log;
    EXPECT_EQ(
        fatal_message([&] { checkparam(log, "word ", "KEY"); }),
        "The following keyword is missing: KEY\nLast line read: word\nPlease, check the parameter file.");
    EXPECT_EQ(fatal_message([&] { checkparam(log, "word", "KEY", "ALT"); }),
              "The following keyword is missing: KEY\n OR the following keyword: ALT\nLast line read: word\n"
              "Please, check the parameter file.");
    EXPECT_EQ(
        fatal_message([&] { checkparam(log, "", "KEY", "ALT", "A hint!"); }),
        "The following keyword is missing: KEY\n OR the following keyword: ALT\nA hint!\nLast line read: \n"
        "Please, check the parameter file.");
}

TEST(Allocpar, ZeroesAllArraysAndSetsTheIdentities) {
    param_type param;
    param.ntrait = 2;
    param.neffect = 3;

    allocpar(param);

    EXPECT_THAT(param.n_level, ElementsAre(0, 0, 0));
    EXPECT_THAT(param.n_correlated, ElementsAre(-1, -1, -1));
    EXPECT_THAT(param.andeffect, ElementsAre(1, 2, 3));
    EXPECT_THAT(param.combieff_trait.values(), ElementsAre(1, 2, 1, 2, 1, 2));
    EXPECT_EQ(param.structprecond, "NNN");
    EXPECT_EQ(param.sumlevel.size(), 6u);
    EXPECT_EQ(param.sumequation.size(), 6u);
    EXPECT_EQ(param.nx.size(), 5u);
    EXPECT_EQ(param.pos.size(), 5u);
    EXPECT_EQ(param.file.size(), 4u);
    EXPECT_EQ(param.present, matrix<unsigned char>(2, 3));
    EXPECT_TRUE(param.nupg.empty());
}

TEST(ResetParam, PutsAllDefaultsBack) {
    param_type param;
    param.ntrait = 2;
    param.neffect = 3;
    allocpar(param);
    param.lpec = true;
    param.relparam = "x";
    param.omega = 2.0;
    param.solver.maxiter = 7;

    reset_param(param);

    EXPECT_EQ(param, param_type{});
    EXPECT_EQ(param.relparam, "ca471rel.dat");
    EXPECT_EQ(param.priormean, "none");
}

}  // namespace
}  // namespace zendar
