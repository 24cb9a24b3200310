#pragma once

#include <cstdint>

#include "miraculix.hpp"

/// The way to the GPU. A build without CUDA has it too (nocuda.cpp): there, both fail with one message.
namespace miraculix {

/// `plink2compressed` with the matrix in the memory of the GPU.
void plink2gpu(const std::uint8_t* plink, const std::uint8_t* plinktransposed, std::int32_t snps,
               std::int32_t individuals, const double* freq, std::int32_t maxn,
               compressed_store** compressed);

/// `dgemm_compressed` of such an object.
void dgemm_compressed_gpu(bool transposed, const compressed_store* compressed, std::int32_t n,
                          const double* b, std::int64_t ldb, bool centered, bool normalized, double* c,
                          std::int64_t ldc);

}  // namespace miraculix
