#include <cublas_v2.h>
#include <cuda_runtime.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cuda/gpu_interface.hpp"
#include "cuda/product_plan.hpp"
#include "cuda/products.hpp"

// Genotype products on the GPU beside what the device can do, both measured in this run.
//
// A product with n columns reads the packed matrix once, m k / 4 bytes, and takes 2 m n k operations on
// doubles. So it cannot take less time than the longer of
//     packed bytes / copy bandwidth    and    2 m n k / rate of a product of dense matrices of doubles.
// For 100,000 x 50,000 genotypes, 1.25 GB, on a device of 4.8 TB/s and 60 TFLOP/s these are 0.26 ms, and 0.17
// ms a column: from two columns on, the matrix units set the floor, 1.3 ms with 8 columns and 10.7 ms
// with 64. They work on 8 columns at a time, whatever is asked for.
//
// With the argument "kernel", what goes with the copies from and to the host is left out.

namespace {

using namespace miraculix::gpu;

constexpr int repetitions = 10;

void require(bool holds, const char* what, const char* why) {
    if (holds) return;
    std::fprintf(stderr, "%s: %s\n", what, why);
    std::exit(1);
}
void require(cudaError_t status, const char* what) {
    require(status == cudaSuccess, what, cudaGetErrorString(status));
}

template <class T>
class device_array {
  public:
    explicit device_array(std::int64_t n) {
        require(cudaMalloc(&data_, static_cast<std::size_t>(n) * sizeof(T)), "cudaMalloc");
    }
    ~device_array() { cudaFree(data_); }
    device_array(const device_array&) = delete;
    device_array& operator=(const device_array&) = delete;
    [[nodiscard]] T* data() const { return data_; }

