#include "modmmeiod_external.hpp"

#include <algorithm>
#include <utility>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modmmeiod_detail.hpp"
#include "modstructure_product.hpp"

namespace zendar::modmmeiod {

namespace {

/// Rows first, first + 1, ... of a matrix.
template <class T>
matrix_view<T> rows_of(matrix_view<T> m, std::int64_t first, std::int64_t n) {
    return {m.data + first, n, m.cols, m.ld};
}

/// The next rows x cols values of a work array.
matrix_view<double> take(std::span<double>& work, std::int64_t rows, std::int64_t cols) {
    const matrix_view<double> taken{work.data(), rows, cols, rows};
    work = work.subspan(static_cast<std::size_t>(rows * cols));
    return taken;
}

void scale(matrix_view<double> m, double factor) {
    for (std::int64_t j = 0; j < m.cols; ++j)
        for (double& v : m.column(j)) v *= factor;
}

/// out = weight A22^-1 in; nothing is computed for a weight of 0.
void weighted_a22i(a22_inverse* a22i, double weight, matrix_view<const double> in, matrix_view<double> out,
                   std::span<double> work) {
    if (weight == 0.0) {
        for (std::int64_t j = 0; j < out.cols; ++j) std::ranges::fill(out.column(j), 0.0);
        return;
    }
    a22i->computea22i_timesx(in, out, work);
    scale(out, weight);
}

/// weight diag(A22^-1)
std::vector<double> weighted_diagonal(a22_inverse* a22i, double weight, std::int64_t n, logger& log) {
    if (weight == 0.0) return std::vector<double>(static_cast<std::size_t>(n), 0.0);
    std::vector<double> diagonal = computediaga22i(*a22i, log);
    for (double& v : diagonal) v *= weight;
    return diagonal;
}

}  // namespace

// ---- a symmetric matrix

void symmetric_term::timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double>,
                            logger&) {
    if (matrix_.elements.is_sparse())
        matrix_.elements.sparse.multgenm(1.0, 'n', in, 0.0, out);
    else
        // Of few columns the product by the whole matrix is faster than DSYMM, though it reads twice as much.
        blas_dgemm(false, false, 1.0, matrix_.elements.dense.view(), in, 0.0, out);
}

std::vector<double> symmetric_term::diagonal(logger&) {
    std::vector<double> values;
    for (std::int64_t i = 0; i < size(); ++i) values.push_back(matrix_.elements.value(i, i));
    return values;
}

// ---- APY

void gapy_term::timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                       logger&) {
    const std::int64_t ncore = matrix_.ncore, nother = size() - ncore;
    weighted_a22i(a22i_.get(), -omega_, in, out, work);
    const matrix_view<const double> xc = rows_of(in, 0, ncore), xn = rows_of(in, ncore, nother);
    const matrix_view<double> yc = rows_of(out, 0, ncore), yn = rows_of(out, ncore, nother);
    blas_dgemm(false, false, tau_, std::as_const(matrix_.core).view(), xc, 1.0, yc);
    if (nother == 0) return;
    blas_dgemm(false, false, tau_, std::as_const(matrix_.cross).view(), xn, 1.0, yc);
    blas_dgemm(true, false, tau_, std::as_const(matrix_.cross).view(), xc, 1.0, yn);
    for (std::int64_t j = 0; j < yn.cols; ++j)
        for (std::int64_t i = 0; i < nother; ++i)
            yn(i, j) += tau_ * matrix_.diagonal[static_cast<std::size_t>(i)] * xn(i, j);
}

std::vector<double> gapy_term::diagonal(logger& log) {
    std::vector<double> values = weighted_diagonal(a22i_.get(), -omega_, size(), log);
    for (std::int64_t i = 0; i < size(); ++i)
        values[static_cast<std::size_t>(i)] +=
            tau_ * (i < matrix_.ncore ? matrix_.core(i, i)
                                      : matrix_.diagonal[static_cast<std::size_t>(i - matrix_.ncore)]);
    return values;
}

// ---- Ta

tamatrix_term::tamatrix_term(tamatrix_type ta, std::unique_ptr<a22_inverse> a22i, ta_weights w,
                             std::int64_t block)
    : ta_(std::move(ta)), a22i_(std::move(a22i)), weights_(w), block_(block) {
    if (block_ < 1 || block_ > nsnp()) block_ = nsnp();
}

std::int64_t tamatrix_term::work_size(std::int64_t columns) const {
    return std::max(block_ * columns, a22i_ ? a22i_->work_size(columns) : 0);
}

