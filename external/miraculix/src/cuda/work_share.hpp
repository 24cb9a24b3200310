#pragma once

#include <cstdint>

#include "packed_double.hpp"

/// How the work of a product is shared among the blocks of a grid.
namespace miraculix::gpu {

/// The result's rows are cut in `tiles`, the sum of each of them in `steps`. The blocks take equal shares of
/// all steps, in order, whatever tiles they belong to, so that the multiprocessors end together for any
/// shape. A tile whose steps several blocks have is added up afterwards, in the order of the blocks: the
/// result does not depend on their timing.
struct work_share {
    std::int64_t tiles, steps, blocks;  ///< no more blocks than steps in all
    std::int64_t least, more;           ///< steps of each block; the first `more` blocks have one step more

    ZENDAR_GPU_BOTH work_share(std::int64_t n_tiles, std::int64_t n_steps, std::int64_t n_blocks)
        : tiles(n_tiles),
          steps(n_steps),
          blocks(n_blocks),
          least(n_tiles * n_steps / n_blocks),
          more(n_tiles * n_steps % n_blocks) {}

    [[nodiscard]] ZENDAR_GPU_BOTH std::int64_t total() const { return tiles * steps; }
    /// The first step of a block; that of the block behind the last one is the number of steps.
    [[nodiscard]] ZENDAR_GPU_BOTH std::int64_t first_step(std::int64_t block) const {
        return block * least + (block < more ? block : more);
    }
    [[nodiscard]] ZENDAR_GPU_BOTH std::int64_t block_of(std::int64_t step) const {
        const std::int64_t in_larger = more * (least + 1);
        return step < in_larger ? step / (least + 1) : more + (step - in_larger) / least;
    }
    [[nodiscard]] ZENDAR_GPU_BOTH std::int64_t first_block(std::int64_t tile) const {
        return block_of(tile * steps);
    }
    [[nodiscard]] ZENDAR_GPU_BOTH std::int64_t last_block(std::int64_t tile) const {
        return block_of(tile * steps + steps - 1);
    }
    /// Where a block leaves its partial sums of a tile that it shares with others: it has two places, as only
    /// its first and its last tile can be such ones.
    [[nodiscard]] ZENDAR_GPU_BOTH std::int64_t partial_place(std::int64_t block, std::int64_t tile) const {
        return 2 * block + (first_step(block) >= tile * steps ? 0 : 1);
    }
};

constexpr std::int64_t places_per_block = 2;

/// The sizes of a product: the packed matrix A has m rows of k codes, the other one n columns.
struct product_shape {
    std::int64_t m, k, n;
    std::int64_t
        pitch;  ///< bytes from one row of A to the next, a multiple of 16; the rest of a row is read too
    std::int64_t ldb;  ///< doubles from one column of B to the next, k rounded up to a multiple of 4
};

/// What centring adds to an element of the result: term(column) * weight(row); nothing without terms.
struct centring {
    const double *term, *weight;

    [[nodiscard]] ZENDAR_GPU_BOTH double add_to(double sum, std::int64_t row, std::int64_t column) const {
        return term == nullptr ? sum : sum + term[column] * weight[row];
    }
};

}  // namespace miraculix::gpu