  private:
    T* data_ = nullptr;
};

__device__ std::uint64_t mixed(std::uint64_t x) {
    x ^= x >> 31;
    x *= 0x9E3779B97F4A7C15ULL;
    x ^= x >> 29;
    x *= 0xBF58476D1CE4E5B9ULL;
    return x ^ x >> 32;
}
__global__ void random_bytes(std::uint8_t* to, std::int64_t n) {
    for (std::int64_t i = std::int64_t{blockIdx.x} * blockDim.x + threadIdx.x; i < n;
         i += std::int64_t{gridDim.x} * blockDim.x)
        to[i] = static_cast<std::uint8_t>(mixed(static_cast<std::uint64_t>(i) + 1));
}
__global__ void random_doubles(double* to, std::int64_t n) {
    for (std::int64_t i = std::int64_t{blockIdx.x} * blockDim.x + threadIdx.x; i < n;
         i += std::int64_t{gridDim.x} * blockDim.x)
        to[i] = static_cast<double>(mixed(static_cast<std::uint64_t>(i) + 7) >> 11) * 0x1p-52 - 1.0;
}

/// Milliseconds of the work on the device: the shortest and the middle one.
struct timing {
    double best, middle;
};
template <class F>
timing time_of(F work) {
    cudaEvent_t begin, end;
    require(cudaEventCreate(&begin), "cudaEventCreate");
    require(cudaEventCreate(&end), "cudaEventCreate");
    std::vector<double> all;
    for (int i = 0; i < repetitions + 2; ++i) {
        require(cudaEventRecord(begin), "cudaEventRecord");
        work();
        require(cudaEventRecord(end), "cudaEventRecord");
        require(cudaEventSynchronize(end), "the work");
        float milliseconds = 0.0F;
        require(cudaEventElapsedTime(&milliseconds, begin, end), "cudaEventElapsedTime");
        if (i >= 2) all.push_back(milliseconds);  // the first ones warm up
    }
    std::sort(all.begin(), all.end());
    return {all.front(), all[all.size() / 2]};
}

/// Bytes a second, read and written, of a copy within the device.
double copy_bandwidth() {
    const std::int64_t bytes = std::int64_t{4} << 30;
    const device_array<std::uint8_t> from(bytes), to(bytes);
    const auto size = static_cast<std::size_t>(bytes);
    return 2e3 * static_cast<double>(bytes) /
           time_of([&] {
               require(cudaMemcpyAsync(to.data(), from.data(), size, cudaMemcpyDeviceToDevice), "copy");
           }).best;
}

/// Operations a second of a product of square matrices of doubles.
double matrix_rate() {
    constexpr int n = 8192;
    const std::int64_t elements = std::int64_t{n} * n;
    const device_array<double> a(elements), b(elements), c(elements);
    random_doubles<<<1024, 256>>>(a.data(), elements);
    random_doubles<<<1024, 256>>>(b.data(), elements);
    cublasHandle_t handle;
    require(cublasCreate(&handle) == CUBLAS_STATUS_SUCCESS, "cublasCreate", "failed");
    const double one = 1.0, zero = 0.0;
    const timing t = time_of([&] {
        require(cublasDgemm(handle, CUBLAS_OP_N, CUBLAS_OP_N, n, n, n, &one, a.data(), n, b.data(), n, &zero,
                            c.data(), n) == CUBLAS_STATUS_SUCCESS,
                "cublasDgemm", "failed");
    });
    cublasDestroy(handle);
    return 2.0 * n * n * n * 1e3 / t.best;
}

int multiprocessors() {
    int device = 0, count = 0;
    require(cudaGetDevice(&device), "cudaGetDevice");
    require(cudaDeviceGetAttribute(&count, cudaDevAttrMultiProcessorCount, device), "cudaDeviceGetAttribute");
    return count;
}

/// A product with random genotypes and columns.
class random_product {
  public:
    random_product(std::int64_t m, std::int64_t k, int most)
        : m_(m),
          k_(k),
          pitch_(rounded_up((k + 3) / 4, chunk_bytes)),
          ldb_(rounded_up(k, 4)),
          capacity_(most_partials(most, multiprocessors())),
          a_(m * pitch_),
          b_(ldb_ * most),
          d_(m * most),
          plain_(m * most),
          v_(std::max(m, k)),
          term_(most),
          partial_(capacity_) {
        random_bytes<<<4096, 256>>>(a_.data(), m * pitch_);
        random_doubles<<<4096, 256>>>(b_.data(), ldb_ * most);
        random_doubles<<<4096, 256>>>(v_.data(), std::max(m, k));
        require(cudaDeviceSynchronize(), "random numbers");
    }
    [[nodiscard]] device_product product(int n) const {
        device_product p{};
        p.shape = {m_, k_, n, pitch_, ldb_};
        p.a = a_.data();
        p.b = b_.data();
        p.d = d_.data();
        p.term = term_.data();
        p.weight = v_.data();
        p.partial = partial_.data();
        p.capacity = capacity_;
        return p;
    }
    void multiply(int n) const {
        require(column_terms(b_.data(), ldb_, k_, n, v_.data(), term_.data()), "column_terms");
        require(fast_product(product(n)), "fast_product");
    }
    /// The largest difference from the plain kernel over `rows` rows from `first` on, relative to the largest
    /// element.
    [[nodiscard]] double difference(int n, std::int64_t first, std::int64_t rows) const {
        rows = std::min(rows, m_ - first);
        multiply(n);
        device_product plain = product(n);
        plain.a += first * pitch_;
        plain.weight += first;
        plain.shape.m = rows;
        plain.d = plain_.data();
        require(reference_product(plain), "reference_product");
        const auto count = static_cast<std::size_t>(rows * n);
        std::vector<double> found(count), expected(count);
        const auto row_bytes = static_cast<std::size_t>(rows) * sizeof(double);
        require(cudaMemcpy(expected.data(), plain_.data(), count * sizeof(double), cudaMemcpyDeviceToHost),
                "copy");
        require(cudaMemcpy2D(found.data(), row_bytes, d_.data() + first,
                             static_cast<std::size_t>(m_) * sizeof(double), row_bytes,
                             static_cast<std::size_t>(n), cudaMemcpyDeviceToHost),
                "copy");
        double worst = 0.0, largest = 0.0;
        for (std::size_t i = 0; i < count; ++i) {
            const double d = std::abs(found[i] - expected[i]);
            worst = d > worst || std::isnan(d) ? d : worst;
            largest = std::max(largest, std::abs(expected[i]));
        }
        return worst / largest;
    }

