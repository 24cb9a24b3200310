#include <algorithm>

#include "captured_log.hpp"
#include "modparameters.hpp"
#include "modsimulate_test_support.hpp"
#include "modstructure.hpp"
#include "program_run.hpp"

namespace zendar::test {
namespace {

/// Copies of the second allele, animal by SNP, from the bytes of the .bed file; no genotype is missing.
std::vector<std::vector<int>> genotypes_of(const simulated& s, std::size_t nanimal, std::size_t nsnp) {
    const std::string bed = s.directory.read("snp.bed");
    const std::size_t nbytes = (nanimal + 3) / 4;
    EXPECT_EQ(bed.size(), 3 + nsnp * nbytes);
    EXPECT_EQ(bed.substr(0, 3), "\x6C\x1B\x01");
    std::vector<std::vector<int>> copies(nanimal, std::vector<int>(nsnp));
    for (std::size_t j = 0; j < nsnp; ++j)
        for (std::size_t i = 0; i < nanimal; ++i) {
            const int code = static_cast<unsigned char>(bed[3 + j * nbytes + i / 4]) >> 2 * (i % 4) & 3;
            EXPECT_NE(code, 1);
            copies[i][j] = code == 0 ? 0 : code - 1;
        }
    return copies;
}

TEST(SimulateGenotypes, AreReadByTheSolversReader) {
    const simulated s("--animals 203 --genotyped 103 --snps 150 --chromosomes 7");
    param_type param;
    param.ntrait = 1;
    param.neffect = 1;
    param.n_level = {203};
    param.n_cov = {150};
    param.type_effect = {3};
    param.cov_file = {(s.directory / "snp.bed").string()};
    captured_log log;
    covariable_type cov;
    readcovariable(cov, param, 1, log);

    ASSERT_TRUE(cov.is_plink());
    EXPECT_EQ(cov.nmissing, 0);
    EXPECT_EQ(cov.row_of(100), 0);  // the youngest 103 of 203 have genotypes
    EXPECT_EQ(cov.row_of(101), 1);
    EXPECT_EQ(cov.row_of(203), 103);
    const auto& bytes = cov.data->plink.ival;
    EXPECT_EQ(
        std::string(reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(bytes.size())),
        s.directory.read("snp.bed").substr(3));
    const auto copies = genotypes_of(s, 103, 150);
    for (std::size_t j = 0; j < 150; ++j) {
        double sum = 0.0;
        for (const auto& animal : copies) sum += animal[j];
        EXPECT_NEAR(cov.allelefreq[j], sum / 206.0, 1e-12);
    }
}

/// SNPs among founders: frequencies uniform from 0.05 to 0.95, genotypes in Hardy-Weinberg proportions, and
/// independent of each other.
TEST(SimulateGenotypes, OfFoundersAreInEquilibrium) {
    const simulated s("--animals 2000 --generations 1 --genotyped 2000 --snps 1000 --seed 21");
    const auto copies = genotypes_of(s, 2000, 1000);
    moments mean, square, heterozygous, neighbours;
    double least = 1.0, most = 0.0;
    std::vector<double> p(1000, 0.0);
    for (std::size_t j = 0; j < 1000; ++j) {
        double n1 = 0.0;
        for (const auto& animal : copies) {
            p[j] += animal[j] / 4000.0;
            n1 += animal[j] == 1 ? 1.0 : 0.0;
        }
        mean.add(p[j], 1.0);
        square.add(p[j] - 0.5, p[j] - 0.5);
        heterozygous.add(n1 / 2000.0 / (2.0 * p[j] * (1.0 - p[j])), 1.0);
        least = std::min(least, p[j]);
        most = std::max(most, p[j]);
    }
    mean.expect(0.5, "mean frequency");
    square.expect(0.81 / 12.0, "variance of frequencies");
    heterozygous.expect(1.0, "heterozygotes");
    EXPECT_GT(least, 0.03);
    EXPECT_LT(most, 0.97);
    for (std::size_t j = 0; j + 1 < 1000; ++j) {
        double sum = 0.0;
        for (const auto& animal : copies)
            sum += (animal[j] - 2.0 * p[j]) * (animal[j + 1] - 2.0 * p[j + 1]) / 2000.0;
        neighbours.add(sum / std::sqrt(4.0 * p[j] * (1.0 - p[j]) * p[j + 1] * (1.0 - p[j + 1])), 1.0);
    }
    neighbours.expect(0.0, "correlation of neighbours");
}

/// The second and the third generation have genotypes.
TEST(SimulateGenotypes, FollowThePedigree) {
    const simulated s("--animals 600 --generations 3 --unknown 0.1 --genotyped 400 --snps 300");
    const auto copies = genotypes_of(s, 400, 300);
    double transmitted = 0.0, from_heterozygotes = 0.0;
    for (const auto& row : s.rows("pedigree.txt")) {
        if (row[0] <= 400.0) continue;
        for (std::size_t j = 0; j < 300; ++j) {
            const auto of = [&](double code) { return copies[static_cast<std::size_t>(code) - 201][j]; };
            const int own = of(row[0]);
            for (const std::size_t side : {1U, 2U})
                if (row[side] > 0.0) {
                    EXPECT_LT(std::abs(own - of(row[side])), 2);
                }
            if (row[1] == 0.0 || row[2] == 0.0) continue;
            EXPECT_GE(own, of(row[1]) / 2 + of(row[2]) / 2);
            EXPECT_LE(own, (of(row[1]) + 1) / 2 + (of(row[2]) + 1) / 2);
            if (of(row[1]) != 1 || of(row[2]) == 1) continue;
            transmitted += own - of(row[2]) / 2;
            from_heterozygotes += 1.0;
        }
    }
    EXPECT_NEAR(transmitted / from_heterozygotes, 0.5, 0.05);
}

/// Sires hand SNPs on in stretches: of two SNPs that are d Morgans apart, a share (1 - exp(-2d)) / 2 comes
/// from different strands. In the progeny of one sire the strand shows where it is heterozygous and the dam
/// homozygous; which alleles of the sire lie together is what most of the progeny have.
TEST(SimulateGenotypes, RecombineByTheDistance) {
    constexpr std::size_t nsnp = 200;  // on one chromosome
    for (const std::size_t lag : {5U, 20U}) {
        moments recombination;
        for (int seed = 1; seed <= 40; ++seed) {
            const simulated s(
                "--animals 198 --generations 2 --genotyped 198 --snps 200 --chromosomes 1 --seed " +
                std::to_string(seed));
            const rows_type pedigree = s.rows("pedigree.txt");
            const auto copies = genotypes_of(s, 198, nsnp);
            const auto& sire = copies[static_cast<std::size_t>(pedigree[197][1]) - 1];
            double together = 0.0, all = 0.0;
            for (std::size_t j = 0; j + lag < nsnp; ++j) {
                const std::size_t k = j + lag;
                if (sire[j] != 1 || sire[k] != 1) continue;
                double same = 0.0, n = 0.0;
                for (std::size_t i = 99; i < 198; ++i) {
                    const auto& dam = copies[static_cast<std::size_t>(pedigree[i][2]) - 1];
                    if (pedigree[i][1] != pedigree[197][1] || dam[j] == 1 || dam[k] == 1) continue;
                    same += (copies[i][j] - dam[j] / 2 == copies[i][k] - dam[k] / 2) ? 1.0 : 0.0;
                    n += 1.0;
                }
                if (n < 20.0) continue;
                together += std::min(same, n - same);
                all += n;
            }
            if (all > 0.0) recombination.add(together / all, 1.0);
        }
        const double d = static_cast<double>(lag) / static_cast<double>(nsnp);
        recombination.expect(0.5 * (1.0 - std::exp(-2.0 * d)), "share of recombinants");
    }
}

/// With SNPs the genetic (co)variances of founders are the given ones, but for the chance of 3000 effects,
/// and progeny get half of each parent.
TEST(SimulateGenotypes, MakeTheGeneticValues) {
    const simulated s(
        "--animals 8000 --generations 2 --traits 2 --genetic 0.5,2 --rg 0.6 --genotyped 1 --snps 3000 "
        "--truth "
        "--seed 22");
    const rows_type value = s.rows("true_values.txt"), pedigree = s.rows("pedigree.txt");
    moments first, second, both, mendelian;
    for (std::size_t i = 0; i < 8000; ++i) {
        if (i < 4000) {
            first.add(value[i][1], value[i][1]);
            second.add(value[i][2], value[i][2]);
            both.add(value[i][1], value[i][2]);
            continue;
        }
        const double rest = value[i][1] - 0.5 * value[static_cast<std::size_t>(pedigree[i][1]) - 1][1] -
                            0.5 * value[static_cast<std::size_t>(pedigree[i][2]) - 1][1];
        mendelian.add(rest, rest);
    }
    EXPECT_NEAR(first.mean(), 0.5, 0.06);
    EXPECT_NEAR(second.mean(), 2.0, 0.24);
    EXPECT_NEAR(both.mean(), 0.6, 0.1);
    EXPECT_NEAR(mendelian.mean(), 0.25, 0.03);
}

/// Of one SNP the copies explain all but the polygenic 5 %.
TEST(SimulateGenotypes, CarryTheEffectsOfTheSnps) {
    const simulated s(
        "--animals 4000 --generations 1 --genotyped 4000 --snps 1 --chromosomes 1 --truth --seed 4");
    const auto copies = genotypes_of(s, 4000, 1);
    const rows_type value = s.rows("true_values.txt");
    double sum[3] = {}, n[3] = {};
    for (std::size_t i = 0; i < 4000; ++i) {
        const auto k = static_cast<std::size_t>(copies[i][0]);
        sum[k] += value[i][1];
        n[k] += 1.0;
    }
    moments within;
    for (std::size_t i = 0; i < 4000; ++i) {
        const auto k = static_cast<std::size_t>(copies[i][0]);
        within.add(value[i][1] - sum[k] / n[k], value[i][1] - sum[k] / n[k]);
    }
    within.expect(0.05 * 0.5, "what is left");
    const double effect = (sum[2] / n[2] - sum[0] / n[0]) / 2.0;
    EXPECT_GT(std::abs(effect), 0.1);
    EXPECT_NEAR(sum[1] / n[1], (sum[0] / n[0] + sum[2] / n[2]) / 2.0, 0.05);
    const double p = (n[1] + 2.0 * n[2]) / 8000.0;
    EXPECT_NEAR(sum[0] / n[0], -2.0 * p * effect, 0.1 * std::abs(effect));  // the mean of founders is 0
}

// ---- the solver takes the files
// ------------------------------------------------------------------------------------

TEST(SimulateModels, AreSolved) {
    struct model_run {
        const char *words, *par;
    };
    const model_run runs[] = {
        {"", "model.par"},
        {"--unknown 0.2 --groups generation", "model.par"},
        {"--traits 2 --missing 0,0.4 --repeated 3", "model.par"},
        {"--maternal 0.4 --traits 2 --unknown 0.1", "model.par"},
        {"--unknown 0.2 --groups generation --traits 2 --model randomgroups", "model_groups.par"},
        {"--unknown 0.2 --groups sex --traits 2 --model metafounders", "model_metafounders.par"},
        {"--genotyped 150 --snps 200 --traits 2 --model snpblup", "model_snpblup.par"},
        {"--genotyped 150 --snps 200 --traits 2 --model ssgblup22", "model22.par"},
        {"--genotyped 150 --snps 200 --traits 2 --unknown 0.1 --groups sex --model ssgblup30", "model30.par"},
    };
    for (const auto& [words, par] : runs) {
        const simulated s("--animals 400 --generations 4 " + std::string(words));

        const auto result = run_program(s.directory.path(), {par, "--ncpus", "1"});

        EXPECT_EQ(result.status, 0) << words << "\n" << result.out << result.error;
        EXPECT_TRUE(s.directory.exists("OK_ZENDAR")) << words;
    }
}

}  // namespace
}  // namespace zendar::test
