#include "cuda/fast_product.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <vector>

#include "emulated_product.hpp"
#include "genotype_sample.hpp"
#include "product.hpp"

// The fast kernel on the host, block by block, beside the five-code product.

namespace {

using namespace miraculix::gpu;
using miraculix::gpu::test::device_rows;
using miraculix::gpu::test::emulated_product;
using miraculix::gpu::test::emulated_task;
using miraculix::gpu::test::matrix_units;
using miraculix::test::genotype_sample;
using miraculix::test::random_values;

constexpr matrix_units all_units[] = {matrix_units::m8n8k4, matrix_units::m16n8k4, matrix_units::whole};

/// The same genotypes with SNPs and individuals exchanged.
genotype_sample transposed_of(const genotype_sample& g) {
    genotype_sample t(g.individuals, g.snps, 1);
    for (std::int64_t i = 0; i < g.individuals; ++i)
        for (std::int64_t s = 0; s < g.snps; ++s) t.codes[i * g.snps + s] = g.code(s, i);
    return t;
}

struct sizes {
    std::int64_t snps, individuals;
    int n;
};

template <int MmaDepth = chosen_mma_depth>
void expect_the_five_code_product(const sizes& size, matrix_units units, std::int64_t slots) {
    const genotype_sample g(size.snps, size.individuals, static_cast<std::uint64_t>(size.n));
    std::vector<double> freq = random_values(size.snps, 3);
    for (double& f : freq) f = std::abs(f);
    const std::vector<std::uint8_t> plink = g.plink();
    const auto store = miraculix::plinkToSxI(plink.data(), static_cast<std::int32_t>(size.snps),
                                             static_cast<std::int32_t>(size.individuals), freq.data(), 1);
    for (const bool transposed : {false, true}) {
        const std::int64_t m = transposed ? size.snps : size.individuals;
        const std::int64_t k = transposed ? size.individuals : size.snps;
        const std::vector<double> b = random_values(k * size.n, 5);
        std::vector<double> expected(static_cast<std::size_t>(m * size.n));
        (transposed ? miraculix::genoVector5api : miraculix::vectorGeno_means_double)(
            miraculix::select_genovector5(0), *store, size.n, b.data(), k, expected.data(), m, true, 1);

        // Bits behind the last code of a row must not count.
        const std::vector<std::uint8_t> rows = (transposed ? g : transposed_of(g)).plink(0x9B);
        const std::vector<double> ones(static_cast<std::size_t>(std::max(m, k)), 1.0);
        const emulated_task task{device_rows(rows.data(), m, (k + 3) / 4),
                                 m,
                                 k,
                                 rounded_up((k + 3) / 4, chunk_bytes),
                                 b.data(),
                                 k,
                                 size.n,
                                 (transposed ? ones : freq).data(),
                                 (transposed ? freq : ones).data()};
        const std::vector<double> found = emulated_product<MmaDepth>(task, units, slots);

        ASSERT_EQ(found.size(), expected.size());
        for (std::size_t i = 0; i < found.size(); ++i)
            ASSERT_NEAR(found[i], expected[i], 1e-14 * static_cast<double>(4 * k + 10))
                << size.snps << " SNPs, " << size.individuals << " individuals, " << size.n << " columns"
                << (transposed ? ", t(G) b" : ", G b") << ", " << slots << " slots, element " << i;
    }
}

/// 1 to 70 columns, with sizes of every remainder of 4 and 32.
TEST(FastProduct, AgreesWithTheFiveCodeProductForAllRemainders) {
    std::set<std::int64_t> of_snps, of_individuals;
    for (int n = 1; n <= 70; ++n) {
        const sizes size{1 + 32 * (n % 9) + 7 * n % 32, 1 + 32 * (n * 5 % 11) + n % 32, n};
        of_snps.insert(size.snps % 32);
        of_individuals.insert(size.individuals % 32);
        ASSERT_NO_FATAL_FAILURE(
            expect_the_five_code_product(size, all_units[n % 3], n % 5 == 0 ? 1 : n % 7 + 1));
    }
    EXPECT_EQ(of_snps.size(), 32U);
    EXPECT_EQ(of_individuals.size(), 32U);
}

/// Several tiles, each with several stages, over blocks whose shares begin and end anywhere.
TEST(FastProduct, AgreesForAnyNumberOfBlocks) {
    for (const int n : {5, 12, 20, 30, 38, 44, 52, 64})
        for (const std::int64_t slots : {1, 2, 3, 5, 8, 1000})
            ASSERT_NO_FATAL_FAILURE(expect_the_five_code_product({700, 520, n}, matrix_units::whole, slots));
}

TEST(FastProduct, AgreesForEitherDepthOfTheMatrixUnits) {
    for (int n = 3; n <= widest_tile; n += 8)
        for (const matrix_units units : all_units) {
            ASSERT_NO_FATAL_FAILURE(expect_the_five_code_product<8>({150, 300, n}, units, 3));
            ASSERT_NO_FATAL_FAILURE(expect_the_five_code_product<16>({150, 300, n}, units, 3));
        }
}

TEST(FastProduct, AgreesForTheSmallestSizes) {
    for (const matrix_units units : all_units)
        for (std::int64_t snps = 1; snps <= 5; ++snps)
            for (std::int64_t individuals = 1; individuals <= 5; ++individuals)
                ASSERT_NO_FATAL_FAILURE(expect_the_five_code_product({snps, individuals, 1}, units, 9));
}

// ---- shared memory
// -----------------------------------------------------------------------------------------

/// Distinct 4-byte words of one bank that a group of lanes accesses at a time: 1 is without conflict.
int accesses_of_one_bank(const std::vector<int>& places, int words) {
    std::vector<std::set<int>> bank(32);
    for (const int place : places)
        for (int w = 0; w < words; ++w) bank[(place / 4 + w) % 32].insert(place / 4 + w);
    std::size_t most = 0;
    for (const auto& each : bank) most = std::max(most, each.size());
    return static_cast<int>(most);
}

template <class F>
std::vector<int> places_of(int first, int count, F place) {
    std::vector<int> places;
    for (int lane = first; lane < first + count; ++lane) places.push_back(place(lane));
    return places;
}

TEST(FastTile, IsReadWithoutConflictsOfTheBanks) {
    for (int width = 8; width <= widest_tile; width += 8)
        with_tile(width, [&](auto tile) {
            for (int chunk = 0; chunk < tile.row_chunks; ++chunk) {
                for (int row = 0; row < tile_rows; row += 8)
                    EXPECT_EQ(
                        accesses_of_one_bank(
                            places_of(0, 32, [&](int lane) { return tile.a_word(lane, row, chunk); }), 1),
                        1);
                // 16 bytes a lane: eight lanes at a time.
                for (int code = 0; code < codes_per_word; code += 2)
                    for (int lane = 0; lane < warp_lanes; lane += 8)
                        EXPECT_EQ(
                            accesses_of_one_bank(
                                places_of(lane, 8, [&](int l) { return tile.b_word(l, 0, chunk, code); }), 4),
                            1)
                            << width;
            }
        });
}

TEST(FastTile, IsWrittenWithoutConflictsOfTheBanks) {
    for (int width = 8; width <= widest_tile; width += 8)
        with_tile(width, [&](auto tile) {
            for (int t = 0; t < tile.threads; t += 8) {
                const auto a = [&](int thread) {
                    return tile.a_chunk(thread / tile.row_chunks, thread % tile.row_chunks);
                };
                const auto b = [&](int thread) {
                    return tile.b_pair(thread / tile.column_pairs, 2 * (thread % tile.column_pairs));
                };
                EXPECT_EQ(accesses_of_one_bank(places_of(t, 8, a), 4), 1);
                EXPECT_EQ(accesses_of_one_bank(places_of(t, 8, b), 4), 1);
            }
        });
}

/// The limits of compute capability 8.0 to 9.0: the smallest memory to a block, and that of a multiprocessor
/// of the largest kind, where each block takes 1 KiB more.
TEST(FastTile, FitsIntoSharedMemory) {
    for (int width = 8; width <= widest_tile; width += 8)
        with_tile(width, [&](auto tile) {
            EXPECT_LE(tile.shared_bytes, 99 * 1024) << width;
            EXPECT_LE(tile.blocks_per_multiprocessor * (tile.shared_bytes + 1024), 228 * 1024) << width;
        });
}

TEST(FastTile, HasAPlaceOfItsOwnForEachOfItsCodes) {
    for (int width = 8; width <= widest_tile; width += 8)
        with_tile(width, [&](auto tile) {
            std::set<int> places;
            for (int row = 0; row < tile_rows; ++row)
                for (int chunk = 0; chunk < tile.row_chunks; ++chunk) places.insert(tile.a_chunk(row, chunk));
            EXPECT_EQ(std::ssize(places), tile_rows * tile.row_chunks);
            EXPECT_LE(*places.rbegin() + chunk_bytes, tile.a_bytes);
            for (int column = 0; column < width; ++column)
                for (int depth = 0; depth < tile.depth; depth += 2) places.insert(tile.b_pair(column, depth));
            EXPECT_EQ(std::ssize(places), tile_rows * tile.row_chunks + width * tile.depth / 2);
            EXPECT_LE(*places.rbegin() + chunk_bytes, tile.stage_bytes);
        });
}

// ---- plan
// --------------------------------------------------------------------------------------------------

TEST(ProductPlan, PassesOverTheColumnsInAboutEqualParts) {
    const auto widths = [](int n) {
        std::vector<int> all;
        for (int columns; n > 0; n -= columns) {
            columns = columns_of_pass(n);
            all.push_back(width_of(columns));
        }
        return all;
    };
    EXPECT_EQ(widths(1), std::vector<int>({8}));
    EXPECT_EQ(widths(8), std::vector<int>({8}));
    EXPECT_EQ(widths(9), std::vector<int>({16}));
    EXPECT_EQ(widths(64), std::vector<int>({64}));
    EXPECT_EQ(widths(65), std::vector<int>({40, 32}));
    EXPECT_EQ(widths(129), std::vector<int>({48, 48, 40}));
    for (int n = 1; n <= 1000; ++n) {
        int columns = 0;
        for (const int width : widths(n)) {
            EXPECT_LE(width, widest_tile);
            columns += width;
        }
        EXPECT_GE(columns, n);
        EXPECT_LT(columns, n + 8 + (n > 64 ? 8 : 0)) << n;
    }
    EXPECT_GT(columns_of_pass(std::numeric_limits<int>::max()), 0);
}

TEST(ProductPlan, SharesEveryStepOnceAndEvenly) {
    for (const std::int64_t m : {1, 256, 257, 5000, 100'000})
        for (const std::int64_t k : {1, 64, 999, 50'000})
            for (const std::int64_t slots : {1, 2, 132, 528}) {
                const work_share share =
                    share_work({m, k, 8, 0, 0}, 8, 64, slots, std::numeric_limits<std::int64_t>::max());
                ASSERT_GE(share.blocks, 1);
                ASSERT_LE(share.blocks, std::min(slots, share.total()));
                EXPECT_EQ(share.first_step(0), 0);
                EXPECT_EQ(share.first_step(share.blocks), share.total());
                for (std::int64_t block = 0; block < share.blocks; ++block) {
                    const std::int64_t first = share.first_step(block), next = share.first_step(block + 1);
                    ASSERT_LE(next - first - share.total() / share.blocks, 1);
                    ASSERT_GT(next, first);
                    for (const std::int64_t step : {first, (first + next) / 2, next - 1})
                        ASSERT_EQ(share.block_of(step), block);
                }
            }
}

TEST(ProductPlan, StaysWithinTheRoomForPartialSums) {
    for (int width = 8; width <= 64; width += 8) {
        EXPECT_EQ(share_work({100'000, 50'000, width, 0, 0}, width, 64, 528, partials_of_block(width)).blocks,
                  1);
        EXPECT_EQ(
            share_work({100'000, 50'000, width, 0, 0}, width, 64, 528, most_partials(width, 132)).blocks,
            std::min<std::int64_t>(528, most_partials(width, 132) / partials_of_block(width)));
    }
    EXPECT_GE(most_partials(1, 1), partials_of_block(8) * fast_tile<8>::blocks_per_multiprocessor);
    EXPECT_GE(most_partials(1000, 132), partials_of_block(64) * 132);
}

}  // namespace
