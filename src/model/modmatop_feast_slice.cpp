#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>
#include <span>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modmatop_feast_detail.hpp"
#include "modrandom.hpp"

namespace zendar::detail {

namespace {

constexpr std::int64_t block = 8;  // vectors that are iterated together
constexpr int most_restarts = 100;
constexpr int most_idle_sweeps = 3;
constexpr double tolerance = 1e-12;
constexpr double rounding = 50.0 * std::numeric_limits<double>::epsilon();

double dot(std::span<const double> a, std::span<const double> b) {
    double sum = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) sum += a[i] * b[i];
    return sum;
}

double length_of(std::span<const double> a) {
    return std::sqrt(dot(a, a));
}

void scale(std::span<double> a, double factor) {
    for (double& x : a) x *= factor;
}

/// Orthonormal vectors: first the eigenvectors that are found, then those that the iteration works with.
class orthonormal_basis {
  public:
    orthonormal_basis(std::int64_t n, std::int64_t columns) : v_(n, columns), work_(columns, block) {}

    [[nodiscard]] std::int64_t size() const noexcept { return size_; }
    [[nodiscard]] std::int64_t order() const noexcept { return v_.rows(); }
    [[nodiscard]] matrix_view<double> columns(std::int64_t first, std::int64_t count) {
        assert(first + count <= v_.cols());
        return {v_.data() + first * v_.rows(), v_.rows(), count, v_.rows()};
    }
    void resize(std::int64_t size) { size_ = size; }

    /// w := w less its projections on the basis; h, if any, gets the coefficients of the columns from
    /// `from` on.
    void project(matrix_view<double> w, std::int64_t from = 0, matrix_view<double> h = {}) {
        if (size_ == 0) return;
        for (int pass = 0; pass < 2; ++pass) {  // the second takes what rounding left
            const matrix_view<double> c{work_.data(), size_, w.cols, work_.rows()};
            blas_dgemm(true, false, 1.0, columns(0, size_), w, 0.0, c);
            blas_dgemm(false, false, -1.0, columns(0, size_), c, 1.0, w);
            if (h.data == nullptr) continue;
            for (std::int64_t j = 0; j < w.cols; ++j)
                for (std::int64_t i = from; i < size_; ++i) h(i - from, j) += c(i, j);
        }
    }

    /// Adds the columns of w, orthogonal to the basis, orthonormalised, as long as the space has directions;
    /// random ones in the place of columns that are dependent, i.e. tiny beside `size_before`.
    /// @returns the coefficients (columns added) x (columns of w).
    matrix<double> add(matrix_view<double> w, double size_before, normal_stream& random) {
        constexpr double dependent = 1e-13;
        const std::int64_t first = size_, count = std::min(w.cols, order() - size_);
        matrix<double> b(count, w.cols);
        std::int64_t added = 0;
        for (std::int64_t j = 0; j < w.cols && added < count; ++j) {
            const std::span<double> column = w.column(j);
            for (int pass = 0; pass < 2; ++pass)
                for (std::int64_t i = 0; i < added; ++i) {
                    const std::span<const double> other = columns(first + i, 1).column(0);
                    const double c = dot(other, column);
                    b(i, j) += c;
                    for (std::size_t r = 0; r < column.size(); ++r) column[r] -= c * other[r];
                }
            const double length = length_of(column);
            if (!(length > dependent * size_before)) continue;
            scale(column, 1.0 / length);
            // Where the others took nearly all of the column, what it had of the basis by rounding has grown.
            project({column.data(), w.rows, 1, w.rows});
            const double left = length_of(column);
            if (!(left > 0.5)) continue;
            scale(column, 1.0 / left);
            b(added, j) = length;
            std::ranges::copy(column, columns(first + added, 1).column(0).begin());
            size_ = first + ++added;
        }
        for (; added < count; ++added) add_random(random);
        return b;
    }

