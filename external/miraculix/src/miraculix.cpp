#include "miraculix.hpp"

#include <algorithm>
#include <new>
#include <string>

#include "cuda/dgemm_compressed.hpp"
#include "options.hpp"
#include "product.hpp"
#include "reports.hpp"
#include "store.hpp"

namespace miraculix {

void plink2compressed(const std::uint8_t* plink, const std::uint8_t* plinktransposed, std::int32_t snps,
                      std::int32_t individuals, const double* freq, std::int32_t maxn,
                      compressed_store** compressed) {
    const option_pair& options = WhichOptionList();
    check(compressed != nullptr, "plink2compressed");
    if (snps < 1 || individuals < 1)
        severe_error("plink2compressed", "There are " + std::to_string(snps) + " SNPs and " +
                                             std::to_string(individuals) +
                                             " individuals; both must be positive.");
    check(plink != nullptr, "plink2compressed");
    const double* const caller_freq = options.genetics.use_caller_freq ? freq : nullptr;
    check(caller_freq != nullptr || !options.genetics.use_caller_freq, "plink2compressed");
    if (!options.genetics.tuning.gpu) {
        *compressed = plinkToSxI(plink, snps, individuals, caller_freq, thread_count()).release();
        return;
    }
    try {
        *compressed = plink2gpu(plink, plinktransposed, snps, individuals, caller_freq, maxn).release();
    } catch (const std::bad_alloc&) {
        severe_error("plink2compressed", "Not enough memory for the object on the GPU.");
    }
}

void dgemm_compressed(char trans, const compressed_store* compressed, std::int32_t n, const double* b,
                      std::int64_t ldb, double* c, std::int64_t ldc) {
    const option_type& options = WhichOptionList().genetics;
    const bool transposed = is(trans);
    const bool centre = options.do_center != 0;
    check(compressed != nullptr, "dgemm_compressed");
    check(n >= 0, "dgemm_compressed");
    if (n == 0) return;
    check(b != nullptr && c != nullptr, "dgemm_compressed");
    stopIfNotIntI(ldb, "ldb", "dgemm_compressed");
    stopIfNotIntI(ldc, "ldc", "dgemm_compressed");
    if (options.tuning.mean_v || options.tuning.mean_sxi)
        severe_error("dgemm_compressed", "Means cannot be subtracted from the vector or the matrix.");

    const auto product = transposed ? genoVector5api : vectorGeno_means_double;
    try {
        // The object tells where the genotypes are: effects on the CPU and on the GPU may stand in one model.
        if (compressed->gpu) {
            dgemm_compressed_gpu(transposed, *compressed, n, b, ldb, centre, options.normalize, c, ldc);
            return;
        }
        product(select_genovector5(options.tuning.float_precision), *compressed, n, b, ldb, c, ldc, centre,
                thread_count());
    } catch (const std::bad_alloc&) {
        severe_error("dgemm_compressed",
                     "Not enough memory for a product with " + std::to_string(n) + " columns.");
    }
}

void free_compressed(compressed_store** compressed) {
    getStartedOptions();
    if (compressed == nullptr) return;
    delete *compressed;
    *compressed = nullptr;
}

void get_compressed_freq(const compressed_store* compressed, double* freq) {
    getStartedOptions();
    check(compressed != nullptr && freq != nullptr, "get_compressed_freq");
    std::transform(compressed->freq.begin(), compressed->freq.end(), freq,
                   [](long double f) { return static_cast<double>(f); });
}

std::int64_t memory_of(const compressed_store* compressed) {
    check(compressed != nullptr, "memory_of");
    const std::int64_t transposed = compressed->transposed ? compressed->transposed->bytes() : 0;
    return compressed->five.bytes() + transposed +
           std::ssize(compressed->freq) * static_cast<std::int64_t>(sizeof(long double));
}

}  // namespace miraculix
