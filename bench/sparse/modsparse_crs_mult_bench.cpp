// Products, above all with a symmetric matrix of which the upper triangle is stored, beside what bounds them
// in the same run: streaming the bytes of the product, and, where columns lie anywhere, gathers from x and
// scatters into y on top of that. Read "of_floor": the time over that of the floor of the same matrix and
// threads.

#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "modsparse_crs_mult.hpp"
#include "modstats.hpp"

namespace zendar {
namespace {

struct matrix_data {
    std::int32_t n = 0;
    std::vector<std::int32_t> ia, ja;
    std::vector<double> a;

    explicit matrix_data(std::vector<std::vector<std::int32_t>> rows)
        : n(static_cast<std::int32_t>(rows.size())) {
        ia.push_back(1);
        for (auto& row : rows) {
            std::ranges::sort(row);
            row.erase(std::unique(row.begin(), row.end()), row.end());
            for (const std::int32_t c : row) {
                ja.push_back(c + 1);
                a.push_back(1.0 / (c + 1));
            }
            ia.push_back(static_cast<std::int32_t>(ja.size()) + 1);
        }
    }
    [[nodiscard]] crs_view<std::int32_t> view() const { return {n, n, ia, ja, a, true}; }
    /// Matrix and vectors once: x and y read, y written.
    [[nodiscard]] double bytes(std::int64_t columns) const {
        return 12.0 * static_cast<double>(ja.size()) + (4.0 + 24.0 * static_cast<double>(columns)) * n;
    }
};

/// Columns that are multiplied at once.
constexpr int several = 10;

enum kind : std::int64_t { banded, family_order, anywhere };

/// A diagonal and five neighbours; the inverse of a relationship matrix whose parents stand up to 1000
/// animals before their offspring; a diagonal and five random columns.
matrix_data make(kind which, std::int32_t equations) {
    std::mt19937 generator(1);
    std::vector<std::vector<std::int32_t>> rows(equations);
    const auto put = [&](std::int32_t i, std::int32_t j) { rows[std::min(i, j)].push_back(std::max(i, j)); };
    for (std::int32_t i = 0; i < equations; ++i) {
        put(i, i);
        if (which == banded)
            for (std::int32_t k = 1; k <= 5; ++k) put(i, std::min(i + k, equations - 1));
        if (which == family_order && i >= 1000) {
            const auto family = static_cast<std::uint32_t>(i / 4);  // four full sibs
            const std::int32_t sire = i / 4 * 4 - 1 - static_cast<std::int32_t>(family * 2654435761u % 990u);
            const std::int32_t dam = i / 4 * 4 - 1 - static_cast<std::int32_t>(family * 40503u % 990u);
            put(sire, i);
            put(dam, i);
            put(sire, dam);
        }
        if (which == anywhere)
            for (std::int32_t k = 1; k <= 5; ++k)
                put(i, static_cast<std::int32_t>(generator() % static_cast<std::uint32_t>(equations)));
    }
    return matrix_data(std::move(rows));
}

/// The one of the last call.
const matrix_data& matrix_of(kind which, std::int32_t equations) {
    static std::pair<kind, std::int32_t> of{};
    static std::optional<matrix_data> made;
    if (!made || of != std::pair(which, equations)) {
        made.reset();
        made.emplace(make(which, equations));
        of = {which, equations};
    }
    return *made;
}

/// Wall clock, and processor time a thread: the second still tells something on a machine that does other
/// work.
struct timing {
    double wall = 0.0, cpu = 0.0;
};
timing operator+(timing s, timing t) {
    return {s.wall + t.wall, s.cpu + t.cpu};
}
timing operator*(double factor, timing t) {
    return {factor * t.wall, factor * t.cpu};
}

class stopwatch {
  public:
    /// The least seen so far.
    [[nodiscard]] timing best() const { return best_; }
    void run(const auto& work) {
        const double cpu = cpu_seconds();
        const wtime clock;
        work();
        const double wall = clock.seconds();
        best_.wall = std::min(best_.wall, wall);
        best_.cpu = std::min(best_.cpu, (cpu_seconds() - cpu) / omp_get_max_threads());
    }

