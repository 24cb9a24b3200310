#include "modstructure.hpp"

#include <type_traits>
#include <utility>

namespace zendar {

// Records move from stage to stage, and covariables into the array of effects, without a copy of their
// arrays.
static_assert(std::is_nothrow_move_constructible_v<phenotype_data>);
static_assert(std::is_nothrow_move_constructible_v<covariable_type>);

std::int64_t covariable_data::bytes() const {
    return std::ssize(indice) * static_cast<std::int64_t>(sizeof(std::int32_t)) +
           value.rows() * value.cols() * static_cast<std::int64_t>(sizeof(double)) +
           (is_sparse() ? static_cast<std::int64_t>(sparse.getmem()) : 0) + plink.ival.size();
}

covariable_type::covariable_type(std::vector<std::int32_t> indice, matrix<double> value) {
    covariable_data read;
    read.indice = std::move(indice);
    read.value = std::move(value);
    data = std::make_shared<const covariable_data>(std::move(read));
}

}  // namespace zendar
