#include <omp.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "modplink_decode.hpp"
#include "modplink_detail.hpp"

namespace zendar::detail {
namespace {

constexpr std::int64_t longest_word = 32;  ///< SNPs

/// The centred values of the four codes of each SNP, zero for SNPs that are not there.
std::vector<double> centred_codes(const plink_product& p, std::int64_t snps) {
    std::vector<double> factors(static_cast<std::size_t>(4 * snps), 0.0);
    for (std::int64_t j = 0; j < p.a.ncol; ++j)
        for (std::size_t code = 0; code < 4; ++code)
            factors[4 * j + code] = centred(pgeno_wp[code], 2.0 * p.freq[j]);
    return factors;
}

/// The words of the individuals from `first` on, `length` of them, for the SNPs from `snp` on.
void gather_words(const plink_kernels& kernels, const plink_genotypes& a, std::int64_t snp, std::int64_t snps,
                  std::int64_t first, std::int64_t length, std::uint64_t* words) {
    std::array<const std::uint8_t*, longest_word> rows{};
    std::array<std::array<std::uint8_t, chunk_bytes>, longest_word> tail;
    for (std::int64_t i = 0; i < length; i += chunk) {
        const std::int64_t byte = (first + i) / 4, left = a.nbytes - byte;
        for (std::int64_t k = 0; k < snps; ++k) {
            rows[k] = a.column(snp + k) + byte;
            if (i % (2 * chunk) == 0) __builtin_prefetch(rows[k] + snps * a.nbytes);  // of the next words
            if (left < chunk_bytes) {  // nothing is read behind the column
                tail[k].fill(0);
                std::memcpy(tail[k].data(), rows[k], static_cast<std::size_t>(left));
                rows[k] = tail[k].data();
            }
        }
        kernels.transpose(rows.data(), static_cast<std::int32_t>(snps), words + i);
    }
}

void store_block(const plink_product& p, std::span<const column_group> groups, const double* acc,
                 std::int64_t first, std::int64_t length, std::int64_t block) {
    for (const column_group& group : groups)
        for (std::int64_t v = 0; v < group.count; ++v) {
            double* const c = p.c + first + (group.first + v) * p.ldc;
            const double* const sums = acc + group.before * block + v;
            for (std::int64_t i = 0; i < length; ++i) {
                const double sum = sums[(i / chunk * chunk + place_in_chunk(i % chunk)) * group.width];
                c[i] = p.beta == 0.0 ? sum : sum + p.beta * c[i];
            }
        }
}

void comp_n(const plink_kernels& kernels, const plink_product& p, std::int64_t longest_block,
            std::int64_t panel_words) {
    const plink_genotypes& a = p.a;
    const column_groups columns(p.b, p.ldb, a.ncol, p.n, kernels.widest);
    const std::int64_t block = block_length(a.nrow, longest_block, chunk);
    const std::int64_t blocks = (a.nrow + block - 1) / block, word = columns.genotypes_of_word();
    const std::vector<double> factors = centred_codes(p, columns.words() * word);
    const std::int64_t work = block * (columns.width() + panel_words);  // sums, and words
    thread_parts all(work, std::min<std::int64_t>(blocks, omp_get_max_threads()));

#pragma omp parallel for schedule(static) default(none) \
    shared(kernels, p, a, columns, factors, block, blocks, word, panel_words, all)
    for (std::int64_t block_number = 0; block_number < blocks; ++block_number) {
        alignas(64) double tables[size_of_tables];

        double* const acc = all.part(omp_get_thread_num());
        auto* const x = reinterpret_cast<std::uint64_t*>(acc + block * columns.width());
        const std::int64_t first = block_number * block,
                           length = std::min<std::int64_t>(block, a.nrow - first);
        const std::int64_t padded = (length + chunk - 1) / chunk * chunk;

        std::fill_n(acc, block * columns.width(), 0.0);
        for (std::int64_t k0 = 0; k0 < columns.words(); k0 += panel_words) {
            const std::int64_t words = std::min(panel_words, columns.words() - k0);
            for (std::int64_t k = 0; k < words; ++k) {
                const std::int64_t snp = (k0 + k) * word;
                gather_words(kernels, a, snp, std::min(word, a.ncol - snp), first, padded, x + k * block);
            }
            for (const column_group& group : columns.groups()) {
                const plink_table_kernels& kernel = kernels_of(kernels, group);
                for (std::int64_t k = 0; k < words; ++k) {
                    const std::int64_t snp = (k0 + k) * word;
                    kernel.fill(columns.row(group, snp), factors.data() + 4 * snp, 4, tables);
                    kernel.add(x + k * block, padded, tables, acc + group.before * block);
                }
            }
        }
        store_block(p, columns.groups(), acc, first, length, block);
    }
}

}  // namespace

void dgemm_comp_n_881(const plink_kernels& kernels, const plink_product& p) {
    comp_n(kernels, p, 1024, 16);
}

void dgemm_comp_n_421(const plink_kernels& kernels, const plink_product& p) {
    comp_n(kernels, p, 4096, 4);
}

}  // namespace zendar::detail
