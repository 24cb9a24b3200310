#pragma once

#include <algorithm>
#include <cmath>

#include "magnitude.hpp"
#include "modpedigree.hpp"
#include "relationship.hpp"

/// Pedigrees with known coefficients, and dense forms, for the tests of what is built on them.
namespace zendar::test {

/// Sires and dams of the levels, with coefficients to be computed.
inline pedigree_type pedigree(const std::vector<std::pair<std::int32_t, std::int32_t>>& parents,
                              std::int32_t nupg = 0) {
    pedigree_type ped;
    ped.nupg = nupg;
    ped.ped = matrix<std::int32_t>(2, std::ssize(parents));
    for (std::size_t i = 0; i < parents.size(); ++i) {
        ped.ped(0, static_cast<std::int64_t>(i)) = parents[i].first;
        ped.ped(1, static_cast<std::int64_t>(i)) = parents[i].second;
    }
    return ped;
}

/// A pedigree with the coefficients of the tabular method.
inline pedigree_type pedigree_with_f(matrix<std::int32_t> parents, std::int32_t nupg,
                                     const matrix<double>& gamma = {}) {
    pedigree_type ped;
    const matrix<double> a = tabular_relationship(parents, nupg, gamma);
    ped.f.resize(static_cast<std::size_t>(a.rows()));
    for (std::int64_t i = 0; i < a.rows(); ++i)
        ped.f[i] = i < a.rows() - nupg || !gamma.empty() ? a(i, i) - 1.0 : 0.0;
    ped.ped = std::move(parents);
    ped.nupg = nupg;
    ped.metarel = gamma;
    ped.ismeta = !gamma.empty();
    return ped;
}

inline matrix<double> dense(const crssparse& m) {
    matrix<double> full(m.getdim(1), m.getdim(2));
    for (std::int32_t i = 1; i <= m.getdim(1); ++i)
        for (std::int32_t j = 1; j <= m.getdim(2); ++j) full(i - 1, j - 1) = m.get(i, j);
    return full;
}

/// The largest difference, relative for elements above 1.
inline double largest_difference(const matrix<double>& x, const matrix<double>& y) {
    if (x.rows() != y.rows() || x.cols() != y.cols()) return std::numeric_limits<double>::infinity();
    double worst = 0.0;
    for (std::size_t k = 0; k < x.values().size(); ++k)
        worst = std::max(worst,
                         magnitude(x.values()[k] - y.values()[k]) / std::max(1.0, std::abs(y.values()[k])));
    return worst;
}

inline matrix<std::int32_t> parents_of(std::initializer_list<std::array<std::int32_t, 2>> list) {
    matrix<std::int32_t> ped(2, static_cast<std::int64_t>(list.size()));
    std::int64_t i = 0;
    for (const auto& [sire, dam] : list) {
        ped(0, i) = sire;
        ped(1, i++) = dam;
    }
    return ped;
}

}  // namespace zendar::test
