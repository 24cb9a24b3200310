#pragma once

#include <cstdint>
#include <memory>

#include "store.hpp"

/// The way to the GPU: what the entry points call for an object on the device. Each failure there has been
/// printed, and ends the run with `zendar::fatal_error`.
namespace miraculix {

/// `plink2compressed` with the matrix in the memory of the GPU. Nothing of it stays on the host but the
/// frequencies.
[[nodiscard]] std::unique_ptr<compressed_store> plink2gpu(const std::uint8_t* plink,
                                                          const std::uint8_t* plinktransposed,
                                                          std::int32_t snps, std::int32_t individuals,
                                                          const double* freq, std::int32_t maxn);

/// `dgemm_compressed` of such an object. More columns than it was made for are taken in several passes.
void dgemm_compressed_gpu(bool transposed, const compressed_store& compressed, std::int32_t n,
                          const double* b, std::int64_t ldb, bool centered, bool normalized, double* c,
                          std::int64_t ldc);

}  // namespace miraculix
