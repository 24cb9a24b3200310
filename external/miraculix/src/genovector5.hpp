#pragma once

#include <array>
#include <cstdint>
#include <span>

/// Kernels of the product of a five-code matrix with a real one.
///
/// The matrix is a grid of bytes, each of which stands for five genotypes of one output column. A kernel
/// turns five rows of b into a table over all 243 bytes, so that five genotypes cost one look-up and one
/// addition, and no multiplication. What it costs at best: one load of a table row and one addition for five
/// genotypes of `width` columns of b, and for each output column a load and a store of the accumulators once
/// for the few code rows whose tables fit into the L1 cache.
namespace miraculix {

/// One block of work: code rows [0, nrow) and output columns [0, ncol) of a matrix, and up to `width` columns
/// of b.
///
/// acc[j * width + k] += sum over code rows r and digits d of digit(codes[r * lda + j], d) * b[5r + d, k]
template <class Accumulator>
struct genovector5_block {
    const std::uint8_t* codes;
    std::int64_t lda;   ///< bytes from one code row to the next
    std::int64_t nrow;  ///< code rows
    std::int64_t ncol;  ///< output columns, a multiple of 8; the bytes behind the last true one are 0
    const double* b;    ///< column-major
    std::int64_t ldb;
    std::int64_t nb;    ///< rows of b, at most 5 * nrow; those lacking are taken as 0
    std::int32_t live;  ///< columns of b, at most `width`; those lacking are taken as 0
    Accumulator* acc;   ///< ncol * width, aligned to 64 bytes
};

template <class Accumulator>
using genovector5_kernel = void (*)(const genovector5_block<Accumulator>&);

/// A member of the family: the kernels for 1, 2, 4 and 8 columns of b at a time, null where it has none.
template <class Accumulator>
struct genovector5_member {
    const char* name;
    std::int32_t bits;  ///< SIMD width that the processor must have
    std::array<genovector5_kernel<Accumulator>, 4> kernels;
};

/// The plain reference, one column at a time. Its groups of four code rows and their order of additions are
/// the definition of the product.
extern const genovector5_member<double> genoVector5v32_double;
extern const genovector5_member<double> genoVector5v128_double;
extern const genovector5_member<double> genoVector5v256_double;
extern const genovector5_member<double> genoVector5v512_double;
/// Tables in single precision, accumulation in double.
extern const genovector5_member<double> genoVector5v32_floatD;
extern const genovector5_member<double> genoVector5v128_floatD;
extern const genovector5_member<double> genoVector5v256_floatD;
extern const genovector5_member<double> genoVector5v512_floatD;
/// Tables and accumulation in extended precision.
extern const genovector5_member<long double> genoVector5v32_longD;

/// All members with an accumulator of type double.
[[nodiscard]] std::span<const genovector5_member<double>* const> genovector5_members();

/// Whether this processor can run a member of that width.
[[nodiscard]] bool processor_has(std::int32_t bits);

/// The widest member that this processor can run, in double or with tables in single precision.
[[nodiscard]] const genovector5_member<double>& fastest_genovector5(bool single_precision);

}  // namespace miraculix
