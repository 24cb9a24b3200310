#pragma once

#include <cstdint>
#include <span>

#include "modlogger.hpp"

namespace zendar {

/// One slot of a coordinate store: free when its row or its column is 0.
struct coo_slot {
    std::int32_t row, col;
    double value;
};

/// The three running words of the hash. Files depend on the order of the slots, and so on every bit here.
struct hash_words {
    std::uint64_t a, b, c;
};

/// Not a rotation of the 64-bit word, although it looks like one.
constexpr std::uint64_t rot(std::uint64_t x, int k) {
    return (x << k) | (x >> (32 - k));
}

constexpr void mix(std::uint64_t& a, std::uint64_t& b, std::uint64_t& c) {
    a -= c, a ^= rot(c, 4), c += b;
    b -= a, b ^= rot(a, 6), a += c;
    c -= b, c ^= rot(b, 8), b += a;
    a -= c, a ^= rot(c, 16), c += b;
    b -= a, b ^= rot(a, 19), a += c;
    c -= b, c ^= rot(b, 4), b += a;
}

constexpr std::uint64_t hash_seed = 305419896;  // 0x12345678
constexpr std::int32_t maximum_probes = 5000;

/// The state before the first probe, of a pair and of a single key.
constexpr hash_words hash_start(std::int32_t row, std::int32_t col) {
    return {static_cast<std::uint64_t>(row), static_cast<std::uint64_t>(col), hash_seed};
}
constexpr hash_words hash_start(std::int32_t key) {
    return {static_cast<std::uint64_t>(key), 11, hash_seed};
}

/// One probe: re-mixes the state and gives an index from 0. `nel` is a power of 2.
constexpr std::int64_t next_probe(hash_words& h, std::int64_t nel) {
    mix(h.a, h.b, h.c);
    return static_cast<std::int64_t>(h.c & static_cast<std::uint64_t>(nel - 1));
}

/// Finds the slot of a pair, from 1. On a free slot: 0 with `getval`; without it the pair is entered there
/// and `filled` grows. After 5000 probes: -1, with a warning on `unlog`.
std::int64_t hashf_array(std::int32_t row, std::int32_t col, std::span<coo_slot> slots, std::int64_t& filled,
                         bool getval, logger* unlog);

/// The slot of a pair, from 1; 0 when it is absent and -1 after 5000 probes.
std::int64_t hashf_array_getval(std::int32_t row, std::int32_t col, std::span<const coo_slot> slots);

/// `hashf_array` for single keys; a stored 0 is a free slot.
std::int64_t hashf_vect(std::int32_t key, std::span<std::int32_t> keys, std::int64_t& filled, bool getval,
                        logger* unlog);

/// 2 to the power of log(n) / log(2) rounded up, in double precision: exact for small powers of 2, whereas
/// 2^29 gives 2^30. 1 for n below 1.
std::int64_t roundinguppower2(std::int64_t n);

}  // namespace zendar
