#pragma once

#include <concepts>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

#include "modsolver.hpp"
#include "modsolveriod_test_support.hpp"

/// Systems of the tests of the solvers in memory.
namespace zendar::test {

/// The upper triangle of a symmetric matrix: its diagonal and the elements that are not 0.
template <std::signed_integral Index>
crs_matrix<Index> stored(const matrix<double>& c, logger* unlog = nullptr) {
    std::vector<Index> ia{1}, ja;
    std::vector<double> a;
    for (std::int64_t i = 0; i < c.rows(); ++i) {
        for (std::int64_t j = i; j < c.cols(); ++j)
            if (j == i || c(i, j) != 0.0) {
                ja.push_back(static_cast<Index>(j + 1));
                a.push_back(c(i, j));
            }
        ia.push_back(static_cast<Index>(std::ssize(a) + 1));
    }
    const auto n = static_cast<std::int32_t>(c.rows());
    crs_matrix<Index> result(n, std::ssize(a), n, true, unlog);
    result.external(ia, ja, a);
    result.setsymmetric();
    return result;
}

/// Positive definite, with about `filled` elements a row.
inline matrix<double> sparse_definite(std::int64_t n, std::mt19937& generator, int filled = 4) {
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    matrix<double> c(n, n);
    for (std::int64_t i = 0; i < n; ++i) c(i, i) = 0.1 + 0.1 * std::fabs(uniform(generator));
    for (std::int64_t k = 0; k < n * filled / 2; ++k) {
        const auto i = static_cast<std::int64_t>(generator() % static_cast<std::uint32_t>(n));
        const auto j = static_cast<std::int64_t>(generator() % static_cast<std::uint32_t>(n));
        if (i == j) continue;
        const double value = uniform(generator);
        c(i, j) += value;
        c(j, i) += value;
        c(i, i) += std::fabs(value);
        c(j, j) += std::fabs(value);
    }
    return c;
}

/// Two classifications of `a` and `b` levels beside a mean: two dependencies, and `empty` equations at the
/// end without any record.
struct classified {
    matrix<double> c;
    std::vector<double> b;
};
inline classified classification(std::int32_t a, std::int32_t b, std::int32_t empty,
                                 std::mt19937& generator) {
    const std::int32_t n = 1 + a + b + empty;
    classified system{matrix<double>(n, n), std::vector<double>(static_cast<std::size_t>(n), 0.0)};
    for (const double value : random_vector(6 * n, generator)) {
        const std::int32_t row[] = {
            0, 1 + static_cast<std::int32_t>(generator() % static_cast<std::uint32_t>(a)),
            1 + a + static_cast<std::int32_t>(generator() % static_cast<std::uint32_t>(b))};
        for (const std::int32_t i : row) {
            system.b[i] += value;
            for (const std::int32_t j : row) system.c(i, j) += 1.0;
        }
    }
    return system;
}

/// |b - C x| / |b| by plain loops.
inline double relative_residual(const matrix<double>& c, std::span<const double> b,
                                std::span<const double> x) {
    double rr = 0.0, bb = 0.0;
    for (std::int64_t i = 0; i < c.rows(); ++i) {
        double r = b[i];
        for (std::int64_t j = 0; j < c.cols(); ++j) r -= c(i, j) * x[j];
        rr += r * r;
        bb += b[i] * b[i];
    }
    return std::sqrt(rr / bb);
}

}  // namespace zendar::test
