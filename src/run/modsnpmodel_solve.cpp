#include <algorithm>

#include "modenum.hpp"
#include "modsnpmodel.hpp"
#include "modstats.hpp"

namespace zendar {

void solve(run_state& run) {
    logger& log = run.log;
    cputime clock(log, "START: solving the MME");
    std::ranges::fill(run.solutions, 0.0);

    const std::int32_t code = run.param.solver.solver;
    if (const solver_entry* solver = find_solver(code); solver != nullptr) {
        log.message(solver->log_text);
        const std::string& startsol = run.param.solver.startsol;
        if (code != solver_pardiso && startsol != "none")
            initvectorfromfile_real8(run.param, run.solutions, startsol, log);
    }
    fatal(log, "The requested type of solver is not implemented", "modsnpmodel", "solve");
}

}  // namespace zendar
