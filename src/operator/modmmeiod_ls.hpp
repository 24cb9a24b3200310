#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "modmmeiod_detail.hpp"

/// The least-squares kernels: they differ in how the threads share the scatter, and so in memory and speed.
namespace zendar::modmmeiod {

/// Equations [first, end), from 0.
struct equation_stretch {
    std::int64_t first = 0, end = 0;
};

/// What a kernel works on besides the records.
struct ls_work {
    std::span<const record_block> blocks;
    std::span<part_array>
        residual;  ///< (thread, term), thread fastest; empty for the kernels with private copies
    /// Out, overwritten: r, of length neq, and one vector for each huge effect, as the terms number them.
    std::span<const std::span<double>> results;
    /// Stretches of r, rising, that hold sums already, to which the kernel adds.
    std::span<const equation_stretch> started;
    bool shared_equations = false;  ///< two effects may share equations of r
};

/// One row per kernel. `_combieff` is `_ori` with 10 more in `loptimem`: the record step sees to the slots.
struct ls_kernel {
    std::int32_t loptimem;
    std::string_view text;
    std::string_view procedure;
    bool partial;  ///< works on the partial arrays
    bool takes_type_23;
    void (*run)(const record_input& in, const ls_work& work);
};

/// The kernel of a value of `loptimem`, or null when there is none.
[[nodiscard]] const ls_kernel* find_ls_kernel(std::int32_t loptimem, bool type22);

}  // namespace zendar::modmmeiod
