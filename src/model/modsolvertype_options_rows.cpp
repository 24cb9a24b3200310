#include <string>
#include <utility>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modoption_rows.hpp"
#include "modsolvertype_options_detail.hpp"

namespace zendar {

namespace {

using solver_option = option_entry<solver_type>;

constexpr std::int32_t most_iterations = 30000;

// rows of several options

/// "!maxiter value", "!miniter value": a number of iterations with an upper limit. `which`: "maximum".
solver_option iterations(std::string_view keyword, const std::string& which, std::string help,
                         std::int32_t solver_type::*member) {
    const std::string text = "Absolute " + which + " number of iterations for PCG";
    return {.usage = "!" + std::string(keyword) + " value",
            .help = std::move(help),
            .keywords = {keyword},
            .min_words = 2,
            .max_words = 2,
            .ignored = option_ignored(keyword, inttochar(solver_type{}.*member)),
            .read =
                [member, text](const option_line& line, solver_type& solver) {
                    std::int32_t value = line.int32(1);
                    if (value > most_iterations) {
                        value = most_iterations;
                        line.log().warning(text + " is limited to " + inttochar(most_iterations));
                    }
                    solver.*member = value;
                    line.log().message(text + ": " + inttochar(value));
                    return true;
                },
            .write =
                [member, keyword](const solver_type& solver) {
                    const bool other = solver.*member != solver_type{}.*member;
                    return other ? std::vector{option_text(keyword, {inttochar(solver.*member)})}
                                 : std::vector<std::string>{};
                }};
}

/// "!conveff value", "!convpart value": one effect.
solver_option one_effect(std::string_view keyword, std::string help, const std::string& taken,
                         std::int32_t solver_type::*member) {
    return {.usage = "!" + std::string(keyword) + " value",
            .help = std::move(help),
            .keywords = {keyword},
            .min_words = 2,
            .max_words = 2,
            .read =
                [member, taken](const option_line& line, solver_type& solver) {
                    solver.*member = line.effect(1);
                    line.log().message(taken + inttochar(solver.*member));
                    return true;
                },
            .write =
                [member, keyword](const solver_type& solver) {
                    return solver.*member != 0
                               ? std::vector{option_text(keyword, {inttochar(solver.*member)})}
                               : std::vector<std::string>{};
                }};
}

// rows of their own

bool read_conveffs(const option_line& line, solver_type& solver) {
    const auto effects = line.effects(1);
    if (!effects) return false;
    solver.conveffs = *effects;
    line.log().message("The convergence criteria will be computed for the following effects: " +
                       joined(solver.conveffs));
    return true;
}

std::vector<std::string> written_conveffs(const solver_type& solver) {
    if (solver.conveffs.empty()) return {};
    return {option_text("conveffs", {counted_list(solver.conveffs)})};
}

void fall_back_to_cr(const option_line& line, solver_type& solver) {
    solver.convtype = solver_type{}.convtype;
    line.log().warning("Invalid value for the option !convtype (default: cr)");
}

/// "cr" and "cd" stand alone, "ck eigmin", "cm condnumber", "cc eigmin condnumber". The type is logged after
/// the last line of the file.
bool read_convtype(const option_line& line, solver_type& solver) {
    const std::string& type = line.word(1);
    if (line.size() == 2) {
        if (type == "cr" || type == "cd")
            solver.convtype = type;
        else
            fall_back_to_cr(line, solver);
    } else if (line.size() == 3) {
        if (type == "ck") {
            solver.eigmin = line.real(2);
            solver.convtype = type;
        } else if (type == "cm") {
            solver.condnumber = line.real(2);
            solver.eigmin = detail::eigmin_of_cm;
            solver.convtype = type;
        } else {
            fall_back_to_cr(line, solver);
        }
    } else if (type == "cc") {
        const double eigmin = line.real(2), condnumber = line.real(3);
        solver.eigmin = eigmin;
        solver.condnumber = condnumber;
        solver.convtype = type;
    } else {
        line.log().warning("Invalid value for the option !convtype (default: cr)");  // and the type stays
    }
    return true;
}

std::vector<std::string> written_convtype(const solver_type& solver) {
    if (solver.convtype == solver_type{}.convtype) return {};
    const std::string eigmin = option_number(solver.eigmin), condnumber = option_number(solver.condnumber);
    if (solver.convtype == "ck") return {option_text("convtype", {"ck", eigmin})};
    if (solver.convtype == "cm") return {option_text("convtype", {"cm", condnumber})};
    if (solver.convtype == "cc") return {option_text("convtype", {"cc", eigmin, condnumber})};
    return {option_text("convtype", {solver.convtype})};
}

bool read_peek(const option_line& line, solver_type& solver) {
    const std::int32_t first = line.int32(1), step = line.int32_from(2, 1);
    solver.peek = true;
    solver.peek_first = first;
    solver.peek_step = step;
    line.log().message("Write the solutions each " + inttochar(step) + " iteration starting from the " +
                       inttochar(first) + " iteration (only for IOD).");
    return true;
}

std::vector<std::string> written_peek(const solver_type& solver) {
    if (!solver.peek) return {};
    return {option_text("peek", {inttochar(solver.peek_first), inttochar(solver.peek_step)})};
}

bool read_restart(const option_line& line, solver_type& solver) {
    solver.startsol = solver.tmpsol;
    line.log().message(" Starting values for solutions will be read from the file " + solver.startsol);
    return true;
}

std::vector<std::string> written_restart(const solver_type& solver) {
    return solver.startsol == solver.tmpsol ? std::vector{option_text("restart")}
                                            : std::vector<std::string>{};
}

bool read_startsol(const option_line& line, solver_type& solver) {
    solver.startsol = line.word(1);
    line.log().message("Starting values for solutions will be read from the file " + solver.startsol);
    return true;
}

std::vector<std::string> written_startsol(const solver_type& solver) {
    if (solver.startsol == solver_type{}.startsol || solver.startsol == solver.tmpsol) return {};
    return {option_text("startsol", {solver.startsol})};
}

bool read_scaleinvprec(const option_line& line, solver_type& solver) {
    const double value = line.real(1);
    const auto effects = line.effects(2);
    if (!effects) return false;
    if (value == 0.0) line.fail("The option !scaleinvprec: the value may not be 0!");
    solver.scaleinvprec.resize(static_cast<std::size_t>(line.neffect()), 1.0);
    for (const std::int32_t e : *effects) {
        double& scale = solver.scaleinvprec[e - 1];
        scale *= value;
        line.log().message("The inverse of the preconditioner for the effect " + inttochar(e) +
                           " will be scaled by " + realtochar(scale, "(g0.4)"));
    }
    return true;
}

std::vector<std::string> written_scaleinvprec(const solver_type& solver) {
    std::vector<std::string> lines;
    for (std::size_t e = 0; e < solver.scaleinvprec.size(); ++e)
        if (solver.scaleinvprec[e] != 1.0)
            lines.push_back(option_text("scaleinvprec", {option_number(solver.scaleinvprec[e]), "1",
                                                         inttochar(static_cast<std::int64_t>(e) + 1)}));
    // The option was given, though the factors give 1.
    if (lines.empty() && !solver.scaleinvprec.empty()) lines.emplace_back("!scaleinvprec 1.0 1 1");
    return lines;
}

bool read_solver(const option_line& line, solver_type& solver) {
    std::vector<std::string_view> arguments;
    for (std::int32_t i = 2; i < line.size(); ++i) arguments.emplace_back(line.word(i));
    setup_solver(solver, line.word(1), arguments, line.log(), line.where());
    return true;
}

std::vector<std::string> written_solver(const solver_type& solver) {
    const solver_entry* entry = find_solver(solver.solver);
    if (entry == nullptr || solver.solver == solver_type{}.solver) return {};
    std::string line = option_text("solver", {std::string(entry->name)});
    if (solver.neqblock) line += " " + inttochar((*solver.neqblock)[0]);
    if (solver.solver == code_dpcg_iod_real) line += " " + solver.deflationmat;
    if (solver.solver == code_cheb_iod)
        line += " " + option_number(solver.eigmax) + " " + option_number(solver.eigmin);
    return {line};
}

/// What stands behind the name of a solver on its line, and what the solver is.
struct solver_description {
    std::int32_t code;
    std::string_view arguments, text;
};
constexpr solver_description solver_descriptions[] = {
    {code_pardiso, "", "direct sparse solve of the in-memory left-hand side"},
    {code_fpcg_inmem, "", "in-core flexible PCG, block Jacobi"},
    {code_pcg_inmem, "", "in-core PCG"},
    {code_pcg_inmem_block, "", "in-core PCG, block Jacobi"},
    {code_dpcg_inmem, " (equations per block)", "in-core deflated PCG"},
    {code_pcg_iod, "", "PCG on data (default)"},
    {code_dpcg_iod, " (equations per block)", "deflated PCG on data, compressed subdomains"},
    {code_dpcg_iod_real, " (file of the deflation matrix)", "deflated PCG on data, real deflation vectors"},
    {code_cheb_iod, " (large and small eigenvalue)", "Chebyshev iteration on data"},
};

std::string solver_help() {
    std::string help = "Solver (name, arguments and meaning):";
    for (const solver_description& d : solver_descriptions)
        help += "\n\"" + std::string(find_solver(d.code)->name) + "\"" + std::string(d.arguments) + ": " +
                std::string(d.text);
    return help;
}

std::vector<solver_option> make_solver_options() {
    using option_rows::flag;
    using option_rows::word;
    const std::string statistics =
        "Computation of some statistics (correlation, regression, MSE,...) between previous (saved to file) "
        "and "
        "current ";
    return {
        flag({"altconv"}, {}, &solver_type::altconv),
        option_rows::real({"convcrit", "convtol"},
                          {"!convcrit value", "Threshold for convergence criteria for PCG (default: 1e-12).",
                           "Convergence threshold for PCG: "},
                          "(e16.8)", &solver_type::convcrit,
                          option_ignored("convcrit", realtochar(solver_type{}.convcrit, "(e16.8)"))),
        flag({"computegalerkin"},
             {.taken = "Only the Galerkin matrix will be computed (if IOD+DPCG is called)!"},
             &solver_type::computegalerkin),
        flag({"computefinalrhs"}, {.taken = "Final RHS will be computed as C*hat_x!"},
             &solver_type::computefinalrhs),
        one_effect("conveff",
                   "Computes convergence criteria for the effect value. This option is overloaded by the "
                   "option !conveffs when applicable.",
                   "Convergence criteria will be computed for the effect ", &solver_type::conveff),
        {.usage = "!conveffs #effects value",
         .help = "Computes convergence criteria for the #effects effects value (only applicable for "
                 "(D)PCG+IOD).",
         .keywords = {"conveffs"},
         .min_words = 3,
         .max_words = any_number_of_words,
         .read = read_conveffs,
         .write = written_conveffs},
        {.usage = "!conveq file [value]",
         .help =
             "Read the equations group IDs from file. If value is provided, mean and SD of solutions will "
             "be computed each value-th iteration (default = 50).",
         .keywords = {"conveq"}},
        one_effect("convpart", "Computes convergence criteria from the effect 1 to the effect value.",
                   "Convergence criteria will be computed for the effects until ", &solver_type::convpart),
        {.usage = "!convtype type [value]",
         .help =
             "Convergence criteria for PCG+IOD. Possible types: \"cr\", \"cd\", \"ck\", \"cm\". If type = "
             "\"ck\", value is equal to the best guess of the smallest eigenvalue of the preconditioned "
             "coefficient matrix. If type = \"cm\", value is equal to the best guess of the spectral "
             "condition number of the preconditioned coefficient matrix.",
         .keywords = {"convtype"},
         .min_words = 2,
         .max_words = 4,
         .read = read_convtype,
         .write = written_convtype},
        word({"deflationmat"},
             {"!deflationmat file",
              "If deflated PCG is used, the name of the file in this option must contain the subdomain ID of "
              "each equation.",
              ""},
             &solver_type::deflationmat),
        word({"galerkin"}, {}, &solver_type::galerkin),
        flag({"harville"}, {}, &solver_type::harville),
        word({"iterfile"},
             {"!iterfile file",
              "Maximum number of iterations for PCG will be checked from file at each iteration.",
              "Maximum number of iterations for PCG read from: "},
             &solver_type::iterfile, option_ignored("iterfile", solver_type{}.iterfile)),
        iterations(
            "maxiter", "maximum",
            "Absolute maximum number of iterations for PCG. This number is limited to 30,000 (default = "
            "5000).",
            &solver_type::maxiter),
        iterations("miniter", "minimum",
                   "Minimum number of iterations for PCG. This number is limited to 30,000 (default = 4).",
                   &solver_type::miniter),
        flag({"noesteigen", "noesteig"},
             {"!noesteigen", "No eigenvalues and condition number will be estimated from PCG.",
              "No estimation of eigenvalues and condition number!"},
             &solver_type::esteigen, false),
        {.usage = "!nwritetmpsol value",
         .help = "Solutions will be saved to binary file each value iteration.",
         .keywords = {"nwritetmpsol"},
         .min_words = 2,
         .max_words = 2,
         .read =
             [](const option_line& line, solver_type& solver) {
                 solver.nwritetmpsol = line.int32_from(1, 1);
                 line.log().message("Solutions will be saved to binary file each " +
                                    inttochar(solver.nwritetmpsol) + " iteration.");
                 return true;
             },
         .write =
             [](const solver_type& solver) {
                 const bool other = solver.nwritetmpsol != solver_type{}.nwritetmpsol;
                 return other ? std::vector{option_text("nwritetmpsol", {inttochar(solver.nwritetmpsol)})}
                              : std::vector<std::string>{};
             }},
        {.usage = "!peek value1 value2",
         .help =
             "Write the solutions each value2 iteration starting from the value1 iteration (only for IOD).",
         .keywords = {"peek"},
         .min_words = 3,
         .max_words = 3,
         .read = read_peek,
         .write = written_peek},
        flag(
            {"printlhs"},
            {"!printlhs", "Will save the LHS in a file", "Will print the LHS if an option \"inmem\" is used"},
            &solver_type::printlhs),
        flag({"eigenlhs"},
             {"!eigenlhs",
              "Will save the eigenvalues and eigenvectors of the LHS from 1e-10 to 10 and from 1e5 to 1e10, 100 "
              "at most of each.",
              "Will compute eigenvalues of the LHS if an option \"inmem\" is used"},
             &solver_type::eigenlhs),
        {.usage = "!restart",
         .help = "Read the solutions from stream file (e.g., after a crash).",
         .keywords = {"restart"},
         .read = read_restart,
         .write = written_restart},
        {.usage = "!scaleinvprec value #effects id_effect",
         .help =
             "Multiplies the elements of the inverse of the preconditioner for the effect(s) effect_id by "
             "the value value (only for IOD).",
         .keywords = {"scaleinvprec"},
         .min_words = 4,
         .max_words = any_number_of_words,
         .read = read_scaleinvprec,
         .write = written_scaleinvprec},
        {.usage = "!solver name",
         .help = solver_help(),
         .keywords = {"solver"},
         .min_words = 2,
         .max_words = 4,
         .read = read_solver,
         .write = written_solver},
        {.usage = "!startsol file",
         .help = "Read old solutions from file",
         .keywords = {"startsol"},
         .min_words = 2,
         .max_words = 2,
         .read = read_startsol,
         .write = written_startsol},
        flag({"statprevioussol"},
             {"!statprevioussol", statistics + "solutions (only for PCG_IOD).",
              statistics + "\nsolutions (if applicable)."},
             &solver_type::statprevioussol),
    };
}

}  // namespace

std::span<const solver_option> detail::solver_options() {
    static const std::vector<solver_option> rows = make_solver_options();
    return rows;
}

}  // namespace zendar
