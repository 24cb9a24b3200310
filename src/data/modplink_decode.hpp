#pragma once

#include <array>
#include <cstdint>

/// Decoding of PLINK bytes.
namespace zendar::detail {

/// Genotypes of the codes 00, 01, 10, 11; 3 marks a missing one.
inline constexpr std::array<double, 4> pgeno_wp = {0.0, 3.0, 1.0, 2.0};

/// The four genotypes of each byte, that of the two lowest bits first.
inline constexpr auto DECODE_I1 = [] {
    std::array<std::array<double, 4>, 256> table{};
    for (std::size_t byte = 0; byte < 256; ++byte)
        for (std::size_t k = 0; k < 4; ++k) table[byte][k] = pgeno_wp[(byte >> (2 * k)) & 3];
    return table;
}();

/// The values of the four genotypes of each byte; `Missing`: 1 for a missing one and else 0.
template <bool Missing>
struct byte_table {
    alignas(64) double value[256][4];
    constexpr byte_table() : value() {
        for (std::size_t byte = 0; byte < 256; ++byte)
            for (std::size_t k = 0; k < 4; ++k) {
                const double genotype = DECODE_I1[byte][k];
                value[byte][k] = Missing ? (genotype == 3.0 ? 1.0 : 0.0) : genotype == 3.0 ? 0.0 : genotype;
            }
    }
};

constexpr double genotype_of(std::int32_t code) {
    return pgeno_wp[static_cast<std::size_t>(code)];
}

/// A genotype minus twice the allele frequency; a missing one is 0, i.e. takes the mean.
constexpr double centred(double genotype, double twof) {
    return genotype < 3.0 ? genotype - twof : 0.0;
}

}  // namespace zendar::detail
