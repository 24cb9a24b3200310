#include <omp.h>

#include "modsparse_crs_mult_rows.hpp"

// Several columns, elements anywhere in long vectors. There is a row-major copy of x, so that an element
// costs one place in memory and not one per column; the places are asked for ahead. The sums of a row take
// the place of its x as soon as no row above is left, to which what is scattered is added. Rows are shared
// out to be gathered, columns to be scattered: sums have one owner, and a thread passes over the rows of
// others for its columns, which costs less than sums of its own for all columns would, in memory above all.

namespace zendar::crs_mult {

namespace {

/// The columns of a part.
struct column_range {
    std::int64_t from, to;
};

/// Elements on their way to the sums, and the rows of x that they come from. What an element leads to is
/// known a batch ahead, and between elements no end of a row is to be foreseen.
template <int B>
struct batch {
    static constexpr std::int64_t most = 256, most_rows = 64;

    double rows[most_rows * B] = {};
    std::int64_t elements[most];
    std::int32_t columns[most], sources[most];  // from 0; among the rows
    std::int64_t count = 0;

    /// The element to stand at place e, which is not counted yet.
    [[gnu::always_inline]] void put(std::int64_t e, std::int64_t element, std::int64_t column,
                                    std::int64_t source) {
        elements[e] = element;
        columns[e] = static_cast<std::int32_t>(column);
        sources[e] = static_cast<std::int32_t>(source);
    }
    [[gnu::always_inline]] void ask_for(std::int64_t e, const double* sums) const {
        ask_for_row<B, 1>(sums + std::int64_t{columns[e]} * B);
    }
    [[gnu::always_inline]] void add(std::int64_t e, double alpha, const double* a, double* sums) const {
        lanes<B>::load(rows + std::int64_t{sources[e]} * B)
            .add_to(sums + std::int64_t{columns[e]} * B, alpha * a[elements[e]]);
    }
};

/// The elements right of the diagonal in a part's columns, in the order of the matrix.
template <int B, std::signed_integral Index>
class batches {
  public:
    batches(crs_view<Index> m, column_range own, matrix_view<const double> x)
        : m_(m), own_(own), x_(x), ahead_(m) {}

    [[nodiscard]] bool left() const { return row_ < own_.to; }

    /// The next ones; none, once there are no more.
    void next(batch<B>& b) {
        first_ = row_;
        const std::int64_t to = std::min(first_ + batch<B>::most_rows, own_.to);
        b.count = 0;
        while (row_ < to) {
            const std::int64_t end = end_of_whole_rows(to, batch<B>::most - b.count);
            if (end > row_)
                take_rows(b, end);
            else if (b.count == 0)
                take_from_row(b);
            else
                break;
        }
        if (first_ < to) into_rows<B>(x_, first_, std::min(row_ + 1, to), b.rows);
    }

  private:
    [[nodiscard]] std::int64_t begin_of(std::int64_t row) const { return m_.ia[row] - 1; }

    /// The first row that does not fit as a whole.
    [[nodiscard]] std::int64_t end_of_whole_rows(std::int64_t to, std::int64_t room) const {
        if (element_ > begin_of(row_)) return row_;
        std::int64_t end = std::min(row_ + chunk, to);
        while (begin_of(end) - begin_of(row_) > room) --end;
        return end;
    }

    /// Of which row an element is comes from a table, so that there is one loop and none for each row.
    void take_rows(batch<B>& b, std::int64_t end) {
        constexpr std::int64_t at_once = 16;
        std::int32_t row_of[batch<B>::most + at_once];
        const std::int64_t begin = begin_of(row_), elements = begin_of(end) - begin;
        ahead_.ask_for(begin, begin + elements);
        for (std::int64_t row = row_; row < end; ++row) {
            const std::int64_t stop = begin_of(row + 1) - begin;
            std::int64_t k = begin_of(row) - begin;
            do {  // what is too much is written over by the rows that follow
                std::fill_n(row_of + k, at_once, static_cast<std::int32_t>(row - first_));
                k += at_once;
            } while (k < stop);
        }
        const Index* const ja = m_.ja.data() + begin;
        const column_range own = own_;
        const std::int64_t below_first = first_ + 1;
        std::int64_t count = b.count;
        for (std::int64_t k = 0; k < elements; ++k) {  // one that is not ours is written over as well
            const std::int64_t c = std::int64_t{ja[k]} - 1;
            b.put(count, begin + k, c, row_of[k]);
            const std::int64_t low = std::max(own.from, below_first + row_of[k]);
            count += static_cast<std::uint64_t>(c - low) < static_cast<std::uint64_t>(own.to - low) ? 1 : 0;
        }
        b.count = count;
        row_ = end;
    }

