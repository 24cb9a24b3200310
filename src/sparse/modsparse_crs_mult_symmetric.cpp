#include <array>

#include "modsparse_crs_mult_detail.hpp"

// A stored element (i, c) with c > i gathers x(c) into y(i) and scatters x(i) into y(c). Rows only scatter to
// the right, so that a part may add to its own equations in place: no other part touches them before all rows
// are through. What falls to the right of the part's rows goes to sums of its own, the spill, which reach no
// further than its last column. The spills are added in the order of the parts.
//
// Near the diagonal an element is gathered and scattered at once: what it leads to is in the cache. With
// several columns, the equations around the current row are kept in a ring of row-major copies that stays
// there, and the vectors are read and written once.
//
// Where columns lie anywhere in long vectors, all rows are gathered before they are scattered. To read the
// matrix twice costs little beside the places that it leads to, and cache and address translation serve one
// vector at a time instead of two. Of several columns there is a row-major copy, of x and then of what is
// scattered, so that an element costs one place in memory and not one per column.

namespace zendar::crs_mult {

namespace {

/// Sums for the equations [first, end); `end` grows as they are reached. Not used by the last part.
struct spill {
    double* sums = nullptr;  // of equation `first`
    std::int64_t first = 0, end = 0;

    template <int B>
    void reach(std::int64_t equation, std::int64_t n) {
        constexpr std::int64_t step = 512;
        const std::int64_t to = std::min(equation + step, n);
        zero_rows<B>(sums, end - first, to - first);
        end = to;
    }
    template <int B>
    double* at(std::int64_t equation, std::int64_t n) {
        if (equation >= end) [[unlikely]]
            reach<B>(equation, n);
        return sums + (equation - first) * B;
    }
};

// ---- one column near the diagonal ------------------------------------------------------------------------

/// y is made ready as a whole.
template <std::signed_integral Index>
void rows_of_one_vector(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha, const double* x,
                        double beta, double* y, spill& out) {
    const std::int64_t n = m.dim1;
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    if (beta == 0.0)
        std::fill(y + from, y + to, 0.0);
    else if (beta != 1.0)
        for (std::int64_t i = from; i < to; ++i) y[i] *= beta;
    spill beyond = out;
    std::int64_t k = m.ia[from] - 1;
    for (std::int64_t i = from; i < to; ++i) {
        const double xi = alpha * x[i];
        double sum = 0.0;
        const std::int64_t end = m.ia[i + 1] - 1;
        if (k < end && ja[k] - 1 == i) sum = a[k++] * x[i];
        if (m.sorted && k < end && ja[end - 1] <= to) {
            // No diagonal element any more, and none beyond the part: a third of the time is the looking.
            for (; k < end; ++k) {
                const std::int64_t c = std::int64_t{ja[k]} - 1;
                sum += a[k] * x[c];
                y[c] += a[k] * xi;
            }
        } else if (k < end && ja[end - 1] > to) {
            // Some columns lie beyond the part: where an element goes is selected, not branched on.
            for (; k < end; ++k) {
                const std::int64_t c = std::int64_t{ja[k]} - 1;
                if (c >= beyond.end) [[unlikely]]
                    beyond.reach<1>(c, n);
                double* const base = c < to ? y : beyond.sums;
                const std::int64_t offset = c < to ? c : c - beyond.first;
                sum += a[k] * x[c];
                if (c != i) base[offset] += a[k] * xi;
            }
        } else {
            for (; k < end; ++k) {
                const std::int64_t c = std::int64_t{ja[k]} - 1;
                sum += a[k] * x[c];
                if (c >= to) [[unlikely]]
                    *beyond.at<1>(c, n) += a[k] * xi;
                else if (c != i) [[likely]]
                    y[c] += a[k] * xi;
            }
        }
        y[i] += alpha * sum;
    }
    out.end = beyond.end;
}

/// Adds the spills of earlier parts to the equations [from, to).
template <int B>
void add_spills(const std::vector<spill>& spills, int part, std::int64_t from, std::int64_t to, double* y) {
    for (int p = 0; p < part; ++p) {
        const spill& s = spills[p];
        const std::int64_t begin = std::max(from, s.first), end = std::min(to, s.end);
        for (std::int64_t k = begin * B; k < end * B; ++k) y[k] += s.sums[k - s.first * B];
    }
}

/// Spills and the memory behind them.
struct spill_store {
    std::vector<spill> spills;
    std::unique_ptr<double[]> memory;

