#include <algorithm>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modmatop_feast.hpp"
#include "modpevpec.hpp"
#include "modsnpmodel.hpp"
#include "modstats.hpp"
#include "modstructure_product.hpp"

namespace zendar {
namespace {

void stop_in_pec(run_state& run, const std::string& message) {
    fatal(run.log, message, "modsnpmodel", "pec");
}

void check_lhs(run_state& run, const char* procedure) {
    if (run.lhsija.getdim(1) < 1)
        fatal(run.log, "The LHS is not set (most likely reason: too many non-zero elements)", "modsnpmodel",
              procedure);
}

/// Whether the P-values of `!pvalue` can be had: without a solver there are no solutions to test.
bool computes_pvalues(run_state& run) {
    if (run.param.pvalue.empty()) return false;
    if (run.param.relparam == param_type{}.relparam) return true;
    run.log.warning("P-values need solutions: the option !pvalue is ignored without --ebvpev", "modsnpmodel",
                    "pec");
    return false;
}

/// The left-hand side gets places for all that is read from its inverse.
void add_positions(run_state& run, const std::string& method, bool lpvalue) {
    std::vector<position_block> blocks = corrected_positions(run.param, run.cov, run.log);
    if (lpvalue)
        for (position_block& block : pvalue_positions(run.param, run.log)) blocks.push_back(std::move(block));
    if (blocks.empty()) return;
    if (method == "Harville")
        stop_in_pec(run, lpvalue
                             ? "P-values need the inverse of the LHS, which the method Harville does not give"
                             : "The PEV of SNP effect + animal effect need the inverse of the LHS, which the "
                               "method Harville does not give");
    if (method != "SPAINV") return;
    const std::int64_t before = run.lhsija.totalnumberofelements();
    run.lhsija = with_positions(run.lhsija, blocks);
    run.log.message("Number of elements added to the LHS for the PEC: " +
                    inttochar(run.lhsija.totalnumberofelements() - before));
}

/// The columns of one effect after the other.
void compute_pvalue(run_state& run) {
    logger& log = run.log;
    const param_type& param = run.param;
    const auto ncol = std::ssize(param.pvalue) * param.ntrait;
    std::int64_t column = 0;
    for (const pvalue_option& option : param.pvalue) {
        const snp_model_input input = read_snp_model(param, option, log);
        const std::int64_t nsnp = coefficient_columns(input.genotypes);
        if (column == 0) run.snpeffects = run.varhatsnp = run.pvalues = matrix<double>(nsnp, ncol);
        if (nsnp != run.snpeffects.rows())
            fatal(log,
                  "The genotypes " + option.genotypefile + " of effect " + inttochar(option.effect) +
                      " have " + inttochar(nsnp) + " SNPs, but those of effect " +
                      inttochar(param.pvalue.front().effect) + " have " + inttochar(run.snpeffects.rows()),
                  "modsnpmodel", "compute_pvalue");
        const auto own = [&](matrix<double>& all) -> matrix_view<double> {
            return {all.data() + column * nsnp, nsnp, param.ntrait, nsnp};
        };
        get_pvalue(param, input, run.solutions, run.lhsija, own(run.snpeffects), own(run.varhatsnp),
                   own(run.pvalues), log);
        column += param.ntrait;
    }
}

void write_pvalues(run_state& run) {
    std::vector<std::int32_t> effects;
    for (const pvalue_option& option : run.param.pvalue) effects.push_back(option.effect);
    const auto write = [&](const char* text, const matrix<double>& values, const char* file) {
        run.log.message(text);
        write_snp_values(run.param.ntrait, effects, values.view(), file, run.log);
    };
    write("Write SNP effects", run.snpeffects, "snpeffects_gi.dat");
    write("Write Var(hat(SNP effects))", run.varhatsnp, "varhatsnpeffects_gi.dat");
    write("Write p-values of SNP effects", run.pvalues, "pvalues_gi.dat");
}

}  // namespace

void pec(run_state& run) {
    logger& log = run.log;
    const param_type& param = run.param;
    cputime clock(log, "START: Computation of PEV (PEC)");
    if (const std::int32_t code = param.solver.solver; code >= 100)
        stop_in_pec(run, "PEV (PEC) for this type of solver " + inttochar(code) + " is not implemented");
    check_lhs(run, "pec");
    const std::string method = pec_method(param);
    const bool lpvalue = computes_pvalues(run);
    run.lhsija.setoutputunit(&log);
    add_positions(run, method, lpvalue);
    get_pec_inverse(method, run.lhsija, run.pev, log);
    run.lhs_is_inverse = method == "SPAINV";
    if (run.lhs_is_inverse) computecorrectedpev(param, run.cov, run.lhsija, run.pev, log);
    clock.end("END: Computation of PEV (PEC)");
    if (!lpvalue) return;

    cputime pvalue_clock(log, "START: Computation of P-values");
    compute_pvalue(run);
    write_pvalues(run);
    pvalue_clock.end("END: Computation of P-values");
}

void outputpevpec(run_state& run) {
    cputime clock(run.log, "START: writing output for PEV/PEC");
    if (!run.pev.empty()) writeoutput_real8(run.param, run.pev, "aggregate_pev.dat", run.log);
    write_lhs(run);
    clock.end("END: writing output for PEV/PEC");
}

void write_lhs(run_state& run) {
    if (!run.param.solver.printlhs) return;
    const auto write = [&run](auto& lhs) {
        if (lhs.getdim(1) < 1) return;
        const std::string name = run.lhs_is_inverse ? "lhsija_inv" : "lhsija";
        run.log.message("Saves LHS in files lhsija.*");
        lhs.setoutputunit(&run.log);
        lhs.print_dim();
        lhs.printtofile(name + ".dat");
        lhs.save(name + ".stream");
    };
    write(run.lhsija);
    write(run.lhsija64);
}

void eigenlhs(run_state& run) {
    constexpr std::int32_t subspace = 100;
    cputime clock(run.log, "START: computing eigenvalues of the LHS");
    check_lhs(run, "eigenlhs");
    eigendfeastscsrev(run.lhsija, 1e-10, 10.0, subspace, "min", run.log);
    eigendfeastscsrev(run.lhsija, 1e5, 1e10, subspace, "max", run.log);
    clock.end("END: computing eigenvalues of the LHS");
}

}  // namespace zendar
