#pragma once

#include <cmath>
#include <cstdint>

/// Random numbers that are the same in every run.
namespace zendar {

/// Zeros and ones from the multiplicative congruential generator x(k+1) = 1132489760 x(k) mod (2^31 - 1)
/// (L'Ecuyer, 1999), with the seed itself as its first value.
class bernoulli_stream {
  public:
    explicit bernoulli_stream(std::uint32_t seed) : x_(seed % modulus == 0 ? 1 : seed % modulus) {}

    /// 1 with probability p, else 0.
    std::int32_t next(double p) { return next_uniform() < p ? 1 : 0; }
    /// Strictly between 0 and 1.
    double next_uniform() {
        const double u = static_cast<double>(x_) / static_cast<double>(modulus);
        x_ = x_ * multiplier % modulus;
        return u;
    }
    /// The value that the next number is made from.
    [[nodiscard]] std::uint64_t state() const noexcept { return x_; }

  private:
    static constexpr std::uint64_t modulus = 2'147'483'647, multiplier = 1'132'489'760;
    std::uint64_t x_;
};

/// Standard normal deviates by the polar method (Marsaglia and Bray, 1964) on the same generator, whose
/// period of 2^31 - 2 gives about 1.7e9 deviates before they repeat.
class normal_stream {
  public:
    explicit normal_stream(std::uint32_t seed = 1) { setseed(seed); }

    /// Starts the stream anew.
    void setseed(std::uint32_t seed) {
        uniform_ = bernoulli_stream(seed);
        has_second_ = false;
    }
    double rand_stdnormal() {
        if (has_second_) {
            has_second_ = false;
            return second_;
        }
        double a = 0.0, b = 0.0, square = 0.0;
        do {
            a = 2.0 * uniform_.next_uniform() - 1.0;
            b = 2.0 * uniform_.next_uniform() - 1.0;
            square = a * a + b * b;
        } while (square >= 1.0 || square == 0.0);
        const double factor = std::sqrt(-2.0 * std::log(square) / square);
        second_ = b * factor;
        has_second_ = true;
        return a * factor;
    }

  private:
    bernoulli_stream uniform_{1};
    double second_ = 0.0;
    bool has_second_ = false;
};

}  // namespace zendar
