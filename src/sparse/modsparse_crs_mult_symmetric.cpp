#include "modsparse_crs_mult_spill.hpp"
#include "modsparse_crs_mult_spread.hpp"

// A stored element (i, c) with c > i gathers x(c) into y(i) and scatters x(i) into y(c). How that is best
// done depends on where the columns lie:
//
//   near the diagonal    one vector       modsparse_crs_mult_near.cpp
//                        several columns  modsparse_crs_mult_ring.cpp
//   anywhere             one vector       modsparse_crs_mult_far.cpp
//                        several columns  modsparse_crs_mult_batch.cpp

namespace zendar::crs_mult {

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
