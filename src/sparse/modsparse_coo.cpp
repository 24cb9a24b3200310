#include "modsparse_coo.hpp"

#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <limits>

#include "modbasic.hpp"

namespace zendar {

namespace {

constexpr std::int64_t default_nel = 100;
constexpr double epsilon = std::numeric_limits<double>::epsilon();

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

bool is_pair(const coo_slot& slot, std::int32_t row, std::int32_t col) {
    return slot.row == row && slot.col == col;
}

}  // namespace

// ---- set-up ----------------------------------------------------------------------------------------------

coosparse::coosparse(std::int32_t dim1, std::optional<std::int32_t> dim2, std::optional<std::int64_t> nel,
                     bool lupperstorage, logger* unlog) {
    constructor_sub(dim1, dim2, nel, lupperstorage, unlog);
}

coosparse::coosparse(const coosparse& other)
    : gen_sparse(other),
      slots_(other.slots_.copy()),
      filled_(other.filled_),
      most_filled_(other.most_filled_) {}

coosparse& coosparse::operator=(coosparse&& other) noexcept {
    if (this == &other) return *this;
    gen_sparse::operator=(std::move(other));
    slots_ = std::move(other.slots_);
    filled_ = std::exchange(other.filled_, 0);
    most_filled_ = std::exchange(other.most_filled_, 0);
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
    most_filled_ = largest_filled(nel());
}

coosparse coosparse::copy() const {
    return coosparse(*this);
}

void coosparse::destroy() {
    destroy_gen();
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

void coosparse::set(std::int32_t row, std::int32_t col, double value) {
    if (accepts(row, col)) place(row, col) = value;
}

void coosparse::add(std::int32_t row, std::int32_t col, double value) {
    if (accepts(row, col) && !(std::abs(value) < epsilon)) place(row, col) += value;
}

/// As `hashf_array` without `getval`. The first three probes do not wait for each other's memory.
std::int64_t coosparse::find_or_insert(std::int32_t row, std::int32_t col) {
    constexpr int ahead = 3;
    const std::int64_t nel = this->nel();
    coo_slot* const slot = slots_.data();
    hash_words h = hash_start(row, col);
    std::array<std::int64_t, ahead> first;
    for (std::int64_t& s : first) {
        s = next_probe(h, nel);
        __builtin_prefetch(slot + s, 1);
    }
    for (std::int32_t probe = 0; probe < maximum_probes; ++probe) {
        const std::int64_t s = probe < ahead ? first[static_cast<std::size_t>(probe)] : next_probe(h, nel);
        if (is_pair(slot[s], row, col)) return s;
        if (is_free(slot[s])) {
            slot[s] = {row, col, 0.0};
            ++filled_;
            return s;
        }
    }
    message(" Warning: the maximum number of searches was reached!");
    return -1;
}

double& coosparse::place(std::int32_t row, std::int32_t col) {
    std::int64_t s = find_or_insert(row, col);
    if (s < 0 || filled_ > most_filled_) {
        grow();
        s = find_or_insert(row, col);
    }
    if (s < 0) fail(" ERROR: unexpected");
    return slots_.data()[s].value;
}

void coosparse::grow() {
    const std::int64_t old_nel = nel();
    // The rule alone would leave a table of one slot as it is.
    const std::int64_t new_nel = std::max(roundinguppower2(old_nel + old_nel / 2), 2 * old_nel);
    message("  Current | New size COO: " + inttochar(old_nel) + " | " + inttochar(new_nel));
    page_array<coo_slot> larger(new_nel);
    const page_array<coo_slot> old = std::move(slots_);
    adopt(std::move(larger), 0);

    constexpr std::int64_t block = 4096;
    std::vector<std::int32_t> rows(block), cols(block);
    std::vector<double> values(block);
    for (std::int64_t begin = 0; begin < old_nel; begin += block) {
        std::size_t n = 0;
        for (const coo_slot& slot : old.span().subspan(begin, std::min(block, old_nel - begin))) {
            rows[n] = slot.row;
            cols[n] = slot.col;
            values[n] = slot.value;
            n += is_free(slot) ? 0 : 1;
        }
        add(std::span(rows).first(n), std::span(cols).first(n), std::span(values).first(n));
    }
}

// ---- many elements ---------------------------------------------------------------------------------------

/// Elements on their way into the table. Slots are never emptied, so that a slot seen with another pair stays
/// passed over; a free slot may have been taken by an earlier element when its turn comes.
struct coosparse::batch {
    static constexpr std::int32_t capacity = 64;

    std::int32_t size = 0;
    std::array<std::int32_t, capacity> row, col;
    std::array<double, capacity> value;
    std::array<std::uint64_t, capacity> a, b, c;
    std::array<std::int64_t, capacity> slot;
    std::array<std::int32_t, capacity> probes;

    void start(std::int32_t from, std::int64_t nel, const coo_slot* slots) {
        for (std::int32_t i = from; i < size; ++i) {
            a[i] = static_cast<std::uint64_t>(row[i]);
            b[i] = static_cast<std::uint64_t>(col[i]);
            c[i] = hash_seed;
            mix(a[i], b[i], c[i]);
            slot[i] = static_cast<std::int64_t>(c[i] & static_cast<std::uint64_t>(nel - 1));
        }
        for (std::int32_t i = from; i < size; ++i) {
            probes[i] = 1;
            __builtin_prefetch(slots + slot[i], 1);
        }
    }
    void next(std::int32_t i, std::int64_t nel) {
        mix(a[i], b[i], c[i]);
        slot[i] = static_cast<std::int64_t>(c[i] & static_cast<std::uint64_t>(nel - 1));
        ++probes[i];
    }
    /// Whether the slot is taken by another pair. Without branches: which slots are taken is as good as
    /// random.
    [[nodiscard]] bool passes(std::int32_t i, const coo_slot* slots) const {
        const coo_slot& s = slots[slot[i]];
        const bool match = (s.row == row[i]) & (s.col == col[i]), free = (s.row == 0) | (s.col == 0);
        return !(match | free);
    }
    /// Moves every element on to a slot that may be its own, and asks for the memory on the way.
    void look_ahead(std::int32_t from, std::int64_t nel, const coo_slot* slots) {
        std::array<std::int32_t, capacity> open;
        std::int32_t nopen = 0;
        for (std::int32_t i = from; i < size; ++i) open[nopen++] = i;
        // Few elements wait for the memory one by one as well; they are left to `enter`.
        while (nopen > 2) {
            std::int32_t kept = 0;
            for (std::int32_t k = 0; k < nopen; ++k) {
                const std::int32_t i = open[k];
                open[kept] = i;
                kept += passes(i, slots) & (probes[i] < maximum_probes) ? 1 : 0;
            }
            nopen = kept;
            for (std::int32_t k = 0; k < nopen; ++k) {
                next(open[k], nel);
                __builtin_prefetch(slots + slot[open[k]], 1);
            }
        }
    }
};

void coosparse::enter(batch& b) {
    std::int32_t i = 0;
    while (i < b.size) {
        const std::int64_t nel = this->nel();
        coo_slot* const slots = slots_.data();
        b.start(i, nel, slots);
        b.look_ahead(i, nel, slots);
        for (; i < b.size; ++i) {
            while (b.passes(i, slots) && b.probes[i] < maximum_probes) b.next(i, nel);
            coo_slot& slot = slots[b.slot[i]];
            const bool insert = is_free(slot);
            // A table that must grow is left to `add`, with the states of what follows made anew.
            if (b.passes(i, slots) || filled_ + (insert ? 1 : 0) > most_filled_) {
                add(b.row[i], b.col[i], b.value[i]);
                ++i;
                break;
            }
            if (insert) {
                slot = {b.row[i], b.col[i], 0.0};
                ++filled_;
            }
            slot.value += b.value[i];
        }
    }
    b.size = 0;
}

void coosparse::add(std::span<const std::int32_t> rows, std::span<const std::int32_t> cols,
                    std::span<const double> values) {
    assert(rows.size() == cols.size() && rows.size() == values.size());
    batch b;
    for (std::size_t k = 0; k < rows.size(); ++k) {
        b.row[b.size] = rows[k];
        b.col[b.size] = cols[k];
        b.value[b.size] = values[k];
        b.size += accepts(rows[k], cols[k]) && !(std::abs(values[k]) < epsilon) ? 1 : 0;
        if (b.size == batch::capacity) enter(b);
    }
    enter(b);
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
