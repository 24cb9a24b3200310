#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "modmmeiod_a22i.hpp"
#include "modpedigree.hpp"
#include "modview.hpp"

namespace zendar::matrices {

/// Columns of A22, the relationships between some animals, by one pass up and one down the pedigree of these
/// and their ancestors (Colleau, 2002, Genet. Sel. Evol. 34:409-421). With metafounders as these are related.
class relationship_columns {
  public:
    /// @param ped   with inbreeding coefficients; groups have no part
    /// @param list  animals, each once
    relationship_columns(const pedigree_type& ped, std::span<const std::int32_t> list, logger& log);

    /// out(i, j) = relationship of list[i] and list[first + j]; `out` has a row for each listed animal.
    ///
    /// 6 flops for each animal of the pedigree and column; 128 bytes of work space for each of them and each
    /// thread.
    void columns(std::int64_t first, matrix_view<double> out) const;

    /// Animals of the extracted pedigree, metafounders included.
    [[nodiscard]] std::int64_t pedigree_size() const { return std::ssize(parents_); }

  private:
    void fill(std::int64_t first, std::int64_t ncol, matrix_view<double> out, double* values) const;

    // By position from old to young, from 0; metafounders come first.
    std::vector<std::array<std::int32_t, 2>> parents_;  ///< -1: unknown
    std::vector<double> variance_;                      ///< Mendelian sampling variance
    matrix<double> founders_;
    std::vector<std::int32_t> position_;  ///< of the listed animals
};

/// Columns first, first + 1, ... of A22^-1, a row for each animal.
/// @param work  grows to what is needed
void a22_inverse_columns(a22_inverse& a22i, std::int64_t first, matrix_view<double> out,
                         std::vector<double>& work);

/// Columns that are asked for at a time.
inline constexpr std::int64_t relationship_block = 128;

}  // namespace zendar::matrices
