#include "modmatrices_ta.hpp"

#include <algorithm>
#include <utility>

#include "modblas.hpp"
#include "modmatrices_genomic.hpp"
#include "modmatrices_relationship.hpp"
#include "modstats.hpp"

namespace zendar::matrices {
namespace {

/// y = A22^-1 x, by parts of columns.
void solve_relationships(a22_inverse& a22i, matrix_view<double> x, matrix_view<double> y,
                         std::vector<double>& work) {
    for (std::int64_t first = 0; first < x.cols; first += relationship_block) {
        const std::int64_t n = std::min(relationship_block, x.cols - first);
        work.resize(static_cast<std::size_t>(a22i.work_size(n)));
        a22i.computea22i_timesx(matrix_view<double>{x.data + first * x.ld, x.rows, n, x.ld},
                                {y.data + first * y.ld, y.rows, n, y.ld}, work);
    }
}

/// The columns of x become rows of Ta, divided by beta.
void store_rows(matrix_view<const double> x, std::int64_t first, double beta, matrix<double>& ta) {
#pragma omp parallel for schedule(static) default(none) shared(x, first, beta, ta)
    for (std::int64_t i = 0; i < x.rows; ++i)
        for (std::int64_t j = 0; j < x.cols; ++j) ta(first + j, i) = x(i, j) / beta;
}

}  // namespace

ta_parts compute_ta(const matrix_input& input, a22_inverse& a22i, const matrix_options& options,
                    logger& log) {
    const std::int64_t n = input.nanimal(), m = input.nsnp(), b = std::min(snp_block, m);
    ta_parts parts;
    parts.l.n = narrow<std::int32_t>(m);
    parts.l.value = matrix<double>(m, m);
    if (!options.ta.empty()) {
        parts.ta.levels.level = input.levels;
        parts.ta.value = matrix<double>(m, n);
    }
    const matrix_view<double> l = parts.l.value.view();
    matrix<double> w(n, b), x(n, b), below(n, b);
    std::vector<double> work;
    progress_line progress(log);
    for (std::int64_t first = 0; first < m; first += b) {
        const std::int64_t ncol = std::min(b, m - first);
        const matrix_view<double> wj{w.data(), n, ncol, n}, xj{x.data(), n, ncol, n};
        expand_genotypes(input.genotypes, input.rows, first, wj);
        solve_relationships(a22i, wj, xj, work);
        if (!options.ta.empty()) store_rows(xj, first, options.beta, parts.ta.value);
        for (std::int64_t row = first; row < m; row += b) {
            const std::int64_t nrow = std::min(b, m - row);
            const matrix_view<double> wi{row == first ? w.data() : below.data(), n, nrow, n};
            if (row != first) expand_genotypes(input.genotypes, input.rows, row, wi);
            blas_dgemm(true, false, 1.0 / options.beta, wi, xj, 0.0, {&l(row, first), nrow, ncol, m});
        }
        progress.progressloop(first + ncol, m);
    }
    for (std::int64_t j = 0; j < m; ++j) l(j, j) += input.sum2pq / options.alpha;
    factorise(l, "of the SNPs for Ta", {}, log);
    if (!options.ta.empty()) lapack_dtrtrs(false, l, parts.ta.value.view());
    mirror_lower(l);
    return parts;
}

}  // namespace zendar::matrices
