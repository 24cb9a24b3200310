#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modblas.hpp"
#include "modsnpmodel.hpp"
#include "program_run.hpp"
#include "snp_files.hpp"

/// The stages of prediction error variances, P-values and eigenvalues on a small model.
namespace zendar::test {
namespace {

using testing::HasSubstr;
using testing::Not;

/// The stages up to the left-hand side of a model's files.
struct lhs_run {
    explicit lhs_run(const snp_files& files, const run_mode& mode) : at(directory.path()) {
        files.write(directory);
        run.log.configure({.max_width = 100000});
        run.log.add_stream(screen);
        for (const auto& [name, text] : extra) directory.write(name, text);
        initparfile(run, "model.par", mode);
        setlhsrhs(run);
    }
    [[nodiscard]] std::vector<std::vector<double>> rows_of(const std::string& name) const {
        std::istringstream in(directory.read(name));
        std::vector<std::vector<double>> rows;
        for (std::string line; std::getline(in, line);) {
            std::istringstream words(line);
            rows.emplace_back(std::istream_iterator<double>(words), std::istream_iterator<double>());
        }
        return rows;
    }
    static inline const std::vector<std::pair<std::string, std::string>> extra = {
        {"gi.txt", "2 2 0.6\n3 3 0.6\n4 4 0.6\n5 5 0.6\n6 6 0.6\n2 3 -0.1\n5 4 0.1\n"},
        {"freq.txt", "0.4\n0.5\n0.6\n0.25\n"}};
    temporary_directory directory;
    working_directory at;
    std::ostringstream screen;
    run_state run;
};

snp_files files_of(int type, const std::string& options) {
    snp_files files(type);
    files.options = "!solver pardiso\n" + options;
    return files;
}

/// An animal model on the animals of the SNP model, without SNP effects.
snp_files animal_files(const std::string& options) {
    snp_files files = files_of(-1, options);
    files.effects = "1 0 1 1 0 0 none\n2 0 6 1 0 0 none\n";
    return files;
}

const run_mode rel{.lpec = true, .relparam = "1"};
const run_mode both{.lebvpev = true};
const std::string pvalue = "!pvalue 2 gi.txt geno freq.txt\n";

std::string pec_error(lhs_run& test) {
    return fatal_message([&test] { pec(test.run); });
}

TEST(Pec, ReportsItselfAndWritesThePev) {
    lhs_run test(animal_files(""), rel);

    pec(test.run);
    outputpevpec(test.run);

    const auto rows = test.rows_of("aggregate_pev.dat");
    ASSERT_EQ(std::ssize(rows), 7);
    ASSERT_EQ(std::ssize(test.run.pev), 7);
    for (std::size_t i = 0; i < 7; ++i) EXPECT_NEAR(rows[i].at(4), test.run.pev[i], 1e-5 * test.run.pev[i]);
    EXPECT_TRUE(test.run.lhs_is_inverse);
    for (const char* text : {"START: Computation of PEV (PEC)", "END: Computation of PEV (PEC)",
                             "START: writing output for PEV/PEC", "END: writing output for PEV/PEC"})
        EXPECT_THAT(test.screen.str(), HasSubstr(text));
    EXPECT_THAT(test.screen.str(), Not(HasSubstr("Computation of P-values")));
    for (const char* file : {"lhsija.dat", "lhsija_inv.dat", "pev_init.dat", "pvalues_gi.dat"})
        EXPECT_FALSE(test.directory.exists(file));
}

TEST(Pec, WritesTheThreeTermsOfASnpModel) {
    lhs_run test(files_of(22, ""), rel);

    pec(test.run);
    outputpevpec(test.run);

    const auto total = test.rows_of("aggregate_pev.dat"), init = test.rows_of("pev_init.dat"),
               mzzm = test.rows_of("pev_MZZM.dat"), zpec = test.rows_of("pev_ZPEC.dat");
    ASSERT_EQ(total.size(), 11U);
    double added = 0.0;
    for (std::size_t i = 0; i < 11; ++i) {
        EXPECT_NEAR(total[i].at(4), init[i].at(4) + mzzm[i].at(4) + zpec[i].at(4), 1e-4);
        added += mzzm[i].at(4);
    }
    EXPECT_GT(added, 0.1);
    EXPECT_THAT(test.screen.str(), HasSubstr("Computation of PEV of SNP effect 3 + animal effect 2"));
}

TEST(Pec, RefusesSolversOnData) {
    lhs_run test(animal_files("!solver pcg_iod\n"), rel);

    EXPECT_EQ(pec_error(test), "PEV (PEC) for this type of solver 120 is not implemented");
    EXPECT_THAT(test.screen.str(), HasSubstr("modsnpmodel % pec ("));
}

TEST(Pec, RefusesAMatrixThatIsTooLarge) {
    lhs_run test(animal_files("!printlhs\n"), rel);
    test.run.lhsija.destroy();

    const std::string text = "The LHS is not set (most likely reason: too many non-zero elements)";
    EXPECT_EQ(pec_error(test), text);
    EXPECT_EQ(fatal_message([&] { eigenlhs(test.run); }), text);
}

TEST(Pec, RefusesOtherWordsBehindRel) {
    lhs_run test(files_of(22, ""), {.lpec = true, .relparam = "dense"});

    EXPECT_EQ(pec_error(test), "Inversion of the LHS as a dense matrix is not implemented");
}

TEST(Pec, ByHarvilleKeepsTheLeftHandSideAndRepeats) {
    lhs_run one(animal_files("!harville\n!printlhs\n"), both), exact(animal_files(""), rel);
    lhs_run two(animal_files(""), {.lpec = true, .relparam = "Harville"});
    pec(one.run);
    pec(two.run);
    pec(exact.run);
    {
        const working_directory inside(one.directory.path());
        outputpevpec(one.run);
    }

    EXPECT_EQ(one.run.pev, two.run.pev);
    for (std::size_t i = 0; i < 7; ++i) EXPECT_NEAR(one.run.pev[i], exact.run.pev[i], 0.1 * exact.run.pev[i]);
    EXPECT_FALSE(one.run.lhs_is_inverse);
    EXPECT_TRUE(one.directory.exists("lhsija.dat"));
}

TEST(Pec, ByHarvilleHasNoInverseToReadFrom) {
    lhs_run snps(files_of(22, "!harville\n"), rel), pvalues(animal_files("!harville\n" + pvalue), both);

    EXPECT_EQ(
        pec_error(snps),
        "The PEV of SNP effect + animal effect need the inverse of the LHS, which the method Harville does "
        "not give");
    EXPECT_EQ(pec_error(pvalues),
              "P-values need the inverse of the LHS, which the method Harville does not give");
}

TEST(Pec, ComputesPValues) {
    lhs_run test(animal_files(pvalue), both);
    for (std::int32_t i = 0; i < 7; ++i) test.run.solutions[i] = std::sin(1.0 + i);

    pec(test.run);

    const std::string text = test.screen.str();
    std::size_t at = 0;
    for (const char* line : {"END: Computation of PEV (PEC)", "START: Computation of P-values",
                             "Read G inverse file", "Write SNP effects", "Write Var(hat(SNP effects))",
                             "Write p-values of SNP effects", "END: Computation of P-values"}) {
        at = text.find(line, at);
        ASSERT_NE(at, std::string::npos) << line;
    }
    const auto effects = test.rows_of("snpeffects_gi.dat"),
               variances = test.rows_of("varhatsnpeffects_gi.dat"), pvalues = test.rows_of("pvalues_gi.dat");
    ASSERT_EQ(effects.size(), 4U);
    ASSERT_EQ(variances.size(), 4U);
    ASSERT_EQ(pvalues.size(), 4U);
    for (std::size_t j = 0; j < 4; ++j) {
        const double z = std::fabs(effects[j][4]) / std::sqrt(variances[j][4]);
        EXPECT_NEAR(pvalues[j][4], std::erfc(z / std::sqrt(2.0)), 1e-4);
        EXPECT_EQ(pvalues[j][1], 2.0);
        EXPECT_EQ(pvalues[j][3], static_cast<double>(j + 1));
    }
    EXPECT_EQ(test.run.pvalues.rows(), 4);
    EXPECT_EQ(test.run.pvalues.cols(), 1);
}

TEST(Pec, WarnsOfAnInverseOfAnotherG) {
    lhs_run test(animal_files(pvalue), both);
    test.directory.write("gi.txt", "2 2 5\n3 3 5\n4 4 5\n5 5 5\n6 6 5\n");

    pec(test.run);

    EXPECT_THAT(test.screen.str(),
                HasSubstr(" variances of SNP effects are negative, by rounding or since the G "
                          "inverse is not that of the model: their P-values are set to 1"));
}

TEST(Pec, TakesAnEffectAfterTheOther) {
    lhs_run test(animal_files(pvalue), both);
    param_type& param = test.run.param;
    param.pvalue.push_back(param.pvalue[0]);
    test.directory.write("other.bed", packed({"01210"}));
    test.directory.write("other.bim", "1 a 0 1 A B\n");
    test.directory.write("other.fam", test.directory.read("geno.fam"));
    param.pvalue[1].genotypefile = "other";
    param.pvalue[1].allelefreqfile = "none";

    EXPECT_EQ(pec_error(test), "The genotypes other of effect 2 have 1 SNPs, but those of effect 2 have 4");
}

TEST(Pec, WithoutSolutionsLeavesPValuesOut) {
    lhs_run test(animal_files(pvalue), rel);

    pec(test.run);

    EXPECT_THAT(test.screen.str(),
                HasSubstr("WARN: P-values need solutions: the option !pvalue is ignored without --ebvpev"));
    EXPECT_FALSE(test.directory.exists("pvalues_gi.dat"));
    EXPECT_EQ(std::ssize(test.run.pev), 7);
}

TEST(WriteLhs, WritesTheMatrixAndThenItsInverse) {
    lhs_run test(animal_files("!printlhs\n"), rel);
    const matrix<double> before = test.run.lhsija.submatrix_dense(1, 7, 1, 7);

    write_lhs(test.run);
    pec(test.run);
    outputpevpec(test.run);

    matrix<double> read(7, 7);
    for (const auto& row : test.rows_of("lhsija.dat")) {
        ASSERT_EQ(row.size(), 3U);
        const auto i = static_cast<std::int64_t>(row[0]) - 1, j = static_cast<std::int64_t>(row[1]) - 1;
        read(i, j) = read(j, i) = row[2];
    }
    EXPECT_EQ(read, before);
    crssparse stream = crssparse::load("lhsija.stream"), inverse = crssparse::load("lhsija_inv.stream");
    for (std::int32_t i = 1; i <= 7; ++i) {
        for (std::int32_t j = i; j <= 7; ++j) EXPECT_EQ(stream.get(i, j), before(i - 1, j - 1));
        EXPECT_EQ(inverse.get(i, i), test.run.pev[i - 1]);
    }
    EXPECT_EQ(test.rows_of("lhsija_inv.dat").size(),
              static_cast<std::size_t>(inverse.totalnumberofelements()));
    EXPECT_THAT(test.screen.str(), HasSubstr("Saves LHS in files lhsija.*\n"));
    EXPECT_THAT(test.screen.str(), HasSubstr(" Number of rows              : 7"));
}

TEST(WriteLhs, WritesNothingWithoutTheOption) {
    lhs_run test(animal_files(""), rel);

    write_lhs(test.run);

    EXPECT_FALSE(test.directory.exists("lhsija.dat"));
}

TEST(Eigenlhs, WritesBothEndsOfTheSpectrum) {
    lhs_run test(animal_files("!eigenlhs\n"), rel);

    eigenlhs(test.run);

    EXPECT_TRUE(test.run.param.solver.eigenlhs);
    EXPECT_THAT(test.screen.str(), HasSubstr("START: computing eigenvalues of the LHS"));
    EXPECT_THAT(test.screen.str(), HasSubstr("END: computing eigenvalues of the LHS"));
    const auto values = test.rows_of("eigenvalue_lhs.min"), vectors = test.rows_of("eigenvector_lhs.min");
    matrix<double> dense = test.run.lhsija.submatrix_dense(1, 7, 1, 7);
    std::vector<double> expected(7);
    ASSERT_EQ(lapack_dsyevd(dense.view(), expected), 0);
    std::erase_if(expected, [](double value) { return value > 10.0; });
    ASSERT_EQ(values.size(), expected.size());
    EXPECT_GT(values.size(), 4U);
    for (std::size_t k = 0; k < values.size(); ++k) EXPECT_NEAR(values[k].at(0), expected[k], 1e-10);
    ASSERT_EQ(vectors.size(), 7U);
    for (const auto& row : vectors) EXPECT_EQ(row.size(), values.size());
    EXPECT_EQ(test.directory.read("eigenvalue_lhs.max"), "");
    EXPECT_EQ(test.directory.read("eigenvector_lhs.max"), "");
}

TEST(PecProgram, RunsWithRelAndWithoutASolver) {
    const temporary_directory run;
    files_of(22, "!printlhs\n").write(run);

    const auto result = run_program(run.path(), {"model.par", "REL", "1", "--ncpus", "1"});

    EXPECT_EQ(result.status, 0) << result.out << result.error;
    EXPECT_TRUE(run.exists("OK_ZENDAR"));
    for (const char* file : {"aggregate_pev.dat", "pev_init.dat", "lhsija_inv.dat", "lhsija_inv.stream"})
        EXPECT_TRUE(run.exists(file)) << file;
    EXPECT_FALSE(run.exists("solutions.dat"));
    EXPECT_THAT(result.out, Not(HasSubstr("START: solving the MME")));
}

}  // namespace
}  // namespace zendar::test
