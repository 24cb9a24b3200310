#include <algorithm>
#include <array>

#include "modbasic.hpp"
#include "modstructure_external_detail.hpp"

namespace zendar {

std::int64_t apy::bytes() const {
    return (std::ssize(core.values()) + std::ssize(cross.values()) + std::ssize(diagonal)) *
           static_cast<std::int64_t>(sizeof(double));
}

namespace {

using detail::element_grid;
using detail::external_file;
using detail::record_fault;
using detail::record_fault_kind;

void allocate(apy& gapy, double value, const external_file& file, std::int64_t lines) {
    const std::int64_t nother = gapy.levels.size() - gapy.ncore;
    const std::int64_t elements = gapy.ncore * gapy.levels.size() + nother;
    if (detail::is_too_large(elements - gapy.ncore * (gapy.ncore - 1) / 2, lines))
        file.stop_at_kind("_tri", inttochar(lines) + " lines are too few for " + inttochar(gapy.ncore) +
                                      " core levels and " + inttochar(nother) + " others");
    file.announce(elements * static_cast<std::int64_t>(sizeof(double)));
    gapy.core = matrix<double>(gapy.ncore, gapy.ncore, value);
    gapy.cross = matrix<double>(gapy.ncore, nother, value);
    gapy.diagonal.assign(static_cast<std::size_t>(nother), value);
}

/// The core levels, then the others that are marked.
matrix_levels core_and_others(matrix_levels core, std::span<const unsigned char> marks) {
    for (std::int64_t k = 0; k < std::ssize(marks); ++k) {
        if (marks[k] == 0 || core.position[k] > 0) continue;
        core.level.push_back(static_cast<std::int32_t>(k + 1));
        core.position[k] = static_cast<std::int32_t>(core.size());
    }
    return core;
}

/// Stops when an element was put twice into one of the three parts.
void check_repeats(const detail::external_text& text, const apy& gapy,
                   std::span<const element_grid* const, 3> grids) {
    const auto level = [&](std::int64_t k) { return gapy.levels.level[k]; };
    const std::int64_t n = gapy.ncore;
    if (const std::int64_t k = grids[0]->repeat(); k >= 0)
        text.stop_at_repeat(std::max(level(k % n), level(k / n)), std::min(level(k % n), level(k / n)), true);
    if (const std::int64_t k = grids[1]->repeat(); k >= 0)
        text.stop_at_repeat(std::max(level(k % n), level(n + k / n)),
                            std::min(level(k % n), level(n + k / n)), true);
    if (const std::int64_t k = grids[2]->repeat(); k >= 0)
        text.stop_at_repeat(level(n + k), level(n + k), true);
}

void read_text(const external_file& file, std::int32_t declared, apy& gapy) {
    logger& log = file.log;
    const detail::external_text text(file, declared, declared);
    std::vector<unsigned char> marks(static_cast<std::size_t>(declared), 0);
    text.for_each_position([&](const std::int64_t(&position)[2], record_fault&) {
        detail::mark_level(marks, position[0]);
        detail::mark_level(marks, position[1]);
    });
    log.message("    Maximum level              : " + inttochar(detail::marked_levels(marks).maximum()));
    log.message("Number of lines in the file: " + inttochar(text.lines()));
    const external_file list{file.name + "_core", file.kind, file.procedure, log};
    std::int64_t lines = 0;
    matrix_levels core = detail::read_level_lines(list, declared, lines);
    gapy.ncore = core.size();
    gapy.levels = core_and_others(std::move(core), marks);
    log.message("   Number of core animals: " + inttochar(gapy.ncore));
    log.message("   Effective size of the matrix: " + inttochar(gapy.levels.size()));

    allocate(gapy, element_grid::gap, file, text.lines());
    element_grid among_core(gapy.core.values()), with_core(gapy.cross.values()), others(gapy.diagonal);
    const std::int64_t n = gapy.ncore;
    const std::span<const std::int32_t> place = gapy.levels.position;
    text.for_each_element([&](const std::int64_t(&position)[2], double value, record_fault& fault) {
        const std::int64_t at0 = place[position[0] - 1] - 1, at1 = place[position[1] - 1] - 1;
        const auto [i, j] = std::minmax(at0, at1);
        if (i < 0) {
            fault.set(record_fault_kind::file_changed, 0);
        } else if (j < n) {
            if (position[0] < position[1])
                return detail::set_element_fault(fault, detail::above_diagonal, position);
            among_core.put(i + j * n, value);
        } else if (i < n) {
            with_core.put(i + (j - n) * n, value);
        } else if (i == j) {
            others.put(i - n, value);
        } else {
            detail::set_element_fault(fault, detail::outside_core, position);
        }
    });
    check_repeats(text, gapy, std::array<const element_grid*, 3>{&among_core, &with_core, &others});
    detail::complete_symmetric(gapy.core);
    with_core.fill_gaps();
    others.fill_gaps();
}

void read_stream(const external_file& file, std::int32_t declared, apy& gapy) {
    logger& log = file.log;
    detail::external_stream stream(file);
    std::array<std::int32_t, 3> sizes{};
    stream.read(std::span<std::int32_t>(sizes));
    const auto [maximum, ncore, n] = sizes;
    log.message("    Maximum level               : " + inttochar(maximum));
    log.message("Number of core animals      : " + inttochar(ncore));
    log.message("Effective size of the matrix: " + inttochar(n));
    if (ncore < 1 || n < ncore || n > declared)
        file.stop_at_kind("stream", "It tells of " + inttochar(ncore) + " core levels among " + inttochar(n));
    const std::int64_t nother = std::int64_t{n} - ncore;
    stream.expect(n, std::int64_t{ncore} * (std::int64_t{ncore} + 1) / 2 + ncore * nother + nother);
    gapy.levels = stream.read_levels(n, maximum, declared);
    gapy.ncore = ncore;
    file.announce((std::int64_t{ncore} * n + nother) * static_cast<std::int64_t>(sizeof(double)));
    gapy.core = stream.read_triangle(ncore);
    gapy.cross = matrix<double>(ncore, nother);
    stream.read(gapy.cross.values());
    gapy.diagonal.assign(static_cast<std::size_t>(nother), 0.0);
    stream.read(std::span(gapy.diagonal));
}

}  // namespace

void readgapy(const param_type& param, std::int32_t e, const std::string& file, apy& gapy, logger& log) {
    const std::int32_t declared = declared_levels(param, e);
    const external_file source = detail::begin_external(e, declared, file, "APY", "readgapy", log);
    if (source.ends_with("_tri"))
        read_text(source, declared, gapy);
    else if (source.ends_with(".stream"))
        read_stream(source, declared, gapy);
    else
        source.stop_at_form("_tri", "Its name ends neither in _tri nor in .stream");
}

}  // namespace zendar
