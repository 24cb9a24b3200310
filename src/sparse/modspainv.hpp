#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <span>
#include <vector>

#include "modlogger.hpp"

namespace zendar {

/// How the procedures below report and what they give.
struct spainv_controls {
    logger* unlog = nullptr;       ///< the matrix's output unit: the report and errors; may be absent
    bool lprogress = false;        ///< percentages on the screen
    bool lmatrix_pattern = false;  ///< `get_spainv_crs`: the inverse at the matrix's own elements only
};

/// The steps of the report, in its order.
enum class spainv_step : std::int32_t { symbolic, setup, nodes, cholesky, inversion, conversion };
inline constexpr std::int32_t n_spainv_step = 6;

struct spainv_summary {
    std::int64_t nfactor = 0;  ///< elements of the factor, with its diagonal
    std::int64_t nstored = 0;  ///< the same with the zeros and upper triangles that supernodes hold
    std::int32_t nsuper = 0, largest = 0, smallest = 0;  ///< supernodes and their columns
    std::int32_t ndropped = 0;                           ///< dropped pivots (semidefinite forms)
    std::array<double, n_spainv_step> seconds{};         ///< per step; 0 for a step that was not needed
    double total = 0.0;
};

// Each of the following takes the upper triangle of a symmetric matrix in compressed rows (`ia`, `ja` from 1,
// sorted rows, stored diagonal) and overwrites it. `perm` holds, for each place of the elimination order, the
// equation (from 1) that stands there; empty leaves the order as it is. `ia` may be of 32 or 64 bits; the
// factor itself may have more than 2^31 elements in both cases. After an error the arrays are as before.
// All threads of OpenMP are used; results do not depend on their number.
//
// All throw fatal_error, after a message to `unlog`: arrays that are no sorted upper triangle, a wrong
// `perm`, elements that are not finite, a result too large for `ia`, a pivot that fails (with its equation in
// the matrix's own numbering).

/// The Cholesky factor U, A(perm, perm) = U'U, in the numbering of `perm`. Every pivot must be above 0.
template <std::signed_integral Index>
spainv_summary get_chol_crs(std::vector<Index>& ia, std::vector<std::int32_t>& ja, std::vector<double>& a,
                            std::span<const std::int32_t> perm, const spainv_controls& controls = {});

/// The incomplete Cholesky factor on the pattern of A(perm, perm), in the numbering of `perm`: U'U agrees
/// with the matrix on this pattern. Every pivot must be above 0, which is not sure even for a definite
/// matrix.
template <std::signed_integral Index>
spainv_summary get_ichol_crs(std::vector<Index>& ia, std::vector<std::int32_t>& ja, std::vector<double>& a,
                             std::span<const std::int32_t> perm, const spainv_controls& controls = {});

/// Unit U and D of A(perm, perm) = U'DU, in the numbering of `perm`; the unit diagonal is stored. For
/// positive semidefinite matrices: a pivot at or below 1e-10 of its diagonal element is dropped, its d is 0
/// and its row of U is that of the identity. With 1/0 taken as 0, U^-1 D^-1 U'^-1 then solves the kept
/// equations, with 0 for the others.
template <std::signed_integral Index>
spainv_summary get_ldlt_crs(std::vector<Index>& ia, std::vector<std::int32_t>& ja, std::vector<double>& a,
                            std::vector<double>& d, std::span<const std::int32_t> perm,
                            const spainv_controls& controls = {});

/// The inverse on the pattern of the factor (or of the matrix), in the matrix's own numbering. For positive
/// semidefinite matrices: the equations of dropped pivots (as above) have zeros, the others the inverse of
/// what they form.
template <std::signed_integral Index>
spainv_summary get_spainv_crs(std::vector<Index>& ia, std::vector<std::int32_t>& ja, std::vector<double>& a,
                              std::span<const std::int32_t> perm, const spainv_controls& controls = {});

}  // namespace zendar
