#include "modstructure_hugecov.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modmatop.hpp"
#include "snp_model.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using test::snp_choice;
using test::snp_model;
using testing::AllOf;
using testing::DoubleNear;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pointwise;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

matrix<double> dense(const crssparse& crs) {
    matrix<double> a(crs.getdim(1), crs.getdim(2));
    const auto m = crs.view();
    for (std::int32_t i = 0; i < crs.getdim(1); ++i)
        for (std::int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
            a(i, m.ja[k] - 1) = a(m.ja[k] - 1, i) = m.a[k];
    return a;
}

/// The shape that every result has.
void expect_sound(const crssparse& crs, std::int32_t order) {
    EXPECT_EQ(crs.getdim(1), order);
    EXPECT_EQ(crs.getdim(2), order);
    EXPECT_TRUE(crs.issymmetric());
    EXPECT_TRUE(crs.isupperstorage());
    EXPECT_TRUE(crs.issorted());
    EXPECT_TRUE(detail::is_sorted_by_column(crs.view()));
    EXPECT_EQ(detail::check_crs(crs.view(), true), detail::crs_defect::none);
    const auto m = crs.view();
    for (std::int32_t i = 0; i < order; ++i)
        ASSERT_EQ(m.ja[m.ia[i] - 1], i + 1) << "diagonal of row " << i + 1;
}

/// The same elements, to the last bit.
void expect_same(const crssparse& a, const crssparse& b) {
    EXPECT_EQ(a.get_rowptr(), b.get_rowptr());
    EXPECT_EQ(a.get_colval(), b.get_colval());
    const auto x = a.get_nzval(), y = b.get_nzval();
    ASSERT_EQ(x.size(), y.size());
    EXPECT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof(double)), 0);
}

class Hugecov : public testing::Test {
  protected:
    /// A model with this covariance file, which writes into the test's directory.
    param_type with_file(const std::string& name, std::string_view text, snp_choice choice) const {
        choice.covariance = directory_.write(name, text).string();
        choice.outputdir = directory_.path().string();
        return snp_model(choice);
    }
    param_type computed(snp_choice choice) const {
        choice.outputdir = directory_.path().string();
        param_type param = snp_model(choice);
        param.sum2pq = 1.0;
        return param;
    }
    std::int32_t opener(const param_type& param) const { return param.neffect - param.nhuge + 1; }
    crssparse read(const param_type& param) { return readghugediag(param, opener(param), log_); }
    crssparse compute(const param_type& param, const covariable_type& cov = {}) {
        return computeghugediag(param, opener(param), cov, log_);
    }
    [[nodiscard]] std::string path(std::string_view name) const { return (directory_ / name).string(); }
    std::string read_failure(std::string_view text, const snp_choice& choice = {}) {
        const param_type param = with_file("snp.txt", text, choice);
        EXPECT_NE(fatal_message([&] { static_cast<void>(read(param)); }), "no fatal_error");
        return log_.text();
    }
    std::string compute_failure(const param_type& param, const covariable_type& cov = {}) {
        return fatal_message([&] { static_cast<void>(compute(param, cov)); });
    }

    test::temporary_directory directory_;
    captured_log log_;
};

class Readghugediag : public Hugecov {};
class Computeghugediag : public Hugecov {};

// ---- readghugediag ----------------------------------------------------------------------------------------

TEST_F(Readghugediag, TakesTheValuesOfAnInverseAsTheyAre) {
    param_type param = with_file("snp.inv", "3 1 -0.5\n1 1 2\n3 3 1d1\n", {.nanimal = 2});
    param.tau = 3.0;

    const crssparse ginv = read(param);

    expect_sound(ginv, 3);
    EXPECT_THAT(ginv.get_rowptr(), ElementsAre(1, 3, 4, 5));
    EXPECT_THAT(ginv.get_colval(), ElementsAre(1, 3, 2, 3));
    EXPECT_THAT(ginv.get_nzval(), ElementsAre(2, -0.5, 0, 10));
    EXPECT_EQ(log_.text(),
              "The covariance matrix is assumed to be inverted for effect 3\n"
              "Number of lines read for the covariance matrix of the effect 3 : 3\n"
              "Memory (MB) needed for the inverted (co)variances of effect 3: .00\n");
    EXPECT_EQ(directory_.read("invcov_3.inv"),
              "1 1 2.0000000000000000\n1 3 -0.50000000000000000\n2 2 0.0000000000000000\n"
              "3 3 10.000000000000000\n");
}

