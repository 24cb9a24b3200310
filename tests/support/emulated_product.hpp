#pragma once

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "cuda/product_plan.hpp"
#include "emulated_block.hpp"

/// A whole product of the fast kernel on the host, for the tests.
namespace miraculix::gpu::test {

/// The genotypes and columns of a product, and what centres it.
struct emulated_task {
    std::vector<std::uint8_t> a;  ///< m rows of `pitch` bytes
    std::int64_t m, k, pitch;
    const double* b;  ///< k x n
    std::int64_t ldb;
    int n;
    const double *v, *weight;  ///< the column sums are those of v(j) * b(j, c); null: not centred
};

/// Rows of `bytes` bytes as they lie on the device; what is behind them must not count.
inline std::vector<std::uint8_t> device_rows(const std::uint8_t* rows, std::int64_t m, std::int64_t bytes) {
    const std::int64_t pitch = rounded_up(bytes, chunk_bytes);
    std::vector<std::uint8_t> a(static_cast<std::size_t>(m * pitch), 0xE7);
    for (std::int64_t i = 0; i < m; ++i) std::copy_n(rows + i * bytes, bytes, a.begin() + i * pitch);
    return a;
}

/// Passes over the columns, blocks, and the adding up of shared tiles; m x n, column-major.
/// @throws std::logic_error  when an element of the result is not written exactly once, or as
/// `emulated_block`
template <int MmaDepth = chosen_mma_depth>
std::vector<double> emulated_product(const emulated_task& task, matrix_units units, std::int64_t slots) {
    product_shape shape{task.m, task.k, 0, task.pitch, rounded_up(task.k, 4)};
    device_memory memory;
    memory.a = task.a;
    std::vector<double> result;
    for (int first = 0; first < task.n;) {
        const int columns = columns_of_pass(task.n - first), width = width_of(columns);
        shape.n = columns;
        memory.b.assign(static_cast<std::size_t>(shape.ldb * columns), 0.0);
        std::vector<double> term(static_cast<std::size_t>(columns), 0.0);
        for (int c = 0; c < columns; ++c)
            for (std::int64_t j = 0; j < task.k; ++j) {
                const double value = task.b[(first + c) * task.ldb + j];
                memory.b[static_cast<std::size_t>(c * shape.ldb + j)] = value;
                if (task.v != nullptr) term[c] -= 2.0 * task.v[j] * value;
            }
        memory.result.assign(static_cast<std::size_t>(task.m * columns), NAN);
        memory.written.assign(memory.result.size(), 0);
        const centring centre{task.v == nullptr ? nullptr : term.data(), task.weight};
        with_tile<MmaDepth>(width, [&](auto tile) {
            using shape_of_block = decltype(tile);
            const work_share share =
                share_work(shape, width, tile.depth, slots, std::numeric_limits<std::int64_t>::max());
            memory.partial.assign(static_cast<std::size_t>(share.blocks * partials_of_block(width)), NAN);
            for (std::int64_t i = 0; i < share.blocks; ++i) {
                emulated_block<shape_of_block> block(memory, shape, centre, units);
                multiply_share<shape_of_block>(block, shape, share, i);
            }
            for (std::int64_t i = 0; i < task.m; ++i) {
                const std::int64_t from = share.first_block(i / tile_rows),
                                   to = share.last_block(i / tile_rows);
                if (from == to) continue;
                for (int c = 0; c < columns; ++c) {
                    const auto at = static_cast<std::size_t>(c * task.m + i);
                    const auto partial = [&](std::int64_t p) {
                        return memory.partial.at(static_cast<std::size_t>(p));
                    };
                    memory.result[at] =
                        centre.add_to(sum_of_partials<shape_of_block>(share, from, to, i, c, partial), i, c);
                    ++memory.written[at];
                }
            }
        });
        shared_memory::require(std::ranges::all_of(memory.written, [](int times) { return times == 1; }),
                               "an element of the result was not written once");
        result.insert(result.end(), memory.result.begin(), memory.result.end());
        first += columns;
    }
    return result;
}

}  // namespace miraculix::gpu::test
