#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "modlogger.hpp"
#include "modparameters_utils_lines.hpp"
#include "modstructure.hpp"

/// What the readers of the forms of a coefficient file share; nobody else includes this.
namespace zendar::detail {

inline constexpr const char* covariable_module = "modstructure";
inline constexpr const char* covariable_procedure = "readcovariable";

/// What the model says about a coefficient file.
struct covariable_file {
    std::string name;
    std::int32_t e = 0;
    std::int32_t n_level = 0;  ///< largest id, 0: any
    std::int32_t n_cov = 0;
    bool dense = true;  ///< a ".sparse" file goes to `value`

    [[nodiscard]] std::int32_t largest_id() const;
};

/// The three forms, each with its report and its checks.
covariable_data read_covariable_text(const covariable_file& file, const reading_sizes& sizes, logger& log);
covariable_data read_covariable_sparse(const covariable_file& file, const reading_sizes& sizes, logger& log);
covariable_data read_covariable_stream(const covariable_file& file, logger& log);

/// Logs the declared and the effective sizes; `coefficients` is absent in a form that does not tell.
void report_covariable(const covariable_file& file, std::int64_t levels,
                       std::optional<std::int64_t> coefficients, std::int32_t largest_id, logger& log);

/// Word number `which` (from 1) of a line, split at blanks and tabs; empty when there are fewer.
std::string_view word_of(std::string_view line, std::int32_t which);

[[noreturn]] void stop_unreadable(const covariable_file& file, const file_error& failure, logger& log);
[[noreturn]] void stop_at_line(const covariable_file& file, std::int64_t line, int iostat,
                               const std::string& why, logger& log);

/// Row r (from 1) belongs to ids[r - 1].
struct covariable_rows {
    std::vector<std::int32_t> indice;
    std::int64_t repeated = 0;  ///< the first row whose id stands before, too; 0: there is none
};
covariable_rows rows_by_id(std::span<const std::int32_t> ids, std::int32_t n_level);

/// coefficients x rows. @throws fatal_error  when there is no memory for them.
matrix<double> allocate_coefficients(const covariable_file& file, std::int64_t coefficients,
                                     std::int64_t rows, logger& log);

}  // namespace zendar::detail
