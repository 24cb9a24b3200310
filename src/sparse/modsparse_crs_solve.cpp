#include <omp.h>

#include <algorithm>
#include <bit>
#include <cassert>
#include <limits>
#include <string>
#include <utility>

#include "modbasic.hpp"
#include "modmetis.hpp"
#include "modspainv.hpp"
#include "modsparse.hpp"
#include "modsparse_crs_triangular.hpp"
#include "modsparse_detail.hpp"
#include "modstats.hpp"
#include "modvariablepardiso.hpp"

namespace zendar {

template <std::signed_integral Index>
struct crs_factors {
    pardiso_variable control;
};

// ---- the direct solver -----------------------------------------------------------------------------------

template <std::signed_integral Index>
void crs_matrix<Index>::solve(std::span<double> x, std::span<const double> y) {
    solve(as_column(x), as_column(y));
}

template <std::signed_integral Index>
void crs_matrix<Index>::solve(matrix_view<double> x, matrix_view<const double> y) {
    if (x.cols != y.cols)
        fail(" ERROR: the number of colums of x and y provided to solve are different: " + inttochar(x.cols) +
             " and " + inttochar(y.cols));
    if (!issquare()) {
        message(" Warning: the sparse matrix is not squared!");
        fail(" ERROR: a system with " + inttochar(dim1_) + " equations and " + inttochar(dim2_) +
             " unknowns cannot be solved!");
    }
    if (x.rows != dim1_ || y.rows != dim1_)
        fail(" ERROR: the number of rows of x and y provided to solve is not that of the matrix: " +
             inttochar(x.rows) + " and " + inttochar(y.rows) + " for " + inttochar(dim1_));
    const auto call = [&](std::int32_t phase) {
        pardiso_variable& control = pardisovar_->control;
        pardiso<Index>(control, phase, view(), perm_, y, x, unlog_);
        if (!control.defect.empty()) {
            const std::string text = " ERROR: the matrix cannot be solved: " + control.defect;
            reset_pardiso_memory();
            fail(text);
        }
        checkpardiso(phase, control.error, unlog_);
    };
    if (!lupperstorage_) fail(" ERROR: the matrix cannot be solved: it is not upper-stored");
    if (!ldecomposed_ || !pardisovar_) {
        const wtime clock;
        pardisovar_ = std::make_shared<crs_factors<Index>>();
        pardiso_variable& control = pardisovar_->control;
        pardisoinit(control, haspermutation32());
        message(" Start ordering and factorization");
        call(12);
        message(" Number of nonzeros in factors  = " + inttochar(control.nfactor));
        message(" Elapsed time (s)               = " + realtochar(clock.seconds(), "(f0.3)"));
        if (control.ndependent > 0)
            message(" Number of dependent equations  = " + inttochar(control.ndependent));
        setdecomposed(true);
    }
    call(33);
}

// ---- solves with a factor that the matrix holds ----------------------------------------------------------

namespace {

/// Checks that all rows begin with their diagonal, and whether one of them is zero.
struct factor_check {
    bool upper = true, zero = false;

