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
    run.log.message("Wall clock time (s) to save phen to stream file: " +
                    realtochar(clock.seconds(), "(f0.3)"));
}

/// What the solvers on data iterate with.
void setup_iod(run_state& run) {
    phenotypes_to_stream(run);
    run.lhs_iod = std::make_unique<mme_iod>(run.param, run.data, run.cov, run.log, run.ped, run.ghuge);
    run.lhs_iod->setup_lhsrhs_iod(run.options.loptimem);
    init_solver_pcg_iod(run.param, run.solver_iod, run.log, [&run](std::int32_t e) {
        return run.param.precondzaaaz ? run.lhs_iod->diagonal_of_snps(e) : std::vector<double>();
    });
    if (run.mija_global != nullptr) {
        run.log.message("Global preconditioner already allocated");
        return;
    }
    const wtime clock;
    run.mija_global = std::make_unique<preconditioner>(
        modpreconditioneriod::create_mija_lhs(*run.lhs_iod, run.log, run.solver_iod.diagmaaam));
    clock.end(run.log, "Setup of the preconditioner");
}

/// What the solvers in memory work on.
void setup_inmem(run_state& run) {
    lhs_inmem lhs = setup_lhsrhs({run.param, run.data, run.cov, run.ped, run.ghuge}, run.limits, run.log);
    run.lhsija = std::move(lhs.lhsija);
    run.lhsija64 = std::move(lhs.lhsija64);
    run.rhs = std::move(lhs.rhs);
    if (!needs_data(run)) deallocdata(run);
    if (run.param.solver.eigenlhs) eigenlhs(run);
}

}  // namespace

bool needs_data(const run_state& run) {
    return run.param.lpec || !run.param.phendev.empty() || !run.param.yhat.empty();
}

void setlhsrhs(run_state& run) {
    logger& log = run.log;
    const param_type& param = run.param;
    cputime clock(log, "START: creating LHS and RHS");
    const std::int64_t bytes = std::int64_t{param.neq} * static_cast<std::int64_t>(sizeof(double));
    log.message("Memory (MB) needed for solutions: " + realtochar(mib(bytes), "(f0.2)"));
    run.solutions.assign(static_cast<std::size_t>(param.neq), 0.0);

    check_ktamatrix(param, log);
    const std::int32_t code = param.solver.solver;
    if (is_inmemory_solver(code) &&
        std::ranges::any_of(run.cov, [](const covariable_type& cov) { return cov.compressed != nullptr; }))
        fatal(log, "Compressed covariables are not allowed for in-memory options", "modsnpmodel",
              "setlhsrhs");
    if (is_inmemory_solver(code))
        setup_inmem(run);
    else if (has_solver(code))
        setup_iod(run);
    else
        fatal(log, "The requested type of solver is not implemented", "modsnpmodel", "setlhsrhs");
    clock.end("END: creating LHS and RHS in memory");
}

}  // namespace zendar
