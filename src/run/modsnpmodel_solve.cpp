#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

#include "modenum.hpp"
#include "modgeneral.hpp"
#include "modsnpmodel.hpp"
#include "modsolver.hpp"
#include "modsolveriod_chebyshev.hpp"
#include "modsolveriod_dpcg_comp.hpp"
#include "modsolveriod_dpcg_real.hpp"
#include "modstats.hpp"

namespace zendar {
namespace {

void keep(run_state& run, solver_result result) {
    run.finite = result.finite;
    run.graph = std::move(result.graph);
}

void solve_pcg_iod(run_state& run) {
    const std::vector<equation_range> groups = convergence_groups(run.param, run.log);
    keep(run,
         solver_pcg_iod(run.param, *run.lhs_iod, *run.mija_global, run.solutions, groups, run.cov, run.log));
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
    keep(run, solver_dpcg_iod_comp(run.param, *run.lhs_iod, structured, *run.mija_global, z, run.solutions,
                                   groups, run.cov, run.log));
}

void solve_dpcg_iod_real(run_state& run) {
    const solver_type& solver = run.param.solver;
    matrix<double> z;
    initvectorfromfile_array_real8(run.param, z, solver.deflationmat, run.log);
    if (solver.computegalerkin) fatal(run.log, "Not implemented yet", "modsnpmodel", "solve");
    if (solver.convpart != 0) fatal(run.log, "not implemented yet 2", "modsnpmodel", "solve");
    const std::vector<equation_range> groups = convergence_groups(run.param, run.log);
    keep(run, solver_dpcg_iod_real(run.param, *run.lhs_iod, *run.mija_global, z, run.solutions, groups,
                                   run.cov, run.log));
}

void solve_cheb_iod(run_state& run) {
    run.rhs.assign(run.solutions.size(), 0.0);
    keep(run,
         solver_chebyshev_iod(run.param, *run.lhs_iod, *run.mija_global, run.solutions, run.rhs, run.log));
}

// ---- in memory -------------------------------------------------------------------------------------------

/// Calls `solver` with the left-hand side that has elements. What is not needed later is freed: always the
/// factors, and the matrix unless reliabilities or its print follow.
template <class Solver>
void with_lhs(run_state& run, const Solver& solver) {
    if (run.lhsija.totalnumberofelements() > 0)
        solver(run.lhsija);
    else
        solver(run.lhsija64);
    run.lhsija.reset_pardiso_memory();
    run.lhsija64.reset_pardiso_memory();
    if (run.param.lpec || run.param.solver.printlhs) return;
    run.lhsija.destroy();
    run.lhsija64.destroy();
}

inmem_arguments arguments_of(run_state& run) {
    const std::vector<equation_range> groups = convergence_groups(run.param, run.log);
    return {.param = run.param,
            .b = run.rhs,
            .x = run.solutions,
            .range = groups.empty() ? std::nullopt : std::optional(groups.front()),
            .cov = run.cov,
            .log = run.log};
}

/// First equation of each effect, and the number of equations plus 1. Effects may share those of another.
std::vector<std::int64_t> first_equations(const param_type& param) {
    std::vector<std::int64_t> first;
    for (std::int32_t e = 1; e <= param.neffect; ++e) first.push_back(param.ntrait * param.sumlevel[e] + 1);
    first.push_back(std::int64_t{param.neq} + 1);
    std::ranges::sort(first);
    return first;
}

void solve_pardiso(run_state& run) {
    with_lhs(run, [&run](auto& lhs) {
        lhs.solve(run.solutions, run.rhs);
        for (const std::int32_t eq : empty_equations(lhs.view())) run.solutions[eq - 1] = 0.0;
    });
    run.finite = std::ranges::all_of(run.solutions, [](double value) { return std::isfinite(value); });
    if (!run.finite) run.log.warning("The direct solver ended on a value that is not finite");
}

void solve_fpcg_inmem(run_state& run) {
    with_lhs(run, [&run](const auto& lhs) {
        keep(run, solver_fpcg_inmem(lhs, first_equations(run.param), arguments_of(run)));
    });
}

void solve_pcg_inmem(run_state& run) {
    with_lhs(run, [&run](const auto& lhs) { keep(run, solver_pcg_inmem(lhs, {}, arguments_of(run))); });
}

void solve_pcg_inmem_block(run_state& run) {
    with_lhs(run, [&run](const auto& lhs) {
        keep(run, solver_pcg_inmem(lhs, first_equations(run.param), arguments_of(run)));
    });
}

void solve_dpcg_inmem(run_state& run) {
    const subdomains z = deflationmatrix(run.param, run.log);
    writeoutput_int4(run.param, z.of, "deflationmatrix.dat", run.log);
    with_lhs(run, [&](const auto& lhs) { keep(run, solver_dpcg_inmem(lhs, z, arguments_of(run))); });
}

/// One row per solver that is there.
struct solver_branch {
    std::int32_t code;
    void (*run)(run_state&);
};
constexpr std::array<solver_branch, 9> branches{{{code_pardiso, solve_pardiso},
                                                 {code_fpcg_inmem, solve_fpcg_inmem},
                                                 {code_pcg_inmem, solve_pcg_inmem},
                                                 {code_pcg_inmem_block, solve_pcg_inmem_block},
                                                 {code_dpcg_inmem, solve_dpcg_inmem},
                                                 {code_pcg_iod, solve_pcg_iod},
                                                 {code_dpcg_iod, solve_dpcg_iod},
                                                 {code_dpcg_iod_real, solve_dpcg_iod_real},
                                                 {code_cheb_iod, solve_cheb_iod}}};

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
    solve_snpeffects_ta(run);
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
