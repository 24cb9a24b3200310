#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "gpu_state.hpp"
#include "miraculix.hpp"
#include "modparameters.hpp"
#include "modstructure.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// Five individuals, three SNPs. By individual, "-" missing:
///     SNP 1: 0 - 1 2 2    SNP 2: 1 1 0 0 -    SNP 3: 2 2 2 2 2
constexpr unsigned char five_by_three[] = {0x6C,       0x1B,       0x01,       0b11100100, 0b00000011,
                                           0b00001010, 0b00000001, 0b11111111, 0b00000011};

class ReadcovariableBed : public testing::Test {
  protected:
    ReadcovariableBed() {
        param_.ntrait = 2;
        param_.neffect = 2;
        param_.n_level = {3, 9};
        param_.n_cov = {1, 3};
        param_.type_effect = {0, 3};
        param_.cov_file = {"none", (directory_ / "geno.bed").string()};
        write_bed(std::string(reinterpret_cast<const char*>(five_by_three), sizeof five_by_three));
        write(".bim", "1 a 0 1 A C\n1 b 0 2 A C\n1 c 0 3 A C\n");
        write(".fam", "f 4 0 0 0 -9\nf 2 0 0 0 -9\nf 9 0 0 0 -9\nf 1 0 0 0 -9\nf 5 0 0 0 -9\n");
    }
    void write(const std::string& extension, const std::string& text) {
        directory_.write("geno" + extension, text);
    }
    void write_bed(const std::string& bytes) { write(".bed", bytes); }
    [[nodiscard]] std::string path(const std::string& name) const { return (directory_ / name).string(); }

    covariable_type read(std::int32_t maxcols = 0) {
        covariable_type cov;
        readcovariable(cov, param_, 2, log_, maxcols);
        return cov;
    }
    /// The message of a reading that must stop; what stands behind it goes to the log, too.
    std::string failure() {
        return fatal_message([&] { static_cast<void>(read()); });
    }
    void set_frequencies(const std::string& text) {
        directory_.write("freq.txt", text);
        param_.allelefreq = {"none", path("freq.txt")};
    }

    test::temporary_directory directory_;
    captured_log log_;
    param_type param_;
};

// ---- the three files
// ---------------------------------------------------------------------------------------

TEST_F(ReadcovariableBed, KeepsTheBytesAndFindsTheRowsByTheNamesOfTheIndividuals) {
    const covariable_type cov = read();

    ASSERT_TRUE(cov.is_plink());
    EXPECT_FALSE(cov.is_sparse());
    EXPECT_TRUE(cov.values().rows == 0 && cov.values().cols == 0);
    const plink_genotypes& plink = cov.data->plink;
    EXPECT_EQ(plink.nrow, 5);
    EXPECT_EQ(plink.ncol, 3);
    EXPECT_EQ(plink.nbytes, 2);
    EXPECT_THAT(std::vector<std::uint8_t>(plink.ival.data(), plink.ival.data() + plink.ival.size()),
                ElementsAre(0b11100100, 0b00000011, 0b00001010, 0b00000001, 0b11111111, 0b00000011));
    EXPECT_THAT(std::vector<std::int32_t>(cov.rows().begin(), cov.rows().end()),
                ElementsAre(4, 2, 0, 1, 5, 0, 0, 0, 3));
    EXPECT_EQ(cov.nmissing, 2);
    EXPECT_EQ(cov.miraculix, 0);
    EXPECT_EQ(cov.compressed, nullptr);
    EXPECT_EQ(cov.data->bytes(), 9 * 4 + 6);
    EXPECT_EQ(covariable_type(cov).data, cov.data);
}

TEST_F(ReadcovariableBed, LogsWhatItReads) {
    read();

    EXPECT_EQ(log_.text(), "Coefficient file for effect 2: " + path("geno.bed") +
                               "\n"
                               "Number of declared levels / effective levels            : 9 / 5\n"
                               "Number of declared coefficients / effective coefficients: 3 / 3\n"
                               "Maximum level for the effect                            : 9\n"
                               "    Each SNP for all individuals requires 2 bytes.\n"
                               "modstructure % readallelefreq: INFO: Effect 2: 1 SNPs are monomorphic\n"
                               "Missing genotypes: 2\n");
}

