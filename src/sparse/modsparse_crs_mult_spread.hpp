#pragma once

#include <array>
#include <bit>
#include <cstdlib>
#include <numeric>

#include "modsparse_crs_mult_detail.hpp"

namespace zendar::crs_mult {

/// How far from the diagonal elements lie, from a sample of rows.
class spread {
  public:
    template <std::signed_integral Index>
    explicit spread(crs_view<Index> m) {
        constexpr int sampled_rows = 256;
        constexpr std::int64_t sampled_elements = 16;
        for (int r = 0; r < sampled_rows; ++r) {
            const std::int64_t i = even_bound(m.dim1, r, sampled_rows);
            const std::int64_t begin = m.ia[i] - 1, end = m.ia[i + 1] - 1;
            const std::int64_t step = (end - begin + sampled_elements - 1) / sampled_elements;
            for (std::int64_t k = begin; k < end; k += step)
                ++seen_[std::bit_width(static_cast<std::uint64_t>(std::abs(m.ja[k] - 1 - i)))];
        }
    }
    /// The least power of 2 that nearly all distances are below.
    [[nodiscard]] std::int64_t reach() const {
        constexpr std::int64_t most_far = 20;  // one in 20
        std::int64_t far = std::accumulate(seen_.begin(), seen_.end(), std::int64_t{0});
        const std::int64_t all = far;
        std::size_t width = 0;
        while ((far -= seen_[width]) * most_far > all) ++width;
        return std::int64_t{1} << width;
    }

  private:
    std::array<std::int64_t, 65> seen_{};  // by the number of bits
};

}  // namespace zendar::crs_mult
