#include "modplink_kernels.hpp"

#if defined(__x86_64__)

#include <immintrin.h>

// Kernels for AVX-512: eight columns at once, and for one column tables that stay in registers.

#define ZENDAR_AVX512 [[gnu::target("avx512f,avx512vl,avx512bw,avx2,fma,bmi,bmi2,popcnt")]]

namespace zendar::detail {
namespace {

template <int V>
ZENDAR_AVX512 void fill_512(const double* b, const double* factor, std::int64_t step, double* tables) {
    fill_tables<V>(b, factor, step, tables);
}
template <int V>
ZENDAR_AVX512 void add_512(const std::uint64_t* x, std::int64_t n, const double* tables, double* acc) {
    add_tables<V>(x, n, tables, acc);
}

// ---- one column
// --------------------------------------------------------------------------------------------

constexpr int fields_of_pairs = 16;  ///< two genotypes each
typedef std::uint64_t lanes8 __attribute__((vector_size(64), aligned(8), may_alias));

ZENDAR_AVX512 void fill_pairs_512(const double* b, const double* factor, std::int64_t step, double* tables) {
    for (int field = 0; field < fields_of_pairs; ++field) {
        fill_pairs<1, 1>(b, factor, step, tables);
        b += 2;
        factor += 2 * step;
        tables += 16;
    }
}

/// 32 outputs: a permutation looks the entries of eight up at once, by the lowest four bits of their words.
ZENDAR_AVX512 void add_32(const std::uint64_t* x, const double* tables, double* acc) {
    lanes8 word[4];
    __m512d sum[4];
    for (int k = 0; k < 4; ++k) {
        word[k] = *reinterpret_cast<const lanes8*>(x + 8 * k);
        sum[k] = _mm512_loadu_pd(acc + 8 * k);
    }
    for (int field = 0; field < fields_of_pairs; ++field) {
        const __m512d low = _mm512_loadu_pd(tables + 16 * field),
                      high = _mm512_loadu_pd(tables + 16 * field + 8);
        for (int k = 0; k < 4; ++k) {
            sum[k] =
                _mm512_add_pd(sum[k], _mm512_permutex2var_pd(low, reinterpret_cast<__m512i>(word[k]), high));
            word[k] >>= 4;
        }
    }
    for (int k = 0; k < 4; ++k) _mm512_storeu_pd(acc + 8 * k, sum[k]);
}

ZENDAR_AVX512 void add_pairs_512(const std::uint64_t* x, std::int64_t n, const double* tables, double* acc) {
    std::int64_t i = 0;
    for (; i + 32 <= n; i += 32) add_32(x + i, tables, acc + i);
    if (i < n) {
        const auto left = static_cast<std::size_t>(n - i);
        std::uint64_t word[32] = {};
        double sum[32] = {};
        std::memcpy(word, x + i, left * sizeof word[0]);
        std::memcpy(sum, acc + i, left * sizeof sum[0]);
        add_32(word, tables, sum);
        std::memcpy(acc + i, sum, left * sizeof sum[0]);
    }
}

// ---- ten columns ---------------------------------------------------------------------------------------

// Eight and two: the tables of the two stand behind those of the eight, and one place serves both.
constexpr std::int64_t tables_of_eight = fields_of_word * 64 * 8;

ZENDAR_AVX512 void fill_ten(const double* b, const double* factor, std::int64_t step, double* tables) {
    fill_tables<8, 10>(b, factor, step, tables);
    fill_tables<2, 10>(b + 8, factor, step, tables + tables_of_eight);
}

template <int Field>
[[gnu::always_inline]] inline void add_field(std::uint64_t word, const double* tables, lanes<8>::type& eight,
                                             lanes<2>::type& two) {
    const std::uint64_t at = place_of_field<6 * Field, 6, 4>(word);  // of 16 bytes
    const auto* const first = reinterpret_cast<const char*>(tables) + Field * 64 * 64;
    const auto* const second = reinterpret_cast<const char*>(tables + tables_of_eight) + Field * 64 * 16;
    eight += *reinterpret_cast<const lanes<8>::type*>(first + 4 * at);
    two += *reinterpret_cast<const lanes<2>::type*>(second + at);
}

ZENDAR_AVX512 void add_ten(const std::uint64_t* x, std::int64_t n, const double* tables, double* acc) {
    for (std::int64_t i = 0; i < n; ++i) {
        using eight = lanes<8>::type;
        using two = lanes<2>::type;
        eight even8 = *reinterpret_cast<const eight*>(acc + 10 * i), odd8 = {};
        two even2 = *reinterpret_cast<const two*>(acc + 10 * i + 8), odd2 = {};
        add_field<0>(x[i], tables, even8, even2);
        add_field<1>(x[i], tables, odd8, odd2);
        add_field<2>(x[i], tables, even8, even2);
        add_field<3>(x[i], tables, odd8, odd2);
        add_field<4>(x[i], tables, even8, even2);
        add_field<5>(x[i], tables, odd8, odd2);
        add_field<6>(x[i], tables, even8, even2);
        add_field<7>(x[i], tables, odd8, odd2);
        *reinterpret_cast<eight*>(acc + 10 * i) = even8 + odd8;
        *reinterpret_cast<two*>(acc + 10 * i + 8) = even2 + odd2;
    }
}

// ---- the others ----------------------------------------------------------------------------------------

ZENDAR_AVX512 void transpose_512(const std::uint8_t* const* rows, std::int32_t snps, std::uint64_t* words) {
    transpose_chunk<select_bits>(rows, snps, words);
}
ZENDAR_AVX512 inline __m512d decode_8(lanes8 codes, __m512d values) {
    return _mm512_permutex2var_pd(values, reinterpret_cast<__m512i>(codes), values);
}

/// A permutation decodes eight genotypes, whose codes stand in the lowest bits of their lanes.
ZENDAR_AVX512 void dot_512(const std::uint8_t* const* columns, std::int64_t words, const double* b,
                           snp_sums* sums) {
    constexpr std::uint64_t low_bits = 0x5555555555555555;
    using vector = lanes<8>::type;
    const vector values = {0.0, 0.0, 1.0, 2.0, 0.0, 0.0, 1.0, 2.0};  // what follows a code does not matter
    const lanes8 places = {0, 2, 4, 6, 8, 10, 12, 14};
    vector even[4] = {}, odd[4] = {};
    for (std::int64_t k = 0; k < words; ++k, b += 32) {
        const vector* const from = reinterpret_cast<const vector*>(b);
        const vector here[4] = {from[0], from[1], from[2], from[3]};
        std::uint64_t missing[4], any = 0;
        for (int s = 0; s < 4; ++s) {
            std::uint64_t word;
            std::memcpy(&word, columns[s] + 8 * k, 8);
            any |= missing[s] = word & ~(word >> 1) & low_bits;
            const lanes8 all = lanes8{} + word;
            even[s] += decode_8(all >> places, values) * here[0];
            odd[s] += decode_8(all >> (places + 16), values) * here[1];
            even[s] += decode_8(all >> (places + 32), values) * here[2];
            odd[s] += decode_8(all >> (places + 48), values) * here[3];
        }
        if (any != 0) [[unlikely]]
            for (int s = 0; s < 4; ++s)
                if (missing[s] != 0) {
                    std::uint64_t word;
                    std::memcpy(&word, columns[s] + 8 * k, 8);
                    add_missing_of_word(word, missing[s], b, sums[s].missing, sums[s].nmissing);
                }
    }
    for (int s = 0; s < 4; ++s) {
        const vector sum = even[s] + odd[s];
        sums[s].present += ((sum[0] + sum[1]) + (sum[2] + sum[3])) + ((sum[4] + sum[5]) + (sum[6] + sum[7]));
    }
}
ZENDAR_AVX512 plink_counts count_512(const std::uint8_t* bytes, std::int32_t nrow) {
    return count_bytes(bytes, nrow);
}
/// With an instruction that counts the bits of eight words, which not all of these processors have.
[[gnu::target("avx512f,avx512vl,avx512bw,avx512vpopcntdq,avx2,fma,bmi,bmi2,popcnt")]] plink_counts
count_vpopcntdq(const std::uint8_t* bytes, std::int32_t nrow) {
    constexpr std::uint64_t even = 0x5555555555555555;
    constexpr std::int32_t at_once = 512;
    lanes8 lows = {}, highs = {}, boths = {};
    std::int32_t i = 0;
    for (; i + at_once <= nrow; i += at_once) {
        lanes8 first, second;
        std::memcpy(&first, bytes + i / 4, sizeof first);
        std::memcpy(&second, bytes + i / 4 + sizeof first, sizeof second);
        const lanes8 low = (first & even) | ((second & even) << 1);
        const lanes8 high = ((first >> 1) & even) | (second & ~even);
        lows += reinterpret_cast<lanes8>(_mm512_popcnt_epi64(reinterpret_cast<__m512i>(low)));
        highs += reinterpret_cast<lanes8>(_mm512_popcnt_epi64(reinterpret_cast<__m512i>(high)));
        boths += reinterpret_cast<lanes8>(_mm512_popcnt_epi64(reinterpret_cast<__m512i>(low & high)));
    }
    plink_counts counts = count_bytes(bytes + i / 4, nrow - i);
    for (int lane = 0; lane < 8; ++lane) {
        counts.missing += static_cast<std::int32_t>(lows[lane] - boths[lane]);
        counts.het += static_cast<std::int32_t>(highs[lane] - boths[lane]);
        counts.hom2 += static_cast<std::int32_t>(boths[lane]);
    }
    return counts;
}

}  // namespace

const plink_kernels& plink_kernels_512() {
    static const plink_kernels kernels{
        "avx512",
        {fill_pairs_512, add_pairs_512},
        {fill_512<2>, add_512<2>},
        {fill_512<4>, add_512<4>},
        {fill_512<8>, add_512<8>},
        {fill_ten, add_ten},
        10,
        1,
        dot_512,
        transpose_512,
        __builtin_cpu_supports("avx512vpopcntdq") != 0 ? count_vpopcntdq : count_512,
        [] {
            return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512vl") != 0 &&
                   __builtin_cpu_supports("avx512bw") != 0 && __builtin_cpu_supports("fma") != 0 &&
                   __builtin_cpu_supports("bmi") != 0 && __builtin_cpu_supports("bmi2") != 0 &&
                   __builtin_cpu_supports("popcnt") != 0;
        }};
    return kernels;
}

}  // namespace zendar::detail

#endif
