#include <algorithm>
#include <string>

#include "miraculix.hpp"
#include "modbasic.hpp"
#include "modenum.hpp"
#include "modparameters_utils.hpp"

namespace zendar {

void readdata_cov_ascii(const param_type& param, std::vector<covariable_type>& cov, logger& log) {
    cov = {};
    const auto is_covariable = [](std::int32_t type) { return type != teff_class; };
    if (std::ranges::none_of(param.type_effect, is_covariable)) return;

    cov.resize(static_cast<std::size_t>(param.neffect));
    std::int64_t bytes = 0;
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (!is_covariable(param.type_effect[e - 1])) continue;
        const std::string file(trim(param.cov_file[e - 1]));
        if (file == "none")
            fatal(log, "The covariable effect " + inttochar(e) + " does not have an associated file!",
                  "modparameters_utils", "readdata_cov_ascii");
        if (covariable_extension(file) == "as_effect") {  // no memory of its own
            readcovariable_aseffect(cov, param, e, log);
            continue;
        }
        readcovariable(cov[e - 1], param, e, log);
        bytes += cov[e - 1].data->bytes();
        if (cov[e - 1].compressed) bytes += miraculix::memory_of(cov[e - 1].compressed.get());
    }
    log.message("Memory (MB) needed for cov   : " + realtochar(mib(bytes), "(f0.2)"));
}

}  // namespace zendar
