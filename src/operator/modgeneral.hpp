#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modpedigree.hpp"
#include "modstructure.hpp"

namespace zendar {

// ---- statistics (modgeneral_statsphen.cpp, modgeneral_statsped.cpp)
// -----------------------------------------------------------------

/// Means and trait combinations of the phenotypes, to `report`; sets `ncombination` and `combination`.
/// @param combitrait  nrec, out: the combination of each record, from 1.
void statsphen(param_type& param, matrix_view<const double> phen, std::span<std::int32_t> combitrait,
               double rmissing, logger& report, logger& log);

/// Figures of the pedigrees, to `report`. `ped` has one element per effect, or none.
void statsped(const param_type& param, std::span<const std::unique_ptr<pedigree_type>> ped, logger& report,
              logger& log);

/// The same for the effects whose animals have any number of gene copies.
/// @throws fatal_error  for groups, and for a covariable that is not nested.
void statspedploidy(const param_type& param, std::span<const std::unique_ptr<pedigree_type>> ped,
                    logger& report, logger& log);

/// Opens the report "log_stats.dat" and calls the statistics procedures on it.
void statsdata(param_type& param, phenotype_data& data, double rmissing, logger& log,
               std::span<const std::unique_ptr<pedigree_type>> ped = {});

// ---- addressing (modgeneral_address.cpp)
// --------------------------------------------------------------------

/// One record as a list of equations and coefficients; every thread has its own.
struct record_address {
    explicit record_address(const param_type& param);

    std::vector<std::int32_t> address;      ///< neffect: 0-based offset of the effect's block
    matrix<double> x;                       ///< ntrait x npos: coefficients
    std::vector<unsigned char> hugeactive;  ///< neffect
};

/// Maps record `irec` (from 1) to equations and coefficients. The equation of effect e, covariable j and
/// trait t is address(e) + (j - 1) * ntrait + t. Allocates nothing; may be called concurrently.
/// @param effect  (row, record), the levels.
/// @throws fatal_error  for a level above its limit and for effect types without addressing; the log line was
///         written. In a parallel region callers must check levels beforehand with `check_levels`.
void setaddressx_alter(const param_type& param, matrix_view<const std::int32_t> effect,
                       std::span<const covariable_type> cov, std::int64_t irec, record_address& out,
                       logger& log);

/// Stops at the first record that `setaddressx_alter` would refuse, with the same message: a level above its
/// limit (record, effect, level and limit are named) or an effect type without addressing. In parallel over
/// records.
void check_levels(const param_type& param, matrix_view<const std::int32_t> effect, logger& log);

// ---- solution files (modgeneral_writeoutput.cpp)
// --------------------------------------------------------------

void writeoutput_real8_ori(const param_type& param, std::span<const double> vector,
                           const std::filesystem::path& file, logger& log, std::int32_t offset = 0);
void writeoutput_real8_combieff(const param_type& param, std::span<const double> vector,
                                const std::filesystem::path& file, logger& log, std::int32_t offset = 0);
void writeoutput_int4_ori(const param_type& param, std::span<const std::int32_t> vector,
                          const std::filesystem::path& file, logger& log, std::int32_t offset = 0);
void writeoutput_int4_combieff(const param_type& param, std::span<const std::int32_t> vector,
                               const std::filesystem::path& file, logger& log, std::int32_t offset = 0);
void writeoutput_neq_int4_ori(const param_type& param, std::span<const std::int32_t> vector,
                              const std::filesystem::path& file, logger& log, std::int32_t offset = 0);
void writeoutput_neq_int4_combieff(const param_type& param, std::span<const std::int32_t> vector,
                                   const std::filesystem::path& file, logger& log, std::int32_t offset = 0);
void writeoutputstream_real8_ori(const param_type& param, std::span<const double> vector,
                                 const std::filesystem::path& file, logger& log);
void writeoutputstream_real8_combieff(const param_type& param, std::span<const double> vector,
                                      const std::filesystem::path& file, logger& log);

/// The form that `lcombieff` asks for.
void writeoutput_real8(const param_type& param, std::span<const double> vector,
                       const std::filesystem::path& file, logger& log, std::int32_t offset = 0);
void writeoutput_int4(const param_type& param, std::span<const std::int32_t> vector,
                      const std::filesystem::path& file, logger& log, std::int32_t offset = 0);
void writeoutput_neq_int4(const param_type& param, std::span<const std::int32_t> vector,
                          const std::filesystem::path& file, logger& log, std::int32_t offset = 0);
void writeoutputstream_real8(const param_type& param, std::span<const double> vector,
                             const std::filesystem::path& file, logger& log);

/// Raw values as one unformatted stream record, no header: "ca491pcn.bin", "phentmp.stream".
void write_raw_stream(std::span<const double> values, const std::filesystem::path& file, logger& log);

// ---- starting vectors (modgeneral_initvector.cpp)
// ---------------------------------------------------------------

/// Fills a vector of length neq from a solutions file (text, ".stream", or the raw "ca491pcn.bin"); a missing
/// or damaged file leaves it at zero with a warning.
void initvectorfromfile_real8(const param_type& param, std::span<double> vector, const std::string& file,
                              logger& log);

/// Fills `array` (neq x vectors) from a text: either one column per vector and a line per equation, in their
/// order, or rows of trait, effect, level, covariable and a value per vector, in any order. It is rows when
/// at least half of the lines begin with the numbers of an equation. A missing file leaves the array empty,
/// with a warning.
/// @throws fatal_error  unless each line has the columns of the first one and finite values, each equation
///         has a line, and the vectors are no more than the equations; the message names file and line.
void initvectorfromfile_array_real8(const param_type& param, matrix<double>& array, const std::string& file,
                                    logger& log);

// ---- aggregates (modgeneral_aggregate.cpp)
// -----------------------------------------------------------------------

/// The pairs that the aggregate solutions add up: those of `!sumeffect`, and each SNP effect of type 22 with its
/// animal effect, which is 0 when it has none.
[[nodiscard]] std::vector<effect_pair> aggregate_pairs(const param_type& param);

/// Solutions with covariable effects expanded and summed; empty when there is nothing to aggregate.
void computeaggregatesolutions(const param_type& param, std::span<const double> solutions,
                               std::span<const covariable_type> cov, std::vector<double>& aggregatesolutions,
                               logger& log);

/// Intermediate solutions of iteration n: "solutions_<n>.dat" and its kin. Writes at iteration `peek_first`
/// of the solver record and each `peek_step` iterations from there, and nothing at the others.
void peekoption(const param_type& param, std::int32_t iteration, std::span<const double> solutions,
                std::span<const covariable_type> cov, logger& log);

}  // namespace zendar
