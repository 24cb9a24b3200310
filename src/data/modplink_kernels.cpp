#include "modplink_kernels.hpp"

namespace zendar::detail {
namespace {

// ---- one function per instruction set ----------------------------------------------------------------

template <int V>
void fill_any(const double* b, const double* factor, std::int64_t step, double* tables) {
    fill_tables<V>(b, factor, step, tables);
}
template <int V>
void add_any(const std::uint64_t* x, std::int64_t n, const double* tables, double* acc) {
    add_tables<V>(x, n, tables, acc);
}
void transpose_any(const std::uint8_t* const* rows, std::int32_t snps, std::uint64_t* words) {
    transpose_chunk<exchange_bits>(rows, snps, words);
}
void dot_any(const std::uint8_t* const* columns, std::int64_t words, const double* b, snp_sums* sums) {
    dot_columns(columns, words, b, sums);
}
plink_counts count_any(const std::uint8_t* bytes, std::int32_t nrow) {
    return count_bytes(bytes, nrow);
}

#if defined(__x86_64__)
template <int V>
[[gnu::target("avx2,fma,bmi,bmi2,popcnt")]] void fill_avx2(const double* b, const double* factor,
                                                           std::int64_t step, double* tables) {
    fill_tables<V>(b, factor, step, tables);
}
template <int V>
[[gnu::target("avx2,fma,bmi,bmi2,popcnt")]] void add_avx2(const std::uint64_t* x, std::int64_t n,
                                                          const double* tables, double* acc) {
    add_tables<V>(x, n, tables, acc);
}
[[gnu::target("avx2,fma,bmi,bmi2,popcnt")]] void transpose_avx2(const std::uint8_t* const* rows,
                                                                std::int32_t snps, std::uint64_t* words) {
    transpose_chunk<exchange_bits>(rows, snps, words);
}
[[gnu::target("avx2,fma,bmi,bmi2,popcnt")]] void dot_avx2(const std::uint8_t* const* columns,
                                                          std::int64_t words, const double* b,
                                                          snp_sums* sums) {
    dot_columns(columns, words, b, sums);
}
[[gnu::target("avx2,fma,bmi,bmi2,popcnt")]] plink_counts count_avx2(const std::uint8_t* bytes,
                                                                    std::int32_t nrow) {
    return count_bytes(bytes, nrow);
}
#endif

std::span<const plink_kernels> rows() {
    static const plink_kernels kernels[] = {
        {"generic",
         {fill_any<1>, add_any<1>},
         {fill_any<2>, add_any<2>},
         {fill_any<4>, add_any<4>},
         {nullptr, nullptr},
         {nullptr, nullptr},
         4,
         2,
         dot_any,
         transpose_any,
         count_any,
         [] { return true; }},
#if defined(__x86_64__)
        {"avx2",
         {fill_avx2<1>, add_avx2<1>},
         {fill_avx2<2>, add_avx2<2>},
         {fill_avx2<4>, add_avx2<4>},
         {nullptr, nullptr},
         {nullptr, nullptr},
         4,
         2,
         dot_avx2,
         transpose_avx2,
         count_avx2,
         [] {
             return __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0 &&
                    __builtin_cpu_supports("bmi") != 0 && __builtin_cpu_supports("bmi2") != 0 &&
                    __builtin_cpu_supports("popcnt") != 0;
         }},
        plink_kernels_512(),
#endif
    };
    return kernels;
}

}  // namespace

std::span<const plink_kernels> all_plink_kernels() {
    return rows();
}

const plink_kernels& best_plink_kernels() {
    const plink_kernels* best = &rows()[0];
    for (const plink_kernels& candidate : rows())
        if (candidate.is_supported()) best = &candidate;
    return *best;
}

}  // namespace zendar::detail
