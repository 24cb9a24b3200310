#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <limits>
#include <new>
#include <stdexcept>
#include <system_error>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modparameters.hpp"
#include "modplink_decode.hpp"
#include "modstructure.hpp"
#include "modstructure_covariable_detail.hpp"

namespace zendar {
namespace detail {

std::int32_t covariable_file::largest_id() const {
    return n_level > 0 ? n_level : std::numeric_limits<std::int32_t>::max();
}

void report_covariable(const covariable_file& file, std::int64_t levels,
                       std::optional<std::int64_t> coefficients, std::int32_t largest_id, logger& log) {
    std::string text = "Coefficient file for effect " + inttochar(file.e) + ": " + file.name;
    text += "\nNumber of declared levels / effective levels            : " + inttochar(file.n_level) + " / " +
            inttochar(levels);
    if (coefficients)
        text += "\nNumber of declared coefficients / effective coefficients: " + inttochar(file.n_cov) +
                " / " + inttochar(*coefficients);
    else
        text += "\nNumber of declared coefficients                         : " + inttochar(file.n_cov);
    text += "\nMaximum level for the effect                            : " + inttochar(largest_id);
    log.message(text);
}

void stop_unreadable(const covariable_file& file, const file_error& failure, logger& log) {
    fatal_io(log, "The coefficient file " + file.name + " of effect " + inttochar(file.e) + " cannot be read",
             covariable_module, covariable_procedure, failure.iostat, failure.iomsg);
}

void stop_at_line(const covariable_file& file, std::int64_t line, int iostat, const std::string& why,
                  logger& log) {
    fatal_io(log,
             "Coefficients of effect " + inttochar(file.e) + " not correctly read at line " + inttochar(line),
             covariable_module, covariable_procedure, iostat, "File " + file.name + ": " + why);
}

covariable_rows rows_by_id(std::span<const std::int32_t> ids, std::int32_t n_level) {
    covariable_rows rows;
    const std::int32_t size = n_level > 0 ? n_level : *std::ranges::max_element(ids);
    rows.indice.assign(static_cast<std::size_t>(size), 0);
    for (std::int32_t row = 1; row <= std::ssize(ids); ++row) {
        std::int32_t& place = rows.indice[ids[row - 1] - 1];
        if (place > 0) {
            rows.repeated = row;
            break;
        }
        place = row;
    }
    return rows;
}

matrix<double> allocate_coefficients(const covariable_file& file, std::int64_t coefficients,
                                     std::int64_t rows, logger& log) {
    try {
        return {coefficients, rows};
    } catch (const std::bad_alloc&) {
    } catch (const std::length_error&) {
    }
    fatal(log,
          "There is not enough memory for the coefficients of effect " + inttochar(file.e) + " in the file " +
              file.name + ": " + inttochar(rows) + " levels of " + inttochar(coefficients) + " coefficients",
          covariable_module, covariable_procedure);
}

}  // namespace detail

namespace {

using detail::covariable_file;
using detail::covariable_module;
using detail::covariable_procedure;

/// Coefficients of a level, in either store.
std::int64_t coefficients_of(const covariable_type& cov) {
    if (!cov.data) return 0;
    if (cov.is_plink()) return cov.data->plink.ncol;
    return cov.is_sparse() ? cov.data->sparse.getdim(2) : cov.data->value.rows();
}

/// Genotype of a row of the packed matrix, both from 1; 3 when it is missing, 0 outside.
std::int32_t packed_genotype(const covariable_type& cov, std::int32_t row, std::int32_t coefficient) {
    const plink_genotypes& plink = cov.data->plink;
    if (row < 1 || row > plink.nrow || coefficient < 1 || coefficient > plink.ncol) return 0;
    return static_cast<std::int32_t>(detail::genotype_of(plink.code(row - 1, coefficient - 1)));
}

/// A stem stands for its ".bed" file, unless a file of that name exists.
bool is_stem(const std::string& name) {
    std::error_code unreadable;
    return !std::filesystem::exists(name, unreadable) && std::filesystem::exists(name + ".bed", unreadable);
}

/// A whole text as an effect number; 0 when it is none.
std::int32_t effect_number(std::string_view text) {
    std::int32_t number = 0;
    const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), number);
    return status == std::errc() && end == text.data() + text.size() ? number : 0;
}

}  // namespace

