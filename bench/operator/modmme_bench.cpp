// The assembly of the left-hand side in memory, end to end, beside the hash table alone: the same elements in
// the same order, added to a table that was made large enough.
//
// A record with n elements in its row adds n (n + 1) / 2 elements, each to a slot that is nowhere near the
// last one; the table is larger than the cache.

#include <benchmark/benchmark.h>

#include "bench_floor.hpp"
#include "modmme.hpp"
#include "modmme_detail.hpp"
#include "modmmeiod.hpp"
#include "record_model.hpp"

namespace zendar {
namespace {

using bench::bench_model;

struct offered_elements {
    std::vector<std::int32_t> rows, cols;
    std::vector<double> values;
};

/// What the records of a model add, in their order.
offered_elements elements_of(bench_model& m) {
    logger silent;
    mme_iod op(m.param, m.data, m.cov, silent);
    op.setup_for_lhs();
    const modmmeiod::record_input in = op.records();
    std::vector<modmme::record_element> row;
    std::vector<double> ri(static_cast<std::size_t>(in.ntrait * in.ntrait));
    offered_elements all;
    for (std::int64_t rec = 0; rec < bench::nrec; ++rec) {
        modmme::expand_record(in, rec, row, ri);
        for (const auto& own : row)
            for (const auto& other : row)
                if (own.equation <= other.equation) {
                    all.rows.push_back(static_cast<std::int32_t>(own.equation + 1));
                    all.cols.push_back(static_cast<std::int32_t>(other.equation + 1));
                    all.values.push_back(own.x * ri[own.trait * in.ntrait + other.trait] * other.x);
                }
    }
    return all;
}

void BM_setup_lhsrhs(benchmark::State& state) {
    const bench::thread_count threads(static_cast<int>(state.range(1)));
    bench_model& m = bench::model_of(state.range(0));
    m.data.phen = matrix<double>(m.param.ntrait, bench::nrec, 1.0);
    logger silent;
    const offered_elements offered = elements_of(m);
    double best = 1e30, table = 1e30;
    std::int64_t nel = 0;
    for (auto _ : state) {
        const wtime clock;
        const lhs_inmem lhs = setup_lhsrhs({m.param, m.data, m.cov, {}, {}}, {}, silent);
        best = std::min(best, clock.seconds());
        nel = lhs.lhsija.totalnumberofelements();
    }
    {
        coosparse alone(m.param.neq, {}, nel + nel / 4 + 8, true);
        alone.setsymmetric();
        const wtime clock;
        alone.add(offered.rows, offered.cols, offered.values);
        table = clock.seconds();
    }
    const auto n = static_cast<double>(offered.values.size());
    state.SetLabel(std::string(1, static_cast<char>(state.range(0))));
    state.counters["additions_M_per_s"] = n / best * 1e-6;
    state.counters["table_alone_M_per_s"] = n / table * 1e-6;
    state.counters["additions_M"] = n * 1e-6;
    state.counters["elements_M"] = static_cast<double>(nel) * 1e-6;
}
BENCHMARK(BM_setup_lhsrhs)
    ->ArgsProduct({{'A', 'B', 'C'}, {1, 2}})
    ->ArgNames({"model", "threads"})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zendar
