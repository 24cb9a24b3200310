#include <algorithm>
#include <array>
#include <cmath>

#include "modbasic.hpp"
#include "modstructure_covariable_detail.hpp"

namespace zendar::detail {
namespace {

[[noreturn]] void stop_at_format(const covariable_file& file, const std::string& why, logger& log) {
    fatal(log, "The format of the file " + file.name + " is not correct!\n" + why, covariable_module,
          covariable_procedure);
}

[[noreturn]] void stop_at_row(const covariable_file& file, std::int64_t row, const std::string& why,
                              logger& log) {
    stop_at_format(file, "Row " + inttochar(row) + ": " + why, log);
}

/// Rows and coefficients, which account for the length of the file.
std::array<std::int32_t, 2> read_sizes(binary_reader& stream, const covariable_file& file, logger& log) {
    std::array<std::int32_t, 2> sizes{};
    if (!stream.read_values<std::int32_t>(sizes))
        stop_at_format(file, "The file has " + inttochar(stream.size()) + " bytes", log);
    const auto [rows, coefficients] = sizes;
    const std::int64_t left = stream.size() - stream.position();
    const std::int64_t row_bytes = 4 + 8 * std::int64_t{coefficients};
    if (rows < 1 || coefficients < 0 || left % row_bytes != 0 || left / row_bytes != rows)
        stop_at_format(file,
                       "The file has " + inttochar(stream.size()) + " bytes, which do not hold " +
                           inttochar(rows) + " rows of " + inttochar(coefficients) + " coefficients",
                       log);
    return sizes;
}

void check_row(const covariable_file& file, std::int64_t row, std::int32_t id, std::span<const double> values,
               logger& log) {
    if (id < 1 || id > file.largest_id())
        stop_at_row(file, row,
                    "the id " + inttochar(id) + " must lie between 1 and " + inttochar(file.largest_id()),
                    log);
    const auto bad = std::ranges::find_if_not(values, [](double value) { return std::isfinite(value); });
    if (bad != values.end())
        stop_at_row(file, row,
                    "coefficient " + inttochar(bad - values.begin() + 1) + " is not a finite number", log);
}

}  // namespace

covariable_data read_covariable_stream(const covariable_file& file, logger& log) {
    binary_reader stream;
    if (const auto failure = stream.open(file.name)) stop_unreadable(file, *failure, log);
    const auto [rows, coefficients] = read_sizes(stream, file, log);

    covariable_data data;
    data.value = allocate_coefficients(file, coefficients, rows, log);
    std::vector<std::int32_t> ids(static_cast<std::size_t>(rows));
    for (std::int64_t row = 1; row <= rows; ++row) {
        const auto values = data.value.view().column(row - 1);
        if (!stream.read_values<std::int32_t>({&ids[row - 1], 1}) || !stream.read_values(values))
            stop_at_row(file, row, "the file ends or cannot be read", log);
        check_row(file, row, ids[row - 1], values, log);
    }
    report_covariable(file, rows, coefficients, *std::ranges::max_element(ids), log);
    check_ncol_checkval(file.e, coefficients, file.n_cov, log);
    covariable_rows by_id = rows_by_id(ids, file.n_level);
    if (by_id.repeated > 0) {
        const std::int32_t id = ids[by_id.repeated - 1];
        stop_at_row(
            file, by_id.repeated,
            "the id " + inttochar(id) + " stands in row " + inttochar(by_id.indice[id - 1]) + " as well",
            log);
    }
    data.indice = std::move(by_id.indice);
    return data;
}

}  // namespace zendar::detail