TEST_F(ReadcovariableBed, TakesTheStemOfTheFilesAsName) {
    param_.cov_file[1] = path("geno");
    EXPECT_TRUE(read().is_plink());

    param_.cov_file[1] = path("nothing");
    EXPECT_THAT(failure(), HasSubstr("cannot be read"));

    directory_.write("geno", "4 1 2 3\n");  // a file of this name goes first
    param_.cov_file[1] = path("geno");
    EXPECT_FALSE(read().is_plink());
}

TEST_F(ReadcovariableBed, DecidesByTheTextBehindTheLastPoint) {
    for (const char* extension : {".bed", ".bim", ".fam"})
        directory_.write("a.b" + std::string(extension), directory_.read("geno" + std::string(extension)));
    param_.cov_file[1] = path("a.b.bed");

    EXPECT_TRUE(read().is_plink());
}

TEST_F(ReadcovariableBed, SizesTheLevelsByTheFileWithoutNLevel) {
    for (const std::int32_t n_level : {0, -1}) {
        param_.n_level[1] = n_level;
        EXPECT_EQ(std::ssize(read().rows()), 9);
    }
    param_.n_level[1] = 12;
    EXPECT_EQ(std::ssize(read().rows()), 12);
}

TEST_F(ReadcovariableBed, TakesLineNumbersAsLevelsWhenANameIsNoInteger) {
    for (const char* name : {"x", "4.0", "1a", "-", "+4"}) {
        write(".fam", "f 40 0\nf 2 0\nf " + std::string(name) + " 0\nf 2 0\nf -5 0\n");

        const covariable_type cov = read();

        EXPECT_THAT(std::vector<std::int32_t>(cov.rows().begin(), cov.rows().end()),
                    ElementsAre(1, 2, 3, 4, 5, 0, 0, 0, 0));
    }
    EXPECT_THAT(
        log_.text(),
        HasSubstr(
            "modstructure % readcovariable: INFO: The levels of effect 2 are the line numbers of the file " +
            path("geno.fam") + ": the name of the individual in line 3 is no integer\n"));
}

TEST_F(ReadcovariableBed, PassesOverBlankLinesAtTheEndAndCarriageReturns) {
    write(".bim", "a\r\nb\r\nc\r\n\r\n\n");
    write(".fam", "f\t4\r\nf 2\r\nf 9\r\nf 1\r\nf 5\n \n");

    const covariable_type cov = read();

    EXPECT_EQ(cov.data->plink.nrow, 5);
    EXPECT_EQ(cov.row_of(9), 3);
}

TEST_F(ReadcovariableBed, ReadsManyBatchesWithAnyNumberOfThreads) {
    const std::int32_t nind = 37, nsnp = 100, nbytes = 10;
    std::mt19937 random(1);
    std::string bytes = "\x6C\x1B\x01", fam, bim;
    for (std::int32_t k = 0; k < nsnp * nbytes; ++k) bytes += static_cast<char>(random() % 256);
    for (std::int32_t i = 0; i < nind; ++i) fam += "f x" + std::to_string(i) + "\n";
    for (std::int32_t i = 0; i < nsnp; ++i) bim += "snp\n";
    write_bed(bytes);
    write(".fam", fam);
    write(".bim", bim);
    param_.n_level[1] = 0;
    param_.n_cov[1] = nsnp;
    const int before = omp_get_max_threads();
    for (int threads = 1; threads <= 4; ++threads) {
        omp_set_num_threads(threads);
        const covariable_type cov = read();
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(cov.data->plink.ival.data()),
                              static_cast<std::size_t>(cov.data->plink.ival.size())),
                  bytes.substr(3));
    }
    omp_set_num_threads(before);
}

TEST_F(ReadcovariableBed, StopsAtAMissingFile) {
    for (const char* extension : {".fam", ".bim", ".bed"}) {
        std::filesystem::remove(directory_ / ("geno" + std::string(extension)));
        EXPECT_EQ(failure(), "The following file does not exist: " + path("geno") + extension);
    }
    EXPECT_THAT(log_.text(), HasSubstr("modplink % check_plinkfiles ("));
}

TEST_F(ReadcovariableBed, StopsAtAnotherHeader) {
    const std::string good = directory_.read("geno.bed");
    for (const std::size_t byte : {0, 1, 2}) {
        std::string bad = good;
        bad[byte] = '\0';
        write_bed(bad);
        EXPECT_EQ(failure(), "The following file is not a Plink SNP-major bed file: " + path("geno.bed") +
                                 "2 are not equal.");
    }
    for (const std::size_t length : {0, 1, 2}) {
        write_bed(good.substr(0, length));
        EXPECT_THAT(failure(), HasSubstr("is not a Plink SNP-major bed file"));
    }
    EXPECT_THAT(log_.text(), Not(HasSubstr("Each SNP for all")));
}

