#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <sstream>

#include "modgeneral_test_model.hpp"
#include "modpevpec.hpp"
#include "modpevpec_test_support.hpp"
#include "modstructure_product.hpp"
#include "snp_files.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::fatal_text;
using test::small_model;
using testing::HasSubstr;
using log_text = test::captured_log;

TEST(PvalueOf, AgreesWithArithmeticOfSixtyDigits) {
    // erfc(z / sqrt(2)) by arbitrary-precision arithmetic.
    constexpr std::pair<double, double> known[] = {
        {0.5, 0.61707507745197379272},    {1, 0.31731050786291410283},       {3, 0.0026997960632601890533},
        {5, 5.7330314375838782335e-7},    {8.25, 1.5839452629284954682e-16}, {9, 2.2571768119076812955e-19},
        {12, 3.5529642241553579954e-33},  {15, 7.3419323986255017716e-51},   {20, 5.5072482372124673902e-89},
        {30, 9.8134278542963741191e-198}, {37, 1.1451142445049153645e-299}};
    for (const auto& [z, p] : known) {
        EXPECT_NEAR(pvalue_of(z, 1.0) / p, 1.0, 1e-15) << z;
        EXPECT_NEAR(pvalue_of(-z, 1.0) / p, 1.0, 1e-15) << z;
        EXPECT_NEAR(pvalue_of(0.25 * z, 0.0625) / p, 1.0, 1e-15) << z;
    }
    // A number without the full digits of a double.
    EXPECT_NEAR(pvalue_of(38.0, 1.0) / 5.7708567201375686167e-316, 1.0, 1e-7);
    EXPECT_EQ(pvalue_of(60.0, 1.0), 0.0);
}

TEST(PvalueOf, HasItsValuesAtTheEnds) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(pvalue_of(0.0, 2.0), 1.0);
    EXPECT_EQ(pvalue_of(0.5, 0.0), 0.0);
    EXPECT_EQ(pvalue_of(0.0, 0.0), 0.0);
    EXPECT_EQ(pvalue_of(0.5, -1e-18), 1.0);
    EXPECT_TRUE(std::isnan(pvalue_of(nan, 1.0)));
    EXPECT_TRUE(std::isnan(pvalue_of(1.0, nan)));
}

/// A model of two correlated animal effects on nine animals, five of them with six SNPs, and its files.
class GetPvalue : public testing::Test {
  protected:
    static constexpr std::int32_t nsnp = 6;
    explicit GetPvalue(std::int32_t ntrait = 2)
        : model_(ntrait, {{.nlevel = 2}, {.nlevel = 9, .random = 3}, {.nlevel = 9}}) {
        param_type& param = model_.param;
        param.n_correlated[1] = 1;
        param.alpha = 0.9;
        param.pvalue = {{3, "gi.txt", "geno", "freq.txt"}};
        param.g.resize(3);
        make(1);
    }
    /// Everything random anew.
    void make(unsigned seed) {
        std::mt19937 random(seed);
        param_type& param = model_.param;
        g0_ = test::random_definite(std::int64_t{2} * param.ntrait, random);
        matrix<double> inverse = g0_;
        ASSERT_EQ(lapack_dpotrf(inverse.view()), 0);
        ASSERT_EQ(lapack_dpotri(inverse.view()), 0);
        for (std::int64_t j = 0; j < inverse.cols(); ++j)
            for (std::int64_t i = 0; i < j; ++i) inverse(i, j) = inverse(j, i);
        param.g[1] = inverse;

        levels_ = {1, 2, 3, 4, 5, 6, 7, 8, 9};
        std::ranges::shuffle(levels_, random);
        levels_.resize(5);
        std::string fam, bim, freq;
        for (const std::int32_t level : levels_) fam += "1 " + std::to_string(level) + " 0 0 0 -9\n";
        z_ = matrix<double>(5, nsnp);
        sum2pq_ = 0.0;
        std::vector<std::string> snps;
        for (std::int32_t j = 0; j < nsnp; ++j) {
            const double p = 0.125 * static_cast<double>(1 + random() % 7);
            sum2pq_ += 2.0 * p * (1.0 - p);
            freq += std::to_string(p) + "\n";
            bim += "1 s" + std::to_string(j) + " 0 1 A B\n";
            std::string& snp = snps.emplace_back();
            for (std::int64_t i = 0; i < 5; ++i) {
                snp += "012-"[random() % 4];
                z_(i, j) = snp.back() == '-' ? 0.0 : snp.back() - '0' - 2.0 * p;
            }
        }
        directory_.write("geno.bed", test::packed(snps));
        directory_.write("geno.bim", bim);
        directory_.write("geno.fam", fam);
        directory_.write("freq.txt", freq);
        gi_ = test::random_definite(5, random);
        std::ostringstream gi;
        gi.precision(17);
        for (std::int64_t i = 0; i < 5; ++i)
            for (std::int64_t j = 0; j <= i; ++j) {
                const bool turn = random() % 2 == 0;
                gi << levels_[turn ? j : i] << ' ' << levels_[turn ? i : j] << ' ' << gi_(i, j) << '\n';
            }
        directory_.write("gi.txt", gi.str());
        std::normal_distribution<double> normal;
        solutions_.clear();
        for (std::int32_t i = 0; i < param.neq; ++i) solutions_.push_back(normal(random));
    }
    std::string reading_fails() {
        return fatal_text(
            [&] { static_cast<void>(read_snp_model(model_.param, model_.param.pvalue[0], log_)); });
    }
    /// Refused with a text in the log.
    void expect_refused(const std::string& text) {
        EXPECT_NE(reading_fails(), "");
        EXPECT_THAT(log_.text(), HasSubstr(text));
    }

