#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "modbasic.hpp"

namespace zendar {

namespace {

__extension__ typedef unsigned __int128 uint128;

constexpr std::int32_t smallest_power = -304;
constexpr std::int32_t largest_power = 330;

/// floor(log10(2^e)) and floor(log2(10^q)); right in the whole range of double, see the tests.
constexpr std::int32_t decimal_exponent(std::int32_t e) {
    return static_cast<std::int32_t>((e * std::int64_t{1292913986}) >> 32);
}
constexpr std::int32_t binary_exponent(std::int32_t q) {
    return static_cast<std::int32_t>((q * std::int64_t{14267572527}) >> 32);
}

/// A significand of 128 bits, the highest one set, times 10 or 1/10, truncated and brought back to 128 bits.
constexpr uint128 times_ten(uint128 x) {
    const uint128 low = (x & ~std::uint64_t{0}) * 10;
    const uint128 high = (x >> 64) * 10 + (low >> 64);
    const std::int32_t shift = high >> 67 != 0 ? 4 : 3;
    return (high << (64 - shift)) | (static_cast<std::uint64_t>(low) >> shift);
}
constexpr uint128 by_ten(uint128 x) {
    const uint128 high = x >> 61;
    const uint128 low = (high % 10) << 64 | static_cast<std::uint64_t>(x << 3);
    const uint128 quotient = ((high / 10) << 64) + low / 10;
    return quotient >> 127 != 0 ? quotient : quotient << 1;
}

/// 10^q = table entry * 2^(binary_exponent(q) - 63). The 330 steps lose less than 2^-117 of the value, so an
/// entry is too small by at most a little more than one unit, and never too large.
constexpr auto powers_of_ten = [] {
    std::array<std::uint64_t, largest_power - smallest_power + 1> table{};
    uint128 power = uint128{1} << 127;
    for (std::int32_t q = 0; q <= largest_power; ++q, power = times_ten(power))
        table[static_cast<std::size_t>(q - smallest_power)] = static_cast<std::uint64_t>(power >> 64);
    power = uint128{1} << 127;
    for (std::int32_t q = 0; q >= smallest_power; --q, power = by_ten(power))
        table[static_cast<std::size_t>(q - smallest_power)] = static_cast<std::uint64_t>(power >> 64);
    return table;
}();

/// "000102...99"
constexpr auto digit_pairs = [] {
    std::array<char, 200> pairs{};
    for (std::size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

/// |x| = 0.`digits` * 10^`exponent` with six digits.
struct six_digits {
    std::uint32_t digits;
    std::int32_t exponent;
};

/// Rounds a finite |x| > 0, given by its bits, to six digits; false when the product with the truncated power
/// is too close to the middle of two results to tell which one is right.
bool round_to_six(std::uint64_t bits, six_digits& result) {
    std::uint64_t significand = bits & ((std::uint64_t{1} << 52) - 1);
    auto e = static_cast<std::int32_t>(bits >> 52);
    if (e == 0) {
        e = 1;
    } else {
        significand |= std::uint64_t{1} << 52;
    }
    const std::int32_t zeros = std::countl_zero(significand);
    significand <<= zeros;
    e += 11 - zeros - 1023;  // |x| = significand * 2^(e - 63)

    std::int32_t k = decimal_exponent(e);  // 10^k <= |x| < 20 * 10^k
    while (true) {
        const std::int32_t q = 5 - k;
        const std::uint64_t power = powers_of_ten[static_cast<std::size_t>(q - smallest_power)];
        const auto product = static_cast<std::uint64_t>((uint128{significand} * power) >> 64);
        const std::int32_t fraction_bits = 62 - e - binary_exponent(q);  // 40 to 47
        const std::uint64_t whole = product >> fraction_bits;
        if (whole >= 1000000) {
            ++k;
            continue;
        }
        // The true product is at most 2 larger than `product`, hence the window.
        const std::uint64_t fraction = product & ((std::uint64_t{1} << fraction_bits) - 1);
        const std::uint64_t half = std::uint64_t{1} << (fraction_bits - 1);
        if (fraction - (half - 2) <= 2) return false;
        result.digits = static_cast<std::uint32_t>(whole + (fraction > half ? 1 : 0));
        result.exponent = k + 1;
        if (result.digits == 1000000) {
            result.digits = 100000;
            ++result.exponent;
        }
        return true;
    }
}

/// Sign and magnitude of a decimal exponent of at most three digits, as few digits as it needs.
char* write_exponent(char* out, std::int32_t exponent) {
    *out++ = 'E';
    *out++ = exponent < 0 ? '-' : '+';
    auto rest = static_cast<std::uint32_t>(exponent < 0 ? -exponent : exponent);
    if (rest >= 100) {
        *out++ = static_cast<char>('0' + rest / 100);
        rest %= 100;
        std::memcpy(out, &digit_pairs[2 * rest], 2);
        return out + 2;
    }
    std::memcpy(out, &digit_pairs[2 * rest], 2);
    return out + 2;
}

char* write_literally(char* out, std::string_view text) {
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
}

}  // namespace

char* write_g06(char* out, double x) {
    constexpr std::uint64_t infinity = std::uint64_t{0x7FF} << 52;
    const auto all = std::bit_cast<std::uint64_t>(x);
    const std::uint64_t bits = all & ~(std::uint64_t{1} << 63);
    if (bits == 0) return write_literally(out, all == 0 ? "0.00000" : "-0.00000");

    six_digits number{};
    if (bits >= infinity || !round_to_six(bits, number)) return write_literally(out, format_real(x, "g0.6"));

    if (all != bits) *out++ = '-';
    char text[12] = {};
    std::memcpy(text, &digit_pairs[2 * (number.digits / 10000)], 2);
    std::memcpy(text + 2, &digit_pairs[2 * (number.digits / 100 % 100)], 2);
    std::memcpy(text + 4, &digit_pairs[2 * (number.digits % 100)], 2);

    // Copies have a fixed size, which is faster; they stay within the 16 characters.
    if (number.exponent >= 1 && number.exponent <= 6) {
        std::memcpy(out, text, 6);
        out[number.exponent] = '.';
        std::memcpy(out + number.exponent + 1, text + number.exponent, 6);
        return out + 7;
    }
    std::memcpy(out, "0.", 2);
    std::memcpy(out + 2, text, 6);
    return number.exponent == 0 ? out + 8 : write_exponent(out + 8, number.exponent);
}

char* write_i0(char* out, std::int64_t n) {
    return std::to_chars(out, out + 20, n).ptr;
}

}  // namespace zendar
