#include <algorithm>
#include <cassert>

#include "modbasic.hpp"
#include "modsolver.hpp"
#include "modsparse_crs_mult.hpp"

namespace zendar {

template <std::signed_integral Index>
crs_system<Index>::crs_system(const crs_matrix<Index>& c, std::span<const double> b, logger& log)
    : c_(c.view()), b_(b) {
    if (!c.issquare() || !c.isupperstorage() || !c.issorted() || std::ssize(b) != c_.dim1)
        fatal(log,
              "The left-hand side in memory is no sorted upper triangle of " + inttochar(std::ssize(b)) +
                  " equations",
              "modsolver", "crs_system");
}

template <std::signed_integral Index>
void crs_system<Index>::atimesx(std::span<const double> x, std::span<double> r) {
    crs_multiply(c_, storage::symmetric_upper, false, 1.0, as_column(x), 0.0, as_column(r));
}

template <std::signed_integral Index>
void crs_system<Index>::r_equal_b_minus_atimesx(std::span<const double> x, std::span<double> b,
                                                std::span<double> r) {
    std::ranges::copy(b_, b.begin());
    r_equal_savedb_minus_atimesx(x, r);
}

template <std::signed_integral Index>
void crs_system<Index>::r_equal_savedb_minus_atimesx(std::span<const double> x, std::span<double> r) {
    std::ranges::copy(b_, r.begin());
    crs_multiply(c_, storage::symmetric_upper, false, -1.0, as_column(x), 1.0, as_column(r));
}

template <std::signed_integral Index>
bool crs_system<Index>::read_savedb(std::span<double> b) {
    std::ranges::copy(b_, b.begin());
    return true;
}

template <std::signed_integral Index>
std::vector<std::int32_t> empty_equations(crs_view<Index> c) {
    std::vector<bool> used(static_cast<std::size_t>(c.dim1), false);
    for (std::int32_t i = 0; i < c.dim1; ++i)
        for (Index k = c.ia[i] - 1; k < c.ia[i + 1] - 1; ++k)
            if (c.a[k] != 0.0) used[i] = used[c.ja[k] - 1] = true;
    std::vector<std::int32_t> empty;
    for (std::int32_t i = 0; i < c.dim1; ++i)
        if (!used[i]) empty.push_back(i + 1);
    return empty;
}

template class crs_system<std::int32_t>;
template class crs_system<std::int64_t>;
template std::vector<std::int32_t> empty_equations(crs_view<std::int32_t>);
template std::vector<std::int32_t> empty_equations(crs_view<std::int64_t>);

}  // namespace zendar
