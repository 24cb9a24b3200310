#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modpedigree.hpp"
#include "modsparse_crs.hpp"
#include "modstructure.hpp"

/// The mixed model equations in memory, for direct solvers, inverses and small models.
namespace zendar {

/// What an assembly may take.
struct lhs_limits {
    /// Stored elements up to which the matrix has 32-bit indices.
    std::int64_t crs_elements = 1073741823;
    /// Bytes that are available; 0: what the system tells.
    std::int64_t bytes = 0;
};

/// Left-hand side and right-hand side. The matrix is the sorted upper triangle with a stored diagonal; one of
/// the two widths has rows.
struct lhs_inmem {
    crssparse lhsija;
    crssparse64 lhsija64;
    std::vector<double> rhs;
};

/// What the model is made of; everything outlives the call.
struct mme_input {
    const param_type& param;
    const phenotype_data& data;
    std::span<const covariable_type> cov;                    ///< one per effect, or none
    std::span<const std::unique_ptr<pedigree_type>> ped;     ///< likewise
    std::span<const std::unique_ptr<crssparse>> ghuge = {};  ///< likewise, see `mme_iod`
};

/// Assembles C and b: Z' R^-1 Z by records, then what the random effects add, in a hash table that becomes
/// compressed rows. C and b are those of the iteration on data, but for elements below the machine epsilon,
/// which are not stored.
///
/// Beside the result it takes 16 bytes a slot of the table, which is made for the elements that a first pass
/// over the same sources counts, and, with huge effects, the elements between records and rows of genotypes.
/// @throws fatal_error  when omega or tau is not 1, for random types without place in memory, when the table
///                      would need more memory than there is (before it asks for it), and as the set-up of
///                      the iteration on data.
[[nodiscard]] lhs_inmem setup_lhsrhs(const mme_input& in, const lhs_limits& limits, logger& log);

/// The incidence matrix X: a row for each record and trait, traits fastest, and a column for each equation.
/// Traits that were not observed have empty rows. Genotypes come expanded.
[[nodiscard]] crssparse setup_incidencemat(const mme_input& in, logger& log);

}  // namespace zendar
