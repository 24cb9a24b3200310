#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>

namespace zendar {

/// About how many different keys were seen, in 16 KB whatever their number: the standard deviation is 0.8 %,
/// and less for small numbers.
///
/// A register keeps the longest run of leading zeros among the hashes that fall to it (Flajolet, Fusy,
/// Gandouet and Meunier, 2007, HyperLogLog); few keys are counted by the registers that stayed empty (Whang,
/// Vander-Zanden and Taylor, 1990).
class distinct_count {
  public:
    void add(std::uint64_t key) noexcept {
        // The finaliser of Stafford (2011), variant 13: every bit of the key decides on every bit.
        key = (key ^ key >> 30) * 0xbf58476d1ce4e5b9U;
        key = (key ^ key >> 27) * 0x94d049bb133111ebU;
        key ^= key >> 31;
        const auto run = static_cast<std::uint8_t>(
            std::countl_zero(key << index_bits | std::uint64_t{1} << (index_bits - 1)) + 1);
        std::uint8_t& own = longest_[key >> (64 - index_bits)];
        if (run > own) own = run;
    }

    [[nodiscard]] double estimate() const noexcept {
        constexpr auto m = static_cast<double>(registers);
        double sum = 0.0, empty = 0.0;
        for (const std::uint8_t run : longest_) {
            sum += std::ldexp(1.0, -int{run});
            empty += run == 0 ? 1.0 : 0.0;
        }
        const double many = 0.7213 / (1.0 + 1.079 / m) * m * m / sum;
        return many > 2.5 * m || empty == 0.0 ? many : m * std::log(m / empty);
    }

  private:
    static constexpr int index_bits = 14;
    static constexpr std::size_t registers = std::size_t{1} << index_bits;
    std::array<std::uint8_t, registers> longest_{};
};

}  // namespace zendar
