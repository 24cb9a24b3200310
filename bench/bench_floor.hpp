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
