#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <limits>

#include "modbasic.hpp"
#include "modsparse_coo.hpp"

// How elements come into the store. The memory of a big table answers after some 300 instructions, so that
// the rate of additions depends on how many of its answers are awaited at a time.

namespace zendar {

namespace {

bool is_free(const coo_slot& slot) {
    return slot.row == 0 || slot.col == 0;
}

/// Whether the slot is taken by another pair. Without branches: which slots are taken is as good as random.
bool is_other(const coo_slot& slot, std::int32_t row, std::int32_t col) {
    const int match = int{slot.row == row} & int{slot.col == col};
    const int free = int{slot.row == 0} | int{slot.col == 0};
    return (match | free) == 0;
}

}  // namespace

// ---- one element -----------------------------------------------------------------------------------------

void coosparse::set(std::int32_t row, std::int32_t col, double value) {
    if (nwaiting_ > 0) settle();
    if (accepts(row, col)) place(row, col) = value;
}

void coosparse::add(std::int32_t row, std::int32_t col, double value) {
    if (!is_entered(row, col, value)) return;
    if (waiting_ == nullptr) {
        if (slots_.size() < waiting_room::far) {
            place(row, col) += value;
            return;
        }
        waiting_ = std::make_unique<waiting_room>();
    }
    waiting_room& room = *waiting_;
    room.rows[nwaiting_] = row;
    room.cols[nwaiting_] = col;
    room.values[nwaiting_] = value;
    if (++nwaiting_ == waiting_room::places) settle();
}

void coosparse::settle() {
    // Emptied first: whatever fails must not be tried again by the next question.
    const std::size_t n = std::exchange(nwaiting_, 0);
    add_all(std::span(waiting_->rows).first(n), std::span(waiting_->cols).first(n),
            std::span(waiting_->values).first(n));
}

/// As `hashf_array` without `getval`. The first three probes do not wait for each other's memory, so that an
/// element costs about one answer of the memory; more than that takes many elements at a time.
std::int64_t coosparse::find_or_insert(std::int32_t row, std::int32_t col) {
    constexpr std::int32_t ahead = 3;
    const std::int64_t nel = slots_.size();
    coo_slot* const slots = slots_.data();
    hash_words h = hash_start(row, col);
    std::array<std::int64_t, ahead> first;
    for (std::int64_t& s : first) {
        s = next_probe(h, nel);
        __builtin_prefetch(slots + s, 1);
    }
    for (std::int32_t probe = 0; probe < maximum_probes; ++probe) {
        const std::int64_t s = probe < ahead ? first[probe] : next_probe(h, nel);
        if (is_other(slots[s], row, col)) continue;
        take(slots[s], row, col);
        return s;
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

// ---- many elements ---------------------------------------------------------------------------------------

/// Elements on their way into the table, entered in the order of `push`.
///
/// Each lane follows one element from probe to probe and asks for the memory of the next slot; it comes back
/// to it when all others had their turn. Slots are never emptied, so that one taken by another pair stays
/// passed over. A lane that meets the pair or a free slot takes the next waiting element, which is decided
/// without branches: they would be mispredicted at nearly every element. A free slot may have been taken by
/// an earlier element when the turn to be entered comes; such an element starts again.
class coosparse::conveyor {
  public:
    /// About as many answers as a core awaits of its memory at a time.
    static constexpr std::size_t lanes = 24;

    explicit conveyor(coosparse& store) : store_(store) {}

    /// An element that `accept` is false for leaves no trace.
    void push(std::int32_t row, std::int32_t col, double value, bool accept) {
        const std::size_t k = tail_ % capacity;
        row_[k] = row;
        col_[k] = col;
        value_[k] = value;
        slot_[k] = not_found;
        tail_ += accept ? 1 : 0;
        if (tail_ - started_ >= lanes) step();
    }
    /// Elements that are never entered keep the lanes going.
    void finish() {
        last_ = tail_;
        while (entered_ < last_) push(1, 1, 0.0, true);
    }

  private:
    /// Elements between push and entry, a power of 2. It bounds how long the others wait for one that takes
    /// many probes.
    static constexpr std::size_t capacity = 512;
    static constexpr std::int64_t not_found = -1;
    /// Of a push: all lanes may be with elements that find no slot.
    static constexpr std::int32_t most_rounds = 16;

    void step() {
        for (std::int32_t round = 0; round < most_rounds && tail_ - started_ >= lanes; ++round) {
            if (under_way_)
                advance();
            else
                start();
            prefetch();
            enter();
            while (tail_ - entered_ > capacity - lanes && entered_ < last_) {
                enter_on_its_own();
                enter();
            }
        }
    }
    void start() {
        for (std::size_t j = 0; j < lanes; ++j) take_next(j, ~std::uint64_t{0});
        under_way_ = true;
    }
    /// Each lane looks at the slot that it has asked for.
    void advance() {
        const coo_slot* const slots = store_.slots_.data();
        for (std::size_t j = 0; j < lanes; ++j) {
            const bool goes_on = is_other(slots[lane_slot_[j]], lane_row_[j], lane_col_[j]);
            const std::uint64_t mask = std::uint64_t{goes_on} - 1;
            slot_[lane_element_[j]] = lane_slot_[j] | static_cast<std::int64_t>(~mask);
            take_next(j, mask);
        }
    }
    /// All bits of the mask: the lane takes the next element. None: it stays with its own.
    void take_next(std::size_t j, std::uint64_t mask) {
        const auto select = [mask]<class T>(T& mine, T next) {
            mine = static_cast<T>(mine ^ ((mine ^ next) & static_cast<T>(mask)));
        };
        const std::size_t k = started_ % capacity;
        started_ += mask & 1;
        select(lane_element_[j], static_cast<std::uint32_t>(k));
        select(lane_row_[j], row_[k]);
        select(lane_col_[j], col_[k]);
        select(a_[j], static_cast<std::uint64_t>(row_[k]));
        select(b_[j], static_cast<std::uint64_t>(col_[k]));
        select(c_[j], hash_seed);
    }
    void prefetch() {
        const coo_slot* const slots = store_.slots_.data();
        const auto mask = static_cast<std::uint64_t>(store_.slots_.size() - 1);
        for (std::size_t j = 0; j < lanes; ++j) {
            mix(a_[j], b_[j], c_[j]);
            lane_slot_[j] = static_cast<std::int64_t>(c_[j] & mask);
        }
        for (std::size_t j = 0; j < lanes; ++j) __builtin_prefetch(slots + lane_slot_[j], 1);
    }
    /// Those at the front whose slots are known.
    void enter() {
        coo_slot* const slots = store_.slots_.data();
        const std::uint64_t end = std::min(started_, last_);
        while (entered_ < end) {
            const std::size_t k = entered_ % capacity;
            if (slot_[k] == not_found) return;
            coo_slot& slot = slots[slot_[k]];
            const int full = int{is_free(slot)} & int{store_.filled_ >= store_.most_filled_};
            if ((int{is_other(slot, row_[k], col_[k])} | full) != 0) [[unlikely]] {
                enter_on_its_own();
                return;
            }
            store_.take(slot, row_[k], col_[k]);
            slot.value += value_[k];
            ++entered_;
        }
    }
    /// The table may grow here, and whatever was found in the old one is void.
    void enter_on_its_own() {
        const std::size_t k = entered_ % capacity;
        const std::int64_t nel = store_.slots_.size();
        store_.place(row_[k], col_[k]) += value_[k];
        ++entered_;
        // A lane may still be with the element.
        if (slot_[k] != not_found && store_.slots_.size() == nel) return;
        for (std::uint64_t i = entered_; i < started_; ++i) slot_[i % capacity] = not_found;
        started_ = entered_;
        under_way_ = false;
    }

    coosparse& store_;
    // The numbers of the elements: pushed, under way, entered, to be entered at all.
    std::uint64_t tail_ = 0, started_ = 0, entered_ = 0, last_ = ~std::uint64_t{0};
    bool under_way_ = false;
    std::array<std::int32_t, capacity> row_, col_;
    std::array<double, capacity> value_;
    std::array<std::int64_t, capacity> slot_;  // as far as found
    std::array<std::uint64_t, lanes> a_{}, b_{}, c_{};
    std::array<std::int64_t, lanes> lane_slot_;
    std::array<std::uint32_t, lanes> lane_element_{};
    std::array<std::int32_t, lanes> lane_row_{}, lane_col_{};
};

void coosparse::add(std::span<const std::int32_t> rows, std::span<const std::int32_t> cols,
                    std::span<const double> values) {
    assert(rows.size() == cols.size() && rows.size() == values.size());
    if (nwaiting_ > 0) settle();
    add_all(rows, cols, values);
}

void coosparse::add_all(std::span<const std::int32_t> rows, std::span<const std::int32_t> cols,
                        std::span<const double> values) {
    if (rows.size() < conveyor::lanes) {
        for (std::size_t k = 0; k < rows.size(); ++k)
            if (is_entered(rows[k], cols[k], values[k])) place(rows[k], cols[k]) += values[k];
        return;
    }
    conveyor line(*this);
    for (std::size_t k = 0; k < rows.size(); ++k)
        line.push(rows[k], cols[k], values[k], is_entered(rows[k], cols[k], values[k]));
    line.finish();
}

void coosparse::grow() {
    const std::int64_t old_nel = slots_.size();
    // The rule alone would leave a table of one slot as it is.
    const std::int64_t new_nel = std::max(roundinguppower2(old_nel + old_nel / 2), 2 * old_nel);
    message("  Current | New size COO: " + inttochar(old_nel) + " | " + inttochar(new_nel));
    page_array<coo_slot> larger(new_nel);
    const page_array<coo_slot> old = std::move(slots_);
    adopt(std::move(larger), 0);

    conveyor line(*this);
    for (const coo_slot& slot : old.span())
        line.push(slot.row, slot.col, slot.value, is_entered(slot.row, slot.col, slot.value));
    line.finish();
}

}  // namespace zendar
