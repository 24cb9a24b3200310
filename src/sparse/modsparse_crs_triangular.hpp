#pragma once

#include <concepts>
#include <cstdint>
#include <span>

#include "modsparse_view.hpp"

/// Solves with an upper triangular factor U in sorted rows with a stored diagonal. In place, serial; x holds
/// the right-hand side first.
namespace zendar {

/// U'U x = y: first with U', then with U.
template <std::signed_integral Index>
void solve_with_upper(crs_view<Index> u, std::span<double> x);

/// U'DU x = y for a unit U, in the place of whose diagonal D is stored. Where D is 0, x becomes that of a
/// dropped equation: 0 before the last step.
template <std::signed_integral Index>
void solve_with_unit_upper(crs_view<Index> u, std::span<double> x);

/// The same for right-hand sides that lie side by side, so that U is read once for all of them: x is equation
/// by column, columns fastest. Each has the bits of a solve of its own.
/// @param columns  1, 2, 4 or 8
template <std::signed_integral Index>
void solve_with_unit_upper(crs_view<Index> u, std::span<double> x, std::int64_t columns);

}  // namespace zendar
