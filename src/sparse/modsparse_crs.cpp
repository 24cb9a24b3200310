#include "modsparse_crs.hpp"

#include <algorithm>
#include <array>
#include <cassert>
#include <limits>
#include <utility>

#include "modsparse_crs_mult.hpp"

namespace zendar {

// ---- set-up ----------------------------------------------------------------------------------------------

template <std::signed_integral Index>
crs_matrix<Index>::crs_matrix(std::int32_t dim1, std::int64_t nel, std::optional<std::int32_t> dim2,
                              bool lupperstorage, logger* unlog) {
    constructor_sub(dim1, nel, dim2, lupperstorage, unlog);
}

template <std::signed_integral Index>
crs_matrix<Index>::crs_matrix(const crs_matrix& other)
    : gen_sparse(other), ia_(other.ia_.copy()), ja_(other.ja_.copy()), a_(other.a_.copy()) {}

template <std::signed_integral Index>
crs_matrix<Index>& crs_matrix<Index>::operator=(crs_matrix&& other) noexcept {
    if (this == &other) return *this;
    gen_sparse::operator=(std::move(other));
    ia_ = std::move(other.ia_);
    ja_ = std::move(other.ja_);
    a_ = std::move(other.a_);
    pardisovar_ = std::move(other.pardisovar_);
    ldecomposed_ = std::exchange(other.ldecomposed_, false);
    return *this;
}

template <std::signed_integral Index>
void crs_matrix<Index>::constructor_sub(std::int32_t dim1, std::int64_t nel, std::optional<std::int32_t> dim2,
                                        bool lupperstorage, logger* unlog) {
    destroy();
    unlog_ = unlog;
    if (nel < 0 || nel >= std::numeric_limits<Index>::max())
        fail(" ERROR: the number of elements of a CRS matrix is out of range!");
    init(is_32 ? "CRS" : "CRS64", dim1, dim2.value_or(dim1));
    lupperstorage_ = lupperstorage;
    ia_ = page_array<Index>(std::int64_t{dim1} + 1);
    ja_ = page_array<Index>(nel);
    a_ = page_array<double>(nel);
}

template <std::signed_integral Index>
crs_matrix<Index> crs_matrix<Index>::copy() const {
    return crs_matrix(*this);
}

template <std::signed_integral Index>
void crs_matrix<Index>::destroy() {
    reset_pardiso_memory();
    destroy_gen();
    ia_.clear();
    ja_.clear();
    a_.clear();
}

template <std::signed_integral Index>
void crs_matrix<Index>::reset_pardiso_memory() {
    pardisovar_.reset();
    ldecomposed_ = false;
}

template <std::signed_integral Index>
double crs_matrix<Index>::getmem() const {
    const auto index = static_cast<double>(sizeof(Index));
    return index * static_cast<double>(ia_.size()) + (index + 8.0) * static_cast<double>(a_.size()) +
           getmem_gen();
}

template <std::signed_integral Index>
void crs_matrix<Index>::external(std::span<const Index> ia, std::span<const Index> ja,
                                 std::span<const double> a) {
    if (std::ssize(ia) != ia_.size()) fail(" ERROR: The provided array ia is of a different size!");
    if (std::ssize(ja) != ja_.size()) fail(" ERROR: The provided array ja is of a different size!");
    if (std::ssize(a) != a_.size()) fail(" ERROR: The provided array a is of a different size!");
    const crs_view<Index> provided{dim1_, dim2_, ia, ja, a};
    if (detail::check_crs(provided, lupperstorage_) != detail::crs_defect::none)
        fail(" ERROR: The provided arrays ia and ja do not form the rows of the matrix!");
    std::ranges::copy(ia, ia_.data());
    std::ranges::copy(ja, ja_.data());
    std::ranges::copy(a, a_.data());
    lsorted_ = detail::is_sorted_by_column(provided);
    reset_pardiso_memory();
}

// ---- access ----------------------------------------------------------------------------------------------

template <std::signed_integral Index>
std::int64_t crs_matrix<Index>::find(std::int32_t row, std::int32_t col) const {
    const std::int64_t end = end_of(row);
    for (std::int64_t k = begin_of(row); k < end; ++k)
        if (ja_.data()[k] == col) return k;
    return -1;
}

template <std::signed_integral Index>
double crs_matrix<Index>::get(std::int32_t row, std::int32_t col) const {
    if (is_mirrored() && row > col) std::swap(row, col);
    const std::int64_t k = inside(row, col) ? find(row, col) : -1;
    return k < 0 ? 0.0 : a_.data()[k];
}

template <std::signed_integral Index>
std::int32_t crs_matrix<Index>::set(std::int32_t row, std::int32_t col, double value) {
    if (!inside(row, col)) return -10;
    const std::int64_t k = find(row, col);
    if (k < 0) return -1;
    a_.data()[k] = value;
    return 0;
}

template <std::signed_integral Index>
std::int32_t crs_matrix<Index>::add(std::int32_t row, std::int32_t col, double value) {
    if (!inside(row, col)) return -10;
    const std::int64_t k = find(row, col);
    if (k < 0) return -1;
    a_.data()[k] += value;
    return 0;
}

template <std::signed_integral Index>
std::vector<Index> crs_matrix<Index>::get_rowptr() const {
    return {ia_.data(), ia_.data() + ia_.size()};
}

template <std::signed_integral Index>
std::vector<Index> crs_matrix<Index>::get_colval() const {
    return {ja_.data(), ja_.data() + ja_.size()};
}

template <std::signed_integral Index>
std::vector<double> crs_matrix<Index>::get_nzval() const {
    return {a_.data(), a_.data() + a_.size()};
}

template <std::signed_integral Index>
void crs_matrix<Index>::visit(const element_sink& sink) const {
    for (std::int32_t row = 1; row <= dim1_; ++row)
        for (std::int64_t k = begin_of(row); k < end_of(row); ++k)
            sink(row, static_cast<std::int32_t>(ja_.data()[k]), a_.data()[k], k + 1);
}

template <std::signed_integral Index>
void crs_matrix<Index>::scale(double factor) {
    for (double& value : a_.span()) value *= factor;
}

template <std::signed_integral Index>
std::vector<double> crs_matrix<Index>::diag_vect(std::span<std::uint8_t> lidx) const
    requires(std::same_as<Index, std::int32_t>)
{
    const std::int32_t n = smallest_dimension();
    if (!lidx.empty() && std::ssize(lidx) < n)
        fail(" ERROR: the vector lidx is smaller than the smallest dimension of CRS");
    std::vector<double> diagonal(static_cast<std::size_t>(n), 0.0);
    for (std::int32_t i = 1; i <= n; ++i) {
        const std::int64_t k = find(i, i);
        if (k >= 0) diagonal[i - 1] = a_.data()[k];
        if (!lidx.empty()) lidx[i - 1] = k >= 0 ? 1 : 0;
    }
    return diagonal;
}

template <std::signed_integral Index>
crs_matrix<Index> crs_matrix<Index>::diag_mat() const
    requires(std::same_as<Index, std::int32_t>)
{
    const std::int32_t n = smallest_dimension();
    const std::vector<double> diagonal = diag_vect();
    crs_matrix result(dim1_, n, dim2_, lupperstorage_, unlog_);
    result.take_common(*this);
    for (std::int32_t i = 0; i <= dim1_; ++i) result.ia_.data()[i] = std::min(i, n) + 1;
    for (std::int32_t i = 0; i < n; ++i) {
        result.ja_.data()[i] = i + 1;
        result.a_.data()[i] = diagonal[i];
    }
    result.lsorted_ = true;
    return result;
}

// ---- products --------------------------------------------------------------------------------------------

template <std::signed_integral Index>
void crs_matrix<Index>::multgenv(double alpha, char trans, std::span<const double> x, double beta,
                                 std::span<double> y) const {
    if constexpr (is_32) static_cast<void>(check_product(trans, as_column(x), as_column(y), "multbyv"));
    multgenm(alpha, trans, as_column(x), beta, as_column(y));
}

template <std::signed_integral Index>
void crs_matrix<Index>::multgenm([[maybe_unused]] double alpha, [[maybe_unused]] char trans,
                                 matrix_view<const double> x, [[maybe_unused]] double beta,
                                 matrix_view<double> y) const {
    if constexpr (is_32) {
        const product p = check_product(trans, x, y, "mult");
        const storage kind = p.kind == layout::general            ? storage::general
                             : p.kind == layout::upper_triangular ? storage::upper_triangular
                                                                  : storage::symmetric_upper;
        crs_multiply(view(), kind, p.transposed, alpha, x, beta, y);
    } else {
        message(" Warning: mult not supported by crssparse64! Array returned = x");
        for (std::int64_t j = 0; j < std::min(x.cols, y.cols); ++j)
            std::ranges::copy(x.column(j).first(std::min(x.rows, y.rows)), y.column(j).begin());
    }
}

// ---- sorting ---------------------------------------------------------------------------------------------

namespace {

template <std::signed_integral Index>
struct element {
    Index col;
    double value;
};

/// Sorts the columns and values of one row through a buffer of at least its size.
template <std::signed_integral Index>
void sort_row(std::span<Index> ja, std::span<double> a, element<Index>* buffer) {
    const std::size_t n = ja.size();
    for (std::size_t k = 0; k < n; ++k) buffer[k] = {ja[k], a[k]};
    const auto by_column = [](const element<Index>& x, const element<Index>& y) { return x.col < y.col; };
    std::sort(buffer, buffer + n, by_column);
    for (std::size_t k = 0; k < n; ++k) {
        ja[k] = buffer[k].col;
        a[k] = buffer[k].value;
    }
}

constexpr std::size_t longest_by_rank = 24;

/// The same for a few elements: each counts those before it. Without branches, as in an assembled row every
/// comparison would be mispredicted as often as not.
template <std::signed_integral Index>
void sort_short_row(std::span<Index> ja, std::span<double> a) {
    std::array<element<Index>, longest_by_rank> held;
    std::array<std::uint32_t, longest_by_rank> rank;
    const std::size_t n = ja.size();
    for (std::size_t k = 0; k < n; ++k) {
        held[k] = {ja[k], a[k]};
        std::uint32_t before = 0;
        for (std::size_t j = 0; j < k; ++j) {
            const auto first = static_cast<std::uint32_t>(held[j].col <= held[k].col);
            before += first;
            rank[j] += 1 - first;
        }
        rank[k] = before;
    }
    for (std::size_t k = 0; k < n; ++k) {
        ja[rank[k]] = held[k].col;
        a[rank[k]] = held[k].value;
    }
}

template <std::signed_integral Index>
bool is_sorted(std::span<const Index> columns) {
    return std::is_sorted(columns.begin(), columns.end());
}

constexpr std::int64_t longest_on_stack = 2048;

/// Rows that the parallel loop leaves out, since it must not allocate.
template <std::signed_integral Index>
void sort_long_rows(std::span<const Index> ia, std::span<Index> ja, std::span<double> a) {
    std::vector<element<Index>> buffer;
    for (std::size_t row = 0; row + 1 < ia.size(); ++row) {
        const auto begin = static_cast<std::size_t>(ia[row] - 1);
        const auto n = static_cast<std::size_t>(ia[row + 1] - ia[row]);
        if (static_cast<std::int64_t>(n) <= longest_on_stack) continue;
        if (is_sorted(std::span<const Index>(ja.subspan(begin, n)))) continue;
        buffer.resize(std::max(n, buffer.size()));
        sort_row(ja.subspan(begin, n), a.subspan(begin, n), buffer.data());
    }
}

}  // namespace

template <std::signed_integral Index>
void crs_matrix<Index>::sort() {
    const std::span<const Index> ia = std::as_const(ia_).span();
    const std::span<Index> ja = ja_.span();
    const std::span<double> a = a_.span();
    sort_long_rows(ia, ja, a);
    const std::int32_t n = dim1_;
#pragma omp parallel for schedule(dynamic, 1024) default(none) shared(ia, ja, a, n)
    for (std::int32_t row = 0; row < n; ++row) {
        std::array<element<Index>, longest_on_stack> buffer;
        const auto begin = static_cast<std::size_t>(ia[row] - 1);
        const auto count = static_cast<std::size_t>(ia[row + 1] - ia[row]);
        if (count < 2 || static_cast<std::int64_t>(count) > longest_on_stack) continue;
        if (is_sorted(std::span<const Index>(ja.subspan(begin, count)))) continue;
        if (count <= longest_by_rank)
            sort_short_row(ja.subspan(begin, count), a.subspan(begin, count));
        else
            sort_row(ja.subspan(begin, count), a.subspan(begin, count), buffer.data());
    }
    lsorted_ = true;
}

// ---- soundness of arrays that come from elsewhere --------------------------------------------------------

namespace detail {

template <std::signed_integral Index>
crs_defect check_crs(crs_view<Index> m, bool lupperstorage) {
    const Index nel = static_cast<Index>(m.ja.size());
    if (m.ia.front() != 1 || m.ia.back() != nel + 1 || !std::ranges::is_sorted(m.ia))
        return crs_defect::pointers;
    for (std::int32_t row = 1; row <= m.dim1; ++row) {
        // The reserved last column of a tall matrix lies below the diagonal in its lower rows.
        const Index first = lupperstorage ? std::min(row, m.dim2) : 1;
        for (Index k = m.ia[row - 1] - 1; k < m.ia[row] - 1; ++k)
            if (m.ja[k] < std::max(first, Index{1}) || m.ja[k] > m.dim2) return crs_defect::columns;
    }
    return crs_defect::none;
}

template <std::signed_integral Index>
bool is_sorted_by_column(crs_view<Index> m) {
    for (std::int32_t row = 1; row <= m.dim1; ++row)
        for (Index k = m.ia[row - 1]; k < m.ia[row] - 1; ++k)
            if (m.ja[k - 1] >= m.ja[k]) return false;
    return true;
}

template crs_defect check_crs(crs_view<std::int32_t>, bool);
template crs_defect check_crs(crs_view<std::int64_t>, bool);
template bool is_sorted_by_column(crs_view<std::int32_t>);
template bool is_sorted_by_column(crs_view<std::int64_t>);

}  // namespace detail

template class crs_matrix<std::int32_t>;
template class crs_matrix<std::int64_t>;

}  // namespace zendar
