#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

#include "cuda_calls.hpp"
#include "gpu_interface.hpp"
#include "product_plan.hpp"
#include "products.hpp"

namespace miraculix::gpu {

namespace {

struct release_device_memory {
    void operator()(void* memory) const { cudaFree(memory); }
};
/// Memory of the device that is given back when a later step fails.
template <class T>
using device_array = std::unique_ptr<T, release_device_memory>;

template <class T>
cudaError_t allocate(device_array<T>& array, std::size_t bytes) {
    void* memory = nullptr;
    const cudaError_t status = cudaMalloc(&memory, bytes);
    array.reset(static_cast<T*>(memory));
    return status;
}

/// Rows of `width` bytes, `pitch` bytes apart on the device; the bytes between them are 0.
cudaError_t copy_rows(std::uint8_t* to, std::size_t pitch, const std::uint8_t* from, std::size_t width,
                      std::size_t rows) {
    if (const cudaError_t status = cudaMemset(to, 0, pitch * rows)) return status;
    return cudaMemcpy2D(to, pitch, from, width, width, rows, cudaMemcpyHostToDevice);
}

void print_banner() {
    const std::string dashes(60, '-');
    print(dashes);
    print("\tmiraculix - libdgemmcuda");
    print("\tcompiled on " __DATE__ " at " __TIME__ ", revision " ZENDAR_GPU_REVISION);
    print(dashes);
}

cudaError_t multiprocessors_of(int device, int& count) {
    return cudaDeviceGetAttribute(&count, cudaDevAttrMultiProcessorCount, device);
}

std::string number(const void* pointer) {
    return std::to_string(reinterpret_cast<std::intptr_t>(pointer));
}

using product_kernel = cudaError_t (*)(const device_product&);

/// The fast kernel is prepared first, and only where the device has what it needs.
int prepare(product_kernel kernel) {
    constexpr auto where = "dgemm_compressed_gpu";
    if (kernel != fast_product) return 0;
    bool can = false;
    if (checkError(where, __LINE__, can_multiply(can)) != 0) return 1;
    if (!can) return failure("Can't implement");
    if (prepare_fast_products() != cudaSuccess) return failure("Error in initialization");
    return 0;
}

int multiply(product_kernel kernel, bool transposed, const gpu_record* object, std::int32_t n,
             const double* b, std::int64_t ldb, std::int32_t centered, double* c) {
    constexpr auto where = "dgemm_compressed_gpu";
    print("\tEntering GPU multiplication");
    if (object == nullptr) return failure("The product has no GPU object.");
    const std::int64_t m = transposed ? object->snps : object->individuals;
    const std::int64_t k = transposed ? object->individuals : object->snps, k1 = (k - 1) / 4 + 1;
    const std::uint8_t* const a = transposed ? object->d_plink : object->d_plink_transposed;
    debug_info("Pointer: d_M " + number(a) + ", Dimensions: m " + std::to_string(m) + ", k " +
               std::to_string(k) + ", k1 " + std::to_string(k1) + ", n " + std::to_string(n));
    const std::int32_t maxn = maxn_of(object->size, object->snps, object->individuals);
    if (check_product(k, n, maxn, b, ldb, c) != 0) return 1;
    if (centered != 0 && centered != 1) return checkError(where, __LINE__, cudaErrorInvalidValue);
    if (n == 0) return 0;
    int multiprocessors = 0;
    if (checkCuda() != 0 || checkError(where, __LINE__, cudaSetDevice(object->device)) != 0 ||
        checkError(where, __LINE__, multiprocessors_of(object->device, multiprocessors)) != 0 ||
        prepare(kernel) != 0)
        return 1;

    const std::size_t column = static_cast<std::size_t>(k1) * 4 * sizeof(double);
    const std::size_t columns = static_cast<std::size_t>(n);
    if (column != k * sizeof(double) &&
        checkError(where, __LINE__, cudaMemset(object->d_B, 0, column * columns)) != 0)
        return 1;
    if (checkError(where, __LINE__,
                   cudaMemcpy2D(object->d_B, column, b, ldb * sizeof(double), k * sizeof(double), columns,
                                cudaMemcpyHostToDevice)) != 0)
        return 1;

    const std::size_t partials = static_cast<std::size_t>(most_partials(maxn, multiprocessors));
    device_product product{};
    product.shape = {m, k, n, rounded_up(k1, chunk_bytes), 4 * k1};
    product.a = a;
    product.b = object->d_B;
    product.d = object->d_D;
    product.partial = object->d_C + maxn;
    product.capacity = static_cast<std::int64_t>(elements_of_c(object->size, maxn, partials)) - maxn;
    if (centered == 1) {
        // Both steps are cheap beside the product: the sums of the columns come first, and the product adds
        // them to each element as it is stored.
        debug_info("Centering: B^f");
        product.term = object->d_C;
        product.weight = transposed ? object->d_f : object->d_unit;
        const double* const v = transposed ? object->d_unit : object->d_f;
        if (checkError(where, __LINE__, column_terms(object->d_B, 4 * k1, k, n, v, object->d_C)) != 0)
            return 1;
        debug_info("Centering: C");
    }
    cudaError_t status = kernel(product);
    if (status == cudaSuccess) status = cudaDeviceSynchronize();
    if (status != cudaSuccess)
        return failure("Operation error " + std::to_string(static_cast<int>(status)) + " (" +
                       cudaGetErrorString(status) + ")");

    debug_info("Copy back");
    if (checkError(where, __LINE__,
                   cudaMemcpy(c, object->d_D, static_cast<std::size_t>(m) * columns * sizeof(double),
                              cudaMemcpyDeviceToHost)) != 0)
        return 1;
    debug_info("Free pointers");
    if (checkError(where, __LINE__, cudaDeviceSynchronize()) != 0) return 1;
    debug_info("Return");
    return 0;
}

}  // namespace

extern "C" {

int plink2gpu(const std::uint8_t* plink, const std::uint8_t* plink_transposed, std::int32_t snps,
              std::int32_t individuals, const double* f, std::int32_t maxn, gpu_record** gpuobject) {
    constexpr auto where = "plink2gpu";
    print_banner();
    if (check_object(plink, plink_transposed, snps, individuals, f, maxn) != 0) return 1;
    if (gpuobject == nullptr) return failure("There is no place for the GPU object.");
    const object_sizes least = sizes_of(snps, individuals, maxn, 0);
    debug_info("Dimensions: (" + std::to_string(snps) + "," + std::to_string(individuals) +
               "), size in bytes: " + std::to_string(least.required) + ", size_t " +
               std::to_string(sizeof(std::size_t)));
    int ordinal = 0, multiprocessors = 0;
    if (checkCuda() != 0 || switchDevice(ordinal) != 0 ||
        checkError(where, __LINE__, multiprocessors_of(ordinal, multiprocessors)) != 0)
        return 1;
    const std::size_t partials = static_cast<std::size_t>(most_partials(maxn, multiprocessors));
    const object_sizes sizes = sizes_of(snps, individuals, maxn, partials);
    if (checkDevMemory(std::max(sizes.required, sizes.allocated)) != 0) return 1;

    const std::size_t real = sizeof(double), s = static_cast<std::size_t>(snps),
                      i = static_cast<std::size_t>(individuals), longer = std::max(s, i);
    device_array<std::uint8_t> d_plink, d_plink_transposed;
    device_array<double> d_f, d_unit, d_B, d_C, d_D;
    if (checkError(where, __LINE__, allocate(d_plink, s * sizes.pitch_i)) != 0 ||
        checkError(where, __LINE__, allocate(d_plink_transposed, i * sizes.pitch_s)) != 0 ||
        checkError(where, __LINE__, allocate(d_f, s * real)) != 0 ||
        checkError(where, __LINE__, allocate(d_unit, longer * real)) != 0 ||
        checkError(where, __LINE__, allocate(d_B, sizes.size * real)) != 0 ||
        checkError(where, __LINE__, allocate(d_C, elements_of_c(sizes.size, maxn, partials) * real)) != 0 ||
        checkError(where, __LINE__, allocate(d_D, sizes.size * real)) != 0)
        return 1;
    if (checkError(where, __LINE__, copy_rows(d_plink.get(), sizes.pitch_i, plink, sizes.bytes_i, s)) != 0 ||
        checkError(where, __LINE__,
                   copy_rows(d_plink_transposed.get(), sizes.pitch_s, plink_transposed, sizes.bytes_s, i)) !=
            0 ||
        checkError(where, __LINE__, cudaMemcpy(d_f.get(), f, s * real, cudaMemcpyHostToDevice)) != 0 ||
        checkError(where, __LINE__, fill_ones(d_unit.get(), static_cast<std::int64_t>(longer))) != 0 ||
        checkError(where, __LINE__, cudaDeviceSynchronize()) != 0)
        return 1;

    auto* const record = static_cast<gpu_record*>(std::malloc(sizeof(gpu_record)));
    if (record == nullptr) return failure("There is not enough memory for the GPU object.");
    *record = {d_plink.release(),
               d_plink_transposed.release(),
               d_f.release(),
               d_unit.release(),
               d_B.release(),
               d_C.release(),
               d_D.release(),
               sizes.size,
               snps,
               individuals,
               ordinal};
    debug_info("Pointer d_plink " + number(record->d_plink) + ", d_plink_transposed " +
               number(record->d_plink_transposed));
    *gpuobject = record;
    return 0;
}

int dgemm_compressed_gpu(bool transposed, const gpu_record* gpuobject, std::int32_t n, const double* b,
                         std::int64_t ldb, std::int32_t centered, std::int32_t, double* c, std::int64_t) {
    return multiply(fast_product, transposed, gpuobject, n, b, ldb, centered, c);
}

int dgemm_compressed_gpu_reference(bool transposed, const gpu_record* gpuobject, std::int32_t n,
                                   const double* b, std::int64_t ldb, std::int32_t centered, std::int32_t,
                                   double* c, std::int64_t) {
    return multiply(reference_product, transposed, gpuobject, n, b, ldb, centered, c);
}

int freegpu(gpu_record* gpuobject) {
    if (gpuobject == nullptr) return 0;
    int status = checkError("freegpu", __LINE__, cudaSetDevice(gpuobject->device));
    void* const arrays[] = {gpuobject->d_plink, gpuobject->d_plink_transposed,
                            gpuobject->d_f,     gpuobject->d_unit,
                            gpuobject->d_B,     gpuobject->d_C,
                            gpuobject->d_D};
    for (void* const array : arrays) status |= checkError("freegpu", __LINE__, cudaFree(array));
    std::free(gpuobject);
    return status;
}

const char* gpu_last_failure() {
    return last_failure().c_str();
}

int gpu_device_count() {
    int count = 0;
    return cudaGetDeviceCount(&count) == cudaSuccess ? count : 0;
}

}  // extern "C"

}  // namespace miraculix::gpu
