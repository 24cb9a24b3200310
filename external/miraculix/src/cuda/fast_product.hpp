#pragma once

#include "fast_tile.hpp"
#include "work_share.hpp"

#if defined(__CUDACC__)
#define ZENDAR_GPU_DEVICE __device__ __forceinline__
#define ZENDAR_GPU_UNROLL _Pragma("unroll")
#define ZENDAR_GPU_ROLLED _Pragma("unroll 1")
#else
#define ZENDAR_GPU_DEVICE inline
#define ZENDAR_GPU_UNROLL
#define ZENDAR_GPU_ROLLED
#endif

/// The fast kernel's text. It is written over a block, which has threads, warps and memories, so that the
/// tests run the very same loops on the host, with every access checked. On the device, "for all threads" is
/// the thread itself.
///
/// A block offers: each<T> (one T for every lane of a warp), per_warp<T>, threads(f), warps(f),
/// synchronize(), copy_a, copy_b (asynchronous copies of 16 bytes, zeros when not
/// live), commit, wait<Pending>, write_result, write_partial. A warp offers: index, word, pair, map, mma,
/// for_lanes.
namespace miraculix::gpu {

/// The accumulators of a warp.
template <class Tile, class Real>
struct accumulators {
    Real value[Tile::row_groups][Tile::column_groups][4];
};

/// Starts the copies of thread `t` that fill a stage: the codes from `step` * depth on of a tile's rows, and
/// the rows of B that go with them.
template <class Tile, class Block>
ZENDAR_GPU_DEVICE void fill_stage(Block& block, const product_shape& shape, std::int64_t tile,
                                  std::int64_t step, int stage, int t) {
    const int at = stage * Tile::stage_bytes;
    const int row = t / Tile::row_chunks, chunk = t % Tile::row_chunks;
    const std::int64_t from_byte = step * Tile::row_bytes + chunk * chunk_bytes;
    ZENDAR_GPU_UNROLL
    for (int i = 0; i < tile_rows; i += Tile::rows_at_a_time) {
        const std::int64_t from_row = tile * tile_rows + row + i;
        block.copy_a(at + Tile::a_chunk(row + i, chunk), from_row * shape.pitch + from_byte,
                     from_row < shape.m && from_byte < shape.pitch);
    }
    const int column = t / Tile::column_pairs, depth_index = 2 * (t % Tile::column_pairs);
    const std::int64_t from = step * Tile::depth + depth_index;
    ZENDAR_GPU_UNROLL
    for (int i = 0; i < Tile::width; i += Tile::columns_at_a_time)
        block.copy_b(at + Tile::b_pair(column + i, depth_index), (column + i) * shape.ldb + from,
                     column + i < shape.n && from < shape.ldb);
}

/// Adds a stage to the accumulators of a warp.
template <class Tile, class Warp, class Sums>
ZENDAR_GPU_DEVICE void multiply_stage(Warp& warp, int stage, Sums& sums) {
    using real = typename Warp::template each<double>;
    using codes = typename Warp::template each<spread_codes>;
    const int at = stage * Tile::stage_bytes, first_row = warp.index * Tile::warp_rows;
    // The outer loops stay loops: unrolled, the decoded values of many steps would crowd the registers.
    ZENDAR_GPU_ROLLED
    for (int chunk = 0; chunk < Tile::row_chunks; ++chunk) {
        typename Warp::template each<std::uint32_t> word[Tile::row_groups][2];
        ZENDAR_GPU_UNROLL
        for (int r = 0; r < Tile::row_groups; ++r) {
            ZENDAR_GPU_UNROLL
            for (int i = 0; i < 2; ++i)
                word[r][i] = warp.word([=](int lane) {
                    return at + Tile::a_word(lane, first_row + r * mma_rows + i * 8, chunk);
                });
        }
        ZENDAR_GPU_ROLLED
        for (int half = 0; half < 2; ++half) {
            codes eight[Tile::row_groups][2];
            ZENDAR_GPU_UNROLL
            for (int r = 0; r < Tile::row_groups; ++r) {
                ZENDAR_GPU_UNROLL
                for (int i = 0; i < 2; ++i)
                    eight[r][i] = warp.map([=](std::uint32_t w) { return spread(w, half); }, word[r][i]);
            }
            ZENDAR_GPU_UNROLL
            for (int first = 0; first < 8; first += Tile::codes_per_mma) {
                // Operand i of A: rows of the upper or lower eight, by i % 2; code i / 2 from `first` on.
                const auto decode = [&](real(&a)[2 * Tile::codes_per_mma], int r) {
                    ZENDAR_GPU_UNROLL
                    for (int i = 0; i < 2 * Tile::codes_per_mma; ++i)
                        a[i] = warp.map([=](const spread_codes& s) { return value_of(s, first + i / 2); },
                                        eight[r][i % 2]);
                };
                const auto load = [&](real(&b)[Tile::codes_per_mma], int c) {
                    ZENDAR_GPU_UNROLL
                    for (int i = 0; i < Tile::codes_per_mma; i += 2)
                        warp.pair(
                            [=](int lane) {
                                return at + Tile::b_word(lane, c * mma_columns, chunk, 8 * half + first + i);
                            },
                            b[i], b[i + 1]);
                };
                // Of the two operands, the one with fewer groups waits in registers.
                if constexpr (Tile::row_groups > Tile::column_groups) {
                    real b[Tile::column_groups][Tile::codes_per_mma];
                    ZENDAR_GPU_UNROLL
                    for (int c = 0; c < Tile::column_groups; ++c) load(b[c], c);
                    ZENDAR_GPU_UNROLL
                    for (int r = 0; r < Tile::row_groups; ++r) {
                        real a[2 * Tile::codes_per_mma];
                        decode(a, r);
                        ZENDAR_GPU_UNROLL
                        for (int c = 0; c < Tile::column_groups; ++c) warp.mma(sums.value[r][c], a, b[c]);
                    }
                } else {
                    real a[Tile::row_groups][2 * Tile::codes_per_mma];
                    ZENDAR_GPU_UNROLL
                    for (int r = 0; r < Tile::row_groups; ++r) decode(a[r], r);
                    ZENDAR_GPU_UNROLL
                    for (int c = 0; c < Tile::column_groups; ++c) {
                        real b[Tile::codes_per_mma];
                        load(b, c);
                        ZENDAR_GPU_UNROLL
                        for (int r = 0; r < Tile::row_groups; ++r) warp.mma(sums.value[r][c], a[r], b);
                    }
                }
            }
        }
    }
}

/// Hands the sums of a warp out: to the result when the block has the whole tile, else to its place among the
/// partial sums.
template <class Tile, class Block, class Warp, class Sums>
ZENDAR_GPU_DEVICE void store_sums(Block& block, const product_shape& shape, std::int64_t tile, bool whole,
                                  std::int64_t place, const Warp& warp, const Sums& sums) {
    ZENDAR_GPU_UNROLL
    for (int r = 0; r < Tile::row_groups; ++r) {
        ZENDAR_GPU_UNROLL
        for (int c = 0; c < Tile::column_groups; ++c) {
            ZENDAR_GPU_UNROLL
            for (int i = 0; i < 4; ++i)
                warp.for_lanes(
                    [&](int lane, double sum) {
                        const int row_of_tile =
                            warp.index * Tile::warp_rows + r * mma_rows + i / 2 * 8 + lane / 4;
                        const int column = c * mma_columns + lane % 4 * 2 + i % 2;
                        const std::int64_t row = tile * tile_rows + row_of_tile;
                        if (row >= shape.m || column >= shape.n) return;
                        if (whole)
                            block.write_result(row, column, sum);
                        else
                            block.write_partial((place * Tile::width + column) * tile_rows + row_of_tile,
                                                sum);
                    },
                    sums.value[r][c][i]);
        }
    }
}

/// The part of a tile from step `begin` to `end`: while a stage is multiplied, the copies of the following
/// ones are under way.
template <class Tile, class Block>
ZENDAR_GPU_DEVICE void multiply_piece(Block& block, const product_shape& shape, std::int64_t tile,
                                      std::int64_t begin, std::int64_t end, bool whole, std::int64_t place) {
    typename Block::template per_warp<accumulators<Tile, typename Block::template each<double>>> sums = {};
    block.threads([&](int t) {
        for (int s = 0; s < Tile::stages - 1; ++s) {
            if (begin + s < end) fill_stage<Tile>(block, shape, tile, begin + s, s, t);
            block.commit(t);
        }
    });
    int stage = 0, next = Tile::stages - 1;
    for (std::int64_t step = begin; step < end; ++step) {
        block.template wait<Tile::stages - 2>();
        block.synchronize();  // the stage is filled, and the one before it is no longer read
        block.threads([&](int t) {
            if (step + Tile::stages - 1 < end)
                fill_stage<Tile>(block, shape, tile, step + Tile::stages - 1, next, t);
            block.commit(t);
        });
        block.warps([&](auto& warp) { multiply_stage<Tile>(warp, stage, sums[warp.index]); });
        stage = stage + 1 == Tile::stages ? 0 : stage + 1;
        next = next + 1 == Tile::stages ? 0 : next + 1;
    }
    block.synchronize();
    block.warps(
        [&](auto& warp) { store_sums<Tile>(block, shape, tile, whole, place, warp, sums[warp.index]); });
}

/// All that a block has to do.
template <class Tile, class Block>
ZENDAR_GPU_DEVICE void multiply_share(Block& block, const product_shape& shape, const work_share& share,
                                      std::int64_t index) {
    const std::int64_t last = share.first_step(index + 1);
    for (std::int64_t at = share.first_step(index); at < last;) {
        const std::int64_t tile = at / share.steps, begin = at - tile * share.steps;
        const std::int64_t end = last - at < share.steps - begin ? begin + (last - at) : share.steps;
        multiply_piece<Tile>(block, shape, tile, begin, end, begin == 0 && end == share.steps,
                             share.partial_place(index, tile));
        at += end - begin;
    }
}

/// An element of a tile that the blocks `first` to `last` share: the sum of what they left, in their order.
/// `partial` gives the value at an index.
template <class Tile, class Partial>
ZENDAR_GPU_DEVICE double sum_of_partials(const work_share& share, std::int64_t first, std::int64_t last,
                                         std::int64_t row, std::int64_t column, Partial partial) {
    const std::int64_t tile = row / tile_rows;
    double sum = 0.0;
    for (std::int64_t block = first; block <= last; ++block)
        sum +=
            partial((share.partial_place(block, tile) * Tile::width + column) * tile_rows + row % tile_rows);
    return sum;
}

}  // namespace miraculix::gpu
