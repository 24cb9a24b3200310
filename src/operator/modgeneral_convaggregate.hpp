#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modstructure.hpp"

namespace zendar {

/// What `!altconv` keeps from one look at the aggregate solutions to the next.
struct convaggregate_state {
    std::int64_t offset = 0;  ///< equations whose aggregate solutions count: those before the SNP effects
    std::vector<double> previous{};  ///< neq; empty before the first look
    bool told = false;             ///< that there are no aggregate solutions
};

/// The equations before the first huge effect of random type 22; all of them without such an effect.
[[nodiscard]] std::int64_t convaggregate_offset(const param_type& param);

/// At each tenth iteration, computes the aggregate solutions and logs their convergence since the look
/// before, as the sum of squared changes over the sum of squares. A report only.
void computeconvaggregate(const param_type& param, std::int32_t iteration, std::span<const double> solutions,
                          std::span<const covariable_type> cov, convaggregate_state& state, logger& log);

}  // namespace zendar
