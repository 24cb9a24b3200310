#include "modsolvertype.hpp"

#include <cmath>

#include "modbasic.hpp"
#include "modenum.hpp"

namespace zendar {

namespace {

constexpr std::string_view module_tag = "modsolvertype";
constexpr std::string_view procedure = "setup_solver";

/// The words of a `!solver` line, and where to report a wrong one.
struct solver_words {
    std::string_view name;
    std::span<const std::string_view> arguments;
    logger& log;
    std::string_view where;

    [[noreturn]] void fail(const std::string& message) const {
        fatal(log, message + std::string(where), module_tag, procedure);
    }
    [[noreturn]] void fail_on_argument(std::size_t i, std::string_view what) const {
        fail("The option !solver " + std::string(name) + ": \"" + std::string(arguments[i]) + "\" " +
             std::string(what));
    }
    [[nodiscard]] double real(std::size_t i) const {
        double value = 0.0;
        if (!parse_number(arguments[i], value).ok() || !std::isfinite(value))
            fail_on_argument(i, "is not a number!");
        return value;
    }
    [[nodiscard]] std::int32_t count(std::size_t i) const {
        std::int32_t value = 0;
        if (!parse_number(arguments[i], value).ok()) fail_on_argument(i, "is not an integer!");
        if (value < 1) fail_on_argument(i, "is less than 1!");
        return value;
    }
};

void setup_cheb_iod(solver_type& solver, const solver_words& words) {
    if (words.arguments.size() < 2) {
        words.log.warning("The small and large eigenvalues are missing! The PCG will be used instead.");
        solver.solver = code_pcg_inmem;  // in core, unlike the other fall-back of a solver on data
        return;
    }
    const double large = words.real(0), small = words.real(1);
    solver.solver = code_cheb_iod;
    solver.eigmax = large;
    solver.eigmin = small;
    words.log.message(" Large | Small eigenvalues: " + realtochar(large, "(e16.8)") + " " +
                      realtochar(small, "(e16.8)"));
}

void setup_dpcg(solver_type& solver, std::int32_t code, std::int32_t fall_back, const solver_words& words) {
    if (words.arguments.empty()) {
        words.log.warning("The number of equations per block is missing! The PCG will be used instead.");
        solver.solver = fall_back;
        return;
    }
    const std::int32_t equations = words.count(0);
    solver.solver = code;
    solver.neqblock = {equations, 0};
    words.log.message("The number of equations per block for DPCG is: " + inttochar(equations));
}

void setup_dpcg_iod_real(solver_type& solver, const solver_words& words) {
    if (words.arguments.empty())
        words.fail("A file for the deflation matrix must be provided with the option dpcg_iod_real.");
    solver.solver = code_dpcg_iod_real;
    solver.deflationmat = trim(words.arguments[0]);
}

}  // namespace

void reset_solver(solver_type& solver) {
    solver = solver_type{};
}

void setup_solver(solver_type& solver, std::string_view name, std::span<const std::string_view> arguments,
                  logger& log, std::string_view where) {
    const solver_words words{trim(name), arguments, log, where};
    for (const solver_entry& entry : solvers()) {
        if (entry.name != words.name) continue;
        switch (entry.code) {
            case code_cheb_iod:
                return setup_cheb_iod(solver, words);
            case code_dpcg_inmem:
                return setup_dpcg(solver, entry.code, code_pcg_inmem, words);
            case code_dpcg_iod:
                return setup_dpcg(solver, entry.code, code_pcg_iod, words);
            case code_dpcg_iod_real:
                return setup_dpcg_iod_real(solver, words);
            default:
                solver.solver = entry.code;
                return;
        }
    }
    log.warning("The requested solver (" + std::string(words.name) + ") is not available!");
    solver.solver = code_pcg_iod;
}

}  // namespace zendar
