// Factorisation and selected inverse. Ratios of interest, each within one run and for the same order:
// cholesky to cholmod_supernodal, inverse to cholesky, inverse_by_columns to inverse.
// Set OMP_WAIT_POLICY=PASSIVE on a machine with other load.

#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <stdexcept>
#include <string>

#include "bench_floor.hpp"
#include "modblas.hpp"
#include "modspainv.hpp"
#include "modspainv_test_support.hpp"
#include "modsparse_inv.hpp"

#ifdef ZENDAR_BENCH_CHOLMOD
#include <cholmod.h>
#endif

namespace {

using namespace zendar;
using namespace zendar::modsparse_inv;
using test::upper_crs;

upper_crs from_map(std::int32_t n, const std::vector<std::map<std::int32_t, double>>& rows) {
    upper_crs m;
    for (std::int32_t i = 0; i < n; ++i) {
        for (const auto& [j, value] : rows[i]) m.ja.push_back(j + 1), m.a.push_back(value);
        m.ia.push_back(static_cast<std::int32_t>(m.ja.size()) + 1);
    }
    return m;
}

/// Mixed model equations of an animal model: ten generations, 500 herds with a contemporary group each per
/// generation, sires used across herds, one record per animal, variance ratio 2.
upper_crs animal_model(std::int32_t nanimal) {
    constexpr std::int32_t ngeneration = 10, nherd = 500;
    constexpr double ratio = 2.0;
    std::mt19937 random(1);
    const std::int32_t ngroup = ngeneration * nherd, n = ngroup + nanimal, per = nanimal / ngeneration;
    std::vector<std::map<std::int32_t, double>> rows(n);
    const auto add = [&](std::int32_t i, std::int32_t j, double x) {
        rows[std::min(i, j)][std::max(i, j)] += x;
    };
    const auto any = [&](std::int32_t k) {
        return static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(k));
    };
    for (std::int32_t a = 0; a < nanimal; ++a) {
        const std::int32_t generation = std::min(a / per, ngeneration - 1), herd = a % nherd;
        const std::int32_t eq = ngroup + a, group = generation * nherd + herd;
        add(group, group, 1.0), add(group, eq, 1.0), add(eq, eq, 1.0);
        std::vector<std::pair<std::int32_t, double>> family{{eq, 1.0}};
        if (generation > 0) {
            const std::int32_t before = (generation - 1) * per;
            const std::int32_t dam = before + any(per / nherd) * nherd + herd, sire = before + any(per / 50);
            family.push_back({ngroup + dam, -0.5});
            if (ngroup + sire != ngroup + dam) family.push_back({ngroup + sire, -0.5});
        }
        const double d = ratio / (1.0 - 0.25 * static_cast<double>(family.size() - 1));
        for (std::size_t x = 0; x < family.size(); ++x)
            for (std::size_t y = x; y < family.size(); ++y)
                add(family[x].first, family[y].first, d * family[x].second * family[y].second);
    }
    return from_map(n, rows);
}

upper_crs grid(std::int32_t k) {
    std::vector<std::map<std::int32_t, double>> rows(k * k * k);
    for (std::int32_t i = 0; i < k * k * k; ++i) {
        rows[i][i] = 6.1;
        if (i % k + 1 < k) rows[i][i + 1] = -1.0;
        if (i / k % k + 1 < k) rows[i][i + k] = -1.0;
        if (i / (k * k) + 1 < k) rows[i][i + k * k] = -1.0;
    }
    return from_map(k * k * k, rows);
}

/// A matrix with its order and everything that the numerical steps need.
struct problem {
    upper_crs m;
    std::vector<std::int32_t> perm;
    supernodal_structure s;
    permuted_matrix p;
    double flops = 0.0;

    explicit problem(upper_crs matrix) : m(std::move(matrix)), perm(test::metis_order(m.ia, m.ja)) {
        const std::span<const std::int32_t> ia(m.ia), ja(m.ja);
        s = symbolicfact(m.n(), ia, ja, perm);
        p = computexsparsdiag(s, ia, ja, std::span<const double>(m.a));
        s.nodes = super_nodes(s.parent, s.colcount);
        smbfct(s);
        for (const std::int32_t c : s.colcount) flops += static_cast<double>(c) * c;
    }
};

