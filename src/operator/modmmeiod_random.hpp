#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "modmmeiod.hpp"

/// The random part: r += G^-1 x, effect by effect.
namespace zendar::modmmeiod {

/// Work arrays, and the line of timings.
struct random_work {
    std::span<double> spill;  ///< of products with sparse matrices
    std::span<double>
        a22i;  ///< twice the animals of A22 times the order, and what `computea22i_timesx` needs
    std::string& text;
};

/// One row per random type that the form knows.
struct random_product {
    std::int32_t type_random;
    /// Null for a type that adds nothing.
    void (*timesx)(const operator_state& state, const effect_group& group, random_work& work,
                   std::span<const double> x, std::span<double> r);
};

/// The row of a type in `computerandompartsparse_timesx` (`useasparse`) or `computerandompart_timesx`; null
/// for a type that the form does not know.
[[nodiscard]] const random_product* find_random_product(std::int32_t type_random, bool useasparse);

}  // namespace zendar::modmmeiod
