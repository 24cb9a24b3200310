#include "modvariablepardiso.hpp"

#include <amd.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

#include "modbasic.hpp"
#include "modmetis.hpp"
#include "modsparse.hpp"
#include "modsparse_inv.hpp"
#include "platform/directsolver.hpp"

namespace zendar {

pardiso_variable::pardiso_variable() = default;
pardiso_variable::~pardiso_variable() = default;
pardiso_variable::pardiso_variable(pardiso_variable&&) noexcept = default;
pardiso_variable& pardiso_variable::operator=(pardiso_variable&&) noexcept = default;

void pardisoinit(pardiso_variable& v, bool user_permutation) {
    v.iparm.fill(0);
    const auto set = [&v](int k, std::int32_t value) { v.iparm[k - 1] = value; };
    set(2, 3);
    set(5, user_permutation ? 1 : 0);
    set(24, 1);
    set(27, 1);
    set(28, 0);
    set(31, 0);
    set(36, 0);
}

void reset_pardiso_variable(pardiso_variable& v) {
    v = pardiso_variable();
}

void checkpardiso(std::int32_t phase, std::int32_t error, logger* unlog) {
    if (error == 0) return;
    const std::string text =
        " The following error for phase " + inttochar(phase) + " was detected: " + inttochar(error);
    if (unlog != nullptr) unlog->message(text);
    throw fatal_error(text);
}

namespace detail {

template <std::signed_integral Index>
std::optional<std::string> direct_solver_defect(crs_view<Index> m) {
    if (m.dim1 != m.dim2) return "the matrix is not square";
    for (std::int32_t i = 1; i <= m.dim1; ++i) {
        const Index begin = m.ia[i - 1] - 1, end = m.ia[i] - 1;
        const auto in_row = [i](const char* what) { return std::string(what) + " in row " + inttochar(i); };
        for (Index k = begin; k < end; ++k) {
            if (m.ja[k] < i) return in_row("an element below the diagonal is stored");
            if (k > begin && m.ja[k - 1] >= m.ja[k]) return in_row("the columns are not sorted");
            if (!std::isfinite(m.a[k])) return in_row("an element is not a finite number");
        }
        if (begin == end || m.ja[begin] != i) return in_row("no diagonal element is stored");
    }
    return std::nullopt;
}

namespace {

/// Both triangles without the diagonal.
template <std::signed_integral Index>
metisgraph graph_of(crs_view<Index> m) {
    metisgraph graph;
    graph.n = m.dim1;
    graph.xadj.assign(static_cast<std::size_t>(m.dim1) + 1, 0);
    const auto each = [&m](const auto& f) {
        for (std::int32_t i = 0; i < m.dim1; ++i)
            for (Index k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
                if (m.ja[k] - 1 != i) f(i, static_cast<std::int32_t>(m.ja[k] - 1));
    };
    each([&](std::int32_t i, std::int32_t j) {
        ++graph.xadj[i + 1];
        ++graph.xadj[j + 1];
    });
    for (std::int32_t i = 0; i < m.dim1; ++i) graph.xadj[i + 1] += graph.xadj[i];
    graph.adjncy.resize(static_cast<std::size_t>(graph.xadj.back()));
    std::vector<std::int32_t> next(graph.xadj.begin(), graph.xadj.end() - 1);
    each([&](std::int32_t i, std::int32_t j) {
        graph.adjncy[next[i]++] = j;
        graph.adjncy[next[j]++] = i;
    });
    return graph;
}

/// Minimum degree. The rows of the upper triangle serve as columns: the library adds the mirror image.
template <std::signed_integral Index>
std::vector<std::int32_t> amd_places(crs_view<Index> m, logger* unlog) {
    std::vector<SuiteSparse_long> start(m.ia.size()), rows(m.ja.size()), perm(m.ia.size());
    std::ranges::transform(m.ia, start.begin(), [](Index k) { return SuiteSparse_long{k} - 1; });
    std::ranges::transform(m.ja, rows.begin(), [](Index k) { return SuiteSparse_long{k} - 1; });
    const SuiteSparse_long status = amd_l_order(m.dim1, start.data(), rows.data(), perm.data(), nullptr, nullptr);
    if (status < AMD_OK) {
        const std::string text = " ERROR: the minimum degree ordering failed with status " + inttochar(std::int64_t{status});
        if (unlog != nullptr) unlog->message(text);
        throw fatal_error(text);
    }
    std::vector<std::int32_t> places(static_cast<std::size_t>(m.dim1));
    for (std::int32_t k = 0; k < m.dim1; ++k) places[perm[k]] = k + 1;
    return places;
}

/// Empty unless `perm` holds each of 1 .. n once.
std::vector<std::int32_t> places_of(std::span<const std::int32_t> perm, std::int32_t n) {
    if (std::ssize(perm) != n) return {};
    std::vector<std::int32_t> places(static_cast<std::size_t>(n), 0);
    for (std::int32_t k = 0; k < n; ++k) {
        if (perm[k] < 1 || perm[k] > n || places[perm[k] - 1] != 0) return {};
        places[perm[k] - 1] = k + 1;
    }
    return places;
}

}  // namespace

std::vector<std::int32_t> order_of(std::span<const std::int32_t> places) {
    std::vector<std::int32_t> order(places.size());
    for (std::size_t i = 0; i < places.size(); ++i)
        order[static_cast<std::size_t>(places[i] - 1)] = static_cast<std::int32_t>(i + 1);
    return order;
}

namespace {

/// The squares of the columns of the factor, which is what a factorisation costs.
double factor_work(crs_view<std::int32_t> m, std::span<const std::int32_t> places) {
    const std::vector<std::int32_t> order = order_of(places);
    const auto structure = modsparse_inv::symbolicfact(m.dim1, m.ia, m.ja, std::span(order));
    double work = 0.0;
    for (const std::int32_t c : structure.colcount) work += static_cast<double>(c) * c;
    return work;
}

}  // namespace

template <std::signed_integral Index>
std::vector<std::int32_t> elimination_places(crs_view<Index> m, std::int64_t most_entries, logger* unlog) {
    constexpr std::int32_t worth_a_choice = 5000;
    if (2 * std::ssize(m.ja) > most_entries) return amd_places(m, unlog);
    std::vector<std::int32_t> places = metis_nodend(graph_of(m), unlog).iperm;
    for (std::int32_t& place : places) ++place;
    if constexpr (std::same_as<Index, std::int32_t>) {
        if (m.dim1 < worth_a_choice) return places;
        std::vector<std::int32_t> other = amd_places(m, unlog);
        if (factor_work(m, other) < factor_work(m, places)) return other;
    }
    return places;
}

template std::optional<std::string> direct_solver_defect(crs_view<std::int32_t>);
template std::optional<std::string> direct_solver_defect(crs_view<std::int64_t>);
template std::vector<std::int32_t> elimination_places(crs_view<std::int32_t>, std::int64_t, logger*);
template std::vector<std::int32_t> elimination_places(crs_view<std::int64_t>, std::int64_t, logger*);

}  // namespace detail

namespace {

constexpr std::int32_t error_input = -1, error_no_factors = -2;

template <std::signed_integral Index>
std::int32_t factorize(pardiso_variable& v, crs_view<Index> m, std::span<const std::int32_t> perm,
                       logger* unlog) {
    v.pt.reset();
    v.defect.clear();
    if (v.iparm[27 - 1] == 1)
        if (const auto defect = detail::direct_solver_defect(m)) {
            v.defect = *defect;
            return error_input;
        }
    if (m.dim1 == 0) return 0;
    std::vector<std::int32_t> places;
    if (v.iparm[5 - 1] == 1) {
        places = detail::places_of(perm, m.dim1);
        if (places.empty()) {
            v.defect = "the permutation of the matrix is none of 1 to " + inttochar(m.dim1);
            return error_input;
        }
    } else {
        places = detail::elimination_places(m, std::numeric_limits<std::int32_t>::max(), unlog);
    }

    std::vector<std::int32_t> rows(m.ja.size()), wide_columns;
    for (std::int32_t i = 1; i <= m.dim1; ++i)
        std::fill(rows.begin() + (m.ia[i - 1] - 1), rows.begin() + (m.ia[i] - 1), i);
    std::span<const std::int32_t> columns;
    if constexpr (std::same_as<Index, std::int32_t>) {
        columns = m.ja;
    } else {
        wide_columns.resize(m.ja.size());
        std::ranges::transform(m.ja, wide_columns.begin(), [](Index j) { return static_cast<std::int32_t>(j); });
        columns = wide_columns;
    }

    auto solver = std::make_unique<platform::directsolver>();
    const std::int32_t error = solver->factorize(m.dim1, rows, columns, m.a, places);
    if (error != 0) return error;
    v.nfactor = solver->factor_elements();
    v.ndependent = solver->null_pivots();
    v.iparm[18 - 1] = std::in_range<std::int32_t>(v.nfactor) ? static_cast<std::int32_t>(v.nfactor) : -1;
    v.pt = std::move(solver);
    return 0;
}

std::int32_t back_substitute(pardiso_variable& v, std::int32_t n, matrix_view<const double> y,
                             matrix_view<double> x) {
    assert(x.rows == n && y.rows == n && x.cols == y.cols);
    if (n == 0 || x.cols == 0) return 0;
    if (!v.pt) return error_no_factors;
    v.nrhs = static_cast<std::int32_t>(x.cols);
    const bool compact = x.ld == x.rows;
    matrix<double> buffer(compact ? 0 : x.rows, compact ? 0 : x.cols);
    const matrix_view<double> xy = compact ? x : buffer.view();
    for (std::int64_t j = 0; j < x.cols; ++j) std::ranges::copy(y.column(j), xy.column(j).begin());
    const std::int32_t error = v.pt->solve(xy);
    if (!compact)
        for (std::int64_t j = 0; j < x.cols; ++j) std::ranges::copy(xy.column(j), x.column(j).begin());
    return error;
}

}  // namespace

template <std::signed_integral Index>
void pardiso(pardiso_variable& v, std::int32_t phase, crs_view<Index> m, std::span<const std::int32_t> perm,
             matrix_view<const double> y, matrix_view<double> x, logger* unlog) {
    v.phase = phase;
    switch (phase) {
        case 12: v.error = factorize(v, m, perm, unlog); break;
        case 33: v.error = back_substitute(v, m.dim1, y, x); break;
        case -1:
            v.pt.reset();
            v.error = 0;
            break;
        default: v.error = error_input; break;
    }
}

template void pardiso(pardiso_variable&, std::int32_t, crs_view<std::int32_t>, std::span<const std::int32_t>,
                      matrix_view<const double>, matrix_view<double>, logger*);
template void pardiso(pardiso_variable&, std::int32_t, crs_view<std::int64_t>, std::span<const std::int32_t>,
                      matrix_view<const double>, matrix_view<double>, logger*);

}  // namespace zendar
