#include <benchmark/benchmark.h>
#include <omp.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "modbasic.hpp"
#include "modparameters_utils.hpp"

namespace {

using namespace zendar;

/// A phenotype file of four integers and two reals a line, removed at the end.
class phenotype_file {
  public:
    explicit phenotype_file(std::int64_t lines)
        : path_(std::filesystem::temp_directory_path() / ("zendar_bench_" + inttochar(getpid()) + ".txt")) {
        std::ofstream out(path_, std::ios::binary);
        std::mt19937 random(1);
        const auto below = [&random](std::uint32_t n) { return static_cast<std::int64_t>(random() % n); };
        for (std::int64_t i = 1; i <= lines; ++i) {
            const std::string fraction = inttochar(1000000 + below(1000000));
            out << i << ' ' << 1 + below(5000) << ' ' << 1 + below(2) << ' ' << 1 + below(30) << ' '
                << 1000 + below(9000) << '.' << below(10) << ' ' << below(100) << '.' << fraction.substr(1)
                << '\n';
        }
    }
    ~phenotype_file() {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    phenotype_file(const phenotype_file&) = delete;
    phenotype_file& operator=(const phenotype_file&) = delete;

    [[nodiscard]] std::string name() const { return path_.string(); }
    [[nodiscard]] std::int64_t bytes() const {
        return static_cast<std::int64_t>(std::filesystem::file_size(path_));
    }

  private:
    std::filesystem::path path_;
};

/// Four effects and two traits, so that every column is kept.
param_type model(const std::string& file) {
    param_type param;
    param.ntrait = 2;
    param.neffect = 4;
    param.n_residual_cov = 1;
    param.pos_traits = {5, 6};
    param.pos_weights = {0, 0};
    param.pos_effects = matrix<std::int32_t>(2, 4);
    for (std::int32_t e = 0; e < 4; ++e) param.pos_effects(0, e) = param.pos_effects(1, e) = e + 1;
    param.pos_nested = param.pos_nested2 = matrix<std::int32_t>(2, 4);
    param.file.resize(5);
    param.file[0][0] = file;
    return param;
}

/// Reading of a million lines; the figure of bytes is that of the file, which the page cache holds.
void BM_readdata_phen_ascii(benchmark::State& state) {
    const auto threads = static_cast<int>(state.range(0));
    const phenotype_file file(state.range(1));
    const int before = omp_get_max_threads();
    omp_set_num_threads(threads);
    logger log;
    for (auto _ : state) {
        param_type param = model(file.name());
        phenotype_data data;
        readdata_phen_ascii(param, data, log);
        benchmark::DoNotOptimize(data.phen.data());
        benchmark::ClobberMemory();
    }
    omp_set_num_threads(before);
    state.SetBytesProcessed(state.iterations() * file.bytes());
}
BENCHMARK(BM_readdata_phen_ascii)
    ->ArgNames({"threads", "lines"})
    ->ArgsProduct({{1, 2}, {1000000}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
