#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "genotype_sets.hpp"

/// Models with SNP effects on data whose answers others computed, by the program itself.
namespace zendar::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

void expect_inbreeding(const temporary_directory& run) {
    const auto read_pairs = [&](const char* name) {
        std::map<int, double> pairs;
        std::istringstream in(run.read(name));
        for (std::string line; std::getline(in, line);) {
            std::istringstream words(line);
            int id = 0;
            if (double value = 0.0; words >> id >> value) pairs[id] = value;
        }
        return pairs;
    };
    const auto expected = read_pairs("expected_inbreeding.txt"), actual = read_pairs("ped.txt.inb");
    EXPECT_EQ(expected.size(), 1500U);
    for (const auto& [id, value] : expected) {
        ASSERT_TRUE(actual.contains(id)) << id;
        EXPECT_NEAR(actual.at(id), value, 1e-6) << id;
    }
}

struct snp_run {
    const char* name;
    const char* par;
    const char* options;
    const char* threads;
};

void PrintTo(const snp_run& run, std::ostream* os) {
    *os << run.name;
}

class SingleStepSets : public ::testing::TestWithParam<snp_run> {};

TEST_P(SingleStepSets, GiveThePublishedBreedingValues) {
    if (!is_here(single_step)) GTEST_SKIP() << "the set " << single_step << " is not here";
    const snp_run& model = GetParam();
    const temporary_directory run;
    solve_set(run, single_step, model.par, model.options, model.threads);
    expect_single_step(run, std::string(model.par) == "model22.par");
    expect_inbreeding(run);
}

const snp_run single_step_runs[] = {
    {"Type30", "model.par", "", "1"},
    {"Type30OnFourThreads", "model.par", "", "4"},
    {"Type30AndMiraculix", "model.par", "!miraculix 5\n", "1"},
    {"Type30AndMiraculixOnFourThreads", "model.par", "!miraculix 5\n", "4"},
    {"Type30AndDeflation", "model.par", "!solver dpcg_iod 50\n", "1"},
    {"Type30DeflationAndMiraculixOnFourThreads", "model.par", "!solver dpcg_iod 50\n!miraculix 5\n", "4"},
    {"Type30AndTheDiagonalOfZaaaz", "model.par", "!precondzaaaz\n", "1"},
    {"Type30DeflationAndTheDiagonalOfZaaaz", "model.par", "!solver dpcg_iod 50\n!precondzaaaz\n", "4"},
    {"Type30AndRecordsThatAreNotExpanded", "model.par", "!optimem 5\n", "1"},
    {"ComputedCovariances", "model_compute.par", "", "1"},
    {"ComputedCovariancesOnFourThreads", "model_compute.par", "", "4"},
    {"ComputedCovariancesAndMiraculixOnFourThreads", "model_compute.par", "!miraculix 5\n", "4"},
    {"ComputedCovariancesAndDeflation", "model_compute.par", "!solver dpcg_iod 50\n", "1"},
    {"ComputedCovariancesDeflationAndMiraculix", "model_compute.par",
     "!solver dpcg_iod 50\n!miraculix 5\n!precondzaaaz\n", "1"},
    {"Type22", "model22.par", "", "1"},
    {"Type22OnFourThreads", "model22.par", "", "4"},
    {"Type22AndMiraculix", "model22.par", "!miraculix 5\n", "1"},
    {"Type22AndMiraculixOnFourThreads", "model22.par", "!miraculix 5\n", "4"},
    {"Type22AndDeflation", "model22.par", "!solver dpcg_iod 50\n", "1"},
    {"Type22DeflationAndMiraculixOnFourThreads", "model22.par", "!solver dpcg_iod 50\n!miraculix 5\n", "4"},
    {"Type22AndTheDiagonalOfZaaaz", "model22.par", "!precondzaaaz\n", "1"},
    {"Type22DeflationAndTheDiagonalOfZaaaz", "model22.par", "!solver dpcg_iod 50\n!precondzaaaz\n", "4"},
};

