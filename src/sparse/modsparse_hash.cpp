#include "modsparse_hash.hpp"

#include <algorithm>
#include <cmath>

namespace zendar {

namespace {

enum class found { match, free, other };

found compare(const coo_slot& slot, std::int32_t row, std::int32_t col) {
    if (slot.row == row && slot.col == col) return found::match;
    return slot.row == 0 || slot.col == 0 ? found::free : found::other;
}

/// Follows the probes from `h` on until `look` meets a match or a free slot.
/// @returns the slot's number, negative for a free slot, 0 after 5000 probes.
template <class Look>
std::int64_t search(hash_words h, std::int64_t nel, const Look& look) {
    if (nel == 0) return 0;
    for (std::int32_t probe = 0; probe < maximum_probes; ++probe) {
        const std::int64_t s = next_probe(h, nel);
        const found what = look(s);
        if (what == found::match) return s + 1;
        if (what == found::free) return -(s + 1);
    }
    return 0;
}

void warn(logger* unlog) {
    if (unlog != nullptr) unlog->message(" Warning: the maximum number of searches was reached!");
}

}  // namespace

std::int64_t hashf_array(std::int32_t row, std::int32_t col, std::span<coo_slot> slots, std::int64_t& filled,
                         bool getval, logger* unlog) {
    const std::int64_t s = search(hash_start(row, col), std::ssize(slots),
                                  [&](std::int64_t i) { return compare(slots[i], row, col); });
    if (s > 0) return s;
    if (s == 0) {
        warn(unlog);
        return -1;
    }
    if (getval) return 0;
    coo_slot& slot = slots[-s - 1];
    slot.row = row;
    slot.col = col;
    ++filled;
    return -s;
}

std::int64_t hashf_array_getval(std::int32_t row, std::int32_t col, std::span<const coo_slot> slots) {
    const std::int64_t s = search(hash_start(row, col), std::ssize(slots),
                                  [&](std::int64_t i) { return compare(slots[i], row, col); });
    if (s == 0) return -1;
    return std::max<std::int64_t>(s, 0);
}

std::int64_t hashf_vect(std::int32_t key, std::span<std::int32_t> keys, std::int64_t& filled, bool getval,
                        logger* unlog) {
    const std::int64_t s = search(hash_start(key), std::ssize(keys), [&](std::int64_t i) {
        if (keys[i] == key) return found::match;
        return keys[i] == 0 ? found::free : found::other;
    });
    if (s > 0) return s;
    if (s == 0) {
        warn(unlog);
        return -1;
    }
    if (getval) return 0;
    keys[-s - 1] = key;
    ++filled;
    return -s;
}

std::int64_t roundinguppower2(std::int64_t n) {
    if (n <= 1) return 1;
    const double exponent = std::ceil(std::log(static_cast<double>(n)) / std::log(2.0));
    return std::int64_t{1} << std::min(static_cast<std::int64_t>(exponent), std::int64_t{62});
}

}  // namespace zendar
