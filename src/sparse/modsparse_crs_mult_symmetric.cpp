#include <array>
#include <bit>
#include <numeric>

#include "modsparse_crs_mult_spill.hpp"

// A stored element (i, c) with c > i gathers x(c) into y(i) and scatters x(i) into y(c). How that is best
// done depends on where the columns lie:
//
//   near the diagonal    one vector       modsparse_crs_mult_near.cpp
//                        several columns  modsparse_crs_mult_ring.cpp
//   anywhere             one vector       modsparse_crs_mult_far.cpp
//                        several columns  modsparse_crs_mult_batch.cpp

namespace zendar::crs_mult {

namespace {

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
                ++seen_[std::bit_width(
                    static_cast<std::uint64_t>(std::max<std::int64_t>(m.ja[k] - 1 - i, 0)))];
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

}  // namespace

template <int B, std::signed_integral Index>
void multiply_symmetric(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                        matrix_view<double> y, int parts) {
    if constexpr (B > 1) {
        const std::int64_t reach = m.dim1 <= ring_size / 2 ? 0 : spread(m).reach();
        if (reach <= ring_size / 2)
            multiply_near<B>(m, alpha, x, beta, y, reach, parts);
        else
            multiply_far<B>(m, alpha, x, beta, y, parts);
    } else {
        // So many equations of x and y stay in the last cache, and in reach of the address translation; so
        // many of each are in the nearest cache and are asked for before elements lead to them.
        constexpr std::int64_t cached = 1 << 18, small = 1 << 12, margin = 64;
        const std::int64_t reach = m.dim1 <= small ? 0 : spread(m).reach();
        if (reach <= cached)
            multiply_one_vector(m, alpha, x.data, beta, y.data, std::min(reach, small) + margin, parts);
        else
            multiply_one_vector_far(m, alpha, x.data, beta, y.data, parts);
    }
}

template <std::signed_integral Index>
using symmetric_product = void(crs_view<Index>, double, matrix_view<const double>, double,
                               matrix_view<double>, int);

template symmetric_product<std::int32_t> multiply_symmetric<1>;
template symmetric_product<std::int32_t> multiply_symmetric<2>;
template symmetric_product<std::int32_t> multiply_symmetric<4>;
template symmetric_product<std::int32_t> multiply_symmetric<6>;
template symmetric_product<std::int32_t> multiply_symmetric<8>;
template symmetric_product<std::int32_t> multiply_symmetric<10>;
template symmetric_product<std::int64_t> multiply_symmetric<1>;
template symmetric_product<std::int64_t> multiply_symmetric<2>;
template symmetric_product<std::int64_t> multiply_symmetric<4>;
template symmetric_product<std::int64_t> multiply_symmetric<6>;
template symmetric_product<std::int64_t> multiply_symmetric<8>;
template symmetric_product<std::int64_t> multiply_symmetric<10>;

}  // namespace zendar::crs_mult
