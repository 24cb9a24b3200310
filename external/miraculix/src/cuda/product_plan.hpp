#pragma once

#include <algorithm>
#include <cstdint>

#include "fast_tile.hpp"
#include "work_share.hpp"

/// What the host decides before it starts the fast kernel.
namespace miraculix::gpu {

constexpr std::int64_t rounded_up(std::int64_t value, std::int64_t multiple) {
    return (value + multiple - 1) / multiple * multiple;
}

/// Columns of the next pass when n (at least 1) are left: passes of about the same width, so that none is
/// much narrower than the tile which it takes.
constexpr int columns_of_pass(int n) {
    const std::int64_t passes = (std::int64_t{n} + widest_tile - 1) / widest_tile;
    return static_cast<int>(std::min<std::int64_t>(n, rounded_up((n + passes - 1) / passes, mma_columns)));
}

/// Width of the tile for the columns of a pass.
constexpr int width_of(int columns) {
    return static_cast<int>(rounded_up(columns, mma_columns));
}

/// Doubles of the partial sums that a block may leave.
constexpr std::int64_t partials_of_block(int width) {
    return places_per_block * tile_rows * width;
}

/// The most doubles of partial sums that a product of up to `maxn` columns takes on a device.
inline std::int64_t most_partials(int maxn, int multiprocessors) {
    std::int64_t most = 0;
    for (int width = mma_columns; width <= width_of(std::min(maxn, widest_tile)); width += mma_columns)
        most = std::max(most, with_tile(width, [&](auto tile) {
                            return partials_of_block(tile.width) * tile.blocks_per_multiprocessor *
                                   multiprocessors;
                        }));
    return most;
}

/// Shares the work of a product.
///
/// @param depth     codes of a row that are one step.
/// @param slots     blocks that the device runs at a time.
/// @param capacity  doubles that there is room for among the partial sums, at least those of one block.
inline work_share share_work(const product_shape& shape, int width, int depth, std::int64_t slots,
                             std::int64_t capacity) {
    constexpr std::int64_t fewest_steps = 4;  // with less, starting a block and adding up take longer
    const std::int64_t tiles = (shape.m + tile_rows - 1) / tile_rows;
    const std::int64_t steps = (shape.k + depth - 1) / depth;
    const std::int64_t useful = (tiles * steps + fewest_steps - 1) / fewest_steps;
    return {tiles, steps,
            std::max<std::int64_t>(1, std::min({slots, useful, capacity / partials_of_block(width)}))};
}

}  // namespace miraculix::gpu