TEST_F(Readghugediag, InvertsBlocksAndScalesThem) {
    // SNPs 1 and 3 are correlated within the traits; SNP 2 between them.
    param_type param =
        with_file("snp.inv.txt", "1 1 2\n5 1 1\n5 5 2\n2 2 4\n6 6 4\n2 6 0\n3 3 1\n3 4 0.5\n4 4 1\n",
                  {.ntrait = 2, .nsnp = {3}});
    param.tau = 0.5;
    param.alpha = 0.25;  // factor 2

    const crssparse ginv = read(param);

    expect_sound(ginv, 6);
    EXPECT_THAT(ginv.get_rowptr(), ElementsAre(1, 3, 4, 6, 7, 8, 9));
    EXPECT_THAT(ginv.get_colval(), ElementsAre(1, 5, 2, 3, 4, 4, 5, 6));
    EXPECT_THAT(ginv.get_nzval(),
                Pointwise(DoubleNear(1e-14), {4 / 3., -2 / 3., 0.5, 8 / 3., -4 / 3., 8 / 3., 4 / 3., 0.5}));
    EXPECT_EQ(log_.text(),
              "Number of lines read for the covariance matrix of the effect 2 : 9\n"
              "Inverted (co)variances for effect 2 is scaled by tau/alpha: 2.0000\n"
              "Memory (MB) needed for the inverted (co)variances of effect 2: .00\n");
}

TEST_F(Readghugediag, CountsAlphaAsOneWithoutBetaForSnps) {
    param_type param = with_file("snp.txt", "1 1 2\n", {.nsnp = {1}});
    param.tau = 3.0;
    param.alpha = 0.5;
    EXPECT_EQ(read(param).get(1, 1), 3.0);

    param.lbetasnp = false;
    EXPECT_EQ(read(param).get(1, 1), 1.5);
    EXPECT_THAT(log_.text(),
                HasSubstr("Inverted (co)variances for effect 2 is scaled by tau/alpha: 3.0000\n"));
}

TEST_F(Readghugediag, NumbersTheEquationsOfAGroupOneEffectAfterTheOther) {
    // 2 traits, 1 and 2 SNPs: SNP 2 of the second effect has the equations 5 and 6.
    std::string text = "2 5 1\n";
    for (int i = 1; i <= 6; ++i) text += std::to_string(i) + " " + std::to_string(i) + " 2\n";
    const param_type param = with_file("snp.txt", text, {.ntrait = 2, .nsnp = {1, 2}});

    const crssparse ginv = read(param);

    expect_sound(ginv, 6);
    EXPECT_LT(ginv.get(2, 5), 0.0);
    EXPECT_EQ(ginv.totalnumberofelements(), 7);
}

/// Blocks of random sizes over shuffled equations, as triplets and dense.
struct random_blocks {
    random_blocks(std::uint64_t seed, const std::vector<std::int32_t>& sizes) {
        std::mt19937_64 random(seed);
        std::normal_distribution<double> normal;
        const std::int32_t n = std::accumulate(sizes.begin(), sizes.end(), 0);
        std::vector<std::int32_t> equations(static_cast<std::size_t>(n));
        std::iota(equations.begin(), equations.end(), 0);
        std::shuffle(equations.begin(), equations.end(), random);
        covariance = matrix<double>(n, n);
        std::vector<std::string> lines;
        std::size_t first = 0;
        for (const std::int32_t size : sizes) {
            // A path through the block, so that it is connected, and some elements more.
            for (std::int32_t i = 0; i < size; ++i)
                for (std::int32_t j = 0; j <= i; ++j) {
                    const std::int32_t a = equations[first + i], b = equations[first + j];
                    if (i - j > 1 && random() % 3 != 0) continue;
                    covariance(a, b) = covariance(b, a) = i == j ? 3.0 + size : normal(random);
                }
            first += static_cast<std::size_t>(size);
        }
        for (std::int32_t i = 0; i < n; ++i)
            for (std::int32_t j = 0; j <= i; ++j) {
                if (covariance(i, j) == 0.0) continue;
                std::ostringstream line;
                line.precision(17);
                const bool upper = random() % 2 == 0;
                line << (upper ? j : i) + 1 << ' ' << (upper ? i : j) + 1 << ' ' << covariance(i, j) << '\n';
                lines.push_back(line.str());
            }
        std::shuffle(lines.begin(), lines.end(), random);
        for (const std::string& line : lines) text += line;
    }
    matrix<double> covariance;
    std::string text;
};

