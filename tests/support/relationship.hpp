#pragma once

#include <cstdint>
#include <vector>

#include "modview.hpp"

/// Random pedigrees and their relationships by the tabular method: slow, dense, and without any of the rules
/// that the system uses.
namespace zendar::test {

struct pedigree_choice {
    std::int32_t nanimal = 30;
    std::int32_t nupg = 0;         ///< groups or metafounders, the levels behind the animals
    bool complete = false;         ///< a group in place of every unknown parent (needs nupg > 0)
    double unknown = 0.2;          ///< share of parents that are unknown (or a group)
    bool selfing = false;          ///< sire and dam may be the same
    bool shuffled = true;          ///< codes in no order of age
    std::int32_t generations = 0;  ///< 0: parents from all older animals; else from the generation before
};

/// 2 x (nanimal + nupg); the columns of groups are 0.
matrix<std::int32_t> random_pedigree(const pedigree_choice& choice, std::uint64_t seed);

/// A of all levels. Groups (the last `nupg` levels) count as unknown parents, and their rows are 0; with
/// `gamma` (nupg x nupg) they are metafounders with these relationships.
/// Self-relationships are 1 + a(sire, dam) / 2, those between animals half the sum over the younger one's
/// parents.
matrix<double> tabular_relationship(const matrix<std::int32_t>& ped, std::int32_t nupg,
                                    const matrix<double>& gamma = {});

/// Inverse of a dense matrix that is positive definite, by LAPACK.
matrix<double> dense_inverse(const matrix<double>& a);

/// Shares of the groups in all levels, level by group; an unknown parent leaves its half empty.
matrix<double> group_shares(const matrix<std::int32_t>& ped, std::int32_t nupg);

/// [I -Q]' A^-1 [I -Q] for animals and groups (Quaas, 1988); Q has the shares of the groups in the animals.
matrix<double> dense_inverse_with_groups(const matrix<std::int32_t>& ped, std::int32_t nupg);

/// A random matrix of relationships between metafounders: positive definite, diagonal 0.2 to 1.
matrix<double> random_metarel(std::int32_t nmeta, std::uint64_t seed);

}  // namespace zendar::test
