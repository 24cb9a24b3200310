#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "snp_files.hpp"

/// Genotypes and other coefficients of SNP effects with one fault each, by the program itself.
namespace zendar::test {
namespace {

using ::testing::HasSubstr;

const char* const no_plink = "The following file is not a Plink SNP-major bed file: geno.bed3 are not equal.";
const char* const bad_read = "Unexpected error while reading geno.bed";
const char* const not_equal =
    "The number of declared coefficients / effective coefficients for the effect 3 are not equal.";
const char* const bad_frequency = "Allele frequencies not correctly read at line ";
const char* const bad_coefficient = "Coefficients of effect 3 not correctly read at line ";

const snp_case bad_inputs[] = {
    // the genotypes
    {"FirstMagicByte", 23, [](snp_files& m) { m.bed[0] = 'a'; }, {no_plink}},
    {"SecondMagicByte", 23, [](snp_files& m) { m.bed[1] = 'a'; }, {no_plink}},
    {"IndividualMajor", 30, [](snp_files& m) { m.bed[2] = '\0'; }, {no_plink}},
    {"BedIsTooLong",
     23,
     [](snp_files& m) { m.bed += '\0'; },
     {bad_read, "The file has 12 bytes; 4 SNPs of 5 individuals take 11"}},
    {"BedOfIndividualsThatAreNotNamed",
     23,
     set(&snp_files::fam, "1 2\n1 3\n1 4\n1 5\n"),
     {bad_read, "The file has 11 bytes; 4 SNPs of 4 individuals take 7"}},
    {"BedIsADirectory",
     23,
     [](snp_files& m) { snp_files::replace(m.effects, "geno.bed", "folder.bed"); },
     {"The following file does not exist: folder.bim"}},
    {"MissingBed", 23, remove_file("geno.bed"), {"The following file does not exist: geno.bed"}},
    {"MissingBim", 22, remove_file("geno.bim"), {"The following file does not exist: geno.bim"}},
    {"MissingFam", 30, remove_file("geno.fam"), {"The following file does not exist: geno.fam"}},
    {"EmptyBim", 23, set(&snp_files::bim, ""), {"The file geno.bim is empty"}},
    {"EmptyFam", 23, set(&snp_files::fam, "\n\n"), {"The file geno.fam is empty"}},
    {"FewerSnpsInTheBim", 23, set(&snp_files::bim, "1 a\n1 b\n1 c\n"), {not_equal}},
    {"MoreSnpsInTheBim", 23, change(&snp_files::bim, "1 d", "1 e\n1 d"), {not_equal}},
    {"CoefficientsThatAreNotTheSnps", 23, change(&snp_files::effects, "3 3 6 4", "3 3 6 5"), {not_equal}},
    {"BlankLineInTheBim",
     23,
     change(&snp_files::bim, "1 c", "\n1 c"),
     {"The file geno.bim is not correct at line 3: the line is blank"}},
    {"BlankLineInTheFam",
     23,
     change(&snp_files::fam, "1 3", "\n1 3"),
     {"The file geno.fam is not correct at line 2: the line is blank"}},
    {"FamLineOfOneWord",
     23,
     change(&snp_files::fam, "1 4 0 0 0 -9", "1"),
     {"The file geno.fam is not correct at line 3: the name of the individual, its second word, is missing"}},
    {"IndividualOfZero",
     23,
     change(&snp_files::fam, "1 3", "1 0"),
     {"The file geno.fam is not correct at line 2: the individual 0 must lie between 1 and 6"}},
    {"IndividualAboveTheLevels",
     30,
     change(&snp_files::fam, "1 3", "1 7"),
     {"The file geno.fam is not correct at line 2: the individual 7 must lie between 1 and 6"}},
    {"IndividualBeyondTheIntegers",
     23,
     change(&snp_files::fam, "1 3", "1 99999999999999999999"),
     {"The file geno.fam is not correct at line 2: the individual", "must lie between 1 and 6"}},
    {"IndividualTwice",
     22,
     change(&snp_files::fam, "1 5", "1 3"),
     {"The file geno.fam is not correct at line 4: the individual 3 stands in line 2 as well"}},
    {"MoreNamesThanLevels",
     23,
     [](snp_files& m) {
         snp_files::replace(m.effects, "3 3 6 4", "3 3 4 4");
         snp_files::replace(m.fam, "1 3", "1 cow");
         m.data = "1 1 0 12\n1 2 2 10.5\n";
     },
     {"The file geno.fam is not correct at line 5: the level 5 must lie between 1 and 4"}},
    {"IndividualAboveThePedigree",
     30,
     [](snp_files& m) {
         snp_files::replace(m.effects, "3 3 6 4", "3 3 9 4");
         snp_files::replace(m.fam, "1 6", "1 7");
     },
     {"Individual 7 of the SNP effect 3 is not an animal of the pedigree, which has 6 animals"}},
    {"IndividualAboveThePedigreeOfType22",
     22,
     [](snp_files& m) {
         snp_files::replace(m.effects, "3 3 6 4", "3 3 9 4");
         snp_files::replace(m.fam, "1 6", "1 7");
     },
     {"Individual 7 of the SNP effect 3 is not an animal of the pedigree, which has 6 animals"}},
    {"GeneticGroupWithGenotypes",
     30,
     [](snp_files& m) {
         m.animals = "2 5 0 1\nped.txt 1 compute\ng.txt\n";
         m.more = {{"ped.txt", "1 6 6\n2 6 6\n3 1 2\n4 1 2\n5 1 6\n"}};
         m.data = "1 1 0 12\n1 2 0 10.5\n";
     },
     {"Individual 6 of the SNP effect 3 is not an animal of the pedigree, which has 5 animals"}},
    // allele frequencies
    {"MissingFrequencies",
     23,
     option("!allelefreq nowhere.txt 1 3\n"),
     {"File with allele frequencies not found: nowhere.txt", "No such file"}},
    {"FrequencyAboveOne",
     23,
     frequencies("0.5\n0.5\n1.01\n0.5\n"),
     {bad_frequency, "line 3", "File freq.txt: the frequency 1.01 does not lie between 0 and 1"}},
    {"NegativeFrequency",
     23,
     frequencies("-1e-300\n0.5\n0.5\n0.5\n"),
     {bad_frequency, "line 1", "File freq.txt: the frequency -1e-300 does not lie between 0 and 1"}},
    {"FrequencyIsNaN", 30, frequencies("0.5\nNaN\n0.5\n0.5\n"), {bad_frequency, "line 2", "freq.txt", "NaN"}},
    {"FrequencyIsAWord",
     23,
     frequencies("0.5\nhalf\n0.5\n0.5\n"),
     {bad_frequency, "line 2", "File freq.txt: Bad real number"}},
    {"FrequencyWithANumber",
     23,
     frequencies("1 0.5\n2 0.5\n3 0.5\n4 0.5\n"),
     {bad_frequency, "line 1", "File freq.txt: one frequency is needed, and nothing else"}},
    {"TooFewFrequencies",
     23,
     frequencies("0.5\n0.5\n0.5\n"),
     {bad_frequency, "line 4", "File freq.txt: the file ends, but the genotypes have 4 SNPs"}},
    {"EmptyFrequencies", 23, frequencies(""), {bad_frequency, "line 1", "File freq.txt: the file ends"}},
    {"TooManyFrequencies",
     23,
     frequencies("0.5\n0.5\n0.5\n0.5\n0.5\n"),
     {bad_frequency, "line 5", "File freq.txt: the genotypes have 4 SNPs only"}},
    {"BlankFrequency",
     23,
     frequencies("0.5\n\n0.5\n0.5\n0.5\n"),
     {bad_frequency, "line 2", "one frequency is needed"}},
    {"FrequenciesOfMonomorphicSnpsAndComputedCovariances",
     30,
     [](snp_files& m) {
         frequencies("0\n1\n0\n1\n")(m);
         snp_files::replace(m.snp_block, "snpcov.txt", "compute");
     },
     {"Computation of covariance matrix for effect 3 is impossible because of wrong computation of sum2pq!",
      "Possible issue: an allele frequency file is not provided, or NaN values are present."}},
    // the records
    {"LevelInTheColumnOfType30",
     30,
     change(&snp_files::data, "1 3 0 11.5", "1 3 3 11.5"),
     {" ERROR (modgeneral, 354): This type of effect 30 is not implemented",
      "   Most likely issue: non-negative number in the corresponding column"}},
    {"LevelAboveTheLevels",
     23,
     change(&snp_files::data, "1 3 3 11.5", "1 3 7 11.5"),
     {"Record 3: level 7 of effect 3 is above its number of levels (6)"}},
    // coefficients of other forms
    {"IdTwiceInATextFile",
     23,
     coefficients("c.txt", "2 0 1 2 0\n3 1 1 0 0\n2 2 0 1 1\n"),
     {bad_coefficient, "line 3", "c.txt: the id 2 stands in line 1 as well"}},
    {"IdOfZeroInATextFile",
     23,
     coefficients("c.txt", "2 0 1 2 0\n0 1 1 0 0\n"),
     {bad_coefficient, "line 2", "c.txt: value 1 must lie between 1 and 6"}},
    {"IdAboveTheLevelsInATextFile",
     23,
     coefficients("c.txt", "7 0 1 2 0\n3 1 1 0 0\n"),
     {bad_coefficient, "line 1", "c.txt: value 1 must lie between 1 and 6"}},
    {"CoefficientsOfATextFileThatAreNotTheSnps", 23, coefficients("c.txt", "2 0 1 2\n"), {not_equal}},
    {"ShortLineInATextFile", 23, coefficients("c.txt", "2 0 1 2 0\n3 1 1 0\n"), {bad_coefficient, "line 2"}},
    {"CoefficientIsNaN", 23, coefficients("c.txt", "2 0 1 2 0\n3 1 nan 0 0\n"), {bad_coefficient, "line 2"}},
    {"CoefficientIsAWord",
     23,
     coefficients("c.txt", "2 0 one 2 0\n"),
     {bad_coefficient, "line 1", "\"one\""}},
    {"EmptyTextFile", 23, coefficients("c.txt", ""), {"The coefficient file c.txt of effect 3 is empty"}},
    {"MissingTextFile",
     23,
     change(&snp_files::effects, "geno.bed", "nowhere.txt"),
     {"The coefficient file nowhere.txt of effect 3 cannot be read", "No such file"}},
    {"IdAboveThePedigreeInATextFile",
     30,
     [](snp_files& m) {
         coefficients("c.txt", "2 0 1 2 0\n8 1 1 0 0\n")(m);
         snp_files::replace(m.effects, "3 3 6 4", "3 3 8 4");
     },
     {"Individual 8 of the SNP effect 3 is not an animal of the pedigree, which has 6 animals"}},
    {"SumInASparseFileIsNotFinite",
     23,
     coefficients("c.sparse", "2 1 1e308\n3 2 1.0\n2 1 1e308\n"),
     {"The coefficients of the level 2 in the file c.sparse do not have a finite sum"}},
    {"IdOfZeroInASparseFile",
     23,
     coefficients("c.sparse", "0 1 1.0\n"),
     {bad_coefficient, "line 1", "c.sparse"}},
    {"IdAboveTheLevelsInASparseFile",
     23,
     coefficients("c.sparse", "2 1 1.0\n7 1 1.0\n"),
     {bad_coefficient, "line 2", "c.sparse"}},
    {"CoefficientAboveTheSnpsInASparseFile",
     23,
     coefficients("c.sparse", "2 5 1.0\n"),
     {bad_coefficient, "line 1", "c.sparse"}},
    {"EmptySparseFile",
     23,
     coefficients("c.sparse", ""),
     {"The coefficient file c.sparse of effect 3 is empty"}},
    {"EmptyStreamFile",
     23,
     coefficients("c.stream", ""),
     {"The format of the file c.stream is not correct!", "The file has 0 bytes"}},
    {"StreamOfOtherSizes",
     23,
     coefficients("c.stream", std::string("\x02\0\0\0\x04\0\0\0\x02\0\0\0", 12)),
     {"The format of the file c.stream is not correct!", "The file has 12 bytes"}},
    // Miraculix
    {"MiraculixOfNoEffect",
     23,
     option("!miraculix 4\n"),
     {"The option !miraculix: \"4\" is not the number of an effect (1 to 3)!", "model.par, line"}},
    {"BothKindsOfMiraculix",
     23,
     option("!miraculix 3\n!miraculix_gpu 3\n"),
     {"Miraculix option 30 is not correct!"}},
};

class BadSnpInput : public ::testing::TestWithParam<snp_case> {};

TEST_P(BadSnpInput, IsOneClearMessageAndNoMarker) {
    expect_refused(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Cases, BadSnpInput, ::testing::ValuesIn(bad_inputs),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(BadSnpFile, CutAnywhereIsNamed) {
    const std::string whole = snp_files().bed;
    for (std::size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        const temporary_directory run;
        snp_files files(length % 2 == 0 ? 23 : 30);
        files.bed.resize(length);
        files.write(run);

        const auto result = run_program(run.path(), {"model.par", "--ncpus", "1"});

        EXPECT_EQ(result.status, 1);
        const std::string text = unwrapped(result.out);
        if (length < 3)
            EXPECT_THAT(text, HasSubstr(no_plink));
        else
            EXPECT_THAT(text, HasSubstr("The file has " + std::to_string(length) +
                                        " bytes; 4 SNPs of 5 individuals take 11"));
        EXPECT_EQ(result.error, "");
        EXPECT_FALSE(run.exists("OK_ZENDAR"));
        EXPECT_FALSE(run.exists("solutions.dat"));
    }
}

/// The genotype library reports faults on standard error, and the run in its log.
TEST(BadSnpFile, OnADeviceThatIsNotThereIsToldSo) {
    ::unsetenv("CUDA_VISIBLE_DEVICES");  // no device is visible then, whatever the machine has
    const temporary_directory run;
    snp_files files(30);
    files.options = "!miraculix_gpu 3\n";
    files.write(run);

    const auto result = run_program(run.path(), {"model.par", "--ncpus", "1"});

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.error, HasSubstr("GPU"));
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
    EXPECT_FALSE(run.exists("solutions.dat"));
}

}  // namespace
}  // namespace zendar::test
