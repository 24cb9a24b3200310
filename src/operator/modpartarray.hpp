#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

namespace zendar {

/// The stretch lo .. hi of a vector of length neq, indexed by equation number; empty when hi < lo.
class part_array {
  public:
    part_array() = default;
    /// An empty stretch has lo = neq and hi = 0.
    void initbounds_scal(std::int64_t lo, std::int64_t hi) {
        lo_ = lo;
        hi_ = hi;
    }
    /// Allocates and zeroes what the bounds ask for; the caller's thread touches it first.
    void initarray_scal() { values_.assign(static_cast<std::size_t>(size()), 0.0); }
    void zero() { std::ranges::fill(values_, 0.0); }

    [[nodiscard]] bool allocated() const noexcept { return !values_.empty(); }
    [[nodiscard]] std::int64_t lo() const noexcept { return lo_; }
    [[nodiscard]] std::int64_t hi() const noexcept { return hi_; }
    [[nodiscard]] std::int64_t size() const noexcept { return std::max<std::int64_t>(hi_ - lo_ + 1, 0); }
    [[nodiscard]] double* data() noexcept { return values_.data(); }
    [[nodiscard]] std::span<const double> values() const noexcept { return values_; }
    /// By equation number, lo .. hi.
    double& operator()(std::int64_t equation) { return values_[static_cast<std::size_t>(equation - lo_)]; }

  private:
    std::int64_t lo_ = 0, hi_ = -1;
    std::vector<double> values_;
};

}  // namespace zendar
