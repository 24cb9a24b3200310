// Products of external matrices with six columns beside the dense product alone.
//
// A symmetric matrix of n rows moves 8 n^2 bytes whole or 4 n^2 as a triangle, and needs 2 n^2 flops a
// column: with few columns it is bound by memory. Ta is read twice when its block is larger than the cache.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>

#include "bench_floor.hpp"
#include "modblas.hpp"
#include "modmmeiod_external.hpp"
#include "modparameters.hpp"
#include "modstats.hpp"

namespace zendar {
namespace {

constexpr std::int64_t ncolumn = 6;

matrix<double> random_matrix(std::int64_t rows, std::int64_t cols) {
    std::mt19937_64 random(1);
    matrix<double> m(rows, cols);
    for (double& v : m.values()) v = std::uniform_real_distribution<double>(-1.0, 1.0)(random);
    return m;
}

matrix_levels first_levels(std::int64_t n) {
    matrix_levels levels;
    levels.level.resize(static_cast<std::size_t>(n));
    std::iota(levels.level.begin(), levels.level.end(), 1);
    levels.position = levels.level;
    return levels;
}

/// Time of the term and of the dense products alone.
template <class Dense>
void compare(benchmark::State& state, modmmeiod::external_term& term, const Dense& dense) {
    logger silent;
    const matrix<double> in = random_matrix(term.size(), ncolumn);
    matrix<double> out(term.size(), ncolumn);
    std::vector<double> work(static_cast<std::size_t>(term.work_size(ncolumn)));
    double best = 1e30, alone = 1e30;
    for (auto _ : state) {
        const wtime clock;
        term.timesx(in.view(), out.view(), work, silent);
        best = std::min(best, clock.seconds());
        state.PauseTiming();
        const wtime dense_clock;
        dense(in, out);
        alone = std::min(alone, dense_clock.seconds());
        state.ResumeTiming();
    }
    state.counters["ms"] = 1e3 * best;
    state.counters["ms_dense"] = 1e3 * alone;
    state.counters["ratio"] = best / alone;
}

void BM_gima22i(benchmark::State& state) {
    const bench::thread_count threads(static_cast<int>(state.range(1)));
    const std::int64_t n = state.range(0);
    const matrix<double> m = random_matrix(n, n);
    gima22i_type own;
    own.levels = first_levels(n);
    own.elements.dense = m;
    modmmeiod::gima22i_term term(std::move(own));
    compare(state, term, [&](const matrix<double>& in, matrix<double>& out) {
        blas_dsymm(1.0, m.view(), in.view(), 0.0, out.view());
    });
}
BENCHMARK(BM_gima22i)->Args({6000, 1})->Args({6000, 2})->Unit(benchmark::kMillisecond)->MinTime(1.0);

/// The same product by the whole matrix.
void BM_gima22i_dgemm(benchmark::State& state) {
    const bench::thread_count threads(static_cast<int>(state.range(1)));
    const std::int64_t n = state.range(0);
    const matrix<double> m = random_matrix(n, n), in = random_matrix(n, ncolumn);
    matrix<double> out(n, ncolumn);
    for (auto _ : state) blas_dgemm(false, false, 1.0, m.view(), in.view(), 0.0, out.view());
}
BENCHMARK(BM_gima22i_dgemm)->Args({6000, 1})->Args({6000, 2})->Unit(benchmark::kMillisecond)->MinTime(1.0);

void BM_gapy(benchmark::State& state) {
    const bench::thread_count threads(static_cast<int>(state.range(2)));
    const std::int64_t ncore = state.range(0), nother = state.range(1);
    const matrix<double> core = random_matrix(ncore, ncore), cross = random_matrix(ncore, nother);
    apy own;
    own.levels = first_levels(ncore + nother);
    own.ncore = ncore;
    own.core = core;
    own.cross = cross;
    own.diagonal.assign(static_cast<std::size_t>(nother), 1.5);
    modmmeiod::gapy_term term(std::move(own), nullptr, 1.0, 0.0);
    compare(state, term, [&](const matrix<double>& in, matrix<double>& out) {
        const matrix_view<const double> xc{in.data(), ncore, ncolumn, in.rows()},
            xn{in.data() + ncore, nother, ncolumn, in.rows()};
        const matrix_view<double> yc{out.data(), ncore, ncolumn, out.rows()},
            yn{out.data() + ncore, nother, ncolumn, out.rows()};
        blas_dsymm(1.0, core.view(), xc, 0.0, yc);
        blas_dgemm(false, false, 1.0, cross.view(), xn, 1.0, yc);
        blas_dgemm(true, false, 1.0, cross.view(), xc, 0.0, yn);
    });
}
BENCHMARK(BM_gapy)
    ->Args({2000, 10000, 1})
    ->Args({2000, 10000, 2})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0);

void BM_tamatrix(benchmark::State& state) {
    const bench::thread_count threads(static_cast<int>(state.range(3)));
    const std::int64_t nsnp = state.range(0), nanimal = state.range(1);
    const matrix<double> ta = random_matrix(nsnp, nanimal);
    tamatrix_type own;
    own.levels = first_levels(nanimal);
    own.value = ta;
    modmmeiod::tamatrix_term term(std::move(own), nullptr, {.tau = 1.0, .beta = 1.0, .omega = 1.0},
                                  state.range(2));
    matrix<double> snps(nsnp, ncolumn);
    compare(state, term, [&](const matrix<double>& in, matrix<double>& out) {
        blas_dgemm(false, false, 1.0, ta.view(), in.view(), 0.0, snps.view());
        blas_dgemm(true, false, -1.0, ta.view(), snps.view(), 0.0, out.view());
    });
}
BENCHMARK(BM_tamatrix)
    ->Args({10000, 4000, 0, 1})
    ->Args({10000, 4000, 1000, 1})
    ->Args({10000, 4000, 0, 2})
    ->Args({10000, 4000, 1000, 2})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0);

