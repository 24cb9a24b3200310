#pragma once

#include <cstdint>

#include "packed_double.hpp"

/// The shape of the fast kernel's blocks, and where everything lies in their shared memory.
namespace miraculix::gpu {

constexpr int warp_lanes = 32;
constexpr int chunk_bytes = 16;  ///< what one asynchronous copy moves
constexpr int codes_per_word = 16;
constexpr int codes_per_chunk = 64;
constexpr int tile_rows = 256;
constexpr int widest_tile = 64;
/// Rows and columns of one operation on the matrix units, and the depth that is taken: 8 or 16. The deeper
/// one takes so many registers for its operands at a time that some widths spill.
constexpr int mma_rows = 16, mma_columns = 8, chosen_mma_depth = 8;

/// A block multiplies 256 rows of A with `Width` columns of B. Each of its warps holds all columns of its
/// rows, so that a code is decoded once for all columns; more rows to a warp make B's fragments serve longer,
/// as far as the accumulators of all columns leave room.
///
/// A lane of a quad has one word of 16 codes of a row in hand, and the sum may go over the codes in any
/// order. So the four lanes take codes that lie 16 apart as one step of the matrix units, without any
/// exchange.
template <int Width, int MmaDepth = chosen_mma_depth>
struct fast_tile {
    static_assert(MmaDepth == 8 || MmaDepth == 16);
    static_assert(Width % mma_columns == 0 && Width >= 8 && Width <= widest_tile);
    static constexpr int width = Width;
    static constexpr int mma_depth = MmaDepth;
    static constexpr int codes_per_mma = MmaDepth / 4;  ///< of each row that a lane has
    static constexpr int warp_rows = Width <= 24 ? 64 : 32;
    static constexpr int warps = tile_rows / warp_rows;
    static constexpr int threads = warps * warp_lanes;
    static constexpr int row_groups = warp_rows / mma_rows;
    static constexpr int column_groups = Width / mma_columns;

    /// Codes of a row that one stage of the pipeline holds. Devices with 99 KiB of shared memory to a block
    /// can run all widths.
    static constexpr int depth = Width <= 32 ? 128 : 64;
    static constexpr int stages = Width <= 16 ? 3 : 2;
    /// Blocks that a multiprocessor of the largest kind (227 KiB) holds at a time, with as many registers as
    /// the accumulators need.
    static constexpr int blocks_per_multiprocessor = Width <= 8 ? 3 : Width <= 24 ? 2 : 1;

    static constexpr int row_chunks = depth / codes_per_chunk;
    static constexpr int row_bytes = row_chunks * chunk_bytes;
    static constexpr int word_doubles = codes_per_word + 2;  ///< two more, against conflicts of the banks
    /// A remainder of 8 of 16 puts the columns of two neighbouring quads of lanes into different banks.
    static constexpr int column_doubles = depth / codes_per_word * word_doubles / 16 * 16 + 8;
    static constexpr int a_bytes = tile_rows * row_bytes;
    static constexpr int stage_bytes = a_bytes + Width * column_doubles * 8;
    static constexpr int shared_bytes = stages * stage_bytes;

    /// Place of 16 bytes of a row. The chunks of every second four rows change places: eight rows at a time
    /// are read without conflicts of the banks.
    static ZENDAR_GPU_BOTH int a_chunk(int row, int chunk) {
        return row * row_bytes + chunk_bytes * (row_chunks == 1 ? chunk : chunk ^ (row >> 2 & 1));
    }
    /// Place of the code `depth_index` (even) of a column of B, and of the next one; in bytes.
    static ZENDAR_GPU_BOTH int b_pair(int column, int depth_index) {
        return a_bytes + 8 * (column * column_doubles + depth_index / codes_per_word * word_doubles +
                              depth_index % codes_per_word);
    }

    /// The word of a lane: row `lane` / 4 of eight rows, word `lane` % 4 of a chunk.
    static ZENDAR_GPU_BOTH int a_word(int lane, int first_row, int chunk) {
        return a_chunk(first_row + lane / 4, chunk) + 4 * (lane % 4);
    }
    /// Two doubles of B that meet the codes `code` and `code` + 1 of the lane's word: column `lane` / 4 of
    /// eight.
    static ZENDAR_GPU_BOTH int b_word(int lane, int first_column, int chunk, int code) {
        return b_pair(first_column + lane / 4, chunk * codes_per_chunk + lane % 4 * codes_per_word + code);
    }

    /// All threads together copy so many rows of A or columns of B at a time.
    static constexpr int column_pairs = depth / 2;
    static constexpr int rows_at_a_time = threads / row_chunks;
    static constexpr int columns_at_a_time = threads / column_pairs;
    static_assert(tile_rows % rows_at_a_time == 0 && rows_at_a_time % 8 == 0 &&
                  width % columns_at_a_time == 0 && threads % column_pairs == 0);
    static_assert(word_doubles % 2 == 0 && column_doubles % 16 == 8 &&
                  column_doubles >= depth / codes_per_word * word_doubles);
    static_assert(stage_bytes % chunk_bytes == 0);
};

/// Calls `f` with the tile of a width that is a multiple of 8, up to 64.
template <int MmaDepth = chosen_mma_depth, class F>
auto with_tile(int width, F f) {
    switch (width) {
        case 8:
            return f(fast_tile<8, MmaDepth>{});
        case 16:
            return f(fast_tile<16, MmaDepth>{});
        case 24:
            return f(fast_tile<24, MmaDepth>{});
        case 32:
            return f(fast_tile<32, MmaDepth>{});
        case 40:
            return f(fast_tile<40, MmaDepth>{});
        case 48:
            return f(fast_tile<48, MmaDepth>{});
        case 56:
            return f(fast_tile<56, MmaDepth>{});
        default:
            return f(fast_tile<64, MmaDepth>{});
    }
}

}  // namespace miraculix::gpu
