#include "modmetis.hpp"

#include <metis.h>

#include <string>
#include <type_traits>
#include <utility>

#include "modsparse.hpp"

namespace zendar {

static_assert(std::is_same_v<idx_t, std::int32_t>, "METIS with 32-bit integers is needed");
static_assert(std::tuple_size_v<metis_option_array> == METIS_NOPTIONS);

std::int32_t metis_setoptions(metis_option_array& array, const metis_options& options) {
    const std::int32_t status = METIS_SetDefaultOptions(array.data());
    const std::pair<moptions_et, std::optional<std::int32_t>> given[] = {
        {METIS_OPTION_CTYPE, options.ctype},       {METIS_OPTION_IPTYPE, options.iptype},
        {METIS_OPTION_RTYPE, options.rtype},       {METIS_OPTION_DBGLVL, options.dbglvl},
        {METIS_OPTION_NITER, options.niter},       {METIS_OPTION_SEED, options.seed},
        {METIS_OPTION_NO2HOP, options.no2hop},     {METIS_OPTION_COMPRESS, options.compress},
        {METIS_OPTION_CCORDER, options.ccorder},   {METIS_OPTION_PFACTOR, options.pfactor},
        {METIS_OPTION_NSEPS, options.nseps},       {METIS_OPTION_UFACTOR, options.ufactor},
        {METIS_OPTION_NUMBERING, options.numbering},
    };
    for (const auto& [place, value] : given)
        if (value) array[place] = *value;
    return status;
}

void metis_checkerror(std::string_view phase, std::int32_t status, logger* unlog) {
    if (status == METIS_OK) return;
    std::string text = " The following error for phase ";
    text += phase;
    text += " was detected: ";
    switch (status) {
        case METIS_ERROR_INPUT: text += " METIS_ERROR_INPUT"; break;
        case METIS_ERROR_MEMORY: text += " METIS_ERROR_MEMORY"; break;
        case METIS_ERROR: text += " METIS_ERROR"; break;
        default: text += " UNKNOWN METIS_ERROR"; break;
    }
    if (unlog != nullptr) unlog->message(text);
    throw fatal_error(text);
}

metis_ordering metis_nodend(const metisgraph& graph, logger* unlog) {
    metis_ordering order;
    idx_t n = graph.n;
    if (n == 0) return order;  // the library would divide by it
    metis_option_array options;
    metis_checkerror("METIS_SetDefaultOptions", metis_setoptions(options, {.seed = 1, .pfactor = 50}), unlog);
    order.perm.resize(static_cast<std::size_t>(n));
    order.iperm.resize(static_cast<std::size_t>(n));
    idx_t none = 0;  // an address for a graph without edges
    idx_t* const neighbours = graph.adjncy.empty() ? &none : const_cast<idx_t*>(graph.adjncy.data());
    const int status = METIS_NodeND(&n, const_cast<idx_t*>(graph.xadj.data()), neighbours, nullptr,
                                    options.data(), order.perm.data(), order.iperm.data());
    metis_checkerror("METIS_NodeND", status, unlog);
    return order;
}

}  // namespace zendar