    /// As much as there is room for of one that is longer.
    void take_from_row(batch<B>& b) {
        const Index* const ja = m_.ja.data();
        const std::int64_t low = std::max(own_.from, row_ + 1);
        std::int64_t k = std::max(element_, begin_of(row_)), end = begin_of(row_ + 1);
        if (m_.sorted) {
            k = std::lower_bound(ja + k, ja + end, low + 1) - ja;
            end = std::lower_bound(ja + k, ja + end, own_.to + 1) - ja;
        }
        for (; k < end && b.count < batch<B>::most; ++k) {
            const std::int64_t c = std::int64_t{ja[k]} - 1;
            b.put(b.count, k, c, row_ - first_);
            if (c >= low && c < own_.to) ++b.count;
        }
        element_ = k;
        if (k == end) ++row_;
    }

    crs_view<Index> m_;
    column_range own_;
    matrix_view<const double> x_;
    elements_ahead<Index, 2> ahead_;
    std::int64_t row_ = 0, element_ = 0;  // where we are: what is before it in the row is taken
    std::int64_t first_ = 0;              // of the batch
};

/// Adds what all rows scatter to a part's columns.
template <int B, std::signed_integral Index>
void scatter_rows(crs_view<Index> m, column_range own, double alpha, matrix_view<const double> x,
                  double* sums) {
    const double* const a = m.a.data();
    batch<B> two[2];
    batches<B, Index> of_part(m, own, x);
    for (int turn = 0; of_part.left() || two[turn].count > 0; turn = 1 - turn) {
        const batch<B>& now = two[turn];
        batch<B>& coming = two[1 - turn];
        of_part.next(coming);
        const std::int64_t both = std::min(now.count, coming.count);
        for (std::int64_t e = 0; e < both; ++e) {
            coming.ask_for(e, sums);
            now.add(e, alpha, a, sums);
        }
        for (std::int64_t e = both; e < coming.count; ++e) coming.ask_for(e, sums);
        for (std::int64_t e = both; e < now.count; ++e) now.add(e, alpha, a, sums);
    }
}

/// y = beta y + sums
template <int B>
void add_rows(const double* sums, column_range own, double beta, matrix_view<double> y) {
    for_chunks(own.from, own.to, [&](std::int64_t begin, std::int64_t stop) {
        add_to_columns<B>(sums + begin * B, begin, stop, beta, y);
    });
}

/// Shares out the columns by a sample of the elements.
class column_shares {
  public:
    template <std::signed_integral Index>
    explicit column_shares(crs_view<Index> m) : n_(m.dim1) {
        constexpr std::int64_t most = 1024;
        const std::int64_t elements = std::ssize(m.ja);
        const int size = static_cast<int>(std::min(most, elements));
        for (int s = 0; s < size; ++s) sample_.push_back(m.ja[even_bound(elements, s, size)] - 1);
        std::ranges::sort(sample_);
        sample_.push_back(n_);
        const double per_row = static_cast<double>(elements) / static_cast<double>(n_);
        weight_ = static_cast<double>(elements) / std::max(size, 1);
        of_row_ = 0.8 + 0.2 * per_row;
    }

