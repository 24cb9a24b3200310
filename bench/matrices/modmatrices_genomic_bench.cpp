// The genomic relationships: products of genotypes by counting, and the same by DSYRK alone.
//
// n animals and m SNPs have n^2 m / 2 products. Floors of a core at f Hz: 16 f / 2 flops, two a product,
// where doubles are multiplied and added four at a time twice a cycle; 128 products a cycle where bytes are
// looked up 32 at a time twice a cycle, each with two SNPs.

#include <benchmark/benchmark.h>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <memory>
#include <numeric>
#include <random>

#include "bench_floor.hpp"
#include "modblas.hpp"
#include "modmatrices_genomic.hpp"
#include "modstats.hpp"

namespace zendar {
namespace {

covariable_type random_genotypes(std::int32_t n, std::int32_t nsnp, double missing) {
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> uniform;
    covariable_type genotypes;
    const auto data = std::make_shared<covariable_data>();
    plink_genotypes& plink = data->plink;
    plink = plink_genotypes(n, nsnp);
    constexpr std::uint8_t codes[] = {0, 2, 3, 2};
    for (std::int32_t s = 0; s < nsnp; ++s) {
        std::uint64_t bits = 0;
        for (std::int32_t i = 0; i < n; ++i, bits >>= 2) {
            if (i % 32 == 0) bits = random();
            const std::uint8_t code = missing > 0.0 && uniform(random) < missing ? 1 : codes[bits & 3];
            plink.column(s)[i / 4] =
                static_cast<std::uint8_t>(plink.column(s)[i / 4] | code << (2 * (i % 4)));
        }
    }
    genotypes.data = data;
    genotypes.allelefreq.assign(static_cast<std::size_t>(nsnp), 0.5);
    return genotypes;
}

/// Arguments: animals, SNPs, missing genotypes in 1000, threads.
void BM_add_genomic_products(benchmark::State& state) {
    const bench::thread_count threads(state.range(3));
    const auto n = static_cast<std::int32_t>(state.range(0)),
               nsnp = static_cast<std::int32_t>(state.range(1));
    const covariable_type genotypes = random_genotypes(n, nsnp, 1e-3 * static_cast<double>(state.range(2)));
    std::vector<std::int32_t> rows(static_cast<std::size_t>(n));
    std::iota(rows.begin(), rows.end(), 0);
    matrix<double> g(n, n);
    logger silent;
    for (auto _ : state) matrices::add_genomic_products(genotypes, rows, 1.0, g.view(), silent);
    const double products = 0.5 * static_cast<double>(n) * n * nsnp;
    state.counters["products"] = benchmark::Counter(products, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_add_genomic_products)
    ->Args({4000, 20000, 0, 1})
    ->Args({4000, 20000, 0, 2})
    ->Args({4000, 20000, 5, 2})
    ->Args({4000, 20000, 20, 2})
    ->Args({4000, 20000, 40, 2})
    ->Args({4000, 20000, 30, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

/// DSYRK alone: animals, SNPs, threads.
void BM_dsyrk(benchmark::State& state) {
    const bench::thread_count threads(state.range(2));
    const std::int64_t n = state.range(0), nsnp = state.range(1), block = matrices::snp_block;
    const matrix<double> w(n, block);
    matrix<double> g(n, n);
    for (auto _ : state)
        for (std::int64_t first = 0; first < nsnp; first += block) blas_dsyrk(1.0, w.view(), 1.0, g.view());
    const double products = 0.5 * static_cast<double>(n) * static_cast<double>(n * nsnp);
    state.counters["products"] = benchmark::Counter(products, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_dsyrk)
    ->Args({4000, 20000, 1})
    ->Args({4000, 20000, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

#if defined(__x86_64__)
/// Eight chains of look-ups and additions, nothing loaded or stored: products of genotypes of one core.
[[gnu::target("avx2")]] void look_up_in_registers(std::int64_t rounds) {
    __m256i sum[8], table = _mm256_set1_epi8(5), index = _mm256_set1_epi8(3);
    for (__m256i& own : sum) own = _mm256_setzero_si256();
    __m256i &a = sum[0], &b = sum[1], &c = sum[2], &d = sum[3], &e = sum[4], &f = sum[5], &g = sum[6],
            &h = sum[7], t0, t1;
    for (std::int64_t k = 0; k < rounds; ++k)
        asm volatile(
            "vpshufb %[i], %[t], %[t0]; vpaddb %[t0], %[a], %[a]; vpshufb %[i], %[t], %[t1]; vpaddb %[t1], "
            "%[b], %[b];"
            "vpshufb %[i], %[t], %[t0]; vpaddb %[t0], %[c], %[c]; vpshufb %[i], %[t], %[t1]; vpaddb %[t1], "
            "%[d], %[d];"
            "vpshufb %[i], %[t], %[t0]; vpaddb %[t0], %[e], %[e]; vpshufb %[i], %[t], %[t1]; vpaddb %[t1], "
            "%[f], %[f];"
            "vpshufb %[i], %[t], %[t0]; vpaddb %[t0], %[g], %[g]; vpshufb %[i], %[t], %[t1]; vpaddb %[t1], "
            "%[h], %[h]"
            : [a] "+x"(a), [b] "+x"(b), [c] "+x"(c), [d] "+x"(d), [e] "+x"(e), [f] "+x"(f), [g] "+x"(g),
              [h] "+x"(h), [t0] "=&x"(t0), [t1] "=&x"(t1)
            : [t] "x"(table), [i] "x"(index));
}

/// Threads.
void BM_look_up_floor(benchmark::State& state) {
    if (__builtin_cpu_supports("avx2") == 0) {
        state.SkipWithError("this processor has no shuffle of 32 bytes");
        return;
    }
    constexpr std::int64_t rounds = 50000000;
    const bench::thread_count threads(state.range(0));
    for (auto _ : state) {
#pragma omp parallel
        look_up_in_registers(rounds);
    }
    state.counters["products"] = benchmark::Counter(8.0 * 64.0 * static_cast<double>(rounds * state.range(0)),
                                                    benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_look_up_floor)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

}  // namespace
}  // namespace zendar
