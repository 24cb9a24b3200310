#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "snp_files.hpp"

/// Models of SNP effects with one fault each outside of the genotypes, by the program itself.
namespace zendar::test {
namespace {

auto deflation(std::string text) {
    return [=](snp_files& m) {
        m.options = "!solver dpcg_iod 2\n!deflationmat sub.txt\n", m.more = {{"sub.txt", text}};
    };
}
auto galerkin(std::string bytes) {
    return [=](snp_files& m) {
        m.options = "!solver dpcg_iod 2\n!galerkin e.stream\n", m.more = {{"e.stream", bytes}};
    };
}
std::string bytes_of(const std::vector<double>& values) {
    std::string bytes(values.size() * sizeof(double), '\0');
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}
/// A further effect before or behind the SNP effect.
auto effect_lines(std::string lines) {
    return set(&snp_files::effects, std::move(lines));
}

/// The lines of a block that is right for a class effect of the random type.
auto random_type(const char* code, const char* words) {
    return [=](snp_files& m) {
        m.snp_block = std::string("3 ") + code + " 0 4\n" + words + "g4.txt\n";
        m.more = {{"g4.txt", "1\n0 1\n0 0 1\n0 0 0 1\n"}};
    };
}

const char* const bad_covariance = "Covariances of the huge effect 3 not correctly read at line ";
const double nan = std::numeric_limits<double>::quiet_NaN();

const snp_case bad_inputs[] = {
    // effects that share coefficients
    {"CoefficientsOfALaterEffect",
     23,
     effect_lines("1 0 1 1 0 0 none\n2 0 6 1 0 0 none\n3 3 6 4 0 0 4.as_effect\n3 3 6 4 0 0 geno.bed\n"),
     {"Check the covariate file 4.as_effect for effect 3"}},
    {"CoefficientsOfTheEffectItself",
     23,
     change(&snp_files::effects, "geno.bed", "3.as_effect"),
     {"Check the covariate file 3.as_effect for effect 3"}},
    {"CoefficientsOfAClassEffect",
     23,
     change(&snp_files::effects, "geno.bed", "2.as_effect"),
     {"Check the covariate file 2.as_effect for effect 3"}},
    {"CoefficientsOfNoEffect",
     23,
     change(&snp_files::effects, "geno.bed", "snps.as_effect"),
     {"Check the covariate file snps.as_effect for effect 3"}},
    {"CoefficientsOfEffectZero",
     23,
     change(&snp_files::effects, "geno.bed", "0.as_effect"),
     {"Check the covariate file 0.as_effect for effect 3"}},
    {"CoefficientsOfANegativeEffect",
     23,
     change(&snp_files::effects, "geno.bed", "-1.as_effect"),
     {"Check the covariate file -1.as_effect for effect 3"}},
    {"SharedCoefficientsOfAnotherNumber",
     23,
     effect_lines("1 0 1 1 0 0 none\n2 0 6 1 0 0 none\n3 3 6 4 0 0 geno.bed\n3 3 6 3 0 0 3.as_effect\n"),
     {"The number of declared coefficients / effective coefficients for the effect 4 are not equal."}},
    // covariances of the SNPs
    {"MissingCovariances",
     23,
     change(&snp_files::snp_block, "snpcov.txt", "nowhere.txt"),
     {"The covariance file nowhere.txt of the huge effect 3 cannot be read", "No such file"}},
    {"EmptyCovariances",
     23,
     set(&snp_files::cov, ""),
     {"The covariance file snpcov.txt of the huge effect 3 is empty"}},
    {"CutCovariances",
     23,
     set(&snp_files::cov, "1 1 0.3\n2 2 0.3\n3 3"),
     {bad_covariance, "line 3", "File snpcov.txt"}},
    {"CovarianceIsAWord",
     30,
     set(&snp_files::cov, "1 1 0.3\n2 2 much\n3 3 0.3\n4 4 0.3\n"),
     {bad_covariance, "line 2", "File snpcov.txt", "\"much\""}},
    {"CovarianceIsNaN",
     23,
     set(&snp_files::cov, "1 1 0.3\n2 2 nan\n3 3 0.3\n4 4 0.3\n"),
     {bad_covariance, "line 2", "File snpcov.txt"}},
    {"CovarianceOutsideOfTheSnps",
     23,
     set(&snp_files::cov, "1 1 0.3\n5 5 0.3\n"),
     {bad_covariance, "line 2", "File snpcov.txt"}},
    {"CovarianceTwice",
     23,
     change(&snp_files::cov, "3 3 0.3", "1 1 0.3"),
     {"The covariance file snpcov.txt of the huge effect 3 gives the element (1,1) more than once: line 3, "
      "and "
      "before it line 1"}},
    {"VarianceThatIsMissing",
     23,
     set(&snp_files::cov, "1 1 0.3\n2 2 0.3\n4 4 0.3\n"),
     {"The covariance matrix of the huge effect 3 in the file snpcov.txt is not positive definite",
      "equation 3 (SNP 3, trait 1 of the effect 3)"}},
    {"NegativeVariance",
     30,
     change(&snp_files::cov, "2 2 0.3", "2 2 -0.3"),
     {"The covariance matrix of the huge effect 3 in the file snpcov.txt is not positive definite",
      "equation 2 (SNP 2, trait 1 of the effect 3)"}},
    {"IndefiniteCovariances",
     22,
     [](snp_files& m) { m.cov += "1 2 0.4\n"; },
     {"The covariance matrix of the huge effect 3 in the file snpcov.txt is not positive definite",
      "the block of 2 equation(s) that begins at equation 1"}},
    {"ComputedCovariancesWithoutALink",
     23,
     change(&snp_files::snp_block, "snpcov.txt", "compute"),
     {"Computation of covariance matrix for effect 3 is impossible because of wrong computation of sum2pq!",
      "The effect is linked to no animal effect: a file with its covariance matrix is missing"}},
    {"BetaOfOneAndAlphaOfZero",
     30,
     option("!beta 1\n"),
     {"The (co)variances of the huge effect 3 cannot be scaled with tau = 1.0000 and alpha ="}},
    {"BetaOfZero", 30, option("!beta 0\n"), {"tau / beta of the SNP effect 3 is not a finite number"}},
    // links
    {"Type22AndACovariable",
     22,
     [](snp_files& m) {
         m.effects = "1 0 1 1 0 0 none\n2 1 6 1 0 0 c.txt\n3 3 6 4 0 0 geno.bed\n";
         m.animals = "2 1 0 1\ng.txt\n";
         m.more = {{"c.txt", "1 1\n2 2\n3 1\n4 2\n5 1\n6 1\n"}};
     },
     {"This type of effect 22 is not implemented"}},
    {"LinkToAnEffectWithoutPedigree",
     30,
     set(&snp_files::animals, "2 1 0 1\ng.txt\n"),
     {"The effect 2, which the SNP effect 3 is linked to, has no pedigree"}},
    {"LinkToAFixedEffect",
     22,
     change(&snp_files::snp_block, "1\n2\n", "1\n1\n"),
     {"The effect 1, which the SNP effect 3 is linked to, has no pedigree"}},
    {"LinkToAnEffectThatIsNotThere",
     30,
     change(&snp_files::snp_block, "1\n2\n", "1\n4\n"),
     {"An effect that the huge effect 3 is linked to", "model.par"}},
    {"LinkToTheEffectItself",
     30,
     change(&snp_files::snp_block, "1\n2\n", "1\n3\n"),
     {"This type of effect 30 is not implemented"}},
    {"LinkIsAWord",
     30,
     change(&snp_files::snp_block, "1\n2\n", "1\nanimals\n"),
     {"IO issue(s) with the description of effect 3", "model.par"}},
    {"LinkIsMissing", 30, change(&snp_files::snp_block, "1\n2\n", "1\n"), {"IO issue(s)", "model.par"}},
    {"TwoEffectsWithOneLink",
     30,
     [](snp_files& m) {
         m.effects = "1 0 1 1 0 0 none\n2 0 6 1 0 0 none\n3 3 6 4 0 0 geno.bed\n3 3 6 4 0 0 3.as_effect\n";
         m.snp_block =
             "3 30 0 4\nsnpcov.txt 1\n2\nEFFECT_ID TYPE N_CORRELATED DIM\n4 30 0 4\nsnpcov.txt 1\n2\n";
     },
     {"The SNP effects 3 and 4 are both linked to the animal effect 2, which can have the part of one only"}},
    {"LinkToAPartOfAGroup",
     30,
     [](snp_files& m) {
         m.effects = "1 0 1 1 0 0 none\n2 0 6 1 0 0 none\n2 0 6 1 0 0 none\n3 3 6 4 0 0 geno.bed\n";
         m.animals = "2 3 1 2\nped.txt compute\ng2.txt\n";
         m.snp_block = "4 30 0 4\nsnpcov.txt 1\n3\n";
         m.more = {{"g2.txt", "0.5\n0.1 0.5\n"}};
     },
     {"The SNP effects from 4 on must be linked to all effects of the group of effect 2"}},
    {"ComputedCovariancesAndALinkToAPartOfAGroup",
     22,
     [](snp_files& m) {
         m.effects = "1 0 1 1 0 0 none\n2 0 6 1 0 0 none\n2 0 6 1 0 0 none\n3 3 6 4 0 0 geno.bed\n";
         m.animals = "2 3 1 2\nped.txt compute\ng2.txt\n";
         m.snp_block = "4 22 0 4\ncompute 1\n2\n";
         m.more = {{"g2.txt", "0.5\n0.1 0.5\n"}};
     },
     {"The SNP effects of the group of the effect 4 are linked to the effects 2, but they must be linked to "
      "each of the effects 2 to 3 once"}},
    {"NotUseSparseAndType22",
     22,
     option("!notuseasparse\n"),
     {"Use of huge effects must be done with using sparse A matrices (effect 3)"}},
    {"NotUseSparseAndType30",
     30,
     option("!notuseasparse\n"),
     {"Use of huge effects must be done with using sparse A matrices (effect 3)"}},
    // the model
    {"SnpEffectIsNotTheLast",
     23,
     effect_lines("1 0 1 1 0 0 none\n3 3 6 4 0 0 geno.bed\n2 0 6 1 0 0 none\n"),
     {"Effects of type 2 and 3 must be the last effects of the model!"}},
    {"SnpEffectWithoutAFile",
     23,
     change(&snp_files::effects, "geno.bed", "none"),
     {"The covariable effect 3 does not have an associated file!"}},
    {"KernelWithoutSnpEffects",
     23,
     option("!optimem 0\n"),
     {" ERROR (modmmeiod): This type of effect 23 is not implemented"}},
    {"NoSuchKindOfCovariances",
     23,
     change(&snp_files::snp_block, "snpcov.txt 1", "snpcov.txt 2"),
     {"This random type for huge effect is not defined: 2"}},
    {"GroupBeyondTheLastEffect",
     23,
     change(&snp_files::snp_block, "3 23 0", "3 23 1"),
     {"The group of the effect 3 with 1 correlated effects goes beyond the last effect 3!"}},
    // random types of other effects
    {"RandomTypeOfIdentity", 1, random_type("1", ""), {"This type of huge effect is not supported: 1"}},
    {"RandomTypeOfExternalMatrix",
     10,
     random_type("10", "ped.txt\n"),
     {"This type of huge effect is not supported: 10"}},
    {"RandomTypeOfPedigree",
     3,
     random_type("3", "ped.txt compute\n"),
     {"Covariables are not possible with animal effects"}},
    {"RandomTypeOfGroups",
     5,
     random_type("5", "ped.txt 1 compute\n"),
     {"Covariables are not possible with animal effects"}},
    {"RandomTypeOfMetafounders",
     7,
     random_type("7", "ped.txt 1 compute g.txt\n"),
     {"Covariables are not possible with animal effects"}},
    {"RandomTypeOfRandomGroups",
     9,
     random_type("9", "ped.txt 1 compute\n"),
     {"Covariables are not possible with animal effects"}},
    {"RandomTypeOfSingleStep",
     103,
     random_type("103", "ped.txt compute g.txt\n"),
     {"Covariables are not possible with animal effects"}},
    {"RandomThatIsNoType6", 6, random_type("6", ""), {"This random type is not defined: 6"}},
    {"RandomThatIsNoType8", 8, random_type("8", ""), {"This random type is not defined: 8"}},
    {"RandomThatIsNoType21", 21, random_type("21", ""), {"This random type is not defined: 21"}},
    // deflation
    {"BlocksOfNoEquations",
     30,
     option("!solver dpcg_iod 0\n"),
     {"The option !solver dpcg_iod: \"0\" is less than 1!", "File model.par, line"}},
    {"BlocksOfAWord", 30, option("!solver dpcg_iod many\n"), {"!solver", "model.par, line"}},
    {"MissingSubdomains",
     30,
     option("!solver dpcg_iod 2\n!deflationmat nowhere.txt\n"),
     {"The file of the deflation vectors nowhere.txt cannot be read", "No such file"}},
    {"EmptySubdomains", 30, deflation(""), {"The file of the deflation vectors sub.txt has no subdomain"}},
    {"SubdomainsOfLetters",
     22,
     deflation("one\ntwo\n"),
     {"The file of the deflation vectors sub.txt has no subdomain"}},
    {"NegativeSubdomain",
     30,
     deflation("1\n1\n-1\n"),
     {"File sub.txt: the number -1 of equation 3 is no subdomain"}},
    {"SubdomainAboveTheEquations",
     30,
     deflation("1\n2000000000\n1\n"),
     {"File sub.txt: the number 2000000000 of equation 2 is no subdomain"}},
    {"SubdomainWithoutEquation",
     30,
     deflation("1\n3\n1\n3\n"),
     {"The Galerkin matrix of the subdomains is not positive definite: a subdomain has no equation, or "
      "depends "
      "on others"}},
    {"MissingGalerkin",
     30,
     option("!solver dpcg_iod 2\n!galerkin nowhere.stream\n"),
     {"The file of the Galerkin matrix nowhere.stream cannot be read", "No such file"}},
    {"EmptyGalerkin",
     30,
     galerkin(""),
     {"The file of the Galerkin matrix e.stream has 0 bytes instead of 72 for 3 subdomains"}},
    {"ShortGalerkin",
     30,
     galerkin(std::string(71, '\0')),
     {"The file of the Galerkin matrix e.stream has 71 bytes instead of 72 for 3 subdomains"}},
    {"LongGalerkin",
     22,
     galerkin(std::string(80, '\0')),
     {"The file of the Galerkin matrix e.stream has 80 bytes instead of 72 for 3 subdomains"}},
    {"GalerkinOfNaN",
     30,
     galerkin(bytes_of({1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, nan})),
     {"The file of the Galerkin matrix e.stream has values that are not finite"}},
    {"GalerkinThatIsReadAndComputed",
     30,
     option("!solver dpcg_iod 2\n!galerkin e.stream\n!computegalerkin\n"),
     {"computegalerkin", "Internal error"}},
};

class BadSnpModel : public ::testing::TestWithParam<snp_case> {};

TEST_P(BadSnpModel, IsOneClearMessageAndNoMarker) {
    expect_refused(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Cases, BadSnpModel, ::testing::ValuesIn(bad_inputs),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace zendar::test
