#include <algorithm>
#include <cmath>
#include <limits>

#include "modbasic.hpp"
#include "modmatop_feast_detail.hpp"
#include "modvariablepardiso.hpp"

namespace zendar::detail {

namespace {

constexpr const char* module_tag = "modmatop";
constexpr const char* procedure_tag = "eigendfeastscsrev";
constexpr std::int32_t singular_code = -10;  // of the direct solver

}  // namespace

shifted_matrix::shifted_matrix(const crssparse& m, logger& log) : log_(log), n_(m.getdim(1)) {
    const crs_view<std::int32_t> view = m.view();
    if (const auto defect = direct_solver_defect(view))
        fatal(log, "The eigenvalues cannot be computed: " + *defect, module_tag, procedure_tag);
    places_ = elimination_places(view, std::numeric_limits<std::int32_t>::max(), &log);
    columns_.assign(view.ja.begin(), view.ja.end());
    values_.assign(view.a.begin(), view.a.end());
    rows_.resize(columns_.size());
    std::vector<double> sum(static_cast<std::size_t>(n_), 0.0);
    for (std::int32_t i = 0; i < n_; ++i) {
        at_.push_back(view.ia[i] - 1);
        diagonal_.push_back(view.a[view.ia[i] - 1]);
        for (std::int32_t k = view.ia[i] - 1; k < view.ia[i + 1] - 1; ++k) {
            rows_[k] = i + 1;
            sum[i] += std::fabs(view.a[k]);
            if (view.ja[k] != i + 1) sum[view.ja[k] - 1] += std::fabs(view.a[k]);
        }
    }
    norm_ = sum.empty() ? 0.0 : *std::ranges::max_element(sum);
}

shifted_matrix::factors shifted_matrix::factorize(double shift) {
    constexpr std::int32_t relaxation = 30;
    constexpr int most_attempts = 20;
    // A shift that meets an eigenvalue goes on by steps that soon leave it, and no other one, behind.
    double step = 4.0 * std::numeric_limits<double>::epsilon() * std::max(std::fabs(shift), 1e-3 * norm_);
    for (int attempt = 0; attempt < most_attempts; ++attempt, shift += step, step *= 2.0) {
        for (std::size_t i = 0; i < at_.size(); ++i) values_[at_[i]] = diagonal_[i] - shift;
        factors result{
            std::make_unique<platform::directsolver>(relaxation, platform::singular_matrix::refuse), shift};
        ++factorisations_;
        const std::int32_t error = result.solver->factorize(n_, rows_, columns_, values_, places_);
        if (error == 0) return result;
        if (error != singular_code)
            fatal(log_,
                  "The left-hand side cannot be factorised for its eigenvalues: error " + inttochar(error) +
                      " of the direct solver",
                  module_tag, procedure_tag);
    }
    fatal(log_, "The left-hand side cannot be factorised for its eigenvalues: singular at each shift",
          module_tag, procedure_tag);
}

std::int64_t shifted_matrix::below(double shift) {
    return factorize(shift).solver->negative_pivots();
}

}  // namespace zendar::detail
