#include "modsparse_crs_mult_rows.hpp"

// Several columns, elements anywhere in long vectors. There is a row-major copy, of x and then of the sums of
// what is scattered, so that an element costs one place in memory and not one per column; the places are
// asked for ahead. Rows are shared out to be gathered, columns to be scattered: sums have one owner, and a
// thread passes over the rows of others for its columns, which costs less than sums of its own for all
// columns would, in memory above all.

namespace zendar::crs_mult {

namespace {

/// Asks for B values, which need not lie in one cache line. Inlined, as GCC drops calls of a function that
/// does nothing else.
template <int B, int Write>
[[gnu::always_inline]] inline void ask_for_row(const double* at) {
    __builtin_prefetch(at, Write, 2);
    if constexpr (line % B != 0) __builtin_prefetch(at + B - 1, Write, 2);
}

/// y = beta y + alpha times the sums over the elements of each row; x stands in rows.
template <int B, std::signed_integral Index>
void gather_rows(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha, const double* x,
                 double beta, matrix_view<double> y) {
    constexpr std::int64_t rows_ahead = 128;  // that the elements lead to
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    const std::int64_t elements = std::ssize(m.ja);
    double of_rows[chunk * B];
    const elements_ahead<Index, 2> ahead(m);
    for_chunks(from, to, [&](std::int64_t begin, std::int64_t stop) {
        ahead.ask_for(m.ia[begin] - 1, m.ia[stop] - 1);
        for (std::int64_t i = begin; i < stop; ++i) {
            lanes<B> sum;  // pairs: fours would lie across two cache lines more often
            for (std::int64_t k = m.ia[i] - 1, end = m.ia[i + 1] - 1; k < end; ++k) {
                ask_for_row<B, 0>(x + (std::int64_t{ja[std::min(k + rows_ahead, elements - 1)]} - 1) * B);
                sum.add(a[k], lanes<B>::load(x + (std::int64_t{ja[k]} - 1) * B));
            }
            sum.times(alpha).store(of_rows + (i - begin) * B);
        }
        add_to_columns<B>(of_rows, begin, stop, beta, y);
    });
}

// ---- scattering ------------------------------------------------------------------------------------------

/// The columns of a part.
struct column_range {
    std::int64_t from, to;
};

/// Elements on their way to the sums, and the rows of x that they come from. What an element leads to is
/// known a batch ahead, and between elements no end of a row is to be foreseen.
template <int B>
struct batch {
    static constexpr std::int64_t most = 128, most_rows = 64;

    double rows[most_rows * B] = {};
    double values[most];
    std::int64_t places[most];   // in the sums
    std::int32_t sources[most];  // in the rows
    std::int64_t count = 0;

    [[gnu::always_inline]] void ask_for(std::int64_t e, const double* sums) const {
        ask_for_row<B, 1>(sums + places[e]);
    }
    [[gnu::always_inline]] void add(std::int64_t e, double alpha, double* sums) const {
        lanes<B>::load(rows + sources[e]).add_to(sums + places[e], alpha * values[e]);
    }
};

/// The elements right of the diagonal in a part's columns, in the order of the matrix.
template <int B, std::signed_integral Index>
class batches {
  public:
    batches(crs_view<Index> m, column_range own, matrix_view<const double> x)
        : m_(m), own_(own), x_(x), ahead_(m) {}

    /// The next ones; none, once there are no more.
    void next(batch<B>& b) {
        const Index* const ia = m_.ia.data();
        const Index* const ja = m_.ja.data();
        const double* const a = m_.a.data();
        const column_range own = own_;
        const std::int64_t first = row_, to = std::min(first + batch<B>::most_rows, own.to);
        std::int64_t row = first, begin = element_, count = 0;
        for (; row < to; ++row) {
            if (row % chunk == 0) ahead_.ask_for(ia[row] - 1, ia[std::min(row + chunk, own.to)] - 1);
            const std::int64_t low = std::max(own.from, row + 1);
            auto [k, end] =
                elements_between(std::max(begin, std::int64_t{ia[row]} - 1), ia[row + 1] - 1, low);
            const std::int64_t stop = std::min(end, k + batch<B>::most - count);
            const auto size = static_cast<std::uint64_t>(own.to - low);
            const auto source = static_cast<std::int32_t>((row - first) * B);
            for (; k < stop; ++k) {  // no element is a branch: one that is not ours is written over
                const std::int64_t c = std::int64_t{ja[k]} - 1;
                b.places[count] = c * B;
                b.sources[count] = source;
                b.values[count] = a[k];
                count += static_cast<std::uint64_t>(c - low) < size ? 1 : 0;
            }
            begin = k;
            if (k < end) break;  // the batch is full
        }
        if (first < to) into_rows<B>(x_, first, std::min(row + 1, to), b.rows);
        b.count = count;
        row_ = row;
        element_ = begin;
    }
    [[nodiscard]] bool left() const { return row_ < own_.to; }

