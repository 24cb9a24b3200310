#pragma once

#include <cstdint>
#include <cstring>

/// From the 2-bit codes of a PLINK byte to real numbers: 00 and 01 (missing) are 0, 10 is 1, 11 is 2.
///
/// Only the upper half of these doubles differs, so a code becomes a double by two table look-ups of one
/// byte, which the byte permutation instruction makes for four codes at a time. The header serves nvcc and
/// the host's compiler alike: the tests run on the host what the device runs.

#if defined(__CUDACC__)
#define ZENDAR_GPU_BOTH __host__ __device__ __forceinline__
#else
#define ZENDAR_GPU_BOTH inline
#endif

namespace miraculix::gpu {

/// The plain rule, for the reference kernel.
ZENDAR_GPU_BOTH double value_of_code(unsigned code) {
    return code < 2 ? 0.0 : static_cast<double>(code - 1);
}

/// Bytes of `low` (0 to 3) and `high` (4 to 7) chosen by the four nibbles of `selector`; a nibble with its
/// upper bit set gives the sign of the chosen byte in all 8 bits.
ZENDAR_GPU_BOTH std::uint32_t permute_bytes(std::uint32_t low, std::uint32_t high, std::uint32_t selector) {
#if defined(__CUDA_ARCH__)
    std::uint32_t result;
    asm("prmt.b32 %0, %1, %2, %3;" : "=r"(result) : "r"(low), "r"(high), "r"(selector));
    return result;
#else
    const std::uint64_t bytes = std::uint64_t{high} << 32 | low;
    std::uint32_t result = 0;
    for (std::uint32_t n = 0; n < 4; ++n) {
        const std::uint32_t nibble = selector >> 4 * n & 15;
        auto byte = static_cast<std::uint32_t>(bytes >> 8 * (nibble & 7) & 255);
        if (nibble > 7) byte = byte > 127 ? 255 : 0;
        result |= byte << 8 * n;
    }
    return result;
#endif
}

/// The double whose upper half is `upper` and whose lower half is 0.
ZENDAR_GPU_BOTH double double_of_upper(std::uint32_t upper) {
#if defined(__CUDA_ARCH__)
    return __hiloint2double(static_cast<int>(upper), 0);
#else
    const std::uint64_t bits = std::uint64_t{upper} << 32;
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
#endif
}

/// Eight codes, half way to doubles: their two upper bytes, those of the even codes apart from the odd ones.
struct spread_codes {
    std::uint32_t first_even, second_even, first_odd, second_odd;
};

/// The codes 0 to 7 (`half` 0) or 8 to 15 (`half` 1) of a word; code i stands at its bits 2i and 2i + 1.
ZENDAR_GPU_BOTH spread_codes spread(std::uint32_t word, int half) {
    // 1.0 is 3F F0 00 ..., 2.0 is 40 00 00 ..., so by code:
    constexpr std::uint32_t first_byte = 0x403F0000, second_byte = 0x00F00000;
    const std::uint32_t even = (word & 0x33333333) >> 16 * half, odd = (word >> 2 & 0x33333333) >> 16 * half;
    return {permute_bytes(first_byte, 0, even), permute_bytes(second_byte, 0, even),
            permute_bytes(first_byte, 0, odd), permute_bytes(second_byte, 0, odd)};
}

/// The value of code i (0 to 7) of eight spread codes.
ZENDAR_GPU_BOTH double value_of(const spread_codes& codes, int i) {
    const auto n = static_cast<std::uint32_t>(i / 2);
    // The first byte is never negative, so that its sign fills the lower bytes with 0.
    const std::uint32_t selector = n << 12 | (4 + n) << 8 | (8 + n) << 4 | (8 + n);
    return double_of_upper(i % 2 == 0 ? permute_bytes(codes.first_even, codes.second_even, selector)
                                      : permute_bytes(codes.first_odd, codes.second_odd, selector));
}

}  // namespace miraculix::gpu
