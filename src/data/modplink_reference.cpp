#include "modplink_decode.hpp"
#include "modplink_detail.hpp"

namespace zendar::detail {

namespace {

/// The four genotypes of a byte, centred; those behind the last individual are left out.
template <class Use>
void for_each_genotype(const plink_genotypes& a, std::int64_t snp, double twof, const Use& use) {
    for (std::int64_t i = 0; i < a.nrow; ++i)
        use(i, centred(DECODE_I1[a.column(snp)[i / 4]][static_cast<std::size_t>(i % 4)], twof));
}

}  // namespace

void dgemm_comp_reference(char transa, const plink_product& p) {
    const bool transposed = transa == 't' || transa == 'T';
    const std::int64_t m = transposed ? p.a.ncol : p.a.nrow;
    for (std::int64_t j = 0; j < p.n; ++j) {
        const double* const b = p.b + j * p.ldb;
        double* const c = p.c + j * p.ldc;
        for (std::int64_t i = 0; i < m; ++i) c[i] = p.beta == 0.0 ? 0.0 : p.beta * c[i];
        for (std::int64_t snp = 0; snp < p.a.ncol; ++snp)
            for_each_genotype(p.a, snp, 2.0 * p.freq[snp], [&](std::int64_t i, double g) {
                if (transposed)
                    c[snp] += g * b[i];
                else
                    c[i] += g * b[snp];
            });
    }
}

}  // namespace zendar::detail
