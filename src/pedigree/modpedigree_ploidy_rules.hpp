#pragma once

#include <array>
#include <cmath>
#include <cstdint>

#include "modpedigree_ploidy.hpp"

/// The rules for gene copies of any number: Kerr, Li, Tier, Dutkowski and McRae (2012), Theor. Appl. Genet.
/// 124:1271-1282; Hamilton and Kerr (2018), Theor. Appl. Genet. 131:851-860. Shared by all that builds or
/// applies A-inverse.
namespace zendar {

/// f of the base animal behind a gamete of `copies` copies: both of its gametes were like this one.
inline double base_inbreeding(std::int32_t copies, double lambda) {
    const double pairs = (copies - 1.0) * lambda;
    return pairs / (pairs + copies);
}

/// f of the parent that gave a gamete.
inline double giver_inbreeding(const pedigree_ploidy_type& ped, std::int64_t which, std::int32_t level) {
    const std::int32_t giver = ped.giver(which, level);
    return giver > 0 ? ped.f[giver - 1]
                     : base_inbreeding(ped.tau(which, level - 1), ped.lambda(which, level - 1));
}

/// The chance that two copies of a gamete are identical. Exactly f for a lambda of 0, and 1 for one of 1.
inline double identity_in_gamete(double lambda, double f_giver) {
    return f_giver + lambda * (1.0 - f_giver);
}

/// K(i,i) from the ploidy and f.
inline double self_coancestry(std::int64_t ploidy, double f) {
    const auto p = static_cast<double>(ploidy);
    return (1.0 + (p - 1.0) * f) / p;
}

/// Pairs of different gene copies of an animal: ordered ones, from one parent each and across.
struct copy_pairs {
    double of_sire, of_dam, across;

    copy_pairs(const pedigree_ploidy_type& ped, std::int32_t level) {
        const double ts = ped.tau(0, level - 1), td = ped.tau(1, level - 1);
        of_sire = ts * (ts - 1.0);
        of_dam = td * (td - 1.0);
        across = 2.0 * ts * td;
    }
    [[nodiscard]] double all() const { return of_sire + across + of_dam; }
};

/// Weights of an animal, its sire and its dam.
inline std::array<double, 3> ploidy_contribution_row(const pedigree_ploidy_type& ped, std::int32_t level) {
    const auto p = static_cast<double>(ped.ploidy(level));
    return {1.0, -ped.tau(0, level - 1) / p, -ped.tau(1, level - 1) / p};
}

/// The Mendelian sampling variance kdiag(i) - rs rs kdiag(s) - rd rd kdiag(d) - 2 rs rd kparents(i), with the
/// shares r of both parents and without what is not known of them. Taken gamete by gamete, in which the
/// coancestries cancel: nothing is left of their rounding where parents are close to completely inbred.
inline double ploidy_sampling_variance(const pedigree_ploidy_type& ped, std::int32_t level) {
    const auto p = static_cast<double>(ped.ploidy(level));
    double sum = 0.0;
    for (std::int64_t k = 0; k < 2; ++k) {
        const double copies = ped.tau(k, level - 1), lambda = ped.lambda(k, level - 1);
        if (copies == 0.0) continue;
        const double share = copies / p, f = giver_inbreeding(ped, k, level);
        const std::int32_t giver = ped.giver(k, level);
        const double variance = giver > 0 ? (1.0 - f) * ((1.0 + (copies - 1.0) * lambda) / copies -
                                                         1.0 / static_cast<double>(ped.ploidy(giver)))
                                          : (1.0 + (copies - 1.0) * identity_in_gamete(lambda, f)) / copies;
        sum += share * share * variance;
    }
    return 2.0 * sum;
}

/// The inverse of the Mendelian sampling variance; 0 for a level without any but rounding, which adds
/// nothing.
inline double ploidy_factor(const pedigree_ploidy_type& ped, std::int32_t level) {
    constexpr double rounding = 1e-15;
    const double variance = ploidy_sampling_variance(ped, level);
    return std::abs(variance) > rounding ? 1.0 / variance : 0.0;
}

}  // namespace zendar
