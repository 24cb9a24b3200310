#pragma once

#include <cstdint>
#include <vector>

#include "modview.hpp"

namespace zendar {

/// The records of the phenotype file. All matrices have one column per record, so that a record is contiguous.
struct phenotype_data {
    matrix<double> phen;         ///< ntrait x nrec
    matrix<std::int32_t> effect; ///< (neffect + nnested + 1) x nrec: levels, nesting levels, residual class
    std::vector<std::int32_t> combitrait;  ///< nrec: trait combination, from 1
    matrix<double> weight;       ///< ntrait x nrec, or empty
};

/// The coefficients of one covariable effect.
struct covariable_type {
    std::vector<std::int32_t> indice;  ///< [level - 1]: column of `value`, from 1; 0: no coefficients
    matrix<double> value;              ///< coefficients x rows
    bool compressed = false;           ///< the genotypes stand in the compressed store
    bool miraculix = false;            ///< the effect goes through the genotype engine
    std::vector<double> allelefreq;    ///< per coefficient
    std::int64_t nmissing = 0;         ///< missing genotypes

    /// Row of a level, 0 when the level has no coefficients or lies outside the table.
    [[nodiscard]] std::int32_t row_of(std::int32_t level) const {
        return level >= 1 && level <= static_cast<std::int64_t>(indice.size()) ? indice[level - 1] : 0;
    }
};

}  // namespace zendar
