#include "tables.hpp"

namespace miraculix {

namespace {

struct five_code_tables {
    std::array<std::uint8_t, five_plink_codes> plink2five{};
    std::array<std::array<std::uint8_t, genotypes_per_byte>, five_code_values> digits{};
    std::array<std::uint8_t, five_code_values> allelesum{};
    std::array<std::array<std::uint32_t, 256>, genotypes_per_byte> plink_digits{};
};

/// Genotype number k of a row of packed PLINK codes.
constexpr std::uint32_t genotype(std::uint32_t codes, std::int32_t k) {
    return plink_genotype[(codes >> (bits_per_plink_code * k)) & 3];
}

constexpr five_code_tables Init5() {
    five_code_tables t;
    for (std::uint32_t codes = 0; codes < five_plink_codes; ++codes) {
        std::uint32_t byte = 0;
        for (std::int32_t k = genotypes_per_byte - 1; k >= 0; --k) byte = 3 * byte + genotype(codes, k);
        t.plink2five[codes] = static_cast<std::uint8_t>(byte);
    }
    for (std::int32_t code = 0; code < five_code_values; ++code) {
        std::int32_t rest = code, sum = 0;
        for (std::int32_t k = 0; k < genotypes_per_byte; ++k, rest /= 3) {
            t.digits[code][k] = static_cast<std::uint8_t>(rest % 3);
            sum += rest % 3;
        }
        t.allelesum[code] = static_cast<std::uint8_t>(sum);
    }
    std::uint32_t power = 1;
    for (std::int32_t digit = 0; digit < genotypes_per_byte; ++digit, power *= 3)
        for (std::uint32_t codes = 0; codes < 256; ++codes)
            for (std::int32_t k = 0; k < genotypes_per_plink_byte; ++k)
                t.plink_digits[digit][codes] |= genotype(codes, k) * power << (8 * k);
    return t;
}

constexpr five_code_tables tables = Init5();

}  // namespace

const std::array<std::uint8_t, five_plink_codes>& PLINK2FIVE() {
    return tables.plink2five;
}

const std::array<std::array<std::uint8_t, genotypes_per_byte>, five_code_values>& CODING_TABLE5() {
    return tables.digits;
}

const std::array<std::uint8_t, five_code_values>& ALLELESUM() {
    return tables.allelesum;
}

const std::array<std::array<std::uint32_t, 256>, genotypes_per_byte>& PLINK_DIGITS() {
    return tables.plink_digits;
}

}  // namespace miraculix
