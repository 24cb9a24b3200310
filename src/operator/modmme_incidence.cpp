#include "modbasic.hpp"
#include "modenum.hpp"
#include "modgeneral.hpp"
#include "modmme_detail.hpp"
#include "modsparse.hpp"

namespace zendar {

crssparse setup_incidencemat(const mme_input& in, logger& log) {
    param_type param = in.param;
    for (std::int32_t& type : param.type_effect)
        if (type == teff_huge_iod) type = teff_huge;  // whose coefficients come expanded
    const std::int64_t nt = param.ntrait, nrec = in.data.effect.cols();
    if (nrec * nt > std::numeric_limits<std::int32_t>::max())
        fatal(
            log,
            "The incidence matrix has " + inttochar(nrec * nt) + " rows, more than 32-bit indices can count",
            modmme::module_tag, "setup_incidencemat");
    check_levels(param, in.data.effect.view(), log);
    coosparse hash(static_cast<std::int32_t>(nrec * nt), param.neq, 4 * nrec * nt, false, &log);
    record_address record(param);
    const auto observed = [&](std::int64_t rec, std::int64_t t) {
        const std::int32_t combination = in.data.combitrait[static_cast<std::size_t>(rec)];
        return (static_cast<std::uint64_t>(param.combination[combination - 1]) >> t & 1U) != 0;
    };
    for (std::int64_t rec = 0; rec < nrec; ++rec) {
        setaddressx_alter(param, in.data.effect.view(), in.cov, rec + 1, record, log);
        for (std::int32_t e = 1; e <= param.neffect; ++e)
            for (std::int64_t j = 0; j < param.nx[e]; ++j)
                for (std::int64_t t = 0; t < nt; ++t) {
                    const double x = record.x(t, param.pos[e] - 1 + j);
                    if (x == 0.0 || !observed(rec, t)) continue;
                    const std::int64_t slot = param.lcombieff ? param.combieff_trait(t, e - 1) - 1 : t;
                    hash.add(static_cast<std::int32_t>(rec * nt + t + 1),
                             static_cast<std::int32_t>(record.address[e - 1] + j * nt + slot + 1), x);
                }
    }
    return convertfromcootocrs(hash);
}

}  // namespace zendar
