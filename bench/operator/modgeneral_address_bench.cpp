#include <benchmark/benchmark.h>

#include <cstring>
#include <numeric>
#include <random>

#include "modgeneral.hpp"

namespace zendar {
namespace {

/// A model and its records; the levels are random, so that nothing of the coefficients stays in the cache by
/// luck.
struct addressed_model {
    param_type param;
    matrix<std::int32_t> levels;
    std::vector<covariable_type> cov;
    logger log;

    /// @param nclass  class effects, before a covariable of `ncov` coefficients (0: none), nested in `nnest`
    /// levels.
    addressed_model(std::int32_t ntrait, std::int32_t nclass, std::int32_t ncov, std::int32_t nnest,
                    std::int32_t nlevel, std::int64_t nrec) {
        const std::int32_t n = nclass + (ncov > 0 ? 1 : 0);
        param.ntrait = ntrait;
        param.neffect = n;
        param.n_level.assign(n, nlevel);
        param.type_effect.assign(n, 0);
        param.type_random.assign(n, 0);
        param.type_random_eff.assign(n, 0);
        param.n_level_nested.assign(n, 0);
        param.n_cov.assign(n, 1);
        param.n_correlated.assign(n, -1);
        param.link_effect.resize(n);
        param.pos_effects = matrix<std::int32_t>(ntrait, n, 1);
        param.pos_nested2 = matrix<std::int32_t>(ntrait, n);
        for (std::int32_t e = 1; e <= n; ++e) param.andeffect.push_back(e);
        if (ncov > 0) {
            param.type_effect.back() = 1;
            param.n_cov.back() = ncov;
            param.n_level_nested.back() = nnest;
            for (std::int32_t t = 0; t < ntrait && nnest > 0; ++t) param.pos_nested2(t, n - 1) = n + 1;
        }
        setsumlevel(param, log);
        param.neq = static_cast<std::int32_t>(param.sumequation[n + 1]);

        std::mt19937 generator(1);
        const auto upto = [&](std::int32_t limit) {
            return static_cast<std::int32_t>(generator() % limit) + 1;
        };
        levels = matrix<std::int32_t>(n + (nnest > 0 ? 1 : 0), nrec);
        for (std::int64_t i = 0; i < nrec; ++i) {
            for (std::int32_t e = 0; e < n; ++e) levels(e, i) = upto(nlevel);
            if (nnest > 0) levels(n, i) = upto(nnest);
        }
        cov.resize(n);
        if (ncov > 0) {
            std::vector<std::int32_t> indice(static_cast<std::size_t>(nlevel));
            std::iota(indice.begin(), indice.end(), 1);
            cov.back() = covariable_type(std::move(indice), matrix<double>(ncov, nlevel, 1.5));
        }
    }
};

constexpr std::int64_t nrec = 1 << 20;

/// The table of coefficients fits the caches with few levels; with many, its two look-ups set the time.
void BM_setaddressx_alter(benchmark::State& state) {
    addressed_model model(
        static_cast<std::int32_t>(state.range(0)), static_cast<std::int32_t>(state.range(1)),
        static_cast<std::int32_t>(state.range(2)), static_cast<std::int32_t>(state.range(3)),
        static_cast<std::int32_t>(state.range(4)), nrec);
    record_address out(model.param);
    const auto levels = model.levels.view();
    for (auto _ : state)
        for (std::int64_t i = 1; i <= nrec; ++i) {
            setaddressx_alter(model.param, levels, model.cov, i, out, model.log);
            benchmark::DoNotOptimize(out.x.data());
            benchmark::ClobberMemory();
        }
    // What a record has to bring in: its levels, and of a covariable the place and the values of its row.
    const std::int64_t record_bytes = 4 * levels.rows + (state.range(2) > 0 ? 4 + 8 * state.range(2) : 0);
    state.SetItemsProcessed(state.iterations() * nrec);
    state.SetBytesProcessed(state.iterations() * nrec * record_bytes);
    state.counters["record_bytes"] = static_cast<double>(record_bytes);
}
BENCHMARK(BM_setaddressx_alter)
    ->ArgNames({"traits", "class", "ncov", "nest", "levels"})
    ->Args({1, 5, 0, 0, 100000})
    ->Args({3, 5, 0, 0, 100000})
    ->Args({1, 5, 3, 0, 300})
    ->Args({3, 5, 3, 0, 300})
    ->Args({3, 5, 3, 500, 300})
    ->Args({3, 5, 3, 0, 100000})
    ->Unit(benchmark::kMillisecond);

void BM_check_levels(benchmark::State& state) {
    addressed_model model(3, 5, 3, 500, 100000, nrec);
    for (auto _ : state) check_levels(model.param, model.levels.view(), model.log);
    state.SetItemsProcessed(state.iterations() * nrec);
    state.SetBytesProcessed(state.iterations() * nrec * 4 * model.levels.rows());
}
BENCHMARK(BM_check_levels)->Unit(benchmark::kMillisecond)->UseRealTime();

/// The machine's limit on one core: reading and writing arrays far above the caches.
void BM_floor_stream_copy(benchmark::State& state) {
    const std::size_t n = std::size_t{1} << 25;
    std::vector<double> from(n, 1.0), to(n, 2.0);
    for (auto _ : state) {
        for (std::size_t i = 0; i < n; ++i) to[i] = from[i];
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(2 * n * sizeof(double)));
}
BENCHMARK(BM_floor_stream_copy)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zendar
