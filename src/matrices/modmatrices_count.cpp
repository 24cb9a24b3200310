#include "modmatrices_count.hpp"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "modbasic.hpp"
#include "modstats.hpp"

namespace zendar::matrices::counting {
namespace {

constexpr std::int64_t columns = 4;  // individuals whose tables meet a panel at once: 8 sums in registers

using row_table = std::array<double, 16>;  // by nibble

/// value[a][b]: what the two SNPs of nibbles a and b add to the sum of products.
struct product_tables {
    alignas(16) std::uint8_t value[16][16];
};
constexpr product_tables tables = [] {
    product_tables t{};
    for (std::size_t a = 0; a < 16; ++a)
        for (std::size_t b = 0; b < 16; ++b)
            t.value[a][b] = static_cast<std::uint8_t>((a & 3) * (b & 3) + (a >> 2) * (b >> 2));
    return t;
}();

/// The genotypes of the four individuals of a byte, one a byte, the first in the lowest one; missing is 0.
constexpr std::array<std::uint32_t, 256> genotypes_of_byte = [] {
    constexpr std::array<std::uint32_t, 4> genotype{0, 0, 1, 2};
    std::array<std::uint32_t, 256> t{};
    for (std::size_t byte = 0; byte < 256; ++byte)
        for (std::size_t i = 0; i < 4; ++i) t[byte] |= genotype[byte >> (2 * i) & 3] << (8 * i);
    return t;
}();

/// Some SNPs of all individuals, two by two.
class packed_block {
  public:
    explicit packed_block(std::int64_t nanimal)
        : n_(nanimal),
          panels_((nanimal + lanes - 1) / lanes),
          by_panel_(static_cast<std::size_t>(panels_ * lanes * pair_block)),
          by_animal_(static_cast<std::size_t>(panels_ * lanes * pair_block)),
          row_sum_(static_cast<std::size_t>(panels_ * lanes)) {}

    /// Packs SNPs from `first` on.
    void pack(const covariable_type& genotypes, std::span<const std::int32_t> rows, std::int64_t first);

    [[nodiscard]] std::int64_t panels() const { return panels_; }
    [[nodiscard]] std::int64_t pairs() const { return pairs_; }
    /// 64 nibbles of a pair of SNPs.
    [[nodiscard]] const std::uint8_t* panel(std::int64_t p, std::int64_t pair) const {
        return by_panel_.data() + (p * pair_block + pair) * lanes;
    }
    /// All nibbles of an animal, times 16: places of tables.
    [[nodiscard]] const std::uint8_t* animal(std::int64_t i) const {
        return by_animal_.data() + i * pair_block;
    }
    [[nodiscard]] double mean(std::int64_t snp) const { return mean_[static_cast<std::size_t>(snp)]; }
    /// r_i - c / 2, so that two of them come off a sum.
    [[nodiscard]] const double* row_sums() const { return row_sum_.data(); }

  private:
    void pack_pair(std::int64_t pair, const plink_genotypes& plink, std::span<const std::int32_t> rows,
                   std::int64_t first, std::vector<std::uint8_t>& nibbles);
    void finish_panel(std::int64_t p);