TEST_F(Readghugediag, AgreesWithTheInverseOfTheWholeMatrix) {
    const std::vector<std::vector<std::int32_t>> patterns{{1, 1, 1, 1, 1},       {5},
                                                          {3, 1, 4, 1, 2, 2, 7}, {80, 2, 1},
                                                          {100, 1, 30, 2, 81},   {1, 60, 60, 60, 3, 3, 3}};
    std::uint64_t seed = 0;
    for (const auto& sizes : patterns) {
        SCOPED_TRACE(++seed);
        const random_blocks blocks(seed, sizes);
        const auto n = static_cast<std::int32_t>(blocks.covariance.rows());
        param_type param = with_file("snp.txt", blocks.text, {.nsnp = {n}});
        param.alpha = 1.0;
        matrix<double> expected = blocks.covariance;
        ASSERT_TRUE(invsym(expected.view(), log_));

        const crssparse ginv = read(param);

        expect_sound(ginv, n);
        const matrix<double> found = dense(ginv);
        for (std::int32_t i = 0; i < n; ++i)
            for (std::int32_t j = 0; j < n; ++j) ASSERT_NEAR(found(i, j), expected(i, j), 1e-13);
        std::int64_t elements = 0;
        for (const std::int64_t size : sizes) elements += size * (size + 1) / 2;
        EXPECT_EQ(ginv.totalnumberofelements(), elements);
    }
}

TEST_F(Readghugediag, AnnouncesTheMemoryOfLargeBlocks) {
    const auto log_of_block = [&](std::int32_t size) {
        const std::string before = log_.text();
        static_cast<void>(read(with_file("snp.txt", random_blocks(7, {size}).text, {.nsnp = {size}})));
        return log_.text().substr(before.size());
    };
    EXPECT_THAT(log_of_block(80), Not(HasSubstr("inverting")));
    EXPECT_THAT(log_of_block(300),
                HasSubstr("Memory (MB) needed for inverting a block of 300 equations of effect 2: .69\n"));
}

TEST_F(Readghugediag, GivesZerosToTraitsThatTheEffectDoesNotHave) {
    param_type param = with_file("snp.txt", "1 1 2\n3 3 4\n4 4 0\n", {.ntrait = 2, .nsnp = {2}});
    param.pos_effects(1, 1) = 0;
    param.alpha = 1.0;

    const crssparse ginv = read(param);

    expect_sound(ginv, 4);
    EXPECT_THAT(ginv.get_nzval(), ElementsAre(0.5, 0, 0.25, 0));
}

TEST_F(Readghugediag, TakesTheTraitsOfTheAnimalEffectOfALinkedOne) {
    const std::string text = "1 1 2\n3 3 4\n";
    param_type param =
        with_file("snp.txt", text, {.ntrait = 2, .nsnp = {2}, .type_random = 30, .links = {1}});
    param.pos_effects(0, 1) = param.pos_effects(1, 1) = 0;  // records do not meet the SNP effect
    param.alpha = 1.0;
    EXPECT_THAT(fatal_message([&] { static_cast<void>(read(param)); }),
                HasSubstr("is not positive definite"));

    param.pos_effects(1, 0) = 0;
    EXPECT_THAT(read(param).get_nzval(), ElementsAre(0.5, 0, 0.25, 0));
}

TEST_F(Readghugediag, WritesWhatReadsBackAsTheSameMatrix) {
    const random_blocks blocks(11, {3, 17, 1, 90, 2});
    const param_type param = with_file("snp.txt", blocks.text, {.nsnp = {113}});
    const crssparse ginv = read(param);
    test::temporary_directory other;
    param_type again = param;
    again.file[2][0] = path("invcov_2.inv");
    again.outputdir = other.path().string() + "/";

    const crssparse copy = read(again);

    expect_same(ginv, copy);
    EXPECT_EQ(other.read("invcov_2.inv"), directory_.read("invcov_2.inv"));
}

TEST_F(Readghugediag, LeavesItsOwnInputAsItIs) {
    const std::string text = "1 1 2\n2 2 3.5\n";
    const param_type param = with_file("invcov_2.inv", text, {.nsnp = {2}});

    static_cast<void>(read(param));

    EXPECT_EQ(directory_.read("invcov_2.inv"), text);
    EXPECT_THAT(log_.text(), HasSubstr("INFO: The file " + path("invcov_2.inv") +
                                       " is not written, because covariances are read from it\n"));
}

TEST_F(Readghugediag, ReplacesTheFileOfAnEarlierRun) {
    directory_.write("invcov_2.inv", "old");
    static_cast<void>(read(with_file("snp.inv", "1 1 2\n", {.nsnp = {1}})));
    EXPECT_EQ(directory_.read("invcov_2.inv"), "1 1 2.0000000000000000\n");
}