// ---- reading

constexpr std::int64_t nread = 3000;

param_type model_of_levels(std::int32_t n) {
    param_type param;
    param.ntrait = 1;
    param.neffect = 1;
    allocpar(param);
    param.n_level = {n};
    return param;
}

/// Bytes a second from the page cache.
template <class Read>
void read_file(benchmark::State& state, const std::string& file, const Read& read) {
    const bench::thread_count threads(static_cast<int>(state.range(0)));
    for (auto _ : state) read();
    state.SetBytesProcessed(static_cast<std::int64_t>(std::filesystem::file_size(file)) * state.iterations());
}

void BM_readgima22i(benchmark::State& state) {
    const std::string file = (std::filesystem::temp_directory_path() / "zendar_bench_tri").string();
    logger silent;
    gima22i_type own;
    own.levels = first_levels(nread);
    own.elements.dense = random_matrix(nread, nread);
    write_gima22i(own, file, silent);
    const param_type param = model_of_levels(nread);
    read_file(state, file, [&] {
        gima22i_type found;
        readgima22i(param, 1, file, found, silent);
    });
    std::filesystem::remove(file);
}
BENCHMARK(BM_readgima22i)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_readtamatrix_stream(benchmark::State& state) {
    const std::string file = (std::filesystem::temp_directory_path() / "zendar_bench.stream").string();
    logger silent;
    tamatrix_type own;
    own.levels = first_levels(nread);
    own.value = random_matrix(10000, nread);
    write_tamatrix(own, file, silent);
    const param_type param = model_of_levels(nread);
    read_file(state, file, [&] {
        tamatrix_type found;
        readtamatrix(param, 1, file, found, silent);
    });
    std::filesystem::remove(file);
}
BENCHMARK(BM_readtamatrix_stream)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace zendar
