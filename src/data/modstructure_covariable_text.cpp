#include <algorithm>
#include <cmath>
#include <cstring>
#include <string_view>
#include <utility>

#include "modbasic.hpp"
#include "modparameters_utils_triplets.hpp"
#include "modstructure_covariable_detail.hpp"

namespace zendar::detail {
namespace {

constexpr std::int64_t longest_line = std::int64_t{1} << 30;  ///< a row of genotypes may be very long

void open_indexed(block_file& text, const covariable_file& file, logger& log) {
    if (const auto failure = text.open(file.name)) stop_unreadable(file, *failure, log);
    if (text.empty())
        fatal(log, "The coefficient file " + file.name + " of effect " + inttochar(file.e) + " is empty",
              covariable_module, covariable_procedure);
    if (const auto failure = text.index_lines(0)) stop_unreadable(file, *failure, log);
}

/// Reads all lines, which have `columns` values, and stops at the first bad one.
void read_all(const block_file& text, const covariable_file& file, std::int64_t columns,
              const line_parser& parse, logger& log) {
    const record_fault fault = read_lines(text, text.lines(), parse);
    if (fault.kind != record_fault_kind::none)
        stop_at_line(file, fault.line, status_of(fault), describe(fault, columns), log);
}

/// Value number `which`, an integer from 1 to `limit`.
const char* parse_number_upto(const char* p, std::int64_t which, std::int64_t limit, std::int64_t& number,
                              record_fault& fault) {
    const char* const stop = parse_integer(p, which, number, fault);
    if (fault.kind == record_fault_kind::none && (number < 1 || number > limit)) {
        fault.set(record_fault_kind::out_of_range, which, inttochar(number));
        fault.limit = limit;
    }
    return stop;
}

/// The first word of each line.
std::vector<std::int32_t> read_ids(const block_file& text, const covariable_file& file, std::int64_t columns,
                                   logger& log) {
    std::vector<std::int32_t> ids(static_cast<std::size_t>(text.lines()));
    read_all(
        text, file, columns,
        [&](const char* p, std::int64_t line, record_fault& fault) {
            std::int64_t id = 0;
            p = parse_number_upto(p, 1, file.largest_id(), id, fault);
            ids[line - 1] = static_cast<std::int32_t>(id);
            return p;
        },
        log);
    return ids;
}

/// Items of the first line.
std::int64_t count_columns(const block_file& text, const covariable_file& file, logger& log) {
    std::int64_t columns = 0;
    const record_fault fault = read_lines(text, 1, [&columns](const char* p, std::int64_t, record_fault&) {
        const char* end = p;
        while (*end != '\n') ++end;
        columns = count_items({p, static_cast<std::size_t>(end - p)});
        return end;
    });
    if (fault.kind != record_fault_kind::none)
        stop_at_line(file, fault.line, status_of(fault), describe(fault, columns), log);
    return columns;
}

/// The values behind the id, which is value 1 of its line. `row` has their number.
const char* parse_coefficients(const char* p, std::span<double> row, record_fault& fault) {
    const char* const first = p;
    p = parse_record(p, row, fault);
    if (fault.kind != record_fault_kind::none) {
        if (fault.kind == record_fault_kind::blank_line) fault.kind = record_fault_kind::short_line;
        ++fault.value;
        return p;
    }
    for (std::size_t k = 0; k < row.size(); ++k)
        if (!std::isfinite(row[k])) {
            const auto which = static_cast<std::int64_t>(k) + 1;
            const std::string_view word = record_word(first, which);
            fault.set(record_fault_kind::not_finite, which + 1, word);
            return p;
        }
    // A repeat count may promise more values than there is place for.
    const auto bytes = static_cast<std::size_t>(p - first);
    if (std::memchr(first, '*', bytes) != nullptr && count_values(first, p) != std::ssize(row))
        fault.set(record_fault_kind::more_values, 0);
    return fault.kind == record_fault_kind::none ? parse_line_end(p, fault) : p;
}

/// The places of the entries of a ".sparse" file: rows are numbered by rising id.
struct sparse_rows {
    std::vector<std::int32_t> indice;
    std::int32_t count = 0;
};

sparse_rows number_rows(std::span<const std::int32_t> ids, const covariable_file& file) {
    sparse_rows rows;
    const std::int32_t size = file.n_level > 0 ? file.n_level : *std::ranges::max_element(ids);
    rows.indice.assign(static_cast<std::size_t>(size), 0);
    for (const std::int32_t id : ids) rows.indice[id - 1] = 1;
    for (std::int32_t& place : rows.indice)
        if (place > 0) place = ++rows.count;
    return rows;
}

/// Reads the lines into `entries`, by row.
void read_entries(const block_file& text, const covariable_file& file, std::span<const std::int32_t> indice,
                  triplet_rows& entries, logger& log) {
    read_all(
        text, file, 3,
        [&](const char* p, std::int64_t, record_fault& fault) {
            std::int64_t id = 0, coefficient = 0;
            p = parse_number_upto(p, 1, std::ssize(indice), id, fault);
            if (fault.kind != record_fault_kind::none) return p;
            p = parse_number_upto(p, 2, file.n_cov, coefficient, fault);
            if (fault.kind != record_fault_kind::none) return p;
            double value = 0.0;
            p = parse_coefficients(p, {&value, 1}, fault);
            if (fault.kind != record_fault_kind::none) {
                ++fault.value;  // behind two values
                return p;
            }
            if (!entries.put(indice[id - 1], static_cast<std::int32_t>(coefficient), value))
                fault.set(record_fault_kind::file_changed, 0);
            return p;
        },
        log);
}

}  // namespace

covariable_data read_covariable_text(const covariable_file& file, const reading_sizes& sizes, logger& log) {
    reading_sizes long_lines = sizes;
    long_lines.longest_record = longest_line;
    block_file text(long_lines);
    open_indexed(text, file, log);
    if (!std::in_range<std::int32_t>(text.lines()))
        fatal(log,
              "The coefficient file " + file.name + " of effect " + inttochar(file.e) +
                  " has more than 2147483647 lines",
              covariable_module, covariable_procedure);
    const std::int64_t columns = count_columns(text, file, log);
    const std::vector<std::int32_t> ids = read_ids(text, file, columns, log);
    report_covariable(file, text.lines(), columns - 1, *std::ranges::max_element(ids), log);
    check_ncol_checkval(file.e, columns - 1, file.n_cov, log);

    covariable_data data;
    covariable_rows rows = rows_by_id(ids, file.n_level);
    if (rows.repeated > 0) {
        const std::int32_t id = ids[rows.repeated - 1];
        stop_at_line(
            file, rows.repeated, 1,
            "the id " + inttochar(id) + " stands in line " + inttochar(rows.indice[id - 1]) + " as well",
            log);
    }
    data.indice = std::move(rows.indice);
    data.value = allocate_coefficients(file, columns - 1, text.lines(), log);
    read_all(
        text, file, columns,
        [&](const char* p, std::int64_t line, record_fault& fault) {
            std::int64_t id = 0;
            p = parse_integer(p, 1, id, fault);
            return fault.kind == record_fault_kind::none
                       ? parse_coefficients(p, data.value.column(line - 1), fault)
                       : p;
        },
        log);
    return data;
}

covariable_data read_covariable_sparse(const covariable_file& file, const reading_sizes& sizes, logger& log) {
    block_file text(sizes);
    open_indexed(text, file, log);
    covariable_data data;
    std::int32_t nrow = 0;
    triplet_rows entries(0);
    {
        const std::vector<std::int32_t> ids = read_ids(text, file, 3, log);
        sparse_rows rows = number_rows(ids, file);
        report_covariable(file, rows.count, std::nullopt, *std::ranges::max_element(ids), log);
        nrow = rows.count;
        entries = triplet_rows(nrow);
        for (const std::int32_t id : ids) entries.count(rows.indice[id - 1]);
        data.indice = std::move(rows.indice);
    }
    entries.allocate();
    read_entries(text, file, data.indice, entries, log);
    const std::int32_t bad = entries.merge(merge_sum);
    if (bad > 0)
        fatal(log,
              "The coefficients of the level " +
                  inttochar(std::ranges::find(data.indice, bad) - data.indice.begin() + 1) + " in the file " +
                  file.name + " do not have a finite sum",
              covariable_module, covariable_procedure);
    if (!file.dense) {
        data.sparse = entries.to_crs(file.n_cov, false, log);
        return data;
    }
    data.value = allocate_coefficients(file, file.n_cov, nrow, log);
    for (std::int32_t row = 1; row <= nrow; ++row)
        for (const triplet& entry : entries.row(row)) data.value(entry.key - 1, row - 1) = entry.value;
    return data;
}

}  // namespace zendar::detail