INSTANTIATE_TEST_SUITE_P(Cases, SingleStepSets, ::testing::ValuesIn(single_step_runs),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- SNP effects alone

void expect_wheat(const temporary_directory& run) {
    expect_effects(run / "solutions.dat", run / "expected_solutions.txt", {2});
    EXPECT_NEAR((read_solutions(run / "solutions.dat").at({1, 1, 1, 0})), 0.0, 1e-6);
}

class WheatSets : public ::testing::TestWithParam<snp_run> {};

TEST_P(WheatSets, GiveThePublishedSnpEffects) {
    if (!is_here(wheat)) GTEST_SKIP() << "the set " << wheat << " is not here";
    const temporary_directory run;
    solve_set(run, wheat, "model.par", GetParam().options, GetParam().threads);
    expect_wheat(run);
}

const snp_run wheat_runs[] = {
    {"Plain", "", "", "1"},
    {"OnFourThreads", "", "", "4"},
    {"Miraculix", "", "!miraculix 2\n", "1"},
    {"MiraculixOnFourThreads", "", "!miraculix 2\n", "4"},
    {"Optimem5", "", "!optimem 5\n", "1"},
    {"Optimem5AndMiraculixOnFourThreads", "", "!optimem 5\n!miraculix 2\n", "4"},
    {"Deflation", "", "!solver dpcg_iod 50\n", "1"},
    {"TheDiagonalOfZaaaz", "", "!precondzaaaz\n", "1"},
};

INSTANTIATE_TEST_SUITE_P(Cases, WheatSets, ::testing::ValuesIn(wheat_runs),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(WheatData, HasTheFrequenciesOfItsGenotypes) {
    if (!is_here(wheat)) GTEST_SKIP() << "the set " << wheat << " is not here";
    const temporary_directory run;
    copy_files(external(wheat), run);
    std::string par = run.read("model.par");
    replace(par, "!allelefreq freq.txt 1 2\n", "");
    replace(par, "geno.bed", "geno");
    std::filesystem::remove(run / "model.par");
    run.write("model.par", par);
    const auto result = run_in(run, "model.par", "", "1");
    ASSERT_EQ(result.status, 0) << result.out << result.error;
    expect_wheat(run);
}

/// Two effects of the same genotypes, each of half the variance, are the one effect in two equal parts.
TEST(WheatData, IsSharedByTwoEffects) {
    if (!is_here(wheat)) GTEST_SKIP() << "the set " << wheat << " is not here";
    for (const char* options : {"", "!miraculix 2\n"}) {
        SCOPED_TRACE(options);
        const temporary_directory run;
        copy_files(external(wheat), run);
        std::string par = run.read("model.par"), cov;
        replace(par, "N_EFFECTS\n2\n", "N_EFFECTS\n3\n");
        replace(par, "geno.bed\n", "geno.bed\n2 3 599 1279 0 0 2.as_effect\n");
        replace(par, "snpcov.txt 1\n",
                "half.txt 1\nEFFECT_ID TYPE N_CORRELATED DIM\n3 23 0 1279\nhalf.txt 1\n");
        std::filesystem::remove(run / "model.par");
        run.write("model.par", par);
        std::istringstream in(run.read("snpcov.txt"));
        int i = 0, j = 0;
        for (double value = 0.0; in >> i >> j >> value;)
            cov +=
                std::to_string(i) + " " + std::to_string(j) + " " + std::to_string(value * 1e9 / 2) + "e-9\n";
        run.write("half.txt", cov);

        const auto result = run_in(run, "model.par", options, "1");

        ASSERT_EQ(result.status, 0) << result.out << result.error;
        EXPECT_THAT(result.out, HasSubstr("The effects 2 and 3 have the same covariable_type data"));
        const solutions expected = read_solutions(run / "expected_solutions.txt"),
                        actual = read_solutions(run / "solutions.dat");
        const double tolerance = six_digits * largest_of(expected, 2);
        for (int snp = 1; snp <= 1279; ++snp)
            for (const int e : {2, 3})
                EXPECT_NEAR(2.0 * actual.at({1, e, 0, snp}), expected.at({1, 2, 0, snp}), tolerance)
                    << e << ' ' << snp;
    }
}

// ---- aggregate solutions

/// Centred genotypes times SNP effects, by level of the animals, from the files themselves.
std::map<int, double> genomic_values(const temporary_directory& run, const solutions& from) {
    const std::string bed = run.read("geno.bed");
    std::istringstream frequencies(run.read("freq.txt")), fam(run.read("geno.fam"));
    std::vector<int> levels;
    std::string line;
    while (std::getline(fam, line)) {
        std::istringstream words(line);
        int family = 0, id = 0;
        words >> family >> id;
        levels.push_back(id);
    }
    const std::size_t bytes = (levels.size() + 3) / 4;
    std::map<int, double> sums;
    for (int snp = 1; snp <= 1000; ++snp) {
        double f = 0.0;
        frequencies >> f;
        for (std::size_t i = 0; i < levels.size(); ++i) {
            const auto byte =
                static_cast<unsigned char>(bed[3 + static_cast<std::size_t>(snp - 1) * bytes + i / 4]);
            const int code = byte >> 2 * (i % 4) & 3;
            const double genotype = code == 3 ? 2.0 : code == 2 ? 1.0 : 0.0;
            if (code != 1) sums[levels[i]] += (genotype - 2.0 * f) * from.at({1, 5, 0, snp});
        }
    }
    return sums;
}

/// Aggregates are the solutions, and at the animal effect the genomic values on top of them.
void expect_aggregates(const temporary_directory& run, const std::string& plain, const std::string& sums) {
    const solutions own = read_solutions(run / plain), aggregate = read_solutions(run / sums);
    ASSERT_EQ(own.size(), 2506U);
    ASSERT_EQ(aggregate.size(), own.size());
    const std::map<int, double> genomic = genomic_values(run, own);
    ASSERT_EQ(genomic.size(), 600U);
    double largest = 0.0;
    for (const auto& [level, value] : genomic) largest = std::max(largest, magnitude(value));
    ASSERT_GT(largest, 0.0);
    for (const auto& [key, value] : own) {
        const auto [trait, e, level, covariable] = key;
        const double more = e == 4 && genomic.contains(level) ? genomic.at(level) : 0.0;
        if (more == 0.0)
            EXPECT_EQ(aggregate.at(key), value) << e << ' ' << level;
        else
            EXPECT_NEAR(aggregate.at(key), value + more, six_digits * largest) << e << ' ' << level;
    }
}

TEST(AggregateSolutions, AreAnimalsAndTheirGenotypes) {
    if (!is_here(single_step)) GTEST_SKIP() << "the set " << single_step << " is not here";
    const temporary_directory run;
    const auto result = solve_set(run, single_step, "model22.par", "!altconv\n!peek 20 40\n");
    EXPECT_THAT(unwrapped(result.out),
                HasSubstr("Computation of covariates*solutions of SNP effect 5 + animal effect 4"));
    EXPECT_THAT(result.out, Not(HasSubstr("Iteration 10 Convergence of aggregate solutions")));
    EXPECT_THAT(result.out, HasSubstr("Iteration 20 Convergence of aggregate solutions = "));
    expect_aggregates(run, "solutions.dat", "aggregate_solutions.dat");
    for (int n = 1; n <= iterations(run); ++n) {
        const std::string number = std::to_string(n);
        const bool selected = n >= 20 && (n - 20) % 40 == 0;
        EXPECT_EQ(run.exists("solutions_" + number + ".dat"), selected) << n;
        EXPECT_EQ(run.exists("agg_sol" + number + ".dat"), selected) << n;
        if (selected) expect_aggregates(run, "solutions_" + number + ".dat", "agg_sol" + number + ".dat");
    }
    expect_single_step(run, true);
}

TEST(AggregateSolutions, OfASumOfTwoEffects) {
    if (!is_here(single_step)) GTEST_SKIP() << "the set " << single_step << " is not here";
    for (const char* options : {"!sumeffect 5 4\n", "!sumeffect 5 4\n!miraculix 5\n!solver dpcg_iod 50\n"}) {
        SCOPED_TRACE(options);
        const temporary_directory run;
        const auto result = solve_set(run, single_step, "model.par", options);
        EXPECT_THAT(result.out, HasSubstr("The effect 5 will be added to the effect 4."));
        EXPECT_THAT(unwrapped(result.out),
                    HasSubstr("Addition of covariates*solutions of effect 5 + effect 4"));
        expect_aggregates(run, "solutions.dat", "aggregate_solutions.dat");
    }
}

TEST(AggregateSolutions, HaveNoConvergenceWithoutAny) {
    if (!is_here(single_step)) GTEST_SKIP() << "the set " << single_step << " is not here";
    const temporary_directory run;
    const auto result = solve_set(run, single_step, "model.par", "!altconv\n!peek 30 1000\n");
    const std::string warning = "There are no aggregate solutions whose convergence could be computed!";
    const std::string text = unwrapped(result.out);
    const auto first = text.find(warning);
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(text.find(warning, first + 1), std::string::npos);
    EXPECT_TRUE(run.exists("solutions_30.dat"));
    EXPECT_FALSE(run.exists("agg_sol30.dat"));
    expect_single_step(run, false);
}

}  // namespace
}  // namespace zendar::test
