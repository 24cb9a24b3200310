#include <algorithm>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modfile.hpp"
#include "modsolveriod_dpcg_comp.hpp"

namespace zendar {

namespace {

constexpr std::string_view module_tag = "modsolveriod";

/// The codes of the single-step SNP effects, which are cut into blocks.
bool has_blocks(const param_type& param, std::int32_t e) {
    return is_huge_effect(param.type_effect[e - 1]) && (param.type_random_eff[e - 1] & ~8) == 22;
}

}  // namespace

subdomains createdeflationmatrix(const param_type& param, logger& log) {
    const std::int32_t ntrait = param.ntrait;
    const std::int64_t block = param.solver.neqblock ? (*param.solver.neqblock)[0] : 0;
    if (block < 1)
        fatal(log, "The number of equations per block for DPCG must be at least 1", module_tag,
              "createdeflationmatrix");
    subdomains z;
    z.of.resize(static_cast<std::size_t>(param.neq));
    for (std::int64_t i = 0; i < param.neq; ++i) z.of[i] = static_cast<std::int32_t>(i % ntrait) + 1;
    z.nsub = ntrait;
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (!has_blocks(param, e)) continue;
        const std::int64_t end = param.sumequation[e + 1];
        for (std::int64_t first = param.sumequation[e]; first + block * ntrait <= end;
             first += block * ntrait) {
            for (std::int64_t i = 0; i < block * ntrait; ++i)
                z.of[first + i] = z.nsub + static_cast<std::int32_t>(i % ntrait) + 1;
            z.nsub += ntrait;
        }
    }
    return z;
}

subdomains deflationmatrix(param_type& param, logger& log) {
    subdomains z;
    const std::string& name = param.solver.deflationmat;
    if (name == "none") {
        z = createdeflationmatrix(param, log);
    } else {
        log.message("Read the deflation vectors from file " + name);
        text_reader in;
        if (const auto error = in.open(name))
            fatal_io(log, "The file of the deflation vectors " + name + " cannot be read", module_tag,
                     "deflationmatrix", error->iostat, error->iomsg);
        z.of.assign(static_cast<std::size_t>(param.neq), 0);
        for (std::int64_t i = 0; i < param.neq; ++i) {
            std::int32_t number = 0;
            if (!list_read(in).get(number).ok()) break;
            if (number < 0 || number > param.neq)
                fatal(log,
                      "File " + name + ": the number " + inttochar(number) + " of equation " +
                          inttochar(i + 1) + " is no subdomain",
                      module_tag, "deflationmatrix");
            z.of[i] = number;
            z.nsub = std::max(z.nsub, number);
        }
        if (z.nsub < 1)
            fatal(log, "The file of the deflation vectors " + name + " has no subdomain", module_tag,
                  "deflationmatrix");
    }
    log.message("Number of blocks: " + inttochar(z.nsub));
    if (!param.solver.neqblock) param.solver.neqblock = {0, 0};
    (*param.solver.neqblock)[1] = z.nsub;
    return z;
}

}  // namespace zendar
