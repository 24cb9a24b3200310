#pragma once

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <vector>

#include "modstats.hpp"

/// What the machine can do at best, measured in the run of the benchmark that is compared with it.
namespace zendar::bench {

/// Bytes per second of reading a long array once with the current number of threads; the best of a few
/// passes.
inline double read_bandwidth() {
    static const std::vector<double> data(std::size_t{1} << 25, 1.0);  // 256 MiB
    double best = 1e30, sink = 0.0;
    for (int pass = 0; pass < 5; ++pass) {
        const wtime clock;
        double sum = 0.0;
        const std::int64_t n = std::ssize(data);
        const double* const a = data.data();
#pragma omp parallel for simd schedule(static) reduction(+ : sum)
        for (std::int64_t i = 0; i < n; ++i) sum += a[i];
        best = std::min(best, clock.seconds());
        sink += sum;
    }
    return sink == 0.0 ? 0.0 : static_cast<double>(data.size() * sizeof(double)) / best;
}

/// Seconds of the random accesses that an effect with levels in no order costs: for each of `index`, `width`
/// doubles of one array read, and `width` doubles of another one of the same length added to, by every thread
/// in arrays of its own. Streaming the list itself is part of it.
inline double random_access_seconds(const std::vector<std::int32_t>& index, std::int64_t nlevel,
                                    std::int64_t width) {
    const std::int64_t n = std::ssize(index), length = nlevel * width;
    std::vector<double> x(static_cast<std::size_t>(length), 1.0), sums(64, 0.0);
    std::vector<std::vector<double>> r(static_cast<std::size_t>(omp_get_max_threads()));
    double best = 1e30;
    for (int pass = 0; pass < 6; ++pass) {
        const wtime clock;
#pragma omp parallel default(none) shared(index, x, r, sums, n, length, width)
        {
            std::vector<double>& own = r[static_cast<std::size_t>(omp_get_thread_num())];
            own.resize(static_cast<std::size_t>(length));
            double* const to = own.data();
            const double* const from = x.data();
            const std::int32_t* const at = index.data();
            double sum = 0.0;
#pragma omp for schedule(static) nowait
            for (std::int64_t i = 0; i < n; ++i)
                for (std::int64_t t = 0; t < width; ++t) sum += from[at[i] * width + t];
#pragma omp for schedule(static)
            for (std::int64_t i = 0; i < n; ++i)
                for (std::int64_t t = 0; t < width; ++t) to[at[i] * width + t] += 1.0;
            sums[static_cast<std::size_t>(omp_get_thread_num() % 64)] += sum;
        }
        if (pass > 0) best = std::min(best, clock.seconds());  // the first one allocates
    }
    return sums[0] == 0.0 ? 0.0 : best;
}

/// Sets the number of threads for as long as it lives.
class thread_count {
  public:
    explicit thread_count(std::int64_t n) : old_(omp_get_max_threads()) {
        omp_set_num_threads(static_cast<int>(n));
    }
    ~thread_count() { omp_set_num_threads(old_); }
    thread_count(const thread_count&) = delete;
    thread_count& operator=(const thread_count&) = delete;

  private:
    int old_;
};

}  // namespace zendar::bench