TEST_F(ReadcovariableBed, StopsAtAFileOfAnotherLength) {
    const std::string good = directory_.read("geno.bed");
    for (const std::string& bad : {good.substr(0, 3), good.substr(0, 8), good + "x", good + "xx"}) {
        write_bed(bad);
        EXPECT_THAT(failure(), HasSubstr("Unexpected error while reading " + path("geno.bed")));
        EXPECT_THAT(log_.text(), HasSubstr("The file has " + std::to_string(bad.size()) +
                                           " bytes; 3 SNPs of 5 individuals take 9"));
    }
}

TEST_F(ReadcovariableBed, StopsWhenTheBimFileHasAnotherNumberOfSnpsThanTheModel) {
    for (const std::int32_t n_cov : {2, 4}) {
        param_.n_cov[1] = n_cov;
        EXPECT_EQ(
            failure(),
            "The number of declared coefficients / effective coefficients for the effect 2 are not equal.");
    }
}

TEST_F(ReadcovariableBed, StopsWhenTheFamFileDoesNotFitTheGenotypes) {
    write(".fam", "f 1\nf 2\nf 3\nf 4\n");
    EXPECT_THAT(failure(), HasSubstr("Unexpected error while reading "));
    EXPECT_THAT(log_.text(), HasSubstr("3 SNPs of 4 individuals take 6"));
}

TEST_F(ReadcovariableBed, StopsAtEmptyFiles) {
    write(".bim", "\n\n");
    EXPECT_EQ(failure(), "The file " + path("geno.bim") + " is empty");
    write(".fam", "");
    EXPECT_EQ(failure(), "The file " + path("geno.fam") + " is empty");
}

TEST_F(ReadcovariableBed, StopsAtBadLines) {
    const std::string fam = "The file " + path("geno.fam") + " is not correct at line ";
    write(".fam", "f 4\nf\nf 9\nf 1\nf 5\n");
    EXPECT_EQ(failure(), fam + "2: the name of the individual, its second word, is missing");
    write(".fam", "f 4\nf 2\n\nf 1\nf 5\nf 6\n");
    EXPECT_EQ(failure(), fam + "3: the line is blank");
    write(".fam", "f 4\nf 2\nf 9\nf 1\nf 2\n");
    EXPECT_EQ(failure(), fam + "5: the individual 2 stands in line 2 as well");
    write(".fam", "f 4\nf 2\nf 9\nf 10\nf 5\n");
    EXPECT_EQ(failure(), fam + "4: the individual 10 must lie between 1 and 9");
    write(".fam", "f 0\nf 2\nf 9\nf 10\nf 5\n");
    EXPECT_EQ(failure(), fam + "1: the individual 0 must lie between 1 and 9");
    write(".fam", "f 1\nf 2\nf -9\nf 10\nf 5\n");
    EXPECT_EQ(failure(), fam + "3: the individual -9 must lie between 1 and 9");
    param_.n_level[1] = 0;
    write(".fam", "f 1\nf 2\nf 3\nf 99999999999999999999\nf 5\n");
    EXPECT_EQ(failure(), fam + "4: the individual 9223372036854775807 must lie between 1 and 2147483647");
    write(".fam", "f 1\nf 2\nf 3\nf 2147483648\nf 5\n");
    EXPECT_EQ(failure(), fam + "4: the individual 2147483648 must lie between 1 and 2147483647");
    param_.n_level[1] = 4;
    write(".fam", "f a\nf b\nf c\nf d\nf e\n");
    EXPECT_EQ(failure(), fam + "5: the level 5 must lie between 1 and 4");
    write(".bim", "a\n\nb\nc\n");
    EXPECT_EQ(failure(), "The file " + path("geno.bim") + " is not correct at line 2: the line is blank");
}