    explicit factor_check(crs_view<std::int32_t> u) {
        for (std::int32_t i = 0; i < u.dim1; ++i) {
            const std::int32_t head = u.ia[i] - 1;
            if (u.ia[i] == u.ia[i + 1] || u.ja[head] != i + 1) {
                upper = false;
                return;
            }
            zero = zero || u.a[head] == 0.0;
        }
    }
};

/// The factor has its own order of equations: y goes there, to z, and x comes back. `perm` may be empty, and
/// then z is not used.
void solve_in_order(std::span<const std::int32_t> perm, std::span<double> x, std::span<const double> y,
                    std::span<double> z, const auto& solve) {
    if (perm.empty()) {
        std::ranges::copy(y, x.begin());
        solve(x);
        return;
    }
    for (std::size_t k = 0; k < z.size(); ++k) z[k] = y[perm[k] - 1];
    solve(z);
    for (std::size_t k = 0; k < z.size(); ++k) x[perm[k] - 1] = z[k];
}

}  // namespace

template <std::signed_integral Index>
void crs_matrix<Index>::isolve(std::span<double> x, std::span<const double> y) const
    requires(std::same_as<Index, std::int32_t>)
{
    if (std::ssize(x) != dim1_ || std::ssize(y) != dim1_)
        fail(" ERROR: the sizes of x and y provided to isolve are not that of the matrix!");
    const factor_check check(view());
    if (!issquare() || !lupperstorage_ || !lsorted_ || !check.upper || check.zero)
        fail(" ERROR: isolve needs a sorted upper triangular factor without zeros on its diagonal!");
    std::vector<double> work(perm_.empty() ? 0 : y.size());
    solve_in_order(perm_, x, y, work, [this](std::span<double> z) { solve_with_upper(view(), z); });
}

template <std::signed_integral Index>
void crs_matrix<Index>::solveldlt(std::span<double> x, std::span<const double> y) const
    requires(std::same_as<Index, std::int32_t>)
{
    solveldlt(as_column(x), as_column(y));
}

template <std::signed_integral Index>
void crs_matrix<Index>::solveldlt(matrix_view<double> x, matrix_view<const double> y) const
    requires(std::same_as<Index, std::int32_t>)
{
    if (x.cols != y.cols)
        fail(" ERROR: the number of colums of x and y provided to solveldlt are different: " +
             inttochar(x.cols) + " and " + inttochar(y.cols));
    if (x.rows != dim1_ || y.rows != dim1_)
        fail(" ERROR: the sizes of x and y provided to solveldlt are not that of the matrix!");
    if (!isldltfactor()) fail(" ERROR: solveldlt needs the sorted upper triangular factor of getldlt!");
    if (x.cols < 1 || dim1_ < 1) return;
    // Columns that lie side by side share the reading of the factor; threads share the columns.
    const std::int64_t threads = std::min<std::int64_t>(omp_get_max_threads(), x.cols);
    const auto each = static_cast<std::uint64_t>((x.cols + threads - 1) / threads);
    const auto width = static_cast<std::int64_t>(std::min(std::bit_ceil(each), std::uint64_t{8}));
    const std::int64_t groups = (x.cols + width - 1) / width, n = dim1_;
    std::vector<double> work(static_cast<std::size_t>(groups * n * width), 0.0);
    const crs_view<std::int32_t> u = view();
    const std::span<const std::int32_t> order = perm_;
#pragma omp parallel for schedule(static) num_threads(static_cast<int>(threads)) default(none) \
    shared(x, y, work, u, order, groups, n, width)
    for (std::int64_t g = 0; g < groups; ++g) {
        const std::span<double> z = std::span(work).subspan(g * n * width, n * width);
        const std::int64_t first = g * width, count = std::min(width, x.cols - first);
        for (std::int64_t c = 0; c < count; ++c)
            for (std::int64_t k = 0; k < n; ++k)
                z[k * width + c] = y(order.empty() ? k : order[k] - 1, first + c);
        solve_with_unit_upper(u, z, width);
        for (std::int64_t c = 0; c < count; ++c)
            for (std::int64_t k = 0; k < n; ++k)
                x(order.empty() ? k : order[k] - 1, first + c) = z[k * width + c];
    }
}

template <std::signed_integral Index>
bool crs_matrix<Index>::isldltfactor() const
    requires(std::same_as<Index, std::int32_t>)
{
    return issquare() && lupperstorage_ && lsorted_ && factor_check(view()).upper;
}

template <std::signed_integral Index>
void crs_matrix<Index>::solveldlt_s(std::span<double> x, std::span<const double> y,
                                    std::span<double> work) const
    requires(std::same_as<Index, std::int32_t>)
{
    assert(std::ssize(x) == dim1_ && std::ssize(y) == dim1_ && std::ssize(work) >= dim1_);
    solve_in_order(perm_, x, y, work.first(y.size()),
                   [this](std::span<double> z) { solve_with_unit_upper(view(), z); });
}

// ---- factorisations in place -----------------------------------------------------------------------------

template <std::signed_integral Index>
std::vector<std::int32_t> crs_matrix<Index>::getordering() const
    requires(std::same_as<Index, std::int32_t>)
{
    std::vector<std::int32_t> perm = metis_nodend(convertfromcrstometisgraph(*this), unlog_).perm;
    for (std::int32_t& equation : perm) ++equation;
    return perm;
}

namespace {

/// What a factorisation leaves.
enum class outcome { factor, inverse };

[[noreturn]] void reject(const crssparse& m, const std::string& text) {
    if (m.getoutputunit() != nullptr) m.getoutputunit()->message(text);
    throw fatal_error(text);
}

/// Runs one of the factorisations on the arrays, in the order of the matrix's permutation or else in one of
/// little fill, which becomes the permutation.
void replace(crssparse& m, outcome what, const auto& factorise) {
    if (!m.issquare() || !m.isupperstorage())
        reject(m, " ERROR: the CRS matrix must be square and upper triangular stored");
    const std::vector<std::int32_t> order = [&m] {
        if (!m.haspermutation32()) {
            const wtime clock;
            constexpr std::int64_t most_entries = std::numeric_limits<std::int32_t>::max();
            std::vector<std::int32_t> found =
                m.issorted()
                    ? detail::order_of(detail::elimination_places(m.view(), most_entries, m.getoutputunit()))
                    : m.getordering();
            if (logger* const unlog = m.getoutputunit(); unlog != nullptr)
                unlog->message(" Elapsed time (s) for ordering  = " + realtochar(clock.seconds(), "(f0.3)"));
            return found;
        }
        const auto given = m.getpermutation32();
        return std::vector<std::int32_t>(given.begin(), given.end());
    }();
    std::vector<std::int32_t> ia = m.get_rowptr(), ja = m.get_colval();
    std::vector<double> a = m.get_nzval();
    factorise(ia, ja, a, std::span<const std::int32_t>(order), spainv_controls{.unlog = m.getoutputunit()});

    crssparse result(m.getdim(1), std::ssize(a), m.getdim(2), true, m.getoutputunit());
    result.take_common(m);
    std::ranges::copy(ia, crs_arrays::ia(result).begin());
    std::ranges::copy(ja, crs_arrays::ja(result).begin());
    std::ranges::copy(a, crs_arrays::a(result).begin());
    result.setsorted(true);
    result.setpermutation32(order);
    if (what == outcome::factor) result.setsymmetric(false);
    m = std::move(result);
}

}  // namespace

template <std::signed_integral Index>
void crs_matrix<Index>::getchol()
    requires(std::same_as<Index, std::int32_t>)
{
    replace(*this, outcome::factor, [](auto&&... arguments) { get_chol_crs(arguments...); });
}

template <std::signed_integral Index>
void crs_matrix<Index>::getldlt()
    requires(std::same_as<Index, std::int32_t>)
{
    replace(*this, outcome::factor,
            [](auto& ia, auto& ja, auto& a, const auto& order, const spainv_controls& controls) {
                std::vector<double> d;
                get_ldlt_crs(ia, ja, a, d, order, controls);
                for (std::size_t i = 0; i < d.size(); ++i) a[ia[i] - 1] = d[i];  // in the place of the ones
            });
}

template <std::signed_integral Index>
void crs_matrix<Index>::getichol()
    requires(std::same_as<Index, std::int32_t>)
{
    replace(*this, outcome::factor, [](auto&&... arguments) { get_ichol_crs(arguments...); });
}

template <std::signed_integral Index>
void crs_matrix<Index>::getspainv()
    requires(std::same_as<Index, std::int32_t>)
{
    replace(*this, outcome::inverse, [](auto&&... arguments) { get_spainv_crs(arguments...); });
}

template void crs_matrix<std::int32_t>::solve(std::span<double>, std::span<const double>);
template void crs_matrix<std::int64_t>::solve(std::span<double>, std::span<const double>);
template void crs_matrix<std::int32_t>::solve(matrix_view<double>, matrix_view<const double>);
template void crs_matrix<std::int64_t>::solve(matrix_view<double>, matrix_view<const double>);
template void crs_matrix<std::int32_t>::isolve(std::span<double>, std::span<const double>) const;
template void crs_matrix<std::int32_t>::solveldlt(std::span<double>, std::span<const double>) const;
template void crs_matrix<std::int32_t>::solveldlt(matrix_view<double>, matrix_view<const double>) const;
template void crs_matrix<std::int32_t>::solveldlt_s(std::span<double>, std::span<const double>,
                                                    std::span<double>) const;
template bool crs_matrix<std::int32_t>::isldltfactor() const;
template std::vector<std::int32_t> crs_matrix<std::int32_t>::getordering() const;
template void crs_matrix<std::int32_t>::getchol();
template void crs_matrix<std::int32_t>::getldlt();
template void crs_matrix<std::int32_t>::getichol();
template void crs_matrix<std::int32_t>::getspainv();

}  // namespace zendar
