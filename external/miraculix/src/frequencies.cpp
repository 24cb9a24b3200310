#include <algorithm>

#include "store.hpp"
#include "tables.hpp"

namespace miraculix {

namespace {

constexpr std::int64_t snps_per_block = 1024;

/// Frequencies of the SNPs [first, first + snps_per_block), or those that are left.
void block_frequencies(const compressed_store& store, std::int64_t first, long double* freq) {
    const coded_matrix& matrix = store.five;
    const auto& allelesum = ALLELESUM();
    const std::int64_t width = std::min(snps_per_block, matrix.ncol() - first);
    std::int64_t sum[snps_per_block] = {};
    for (std::int64_t row = 0; row < matrix.nrow(); ++row) {
        const std::uint8_t* const codes = matrix.row(row) + first;
        for (std::int64_t j = 0; j < width; ++j) sum[j] += allelesum[codes[j]];
    }
    const long double alleles = 2.0L * static_cast<long double>(store.individuals);
    for (std::int64_t j = 0; j < width; ++j) freq[first + j] = static_cast<long double>(sum[j]) / alleles;
}

}  // namespace

std::vector<long double> getFreq(const compressed_store& store, std::int32_t cores) {
    const std::int64_t snps = store.five.ncol();
    std::vector<long double> freq(static_cast<std::size_t>(snps));
    long double* const to = freq.data();
#pragma omp parallel for schedule(static) num_threads(cores) default(none) shared(store, snps, to)
    for (std::int64_t first = 0; first < snps; first += snps_per_block) block_frequencies(store, first, to);
    return freq;
}

}  // namespace miraculix
