#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "snp_files.hpp"

/// Genotypes and options of SNP effects that are odd, but no fault, by the program itself.
namespace zendar::test {
namespace {

auto deflation(std::string text) {
    return [=](snp_files& m) {
        m.options = "!solver dpcg_iod 2\n!deflationmat sub.txt\n", m.more = {{"sub.txt", text}};
    };
}

class OddSnpInput : public ::testing::TestWithParam<snp_case> {};

TEST_P(OddSnpInput, GoesThrough) {
    snp_files files(GetParam().type);
    GetParam().change(files);
    const auto solutions = solve(files, GetParam().messages);
    ASSERT_GE(solutions.size(), 3U);
    EXPECT_EQ(solutions[1].size(), 6U);
    EXPECT_EQ(solutions[2].size(), 4U);
}

auto snps(std::vector<std::string> to, std::string options = {}) {
    return [=](snp_files& m) { m.set_snps(to), m.options = options; };
}
const std::vector<std::string> one_missing = {"01210", "-----", "10122", "00121"},
                               all_missing = {"-----", "-----", "-----", "-----"},
                               monomorphic = {"00000", "11111", "22222", "00121"},
                               all_monomorphic = {"00000", "22222", "00000", "22222"};
const char* const missing_warning = "all genotypes are missing for ";

const snp_case odd_inputs[] = {
    {"ASnpWithoutGenotypesAndType0", 0, snps(one_missing), {missing_warning}},
    {"ASnpWithoutGenotypesAndType20", 20, snps(one_missing), {missing_warning}},
    {"ASnpWithoutGenotypesAndType22", 22, snps(one_missing), {missing_warning}},
    {"ASnpWithoutGenotypesAndType23", 23, snps(one_missing), {missing_warning}},
    {"ASnpWithoutGenotypesAndType30", 30, snps(one_missing), {missing_warning}},
    {"ASnpWithoutGenotypesAndMiraculix", 23, snps(one_missing, "!miraculix 3\n"), {missing_warning}},
    {"ASnpWithoutGenotypesAndDeflation", 30, snps(one_missing, "!solver dpcg_iod 1\n"), {missing_warning}},
    {"NoGenotypesAtAll", 30, snps(all_missing), {missing_warning}},
    {"NoGenotypesAtAllAndType22", 22, snps(all_missing), {missing_warning}},
    {"MonomorphicSnpsAndType0", 0, snps(monomorphic), {"SNPs are monomorphic"}},
    {"MonomorphicSnpsAndType20", 20, snps(monomorphic), {"SNPs are monomorphic"}},
    {"MonomorphicSnpsAndType22", 22, snps(monomorphic, "!precondzaaaz\n"), {"SNPs are monomorphic"}},
    {"MonomorphicSnpsAndType23", 23, snps(monomorphic), {"SNPs are monomorphic"}},
    {"MonomorphicSnpsAndType30", 30, snps(monomorphic, "!precondzaaaz\n"), {"SNPs are monomorphic"}},
    {"MonomorphicSnpsAndMiraculix", 30, snps(monomorphic, "!miraculix 3\n"), {"SNPs are monomorphic"}},
    {"MonomorphicSnpsAndDeflation", 22, snps(monomorphic, "!solver dpcg_iod 1\n"), {"SNPs are monomorphic"}},
    {"MonomorphicSnpsOnly", 30, snps(all_monomorphic), {"SNPs are monomorphic"}},
    {"ALevelWithoutGenotypes", 23, change(&snp_files::data, "1 1 0 12", "1 1 1 12"), {}},
    {"ALevelWithoutGenotypesAndType22", 22, change(&snp_files::data, "1 1 0 12", "1 1 1 12"), {}},
    {"NoLevelAtAll", 23, set(&snp_files::data, "1 1 0 12\n1 3 0 11\n"), {}},
    {"BlocksOfMoreThanTheSnps", 30, option("!solver dpcg_iod 2000000000\n"), {"Number of blocks: 1"}},
    {"BlocksOfOneSnp", 22, option("!solver dpcg_iod 1\n"), {"Number of blocks: 5"}},
    {"BlocksThatDoNotDivideTheSnps", 30, option("!solver dpcg_iod 3\n"), {"Number of blocks: 2"}},
    {"BlocksWithoutANumber",
     30,
     option("!solver dpcg_iod\n"),
     {"The number of equations per block is missing! The PCG will be used instead."}},
    {"BlocksOfSnpEffectsThatHaveNone", 23, option("!solver dpcg_iod 2\n"), {"Number of blocks: 1"}},
    {"SubdomainsThatEndEarly", 30, deflation("1\n1\n2\n"), {"Number of blocks: 2"}},
    {"SubdomainsWithLettersBehind", 30, deflation("1\n1\n2\nx\n3\n"), {"Number of blocks: 2"}},
    {"MoreSubdomainsThanEquations",
     22,
     deflation("1\n2\n2\n2\n2\n2\n2\n3\n3\n3\n3\n4\n5\n99\n"),
     {"Number of blocks: 3"}},
    {"MiraculixOfAClassEffect", 30, option("!miraculix 2\n"), {}},
    {"MiraculixOfATextFile",
     23,
     [](snp_files& m) {
         coefficients("c.txt", "2 0 1 2 0\n3 1 1 0 0\n4 1 1 0 2\n")(m);
         m.options = "!miraculix 3\n";
     },
     {}},
    {"MoreLevelsThanIndividuals", 30, change(&snp_files::effects, "3 3 6 4", "3 3 9999 4"), {}},
    {"LevelsOfTheFile", 30, change(&snp_files::effects, "3 3 6 4", "3 3 0 4"), {}},
    {"StemOfTheFiles", 30, change(&snp_files::effects, "geno.bed", "geno"), {}},
    {"FilesWithoutNewlineAtTheEnd",
     30,
     [](snp_files& m) { m.fam.pop_back(), m.bim.pop_back(), m.cov.pop_back(); },
     {}},
    {"WindowsLineEnds",
     30,
     [](snp_files& m) {
         for (std::string* text : {&m.fam, &m.bim, &m.cov})
             for (std::size_t at = 0; (at = text->find('\n', at)) != std::string::npos; at += 2)
                 text->insert(at, "\r");
     },
     {}},
    {"FrequenciesWithABlankEnd", 23, frequencies("0.5\n0.25\n0\n1\n\n\n"), {}},
    {"TauOfZero", 30, option("!tau 0\n"), {}},
    {"CoefficientsOfAnotherSnpEffect",
     23,
     [](snp_files& m) {
         m.effects = "1 0 1 1 0 0 none\n2 0 6 1 0 0 none\n3 3 6 4 0 0 geno.bed\n3 3 6 4 0 0 3.as_effect\n";
         m.snp_block += "EFFECT_ID TYPE N_CORRELATED DIM\n4 20 0 4\nsnpcov.txt 1\n";
     },
     {"The effects 3 and 4 have the same covariable_type data"}},
    {"NamesThatAreNoNumbers",
     23,
     change(&snp_files::fam, "1 4", "1 cow4"),
     {"The levels of effect 3 are the line numbers of the file geno.fam: the name of the individual in line "
      "3 "
      "is no integer"}},
};

INSTANTIATE_TEST_SUITE_P(Cases, OddSnpInput, ::testing::ValuesIn(odd_inputs),
                         [](const auto& info) { return std::string(info.param.name); });

/// A SNP without genotypes has no part in the records: its random effect is 0, and the others do not see it.
TEST(SnpWithoutGenotypes, HasTheSolutionZero) {
    for (const int type : {20, 22, 23, 30}) {
        SCOPED_TRACE(type);
        snp_files files(type);
        files.set_snps(one_missing);
        const auto with = solve(files);
        EXPECT_NEAR(with[2][1], 0.0, 1e-9);
        snp_files fewer(type);
        fewer.set_snps({one_missing[0], one_missing[2], one_missing[3]});
        fewer.bim = "1 a\n1 c\n1 d\n";
        fewer.cov = "1 1 0.3\n2 2 0.3\n3 3 0.3\n";
        snp_files::replace(fewer.effects, "3 3 6 4", "3 3 6 3");
        auto without = solve(fewer);
        without[2].insert(without[2].begin() + 1, 0.0);
        expect_close(with, without);
    }
}

TEST(SparseCoefficients, OfOneElementAreAdded) {
    snp_files files;
    coefficients("c.sparse", "2 1 1.5\n3 2 1\n2 1 -0.5\n4 4 2\n6 3 2\n")(files);
    const auto twice = solve(files);
    files.more.back().second = "2 1 1\n3 2 1\n4 4 2\n6 3 2\n";
    expect_close(twice, solve(files));
}

/// Rows of level 0 and of a level without genotypes take no coefficients.
TEST(LevelWithoutGenotypes, IsAsLevelZero) {
    for (const int type : {20, 22, 23}) {
        SCOPED_TRACE(type);
        snp_files files(type);
        const auto zero = solve(files);
        snp_files::replace(files.data, "1 1 0 12", "1 1 1 12");
        expect_close(solve(files), zero);
    }
}

TEST(MiraculixThreads, AreFourWhenTheEnvironmentNamesNone) {
    for (const char* value : {"word", "", "-3", "0", "2x", "99999999999999999999"}) {
        SCOPED_TRACE(value);
        snp_files files(30);
        const auto plain = solve(files);
        files.options = "!miraculix 3\n";
        setenv("OMP_NUM_THREADS", value, 1);
        const temporary_directory run;
        files.write(run);
        const auto result = run_program(run.path(), {"model.par", "--ncpus", "1"});
        unsetenv("OMP_NUM_THREADS");
        EXPECT_EQ(result.status, 0) << result.out << result.error;
        EXPECT_TRUE(run.exists("OK_ZENDAR"));
        expect_close(finite_solutions(run), plain);
    }
}

}  // namespace
}  // namespace zendar::test
