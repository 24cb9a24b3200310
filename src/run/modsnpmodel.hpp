#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modgeneral.hpp"
#include "modlogger.hpp"
#include "modmme.hpp"
#include "modmmeiod.hpp"
#include "modparameters.hpp"
#include "modpreconditioneriod.hpp"
#include "modsolveriod.hpp"
#include "modstructure.hpp"

/// The run state and the stages that the driver calls in turn.
namespace zendar {

class file_writer;

/// Everything that one run owns. Stages take it by reference; what lies below takes the parts it needs.
struct run_state {
    logger log;
    param_type param;
    run_options options;
    phenotype_data data;
    std::vector<covariable_type> cov;  ///< one per effect, empty without covariables
    pedigree_list ped;                 ///< one per effect, null without pedigree
    std::vector<std::unique_ptr<crssparse>>
        ghuge;               ///< one per effect, null except for those that open a group
    bool quiet_end = false;  ///< the run was asked for something that is there before any result
    std::vector<double> rhs;
    std::vector<double> solutions;
    std::vector<double> aggregatesolutions;
    lhs_limits limits;            ///< of the assembly in memory
    crssparse lhsija;             ///< left-hand side in memory: sorted upper triangle
    crssparse64 lhsija64;         ///< the same with indices of 64 bits; at most one of them has rows
    bool lhs_is_inverse = false;  ///< `lhsija` has become its own inverse, on the pattern of the factor
    std::vector<double> pev;      ///< prediction error variance of each equation
    matrix<double> snpeffects, varhatsnp, pvalues;  ///< of `!pvalue`: SNPs x (effect, trait)
    std::unique_ptr<mme_iod> lhs_iod;               ///< the operator of the solvers on data
    std::unique_ptr<preconditioner> mija_global;
    modsolveriod::solver_state solver_iod;
    bool finite = true;  ///< false: the solver ended on solutions that may replace no earlier ones
    gnuplot_run graph;   ///< of the convergence, drawn beside what follows the solver
};

/// Optional arguments of `initparfile`.
struct run_mode {
    bool lpec = false;     ///< reliabilities without solutions
    bool lebvpev = false;  ///< solutions and reliabilities
    std::string relparam = "none";
    std::int32_t ncpus = 0;  ///< threads that were asked for; 0: none were
};

void initparfile(run_state& run, const std::string& parfile, const run_mode& mode);
void readdata_ascii(run_state& run);
void setlhsrhs(run_state& run);
void solve(run_state& run);
void initoutput(run_state& run);
void output(run_state& run);
void pec(run_state& run);
void outputpevpec(run_state& run);
/// Under `!printlhs`: the left-hand side, or its inverse, to "lhsija.dat" and ".stream" ("lhsija_inv" for the
/// inverse), as lines "row column value" of the stored triangle and as `save` writes it.
void write_lhs(run_state& run);
/// The smallest and the largest eigenvalues of the left-hand side in memory and their vectors to files.
void eigenlhs(run_state& run);
/// Stops at a `!ktamatrix` that cannot be used: its effect needs a Ta or its genotypes and a pedigree, and the
/// file must be there.
void check_ktamatrix(const param_type& param, logger& log);
/// The SNP effects of `!ktamatrix`, from the solutions, to "snpeffects_ta.dat".
void solve_snpeffects_ta(run_state& run);
/// True when steps behind the solver need the data.
[[nodiscard]] bool needs_data(const run_state& run);
void deallocdata(run_state& run);
void resetmemory(run_state& run);

/// True for the codes that `solve` has a branch for.
[[nodiscard]] bool has_solver(std::int32_t code);

/// The manual of the instruction file's options, through the logger.
void man(bool markdown, logger& log);

namespace modsnpmodel {
/// The three readers of `!` lines, one after the other, and the warning of keywords that none of them takes.
void read_parameter_file_options(param_type& param, run_options& options, const std::string& file,
                                 logger& log);
/// As `zendar::write_parameter_file_options`, with the options of the run behind.
void write_parameter_file_options(const param_type& param, const run_options& options, file_writer& out);
}  // namespace modsnpmodel

}  // namespace zendar
