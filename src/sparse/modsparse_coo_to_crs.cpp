#include <omp.h>

#include <algorithm>
#include <array>
#include <bit>
#include <limits>
#include <vector>

#include "modsparse.hpp"
#include "modsparse_detail.hpp"

// From a hash table to compressed rows. The table's order is as good as random, and elements that were sent
// to their rows at once would each wait for memory of their own. They go in two steps instead: to the place
// of some thousand rows, of which a few thousand places are open at a time, and from there to their rows,
// which all stand in the second-level cache by then. Beside the result this takes two bytes an element.

namespace zendar::detail {

namespace {

using row_in_part = std::uint16_t;

/// Rows in parts of 2^shift.
struct row_parts {
    static constexpr std::int32_t most_shift = std::numeric_limits<row_in_part>::digits;
    static constexpr std::int64_t elements_of_part = 1 << 15;  // some 450 KB with their rows

    std::int32_t dim1, shift;

    row_parts(std::int32_t rows, std::int64_t elements) : dim1(rows), shift(most_shift) {
        const std::int64_t wanted = std::max<std::int64_t>(1, elements / elements_of_part);
        while (shift > 0 && count() < wanted) --shift;
    }
    [[nodiscard]] std::int64_t count() const { return (std::int64_t{dim1} + (1 << shift) - 1) >> shift; }
    [[nodiscard]] std::int64_t of(std::int32_t row) const { return (row - 1) >> shift; }
    [[nodiscard]] std::int32_t first_row(std::int64_t part) const {
        return static_cast<std::int32_t>(std::min<std::int64_t>(part << shift, dim1)) + 1;
    }
};

/// The occupied slots of some rows, in pieces that fit the first-level cache together with what they lead to.
/// Which slots these are is as good as random: the others are left out without a branch.
template <class Work>
void by_pieces(std::span<const coo_slot> slots, std::int32_t first_row, std::int32_t end_row,
               const Work& work) {
    constexpr std::size_t piece = 128;
    std::array<coo_slot, piece> held;
    std::size_t n = 0;
    for (const coo_slot& slot : slots) {
        held[n] = slot;
        n += static_cast<std::size_t>((slot.row >= first_row) & (slot.row < end_row) & (slot.col != 0));
        if (n == piece) {
            work(std::span<const coo_slot>(held));
            n = 0;
        }
    }
    work(std::span<const coo_slot>(held.data(), n));
}

/// Threads that each read all slots, for parts of their own.
int number_of_readers(const coosparse& coo, const row_parts& parts) {
    constexpr std::int64_t worth_it = 1 << 16;
    constexpr std::int64_t most = 8;
    if (coo.nel() < worth_it || omp_in_parallel() != 0) return 1;
    return static_cast<int>(
        std::clamp<std::int64_t>(parts.count(), 1, std::min<std::int64_t>(omp_get_max_threads(), most)));
}

/// The conversion on its way. `Index` counts elements from 1 in the result and from 0 here.
template <std::signed_integral Index>
class converter {
  public:
    converter(const coosparse& coo, std::int64_t limit)
        : coo_(coo),
          reserved_(coo),
          parts_(coo.getdim(1), coo.filled()),
          readers_(number_of_readers(coo, parts_)),
          begin_(static_cast<std::size_t>(parts_.count()) + 1, 0),
          end_(begin_.size(), 0) {
        count_elements();
        const std::int64_t nel = add_up();
        if (nel > limit) too_many_elements(coo.getoutputunit());
        result_ =
            crs_matrix<Index>(coo.getdim(1), nel, coo.getdim(2), coo.isupperstorage(), coo.getoutputunit());
        result_.take_common(coo);
        row_ = page_array<row_in_part>(nel);
    }

    crs_matrix<Index> convert() {
        crs_arrays::ia(result_)[0] = 1;
        to_parts();
        to_rows();
        result_.sort();
        return std::move(result_);
    }

  private:
    /// First and last part, the latter excluded, of a reader.
    [[nodiscard]] std::int64_t part_at(int reader) const { return parts_.count() * reader / readers_; }

    template <class Work>
    void each_reader(const Work& work) const {
#pragma omp parallel for schedule(static, 1) num_threads(readers_) default(none) shared(work)
        for (int r = 0; r < readers_; ++r)
            by_pieces(coo_.slots(), parts_.first_row(part_at(r)), parts_.first_row(part_at(r + 1)), work);
    }

    /// Elements of each part without the reserved ones, in `end_`.
    void count_elements() {
        std::int64_t* const counts = end_.data();
        each_reader([this, counts](std::span<const coo_slot> piece) {
            for (const coo_slot& slot : piece)
                counts[parts_.of(slot.row)] += slot.col != reserved_(slot.row) ? 1 : 0;
        });
    }

