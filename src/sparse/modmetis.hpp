#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "modlogger.hpp"

namespace zendar {

struct metisgraph;

/// Options of METIS by their names there; what is absent keeps the library's default.
struct metis_options {
    std::optional<std::int32_t> ctype{}, iptype{}, rtype{}, dbglvl{}, niter{}, seed{}, no2hop{}, compress{},
        ccorder{}, pfactor{}, nseps{}, ufactor{}, numbering{};
};

using metis_option_array = std::array<std::int32_t, 40>;

/// @returns the status of METIS.
std::int32_t metis_setoptions(metis_option_array& array, const metis_options& options = {});

/// Nothing for METIS_OK (1); for any other status a message to `unlog`, which may be absent.
/// @throws fatal_error  with the text of the message.
void metis_checkerror(std::string_view phase, std::int32_t status, logger* unlog);

/// An order of elimination, counted from 0.
struct metis_ordering {
    std::vector<std::int32_t> perm;   ///< the vertex at each new place
    std::vector<std::int32_t> iperm;  ///< the new place of each vertex
};

/// Nested dissection with a fixed seed. Vertices with more than five times the mean number of neighbours are
/// set aside and ordered last: the few dense rows of fixed effects would spoil the separators.
/// @throws fatal_error  as `metis_checkerror`.
metis_ordering metis_nodend(const metisgraph& graph, logger* unlog);

}  // namespace zendar
