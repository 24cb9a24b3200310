#include <cmath>
#include <string>

#include "modbasic.hpp"
#include "modparameters_utils.hpp"
#include "modparameters_utils_lines.hpp"
#include "modparameters_utils_triplets.hpp"

namespace zendar {
namespace {

using detail::block_file;
using detail::record_fault;
using detail::record_fault_kind;
using detail::triplet_rows;

constexpr const char* module_tag = "modparameters_utils";
constexpr const char* procedure_tag = "readcootoija";

[[noreturn]] void stop_unreadable(const std::string& file, const file_error& failure, logger& log) {
    fatal_io(log, "The file " + file + " of the external matrix cannot be read", module_tag, procedure_tag,
             failure.iostat, failure.iomsg);
}

}  // namespace

crssparse readcootoija(const std::string& file, std::int32_t n, logger& log) {
    const std::string name(trim(file));
    log.message("External matrix");
    log.message("File name: " + name);
    block_file text({});
    if (const auto failure = text.open(name)) stop_unreadable(name, *failure, log);
    if (text.empty())
        fatal(log, "The file " + name + " of the external matrix is empty", module_tag, procedure_tag);
    if (const auto failure = text.index_lines(0)) stop_unreadable(name, *failure, log);

    triplet_rows elements(n);
    const record_fault fault = detail::read_symmetric_triplets(text, elements);
    if (fault.kind != record_fault_kind::none)
        fatal_io(log, "External matrix not correctly read at line " + inttochar(fault.line), module_tag,
                 procedure_tag, detail::status_of(fault), "File " + name + ": " + detail::describe(fault, 3));
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
