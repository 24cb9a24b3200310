#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "modlogger.hpp"
#include "modsparse_view.hpp"
#include "modview.hpp"

namespace zendar {

namespace platform {
class directsolver;
}

/// Handle and controls of the direct solver, the same for both index widths: the indices of the matrix are a
/// matter of the call. Numbers of `iparm` count from 1 in what follows.
struct pardiso_variable {
    std::unique_ptr<platform::directsolver> pt;  ///< holds the factors
    std::int32_t maxfct = 1;
    std::int32_t mnum = 1;
    std::int32_t mtype = -2;  ///< real symmetric indefinite
    std::int32_t msglvl = 0;
    std::int32_t nrhs = 1;
    std::int32_t error = -9;  ///< of the last phase
    std::int32_t phase = 0;
    /// As `pardisoinit` sets them. Of these the solver behind heeds (5), an order given by the user, and (27),
    /// the check of the matrix, and fills (18), the elements of the factors (-1 when they exceed 32 bits).
    std::array<std::int32_t, 64> iparm{};

    std::int64_t nfactor = 0;     ///< elements of the factors, in full width
    std::int32_t ndependent = 0;  ///< equations found to depend on others
    std::string defect;           ///< what the check of the matrix found

    pardiso_variable();
    ~pardiso_variable();
    pardiso_variable(pardiso_variable&&) noexcept;
    pardiso_variable& operator=(pardiso_variable&&) noexcept;
};
using pardiso_variable_64 = pardiso_variable;

/// Clears `iparm` and sets it: parallel nested dissection (2) = 3, two-level factorisation (24) = 1, check of
/// the matrix (27) = 1, double precision (28) = 0, (31) = 0, (36) = 0; (5) = 1 with a user's permutation.
void pardisoinit(pardiso_variable& v, bool user_permutation);

/// Phase 12 (analysis and factors), 33 (solve) or -1 (free the factors) on the upper triangle `m`.
///
/// @param perm  with iparm(5) = 1: the equation (from 1) at each place of the elimination order.
/// @param x, y  phase 33: solutions and right-hand sides, equal in shape; they must not overlap.
///
/// The outcome is in `v.error`: 0; -1 for a matrix that is not square, upper-stored, sorted, with a stored
/// diagonal and finite, or for a wrong `perm` (`v.defect` tells); -2 for a phase without factors; or a code of
/// the solver behind. One thread at a time. Factorising takes 16 bytes an element beside the factors.
template <std::signed_integral Index>
void pardiso(pardiso_variable& v, std::int32_t phase, crs_view<Index> m, std::span<const std::int32_t> perm,
             matrix_view<const double> y, matrix_view<double> x, logger* unlog);

/// Nothing for 0, else a message to `unlog`, which may be absent.
/// @throws fatal_error  with the text of the message.
void checkpardiso(std::int32_t phase, std::int32_t error, logger* unlog);

/// Frees `pt` and clears `iparm`; the other fields get their defaults.
void reset_pardiso_variable(pardiso_variable& v);

namespace detail {

/// What makes a matrix unfit for the direct solver, with the row (from 1).
template <std::signed_integral Index>
[[nodiscard]] std::optional<std::string> direct_solver_defect(crs_view<Index> m);

/// New places (from 1) of the equations in an order with little fill: of nested dissection and minimum degree the
/// one that costs less, for matrices of some size with 32-bit indices; nested dissection for others; minimum degree
/// for graphs with more than `most_entries` entries, which are beyond METIS.
template <std::signed_integral Index>
[[nodiscard]] std::vector<std::int32_t> elimination_places(crs_view<Index> m, std::int64_t most_entries,
                                                           logger* unlog);
/// The equation (from 1) at each new place.
[[nodiscard]] std::vector<std::int32_t> order_of(std::span<const std::int32_t> places);

}  // namespace detail

}  // namespace zendar
