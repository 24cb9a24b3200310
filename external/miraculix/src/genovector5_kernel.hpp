#pragma once

// The one text of the kernels, compiled once for each instruction set: only genovector5_128.cpp, _256.cpp and
// _512.cpp include it. Everything has internal linkage, and nothing of the standard library is instantiated:
// otherwise the linker could hand code of a wide instruction set to the rest of the program.

#include <bit>
#include <cstdint>
#include <cstring>

#include "genovector5.hpp"

namespace miraculix {
namespace {

static_assert(std::endian::native == std::endian::little);

/// `Width` numbers that are added as one. They may lie in arrays of `Real`.
template <class Real, int Width>
struct lanes {
    typedef Real type __attribute__((vector_size(Width * sizeof(Real)), may_alias));
};
template <class Real>
struct lanes<Real, 1> {
    using type = Real;
};

constexpr int codes_per_byte = 243;

/// One row of a table for each byte: the sums of its five digits times five rows of b.
template <class Vector>
inline void fill_table(Vector* __restrict table, const Vector* digit_value) {
    table[0] = Vector{};
    int n = 1;
    for (int digit = 0; digit < 5; ++digit) {
        const Vector one = digit_value[digit], two = one + one;
        for (int code = 0; code < n; ++code) {
            table[n + code] = table[code] + one;
            table[2 * n + code] = table[code] + two;
        }
        n *= 3;
    }
}

/// The tables of `Rows` code rows, the first of which starts at row `first` of b.
template <class Real, int Width, int Rows>
inline void fill_tables(const genovector5_block<double>& block, std::int64_t first,
                        typename lanes<Real, Width>::type* tables) {
    using vector = typename lanes<Real, Width>::type;
    for (int row = 0; row < Rows; ++row) {
        alignas(64) Real value[5][Width] = {};
        for (int digit = 0; digit < 5; ++digit) {
            const std::int64_t i = first + 5 * row + digit;
            if (i >= block.nb) break;
            for (int k = 0; k < block.live; ++k)
                value[digit][k] = static_cast<Real>(block.b[i + k * block.ldb]);
        }
        vector digit_value[5];
        std::memcpy(digit_value, value, sizeof value);
        fill_table(tables + row * codes_per_byte, digit_value);
    }
}

template <class Real, int Width>
inline typename lanes<double, Width>::type widened(typename lanes<Real, Width>::type value) {
    if constexpr (Width == 1)
        return static_cast<double>(value);
    else
        return __builtin_convertvector(value, typename lanes<double, Width>::type);
}

/// The row of a table that byte number `byte` of the word asks for.
template <class Real, int Width>
inline typename lanes<double, Width>::type look_up(const typename lanes<Real, Width>::type* table,
                                                   std::uint64_t word, int byte) {
    using vector = typename lanes<Real, Width>::type;
    if constexpr (sizeof(vector) <= 8) {
        return widened<Real, Width>(table[(word >> (8 * byte)) & 255]);
    } else {
        // A rotation by the right number brings the byte to where it is an offset in bytes already; it is one
        // operation that leaves its argument alone.
        constexpr int scale = __builtin_ctz(sizeof(vector));
        constexpr std::uint64_t mask = std::uint64_t{255} << scale;
        const int shift = (8 * byte + 64 - scale) % 64;
        const std::uint64_t offset = (word >> shift | word << (64 - shift)) & mask;
        return widened<Real, Width>(
            *reinterpret_cast<const vector*>(reinterpret_cast<const char*>(table) + offset));
    }
}

/// Adds `Rows` code rows to the accumulators: the sums of eight output columns stay in registers, and so the
/// loop over the rows must not be unrolled, which would bring in all their words at once. `next` are as many
/// code rows that will be wanted after these: they are short pieces of memory, which the processor does not
/// foresee.
template <class Real, int Width, int Rows>
inline void add_rows(const genovector5_block<double>& block, const std::uint8_t* codes,
                     const std::uint8_t* next, const typename lanes<Real, Width>::type* tables) {
    using vector = typename lanes<double, Width>::type;
    vector* __restrict acc = reinterpret_cast<vector*>(block.acc);
    const std::int64_t ncol = block.ncol, lda = block.lda;
    for (std::int64_t j = 0; j < ncol; j += 8) {
        if (j % 64 == 0)
            for (int row = 0; row < Rows; ++row) __builtin_prefetch(next + row * lda + j, 0, 1);
        vector sum[8] = {};
#pragma GCC unroll 1
        for (int row = 0; row < Rows; ++row) {
            std::uint64_t word;
            std::memcpy(&word, codes + row * lda + j, 8);
#pragma GCC unroll 8
            for (int byte = 0; byte < 8; ++byte)
                sum[byte] += look_up<Real, Width>(tables + row * codes_per_byte, word, byte);
        }
#pragma GCC unroll 8
        for (int byte = 0; byte < 8; ++byte) acc[j + byte] += sum[byte];
    }
}

/// The kernel: `Rows` code rows at a time, whose tables fit into the L1 cache, then the rest of them.
template <class Real, int Width, int Rows>
void genovector5(const genovector5_block<double>& block) {
    alignas(64) typename lanes<Real, Width>::type tables[Rows * codes_per_byte];
    std::int64_t row = 0;
    for (; row + Rows <= block.nrow; row += Rows) {
        const std::uint8_t* const codes = block.codes + row * block.lda;
        const std::uint8_t* const next = row + 2 * Rows <= block.nrow ? codes + Rows * block.lda : codes;
        fill_tables<Real, Width, Rows>(block, 5 * row, tables);
        add_rows<Real, Width, Rows>(block, codes, next, tables);
    }
    for (; row < block.nrow; ++row) {
        const std::uint8_t* const codes = block.codes + row * block.lda;
        fill_tables<Real, Width, 1>(block, 5 * row, tables);
        add_rows<Real, Width, 1>(block, codes, codes, tables);
    }
}

}  // namespace
}  // namespace miraculix
