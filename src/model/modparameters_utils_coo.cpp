#include <algorithm>
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

/// Row and column of a line, both from 1 to n.
const char* parse_position(const char* p, std::int32_t n, std::int64_t (&position)[2], record_fault& fault) {
    for (int k = 0; k < 2; ++k) {
        p = detail::parse_integer(p, k + 1, position[k], fault);
        if (fault.kind != record_fault_kind::none) return p;
        if (position[k] >= 1 && position[k] <= n) continue;
        fault.set(record_fault_kind::out_of_range, k + 1, inttochar(position[k]));
        fault.limit = n;
        return p;
    }
    return p;
}

/// The value behind the position, and nothing else.
const char* parse_value(const char* p, double& value, record_fault& fault) {
    const char* const first = p;
    p = detail::parse_record(p, {&value, 1}, fault);
    if (fault.kind == record_fault_kind::blank_line) fault.kind = record_fault_kind::short_line;
    if (fault.kind != record_fault_kind::none) {
        fault.value += 2;
        return p;
    }
    if (!std::isfinite(value)) {
        fault.set(record_fault_kind::not_finite, 3, detail::record_word(first, 1));
        return p;
    }
    if (detail::count_values(first, p) != 1) {
        fault.set(record_fault_kind::more_values, 0);
        return p;
    }
    return detail::parse_line_end(p, fault);
}

void read_all(const block_file& text, const std::string& file, const detail::line_parser& parse,
              logger& log) {
    const record_fault fault = detail::read_lines(text, text.lines(), parse);
    if (fault.kind != record_fault_kind::none)
        fatal_io(log, "External matrix not correctly read at line " + inttochar(fault.line), module_tag,
                 procedure_tag, detail::status_of(fault), "File " + file + ": " + detail::describe(fault, 3));
}

triplet_rows read_elements(const block_file& text, std::int32_t n, const std::string& file, logger& log) {
    triplet_rows elements(n);
    read_all(
        text, file,
        [&](const char* p, std::int64_t, record_fault& fault) {
            std::int64_t position[2] = {};
            p = parse_position(p, n, position, fault);
            if (fault.kind == record_fault_kind::none)
                elements.count(static_cast<std::int32_t>(std::min(position[0], position[1])));
            return p;
        },
        log);
    elements.allocate();
    read_all(
        text, file,
        [&](const char* p, std::int64_t, record_fault& fault) {
            std::int64_t position[2] = {};
            double value = 0.0;
            p = parse_position(p, n, position, fault);
            if (fault.kind == record_fault_kind::none) p = parse_value(p, value, fault);
            if (fault.kind != record_fault_kind::none) return p;
            const auto row = static_cast<std::int32_t>(std::min(position[0], position[1]));
            const auto column = static_cast<std::int32_t>(std::max(position[0], position[1]));
            if (!elements.put(row, position[0] > position[1] ? -column : column, value))
                fault.set(record_fault_kind::file_changed, 0);
            return p;
        },
        log);
    return elements;
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

    triplet_rows elements = read_elements(text, n, name, log);
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