    std::int64_t n_, panels_, pairs_ = 0;
    std::vector<std::uint8_t> by_panel_, by_animal_;
    std::vector<double> row_sum_;
    std::array<double, static_cast<std::size_t>(2 * pair_block)> mean_{};
};

void packed_block::pack_pair(std::int64_t pair, const plink_genotypes& plink,
                             std::span<const std::int32_t> rows, std::int64_t first,
                             std::vector<std::uint8_t>& nibbles) {
    nibbles.assign(static_cast<std::size_t>(4 * plink.nbytes), 0);
    for (std::int64_t s = 0; s < 2 && first + 2 * pair + s < plink.ncol; ++s) {
        const std::uint8_t* const bytes = plink.column(first + 2 * pair + s);
        for (std::int64_t b = 0; b < plink.nbytes; ++b) {
            std::uint32_t four;
            std::memcpy(&four, nibbles.data() + 4 * b, sizeof four);
            four |= genotypes_of_byte[bytes[b]] << (2 * s);
            std::memcpy(nibbles.data() + 4 * b, &four, sizeof four);
        }
    }
    for (std::int64_t p = 0; p < panels_; ++p) {
        const std::int64_t start = p * lanes, here = std::min(lanes, n_ - start);
        std::uint8_t* const to = by_panel_.data() + (p * pair_block + pair) * lanes;
        const std::int32_t* const row = rows.data() + start;
        for (std::int64_t i = 0; i < here; ++i) to[i] = nibbles[static_cast<std::size_t>(row[i])];
    }
}

void packed_block::finish_panel(std::int64_t p) {
    constexpr std::int64_t tile = 64;  // nibbles of an animal that are written together
    std::array<double, lanes> sum{};
    double squares = 0.0;
    for (std::int64_t done = 0; done < pairs_; done += tile) {
        const std::int64_t end = std::min(pairs_, done + tile);
        for (std::int64_t q = done; q < end; ++q) {
            const double m0 = mean(2 * q), m1 = mean(2 * q + 1);
            squares += m0 * m0 + m1 * m1;
            row_table add;
            for (std::size_t a = 0; a < 16; ++a)
                add[a] = static_cast<double>(a & 3) * m0 + static_cast<double>(a >> 2) * m1;
            const std::uint8_t* const from = panel(p, q);
            for (std::size_t i = 0; i < lanes; ++i) sum[i] += add[from[i]];
        }
        for (std::int64_t i = 0; i < lanes; ++i) {
            std::uint8_t* const to = by_animal_.data() + (p * lanes + i) * pair_block;
            for (std::int64_t q = done; q < end; ++q) to[q] = static_cast<std::uint8_t>(panel(p, q)[i] << 4);
        }
    }
    for (std::size_t i = 0; i < lanes; ++i)
        row_sum_[static_cast<std::size_t>(p * lanes) + i] = sum[i] - 0.5 * squares;
}

void packed_block::pack(const covariable_type& genotypes, std::span<const std::int32_t> rows,
                        std::int64_t first) {
    const plink_genotypes& plink = genotypes.data->plink;
    const std::int64_t nsnp = std::min(2 * pair_block, plink.ncol - first);
    pairs_ = (nsnp + 1) / 2;
    mean_.fill(0.0);
    for (std::int64_t s = 0; s < nsnp; ++s)
        mean_[static_cast<std::size_t>(s)] = 2.0 * genotypes.allelefreq[static_cast<std::size_t>(first + s)];
#pragma omp parallel default(none) shared(plink, rows, first)
    {
        std::vector<std::uint8_t> nibbles;
#pragma omp for schedule(static)
        for (std::int64_t q = 0; q < pairs_; ++q) pack_pair(q, plink, rows, first, nibbles);
#pragma omp for schedule(static)
        for (std::int64_t p = 0; p < panels_; ++p) finish_panel(p);
    }
}

/// Sums of products between the individuals of a panel and `columns` others, [column][individual].
using panel_sums = std::array<std::array<std::uint16_t, static_cast<std::size_t>(lanes)>, columns>;

#if defined(__x86_64__)
/// Adds the entries of one table for 64 individuals.
[[gnu::target("avx2"), gnu::always_inline]] inline void look_up(const std::uint8_t* table, __m256i first,
                                                                __m256i second, __m256i& left,
                                                                __m256i& right) {
    const __m256i own = _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(table)));
    asm("vpaddb %1, %0, %0" : "+x"(left) : "x"(_mm256_shuffle_epi8(own, first)));
    asm("vpaddb %1, %0, %0" : "+x"(right) : "x"(_mm256_shuffle_epi8(own, second)));
}

/// sum[c] = what at most `pairs_a_sum` pairs add. `animal[c]` and `panel` point to the first of them. The
/// sums have names because an array of them would be stored and loaded at every step.
[[gnu::target("avx2"), gnu::always_inline]] inline void count_pairs(const std::uint8_t* const* animal,
                                                                    const __m256i* panel, std::int64_t npair,
                                                                    __m256i (*sum)[2]) {
    static_assert(columns == 4);
    const std::uint8_t* const table = tables.value[0];
    const std::uint8_t *const a0 = animal[0], *const a1 = animal[1], *const a2 = animal[2],
                              *const a3 = animal[3];
    __m256i l0 = _mm256_setzero_si256(), l1 = l0, l2 = l0, l3 = l0, r0 = l0, r1 = l0, r2 = l0, r3 = l0;
    for (std::int64_t q = 0; q < npair; ++q) {
        __m256i first = _mm256_loadu_si256(panel + 2 * q), second = _mm256_loadu_si256(panel + 2 * q + 1);
        asm("" : "+x"(first), "+x"(second));  // in registers, not loaded again for each table
        look_up(table + a0[q], first, second, l0, r0);
        look_up(table + a1[q], first, second, l1, r1);
        look_up(table + a2[q], first, second, l2, r2);
        look_up(table + a3[q], first, second, l3, r3);
    }
    sum[0][0] = l0, sum[1][0] = l1, sum[2][0] = l2, sum[3][0] = l3;
    sum[0][1] = r0, sum[1][1] = r1, sum[2][1] = r2, sum[3][1] = r3;
}

