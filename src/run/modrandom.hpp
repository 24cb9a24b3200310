#pragma once

#include <cstdint>

/// Random numbers that are the same in every run.
namespace zendar {

/// Zeros and ones from the multiplicative congruential generator x(k+1) = 1132489760 x(k) mod (2^31 - 1)
/// (L'Ecuyer, 1999), with the seed itself as its first value.
class bernoulli_stream {
  public:
    explicit bernoulli_stream(std::uint32_t seed) : x_(seed % modulus == 0 ? 1 : seed % modulus) {}

    /// 1 with probability p, else 0.
    std::int32_t next(double p) {
        const double u = static_cast<double>(x_) / static_cast<double>(modulus);
        x_ = x_ * multiplier % modulus;
        return u < p ? 1 : 0;
    }
    /// The value that the next number is made from.
    [[nodiscard]] std::uint64_t state() const noexcept { return x_; }

  private:
    static constexpr std::uint64_t modulus = 2'147'483'647, multiplier = 1'132'489'760;
    std::uint64_t x_;
};

}  // namespace zendar
