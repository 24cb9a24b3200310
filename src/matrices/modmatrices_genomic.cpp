#include "modmatrices_genomic.hpp"

#include <algorithm>
#include <array>
#include <cassert>
#include <vector>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modmatrices_count.hpp"
#include "modstats.hpp"

namespace zendar::matrices {

void expand_genotypes(const covariable_type& genotypes, std::span<const std::int32_t> rows,
                      std::int64_t first, matrix_view<double> columns) {
    const plink_genotypes& plink = genotypes.data->plink;
    const std::int64_t nrow = columns.rows, ncol = columns.cols;
    assert(std::ssize(rows) == nrow && first >= 0 && first + ncol <= plink.ncol);
#pragma omp parallel for schedule(static) default(none) \
    shared(genotypes, plink, rows, first, columns, nrow, ncol)
    for (std::int64_t j = 0; j < ncol; ++j) {
        const double mean = 2.0 * genotypes.allelefreq[static_cast<std::size_t>(first + j)];
        const std::array<double, 4> value{-mean, 0.0, 1.0 - mean, 2.0 - mean};  // by code, 1 is missing
        const std::uint8_t* const bytes = plink.column(first + j);
        double* const to = &columns(0, j);
        for (std::int64_t i = 0; i < nrow; ++i) {
            const std::int32_t row = rows[static_cast<std::size_t>(i)];
            to[i] = value[static_cast<std::size_t>(bytes[row / 4] >> (2 * (row % 4)) & 3)];
        }
    }
}

namespace {

void add_dense_products(const covariable_type& genotypes, std::span<const std::int32_t> rows, double factor,
                        matrix_view<double> g, logger& log) {
    const std::int64_t m = genotypes.data->plink.ncol, n = g.rows;
    matrix<double> block(n, std::min(snp_block, m));
    progress_line progress(log);
    for (std::int64_t first = 0; first < m; first += snp_block) {
        const matrix_view<double> w{block.data(), n, std::min(snp_block, m - first), n};
        expand_genotypes(genotypes, rows, first, w);
        blas_dsyrk(factor, w, 1.0, g);
        progress.progressloop(first + w.cols, m);
    }
}

}  // namespace

void add_genomic_products(const covariable_type& genotypes, std::span<const std::int32_t> rows, double factor,
                          matrix_view<double> g, logger& log) {
    const plink_genotypes& plink = genotypes.data->plink;
    std::int64_t missing = 0;
    const std::vector<plink_counts> counts = count_genotypes(plink);
    for (const plink_counts& own : counts) missing += own.missing;
    const double share = static_cast<double>(missing) /
                         std::max(1.0, static_cast<double>(plink.nrow) * static_cast<double>(plink.ncol));
    if (counting::is_supported() && share <= counting::most_missing)
        counting::add_products(genotypes, rows, counts, factor, g, log);
    else
        add_dense_products(genotypes, rows, factor, g, log);
}

void mirror_lower(matrix_view<double> a) {
    constexpr std::int64_t tile = 64;  // two tiles stay in the first-level cache
    const std::int64_t n = a.rows, tiles = (n + tile - 1) / tile;
#pragma omp parallel for schedule(dynamic) default(none) shared(a, n, tiles)
    for (std::int64_t t = 0; t < tiles; ++t)
        for (std::int64_t u = 0; u <= t; ++u)
            for (std::int64_t i = t * tile; i < std::min(n, (t + 1) * tile); ++i)
                for (std::int64_t j = u * tile; j < std::min(i, (u + 1) * tile); ++j) a(j, i) = a(i, j);
}

void factorise(matrix_view<double> a, const std::string& what, std::span<const std::int32_t> labels,
               logger& log) {
    constexpr double smallest_pivot = 1e-12;
    std::vector<double> diagonal;
    for (std::int64_t i = 0; i < a.rows; ++i) diagonal.push_back(a(i, i));
    const int info = lapack_dpotrf(a);
    std::int64_t bad = info > 0 ? info : a.rows + 1;
    for (std::int64_t i = 1; i < bad; ++i)
        if (!(a(i - 1, i - 1) * a(i - 1, i - 1) > smallest_pivot * diagonal[static_cast<std::size_t>(i - 1)]))
            bad = i;
    if (bad > a.rows) return;
    const bool named = std::ssize(labels) >= bad;
    fatal(log,
          "The matrix " + what + " is not positive definite (" + (named ? "level " : "row ") +
              inttochar(named ? labels[static_cast<std::size_t>(bad - 1)] : bad) + ")",
          "modmatrices", "factorise");
}

void invert_factor(matrix_view<double> a, const std::string& what, logger& log) {
    if (const int info = lapack_dpotri(a); info != 0)
        fatal(log, "The matrix " + what + " cannot be inverted (row " + inttochar(info) + ")", "modmatrices",
              "invert_factor");
}

}  // namespace zendar::matrices
