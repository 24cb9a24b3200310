#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "modsparse_coo.hpp"
#include "modsparse_crs.hpp"
#include "modsparse_ll.hpp"

/// Conversions between the formats. All copy dimensions, storage, the symmetric flag, the permutations and
/// the output unit; the source stays as it is.
///
/// Compressed rows are made with one reserved element per row, whether it is stored in the source or not: the
/// diagonal of a square matrix, which the direct solver needs, and the last column of any other. Their rows
/// are sorted, and `lsorted` is set.
namespace zendar {

/// The adjacency of a square matrix, both triangles and no diagonal, in the form of METIS: the neighbours of
/// vertex i are adjncy[xadj[i]] .. adjncy[xadj[i + 1] - 1], all counted from 0.
struct metisgraph {
    std::int32_t n = 0;
    std::vector<std::int32_t> xadj;  ///< n + 1
    std::vector<std::int32_t> adjncy;
};

/// Re-enter each element with `add`, which drops values below the machine epsilon.
[[nodiscard]] coosparse convertfromlltocoo(const llsparse& ll);
[[nodiscard]] coosparse convertfromcrstocoo(const crssparse& crs);
[[nodiscard]] coosparse convertfromcrs64tocoo(const crssparse64& crs);

[[nodiscard]] llsparse convertfromcootoll(const coosparse& coo);
[[nodiscard]] llsparse convertfromcrstoll(const crssparse& crs);

/// @throws fatal_error  when 32-bit indices cannot count the elements.
[[nodiscard]] crssparse convertfromlltocrs(const llsparse& ll);
[[nodiscard]] crssparse convertfromcootocrs(const coosparse& coo);
[[nodiscard]] crssparse64 convertfromcootocrs64(const coosparse& coo);

/// @throws fatal_error  unless the matrix is square with upper storage and its graph fits 32-bit indices.
[[nodiscard]] metisgraph convertfromcrstometisgraph(const crssparse& crs);

/// Equations (from 1) each of whose pairs (row, column), in either order, shall have a place in a matrix.
struct position_block {
    std::vector<std::int32_t> rows, cols;
};

/// The symmetric matrix with upper storage `m` with further elements, of value 0, where blocks ask for them
/// and nothing is stored yet: its sparse inverse then holds these positions.
/// @throws fatal_error  for a matrix that is not square, sorted and upper-stored, for equations outside, and
///                      when 32-bit indices cannot count the elements.
///
/// Rows in parallel; 12 bytes per equation and thread beside the result.
[[nodiscard]] crssparse with_positions(const crssparse& m, std::span<const position_block> blocks);

}  // namespace zendar
