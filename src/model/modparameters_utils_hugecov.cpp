#include <algorithm>
#include <string>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modparameters_utils.hpp"
#include "modstructure_hugecov.hpp"

namespace zendar {
namespace {

constexpr const char* module_tag = "modparameters_utils";
constexpr const char* procedure_tag = "readdata_hugecov_ascii";

}  // namespace

void readdata_hugecov_ascii(const param_type& param, std::span<const covariable_type> cov,
                            std::vector<std::unique_ptr<crssparse>>& ghuge, logger& log) {
    ghuge.clear();
    if (param.nhuge < 1) return;

    ghuge.resize(static_cast<std::size_t>(param.neffect));
    std::int32_t opener = 0, last = 0;  // of the group before
    for (std::int32_t e = param.neffect - param.nhuge + 1; e <= param.neffect; ++e) {
        const std::int32_t type = param.type_random[e - 1];
        if (type == 0) continue;  // fixed, or of a group that another effect opens
        const random_type_entry* entry = find_random_type(type);
        if (entry == nullptr || (entry->covariance != block_covariance::huge &&
                                 entry->covariance != block_covariance::huge_linked))
            fatal(log, "This type of huge effect is not supported: " + inttochar(type), module_tag,
                  procedure_tag);
        if (e <= last)
            fatal(log,
                  "The huge effect " + inttochar(e) +
                      " has an EFFECT_ID of its own, but belongs to the group of "
                      "the effect " +
                      inttochar(opener),
                  module_tag, procedure_tag);
        opener = e;
        last = e + std::max(param.n_correlated[e - 1], 0);

        const bool compute = trim(param.file[e][0]) == "compute";
        ghuge[e - 1] = std::make_unique<crssparse>(compute ? computeghugediag(param, e, cov[e - 1], log)
                                                           : readghugediag(param, e, log));
    }
}

}  // namespace zendar
