#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modenum.hpp"
#include "modparameters.hpp"

namespace zendar::test {

/// A model of one group of animal effects (class effects of 3 levels, random type 3) and, behind it, one
/// group of SNP effects.
struct snp_choice {
    std::int32_t ntrait = 1;
    std::int32_t nanimal = 1;              ///< animal effects
    std::vector<std::int32_t> nsnp = {3};  ///< per SNP effect
    std::int32_t type_random = 20;
    std::string covariance = "compute";    ///< name of the covariance file
    std::vector<std::int32_t> links = {};  ///< of the SNP effects
    std::string outputdir = ".";
};

inline param_type snp_model(const snp_choice& choice) {
    param_type param;
    param.ntrait = choice.ntrait;
    const auto nhuge = static_cast<std::int32_t>(choice.nsnp.size());
    param.neffect = choice.nanimal + nhuge;
    allocpar(param);
    param.nhuge = nhuge;
    for (std::int32_t e = 1; e <= param.neffect; ++e)
        for (std::int32_t t = 0; t < param.ntrait; ++t) param.pos_effects(t, e - 1) = 1;
    for (std::int32_t e = 1; e <= choice.nanimal; ++e) param.n_level[e - 1] = 3;
    if (choice.nanimal > 0) {
        param.type_random[0] = 3;
        param.n_correlated[0] = choice.nanimal - 1;
        const std::int32_t order = choice.nanimal * choice.ntrait;
        param.dim_g[0] = order;
        param.g[0] = matrix<double>(order, order);
        for (std::int32_t i = 0; i < order; ++i) param.g[0](i, i) = 1.0;
    }
    const std::int32_t e = choice.nanimal + 1;
    for (std::int32_t k = 0; k < nhuge; ++k) {
        param.type_effect[e - 1 + k] = teff_huge_iod;
        param.n_cov[e - 1 + k] = choice.nsnp[k];
    }
    param.type_random[e - 1] = choice.type_random;
    param.n_correlated[e - 1] = nhuge - 1;
    param.ghuge_type[e - 1] = 1;
    param.file[e][0] = choice.covariance;
    param.link_effect[e - 1] = choice.links;
    param.outputdir = choice.outputdir;
    captured_log log;
    setsumlevel(param, log);
    return param;
}

}  // namespace zendar::test