  private:
    /// Elements [k, end) of a row without some that are not ours, where it is long.
    [[gnu::always_inline]] std::pair<std::int64_t, std::int64_t> elements_between(std::int64_t k,
                                                                                  std::int64_t end,
                                                                                  std::int64_t low) const {
        constexpr std::int64_t many = 32;
        if (end - k > many && m_.sorted) [[unlikely]] {
            const Index* const ja = m_.ja.data();
            k = std::lower_bound(ja + k, ja + end, low + 1) - ja;
            end = std::lower_bound(ja + k, ja + end, own_.to + 1) - ja;
        }
        return {k, end};
    }

    crs_view<Index> m_;
    column_range own_;
    matrix_view<const double> x_;
    elements_ahead<Index, 2> ahead_;
    std::int64_t row_ = 0, element_ = 0;
};

/// Adds what all rows scatter to a part's columns.
template <int B, std::signed_integral Index>
void scatter_rows(crs_view<Index> m, column_range own, double alpha, matrix_view<const double> x,
                  double* sums) {
    batch<B> two[2];
    batches<B, Index> of_part(m, own, x);
    for (int turn = 0; of_part.left() || two[turn].count > 0; turn = 1 - turn) {
        const batch<B>& now = two[turn];
        batch<B>& coming = two[1 - turn];
        of_part.next(coming);
        const std::int64_t both = std::min(now.count, coming.count);
        for (std::int64_t e = 0; e < both; ++e) {
            coming.ask_for(e, sums);
            now.add(e, alpha, sums);
        }
        for (std::int64_t e = both; e < coming.count; ++e) coming.ask_for(e, sums);
        for (std::int64_t e = both; e < now.count; ++e) now.add(e, alpha, sums);
    }
}

/// y += sums
template <int B>
void add_rows(const double* sums, column_range own, matrix_view<double> y) {
    for_chunks(own.from, own.to, [&](std::int64_t begin, std::int64_t stop) {
        add_to_columns<B>(sums + begin * B, begin, stop, 1.0, y);
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
    // Times of an element: to zero the sums of a column and add them up; to pass a row.
    static constexpr double of_column = 1.5;
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
    const int ranges = parts == 1 ? 1 : 8 * parts;
    const std::vector<std::int64_t> rows = row_bounds(m, ranges), columns = column_shares(m).bounds(parts);
    const std::unique_ptr<double[]> memory = raw_memory(n * B + line);
    double* const copy = to_line(memory.get());
#pragma omp parallel num_threads(parts) default(none) \
    shared(m, n, alpha, x, beta, y, parts, ranges, rows, columns, copy)
    {
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            for_chunks(even_bound(n, p, parts), even_bound(n, p + 1, parts),
                       [&](std::int64_t from, std::int64_t to) {
                           if (x.cols < B) zero_rows<B>(copy, from, to);
                           into_rows<B>(x, from, to, copy + from * B);
                       });
#pragma omp for schedule(dynamic)
        for (int r = 0; r < ranges; ++r) gather_rows<B>(m, rows[r], rows[r + 1], alpha, copy, beta, y);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) {
            const column_range own{columns[p], columns[p + 1]};
            if (own.from == own.to) continue;
            zero_rows<B>(copy, own.from, own.to);
            scatter_rows<B>(m, own, alpha, x, copy);
            add_rows<B>(copy, own, y);
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
