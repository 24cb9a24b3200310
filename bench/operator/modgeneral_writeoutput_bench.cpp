#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <random>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modgeneral.hpp"

namespace zendar {
namespace {

namespace fs = std::filesystem;

constexpr std::int32_t ntrait = 3;

/// A directory in memory where there is one, so that the disk is not what is measured.
class bench_directory {
  public:
    bench_directory() {
        const fs::path base = fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
        std::string pattern = (base / "zendar_bench_XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
    }
    ~bench_directory() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    bench_directory(const bench_directory&) = delete;
    bench_directory& operator=(const bench_directory&) = delete;
    [[nodiscard]] fs::path operator/(const char* name) const { return path_ / name; }

  private:
    fs::path path_;
};

/// One class effect of `nlevel` levels and three traits.
param_type animal_model(std::int32_t nlevel, logger& log) {
    param_type param;
    param.ntrait = ntrait;
    param.neffect = 1;
    param.type_effect = {0};
    param.n_level = {nlevel};
    param.n_level_nested = {0};
    param.n_cov = {1};
    param.andeffect = {1};
    param.combieff_trait = matrix<std::int32_t>(ntrait, 1);
    for (std::int32_t t = 0; t < ntrait; ++t) param.combieff_trait(t, 0) = t + 1;
    setsumlevel(param, log);
    param.neq = static_cast<std::int32_t>(param.sumequation[3]);
    return param;
}

/// Solutions as they come: both signs, magnitudes from 1e-4 to 1e2.
std::vector<double> solutions_of(const param_type& param) {
    std::mt19937_64 generator(1);
    std::vector<double> values(static_cast<std::size_t>(param.neq));
    for (double& value : values)
        value = (static_cast<double>(generator() >> 11) / 9007199254740992.0 - 0.5) *
                std::pow(10.0, static_cast<int>(generator() % 6) - 3);
    return values;
}

void count_rows(benchmark::State& state, std::int64_t rows, std::int64_t bytes) {
    state.SetItemsProcessed(state.iterations() * rows);
    state.SetBytesProcessed(state.iterations() * bytes);
    state.counters["bytes_per_row"] = static_cast<double>(bytes) / static_cast<double>(rows);
}

void BM_writeoutput_real8(benchmark::State& state) {
    logger log;
    const bench_directory here;
    const param_type param = animal_model(static_cast<std::int32_t>(state.range(0)), log);
    const auto solutions = solutions_of(param);
    for (auto _ : state) writeoutput_real8_ori(param, solutions, here / "solutions.dat", log);
    count_rows(state, param.neq, static_cast<std::int64_t>(fs::file_size(here / "solutions.dat")));
}
BENCHMARK(BM_writeoutput_real8)->Arg(1 << 10)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

void BM_writeoutput_neq_int4(benchmark::State& state) {
    logger log;
    const bench_directory here;
    const param_type param = animal_model(static_cast<std::int32_t>(state.range(0)), log);
    std::vector<std::int32_t> subdomain(static_cast<std::size_t>(param.neq));
    for (std::size_t i = 0; i < subdomain.size(); ++i) subdomain[i] = static_cast<std::int32_t>(i / 1000);
    for (auto _ : state) writeoutput_neq_int4_ori(param, subdomain, here / "deflationmatrix.dat", log);
    count_rows(state, param.neq, static_cast<std::int64_t>(fs::file_size(here / "deflationmatrix.dat")));
}
BENCHMARK(BM_writeoutput_neq_int4)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

void BM_writeoutputstream_real8(benchmark::State& state) {
    logger log;
    const bench_directory here;
    const param_type param = animal_model(static_cast<std::int32_t>(state.range(0)), log);
    const auto solutions = solutions_of(param);
    for (auto _ : state) writeoutputstream_real8_ori(param, solutions, here / "solutions.stream", log);
    count_rows(state, param.neq, static_cast<std::int64_t>(fs::file_size(here / "solutions.stream")));
}
BENCHMARK(BM_writeoutputstream_real8)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

/// The part of a row that cannot be saved: the text of its value.
void BM_floor_write_g06(benchmark::State& state) {
    logger log;
    const auto solutions = solutions_of(animal_model(static_cast<std::int32_t>(state.range(0)), log));
    char text[32];
    for (auto _ : state)
        for (const double value : solutions) benchmark::DoNotOptimize(write_g06(text, value));
    state.SetItemsProcessed(state.iterations() * std::ssize(solutions));
}
BENCHMARK(BM_floor_write_g06)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

/// The bytes of the text file, ready-made, through the same writer.
void BM_floor_write_bytes(benchmark::State& state) {
    logger log;
    const bench_directory here;
    const param_type param = animal_model(static_cast<std::int32_t>(state.range(0)), log);
    writeoutput_real8_ori(param, solutions_of(param), here / "solutions.dat", log);
    const auto bytes = static_cast<std::int64_t>(fs::file_size(here / "solutions.dat"));
    const std::string text(static_cast<std::size_t>(bytes), 'x');
    for (auto _ : state) {
        file_writer out;
        if (out.open(here / "copy")) state.SkipWithError("cannot write");
        for (std::size_t at = 0; at < text.size(); at += 65536)
            out.write(std::string_view(text).substr(at, 65536));
        if (out.commit()) state.SkipWithError("cannot write");
    }
    count_rows(state, param.neq, bytes);
}
BENCHMARK(BM_floor_write_bytes)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

/// The same bytes from memory to memory.
void BM_floor_memcpy(benchmark::State& state) {
    const std::int64_t bytes = 3 * 20 * state.range(0);
    std::vector<char> from(static_cast<std::size_t>(bytes), 'x'), to(from.size());
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), from.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(BM_floor_memcpy)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

void read_back(benchmark::State& state, const char* name, bool stream) {
    logger log;
    const bench_directory here;
    const param_type param = animal_model(static_cast<std::int32_t>(state.range(0)), log);
    const auto solutions = solutions_of(param);
    const std::string file = (here / name).string();
    if (stream)
        writeoutputstream_real8_ori(param, solutions, file, log);
    else
        writeoutput_real8_ori(param, solutions, file, log);
    std::vector<double> vector(solutions.size());
    for (auto _ : state) {
        initvectorfromfile_real8(param, vector, file, log);
        benchmark::DoNotOptimize(vector.data());
    }
    count_rows(state, param.neq, static_cast<std::int64_t>(fs::file_size(file)));
}
void BM_initvectorfromfile_text(benchmark::State& state) {
    read_back(state, "solutions.dat", false);
}
void BM_initvectorfromfile_stream(benchmark::State& state) {
    read_back(state, "solutions.stream", true);
}
BENCHMARK(BM_initvectorfromfile_text)->Arg(1 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_initvectorfromfile_stream)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zendar
