#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modpedigree.hpp"
#include "modsparse_crs.hpp"
#include "modstructure.hpp"

namespace zendar {

/// Reads the phenotype file `param.file[0][0]` into dense arrays; sets `param.nphen` to the number of
/// records.
///
/// A record is one line of numbers. The first line fixes the number of columns, which are counted at blanks;
/// in the lines themselves blanks, tabs or one comma separate values, "3*0" stands for three of them, and
/// exponents may have d, D, e or E. What follows the last column is passed over. A line with fewer values
/// than columns does not go on in the next one but is an error, as are a null value, a blank line between
/// records, a phenotype or weight that is not finite, a level outside the integers of 32 bits, and a residual
/// class outside the model. Blank lines at the end, a byte-order mark and carriage returns are no part of the
/// records.
///
/// Two passes over the file in blocks of at most 1 MiB per thread; no other memory than the arrays.
/// @throws fatal_error  with the first bad line (the same one for any number of threads).
void readdata_phen_ascii(param_type& param, phenotype_data& data, logger& log);

/// Reads the coefficient file of each covariable effect (TYPE_EFFECT 1 to 3) and logs the memory they need. `cov`
/// gets one element per effect, and none when the model has no covariable effect.
/// @throws fatal_error  for an effect without a file, and as `readcovariable`.
void readdata_cov_ascii(const param_type& param, std::vector<covariable_type>& cov, logger& log);

/// Reads or computes the inverse covariances of each group of huge effects, see modstructure_hugecov.hpp; the
/// latter where "compute" stands in place of a file's name. `ghuge` gets one element per effect, null except
/// for the first effect of a group, and none when the model has no huge effect. A huge effect without
/// EFFECT_ID is a fixed one.
/// @param cov  one per effect.
/// @throws fatal_error  for a random type that huge effects do not have, for an effect of two groups, and as
///                      the readers.
void readdata_hugecov_ascii(const param_type& param, std::span<const covariable_type> cov,
                            std::vector<std::unique_ptr<crssparse>>& ghuge, logger& log);

/// Reads the pedigree of each effect that has one, and then its inbreeding coefficients or computes them; with
/// metafounders also their relationships. @returns one element per effect, null for those without.
/// @throws fatal_error  for a type without pedigree, for a covariable that is not nested, and as the readers.
[[nodiscard]] pedigree_list readdata_ped_ascii(const param_type& param, std::int32_t inbmethod, logger& log);

/// Reads the pedigree of each effect with any number of gene copies into its element of `list`, a
/// `pedigree_ploidy_type`, and computes its founders and its inbreeding coefficients. Other elements stay as
/// they are; the list becomes one element per effect.
/// @throws fatal_error  for an inbreeding input other than "compute", for a code of such effects that has no
///                      rules, for a covariable that is not nested, for groups, and as the readers.
void readdata_pedploidy_ascii(const param_type& param, pedigree_list& list, logger& log);

/// Reads a symmetric matrix of order n from lines "i j value" in any order: either triangle, or both.
///
/// (i,j) and (j,i) name one element: given in both triangles it counts once, and the values must be equal (to
/// 1e-12 relative); repeated within one triangle they add up. A line holds three values and nothing else.
/// @returns the upper triangle, sorted, symmetric, with a stored diagonal in every row.
/// @throws fatal_error  with the file and its first bad line.
///
/// Two passes by all threads; 16 bytes an element beside the result.
[[nodiscard]] crssparse readcootoija(const std::string& file, std::int32_t n, logger& log);

/// Reads the inverse of a genomic relationship matrix from lines "i j value", as `readcootoija` does; i and j are
/// levels of an effect.
/// @param levels  the level of each row and column of the result, each once; no others may stand in the file,
///                and each needs a diagonal element.
/// @param n_level  largest level.
/// @throws fatal_error  with the file and its first bad line, or the first level that it lacks.
[[nodiscard]] matrix<double> readginverse(const std::string& file, std::span<const std::int32_t> levels,
                                          std::int32_t n_level, logger& log);

}  // namespace zendar
