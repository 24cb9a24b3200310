#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "modpedigree_partition.hpp"
#include "modview.hpp"

namespace zendar {

/// The inverse of the relationships among some animals of a pedigree, A22^-1, by the blocks of the A-inverse
/// of these animals and all their ancestors: A22^-1 X = A^22 X - A^21 (A^11)^-1 A^12 X (Stranden et al.,
/// 2017). Groups of unknown parents take no part; metafounders do.
class a22_inverse {
  public:
    /// Extracts the pedigree, builds the blocks and factorises A^11.
    /// @param list    animals of `ped`, each once
    /// @param effect  for the messages
    /// @throws fatal_error  as `extractped` and `computeasubsparse`.
    a22_inverse(const pedigree_type& ped, std::int32_t effect, std::vector<std::int32_t> list, logger& log);

    /// The animals, as listed: row i of what follows is levels()[i].
    [[nodiscard]] std::span<const std::int32_t> levels() const noexcept { return levels_; }
    [[nodiscard]] std::int64_t size() const noexcept { return std::ssize(levels_); }
    /// Values that `computea22i_timesx` needs for its work with a number of columns.
    [[nodiscard]] std::int64_t work_size(std::int64_t columns) const { return 2 * n1_ * columns; }

    /// y = A22^-1 x, both size() rows; they do not overlap.
    /// @param work  work_size(columns) values
    void computea22i_timesx(matrix_view<const double> x, matrix_view<double> y, std::span<double> work);

  private:
    std::vector<std::int32_t> levels_;
    crssparse a22_, a11_, a12_;
    std::int64_t n1_ = 0;
};

/// An estimate of the diagonal of A22^-1 from 1,000 vectors of -1 and 1 in random order, the same ones in
/// every run (Hutchinson, 1989).
[[nodiscard]] std::vector<double> computediaga22i(a22_inverse& a22i, logger& log);

}  // namespace zendar
