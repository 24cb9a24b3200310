#include <algorithm>
#include <bit>
#include <cstring>
#include <numeric>

#include "modmatrices_count.hpp"
#include "modplink_decode.hpp"

namespace zendar::matrices::counting {
namespace {

constexpr detail::byte_table<false> genotypes_of_byte;

/// Calls `visit` with each individual (from 0) whose genotype is missing.
template <class Visit>
[[gnu::always_inline]] inline void for_each_missing(const std::uint8_t* bytes, std::int64_t nrow,
                                                    const Visit& visit) {
    constexpr std::uint64_t low_bits = 0x5555555555555555;
    for (std::int64_t i = 0; i < nrow; i += 32) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + i / 4,
                    static_cast<std::size_t>(std::min<std::int64_t>(8, (nrow - i + 3) / 4)));
        for (std::uint64_t at = word & ~(word >> 1) & low_bits; at != 0; at &= at - 1)
            if (const std::int64_t individual = i + std::countr_zero(at) / 2; individual < nrow)
                visit(individual);
    }
}

/// A SNP that is missing for an individual, and its factors.
struct missing_snp {
    const std::uint8_t* bytes;
    double weight;   ///< of the genotypes of the others
    double missing;  ///< is added for those that miss it too
};

/// acc[i] += what two SNPs add for individual i; acc has 4 nbytes elements.
[[gnu::always_inline]] inline void add_snps_any(const missing_snp& a, const missing_snp& b,
                                                std::int64_t nbytes, double* acc) {
    using four [[gnu::vector_size(32), gnu::may_alias]] = double;
    for (std::int64_t k = 0; k < nbytes; ++k) {
        four sum;
        std::memcpy(&sum, acc + 4 * k, sizeof sum);
        sum += a.weight * *reinterpret_cast<const four*>(genotypes_of_byte.value[a.bytes[k]]) +
               b.weight * *reinterpret_cast<const four*>(genotypes_of_byte.value[b.bytes[k]]);
        std::memcpy(acc + 4 * k, &sum, sizeof sum);
    }
    for (const missing_snp& own : {a, b})
        for_each_missing(own.bytes, 4 * nbytes, [&](std::int64_t i) { acc[i] += own.missing; });
}

#if defined(__x86_64__)
[[gnu::target("avx2,bmi")]] void add_snps(const missing_snp& a, const missing_snp& b, std::int64_t nbytes,
                                          double* acc) {
    add_snps_any(a, b, nbytes, acc);
}
#else
void add_snps(const missing_snp& a, const missing_snp& b, std::int64_t nbytes, double* acc) {
    add_snps_any(a, b, nbytes, acc);
}
#endif

/// For each individual its SNPs without genotype, among the SNPs from `first` to before `last`.
struct missing_list {
    std::vector<std::int64_t> start;
    std::vector<std::int32_t> snp;

    missing_list(const plink_genotypes& plink, std::int64_t first, std::int64_t last)
        : start(static_cast<std::size_t>(plink.nrow) + 2, 0) {
        for (std::int64_t j = first; j < last; ++j)
            for_each_missing(plink.column(j), plink.nrow,
                             [this](std::int64_t i) { ++start[static_cast<std::size_t>(i) + 2]; });
        std::partial_sum(start.begin(), start.end(), start.begin());
        snp.resize(static_cast<std::size_t>(start.back()));
        for (std::int64_t j = first; j < last; ++j)
            for_each_missing(plink.column(j), plink.nrow, [this, j](std::int64_t i) {
                snp[static_cast<std::size_t>(start[static_cast<std::size_t>(i) + 1]++)] =
                    static_cast<std::int32_t>(j);
            });
    }
    [[nodiscard]] std::span<const std::int32_t> of(std::int32_t individual) const {
        const auto from = start[static_cast<std::size_t>(individual)],
                   to = start[static_cast<std::size_t>(individual) + 1];
        return std::span(snp).subspan(static_cast<std::size_t>(from), static_cast<std::size_t>(to - from));
    }
};

/// g += factor V D' in both triangles, twice on the diagonal.
void add_listed(const covariable_type& genotypes, std::span<const std::int32_t> rows,
                const missing_list& list, double factor, matrix_view<double> g) {
    const plink_genotypes& plink = genotypes.data->plink;
    const std::int64_t n = g.rows;
#pragma omp parallel default(none) shared(genotypes, plink, rows, list, factor, g, n)
    {
        std::vector<double> acc(
            static_cast<std::size_t>(4 * plink.nbytes));  // V D', in the order of the file
#pragma omp for schedule(dynamic, 16)
        for (std::int64_t k = 0; k < n; ++k) {
            const std::span<const std::int32_t> own = list.of(rows[static_cast<std::size_t>(k)]);
            if (own.empty()) continue;
            std::fill(acc.begin(), acc.end(), 0.0);
            double squares = 0.0;
            for (std::size_t at = 0; at < own.size(); at += 2) {
                missing_snp pair[2];
                for (std::size_t s = 0; s < 2; ++s) {
                    const bool is_there = at + s < own.size();
                    const std::int32_t snp = own[is_there ? at + s : at];
                    const double m =
                        is_there ? 2.0 * genotypes.allelefreq[static_cast<std::size_t>(snp)] : 0.0;
                    squares += m * m;
                    pair[s] = {plink.column(snp), m, 0.5 * m * m};
                }
                add_snps(pair[0], pair[1], plink.nbytes, acc.data());
            }
            double* const to = &g(0, k);
            for (std::int64_t i = 0; i < n; ++i)
                to[i] +=
                    factor * (acc[static_cast<std::size_t>(rows[static_cast<std::size_t>(i)])] - squares);
            to[k] += factor * (acc[static_cast<std::size_t>(rows[static_cast<std::size_t>(k)])] - squares);
        }
    }
}

/// The lower triangle += the transposed upper one, but for the diagonal.
void fold_upper(matrix_view<double> g) {
    constexpr std::int64_t tile = 64;
    const std::int64_t n = g.rows, tiles = (n + tile - 1) / tile;
#pragma omp parallel for schedule(dynamic) default(none) shared(g, n, tiles)
    for (std::int64_t t = 0; t < tiles; ++t)
        for (std::int64_t u = 0; u <= t; ++u)
            for (std::int64_t j = u * tile; j < std::min(n, (u + 1) * tile); ++j)
                for (std::int64_t i = std::max(j + 1, t * tile); i < std::min(n, (t + 1) * tile); ++i)
                    g(i, j) += g(j, i);
}

}  // namespace

void add_missing(const covariable_type& genotypes, std::span<const std::int32_t> rows,
                 std::span<const plink_counts> counts, double factor, matrix_view<double> g) {
    const auto has_missing = [](const plink_counts& own) { return own.missing > 0; };
    if (std::ranges::none_of(counts, has_missing)) return;
    for (std::int64_t j = 0; j < g.cols; ++j) std::fill_n(&g(0, j), j, 0.0);
    const std::int64_t m = std::ssize(counts);
    for (std::int64_t first = 0, last = 0; first < m; first = last) {
        for (std::int64_t listed = 0; last < m && (last == first || listed < most_listed); ++last)
            listed += counts[static_cast<std::size_t>(last)].missing;
        add_listed(genotypes, rows, missing_list(genotypes.data->plink, first, last), factor, g);
    }
    fold_upper(g);
}

}  // namespace zendar::matrices::counting
