#pragma once

#include <metis.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include "modview.hpp"

/// Random matrices and orders for the tests and benchmarks of the factorisations.
namespace zendar::test {

/// The upper triangle of a symmetric matrix, rows from 1.
struct upper_crs {
    std::vector<std::int32_t> ia{1}, ja;
    std::vector<double> a;
    [[nodiscard]] std::int32_t n() const { return static_cast<std::int32_t>(ia.size()) - 1; }
};

/// The non-zero elements of the upper triangle and the whole diagonal.
inline upper_crs upper_of(const matrix<double>& dense) {
    upper_crs m;
    for (std::int64_t i = 0; i < dense.rows(); ++i) {
        for (std::int64_t j = i; j < dense.rows(); ++j) {
            if (i != j && dense(i, j) == 0.0) continue;
            m.ja.push_back(static_cast<std::int32_t>(j + 1));
            m.a.push_back(dense(i, j));
        }
        m.ia.push_back(static_cast<std::int32_t>(m.ja.size()) + 1);
    }
    return m;
}

/// Both triangles.
inline matrix<double> dense_of(const upper_crs& m) {
    matrix<double> dense(m.n(), m.n());
    for (std::int32_t i = 0; i < m.n(); ++i)
        for (std::int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
            dense(i, m.ja[k] - 1) = dense(m.ja[k] - 1, i) = m.a[k];
    return dense;
}

/// Nested dissection, as the equation (from 1) at each new place.
inline std::vector<std::int32_t> metis_order(const std::vector<std::int32_t>& ia,
                                             const std::vector<std::int32_t>& ja) {
    auto n = static_cast<idx_t>(ia.size()) - 1;
    if (n == 0) return {};
    std::vector<idx_t> start(n + 1, 0), neighbour, perm(n), iperm(n);
    const auto each = [&](auto&& visit) {
        for (idx_t i = 0; i < n; ++i)
            for (idx_t k = ia[i] - 1; k < ia[i + 1] - 1; ++k)
                if (ja[k] - 1 != i) visit(i, ja[k] - 1);
    };
    each([&](idx_t i, idx_t j) { ++start[i + 1], ++start[j + 1]; });
    std::partial_sum(start.begin(), start.end(), start.begin());
    neighbour.resize(std::max<idx_t>(start[n], 1));
    std::vector<idx_t> next(start.begin(), start.end() - 1);
    each([&](idx_t i, idx_t j) { neighbour[next[i]++] = j, neighbour[next[j]++] = i; });
    idx_t options[METIS_NOPTIONS];
    METIS_SetDefaultOptions(options);
    options[METIS_OPTION_PFACTOR] = 50;
    options[METIS_OPTION_SEED] = 1;
    METIS_NodeND(&n, start.data(), neighbour.data(), nullptr, options, perm.data(), iperm.data());
    std::vector<std::int32_t> order(n);
    for (idx_t k = 0; k < n; ++k) order[k] = perm[k] + 1;
    return order;
}

enum class ordering { metis, identity, reverse, random };

inline std::vector<std::int32_t> order_of(ordering which, const upper_crs& m, std::mt19937& random) {
    std::vector<std::int32_t> order(m.n());
    std::iota(order.begin(), order.end(), 1);
    if (which == ordering::metis) return metis_order(m.ia, m.ja);
    if (which == ordering::reverse) std::ranges::reverse(order);
    if (which == ordering::random) std::ranges::shuffle(order, random);
    return order;
}

/// A definite matrix with about `links` off-diagonal elements a row, the diagonal a little above dominance.
inline upper_crs random_definite(std::int32_t n, double links, std::mt19937& random) {
    matrix<double> dense(n, n);
    std::uniform_int_distribution<std::int32_t> any(0, std::max(0, n - 1));
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    const auto nlinks = static_cast<std::int64_t>(links * n);
    for (std::int64_t k = 0; k < nlinks; ++k) {
        const std::int32_t i = any(random), j = any(random);
        if (i != j) dense(i, j) = dense(j, i) = value(random);
    }
    for (std::int32_t i = 0; i < n; ++i) {
        double sum = 0.0;
        for (std::int32_t j = 0; j < n; ++j) sum += std::abs(dense(i, j));
        dense(i, i) = 1.05 * sum + 0.1;
    }
    return upper_of(dense);
}

/// X'X of a design with classifications that all sum to the same column, and a ridge on part of the
/// equations: rank-deficient by one per classification but one, and by one for each empty class.
inline upper_crs random_semidefinite(std::int32_t n, std::mt19937& random) {
    const std::int32_t nclass = std::min(n, 2 + static_cast<std::int32_t>(random() % 3));
    matrix<double> dense(n, n);
    std::vector<std::int32_t> level(nclass);
    const std::int32_t nrecord = 3 * n;
    for (std::int32_t r = 0; r < nrecord; ++r) {
        for (std::int32_t c = 0; c < nclass; ++c) {
            const std::int32_t first = n * c / nclass, last = n * (c + 1) / nclass;
            level[c] = first + static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(last - first));
        }
        for (const std::int32_t i : level)
            for (const std::int32_t j : level) dense(i, j) += 1.0;
    }
    return upper_of(dense);
}

/// Laplacian of a k x k x k grid plus the identity.
inline upper_crs grid(std::int32_t k) {
    upper_crs m;
    for (std::int32_t i = 0; i < k * k * k; ++i) {
        m.ja.push_back(i + 1), m.a.push_back(7.0);
        if (i % k + 1 < k) m.ja.push_back(i + 2), m.a.push_back(-1.0);
        if (i / k % k + 1 < k) m.ja.push_back(i + 1 + k), m.a.push_back(-1.0);
        if (i / (k * k) + 1 < k) m.ja.push_back(i + 1 + k * k), m.a.push_back(-1.0);
        m.ia.push_back(static_cast<std::int32_t>(m.ja.size()) + 1);
    }
    return m;
}

}  // namespace zendar::test
