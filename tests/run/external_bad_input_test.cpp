#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gblup_files.hpp"

/// Options of external matrices with one fault each, by the program itself.
namespace zendar::test {
namespace {

const gblup_matrices m;

std::string zero_on_the_diagonal() {
    std::string text;
    for (std::int32_t i = 1; i <= 4; ++i)
        for (std::int32_t j = 1; j <= i; ++j)
            text += element_line(i, j, i == 3 && j == 3 ? 0.0 : m.l(i - 1, j - 1));
    return text;
}

/// The model with option lines and the files that they name.
auto with(std::string options, std::vector<std::pair<std::string, std::string>> more = {}) {
    return [=](snp_files& files) { files = gblup_files(options, more); };
}
/// The same with a second random effect of animals, diagonal.
auto with_two(std::string options, std::vector<std::pair<std::string, std::string>> more = {}) {
    return [=](snp_files& files) {
        files = gblup_files(options, more);
        files.effects += "2 0 6 1 0 0 none\n";
        files.animals += "EFFECT_ID TYPE N_CORRELATED DIM\n3 1 0 1\ng.txt\n";
    };
}
auto by_groups(std::string options, std::vector<std::pair<std::string, std::string>> more) {
    return [=](snp_files& files) {
        files = gblup_files(options, more);
        snp_files::replace(files.effects, "2 0 6 1", "2 0 7 1");
        files.animals = "2 5 0 1\nped5.txt 1 compute\ng.txt\n";
        files.more.emplace_back("ped5.txt", "1 7 7\n2 7 7\n3 1 2\n4 1 2\n5 1 7\n6 3 4\n");
    };
}

const std::string element = "3 2 0.5\n3 3 1.5\n2 2 1\n";
const std::string tageno = "!tageno geno 1 2\n!ktamatrix k_tri 1 2\n";

const snp_case bad_inputs[] = {
    // effects
    {"DiagonalEffectWithGi",
     0,
     with_two("!gima22i gi_tri 1 3\n", {{"gi_tri", element}}),
     {" This type of effect 1 is not implemented for the option !gima22i (effect 3)"}},
    {"FixedEffectWithApy",
     0,
     with("!gapy g_tri 1 1\n"),
     {" This type of effect 0 is not implemented for the option !gapy (effect 1)"}},
    {"FixedEffectWithQp",
     0,
     with("!qptransfo q_tri 1 1\n"),
     {" This type of effect 0 is not implemented for the option !qptransfo (effect 1)"}},
    {"FixedEffectWithABlock",
     0,
     with("!acrosseff b_tri 2 1 2\n"),
     {" This type of effect 0 is not implemented for the option !acrosseff (effect 1)"}},
    {"BlockOfAnEffectWithItself",
     0,
     with("!acrosseff b_tri 2 2 2\n", {{"b_tri", element}}),
     {"The effects 2 and 2 of the option !acrosseff have the same equations"}},
    {"TaWithGroupsByThePedigree",
     0,
     by_groups("!notuseasparse\n!tamatrix ta_tri 1 2\n", {{"ta_tri", m.ta_text()}}),
     {" This type of effect 5 is not implemented for the option !tamatrix (effect 2)"}},
    {"GenotypesOfTaWithGroups",
     0,
     by_groups(tageno, {{"k_tri", m.k_text()}}),
     {" This type of effect 5 is not implemented for the option !tageno (effect 2)"}},
    {"ApyOfAGroup",
     0,
     by_groups("!gapy g_tri 1 2\n", {{"g_tri", "7 7 1\n"}, {"g_tri_core", "7\n"}}),
     {"The level 7 of the option !gapy is no animal of effect 2: its pedigree has 6 animals"}},
    {"ApyWithoutPedigree",
     0,
     [](snp_files& files) {
         files = gblup_files("!gapy g_tri 1 2\n", {{"g_tri", m.gapy_text()}, {"g_tri_core", m.core_text()}});
         files.animals = "2 10 0 1\nainv.txt\ng.txt\n";
         files.more.emplace_back("ainv.txt", "1 1 1\n2 2 1\n3 3 1\n4 4 1\n5 5 1\n6 6 1\n");
     },
     {"The option !gapy needs a pedigree for effect 2"}},
    // files
    {"MissingGi", 0, with("!gima22i gi_tri 1 2\n"), {"The file gi_tri of the matrix cannot be read"}},
    {"GiOfAnotherName",
     0,
     with("!gima22i gi.txt 1 2\n", {{"gi.txt", element}}),
     {"The file gi.txt is not a _tri file!"}},
    {"GiAboveTheDiagonal",
     0,
     with("!gima22i gi_tri 1 2\n", {{"gi_tri", "2 3 0.5\n"}}),
     {"The file gi_tri is not a _tri file!", "Line 1: the element (2,3) stands above the diagonal"}},
    {"GiOfALevelBeyond",
     0,
     with("!gima22i gi_tri 1 2\n", {{"gi_tri", "7 2 0.5\n"}}),
     {"The file gi_tri is not a _tri file for Gi-A22i!"}},
    {"GiWithARepeatedElement",
     0,
     with("!gima22i gi_tri 1 2\n", {{"gi_tri", "3 2 0.5\n2 2 1\n3 2 0.25\n"}}),
     {"The file gi_tri is not a _tri file!", "Line 3: the element (3,2) stands on line 1 already"}},
    {"ApyWithoutCore", 0, with("!gapy g_tri 1 2\n", {{"g_tri", m.gapy_text()}}), {"g_tri_core"}},
    {"ApyOutsideTheCore",
     0,
     with("!gapy g_tri 1 2\n", {{"g_tri", m.gapy_text()}, {"g_tri_core", "2\n"}}),
     {"The file g_tri is not a _tri file for APY!"}},
    {"TaOfAnotherName",
     0,
     with("!tamatrix ta.txt 1 2\n", {{"ta.txt", m.ta_text()}}),
     {"This format for the Ta matrix of effect 2 is not implemented!"}},
    {"TaCutOff",
     0,
     with("!tamatrix ta.stream 1 2\n", {{"ta.stream", std::string("\6\0\0\0\1\0\0\0", 8)}}),
     {"The file ta.stream is not a stream file!"}},
    // the components of Ta
    {"GenotypesOfTaAlone",
     0,
     with("!tageno geno 1 2\n"),
     {"The option !tageno needs the option !ktamatrix for effect 2"}},
    {"FactorOfFewerSnps",
     0,
     with(tageno, {{"k_tri", "1 1 2\n2 1 0.1\n2 2 2\n"}}),
     {"The number of SNPs in k_tri and geno is different!"}},
    {"FactorOfOtherGenotypes",
     0,
     with(tageno, {{"k_tri", "1 1 2\n2 2 2\n3 3 2\n4 4 2\n"}}),
     {"The sum of 2pq in k_tri and computed from geno is different! ", " vs "}},
    {"FactorOfOtherWeights",
     0,
     with("!beta 0.2\n" + tageno, {{"k_tri", m.k_text()}}),
     {"The sum of 2pq in k_tri and computed from geno is different! ", " vs "}},
    {"FactorWithAZero", 0, with(tageno, {{"k_tri", zero_on_the_diagonal()}}), {"(dtrtrs) T matrix info: 3"}},
    {"FactorOfAnotherName",
     0,
     with("!tageno geno 1 2\n!ktamatrix k.txt 1 2\n", {{"k.txt", m.k_text()}}),
     {"This type of file is not supported: k.txt"}},
    {"MissingFactor", 0, with(tageno), {"The file k_tri of the option !ktamatrix does not exist"}},
    {"MissingGenotypes",
     0,
     with("!tageno none.bed 1 2\n!ktamatrix k_tri 1 2\n", {{"k_tri", m.k_text()}}),
     {"The following file does not exist: none.bed"}},
    // SNP effects
    {"FactorWithoutTa",
     0,
     with("!ktamatrix k_tri 1 2\n", {{"k_tri", m.k_text()}}),
     {"This type of effect 2 is not implemented"}},
    {"FactorOfAFixedEffect",
     0,
     with("!ktamatrix k_tri 1 1\n", {{"k_tri", m.k_text()}}),
     {"This type of effect 0 is not implemented"}},
    // in memory
    {"ApyInMemory",
     0,
     with("!gapy g_tri 1 2\n!solver pardiso\n"),
     {"The option !gapy is only available with the IOD solvers"}},
    {"QpInMemory",
     0,
     with("!qptransfo q_tri 1 2\n!solver pardiso\n"),
     {"The option !qptransfo is only available with the IOD solvers"}},
    {"TaInMemory",
     0,
     with("!tamatrix t_tri 1 2\n!solver pardiso\n"),
     {"The option !tamatrix is only available with the IOD solvers"}},
    {"GenotypesOfTaInMemory",
     0,
     with(tageno + "!solver pardiso\n", {{"k_tri", m.k_text()}}),
     {"is only available with the IOD solvers"}},
};

class BadExternalMatrix : public ::testing::TestWithParam<snp_case> {};

TEST_P(BadExternalMatrix, IsOneClearMessageAndNoMarker) {
    expect_refused(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Cases, BadExternalMatrix, ::testing::ValuesIn(bad_inputs),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- models that are right

void expect_near(const std::vector<double>& found, const std::vector<double>& expected, double tolerance) {
    ASSERT_EQ(found.size(), expected.size());
    double largest = 0.0;
    for (const double v : expected) largest = std::max(largest, std::abs(v));
    for (std::size_t i = 0; i < found.size(); ++i)
        EXPECT_LT(std::abs(found[i] - expected[i]), tolerance * largest) << i;
}

/// Solutions of the animals, and of "snpeffects_ta.dat" where it is written.
struct gblup_result {
    std::vector<double> animals, snps;
};
gblup_result run_gblup(const snp_files& files) {
    const temporary_directory run;
    files.write(run);
    const auto result = run_program(run.path(), {"model.par", "--ncpus", "2"});
    EXPECT_EQ(result.status, 0) << result.out << result.error;
    gblup_result found;
    const auto solutions = finite_solutions(run);
    if (solutions.size() > 1) found.animals = solutions[1];
    if (!run.exists("snpeffects_ta.dat")) return found;
    std::istringstream in(run.read("snpeffects_ta.dat"));
    int t = 0, e = 0, level = 0, snp = 0;
    for (double value = 0.0; in >> t >> e >> level >> snp >> value;) {
        EXPECT_EQ(t, 1);
        EXPECT_EQ(e, 2);
        EXPECT_EQ(snp, static_cast<int>(found.snps.size()) + 1);
        found.snps.push_back(value);
    }
    return found;
}

/// Henderson's equations of the model under H^-1 = A^-1 + G^-1 - A22^-1, dense.
std::vector<double> dense_gblup() {
    matrix<std::int32_t> ped(2, 6);
    const std::int32_t parents[6][2] = {{0, 0}, {0, 0}, {1, 2}, {1, 2}, {1, 0}, {3, 4}};
    for (std::int64_t i = 0; i < 6; ++i)
        for (std::int64_t k = 0; k < 2; ++k) ped(k, i) = parents[i][k];
    const matrix<double> ainv = dense_inverse(tabular_relationship(ped, 0));
    matrix<double> c(7, 7);
    std::vector<double> b(7, 0.0);
    const double y[] = {12, 10.5, 11.5, 9.25, 8, 8.5, 9};
    const int animal[] = {1, 2, 3, 4, 5, 6, 6};
    for (int r = 0; r < 7; ++r) {
        c(0, 0) += 1.0 / 2.5;
        c(0, animal[r]) += 1.0 / 2.5;
        c(animal[r], 0) += 1.0 / 2.5;
        c(animal[r], animal[r]) += 1.0 / 2.5;
        b[0] += y[r] / 2.5;
        b[animal[r]] += y[r] / 2.5;
    }
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j < 6; ++j) c(i + 1, j + 1) += ainv(i, j) / 0.5;
    for (std::size_t i = 0; i < m.levels.size(); ++i)
        for (std::size_t j = 0; j < m.levels.size(); ++j)
            c(m.levels[i], m.levels[j]) += (m.gi(i, j) - m.a22i(i, j)) / 0.5;
    const std::vector<double> x = dense_solution(c, b);
    return {x.begin() + 1, x.end()};
}

TEST(Gblup, HasTheBreedingValuesOfDenseEquationsByEveryOption) {
    const std::vector<double> expected = dense_gblup();
    const std::string gi = m.gima22i_text();
    constexpr double printed = 2e-6;
    for (const char* solver : {"", "!solver pardiso\n", "!solver pcg_inmem\n", "!notuseasparse\n"})
        expect_near(
            run_gblup(gblup_files(std::string("!gima22i gi_tri 1 2\n") + solver, {{"gi_tri", gi}})).animals,
            expected, printed);
    expect_near(
        run_gblup(gblup_files("!gapy g_tri 1 2\n", {{"g_tri", m.gapy_text()}, {"g_tri_core", m.core_text()}}))
            .animals,
        expected, printed);
    expect_near(run_gblup(gblup_files("!qptransfo q_tri 1 2\n", {{"q_tri", gi}})).animals, expected, printed);
    for (const char* extra : {"", "!tamatrix_blocks 2 3\n", "!notuseasparse\n"})
        expect_near(
            run_gblup(gblup_files(std::string("!tamatrix ta_tri 1 2\n") + extra, {{"ta_tri", m.ta_text()}}))
                .animals,
            expected, printed);
    for (const char* extra : {"", "!notuseasparse\n", "!miraculix 2\n"})
        expect_near(run_gblup(gblup_files(tageno + extra, {{"k_tri", m.k_text()}})).animals, expected,
                    printed);
}

TEST(Gblup, BlocksAcrossEffectsGoBothWays) {
    // Beside the animals a diagonal effect of the same levels, with a block between them.
    const std::string block = "1 1 0.3\n2 2 0.3\n3 6 -0.2\n6 4 0.1\n";
    const auto files = [&](const std::string& solver) {
        snp_files own = gblup_files("!acrosseff b_tri 2 2 3\n" + solver, {{"b_tri", block}});
        own.effects += "2 0 6 1 0 0 none\n";
        own.animals += "EFFECT_ID TYPE N_CORRELATED DIM\n3 1 0 1\ng.txt\n";
        return own;
    };
    const auto iterated = solve(files("")), direct = solve(files("!solver pardiso\n")),
               none = solve([&] {
                   snp_files own = files("");
                   own.options = "!convcrit 1e-20\n";
                   return own;
               }());
    for (std::size_t e = 1; e <= 2; ++e) {
        expect_near(iterated[e], direct[e], 2e-6);
        double change = 0.0;
        for (std::size_t i = 0; i < none[e].size(); ++i)
            change = std::max(change, std::abs(none[e][i] - direct[e][i]));
        EXPECT_GT(change, 1e-3);
    }
}

TEST(SnpEffectsTa, AreThoseOfTheGenomicRelationshipsByEveryRoute) {
    const std::string ta = "!tamatrix ta_tri 1 2\n!ktamatrix k_tri 1 2\n";
    for (const auto& [options, files] :
         {std::pair{ta, std::vector<std::pair<std::string, std::string>>{{"ta_tri", m.ta_text()},
                                                                         {"k_tri", m.k_text()}}},
          {tageno, {{"k_tri", m.k_text()}}}}) {
        const gblup_result found = run_gblup(gblup_files(options, files));
        expect_near(found.snps, m.snp_effects(found.animals), 1e-5);
    }
}

TEST(SnpEffectsTa, NeedAFactorOfTheSnpsOfTa) {
    const temporary_directory run;
    gblup_files("!tamatrix ta_tri 1 2\n!ktamatrix k_tri 1 2\n",
                {{"ta_tri", m.ta_text()}, {"k_tri", "1 1 2\n2 2 2\n"}})
        .write(run);
    const auto result = run_program(run.path(), {"model.par"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(unwrapped(result.out),
                ::testing::HasSubstr("The number of SNPs in k_tri and ta_tri is different!"));
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
}

TEST(Omega, IsTakenByTheOptionsWithA22) {
    const char* const warning = "Omega different than 1 is not supported with the requested options!";
    for (const auto& [options, taken] : {std::pair{std::string("!tamatrix ta_tri 1 2\n"), true},
                                         {std::string("!gapy g_tri 1 2\n"), true},
                                         {std::string("!gima22i gi_tri 1 2\n"), false}}) {
        const temporary_directory run;
        gblup_files("!omega 0.7\n" + options, {{"ta_tri", m.ta_text()},
                                               {"g_tri", m.gapy_text()},
                                               {"g_tri_core", m.core_text()},
                                               {"gi_tri", m.gima22i_text()}})
            .write(run);
        const auto result = run_program(run.path(), {"model.par"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(unwrapped(result.out).find(warning) == std::string::npos, taken) << options;
    }
}

}  // namespace
}  // namespace zendar::test
