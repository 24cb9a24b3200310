#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modsparse_crs.hpp"
#include "modview.hpp"

/// Matrices between the levels of effects that another program has prepared.
///
/// Text files, whose names end in "_tri", hold a line "row column value" for each element. A symmetric matrix
/// stands with its lower triangle, row >= column. Blanks, tabs or one comma separate the values; a line holds
/// nothing else; an element stands once, and one that does not stand is zero. Stream files end in ".stream":
/// little-endian, no record markers, of exactly the length that their sizes ask for.
///
/// All readers stop with `fatal_error` at the first fault, and tell the file and the line.
namespace zendar {

/// The levels of an effect that a matrix has, and their places in it. Other levels take no place.
struct matrix_levels {
    std::vector<std::int32_t> level;  ///< of each place
    std::vector<std::int32_t>
        position;  ///< [level - 1], up to the last declared level: its place from 1, or 0

    [[nodiscard]] std::int64_t size() const { return std::ssize(level); }
    [[nodiscard]] std::int32_t maximum() const;
};

/// Elements by place, held once. A symmetric matrix stands whole when it is dense, and with its upper
/// triangle and every diagonal element when it is sparse; it is sparse when less than an eighth of its
/// elements are in the file and it would be large.
struct external_matrix {
    matrix<double> dense;
    crssparse sparse;

    [[nodiscard]] bool is_sparse() const { return sparse.getdim(1) > 0; }
    /// Element (i, j), from 0; of a sparse symmetric matrix in either triangle.
    [[nodiscard]] double value(std::int64_t i, std::int64_t j) const;
    [[nodiscard]] std::int64_t bytes() const;
};

/// A symmetric matrix on some levels of an effect: `!gima22i`, `!qptransfo`. Levels ascend after a text.
struct gima22i_type {
    matrix_levels levels;
    external_matrix elements;
};

/// A block between the levels of two effects, `!acrosseff`: rows of the first, columns of the second.
struct across_block {
    std::int32_t effect1 = 0, effect2 = 0;
    matrix_levels rows, columns;
    external_matrix elements;
};

/// The inverse of a relationship matrix by the algorithm for proven and young: dense between core levels and
/// between these and the others, diagonal among the others.
struct apy {
    matrix_levels levels;  ///< core levels, in the order of their list, then the others, ascending
    std::int64_t ncore = 0;
    matrix<double> core;           ///< ncore x ncore, symmetric, whole
    matrix<double> cross;          ///< ncore x others
    std::vector<double> diagonal;  ///< of the others

    [[nodiscard]] std::int64_t bytes() const;
};

/// A square symmetric matrix, whole.
struct densesquare_type {
    std::int32_t n = 0;
    matrix<double> value;  ///< n x n
};

/// Ta: a row for each animal, a column for each SNP (Mantysaari et al., 2017).
struct tamatrix_type {
    matrix_levels levels;  ///< of the animals; ascending after a text, in the order of a stream
    matrix<double> value;  ///< columns x animals, so that an animal is contiguous
};

/// K, by which Ta times solutions becomes SNP effects.
struct ktmatrix_type {
    densesquare_type k;
    std::vector<std::int32_t> levels;  ///< 1 .. n
};

/// The levels that matrices of effect e (from 1) may have: its levels, nesting levels, or its covariables.
[[nodiscard]] std::int32_t declared_levels(const param_type& param, std::int32_t e);

// ---- readers ---------------------------------------------------------------------------------------------

/// A text list, one level a line. No level stands twice.
void readlist(const param_type& param, std::int32_t e, const std::string& file, matrix_levels& list,
              logger& log);

/// "_tri" only.
void readgima22i(const param_type& param, std::int32_t e, const std::string& file, gima22i_type& matrix,
                 logger& log);
/// Of the same form, or ".stream":
///   int32    maximal level, number of levels
///   int32    levels
///   float64  lower triangle by rows
void readqptransfo(const param_type& param, std::int32_t e, const std::string& file, gima22i_type& matrix,
                   logger& log);
/// "_tri" only, without triangle: a row is a level of effect e, a column one of effect `linked`.
void readacrosseff(const param_type& param, std::int32_t e, std::int32_t linked, const std::string& file,
                   across_block& block, logger& log);

/// "_tri": the list of core levels stands in the file of the same name with "_core" behind it. The lines are
/// the lower triangle among the core levels, the elements between these and the others, with the indices in
/// either order, and the diagonal of the others.
///
/// ".stream":
///   int32    maximal level, number of core levels, number of levels
///   int32    levels, the core ones first
///   float64  lower triangle among the core levels by rows
///   float64  for each other level its elements with the core levels
///   float64  the diagonal of the others
void readgapy(const param_type& param, std::int32_t e, const std::string& file, apy& gapy, logger& log);

/// "_tri": lines "animal SNP value"; the matrix is held dense, and a text that leaves most of it out is
/// refused.
///
/// ".stream":
///   int32    maximal level, animals, columns
///   int32    levels of the animals
///   float64  for each animal the values of its columns
void readtamatrix(const param_type& param, std::int32_t e, const std::string& file, tamatrix_type& tamatrix,
                  logger& log);

/// As `write_densesquare` writes it. The size at the start of a text may be missing; it then is the largest
/// row.
void readktamatrix(const param_type& param, std::int32_t e, const std::string& file, ktmatrix_type& kt,
                   logger& log);

// ---- writers: a file has its name when it is complete ----------------------------------------------------

void write_list(const matrix_levels& list, const std::string& file, logger& log);
void write_gima22i(const gima22i_type& matrix, const std::string& file, logger& log);
/// As `readqptransfo` reads it; the ending of the name is the form.
void write_symmetric(const gima22i_type& matrix, const std::string& file, logger& log);
void write_acrosseff(const across_block& block, const std::string& file, logger& log);
/// The ending of the name is the form; "_tri" writes the list of core levels, too.
void write_gapy(const apy& gapy, const std::string& file, logger& log);
void write_tamatrix(const tamatrix_type& tamatrix, const std::string& file, logger& log);
/// "_tri": a line with the size, then the lower triangle. ".stream": int32 size, then float64 the lower
/// triangle by rows.
/// @throws fatal_error  for any other format.
void write_densesquare(const densesquare_type& matrix, const std::string& file, std::string_view format,
                       logger& log);

}  // namespace zendar
