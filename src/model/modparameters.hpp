#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "modlogger.hpp"
#include "modsolvertype.hpp"
#include "modview.hpp"

namespace zendar {

class file_writer;

/// Largest DIM_G of an effect whose covariance matrix is read as a dense one.
inline constexpr std::int32_t max_dim_g = 80;

/// The inverse residual matrices of one trait combination: one ntrait x ntrait matrix per residual class, with
/// zero rows and columns for missing traits.
struct rinv_type {
    std::vector<matrix<double>> rinv;
    bool operator==(const rinv_type&) const = default;
};

/// Options that name a file for each of a list of effects.
struct across_effects {  // !acrosseff
    std::string file;
    std::int32_t effect1 = 0, effect2 = 0;
    bool operator==(const across_effects&) const = default;
};
struct pvalue_option {  // !pvalue
    std::int32_t effect = 0;
    std::string gifile, genotypefile, allelefreqfile;
    bool operator==(const pvalue_option&) const = default;
};
struct effect_pair {  // !sumeffect: effect1 is added to effect2
    std::int32_t effect1 = 0, effect2 = 0;
    bool operator==(const effect_pair&) const = default;
};

/// The model description record. Effects and traits are counted from 1 in the files and messages; element
/// [e - 1] of an array, or (t - 1, e - 1) of a matrix, belongs to effect e and trait t, except where the comment
/// says [e].
struct param_type {
    // Read from the sections
    std::int32_t nphen = 0;  ///< records to read; 0: all lines of the file
    std::int32_t ntrait = 0;
    std::int32_t neffect = 0;
    std::int32_t neq = 0;  ///< equations
    std::int32_t nweight = 0;
    std::int32_t n_residual_cov = 0;
    std::int32_t nhuge = 0;    ///< the last `nhuge` effects are huge
    std::int32_t nnested = 0;  ///< distinct nesting columns
    std::int32_t pos_residual = 0;
    std::int32_t ncombination = 0;
    std::vector<std::int64_t> combination;  ///< codes by first appearance; bit t - 1: trait t observed

    std::vector<std::int32_t> n_level;
    std::vector<std::int32_t> n_level_nested;
    std::vector<std::int32_t> nx;    ///< [e], 0..neffect + 1: coefficient columns; both ends 0
    std::vector<std::int32_t> pos;   ///< [e], 0..neffect + 1: first coefficient column, from 1
    std::vector<std::int32_t> nupg;  ///< empty until a type with groups is read
    std::vector<std::int32_t> pos_traits;
    std::vector<std::int32_t> pos_weights;
    matrix<std::int32_t> pos_effects;  ///< (t, e)
    matrix<std::int32_t> pos_nested;   ///< (t, e)
    matrix<std::int32_t> pos_nested2;  ///< (t, e): row of `effect` (from 1) with the nesting level, 0 for none
    std::vector<std::int32_t> type_effect;
    std::vector<std::int32_t> type_random;
    std::vector<std::int32_t> type_random_eff;
    std::vector<std::int32_t> n_correlated;  ///< -1 for an effect without EFFECT_ID block
    std::vector<std::int64_t> sumlevel;      ///< [e], 1..neffect + 2 ([0] unused): level slots before effect e
    std::vector<std::int64_t> sumequation;   ///< [e], the same times ntrait
    std::vector<std::int32_t> n_cov;
    std::vector<std::int32_t> dim_g;
    std::vector<std::int32_t> ghuge_type;
    std::vector<std::vector<std::int32_t>> link_effect;
    std::vector<std::int32_t> nexteffect;
    matrix<unsigned char> present;             ///< (t, e): pos_effects(t, e) > 0
    std::vector<matrix<double>> r;             ///< per residual class, ntrait x ntrait
    std::vector<matrix<double>> g;             ///< per effect, dim_g x dim_g; empty where not read
    std::vector<std::string> type_char;        ///< optional kind word, one character
    std::vector<std::array<std::string, 4>> file;  ///< [e], 0..neffect: file(1..4, e); [0][0] is PHENO_FILE
    std::vector<std::string> gfile;            ///< covariance matrix file as it was read
    std::vector<std::string> cov_file;
    std::vector<std::string> name_effect;
    bool lnames = false;  ///< names and kinds stand in POS_EFFECTS
    std::string residualfile;

    // Set by the driver
    bool lpec = false;
    std::int32_t ncpus = 0;  ///< threads of `--ncpus`, also for the genotype library; 0: not given
    std::string relparam = "ca471rel.dat";

    // Options
    double beta = 0.05;
    double alpha = 1.0 - 0.05;
    bool lalpha = false;  ///< `!alpha` was given
    double omega = 1.0;
    double tau = 1.0;
    double sum2pq = 0.0;
    double weightupg = 1.0;
    bool lbetasnp = true;
    bool lcheckpd = false;
    bool lcombieff = false;
    bool landeffect = false;
    bool useasparse = true;
    bool precondzaaaz = false;
    bool printprecond = false;
    bool lquorlen = false;
    bool plotsolutions = false;
    bool solstream = false;
    bool thread_effect = false;
    bool lstructprecond = false;
    bool autoprecond = false;  ///< `!structprecond a`, for the whole model
    std::int32_t computeeigen = 0;
    std::string outputdir = ".";
    std::string priormean = "none";
    std::string providedrhs = "none";
    std::vector<across_effects> acrosseff;
    std::vector<std::int32_t> andeffect;       ///< identity unless `!andeffect`
    matrix<std::int32_t> combieff_trait;       ///< (t, e): trait slot, identity (t) by default
    std::vector<std::string> allelefreq;       ///< each of these: empty, or one file per effect ("none")
    std::vector<std::string> gapy;
    std::vector<std::string> gima22i;
    std::vector<std::string> ktamatrix;
    std::vector<std::string> qptransfo;
    std::vector<std::string> tamatrix;
    std::vector<std::string> tageno;
    std::vector<std::int32_t> tamatrix_blocks;  ///< empty, or SNPs per block per effect (0: not given)
    std::vector<unsigned char> miraculix;       ///< empty, or a flag per effect
    std::vector<unsigned char> miraculix_gpu;
    std::vector<unsigned char> phendev;  ///< empty: option not given; flag: effect is part of the deviation
    std::vector<unsigned char> yhat;     ///< empty: option not given; flag: effect is left out of yhat
    std::vector<pvalue_option> pvalue;
    std::string structprecond;  ///< one letter per effect, 'N' by default
    std::vector<effect_pair> sumeffect;

