// Assembly in the hash store and conversion to compressed rows, on distinct random elements: the store's
// worst case, since every addition goes to a cache line of its own. About 4 GB of memory at the largest size.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <vector>

#include "modsparse.hpp"

namespace zendar {
namespace {

constexpr std::int32_t elements_per_row = 10;

/// Distinct elements of an upper triangle in random order.
struct element_list {
    std::int32_t n;
    std::vector<std::int32_t> rows, cols;
    std::vector<double> values;

    explicit element_list(std::int64_t elements)
        : n(static_cast<std::int32_t>(std::max<std::int64_t>(elements / elements_per_row, 64))),
          rows(static_cast<std::size_t>(elements)),
          cols(static_cast<std::size_t>(elements)),
          values(static_cast<std::size_t>(elements), 1.5) {
        // Element number -> (row, distance from the diagonal), visited in steps prime to their count.
        std::int64_t step = elements * 5 / 8 | 1, at = 0;
        while (std::gcd(step, elements) != 1) step += 2;
        for (std::int64_t k = 0; k < elements; ++k) {
            const std::int64_t row = at / elements_per_row;
            rows[k] = static_cast<std::int32_t>(row % n) + 1;
            const std::int64_t distance = at % elements_per_row * 7919;
            cols[k] = static_cast<std::int32_t>((row + distance) % n) + 1;
            if (rows[k] > cols[k]) std::swap(rows[k], cols[k]);
            at = (at + step) % elements;
        }
    }
    [[nodiscard]] std::int64_t size() const { return std::ssize(rows); }
};

coosparse empty_store(const element_list& list, bool presized) {
    const std::int64_t nel = presized ? list.size() * 5 / 4 : 100;
    return coosparse(list.n, list.n, nel, true);
}

void assemble(coosparse& coo, const element_list& list, bool batched) {
    if (batched) {
        coo.add(list.rows, list.cols, list.values);
    } else {
        for (std::int64_t k = 0; k < list.size(); ++k) coo.add(list.rows[k], list.cols[k], list.values[k]);
    }
}

/// Arguments: elements; whether the store starts at its final size; whether the batched `add` is used.
void BM_coosparse_add(benchmark::State& state) {
    const element_list list(state.range(0));
    for (auto _ : state) {
        coosparse coo = empty_store(list, state.range(1) != 0);
        assemble(coo, list, state.range(2) != 0);
        benchmark::DoNotOptimize(coo.filled());
        state.counters["elements"] = static_cast<double>(coo.filled());
    }
    state.SetItemsProcessed(state.iterations() * list.size());
}
BENCHMARK(BM_coosparse_add)
    ->ArgsProduct({{1 << 16, 5'000'000, 50'000'000}, {0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

/// A second pass over elements that are all present: sums only.
void BM_coosparse_add_present(benchmark::State& state) {
    const element_list list(state.range(0));
    coosparse coo = empty_store(list, true);
    assemble(coo, list, true);
    for (auto _ : state) assemble(coo, list, state.range(1) != 0);
    state.SetItemsProcessed(state.iterations() * list.size());
}
BENCHMARK(BM_coosparse_add_present)
    ->ArgsProduct({{50'000'000}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_convertfromcootocrs(benchmark::State& state) {
    const element_list list(state.range(0));
    coosparse coo = empty_store(list, true);
    assemble(coo, list, true);
    for (auto _ : state) benchmark::DoNotOptimize(convertfromcootocrs(coo).totalnumberofelements());
    state.SetItemsProcessed(state.iterations() * list.size());
}
BENCHMARK(BM_convertfromcootocrs)
    ->Arg(5'000'000)
    ->Arg(50'000'000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace zendar
