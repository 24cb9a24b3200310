#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "modblas.hpp"
#include "modsparse.hpp"
#include "modsparse_coo.hpp"
#include "modview.hpp"

/// Random left-hand sides and dense algebra of the tests of modpevpec.
namespace zendar::test {

/// A sparse definite matrix; the equations of `empty` (from 1) have no elements.
inline crssparse random_lhs(std::int32_t n, unsigned seed, const std::vector<std::int32_t>& empty = {}) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    const auto is_empty = [&](std::int32_t i) { return std::ranges::find(empty, i) != empty.end(); };
    coosparse coo(n, n, 64, true);
    coo.setsymmetric();
    for (std::int32_t k = 0; k < 2 * n; ++k) {
        const auto i = static_cast<std::int32_t>(1 + random() % static_cast<unsigned>(n));
        const auto j = static_cast<std::int32_t>(1 + random() % static_cast<unsigned>(n));
        const double c = value(random);
        if (i == j || is_empty(i) || is_empty(j)) continue;
        coo.add(std::min(i, j), std::max(i, j), c);
        coo.add(i, i, std::fabs(c));
        coo.add(j, j, std::fabs(c));
    }
    for (std::int32_t i = 1; i <= n; ++i)
        if (!is_empty(i)) coo.add(i, i, 0.3 + std::fabs(value(random)));
    return convertfromcootocrs(coo);
}

/// Full symmetric; empty equations have zeros.
inline matrix<double> dense_inverse_of(const crssparse& m) {
    const std::int32_t n = m.getdim(1);
    matrix<double> dense(n, n);
    for (std::int32_t j = 1; j <= n; ++j)
        for (std::int32_t i = 1; i <= n; ++i) dense(i - 1, j - 1) = m.get(i, j);
    std::vector<bool> empty(static_cast<std::size_t>(n));
    for (std::int32_t i = 0; i < n; ++i) {
        empty[i] = dense(i, i) == 0.0;
        if (empty[i]) dense(i, i) = 1.0;
    }
    if (lapack_dpotrf(dense.view()) != 0 || lapack_dpotri(dense.view()) != 0)
        throw std::runtime_error("not definite");
    for (std::int32_t j = 0; j < n; ++j)
        for (std::int32_t i = 0; i < j; ++i) dense(i, j) = dense(j, i);
    for (std::int32_t i = 0; i < n; ++i)
        if (empty[i]) dense(i, i) = 0.0;
    return dense;
}

inline matrix<double> times(bool ta, bool tb, const matrix<double>& a, const matrix<double>& b) {
    matrix<double> c(ta ? a.cols() : a.rows(), tb ? b.rows() : b.cols());
    blas_dgemm(ta, tb, 1.0, a.view(), b.view(), 0.0, c.view());
    return c;
}

/// Full symmetric definite.
inline matrix<double> random_definite(std::int64_t n, std::mt19937& random) {
    std::normal_distribution<double> normal;
    matrix<double> b(n, n);
    for (double& x : b.values()) x = normal(random);
    matrix<double> g = times(false, true, b, b);
    for (std::int64_t i = 0; i < n; ++i) g(i, i) += 0.5;
    return g;
}

}  // namespace zendar::test
