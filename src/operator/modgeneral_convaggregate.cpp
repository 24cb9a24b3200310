#include "modgeneral_convaggregate.hpp"

#include <algorithm>

#include "modbasic.hpp"
#include "modgeneral.hpp"

namespace zendar {

std::int64_t convaggregate_offset(const param_type& param) {
    std::int32_t e = param.neffect - param.nhuge + 1;
    while (e <= param.neffect && param.type_random_eff[e - 1] != 22) ++e;
    return param.ntrait * param.sumlevel[e];
}

void computeconvaggregate(const param_type& param, std::int32_t iteration, std::span<const double> solutions,
                          std::span<const covariable_type> cov, convaggregate_state& state, logger& log) {
    if (iteration % 10 != 0) return;
    std::vector<double> aggregate;
    computeaggregatesolutions(param, solutions, cov, aggregate, log);
    if (aggregate.empty()) {
        if (!state.told) log.warning("There are no aggregate solutions whose convergence could be computed!");
        state.told = true;
        return;
    }
    if (!state.previous.empty()) {
        double change = 0.0, size = 0.0;
        for (std::int64_t i = 0; i < std::min(state.offset, std::ssize(aggregate)); ++i) {
            const double d = aggregate[i] - state.previous[i];
            change += d * d;
            size += aggregate[i] * aggregate[i];
        }
        log.message("Iteration " + inttochar(iteration) +
                    " Convergence of aggregate solutions = " + realtochar(change / size, "(e10.4)"));
    }
    state.previous = std::move(aggregate);
}

}  // namespace zendar
