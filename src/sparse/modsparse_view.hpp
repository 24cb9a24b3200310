#pragma once

#include <concepts>
#include <cstdint>
#include <span>

namespace zendar {

/// A compressed-row matrix that somebody else owns. `ia` and `ja` count from 1.
template <std::signed_integral Index>
struct crs_view {
    std::int32_t dim1 = 0, dim2 = 0;
    std::span<const Index> ia;  ///< dim1 + 1 row pointers, ia[0] = 1
    std::span<const Index> ja;  ///< columns
    std::span<const double> a;  ///< values
    bool sorted = false;        ///< columns are known to rise within each row
};

}  // namespace zendar
