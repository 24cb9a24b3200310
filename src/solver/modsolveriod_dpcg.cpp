#include <algorithm>
#include <cassert>
#include <cmath>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modheader.hpp"
#include "modmatop.hpp"
#include "modsolveriod_dpcg_detail.hpp"
#include "modstats.hpp"

namespace zendar::detail {

namespace {

constexpr std::string_view module_tag = "modsolveriod";
constexpr const char* text_file = "def_einv_20.dat";
constexpr const char* stream_file = "def_einv.stream";

std::string rows_of(const matrix<double>& e) {
    std::string text;
    for (std::int64_t i = 0; i < e.rows(); ++i) {
        for (std::int64_t j = 0; j < e.cols(); ++j) text += (j > 0 ? " " : "") + realtochar(e(i, j), "(g0)");
        text += "\n";
    }
    return text;
}

void check_written(const std::optional<file_error>& error, const char* name, logger& log) {
    if (error)
        fatal_io(log, std::string("Cannot write the file ") + name, module_tag, "createeinv", error->iostat,
                 error->iomsg);
}

void announce_deflation(const dpcg_form& form, logger& log) {
    constexpr double mb_of_double = 1.0 / 131072.0;
    const auto mb = [](double value) { return realtochar(value, "(f0.2)"); };
    log.message("DEFLATED PCG (" + std::string(form.name) +
                ") will be applied with the following requirements:");
    log.message("Number of subdomains                : " + inttochar(form.nsub));
    log.message("Memory (MB) needed for Z            : " + mb(form.mb_of_z));
    log.message("Memory (MB) needed for inv(ZCZprime): " +
                mb(std::pow(static_cast<double>(form.nsub), 2) * mb_of_double));
}

}  // namespace

matrix<double> compute_einv(std::int64_t nsub, const std::function<void(matrix_view<double>)>& products,
                            const std::string& not_definite, logger& log) {
    log.message("Start the computation of inv(ZAZ)");
    matrix<double> e(nsub, nsub);
    const wtime clock;
    products(e.view());
    log.message("     Wall clock time (s) for the products: " + realtochar(clock.seconds(), "(f0.3)"));
    std::string text = rows_of(e) + "*******\n";
    // Rounding must not decide on which triangle is right.
    for (std::int64_t j = 0; j < e.cols(); ++j)
        for (std::int64_t i = 0; i < j; ++i) e(i, j) = e(j, i) = 0.5 * (e(i, j) + e(j, i));
    const wtime inversion;
    if (!invsym(e.view(), log)) fatal(log, not_definite, module_tag, "createeinv");
    log.message("     Wall clock time (s) for the inversion: " + realtochar(inversion.seconds(), "(f0.3)"));
    const wtime writing;
    text += rows_of(e) + "*******\n";
    file_writer out;
    check_written(out.open(text_file), text_file, log);
    out.write(text);
    check_written(out.commit(), text_file, log);
    file_writer stream;
    check_written(stream.open(stream_file), stream_file, log);
    stream.write_values(std::span<const double>(e.values()));
    check_written(stream.commit(), stream_file, log);
    log.message("     Wall clock time (s) for writing: " + realtochar(writing.seconds(), "(f0.3)"));
    log.message("inv(ZAZ) computed (and saved to file)");
    log.message(" Elapsed time to compute inv(ZAZ): " + realtochar(clock.seconds(), "(f0.3)"));
    return e;
}

matrix<double> read_einv(const std::string& name, std::int64_t nsub, logger& log) {
    log.message("Start reading inv(ZAZ)");
    binary_reader in;
    if (const auto error = in.open(name))
        fatal_io(log, "The file of the Galerkin matrix " + name + " cannot be read", module_tag, "read_einv",
                 error->iostat, error->iomsg);
    const std::int64_t expected = nsub * nsub * static_cast<std::int64_t>(sizeof(double));
    if (in.size() != expected)
        fatal(log,
              "The file of the Galerkin matrix " + name + " has " + inttochar(in.size()) +
                  " bytes instead of " + inttochar(expected) + " for " + inttochar(nsub) + " subdomains",
              module_tag, "read_einv");
    matrix<double> e(nsub, nsub);
    if (!in.read_values(e.values()))
        fatal(log, "The file of the Galerkin matrix " + name + " cannot be read to its end", module_tag,
              "read_einv");
    if (!std::ranges::all_of(e.values(), [](double v) { return std::isfinite(v); }))
        fatal(log, "The file of the Galerkin matrix " + name + " has values that are not finite", module_tag,
              "read_einv");
    log.message("inv(ZAZ) read");
    return e;
}

solver_result solve_deflated(const dpcg_form& form, param_type& param, linear_system& system,
                             linear_preconditioner& preconditioner,
                             const std::function<std::unique_ptr<deflation_projector>()>& make_projector,
                             std::span<double> x, std::span<const equation_range> groups,
                             std::span<const covariable_type> cov, logger& log) {
    const std::int64_t neq = system.size();
    assert(std::ssize(x) == neq);
    announce_deflation(form, log);
    announce(system, form.work, groups, log);
    check_groups(groups, neq, log);
    iteration_report report(param, groups, cov, log);

    const std::unique_ptr<deflation_projector> deflation = make_projector();

    work_vector p(neq), zv(neq);
    log.message("");
    const build_stamp build = this_build();
    log.message("Start the " + std::string(form.start) + " (compiled on " + build.date + " at " + build.time +
                ")");
    work_vector r(neq);
    const pcg_vectors v{.x = x, .r = r, .p = p, .z = zv};

    start_iteration(system, preconditioner, deflation.get(), v, report, log);

    // The deflated system has no cheap true residual: it is never computed anew.
    direction_rule direction;
    pcg_state s;
    pcg_loop({.c = system, .m = preconditioner, .direction = direction, .deflation = deflation.get()}, v, s,
             report);

    // computeqbpluspx: x = Q b + P' x, as P' = I - Q C.
    system.r_equal_b_minus_atimesx(x, v.z, v.r);
    deflation->correct(v.r, x);
    solver_result result = report.finish(s, x);
    if (param.solver.computefinalrhs) computefinalrhs(param, system, v, log);
    return result;
}

}  // namespace zendar::detail
