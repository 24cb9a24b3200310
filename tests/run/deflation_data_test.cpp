#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "genotype_sets.hpp"

/// Deflated PCG on data whose answers others computed, by the program itself.
namespace zendar::test {
namespace {

using ::testing::HasSubstr;

class DeflatedIterations : public ::testing::TestWithParam<const char*> {};

TEST_P(DeflatedIterations, AreFewerTheFinerTheSubdomains) {
    if (!is_here(single_step)) GTEST_SKIP() << "the set " << single_step << " is not here";
    std::vector<int> counts;
    for (const char* options : {"", "!solver dpcg_iod 50\n", "!solver dpcg_iod 10\n"}) {
        const temporary_directory run;
        solve_set(run, single_step, GetParam(), options);
        counts.push_back(iterations(run));
    }
    EXPECT_GT(counts[0], counts[1]);
    EXPECT_GT(counts[1], counts[2]);
    EXPECT_GT(counts[2], 10);
}

INSTANTIATE_TEST_SUITE_P(Cases, DeflatedIterations,
                         ::testing::Values("model.par", "model_compute.par", "model22.par"),
                         [](const auto& info) {
                             const std::string name = info.param;
                             return name.substr(0, name.size() - 4);
                         });

// ---- the Galerkin matrix and subdomains of a file

TEST(GalerkinMatrix, IsComputedForOtherRuns) {
    if (!is_here(single_step)) GTEST_SKIP() << "the set " << single_step << " is not here";
    for (const char* par : {"model.par", "model22.par"}) {
        SCOPED_TRACE(par);
        const temporary_directory run, plain, with;
        copy_files(external(single_step), run);
        std::filesystem::permissions(run / par, std::filesystem::perms::owner_write,
                                     std::filesystem::perm_options::add);
        run.write("OK_ZENDAR", "");
        const auto result = run_in(run, par, "!solver dpcg_iod 50\n!computegalerkin\n", "1");
        EXPECT_EQ(result.status, 0) << result.out << result.error;
        EXPECT_FALSE(run.exists("OK_ZENDAR"));
        for (const char* file :
             {"solutions.dat", "aggregate_solutions.dat", "ca491pcn.bin", "convergence.dat"})
            EXPECT_FALSE(run.exists(file)) << file;
        constexpr std::uintmax_t nsub = 1 + 1000 / 50;  // of the trait, and of the SNPs
        ASSERT_TRUE(run.exists("def_einv.stream"));
        EXPECT_EQ(std::filesystem::file_size(run / "def_einv.stream"), nsub * nsub * sizeof(double));

        solve_set(plain, single_step, par, "!solver dpcg_iod 50\n");
        with.write("einv.stream", run.read("def_einv.stream"));
        const auto reader = solve_set(with, single_step, par, "!solver dpcg_iod 50\n!galerkin einv.stream\n");
        EXPECT_THAT(reader.out, HasSubstr("inv(ZAZ) read"));
        EXPECT_FALSE(with.exists("def_einv.stream"));
        EXPECT_EQ(iterations(with), iterations(plain));
        EXPECT_EQ(with.read("solutions.dat"), plain.read("solutions.dat"));
    }
}

/// Subdomain of equation i, from 0, as `!solver dpcg_iod 50` makes it: the SNPs are the last 1000 equations.
int block_of(int i, int neq) {
    return i < neq - 1000 ? 1 : 2 + (i - (neq - 1000)) / 50;
}

TEST(SubdomainsOfAFile, AreThoseOfTheBlocks) {
    if (!is_here(single_step)) GTEST_SKIP() << "the set " << single_step << " is not here";
    constexpr int neq = 2 + 3 + 1 + 1500 + 1000;
    const temporary_directory blocks, file;
    solve_set(blocks, single_step, "model.par", "!solver dpcg_iod 50\n");
    std::string text;
    for (int i = 0; i < neq; ++i) text += std::to_string(block_of(i, neq)) + "\n";
    file.write("sub.txt", text);
    const auto result =
        solve_set(file, single_step, "model.par", "!solver dpcg_iod 7\n!deflationmat sub.txt\n");
    EXPECT_THAT(result.out, HasSubstr("Read the deflation vectors from file sub.txt"));
    EXPECT_THAT(result.out, HasSubstr("Number of blocks: 21"));
    EXPECT_EQ(file.read("deflationmatrix.dat"), blocks.read("deflationmatrix.dat"));
    EXPECT_EQ(file.read("solutions.dat"), blocks.read("solutions.dat"));
}

struct subdomain_rule {
    const char* name;
    std::function<int(int)> of;  ///< of equation i, from 0, of 2506, the last 1000 of which are SNPs
};

void PrintTo(const subdomain_rule& rule, std::ostream* os) {
    *os << rule.name;
}

class OddSubdomains : public ::testing::TestWithParam<subdomain_rule> {};

/// Whatever equations a subdomain takes together, the answers are the same.
TEST_P(OddSubdomains, GiveTheSameAnswers) {
    if (!is_here(single_step)) GTEST_SKIP() << "the set " << single_step << " is not here";
    for (const char* par : {"model.par", "model22.par"}) {
        SCOPED_TRACE(par);
        const temporary_directory run;
        std::string text;
        for (int i = 0; i < 2506; ++i) text += std::to_string(GetParam().of(i)) + "\n";
        run.write("sub.txt", text);
        solve_set(run, single_step, par, "!solver dpcg_iod 50\n!deflationmat sub.txt\n");
        expect_single_step(run, std::string(par) == "model22.par");
    }
}

const subdomain_rule subdomain_rules[] = {
    {"SnpsAndAnimalsTogether", [](int i) { return i % 37 + 1; }},
    {"FewAndNoneForFixedEffects", [](int i) { return i < 6 ? 0 : i % 5 + 1; }},
    {"SomeSnpsWithAnimals", [](int i) { return i < 2306 ? 1 + i % 3 : 4 + i % 50; }},
    {"One", [](int) { return 1; }},
};

INSTANTIATE_TEST_SUITE_P(Cases, OddSubdomains, ::testing::ValuesIn(subdomain_rules),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace zendar::test
