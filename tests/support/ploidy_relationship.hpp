#pragma once

#include <cstdint>
#include <vector>

#include "modpedigree_ploidy.hpp"
#include "modview.hpp"

/// Random pedigrees of any ploidy and their coancestries from a table of all gene copies: slow, dense, and
/// without any of the rules that the system uses.
namespace zendar::test {

struct ploidy_choice {
    std::int32_t nanimal = 30;
    std::vector<std::int32_t> ploidies{1, 2, 3, 4, 6};
    double unknown = 0.2;     ///< share of parents that are unknown
    double one_sided = 0.1;   ///< share of animals all of whose copies come from one parent
    bool selfing = true;      ///< sire and dam may be the same
    bool shuffled = true;     ///< codes in no order of age
    bool invertible = false;  ///< every animal has a Mendelian sampling variance
};

/// With `nupg` 0, and all levels with copies.
pedigree_ploidy_type random_ploidy_pedigree(const ploidy_choice& choice, std::uint64_t seed);

struct ploidy_coancestries {
    matrix<double> k;              ///< of all levels
    std::vector<double> f;         ///< chance that two different copies are identical; 0 for haploids
    std::vector<double> kparents;  ///< of the parents that give copies; 0 unless there are two
};

/// The chance of identity of each pair of gene copies, animal by animal. A copy is one of the parent, at
/// random; two copies of a gamete are the same one with the chance lambda, and else two different ones.
/// Behind every gamete of an unknown parent stands an animal of two such gametes.
ploidy_coancestries tabular_coancestries(const pedigree_ploidy_type& ped);

}  // namespace zendar::test
