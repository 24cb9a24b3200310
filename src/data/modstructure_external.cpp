#include "modstructure_external.hpp"

#include <algorithm>
#include <cmath>

#include "modbasic.hpp"
#include "modstructure_external_detail.hpp"

namespace zendar {

using detail::external_file;
using detail::record_fault;
using detail::record_fault_kind;

std::int32_t matrix_levels::maximum() const {
    return level.empty() ? 0 : std::ranges::max(level);
}

double external_matrix::value(std::int64_t i, std::int64_t j) const {
    return is_sparse() ? sparse.get(static_cast<std::int32_t>(i + 1), static_cast<std::int32_t>(j + 1))
                       : dense(i, j);
}

std::int64_t external_matrix::bytes() const {
    return is_sparse() ? static_cast<std::int64_t>(sparse.getmem())
                       : std::ssize(dense.values()) * static_cast<std::int64_t>(sizeof(double));
}

std::int32_t declared_levels(const param_type& param, std::int32_t e) {
    const std::int32_t levels = get_nlevel(param, e);
    return levels > 0 ? levels : std::max(param.n_cov[e - 1], 0);
}

void readlist(const param_type& param, std::int32_t e, const std::string& file, matrix_levels& list,
              logger& log) {
    const std::int32_t declared = declared_levels(param, e);
    const external_file source = detail::begin_external(e, declared, file, "levels", "readlist", log);
    std::int64_t lines = 0;
    list = detail::read_level_lines(source, declared, lines);
    log.message("Maximum level for the effect " + inttochar(e) + ": " + inttochar(list.maximum()));
    log.message("Number of lines in the file: " + inttochar(lines));
    log.message("Effective size of the matrix: " + inttochar(list.size()));
}

namespace detail {

void external_file::stop_unreadable(const file_error& failure) const {
    fatal_io(log, "The file " + name + " of the matrix cannot be read", external_module, procedure,
             failure.iostat, failure.iomsg);
}

void external_file::stop_at_form(std::string_view form, const std::string& why, int status) const {
    fatal_io(log, "The file " + name + " is not a " + std::string(form) + " file!", external_module,
             procedure, status, why);
}

void external_file::stop_at_kind(std::string_view form, const std::string& why) const {
    fatal_io(log,
             "The file " + name + " is not a " + std::string(form) + " file for " + std::string(kind) + "!",
             external_module, procedure, 1, why);
}

void external_file::announce(std::int64_t bytes) const {
    log.message("Memory (MB) needed for the matrix: " + realtochar(mib(bytes), "(f0.2)"));
}

external_file begin_external(std::int32_t e, std::int32_t declared, const std::string& file,
                             std::string_view kind, std::string_view procedure, logger& log) {
    std::string name(trim(file));
    log.message("Name of the matrix read for the effect " + inttochar(e) + ": " + name);
    log.message("Number of declared levels   : " + inttochar(declared));
    return {std::move(name), kind, procedure, log};
}

// ---- levels ----------------------------------------------------------------------------------------------

matrix_levels marked_levels(std::span<const unsigned char> marks) {
    matrix_levels levels;
    levels.position.assign(marks.size(), 0);
    for (std::int64_t k = 0; k < std::ssize(marks); ++k) {
        if (marks[k] == 0) continue;
        levels.level.push_back(static_cast<std::int32_t>(k + 1));
        levels.position[k] = static_cast<std::int32_t>(levels.size());
    }
    return levels;
}

matrix_levels listed_levels(std::vector<std::int32_t> list, std::int32_t declared) {
    matrix_levels levels;
    levels.position.assign(static_cast<std::size_t>(declared), 0);
    for (std::int64_t k = 0; k < std::ssize(list); ++k)
        levels.position[list[k] - 1] = static_cast<std::int32_t>(k + 1);
    levels.level = std::move(list);
    return levels;
}

matrix_levels read_level_lines(const external_file& file, std::int32_t declared, std::int64_t& lines) {
    const auto stop = [&](std::int64_t line, const std::string& why, int status = 1) {
        fatal_io(file.log, "Level not correctly read at line " + inttochar(line), external_module,
                 file.procedure, status, "File " + file.name + ": " + why);
    };
    block_file text({});
    if (const auto failure = text.open(file.name)) file.stop_unreadable(*failure);
    if (text.empty())
        fatal(file.log, "The file " + file.name + " holds no level", external_module, file.procedure);
    if (const auto failure = text.index_lines(0)) file.stop_unreadable(*failure);
    lines = text.lines();
    // No level stands twice, so that more lines than levels are a fault of one of the first ones.
    const std::int64_t read = std::min<std::int64_t>(lines, std::int64_t{declared} + 1);
    std::vector<std::int32_t> list(static_cast<std::size_t>(read));
    const record_fault fault =
        read_lines(text, read, [&](const char* p, std::int64_t line, record_fault& found) {
            std::int64_t level = 0;
            p = parse_integer(p, 1, level, found);
            if (found.kind == record_fault_kind::none) p = parse_line_end(p, found);
            if (found.kind == record_fault_kind::none && (level < 1 || level > declared)) {
                found.set(record_fault_kind::out_of_range, 1, inttochar(level));
                found.limit = declared;
            }
            if (found.kind == record_fault_kind::none) list[line - 1] = static_cast<std::int32_t>(level);
            return p;
        });
    if (fault.kind != record_fault_kind::none) stop(fault.line, describe(fault, 1), status_of(fault));
    std::vector<std::int64_t> line_of(static_cast<std::size_t>(declared), 0);
    for (std::int64_t k = 0; k < read; ++k) {
        std::int64_t& before = line_of[list[k] - 1];
        if (before > 0)
            stop(k + 1,
                 "the level " + inttochar(list[k]) + " stands on line " + inttochar(before) + " already");
        before = k + 1;
    }
    return listed_levels(std::move(list), declared);
}

// ---- text ------------------------------------------------------------------------------------------------

namespace {

constexpr const char* tri_form = "_tri";

std::string position_text(std::int64_t row, std::int64_t column) {
    return "(" + inttochar(row) + "," + inttochar(column) + ")";
}

}  // namespace

void set_element_fault(record_fault& fault, int code, const std::int64_t (&position)[2]) {
    fault.set(record_fault_kind::out_of_range, 0, position_text(position[0], position[1]));
    fault.code = code;
}

external_text::external_text(const external_file& file, std::int32_t rows, std::int32_t columns)
    : file_(file), limits_{rows, columns} {
    if (const auto failure = text_.open(file.name)) file.stop_unreadable(*failure);
    if (text_.empty()) file.stop_at_form(tri_form, "The file is empty");
    if (const auto failure = text_.index_lines(0)) file.stop_unreadable(*failure);
}

void external_text::set_limits(std::int32_t rows, std::int32_t columns) {
    limits_[0] = rows;
    limits_[1] = columns;
}

std::int64_t external_text::take_size() {
    std::vector<char> buffer;
    std::string_view line;
    if (const auto failure = text_.first_line_text(buffer, line)) file_.stop_unreadable(*failure);
    record_fault fault;
    std::int64_t size = 0;
    const char* const p = parse_integer(line.data(), 1, size, fault);
    if (fault.kind == record_fault_kind::none) parse_line_end(p, fault);
    if (fault.kind != record_fault_kind::none) return 0;
    if (size < 1 || size > std::numeric_limits<std::int32_t>::max())
        file_.stop_at_form(tri_form, "Line 1: " + inttochar(size) + " is no size of a matrix");
    first_line_ = 2;
    return size;
}

void external_text::check(const record_fault& fault) const {
    if (fault.kind == record_fault_kind::none) return;
    const std::string line = "Line " + inttochar(fault.line) + ": ";
    const std::string element = "the element " + std::string(fault.word.data());
    if (fault.kind != record_fault_kind::out_of_range)
        file_.stop_at_form(tri_form, line + describe(fault, 3), status_of(fault));
    if (fault.code == above_diagonal)
        file_.stop_at_form(tri_form, line + element + " stands above the diagonal");
    if (fault.code == outside_core)
        file_.stop_at_kind(tri_form, line + element + " has no core level and is not on the diagonal");
    file_.stop_at_kind(tri_form, line + describe(fault, 3));
}

void external_text::stop_at_repeat(std::int32_t row, std::int32_t column, bool symmetric) const {
    std::int64_t first = std::numeric_limits<std::int64_t>::max(), second = first;
    read_lines(text_, text_.lines(), [&](const char* p, std::int64_t line, record_fault& fault) {
        std::int64_t position[2] = {};
        if (line < first_line_) return p;
        p = parse_position(p, limits_, position, fault);
        const bool found = (position[0] == row && position[1] == column) ||
                           (symmetric && position[0] == column && position[1] == row);
        if (!found) return p;
#pragma omp critical(zendar_external_repeat)
        {
            second = std::min(second, std::max(first, line));
            first = std::min(first, line);
        }
        return p;
    });
    file_.stop_at_form(tri_form, "Line " + inttochar(second) + ": the element " + position_text(row, column) +
                                     " stands on line " + inttochar(first) + " already");
}

void element_grid::fill_gaps() {
    double* const values = values_.data();
    const std::int64_t n = std::ssize(values_);
#pragma omp parallel for schedule(static) default(none) shared(values, n)
    for (std::int64_t k = 0; k < n; ++k)
        if (std::isnan(values[k])) values[k] = 0.0;
}

void complete_symmetric(matrix<double>& m) {
    constexpr std::int64_t tile = 64;  // both triangles of it stay in the first cache
    const std::int64_t n = m.cols();
    double* const values = m.data();
#pragma omp parallel for schedule(dynamic, 1) default(none) shared(values, n)
    for (std::int64_t tile_j = 0; tile_j < n; tile_j += tile)
        for (std::int64_t tile_i = 0; tile_i <= tile_j; tile_i += tile)
            for (std::int64_t j = tile_j; j < std::min(tile_j + tile, n); ++j)
                for (std::int64_t i = tile_i; i < std::min(tile_i + tile, j + 1); ++i) {
                    double& upper = values[i + j * n];
                    if (std::isnan(upper)) upper = 0.0;
                    values[j + i * n] = upper;
                }
}

namespace {

/// The place of an element, from 0; in the upper triangle of a symmetric matrix. Sets the fault of a file
/// that has got levels since they were looked for.
struct element_place {
    std::int64_t i, j;
};
element_place place_of(const matrix_levels& rows, const matrix_levels& columns, bool symmetric,
                       const std::int64_t (&position)[2], record_fault& fault) {
    element_place at{rows.position[position[0] - 1] - std::int64_t{1},
                     columns.position[position[1] - 1] - std::int64_t{1}};
    if (at.i < 0 || at.j < 0) fault.set(record_fault_kind::file_changed, 0);
    if (symmetric && at.i > at.j) std::swap(at.i, at.j);
    return at;
}

/// Names an element by its levels; one of a symmetric matrix as it stands in the lower triangle.
[[noreturn]] void stop_at_place(const external_text& text, const matrix_levels& rows,
                                const matrix_levels& columns, bool symmetric, std::int64_t i,
                                std::int64_t j) {
    std::int32_t row = rows.level[i], column = columns.level[j];
    if (symmetric && row < column) std::swap(row, column);
    text.stop_at_repeat(row, column, symmetric);
}

matrix<double> read_dense(const external_text& text, const matrix_levels& rows, const matrix_levels& columns,
                          bool symmetric) {
    const std::int64_t nrow = rows.size();
    matrix<double> m(nrow, columns.size(), element_grid::gap);
    element_grid grid(m.values());
    text.for_each_element([&](const std::int64_t(&position)[2], double value, record_fault& fault) {
        const auto [i, j] = place_of(rows, columns, symmetric, position, fault);
        if (fault.kind == record_fault_kind::none) grid.put(i + j * nrow, value);
    });
    if (const std::int64_t k = grid.repeat(); k >= 0)
        stop_at_place(text, rows, columns, symmetric, k % nrow, k / nrow);
    if (symmetric)
        complete_symmetric(m);
    else
        grid.fill_gaps();
    return m;
}

crssparse read_sparse(const external_text& text, const matrix_levels& rows, const matrix_levels& columns,
                      bool symmetric) {
    triplet_rows elements(static_cast<std::int32_t>(rows.size()));
    text.for_each_position([&](const std::int64_t(&position)[2], record_fault& fault) {
        const auto [i, j] = place_of(rows, columns, symmetric, position, fault);
        if (fault.kind == record_fault_kind::none) elements.count(static_cast<std::int32_t>(i + 1));
    });
    elements.allocate();
    text.for_each_element([&](const std::int64_t(&position)[2], double value, record_fault& fault) {
        const auto [i, j] = place_of(rows, columns, symmetric, position, fault);
        if (fault.kind == record_fault_kind::none &&
            !elements.put(static_cast<std::int32_t>(i + 1), static_cast<std::int32_t>(j + 1), value))
            fault.set(record_fault_kind::file_changed, 0);
    });
    if (const std::int32_t row = elements.merge(merge_unique); row > 0) {
        const auto own = elements.row(row);
        const auto twice = std::ranges::adjacent_find(own, {}, &triplet::key);
        stop_at_place(text, rows, columns, symmetric, row - 1, twice->key - 1);
    }
    return elements.to_crs(static_cast<std::int32_t>(columns.size()), symmetric, text.file().log);
}

}  // namespace

external_matrix read_elements(const external_text& text, const matrix_levels& rows,
                              const matrix_levels& columns, bool symmetric) {
    constexpr std::int64_t never_sparse = std::int64_t{1} << 20, elements_of_line = 8;
    const std::int64_t whole = rows.size() * columns.size(), elements = symmetric ? whole / 2 : whole;
    external_matrix m;
    if (elements > never_sparse && elements / elements_of_line > text.lines()) {
        m.sparse = read_sparse(text, rows, columns, symmetric);
        text.file().announce(m.bytes());
    } else {
        text.file().announce(whole * static_cast<std::int64_t>(sizeof(double)));
        m.dense = read_dense(text, rows, columns, symmetric);
    }
    return m;
}

}  // namespace detail
}  // namespace zendar
