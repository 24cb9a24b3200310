#pragma once

#include <cstdint>

#include "modstructure.hpp"

namespace zendar {

/// Rows and coefficients of a matrix Z of coefficients, in whichever store it stands.
[[nodiscard]] std::int64_t coefficient_rows(const covariable_type& cov);
[[nodiscard]] std::int64_t coefficient_columns(const covariable_type& cov);

/// c = Z b ('n': b has a row for each coefficient) or c = Z' b ('t': b has a row for each row of Z); c is
/// overwritten. Z are the coefficients as they stand in their file, or centred genotypes. A missing genotype
/// is the mean, except in the compressed store, where it counted as 0 before the centring.
void multiply_coefficients(const covariable_type& cov, char trans, matrix_view<const double> b,
                           matrix_view<double> c, logger& log);

/// columns = the coefficients first, first + 1, ... (from 0) of all rows, one to a column, with the values
/// that the products use.
void expand_coefficients(const covariable_type& cov, std::int64_t first, matrix_view<double> columns);

}  // namespace zendar
