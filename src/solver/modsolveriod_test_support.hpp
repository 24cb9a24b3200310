#pragma once

#include <stdlib.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "modblas.hpp"
#include "modgeneral_test_model.hpp"
#include "modlinear.hpp"
#include "temporary_directory.hpp"

/// Systems of the tests of the solvers, held as dense matrices.
namespace zendar::test {

/// C x = b with a dense C.
class dense_system final : public linear_system {
  public:
    dense_system(matrix<double> c, std::vector<double> b) : c(std::move(c)), b(std::move(b)) {}

    [[nodiscard]] std::int64_t size() const override { return std::ssize(b); }
    [[nodiscard]] std::int64_t work_size() const override { return 262144; }
    void atimesx(std::span<const double> x, std::span<double> r) override {
        ++products;
        if (on_product) on_product(products);
        multiply(x, r);
    }
    void r_equal_b_minus_atimesx(std::span<const double> x, std::span<double> rhs,
                                 std::span<double> r) override {
        saved = b;
        std::copy(b.begin(), b.end(), rhs.begin());
        residual(x, r);
    }
    void r_equal_savedb_minus_atimesx(std::span<const double> x, std::span<double> r) override {
        ++refreshes;
        residual(x, r);
        if (on_refresh) on_refresh(r);
    }
    bool read_savedb(std::span<double> rhs) override {
        if (!saved) return false;
        std::copy(saved->begin(), saved->end(), rhs.begin());
        return true;
    }
    void residual(std::span<const double> x, std::span<double> r) const {
        multiply(x, r);
        for (std::int64_t i = 0; i < size(); ++i) r[i] = b[i] - r[i];
    }
    [[nodiscard]] double relative_residual(std::span<const double> x) const {
        std::vector<double> r(b.size());
        residual(x, r);
        double rr = 0.0, bb = 0.0;
        for (std::int64_t i = 0; i < size(); ++i) {
            rr += r[i] * r[i];
            bb += b[i] * b[i];
        }
        return std::sqrt(rr / bb);
    }

    matrix<double> c;
    std::vector<double> b;
    std::optional<std::vector<double>> saved;
    int products = 0, refreshes = 0;
    std::function<void(int)> on_product;
    std::function<void(std::span<double>)> on_refresh;

  private:
    void multiply(std::span<const double> x, std::span<double> r) const {
        for (double& value : r) value = 0.0;
        for (std::int64_t j = 0; j < size(); ++j)
            for (std::int64_t i = 0; i < size(); ++i) r[i] += c(i, j) * x[j];
    }
};

inline double inner_product(std::span<const double> a, std::span<const double> b) {
    double sum = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) sum += a[i] * b[i];
    return sum;
}

/// M = diag(C); elements of 0 count as 1.
class jacobi final : public linear_preconditioner {
  public:
    explicit jacobi(const matrix<double>& c) {
        for (std::int64_t i = 0; i < c.rows(); ++i) inverse.push_back(c(i, i) == 0.0 ? 1.0 : 1.0 / c(i, i));
    }
    preconditioned_sums preconditionertimesx(std::span<double> y, std::span<const double> x) override {
        preconditioned_sums sums;
        for (std::size_t i = 0; i < inverse.size(); ++i) {
            y[i] = inverse[i] * x[i];
            sums += {y[i] * y[i], x[i] * y[i]};
        }
        return sums;
    }
    std::vector<double> inverse;
};

/// B B' with elements of B from -1 to 1, and `shift` on the diagonal.
inline matrix<double> random_definite(std::int64_t n, std::mt19937& generator, double shift) {
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    matrix<double> root(n, n), c(n, n);
    for (double& value : root.values()) value = uniform(generator);
    blas_dgemm(false, true, 1.0, root.view(), root.view(), 0.0, c.view());
    for (std::int64_t i = 0; i < n; ++i) c(i, i) += shift;
    return c;
}

inline std::vector<double> random_vector(std::int64_t n, std::mt19937& generator) {
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    std::vector<double> v(static_cast<std::size_t>(n));
    for (double& value : v) value = uniform(generator);
    return v;
}

/// The matrix (-1, 2, -1), whose condition number grows as n^2.
inline matrix<double> second_differences(std::int64_t n) {
    matrix<double> c(n, n);
    for (std::int64_t i = 0; i < n; ++i) {
        c(i, i) = 2.0;
        if (i + 1 < n) c(i, i + 1) = c(i + 1, i) = -1.0;
    }
    return c;
}

/// The eigenvalues of M^-1 C for M = diag(C), ascending.
inline std::vector<double> jacobi_eigenvalues(const matrix<double>& c) {
    matrix<double> scaled = c;
    for (std::int64_t i = 0; i < c.rows(); ++i)
        for (std::int64_t j = 0; j < c.cols(); ++j) scaled(i, j) /= std::sqrt(c(i, i) * c(j, j));
    std::vector<double> values(static_cast<std::size_t>(c.rows()));
    lapack_dsyevd(scaled.view(), values);
    return values;
}

/// Gaussian elimination with pivoting.
inline std::vector<double> dense_solve(matrix<double> a, std::vector<double> b) {
    const std::int64_t n = a.rows();
    for (std::int64_t k = 0; k < n; ++k) {
        std::int64_t pivot = k;
        for (std::int64_t i = k; i < n; ++i)
            if (std::fabs(a(i, k)) > std::fabs(a(pivot, k))) pivot = i;
        for (std::int64_t j = 0; j < n; ++j) std::swap(a(k, j), a(pivot, j));
        std::swap(b[k], b[pivot]);
        for (std::int64_t i = k + 1; i < n; ++i) {
            const double factor = a(i, k) / a(k, k);
            for (std::int64_t j = k; j < n; ++j) a(i, j) -= factor * a(k, j);
            b[i] -= factor * b[k];
        }
    }
    for (std::int64_t k = n - 1; k >= 0; --k) {
        for (std::int64_t j = k + 1; j < n; ++j) b[k] -= a(k, j) * b[j];
        b[k] /= a(k, k);
    }
    return b;
}

/// A model of one class effect with n levels, so that the files of solutions can be written.
inline param_type model_of(std::int32_t n) {
    return small_model(1, {{.nlevel = n}}).param;
}

inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) lines.push_back(line);
    return lines;
}

/// Runs in a directory of its own, where gnuplot is not found.
class solver_place {
  public:
    solver_place() : inside_(directory.path()) { setenv("PATH", "/nonexistent", 1); }
    ~solver_place() { show_programs(); }
    solver_place(const solver_place&) = delete;
    solver_place& operator=(const solver_place&) = delete;
    void show_programs() const { setenv("PATH", path_.c_str(), 1); }

    temporary_directory directory;

  private:
    std::string path_ = getenv("PATH");
    working_directory inside_;
};

}  // namespace zendar::test
