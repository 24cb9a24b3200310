#pragma once

#include <array>
#include <cstdint>

#include "modpedigree.hpp"

/// The rules of Henderson (1976) for the elements of A-inverse, shared by all that builds or applies it.
namespace zendar {

/// Weights of an animal, its sire and its dam.
inline constexpr std::array<double, 3> contribution_row{1.0, -0.5, -0.5};

/// 1 - F of a parent, 2 for an unknown one or a group (codes above `nani`).
inline double parent_term(const pedigree_type& ped, std::int32_t parent, std::int32_t nani) {
    return parent > 0 && parent <= nani ? 1.0 - ped.f[parent - 1] : 2.0;
}

/// 0 for an animal without Mendelian sampling variance, both of whose parents are completely inbred.
inline double inverse_of_variance(double four_times_variance) {
    return four_times_variance > 0.0 ? 4.0 / four_times_variance : 0.0;
}

/// The inverse of the Mendelian sampling variance of an animal; its parents may be unknown or groups.
inline double mendelian_factor(const pedigree_type& ped, std::int32_t animal, std::int32_t nani) {
    return inverse_of_variance(parent_term(ped, ped.sire(animal), nani) +
                               parent_term(ped, ped.dam(animal), nani));
}

/// The same with metafounders, which have a coefficient of their own; both parents are known.
inline double mendelian_factor_meta(const pedigree_type& ped, std::int32_t animal) {
    return inverse_of_variance(2.0 - ped.f[ped.sire(animal) - 1] - ped.f[ped.dam(animal) - 1]);
}

/// Calls add(p, q, value) for all pairs of an animal and its known parents, each pair in both orders. `row`
/// has the weights of the three.
template <class Add>
inline void add_contributions(const pedigree_type& ped, std::int32_t animal, double factor, Add&& add,
                              const std::array<double, 3>& row = contribution_row) {
    const std::array<std::int32_t, 3> code{animal, ped.sire(animal), ped.dam(animal)};
    for (std::size_t p = 0; p < 3; ++p) {
        if (code[p] == 0) continue;
        for (std::size_t q = 0; q < 3; ++q)
            if (code[q] != 0) add(code[p], code[q], factor * row[p] * row[q]);
    }
}

}  // namespace zendar
