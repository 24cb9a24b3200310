#include "fast_product.hpp"

#include <algorithm>

#include "product_plan.hpp"
#include "products.hpp"

// One thread's view of the block that fast_product.hpp is written over.

namespace miraculix::gpu {

namespace {

constexpr int reduction_threads = 256;

/// c += a b of 16 x 8 x 8 (four elements of a to a lane) or 16 x 8 x 16; before compute capability 9.0, in
/// steps of 8 x 8 x 4. Volatile, since all lanes must come by together: none of these may sink into a branch.
template <int A, int B>
__device__ __forceinline__ void multiply_add(double (&c)[4], const double (&a)[A], const double (&b)[B]) {
    static_assert(A == 2 * B && (A == 4 || A == 8));
#if __CUDA_ARCH__ >= 900
    if constexpr (A == 4)
        asm volatile(
            "mma.sync.aligned.m16n8k8.row.col.f64.f64.f64.f64 {%0, %1, %2, %3}, {%4, %5, %6, %7}, {%8, %9}, "
            "{%0, %1, %2, %3};"
            : "+d"(c[0]), "+d"(c[1]), "+d"(c[2]), "+d"(c[3])
            : "d"(a[0]), "d"(a[1]), "d"(a[2]), "d"(a[3]), "d"(b[0]), "d"(b[1]));
    else
        asm volatile(
            "mma.sync.aligned.m16n8k16.row.col.f64.f64.f64.f64 {%0, %1, %2, %3}, "
            "{%4, %5, %6, %7, %8, %9, %10, %11}, {%12, %13, %14, %15}, {%0, %1, %2, %3};"
            : "+d"(c[0]), "+d"(c[1]), "+d"(c[2]), "+d"(c[3])
            : "d"(a[0]), "d"(a[1]), "d"(a[2]), "d"(a[3]), "d"(a[4]), "d"(a[5]), "d"(a[6]), "d"(a[7]),
              "d"(b[0]), "d"(b[1]), "d"(b[2]), "d"(b[3]));
#else
#pragma unroll
    for (int i = 0; i < A; ++i)
        asm volatile("mma.sync.aligned.m8n8k4.row.col.f64.f64.f64.f64 {%0, %1}, {%2}, {%3}, {%0, %1};"
                     : "+d"(c[i % 2 * 2]), "+d"(c[i % 2 * 2 + 1])
                     : "d"(a[i]), "d"(b[i / 2]));
#endif
}

struct device_warp {
    template <class T>
    using each = T;

    int index, lane;
    const unsigned char* shared;

    template <class F>
    __device__ __forceinline__ std::uint32_t word(F place) const {
        return *reinterpret_cast<const std::uint32_t*>(shared + place(lane));
    }
    template <class F>
    __device__ __forceinline__ void pair(F place, double& first, double& second) const {
        const double2 two = *reinterpret_cast<const double2*>(shared + place(lane));
        first = two.x;
        second = two.y;
    }
    template <class F, class T>
    __device__ __forceinline__ auto map(F f, const T& x) const {
        return f(x);
    }
    template <class F>
    __device__ __forceinline__ void for_lanes(F f, double x) const {
        f(lane, x);
    }
    template <int A, int B>
    __device__ __forceinline__ void mma(double (&c)[4], const double (&a)[A], const double (&b)[B]) const {
        multiply_add(c, a, b);
    }
};

struct device_block {
    template <class T>
    using each = T;
    template <class T>
    struct per_warp {
        T value;
        __device__ __forceinline__ T& operator[](int) { return value; }
    };

    const std::uint8_t* a;
    const double* b;
    double *d, *partial;
    std::int64_t m;
    centring centre;
    unsigned char* shared;

    template <class F>
    __device__ __forceinline__ void threads(F f) const {
        f(static_cast<int>(threadIdx.x));
    }
    template <class F>
    __device__ __forceinline__ void warps(F f) const {
        const int t = static_cast<int>(threadIdx.x);
        const device_warp warp{t / warp_lanes, t % warp_lanes, shared};
        f(warp);
    }
    __device__ __forceinline__ void synchronize() const { __syncthreads(); }

    __device__ __forceinline__ void copy_a(int to, std::int64_t from, bool live) const {
        copy(to, live ? a + from : a, live);
    }
    __device__ __forceinline__ void copy_b(int to, std::int64_t from, bool live) const {
        copy(to, live ? b + from : b, live);
    }
    __device__ __forceinline__ void commit(int) const { asm volatile("cp.async.commit_group;" ::: "memory"); }
    template <int Pending>
    __device__ __forceinline__ void wait() const {
        asm volatile("cp.async.wait_group %0;" ::"n"(Pending) : "memory");
    }
    __device__ __forceinline__ void write_result(std::int64_t row, std::int64_t column, double sum) const {
        d[column * m + row] = centre.add_to(sum, row, column);
    }
    __device__ __forceinline__ void write_partial(std::int64_t at, double sum) const { partial[at] = sum; }

