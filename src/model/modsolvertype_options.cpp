#include "modbasic.hpp"
#include "modenum.hpp"
#include "modsolvertype_options_detail.hpp"

namespace zendar {

namespace {

/// The criteria CK, CM and CC bound an error; a threshold below this is meant for CR or CD.
constexpr auto least_threshold_of_bounds = static_cast<double>(1e-5f);
constexpr double threshold_of_bounds = 0.5;

/// Puts back what the chosen solver and criterion do not read, so that the record depends on the last choice
/// only, and not on lines that it overrides.
void drop_unused_values(solver_type& solver) {
    const bool chebyshev = solver.solver == code_cheb_iod;
    const bool deflated = solver.solver == code_dpcg_inmem || solver.solver == code_dpcg_iod;
    const solver_type defaults;
    if (!deflated) solver.neqblock.reset();
    if (!chebyshev) solver.eigmax = defaults.eigmax;
    if (solver.convtype != "cm" && solver.convtype != "cc") solver.condnumber = defaults.condnumber;
    if (chebyshev || solver.convtype == "ck" || solver.convtype == "cc") return;
    solver.eigmin = solver.convtype == "cm" ? detail::eigmin_of_cm : defaults.eigmin;
}

}  // namespace

bool solver_takes_option(std::string_view keyword) {
    return find_option(detail::solver_options(), keyword) != nullptr;
}

void read_parameter_file_options_solver(solver_type& solver, const std::string& file, std::int32_t neffect,
                                        logger& log) {
    read_options<solver_type>(detail::solver_options(), read_option_lines(file, neffect, log), solver);
    drop_unused_values(solver);

    const bool ck = solver.convtype == "ck", cm = solver.convtype == "cm", cc = solver.convtype == "cc";
    log.message("Convergence criteria for PCG: " + solver.convtype);
    if (ck || cc)
        log.message("Current approximated smallest eigenvalue : " + realtochar(solver.eigmin, "(e16.8)"));
    if (cm || cc) {
        log.message("Current approximated condition number    : " + realtochar(solver.condnumber, "(e16.8)"));
        solver.esteigen = true;  // these criteria need the estimates
    }
    if ((ck || cm || cc) && solver.convcrit < least_threshold_of_bounds) {
        solver.convcrit = threshold_of_bounds;
        log.warning(
            "Due to the use of CK/CM/CC as convergence criterion, convergence threshold for PCG was set "
            "to: " +
            realtochar(solver.convcrit, "(e16.8)"));
    }
    log.message("+++++++ End of options for the solver +++++++");
    log.message("");
}

void man_solver(bool markdown, logger& log) {
    constexpr manual_frame frame{
        .begin = "+++++ MANUAL: options for the solver available through the parameter file +++++",
        .end = "+++++ End of manual for solver +++++",
        .heading = "### Options for the solver available through the parameter file"};
    print_manual(frame, detail::solver_options(), markdown, log);
}

}  // namespace zendar
