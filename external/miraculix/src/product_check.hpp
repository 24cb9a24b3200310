#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "genotype_sample.hpp"
#include "product.hpp"

/// Products of the store beside the dense product in extended precision.
namespace miraculix::test {

/// The centred product as it is defined, with the sum of the absolute terms as the measure of its error.
struct dense_product {
    std::vector<long double> c, scale;

    dense_product(const genotype_sample& g, const std::vector<double>& freq, bool transposed, std::int64_t n,
                  const std::vector<double>& b, std::int64_t ldb) {
        const std::int64_t rows = transposed ? g.snps : g.individuals;
        const std::int64_t terms = transposed ? g.individuals : g.snps;
        for (std::int64_t k = 0; k < n; ++k)
            for (std::int64_t i = 0; i < rows; ++i) {
                long double sum = 0, size = 1e-300L;
                for (std::int64_t t = 0; t < terms; ++t) {
                    const std::int64_t snp = transposed ? i : t, individual = transposed ? t : i;
                    const long double twof = 2.0L * freq[snp], value = b[t + k * ldb];
                    sum += (g.value(snp, individual) - twof) * value;
                    size += (g.value(snp, individual) + twof) * std::abs(value);
                }
                c.push_back(sum);
                scale.push_back(size);
            }
    }
};

inline double tolerance_of(const std::string& name) {
    return name.ends_with("floatD") ? 1e-6 : name.ends_with("longD") ? 2.3e-16 : 1e-14;
}

/// A product of either direction with random b against the dense one, with `beyond` rows between the columns
/// of b and c, which must be left alone.
inline void expect_product(const genotype_sample& g, const std::string& name,
                           const any_genovector5_member& member, std::int64_t n, std::int64_t beyond,
                           std::int32_t cores) {
    const std::vector<double> freq = [&] {
        std::vector<double> f = random_values(g.snps, 11);
        for (double& value : f) value = std::abs(value);
        return f;
    }();
    const std::vector<std::uint8_t> plink = g.plink(0xb7);
    const auto store = plinkToSxI(plink.data(), static_cast<std::int32_t>(g.snps),
                                  static_cast<std::int32_t>(g.individuals), freq.data(), cores);
    for (const bool transposed : {false, true}) {
        const std::int64_t rows = transposed ? g.snps : g.individuals, ldc = rows + beyond;
        const std::int64_t terms = transposed ? g.individuals : g.snps, ldb = terms + beyond;
        // What lies between the columns of b must not be read: it would make all sums NaN.
        std::vector<double> b(static_cast<std::size_t>(ldb * n), NAN),
            c(static_cast<std::size_t>(ldc * n), 77.0);
        for (std::int64_t k = 0; k < n; ++k)
            std::ranges::copy(random_values(terms, 100 + static_cast<std::uint64_t>(k)), b.begin() + k * ldb);
        const dense_product expected(g, freq, transposed, n, b, ldb);

        (transposed ? genoVector5api : vectorGeno_means_double)(member, *store, n, b.data(), ldb, c.data(),
                                                                ldc, true, cores);

        for (std::int64_t k = 0; k < n; ++k)
            for (std::int64_t i = 0; i < ldc; ++i) {
                const double found = c[static_cast<std::size_t>(i + k * ldc)];
                if (i >= rows) {
                    ASSERT_EQ(found, 77.0) << name << ": row " << i << " behind a column was written";
                } else {
                    const auto e = static_cast<std::size_t>(i + k * rows);
                    ASSERT_NEAR(found, static_cast<double>(expected.c[e]),
                                tolerance_of(name) * static_cast<double>(expected.scale[e]))
                        << name << (transposed ? " t(G) b" : " G b") << ", " << g.snps << " SNPs, "
                        << g.individuals << " individuals, " << n << " columns, " << cores << " threads, row "
                        << i << ", column " << k;
                }
            }
    }
}

}  // namespace miraculix::test
