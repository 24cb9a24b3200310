#pragma once

#include <cstdint>

#include "modsparse_crs.hpp"
#include "modstructure.hpp"

/// The inverse covariances of huge (SNP) effects.
///
/// A group is an effect with an EFFECT_ID block and the `n_correlated` effects that follow it. Its matrix is
/// the upper triangle of a symmetric one, sorted, with a stored diagonal in every row, over the equations of
/// the group: effect slowest, then SNP, then trait.
///
/// Each matrix is also written to the output directory, as `invcov_<e>.inv`: text, a line "i j value" for
/// each stored element, with all digits. Read again as a covariance file, it gives the same matrix. A file
/// that is an input of the run itself is left as it is.
namespace zendar {

/// Reads the covariance file of the group that effect e opens: lines "i j value" in any order, each element
/// once, in either triangle; what is not given is 0.
///
/// A file ".inv" holds the inverse, which is taken as it is. Any other one holds covariances: the blocks of
/// equations that elements connect are inverted one by one, each as a dense matrix (the inverse of a
/// connected block has no zeros to save), and multiplied by tau / alpha. Equations of traits that the effect
/// does not have may be left out; their inverse is then 0.
/// @throws fatal_error  with the file and its first bad line; for an element that stands twice, with both
///                      lines; for a block that is not positive definite or too large.
///
/// 16 bytes an element and 28 an equation beside the result, and 8 for each element of the largest block.
[[nodiscard]] crssparse readghugediag(const param_type& param, std::int32_t e, logger& log);

/// Inverse covariances from those of the animal effects that the group is linked to: SNPs are independent,
/// with G0 / s for each, where G0 / s makes the animals' G0 of all SNPs; s is the sum of 2 p q. The result is
/// (tau / alpha) s G0^-1 for each SNP; without tau / alpha it is written to `invcov_<e>.inv.scaled`.
///
/// G0^-1 is `param.g` of the animal effects' group after `invertg`, without the traits that an animal effect
/// does not have. s is that of the group's first effect: of `cov.allelefreq` when the model names a file of
/// frequencies for it (which is read here when `cov` has none), else `!sum2pq`, else again of
/// `cov.allelefreq`.
/// @throws fatal_error  unless s is a positive number; when the effect is linked to no animal effect, or its
/// group
///                      is not linked to each effect of one animal group; for members with different numbers
///                      of SNPs.
///
/// Rows are built in their places: no other memory than the result.
[[nodiscard]] crssparse computeghugediag(const param_type& param, std::int32_t e, const covariable_type& cov,
                                         logger& log);

}  // namespace zendar