    small_model model_;
    test::temporary_directory directory_;
    test::working_directory inside_{directory_.path()};
    log_text log_;
    matrix<double> g0_, gi_, z_;
    std::vector<std::int32_t> levels_;
    std::vector<double> solutions_;
    double sum2pq_ = 0.0;
};

TEST_F(GetPvalue, AgreesWithDenseFormulas) {
    const param_type& param = model_.param;
    for (unsigned seed = 1; seed <= 15; ++seed) {
        SCOPED_TRACE(seed);
        make(seed);
        const crssparse lhs = test::random_lhs(param.neq, seed);
        const matrix<double> exact = test::dense_inverse_of(lhs);
        crssparse inverse = with_positions(lhs, pvalue_positions(param, log_));
        inverse.getspainv();
        const snp_model_input input = read_snp_model(param, param.pvalue[0], log_);
        matrix<double> effects(nsnp, 2), variances(nsnp, 2), pvalues(nsnp, 2);

        get_pvalue(param, input, solutions_, inverse, effects.view(), variances.view(), pvalues.view(), log_);

        EXPECT_EQ(input.levels, levels_);
        EXPECT_NEAR(input.sum2pq, sum2pq_, 1e-14);
        const double factor = param.alpha / sum2pq_;
        for (std::int32_t t = 1; t <= 2; ++t) {
            matrix<double> u(5, 1), cgg(5, 5), inner(5, 5);
            const auto equation = [&](std::int64_t i) {
                return model_.equation.at({3, levels_[static_cast<std::size_t>(i)], 1, t}) - 1;
            };
            for (std::int64_t i = 0; i < 5; ++i) {
                u(i, 0) = solutions_[equation(i)];
                for (std::int64_t j = 0; j < 5; ++j) cgg(i, j) = exact(equation(i), equation(j));
            }
            const matrix<double> back = test::times(true, false, z_, test::times(false, false, gi_, u));
            const double vg = g0_(2 + t - 1, 2 + t - 1);  // of the second effect of the group
            const matrix<double> h = test::times(false, false, gi_, test::times(false, false, cgg, gi_));
            for (std::int64_t k = 0; k < 25; ++k) inner.data()[k] = vg * gi_.data()[k] - h.data()[k];
            const matrix<double> var = test::times(true, false, z_, test::times(false, false, inner, z_));
            for (std::int64_t j = 0; j < nsnp; ++j) {
                const double expected = factor * factor * var(j, j);
                EXPECT_NEAR(effects(j, t - 1), factor * back(j, 0),
                            1e-10 * (1.0 + std::fabs(factor * back(j, 0))));
                EXPECT_NEAR(variances(j, t - 1), expected, 1e-9 * (1.0 + std::fabs(expected)));
                EXPECT_EQ(pvalues(j, t - 1), pvalue_of(effects(j, t - 1), variances(j, t - 1)));
            }
        }
    }
}

