#include "covariable_input.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "modenum.hpp"
#include "modparameters.hpp"
#include "modstructure.hpp"
#include "modstructure_covariable_detail.hpp"

namespace zendar::fuzz {
namespace {

using detail::covariable_file;
using detail::reading_sizes;

constexpr std::size_t header_length = 4;
constexpr std::int32_t most_levels = 50'000;  ///< of a ".stream" whose N_LEVEL is 0

/// What a reading ends with: the coefficients, or the log of its failure.
struct outcome {
    std::optional<covariable_type> cov;
    std::string log;
};

template <class Read>
outcome attempt(const Read& read) {
    std::ostringstream text;
    logger log;
    log.add_stream(text);
    log.configure({.max_width = std::numeric_limits<int>::max(), .indent = false});
    outcome result;
    try {
        result.cov = read(log);
    } catch (const fatal_error& failure) {
        result.log = failure.what() + text.str();
    }
    return result;
}

outcome read_at_once(const covariable_file& file) {
    return attempt([&](logger& log) {
        param_type param;
        param.neffect = 1;
        param.n_level = {file.n_level};
        param.n_cov = {file.n_cov};
        param.type_effect = {file.dense ? teff_covariable : teff_huge};
        param.cov_file = {file.name};
        covariable_type cov;
        readcovariable(cov, param, file.e, log);
        return cov;
    });
}

outcome read_in_pieces(const covariable_file& file, bool text) {
    return attempt([&](logger& log) {
        const reading_sizes pieces{.block = 5, .overhang = 3};
        covariable_type cov;
        cov.data = std::make_shared<const covariable_data>(text ? read_covariable_text(file, pieces, log)
                                                                : read_covariable_sparse(file, pieces, log));
        return cov;
    });
}

void require(bool holds) {
    if (!holds) std::abort();
}

std::int64_t rows_of(const covariable_type& cov) {
    return cov.is_sparse() ? cov.data->sparse.getdim(1) : cov.values().cols;
}

void check(const covariable_type& cov, const covariable_file& file) {
    const std::int64_t nrow = rows_of(cov);
    require(file.n_level == 0 || std::ssize(cov.rows()) == file.n_level);
    std::vector<bool> seen(static_cast<std::size_t>(nrow), false);
    for (const std::int32_t row : cov.rows()) {
        if (row == 0) continue;
        require(row >= 1 && row <= nrow && !seen[row - 1]);
        seen[row - 1] = true;
        for (std::int32_t k = 1; k <= file.n_cov; ++k) require(std::isfinite(getval(cov, row, k)));
    }
    require(std::ranges::find(seen, false) == seen.end());
    require(cov.is_sparse() || cov.values().rows == file.n_cov);
}

bool are_equal(const covariable_type& a, const covariable_type& b, std::int32_t n_cov) {
    if (!std::ranges::equal(a.rows(), b.rows()) || rows_of(a) != rows_of(b)) return false;
    for (std::int32_t row = 1; row <= rows_of(a); ++row)
        for (std::int32_t k = 1; k <= n_cov; ++k)
            if (getval(a, row, k) != getval(b, row, k)) return false;
    return true;
}

std::int32_t small_number(char c) {
    return static_cast<unsigned char>(c) % 16;
}

/// Without N_LEVEL the table of levels is as long as the largest id, which is left out here.
bool has_large_id(std::string_view text) {
    std::int32_t digits = 0;
    for (const char c : text) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        if (digits > 6) return true;
    }
    return false;
}

}  // namespace

bool read_covariable(std::string_view input) {
    if (input.size() < header_length) return false;
    const char form = input[0];
    const std::size_t place = std::string_view("tshb").find(form);
    if (place == std::string_view::npos) return false;
    const std::string_view text = input.substr(header_length);

    covariable_file file;
    file.name = std::vector<std::string>{"cov.txt", "cov.sparse", "cov.sparse", "cov.stream"}[place];
    file.e = 1;
    file.n_level = small_number(input[1]);
    file.n_cov = small_number(input[2]);
    file.dense = form != 'h';
    if (file.n_level == 0 && form == 'b') file.n_level = most_levels;
    if (file.n_level == 0 && has_large_id(text)) return false;
    std::ofstream(file.name, std::ios::binary) << text;

    const outcome whole = read_at_once(file);
    if (form != 'b') {
        const outcome pieces = read_in_pieces(file, form == 't');
        require(whole.log == pieces.log && whole.cov.has_value() == pieces.cov.has_value());
        require(!whole.cov || are_equal(*whole.cov, *pieces.cov, file.n_cov));
    }
    if (!whole.cov) return false;
    check(*whole.cov, file);
    return true;
}

}  // namespace zendar::fuzz
