#include "modsparse_crs_mult_spill.hpp"

// Near the diagonal an element is gathered and scattered at once: what it leads to is in the cache. With
// several columns, the equations around the current row are kept in a ring of row-major copies that stays
// there, and the vectors are read and written once.

namespace zendar::crs_mult {

namespace {

// Vectors in an array of doubles, which is aligned to one. Packed: clang forgets the alignment of a typedef
// behind a reference.
using four [[gnu::vector_size(32)]] = double;
using pair [[gnu::vector_size(16)]] = double;
template <class Vector>
struct [[gnu::packed, gnu::may_alias]] within {
    Vector v;
};

/// Equations go in and out by chunks, two columns at a time.
constexpr std::int64_t chunk = 64;

const within<pair>& pair_at(const double* at) {
    return *reinterpret_cast<const within<pair>*>(at);
}
within<pair>& pair_at(double* at) {
    return *reinterpret_cast<within<pair>*>(at);
}

/// Columns times a factor into rows of B values.
template <int B>
void into_rows(matrix_view<const double> columns, std::int64_t from, std::int64_t to, double factor,
               double* rows) {
    std::int64_t j = 0;
    for (; j + 1 < columns.cols; j += 2) {
        const double* const a = columns.data + j * columns.ld;
        const double* const b = a + columns.ld;
        double* row = rows + j;
        std::int64_t r = from;
        for (; r + 1 < to; r += 2, row += 2 * B) {
            const pair u = pair_at(a + r).v * factor, v = pair_at(b + r).v * factor;
            pair_at(row).v = pair{u[0], v[0]};
            pair_at(row + B).v = pair{u[1], v[1]};
        }
        if (r < to) pair_at(row).v = pair{a[r] * factor, b[r] * factor};
    }
    for (; j < columns.cols; ++j)
        for (std::int64_t r = from; r < to; ++r)
            rows[(r - from) * B + j] = columns.data[r + j * columns.ld] * factor;
}

/// And back.
template <int B>
void into_columns(const double* rows, std::int64_t from, std::int64_t to, matrix_view<double> columns) {
    std::int64_t j = 0;
    for (; j + 1 < columns.cols; j += 2) {
        double* const a = columns.data + j * columns.ld;
        double* const b = a + columns.ld;
        const double* row = rows + j;
        std::int64_t r = from;
        for (; r + 1 < to; r += 2, row += 2 * B) {
            const pair u = pair_at(row).v, v = pair_at(row + B).v;
            pair_at(a + r).v = pair{u[0], v[0]};
            pair_at(b + r).v = pair{u[1], v[1]};
        }
        if (r < to) {
            a[r] = row[0];
            b[r] = row[1];
        }
    }
    for (; j < columns.cols; ++j)
        for (std::int64_t r = from; r < to; ++r) columns.data[r + j * columns.ld] = rows[(r - from) * B + j];
}

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
            if (end + chunk <= n_) prefetch(end);
            if (x_.cols < B) std::fill(xr, xr + rows * B, 0.0);
            if (x_.cols < B || own < rows || beta_ == 0.0) std::fill(yr, yr + rows * B, 0.0);
            into_rows<B>(x_, head_, end, 1.0, xr);
            if (holding > 0) into_rows<B>(y_, head_, head_ + holding, 1.0, yr);
            if (beta_ != 0.0 && own > holding)
                into_rows<B>(y_, head_ + holding, head_ + own, beta_, yr + holding * B);
            head_ = end;
        }
        ready_ = std::max(ready_, std::min(head_, to_));
    }
    /// The rows before `row` are through: their equations leave, by whole chunks or at the end.
    void leave(std::int64_t row) {
        if (row % chunk != 0 && row != to_) return;
        into_columns<B>(ring_y_ + offset(tail_), tail_, row, y_);
        tail_ = row;
    }
    /// An equation beyond the ring: adds a * xi to its y and gives its x.
    void far(std::int64_t c, double a, const double* xi, double* x) {
        for (std::int64_t j = 0; j < B; ++j) x[j] = j < x_.cols ? x_.data[c + j * x_.ld] : 0.0;
        if (c < to_) {
            for (; ready_ <= c; ++ready_)
                for (std::int64_t j = 0; j < y_.cols; ++j) {
                    double& value = y_.data[ready_ + j * y_.ld];
                    value = beta_ == 0.0 ? 0.0 : beta_ * value;
                }
            for (std::int64_t j = 0; j < y_.cols; ++j) y_.data[c + j * y_.ld] += a * xi[j];
        } else {
            double* const sums = out_.template at<B>(c, n_);
            for (std::int64_t j = 0; j < B; ++j) sums[j] += a * xi[j];
        }
    }
    /// What is left in the ring after the last row belongs to other parts.
    void finish() {
        for (std::int64_t c = to_; c < head_; ++c) {
            lanes<B>::load(y_at(c)).add_to(out_.template at<B>(c, n_), 1.0);
        }
    }

  private:
    /// The columns are too many streams for the processor to foresee.
    void prefetch(std::int64_t from) const {
        for (std::int64_t j = 0; j < x_.cols; ++j)
            for (std::int64_t r = from; r < from + chunk; r += 8) {
                __builtin_prefetch(x_.data + r + j * x_.ld);
                __builtin_prefetch(y_.data + r + j * y_.ld);
            }
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

/// B values side by side as pairs, which every processor has.
template <int B>
struct pairs_of {
    lanes<B> l;

    [[gnu::always_inline]] void load_times(const double* from, double factor) {
        l = lanes<B>::load(from).times(factor);
    }
    [[gnu::always_inline]] void add_product(double factor, const double* from) {
        l.add(factor, lanes<B>::load(from));
    }
    [[gnu::always_inline]] void add_to(double* to, double factor) const { l.add_to(to, factor); }
    void store(double* to) const { l.store(to); }
};

/// The same as fours, with a pair behind them.
template <int B>
struct fours_of {
    static constexpr int fours = B / 4;
    static constexpr bool rest = B % 4 != 0;
    static_assert(B % 2 == 0);

    four f[fours > 0 ? fours : 1] = {};
    pair last = {};

    [[gnu::always_inline]] void load_times(const double* from, double factor) {
        for (int k = 0; k < fours; ++k) f[k] = four_at(from, k).v * factor;
        if constexpr (rest) last = rest_at(from).v * factor;
    }
    [[gnu::always_inline]] void add_product(double factor, const double* from) {
        for (int k = 0; k < fours; ++k) f[k] += four_at(from, k).v * factor;
        if constexpr (rest) last += rest_at(from).v * factor;
    }
    [[gnu::always_inline]] void add_to(double* to, double factor) const {
        for (int k = 0; k < fours; ++k) four_at(to, k).v += f[k] * factor;
        if constexpr (rest) rest_at(to).v += last * factor;
    }
    [[gnu::always_inline]] void store(double* to) const {
        for (int k = 0; k < fours; ++k) four_at(to, k).v = f[k];
        if constexpr (rest) rest_at(to).v = last;
    }

  private:
    static within<four>& four_at(double* at, int k) { return *reinterpret_cast<within<four>*>(at + 4 * k); }
    static const within<four>& four_at(const double* at, int k) {
        return *reinterpret_cast<const within<four>*>(at + 4 * k);
    }
    static auto& rest_at(auto* at) { return pair_at(at + 4 * fours); }
};

template <int B, template <int> class Lanes, std::signed_integral Index>
[[gnu::always_inline]] inline void rows_through(crs_view<Index> m, std::int64_t from, std::int64_t to,
                                                double alpha, ring<B>& near) {
    const Index* ja = m.ja.data();
    const double* a = m.a.data();
    for (std::int64_t i = from; i < to; ++i) {
        if (i >= near.head()) near.load(i);
        Lanes<B> xi, sum{};
        xi.load_times(near.x_at(i), alpha);
        std::int64_t k = m.ia[i] - 1;
        const std::int64_t end = m.ia[i + 1] - 1;
        if (m.sorted && k < end && ja[end - 1] <= near.limit()) {
            // All columns are near: none is looked at.
            if (ja[end - 1] > near.head()) near.load(std::int64_t{ja[end - 1]} - 1);
            if (ja[k] - 1 == i) sum.add_product(a[k++], near.x_at(i));
            for (; k < end; ++k) {
                const std::int64_t c = std::int64_t{ja[k]} - 1;
                sum.add_product(a[k], near.x_at(c));
                xi.add_to(near.y_at(c), a[k]);
            }
        }
        for (; k < end; ++k) {
            const std::int64_t c = std::int64_t{ja[k]} - 1;
            if (c >= near.head()) [[unlikely]] {
                if (c >= near.limit()) {
                    double scattered[B], x[B];
                    xi.store(scattered);
                    near.far(c, a[k], scattered, x);
                    sum.add_product(a[k], x);
                    continue;
                }
                near.load(c);
            }
            sum.add_product(a[k], near.x_at(c));
            if (c != i) xi.add_to(near.y_at(c), a[k]);
        }
        sum.add_to(near.y_at(i), alpha);
        near.leave(i + 1);
    }
    near.finish();
}

template <int B, std::signed_integral Index>
void rows_through_plain(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha, ring<B>& near) {
    rows_through<B, pairs_of>(m, from, to, alpha, near);
}
template <int B, std::signed_integral Index>
ZENDAR_FMA void rows_through_fma(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha,
                                 ring<B>& near) {
    rows_through<B, fours_of>(m, from, to, alpha, near);
}

}  // namespace