  private:
    std::int64_t m_, k_, pitch_, ldb_, capacity_;
    device_array<std::uint8_t> a_;
    device_array<double> b_, d_, plain_, v_, term_, partial_;
};

void compare_kernels() {
    double worst = 0.0;
    const random_product small(4099, 3001, 70);
    for (int n = 1; n <= 70; ++n) {
        const double d = small.difference(n, 0, 4099);
        worst = d > worst || std::isnan(d) ? d : worst;
    }
    std::printf("4099 x 3001, 1 to 70 columns: largest relative difference of the kernels %.2e\n", worst);
    require(worst < 1e-12, "the kernels", "they differ");
}

void measure(const char* name, std::int64_t m, std::int64_t k, double bandwidth, double rate) {
    const random_product large(m, k, widest_tile);
    std::printf("\n%s: %lld rows, sums over %lld codes\n", name, static_cast<long long>(m),
                static_cast<long long>(k));
    std::printf(" n   best ms  middle ms      GB/s   TFLOP/s  floor ms   of floor  difference\n");
    for (const int n : {1, 2, 4, 7, 8, 12, 16, 24, 32, 40, 48, 56, 64}) {
        const timing t = time_of([&] { large.multiply(n); });
        const double bytes = static_cast<double>(m) * static_cast<double>(k) / 4.0, flops = 8.0 * bytes * n;
        const double floor = 1e3 * std::max(bytes / bandwidth, flops / rate);
        const double difference = std::max(large.difference(n, 0, 300), large.difference(n, m - 77, 77));
        std::printf("%2d %9.3f %10.3f %9.1f %9.2f %9.3f %9.1f%% %11.1e\n", n, t.best, t.middle,
                    bytes / t.best / 1e6, flops / t.best / 1e9, floor, 100.0 * floor / t.best, difference);
    }
}

/// Whole calls, with the copies from and to the host.
void measure_calls(std::int32_t snps, std::int32_t individuals) {
    setenv("CUDA_VISIBLE_DEVICES", "0", 0);
    const std::size_t bytes = static_cast<std::size_t>(
        std::max(std::int64_t{snps} * ((individuals + 3) / 4), std::int64_t{individuals} * ((snps + 3) / 4)));
    std::vector<std::uint8_t> plink(bytes);
    std::uint64_t state = 1;
    for (std::uint8_t& byte : plink) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        byte = static_cast<std::uint8_t>(state >> 56);
    }
    const auto longer = static_cast<std::size_t>(std::max(snps, individuals));
    const std::vector<double> f(longer, 0.25), b(longer * widest_tile, 0.5);
    std::vector<double> c(longer * widest_tile), milliseconds;
    gpu_record* record = nullptr;
    const auto now = [] { return std::chrono::steady_clock::now(); };
    const auto since = [&](auto begin) {
        return std::chrono::duration<double, std::milli>(now() - begin).count();
    };

    auto begin = now();
    require(plink2gpu(plink.data(), plink.data(), snps, individuals, f.data(), widest_tile, &record) == 0,
            "plink2gpu", gpu_last_failure());
    const double upload = since(begin);
    std::string table;
    for (const bool transposed : {false, true})
        for (const int n : {1, 8, 64}) {
            milliseconds.clear();
            for (int i = 0; i < 5; ++i) {
                begin = now();
                require(dgemm_compressed_gpu(transposed, record, n, b.data(), transposed ? individuals : snps,
                                             1, 0, c.data(), transposed ? snps : individuals) == 0,
                        "dgemm_compressed_gpu", gpu_last_failure());
                milliseconds.push_back(since(begin));
            }
            table += std::string(transposed ? "t(G) B " : "G B    ") + std::to_string(n) + " columns: " +
                     std::to_string(*std::min_element(milliseconds.begin(), milliseconds.end())) + " ms\n";
        }
    freegpu(record);
    std::printf("\nWhole calls, copies from and to the host included (best of 5):\nplink2gpu: %.0f ms\n%s",
                upload, table.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    constexpr std::int32_t snps = 50'000, individuals = 100'000;
    cudaDeviceProp device{};
    require(cudaGetDeviceProperties(&device, 0), "the device");
    std::printf("%s, compute capability %d.%d, %d multiprocessors\n", device.name, device.major, device.minor,
                device.multiProcessorCount);
    require(prepare_fast_products(), "prepare_fast_products");
    const double bandwidth = copy_bandwidth(), rate = matrix_rate();
    std::printf("copy bandwidth %.1f GB/s (read and written), product of doubles %.2f TFLOP/s\n",
                bandwidth / 1e9, rate / 1e12);
    compare_kernels();
    measure("t(G) B", snps, individuals, bandwidth, rate);
    measure("G B", individuals, snps, bandwidth, rate);
    if (argc < 2 || std::string(argv[1]) != "kernel") measure_calls(snps, individuals);
    return 0;
}