void tamatrix_term::timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                           logger&) {
    weighted_a22i(a22i_.get(), weights_.a22i(), in, out, work);
    const matrix_view<const double> ta = std::as_const(ta_.value).view();
    for (std::int64_t first = 0; first < nsnp(); first += block_) {
        const std::int64_t n = std::min(block_, nsnp() - first);
        const matrix_view<double> product{work.data(), n, in.cols, n};
        blas_dgemm(false, false, 1.0, rows_of(ta, first, n), in, 0.0, product);
        blas_dgemm(true, false, -weights_.tau, rows_of(ta, first, n), product, 1.0, out);
    }
}

std::vector<double> tamatrix_term::diagonal(logger& log) {
    std::vector<double> values = weighted_diagonal(a22i_.get(), weights_.a22i(), size(), log);
    for (std::int64_t j = 0; j < size(); ++j) {
        double sum = 0.0;
        for (const double v : std::as_const(ta_.value).column(j)) sum += v * v;
        values[static_cast<std::size_t>(j)] -= weights_.tau * sum;
    }
    return values;
}

void tamatrix_term::ta_timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double>,
                              logger&) {
    blas_dgemm(false, false, 1.0, std::as_const(ta_.value).view(), in, 0.0, out);
}

// ---- Ta by its components

namespace {

/// b = L^-1 b, or L'^-1 b.
void solve_l(matrix_view<const double> l, bool transposed, matrix_view<double> b, const char* procedure,
             logger& log) {
    const int info = lapack_dtrtrs(transposed, l, b);
    if (info != 0) fatal(log, "(dtrtrs) T matrix info: " + inttochar(info), "modmmeiod", procedure);
}

}  // namespace

std::int64_t taplink_term::work_size(std::int64_t columns) const {
    return (2 * size() + nsnp()) * columns + a22i_->work_size(columns);
}

/// Ta' Ta x = A22^-1 W L'^-1 L^-1 W' A22^-1 x / beta^2
void taplink_term::timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                          logger& log) {
    constexpr const char* procedure = "addrandompart_taplink_timesx";
    const matrix_view<double> a22i_x = take(work, size(), in.cols), back = take(work, size(), in.cols),
                              snps = take(work, nsnp(), in.cols);
    a22i_->computea22i_timesx(in, a22i_x, work);
    multiply_coefficients(link_.genotypes, 't', a22i_x, snps, log);
    solve_l(link_.l.value.view(), false, snps, procedure, log);
    solve_l(link_.l.value.view(), true, snps, procedure, log);
    multiply_coefficients(link_.genotypes, 'n', snps, back, log);
    a22i_->computea22i_timesx(back, out, work);
    const double ta = -weights_.tau / (weights_.beta * weights_.beta), a22i = weights_.a22i();
    for (std::int64_t j = 0; j < out.cols; ++j)
        for (std::int64_t i = 0; i < out.rows; ++i) out(i, j) = ta * out(i, j) + a22i * a22i_x(i, j);
}

std::vector<double> taplink_term::diagonal(logger& log) {
    return weighted_diagonal(a22i_.get(), weights_.a22i(), size(), log);
}

void taplink_term::ta_timesx(matrix_view<const double> in, matrix_view<double> out, std::span<double> work,
                             logger& log) {
    const matrix_view<double> a22i_x = take(work, size(), in.cols);
    a22i_->computea22i_timesx(in, a22i_x, work);
    multiply_coefficients(link_.genotypes, 't', a22i_x, out, log);
    scale(out, 1.0 / weights_.beta);
    solve_l(link_.l.value.view(), false, out, "compute_snpeffects_ta", log);
}

// ---- across effects

namespace {

/// Equations of a level of an effect whose levels a matrix has, before its traits.
std::int64_t covariables_of_level(const param_type& param, std::int32_t e) {
    return get_nlevel(param, e) > 0 ? param.nx[e] : 1;
}

}  // namespace

across_term::across_term(const param_type& param, across_block block, logger& log)
    : block_(std::move(block)) {
    const std::int32_t e1 = block_.effect1, e2 = block_.effect2;
    const std::int64_t nt = param.ntrait, nx = covariables_of_level(param, e1);
    if (param.sumequation[e1] == param.sumequation[e2])
        fatal(log,
              "The effects " + inttochar(e1) + " and " + inttochar(e2) +
                  " of the option !acrosseff have the same equations",
              "modmmeiod", "setup_lhsrhs_iod");
    if (nx != covariables_of_level(param, e2))
        fatal(log,
              "The effects " + inttochar(e1) + " and " + inttochar(e2) +
                  " of the option !acrosseff have different numbers of covariables: " + inttochar(nx) +
                  " and " + inttochar(covariables_of_level(param, e2)),
              "modmmeiod", "setup_lhsrhs_iod");
    stride1_ = stride2_ = nx * nt;
    for (std::int64_t c = 0; c < nx; ++c)
        for (std::int64_t t = 0; t < nt; ++t)
            if (param.pos_effects(t, e1 - 1) > 0 && param.pos_effects(t, e2 - 1) > 0) {
                offset1_.push_back(param.sumequation[e1] + c * nt + t);
                offset2_.push_back(param.sumequation[e2] + c * nt + t);
            }
}