TEST_F(Readghugediag, StopsAtAnOutputThatCannotBeWritten) {
    param_type param = with_file("snp.inv", "1 1 2\n", {.nsnp = {1}});
    param.outputdir = path("nowhere");
    EXPECT_EQ(fatal_message([&] { static_cast<void>(read(param)); }),
              "The file " + path("nowhere") + "/invcov_2.inv cannot be written");
    EXPECT_THAT(log_.text(), HasSubstr("With iostat = 2"));
}

TEST_F(Readghugediag, StopsAtAFileThatIsMissingOrEmpty) {
    const param_type missing = snp_model({.covariance = path("none.txt")});
    EXPECT_EQ(fatal_message([&] { static_cast<void>(read(missing)); }),
              "The covariance file " + path("none.txt") + " of the huge effect 2 cannot be read");
    EXPECT_THAT(log_.text(),
                AllOf(HasSubstr("modstructure % readghugediag ("), HasSubstr("With iostat = 2")));

    for (const char* text : {"", "\n \n"})
        EXPECT_THAT(read_failure(text),
                    HasSubstr("The covariance file " + path("snp.txt") + " of the huge effect 2 is empty"));
}

TEST_F(Readghugediag, StopsAtBadLines) {
    const auto reason = [&](const std::string& line) {
        const std::string text = read_failure("1 1 2\n" + line + "\n2 2 2\n");
        EXPECT_THAT(text, AllOf(HasSubstr("Covariances of the huge effect 2 not correctly read at line 2"),
                                HasSubstr("File " + path("snp.txt") + ": ")));
        return text;
    };
    EXPECT_THAT(reason("2 2"), HasSubstr("the line has 2 values, expected are 3"));
    EXPECT_THAT(reason(""), HasSubstr("the line is blank"));
    EXPECT_THAT(reason("2 2 1 1"), HasSubstr("the line has more than 3 values"));
    EXPECT_THAT(reason("0 1 1"), HasSubstr("value 1 must lie between 1 and 3: \"0\""));
    EXPECT_THAT(reason("1 4 1"), HasSubstr("value 2 must lie between 1 and 3: \"4\""));
    EXPECT_THAT(reason("1 99999999999 1"), HasSubstr("value 2 must lie between 1 and 3"));
    EXPECT_THAT(reason("1 2.5 1"), HasSubstr("value 2 is not an integer"));
    EXPECT_THAT(reason("1 2 x"), HasSubstr("value 3 is not a number"));
    EXPECT_THAT(reason("1 2 nan"), HasSubstr("value 3 is not a finite number"));
    EXPECT_THAT(reason("1 2 1e400"), HasSubstr("value 3 is not a finite number"));
}

TEST_F(Readghugediag, StopsAtAnElementThatStandsTwice) {
    const std::string start =
        "The covariance file " + path("snp.txt") + " of the huge effect 2 gives the element ";
    EXPECT_THAT(read_failure("1 1 2\n2 2 2\n1 3 0\n3 3 2\n3 1 0\n"),
                HasSubstr(start + "(1,3) more than once: line 5, and before it line 3"));
    EXPECT_THAT(read_failure("1 1 2\n2 2 2\n2 2 2\n2 2 2\n"),
                HasSubstr(start + "(2,2) more than once: line 3, and before it line 2"));
    const param_type inverse = with_file("snp.inv", "1 1 2\n3 2 1\n3 2 1\n", {});
    EXPECT_THAT(fatal_message([&] { static_cast<void>(read(inverse)); }),
                HasSubstr("gives the element (2,3) more than once: line 3, and before it line 2"));
}

