#include <cassert>
#include <cstdint>
#include <vector>

#include "modbasic.hpp"
#include "modmatop.hpp"
#include "modparameters.hpp"
#include "modparameters_detail.hpp"

namespace zendar {

namespace {

/// The inverse of the rows and columns of some traits (from 0), with zeros elsewhere.
matrix<double> inverse_of_traits(const matrix<double>& r, const std::vector<std::int32_t>& traits) {
    constexpr double tolerance = 1e-12;
    const std::int64_t n = std::ssize(traits);
    matrix<double> small(n, n);
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t i = 0; i < n; ++i) small(i, j) = r(traits[i], traits[j]);
    std::int32_t rank = 0;
    ginv1_real8(small.view(), tolerance, rank);

    matrix<double> full(r.rows(), r.cols());
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t i = 0; i < n; ++i) full(traits[i], traits[j]) = small(i, j);
    return full;
}

}  // namespace

void initresidualmatrix(param_type& param, logger& log) {
    constexpr double smallest_eigenvalue = 0.0001;
    if (param.lcheckpd) {
        for (std::int32_t c = 1; c <= param.n_residual_cov; ++c)
            if (!ispositive(param.r[c - 1].view(), log, smallest_eigenvalue))
                fatal(log,
                      "The residual matrix for the class " + inttochar(c) +
                          " is not positive definite! Smallest eigenvalue allowed: " +
                          realtochar(smallest_eigenvalue, "(g0.3)"),
                      detail::modparameters_tag, "initresidualmatrix");
    }

    assert(std::ssize(param.combination) == param.ncombination);
    param.rinv_vect.assign(param.combination.size(), {});
    for (std::size_t k = 0; k < param.combination.size(); ++k) {
        const auto code = static_cast<std::uint64_t>(param.combination[k]);
        std::vector<matrix<double>>& rinv = param.rinv_vect[k].rinv;
        if (code == 0) {
            log.warning("Some observations have only missing records!");
            rinv.assign(param.r.size(), matrix<double>(param.ntrait, param.ntrait));
            continue;
        }
        std::vector<std::int32_t> traits;
        for (std::int32_t t = 0; t < param.ntrait; ++t)
            if (((code >> t) & 1u) != 0) traits.push_back(t);
        for (const matrix<double>& r : param.r) rinv.push_back(inverse_of_traits(r, traits));
    }
}

void deallocrinv_vect(param_type& param) {
    param.rinv_vect.clear();
    param.rinv_vect.shrink_to_fit();
}

void scale_ri(matrix_view<double> ri, std::span<const double> w) {
    assert(ri.rows == std::ssize(w) && ri.cols == std::ssize(w));
    for (std::int64_t j = 0; j < ri.cols; ++j)
        for (std::int64_t i = 0; i < ri.rows; ++i) ri(i, j) *= w[i] * w[j];
}

}  // namespace zendar
