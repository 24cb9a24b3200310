#include "modsparse_coo.hpp"

#include <algorithm>

#include "modbasic.hpp"

namespace zendar {

namespace {

constexpr std::int64_t default_nel = 100;

/// The load is judged in single precision, which decides about the slots of a file.
bool overloaded(std::int64_t filled, std::int64_t nel) {
    return static_cast<float>(filled) / static_cast<float>(nel) > 0.8f;
}

/// The largest number of elements at which a table is not overloaded; the load rises with it.
std::int64_t largest_filled(std::int64_t nel) {
    std::int64_t low = 0, high = nel;
    while (low < high) {
        const std::int64_t middle = low + (high - low + 1) / 2;
        if (overloaded(middle, nel))
            high = middle - 1;
        else
            low = middle;
    }
    return low;
}

bool is_free(const coo_slot& slot) {
    return slot.row == 0 || slot.col == 0;
}

}  // namespace

// ---- set-up ----------------------------------------------------------------------------------------------

coosparse::coosparse(std::int32_t dim1, std::optional<std::int32_t> dim2, std::optional<std::int64_t> nel,
                     bool lupperstorage, logger* unlog) {
    constructor_sub(dim1, dim2, nel, lupperstorage, unlog);
}

coosparse::coosparse(const coosparse& other)
    : gen_sparse(other),
      slots_(other.settled().slots_.copy()),
      filled_(other.filled_),
      most_filled_(other.most_filled_) {}

coosparse& coosparse::operator=(coosparse&& other) noexcept {
    if (this == &other) return *this;
    gen_sparse::operator=(std::move(other));
    slots_ = std::move(other.slots_);
    filled_ = std::exchange(other.filled_, 0);
    most_filled_ = std::exchange(other.most_filled_, 0);
    nwaiting_ = std::exchange(other.nwaiting_, 0);
    waiting_ = std::move(other.waiting_);
    return *this;
}

void coosparse::constructor_sub(std::int32_t dim1, std::optional<std::int32_t> dim2,
                                std::optional<std::int64_t> nel, bool lupperstorage, logger* unlog) {
    destroy();
    unlog_ = unlog;
    init("COO", dim1, dim2.value_or(dim1));
    lupperstorage_ = lupperstorage;
    adopt(page_array<coo_slot>(roundinguppower2(nel.value_or(default_nel))), 0);
}

void coosparse::adopt(page_array<coo_slot> slots, std::int64_t filled) {
    slots_ = std::move(slots);
    filled_ = filled;
    most_filled_ = largest_filled(slots_.size());
}

coosparse coosparse::copy() const {
    return coosparse(*this);
}

void coosparse::destroy() {
    destroy_gen();
    nwaiting_ = 0;
    waiting_.reset();
    slots_.clear();
    filled_ = most_filled_ = 0;
}

double coosparse::getmem() const {
    return static_cast<double>(sizeof(coo_slot)) * static_cast<double>(nel()) + getmem_gen();
}

// ---- access ----------------------------------------------------------------------------------------------

double coosparse::get(std::int32_t row, std::int32_t col) const {
    if (!inside(row, col)) return 0.0;
    if (is_mirrored() && row > col) std::swap(row, col);
    const std::int64_t s = hashf_array_getval(row, col, slots());
    return s > 0 ? slots()[s - 1].value : 0.0;
}

// ---- whole matrix ----------------------------------------------------------------------------------------

void coosparse::visit(const element_sink& sink) const {
    std::int64_t number = 0;
    for (const coo_slot& slot : slots()) {
        ++number;
        if (!is_free(slot)) sink(slot.row, slot.col, slot.value, number);
    }
}

void coosparse::scale(double factor) {
    if (nwaiting_ > 0) settle();
    for (coo_slot& slot : slots_.span())
        if (!is_free(slot)) slot.value *= factor;
}

void coosparse::multgenv(double alpha, char trans, std::span<const double> x, double beta,
                         std::span<double> y) const {
    static_cast<void>(check_product(trans, as_column(x), as_column(y), "multbyv"));
    multgenm(alpha, trans, as_column(x), beta, as_column(y));
}

void coosparse::multgenm(double alpha, char trans, matrix_view<const double> x, double beta,
                         matrix_view<double> y) const {
    const product p = check_product(trans, x, y, "mult");
    for (std::int64_t j = 0; j < y.cols; ++j)
        for (double& value : y.column(j)) value = beta == 0.0 ? 0.0 : beta * value;
    for (const coo_slot& slot : slots()) {
        if (is_free(slot)) continue;
        const std::int32_t to = (p.transposed ? slot.col : slot.row) - 1;
        const std::int32_t from = (p.transposed ? slot.row : slot.col) - 1;
        const bool mirror = p.kind == layout::symmetric_upper && to != from;
        for (std::int64_t j = 0; j < y.cols; ++j) {
            y(to, j) += alpha * slot.value * x(from, j);
            if (mirror) y(from, j) += alpha * slot.value * x(to, j);
        }
    }
}

// ---- parts -----------------------------------------------------------------------------------------------

std::vector<double> coosparse::diag_vect(std::span<std::uint8_t> lidx) const {
    const std::int32_t n = smallest_dimension();
    if (!lidx.empty() && std::ssize(lidx) < n)
        fail(" ERROR: the vector lidx is smaller than the smallest dimension of COO");
    std::vector<double> diagonal(static_cast<std::size_t>(n), 0.0);
    for (std::int32_t i = 1; i <= n; ++i) {
        const std::int64_t s = hashf_array_getval(i, i, slots());
        if (s > 0) diagonal[i - 1] = slots()[s - 1].value;
        if (!lidx.empty()) lidx[i - 1] = s > 0 ? 1 : 0;
    }
    return diagonal;
}

coosparse coosparse::diag_mat() const {
    const std::int32_t n = smallest_dimension();
    coosparse result(dim1_, dim2_, std::int64_t{n} * 3 / 2 + 1, lupperstorage_, unlog_);
    result.take_common(*this);
    for (std::int32_t i = 1; i <= n; ++i) {
        const std::int64_t s = hashf_array_getval(i, i, slots());
        if (s > 0) result.set(i, i, slots()[s - 1].value);
    }
    return result;
}

std::vector<std::int32_t> coosparse::positions(std::span<const std::int32_t> list) const {
    if (!issquare()) message(" Warning: the sparse matrix is not squared!");
    const std::int32_t largest = std::max(dim1_, dim2_);
    std::vector<std::int32_t> position(static_cast<std::size_t>(largest) + 1, 0);
    std::int32_t number = 0;
    for (const std::int32_t index : list) {
        if (index < 1 || index > largest)
            fail(" ERROR: index " + inttochar(index) + " of the submatrix is outside the matrix");
        if (position[index] != 0)
            fail(" ERROR: index " + inttochar(index) + " of the submatrix is listed twice");
        position[index] = ++number;
    }
    return position;
}

coosparse coosparse::extract(std::span<const std::int32_t> position, std::int32_t n, bool renumber) const {
    const auto listed = [&](const coo_slot& slot) {
        return !is_free(slot) && position[slot.row] != 0 && position[slot.col] != 0;
    };
    const std::int64_t elements = std::ranges::count_if(slots(), listed);
    coosparse result(renumber ? n : dim1_, renumber ? n : dim2_, elements * 3 / 2 + 1, lupperstorage_,
                     unlog_);
    result.lsymmetric_ = lsymmetric_;
    for (const coo_slot& slot : slots()) {
        if (!listed(slot)) continue;
        std::int32_t row = renumber ? position[slot.row] : slot.row;
        std::int32_t col = renumber ? position[slot.col] : slot.col;
        if (is_mirrored() && row > col) std::swap(row, col);
        result.set(row, col, slot.value);
    }
    return result;
}

coosparse coosparse::submatrix(std::span<const std::int32_t> list) const {
    return extract(positions(list), static_cast<std::int32_t>(list.size()), true);
}

coosparse coosparse::submatrix_index(std::span<const std::int32_t> list) const {
    return extract(positions(list), static_cast<std::int32_t>(list.size()), false);
}

}  // namespace zendar
