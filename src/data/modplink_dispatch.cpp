#include <cassert>
#include <source_location>

#include "modbasic.hpp"
#include "modlogger.hpp"
#include "modplink_detail.hpp"

namespace zendar {

namespace {

[[noreturn]] void stop_not_implemented(logger& log, const char* what,
                                       std::source_location where = std::source_location::current()) {
    fatal_plain(log, " ERROR (" + inttochar(where.line()) + ", modplink): Not yet implemented for " + what);
}

}  // namespace

void dgemm_compressed(char transa, char transb, std::int64_t m, std::int64_t n,
                      [[maybe_unused]] std::int64_t k, double alpha, const plink_genotypes& a,
                      std::span<const double> freq, const double* b, std::int64_t ldb, double beta, double* c,
                      std::int64_t ldc, logger& log) {
    const bool transposed = transa == 't' || transa == 'T';
    if (!transposed && transa != 'n' && transa != 'N')
        fatal(log, "This type of transa is not implemented", "modplink", "dgemm_compressed");
    if (transb != 'n' && transb != 'N') stop_not_implemented(log, "transposed matrix");
    if (alpha != 1.0) stop_not_implemented(log, "alpha!=1");
    assert(m == (transposed ? a.ncol : a.nrow) && k == (transposed ? a.nrow : a.ncol) && n >= 0);
    assert(std::ssize(freq) == a.ncol && (n <= 1 || (ldb >= k && ldc >= m)));
    if (m == 0 || n == 0) return;

    const detail::plink_kernels& kernels = detail::best_plink_kernels();
    // Columns beyond a few dozen go in passes, so that the sums of a block stay in the second cache.
    constexpr std::int64_t columns_of_pass = 64;
    for (std::int64_t j = 0; j < n; j += columns_of_pass) {
        const detail::plink_product pass{.a = a,
                                         .freq = freq,
                                         .n = std::min(columns_of_pass, n - j),
                                         .b = b + j * ldb,
                                         .ldb = ldb,
                                         .beta = beta,
                                         .c = c + j * ldc,
                                         .ldc = ldc};
        if (transposed)
            dgemm_comp_t(kernels, pass);
        else if (n >= 16)
            dgemm_comp_n_881(kernels, pass);
        else
            dgemm_comp_n_421(kernels, pass);
    }
}

}  // namespace zendar