    spill_store(const std::vector<std::int64_t>& bounds, std::int64_t n, int width) {
        std::int64_t size = 0;
        for (std::size_t p = 1; p < bounds.size(); ++p) size += (n - bounds[p]) * width;
        memory = raw_memory(size);
        double* next = memory.get();
        for (std::size_t p = 1; p < bounds.size(); ++p) {
            spills.push_back({next, bounds[p], bounds[p]});
            next += (n - bounds[p]) * width;
        }
    }
};

template <std::signed_integral Index>
void multiply_one_vector(crs_view<Index> m, double alpha, const double* x, double beta, double* y,
                         int parts) {
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
    spill_store store(bounds, m.dim1, 1);
    std::vector<spill>& spills = store.spills;
#pragma omp parallel num_threads(parts) default(none) shared(m, alpha, x, beta, y, parts, bounds, spills)
    {
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            rows_of_one_vector(m, bounds[p], bounds[p + 1], alpha, x, beta, y, spills[p]);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) add_spills<1>(spills, p, bounds[p], bounds[p + 1], y);
    }
}

// ---- columns anywhere ------------------------------------------------------------------------------------

/// The memory that an element leads to is asked for so many elements ahead.
constexpr std::int64_t far_ahead = 24;

/// The column of the element `far_ahead` of element k, from 0.
template <std::signed_integral Index>
std::int64_t column_ahead(crs_view<Index> m, std::int64_t k) {
    return std::int64_t{m.ja[std::min(k + far_ahead, std::ssize(m.ja) - 1)]} - 1;
}

/// Asks for B values, which need not lie in one cache line.
template <int B, int Write>
void prefetch_lanes(const double* at) {
    __builtin_prefetch(at, Write);
    if constexpr (8 % B != 0) __builtin_prefetch(at + B - 1, Write);
}

/// y = beta y + the sums over the elements of each row; x is packed unless B is 1.
template <int B, std::signed_integral Index>
void gather_far(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha, const double* x,
                double beta, matrix_view<double> y) {
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    for (std::int64_t i = from; i < to; ++i) {
        lanes<B> sum;
        for (std::int64_t k = m.ia[i] - 1, end = m.ia[i + 1] - 1; k < end; ++k) {
            prefetch_lanes<B, 0>(x + column_ahead(m, k) * B);
            sum.add(a[k], lanes<B>::load(x + (std::int64_t{ja[k]} - 1) * B));
        }
        double of_row[B];
        sum.times(alpha).store(of_row);
        for (std::int64_t j = 0; j < y.cols; ++j) {
            double& value = y.data[i + j * y.ld];
            value = beta == 0.0 ? of_row[j] : beta * value + of_row[j];
        }
    }
}

/// Adds what the rows scatter to sums, which are the part's own equations, and to its spill.
template <int B, std::signed_integral Index>
void scatter_far(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha,
                 matrix_view<const double> x, double* sums, spill& out) {
    const std::int64_t n = m.dim1;
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    spill beyond = out;
    const auto place = [&](std::int64_t c) {
        return c < to ? sums + c * B : beyond.sums + (c - beyond.first) * B;
    };
    for (std::int64_t i = from; i < to; ++i) {
        double of_row[B] = {};
        for (std::int64_t j = 0; j < x.cols; ++j) of_row[j] = alpha * x.data[i + j * x.ld];
        const lanes<B> xi = lanes<B>::load(of_row);
        for (std::int64_t k = m.ia[i] - 1, end = m.ia[i + 1] - 1; k < end; ++k) {
            prefetch_lanes<B, 1>(place(column_ahead(m, k)));
            const std::int64_t c = std::int64_t{ja[k]} - 1;
            if (c >= beyond.end) [[unlikely]]
                if (c >= to) beyond.reach<B>(c, n);
            if (c != i) xi.add_to(place(c), a[k]);
        }
    }
    out.end = beyond.end;
}

template <int B, std::signed_integral Index>
void multiply_far(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                  matrix_view<double> y, int parts) {
    constexpr bool packed = B > 1;
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
    spill_store store(bounds, m.dim1, B);
    std::vector<spill>& spills = store.spills;
    const std::unique_ptr<double[]> memory = raw_memory(packed ? std::int64_t{m.dim1} * B : 0);
    double* const copy = memory.get();
    const double* const source = packed ? copy : x.data;
    double* const target = packed ? copy : y.data;
#pragma omp parallel num_threads(parts) default(none) \
    shared(m, alpha, x, beta, y, parts, bounds, spills, copy, source, target)
    {
        if constexpr (packed) {
#pragma omp for schedule(static, 1)
            for (int p = 0; p < parts; ++p) pack_rows<B>(x, bounds[p], bounds[p + 1], copy);
        }
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) gather_far<B>(m, bounds[p], bounds[p + 1], alpha, source, beta, y);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) {
            if constexpr (packed) zero_rows<B>(target, bounds[p], bounds[p + 1]);
            scatter_far<B>(m, bounds[p], bounds[p + 1], alpha, x, target, spills[p]);
        }
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) {
            add_spills<B>(spills, p, bounds[p], bounds[p + 1], target);
            if constexpr (packed) unpack_rows<B>(target, 1.0, bounds[p], bounds[p + 1], y);
        }
    }
}

