#include "modmatrices_genomic.hpp"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include "captured_log.hpp"
#include "modmatrices_count.hpp"

namespace zendar::test {
namespace {

using matrices::counting::lanes;
using matrices::counting::pair_block;
using matrices::counting::pairs_a_sum;

struct drawn_genotypes {
    covariable_type genotypes;
    std::vector<std::int32_t> rows;  ///< asked for, in no order
};

/// Packed genotypes of a few more individuals than the n asked for.
/// @param homozygous  all of them for the second allele
drawn_genotypes draw(std::int32_t n, std::int32_t nsnp, double missing, std::uint64_t seed,
                     bool homozygous = false) {
    std::mt19937_64 random(seed);
    drawn_genotypes drawn;
    const std::int32_t nrow = n + static_cast<std::int32_t>(seed % 7);
    const auto data = std::make_shared<covariable_data>();
    drawn.genotypes.data = data;
    plink_genotypes& plink = data->plink;
    plink = plink_genotypes(nrow, nsnp);
    std::uniform_real_distribution<double> uniform;
    for (std::int32_t s = 0; s < nsnp; ++s) {
        const double p = homozygous ? 1.0 : uniform(random);
        drawn.genotypes.allelefreq.push_back(p);
        for (std::int32_t i = 0; i < nrow; ++i) {
            const int alleles = (uniform(random) < p ? 1 : 0) + (uniform(random) < p ? 1 : 0);
            const int code = uniform(random) < missing ? 1 : alleles == 0 ? 0 : alleles + 1;
            plink.column(s)[i / 4] =
                static_cast<std::uint8_t>(plink.column(s)[i / 4] | code << (2 * (i % 4)));
        }
    }
    drawn.rows.resize(static_cast<std::size_t>(nrow));
    std::iota(drawn.rows.begin(), drawn.rows.end(), 0);
    std::ranges::shuffle(drawn.rows, random);
    drawn.rows.resize(static_cast<std::size_t>(n));
    return drawn;
}

/// The largest difference to the definition, in units of the largest sum of absolute products.
double largest_error(const drawn_genotypes& drawn, double factor, const matrix<double>& before,
                     const matrix<double>& after) {
    const plink_genotypes& plink = drawn.genotypes.data->plink;
    const auto n = std::ssize(drawn.rows);
    matrix<double> w(plink.ncol, n);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int32_t s = 0; s < plink.ncol; ++s) {
            const int code = plink.code(drawn.rows[static_cast<std::size_t>(i)], s);
            const double mean = 2.0 * drawn.genotypes.allelefreq[static_cast<std::size_t>(s)];
            w(s, i) = code == 1 ? 0.0 : (code == 0 ? 0.0 : code - 1.0) - mean;
        }
    double error = 0.0, largest = 1e-300;
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t i = j; i < n; ++i) {
            long double sum = before(i, j), size = std::abs(before(i, j));
            for (std::int32_t s = 0; s < plink.ncol; ++s) {
                sum += static_cast<long double>(factor * w(s, i)) * w(s, j);
                size += std::abs(factor * w(s, i) * w(s, j));
            }
            error = std::max(error, static_cast<double>(std::abs(sum - after(i, j))));
            largest = std::max(largest, static_cast<double>(size));
        }
    return error / largest;
}

matrix<double> start_values(std::int64_t n) {
    matrix<double> g(n, n);
    for (std::int64_t k = 0; k < n * n; ++k)
        g.values()[static_cast<std::size_t>(k)] = std::sin(0.7 * double(k));
    return g;
}

TEST(GenomicProducts, AreTheDefinitionForAnySizeAndShareOfMissingGenotypes) {
    captured_log log;
    std::uint64_t seed = 0;
    for (const std::int64_t n : {std::int64_t{1}, std::int64_t{2}, std::int64_t{5}, std::int64_t{6},
                                 std::int64_t{7}, lanes - 1, lanes, lanes + 1, 2 * lanes + 13})
        for (const std::int64_t nsnp :
             {std::int64_t{1}, std::int64_t{2}, std::int64_t{3}, 2 * pairs_a_sum - 1, 2 * pairs_a_sum,
              2 * pairs_a_sum + 1, 2 * pair_block - 1, 2 * pair_block + 1, 4 * pair_block + 5})
            for (const double missing : {0.0, 0.005, 0.3}) {
                if (n > 7 && n != 2 * lanes + 13 && nsnp > 2 * pair_block) continue;  // enough of those
                const drawn_genotypes drawn =
                    draw(static_cast<std::int32_t>(n), static_cast<std::int32_t>(nsnp), missing, ++seed);
                const matrix<double> before = start_values(n);
                matrix<double> after = before;
                matrices::add_genomic_products(drawn.genotypes, drawn.rows, 0.37, after.view(), log);
                EXPECT_LT(largest_error(drawn, 0.37, before, after), 1e-12)
                    << n << " animals, " << nsnp << " SNPs, " << missing;
            }
}

TEST(GenomicProducts, CountingTakesAnyShareOfMissingGenotypes) {
    if (!matrices::counting::is_supported()) GTEST_SKIP() << "this processor has no shuffle of 32 bytes";
    captured_log log;
    for (const double missing : {0.0, 0.05, 0.5, 1.0}) {
        const drawn_genotypes drawn = draw(70, 131, missing, 5);
        const matrix<double> before = start_values(70);
        matrix<double> after = before;
        matrices::counting::add_products(drawn.genotypes, drawn.rows,
                                         count_genotypes(drawn.genotypes.data->plink), 2.0, after.view(),
                                         log);
        EXPECT_LT(largest_error(drawn, 2.0, before, after), 1e-12) << missing;
    }
}

TEST(GenomicProducts, CountingGivesTheSameBitsForAnyNumberOfThreads) {
    if (!matrices::counting::is_supported()) GTEST_SKIP() << "this processor has no shuffle of 32 bytes";
    captured_log log;
    const drawn_genotypes drawn = draw(3 * lanes + 5, 2 * pair_block + 77, 0.01, 8);
    matrix<double> first;
    const int before = omp_get_max_threads();
    for (const int threads : {1, 2, 3, 7}) {
        omp_set_num_threads(threads);
        matrix<double> g(std::ssize(drawn.rows), std::ssize(drawn.rows));
        matrices::counting::add_products(drawn.genotypes, drawn.rows,
                                         count_genotypes(drawn.genotypes.data->plink), 1.0, g.view(), log);
        if (threads == 1)
            first = g;
        else
            EXPECT_TRUE(std::ranges::equal(g.values(), first.values())) << threads;
    }
    omp_set_num_threads(before);
}

/// All homozygous for the second allele: the entries of the tables and their sums at their largest.
TEST(GenomicProducts, TheLargestCountsDoNotOverflow) {
    captured_log log;
    drawn_genotypes drawn = draw(9, static_cast<std::int32_t>(4 * pair_block), 0.0, 7, true);
    std::ranges::fill(drawn.genotypes.allelefreq, 0.0);
    matrix<double> g(9, 9);
    matrices::add_genomic_products(drawn.genotypes, drawn.rows, 1.0, g.view(), log);
    for (std::int64_t j = 0; j < 9; ++j)
        for (std::int64_t i = j; i < 9; ++i) EXPECT_EQ(g(i, j), 16.0 * double(pair_block));
}

}  // namespace
}  // namespace zendar::test
