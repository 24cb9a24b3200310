#include <benchmark/benchmark.h>

#include <random>

#include "bench_floor.hpp"
#include "modpreconditioneriod.hpp"

namespace zendar {
namespace {

constexpr std::int32_t neq = 6000000;

/// A preconditioner of one effect, order 0 for a diagonal, as it is after the inversion.
std::vector<mija> one_effect(std::int32_t order) {
    std::vector<mija> result(1);
    mija& part = result[0];
    part.first = 1;
    part.last = neq;
    if (order == 0) {
        part.type = precond_diagonal;
        part.dim1 = neq;
        part.mat.assign(neq, 0.5f);
        return result;
    }
    part.type = precond_block;
    part.dim1 = part.dim2 = order;
    part.dim3 = neq / order;
    part.block.assign(static_cast<std::size_t>(part.dim3) * order * (order + 1) / 2, 0.5f);
    part.stretches = {{0, order, order}};
    return result;
}

/// Times M^-1 x. `floor`: the ratio to the time of streaming the bytes at the measured bandwidth; y counts
/// twice, as its lines are read before they are written.
void BM_preconditionertimesx(benchmark::State& state) {
    const auto order = static_cast<std::int32_t>(state.range(0));
    const bool gathered = state.range(1) != 0;
    const bench::thread_count threads(state.range(2));
    std::vector<mija> m = one_effect(order);
    const std::int64_t bytes = neq * std::int64_t{24} + std::ssize(m[0].mat) * 4 + std::ssize(m[0].block) * 4;
    if (gathered) m[0].stretches = {{0, 1, 1}, {m[0].dim3, order - 1, order - 1}};
    std::vector<double> x(neq, 1.0), y(neq, 0.0), work;
    logger silent;
    for (auto _ : state) {
        benchmark::DoNotOptimize(modpreconditioneriod::preconditionertimesx(y, m, x, work, silent));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * bytes);
    const double floor = static_cast<double>(bytes) / bench::read_bandwidth();
    state.counters["floor"] = benchmark::Counter(floor * static_cast<double>(state.iterations()),
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_preconditionertimesx)
    ->ArgNames({"order", "gathered", "threads"})
    ->ArgsProduct({{0, 1, 2, 3, 6}, {0}, {1, 2}})
    ->Args({2, 1, 1})
    ->Args({3, 1, 1})
    ->Args({6, 1, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

/// Class effects of 10, 50,000 and 1,000,000 levels, the last one random and in the order of the records.
struct class_model {
    static constexpr std::int64_t nrec = 1000000;
    param_type param;
    phenotype_data data;
    std::vector<covariable_type> cov;
    logger log;

    class_model(std::int32_t ntrait, bool weights) {
        const std::vector<std::int32_t> levels{10, 50000, 1000000};
        const std::int32_t n = 3;
        param.ntrait = ntrait;
        param.neffect = n;
        param.n_level = levels;
        param.type_effect.assign(n, 0);
        param.type_random = param.type_random_eff = {0, 0, 1};
        param.n_correlated = {-1, -1, 0};
        param.n_level_nested.assign(n, 0);
        param.n_cov.assign(n, 1);
        param.andeffect = {1, 2, 3};
        param.pos_effects = matrix<std::int32_t>(ntrait, n, 1);
        param.pos_nested2 = matrix<std::int32_t>(ntrait, n);
        param.link_effect.resize(n);
        param.nweight = weights ? ntrait : 0;
        param.g.resize(n);
        param.g[2] = matrix<double>(ntrait, ntrait);
        for (std::int32_t t = 0; t < ntrait; ++t) param.g[2](t, t) = 2.0;
        param.n_residual_cov = 1;
        param.r = {matrix<double>(ntrait, ntrait, 0.3)};
        for (std::int32_t t = 0; t < ntrait; ++t) param.r[0](t, t) = 1.0;
        setsumlevel(param, log);
        param.neq = static_cast<std::int32_t>(param.sumequation[n + 1]);
        cov.resize(n);

        std::mt19937 generator(1);
        const std::int32_t npattern = (1 << ntrait) - 1;
        for (std::int32_t k = 1; k <= npattern; ++k) param.combination.push_back(k);
        param.ncombination = npattern;
        data.effect = matrix<std::int32_t>(n + 1, nrec, 1);
        if (weights) data.weight = matrix<double>(ntrait, nrec, 1.5);
        for (std::int64_t i = 0; i < nrec; ++i) {
            for (std::int32_t e = 0; e < n - 1; ++e)
                data.effect(e, i) = static_cast<std::int32_t>(generator() % levels[e]) + 1;
            data.effect(n - 1, i) = static_cast<std::int32_t>(i) + 1;
            data.combitrait.push_back(static_cast<std::int32_t>(generator() % npattern) + 1);
        }
    }
};

/// The set-up, beside the time of one product. `letter`: 0 d, 1 b for all effects.
void BM_create_mija_lhs(benchmark::State& state) {
    const bench::thread_count threads(state.range(2));
    class_model model(static_cast<std::int32_t>(state.range(0)), state.range(0) > 1);
    model.param.lstructprecond = true;
    model.param.structprecond.assign(3, state.range(1) == 0 ? 'd' : 'b');
    mme_iod mme(model.param, model.data, model.cov, model.log);
    mme.setup_lhsrhs_iod(2);
    std::vector<double> x(model.param.neq, 1.0), r(model.param.neq);
    mme.atimesx(x, r);
    const wtime clock;
    for (int i = 0; i < 5; ++i) mme.atimesx(x, r);
    const double product = clock.seconds() / 5.0;
    for (auto _ : state) {
        preconditioner m = modpreconditioneriod::create_mija_lhs(mme, model.log);
        benchmark::DoNotOptimize(&m);
    }
    state.counters["products"] =
        benchmark::Counter(product * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["product_ms"] = product * 1e3;
}
BENCHMARK(BM_create_mija_lhs)
    ->ArgNames({"traits", "letter", "threads"})
    ->ArgsProduct({{1, 3}, {0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace zendar
