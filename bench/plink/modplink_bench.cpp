// Products with 20,000 x 20,000 packed genotypes of which 0, 1 or 20 in 100 are missing, beside
//
//   of_dgemm  DGEMM on decoded, centred doubles (20,000 individuals x 2,000 SNPs, so that they fit), by rate
//   of_floor  the larger one of: the time of streaming the packed bytes; the additions of the tables at two a
//             cycle, where a cycle is 16 flops of the best DGEMM rate of the run. A packed byte takes 1
//             addition in one column (8 bits a field, or a product with 4 decoded genotypes), and 4/3 for
//             every four columns (6 bits a field).
//
// Run with OPENBLAS_NUM_THREADS and OMP_NUM_THREADS not set; each case sets its number of threads.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "bench_floor.hpp"
#include "modblas.hpp"
#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modplink.hpp"
#include "modplink_decode.hpp"
#include "modstructure.hpp"

namespace zendar {
namespace {

constexpr std::int32_t individuals = 20000, snps = 20000, dense_snps = 2000;

struct genotype_data {
    plink_genotypes a{individuals, snps};
    std::vector<double> freq;
};

const genotype_data& data(std::int64_t missing_percent) {
    static std::map<std::int64_t, genotype_data> all;
    const auto [at, is_new] = all.try_emplace(missing_percent);
    genotype_data& g = at->second;
    if (!is_new) return g;
    std::mt19937_64 random(1);
    for (std::int64_t k = 0; k < g.a.ival.size(); ++k) {
        std::uint8_t byte = 0;
        for (int i = 0; i < 4; ++i) {
            const std::uint64_t draw = random();
            constexpr std::uint8_t codes[3] = {0, 2, 3};
            const std::uint8_t code = static_cast<std::int64_t>(draw % 100) < missing_percent
                                          ? std::uint8_t{1}
                                          : codes[(draw >> 32) % 3];
            byte = static_cast<std::uint8_t>(byte | code << (2 * i));
        }
        g.a.ival.data()[k] = byte;
    }
    g.freq.assign(snps, 0.5);
    return g;
}

const matrix<double>& dense() {
    static const matrix<double> z = [] {
        const genotype_data& g = data(0);
        matrix<double> values(individuals, dense_snps);
        for (std::int64_t j = 0; j < dense_snps; ++j)
            for (std::int64_t i = 0; i < individuals; ++i)
                values(i, j) = detail::centred(detail::pgeno_wp[g.a.code(i, j)], 2.0 * g.freq[j]);
        return values;
    }();
    return z;
}

/// Flops per second of DGEMM, at the number of threads that is set.
double dgemm_rate(bool transposed, std::int64_t n) {
    static std::map<std::tuple<bool, std::int64_t, int>, double> known;
    double& rate = known[{transposed, n, omp_get_max_threads()}];
    if (rate > 0.0) return rate;
    const std::int64_t k = transposed ? individuals : dense_snps, m = transposed ? dense_snps : individuals;
    const matrix<double> b(k, n, 0.5);
    matrix<double> c(m, n);
    double best = 1e30;
    for (int pass = 0; pass < 4; ++pass) {
        const wtime clock;
        blas_dgemm(transposed, false, 1.0, dense().view(), b.view(), 0.0, c.view());
        best = std::min(best, clock.seconds());
    }
    rate = 2.0 * static_cast<double>(m * k * n) / best;
    return rate;
}

void BM_dgemm_compressed(benchmark::State& state) {
    const bool transposed = state.range(0) != 0;
    const std::int64_t n = state.range(1);
    const bench::thread_count threads(state.range(2));
    const genotype_data& g = data(state.range(3));
    const std::int64_t k = transposed ? individuals : snps, m = transposed ? snps : individuals;
    const matrix<double> b(k, n, 0.5);
    matrix<double> c(m, n);
    logger silent;
    for (auto _ : state) {
        dgemm_compressed(transposed ? 't' : 'n', 'n', m, n, k, 1.0, g.a, g.freq, b.data(), k, 0.0, c.data(),
                         m, silent);
        benchmark::ClobberMemory();
    }
    using benchmark::Counter;
    const double flops = 2.0 * static_cast<double>(m * k * n), bytes = static_cast<double>(g.a.ival.size());
    const double cycles = dgemm_rate(transposed, 64) / 16.0;
    const double additions = n == 1 ? 1.0 : 4.0 / 3.0 * static_cast<double>((n + 3) / 4);
    const double floor = std::max(bytes / bench::read_bandwidth(), bytes * additions / 2.0 / cycles);
    const auto rate = [&](double amount) { return Counter(amount, Counter::kIsIterationInvariantRate); };
    state.counters["flops"] = rate(flops);
    state.counters["of_dgemm"] = rate(flops / dgemm_rate(transposed, n));
    state.counters["of_floor"] = rate(floor);
    state.SetBytesProcessed(state.iterations() * g.a.ival.size());
}
BENCHMARK(BM_dgemm_compressed)
    ->ArgNames({"t", "columns", "threads", "missing"})
    ->ArgsProduct({{1, 0}, {1, 2, 4, 10, 16, 32}, {1, 2}, {0}})
    ->ArgsProduct({{1}, {1, 4, 32}, {1, 2}, {1, 20}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_count_genotypes(benchmark::State& state) {
    const bench::thread_count threads(state.range(0));
    const genotype_data& g = data(1);
    for (auto _ : state) benchmark::DoNotOptimize(count_genotypes(g.a));
    state.SetBytesProcessed(state.iterations() * g.a.ival.size());
    state.counters["of_stream"] = static_cast<double>(g.a.ival.size()) / bench::read_bandwidth();
    state.counters["of_stream"].flags = benchmark::Counter::kIsIterationInvariantRate;
}
BENCHMARK(BM_count_genotypes)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_transpose_integermatrix(benchmark::State& state) {
    const bench::thread_count threads(state.range(0));
    const genotype_data& g = data(1);
    for (auto _ : state) benchmark::DoNotOptimize(transpose_integermatrix(g.a).ival.data());
    state.SetBytesProcessed(state.iterations() * g.a.ival.size());
}
BENCHMARK(BM_transpose_integermatrix)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

/// The three files of the matrix, for as long as the object lives.
class plink_files {
  public:
    plink_files() : stem_(std::filesystem::temp_directory_path() / "zendar_bench_genotypes") {
        const genotype_data& g = data(1);
        std::ofstream bed(name(".bed"), std::ios::binary), bim(name(".bim")), fam(name(".fam"));
        bed << "\x6C\x1B\x01";
        bed.write(reinterpret_cast<const char*>(g.a.ival.data()), g.a.ival.size());
        for (std::int32_t j = 1; j <= snps; ++j) bim << "1 snp" << j << " 0 " << j << " A C\n";
        for (std::int32_t i = 1; i <= individuals; ++i) fam << "f " << i << " 0 0 0 -9\n";
    }
    ~plink_files() {
        std::error_code ignored;
        for (const char* extension : {".bed", ".bim", ".fam"})
            std::filesystem::remove(name(extension), ignored);
    }
    plink_files(const plink_files&) = delete;
    plink_files& operator=(const plink_files&) = delete;
    [[nodiscard]] std::string name(const char* extension) const { return stem_.string() + extension; }

  private:
    std::filesystem::path stem_;
};

// From the page cache: the copy, the first touch of the memory, the count of the codes.
void BM_readcovariable_bed(benchmark::State& state) {
    const bench::thread_count threads(state.range(0));
    const plink_files files;
    param_type param;
    param.ntrait = param.neffect = 1;
    param.n_level = {individuals};
    param.n_cov = {snps};
    param.type_effect = {3};
    param.cov_file = {files.name(".bed")};
    logger silent;
    covariable_type cov;
    for (auto _ : state) readcovariable(cov, param, 1, silent);
    state.SetBytesProcessed(state.iterations() * cov.data->plink.ival.size());
}
BENCHMARK(BM_readcovariable_bed)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace zendar
