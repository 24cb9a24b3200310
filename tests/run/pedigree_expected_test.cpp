#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <vector>

#include "captured_log.hpp"
#include "data_sets.hpp"
#include "modenum.hpp"
#include "modpedigree.hpp"

/// What is computed from pedigrees against values that others computed, to all digits that these have.
namespace zendar {
namespace {

using test::captured_log;

/// A data set, with one kind of answers.
struct pedigree_set {
    const char* name;
    const char* folder;
    std::int32_t levels, nupg;
    std::int32_t type = trandom_ani;
    bool packed = false;
    bool example = false;    ///< part of the source tree
    double printed = 1e-11;  ///< the digits of the answers: twelve, mostly
    const char* answers = "expected_ainv.txt";
};

void PrintTo(const pedigree_set& set, std::ostream* os) {
    *os << set.name;
}

class ExpectedOfPedigree : public ::testing::TestWithParam<pedigree_set> {
  protected:
    void SetUp() override {
        const pedigree_set& set = GetParam();
        const auto folder = set.example ? test::example(set.folder) : test::external(set.folder);
        if (!std::filesystem::exists(folder)) GTEST_SKIP() << "the set " << set.folder << " is not here";
        copy_files(folder, run_);
        ped_.readpedigree_nomax((run_ / "ped.txt").string(), log_);
        ASSERT_EQ(ped_.nlength(), set.levels);
        ASSERT_EQ(ped_.nupg, set.nupg);
        ped_.filename.reset();  // no cache: that has six decimals only
    }
    void compute(std::int32_t method) {
        ped_.computeinbreeding_ped({.inbmethod = method, .directory = ""}, log_);
    }
    /// The rows of a file of numbers.
    std::vector<std::vector<double>> rows(const std::string& name, bool packed) {
        if (packed && std::system(("gzip -d " + (run_ / (name + ".gz")).string()).c_str()) != 0) return {};
        std::vector<std::vector<double>> all;
        std::istringstream text(run_.read(name));
        for (std::string line; std::getline(text, line);) {
            std::istringstream words(line);
            auto& row = all.emplace_back();
            for (double value = 0.0; words >> value;) row.push_back(value);
        }
        return all;
    }

