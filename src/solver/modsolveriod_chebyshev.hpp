#pragma once

#include <span>

#include "modlinear.hpp"
#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modsolveriod.hpp"

namespace zendar {

/// Solves C x = b by the Chebyshev semi-iteration for eigenvalues of M^-1 C between `param.solver.eigmin` and
/// `eigmax`; no scalar product enters a step. With right bounds the error after k updates is at most
/// 1 / T_k((eigmax + eigmin) / (eigmax - eigmin)) of the first one in the norm of C, T_k being the Chebyshev
/// polynomial; with an `eigmax` that is too small the iteration diverges.
/// Saad (2003), Iterative methods for sparse linear systems, chapter 12.
///
/// Ends when r'r is at most `convcrit` b'b or no longer finite. The residual is that of x in each iteration.
/// Needs three vectors beside x and b, and moves 10 * 8 * neq bytes an iteration besides the product and the
/// preconditioner.
///
/// Writes "convergence_cheb.dat" in the output directory, with CR, CD, the bound CK of the relative error by
/// `eigmin`, and the largest change of a solution behind the iteration; and the temporary solutions, with
/// their statistics, as the other solvers.
///
/// @param x  neq: starting values in, solutions out.
/// @param b  neq: the right-hand side, out.
/// @throws fatal_error  for bounds that are none, before anything is computed, a limit of 0 in the iteration
///                      file, files that fail.
solver_result solver_chebyshev_iod(const param_type& param, linear_system& system,
                                   linear_preconditioner& preconditioner, std::span<double> x,
                                   std::span<double> b, logger& log);

}  // namespace zendar