    solver_type solver;

    // Filled later
    std::vector<rinv_type> rinv_vect;  ///< per trait combination

    bool operator==(const param_type&) const = default;
};

/// Options of the third reader: what is not part of the model.
struct run_options {
    std::int32_t loptimem = 2;   ///< least-squares kernel family
    std::int32_t inbmethod = 1;  ///< 1 Meuwissen and Luo, 2 Sargolzaei et al.
    double rmissing = -9.0;      ///< missing phenotype
};

// ---- sections (modparameters_sections.cpp) ---------------------------------------------------------------

/// Reads the fixed sections of an instruction file in their order, and the covariance files they name.
void read_parameter_file(param_type& param, const std::string& parfile, logger& log);

/// Allocates and zeroes the arrays of `neffect` effects and `ntrait` traits.
void allocpar(param_type& param);

/// Stops unless `word` is `keyword` (or `alternative`, when that is not empty).
void checkparam(logger& log, std::string_view word, std::string_view keyword, std::string_view alternative = {},
                std::string_view message = {});

/// Frees every array and puts the defaults back.
void reset_param(param_type& param);

// ---- writing back (modparameters_write.cpp) --------------------------------------------------------------

/// Writes a file that `read_parameter_file` can read again, without names, with the residual file NOT_STORED.
void write_parameter_file(const param_type& param, const std::string& file, logger& log);

/// The table of a covariance matrix, to the log: "Effect", "Covariable", "Trait", "(Co)variance(s)".
void writeg(const param_type& param, std::int32_t e, logger& log);

/// The line of a huge covariance.
void writeghuge(const param_type& param, std::int32_t e, file_writer& out);

// ---- model options (modparameters_options*.cpp) ------------------------------------------------------------

namespace modparameters {
/// Reads the model's `!` lines of an instruction file.
void read_parameter_file_options(param_type& param, const std::string& file, logger& log);
/// True for the keyword of an option of the model.
bool takes_option(std::string_view keyword);
}  // namespace modparameters

/// The lines of all options with a value other than the default, in the order of the reader; the solver's options
/// follow those of the model. Read again, they give the same record.
void write_parameter_file_options(const param_type& param, file_writer& out);

/// The manual of the model's options, through the logger.
void man_param(bool markdown, logger& log);

/// What stands before the name of a file of the output directory: empty for the working directory, else with a
/// slash at its end.
[[nodiscard]] std::string output_directory(const param_type& param);

// ---- finalisation (modparameters_finalize.cpp) -------------------------------------------------------------

/// Turns the record that the readers left into the final model and counts the equations.
/// @param lpec, relparam  stored when they are not null.
void check_and_finalize(param_type& param, bool liod, logger& log, const bool* lpec = nullptr,
                        const std::string* relparam = nullptr);
void setnestedcovtoall(param_type& param, logger& log);
void checknestedcov(const param_type& param, logger& log);
void setnestedcov(param_type& param, logger& log);

// ---- layout (modparameters_layout.cpp) ---------------------------------------------------------------------

/// Fills `nx`, `pos`, `sumlevel`, `sumequation`, `nexteffect`.
void setsumlevel(param_type& param, logger& log);

/// N_LEVEL of a class effect, N_LEVEL of the nesting of a nested covariable, otherwise -9. e from 1.
std::int32_t get_nlevel(const param_type& param, std::int32_t e);

/// Order of the (co)variance block of the correlated group that effect e opens: ntrait times the sum of the
/// covariables (1 for a class effect) over the group; 0 when e opens none.
std::int64_t computenrhscontributions(const param_type& param, std::int32_t e);

// ---- covariances (modparameters_covariance.cpp, modparameters_residual.cpp) ----------------------------------

/// Residual covariance matrices, lines "row class v(1) .. v(row)".
void readrf(const std::string& file, std::int32_t ntrait, std::int32_t n_residual_cov,
            std::vector<matrix<double>>& r, logger& log);

/// Covariance matrix of effect e, lower triangle by rows, list-directed.
void readgf(const std::string& file, std::int32_t e, std::int32_t dim_g, matrix<double>& g, logger& log);

/// Inverts the covariance matrices of the random effects in place; each has a log of its own.
void invertg(param_type& param, logger& log);

/// One inverse residual matrix per trait combination and class.
void initresidualmatrix(param_type& param, logger& log);
void deallocrinv_vect(param_type& param);

/// ri(i, j) = w(i) w(j) ri(i, j).
void scale_ri(matrix_view<double> ri, std::span<const double> w);

}  // namespace zendar
