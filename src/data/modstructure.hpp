#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "modplink.hpp"
#include "modsparse_crs.hpp"
#include "modview.hpp"

namespace miraculix {
struct compressed_store;
}

namespace zendar {

class logger;
struct param_type;

/// The records of the phenotype file. All matrices have one column per record, so that a record is
/// contiguous.
struct phenotype_data {
    matrix<double> phen;          ///< ntrait x nrec
    matrix<std::int32_t> effect;  ///< (neffect + nnested + 1) x nrec: levels, nesting levels, residual class
    std::vector<std::int32_t> combitrait;  ///< nrec: trait combination, from 1
    matrix<double> weight;                 ///< ntrait x nrec, or empty
};

/// The content of a coefficient file, in one of three stores: `value`, `sparse` for a huge effect with a
/// ".sparse" file, or `plink` for one with a ".bed" file.
struct covariable_data {
    std::vector<std::int32_t> indice;  ///< [level - 1]: row of the level, from 1; 0: no coefficients
    matrix<double> value;              ///< coefficients x rows
    crssparse sparse;                  ///< rows x coefficients, sorted by column
    plink_genotypes plink;             ///< rows x coefficients, two bits each

    [[nodiscard]] bool is_sparse() const { return sparse.getdim(1) > 0; }
    [[nodiscard]] bool is_plink() const { return plink.nrow > 0; }
    [[nodiscard]] std::int64_t bytes() const;
};

/// The coefficients of one covariable effect. A copy shares the data, which nobody changes once it is read.
struct covariable_type {
    std::shared_ptr<const covariable_data> data;  ///< null: nothing was read
    /// The genotypes in the compressed store, whose products the effect then takes; null: not in use.
    std::shared_ptr<::miraculix::compressed_store> compressed;
    std::int32_t miraculix = 0;  ///< 0: not through the genotype library; 10: CPU; 20: GPU
    std::vector<double>
        allelefreq;             ///< per coefficient: frequency of the second allele; empty without genotypes
    std::int64_t nmissing = 0;  ///< missing genotypes

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
    [[nodiscard]] bool is_plink() const { return data && data->is_plink(); }

