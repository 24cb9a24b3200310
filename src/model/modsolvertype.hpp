#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modlogger.hpp"

namespace zendar {

/// What every iterative solver shares; a part of `param_type`.
struct solver_type {
    std::int32_t solver = 120;  ///< solver code, see modenum.hpp
    std::int32_t maxiter = 5000;
    std::int32_t miniter = 4;
    std::int32_t conveff = 0;
    std::int32_t convpart = 0;
    std::int32_t nwritetmpsol = 50;
    std::int32_t peek_first = 10000;
    std::int32_t peek_step = 10000;
    /// Equations per block of the deflated solvers; number of subdomains. Absent until `!solver` asks for them.
    std::optional<std::array<std::int32_t, 2>> neqblock;
    std::vector<std::int32_t> conveffs;  ///< empty: option not given
    double convcrit = static_cast<double>(1e-12f);
    double eigmin = 0.0;
    double eigmax = 0.0;
    double condnumber = 0.0;
    std::vector<double> scaleinvprec;  ///< one per effect, empty: option not given
    std::string convtype = "cr";
    std::string startsol = "none";
    std::string tmpsol = "ca491pcn.bin";
    std::string deflationmat = "none";
    std::string galerkin = "none";
    std::string iterfile = "ca452cnv.dat";
    bool statprevioussol = false;
    bool harville = false;
    bool peek = false;
    bool printlhs = false;
    bool eigenlhs = false;
    bool altconv = false;
    bool computegalerkin = false;
    bool computefinalrhs = false;
    bool esteigen = true;

    bool operator==(const solver_type&) const = default;
};

/// Puts all defaults back.
void reset_solver(solver_type& solver);

/// Chooses the solver from the words of a `!solver` line: the name and up to two arguments.
/// @param where  ends the message of a fatal error: where the line stands.
/// @throws fatal_error  for "dpcg_iod_real" without a file, and for arguments that are no numbers.
void setup_solver(solver_type& solver, std::string_view name, std::span<const std::string_view> arguments,
                  logger& log, std::string_view where = {});

/// Reads the solver's `!` lines of an instruction file.
/// @param neffect  number of effects of the model.
void read_parameter_file_options_solver(solver_type& solver, const std::string& file, std::int32_t neffect,
                                        logger& log);

/// True for the keyword of an option of the solver, also of one that stands in the manual only.
bool solver_takes_option(std::string_view keyword);

/// The manual of the solver's options, through the logger.
void man_solver(bool markdown, logger& log);

}  // namespace zendar
