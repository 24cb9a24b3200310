#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "modplink_detail.hpp"

namespace zendar::detail {
namespace {

constexpr std::int64_t snps_of_group = 4;
constexpr std::int64_t individuals_of_word = 32;
constexpr std::int64_t words_of_part = 512;  ///< its b, 128 KB a column, stays in the second cache

/// The SNPs of a group, the last one repeated where the matrix ends.
std::array<const std::uint8_t*, snps_of_group> columns_of(const plink_genotypes& a, std::int64_t first,
                                                          std::int64_t byte) {
    std::array<const std::uint8_t*, snps_of_group> columns;
    for (std::int64_t s = 0; s < snps_of_group; ++s)
        columns[s] = a.column(std::min(first + s, std::int64_t{a.ncol} - 1)) + byte;
    return columns;
}

/// The individuals behind the last whole word, filled up with genotypes of 0.
struct last_words {
    std::array<std::array<std::uint8_t, 8>, snps_of_group> bytes{};
    std::array<const std::uint8_t*, snps_of_group> columns{};

    last_words(const plink_genotypes& a, std::int64_t first) {
        const std::int64_t whole = a.nrow / individuals_of_word, left = a.nrow % individuals_of_word;
        const auto from = columns_of(a, first, whole * 8);
        const std::uint64_t mask = (std::uint64_t{1} << (2 * left)) - 1;
        for (std::int64_t s = 0; s < snps_of_group; ++s) {
            std::uint64_t word = 0;
            std::memcpy(&word, from[s], static_cast<std::size_t>(a.nbytes - whole * 8));
            word &= mask;
            std::memcpy(bytes[s].data(), &word, sizeof word);
            columns[s] = bytes[s].data();
        }
    }
};

double sum_of(const double* b, std::int64_t n) {
    double sum = 0.0;
    for (std::int64_t i = 0; i < n; ++i) sum += b[i];
    return sum;
}

}  // namespace

void dgemm_comp_t_few(const plink_kernels& kernels, const plink_product& p) {
    const plink_genotypes& a = p.a;
    const std::int64_t whole = a.nrow / individuals_of_word, left = a.nrow % individuals_of_word;
    std::vector<double> total, tails(static_cast<std::size_t>(p.n * individuals_of_word), 0.0);
    for (std::int64_t j = 0; j < p.n; ++j) {
        total.push_back(sum_of(p.b + j * p.ldb, a.nrow));
        std::copy_n(p.b + j * p.ldb + whole * individuals_of_word, left,
                    tails.data() + j * individuals_of_word);
    }
    std::vector<snp_sums> sums(
        static_cast<std::size_t>((a.ncol + snps_of_group - 1) / snps_of_group * snps_of_group * p.n));

    // Each thread has the same groups in each part: it adds to sums of its own.
    const std::int64_t groups = (a.ncol + snps_of_group - 1) / snps_of_group;
#pragma omp parallel default(none) shared(kernels, p, a, whole, left, tails, sums, groups)
    for (std::int64_t k = 0; k <= whole; k += words_of_part) {
        const std::int64_t words = std::min(std::int64_t{words_of_part}, whole - k);
        const bool is_last = k + words_of_part > whole;
#pragma omp for schedule(static) nowait
        for (std::int64_t g = 0; g < groups; ++g) {
            const std::int64_t first = g * snps_of_group;
            const auto columns = columns_of(a, first, k * 8);
            snp_sums* const of_group = sums.data() + first * p.n;
            for (std::int64_t j = 0; j < p.n; ++j)
                kernels.dot(columns.data(), words, p.b + j * p.ldb + k * individuals_of_word,
                            of_group + j * snps_of_group);
            if (!is_last || left == 0) continue;
            const last_words last(a, first);
            for (std::int64_t j = 0; j < p.n; ++j)
                kernels.dot(last.columns.data(), 1, tails.data() + j * individuals_of_word,
                            of_group + j * snps_of_group);
        }
    }
    for (std::int64_t j = 0; j < p.n; ++j)
        for (std::int64_t i = 0; i < a.ncol; ++i) {
            const snp_sums& of = sums[(i / snps_of_group * p.n + j) * snps_of_group + i % snps_of_group];
            // The difference would leave rounding errors for a SNP without genotypes.
            const double present = of.nmissing == a.nrow ? 0.0 : total[j] - of.missing;
            const double sum = of.present - 2.0 * p.freq[i] * present;
            double& c = p.c[i + j * p.ldc];
            c = p.beta == 0.0 ? sum : sum + p.beta * c;
        }
}

}  // namespace zendar::detail