[[gnu::target("avx2"), gnu::always_inline]] inline void count_panel(const packed_block& block, std::int64_t p,
                                                                    std::int64_t first, panel_sums& sums) {
    const std::uint8_t* animal[columns];
    for (std::int64_t c = 0; c < columns; ++c) animal[c] = block.animal(first + c);
    const __m256i low = _mm256_set1_epi16(0xff);
    __m256i wide[columns][4];  // even and odd individuals of the first half, then of the second
    for (auto& own : wide)
        for (__m256i& w : own) w = _mm256_setzero_si256();
    for (std::int64_t q = 0; q < block.pairs(); q += pairs_a_sum) {
        __m256i sum[columns][2];
        count_pairs(animal, reinterpret_cast<const __m256i*>(block.panel(p, q)),
                    std::min(pairs_a_sum, block.pairs() - q), sum);
        for (std::int64_t c = 0; c < columns; ++c) {
            animal[c] += pairs_a_sum;
            for (std::int64_t h = 0; h < 2; ++h) {
                wide[c][2 * h] = _mm256_add_epi16(wide[c][2 * h], _mm256_and_si256(sum[c][h], low));
                wide[c][2 * h + 1] = _mm256_add_epi16(wide[c][2 * h + 1], _mm256_srli_epi16(sum[c][h], 8));
            }
        }
    }
    for (std::int64_t c = 0; c < columns; ++c)
        for (std::int64_t h = 0; h < 2; ++h) {
            // Back in the order of the individuals: pairs of even and odd ones, then the halves of registers.
            const __m256i even = wide[c][2 * h], odd = wide[c][2 * h + 1];
            const __m256i a = _mm256_unpacklo_epi16(even, odd), b = _mm256_unpackhi_epi16(even, odd);
            auto* const to = reinterpret_cast<__m256i*>(sums[static_cast<std::size_t>(c)].data() + 32 * h);
            _mm256_storeu_si256(to, _mm256_permute2x128_si256(a, b, 0x20));
            _mm256_storeu_si256(to + 1, _mm256_permute2x128_si256(a, b, 0x31));
        }
}

/// g += factor U U', elements of a panel's rows in the lower triangle; U has a missing genotype as 0 alleles.
[[gnu::target("avx2")]] void add_panel(const packed_block& block, std::int64_t p, double factor,
                                       matrix_view<double> g) {
    const std::int64_t start = p * lanes, end = std::min(start + lanes, g.rows);
    const double* const r = block.row_sums();
    panel_sums sums;
    for (std::int64_t first = 0; first < end; first += columns) {
        for (std::int64_t k = first; k < std::min(first + columns, end); ++k)  // on their way meanwhile
            for (std::int64_t i = start; i < end; i += 8) __builtin_prefetch(&g(i, k), 1);
        count_panel(block, p, first, sums);
        for (std::int64_t c = 0; c < std::min(columns, end - first); ++c) {
            const std::int64_t k = first + c;
            const std::uint16_t* const own = sums[static_cast<std::size_t>(c)].data();
            double* const to = &g(0, k);
            const double rk = r[k];
            for (std::int64_t i = std::max(start, k); i < end; ++i)
                to[i] += factor * (static_cast<double>(own[i - start]) - (r[i] + rk));
        }
    }
}
#else
void add_panel(const packed_block&, std::int64_t, double, matrix_view<double>) {
    assert(false);
}
#endif

}  // namespace

bool is_supported() {
#if defined(__x86_64__)
    return __builtin_cpu_supports("avx2") != 0;
#else
    return false;
#endif
}

void add_products(const covariable_type& genotypes, std::span<const std::int32_t> rows,
                  std::span<const plink_counts> counts, double factor, matrix_view<double> g, logger& log) {
    const std::int64_t m = genotypes.data->plink.ncol, n = g.rows;
    assert(is_supported() && std::ssize(rows) == n && g.cols == n);
    {
        packed_block block(n);
        progress_line progress(log);
        for (std::int64_t first = 0; first < m; first += 2 * pair_block) {
            block.pack(genotypes, rows, first);
            // The last panels have the longest rows: they come first.
#pragma omp parallel for schedule(dynamic) default(none) shared(block, factor, g)
            for (std::int64_t p = 0; p < block.panels(); ++p)
                add_panel(block, block.panels() - 1 - p, factor, g);
            progress.progressloop(std::min(m, first + 2 * pair_block), m);
        }
    }
    add_missing(genotypes, rows, counts, factor, g);
}

}  // namespace zendar::matrices::counting
