#include "modbasic.hpp"
#include "modfile.hpp"
#include "modpedigree_lines.hpp"
#include "modpedigree_partition.hpp"

namespace zendar {

std::vector<std::int32_t> readlevels(const std::string& file, std::int32_t nanimal, logger& log) {
    using detail::record_fault;
    using detail::record_fault_kind;
    constexpr const char* module_tag = "modpedigree";
    constexpr const char* procedure = "readlevels";
    const std::string name(trim(file));
    text_reader input;
    if (const auto failure = input.open(name)) detail::stop_unreadable(name, *failure, procedure, log);
    std::vector<std::int32_t> levels;
    std::vector<std::int64_t> line_of(static_cast<std::size_t>(nanimal), 0);
    std::string text;
    while (const auto line = input.line()) {
        if (trim(*line).empty()) continue;
        const auto stop = [&](int status, const std::string& why) {
            fatal_io(log, "Level not correctly read at line " + inttochar(input.line_number()), module_tag,
                     procedure, status, "File " + name + ": " + why);
        };
        text.assign(*line);
        text += '\n';
        std::int64_t level = 0;
        record_fault fault;
        detail::parse_integer(text.c_str(), 1, level, fault);
        if (fault.kind != record_fault_kind::none) stop(detail::status_of(fault), detail::describe(fault, 1));
        if (level < 1 || level > nanimal)
            stop(1,
                 "the level " + inttochar(level) + " is not one of the animals 1 to " + inttochar(nanimal));
        std::int64_t& before = line_of[static_cast<std::size_t>(level - 1)];
        if (before > 0)
            stop(1, "the level " + inttochar(level) + " stands on line " + inttochar(before) + " already");
        before = input.line_number();
        levels.push_back(static_cast<std::int32_t>(level));
    }
    if (const auto failure = input.error()) detail::stop_unreadable(name, *failure, procedure, log);
    if (levels.empty()) fatal(log, "The file " + name + " holds no level", module_tag, procedure);
    return levels;
}

}  // namespace zendar
