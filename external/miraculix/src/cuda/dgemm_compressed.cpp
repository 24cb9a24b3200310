#include "cuda/dgemm_compressed.hpp"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "cuda/cuda_utils.hpp"
#include "cuda/gpu_library.hpp"
#include "reports.hpp"

namespace miraculix {

namespace {

[[noreturn]] void gpu_failed(std::string_view function, const gpu::gpu_library& library) {
    severe_error(function, std::string("The GPU failed: ") + library.last_failure());
}

}  // namespace

void gpu_release::operator()(gpu::gpu_record* record) const {
    gpu::the_gpu_library("freegpu").free(record);  // a failure has been printed; nothing depends on it
}

std::unique_ptr<compressed_store> plink2gpu(const std::uint8_t* plink, const std::uint8_t* plinktransposed,
                                            std::int32_t snps, std::int32_t individuals, const double* freq,
                                            std::int32_t maxn) {
    const gpu::gpu_library& library = gpu::the_gpu_library("plink2gpu");
    gpu::gpu_record* record = nullptr;
    if (library.to_gpu(plink, plinktransposed, snps, individuals, freq, maxn, &record) != 0)
        gpu_failed("plink2gpu", library);
    std::unique_ptr<gpu::gpu_record, gpu_release> object(record);
    return std::make_unique<compressed_store>(compressed_store{snps,
                                                               individuals,
                                                               coded_matrix(coding_type::five_codes8, 0, 0),
                                                               {},
                                                               {freq, freq + snps},
                                                               std::move(object)});
}

void dgemm_compressed_gpu(bool transposed, const compressed_store& compressed, std::int32_t n,
                          const double* b, std::int64_t ldb, bool centered, bool normalized, double* c,
                          std::int64_t ldc) {
    const gpu::gpu_library& library = gpu::the_gpu_library("dgemm_compressed_gpu");
    const gpu::gpu_record* const record = compressed.gpu.get();
    const std::int64_t rows = transposed ? compressed.snps : compressed.individuals;
    check(ldc >= rows, "dgemm_compressed_gpu");
    const std::int32_t maxn = gpu::maxn_of(record->size, record->snps, record->individuals);
    // The result of a pass arrives without gaps between its columns.
    std::vector<double> packed(ldc == rows ? 0 : static_cast<std::size_t>(rows * std::min(n, maxn)));
    for (std::int64_t first = 0; first < n; first += maxn) {
        const auto columns = static_cast<std::int32_t>(std::min<std::int64_t>(n - first, maxn));
        double* const to = packed.empty() ? c + first * ldc : packed.data();
        if (library.multiply(transposed, record, columns, b + first * ldb, ldb, centered ? 1 : 0,
                             normalized ? 1 : 0, to, rows) != 0)
            gpu_failed("dgemm_compressed_gpu", library);
        if (packed.empty()) continue;
        for (std::int32_t k = 0; k < columns; ++k) std::copy_n(to + k * rows, rows, c + (first + k) * ldc);
    }
}

}  // namespace miraculix