std::int64_t across_term::work_size() const {
    return (block_.rows.size() + block_.columns.size()) * 2 * std::ssize(offset1_);
}

void across_term::timesx(std::span<const double> x, std::span<double> r, std::int64_t first,
                         std::span<double> work) const {
    const auto ncol = static_cast<std::int64_t>(offset1_.size());
    const std::int64_t n1 = block_.rows.size(), n2 = block_.columns.size();
    const matrix_view<double> x1 = take(work, n1, ncol), x2 = take(work, n2, ncol), y1 = take(work, n1, ncol),
                              y2 = take(work, n2, ncol);
    const auto at = [first](const std::vector<std::int64_t>& offset, std::int64_t stride,
                            const matrix_levels& levels, std::int64_t i, std::int64_t c) {
        return static_cast<std::size_t>(equation(offset, stride, levels, i, static_cast<std::size_t>(c)) -
                                        first);
    };
    for (std::int64_t c = 0; c < ncol; ++c) {
        for (std::int64_t i = 0; i < n1; ++i) x1(i, c) = x[at(offset1_, stride1_, block_.rows, i, c)];
        for (std::int64_t i = 0; i < n2; ++i) x2(i, c) = x[at(offset2_, stride2_, block_.columns, i, c)];
    }
    if (block_.elements.is_sparse()) {
        block_.elements.sparse.multgenm(1.0, 'n', x2, 0.0, y1);
        block_.elements.sparse.multgenm(1.0, 't', x1, 0.0, y2);
    } else {
        const matrix_view<const double> b = block_.elements.dense.view();
        blas_dgemm(false, false, 1.0, b, x2, 0.0, y1);
        blas_dgemm(true, false, 1.0, b, x1, 0.0, y2);
    }
    for (std::int64_t c = 0; c < ncol; ++c) {
        for (std::int64_t i = 0; i < n1; ++i) r[at(offset1_, stride1_, block_.rows, i, c)] += y1(i, c);
        for (std::int64_t i = 0; i < n2; ++i) r[at(offset2_, stride2_, block_.columns, i, c)] += y2(i, c);
    }
}

// ---- in the operator

std::int64_t external_work_size(const effect_group& group, const external_term& term) {
    return 2 * term.size() * group.order() + term.work_size(group.order());
}

namespace {

/// A row for each level, a column for each entry of the group's blocks.
void gather(const effect_group& group, std::span<const std::int32_t> levels, std::span<const double> x,
            matrix_view<double> in) {
    const std::int64_t order = group.order(), n = std::ssize(levels);
#pragma omp parallel for schedule(static) default(none) shared(group, levels, in, x, order, n)
    for (std::int64_t k = 0; k < n; ++k)
        for (std::int64_t i = 0; i < order; ++i)
            in(k, i) = x[static_cast<std::size_t>(group.at(i, levels[static_cast<std::size_t>(k)] - 1))];
}

}  // namespace

void addrandompart_external_timesx(const effect_group& group, external_term& term, std::span<double> work,
                                   std::span<const double> x, std::span<double> r, logger& log) {
    const std::int64_t order = group.order(), n = term.size();
    const std::span<const std::int32_t> levels = term.levels();
    if (n == 0) return;
    const matrix_view<double> in = take(work, n, order), out = take(work, n, order);
    gather(group, levels, x, in);
    term.timesx(in, out, work, log);
#pragma omp parallel for schedule(static) default(none) shared(group, levels, out, r, order, n)
    for (std::int64_t k = 0; k < n; ++k)
        for (std::int64_t i = 0; i < order; ++i) {
            double sum = 0.0;
            for (std::int64_t j = 0; j < order; ++j) sum += group.ginv(j, i) * out(k, j);
            r[static_cast<std::size_t>(group.at(i, levels[static_cast<std::size_t>(k)] - 1))] += sum;
        }
}

void compute_snpeffects_ta(const effect_group& group, ta_term& term, matrix_view<const double> l,
                           std::span<const double> solutions, matrix_view<double> snpeffects, logger& log) {
    const std::int64_t order = group.order();
    matrix<double> u(term.size(), order);
    std::vector<double> work(static_cast<std::size_t>(term.work_size(order)));
    gather(group, term.levels(), solutions, u.view());
    term.ta_timesx(u.view(), snpeffects, work, log);
    solve_l(l, true, snpeffects, "compute_snpeffects_ta", log);
}

}  // namespace zendar::modmmeiod