    /// Columns below which the parts take turns.
    [[nodiscard]] std::vector<std::int64_t> bounds(int parts) const {
        double low = 0.0, high = below(sample_.size() - 1) + of_row_ * static_cast<double>(n_);
        std::vector<std::int64_t> best = cut(parts, high);
        for (int halving = 0; halving < 12 && parts > 1; ++halving) {
            const double middle = (low + high) / 2;
            const std::vector<std::int64_t> tried = cut(parts, middle);
            if (tried.empty()) {
                low = middle;
            } else {
                high = middle;
                best = tried;
            }
        }
        return best;
    }

  private:
    // Times of an element: to add up the sums of a column; to pass a row.
    static constexpr double of_column = 1.0;
    double of_row_, weight_;

    /// What is done for the columns below one of the sample.
    [[nodiscard]] double below(std::size_t s) const {
        return weight_ * static_cast<double>(s) + of_column * static_cast<double>(sample_[s]);
    }
    /// Parts that cost no more than so much each, or as little as a step of the sample allows; empty if there
    /// would have to be more.
    [[nodiscard]] std::vector<std::int64_t> cut(int parts, double cost) const {
        std::vector<std::int64_t> bounds{0};
        double begun = 0.0;
        for (std::size_t s = 0; s < sample_.size(); ++s)
            if (below(s) - begun + of_row_ * static_cast<double>(sample_[s]) > cost) {
                if (std::ssize(bounds) == parts) return {};
                bounds.push_back(sample_[s]);
                begun = below(s);
            }
        bounds.resize(static_cast<std::size_t>(parts) + 1, n_);
        return bounds;
    }

    std::int64_t n_;
    std::vector<std::int64_t> sample_;  // ends with n
};

}  // namespace

template <int B, std::signed_integral Index>
void multiply_far(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                  matrix_view<double> y, int parts) {
    const std::int64_t n = m.dim1;
    // Rows that are gathered before their sums take the place of x, which must wait for all rows above.
    const std::int64_t rows = std::clamp<std::int64_t>(n / (8 * parts), 128, 2048);
    const std::vector<std::int64_t> columns = column_shares(m).bounds(parts);
    const std::unique_ptr<double[]> memory = raw_memory(n * B + line);
    const std::unique_ptr<double[]> waiting = raw_memory(parts == 1 ? 0 : rows * B * parts);
    double* const copy = to_line(memory.get());
#pragma omp parallel num_threads(parts) default(none) \
    shared(m, n, rows, alpha, x, beta, y, parts, columns, copy, waiting)
    {
        double* const gathered = waiting.get() + omp_get_thread_num() * rows * B;
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            copy_rows<B>(x, even_bound(n, p, parts), even_bound(n, p + 1, parts), copy);
        if (parts == 1) {
            gather_rows<B>(m, 0, n, alpha, copy, copy);
        } else {
#pragma omp for ordered schedule(dynamic)
            for (std::int64_t from = 0; from < n; from += rows) {
                const std::int64_t to = std::min(from + rows, n);
                gather_rows<B>(m, from, to, alpha, copy, gathered);
#pragma omp ordered
                {
                    // All rows above are gathered.
                }
                std::copy(gathered, gathered + (to - from) * B, copy + from * B);
            }
        }
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) {
            const column_range own{columns[p], columns[p + 1]};
            if (own.from == own.to) continue;
            scatter_rows<B>(m, own, alpha, x, copy);
            add_rows<B>(copy, own, beta, y);
        }
    }
}

template <std::signed_integral Index>
using far_product = void(crs_view<Index>, double, matrix_view<const double>, double, matrix_view<double>,
                         int);

template far_product<std::int32_t> multiply_far<2>;
template far_product<std::int64_t> multiply_far<2>;
template far_product<std::int32_t> multiply_far<4>;
template far_product<std::int64_t> multiply_far<4>;
template far_product<std::int32_t> multiply_far<6>;
template far_product<std::int64_t> multiply_far<6>;
template far_product<std::int32_t> multiply_far<8>;
template far_product<std::int64_t> multiply_far<8>;
template far_product<std::int32_t> multiply_far<10>;
template far_product<std::int64_t> multiply_far<10>;

}  // namespace zendar::crs_mult
