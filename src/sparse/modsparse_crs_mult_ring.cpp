#include "modsparse_crs_mult_spill.hpp"

// Near the diagonal an element is gathered and scattered at once: what it leads to is in the cache. With
// several columns, the equations around the current row are kept in a ring of row-major copies that stays
// there, and the vectors are read and written once.

namespace zendar::crs_mult {

namespace {

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

/// The same as fours, with a pair behind them. Values go in and out by copies, as no array is aligned.
template <int B>
struct fours_of {
    using four [[gnu::vector_size(32)]] = double;
    using pair [[gnu::vector_size(16)]] = double;
    static constexpr int fours = B / 4;
    static constexpr bool rest = B % 4 != 0;
    static_assert(B % 2 == 0);

    four f[fours > 0 ? fours : 1] = {};
    pair last = {};

    [[gnu::always_inline]] void load_times(const double* from, double factor) {
        load(from);
        for (int k = 0; k < fours; ++k) f[k] *= factor;
        if constexpr (rest) last *= factor;
    }
    [[gnu::always_inline]] void add_product(double factor, const double* from) {
        fours_of values;
        values.load(from);
        for (int k = 0; k < fours; ++k) f[k] += values.f[k] * factor;
        if constexpr (rest) last += values.last * factor;
    }
    [[gnu::always_inline]] void add_to(double* to, double factor) const {
        fours_of sums;
        sums.load(to);
        for (int k = 0; k < fours; ++k) sums.f[k] += f[k] * factor;
        if constexpr (rest) sums.last += last * factor;
        sums.store(to);
    }
    [[gnu::always_inline]] void store(double* to) const {
        for (int k = 0; k < fours; ++k) std::memcpy(to + 4 * k, &f[k], sizeof(four));
        if constexpr (rest) std::memcpy(to + 4 * fours, &last, sizeof(pair));
    }

  private:
    [[gnu::always_inline]] void load(const double* from) {
        for (int k = 0; k < fours; ++k) std::memcpy(&f[k], from + 4 * k, sizeof(four));
        if constexpr (rest) std::memcpy(&last, from + 4 * fours, sizeof(pair));
    }
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
