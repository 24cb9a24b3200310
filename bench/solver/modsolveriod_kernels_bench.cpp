// The two vector regions of an iteration of the conjugate gradients, beside the time of streaming their bytes
// at the read bandwidth measured in the same run ("of_floor").
//
// Bytes per equation: 3 passes for the direction (z, p in, p out), 8 for the solution (p and w for the step,
// then p, w, and x and r in and out). Arguments: thousands of equations, threads.

#include <benchmark/benchmark.h>

#include "bench_floor.hpp"
#include "modsolveriod_detail.hpp"

namespace zendar {
namespace {

struct bench_vectors {
    explicit bench_vectors(std::int64_t n) : x(n), r(n), p(n), z(n), w(n) {
        for (detail::work_vector* const v : {&r, &p, &z, &w}) {
            const std::span<double> values = *v;
            for (std::int64_t i = 0; i < n; ++i) values[i] = 1.0 + 1e-3 * static_cast<double>(i % 7);
        }
    }
    detail::work_vector x, r, p, z, w;
};

void report(benchmark::State& state, double bytes, double seconds) {
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
    state.counters["of_floor"] =
        seconds / static_cast<double>(state.iterations()) / (bytes / bench::read_bandwidth());
}

void BM_update_direction(benchmark::State& state) {
    const std::int64_t n = 1000 * state.range(0);
    const bench::thread_count threads(state.range(1));
    bench_vectors v(n);
    const wtime clock;
    for (auto _ : state) {
        detail::update_direction(v.z, 1e-30, v.p);
        benchmark::ClobberMemory();
    }
    report(state, 3.0 * 8.0 * static_cast<double>(n), clock.seconds());
}

void BM_update_solution(benchmark::State& state) {
    const std::int64_t n = 1000 * state.range(0);
    const bench::thread_count threads(state.range(1));
    bench_vectors v(n);
    const wtime clock;
    for (auto _ : state) benchmark::DoNotOptimize(detail::update_solution(1e-30, v.p, v.w, v.x, v.r));
    report(state, 8.0 * 8.0 * static_cast<double>(n), clock.seconds());
}

void sizes(benchmark::internal::Benchmark* b) {
    b->ArgsProduct({{1000, 20000}, {1, 2}})->UseRealTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_update_direction)->Apply(sizes);
BENCHMARK(BM_update_solution)->Apply(sizes);

}  // namespace
}  // namespace zendar