TEST_F(GetPvalue, TellsItsSteps) {
    const param_type& param = model_.param;
    crssparse inverse = with_positions(test::random_lhs(param.neq, 1), pvalue_positions(param, log_));
    inverse.getspainv();
    const snp_model_input input = read_snp_model(param, param.pvalue[0], log_);
    matrix<double> effects(nsnp, 2), variances(nsnp, 2), pvalues(nsnp, 2);

    get_pvalue(param, input, solutions_, inverse, effects.view(), variances.view(), pvalues.view(), log_);

    const std::string text = log_.text();
    std::size_t at = 0;
    for (const char* line : {"Read G inverse file\n",
                             "Read allele freq. file\n",
                             "Number of SNPs: 6\n",
                             "Read SNP genotype file\n",
                             "Number of vectors: 2\n",
                             "Number of SNPs   : 6\n",
                             "Compute SNP effects\n",
                             "Elapsed time (s) to compute Z*G-1*GEBV    : ",
                             "Sum(2pq): ",
                             "Elapsed time (s) to compute SNP effects   : ",
                             "Elapsed time (s) to back-solve SNP effects: ",
                             "Elapsed time (s): ",
                             "Compute SNP PEV for effect 3 and trait 1\n",
                             "Computation of PEC for SNP effects\n",
                             "Effect: 3\n",
                             "Trait : 1\n",
                             "Genetic variance: ",
                             "Alpha         : .900\n",
                             "Sum2pq        : ",
                             "Number of SNPs: 6\n",
                             "Compute SNP PEV for effect 3 and trait 2\n",
                             "Compute P-value for all effects\n"}) {
        at = text.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << text;
    }
}

TEST_F(GetPvalue, RefusesOtherShapes) {
    const param_type& param = model_.param;
    const snp_model_input input = read_snp_model(param, param.pvalue[0], log_);
    const crssparse inverse = test::random_lhs(param.neq, 1);
    matrix<double> good(nsnp, 2), bad(nsnp, 1);

    EXPECT_EQ(fatal_text([&] {
                  get_pvalue(param, input, solutions_, inverse, bad.view(), good.view(), good.view(), log_);
              }),
              "Number of entries in snpeffects is incorrect");
    EXPECT_THAT(log_.text(), HasSubstr("modpevpec % get_pvalue ("));
    EXPECT_THAT(fatal_text([&] { static_cast<void>(get_var_hatsnp(param, input, 1, bad, log_)); }),
                HasSubstr("G-1 and C_gg have different dimensions)\nDim 1: 5 vs 6\nDim 2: 5 vs 1"));
}

TEST_F(GetPvalue, ReportsVariancesThatAreNone) {
    // Animals without information: C_gg = vg G, so that all variances vanish but for rounding.
    param_type& param = model_.param;
    const snp_model_input input = read_snp_model(param, param.pvalue[0], log_);
    matrix<double> cgg = gi_;
    ASSERT_EQ(lapack_dpotrf(cgg.view()), 0);
    ASSERT_EQ(lapack_dpotri(cgg.view()), 0);
    const double vg = genetic_variance(param, 3, 1);
    for (std::int64_t j = 0; j < 5; ++j)
        for (std::int64_t i = j; i < 5; ++i) cgg(i, j) = cgg(j, i) = vg * cgg(i, j);

    for (const double variance : get_var_hatsnp(param, input, 1, cgg, log_))
        EXPECT_NEAR(variance, 0.0, 1e-10);
    EXPECT_NEAR(vg, g0_(2, 2), 1e-10);
    EXPECT_NEAR(genetic_variance(param, 2, 2), g0_(1, 1), 1e-10);
}

TEST_F(GetPvalue, RefusesCoefficientsThatAreNoGenotypes) {
    const covariable_type z({1, 2}, matrix<double>(3, 2, 1.0));
    const matrix<double> t(2, 2);

    EXPECT_EQ(fatal_text([&] { static_cast<void>(compute_ztcz_snp(z, t.view(), log_)); }),
              "Only Plink binary files are currently supported");
}

TEST_F(GetPvalue, RefusesEffectsWithoutAnimals) {
    for (const std::int32_t e : {1, 0, 4}) {
        model_.param.pvalue[0].effect = e;
        EXPECT_EQ(reading_fails(), "The option !pvalue needs a random class effect, which the effect " +
                                       std::to_string(e) + " is not");
        EXPECT_NE(fatal_text([&] { static_cast<void>(pvalue_positions(model_.param, log_)); }), "");
    }
}

TEST_F(GetPvalue, RefusesLevelsThatTheEffectDoesNotHave) {
    const std::vector<std::int32_t> good = {1, 9}, bad = {1, 10};
    EXPECT_THAT(getindex(model_.param, 3, 2, good, log_), testing::ElementsAre(4 + 18 + 2, 4 + 18 + 16 + 2));
    EXPECT_EQ(fatal_text([&] { static_cast<void>(getindex(model_.param, 3, 1, bad, log_)); }),
              "Internal error: the level 10 of effect 3 has no equation");
    EXPECT_THAT(log_.text(), HasSubstr("modpevpec % getindex ("));
}

