#pragma once

#include "modmmeiod_detail.hpp"

/// What the loops of the record step share.
namespace zendar::modmmeiod {

/// Values of a record in the work arrays: three traits take four, so that they are one vector of the
/// processor.
[[nodiscard]] constexpr std::int32_t value_stride(std::int32_t ntrait) {
    return ntrait == 3 ? 4 : ntrait;
}

/// Records are taken in batches, effect by effect, so that what is the same for all records of an effect is
/// decided once a batch, and the loads of different records overlap.
inline constexpr std::int64_t batch_size = 128;

/// Adds an effect to the fitted values of a batch; the effect is the `term`-th, and its sums go to the
/// target.
using gather_loop = void (*)(const record_input&, const record_term&, record_block, record_scratch&,
                             std::size_t term, scatter_target);
/// Adds the residual values of a batch to the sums of an effect.
using scatter_loop = void (*)(const record_input&, const record_term&, record_block, const record_scratch&,
                              std::size_t term, scatter_target);
/// w = R^-1 v of every record of a batch, with its weights on both sides.
/// @param end  of the records of this thread
using residual_loop = void (*)(const record_input&, record_block, record_scratch&, std::int64_t end);

/// Loops for vectors of four values: class effects that all traits have, and residuals.
struct wide_loops {
    gather_loop first_class;  ///< of the first effect: its values, and nothing that was there before
    gather_loop gather_class;
    scatter_loop scatter_class;
    residual_loop residuals, weighted_residuals;
};

/// Null where the traits are not three or four, or the processor has no AVX2. The sums are those of the other
/// loops, in the same order.
[[nodiscard]] const wide_loops* find_wide_loops(std::int32_t ntrait);

}  // namespace zendar::modmmeiod
