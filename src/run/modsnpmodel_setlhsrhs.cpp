#include <algorithm>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modsnpmodel.hpp"
#include "modstats.hpp"

namespace zendar {
namespace {

/// Phenotypes wait in a stream file while the iteration runs, so that they take no memory.
void phenotypes_to_stream(run_state& run) {
    const wtime clock;
    write_raw_stream(run.data.phen.values(), "phentmp.stream", run.log);
    run.data.phen = {};
    run.log.message("Wall clock time (s) to save phen to stream file: " + realtochar(clock.seconds(), "(f0.3)"));
}

}  // namespace

void setlhsrhs(run_state& run) {
    logger& log = run.log;
    const param_type& param = run.param;
    cputime clock(log, "START: creating LHS and RHS");
    const std::int64_t bytes = std::int64_t{param.neq} * static_cast<std::int64_t>(sizeof(double));
    log.message("Memory (MB) needed for solutions: " + realtochar(mib(bytes), "(f0.2)"));
    run.solutions.assign(static_cast<std::size_t>(param.neq), 0.0);

    const std::int32_t code = param.solver.solver;
    if (is_inmemory_solver(code) && std::ranges::any_of(run.cov, &covariable_type::compressed))
        fatal(log, "Compressed covariables are not allowed for in-memory options", "modsnpmodel", "setlhsrhs");
    if (is_iod_solver(code)) phenotypes_to_stream(run);
    fatal(log, "The requested type of solver is not implemented", "modsnpmodel", "setlhsrhs");
}

}  // namespace zendar
