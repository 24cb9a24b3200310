#include "modmatrices_apy.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modmatrices_genomic.hpp"
#include "modmatrices_relationship.hpp"
#include "modstats.hpp"

namespace zendar::matrices {
namespace {

constexpr std::int64_t animal_block = 512;  // of the others

matrix_view<double> columns_of(matrix<double>& m, std::int64_t first, std::int64_t n) {
    return {m.data() + first * m.rows(), m.rows(), n, m.rows()};
}

core_parts empty_parts(const core_split& split) {
    const std::int64_t c = split.ncore, nother = std::ssize(split.order) - c;
    return {matrix<double>(c, c), matrix<double>(c, nother),
            std::vector<double>(static_cast<std::size_t>(nother))};
}

/// beta A22 of the core animals with all, and of the others with themselves.
void add_relationships(const matrix_input& input, std::span<const std::int32_t> levels, double beta,
                       core_parts& parts, logger& log) {
    const std::int64_t c = parts.core.rows(), nother = parts.cross.cols();
    const relationship_columns a22(input.ped, levels, log);
    matrix<double> block(c + nother, std::min(c, relationship_block));
    for (std::int64_t first = 0; first < c; first += relationship_block) {
        const matrix_view<double> a{block.data(), block.rows(), std::min(relationship_block, c - first),
                                    block.rows()};
        a22.columns(first, a);
        for (std::int64_t j = 0; j < a.cols; ++j) {
            for (std::int64_t i = first + j; i < c; ++i) parts.core(i, first + j) = beta * a(i, j);
            for (std::int64_t i = 0; i < nother; ++i) parts.cross(first + j, i) = beta * a(c + i, j);
        }
    }
    for (std::int64_t i = 0; i < nother; ++i)
        parts.diagonal[i] = beta * (1.0 + input.ped.f[levels[static_cast<std::size_t>(c + i)] - 1]);
}

void add_genotypes(const matrix_input& input, std::span<const std::int32_t> rows, double factor,
                   core_parts& parts, logger& log) {
    const std::int64_t c = parts.core.rows(), nother = parts.cross.cols(), n = c + nother, m = input.nsnp();
    matrix<double> block(n, std::min(snp_block, m));
    progress_line progress(log);
    for (std::int64_t first = 0; first < m; first += snp_block) {
        const std::int64_t width = std::min(snp_block, m - first);
        expand_genotypes(input.genotypes, rows, first, {block.data(), n, width, n});
        const matrix_view<const double> core{block.data(), c, width, n},
            others{block.data() + c, nother, width, n};
        blas_dsyrk(factor, core, 1.0, parts.core.view());
        blas_dgemm(false, true, factor, core, others, 1.0, parts.cross.view());
        const std::span<double> diagonal = parts.diagonal;
#pragma omp parallel for schedule(static) default(none) shared(others, diagonal, factor, nother, width)
        for (std::int64_t i = 0; i < nother; ++i) {
            double sum = 0.0;
            for (std::int64_t j = 0; j < width; ++j) sum += others(i, j) * others(i, j);
            diagonal[static_cast<std::size_t>(i)] += factor * sum;
        }
        progress.progressloop(first + width, m);
    }
}

/// cross = L^-1 cross, diagonal = M, cross = L'^-1 cross.
void condition_on_core(core_parts& parts, std::span<const std::int32_t> others, logger& log) {
    constexpr double smallest = 1e-12;  // of the diagonal: less is rounding
    const matrix_view<const double> l = std::as_const(parts.core).view();
    for (std::int64_t first = 0; first < parts.cross.cols(); first += animal_block) {
        const matrix_view<double> z =
            columns_of(parts.cross, first, std::min(animal_block, parts.cross.cols() - first));
        lapack_dtrtrs(false, l, z);
        for (std::int64_t i = 0; i < z.cols; ++i) {
            double& own = parts.diagonal[static_cast<std::size_t>(first + i)];
            double explained = 0.0;
            for (const double value : z.column(i)) explained += value * value;
            if (!(own - explained > smallest * own))
                fatal(log,
                      "The matrix G is not positive definite: nothing is left of the level " +
                          inttochar(others[static_cast<std::size_t>(first + i)]) + " beside the core animals",
                      "modmatrices", "invert_apy");
            own -= explained;
        }
        lapack_dtrtrs(true, l, z);
    }
}

}  // namespace

core_parts compute_core_parts(const matrix_input& input, const core_split& split, double alpha, double beta,
                              logger& log) {
    std::vector<std::int32_t> levels, rows;
    for (const std::int32_t place : split.order) {
        levels.push_back(input.levels[static_cast<std::size_t>(place)]);
        rows.push_back(input.rows[static_cast<std::size_t>(place)]);
    }
    core_parts parts = empty_parts(split);
    if (beta > 0.0) add_relationships(input, levels, beta, parts, log);
    add_genotypes(input, rows, alpha / input.sum2pq, parts, log);
    return parts;
}

core_parts select_core_parts(matrix_view<const double> g, const core_split& split) {
    core_parts parts = empty_parts(split);
    const std::int64_t c = split.ncore;
    const auto element = [&](std::int64_t i, std::int64_t j) {
        const auto [low, high] =
            std::minmax(split.order[static_cast<std::size_t>(i)], split.order[static_cast<std::size_t>(j)]);
        return g(high, low);
    };
    for (std::int64_t j = 0; j < c; ++j)
        for (std::int64_t i = j; i < c; ++i) parts.core(i, j) = element(i, j);
    for (std::int64_t j = 0; j < parts.cross.cols(); ++j) {
        for (std::int64_t i = 0; i < c; ++i) parts.cross(i, j) = element(i, c + j);
        parts.diagonal[static_cast<std::size_t>(j)] = element(c + j, c + j);
    }
    return parts;
}

apy invert_apy(core_parts parts, const core_split& split, std::span<const std::int32_t> levels, logger& log) {
    apy result;
    result.ncore = split.ncore;
    for (const std::int32_t place : split.order)
        result.levels.level.push_back(levels[static_cast<std::size_t>(place)]);
    const std::span<const std::int32_t> ordered = result.levels.level,
                                        core = ordered.first(static_cast<std::size_t>(split.ncore)),
                                        others = ordered.subspan(static_cast<std::size_t>(split.ncore));
    factorise(parts.core.view(), "G of the core animals", core, log);
    condition_on_core(parts, others, log);
    invert_factor(parts.core.view(), "G of the core animals", log);

    matrix<double> scaled(split.ncore, std::min(animal_block, parts.cross.cols()));
    for (std::int64_t first = 0; first < parts.cross.cols(); first += animal_block) {
        const matrix_view<double> p =
            columns_of(parts.cross, first, std::min(animal_block, parts.cross.cols() - first));
        for (std::int64_t i = 0; i < p.cols; ++i) {
            double& own = parts.diagonal[static_cast<std::size_t>(first + i)];
            own = 1.0 / own;
            for (std::int64_t k = 0; k < p.rows; ++k) scaled(k, i) = std::sqrt(own) * p(k, i);
            for (double& value : p.column(i)) value *= -own;
        }
        blas_dsyrk(1.0, columns_of(scaled, 0, p.cols), 1.0, parts.core.view());
    }
    mirror_lower(parts.core.view());
    result.core = std::move(parts.core);
    result.cross = std::move(parts.cross);
    result.diagonal = std::move(parts.diagonal);
    return result;
}

}  // namespace zendar::matrices
