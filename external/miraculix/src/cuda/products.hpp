#pragma once

#include <cuda_runtime_api.h>

#include "work_share.hpp"

/// The kernels, as the host starts them on the default stream. All pointers are those of the device.
namespace miraculix::gpu {

/// D = A B, centred when there are column terms: D(i, c) += term(c) * weight(i).
struct device_product {
    product_shape shape;    ///< its columns: any number
    const std::uint8_t* a;  ///< m rows of 2-bit codes, aligned to 16 bytes
    const double* b;        ///< n columns, zero from k to ldb, aligned to 16 bytes
    double* d;              ///< m x n, column-major, without gaps
    const double *term, *weight;
    double* partial;        ///< room for the partial sums of blocks, see `most_partials`
    std::int64_t capacity;  ///< doubles of it
};

/// Whether the current device has matrix units for double precision: compute capability 8.0 and up.
cudaError_t can_multiply(bool& can);

/// Prepares the fast kernels of all widths for the current device.
cudaError_t prepare_fast_products();

/// The fast kernel: 2-bit codes become operands of the matrix units on the way.
cudaError_t fast_product(const device_product& product);

/// The same, plainly: one thread for each element of the result.
cudaError_t reference_product(const device_product& product);

/// term(c) = -2 * sum over j < k of v(j) * b(j, c), for each column of b.
cudaError_t column_terms(const double* b, std::int64_t ldb, std::int64_t k, std::int64_t n, const double* v,
                         double* term);

/// Sets `n` values to 1.0.
cudaError_t fill_ones(double* values, std::int64_t n);

}  // namespace miraculix::gpu