TEST_F(ReadcovariableBed, StopsAtADirectoryInPlaceOfAFile) {
    std::filesystem::remove(directory_ / "geno.bed");
    std::filesystem::create_directory(directory_ / "geno.bed");
    EXPECT_EQ(failure(), "Unexpected error while reading " + path("geno.bed"));
    std::filesystem::remove(directory_ / "geno.bim");
    std::filesystem::create_directory(directory_ / "geno.bim");
    EXPECT_EQ(failure(), "The file " + path("geno.bim") + " cannot be read");
}

// ---- access
// ------------------------------------------------------------------------------------------------

TEST_F(ReadcovariableBed, GivesSingleGenotypesCentredAndAsIntegers) {
    set_frequencies("0.25\n0.5\n1\n");
    const covariable_type cov = read();

    EXPECT_EQ(getval(cov, 1, 1), -0.5);
    EXPECT_EQ(getval(cov, 2, 1), 0.0);  // missing
    EXPECT_EQ(getval(cov, 5, 1), 1.5);
    EXPECT_EQ(getval(cov, 0, 1), 0.0);
    EXPECT_EQ(getval(cov, 6, 1), 0.0);
    EXPECT_EQ(getval(cov, 1, 0), 0.0);
    EXPECT_EQ(getval(cov, 1, 4), 0.0);
    EXPECT_EQ(getvalue(cov, 9, 2), -1.0);
    EXPECT_EQ(getvalue_val(cov, 9, 2), -1.0);
    EXPECT_EQ(getvalue_summary(cov, 3, 2), 0.0);  // a level without genotypes
    EXPECT_EQ(getvalue_ival(cov, 9, 1), 1);
    EXPECT_EQ(getvalue_ival(cov, 1, 1), 2);
    EXPECT_EQ(getvalue_ival(cov, 2, 1), 3);
    EXPECT_EQ(getvalue_ival(cov, 3, 1), 0);
}

TEST_F(ReadcovariableBed, ExpandsTheGenotypesOfACovariable) {
    set_frequencies("0.25\n0.5\n1\n");
    param_.type_effect[1] = 1;
    param_.miraculix = {0, 1};

    const covariable_type cov = read();

    EXPECT_FALSE(cov.is_plink());
    ASSERT_EQ(cov.values().rows, 3);
    ASSERT_EQ(cov.values().cols, 5);
    EXPECT_EQ(cov.values()(0, 1), 0.0);
    EXPECT_EQ(cov.values()(0, 2), 0.5);
    EXPECT_EQ(cov.values()(1, 0), 0.0);
    EXPECT_EQ(cov.row_of(9), 3);
    EXPECT_EQ(cov.miraculix, 0);
    EXPECT_THAT(log_.text(), HasSubstr("WARN: Effect 2: Miraculix is not used for a covariable\n"));
}

TEST_F(ReadcovariableBed, IsSharedByALaterEffect) {
    std::vector<covariable_type> cov(3);
    cov[1] = read();
    param_.neffect = 3;
    param_.n_level.push_back(9);
    param_.n_cov.push_back(3);
    param_.type_effect.push_back(3);
    param_.cov_file.emplace_back("2.as_effect");

    readcovariable_aseffect(cov, param_, 3, log_);

    EXPECT_EQ(cov[2].data, cov[1].data);
    EXPECT_EQ(cov[2].allelefreq, cov[1].allelefreq);
    param_.n_cov[2] = 4;
    EXPECT_THAT(fatal_message([&] { readcovariable_aseffect(cov, param_, 3, log_); }),
                HasSubstr("are not equal."));
}

// ---- allele frequencies
// ------------------------------------------------------------------------------------

TEST_F(ReadcovariableBed, TakesFrequenciesFromTheGenotypesThatAreNotMissing) {
    EXPECT_THAT(read().allelefreq, ElementsAre(5.0 / 8, 2.0 / 8, 1.0));
    param_.allelefreq = {"f.txt", "none"};
    EXPECT_THAT(read().allelefreq, ElementsAre(5.0 / 8, 2.0 / 8, 1.0));
}

TEST_F(ReadcovariableBed, TellsHowManySnpsHaveNoGenotypesOrOneAlleleOnly) {
    std::string bytes = directory_.read("geno.bed");
    bytes[3] = bytes[5] = 0x55;
    bytes[4] = bytes[6] = 0x01;
    write_bed(bytes);

    const covariable_type cov = read();

    EXPECT_THAT(cov.allelefreq, ElementsAre(0.0, 0.0, 1.0));
    EXPECT_EQ(cov.nmissing, 10);
    EXPECT_THAT(log_.text(),
                HasSubstr("modstructure % readallelefreq: WARN: Effect 2: all genotypes are missing for 2 "
                          "SNPs, whose allele frequencies are set to 0\n"));
    EXPECT_THAT(log_.text(), HasSubstr("INFO: Effect 2: 1 SNPs are monomorphic\n"));
    EXPECT_THAT(log_.text(), EndsWith("Missing genotypes: 10\n"));
}

