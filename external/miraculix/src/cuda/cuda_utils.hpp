#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Checks of the GPU path that look at numbers and texts only, so that they are tested without a device. What
/// they return is 0, or the given number after they have printed why not.
namespace miraculix::gpu {

/// Prints the text on standard output between the codes of a colour. It always prints.
void debug_info(const std::string& text);
/// A line on standard output.
void print(const std::string& text);
/// Prints the text on standard error and keeps it. @returns 1
int failure(const std::string& text);
/// The text of the last failure.
[[nodiscard]] const std::string& last_failure();

/// Driver and runtime version, as CUDA numbers them (13020 is 13.2). @returns 1 on failure
[[nodiscard]] int checkCuda(int driver, int runtime);

/// Takes the values of the environment variables CUDA_DEVICE and CUDA_VISIBLE_DEVICES, null when they are not
/// set.
///
/// @param ordinal  out, the place of the device among the visible ones, which is what the runtime counts by.
/// @returns -1 on failure
[[nodiscard]] int switchDevice(const char* cuda_device, const char* cuda_visible_devices, int& ordinal);

/// @returns 1 when more is required than free
[[nodiscard]] int checkDevMemory(std::size_t required, std::size_t free, std::size_t total);

/// @param text  what the library that gave the status calls it.
/// @returns 1 when the status is not 0
[[nodiscard]] int checkError(const char* where, int line, int status, const char* text);

/// Bytes and elements of an object's arrays. Sums that 64 bits do not hold stay at the largest number, which
/// no device has.
struct object_sizes {
    std::size_t bytes_i, bytes_s;  ///< bytes of a SNP and of an individual
    std::size_t pitch_i, pitch_s;  ///< the same from row to row on the device: multiples of 16
    std::size_t size;              ///< elements of each work matrix
    std::size_t required;          ///< bytes of the packed matrices and the work matrices
    std::size_t allocated;         ///< bytes of all seven arrays
};
/// @param partials  elements that d_C must have room for besides the sums of `maxn` columns.
[[nodiscard]] object_sizes sizes_of(std::int32_t snps, std::int32_t individuals, std::int32_t maxn,
                                    std::size_t partials);

/// Elements of d_C: a work matrix, or what the products need when that is more.
[[nodiscard]] std::size_t elements_of_c(std::size_t size, std::int32_t maxn, std::size_t partials);

/// The largest number of columns that the work matrices have room for.
[[nodiscard]] std::int32_t maxn_of(std::uint64_t size, std::int32_t snps, std::int32_t individuals);

/// The arguments of `plink2gpu` and of a product. @returns 1 on failure
[[nodiscard]] int check_object(const void* plink, const void* plink_transposed, std::int32_t snps,
                               std::int32_t individuals, const void* f, std::int32_t maxn);
[[nodiscard]] int check_product(std::int64_t k, std::int32_t n, std::int32_t maxn, const void* b,
                                std::int64_t ldb, const void* c);

}  // namespace miraculix::gpu