template <int B, std::signed_integral Index>
void multiply_near(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                   matrix_view<double> y, int parts) {
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
    spill_store store(bounds, m.dim1, B);
    std::vector<spill>& spills = store.spills;
    constexpr std::int64_t ring_memory = 2 * ring_size * B;
    const std::unique_ptr<double[]> memory = raw_memory(ring_memory * parts);
    double* const rings = memory.get();
    const auto rows = has_fma() ? rows_through_fma<B, Index> : rows_through_plain<B, Index>;
#pragma omp parallel num_threads(parts) default(none) \
    shared(m, alpha, x, beta, y, parts, bounds, spills, rings, rows)
    {
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p) {
            ring<B> near(m.dim1, bounds[p], bounds[p + 1], x, beta, y, spills[p], rings + ring_memory * p);
            rows(m, bounds[p], bounds[p + 1], alpha, near);
        }
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

template <std::signed_integral Index>
using near_product = void(crs_view<Index>, double, matrix_view<const double>, double, matrix_view<double>,
                          int);

template near_product<std::int32_t> multiply_near<2>;
template near_product<std::int64_t> multiply_near<2>;
template near_product<std::int32_t> multiply_near<4>;
template near_product<std::int64_t> multiply_near<4>;
template near_product<std::int32_t> multiply_near<6>;
template near_product<std::int64_t> multiply_near<6>;
template near_product<std::int32_t> multiply_near<8>;
template near_product<std::int64_t> multiply_near<8>;
template near_product<std::int32_t> multiply_near<10>;
template near_product<std::int64_t> multiply_near<10>;

}  // namespace zendar::crs_mult
