#pragma once

#include <cstdint>
#include <functional>
#include <variant>

#include "genovector5.hpp"
#include "store.hpp"

/// Products of a compressed genotype matrix with real matrices.
namespace miraculix {

/// A kernel family member of either accumulator type.
using any_genovector5_member = std::variant<std::reference_wrapper<const genovector5_member<double>>,
                                            std::reference_wrapper<const genovector5_member<long double>>>;

/// The member that the options ask for: by the precision, and by what the processor has.
[[nodiscard]] any_genovector5_member select_genovector5(std::int32_t float_precision);

/// How a product is cut: `nblock` ranges of output columns of `width` each, each of them in `npart` ranges of
/// code rows. A task is one of either; the partial results of the parts are added up at the end.
struct product_plan {
    std::int64_t nblock, width, npart, rows;
};
[[nodiscard]] product_plan plan_product(std::int64_t nrow, std::int64_t ncol, std::int32_t cores);

/// c(j, k) = sum over units i of genotype(i, j) * b(i, k), for all columns j of the matrix, not centred.
///
/// @param b  units x n, leading dimension ldb.
/// @param c  columns x n, leading dimension ldc; overwritten.
/// @throws zendar::fatal_error  when ldb or ldc is too small or memory lacks.
///
/// A thread works with its tables (up to 32 KiB) and accumulators (up to 640 KiB); when there are more
/// threads than ranges of columns, up to 0.5 MiB a thread and pass of 32 columns come to it.
void gV_vG5_double(const any_genovector5_member& member, const coded_matrix& matrix, std::int64_t n,
                   const double* b, std::int64_t ldb, double* c, std::int64_t ldc, std::int32_t cores);

/// c = t(G) b, centred by 2f when `centre`.
void genoVector5api(const any_genovector5_member& member, const compressed_store& store, std::int64_t n,
                    const double* b, std::int64_t ldb, double* c, std::int64_t ldc, bool centre,
                    std::int32_t cores);

/// c = G b, centred by 2f when `centre`.
void vectorGeno_means_double(const any_genovector5_member& member, const compressed_store& store,
                             std::int64_t n, const double* b, std::int64_t ldb, double* c, std::int64_t ldc,
                             bool centre, std::int32_t cores);

}  // namespace miraculix
