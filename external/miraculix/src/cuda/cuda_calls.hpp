#pragma once

#include <cuda_runtime_api.h>

#include "cuda_utils.hpp"

/// The checks of cuda_utils.hpp with the numbers of the machine that the program runs on.
namespace miraculix::gpu {

[[nodiscard]] int checkCuda();
/// Makes the device that the environment asks for the current one.
[[nodiscard]] int switchDevice(int& ordinal);
[[nodiscard]] int checkDevMemory(std::size_t required);
[[nodiscard]] int checkError(const char* where, int line, cudaError_t status);

}  // namespace miraculix::gpu