    void add_random(normal_stream& random) {
        assert(size_ < order());
        const matrix_view<double> to = columns(size_, 1);
        for (double& x : to.column(0)) x = random.rand_stdnormal();
        for (int pass = 0; pass < 2; ++pass) {
            project(to);
            scale(to.column(0), 1.0 / length_of(to.column(0)));
        }
        ++size_;
    }

    /// The columns from `from` on become their products with s, a column each.
    void rotate(std::int64_t from, matrix_view<const double> s) {
        matrix<double> rotated(order(), s.cols);
        blas_dgemm(false, false, 1.0, columns(from, s.rows), s, 0.0, rotated.view());
        std::ranges::copy(rotated.values(), columns(from, s.cols).data);
    }

  private:
    matrix<double> v_, work_;
    std::int64_t size_ = 0;
};

/// A block Lanczos iteration from random vectors, restarted, in the space orthogonal to what the basis holds.
/// Of the eigenvalues theta = sign / (lambda - shift) those from `least` on are sought.
class lanczos_sweep {
  public:
    lanczos_sweep(orthonormal_basis& basis, const shifted_matrix::factors& factors, double sign, double least,
                  std::int64_t remaining, std::int64_t most, normal_stream& random)
        : basis_(basis),
          factors_(factors),
          sign_(sign),
          least_(least),
          remaining_(remaining),
          locked_(basis.size()),
          most_(std::min(most, basis.order() - basis.size())),
          random_(random),
          t_(most_, most_) {}

    /// Leaves behind the basis of before the eigenvectors that were found, their eigenvalues in `theta`.
    std::int64_t run(std::vector<double>& theta) {
        for (std::int64_t i = 0; i < std::min(block, most_); ++i) basis_.add_random(random_);
        next_ = locked_;
        for (int restart = 1;; ++restart) {
            expand();
            rayleigh_ritz();
            if (is_done() || restart == most_restarts) return keep_converged(theta);
            restart_iteration();
        }
    }

  private:
    /// Takes products until the projected matrix is full; the block from `next_` on has none yet.
    void expand() {
        while (basis_.size() > next_ && basis_.size() - locked_ <= most_) {
            const std::int64_t count = basis_.size() - next_, m = basis_.size() - locked_;
            matrix<double> w(basis_.order(), count), h(m, count);
            const std::span<const double> from{basis_.columns(next_, count).data, w.values().size()};
            std::ranges::copy(from, w.data());
            if (factors_.solver->solve(w.view()) != 0) throw fatal_error("a solve with good factors failed");
            scale(w.values(), sign_);
            double size_before = 0.0;
            for (std::int64_t j = 0; j < count; ++j)
                size_before = std::max(size_before, length_of(w.column(j)));
            basis_.project(w.view(), locked_, h.view());
            const std::int64_t at = next_ - locked_;
            for (std::int64_t j = 0; j < count; ++j)
                for (std::int64_t i = 0; i < m; ++i) t_(i, at + j) = t_(at + j, i) = h(i, j);
            next_ += count;
            b_ = basis_.add(w.view(), size_before, random_);
        }
    }

    /// Ritz pairs of the projected matrix in the order of theta, descending, with the length of the residual.
    void rayleigh_ritz() {
        const std::int64_t m = next_ - locked_;
        matrix<double> t(m, m);
        for (std::int64_t j = 0; j < m; ++j)
            for (std::int64_t i = 0; i < m; ++i) t(i, j) = t_(i, j);
        std::vector<double> ascending(static_cast<std::size_t>(m));
        if (const int info = lapack_dsyevd_vectors(t.view(), ascending); info != 0)
            throw fatal_error("DSYEVD returned error code " + inttochar(info));
        theta_.assign(ascending.rbegin(), ascending.rend());
        s_ = matrix<double>(m, m);
        for (std::int64_t j = 0; j < m; ++j) std::ranges::copy(t.column(m - 1 - j), s_.column(j).begin());
        residual_.assign(static_cast<std::size_t>(m), 0.0);
        const std::int64_t last = m - b_.cols();
        for (std::int64_t j = 0; j < m; ++j) {
            double square = 0.0;
            for (std::int64_t i = 0; i < b_.rows(); ++i) {
                double sum = 0.0;
                for (std::int64_t k = 0; k < b_.cols(); ++k) sum += b_(i, k) * s_(last + k, j);
                square += sum * sum;
            }
            residual_[j] = std::sqrt(square);
        }
    }