  private:
    static double cpu_seconds() {
        timespec t{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
    }
    timing best_{1e30, 1e30};
};

timing best_of(const auto& work) {
    stopwatch watch;
    for (int repeat = 0; repeat < 15; ++repeat) watch.run(work);
    return watch.best();
}

/// Seconds per byte of reading so many doubles and as many integers: as many as a matrix has, since what fits
/// a cache is read faster.
timing streaming(std::int64_t elements) {
    const std::vector<double> a(static_cast<std::size_t>(elements), 1.0);
    const std::vector<std::int32_t> ja(static_cast<std::size_t>(elements), 1);
    double sum = 0.0;
    std::int32_t count = 0;
    const timing seconds = best_of([&] {
#pragma omp parallel for simd schedule(static) default(none) shared(a, ja, elements) reduction(+ : sum, count)
        for (std::int64_t k = 0; k < elements; ++k) {
            sum += a[k];
            count ^= ja[k];
        }
        benchmark::DoNotOptimize(sum);
        benchmark::DoNotOptimize(count);
    });
    return 1.0 / (12.0 * static_cast<double>(elements)) * seconds;
}

/// Asks for the row of B values that a later element leads to. One value needs no asking: the processor
/// reaches for many at once.
template <int B, int Write>
[[gnu::always_inline]] inline void ask_ahead(const matrix_data& m, std::int64_t k, const double* rows) {
    constexpr std::int64_t ahead = 128;
    if constexpr (B > 1) {
        const double* const row =
            rows + std::int64_t{m.ja[std::min(k + ahead, std::ssize(m.ja) - 1)] - 1} * B;
        __builtin_prefetch(row, Write);
        __builtin_prefetch(row + B - 1, Write);
    }
}

/// Seconds of gathering from rows of B values at the columns of the matrix, beyond reading the columns; of
/// scattering to them.
template <int B>
timing gathers(const matrix_data& m) {
    const std::vector<double> x(static_cast<std::size_t>(m.n) * B, 1.0);
    return best_of([&] {
#pragma omp parallel default(none) shared(m, x)
        {
            std::array<double, B> sums{};
#pragma omp for schedule(static)
            for (std::int64_t k = 0; k < std::ssize(m.ja); ++k) {
                ask_ahead<B, 0>(m, k, x.data());
                const double* const row = x.data() + std::int64_t{m.ja[k] - 1} * B;
                for (int b = 0; b < B; ++b) sums[b] += row[b];
            }
            benchmark::DoNotOptimize(sums);
        }
    });
}
template <int B>
timing scatters(const matrix_data& m) {  // each thread into rows of its own
    const int threads = omp_get_max_threads();
    const std::vector<double> none(static_cast<std::size_t>(m.n) * B, 1.0);
    std::vector<std::vector<double>> own(static_cast<std::size_t>(threads), none);
    return best_of([&] {
#pragma omp parallel num_threads(threads) default(none) shared(m, own, threads)
        {
            std::vector<double>& mine = own[omp_get_thread_num()];
#pragma omp for schedule(static)
            for (std::int64_t k = 0; k < std::ssize(m.ja); ++k) {
                ask_ahead<B, 1>(m, k, mine.data());
                double* const row = mine.data() + std::int64_t{m.ja[k] - 1} * B;
                for (int b = 0; b < B; ++b) row[b] += 1.0;
            }
            benchmark::DoNotOptimize(mine.data());
        }
    });
}

struct floor_times {
    timing all, streaming_of_byte;
};

/// What is multiplied: the matrix as the upper triangle of a symmetric one, as it is, or transposed.
enum product_kind : std::int64_t { symmetric, plain, transposed };

/// What a product is bound by. With several columns an element leads to a row of a copy in which they stand
/// side by side, as that is what costs the fewest places; making the copies is not counted.
floor_times floor_of(kind which, std::int32_t equations, product_kind product, std::int64_t columns,
                     int threads) {
    static std::map<std::tuple<kind, std::int32_t, product_kind, std::int64_t, int>, floor_times> known;
    const auto [it, fresh] = known.try_emplace({which, equations, product, columns, threads});
    if (fresh) {
        const matrix_data& m = matrix_of(which, equations);
        timing& all = it->second.all;
        it->second.streaming_of_byte = streaming(std::ssize(m.ja));
        all = m.bytes(columns) * it->second.streaming_of_byte;
        if (which == anywhere && product != transposed)
            all = all + (columns == 1 ? gathers<1>(m) : gathers<several>(m));
        if (which == anywhere && product != plain)
            all = all + (columns == 1 ? scatters<1>(m) : scatters<several>(m));
    }
    return it->second;
}

void run_product(benchmark::State& state, kind which, std::int32_t equations, product_kind kind_of_product,
                 std::int64_t columns, int threads) {
    const int before = omp_get_max_threads();
    omp_set_num_threads(threads);
    const matrix_data& m = matrix_of(which, equations);
    const matrix<double> x(equations, columns, 1.0);
    matrix<double> y(equations, columns);
    const floor_times known = floor_of(which, equations, kind_of_product, columns, threads);
    const timing floor = known.all;
    const storage stored = kind_of_product == symmetric ? storage::symmetric_upper : storage::general;
    const auto product = [&](std::int64_t of_columns) {
        crs_multiply<std::int32_t>(m.view(), stored, kind_of_product == transposed, 1.0,
                                   {x.data(), equations, of_columns, equations}, 1.0,
                                   {y.data(), equations, of_columns, equations});
        benchmark::ClobberMemory();
    };
    stopwatch watch;
    for (auto _ : state) watch.run([&] { product(columns); });
    if (columns > 1) state.counters["of_one_column"] = watch.best().wall / best_of([&] { product(1); }).wall;
    state.counters["wall_ms"] = 1e3 * watch.best().wall;
    state.counters["cpu_ms"] = 1e3 * watch.best().cpu;
    state.counters["floor_wall_ms"] = 1e3 * floor.wall;
    state.counters["floor_cpu_ms"] = 1e3 * floor.cpu;
    state.counters["of_floor"] = watch.best().wall / floor.wall;
    state.counters["of_floor_cpu"] = watch.best().cpu / floor.cpu;
    state.counters["streaming_GB/s"] = 1e-9 / known.streaming_of_byte.wall;
    omp_set_num_threads(before);
}

/// Arguments: matrix, equations, columns, threads.
void BM_crs_multiply_symmetric(benchmark::State& state) {
    run_product(state, static_cast<kind>(state.range(0)), static_cast<std::int32_t>(state.range(1)),
                symmetric, state.range(2), static_cast<int>(state.range(3)));
}
BENCHMARK(BM_crs_multiply_symmetric)
    ->ArgNames({"matrix", "equations", "columns", "threads"})
    ->ArgsProduct({{banded, family_order, anywhere}, {1'000'000}, {1, several}, {1, 2}})
    ->ArgsProduct({{banded, family_order, anywhere}, {16'000'000}, {1, several}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

/// Arguments: matrix, whether it is transposed, columns, threads.
void BM_crs_multiply_general(benchmark::State& state) {
    run_product(state, static_cast<kind>(state.range(0)), 1'000'000, state.range(1) == 1 ? transposed : plain,
                state.range(2), static_cast<int>(state.range(3)));
}
BENCHMARK(BM_crs_multiply_general)
    ->ArgNames({"matrix", "transposed", "columns", "threads"})
    ->ArgsProduct({{banded, anywhere}, {0, 1}, {1, several}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace zendar
