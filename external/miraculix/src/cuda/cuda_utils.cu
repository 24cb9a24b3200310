#include <cstdlib>

#include "cuda_calls.hpp"

namespace miraculix::gpu {

int checkError(const char* where, int line, cudaError_t status) {
    return checkError(where, line, static_cast<int>(status),
                      status == cudaSuccess ? "" : cudaGetErrorString(status));
}

int checkCuda() {
    int driver = 0, runtime = 0;
    if (checkError("checkCuda", __LINE__, cudaDriverGetVersion(&driver)) != 0 ||
        checkError("checkCuda", __LINE__, cudaRuntimeGetVersion(&runtime)) != 0)
        return 1;
    return checkCuda(driver, runtime);
}

int switchDevice(int& ordinal) {
    const int status = switchDevice(std::getenv("CUDA_DEVICE"), std::getenv("CUDA_VISIBLE_DEVICES"), ordinal);
    if (status != 0) return status;
    return checkError("switchDevice", __LINE__, cudaSetDevice(ordinal));
}

int checkDevMemory(std::size_t required) {
    std::size_t free = 0, total = 0;
    if (checkError("checkDevMemory", __LINE__, cudaMemGetInfo(&free, &total)) != 0) return 1;
    return checkDevMemory(required, free, total);
}

}  // namespace miraculix::gpu