TEST_F(Readghugediag, NamesTheSameLinesWithAnyNumberOfThreads) {
    std::string text;
    for (int i = 1; i <= 300'000; ++i) text += std::to_string(i) + " " + std::to_string(i) + " 1\n";
    text += "77 77 1\n";
    const param_type param = with_file("snp.txt", text, {.nsnp = {300'000}});
    const int before = omp_get_max_threads();
    for (const int threads : {1, 4}) {
        omp_set_num_threads(threads);
        EXPECT_THAT(fatal_message([&] { static_cast<void>(read(param)); }),
                    HasSubstr("the element (77,77) more than once: line 300001, and before it line 77"));
    }
    omp_set_num_threads(before);
}

TEST_F(Readghugediag, StopsAtABlockThatIsNotPositiveDefinite) {
    const std::string start = "The covariance matrix of the huge effect 2 in the file " + path("snp.txt") +
                              " is not positive definite: ";
    // Equations 2 and 5: SNPs 1 and 3 in trait 2.
    EXPECT_THAT(
        read_failure("1 1 1\n2 2 1\n3 3 1\n4 4 1\n5 5 1\n6 6 1\n2 5 1.5\n", {.ntrait = 2, .nsnp = {3}}),
        AllOf(HasSubstr("ERROR dpotrf info: 2"),
              HasSubstr(start + "the block of 2 equation(s) that begins at equation 2 (SNP 1, trait 2 of "
                                "the effect 2)")));
    EXPECT_THAT(read_failure("1 1 1\n3 3 1\n"),
                HasSubstr(start + "the block of 1 equation(s) that begins at equation 2 (SNP 2, trait 1"));
    EXPECT_THAT(read_failure("1 1 1\n3 3 -1\n2 2 1\n"), HasSubstr("equation 3 (SNP 3, trait 1"));
    EXPECT_THAT(read_failure("1 1 1\n2 2 1\n3 3 0\n", {.nsnp = {1, 2}}),
                HasSubstr("equation 3 (SNP 2, trait 1 of the effect 3)"));
    EXPECT_THAT(read_failure("1 2 1\n2 2 1\n3 3 1\n"), HasSubstr("the block of 2 equation(s)"));
}

TEST_F(Readghugediag, StopsAtAnInverseBeyondTheNumbers) {
    EXPECT_THAT(read_failure("1 1 1e-320\n", {.nsnp = {1}}),
                HasSubstr("has no finite inverse: the block of 1 equation(s) that begins at equation 1"));
}

TEST_F(Readghugediag, StopsAtAScaleThatIsNoNumber) {
    param_type param = with_file("snp.txt", "1 1 1\n", {.nsnp = {1}});
    param.alpha = 0.0;
    EXPECT_EQ(fatal_message([&] { static_cast<void>(read(param)); }),
              "The (co)variances of the huge effect 2 cannot be scaled with tau = 1.0000 and alpha = 0.0000");
    param.alpha = -0.5;
    EXPECT_THAT(fatal_message([&] { static_cast<void>(read(param)); }), HasSubstr("cannot be scaled"));
}

/// Lines of blocks whose equations form a path.
std::string paths(std::int32_t blocks, std::int32_t size) {
    std::string text;
    for (std::int32_t b = 0; b < blocks; ++b)
        for (std::int32_t i = b * size + 1; i <= (b + 1) * size; ++i) {
            const std::string n = std::to_string(i);
            text += n + " " + n + " 3\n";
            if (i < (b + 1) * size) text += std::to_string(i + 1) + " " + n + " 1\n";
        }
    return text;
}

TEST_F(Readghugediag, StopsAtBlocksThatAreTooLarge) {
    EXPECT_THAT(
        read_failure(paths(1, 30'001), {.nsnp = {30'001}}),
        HasSubstr("The covariance file " + path("snp.txt") +
                  " of the huge effect 2 has a block of 30001 connected equations, which is too large to "
                  "be inverted (at most 30000): a file .inv with the inverse is needed"));
    EXPECT_THAT(
        read_failure(paths(5, 30'000), {.nsnp = {150'000}}),
        HasSubstr("The inverse of the covariances of the huge effect 2 has 2250075000 elements, which is "
                  "too many"));
}

// ---- computeghugediag -------------------------------------------------------------------------------------

TEST_F(Computeghugediag, ScalesTheInverseOfTheLinkedEffectForEachSnp) {
    param_type param = computed({.nsnp = {3}, .type_random = 22, .links = {1}});
    param.g[0](0, 0) = 0.25;  // inverse of 4
    param.sum2pq = 10.0;
    param.tau = 0.5;
    param.alpha = 0.25;

    const crssparse ginv = compute(param);

    expect_sound(ginv, 3);
    EXPECT_THAT(ginv.get_nzval(), ElementsAre(5, 5, 5));
    EXPECT_EQ(log_.text(),
              "Computation of covariance matrix for effect 2\n"
              "Inverted (co)variances for effect 2 is scaled by  (sum2pq): 10.00\n"
              "Inverted (co)variances for effect 2 is scaled by tau/alpha: 2.0000\n"
              "Memory (MB) needed for the inverted (co)variances of effect 2: .00\n");
    EXPECT_EQ(directory_.read("invcov_2.inv"),
              "1 1 5.0000000000000000\n2 2 5.0000000000000000\n3 3 5.0000000000000000\n");
    EXPECT_EQ(directory_.read("invcov_2.inv.scaled"),
              "1 1 2.5000000000000000\n2 2 2.5000000000000000\n3 3 2.5000000000000000\n");

    param.lbetasnp = false;
    EXPECT_THAT(compute(param).get_nzval(), ElementsAre(1.25, 1.25, 1.25));
    EXPECT_EQ(directory_.read("invcov_2.inv").substr(0, 8), "1 1 1.25");
    EXPECT_EQ(directory_.read("invcov_2.inv.scaled").substr(0, 8), "1 1 2.50");
}

/// A symmetric matrix without zeros.
matrix<double> random_symmetric(std::int64_t n, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::normal_distribution<double> normal;
    matrix<double> a(n, n);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j <= i; ++j) a(i, j) = a(j, i) = normal(random);
    return a;
}

TEST_F(Computeghugediag, FollowsTheLinksInAnyOrder) {
    std::uint64_t seed = 20;
    for (std::vector<std::int32_t> links :
         {std::vector{1}, std::vector{1, 2}, std::vector{2, 1}, std::vector{3, 1, 2}})
        for (const std::int32_t nt : {1, 2, 3})
            for (const std::int32_t nsnp : {1, 4}) {
                SCOPED_TRACE(std::to_string(++seed));
                const auto nmember = static_cast<std::int32_t>(links.size());
                param_type param =
                    computed({.ntrait = nt,
                              .nanimal = nmember,
                              .nsnp = std::vector<std::int32_t>(static_cast<std::size_t>(nmember), nsnp),
                              .type_random = 30,
                              .links = links});
                param.g[0] = random_symmetric(nmember * nt, seed);
                param.sum2pq = 3.5;

                const crssparse ginv = compute(param);

                const std::int32_t n = nmember * nsnp * nt;
                expect_sound(ginv, n);
                const matrix<double> found = dense(ginv);
                const auto expected = [&](std::int32_t i, std::int32_t j) {
                    const std::int32_t k = i / nt / nsnp, l = j / nt / nsnp;
                    if (i / nt % nsnp != j / nt % nsnp) return 0.0;
                    return param.tau * 3.5 / param.alpha *
                           param.g[0]((links[k] - 1) * nt + i % nt, (links[l] - 1) * nt + j % nt);
                };
                for (std::int32_t i = 0; i < n; ++i)
                    for (std::int32_t j = 0; j < n; ++j)
                        ASSERT_NEAR(found(i, j), expected(i, j), 1e-13) << i << ' ' << j;
                EXPECT_EQ(ginv.totalnumberofelements(), nsnp * nmember * nt * (nmember * nt + 1) / 2);
            }
}

TEST_F(Computeghugediag, LeavesOutTraitsThatTheAnimalEffectDoesNotHave) {
    param_type param =
        computed({.ntrait = 2, .nanimal = 2, .nsnp = {2, 2}, .type_random = 22, .links = {2, 1}});
    param.g[0] = random_symmetric(4, 5);
    param.alpha = 1.0;
    param.pos_effects(0, 1) = 0;  // trait 1 of animal effect 2, hence of the first SNP effect
    param.pos_effects(1, 3) = 0;  // records of a SNP effect have no part in this

    const crssparse ginv = compute(param);

    expect_sound(ginv, 8);
    for (std::int32_t j = 1; j <= 8; ++j)
        for (const std::int32_t absent : {1, 3}) EXPECT_EQ(ginv.get(absent, j), 0.0);
    EXPECT_EQ(ginv.get(2, 2), param.g[0](3, 3));
    EXPECT_EQ(ginv.get(4, 7), param.g[0](3, 0));
    EXPECT_EQ(ginv.get(6, 6), param.g[0](1, 1));
    // Diagonal zeros only: 2 of them and 6 elements among 3 entries, for each SNP.
    EXPECT_EQ(ginv.totalnumberofelements(), 2 * (1 + 6));
}

TEST_F(Computeghugediag, StoresNoZerosBesideTheDiagonal) {
    param_type param = computed({.ntrait = 3, .nsnp = {5}, .type_random = 22, .links = {1}});
    EXPECT_EQ(compute(param).totalnumberofelements(), 15);
}

TEST_F(Computeghugediag, WritesWhatReadsBackAsTheSameMatrix) {
    param_type param =
        computed({.ntrait = 3, .nanimal = 2, .nsnp = {7, 7}, .type_random = 30, .links = {2, 1}});
    param.g[0] = random_symmetric(6, 31);
    param.sum2pq = 0.1;
    param.pos_effects(2, 0) = 0;
    const crssparse ginv = compute(param);
    test::temporary_directory other;
    param_type again = param;
    again.file[3][0] = path("invcov_3.inv");
    again.outputdir = other.path().string();

    const crssparse copy = read(again);

    expect_same(ginv, copy);
}

TEST_F(Computeghugediag, TakesTheSumOf2pqThatTheModelAsksFor) {
    param_type param = computed({.nsnp = {2}, .type_random = 22, .links = {1}});
    param.alpha = 1.0;
    covariable_type cov;
    cov.allelefreq = {0.5, 0.25};  // 0.5 + 0.375
    param.sum2pq = 0.0;
    EXPECT_EQ(compute(param, cov).get(1, 1), 0.875);  // of the genotypes

    param.sum2pq = 2.0;
    EXPECT_EQ(compute(param, cov).get(1, 1), 2.0);

    param.allelefreq = {"freq.txt", "none"};  // that of another effect
    EXPECT_EQ(compute(param, cov).get(1, 1), 2.0);

    param.allelefreq = {"none", "freq.txt"};
    EXPECT_EQ(compute(param, cov).get(1, 1), 0.875);
    EXPECT_THAT(log_.text(),
                HasSubstr("Inverted (co)variances for effect 2 is scaled by  (sum2pq): 0.8750\n"));
}

TEST_F(Computeghugediag, StopsWithoutAPositiveSumOf2pq) {
    const std::string text =
        "Computation of covariance matrix for effect 2 is impossible because of wrong computation of "
        "sum2pq!\n"
        "Possible issue: an allele frequency file is not provided, or NaN values are present.";
    param_type param = computed({.nsnp = {2}, .type_random = 22, .links = {1}});
    for (const double sum : {0.0, -1.0, nan, std::numeric_limits<double>::infinity()}) {
        param.sum2pq = sum;
        EXPECT_EQ(compute_failure(param), text) << sum;
    }
    EXPECT_THAT(log_.text(), HasSubstr("modstructure % computeghugediag ("));

    param.sum2pq = 0.0;
    covariable_type cov;
    for (const auto& frequencies : {std::vector{0.0, 1.0}, std::vector{0.5, nan}}) {
        cov.allelefreq = frequencies;
        EXPECT_EQ(compute_failure(param, cov), text);
    }
}

TEST_F(Computeghugediag, ReadsTheFrequenciesOfCoefficientsThatHaveNone) {
    param_type param = computed({.nsnp = {2}, .type_random = 22, .links = {1}});
    param.alpha = 1.0;
    param.allelefreq = {"none", directory_.write("freq.txt", "0.5\n0.25\n").string()};
    EXPECT_EQ(compute(param).get(2, 2), 0.875);
    EXPECT_THAT(log_.text(),
                HasSubstr("Effect 2: File with allele frequencies to be read: " + path("freq.txt") + "\n"));

    directory_.write("freq.txt", "0.5\n");
    EXPECT_THAT(compute_failure(param), HasSubstr("Allele frequencies not correctly read at line 2"));
    directory_.write("freq.txt", "0\n1\n");
    EXPECT_THAT(compute_failure(param), HasSubstr("because of wrong computation of sum2pq!"));
    param.allelefreq[1] = path("none.txt");
    EXPECT_EQ(compute_failure(param), "File with allele frequencies not found: " + path("none.txt"));
}

TEST_F(Computeghugediag, StopsAtAnEffectThatIsNotLinked) {
    for (const std::int32_t type : {20, 23})
        EXPECT_EQ(
            compute_failure(computed({.type_random = type})),
            "Computation of covariance matrix for effect 2 is impossible because of wrong computation of "
            "sum2pq!\nPossible issue: an allele frequency file is not provided, or NaN values are present.\n"
            "The effect is linked to no animal effect: a file with its covariance matrix is missing (the "
            "instruction file says \"compute\")");
}

TEST_F(Computeghugediag, StopsAtALinkToAnEffectWithoutCovariances) {
    param_type param = computed({.nanimal = 2, .type_random = 22, .links = {2}});
    param.type_random[0] = 0;
    EXPECT_EQ(compute_failure(param),
              "The effect 2, which the SNP effect 3 is linked to, has no (co)variance matrix");
    param.type_random[0] = 1;  // a group that ends before effect 2
    param.n_correlated[0] = 0;
    EXPECT_EQ(compute_failure(param),
              "The effect 2, which the SNP effect 3 is linked to, has no (co)variance matrix");
    param.link_effect[2] = {3};  // itself
    EXPECT_EQ(compute_failure(param),
              "The effect 3, which the SNP effect 3 is linked to, has no (co)variance matrix");
}

TEST_F(Computeghugediag, StopsAtLinksThatAreNotOneAnimalGroup) {
    const auto message = [](const std::string& links) {
        return "The SNP effects of the group of the effect 4 are linked to the effects " + links +
               ", but they must be linked to each of the effects 1 to 2 once, which have one (co)variance "
               "matrix";
    };
    for (const auto& [links, text] : std::map<std::vector<std::int32_t>, std::string>{
             {{1, 1}, "1 1"}, {{1, 3}, "1 3"}, {{1}, "1"}, {{2}, "2"}, {{1, 2, 3}, "1 2 3"}}) {
        param_type param = computed({.nanimal = 3,
                                     .nsnp = std::vector<std::int32_t>(links.size(), 2),
                                     .type_random = 22,
                                     .links = links});
        param.n_correlated[0] = 1;
        param.type_random[2] = 3;
        param.n_correlated[2] = 0;
        EXPECT_EQ(compute_failure(param), message(text));
    }
}

TEST_F(Computeghugediag, StopsAtALinkToSeveralCovariables) {
    param_type param = computed({.type_random = 30, .links = {1}});
    param.alpha = 1.0;
    param.type_effect[0] = teff_covariable;
    param.n_cov[0] = 1;
    EXPECT_EQ(compute(param).get(1, 1), 1.0);
    param.n_cov[0] = 2;
    EXPECT_EQ(compute_failure(param),
              "The effect 1, which the SNP effect 2 is linked to, is neither a class effect nor a single "
              "covariable");
}

TEST_F(Computeghugediag, StopsAtAMatrixOfAnotherOrder) {
    param_type param = computed({.ntrait = 2, .type_random = 22, .links = {1}});
    param.g[0] = matrix<double>(3, 3);
    EXPECT_EQ(compute_failure(param),
              "The (co)variance matrix of effect 1 has 3 rows, but the SNP effect 2 needs 2");
}

TEST_F(Computeghugediag, StopsAtCorrelatedEffectsWithDifferentSnps) {
    EXPECT_EQ(compute_failure(computed({.nanimal = 2, .nsnp = {3, 4}, .type_random = 22, .links = {1, 2}})),
              "The correlated SNP effects 3 and 4 have different numbers of SNPs: 3 and 4. Their covariances "
              "cannot be computed");
}

TEST_F(Computeghugediag, StopsBeyondTheNumbers) {
    param_type param = computed({.type_random = 22, .links = {1}});
    param.g[0](0, 0) = 1e300;
    param.sum2pq = 1e10;
    EXPECT_EQ(compute_failure(param), "The inverted (co)variances of the huge effect 2 are not finite");
    param.sum2pq = 1.0;
    param.tau = 1e20;
    EXPECT_EQ(compute_failure(param), "The inverted (co)variances of the huge effect 2 are not finite");
}

TEST_F(Computeghugediag, StopsAtMoreElementsThanCanBeNumbered) {
    param_type param = computed({.ntrait = 2, .nsnp = {800'000'000}, .type_random = 22, .links = {1}});
    param.g[0] = random_symmetric(2, 1);
    EXPECT_EQ(
        compute_failure(param),
        "The inverse of the covariances of the huge effect 2 has 2400000000 elements, which is too many");
}

TEST_F(Computeghugediag, StopsAtAScaleThatIsNoNumber) {
    param_type param = computed({.type_random = 22, .links = {1}});
    param.alpha = 0.0;
    EXPECT_EQ(compute_failure(param),
              "The (co)variances of the huge effect 2 cannot be scaled with tau = 1.0000 and alpha = 0.0000");
}

TEST_F(Computeghugediag, LeavesACovarianceFileOfTheModelAsItIs) {
    param_type param = computed({.nsnp = {2, 2}, .type_random = 22, .links = {1}});
    param.n_correlated[1] = 0;
    param.file[3][0] = directory_.write("invcov_2.inv", "input").string();

    static_cast<void>(compute(param));

    EXPECT_EQ(directory_.read("invcov_2.inv"), "input");
    EXPECT_TRUE(directory_.exists("invcov_2.inv.scaled"));
}

TEST_F(Computeghugediag, IsTheSameWithAnyNumberOfThreads) {
    param_type param = computed({.ntrait = 2, .nsnp = {20'011}, .type_random = 22, .links = {1}});
    param.g[0] = random_symmetric(2, 3);
    const int before = omp_get_max_threads();
    omp_set_num_threads(1);
    const crssparse one = compute(param);
    omp_set_num_threads(5);
    const crssparse five = compute(param);
    omp_set_num_threads(before);
    expect_sound(one, 40'022);
    expect_same(one, five);
}

}  // namespace
}  // namespace zendar
