#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "cuda/cuda_utils.hpp"
#include "cuda/gpu_interface.hpp"
#include "emulated_product.hpp"

// For the tests: an object of the GPU path that needs none. It runs the fast kernel's text on the host, so
// that all around it, up to whole runs of the program, is tested on any machine.

namespace miraculix::gpu {

namespace {

struct host_record {
    gpu_record record;
    std::vector<std::uint8_t> plink, transposed;
    std::vector<double> f, ones;
};

std::vector<std::uint8_t> copy_of(const std::uint8_t* bytes, std::size_t size) {
    return {bytes, bytes + size};
}

}  // namespace

extern "C" {

int plink2gpu(const std::uint8_t* plink, const std::uint8_t* plink_transposed, std::int32_t snps,
              std::int32_t individuals, const double* f, std::int32_t maxn, gpu_record** gpuobject) {
    if (check_object(plink, plink_transposed, snps, individuals, f, maxn) != 0) return 1;
    if (std::getenv("ZENDAR_HOST_GPU_FAILS") != nullptr) return failure("The host fails as it was told to.");
    const object_sizes sizes = sizes_of(snps, individuals, maxn, 0);
    auto* const object =
        new host_record{{},
                        copy_of(plink, sizes.bytes_i * static_cast<std::size_t>(snps)),
                        copy_of(plink_transposed, sizes.bytes_s * static_cast<std::size_t>(individuals)),
                        {f, f + snps},
                        std::vector<double>(static_cast<std::size_t>(std::max(snps, individuals)), 1.0)};
    object->record.size = sizes.size;
    object->record.snps = snps;
    object->record.individuals = individuals;
    object->record.device = -1;
    *gpuobject = &object->record;
    return 0;
}

int dgemm_compressed_gpu(bool transposed, const gpu_record* gpuobject, std::int32_t n, const double* b,
                         std::int64_t ldb, std::int32_t centered, std::int32_t, double* c, std::int64_t) {
    const auto* const object = reinterpret_cast<const host_record*>(gpuobject);
    const std::int32_t snps = gpuobject->snps, individuals = gpuobject->individuals;
    const std::int64_t m = transposed ? snps : individuals, k = transposed ? individuals : snps;
    const std::int64_t bytes = (k - 1) / 4 + 1;
    if (check_product(k, n, maxn_of(gpuobject->size, snps, individuals), b, ldb, c) != 0) return 1;
    const auto& rows = transposed ? object->plink : object->transposed;
    const std::vector<double>&v = transposed ? object->ones : object->f,
          &weight = transposed ? object->f : object->ones;
    const test::emulated_task task{test::device_rows(rows.data(), m, bytes),
                                   m,
                                   k,
                                   rounded_up(bytes, chunk_bytes),
                                   b,
                                   ldb,
                                   n,
                                   centered == 1 ? v.data() : nullptr,
                                   weight.data()};
    try {
        std::ranges::copy(test::emulated_product(task, test::matrix_units::whole, 3), c);
    } catch (const std::logic_error& error) {
        return failure(error.what());
    }
    return 0;
}

int dgemm_compressed_gpu_reference(bool transposed, const gpu_record* gpuobject, std::int32_t n,
                                   const double* b, std::int64_t ldb, std::int32_t centered,
                                   std::int32_t normalized, double* c, std::int64_t ldc) {
    return dgemm_compressed_gpu(transposed, gpuobject, n, b, ldb, centered, normalized, c, ldc);
}

int freegpu(gpu_record* gpuobject) {
    delete reinterpret_cast<host_record*>(gpuobject);
    return 0;
}

const char* gpu_last_failure() {
    return last_failure().c_str();
}

int gpu_device_count() {
    return 1;
}

}  // extern "C"

}  // namespace miraculix::gpu
