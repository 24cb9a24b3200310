#pragma once

#include <cstdint>
#include <random>
#include <vector>

/// Genotypes for the tests: 2-bit PLINK codes one by one, packed or as values.
namespace miraculix::test {

struct genotype_sample {
    std::int64_t snps, individuals;
    std::vector<std::uint8_t> codes;  // SNP by SNP

    /// Random codes, missing ones among them.
    genotype_sample(std::int64_t s, std::int64_t i, std::uint64_t seed)
        : snps(s), individuals(i), codes(static_cast<std::size_t>(s * i)) {
        std::mt19937_64 random(seed);
        for (std::uint8_t& code : codes) code = static_cast<std::uint8_t>(random() & 3);
    }

    [[nodiscard]] std::uint8_t code(std::int64_t snp, std::int64_t individual) const {
        return codes[static_cast<std::size_t>(snp * individuals + individual)];
    }
    /// The genotype as a number: 00 and 01 (missing) are 0, 10 is 1, 11 is 2.
    [[nodiscard]] double value(std::int64_t snp, std::int64_t individual) const {
        const std::uint8_t c = code(snp, individual);
        return c == 3 ? 2.0 : c == 2 ? 1.0 : 0.0;
    }
    /// SNP-major bytes; the bits behind the last individual are those of `garbage`.
    [[nodiscard]] std::vector<std::uint8_t> plink(std::uint8_t garbage = 0) const {
        const std::int64_t nbyte = (individuals + 3) / 4;
        std::vector<std::uint8_t> bytes(static_cast<std::size_t>(snps * nbyte), garbage);
        for (std::int64_t s = 0; s < snps; ++s)
            for (std::int64_t i = 0; i < individuals; ++i) {
                std::uint8_t& byte = bytes[static_cast<std::size_t>(s * nbyte + i / 4)];
                const auto shift = 2 * (i % 4);
                byte = static_cast<std::uint8_t>((byte & ~(3 << shift)) | (code(s, i) << shift));
            }
        return bytes;
    }
};

inline std::vector<double> random_values(std::int64_t n, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    std::vector<double> values(static_cast<std::size_t>(n));
    for (double& v : values) v = value(random);
    return values;
}

}  // namespace miraculix::test
