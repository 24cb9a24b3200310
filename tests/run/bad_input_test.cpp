#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include <functional>

#include "program_run.hpp"

namespace zendar::test {
namespace {

using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;

/// One fault in an otherwise good model, and the message that names it.
struct bad_input {
    const char* name;
    std::function<void(model_files&)> change;
    const char* message;
};

void PrintTo(const bad_input& input, std::ostream* os) {
    *os << input.name;
}

auto par(const char* piece, const char* by) {
    return [=](model_files& m) { m.replace(piece, by); };
}
auto cut_from(const char* piece) {
    return [=](model_files& m) { m.par.resize(m.par.find(piece)); };
}
auto option(const char* line) {
    return [=](model_files& m) { m.par += std::string(line) + "\n"; };
}
auto data(const char* text) {
    return [=](model_files& m) { m.data = text; };
}
auto residual(const char* text) {
    return [=](model_files& m) { m.residual = text; };
}
auto covariance(const char* text) {
    return [=](model_files& m) { m.g = text; };
}

const bad_input inputs[] = {
    // the fixed sections
    {"EmptyFile", [](model_files& m) { m.par.clear(); },
     "The end of the file was found before the keyword N_TRAITS"},
    {"OnlyOptions", [](model_files& m) { m.par = "!maxiter 10\n\n"; }, "before the keyword N_TRAITS"},
    {"MisspeltKeyword", par("N_TRAITS", "N_TRAIT"), "The following keyword is missing: N_TRAITS"},
    {"MisspeltKeywordWord", par("N_TRAITS", "N_TRAIT"), "Last line read: N_TRAIT"},
    {"MisspeltKeywordAdvice", par("N_TRAITS", "N_TRAIT"), "Please, check the parameter file."},
    {"LowerCaseKeyword", par("N_EFFECTS", "n_effects"), "The following keyword is missing: N_EFFECTS"},
    {"SectionsInAnotherOrder", par("N_WEIGHTS\n0\nN_EFFECTS\n2", "N_EFFECTS\n2\nN_WEIGHTS\n0"),
     "The following keyword is missing: N_WEIGHTS"},
    {"NoTraits", par("N_TRAITS\n1", "N_TRAITS\n0"), "N_TRAITS is 0, but must be at least 1!"},
    {"TooManyTraits", par("N_TRAITS\n1", "N_TRAITS\n65"), "N_TRAITS is 65, but must be at most 64!"},
    {"TraitsAreAWord", par("N_TRAITS\n1", "N_TRAITS\none"), "Issue with the values of N_TRAITS"},
    {"TraitsBeyondTheIntegers", par("N_TRAITS\n1", "N_TRAITS\n99999999999"),
     "Issue with the values of N_TRAITS"},
    {"NegativeWeights", par("N_WEIGHTS\n0", "N_WEIGHTS\n-1"), "N_WEIGHTS is -1, but must be at least 0!"},
    {"NoEffects", par("N_EFFECTS\n2", "N_EFFECTS\n0"), "N_EFFECTS is 0, but must be at least 1!"},
    {"EffectsWithoutEnd", par("N_EFFECTS\n2", "N_EFFECTS\n2000000000"), "N_EFFECTS is 2000000000"},
    {"MoreEffectsThanTheFileHolds", par("N_EFFECTS\n2", "N_EFFECTS\n900000"),
     "the file is too short for so many effects!"},
    {"OneEffectTooMany", par("N_EFFECTS\n2", "N_EFFECTS\n1"),
     "Possible issues: Too many or not enough effects in the previous section!"},
    {"OneEffectTooFew", par("N_EFFECTS\n2", "N_EFFECTS\n3"),
     "Too many or not enough columns for describing the effect in the section POS_EFFECTS: 3"},
    {"WrongColumnsOfEffects", par("1 0 2 1 0 0 none", "1 0 2 1 0 none"),
     "The number of columns must be equal to (#traits*2 + 5) or to (#traits*2 + 7)"},
    {"WordInEffectLine", par("2 0 3 1 0 0 none", "2 0 three 1 0 0 none"),
     "describing the effect in the section POS_EFFECTS: 2"},
    {"NameOnTheFirstLineOnly", par("1 0 2 1 0 0 none", "1 0 2 1 0 0 none sex c"),
     "describing the effect in the section POS_EFFECTS: 2"},
    {"UnknownEffectType", par("1 0 2 1 0 0 none", "1 7 2 1 0 0 none"), "This effect does not exist: 7"},
    {"HugeEffectFirst", par("1 0 2 1 0 0 none", "1 2 2 1 0 0 none"),
     "Effects of type 2 and 3 must be the last effects of the model! Please check your instruction file."},
    {"NestedHugeEffect", par("2 0 3 1 0 0 none", "2 2 3 1 2 2 none"),
     "The huge effect 2 may not be a nested effect!"},
    {"NoLevels", par("1 0 2 1 0 0 none", "1 0 0 1 0 0 none"),
     "Instruction file: at least one effect has less than 1 level!"},
    {"ResidualCountIsAWord", par("\n1 0\nresidual", "\nx 0\nresidual"),
     "Issue with the description of N_RESIDUAL_COV"},
    {"NoResidual", par("\n1 0\nresidual", "\n0 0\nresidual"), "N_RESIDUAL_COV is 0, but must be at least 1!"},
    {"MissingResidualFile", par("residual.txt", "nothing.txt"), "Cannot open the file nothing.txt"},
    {"ResidualFileIsADirectory", par("residual.txt", "."), "Is a directory"},
    {"WordInResidualFile", residual("1 1 x\n"), "The format of the residual covariance file is not correct!"},
    {"ResidualRowOfNoTrait", residual("2 1 0.1 2.5\n"), "row 2 is not one of the 1 traits"},
    {"ResidualClassOfNone", residual("1 2 2.5\n"), "class 2 is not one of the 1 residual classes"},
    {"NegativeResidual", residual("1 1 -2.5\n"),
     "The residual matrix for the class 1 is not positive definite!"},
    {"EffectNumberTooLarge", par("2 1 0 1\ng.txt", "5 1 0 1\ng.txt"),
     "The effect number 5 is greater than 2"},
    {"EffectNumberZero", par("2 1 0 1\ng.txt", "0 1 0 1\ng.txt"), "The effect number of EFFECT_ID is 0"},
    {"WordInBlock", par("2 1 0 1\ng.txt", "2 1 zero 1\ng.txt"), "Issue(s) with the description of effect 2"},
    {"UnknownRandomType", par("2 1 0 1\ng.txt", "2 4 0 1\ng.txt"), "This random type is not defined: 4"},
    {"BlockEndsEarly", cut_from("g.txt"), "IO issue(s) with the description of effect 2"},
    {"SecondBlockOfOneEffect", par("PHENO_FILE", "EFFECT_ID\n2 1 0 1\ng.txt\nPHENO_FILE"),
     "more than one EFFECT_ID"},
    {"GroupBeyondTheEffects", par("2 1 0 1\ng.txt", "2 1 1 2\ng.txt"), "goes beyond the last effect 2!"},
    {"CovarianceOf81", par("2 1 0 1\ng.txt", "2 3 0 81\nped.txt compute\ng.txt"),
     "The dimension of the (co)variance matrix must be < 80"},
    {"CovarianceOf81Advice", par("2 1 0 1\ng.txt", "2 3 0 81\nped.txt compute\ng.txt"),
     "This limit could be modified on request!"},
    {"CovarianceOfAnotherOrder", par("2 1 0 1\ng.txt", "2 1 0 2\ng.txt"), "make an order of 1!"},
    {"NoHugeEffect", par("2 1 0 1\ng.txt", "2 20 0 1\nsnp.txt 1"),
     "The effect 2 was not declared as a ghuge effect!"},
    {"HugeEffectOfAnotherKind", par("2 1 0 1\ng.txt", "2 20 0 1\nsnp.txt 2"),
     "This random type for huge effect is not defined: 2"},
    {"MissingCovarianceFile", par("g.txt", "nothing.txt"), "Cannot open the file nothing.txt"},
    {"EmptyCovarianceFile", covariance(""), "Cannot read the file properly"},
    {"WordInCovarianceFile", covariance("one\n"), "Cannot read the file properly"},
    {"NotFiniteCovariance", covariance("nan\n"), "Cannot read the file properly"},
    {"NoPhenotypeSection", cut_from("PHENO_FILE"), "before the keyword PHENO_FILE"},
    {"NoPhenotypeFileName", cut_from("data.txt"), "Issue with the file name of PHENO_FILE"},
    {"BinaryFile", [](model_files& m) { m.par.assign("\0\x01\x02\xff\xfe PLINK \0\n", 14); },
     "The following keyword is missing: N_TRAITS"},
    {"ALineOfAMillionCharacters", [](model_files& m) { m.par.insert(0, std::string(1'000'000, 'N') + "\n"); },
     "The following keyword is missing: N_TRAITS"},
    // the options
    {"OptionWithAWordForANumber", option("!maxiter ten"), "\"ten\" is not an integer!"},
    {"OptionNamesFileAndLine", option("!maxiter ten"), "File model.par, line 22: !maxiter ten"},
    {"OptionWithAnEffectTooLarge", option("!yhat 1 9"), "\"9\" is not the number of an effect (1 to 2)!"},
    {"OptionWithAnEffectOfZero", option("!miraculix 0"), "\"0\" is not the number of an effect (1 to 2)!"},
    {"OptionLineTooLong", [](model_files& m) { m.par += "!iterfile " + std::string(3000, 'x') + "\n"; },
     "An option line has more than 2500 characters!"},
    {"InbreedingByNobody", option("!inbreeding wright"), "The option !inbreeding has a wrong argument!"},
    {"OptimemNine", option("!optimem -9"), "The option !optimem with this argument is not implemented yet!"},
    {"DeflationWithoutFile", option("!solver dpcg_iod_real"),
     "A file for the deflation matrix must be provided with the option dpcg_iod_real."},
    {"CombieffOfNoTrait", option("!combieff 1 2"), "!combieff"},
    {"AndeffectOfAnotherLayout", option("!andeffect 1 1 2"), "their numbers of levels or of columns differ!"},
    {"NotPositiveDefinite", [](model_files& m) { m.g = "0.00001\n", m.par += "!checkpd\n"; },
     "The covariance matrix for the effect 2 is (close to be) not positive definite. Smallest eigenvalue "
     "allowed: "},
    // nesting
    {"DifferentNestingColumns",
     [](model_files& m) {
         m.replace("N_TRAITS\n1", "N_TRAITS\n2").replace("POS_TRAITS\n3", "POS_TRAITS\n3 3");
         m.replace("POS_WEIGHTS\n0", "POS_WEIGHTS\n0 0").replace("1 0 2 1 0 0 none", "1 1 0 2 1 0 0 0 none");
         m.replace("2 0 3 1 0 0 none", "2 2 1 3 1 1 2 2 none").replace("2 1 0 1\ng.txt", "2 1 0 2\ng.txt");
         m.residual = "1 1 1\n2 1 0 1\n", m.g = "1\n0 1\n";
     },
     "Effect 2: different columns for nested covariables are provided: 1 and 2"},
    {"NestingWithoutLevels", par("2 0 3 1 0 0 none", "2 1 3 1 1 0 none"),
     "Effect 2: columns for nested covariables are provided but the number of levels is <= 0!"},
    {"NestingLevelsWithoutColumn", par("2 0 3 1 0 0 none", "2 1 3 1 0 2 none"),
     "Effect 2: columns for nested covariables are all 0 but the number of levels is > 0!"},
    {"MoreEquationsThanNumbers", par("2 0 3 1 0 0 none", "2 0 2147483647 1 0 0 none"),
     "the model has more than 2147483647 equations"},
    // the phenotype file
    {"MissingPhenotypeFile", par("data.txt", "nothing.txt"), "The phenotype file nothing.txt cannot be read"},
    {"PhenotypeFileIsADirectory", par("data.txt", "."), "Is a directory"},
    {"EmptyPhenotypeFile", data(""), "The phenotype file data.txt is empty"},
    {"PhenotypeFileOfBlankLines", data("\n\n"), "data.txt"},
    {"TooFewColumns", data("1 1\n2 2\n"),
     "The number of columns in the phenotype file is lower than the highest position declared in the "
     "parameter file "
     "(that is 2 < 3)"},
    {"CommasBetweenColumns", data("1,1,10.5\n"), "are separated by commas or tabs"},
    {"TabsBetweenColumns", data("1\t1\t10.5\n"), "are separated by commas or tabs"},
    {"HeaderLine", data("sex animal weight\n1 1 10.5\n"), "Phenotype (record) not correctly read at line 1"},
    {"WordInTheThirdLine", data("1 1 10.5\n2 2 11.5\n1 x 9.0\n"),
     "Phenotype (record) not correctly read at line 3"},
    {"TheWordIsShown", data("1 1 10.5\n2 2 11.5\n1 x 9.0\n"), "value 2 is not a number: \"x\""},
    {"TheFirstOfTwoBadLines", data("1 1 y\n2 2 11.5\n1 x 9.0\n"),
     "Phenotype (record) not correctly read at line 1"},
    {"ShortLine", data("1 1 10.5\n2 2\n1 3 9.0\n"), "Phenotype (record) not correctly read at line 2"},
    {"BlankLineInside", data("1 1 10.5\n\n1 3 9.0\n"), "Phenotype (record) not correctly read at line 2"},
    {"PhenotypeIsNaN", data("1 1 nan\n"), "Phenotype (record) not correctly read at line 1"},
    {"PhenotypeOutOfRange", data("1 1 1e999\n"), "Phenotype (record) not correctly read at line 1"},
    {"LevelOutOfRange", data("1 3000000000 1\n"), "Phenotype (record) not correctly read at line 1"},
    {"LevelAboveItsLimit", data("1 1 10.5\n2 4 11.5\n"), "level 4 of effect 2"},
    {"BinaryPhenotypeFile", [](model_files& m) { m.data.assign("\x6c\x1b\x01 \0 \xff\0\n", 9); },
     "Phenotype (record) not correctly read at line 1"},
    {"APhenotypeLineOfAMillionCharacters",
     [](model_files& m) { m.data = "1 1 10.5\n" + std::string(1'000'000, '7') + " 1 1\n"; },
     "Phenotype (record) not correctly read at line 2"},
    {"MorePhenotypesAskedForThanThere", option("!nphen 10"),
     "Phenotype (record) not correctly read at line 5"},
    {"DifferentColumnsOfAnEffect",
     [](model_files& m) {
         m.replace("N_TRAITS\n1", "N_TRAITS\n2").replace("POS_TRAITS\n3", "POS_TRAITS\n3 3");
         m.replace("POS_WEIGHTS\n0", "POS_WEIGHTS\n0 0").replace("1 0 2 1 0 0 none", "1 2 0 2 1 0 0 0 none");
         m.replace("2 0 3 1 0 0 none", "2 2 0 3 1 0 0 0 none").replace("2 1 0 1\ng.txt", "2 1 0 2\ng.txt");
         m.residual = "1 1 1\n2 1 0 1\n", m.g = "1\n0 1\n";
     },
     "These 2 values should be the same: 1 and 2"},
    {"AnEffectWithoutColumn", par("1 0 2 1 0 0 none", "0 0 2 1 0 0 none"), "All values (positions) are 0!"},
};

class BadInput : public ::testing::TestWithParam<bad_input> {};

TEST_P(BadInput, IsOneClearMessageAndNoMarker) {
    const temporary_directory run;
    model_files files;
    GetParam().change(files);
    files.write(run);
    run.write("OK_ZENDAR", "");
    run.write("solutions.dat", "of an earlier run\n");

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_EQ(result.status, 1);
    const std::string text = unwrapped(result.out);
    EXPECT_THAT(text, HasSubstr(GetParam().message));
    EXPECT_THAT(text, HasSubstr("ERROR: "));
    EXPECT_EQ(result.error, "");
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
    EXPECT_EQ(run.read("solutions.dat"), "of an earlier run\n");
    EXPECT_EQ(run.read("log_zendar.dat"), result.out);
    EXPECT_THAT(result.out, Not(HasSubstr("End on ")));
}

INSTANTIATE_TEST_SUITE_P(Cases, BadInput, ::testing::ValuesIn(inputs),
                         [](const auto& info) { return std::string(info.param.name); });

/// What looks odd and is right all the same: the run ends well.
struct odd_input {
    const char* name;
    std::function<void(model_files&)> change;
};

void PrintTo(const odd_input& input, std::ostream* os) {
    *os << input.name;
}

std::string with_windows_ends(std::string text) {
    for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2)
        text.replace(at, 1, "\r\n");
    return text;
}

const odd_input odd_inputs[] = {
    {"WindowsLineEnds",
     [](model_files& m) {
         for (std::string* text : {&m.par, &m.data, &m.residual, &m.g}) *text = with_windows_ends(*text);
     }},
    {"ByteOrderMark",
     [](model_files& m) {
         for (std::string* text : {&m.par, &m.data, &m.residual, &m.g}) text->insert(0, "\xEF\xBB\xBF");
     }},
    {"NoLineFeedAtTheEnd",
     [](model_files& m) {
         for (std::string* text : {&m.par, &m.data, &m.residual, &m.g}) text->pop_back();
     }},
    {"ValuesOverSeveralLinesAndRepeatCounts", par("\n1 0\nresidual.txt", "\n1,\n\n 1*0\n'residual.txt'")},
    {"OptionsBetweenTheSections",
     par("2 0 3 1 0 0 none\n", "!maxiter 3\n\n2 0 3 1 0 0 none\n  !miniter 2\n")},
    {"TextBehindKeywords", par("N_TRAITS\n", "N_TRAITS number of traits\n")},
    {"MisspeltOption", option("!maxitre 10")},
    {"WrongWordCountOfAnOption", option("!maxiter")},
    {"BlankLinesAtTheEndOfTheData", data("1 1 10.5\n2 3 9\n\n  \n\n")},
    {"LongerLinesThanTheFirst", data("1 1 10.5\n2 3 9 8 7 x\n")},
    {"LevelsWrittenAsReals", data("1.0 1.9 10.5\n2d0 3 9\n")},
    {"NoLevelOfAnEffect", data("0 -5 10.5\n")},
    {"MissingResidualClass", residual("")},
    {"RecordsWithoutTraits", data("1 1 -9\n2 3 9\n1 2 8\n")},
    {"NoRecordsOfAnEffect", data("1 0 10.5\n2 0 9\n")},
    {"SingularCovariance", covariance("0\n")},
    {"NoRandomEffect", par("EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n2 1 0 1\ng.txt\n", "")},
};

class OddInput : public ::testing::TestWithParam<odd_input> {};

TEST_P(OddInput, IsRead) {
    const temporary_directory run;
    model_files files;
    GetParam().change(files);
    files.write(run);

    const auto result = run_program(run.path(), {"model.par"});

    const std::string text = unwrapped(result.out);
    EXPECT_THAT(text, HasSubstr("Number of equations: 5\n"));
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_THAT(text, HasSubstr("END: solving the MME\n"));
    EXPECT_TRUE(run.exists("OK_ZENDAR"));
    const std::string solutions = run.read("solutions.dat");
    EXPECT_EQ(std::count(solutions.begin(), solutions.end(), '\n'), 5);
}

INSTANTIATE_TEST_SUITE_P(Cases, OddInput, ::testing::ValuesIn(odd_inputs),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(BadFile, ADirectoryAsInstructionFile) {
    const temporary_directory run;

    const auto result = run_program(run.path(), {"."});

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("I/O ERROR: Cannot open the file ."));
    EXPECT_THAT(result.out, HasSubstr("With iomsg = \"Is a directory\""));
}

TEST(BadFile, AFullDiskIsNamedWithTheLog) {
    const temporary_directory run;
    model_files().write(run);
    std::filesystem::create_symlink("/dev/full", run / "log_zendar.dat");

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out + result.error, HasSubstr("log_zendar.dat"));
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
}

TEST(BadFile, AFullDiskIsNamedWithTheStreamFile) {
    const temporary_directory run;
    model_files().write(run);
    std::filesystem::create_symlink("/dev/full", run / "phentmp.stream");

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(unwrapped(result.out), HasSubstr("I/O ERROR: Cannot write the file phentmp.stream"));
    EXPECT_THAT(result.out, HasSubstr("No space left on device"));
}

TEST(BadFile, AFullDiskIsNamedWithTheStatistics) {
    const temporary_directory run;
    model_files().write(run);
    std::filesystem::create_symlink("/dev/full", run / "log_stats.dat");

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(unwrapped(result.out), HasSubstr("log_stats.dat"));
}

}  // namespace
}  // namespace zendar::test
