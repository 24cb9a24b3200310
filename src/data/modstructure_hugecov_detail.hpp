#pragma once

#include <cstdint>
#include <string>

#include "modparameters.hpp"
#include "modsparse_crs.hpp"

/// What the sources of the covariances of huge effects share; nobody else includes this.
namespace zendar::detail {

inline constexpr const char* hugecov_module = "modstructure";

/// The effects after e in its group.
std::int32_t hugecov_followers(const param_type& param, std::int32_t e);

/// tau / alpha of the inverse covariances, which is logged; alpha is left out with `!no_beta_snp`.
double hugecov_scale(const param_type& param, std::int32_t e, const char* procedure, logger& log);

/// Logs the memory of a matrix that is done and writes `invcov_<e>.inv` with `suffix` behind it.
void report_hugecov(const crssparse& ginv, std::int32_t e, logger& log);
void write_hugecov(const crssparse& ginv, const param_type& param, std::int32_t e, const std::string& suffix,
                   const char* procedure, logger& log);

}  // namespace zendar::detail
