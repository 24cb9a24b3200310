#pragma once

#include <memory>
#include <string>

#include "modsolver.hpp"
#include "modsolveriod_detail.hpp"
#include "modsolveriod_dpcg_comp_detail.hpp"

/// What the solvers in memory share; private to them.
namespace zendar::detail {

/// What makes one of them. Null where it has none.
struct inmem_method {
    std::string title, file;
    direction_rule& direction;
    compressed_projector* deflation = nullptr;
};

/// Checks the range and tells it.
void announce_range(const inmem_arguments& in, std::int64_t neq);

/// The diagonal, or the blocks of effects.
template <std::signed_integral Index>
[[nodiscard]] std::unique_ptr<linear_preconditioner> choose_mija(const crs_matrix<Index>& c,
                                                                 std::span<const std::int64_t> first,
                                                                 const inmem_arguments& in);

/// From the starting values to the solutions.
/// @param empty  equations whose solution is 0.
solver_result iterate_inmem(const inmem_method& method, linear_system& system,
                            linear_preconditioner& preconditioner, std::span<const std::int32_t> empty,
                            const inmem_arguments& in);

}  // namespace zendar::detail
