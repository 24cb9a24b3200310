#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "bench_floor.hpp"
#include "modbasic.hpp"
#include "modpedigree.hpp"

namespace {

using namespace zendar;

/// Animals of each generation; sires and dams are taken at random from among the first ones of the
/// generation before.
struct population {
    std::int32_t generations = 10, per_generation = 100'000, sires = 2'000, dams = 50'000;
};

/// A million animals in 10 generations of 100,000. The parents of a generation are 2,000 sires and 50,000
/// dams of the one before, drawn at random from it once; each animal then has a random one of either. Codes
/// are by age, within a generation in random order.
const pedigree_type& pedigree() {
    static const pedigree_type made = [] {
        const population size;
        std::mt19937 random(1);
        pedigree_type ped;
        ped.nupg = 0;
        ped.ped = matrix<std::int32_t>(2, size.generations * size.per_generation);
        std::vector<std::int32_t> codes(static_cast<std::size_t>(size.per_generation));
        for (std::int32_t g = 1; g < size.generations; ++g) {
            const std::int32_t before = (g - 1) * size.per_generation;
            std::iota(codes.begin(), codes.end(), before + 1);
            std::shuffle(codes.begin(), codes.end(), random);
            for (std::int32_t k = 0; k < size.per_generation; ++k) {
                ped.ped(0, before + size.per_generation + k) = codes[random() % size.sires];
                ped.ped(1, before + size.per_generation + k) = codes[size.sires + random() % size.dams];
            }
        }
        return ped;
    }();
    return made;
}

/// Animals that the paths from all animals lead to, each counted once for each of these: the visits that
/// method 1 makes.
double visits() {
    static const double counted = [] {
        const matrix<std::int32_t>& ped = pedigree().ped;
        constexpr std::int64_t every = 997;
        std::vector<std::int32_t> pending;
        std::vector<std::int64_t> seen(static_cast<std::size_t>(ped.cols()) + 1, 0);
        double count = 0.0;
        for (std::int64_t i = 1; i <= ped.cols(); i += every) {
            pending.assign(1, static_cast<std::int32_t>(i));
            while (!pending.empty()) {
                const std::int32_t animal = pending.back();
                pending.pop_back();
                for (const std::int32_t parent : ped.column(animal - 1)) {
                    if (parent == 0 || seen[parent] == i) continue;
                    seen[parent] = i;
                    pending.push_back(parent);
                    count += 1.0;
                }
            }
        }
        return count * static_cast<double>(every);
    }();
    return counted;
}

/// The whole of it on one core: order, coefficients, copy back. "visits" are those of method 1.
void BM_computeinbreeding_ped(benchmark::State& state) {
    const bench::thread_count one(1);
    pedigree_type ped;
    ped.ped = pedigree().ped;
    ped.nupg = 0;
    logger log;
    double sum = 0.0;
    for (auto _ : state) {
        ped.computeinbreeding_ped({static_cast<std::int32_t>(state.range(0)), ""}, log);
        sum = std::accumulate(ped.f.begin(), ped.f.end(), 0.0);
        benchmark::DoNotOptimize(sum);
    }
    const auto n = static_cast<double>(ped.nlength());
    state.counters["mean_f"] = sum / n;
    state.counters["visits"] = visits() / n;
    state.counters["s_per_animal"] =
        benchmark::Counter(n, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["s_per_visit"] = benchmark::Counter(
        visits(), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_computeinbreeding_ped)->ArgName("method")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

void BM_getorder(benchmark::State& state) {
    pedigree_type ped;
    ped.nupg = 0;
    ped.ped = pedigree().ped;
    const std::int32_t n = ped.nlength();
    if (state.range(0) != 0) {  // codes without any order
        std::vector<std::int32_t> code(static_cast<std::size_t>(n));
        std::iota(code.begin(), code.end(), 1);
        std::mt19937 random(2);
        std::shuffle(code.begin(), code.end(), random);
        for (std::int32_t i = 1; i <= n; ++i)
            for (std::int64_t k = 0; k < 2; ++k) {
                const std::int32_t parent = pedigree().ped(k, i - 1);
                ped.ped(k, code[i - 1] - 1) = parent == 0 ? 0 : code[parent - 1];
            }
    }
    logger log;
    for (auto _ : state) benchmark::DoNotOptimize(ped.getorder(log).order.data());
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_getorder)->ArgName("shuffled")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

/// Four million lines; the figure of bytes is that of the text, which the page cache holds.
void BM_readpedigree_max(benchmark::State& state) {
    const bench::thread_count threads(state.range(0));
    constexpr std::int32_t n = 4'000'000;
    const auto path =
        std::filesystem::temp_directory_path() / ("zendar_bench_" + inttochar(getpid()) + ".ped");
    {
        std::ofstream out(path, std::ios::binary);
        std::mt19937 random(1);
        for (std::int32_t i = 1; i <= n; ++i)
            out << i << ' ' << (i < 100 ? 0 : random() % i) << ' ' << (i < 100 ? 0 : random() % i) << '\n';
    }
    logger log;
    for (auto _ : state) {
        pedigree_type ped;
        ped.readpedigree_max(path.string(), n, 0, log);
        benchmark::DoNotOptimize(ped.ped.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(std::filesystem::file_size(path)));
    std::filesystem::remove(path);
}
BENCHMARK(BM_readpedigree_max)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
