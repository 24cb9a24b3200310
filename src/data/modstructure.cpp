#include "modstructure.hpp"

#include <type_traits>

namespace zendar {

// Records move from stage to stage, and covariables into the array of effects, without a copy of their
// arrays.
static_assert(std::is_nothrow_move_constructible_v<phenotype_data>);
static_assert(std::is_nothrow_move_constructible_v<covariable_type>);

}  // namespace zendar
