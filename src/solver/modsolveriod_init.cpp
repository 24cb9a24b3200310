#include "modbasic.hpp"
#include "modsolveriod.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

constexpr std::string_view module_tag = "modsolveriod";
constexpr std::string_view procedure = "init_solver_pcg_iod";

}  // namespace

void init_solver_pcg_iod(const param_type& param, modsolveriod::solver_state& state, logger& log,
                         const modsolveriod::zaaaz_diagonal& diagonal) {
    if (param.nhuge < 1) return;
    log.message("");
    log.message("Setting-up of matrices and arrays for preconditioner");
    state.diagmaaam.assign(static_cast<std::size_t>(param.nhuge), {});
    for (std::int32_t k = 0; k < param.nhuge; ++k) {
        const std::int32_t e = param.neffect - param.nhuge + 1 + k;
        const std::int32_t code = param.type_random_eff[e - 1];
        switch (code) {
            case 0:
            case 1:
            case 3:
            case 5:
            case 7:
            case 9:
            case 10:
            case 20:
            case 23:
            case 30:
                break;
            case 22: {
                if (!diagonal) fatal(log, "Not implemented yet", module_tag, procedure);
                const wtime clock;
                state.diagmaaam[k] = diagonal(e);
                if (!state.diagmaaam[k].empty())
                    log.message("     Wall clock time (s) for computing zaaaz  (" +
                                inttochar(std::ssize(state.diagmaaam[k])) +
                                ") :" + realtochar(clock.seconds(), "(f0.3)"));
                break;
            }
            default:
                fatal(log, "This type of effect " + inttochar(code) + " is not implemented", module_tag,
                      procedure);
        }
    }
}

void destroy_solver_iod(modsolveriod::solver_state& state) {
    state = {};
}

}  // namespace zendar
