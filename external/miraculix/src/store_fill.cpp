#include <algorithm>
#include <cstring>

#include "store.hpp"
#include "tables.hpp"

namespace miraculix {

namespace {

/// SNPs that are coded together: their bytes for one code row fill whole cache lines.
constexpr std::int64_t snps_per_tile = 128;
/// Five PLINK bytes hold the genotypes of four five-code bytes.
constexpr std::int64_t plink_bytes_per_group = 5;
constexpr std::int64_t codes_per_group = 4;
constexpr std::int64_t individuals_per_group = 20;
constexpr std::int64_t groups_per_tile = 12;
constexpr std::int64_t codes_per_tile = codes_per_group * groups_per_tile;

using code_tile = std::uint8_t[codes_per_tile][snps_per_tile];

/// The PLINK codes of individuals [20 group, 20 group + 20) of a SNP, those that do not exist as 0.
std::uint64_t plink_codes(const std::uint8_t* snp, std::int64_t nbyte, std::int64_t individuals,
                          std::int64_t group) {
    const std::int64_t first = plink_bytes_per_group * group;
    std::uint64_t word = 0;
    if (first + 8 <= nbyte) {
        std::memcpy(&word, snp + first, 8);
        return word;
    }
    std::memcpy(&word, snp + first, static_cast<std::size_t>(std::min(plink_bytes_per_group, nbyte - first)));
    const std::int64_t live = std::min(individuals_per_group, individuals - individuals_per_group * group);
    return word & ((std::uint64_t{1} << (bits_per_plink_code * live)) - 1);
}

/// Five-code bytes of `ngroup` groups of one SNP into its column of the tile.
void code_column(const std::uint8_t* snp, std::int64_t nbyte, std::int64_t individuals,
                 std::int64_t first_group, std::int64_t ngroup, std::uint8_t* column) {
    const std::uint8_t* const plink2five = PLINK2FIVE().data();
    constexpr std::uint64_t mask = five_plink_codes - 1;
    for (std::int64_t g = 0; g < ngroup; ++g) {
        const std::uint64_t word = plink_codes(snp, nbyte, individuals, first_group + g);
        column[0 * snps_per_tile] = plink2five[word & mask];
        column[1 * snps_per_tile] = plink2five[(word >> 10) & mask];
        column[2 * snps_per_tile] = plink2five[(word >> 20) & mask];
        column[3 * snps_per_tile] = plink2five[(word >> 30) & mask];
        column += codes_per_group * snps_per_tile;
    }
}

/// Codes SNPs [first_snp, first_snp + snps_per_tile) for all rows, a tile that stays in the cache at a time.
void code_snps(const std::uint8_t* plink, coded_matrix& matrix, std::int64_t first_snp) {
    const std::int64_t individuals = matrix.units(), nrow = matrix.nrow();
    const std::int64_t nbyte = (individuals + genotypes_per_plink_byte - 1) / genotypes_per_plink_byte;
    const std::int64_t ngroup = (nrow + codes_per_group - 1) / codes_per_group;
    const std::int64_t live = std::min(snps_per_tile, matrix.ncol() - first_snp);
    // The last tile also writes the padding of the rows, from columns of the tile that are 0.
    const auto width = static_cast<std::size_t>(std::min(snps_per_tile, matrix.lda() - first_snp));
    alignas(64) code_tile tile = {};
    for (std::int64_t group = 0; group < ngroup; group += groups_per_tile) {
        const std::int64_t groups = std::min(groups_per_tile, ngroup - group);
        // The SNPs are too many streams for the processor to see them coming.
        const std::int64_t next = std::min(plink_bytes_per_group * (group + 2 * groups_per_tile), nbyte - 1);
        for (std::int64_t s = 0; s < live; ++s) {
            const std::uint8_t* const snp = plink + (first_snp + s) * nbyte;
            __builtin_prefetch(snp + next);
            code_column(snp, nbyte, individuals, group, groups, &tile[0][s]);
        }
        const std::int64_t row = codes_per_group * group;
        const std::int64_t rows = std::min(codes_per_group * groups, nrow - row);
        for (std::int64_t r = 0; r < rows; ++r) std::memcpy(matrix.row(row + r) + first_snp, tile[r], width);
    }
}

/// Codes five SNPs, or those that are left, for all individuals: one row of the matrix.
void code_individuals(const std::uint8_t* plink, coded_matrix& matrix, std::int64_t row) {
    const std::int64_t individuals = matrix.ncol();
    const std::int64_t nbyte = (individuals + genotypes_per_plink_byte - 1) / genotypes_per_plink_byte;
    const std::int64_t first = genotypes_per_byte * row;
    const std::int64_t live = std::min<std::int64_t>(genotypes_per_byte, matrix.units() - first);
    const std::uint8_t* const snp = plink + first * nbyte;
    std::uint8_t* const to = matrix.row(row);
    const auto& digits = PLINK_DIGITS();
    std::int64_t i = 0;
    // Four bytes at a time, each of them a sum of up to 242, so that nothing is carried to its neighbour.
    if (live == genotypes_per_byte) {
        for (; i < nbyte - 1; ++i) {
            const std::uint32_t sum = digits[0][snp[i]] + digits[1][snp[nbyte + i]] +
                                      digits[2][snp[2 * nbyte + i]] + digits[3][snp[3 * nbyte + i]] +
                                      digits[4][snp[4 * nbyte + i]];
            std::memcpy(to + 4 * i, &sum, 4);
        }
    }
    for (; i < nbyte; ++i) {
        std::uint32_t sum = 0;
        for (std::int64_t k = 0; k < live; ++k) sum += digits[k][snp[k * nbyte + i]];
        const std::int64_t left = std::min<std::int64_t>(genotypes_per_plink_byte, individuals - 4 * i);
        std::memcpy(to + 4 * i, &sum, static_cast<std::size_t>(left));
    }
    std::memset(to + individuals, 0, static_cast<std::size_t>(matrix.lda() - individuals));
}

}  // namespace

void fill_five_codes(const std::uint8_t* plink, coded_matrix& matrix, std::int32_t cores) {
    const std::int64_t snps = matrix.ncol();
#pragma omp parallel for schedule(static) num_threads(cores) default(none) shared(plink, matrix, snps)
    for (std::int64_t first = 0; first < snps; first += snps_per_tile) code_snps(plink, matrix, first);
}

void fill_five_codes_transposed(const std::uint8_t* plink, coded_matrix& matrix, std::int32_t cores) {
    const std::int64_t nrow = matrix.nrow();
#pragma omp parallel for schedule(static) num_threads(cores) default(none) shared(plink, matrix, nrow)
    for (std::int64_t row = 0; row < nrow; ++row) code_individuals(plink, matrix, row);
}

}  // namespace miraculix
