#include "modmmeiod_snpeffects.hpp"

#include <cassert>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modstats.hpp"
#include "modstructure_product.hpp"

namespace zendar {

void compute_snpeffects(const covariable_type& z, matrix_view<const double> ginverse,
                        matrix_view<const double> u, double alpha, double sum2pq,
                        matrix_view<double> snpeffects, logger& log) {
    assert(ginverse.rows == u.rows && coefficient_rows(z) == u.rows && snpeffects.cols == u.cols);
    assert(coefficient_columns(z) == snpeffects.rows && sum2pq > 0.0);
    const auto report = [&log](const char* text, double seconds) {
        log.message(text + realtochar(seconds, "(f0.3)"));
    };
    const wtime whole;
    matrix<double> product(u.rows, u.cols);
    blas_dsymm(1.0, ginverse, u, 0.0, product.view());
    multiply_coefficients(z, 't', product.view(), snpeffects, log);
    report("Elapsed time (s) to compute Z*G-1*GEBV    : ", whole.seconds());

    log.message("Sum(2pq): " + realtochar(sum2pq, "(f0.5)"));
    const wtime scaling;
    const double factor = alpha / sum2pq;
    for (std::int64_t j = 0; j < snpeffects.cols; ++j)
        for (double& effect : snpeffects.column(j)) effect *= factor;
    report("Elapsed time (s) to compute SNP effects   : ", scaling.seconds());
    report("Elapsed time (s) to back-solve SNP effects: ", whole.seconds());
}

}  // namespace zendar