    /// Where the parts begin, with an element reserved in each row. Returns where the last one ends.
    std::int64_t add_up() {
        std::int64_t nel = 0;
        for (std::int64_t p = 0; p < parts_.count(); ++p) {
            const std::int64_t elements = end_[p];
            begin_[p] = end_[p] = nel;
            nel +=
                elements + (parts_.first_row(p + 1) - parts_.first_row(p)) * std::int64_t{reserved_.per_row};
        }
        begin_.back() = nel;
        return nel;
    }

    void to_parts() {
        Index* const ja = crs_arrays::ja(result_).data();
        double* const a = crs_arrays::a(result_).data();
        row_in_part* const row = row_.data();
        std::int64_t* const end = end_.data();
        const std::int32_t mask = (1 << parts_.shift) - 1;
        each_reader([this, ja, a, row, end, mask](std::span<const coo_slot> piece) {
            for (const coo_slot& slot : piece) {
                const std::int64_t k = end[parts_.of(slot.row)]++;
                row[k] = static_cast<row_in_part>((slot.row - 1) & mask);
                ja[k] = slot.col;
                a[k] = slot.value;
            }
        });
    }

    void to_rows() {
        const std::int64_t nparts = parts_.count();
        const std::size_t nrow = std::size_t{1} << parts_.shift;
        const int threads = omp_in_parallel() != 0 ? 1 : omp_get_max_threads();
        // What the threads work with is made before they start, as they must not throw.
        std::vector<row_order> orders(static_cast<std::size_t>(threads), row_order(nrow));
#pragma omp parallel for schedule(dynamic) num_threads(threads) default(none) shared(orders, nparts)
        for (std::int64_t p = 0; p < nparts; ++p)
            to_rows(p, orders[static_cast<std::size_t>(omp_get_thread_num())]);
    }

    /// For the rows of a part: where the next element goes, and where the row ends.
    struct row_order {
        std::vector<std::int64_t> next, end;
        std::vector<std::uint8_t> has_reserved;
        explicit row_order(std::size_t rows) : next(rows), end(rows), has_reserved(rows) {}
    };

    void to_rows(std::int64_t part, row_order& order) {
        const std::span<Index> ia = crs_arrays::ia(result_);
        Index* const ja = crs_arrays::ja(result_).data();
        double* const a = crs_arrays::a(result_).data();
        row_in_part* const row = row_.data();
        const std::int32_t first = parts_.first_row(part);
        const auto n = static_cast<std::size_t>(parts_.first_row(part + 1) - first);

        std::ranges::fill(order.end, 0);
        std::ranges::fill(order.has_reserved, std::uint8_t{0});
        for (std::int64_t k = begin_[part]; k < end_[part]; ++k) {
            ++order.end[row[k]];
            if (ja[k] == reserved_(first + row[k])) order.has_reserved[row[k]] = 1;
        }
        std::int64_t k = end_[part], at = begin_[part];
        for (std::size_t i = 0; i < n; ++i) {
            if (reserved_.per_row > 0 && order.has_reserved[i] == 0) {
                row[k] = static_cast<row_in_part>(i);
                ja[k++] = reserved_(first + static_cast<std::int32_t>(i));
                ++order.end[i];
            }
            order.next[i] = at;
            at += order.end[i];
            order.end[i] = at;
            ia[static_cast<std::size_t>(first) + i] = static_cast<Index>(at + 1);
        }
        permute(n, order, row, ja, a);
    }

    /// Exchanges elements until all stand in their rows; see P. M. McIlroy, K. Bostic, M. D. McIlroy (1993),
    /// Engineering radix sort, Computing Systems 6, 5-27.
    static void permute(std::size_t n, row_order& order, row_in_part* row, Index* ja, double* a) {
        for (std::size_t i = 0; i < n; ++i) {
            for (std::int64_t k = order.next[i]; k < order.end[i]; ++k) {
                row_in_part r = row[k];
                if (r == i) continue;
                Index col = ja[k];
                double value = a[k];
                do {
                    const std::int64_t to = order.next[r]++;
                    std::swap(r, row[to]);
                    std::swap(col, ja[to]);
                    std::swap(value, a[to]);
                } while (r != i);
                row[k] = r;
                ja[k] = col;
                a[k] = value;
            }
        }
    }

    const coosparse& coo_;
    reserved_column reserved_;
    row_parts parts_;
    int readers_;
    std::vector<std::int64_t> begin_, end_;  // of the elements of each part
    crs_matrix<Index> result_;
    page_array<row_in_part> row_;
};

}  // namespace

template <std::signed_integral Index>
crs_matrix<Index> coo_to_crs(const coosparse& coo, std::int64_t limit) {
    return converter<Index>(coo, limit).convert();
}

template crssparse coo_to_crs(const coosparse&, std::int64_t);
template crssparse64 coo_to_crs(const coosparse&, std::int64_t);

}  // namespace zendar::detail
