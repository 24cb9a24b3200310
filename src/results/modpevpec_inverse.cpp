#include <algorithm>
#include <cassert>

#include "modbasic.hpp"
#include "modpevpec.hpp"

namespace zendar {

namespace {

constexpr std::int64_t rounds = 10'000, burn_in = 1'000;
constexpr std::uint32_t seed = 1;

}  // namespace

std::string pec_method(const param_type& param) {
    if (param.solver.harville || param.relparam == "Harville") return "Harville";
    if (param.relparam == "SPAINV" || param.relparam == "1" || param.relparam == param_type{}.relparam)
        return "SPAINV";
    return param.relparam;
}

void get_pec_inverse(std::string_view type, crssparse& lhs, std::vector<double>& pev, logger& log) {
    lhs.setoutputunit(&log);
    if (type == "Harville") {
        lhs.sort();
        lhs.print_dim();
        pev = lhs.harville(rounds, burn_in, seed);
    } else if (type == "SPAINV") {
        lhs.print_dim();
        lhs.getspainv();
        pev = lhs.diag_vect();
    } else {
        fatal(log, "Inversion of the LHS as a dense matrix is not implemented", "modpevpec",
              "get_pec_inverse");
    }
}

matrix<double> extractpec_crssparse(const crssparse& inverse, std::span<const std::int32_t> rows,
                                    std::span<const std::int32_t> cols, logger& log) {
    const crs_view<std::int32_t> m = inverse.view();
    const std::int64_t nrow = std::ssize(rows), ncol = std::ssize(cols);
    const std::int64_t bytes = nrow * ncol * static_cast<std::int64_t>(sizeof(double));
    log.debug("Memory (MB) needed for PEC of type densem: " + realtochar(mib(bytes), "(f0.2)"));
    matrix<double> pec(nrow, ncol);
    // Only the upper triangle is stored: a pair stands in the row of its smaller equation.
    std::int64_t bad = nrow * ncol;
#pragma omp parallel for schedule(dynamic, 16) default(none) shared(m, rows, cols, pec, nrow, ncol) \
    reduction(min : bad)
    for (std::int64_t c = 0; c < ncol; ++c) {
        for (std::int64_t r = 0; r < nrow; ++r) {
            const auto [i, j] = std::minmax(rows[r], cols[c]);
            assert(i >= 1 && j <= m.dim1);
            const auto first = m.ja.begin() + (m.ia[i - 1] - 1), last = m.ja.begin() + (m.ia[i] - 1);
            const auto at = std::lower_bound(first, last, j);
            if (at == last || *at != j)
                bad = std::min(bad, c * nrow + r);
            else
                pec(r, c) = m.a[at - m.ja.begin()];
        }
    }
    if (bad < nrow * ncol)
        fatal(log,
              "Internal error: the element (" + inttochar(rows[bad % nrow]) + ", " +
                  inttochar(cols[bad / nrow]) + ") of the inverse is not stored",
              "modpevpec", "extractpec_crssparse");
    return pec;
}

}  // namespace zendar
