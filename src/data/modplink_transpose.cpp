#include <algorithm>
#include <array>
#include <cstring>

#include "modplink_detail.hpp"

namespace zendar {
namespace detail {

namespace {

constexpr std::int64_t snps_of_word = 32;
constexpr std::int64_t words_of_strip = 8;  ///< 64 bytes of each individual are written at once

/// 128 individuals from byte `byte` of the columns on, for the SNPs of a strip; word k of an individual
/// stands behind its word k - 1.
void transpose_strip(const plink_kernels& kernels, const plink_genotypes& a, std::int64_t byte,
                     std::int64_t snp, std::int64_t words, std::uint64_t* strip) {
    std::array<const std::uint8_t*, snps_of_word> rows{};
    std::array<std::array<std::uint8_t, chunk_bytes>, snps_of_word> tail;
    std::array<std::uint64_t, chunk> word;
    const std::int64_t left = a.nbytes - byte;
    for (std::int64_t k = 0; k < words; ++k, snp += snps_of_word) {
        const std::int64_t here = std::min<std::int64_t>(snps_of_word, a.ncol - snp);
        for (std::int64_t j = 0; j < here; ++j) {
            rows[j] = a.column(snp + j) + byte;
            if (left < chunk_bytes) {  // nothing is read behind the column
                tail[j].fill(0);
                std::memcpy(tail[j].data(), rows[j], static_cast<std::size_t>(left));
                rows[j] = tail[j].data();
            }
        }
        kernels.transpose(rows.data(), static_cast<std::int32_t>(here), word.data());
        for (std::int64_t i = 0; i < chunk; ++i) strip[i * words_of_strip + k] = word[place_in_chunk(i)];
    }
}

}  // namespace

plink_genotypes transpose_with(const plink_kernels& kernels, const plink_genotypes& a) {
    plink_genotypes at(a.ncol, a.nrow);
    const std::int64_t chunks = (a.nrow + chunk - 1) / chunk;
    const std::int64_t words = (a.ncol + snps_of_word - 1) / snps_of_word;
#pragma omp parallel for schedule(static) default(none) shared(kernels, a, at, chunks, words)
    for (std::int64_t c = 0; c < chunks; ++c) {
        std::array<std::uint64_t, chunk * words_of_strip> strip;
        for (std::int64_t k = 0; k < words; k += words_of_strip) {
            const std::int64_t here = std::min(std::int64_t{words_of_strip}, words - k);
            transpose_strip(kernels, a, c * chunk_bytes, k * snps_of_word, here, strip.data());
            const std::int64_t offset = k * 8, bytes = std::min(here * 8, at.nbytes - offset);
            const std::int64_t individuals = std::min(std::int64_t{chunk}, a.nrow - c * chunk);
            for (std::int64_t i = 0; i < individuals; ++i)
                std::memcpy(at.column(c * chunk + i) + offset, strip.data() + i * words_of_strip,
                            static_cast<std::size_t>(bytes));
        }
    }
    return at;
}

std::vector<plink_counts> count_with(const plink_kernels& kernels, const plink_genotypes& a) {
    std::vector<plink_counts> counts(static_cast<std::size_t>(a.ncol));
#pragma omp parallel for schedule(static) default(none) shared(kernels, a, counts)
    for (std::int64_t snp = 0; snp < a.ncol; ++snp) counts[snp] = kernels.count(a.column(snp), a.nrow);
    return counts;
}

}  // namespace detail

plink_genotypes transpose_integermatrix(const plink_genotypes& a) {
    return detail::transpose_with(detail::best_plink_kernels(), a);
}

std::vector<plink_counts> count_genotypes(const plink_genotypes& a) {
    return detail::count_with(detail::best_plink_kernels(), a);
}

}  // namespace zendar
