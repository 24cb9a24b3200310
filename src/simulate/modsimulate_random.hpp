#pragma once

#include <cmath>
#include <cstdint>

/// Random numbers that have the same bits on every machine: integers, the four operations and square roots
/// only, which IEEE 754 rounds in one way. Distributions and logarithms of the standard libraries differ.
namespace zendar::simulate {

/// The natural logarithm of a positive number, to about 1e-15.
[[nodiscard]] inline double portable_log(double x) {
    constexpr double ln2 = 0.693147180559945309417, root_half = 0.70710678118654752440;
    int exponent = 0;
    double m = std::frexp(x, &exponent);
    if (m < root_half) {
        m *= 2.0;
        --exponent;
    }
    const double s = (m - 1.0) / (m + 1.0);  // log m = 2 artanh s, with |s| below 0.172
    double series = 0.0;
    for (int k = 21; k >= 1; k -= 2) series = series * (s * s) + 1.0 / k;
    return 2.0 * s * series + exponent * ln2;
}

/// What a stream is used for. Each has its own, so that an option changes nothing but its own subject.
enum class subject : std::uint64_t {
    pedigree,
    unknown_parents,
    names,
    snp_effects,
    genetic,
    environment,
    missing,
    chromosomes  ///< the first of one stream for each chromosome
};

/// The splitmix64 generator (Steele, Lea and Flood, 2014, OOPSLA:453-472).
class random_stream {
  public:
    random_stream(std::uint64_t seed, subject use, std::uint64_t number = 0)
        : state_(mix(seed + step) + mix(step * (static_cast<std::uint64_t>(use) + number + 1))) {}

    std::uint64_t bits() { return mix(state_ += step); }
    /// Strictly between 0 and 1.
    double uniform() { return (static_cast<double>(bits() >> 12) + 0.5) * 0x1p-52; }
    /// 0 to n - 1.
    std::int32_t below(std::int32_t n) {
        return static_cast<std::int32_t>((bits() >> 32) * static_cast<std::uint64_t>(n) >> 32);
    }
    /// Standard normal deviates by the polar method (Marsaglia and Bray, 1964), in pairs.
    double normal() {
        if (has_second_) {
            has_second_ = false;
            return second_;
        }
        double a = 0.0, b = 0.0, square = 0.0;
        do {
            a = 2.0 * uniform() - 1.0;
            b = 2.0 * uniform() - 1.0;
            square = a * a + b * b;
        } while (square >= 1.0);
        const double factor = std::sqrt(-2.0 * portable_log(square) / square);
        second_ = b * factor;
        has_second_ = true;
        return a * factor;
    }

  private:
    static constexpr std::uint64_t step = 0x9e3779b97f4a7c15;
    static constexpr std::uint64_t mix(std::uint64_t z) {
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }
    std::uint64_t state_;
    double second_ = 0.0;
    bool has_second_ = false;
};

}  // namespace zendar::simulate
