#include <algorithm>
#include <array>

#include "modenum.hpp"
#include "modgeneral.hpp"
#include "modsnpmodel.hpp"
#include "modsolveriod_dpcg_comp.hpp"
#include "modstats.hpp"

namespace zendar {
namespace {

void solve_pcg_iod(run_state& run) {
    const std::vector<equation_range> groups = convergence_groups(run.param, run.log);
    run.finite =
        solver_pcg_iod(run.param, *run.lhs_iod, *run.mija_global, run.solutions, groups, run.cov, run.log)
            .finite;
}

void solve_dpcg_iod(run_state& run) {
    subdomains z = deflationmatrix(run.param, run.log);
    writeoutput_neq_int4(run.param, z.of, "deflationmatrix.dat", run.log);
    structured_operator* const structured = run.param.nhuge > 0 ? run.lhs_iod.get() : nullptr;
    if (run.param.solver.computegalerkin) {
        computegalerkin(run.param, *run.lhs_iod, structured, z, run.log);
        run.quiet_end = true;
        return;
    }
    const std::vector<equation_range> groups = convergence_groups(run.param, run.log);
    run.finite = solver_dpcg_iod_comp(run.param, *run.lhs_iod, structured, *run.mija_global, z, run.solutions,
                                      groups, run.cov, run.log)
                     .finite;
}

/// One row per solver that is there.
struct solver_branch {
    std::int32_t code;
    void (*run)(run_state&);
};
constexpr std::array<solver_branch, 2> branches{
    {{code_pcg_iod, solve_pcg_iod}, {code_dpcg_iod, solve_dpcg_iod}}};

const solver_branch* find_branch(std::int32_t code) {
    const auto found = std::ranges::find(branches, code, &solver_branch::code);
    return found == branches.end() ? nullptr : &*found;
}

}  // namespace

bool has_solver(std::int32_t code) {
    return find_branch(code) != nullptr;
}

void solve(run_state& run) {
    logger& log = run.log;
    cputime clock(log, "START: solving the MME");
    std::ranges::fill(run.solutions, 0.0);

    const std::int32_t code = run.param.solver.solver;
    if (const solver_entry* solver = find_solver(code); solver != nullptr) {
        log.message(solver->log_text);
        const std::string& startsol = run.param.solver.startsol;
        if (code != code_pardiso && startsol != "none")
            initvectorfromfile_real8(run.param, run.solutions, startsol, log);
    }
    const solver_branch* branch = find_branch(code);
    if (branch == nullptr)
        fatal(log, "The requested type of solver is not implemented", "modsnpmodel", "solve");
    branch->run(run);
    if (run.quiet_end) return;
    if (is_iod_solver(code)) {
        run.mija_global.reset();
        destroy_solver_iod(run.solver_iod);
    }
    if (!needs_data(run)) {
        deallocdata(run);
        if (run.lhs_iod != nullptr) run.lhs_iod->clean_lhs_iod();
    }
    clock.end("END: solving the MME");
}

}  // namespace zendar