TEST_F(ReadcovariableBed, ReadsFrequenciesFromTheirFile) {
    set_frequencies(" 0\n\t.125 \r\n1d0\n\t\n");

    EXPECT_THAT(read().allelefreq, ElementsAre(0.0, 0.125, 1.0));
    EXPECT_THAT(log_.text(), HasSubstr("Effect 2: File with allele frequencies to be read: " +
                                       path("freq.txt") + "\nMissing genotypes: 2\n"));
    EXPECT_THAT(log_.text(), Not(HasSubstr("monomorphic")));
}

TEST_F(ReadcovariableBed, StopsAtBadFrequencies) {
    const auto at = [&](int line, const std::string& why) {
        return "Allele frequencies not correctly read at line " + std::to_string(line) + "\nFile " +
               path("freq.txt") + ": " + why;
    };
    const auto with = [&](const std::string& text) {
        set_frequencies(text);
        return failure();
    };
    EXPECT_EQ(with("0.1\n-0.1\n0.1\n"), at(2, "the frequency -0.1 does not lie between 0 and 1"));
    EXPECT_EQ(with("0.1\n0.1\n1.5\n"), at(3, "the frequency 1.5 does not lie between 0 and 1"));
    EXPECT_EQ(with("nan\n0.1\n1\n"), at(1, "the frequency nan does not lie between 0 and 1"));
    EXPECT_EQ(with("0.1\n0.1\n"), at(3, "the file ends, but the genotypes have 3 SNPs"));
    EXPECT_EQ(with(""), at(1, "the file ends, but the genotypes have 3 SNPs"));
    EXPECT_EQ(with("0.1\n0.1\n0.1\n\n0.1\n"), at(5, "the genotypes have 3 SNPs only"));
    EXPECT_EQ(with("0.1\n0.1 0.2\n0.1\n"), at(2, "one frequency is needed, and nothing else"));
    EXPECT_EQ(with("0.1\n\n0.1\n0.1\n"), at(2, "one frequency is needed, and nothing else"));
    EXPECT_THAT(with("0.1\n0.1\nx\n"), HasSubstr("not correctly read at line 3"));
    EXPECT_THAT(log_.text(), HasSubstr("modstructure % readallelefreq ("));
}

TEST_F(ReadcovariableBed, StopsAtAMissingFileOfFrequencies) {
    param_.allelefreq = {"none", path("nothing.txt")};
    EXPECT_EQ(failure(), "File with allele frequencies not found: " + path("nothing.txt"));
}

// ---- the genotype library
// ----------------------------------------------------------------------------------

TEST_F(ReadcovariableBed, FillsTheCompressedStore) {
    param_.miraculix = {0, 1};
    set_frequencies("0.25\n0.5\n1\n");

    const covariable_type cov = read();

    EXPECT_EQ(cov.miraculix, 10);
    ASSERT_NE(cov.compressed, nullptr);
    EXPECT_TRUE(cov.is_plink());  // some products use the packed bytes
    std::vector<double> freq(3), c(3, -1.0);
    ::miraculix::get_compressed_freq(cov.compressed.get(), freq.data());
    EXPECT_THAT(freq, ElementsAre(0.25, 0.5, 1.0));
    const std::vector<double> b = {1.0, 10.0, 100.0, 1000.0, 10000.0};
    ::miraculix::dgemm_compressed('t', cov.compressed.get(), 1, b.data(), 5, c.data(), 3);
    // Missing genotypes count as 0 before the centring.
    EXPECT_NEAR(c[0], 22100.0 - 0.5 * 11111.0, 1e-9);
    EXPECT_NEAR(c[1], 11.0 - 11111.0, 1e-9);
    EXPECT_NEAR(c[2], 0.0, 1e-9);
    EXPECT_EQ(getval(cov, 2, 1), -0.5);
    EXPECT_EQ(getvalue_ival(cov, 2, 1), 3);

    std::string text = log_.text();
    const std::size_t time = text.find("Initialization Miraculix CPU : ");
    ASSERT_NE(time, std::string::npos);
    EXPECT_THAT(
        text.substr(text.find("Missing genotypes"), time - text.find("Missing genotypes")),
        testing::Eq("Missing genotypes: 2\n"
                    "Miraculix: Version: CPU\n"
                    "modstructure % readcovariable: WARN: Effect 2: the 2 missing genotypes count as 0 with "
                    "Miraculix, and as the mean without it: the solutions differ\n"
                    "Use of Miraculix procedures\n"
                    "Call c_setOptions\n"
                    "Allocates transpose(cov%ival)\n"
                    "Number of columns: 2\n"));
    EXPECT_THAT(text.substr(time),
                testing::MatchesRegex("Initialization Miraculix CPU : [0-9]*\\.[0-9][0-9][0-9]\n"
                                      "Miraculix: Max. number of columns: 2\n"));
}