const problem& problem_of(std::int64_t which) {
    static const problem problems[2] = {problem(animal_model(100000)), problem(grid(40))};
    return problems[which];
}

void describe(benchmark::State& state, const problem& q) {
    state.SetLabel(state.range(0) == 0 ? "animal model" : "grid 40^3");
    state.counters["nnz"] = static_cast<double>(q.s.elements());
    state.counters["stored"] = static_cast<double>(q.s.xlnz[q.s.nsuper()]);
    state.counters["supernodes"] = q.s.nsuper();
    state.counters["flops/s"] = benchmark::Counter(q.flops, benchmark::Counter::kIsIterationInvariantRate);
}

/// What the machine gives in the same run: a dense product and reading a long array.
void machine(benchmark::State& state) {
    constexpr std::int64_t order = 1200;
    omp_set_num_threads(static_cast<int>(state.range(0)));
    const matrix<double> a(order, order, 1.0), b(order, order, 0.5);
    matrix<double> c(order, order);
    for (auto _ : state) {
        blas_dgemm(false, false, 1.0, a.view(), b.view(), 0.0, c.view());
        benchmark::DoNotOptimize(c.data());
    }
    state.counters["flops/s"] =
        benchmark::Counter(2.0 * order * order * order, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["read_bytes/s"] = bench::read_bandwidth();
}

void symbolic(benchmark::State& state) {
    const problem& q = problem_of(state.range(0));
    for (auto _ : state) {
        supernodal_structure s = symbolicfact(q.m.n(), std::span<const std::int32_t>(q.m.ia),
                                              std::span<const std::int32_t>(q.m.ja), q.perm);
        s.nodes = super_nodes(s.parent, s.colcount);
        smbfct(s);
        benchmark::DoNotOptimize(s.lindx.data());
    }
    describe(state, q);
}

void cholesky(benchmark::State& state) {
    const problem& q = problem_of(state.range(0));
    omp_set_num_threads(static_cast<int>(state.range(1)));
    for (auto _ : state) {
        supernodal_factor f;
        if (super_gsfct(q.s, q.p, pivot_rule::positive, f).column >= 0) state.SkipWithError("not definite");
        benchmark::DoNotOptimize(f.lnz.get());
    }
    describe(state, q);
}

void cholesky_with_drops(benchmark::State& state) {
    const problem& q = problem_of(state.range(0));
    omp_set_num_threads(static_cast<int>(state.range(1)));
    for (auto _ : state) {
        supernodal_factor f;
        if (super_gsfct(q.s, q.p, pivot_rule::drop, f).column >= 0) state.SkipWithError("not definite");
        benchmark::DoNotOptimize(f.lnz.get());
    }
    describe(state, q);
}

void inverse(benchmark::State& state) {
    const problem& q = problem_of(state.range(0));
    omp_set_num_threads(static_cast<int>(state.range(1)));
    for (auto _ : state) {
        state.PauseTiming();
        supernodal_factor f;
        super_gsfct(q.s, q.p, pivot_rule::positive, f);
        state.ResumeTiming();
        if (super_sparsinv(q.s, f) != 0) state.SkipWithError("DPOTRI");
        benchmark::DoNotOptimize(f.lnz.get());
        state.PauseTiming();
        f = {};
        state.ResumeTiming();
    }
    describe(state, q);
}

void whole_procedure(benchmark::State& state) {
    const problem& q = problem_of(state.range(0));
    omp_set_num_threads(static_cast<int>(state.range(1)));
    for (auto _ : state) {
        upper_crs m = q.m;
        get_spainv_crs(m.ia, m.ja, m.a, q.perm);
        benchmark::DoNotOptimize(m.a.data());
    }
    describe(state, q);
}

/// The Takahashi recursion element by element, the last column first, on a factor by rows (U = L').
void inverse_by_columns(benchmark::State& state) {
    const problem& q = problem_of(state.range(0));
    std::vector<std::int64_t> ia(q.m.ia.begin(), q.m.ia.end());
    std::vector<std::int32_t> ja = q.m.ja;
    std::vector<double> factor = q.m.a;
    get_chol_crs(ia, ja, factor, q.perm);
    const auto n = static_cast<std::int32_t>(ia.size()) - 1;
    for (auto _ : state) {
        std::vector<double> z = factor, sum(n, 0.0);
        for (std::int32_t j = n - 1; j >= 0; --j) {
            const std::int64_t begin = ia[j] - 1, end = ia[j + 1] - 1;
            const double d = z[begin];
            for (std::int64_t k = begin + 1; k < end; ++k) {  // column of L, divided by its diagonal
                z[k] /= d;
                sum[ja[k] - 1] = 0.0;
            }
            for (std::int64_t k = begin + 1; k < end; ++k) {
                const std::int32_t c = ja[k] - 1;
                const double y = z[k];
                std::int64_t at = k;
                double dot = y * z[ia[c] - 1];
                for (std::int64_t e = ia[c]; e < ia[c + 1] - 1 && at + 1 < end; ++e) {
                    if (ja[e] != ja[at + 1]) continue;
                    ++at;
                    dot += z[e] * z[at];
                    sum[ja[at] - 1] += z[e] * y;
                }
                sum[c] += dot;
            }
            double diagonal = 1.0 / (d * d);
            for (std::int64_t k = begin + 1; k < end; ++k) {
                const double x = -sum[ja[k] - 1];
                diagonal -= z[k] * x;
                z[k] = x;
            }
            z[begin] = diagonal;
        }
        benchmark::DoNotOptimize(z.data());
    }
    describe(state, q);
}

#ifdef ZENDAR_BENCH_CHOLMOD
void cholmod_supernodal(benchmark::State& state) {
    const problem& q = problem_of(state.range(0));
    omp_set_num_threads(static_cast<int>(state.range(1)));
    cholmod_common common;
    cholmod_start(&common);
    common.supernodal = CHOLMOD_SUPERNODAL;
    common.nmethods = 1;
    common.method[0].ordering = CHOLMOD_GIVEN;
    common.postorder = 1;
    const auto n = static_cast<std::size_t>(q.m.n());
    // Upper rows are lower columns.
    cholmod_sparse* a = cholmod_allocate_sparse(n, n, q.m.a.size(), 1, 1, -1, CHOLMOD_REAL, &common);
    std::ranges::transform(q.m.ia, static_cast<int*>(a->p), [](int x) { return x - 1; });
    std::ranges::transform(q.m.ja, static_cast<int*>(a->i), [](int x) { return x - 1; });
    std::ranges::copy(q.m.a, static_cast<double*>(a->x));
    std::vector<int> order(n);
    std::ranges::transform(q.perm, order.begin(), [](int x) { return x - 1; });
    cholmod_factor* analysed = cholmod_analyze_p(a, order.data(), nullptr, 0, &common);
    for (auto _ : state) {
        state.PauseTiming();
        cholmod_factor* f = cholmod_copy_factor(analysed, &common);
        state.ResumeTiming();
        cholmod_factorize(a, f, &common);
        if (common.status != CHOLMOD_OK) state.SkipWithError("not definite");
        state.PauseTiming();
        cholmod_free_factor(&f, &common);
        state.ResumeTiming();
    }
    describe(state, q);
    state.counters["stored"] = static_cast<double>(analysed->xsize);
    state.counters["supernodes"] = static_cast<double>(analysed->nsuper);
    cholmod_free_factor(&analysed, &common);
    cholmod_free_sparse(&a, &common);
    cholmod_finish(&common);
}
BENCHMARK(cholmod_supernodal)->ArgsProduct({{0, 1}, {1, 2}})->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

BENCHMARK(machine)->ArgsProduct({{1, 2}})->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(cholesky)->ArgsProduct({{0, 1}, {1, 2}})->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(cholesky_with_drops)->ArgsProduct({{0, 1}, {1, 2}})->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(inverse)->ArgsProduct({{0, 1}, {1, 2}})->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(inverse_by_columns)->ArgsProduct({{0, 1}, {1}})->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(symbolic)->ArgsProduct({{0, 1}, {1}})->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(whole_procedure)->ArgsProduct({{0, 1}, {1, 2}})->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
