#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <utility>

#include "bench_floor.hpp"
#include "modbasic.hpp"
#include "modpedigree.hpp"
#include "modstats.hpp"

namespace {

using namespace zendar;

constexpr std::int32_t million = 1'000'000;

/// A pedigree of 10 generations of equal size; a million animals if nothing else is said. The parents of a
/// generation are 2 % of the one before as sires and 50 % of it as dams, drawn at random from it once; each
/// animal then has a random one of either. Codes are by age, within a generation in random order.
const pedigree_type& pedigree(std::int32_t nanimal = million) {
    static std::map<std::int32_t, pedigree_type> made;
    pedigree_type& ped = made[nanimal];
    if (ped.nlength() > 0) return ped;
    constexpr std::int32_t generations = 10;
    const std::int32_t size = nanimal / generations, sires = size / 50, dams = size / 2;
    std::mt19937 random(1);
    ped.nupg = 0;
    ped.ped = matrix<std::int32_t>(2, generations * size);
    std::vector<std::int32_t> codes(static_cast<std::size_t>(size));
    for (std::int32_t g = 1; g < generations; ++g) {
        const std::int32_t before = (g - 1) * size;
        std::iota(codes.begin(), codes.end(), before + 1);
        std::shuffle(codes.begin(), codes.end(), random);
        for (std::int32_t k = 0; k < size; ++k) {
            ped.ped(0, before + size + k) = codes[random() % sires];
            ped.ped(1, before + size + k) = codes[sires + random() % dams];
        }
    }
    return ped;
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

/// How the cost grows: coefficients by either method (1, 2), the order (3), A-inverse (4).
void BM_growth(benchmark::State& state) {
    const bench::thread_count one(1);
    const auto step = state.range(0);
    pedigree_type ped;
    ped.ped = pedigree(static_cast<std::int32_t>(state.range(1))).ped;
    ped.nupg = 0;
    logger log;
    if (step == 4) ped.computeinbreeding_ped({2, ""}, log);
    std::int64_t elements = 0;
    for (auto _ : state) {
        if (step <= 2)
            ped.computeinbreeding_ped({static_cast<std::int32_t>(step), ""}, log);
        else if (step == 3)
            benchmark::DoNotOptimize(ped.getorder(log).order.data());
        else
            elements = ped.computeasparse_ped(3, 0.0, 1, log).totalnumberofelements();
    }
    const auto n = static_cast<double>(ped.nlength());
    state.SetLabel(step == 3 ? "order" : step == 4 ? "A-inverse" : "inbreeding");
    state.counters["s_per_animal"] =
        benchmark::Counter(n, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    if (elements > 0) state.counters["elements"] = static_cast<double>(elements);
}
BENCHMARK(BM_growth)
    ->ArgsProduct({{1, 2, 3, 4}, {million / 4, million, 4 * million}})
    ->ArgNames({"step", "animals"})
    ->Unit(benchmark::kMillisecond);

/// The pedigree with its animals along the maternal lines: each one right behind its dam, or behind an older
/// sib with all of its own offspring.
pedigree_type in_maternal_lines() {
    const matrix<std::int32_t>& ped = pedigree().ped;
    const auto n = static_cast<std::int32_t>(ped.cols());
    std::vector<std::int32_t> eldest(static_cast<std::size_t>(n) + 1, 0), next(eldest), code(eldest);
    for (std::int32_t i = n; i >= 1; --i) next[i] = std::exchange(eldest[ped(1, i - 1)], i);
    std::int32_t given = 0;
    std::vector<std::int32_t> open{eldest[0]};
    while (!open.empty()) {
        const std::int32_t i = open.back();
        open.pop_back();
        if (i == 0) continue;
        code[i] = ++given;
        open.push_back(next[i]);
        open.push_back(eldest[i]);
    }
    pedigree_type renumbered;
    renumbered.nupg = 0;
    renumbered.ped = matrix<std::int32_t>(2, n);
    for (std::int32_t i = 1; i <= n; ++i)
        for (std::int64_t k = 0; k < 2; ++k) renumbered.ped(k, code[i] - 1) = code[ped(k, i - 1)];
    return renumbered;
}

/// A-inverse times six columns beside a floor: the bytes of the matrix and of both dense arrays at the rate
/// of streaming, and the reads and additions at the positions of the elements beside the diagonal, as a loop
/// over random positions takes them; both measured in the same run.
void BM_ainverse_product(benchmark::State& state) {
    const bench::thread_count threads(state.range(0));
    constexpr std::int64_t columns = 6;
    pedigree_type ped;
    if (state.range(1) != 0)
        ped = in_maternal_lines();
    else
        ped.ped = pedigree().ped;
    ped.nupg = 0;
    logger log;
    ped.computeinbreeding_ped({2, ""}, log);
    const crssparse ainv = ped.computeasparse_ped(3, 0.0, 1, log);
    const std::int64_t n = ped.nlength();
    const matrix<double> x(n, columns, 0.5);
    matrix<double> y(n, columns);
    double best = 1e30;
    for (auto _ : state) {
        const wtime clock;
        ainv.multgenm(1.0, 'n', x.view(), 0.0, y.view());
        best = std::min(best, clock.seconds());
    }
    const auto elements = static_cast<double>(ainv.totalnumberofelements());
    const double bytes =
        12.0 * elements + 4.0 * static_cast<double>(n) + 24.0 * static_cast<double>(n * columns);
    const double stream = bytes / bench::read_bandwidth();
    std::vector<std::int32_t> index;
    const crs_view<std::int32_t> view = ainv.view();
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int32_t k = view.ia[i] - 1; k < view.ia[i + 1] - 1; ++k)
            if (view.ja[k] != i + 1) index.push_back(view.ja[k] - 1);
    const double random = bench::random_access_seconds(index, n, 1) * columns;
    state.counters["of_stream"] = best / stream;
    state.counters["of_floor"] = best / (stream + random);
    state.counters["elements"] = elements;
}
BENCHMARK(BM_ainverse_product)
    ->ArgNames({"threads", "maternal_lines"})
    ->ArgsProduct({{1, 2}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

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
