#include <cmath>
#include <string>

#include "modbasic.hpp"
#include "modparameters_utils.hpp"
#include "modparameters_utils_lines.hpp"
#include "modparameters_utils_triplets.hpp"

namespace zendar {
namespace {

using detail::block_file;
using detail::triplet_rows;

constexpr const char* module_tag = "modparameters_utils";
constexpr const char* procedure_tag = "readcootoija";

}  // namespace

crssparse readcootoija(const std::string& file, std::int32_t n, logger& log) {
    const std::string name(trim(file));
    log.message("External matrix");
    log.message("File name: " + name);
    block_file text({});
    triplet_rows elements =
        detail::read_symmetric_file(text, name, n, "external matrix", "External matrix", procedure_tag, log);
    log.message("Temporary memory (MB): " + realtochar(mib(elements.bytes()), "(f0.2)"));
    if (const std::int32_t row = elements.merge(detail::merge_symmetric); row > 0) {
        const detail::triplet_conflict conflict = detail::find_conflict(elements.row(row));
        const std::string i = inttochar(row), j = inttochar(conflict.column);
        if (std::isfinite(conflict.upper) && std::isfinite(conflict.lower))
            fatal(log,
                  "The elements (" + i + "," + j + ") and (" + j + "," + i + ") of the external matrix " +
                      name + " are not equal: " + realtochar(conflict.upper, "(g0)") + " and " +
                      realtochar(conflict.lower, "(g0)"),
                  module_tag, procedure_tag);
        fatal(log,
              "The values of the element (" + i + "," + j + ") of the external matrix " + name +
                  " do not have a finite sum",
              module_tag, procedure_tag);
    }
    crssparse crs = elements.to_crs(n, true, log);
    log.message("Memory (MB)          : " + realtochar(crs.getmem() / 1048576.0, "(f0.2)"));
    return crs;
}

}  // namespace zendar