TEST_F(ReadcovariableBed, PassesTheLargestNumberOfColumnsOn) {
    param_.miraculix = {0, 1};
    read(7);
    EXPECT_THAT(log_.text(), HasSubstr("Number of columns: 7\n"));
    EXPECT_THAT(log_.text(), EndsWith("Miraculix: Max. number of columns: 7\n"));
}

TEST_F(ReadcovariableBed, DoesNotWarnOfMissingGenotypesThatAreNotThere) {
    std::string bytes = directory_.read("geno.bed");
    for (std::size_t k = 3; k < bytes.size(); ++k) bytes[k] = '\x02';
    write_bed(bytes);
    param_.miraculix = {0, 1};
    read();
    EXPECT_THAT(log_.text(), Not(HasSubstr("WARN")));
}

TEST_F(ReadcovariableBed, StopsAtBothOptionsOfTheLibrary) {
    param_.miraculix = param_.miraculix_gpu = {0, 1};
    EXPECT_EQ(failure(), "Miraculix option 30 is not correct!");
}

TEST_F(ReadcovariableBed, LogsThePreparationOfTheGpu) {
    const ::miraculix::gpu::test::environment_value hidden("CUDA_VISIBLE_DEVICES", nullptr);
    param_.miraculix_gpu = {0, 1};

    const std::string message = failure();  // without a visible device it goes no further

    EXPECT_THAT(message, EndsWith(::miraculix::gpu::test::reason_without_visible_devices()));
    EXPECT_THAT(log_.text(), HasSubstr("Miraculix: Version: GPU\n"));
    EXPECT_THAT(log_.text(),
                HasSubstr("Use of Miraculix procedures\nGPU enabled\nTransposition of Bed matrix: ."));
    EXPECT_THAT(log_.text(),
                HasSubstr("\nCall c_setOptions\nAllocates transpose(cov%ival)\nNumber of columns: 2\n"));
    EXPECT_THAT(log_.text(),
                testing::ContainsRegex("modstructure % init_miraculix \\([0-9]+\\): ERROR: Severe "
                                       "error occured in function 'plink2gpu'"));
}

/// The same products as on the CPU.
TEST_F(ReadcovariableBed, MultipliesOnTheGpu) {
    if (::miraculix::gpu::test::devices() == 0) GTEST_SKIP() << "no GPU answers: skipped";
    const char* const visible = std::getenv("CUDA_VISIBLE_DEVICES");
    const ::miraculix::gpu::test::environment_value shown("CUDA_VISIBLE_DEVICES",
                                                          visible == nullptr ? "0" : visible);
    param_.miraculix_gpu = {0, 1};
    set_frequencies("0.25\n0.5\n1\n");

    const covariable_type cov = read();

    EXPECT_EQ(cov.miraculix, 20);
    EXPECT_THAT(log_.text(), EndsWith("Miraculix: Max. number of columns: 2\n"));
    const std::vector<double> b = {1.0, 10.0, 100.0, 1000.0, 10000.0};
    std::vector<double> c(3, -1.0);
    ::miraculix::dgemm_compressed('t', cov.compressed.get(), 1, b.data(), 5, c.data(), 3);
    EXPECT_NEAR(c[0], 22100.0 - 0.5 * 11111.0, 1e-9);
    EXPECT_NEAR(c[1], 11.0 - 11111.0, 1e-9);
    EXPECT_NEAR(c[2], 0.0, 1e-9);
}

}  // namespace
}  // namespace zendar
