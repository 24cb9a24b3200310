#include <cassert>
#include <cmath>
#include <limits>
#include <span>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modfile.hpp"
#include "modmatop.hpp"
#include "modparameters.hpp"
#include "modparameters_detail.hpp"

namespace zendar {

namespace {

using detail::at_line;
using detail::modparameters_tag;

/// Stands in a variable until a value is read, so that null values are found.
constexpr double no_value = std::numeric_limits<double>::quiet_NaN();

void open_or_stop(text_reader& input, const std::string& file, std::string_view procedure, logger& log) {
    if (const auto why = input.open(file))
        fatal_io(log, "Cannot open the file " + file, modparameters_tag, procedure, why->iostat, why->iomsg);
}

/// Stops when the reading ended for another reason than the end of the file.
void stop_on_read_error(const text_reader& input, std::string_view procedure, logger& log) {
    if (const auto why = input.error())
        fatal_io(log, "Cannot read the file properly" + at_line(input), modparameters_tag, procedure,
                 why->iostat, why->iomsg);
}

bool all_finite(std::span<const double> values) {
    for (const double value : values)
        if (!std::isfinite(value)) return false;
    return true;
}

/// One row of a residual file.
struct residual_row {
    std::int32_t row = 0, residual_class = 0;
    std::vector<double> values;
};

/// The next row; false at the end of the file.
bool next_residual_row(text_reader& input, std::int32_t ntrait, std::int32_t nclass, residual_row& out,
                       logger& log) {
    list_read statement(input);
    std::int64_t line = 0;
    const auto stop_unless = [&](bool good, const std::string& reason) {
        if (good) return;
        stop_on_read_error(input, "readrf", log);
        fatal(log,
              "The format of the residual covariance file is not correct!" + at_line(input.name(), line) +
                  ": " + reason,
              modparameters_tag, "readrf");
    };

    out.row = out.residual_class = 0;
    read_status status = statement.get(out.row);
    if (status.iostat < 0) return false;
    line = input.line_number();
    if (status.ok()) status = statement.get(out.residual_class);
    stop_unless(status.ok() && input.line_number() == line, "a row number and a class number were expected");
    stop_unless(out.row >= 1 && out.row <= ntrait,
                "row " + inttochar(out.row) + " is not one of the " + inttochar(ntrait) + " traits");
    stop_unless(out.residual_class >= 1 && out.residual_class <= nclass,
                "class " + inttochar(out.residual_class) + " is not one of the " + inttochar(nclass) +
                    " residual classes");
    out.values.assign(static_cast<std::size_t>(out.row), no_value);
    status = statement.get(std::span<double>(out.values));
    // Values taken from the next line would be another row's.
    stop_unless(status.ok() && input.line_number() == line && all_finite(out.values),
                inttochar(out.row) + " values were expected behind the row and class numbers");
    return true;
}

void print_matrix(const matrix<double>& a, logger& log) {
    for (std::int64_t i = 0; i < a.rows(); ++i) {
        std::string line;
        for (std::int64_t j = 0; j < a.cols(); ++j) line += list_form(a(i, j));
        log.message(line);
    }
}

/// Inverts the matrix of one effect, with a log of its own.
void invert_with_log(matrix<double>& g, std::int32_t e, logger& log) {
    constexpr double tolerance = 1e-12;
    logger own;
    own.configure({.max_width = std::numeric_limits<int>::max()});
    own.tell_failures_to(log);
    own.add_log_file("log_invcov_" + inttochar(e) + ".dat");
    own.message("Before inversion:");
    print_matrix(g, own);
    std::int32_t rank = 0;
    ginv1_real8(g.view(), tolerance, rank);
    own.message("After inversion :");
    print_matrix(g, own);
    if (rank < g.rows())
        log.warning("The (co)variance matrix for the effect " + inttochar(e) + " of order " +
                    inttochar(g.rows()) + " has only rank " + inttochar(rank) +
                    ": its inverse has zeros for the dependent rows");
}

}  // namespace

void readrf(const std::string& file, std::int32_t ntrait, std::int32_t n_residual_cov,
            std::vector<matrix<double>>& r, logger& log) {
    const auto nclass = static_cast<std::size_t>(n_residual_cov);
    r.assign(nclass, matrix<double>(ntrait, ntrait));
    std::vector<unsigned char> provided(nclass, 0);

    text_reader input;
    open_or_stop(input, file, "readrf", log);
    residual_row row;
    while (next_residual_row(input, ntrait, n_residual_cov, row, log)) {
        matrix<double>& target = r[row.residual_class - 1];
        for (std::int32_t j = 0; j < row.row; ++j)
            target(row.row - 1, j) = target(j, row.row - 1) = row.values[j];
        provided[row.residual_class - 1] = 1;
    }
    for (std::int32_t c = 1; c <= n_residual_cov; ++c) {
        if (provided[c - 1] == 0)
            log.message("The class " + inttochar(c) + " of the residual covariance matrix is not provided!");
        else if (!ispositive(r[c - 1].view(), log))
            fatal(log,
                  "The residual matrix for the class " + inttochar(c) + " is not positive definite!\nFile " +
                      file,
                  modparameters_tag, "readrf");
    }
}

void readgf(const std::string& file, std::int32_t e, std::int32_t dim_g, matrix<double>& g, logger& log) {
    text_reader input;
    open_or_stop(input, file, "readgf", log);
    g = matrix<double>(dim_g, dim_g);
    std::vector<double> row;
    for (std::int32_t i = 1; i <= dim_g; ++i) {
        row.assign(static_cast<std::size_t>(i), no_value);
        read_status status = list_read(input).get(std::span<double>(row));
        if (status.ok() && !all_finite(row)) status = {1, "A value is missing or not finite"};
        if (!status.ok())
            fatal_io(log,
                     "Cannot read the file properly" + at_line(input) + ", row " + inttochar(i) + " of " +
                         inttochar(dim_g) + " of the covariance matrix of the effect " + inttochar(e),
                     modparameters_tag, "readgf", status.iostat, status.iomsg);
        for (std::int32_t j = 0; j < i; ++j) g(i - 1, j) = g(j, i - 1) = row[j];
    }
}

void invertg(param_type& param, logger& log) {
    constexpr double smallest_eigenvalue = 0.0001;
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const random_type_entry* entry = find_random_type(param.type_random[e - 1]);
        if (entry == nullptr || !entry->inverted) continue;
        matrix<double>& g = param.g[e - 1];
        assert(g.rows() == param.dim_g[e - 1] && g.cols() == g.rows());

        for (std::int64_t i = 0; i < g.rows(); ++i)
            if (g(i, i) == 0.0) g(i, i) = 1.0;  // a zero variance must not spoil the inversion
        if (param.lcheckpd && !ispositive(g.view(), log, smallest_eigenvalue))
            fatal(log,
                  "The covariance matrix for the effect " + inttochar(e) +
                      " is (close to be) not positive definite. Smallest eigenvalue allowed: " +
                      realtochar(smallest_eigenvalue, "(g0.3)"),
                  modparameters_tag, "invertg");
        log.message("Inversion of the (co)variance matrix for the effect " + inttochar(e));
        invert_with_log(g, e, log);
    }
}

}  // namespace zendar
