#pragma once

#include <array>
#include <cstdint>

/// The five-code byte: five genotypes 0, 1, 2 as the number sum of g(k) 3^k, k = 0..4, g(0) the first of
/// them. Values run from 0 to 242.
namespace miraculix {

inline constexpr std::int32_t genotypes_per_byte = 5;
inline constexpr std::int32_t genotypes_per_plink_byte = 4;
inline constexpr std::int32_t bits_per_plink_code = 2;
inline constexpr std::int32_t five_code_values = 243;
inline constexpr std::int32_t five_plink_codes = 1024;  ///< values of 10 bits

/// Genotype of each 2-bit PLINK code: homozygous for the first allele, missing (counts as 0), heterozygous,
/// homozygous for the second allele.
inline constexpr std::array<std::uint8_t, 4> plink_genotype = {0, 0, 1, 2};

/// Byte of five PLINK codes, the first of them in the two lowest bits of the index.
[[nodiscard]] const std::array<std::uint8_t, five_plink_codes>& PLINK2FIVE();

/// The five genotypes of a byte.
[[nodiscard]] const std::array<std::array<std::uint8_t, genotypes_per_byte>, five_code_values>&
CODING_TABLE5();

/// Sum of the five genotypes of a byte.
[[nodiscard]] const std::array<std::uint8_t, five_code_values>& ALLELESUM();

/// Genotypes of a PLINK byte, each times 3^digit and in a byte of its own, the first one lowest: with them
/// the bytes of five rows add up to four five-code bytes at once.
[[nodiscard]] const std::array<std::array<std::uint32_t, 256>, genotypes_per_byte>& PLINK_DIGITS();

}  // namespace miraculix
