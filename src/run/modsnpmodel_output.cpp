#include "modenum.hpp"
#include "modgeneral_plot.hpp"
#include "modphenanalysis.hpp"
#include "modsnpmodel.hpp"
#include "modstats.hpp"

namespace zendar {

void initoutput(run_state& run) {
    cputime clock(run.log, "START: initiating output");
    computeaggregatesolutions(run.param, run.solutions, run.cov, run.aggregatesolutions, run.log);
    clock.end("END: initiating output");
}

namespace {

/// "deviations.dat" and "yhat.dat", where they are asked for. The phenotypes that a solver on data left on
/// disk are in memory from then on.
void write_estimates(run_state& run) {
    const param_type& param = run.param;
    const estimate_input in{param, run.data.effect.view(), run.cov, run.solutions};
    matrix<double> estimates;
    if (!param.phendev.empty()) {
        compute_phendeviations(estimates, param.phendev, in, run.data.phen, run.options.rmissing, run.log);
        write_records(estimates.view(), "deviations.dat", run.log);
        estimates = {};
    }
    if (!param.yhat.empty()) {
        compute_yhat(estimates, param.yhat, in, run.log);
        write_records(estimates.view(), "yhat.dat", run.log);
    }
}

}  // namespace

void output(run_state& run) {
    logger& log = run.log;
    const param_type& param = run.param;
    const bool laggregate = !run.aggregatesolutions.empty();
    cputime clock(log, "START: writing output");

    // A later restart must not begin with values that are not finite.
    if (run.finite) write_raw_stream(run.solutions, param.solver.tmpsol, log);
    if (param.lquorlen) {
        writeoutput_real8(param, laggregate ? run.aggregatesolutions : run.solutions, "solutions_quorlen.dat",
                          log);
    } else {
        writeoutput_real8(param, run.solutions, "solutions.dat", log);
        if (laggregate) writeoutput_real8(param, run.aggregatesolutions, "aggregate_solutions.dat", log);
    }
    if (param.solstream) {
        writeoutputstream_real8(param, run.solutions, "solutions.stream", log);
        if (laggregate)
            writeoutputstream_real8(param, run.aggregatesolutions, "aggregate_solutions.stream", log);
    }
    if (param.plotsolutions)
        plot_solutions(param, param.lquorlen && laggregate ? run.aggregatesolutions : run.solutions, log);
    // The solvers on data keep no right-hand side here, except the Chebyshev iteration.
    const std::int32_t code = param.solver.solver;
    if (code != code_pcg_iod && code != code_dpcg_iod && code != code_dpcg_iod_real)
        writeoutput_real8(param, run.rhs, "rhs.dat", log);
    write_estimates(run);
    write_lhs(run);
    clock.end("END: writing output");
}

}  // namespace zendar
