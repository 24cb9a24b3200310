#include <algorithm>
#include <cassert>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modmatop.hpp"
#include "modsolver.hpp"

namespace zendar {

namespace {

constexpr std::string_view module_tag = "modsolver";

/// Of a block of the diagonal: place of the first element, and one behind the last, of row i within it.
template <std::signed_integral Index>
std::pair<std::int64_t, std::int64_t> row_of_block(crs_view<Index> c, std::int64_t i, std::int64_t last) {
    const Index* const from = c.ja.data() + (c.ia[i - 1] - 1);
    const Index* const end = c.ja.data() + (c.ia[i] - 1);
    const Index* const behind = std::upper_bound(from, end, static_cast<Index>(last));
    return {from - c.ja.data(), behind - c.ja.data()};
}

}  // namespace

// ---- blocks of a fixed size ------------------------------------------------------------------------------

preconditioned_sums mija_lhs::preconditionertimesx(std::span<double> y, std::span<const double> x) {
    assert(std::ssize(x) == n && std::ssize(y) == n);
    const std::int64_t size = block_size, neq = n, nblock = (n + size - 1) / size;
    const double* const m = inverse.data();
    if (size == 1) {
#pragma omp parallel for simd schedule(static) default(none) shared(y, x, m, neq)
        for (std::int64_t i = 0; i < neq; ++i) y[i] = m[i] * x[i];
        return sums_of(y, x);
    }
#pragma omp parallel for schedule(static) default(none) shared(y, x, m, neq, size, nblock)
    for (std::int64_t k = 0; k < nblock; ++k) {
        const std::int64_t first = k * size, rows = std::min(size, neq - first);
        const double* const block = m + first * size;
        for (std::int64_t i = 0; i < rows; ++i) {
            double sum = 0.0;
            for (std::int64_t j = 0; j < rows; ++j) sum += block[i + j * rows] * x[first + j];
            y[first + i] = sum;
        }
    }
    return sums_of(y, x);
}

template <std::signed_integral Index>
mija_lhs create_mija_lhs(const crs_matrix<Index>& c, std::int64_t block_size, logger& log) {
    log.message("  Creation of the preconditioner");
    log.message("Creation of a preconditioner of diag. blocks of size " + inttochar(block_size));
    if (block_size < 1)
        fatal(log, "The blocks of the preconditioner have no equation", module_tag, "create_mija_lhs");
    const crs_view<Index> view = c.view();
    mija_lhs m;
    m.n = view.dim1;
    m.block_size = std::min<std::int64_t>(block_size, std::max(view.dim1, 1));
    const std::int64_t size = m.block_size;
    const std::int64_t nblock = (m.n + size - 1) / size, tail = m.n - (nblock - 1) * size;
    m.inverse.assign(m.n == 0 ? 0 : static_cast<std::size_t>((nblock - 1) * size * size + tail * tail), 0.0);
    for (std::int64_t first = 0; first < m.n; first += size) {
        const std::int64_t rows = std::min(size, m.n - first);
        const matrix_view<double> block{m.inverse.data() + first * size, rows, rows, rows};
        for (std::int64_t i = 0; i < rows; ++i) {
            const auto [from, end] = row_of_block(view, first + i + 1, first + rows);
            for (std::int64_t k = from; k < end; ++k) {
                const std::int64_t j = view.ja[k] - 1 - first;
                block(i, j) = block(j, i) = view.a[k];
            }
        }
        if (rows == 1) {
            block(0, 0) = block(0, 0) == 0.0 ? 0.0 : 1.0 / block(0, 0);
        } else {
            std::int32_t rank = 0;
            ginv1_real8(block, tol8, rank);
        }
    }
    return m;
}

// ---- a block for each effect -----------------------------------------------------------------------------

// Dependent equations are the rule in effects with several covariables, and their pivots are dropped. One
// that is nothing but rounding may be larger than what is dropped, and would blow up the rounding errors of
// the residual: then the diagonal is raised, by too little to slow the iteration down.
void mija_lhs_block::factorise() {
    constexpr double smallest_pivot = 1e-7;
    std::size_t most = 0;
    for (std::size_t k = 0; k < block.size(); ++k) {
        crssparse& own = block[k];
        const std::vector<double> diagonal = own.diag_vect();
        crssparse raised = own.copy();
        own.getldlt();
        const std::vector<double> pivots = own.diag_vect();
        const std::span<const std::int32_t> order = own.getpermutation32();
        bool is_small = false;
        std::vector<dependent_equation> dropped;
        for (std::size_t i = 0; i < pivots.size(); ++i) {
            const std::int32_t row = order[i] - 1;
            is_small = is_small || (pivots[i] > 0.0 && pivots[i] < smallest_pivot * diagonal[row]);
            if (pivots[i] == 0.0 && diagonal[row] > 0.0)
                dropped.push_back({std::int64_t{first[k]} - 1 + row, 1.0 / diagonal[row]});
        }
        if (is_small) {
            for (std::int32_t i = 1; i <= raised.getdim(1); ++i)
                raised.add(i, i, smallest_pivot * diagonal[i - 1]);
            raised.getldlt();
            own = std::move(raised);
            dropped.clear();
        }
        dependent_.insert(dependent_.end(), dropped.begin(), dropped.end());
        most = std::max(most, pivots.size());
    }
    work_.resize(most);
    factorised_ = true;
}

preconditioned_sums mija_lhs_block::preconditionertimesx(std::span<double> y, std::span<const double> x) {
    if (!factorised_) factorise();
    for (std::size_t k = 0; k < block.size(); ++k) {
        const auto start = static_cast<std::size_t>(first[k] - 1);
        const auto rows = static_cast<std::size_t>(block[k].getdim(1));
        block[k].solveldlt_s(y.subspan(start, rows), x.subspan(start, rows), std::span(work_).first(rows));
    }
    for (const dependent_equation& q : dependent_) y[q.equation] += q.reciprocal * x[q.equation];
    return sums_of(y, x);
}

void mija_lhs_block::print(const std::filesystem::path& path, logger& log) const {
    const auto check = [&](const std::optional<file_error>& failure) {
        if (failure)
            fatal_io(log, "Cannot write the file " + path.string(), module_tag, "create_mija_lhs_block",
                     failure->iostat, failure->iomsg);
    };
    file_writer out;
    check(out.open(path));
    for (std::size_t k = 0; k < block.size(); ++k) {
        const crs_view<std::int32_t> rows = block[k].view();
        const std::int32_t before = first[k] - 1;
        for (std::int32_t i = 1; i <= rows.dim1 && !out.failed(); ++i)
            for (std::int32_t place = rows.ia[i - 1] - 1; place < rows.ia[i] - 1; ++place)
                out.write(inttochar(before + i) + " " + inttochar(before + rows.ja[place]) + " " +
                          format_real(rows.a[place], "g0") + "\n");
    }
    check(out.commit());
}

namespace {

/// Equations first to last as a matrix of their own.
template <std::signed_integral Index>
crssparse diagonal_block(crs_view<Index> c, std::int64_t first, std::int64_t last, std::int64_t most_elements,
                         logger& log) {
    const auto n = static_cast<std::int32_t>(last - first + 1);
    std::int64_t elements = 0;
    for (std::int64_t i = first; i <= last; ++i) {
        const auto [from, end] = row_of_block(c, i, last);
        elements += end - from;
    }
    if (elements > most_elements)
        fatal(log,
              "The block of equations " + inttochar(first) + " to " + inttochar(last) + " has " +
                  inttochar(elements) + " elements: a block of the preconditioner may have " +
                  inttochar(most_elements),
              module_tag, "create_mija_lhs_block");

    std::vector<std::int32_t> ia{1}, ja;
    std::vector<double> a;
    ja.reserve(static_cast<std::size_t>(elements));
    a.reserve(static_cast<std::size_t>(elements));
    for (std::int64_t i = first; i <= last; ++i) {
        const auto [from, end] = row_of_block(c, i, last);
        for (std::int64_t k = from; k < end; ++k) {
            ja.push_back(static_cast<std::int32_t>(c.ja[k] - first + 1));
            a.push_back(c.a[k]);
        }
        ia.push_back(static_cast<std::int32_t>(std::ssize(a)) + 1);
    }
    crssparse block(n, elements, n, true, &log);
    block.external(ia, ja, a);
    block.setsymmetric();
    return block;
}

}  // namespace

template <std::signed_integral Index>
mija_lhs_block create_mija_lhs_block(const crs_matrix<Index>& c, std::span<const std::int64_t> first,
                                     logger& log, std::int64_t most_elements) {
    log.message("  A block (per effect)-jacobi preconditioner will be used and solved with PARDISO");
    const std::int64_t neq = c.getdim(1);
    if (first.empty() || first.front() != 1 || first.back() != neq + 1 || !std::ranges::is_sorted(first))
        fatal(log, "The first equations of the effects do not cut the " + inttochar(neq) + " equations",
              module_tag, "create_mija_lhs_block");
    mija_lhs_block m;
    for (std::size_t k = 0; k + 1 < first.size(); ++k) {
        if (first[k] == first[k + 1]) continue;
        m.first.push_back(static_cast<std::int32_t>(first[k]));
        m.block.push_back(diagonal_block(c.view(), first[k], first[k + 1] - 1, most_elements, log));
    }
    return m;
}

template mija_lhs create_mija_lhs(const crssparse&, std::int64_t, logger&);
template mija_lhs create_mija_lhs(const crssparse64&, std::int64_t, logger&);
template mija_lhs_block create_mija_lhs_block(const crssparse&, std::span<const std::int64_t>, logger&,
                                              std::int64_t);
template mija_lhs_block create_mija_lhs_block(const crssparse64&, std::span<const std::int64_t>, logger&,
                                              std::int64_t);

}  // namespace zendar
