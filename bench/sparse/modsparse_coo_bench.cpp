// Assembly in the hash store and conversion to compressed rows, on distinct random elements: the store's
// worst case, since every addition goes to a cache line of its own. About 4 GB of memory at the largest size.
// Beside them what the machine's memory gives at best: random accesses to a table of the same size.

#include <benchmark/benchmark.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <numeric>
#include <vector>

#include "modsparse.hpp"

namespace zendar {
namespace {

constexpr std::int32_t elements_per_row = 10;

// ---- the floor -------------------------------------------------------------------------------------------

/// A table in pages of 4 KiB or, if the system has them, of 2 MiB. Every page is touched.
class slot_table {
  public:
    slot_table(std::int64_t size, bool huge) : size_(size) {
        void* raw =
            ::mmap(nullptr, bytes() + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (raw == MAP_FAILED) throw std::bad_alloc();
        raw_ = static_cast<char*>(raw);
        ::madvise(raw_, bytes() + page, huge ? MADV_HUGEPAGE : MADV_NOHUGEPAGE);
        slots_ = reinterpret_cast<coo_slot*>(raw_ + (page - reinterpret_cast<std::uintptr_t>(raw_) % page));
        std::fill_n(slots_, size_, coo_slot{1, 1, 1.0});
    }
    slot_table(const slot_table&) = delete;
    slot_table& operator=(const slot_table&) = delete;
    ~slot_table() { ::munmap(raw_, bytes() + page); }
    [[nodiscard]] coo_slot* data() { return slots_; }

  private:
    static constexpr std::size_t page = std::size_t{2} << 20;
    [[nodiscard]] std::size_t bytes() const { return static_cast<std::size_t>(size_) * sizeof(coo_slot); }

    std::int64_t size_;
    char* raw_ = nullptr;
    coo_slot* slots_ = nullptr;
};

enum class access { dependent, read, update };

/// Arguments: slots; whether in huge pages; what is done with each of them, in random order and asked for 64
/// ahead, the dependent reads excepted. The addresses come from the hash, as those of the store.
void BM_random_access(benchmark::State& state) {
    const std::int64_t nel = state.range(0);
    slot_table table(nel, state.range(1) != 0);
    coo_slot* const slots = table.data();
    const auto kind = static_cast<access>(state.range(2));
    constexpr std::int64_t accesses = 1 << 22;
    constexpr std::int64_t block = 64;
    std::int32_t key = 1;
    double sum = 0.0;
    for (auto _ : state) {
        if (kind == access::dependent) {
            for (std::int64_t k = 0; k < accesses / 16; ++k) {
                hash_words h = hash_start(++key, static_cast<std::int32_t>(sum) & 1);
                sum = slots[next_probe(h, nel)].value;
            }
            continue;
        }
        std::int64_t at[2][block] = {};
        for (std::int64_t k = 0; k < accesses; k += block) {
            std::int64_t* const now = at[k / block % 2];
            std::int64_t* const before = at[(k / block + 1) % 2];
            for (std::int64_t i = 0; i < block; ++i) {
                hash_words h = hash_start(++key, 1);
                now[i] = next_probe(h, nel);
                __builtin_prefetch(slots + now[i], 1);
            }
            if (kind == access::read)
                for (std::int64_t i = 0; i < block; ++i) sum += slots[before[i]].value;
            else
                for (std::int64_t i = 0; i < block; ++i) slots[before[i]].value += 1.0;
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * (kind == access::dependent ? accesses / 16 : accesses));
}
BENCHMARK(BM_random_access)
    ->ArgsProduct({{1 << 26}, {0, 1}, {0, 1, 2}})
    ->ArgNames({"slots", "huge", "kind"})
    ->Unit(benchmark::kMillisecond);

/// The first touch of a table's memory, which the system clears.
void BM_first_touch(benchmark::State& state) {
    for (auto _ : state) {
        page_array<coo_slot> table(state.range(0));
        for (std::int64_t i = 0; i < table.size(); i += 256) table.data()[i].row = 1;
        benchmark::DoNotOptimize(table.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * std::int64_t{sizeof(coo_slot)});
}
BENCHMARK(BM_first_touch)->Arg(1 << 26)->Unit(benchmark::kMillisecond);

/// Reading a table from end to end.
void BM_stream_read(benchmark::State& state) {
    slot_table table(state.range(0), true);
    for (auto _ : state) {
        std::int64_t sum = 0;
        for (std::int64_t i = 0; i < state.range(0); ++i) sum += table.data()[i].row;
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * std::int64_t{sizeof(coo_slot)});
}
BENCHMARK(BM_stream_read)->Arg(1 << 26)->Unit(benchmark::kMillisecond);

// ---- the store -------------------------------------------------------------------------------------------

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

/// Takes memory from the system and gives it back: a virtual machine that has lent its free memory to others
/// would else have to fetch it during the measurement, at a few seconds a GiB.
void fetch_memory(std::int64_t bytes) {
    page_array<coo_slot> table(bytes / std::int64_t{sizeof(coo_slot)});
    for (std::int64_t i = 0; i < table.size(); i += 256) table.data()[i].row = 1;
    benchmark::DoNotOptimize(table.data());
}

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
        state.PauseTiming();
        fetch_memory(list.size() * 4 * std::int64_t{sizeof(coo_slot)});
        state.ResumeTiming();
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
    for (auto _ : state) {
        state.PauseTiming();
        fetch_memory(list.size() * 2 * std::int64_t{sizeof(coo_slot)});
        state.ResumeTiming();
        benchmark::DoNotOptimize(convertfromcootocrs(coo).totalnumberofelements());
    }
    state.SetItemsProcessed(state.iterations() * list.size());
}
BENCHMARK(BM_convertfromcootocrs)
    ->Arg(5'000'000)
    ->Arg(50'000'000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace zendar