// ---- several columns near the diagonal -------------------------------------------------------------------

/// Equations that the ring holds; with the widest block both halves take 320 KiB.
constexpr std::int64_t ring_size = 2048;

/// Equations go in and out by chunks, column by column.
constexpr std::int64_t chunk = 64;

template <int B>
class ring {
  public:
    ring(std::int64_t n, std::int64_t from, std::int64_t to, matrix_view<const double> x, double beta,
         matrix_view<double> y, spill& out, double* memory)
        : n_(n),
          to_(to),
          tail_(from),
          head_(from),
          ready_(from),
          beta_(beta),
          x_(x),
          y_(y),
          out_(out),
          ring_x_(memory),
          ring_y_(memory + ring_size * B) {}

    /// Equations before it are in the ring (or have left it).
    [[nodiscard]] std::int64_t head() const { return head_; }
    /// Equations from here on must wait until others have left.
    [[nodiscard]] std::int64_t limit() const { return tail_ + ring_size - chunk; }
    [[nodiscard]] const double* x_at(std::int64_t i) const { return ring_x_ + offset(i); }
    [[nodiscard]] double* y_at(std::int64_t i) { return ring_y_ + offset(i); }

    /// Takes in all equations up to the one given, which is below the limit.
    void load(std::int64_t equation) {
        while (head_ <= equation) {
            const std::int64_t end = std::min((head_ / chunk + 1) * chunk, n_);
            const std::int64_t rows = end - head_;
            const std::int64_t own = std::clamp<std::int64_t>(to_ - head_, 0, rows);
            const std::int64_t holding = std::clamp<std::int64_t>(ready_ - head_, 0, own);
            double* const xr = ring_x_ + offset(head_);
            double* const yr = ring_y_ + offset(head_);
            if (x_.cols < B) std::fill(xr, xr + rows * B, 0.0);
            if (x_.cols < B || own < rows || beta_ == 0.0) std::fill(yr, yr + rows * B, 0.0);
            for (std::int64_t j = 0; j < x_.cols; ++j) {
                const double* const x = x_.data + head_ + j * x_.ld;
                const double* const y = y_.data + head_ + j * y_.ld;
                if (end + chunk <= n_) {
                    prefetch(x + rows);
                    prefetch(y + rows);
                }
                for (std::int64_t r = 0; r < rows; ++r) xr[r * B + j] = x[r];
                for (std::int64_t r = 0; r < holding; ++r) yr[r * B + j] = y[r];
                if (beta_ != 0.0)
                    for (std::int64_t r = holding; r < own; ++r) yr[r * B + j] = beta_ * y[r];
            }
            head_ = end;
        }
        ready_ = std::max(ready_, std::min(head_, to_));
    }
    /// The rows before `row` are through: their equations leave, by whole chunks or at the end.
    void leave(std::int64_t row) {
        if (row % chunk != 0 && row != to_) return;
        const double* const yr = ring_y_ + offset(tail_);
        for (std::int64_t j = 0; j < y_.cols; ++j) {
            double* const y = y_.data + tail_ + j * y_.ld;
            for (std::int64_t r = 0; r < row - tail_; ++r) y[r] = yr[r * B + j];
        }
        tail_ = row;
    }
    /// An equation beyond the ring: adds to its y and gives its x.
    lanes<B> far(std::int64_t c, const lanes<B>& scattered) {
        double x[B] = {}, add[B];
        for (std::int64_t j = 0; j < x_.cols; ++j) x[j] = x_.data[c + j * x_.ld];
        if (c < to_) {
            for (; ready_ <= c; ++ready_)
                for (std::int64_t j = 0; j < y_.cols; ++j) {
                    double& value = y_.data[ready_ + j * y_.ld];
                    value = beta_ == 0.0 ? 0.0 : beta_ * value;
                }
            scattered.store(add);
            for (std::int64_t j = 0; j < y_.cols; ++j) y_.data[c + j * y_.ld] += add[j];
        } else {
            scattered.add_to(out_.template at<B>(c, n_), 1.0);
        }
        return lanes<B>::load(x);
    }
    /// What is left in the ring after the last row belongs to other parts.
    void finish() {
        for (std::int64_t c = to_; c < head_; ++c) {
            lanes<B>::load(y_at(c)).add_to(out_.template at<B>(c, n_), 1.0);
        }
    }

