#include "cuda/dgemm_compressed.hpp"
#include "reports.hpp"

namespace miraculix {

namespace {

[[noreturn]] void no_gpu(std::string_view function) {
    severe_error(function, "The GPU was asked for, but this program was built without GPU support.");
}

}  // namespace

void plink2gpu(const std::uint8_t*, const std::uint8_t*, std::int32_t, std::int32_t, const double*,
               std::int32_t, compressed_store**) {
    no_gpu("plink2gpu");
}

void dgemm_compressed_gpu(bool, const compressed_store*, std::int32_t, const double*, std::int64_t, bool,
                          bool, double*, std::int64_t) {
    no_gpu("dgemm_compressed_gpu");
}

}  // namespace miraculix
