#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "modpedigree.hpp"

/// The blocks of A-inverse over two sets of animals: those that are listed ("considered", type 2), and the
/// others of a pedigree (type 1). From them A22^-1 = A^22 - A^21 (A^11)^-1 A^12 is applied (Stranden et al.,
/// 2017) without either being formed.
namespace zendar {

/// A pedigree taken out of another one, with its own codes.
struct extracted_pedigree {
    pedigree_type ped;
    std::vector<std::int32_t> list;   ///< the listed levels, in their order, in the codes of `ped`
    std::vector<std::int32_t> level;  ///< [code - 1]: the level in the pedigree it was taken from
};

/// The pedigree of the listed levels and all their ancestors, levels in their order. Groups are cut off (0 in
/// their place); metafounders stay, all of them, as the last levels.
/// @throws fatal_error  for a listed level that is not an animal of the pedigree, or is listed twice.
[[nodiscard]] extracted_pedigree extractped(const pedigree_type& ped, std::span<const std::int32_t> list,
                                            logger& log);

/// The listed levels and all their descendants, in the order of their codes.
[[nodiscard]] std::vector<std::int32_t> extractprogeny(const pedigree_type& ped,
                                                       std::span<const std::int32_t> list, logger& log);

/// Sets all parents that are groups to 0; nothing without groups, and with metafounders.
void zeroupgineped(std::int32_t nanimal, pedigree_type& ped);

/// Reads a list of animals, a level at the start of each line; what follows it is passed over, as are blank
/// lines.
/// @throws fatal_error  with the file and its first bad line: no integer, a level outside 1 .. nanimal or one
///                      that stands there twice; and for a file without levels.
[[nodiscard]] std::vector<std::int32_t> readlevels(const std::string& file, std::int32_t nanimal,
                                                   logger& log);

/// Which blocks are asked for.
struct partition_blocks {
    bool a11 = false, a12 = false, a22 = false;
};

struct partitioned_ainv {
    crssparse a11, a12, a22;  ///< type 1 by 1 and type 2 by 2: upper triangles; type 1 by type 2
    std::vector<std::int32_t> type1_level;  ///< [row of a11 - 1]: its level, 0 for the dummy ancestor
};

/// The blocks of A-inverse over the type-1 levels of a pedigree and the listed ones, which are numbered by
/// their place in the list. Without any type-1 level a dummy one that is related to nobody is added.
/// @throws fatal_error  when no block is asked for, without inbreeding coefficients, and with metafounders
///                      for an animal with an unknown parent.
[[nodiscard]] partitioned_ainv computeasubsparse(const pedigree_type& ped, std::int32_t effect,
                                                 std::span<const std::int32_t> list, partition_blocks blocks,
                                                 logger& log);

// ---- difference matrices (modpedigree_difference.cpp)

/// The virtual levels of a list: animals that are neither listed nor an ancestor of a listed one, but have a
/// listed parent. Only they make A^22 of the whole pedigree differ from A^22 of the extracted one.
[[nodiscard]] std::vector<std::int32_t> diffpedigree(const pedigree_type& ped,
                                                     std::span<const std::int32_t> list, logger& log);

/// What the virtual levels add to A^22: the block of the whole A-inverse over the listed animals, less that
/// of their extracted pedigree. Numbered by the place in the list; upper triangle, with a stored diagonal.
/// Without inbreeding coefficients parents count as not inbred.
/// @param list            animals of `ped`, each once
/// @param virtual_levels  of `diffpedigree`
/// @throws fatal_error  with metafounders: without coefficients, and for an animal with an unknown parent.
[[nodiscard]] crssparse computeadiffsparse(const pedigree_type& ped, std::int32_t effect,
                                           std::span<const std::int32_t> list,
                                           std::span<const std::int32_t> virtual_levels, logger& log);

}  // namespace zendar
