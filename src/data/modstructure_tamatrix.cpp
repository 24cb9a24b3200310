#include <algorithm>
#include <array>
#include <limits>
#include <numeric>

#include "modbasic.hpp"
#include "modstructure_external_detail.hpp"

namespace zendar {
namespace {

using detail::element_grid;
using detail::external_file;
using detail::record_fault;
using detail::record_fault_kind;

constexpr std::int32_t any_index = std::numeric_limits<std::int32_t>::max();

/// Raises a maximum; called by several threads.
void raise(std::atomic<std::int64_t>& maximum, std::int64_t value) {
    std::int64_t before = maximum.load(std::memory_order_relaxed);
    while (before < value && !maximum.compare_exchange_weak(before, value, std::memory_order_relaxed)) {
    }
}

std::string too_few(std::int64_t lines, std::int64_t rows, std::int64_t columns) {
    return inttochar(lines) + " lines are too few for " + inttochar(rows) + " x " + inttochar(columns) +
           " elements";
}

// ---- Ta --------------------------------------------------------------------------------------------------

void report_tamatrix(logger& log, std::int64_t maximum, std::int64_t nanimal, std::int64_t ncolumn) {
    log.message("    Maximum level               : " + inttochar(maximum));
    log.message("Number of animals           : " + inttochar(nanimal));
    log.message("Number of columns           : " + inttochar(ncolumn));
}

/// The size comes behind the check of the other figures.
void allocate_tamatrix(const external_file& file, std::int64_t nanimal, std::int64_t ncolumn, double value,
                       matrix<double>& m) {
    file.log.message("Effective size of the matrix: " + inttochar(nanimal * ncolumn));
    file.announce(nanimal * ncolumn * static_cast<std::int64_t>(sizeof(double)));
    m = matrix<double>(ncolumn, nanimal, value);
}

void read_tamatrix_text(const external_file& file, std::int32_t declared, tamatrix_type& tamatrix) {
    const detail::external_text text(file, declared, any_index);
    std::vector<unsigned char> marks(static_cast<std::size_t>(declared), 0);
    std::atomic<std::int64_t> last = 0;
    text.for_each_position([&](const std::int64_t(&position)[2], record_fault&) {
        detail::mark_level(marks, position[0]);
        raise(last, position[1]);
    });
    tamatrix.levels = detail::marked_levels(marks);
    const std::int64_t nanimal = tamatrix.levels.size(), ncolumn = last;
    report_tamatrix(file.log, tamatrix.levels.maximum(), nanimal, ncolumn);
    if (detail::is_too_large(nanimal * ncolumn, text.lines()))
        file.stop_at_kind("_tri", too_few(text.lines(), nanimal, ncolumn));
    allocate_tamatrix(file, nanimal, ncolumn, element_grid::gap, tamatrix.value);
    element_grid grid(tamatrix.value.values());
    text.for_each_element([&](const std::int64_t(&position)[2], double value, record_fault& fault) {
        const std::int64_t animal = tamatrix.levels.position[position[0] - 1] - 1;
        if (animal < 0 || position[1] > ncolumn)
            fault.set(record_fault_kind::file_changed, 0);
        else
            grid.put(position[1] - 1 + animal * ncolumn, value);
    });
    if (const std::int64_t k = grid.repeat(); k >= 0)
        text.stop_at_repeat(tamatrix.levels.level[k / ncolumn], static_cast<std::int32_t>(k % ncolumn + 1),
                            false);
    grid.fill_gaps();
}

void read_tamatrix_stream(const external_file& file, std::int32_t declared, tamatrix_type& tamatrix) {
    detail::external_stream stream(file);
    std::array<std::int32_t, 3> sizes{};
    stream.read(std::span<std::int32_t>(sizes));
    const auto [maximum, nanimal, ncolumn] = sizes;
    report_tamatrix(file.log, maximum, nanimal, ncolumn);
    if (nanimal < 1 || ncolumn < 1 || nanimal > declared)
        file.stop_at_kind("stream", "It tells of " + inttochar(nanimal) + " animals and " +
                                        inttochar(ncolumn) + " columns");
    stream.expect(nanimal, std::int64_t{nanimal} * ncolumn);
    tamatrix.levels = stream.read_levels(nanimal, maximum, declared);
    allocate_tamatrix(file, nanimal, ncolumn, 0.0, tamatrix.value);
    stream.read(tamatrix.value.values());
}

// ---- K ---------------------------------------------------------------------------------------------------

void read_square_text(const external_file& file, densesquare_type& square) {
    detail::external_text text(file, any_index, any_index);
    std::int64_t n = text.take_size();
    const std::int64_t header = n > 0 ? 1 : 0, lines = text.lines() - header;
    if (n > 0) text.set_limits(static_cast<std::int32_t>(n), static_cast<std::int32_t>(n));
    std::atomic<std::int64_t> last = n;
    text.for_each_position([&](const std::int64_t(&position)[2], record_fault& fault) {
        if (position[0] < position[1])
            return detail::set_element_fault(fault, detail::above_diagonal, position);
        raise(last, position[0]);
    });
    n = last;
    if (detail::is_too_large(n * (n + 1) / 2, lines)) file.stop_at_kind("_tri", too_few(lines, n, n));
    file.announce(n * n * static_cast<std::int64_t>(sizeof(double)));
    square.n = static_cast<std::int32_t>(n);
    square.value = matrix<double>(n, n, element_grid::gap);
    element_grid grid(square.value.values());
    text.for_each_element([&](const std::int64_t(&position)[2], double value, record_fault& fault) {
        if (position[0] > n || position[1] > position[0])
            fault.set(record_fault_kind::file_changed, 0);
        else
            grid.put(position[1] - 1 + (position[0] - 1) * n, value);
    });
    if (const std::int64_t k = grid.repeat(); k >= 0)
        text.stop_at_repeat(static_cast<std::int32_t>(k / n + 1), static_cast<std::int32_t>(k % n + 1), true);
    detail::complete_symmetric(square.value);
}

void read_square_stream(const external_file& file, densesquare_type& square) {
    detail::external_stream stream(file);
    std::int32_t n = 0;
    stream.read(std::span<std::int32_t>(&n, 1));
    if (n < 1) file.stop_at_kind("stream", inttochar(n) + " is no size of a matrix");
    stream.expect(0, std::int64_t{n} * (std::int64_t{n} + 1) / 2);
    file.announce(std::int64_t{n} * n * static_cast<std::int64_t>(sizeof(double)));
    square.n = n;
    square.value = stream.read_triangle(n);
}

}  // namespace

void readtamatrix(const param_type& param, std::int32_t e, const std::string& file, tamatrix_type& tamatrix,
                  logger& log) {
    const std::int32_t declared = declared_levels(param, e);
    const external_file source = detail::begin_external(e, declared, file, "Ta matrix", "readtamatrix", log);
    if (source.ends_with("_tri"))
        read_tamatrix_text(source, declared, tamatrix);
    else if (source.ends_with(".stream"))
        read_tamatrix_stream(source, declared, tamatrix);
    else
        fatal(log, "This format for the Ta matrix of effect " + inttochar(e) + " is not implemented!",
              detail::external_module, source.procedure);
}

void readktamatrix(const param_type& param, std::int32_t e, const std::string& file, ktmatrix_type& kt,
                   logger& log) {
    const external_file source =
        detail::begin_external(e, declared_levels(param, e), file, "K matrix", "readktamatrix", log);
    log.message("Name of the K matrix read: " + source.name);
    if (source.ends_with("_tri"))
        read_square_text(source, kt.k);
    else if (source.ends_with(".stream"))
        read_square_stream(source, kt.k);
    else
        fatal(log, "This type of file is not supported: " + source.name, detail::external_module,
              source.procedure);
    kt.levels.resize(static_cast<std::size_t>(kt.k.n));
    std::iota(kt.levels.begin(), kt.levels.end(), 1);
}

}  // namespace zendar
