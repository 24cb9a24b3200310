#pragma once

#include <bit>
#include <cstring>
#include <utility>

#include "modplink_decode.hpp"
#include "modplink_detail.hpp"

/// The kernels as templates, which are inlined into one function per instruction set; for the sources with
/// these functions only.
namespace zendar::detail {
namespace {

template <int V>
struct lanes {
    typedef double type __attribute__((vector_size(V * sizeof(double)), aligned(sizeof(double)), may_alias));
};
template <>
struct lanes<1> {
    using type = double;
};
typedef std::uint64_t words4 __attribute__((vector_size(32), aligned(8), may_alias));

constexpr int bits_of_field(int v) {
    return v == 1 ? 8 : 6;
}

/// Values of b for a genotype are followed by those for the next one after `Stride`.
template <int V, int Stride>
[[gnu::always_inline]] inline void fill_pairs(const double* b, const double* factor, std::int64_t step,
                                              double* table) {
    using vector = typename lanes<V>::type;
    const vector first = *reinterpret_cast<const vector*>(b);
    const vector second = *reinterpret_cast<const vector*>(b + Stride);
    for (std::int64_t high = 0; high < 4; ++high) {
        const vector part = second * factor[step + high];
        for (std::int64_t low = 0; low < 4; ++low)
            *reinterpret_cast<vector*>(table + (4 * high + low) * V) = first * factor[low] + part;
    }
}

template <int V, int Stride = V>
[[gnu::always_inline]] inline void fill_tables(const double* b, const double* factor, std::int64_t step,
                                               double* tables) {
    constexpr int bits = bits_of_field(V), genotypes = bits / 2, highs = 1 << (bits - 4);
    // One column fills its tables four entries at a time.
    constexpr int at_once = V == 1 ? 4 : V;
    using vector = typename lanes<at_once>::type;
    for (int field = 0; field < fields_of_word; ++field) {
        double low[16 * V], high[16 * V];
        fill_pairs<V, Stride>(b, factor, step, low);
        if constexpr (genotypes == 4) {
            fill_pairs<V, Stride>(b + 2 * Stride, factor + 2 * step, step, high);
        } else {
            using single = typename lanes<V>::type;
            for (int code = 0; code < highs; ++code)
                *reinterpret_cast<single*>(high + code * V) =
                    *reinterpret_cast<const single*>(b + 2 * Stride) * factor[2 * step + code];
        }
        for (int h = 0; h < highs; ++h) {
            double* const to = tables + h * 16 * V;
            if constexpr (V == 1) {
                for (int l = 0; l < 16; l += at_once)
                    *reinterpret_cast<vector*>(to + l) = *reinterpret_cast<const vector*>(low + l) + high[h];
            } else {
                const vector part = *reinterpret_cast<const vector*>(high + h * V);
                for (int l = 0; l < 16; ++l)
                    *reinterpret_cast<vector*>(to + l * V) =
                        *reinterpret_cast<const vector*>(low + l * V) + part;
            }
        }
        b += genotypes * Stride;
        factor += genotypes * step;
        tables += (1 << bits) * V;
    }
}

/// The field of `Bits` bits from `First` on, times 2^Scale: where its entry is, in bytes. A rotation into
/// another register and a mask; shifts would need a copy besides.
template <int First, int Bits, int Scale>
[[gnu::always_inline]] inline std::uint64_t place_of_field(std::uint64_t word) {
    return std::rotr(word, First - Scale) & (((std::uint64_t{1} << Bits) - 1) << Scale);
}

template <int V, int Field>
[[gnu::always_inline]] inline const typename lanes<V>::type* entry(std::uint64_t word, const double* tables) {
    constexpr int bits = bits_of_field(V);
    constexpr auto size = static_cast<int>(V * sizeof(double));
    const std::uint64_t at = place_of_field<bits * Field, bits, std::countr_zero(unsigned{size})>(word);
    return reinterpret_cast<const typename lanes<V>::type*>(reinterpret_cast<const char*>(tables) +
                                                            (Field << bits) * size + at);
}

template <int V>
[[gnu::always_inline]] inline void add_tables(const std::uint64_t* x, std::int64_t n, const double* tables,
                                              double* acc) {
    using vector = typename lanes<V>::type;
    for (std::int64_t i = 0; i < n; ++i) {
        const std::uint64_t w = x[i];
        vector even = *reinterpret_cast<vector*>(acc + i * V);
        vector odd = *entry<V, 1>(w, tables);
        even += *entry<V, 0>(w, tables);
        odd += *entry<V, 3>(w, tables);
        even += *entry<V, 2>(w, tables);
        odd += *entry<V, 5>(w, tables);
        even += *entry<V, 4>(w, tables);
        odd += *entry<V, 7>(w, tables);
        even += *entry<V, 6>(w, tables);
        *reinterpret_cast<vector*>(acc + i * V) = even + odd;
    }
}

/// Exchanges the bits of `mask << shift` in a with those of `mask` in b.
struct exchange_bits {
    [[gnu::always_inline]] static void exchange(words4& a, words4& b, int shift, std::uint64_t mask) {
        const words4 difference = ((a >> shift) ^ b) & mask;
        b ^= difference;
        a ^= difference << shift;
    }
};
/// The same where one instruction selects bits by a mask.
struct select_bits {
    [[gnu::always_inline]] static void exchange(words4& a, words4& b, int shift, std::uint64_t mask) {
        const words4 up = b << shift, down = a >> shift;
        a = (a & mask) | (up & ~mask);
        b = (down & mask) | (b & ~mask);
    }
};

/// out: the elements of the lower (0) or upper (1) half of each 16 bytes of a and b, in turns.
template <class T, int Half, std::size_t... I>
[[gnu::always_inline]] inline void in_turns(const words4& a, const words4& b, words4& out,
                                            std::index_sequence<I...>) {
    typedef T elements __attribute__((vector_size(32), may_alias));
    constexpr int all = 32 / sizeof(T), lane = 16 / sizeof(T);
    out = reinterpret_cast<words4>(
        __builtin_shufflevector(reinterpret_cast<elements>(a), reinterpret_cast<elements>(b),
                                (static_cast<int>(I) % 2 * all + static_cast<int>(I) / lane * lane +
                                 Half * lane / 2 + static_cast<int>(I) % lane / 2)...));
}
template <class T>
[[gnu::always_inline]] inline void interleave(words4& low, words4& high) {
    constexpr std::make_index_sequence<32 / sizeof(T)> each;
    const words4 a = low, b = high;
    in_turns<T, 0>(a, b, low, each);
    in_turns<T, 1>(a, b, high, each);
}

template <class Bits>
[[gnu::always_inline]] inline void transpose_chunk(const std::uint8_t* const* rows, std::int32_t snps,
                                                   std::uint64_t* words) {
    words4 part[4][8];  // [individual of a byte][group of 4 SNPs]
    for (int group = 0; group < 8; ++group) {
        words4 snp[4];
        for (int k = 0; k < 4; ++k) {
            snp[k] = words4{0, 0, 0, 0};
            if (4 * group + k < snps) std::memcpy(&snp[k], rows[4 * group + k], chunk_bytes);
        }
        // 4 SNPs x 4 individuals in every byte.
        Bits::exchange(snp[0], snp[2], 4, 0x0F0F0F0F0F0F0F0F);
        Bits::exchange(snp[1], snp[3], 4, 0x0F0F0F0F0F0F0F0F);
        Bits::exchange(snp[0], snp[1], 2, 0x3333333333333333);
        Bits::exchange(snp[2], snp[3], 2, 0x3333333333333333);
        for (int k = 0; k < 4; ++k) part[k][group] = snp[k];
    }
    for (int k = 0; k < 4; ++k) {  // 8 groups x 32 bytes
        words4* const w = part[k];
        for (int i = 0; i < 8; i += 2) interleave<std::uint8_t>(w[i], w[i + 1]);
        for (int i = 0; i < 8; i += 4)
            for (int j = i; j < i + 2; ++j) interleave<std::uint16_t>(w[j], w[j + 2]);
        for (int i = 0; i < 4; ++i) interleave<std::uint32_t>(w[i], w[i + 4]);
        constexpr int order[8] = {0, 4, 2, 6, 1, 5, 3, 7};  // by the bytes that they come from
        for (int i = 0; i < 8; ++i) std::memcpy(words + (8 * k + i) * 4, &w[order[i]], sizeof(words4));
    }
}

constexpr byte_table<false> present_values;
constexpr byte_table<true> missing_values;

template <int Byte>
[[gnu::always_inline]] inline const lanes<4>::type* byte_entry(const double (*table)[4], std::uint64_t word) {
    return reinterpret_cast<const lanes<4>::type*>(reinterpret_cast<const char*>(table) +
                                                   place_of_field<8 * Byte, 8, 5>(word));
}

[[gnu::always_inline]] inline void add_missing_of_word(std::uint64_t word, std::uint64_t missing,
                                                       const double* b, double& sum, std::int32_t& count) {
    const int here = std::popcount(missing);
    count += here;
    if (here <= 4) {
        for (; missing != 0; missing &= missing - 1) sum += b[std::countr_zero(missing) / 2];
        return;
    }
    lanes<4>::type part = {0.0, 0.0, 0.0, 0.0};
    for (int byte = 0; byte < 8; ++byte, word >>= 8)
        part += *byte_entry<0>(missing_values.value, word) *
                *reinterpret_cast<const lanes<4>::type*>(b + 4 * byte);
    sum += (part[0] + part[1]) + (part[2] + part[3]);
}

/// Eight bytes of one SNP: an even and an odd sum, so that an addition need not wait for the one before.
[[gnu::always_inline]] inline void dot_word(std::uint64_t word, const lanes<4>::type* b, lanes<4>::type& even,
                                            lanes<4>::type& odd) {
    even += *byte_entry<0>(present_values.value, word) * b[0];
    odd += *byte_entry<1>(present_values.value, word) * b[1];
    even += *byte_entry<2>(present_values.value, word) * b[2];
    odd += *byte_entry<3>(present_values.value, word) * b[3];
    even += *byte_entry<4>(present_values.value, word) * b[4];
    odd += *byte_entry<5>(present_values.value, word) * b[5];
    even += *byte_entry<6>(present_values.value, word) * b[6];
    odd += *byte_entry<7>(present_values.value, word) * b[7];
}

[[gnu::always_inline]] inline void dot_columns(const std::uint8_t* const* columns, std::int64_t words,
                                               const double* b, snp_sums* sums) {
    using vector = lanes<4>::type;
    constexpr std::uint64_t low_bits = 0x5555555555555555;
    const vector zero = {0.0, 0.0, 0.0, 0.0};
    vector even0 = zero, even1 = zero, even2 = zero, even3 = zero;
    vector odd0 = zero, odd1 = zero, odd2 = zero, odd3 = zero;
    for (std::int64_t k = 0; k < words; ++k, b += 32) {
        std::uint64_t word[4];
        for (int s = 0; s < 4; ++s) std::memcpy(&word[s], columns[s] + 8 * k, 8);
        const vector* const from = reinterpret_cast<const vector*>(b);
        const vector here[8] = {from[0], from[1], from[2], from[3], from[4], from[5], from[6], from[7]};
        dot_word(word[0], here, even0, odd0);
        dot_word(word[1], here, even1, odd1);
        dot_word(word[2], here, even2, odd2);
        dot_word(word[3], here, even3, odd3);
        std::uint64_t missing[4], any = 0;
        for (int s = 0; s < 4; ++s) any |= missing[s] = word[s] & ~(word[s] >> 1) & low_bits;
        if (any != 0) [[unlikely]]
            for (int s = 0; s < 4; ++s)
                if (missing[s] != 0)
                    add_missing_of_word(word[s], missing[s], b, sums[s].missing, sums[s].nmissing);
    }
    const vector all[4] = {even0 + odd0, even1 + odd1, even2 + odd2, even3 + odd3};
    for (int s = 0; s < 4; ++s) sums[s].present += (all[s][0] + all[s][1]) + (all[s][2] + all[s][3]);
}

/// Two words: the even bits of the one and the odd bits of the other are counted at once.
[[gnu::always_inline]] inline void count_words(std::uint64_t first, std::uint64_t second,
                                               plink_counts& counts) {
    constexpr std::uint64_t even = 0x5555555555555555;
    const std::uint64_t low = (first & even) | ((second & even) << 1);
    const std::uint64_t high = ((first >> 1) & even) | (second & ~even);
    const int both = std::popcount(low & high);
    counts.missing += std::popcount(low) - both;
    counts.het += std::popcount(high) - both;
    counts.hom2 += both;
}

[[gnu::always_inline]] inline plink_counts count_bytes(const std::uint8_t* bytes, std::int32_t nrow) {
    plink_counts counts;
    std::int32_t i = 0;
    for (; i + 64 <= nrow; i += 64) {
        std::uint64_t words[2];
        std::memcpy(words, bytes + i / 4, sizeof words);
        count_words(words[0], words[1], counts);
    }
    for (; i < nrow; i += 32) {
        const std::int32_t left = nrow - i;
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + i / 4, static_cast<std::size_t>(left < 32 ? (left + 3) / 4 : 8));
        if (left < 32) word &= (std::uint64_t{1} << (2 * left)) - 1;
        count_words(word, 0, counts);
    }
    return counts;
}

}  // namespace
}  // namespace zendar::detail
