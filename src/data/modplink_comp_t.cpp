#include <omp.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <vector>

#include "modplink_detail.hpp"

namespace zendar::detail {
namespace {

constexpr double genotype_factor[4] = {0.0, 0.0, 1.0, 2.0};
constexpr double missing_factor[4] = {0.0, 1.0, 0.0, 0.0};

struct missing_place {
    std::int32_t output;      ///< of the block
    std::int32_t individual;  ///< from 0
};

/// Words of a block of SNPs for a run of individuals; word k of SNP i is words[k * ld + i].
struct panel {
    std::uint64_t* words;
    std::int64_t ld;
    std::vector<missing_place> missing;
    std::int64_t kept = 0;               ///< of `missing`
    std::vector<std::int32_t> nmissing;  ///< of each SNP of the block, in all of its panels so far
    bool many_missing = false;           ///< more than `missing` is for: their sums are made by tables
};

std::uint64_t load_word(const std::uint8_t* bytes, std::int64_t left) {
    std::uint64_t word = 0;
    if (left >= 8)
        std::memcpy(&word, bytes, 8);
    else
        std::memcpy(&word, bytes, static_cast<std::size_t>(left));
    return word;
}

/// Counts the missing genotypes of a word, and keeps their places.
void note_missing(panel& x, std::uint64_t missing, std::int64_t output, std::int64_t individual) {
    if (std::ssize(x.missing) - x.kept < 32) {
        x.many_missing = true;
        x.nmissing[output] += std::popcount(missing);
        return;
    }
    missing_place* place = x.missing.data() + x.kept;
    for (; missing != 0; missing &= missing - 1)
        *place++ = {static_cast<std::int32_t>(output),
                    static_cast<std::int32_t>(individual + std::countr_zero(missing) / 2)};
    const std::int64_t kept = place - x.missing.data();
    x.nmissing[output] += static_cast<std::int32_t>(kept - x.kept);
    x.kept = kept;
}

/// Loads the words `k0` .. of a SNP, which is output `i` of the block. What follows a word, or the SNP, meets
/// fields without table, or zeros of b.
template <std::int64_t Genotypes>
void load_words(const plink_genotypes& a, std::int64_t snp, std::int64_t i, std::int64_t k0,
                std::int64_t words, panel& x) {
    constexpr std::uint64_t odd = 0x5555555555555555 >> (64 - 2 * Genotypes);
    const std::int64_t start = snp * a.nbytes + k0 * (Genotypes / 4);
    const std::uint8_t* const bytes = a.ival.data() + start;
    const std::int64_t left = a.nbytes * a.ncol - start;
    std::int64_t k = 0;
    std::uint64_t* to = x.words + i;
    const std::int64_t ld = x.ld;
    const auto keep = [&](std::uint64_t word, std::uint64_t there) {
        *to = word;
        to += ld;
        const std::uint64_t missing = word & ~(word >> 1) & there;
        if (missing != 0) [[unlikely]]
            note_missing(x, missing, i, (k0 + k) * Genotypes);
    };
    const std::int64_t readable = left < 8 ? 0 : (left - 8) / (Genotypes / 4) + 1;
    const std::int64_t whole = std::min({words, a.nrow / Genotypes - k0, readable});
    for (; k < whole; ++k) {
        std::uint64_t word;
        std::memcpy(&word, bytes + k * (Genotypes / 4), 8);
        keep(word, odd);
    }
    for (; k < words; ++k) {
        const std::int64_t here = std::min(std::int64_t{Genotypes}, a.nrow - (k0 + k) * Genotypes);
        const std::int64_t byte = k * (Genotypes / 4);
        keep(load_word(bytes + byte, left - byte), odd >> (2 * (Genotypes - here)));
    }
}

/// Loads the words `k0` .. of the SNPs from `first` on.
template <std::int64_t Genotypes>
void load_panel(const plink_genotypes& a, std::int64_t first, std::int64_t length, std::int64_t k0,
                std::int64_t words, panel& x) {
    constexpr std::int64_t ahead = 16, line = 64;
    x.kept = 0;
    x.many_missing = false;
    for (std::int64_t i = 0; i < length; ++i) {
        const std::uint8_t* const later = a.column(first + i + ahead) + k0 * (Genotypes / 4);
        for (std::int64_t byte = 0; byte < words * (Genotypes / 4); byte += line)
            __builtin_prefetch(later + byte);
        load_words<Genotypes>(a, first + i, i, k0, words, x);
    }
}

/// missing_sums(i) += the rows of b of the individuals whose genotype of SNP i is missing.
template <std::int64_t Width>
void add_missing(const panel& x, const double* b, double* sums) {
    for (std::int64_t k = 0; k < x.kept; ++k) {
        const missing_place place = x.missing[k];
        for (std::int64_t v = 0; v < Width; ++v)
            sums[place.output * Width + v] += b[place.individual * Width + v];
    }
}

void add_missing(const panel& x, const column_groups& columns, const column_group& group, double* sums) {
    const double* const b = columns.row(group, 0);
    if (group.width == 1)
        add_missing<1>(x, b, sums);
    else if (group.width == 2)
        add_missing<2>(x, b, sums);
    else if (group.width == 4)
        add_missing<4>(x, b, sums);
    else if (group.width == 8)
        add_missing<8>(x, b, sums);
    else
        add_missing<10>(x, b, sums);
}

/// What one thread works with.
struct work_space {
    double* acc;           ///< sums of genotypes times b
    double* missing_sums;  ///< sums of b over missing genotypes
    panel x;
};

void add_panel(const plink_kernels& kernels, const column_groups& columns, std::int64_t k0,
               std::int64_t words, std::int64_t length, std::int64_t block, work_space& work) {
    alignas(64) double tables[size_of_tables];
    for (const column_group& group : columns.groups()) {
        const plink_table_kernels& kernel = kernels_of(kernels, group);
        for (std::int64_t k = 0; k < words; ++k) {
            const double* const b = columns.row(group, (k0 + k) * columns.genotypes_of_word());
            const std::uint64_t* const x = work.x.words + k * work.x.ld;
            kernel.fill(b, genotype_factor, 0, tables);
            kernel.add(x, length, tables, work.acc + group.before * block);
            if (work.x.many_missing) {
                kernel.fill(b, missing_factor, 0, tables);
                kernel.add(x, length, tables, work.missing_sums + group.before * block);
            }
        }
        if (!work.x.many_missing)
            add_missing(work.x, columns, group, work.missing_sums + group.before * block);
    }
}

void store_block(const plink_product& p, std::span<const column_group> groups, std::span<const double> total,
                 const work_space& work, std::int64_t first, std::int64_t length, std::int64_t block) {
    for (const column_group& group : groups)
        for (std::int64_t v = 0; v < group.count; ++v) {
            double* const c = p.c + first + (group.first + v) * p.ldc;
            const std::int64_t offset = group.before * block + v;
            for (std::int64_t i = 0; i < length; ++i) {
                const std::int64_t at = offset + i * group.width;
                // The difference would leave rounding errors for a SNP without genotypes.
                const bool is_empty = work.x.nmissing[i] == p.a.nrow;
                const double present = is_empty ? 0.0 : total[group.first + v] - work.missing_sums[at];
                const double sum = work.acc[at] - 2.0 * p.freq[first + i] * present;
                c[i] = p.beta == 0.0 ? sum : sum + p.beta * c[i];
            }
        }
}

std::vector<double> column_sums(const plink_product& p) {
    std::vector<double> total(static_cast<std::size_t>(p.n), 0.0);
    for (std::int64_t j = 0; j < p.n; ++j)
        for (std::int64_t i = 0; i < p.a.nrow; ++i) total[j] += p.b[i + j * p.ldb];
    return total;
}

}  // namespace

void dgemm_comp_t(const plink_kernels& kernels, const plink_product& p) {
    if (p.n <= kernels.columns_of_few) return dgemm_comp_t_few(kernels, p);
    const plink_genotypes& a = p.a;
    const column_groups columns(p.b, p.ldb, a.nrow, p.n, kernels.widest);
    const std::vector<double> total = column_sums(p);
    const std::int64_t longest_block = p.n < 16 ? 2048 : 1024, panel_words = 32768 / longest_block;
    const std::int64_t block = block_length(a.ncol, longest_block, 8);
    const std::int64_t blocks = (a.ncol + block - 1) / block, ld = block + 8;
    const std::int64_t sums = block * columns.width(), size = 2 * sums + ld * panel_words;
    const std::int64_t threads = std::min<std::int64_t>(blocks, omp_get_max_threads());
    thread_parts all(size, threads);
    std::vector<work_space> work(static_cast<std::size_t>(threads));
    for (std::int64_t t = 0; t < threads; ++t) {
        double* const own = all.part(t);
        work[t] = {own, own + sums, {reinterpret_cast<std::uint64_t*>(own + 2 * sums), ld, {}, 0, {}}};
        work[t].x.nmissing.resize(static_cast<std::size_t>(block));
        work[t].x.missing.resize(static_cast<std::size_t>(block * panel_words / 2));
    }

#pragma omp parallel for schedule(static) default(none) \
    shared(kernels, p, a, columns, total, block, blocks, panel_words, work)
    for (std::int64_t block_number = 0; block_number < blocks; ++block_number) {
        work_space& own = work[omp_get_thread_num()];
        const std::int64_t first = block_number * block,
                           length = std::min<std::int64_t>(block, a.ncol - first);
        std::fill_n(own.acc, 2 * block * columns.width(), 0.0);
        std::fill(own.x.nmissing.begin(), own.x.nmissing.end(), 0);
        for (std::int64_t k = 0; k < columns.words(); k += panel_words) {
            const std::int64_t words = std::min(panel_words, columns.words() - k);
            if (columns.genotypes_of_word() == 32)
                load_panel<32>(a, first, length, k, words, own.x);
            else
                load_panel<24>(a, first, length, k, words, own.x);
            add_panel(kernels, columns, k, words, length, block, own);
        }
        store_block(p, columns.groups(), total, own, first, length, block);
    }
}

}  // namespace zendar::detail