TEST_F(GetPvalue, NamesTheFileAndLineOfAnimalsThatAreNotInBoth) {
    std::int32_t other = 1;
    while (std::ranges::find(levels_, other) != levels_.end()) ++other;
    const std::string first = std::to_string(levels_[0]);
    const std::string gi = directory_.read("gi.txt");

    directory_.write("gi.txt", gi + std::to_string(other) + " " + first + " 0.5\n");
    expect_refused("The file gi.txt of the G inverse is not correct at line 16: the level " +
                   std::to_string(other) + " has no genotypes");

    std::string without, line;
    for (std::istringstream in(gi); std::getline(in, line);)
        if (!line.starts_with(first + " " + first + " ")) without += line + "\n";
    directory_.write("gi.txt", without);
    expect_refused("The file gi.txt of the G inverse has no diagonal element of the level " + first +
                   ", which has genotypes");
}

TEST_F(GetPvalue, NamesTheBadLineOfEachFile) {
    const auto with = [&](const char* file, const std::string& text, const std::string& message) {
        const std::string before = directory_.read(file);
        directory_.write(file, text);
        expect_refused(message);
        directory_.write(file, before);
    };
    const std::string gi = directory_.read("gi.txt"), fam = directory_.read("geno.fam");
    with("gi.txt", gi + "10 1 0.5\n", "G inverse not correctly read at line 16");
    with("gi.txt", gi + "1 x 0.5\n", "G inverse not correctly read at line 16");
    with("gi.txt", gi + "1 1 nan\n", "G inverse not correctly read at line 16");
    with("gi.txt", "", "The file gi.txt of the G inverse is empty");
    with("freq.txt", "0.5\n0.5\n", "Allele frequencies not correctly read at line 3");
    with("freq.txt", directory_.read("freq.txt") + "0.5\n",
         "Allele frequencies not correctly read at line 7");
    with("freq.txt", "0.5\n1.5\n0.5\n0.5\n0.5\n0.5\n", "Allele frequencies not correctly read at line 2");
    with("freq.txt", "0\n1\n0\n1\n0\n1\n", "The sum of 2pq of the genotypes geno is not above 0: ");
    with("geno.fam", "1 99 0 0 0 -9\n" + fam, "The file geno.fam is not correct at line 1");
    with("geno.fam", fam + "1 " + std::to_string(levels_[1]) + " 0 0 0 -9\n",
         "The file geno.fam is not correct: the individual " + std::to_string(levels_[1]) +
             " stands in two lines");
    with("geno.bim", "1 s 0 1 A B\n", "Allele frequencies not correctly read at line 2");
    with("geno.bed", "xxx", "The following file is not a Plink SNP-major bed file");
}

TEST_F(GetPvalue, NamesFilesThatAreNotThere) {
    for (const char* file : {"gi.txt", "freq.txt", "geno.bed", "geno.bim", "geno.fam"}) {
        SCOPED_TRACE(file);
        const std::string before = directory_.read(file);
        std::filesystem::remove(directory_ / file);
        EXPECT_NE(reading_fails(), "");
        EXPECT_THAT(log_.text(), HasSubstr(file));
        directory_.write(file, before);
    }
}

TEST_F(GetPvalue, TakesTheFrequenciesOfTheGenotypesWithoutAFile) {
    model_.param.pvalue[0].allelefreqfile = "none";
    model_.param.pvalue[0].genotypefile = "geno.bed";
    directory_.write("geno.bed", test::packed({"01210", "2-001", "10122", "00121", "11111", "22220"}));

    const snp_model_input input = read_snp_model(model_.param, model_.param.pvalue[0], log_);

    EXPECT_EQ(input.genotypes.allelefreq[0], 0.4);
    EXPECT_EQ(input.genotypes.allelefreq[1], 0.375);
}

TEST(WriteSnpValues, WritesTraitEffectAndSnp) {
    const test::temporary_directory directory;
    const test::working_directory inside(directory.path());
    matrix<double> values(2, 4);
    for (std::int64_t k = 0; k < 8; ++k) values.data()[k] = 0.5 + static_cast<double>(k);
    const std::vector<std::int32_t> effects = {3, 1};  // in the order of the options
    log_text log;

    write_snp_values(2, effects, values.view(), "snp.dat", log);

    EXPECT_EQ(directory.read("snp.dat"),
              "1 1 0 1 4.50000\n1 1 0 2 5.50000\n2 1 0 1 6.50000\n2 1 0 2 7.50000\n"
              "1 3 0 1 0.500000\n1 3 0 2 1.50000\n2 3 0 1 2.50000\n2 3 0 2 3.50000\n");
}

}  // namespace
}  // namespace zendar
