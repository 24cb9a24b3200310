#include <algorithm>

#include "products.hpp"

// What is plain: the kernel that the fast one is compared with, and the small ones around the products.

namespace miraculix::gpu {

namespace {

constexpr int block_threads = 256;
constexpr int column_threads = 1024;

unsigned blocks_for(std::int64_t threads) {
    constexpr std::int64_t most = 1 << 20;  // each thread goes on to further elements
    return static_cast<unsigned>(
        std::clamp<std::int64_t>((threads + block_threads - 1) / block_threads, 1, most));
}

__device__ std::int64_t first_index() {
    return std::int64_t{blockIdx.x} * blockDim.x + threadIdx.x;
}
__device__ std::int64_t all_threads() {
    return std::int64_t{gridDim.x} * blockDim.x;
}

__global__ void reference_kernel(device_product product) {
    const product_shape& shape = product.shape;
    const centring centre{product.term, product.weight};
    for (std::int64_t element = first_index(); element < shape.m * shape.n; element += all_threads()) {
        const std::int64_t row = element % shape.m, column = element / shape.m;
        double sum = 0.0;
        for (std::int64_t j = 0; j < shape.k; ++j) {
            const unsigned code = product.a[row * shape.pitch + j / 4] >> 2 * (j % 4) & 3;
            sum += value_of_code(code) * product.b[column * shape.ldb + j];
        }
        product.d[element] = centre.add_to(sum, row, column);
    }
}

/// A block for each column: its threads add up every 1024th product, then each other's sums, in a fixed
/// order.
__global__ void column_terms_kernel(const double* b, std::int64_t ldb, std::int64_t k, const double* v,
                                    double* term) {
    __shared__ double sums[column_threads];
    const double* const column = b + blockIdx.x * ldb;
    double sum = 0.0;
#pragma unroll 8
    for (std::int64_t j = threadIdx.x; j < k; j += column_threads) sum += v[j] * column[j];
    sums[threadIdx.x] = sum;
    for (unsigned width = column_threads / 2; width > 0; width /= 2) {
        __syncthreads();
        if (threadIdx.x < width) sums[threadIdx.x] += sums[threadIdx.x + width];
    }
    if (threadIdx.x == 0) term[blockIdx.x] = -2.0 * sums[0];
}

__global__ void fill_ones_kernel(double* values, std::int64_t n) {
    for (std::int64_t i = first_index(); i < n; i += all_threads()) values[i] = 1.0;
}

}  // namespace

cudaError_t reference_product(const device_product& product) {
    reference_kernel<<<blocks_for(product.shape.m * product.shape.n), block_threads>>>(product);
    return cudaGetLastError();
}

cudaError_t column_terms(const double* b, std::int64_t ldb, std::int64_t k, std::int64_t n, const double* v,
                         double* term) {
    column_terms_kernel<<<static_cast<unsigned>(n), column_threads>>>(b, ldb, k, v, term);
    return cudaGetLastError();
}

cudaError_t fill_ones(double* values, std::int64_t n) {
    fill_ones_kernel<<<blocks_for(n), block_threads>>>(values, n);
    return cudaGetLastError();
}

}  // namespace miraculix::gpu
