#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "modlogger.hpp"
#include "modstructure.hpp"
#include "modview.hpp"

/// Products of genotypes by counting; what its source, `add_genomic_products` and tests share.
///
/// With genotypes 0, 1 and 2 the sum over SNPs of g_i g_k is a whole number. Two SNPs of an individual make a
/// nibble, and what they add to the sum with one other individual, 8 at most, is an entry of the other's
/// table of 16 bytes: a byte shuffle looks up 32 individuals at a time, and 31 such bytes can be added before
/// they overflow. A shuffle and an addition of bytes serve 64 products of genotypes; a core that shuffles
/// twice a cycle does 128 of them, where the same core does 8 by fused multiplication and addition of
/// doubles.
///
/// Centring: with m = 2 freq and a missing genotype as 0, sum (g_i - m)(g_k - m) = sum g_i g_k - r_i - r_k +
/// c, where r_i = sum m g_i and c = sum m^2. A missing genotype has to be 0 after centring, not before: with
/// U = G - 1 m', D = m where a genotype is missing (0 elsewhere) and V = U + D / 2, the wanted product is
/// (U + D)(U + D)' = U U' + V D' + D V', and D is sparse.
namespace zendar::matrices::counting {

inline constexpr std::int64_t lanes = 64;                     ///< individuals of a panel
inline constexpr std::int64_t pairs_a_sum = 31;               ///< entries that fit into a byte: 31 x 8 < 256
inline constexpr std::int64_t pair_block = 64 * pairs_a_sum;  ///< pairs of SNPs of a block at most

/// Share of missing genotypes from which on products of doubles are faster.
inline constexpr double most_missing = 0.03;
/// Missing genotypes that are listed at a time, four bytes each.
inline constexpr std::int64_t most_listed = std::int64_t{1} << 21;

/// Whether this processor has the shuffle.
[[nodiscard]] bool is_supported();

/// g += factor W W', lower triangle; the upper one is work space. See `add_genomic_products`.
/// @param counts  of the codes of each SNP among all individuals of the file
///
/// A block takes n pair_block bytes twice, by panels and by individuals: 40 MB for 10,000. A panel stays in
/// the second-level cache, and the triangle of g is read and written once a block. Each element is the same
/// sum in the same order for any number of threads.
void add_products(const covariable_type& genotypes, std::span<const std::int32_t> rows,
                  std::span<const plink_counts> counts, double factor, matrix_view<double> g, logger& log);

/// g += factor (V D' + D V'), lower triangle; the upper one is work space. n additions a missing genotype,
/// and the list of them.
void add_missing(const covariable_type& genotypes, std::span<const std::int32_t> rows,
                 std::span<const plink_counts> counts, double factor, matrix_view<double> g);

}  // namespace zendar::matrices::counting