  private:
    /// 16 bytes, or zeros when they are not live; nothing is read then. A stage takes a part of a cache line
    /// only, and the following ones the rest: the whole line is to come into the L2 cache.
    __device__ __forceinline__ void copy(int to, const void* from, bool live) const {
        const auto address = static_cast<std::uint32_t>(__cvta_generic_to_shared(shared + to));
        asm volatile("cp.async.cg.shared.global.L2::128B [%0], [%1], 16, %2;" ::"r"(address), "l"(from),
                     "r"(live ? chunk_bytes : 0)
                     : "memory");
    }
};

template <class Tile>
__global__ void __launch_bounds__(Tile::threads, Tile::blocks_per_multiprocessor)
    multiply_kernel(device_block block, product_shape shape, work_share share) {
    extern __shared__ __align__(16) unsigned char memory[];
    block.shared = memory;
    multiply_share<Tile>(block, shape, share, blockIdx.x);
}

/// The elements of tiles that several blocks share.
template <class Tile>
__global__ void __launch_bounds__(reduction_threads)
    add_up_kernel(device_block block, product_shape shape, work_share share) {
    const std::int64_t row = std::int64_t{blockIdx.x} * reduction_threads + threadIdx.x;
    if (row >= shape.m) return;
    const std::int64_t tile = row / tile_rows;
    const std::int64_t first = share.first_block(tile), last = share.last_block(tile);
    if (first == last) return;
#pragma unroll 4
    for (std::int64_t column = 0; column < shape.n; ++column)
        block.write_result(row, column,
                           sum_of_partials<Tile>(share, first, last, row, column,
                                                 [&](std::int64_t at) { return block.partial[at]; }));
}

template <class Tile>
cudaError_t multiply(const device_product& product, int multiprocessors) {
    const auto kernel = multiply_kernel<Tile>;
    int resident = 0;
    if (const cudaError_t status = cudaOccupancyMaxActiveBlocksPerMultiprocessor(
            &resident, kernel, Tile::threads, Tile::shared_bytes))
        return status;
    if (resident < 1) return cudaErrorLaunchOutOfResources;
    const std::int64_t slots =
        std::int64_t{multiprocessors} * std::min<int>(resident, Tile::blocks_per_multiprocessor);
    const product_shape& shape = product.shape;
    const work_share share = share_work(shape, Tile::width, Tile::depth, slots, product.capacity);
    const device_block block{
        product.a, product.b, product.d, product.partial, shape.m, {product.term, product.weight}, nullptr};
    kernel<<<static_cast<unsigned>(share.blocks), Tile::threads, Tile::shared_bytes>>>(block, shape, share);
    if (const cudaError_t status = cudaGetLastError()) return status;
    const auto reduction_blocks =
        static_cast<unsigned>((shape.m + reduction_threads - 1) / reduction_threads);
    add_up_kernel<Tile><<<reduction_blocks, reduction_threads>>>(block, shape, share);
    return cudaGetLastError();
}

}  // namespace

cudaError_t can_multiply(bool& can) {
    int device = 0, major = 0;
    if (const cudaError_t status = cudaGetDevice(&device)) return status;
    const cudaError_t status = cudaDeviceGetAttribute(&major, cudaDevAttrComputeCapabilityMajor, device);
    can = major >= 8;
    return status;
}

cudaError_t prepare_fast_products() {
    for (int width = mma_columns; width <= widest_tile; width += mma_columns) {
        const cudaError_t status = with_tile(width, [](auto tile) {
            using shape_of_block = decltype(tile);
            return cudaFuncSetAttribute(multiply_kernel<shape_of_block>,
                                        cudaFuncAttributeMaxDynamicSharedMemorySize,
                                        shape_of_block::shared_bytes);
        });
        if (status != cudaSuccess) return status;
    }
    return cudaSuccess;
}

cudaError_t fast_product(const device_product& product) {
    int device = 0, multiprocessors = 0;
    if (const cudaError_t status = cudaGetDevice(&device)) return status;
    if (const cudaError_t status =
            cudaDeviceGetAttribute(&multiprocessors, cudaDevAttrMultiProcessorCount, device))
        return status;
    const auto n = static_cast<int>(product.shape.n);
    for (int first = 0; first < n;) {
        device_product pass = product;
        const int columns = columns_of_pass(n - first);
        pass.shape.n = columns;
        pass.b += first * product.shape.ldb;
        pass.d += first * product.shape.m;
        if (pass.term != nullptr) pass.term += first;
        const cudaError_t status = with_tile(
            width_of(columns), [&](auto tile) { return multiply<decltype(tile)>(pass, multiprocessors); });
        if (status != cudaSuccess) return status;
        first += columns;
    }
    return cudaSuccess;
}

}  // namespace miraculix::gpu