    [[nodiscard]] bool is_converged(std::size_t i) const {
        const double largest = std::max(std::fabs(theta_.front()), std::fabs(theta_.back()));
        return residual_[i] <= std::max(tolerance * std::fabs(theta_[i]), rounding * largest);
    }
    [[nodiscard]] bool is_wanted(std::size_t i) const { return theta_[i] >= least_ && is_converged(i); }

    /// Enough is found, or no more is to come from these starting vectors.
    [[nodiscard]] bool is_done() const {
        std::int64_t found = 0;
        bool more = false;
        for (std::size_t i = 0; i < theta_.size(); ++i) {
            if (is_wanted(i)) ++found;
            more = more || (!is_converged(i) && theta_[i] + residual_[i] >= least_);
        }
        return found >= remaining_ || !more;
    }

    void restart_iteration() {
        const std::int64_t m = next_ - locked_, waiting = basis_.size() - next_;
        const std::int64_t kept = std::min(remaining_ + 2 * block, m - block);
        basis_.rotate(locked_, {s_.data(), m, kept, m});
        const matrix_view<double> from = basis_.columns(next_, waiting);
        next_ = locked_ + kept;
        const matrix_view<double> to = basis_.columns(next_, waiting);
        std::copy(from.data, from.data + from.rows * waiting, to.data);  // forwards: they may overlap
        basis_.resize(next_ + waiting);
        t_ = matrix<double>(most_, most_);
        for (std::int64_t i = 0; i < kept; ++i) t_(i, i) = theta_[i];
    }

    std::int64_t keep_converged(std::vector<double>& theta) {
        const std::int64_t m = next_ - locked_;
        matrix<double> s(m, m);
        std::int64_t found = 0;
        for (std::int64_t i = 0; i < m && found < remaining_; ++i) {
            if (!is_wanted(i)) continue;
            std::ranges::copy(s_.column(i), s.column(found++).begin());
            theta.push_back(theta_[i]);
        }
        basis_.rotate(locked_, {s.data(), m, found, m});
        basis_.resize(locked_ + found);
        return found;
    }

    orthonormal_basis& basis_;
    const shifted_matrix::factors& factors_;
    double sign_, least_;
    std::int64_t remaining_, locked_, most_;
    normal_stream& random_;
    matrix<double> t_;      // the inverse on the basis behind the locked vectors
    matrix<double> b_, s_;  // coefficients of the block that waits; Ritz vectors
    std::vector<double> theta_, residual_;
    std::int64_t next_ = 0;
};

}  // namespace

std::int64_t eigenpairs_of_slice(const shifted_matrix::factors& factors, double sign, double bound,
                                 std::int64_t wanted, std::int32_t n, found_pairs& found) {
    const auto before = std::ssize(found.values);
    const std::int64_t most = 2 * wanted + 4 * block;
    orthonormal_basis basis(n, before + wanted + std::min<std::int64_t>(most, n) + block);
    std::ranges::copy(found.vectors, basis.columns(0, before).data);
    basis.resize(before);
    normal_stream random;
    std::vector<double> theta;
    const double least = (1.0 - 1e-10) / std::fabs(bound - factors.shift);
    for (int idle = 0; std::ssize(theta) < wanted && basis.size() < n && idle < most_idle_sweeps;) {
        lanczos_sweep sweep(basis, factors, sign, least, wanted - std::ssize(theta), most, random);
        idle = sweep.run(theta) > 0 ? 0 : idle + 1;
    }
    const auto count = std::ssize(theta);
    for (const double value : theta) found.values.push_back(factors.shift + sign / value);
    const matrix_view<double> vectors = basis.columns(before, count);
    found.vectors.insert(found.vectors.end(), vectors.data, vectors.data + std::int64_t{n} * count);
    return count;
}

}  // namespace zendar::detail