    test::temporary_directory run_;
    captured_log log_;
    pedigree_type ped_;
};

class ExpectedInbreeding : public ExpectedOfPedigree {};

TEST_P(ExpectedInbreeding, ComesFromBothMethods) {
    const auto expected = rows("expected_inbreeding.txt", false);
    ASSERT_FALSE(expected.empty());
    for (const std::int32_t method : {meuwissen_and_luo, sargolzaei_etal}) {
        SCOPED_TRACE(method);
        compute(method);
        for (const auto& row : expected) {
            ASSERT_EQ(row.size(), 2U);
            ASSERT_NEAR(ped_.f.at(static_cast<std::size_t>(row[0]) - 1), row[1], GetParam().printed)
                << row[0];
        }
    }
}

const pedigree_set inbreeding_sets[] = {
    {.name = "GryphonBirthWeights", .folder = "gryphon_bwt", .levels = 1309, .nupg = 0, .example = true},
    {.name = "GryphonsOfTwoTraits", .folder = "gryphon_bivar", .levels = 1309, .nupg = 0},
    {.name = "BlueTits", .folder = "btdata", .levels = 1040, .nupg = 0},
    {.name = "DairyCows", .folder = "milk", .levels = 6547, .nupg = 0},
    {.name = "Groups", .folder = "ggtutorial_upg", .levels = 6002, .nupg = 2},
    {.name = "GenotypedAnimals", .folder = "hibayes_ssgblup", .levels = 1500, .nupg = 0, .printed = 1e-10},
};
INSTANTIATE_TEST_SUITE_P(Sets, ExpectedInbreeding, ::testing::ValuesIn(inbreeding_sets),
                         [](const auto& info) { return std::string(info.param.name); });

class ExpectedAinv : public ExpectedOfPedigree {};

TEST_P(ExpectedAinv, HasTheseElementsAndNoOthers) {
    const auto expected = rows(GetParam().answers, GetParam().packed);
    ASSERT_FALSE(expected.empty());
    for (const std::int32_t method : {meuwissen_and_luo, sargolzaei_etal}) {
        SCOPED_TRACE(method);
        compute(method);
        const crssparse ainv = ped_.computeasparse_ped(GetParam().type, 1.0, {}, log_);
        std::map<std::pair<std::int32_t, std::int32_t>, double> answers;
        for (const auto& row : expected) {
            ASSERT_EQ(row.size(), 3U);
            answers[std::minmax({static_cast<std::int32_t>(row[0]), static_cast<std::int32_t>(row[1])})] =
                row[2];
        }
        ASSERT_EQ(answers.size(), expected.size());
        for (const auto& [at, value] : answers)
            ASSERT_NEAR(ainv.get(at.first, at.second), value,
                        GetParam().printed * std::max(1.0, std::abs(value)))
                << at.first << " " << at.second;
        const auto elements = ainv.view();
        for (std::int32_t i = 1; i <= ainv.getdim(1); ++i)
            for (std::int64_t k = elements.ia[i - 1] - 1; k < elements.ia[i] - 1; ++k)
                ASSERT_TRUE(answers.contains({i, elements.ja[k]}) || std::abs(elements.a[k]) < 1e-12)
                    << i << " " << elements.ja[k];
    }
}

const pedigree_set ainv_sets[] = {
    {.name = "GryphonBirthWeights",
     .folder = "gryphon_bwt",
     .levels = 1309,
     .nupg = 0,
     .example = true,
     .answers = "ainv.txt"},
    {.name = "BlueTits", .folder = "btdata", .levels = 1040, .nupg = 0},
    {.name = "DairyCows", .folder = "milk", .levels = 6547, .nupg = 0, .packed = true},
    {.name = "Groups",
     .folder = "ggtutorial_upg",
     .levels = 6002,
     .nupg = 2,
     .type = trandom_ani_upg,
     .packed = true},
};
INSTANTIATE_TEST_SUITE_P(Sets, ExpectedAinv, ::testing::ValuesIn(ainv_sets),
                         [](const auto& info) { return std::string(info.param.name); });

class ExpectedContributions : public ExpectedOfPedigree {};

TEST_P(ExpectedContributions, AreTheseForAllAndForASet) {
    const auto expected = rows("expected_q.txt", true);
    ASSERT_EQ(std::ssize(expected), GetParam().levels - GetParam().nupg);
    const std::string folder = (run_.path() / "").string();
    const matrix<double> all = ped_.computeggcontributions_all(1, folder, log_);
    std::vector<std::int32_t> list;
    for (const auto& row : expected) list.push_back(static_cast<std::int32_t>(row[0]));
    const matrix<double> sel = ped_.computeggcontributions_sel(1, list, folder, log_);

    for (const char* name : {"gg_order_ped.dat", "gg_order_ped_sel.dat"}) {
        const auto order = rows(name, false);
        ASSERT_EQ(std::ssize(order), ped_.nupg);
        const std::int32_t first = ped_.nlength() - ped_.nupg + 1;
        for (std::size_t k = 0; k < expected.size(); ++k) {
            ASSERT_EQ(std::ssize(expected[k]), 1 + ped_.nupg);
            const bool of_set = std::string(name).ends_with("_sel.dat");
            const auto q = of_set ? sel.column(k) : all.column(list[k] - 1);
            for (const auto& row : order) {
                const double share = q[static_cast<std::size_t>(row[0]) - 1];
                ASSERT_NEAR(share, expected[k][static_cast<std::size_t>(row[1]) - first + 1], 1e-12)
                    << list[k];
            }
        }
    }
}

const pedigree_set contribution_sets[] = {
    {.name = "Groups", .folder = "ggtutorial_upg", .levels = 6002, .nupg = 2}};
INSTANTIATE_TEST_SUITE_P(Sets, ExpectedContributions, ::testing::ValuesIn(contribution_sets),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace zendar
