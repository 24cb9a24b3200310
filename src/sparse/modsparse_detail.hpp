#pragma once

#include <cstdint>
#include <limits>

#include "modsparse.hpp"

namespace zendar {

/// The arrays of a matrix, for those who build it.
struct crs_arrays {
    template <std::signed_integral Index>
    static std::span<Index> ia(crs_matrix<Index>& m) {
        return m.ia_.span();
    }
    template <std::signed_integral Index>
    static std::span<Index> ja(crs_matrix<Index>& m) {
        return m.ja_.span();
    }
    template <std::signed_integral Index>
    static std::span<double> a(crs_matrix<Index>& m) {
        return m.a_.span();
    }
};

namespace detail {

/// The column of the element that each row has in any case.
struct reserved_column {
    std::int32_t dim2;
    bool square;
    std::int32_t per_row;  ///< 0: a matrix without columns has no place for it

    explicit reserved_column(const gen_sparse& m)
        : dim2(m.getdim(2)), square(m.issquare()), per_row(dim2 > 0 ? 1 : 0) {}
    std::int32_t operator()(std::int32_t row) const { return square ? row : dim2; }
};

/// @throws fatal_error
[[noreturn]] void too_many_elements(logger* unlog);

/// `ia` ends with the number of elements plus 1.
template <std::signed_integral Index>
constexpr std::int64_t most_elements = std::numeric_limits<Index>::max() - 1;

/// The conversions with the largest number of elements as an argument.
template <std::signed_integral Index>
[[nodiscard]] crs_matrix<Index> coo_to_crs(const coosparse& coo, std::int64_t limit = most_elements<Index>);
[[nodiscard]] crssparse ll_to_crs(const llsparse& ll, std::int64_t limit = most_elements<std::int32_t>);
[[nodiscard]] metisgraph crs_to_metisgraph(const crssparse& crs,
                                           std::int64_t limit = most_elements<std::int32_t>);

}  // namespace detail

}  // namespace zendar
