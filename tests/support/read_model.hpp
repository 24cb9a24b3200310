#pragma once

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "magnitude.hpp"
#include "modsnpmodel.hpp"
#include "random_model.hpp"
#include "temporary_directory.hpp"

namespace zendar::test {

/// Sets the number of threads for as long as it lives.
class threads {
  public:
    explicit threads(int n) : old_(omp_get_max_threads()) { omp_set_num_threads(n); }
    ~threads() { omp_set_num_threads(old_); }
    threads(const threads&) = delete;
    threads& operator=(const threads&) = delete;

  private:
    int old_;
};

inline std::vector<double> random_vector(std::int64_t n, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<double> x(n);
    for (double& v : x) v = std::normal_distribution<double>()(random);
    return x;
}

/// Largest difference relative to the largest element of the reference.
inline double difference(std::span<const double> a, std::span<const double> reference) {
    double largest = 0.0, worst = 0.0;
    for (const double v : reference) largest = std::max(largest, magnitude(v));
    for (std::size_t i = 0; i < a.size(); ++i) worst = std::max(worst, magnitude(a[i] - reference[i]));
    return largest > 0.0 ? worst / largest : worst;
}

/// The stages up to the data, from a model's own files.
struct read_model {
    read_model(const random_model& model, const std::string& options = {}) : at(directory.path()) {
        model.write(directory, options);
        run.log.configure({.max_width = 100000});
        run.log.add_stream(screen);
        initparfile(run, "model.par", {});
    }
    temporary_directory directory;
    working_directory at;
    std::ostringstream screen;  ///< what the run logged
    run_state run;
};

}  // namespace zendar::test
