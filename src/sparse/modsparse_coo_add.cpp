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

constexpr double epsilon = std::numeric_limits<double>::epsilon();

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
    if (accepts(row, col)) place(row, col) = value;
}

void coosparse::add(std::int32_t row, std::int32_t col, double value) {
    if (accepts(row, col) && !(std::abs(value) < epsilon)) place(row, col) += value;
}

/// As `hashf_array` without `getval`. The first three probes do not wait for each other's memory, so that an
/// element costs about one answer of the memory; more than that takes many elements at a time.
std::int64_t coosparse::find_or_insert(std::int32_t row, std::int32_t col) {
    constexpr std::int32_t ahead = 3;
    const std::int64_t nel = this->nel();
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

/// Elements on their way into the table, which go from round to round: each round looks at a slot whose
/// memory was asked for a round ago, and asks for the next one of those elements whose slot is taken by
/// another pair. Slots are never emptied, so that such a slot stays passed over; a free slot may have been
/// taken by an earlier element when its turn comes.
struct coosparse::batch {
    static constexpr std::int32_t capacity = 16;

    std::int32_t size = 0, nopen = 0;
    std::array<std::int32_t, capacity> row, col;
    std::array<double, capacity> value;
    std::array<std::uint64_t, capacity> a, b, c;
    std::array<std::int64_t, capacity> slot;
    std::array<std::int32_t, capacity> probes;
    std::array<std::int32_t, capacity> open;  // those that may have to go on

    void start(std::int32_t from, std::int64_t nel, const coo_slot* slots) {
        for (std::int32_t i = from; i < size; ++i) {
            a[i] = static_cast<std::uint64_t>(row[i]);
            b[i] = static_cast<std::uint64_t>(col[i]);
            c[i] = hash_seed;
            mix(a[i], b[i], c[i]);
            slot[i] = static_cast<std::int64_t>(c[i] & static_cast<std::uint64_t>(nel - 1));
        }
        nopen = 0;
        for (std::int32_t i = from; i < size; ++i) {
            __builtin_prefetch(slots + slot[i], 1);
            probes[i] = 1;
            open[nopen++] = i;
        }
    }
    void next(std::int32_t i, std::int64_t nel) {
        mix(a[i], b[i], c[i]);
        slot[i] = static_cast<std::int64_t>(c[i] & static_cast<std::uint64_t>(nel - 1));
        ++probes[i];
    }
    [[nodiscard]] bool passes(std::int32_t i, const coo_slot* slots) const {
        return is_other(slots[slot[i]], row[i], col[i]);
    }
    void look_ahead(std::int64_t nel, const coo_slot* slots) {
        std::int32_t kept = 0;
        for (std::int32_t k = 0; k < nopen; ++k) {
            const std::int32_t i = open[k];
            open[kept] = i;
            const int goes_on = int{passes(i, slots)} & int{probes[i] < maximum_probes};
            kept += goes_on;
        }
        nopen = kept;
        for (std::int32_t k = 0; k < nopen; ++k) {
            next(open[k], nel);
            __builtin_prefetch(slots + slot[open[k]], 1);
        }
    }
};

/// The batches under way, each a round behind the one after it. Elements are entered in the order of `push`.
class coosparse::conveyor {
  public:
    explicit conveyor(coosparse& store) : store_(store) {}

    /// An element that `accept` is false for leaves no trace.
    void push(std::int32_t row, std::int32_t col, double value, bool accept) {
        batch& b = batches_[newest_];
        b.row[b.size] = row;
        b.col[b.size] = col;
        b.value[b.size] = value;
        b.size += accept ? 1 : 0;
        if (b.size == batch::capacity) step();
    }
    void finish() {
        for (std::size_t k = 0; k < rounds; ++k) step();
    }

  private:
    static constexpr std::size_t rounds = 8;

    void step() {
        batches_[newest_].start(0, store_.nel(), store_.slots_.data());
        for (std::size_t k = 1; k + 1 < rounds; ++k)
            batches_[(newest_ + rounds - k) % rounds].look_ahead(store_.nel(), store_.slots_.data());
        newest_ = (newest_ + 1) % rounds;
        enter(batches_[newest_]);
    }
    void enter(batch& b) {
        std::int64_t nel = store_.nel();
        coo_slot* slots = store_.slots_.data();
        for (std::int32_t i = 0; i < b.size; ++i) {
            while (b.passes(i, slots) && b.probes[i] < maximum_probes) b.next(i, nel);
            coo_slot& slot = slots[b.slot[i]];
            const bool insert = is_free(slot);
            if (b.passes(i, slots) || store_.filled_ + (insert ? 1 : 0) > store_.most_filled_) {
                // The table grows here, and whatever was found in the old one is void.
                store_.place(b.row[i], b.col[i]) += b.value[i];
                nel = store_.nel();
                slots = store_.slots_.data();
                b.start(i + 1, nel, slots);
                for (batch& other : batches_)
                    if (&other != &b) other.start(0, nel, slots);
                continue;
            }
            store_.take(slot, b.row[i], b.col[i]);
            slot.value += b.value[i];
        }
        b.size = b.nopen = 0;
    }

    coosparse& store_;
    std::array<batch, rounds> batches_;
    std::size_t newest_ = 0;
};

void coosparse::add(std::span<const std::int32_t> rows, std::span<const std::int32_t> cols,
                    std::span<const double> values) {
    assert(rows.size() == cols.size() && rows.size() == values.size());
    conveyor line(*this);
    for (std::size_t k = 0; k < rows.size(); ++k)
        line.push(rows[k], cols[k], values[k], accepts(rows[k], cols[k]) && !(std::abs(values[k]) < epsilon));
    line.finish();
}

void coosparse::grow() {
    const std::int64_t old_nel = nel();
    // The rule alone would leave a table of one slot as it is.
    const std::int64_t new_nel = std::max(roundinguppower2(old_nel + old_nel / 2), 2 * old_nel);
    message("  Current | New size COO: " + inttochar(old_nel) + " | " + inttochar(new_nel));
    page_array<coo_slot> larger(new_nel);
    const page_array<coo_slot> old = std::move(slots_);
    adopt(std::move(larger), 0);

    conveyor line(*this);
    for (const coo_slot& slot : old.span())
        line.push(slot.row, slot.col, slot.value, !is_free(slot) && !(std::abs(slot.value) < epsilon));
    line.finish();
}

}  // namespace zendar
