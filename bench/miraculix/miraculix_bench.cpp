#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "bench_floor.hpp"
#include "miraculix.hpp"
#include "modblas.hpp"

// Products of the five-code store beside DGEMM with the genotypes as doubles (which take 3.2 GB), and the
// making of the store. The genotypes are those of `size` SNPs on as many individuals.

namespace {

using namespace zendar;

constexpr std::int64_t size = 20'000;

const std::vector<std::uint8_t>& plink() {
    static const std::vector<std::uint8_t> bytes = [] {
        std::vector<std::uint8_t> b(size * size / 4);
        std::mt19937_64 random(1);
        for (std::uint8_t& byte : b) byte = static_cast<std::uint8_t>(random() >> 20);
        return b;
    }();
    return bytes;
}

const std::vector<double>& frequencies() {
    static const std::vector<double> f(size, 0.4);
    return f;
}

void set_options(std::int64_t threads) {
    miraculix::setOptions_compressed(0, static_cast<std::int32_t>(threads), 0, 0, 1, 0, 0, 0, 0, 0);
}

miraculix::compressed_store* build() {
    miraculix::compressed_store* store = nullptr;
    miraculix::plink2compressed(plink().data(), nullptr, size, size, frequencies().data(), 10, &store);
    return store;
}

const miraculix::compressed_store* store() {
    static const miraculix::compressed_store* const made = build();
    return made;
}

/// G as doubles, individuals x SNPs.
const std::vector<double>& decoded() {
    static const std::vector<double> g = [] {
        constexpr double genotype[4] = {0, 0, 1, 2};
        std::vector<double> d(size * size);
        for (std::int64_t i = 0; i < size * size; ++i) d[i] = genotype[(plink()[i / 4] >> (2 * (i % 4))) & 3];
        return d;
    }();
    return g;
}

std::vector<double> right_hand_side(std::int64_t n) {
    std::mt19937_64 random(2);
    std::uniform_real_distribution<double> value(-1, 1);
    std::vector<double> b(size * n);
    for (double& x : b) x = value(random);
    return b;
}

/// Multiplications and additions of the dense product, for all methods: what they are compared by.
void count(benchmark::State& state, std::int64_t n) {
    state.counters["Gflop/s"] = benchmark::Counter(2e-9 * size * size * static_cast<double>(n),
                                                   benchmark::Counter::kIsIterationInvariantRate);
}

/// Arguments: transposed, columns, threads.
void BM_dgemm_compressed(benchmark::State& state) {
    set_options(state.range(2));
    const std::int64_t n = state.range(1);
    const std::vector<double> b = right_hand_side(n);
    std::vector<double> c(size * n);
    store();
    for (auto _ : state) {
        miraculix::dgemm_compressed(state.range(0) != 0 ? 'T' : 'N', store(), static_cast<std::int32_t>(n),
                                    b.data(), size, c.data(), size);
        benchmark::ClobberMemory();
    }
    count(state, n);
}

void BM_dgemm(benchmark::State& state) {
    const bench::thread_count threads(state.range(2));
    const std::int64_t n = state.range(1);
    const std::vector<double> b = right_hand_side(n);
    std::vector<double> c(size * n);
    decoded();
    for (auto _ : state) {
        blas_dgemm(state.range(0) != 0, false, 1.0, {decoded().data(), size, size, size},
                   {b.data(), size, n, size}, 0.0, {c.data(), size, n, size});
        benchmark::ClobberMemory();
    }
    count(state, n);
}

/// Bytes are those of the PLINK matrix.
void BM_plink2compressed(benchmark::State& state) {
    set_options(state.range(0));
    plink();
    for (auto _ : state) {
        miraculix::compressed_store* made = build();
        state.PauseTiming();
        miraculix::free_compressed(&made);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * size * size / 4);
}

void BM_read_bandwidth(benchmark::State& state) {
    const bench::thread_count threads(state.range(0));
    double best = 0.0;
    for (auto _ : state) best = std::max(best, bench::read_bandwidth());
    state.counters["GB/s"] = best * 1e-9;
}

const std::vector<std::vector<std::int64_t>> cases = {{0, 1}, {1, 4, 10, 32}, {1, 2}};

BENCHMARK(BM_plink2compressed)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_read_bandwidth)->Arg(1)->Arg(2)->Iterations(1);
BENCHMARK(BM_dgemm_compressed)->ArgsProduct(cases)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_dgemm)->ArgsProduct(cases)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
