// One product with the least-squares part by iteration on data, beside what the memory takes for it at best,
// measured in the same run: "of_stream" counts the time of streaming its bytes, "of_floor" also the random
// reads and additions of the class effect whose levels come in no order.
//
// Bytes per record: 4 for each row of the levels and for the combination, 8 for each weight, and, since the
// records are sorted by the effect with the most equations, 8 for each of its equations in x and 24 in r
// (zeroed, read and written), divided by the records of a level. The smaller effects stay in the first cache.
// The models are those of record_model.hpp.

#include <benchmark/benchmark.h>

#include "bench_floor.hpp"
#include "modmmeiod.hpp"
#include "record_model.hpp"

namespace zendar {
namespace {

using bench::bench_model;
using bench::model_of;
using bench::nrec;

/// Arguments: model; kernel (loptimem); threads.
void BM_computeleastsquarepart(benchmark::State& state) {
    const bench::thread_count threads(state.range(2));
    bench_model& m = model_of(state.range(0));
    logger silent;
    mme_iod op(m.param, m.data, m.cov, silent);
    op.setup_lhsrhs_iod(static_cast<std::int32_t>(state.range(1)));
    std::vector<double> x(static_cast<std::size_t>(m.param.neq), 0.25), r(x.size());
    double best = 1e30;
    for (auto _ : state) {
        const wtime clock;
        op.computeleastsquarepart(x, r);
        benchmark::DoNotOptimize(r.data());
        best = std::min(best, clock.seconds());
    }
    const double bandwidth = bench::read_bandwidth(), stream = m.bytes / bandwidth;
    std::vector<std::int32_t> index(nrec);
    for (std::int64_t i = 0; i < nrec; ++i) index[i] = m.data.effect(m.unsorted_row, i) - 1;
    const double random =
        bench::random_access_seconds(index, m.param.n_level[m.unsorted_row], m.param.ntrait) -
        4.0 * nrec / bandwidth;
    state.SetLabel(std::string(1, static_cast<char>(state.range(0))));
    state.counters["ns_per_record"] = best * 1e9 / nrec;
    state.counters["bandwidth_GB"] = bandwidth / 1e9;
    state.counters["of_stream"] = best / stream;
    state.counters["of_floor"] = best / (stream + random);
    state.counters["random_ns"] = random * 1e9 / nrec;
}
BENCHMARK(BM_computeleastsquarepart)
    ->ArgsProduct({{'A', 'B', 'C'}, {2, 1, 5}, {1, 2}})
    ->ArgNames({"model", "kernel", "threads"})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zendar