    /// Row of a level, 0 when the level has no coefficients or lies outside the table.
    [[nodiscard]] std::int32_t row_of(std::int32_t level) const {
        const auto indice = rows();
        return level >= 1 && level <= std::ssize(indice) ? indice[level - 1] : 0;
    }
};

// ---- coefficient files (modstructure_covariable*.cpp)
// ------------------------------------------------------

/// Reads the file `param.cov_file` of effect e. The text behind its last "." decides on the form:
///
/// ".sparse"  text; a line is id, coefficient number, value. Several lines for one coefficient add up.
/// ".stream"  binary, little-endian, no record markers; its length must fit exactly:
///            int32    rows, coefficients
///            then for each row
///            int32    id
///            float64  coefficients
/// ".bed"     PLINK genotypes, see `readcovariable_bed`; the name may also be the stem of the three files
/// when
///            the effect is a huge one
/// other      text; a line is id, then N_COV coefficients
///
/// In the text forms blanks, tabs or one comma separate values; a line holds all of its values and nothing
/// else. An id is an integer from 1 to N_LEVEL (if that is 0, `indice` ends with the largest id), and stands
/// once; coefficients are finite.
///
/// A ".sparse" file of a covariable (TYPE_EFFECT 1) is held dense, that of a huge effect as compressed rows;
/// beside the result it needs 4 bytes for each of its lines, and 16 while it is sorted.
/// @throws fatal_error  with the file and its first bad line.
///
/// @param maxcols  columns that products of the genotype library will have at most; 0: the number of traits.
void readcovariable(covariable_type& cov, const param_type& param, std::int32_t e, logger& log,
                    std::int32_t maxcols = 0);

/// Shares the data of the effect whose number is the stem of the file, `cov[number - 1]`, with effect e.
/// @throws fatal_error  unless that is an effect before e with as many coefficients.
void readcovariable_aseffect(std::span<covariable_type> cov, const param_type& param, std::int32_t e,
                             logger& log);

/// @throws fatal_error  when the numbers of coefficients of the file and of N_COV differ.
void check_ncol_checkval(std::int32_t e, std::int64_t effective, std::int64_t declared, logger& log);

/// Whether a name stands for PLINK genotypes: it ends in ".bed", or is the stem of a file that does.
[[nodiscard]] bool names_plink_files(const std::string& file);

/// The text behind the last "." of a coefficient file's name; empty without one.
[[nodiscard]] std::string covariable_extension(const std::string& file);

// ---- genotypes (modstructure_bed.cpp, modstructure_allelefreq.cpp)
// -----------------------------------------

/// Individuals x SNPs of a packed matrix, from `<stem>.bed`, `.bim` and `.fam`:
///
/// .bed  bytes 108, 27, 1, then ceil(individuals / 4) bytes for each SNP, see `plink_genotypes`
/// .bim  a line for each SNP
/// .fam  a line for each individual. If all second words are integers, they are the levels, as the ids of the
/// other
///       forms; otherwise the levels are the line numbers.
///
/// The frequencies of the second allele come from `!allelefreq` or from the genotypes. A missing genotype is
/// the mean; in the compressed store it counts as 0 before centring. A covariable (TYPE_EFFECT 1) is held
/// dense, centred.
/// @throws fatal_error  with the file, and its first bad line.
void readcovariable_bed(covariable_type& cov, const param_type& param, std::int32_t e, std::int32_t maxcols,
                        logger& log);

/// The levels of the individuals of `<stem>.fam`, in the order of its lines, as `readcovariable_bed` takes them.
/// @param file  the stem, or the name of the .bed file.
/// @throws fatal_error  with the file, and its first bad line; a level that stands twice is not looked for.
[[nodiscard]] std::vector<std::int32_t> read_plink_levels(const std::string& file, std::int32_t e,
                                                          std::int32_t n_level, logger& log);

/// The lines of `<stem>.bim`. @param file  the stem, or the name of the .bed file.
/// @throws fatal_error  when one of the three files is missing or cannot be read.
[[nodiscard]] std::int32_t count_plink_snps(const std::string& file, logger& log);

/// Sets `cov.allelefreq` from the file that `!allelefreq` names for effect e (a line for each SNP, with its
/// frequency), without one from the counts of the genotypes: 0 for a SNP whose genotypes are all missing.
/// @throws fatal_error  with the file and its first bad line.
void readallelefreq(covariable_type& cov, const param_type& param, std::int32_t e,
                    std::span<const plink_counts> counts, logger& log);

/// Copies the genotypes into the compressed store.
/// @param usegpu  0: the products run on the CPU; absent: on the GPU.
/// @param cores   threads of the library; 0: by its own rule.
void init_miraculix(covariable_type& cov, std::int32_t maxcols, std::optional<std::int32_t> usegpu,
                    logger& log, std::int32_t cores = 0);

/// Coefficient (from 1) of a row (from 1) in any store; 0.0 outside. A genotype comes centred, as in the
/// products.
[[nodiscard]] double getval(const covariable_type& cov, std::int32_t row, std::int32_t coefficient);
/// Coefficient of a level; 0.0 for a level without coefficients.
[[nodiscard]] double getvalue(const covariable_type& cov, std::int32_t level, std::int32_t coefficient);
/// The same as the real value in use, and as the nearest integer; a genotype as 0, 1, 2 or, missing, 3.
[[nodiscard]] double getvalue_val(const covariable_type& cov, std::int32_t level, std::int32_t coefficient);
[[nodiscard]] std::int32_t getvalue_ival(const covariable_type& cov, std::int32_t level,
                                         std::int32_t coefficient);
/// The coefficient as it enters sums over records.
[[nodiscard]] double getvalue_summary(const covariable_type& cov, std::int32_t level,
                                      std::int32_t coefficient);

}  // namespace zendar
