#pragma once

#include <cstddef>
#include <cstdint>

/// What the shared object of the GPU path offers, by names without C++ decoration. The program opens it only
/// when a GPU is asked for, see gpu_library.hpp. All functions return 0, or 1 after they have printed why
/// not.
namespace miraculix::gpu {

/// The genotypes of an effect on the device. Allocated with `malloc`.
struct gpu_record {
    std::uint8_t* d_plink;             ///< SNP-major bytes, a row for each SNP
    std::uint8_t* d_plink_transposed;  ///< individual-major bytes, a row for each individual
    double* d_f;                       ///< frequencies, `snps`
    double* d_unit;                    ///< ones, max(snps, individuals)
    double* d_B;                       ///< right-hand columns, each padded with zeros to a multiple of 4
    double* d_C;                       ///< sums of the columns, then partial sums of the product
    double* d_D;                       ///< result, column-major
    std::uint64_t size;                ///< elements of the work matrices
    std::int32_t snps, individuals;
    std::int32_t device;  ///< in the order of the visible devices
};
static_assert(sizeof(gpu_record) == 80 && offsetof(gpu_record, d_plink_transposed) == 8 &&
              offsetof(gpu_record, d_f) == 16 && offsetof(gpu_record, d_unit) == 24 &&
              offsetof(gpu_record, d_B) == 32 && offsetof(gpu_record, d_C) == 40 &&
              offsetof(gpu_record, d_D) == 48 && offsetof(gpu_record, size) == 56 &&
              offsetof(gpu_record, snps) == 64 && offsetof(gpu_record, individuals) == 68 &&
              offsetof(gpu_record, device) == 72);

extern "C" {

/// Copies both orientations to the device and allocates the work matrices for up to `maxn` columns.
///
/// @param plink             snps x ceil(individuals / 4) bytes.
/// @param plink_transposed  individuals x ceil(snps / 4) bytes.
/// @param gpuobject         out; unchanged on failure.
[[gnu::visibility("default")]] int plink2gpu(const std::uint8_t* plink, const std::uint8_t* plink_transposed,
                                             std::int32_t snps, std::int32_t individuals, const double* f,
                                             std::int32_t maxn, gpu_record** gpuobject);

/// c = t(G) b (`transposed`) or G b, with m rows that follow each other without gaps: `ldc` is not used.
///
/// @param n         columns, no more than `maxn`.
/// @param ldb       at least the rows of b.
/// @param centered  1: G is centred by twice the frequencies; 0: it is not.
[[gnu::visibility("default")]] int dgemm_compressed_gpu(bool transposed, const gpu_record* gpuobject,
                                                        std::int32_t n, const double* b, std::int64_t ldb,
                                                        std::int32_t centered, std::int32_t normalized,
                                                        double* c, std::int64_t ldc);

/// The same by the plain kernel, for comparison.
[[gnu::visibility("default")]] int dgemm_compressed_gpu_reference(
    bool transposed, const gpu_record* gpuobject, std::int32_t n, const double* b, std::int64_t ldb,
    std::int32_t centered, std::int32_t normalized, double* c, std::int64_t ldc);

/// Releases the device arrays and the record, whose pointer is not to be used any more.
[[gnu::visibility("default")]] int freegpu(gpu_record* gpuobject);

/// The text of the last failure; empty when there was none.
[[gnu::visibility("default")]] const char* gpu_last_failure();

/// Devices that answer; 0 without a driver.
[[gnu::visibility("default")]] int gpu_device_count();

}  // extern "C"

}  // namespace miraculix::gpu
