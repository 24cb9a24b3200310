#include "modstructure_product.hpp"

#include <algorithm>
#include <array>
#include <cassert>

#include "miraculix.hpp"
#include "modblas.hpp"
#include "modplink.hpp"

namespace zendar {

std::int64_t coefficient_rows(const covariable_type& cov) {
    if (!cov.data) return 0;
    if (cov.is_plink()) return cov.data->plink.nrow;
    return cov.is_sparse() ? cov.data->sparse.getdim(1) : cov.values().cols;
}

std::int64_t coefficient_columns(const covariable_type& cov) {
    if (!cov.data) return 0;
    if (cov.is_plink()) return cov.data->plink.ncol;
    return cov.is_sparse() ? cov.data->sparse.getdim(2) : cov.values().rows;
}

void multiply_coefficients(const covariable_type& cov, char trans, matrix_view<const double> b,
                           matrix_view<double> c, logger& log) {
    const bool transposed = trans == 't';
    assert(b.cols == c.cols && b.rows == (transposed ? coefficient_rows(cov) : coefficient_columns(cov)));
    if (cov.compressed != nullptr)
        miraculix::dgemm_compressed(trans, cov.compressed.get(), narrow<std::int32_t>(b.cols), b.data, b.ld,
                                    c.data, c.ld);
    else if (cov.is_plink())
        dgemm_compressed(trans, 'n', c.rows, c.cols, b.rows, 1.0, cov.data->plink, cov.allelefreq, b.data,
                         b.ld, 0.0, c.data, c.ld, log);
    else if (cov.is_sparse())
        cov.data->sparse.multgenm(1.0, trans, b, 0.0, c);
    else
        blas_dgemm(!transposed, false, 1.0, cov.values(), b, 0.0, c);  // a row of Z is a column of the store
}

void expand_coefficients(const covariable_type& cov, std::int64_t first, matrix_view<double> columns) {
    assert(first >= 0 && first + columns.cols <= coefficient_columns(cov));
    const std::int64_t nrow = columns.rows, ncol = columns.cols;
    if (cov.is_plink()) {
        const plink_genotypes& genotypes = cov.data->plink;
#pragma omp parallel for schedule(static) default(none) shared(cov, genotypes, first, columns, nrow, ncol)
        for (std::int64_t j = 0; j < ncol; ++j) {
            const double mean = 2.0 * cov.allelefreq[static_cast<std::size_t>(first + j)];
            const std::array<double, 4> value{-mean, cov.compressed != nullptr ? -mean : 0.0, 1.0 - mean,
                                              2.0 - mean};
            const std::uint8_t* const bytes = genotypes.column(first + j);
            double* const to = &columns(0, j);
            for (std::int64_t i = 0; i < nrow; ++i)
                to[i] = value[static_cast<std::size_t>(bytes[i / 4] >> (2 * (i % 4)) & 3)];
        }
        return;
    }
    if (cov.is_sparse()) {
        for (std::int64_t j = 0; j < columns.cols; ++j) std::ranges::fill(columns.column(j), 0.0);
        const crs_view<std::int32_t> z = cov.data->sparse.view();
#pragma omp parallel for schedule(static) default(none) shared(z, first, columns, nrow)
        for (std::int64_t i = 0; i < nrow; ++i)
            for (std::int32_t k = z.ia[i] - 1; k < z.ia[i + 1] - 1; ++k)
                if (const std::int64_t j = z.ja[k] - 1 - first; j >= 0 && j < columns.cols)
                    columns(i, j) = z.a[k];
        return;
    }
    const matrix_view<const double> value = cov.values();
#pragma omp parallel for schedule(static) default(none) shared(value, first, columns, nrow)
    for (std::int64_t i = 0; i < nrow; ++i)
        for (std::int64_t j = 0; j < columns.cols; ++j) columns(i, j) = value(first + j, i);
}

}  // namespace zendar
