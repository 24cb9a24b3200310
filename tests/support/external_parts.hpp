#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "random_model.hpp"
#include "temporary_directory.hpp"

/// Matrices of the options `!gima22i`, `!gapy`, `!qptransfo`, `!tamatrix`, `!tageno` and `!acrosseff` for the
/// random effects of a random model, as files and as what they add to its dense equations.
namespace zendar::test {

struct external_choice {
    bool in_memory = false;  ///< only what the equations in memory take
    bool pedigree = false;   ///< only what the iteration on the pedigree takes
};

/// K between the levels of an effect.
struct external_part {
    std::string option;
    std::int32_t effect = 0;
    matrix<double> k;     ///< levels x levels
    matrix<double> a22i;  ///< its share of A22^-1, weight included
    matrix<double> rest;  ///< k - a22i
    std::vector<std::int32_t> levels;
    matrix<double> snp;  ///< SNPs x levels: L'^-1 Ta, of `!tamatrix` and `!tageno`
};

struct external_parts {
    std::vector<external_part> parts;
    matrix<double> across;           ///< what blocks across effects add to the equations
    std::vector<std::string> lines;  ///< option lines
    std::vector<std::pair<std::string, std::string>> files;  ///< names and contents

    [[nodiscard]] std::string options() const;
    void write(const temporary_directory& directory) const;
    /// C of the model and all this.
    [[nodiscard]] matrix<double> equations(const random_model& model) const;
};

/// L of L L' = m, by its definition.
[[nodiscard]] matrix<double> cholesky(const matrix<double>& m);
[[nodiscard]] matrix<double> product(const matrix<double>& a, const matrix<double>& b);
[[nodiscard]] matrix<double> transposed(const matrix<double>& a);
/// Ta = L^-1 W' A22^-1 / beta
[[nodiscard]] matrix<double> ta_of(const matrix<double>& l, const matrix<double>& w,
                                   const matrix<double>& a22i, double beta);
/// "row column value"
[[nodiscard]] std::string element_line(std::int32_t i, std::int32_t j, double v);

[[nodiscard]] external_parts random_external(const random_model& model, const external_choice& choice,
                                             std::uint64_t seed);

}  // namespace zendar::test
