#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "modsparse_crs.hpp"
#include "modview.hpp"

namespace zendar {

class logger;
struct param_type;

/// The records of the phenotype file. All matrices have one column per record, so that a record is contiguous.
struct phenotype_data {
    matrix<double> phen;         ///< ntrait x nrec
    matrix<std::int32_t> effect; ///< (neffect + nnested + 1) x nrec: levels, nesting levels, residual class
    std::vector<std::int32_t> combitrait;  ///< nrec: trait combination, from 1
    matrix<double> weight;       ///< ntrait x nrec, or empty
};

/// The content of a coefficient file, in one of two stores: `value`, or `sparse` for a huge effect with a ".sparse"
/// file.
struct covariable_data {
    std::vector<std::int32_t> indice;  ///< [level - 1]: row of the level, from 1; 0: no coefficients
    matrix<double> value;              ///< coefficients x rows
    crssparse sparse;                  ///< rows x coefficients, sorted by column

    [[nodiscard]] bool is_sparse() const { return sparse.getdim(1) > 0; }
    [[nodiscard]] std::int64_t bytes() const;
};

/// The coefficients of one covariable effect. A copy shares the data, which nobody changes once it is read.
struct covariable_type {
    std::shared_ptr<const covariable_data> data;  ///< null: nothing was read
    bool compressed = false;                      ///< the genotypes stand in the compressed store
    bool miraculix = false;                       ///< the effect goes through the genotype engine
    std::vector<double> allelefreq;               ///< per coefficient
    std::int64_t nmissing = 0;                    ///< missing genotypes

    covariable_type() = default;
    covariable_type(std::vector<std::int32_t> indice, matrix<double> value);

    /// coefficients x rows; empty in the sparse store.
    [[nodiscard]] matrix_view<const double> values() const {
        return data ? data->value.view() : matrix_view<const double>{};
    }
    /// The row of each level, from level 1.
    [[nodiscard]] std::span<const std::int32_t> rows() const {
        return data ? std::span<const std::int32_t>(data->indice) : std::span<const std::int32_t>();
    }
    [[nodiscard]] bool is_sparse() const { return data && data->is_sparse(); }

    /// Row of a level, 0 when the level has no coefficients or lies outside the table.
    [[nodiscard]] std::int32_t row_of(std::int32_t level) const {
        const auto indice = rows();
        return level >= 1 && level <= std::ssize(indice) ? indice[level - 1] : 0;
    }
};

// ---- coefficient files (modstructure_covariable*.cpp) ------------------------------------------------------

/// Reads the file `param.cov_file` of effect e. The text behind its last "." decides on the form:
///
/// ".sparse"  text; a line is id, coefficient number, value. Several lines for one coefficient add up.
/// ".stream"  binary, little-endian, no record markers; its length must fit exactly:
///            int32    rows, coefficients
///            then for each row
///            int32    id
///            float64  coefficients
/// ".bed"     not implemented: fatal
/// other      text; a line is id, then N_COV coefficients
///
/// In the text forms blanks, tabs or one comma separate values; a line holds all of its values and nothing
/// else. An id is an integer from 1 to N_LEVEL (if that is 0, `indice` ends with the largest id), and stands
/// once; coefficients are finite.
///
/// A ".sparse" file of a covariable (TYPE_EFFECT 1) is held dense, that of a huge effect as compressed rows;
/// beside the result it needs 4 bytes for each of its lines, and 16 while it is sorted.
/// @throws fatal_error  with the file and its first bad line.
void readcovariable(covariable_type& cov, const param_type& param, std::int32_t e, logger& log);

/// Shares the data of the effect whose number is the stem of the file, `cov[number - 1]`, with effect e.
/// @throws fatal_error  unless that is an effect before e with as many coefficients.
void readcovariable_aseffect(std::span<covariable_type> cov, const param_type& param, std::int32_t e,
                             logger& log);

/// @throws fatal_error  when the numbers of coefficients of the file and of N_COV differ.
void check_ncol_checkval(std::int32_t e, std::int64_t effective, std::int64_t declared, logger& log);

/// The text behind the last "." of a coefficient file's name; empty without one.
[[nodiscard]] std::string covariable_extension(const std::string& file);

/// Coefficient (from 1) of a row (from 1) in either store; 0.0 outside.
[[nodiscard]] double getval(const covariable_type& cov, std::int32_t row, std::int32_t coefficient);
/// Coefficient of a level; 0.0 for a level without coefficients.
[[nodiscard]] double getvalue(const covariable_type& cov, std::int32_t level, std::int32_t coefficient);
/// The same as the real value in use, and as the nearest integer (a genotype).
[[nodiscard]] double getvalue_val(const covariable_type& cov, std::int32_t level, std::int32_t coefficient);
[[nodiscard]] std::int32_t getvalue_ival(const covariable_type& cov, std::int32_t level,
                                         std::int32_t coefficient);
/// The coefficient as it enters sums over records.
[[nodiscard]] double getvalue_summary(const covariable_type& cov, std::int32_t level,
                                      std::int32_t coefficient);

}  // namespace zendar