std::string covariable_extension(const std::string& file) {
    const std::size_t dot = file.rfind('.');
    return dot == std::string::npos ? std::string() : file.substr(dot + 1);
}

bool names_plink_files(const std::string& file) {
    return covariable_extension(file) == "bed" || is_stem(file);
}

void check_ncol_checkval(std::int32_t e, std::int64_t effective, std::int64_t declared, logger& log) {
    if (effective != declared)
        fatal(log,
              "The number of declared coefficients / effective coefficients for the effect " + inttochar(e) +
                  " are not equal.",
              covariable_module, "check_ncol_checkval");
}

void readcovariable(covariable_type& cov, const param_type& param, std::int32_t e, logger& log,
                    std::int32_t maxcols) {
    cov = {};
    covariable_file file;
    file.name = trim(param.cov_file[e - 1]);
    file.e = e;
    file.n_level = std::max(param.n_level[e - 1], 0);
    file.n_cov = param.n_cov[e - 1];
    file.dense = !is_huge_effect(param.type_effect[e - 1]);

    const std::string extension = covariable_extension(file.name);
    if (extension == "bed" || (!file.dense && names_plink_files(file.name))) {
        readcovariable_bed(cov, param, e, maxcols, log);
        return;
    }
    covariable_data data;
    if (extension == "sparse")
        data = read_covariable_sparse(file, {}, log);
    else if (extension == "stream")
        data = read_covariable_stream(file, log);
    else
        data = read_covariable_text(file, {}, log);
    cov.data = std::make_shared<const covariable_data>(std::move(data));
}

void readcovariable_aseffect(std::span<covariable_type> cov, const param_type& param, std::int32_t e,
                             logger& log) {
    const std::string name(trim(param.cov_file[e - 1]));
    const std::int32_t other = effect_number(std::string_view(name).substr(0, name.rfind('.')));
    if (other < 1 || other >= e || !cov[other - 1].data)
        fatal(log, "Check the covariate file " + name + " for effect " + inttochar(e), covariable_module,
              "readcovariable_aseffect");
    check_ncol_checkval(e, coefficients_of(cov[other - 1]), param.n_cov[e - 1], log);
    cov[e - 1] = cov[other - 1];
    log.message("The effects " + inttochar(other) + " and " + inttochar(e) +
                " have the same covariable_type data");
}

double getval(const covariable_type& cov, std::int32_t row, std::int32_t coefficient) {
    if (cov.is_sparse()) return cov.data->sparse.get(row, coefficient);
    if (cov.is_plink()) {
        const plink_genotypes& plink = cov.data->plink;
        if (row < 1 || row > plink.nrow || coefficient < 1 || coefficient > plink.ncol) return 0.0;
        const double genotype = packed_genotype(cov, row, coefficient),
                     twof = 2.0 * cov.allelefreq[coefficient - 1];
        return cov.compressed && genotype == 3.0 ? -twof : detail::centred(genotype, twof);
    }
    const auto value = cov.values();
    if (row < 1 || row > value.cols || coefficient < 1 || coefficient > value.rows) return 0.0;
    return value(coefficient - 1, row - 1);
}

double getvalue(const covariable_type& cov, std::int32_t level, std::int32_t coefficient) {
    return getval(cov, cov.row_of(level), coefficient);
}

double getvalue_val(const covariable_type& cov, std::int32_t level, std::int32_t coefficient) {
    return getvalue(cov, level, coefficient);
}

std::int32_t getvalue_ival(const covariable_type& cov, std::int32_t level, std::int32_t coefficient) {
    if (cov.is_plink()) return packed_genotype(cov, cov.row_of(level), coefficient);
    return narrow<std::int32_t>(std::llround(getvalue(cov, level, coefficient)));
}

double getvalue_summary(const covariable_type& cov, std::int32_t level, std::int32_t coefficient) {
    return getvalue(cov, level, coefficient);
}

}  // namespace zendar