  private:
    /// The columns are too many streams for the processor to foresee.
    static void prefetch(const double* from) {
        for (std::int64_t r = 0; r < chunk; r += 8) __builtin_prefetch(from + r);
    }
    static std::int64_t offset(std::int64_t i) { return (i & (ring_size - 1)) * B; }

    std::int64_t n_, to_;
    std::int64_t tail_;   // own equations before it have left the ring
    std::int64_t head_;   // the first that has not entered
    std::int64_t ready_;  // own equations before it hold beta y, in y or in the ring
    double beta_;
    matrix_view<const double> x_;
    matrix_view<double> y_;
    spill& out_;
    double* ring_x_;
    double* ring_y_;
};

template <int B, std::signed_integral Index>
void rows_through_ring(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha,
                       matrix_view<const double> x, double beta, matrix_view<double> y, spill& out,
                       double* memory) {
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    ring<B> near(m.dim1, from, to, x, beta, y, out, memory);
    for (std::int64_t i = from; i < to; ++i) {
        if (i >= near.head()) near.load(i);
        const lanes<B> xi = lanes<B>::load(near.x_at(i)).times(alpha);
        lanes<B> sum;
        std::int64_t k = m.ia[i] - 1;
        const std::int64_t end = m.ia[i + 1] - 1;
        if (m.sorted && k < end && ja[end - 1] <= near.limit()) {
            // All columns are near: none is looked at.
            if (ja[end - 1] > near.head()) near.load(std::int64_t{ja[end - 1]} - 1);
            if (ja[k] - 1 == i) sum.add(a[k++], lanes<B>::load(near.x_at(i)));
            for (; k < end; ++k) {
                const std::int64_t c = std::int64_t{ja[k]} - 1;
                sum.add(a[k], lanes<B>::load(near.x_at(c)));
                xi.add_to(near.y_at(c), a[k]);
            }
        }
        for (; k < end; ++k) {
            const std::int64_t c = std::int64_t{ja[k]} - 1;
            if (c >= near.head()) [[unlikely]] {
                if (c >= near.limit()) {
                    sum.add(a[k], near.far(c, xi.times(a[k])));
                    continue;
                }
                near.load(c);
            }
            sum.add(a[k], lanes<B>::load(near.x_at(c)));
            if (c != i) xi.add_to(near.y_at(c), a[k]);
        }
        sum.add_to(near.y_at(i), alpha);
        near.leave(i + 1);
    }
    near.finish();
}

template <int B, std::signed_integral Index>
void multiply_near(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                   matrix_view<double> y, int parts) {
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
    spill_store store(bounds, m.dim1, B);
    std::vector<spill>& spills = store.spills;
    constexpr std::int64_t ring_memory = 2 * ring_size * B;
    const std::unique_ptr<double[]> memory = raw_memory(ring_memory * parts);
    double* const rings = memory.get();
#pragma omp parallel num_threads(parts) default(none) \
    shared(m, alpha, x, beta, y, parts, bounds, spills, rings)
    {
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            rows_through_ring<B>(m, bounds[p], bounds[p + 1], alpha, x, beta, y, spills[p],
                                 rings + ring_memory * p);
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            for (int q = 0; q < p; ++q) {
                const spill& s = spills[q];
                const std::int64_t begin = std::max(bounds[p], s.first), end = std::min(bounds[p + 1], s.end);
                for (std::int64_t i = begin; i < end; ++i)
                    for (std::int64_t j = 0; j < y.cols; ++j)
                        y.data[i + j * y.ld] += s.sums[(i - s.first) * B + j];
            }
    }
}

/// Whether nearly all elements are less than `reach` columns from the diagonal, from a sample of rows.
template <std::signed_integral Index>
bool lies_near_diagonal(crs_view<Index> m, std::int64_t reach) {
    constexpr std::int64_t sampled_rows = 512, sampled_elements = 16, most_far = 20;  // one in 20
    std::int64_t seen = 0, far = 0;
    for (std::int64_t r = 0; r < sampled_rows; ++r) {
        const std::int64_t i = even_bound(m.dim1, static_cast<int>(r), static_cast<int>(sampled_rows));
        const std::int64_t begin = m.ia[i] - 1, end = m.ia[i + 1] - 1;
        const std::int64_t step = (end - begin + sampled_elements - 1) / sampled_elements;
        for (std::int64_t k = begin; k < end; k += step) {
            ++seen;
            far += m.ja[k] - 1 >= i + reach ? 1 : 0;
        }
    }
    return far * most_far <= seen;
}

}  // namespace

template <int B, std::signed_integral Index>
void multiply_symmetric(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                        matrix_view<double> y, int parts) {
    if constexpr (B > 1) {
        if (lies_near_diagonal(m, ring_size / 2))
            multiply_near<B>(m, alpha, x, beta, y, parts);
        else
            multiply_far<B>(m, alpha, x, beta, y, parts);
    } else {
        // So many equations of x and y stay in the last cache, and in reach of the address translation.
        constexpr std::int64_t cached = 1 << 18;
        if (lies_near_diagonal(m, cached))
            multiply_one_vector(m, alpha, x.data, beta, y.data, parts);
        else
            multiply_far<1>(m, alpha, x, beta, y, parts);
    }
}

template <std::signed_integral Index>
using symmetric_product = void(crs_view<Index>, double, matrix_view<const double>, double,
                               matrix_view<double>, int);

template symmetric_product<std::int32_t> multiply_symmetric<1>;
template symmetric_product<std::int32_t> multiply_symmetric<2>;
template symmetric_product<std::int32_t> multiply_symmetric<4>;
template symmetric_product<std::int32_t> multiply_symmetric<6>;
template symmetric_product<std::int32_t> multiply_symmetric<8>;
template symmetric_product<std::int32_t> multiply_symmetric<10>;
template symmetric_product<std::int64_t> multiply_symmetric<1>;
template symmetric_product<std::int64_t> multiply_symmetric<2>;
template symmetric_product<std::int64_t> multiply_symmetric<4>;
template symmetric_product<std::int64_t> multiply_symmetric<6>;
template symmetric_product<std::int64_t> multiply_symmetric<8>;
template symmetric_product<std::int64_t> multiply_symmetric<10>;

}  // namespace zendar::crs_mult
