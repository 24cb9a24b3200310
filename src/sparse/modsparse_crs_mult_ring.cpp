#include "modsparse_crs_mult_rows.hpp"

// Near the diagonal an element is gathered and scattered at once: what it leads to is in the cache. With
// several columns, the equations around the current row are kept in a ring of row-major copies that stays
// there, and the vectors are read and written once.

namespace zendar::crs_mult {

namespace {

/// Equations go in and out by chunks, all columns of which are in the nearest cache. They are asked for so
/// many equations before they go in.
constexpr std::int64_t margin = 4 * chunk;

/// The vectors of a product; x and y are asked for `front` equations before a row.
struct vectors {
    matrix_view<const double> x;
    matrix_view<double> y;
    double beta;
    std::int64_t front;
};

/// The ring of x comes first, that of what is scattered behind it. Their distance is not a multiple of a
/// page, where reading the one would wait for writing the other.
template <int B>
constexpr std::int64_t distance_of_sums = ring_size * B + 256;
template <int B>
constexpr std::int64_t ring_memory = distance_of_sums<B> + ring_size * B;

/// The equations around the current row: x, and sums of what is scattered to them.
template <int B, class Lanes>
class ring {
  public:
    ring(std::int64_t n, std::int64_t from, std::int64_t to, const vectors& v, spill& out, double* memory)
        : n_(n), to_(to), tail_(from), head_(from), ready_(from), v_(v), out_(out), memory_(memory) {}

    /// Equations before it are in the ring (or have left it).
    [[nodiscard]] std::int64_t head() const { return head_; }
    /// Equations from here on must wait until others have left.
    [[nodiscard]] std::int64_t limit() const { return tail_ + ring_size - chunk; }
    /// Where an equation stands in x and in the sums.
    [[nodiscard]] static std::int64_t offset(std::int64_t i) { return (i & (ring_size - 1)) * B; }
    [[nodiscard]] double* x() const { return memory_; }
    [[nodiscard]] double* sums() const { return memory_ + distance_of_sums<B>; }

    /// Takes in all equations up to the one given, which is below the limit.
    void load(std::int64_t equation) {
        while (head_ <= equation) {
            const std::int64_t end = std::min((head_ / chunk + 1) * chunk, n_);
            double* const xh = x() + offset(head_);
            double* const sh = sums() + offset(head_);
            std::fill(sh, sh + (end - head_) * B, 0.0);
            if (v_.x.cols < B) std::fill(xh, xh + (end - head_) * B, 0.0);
            Lanes::into_rows(v_.x, head_, end, xh);
            head_ = end;
        }
    }
    /// Asks for what is loaded later, and for what leaves soon, a line of each column: these are too many
    /// streams for the processor to foresee.
    [[gnu::always_inline]] void ask_for_x(std::int64_t row) const { ask_columns<B, 0>(v_.x, row + v_.front); }
    [[gnu::always_inline]] void ask_for_y(std::int64_t row) const { ask_columns<B, 1>(v_.y, row + chunk); }
    /// The rows before `row` are through: their equations leave.
    void leave(std::int64_t row) {
        const std::int64_t held = std::clamp(ready_, tail_, row);
        if (held > tail_) Lanes::add_to_columns(sums() + offset(tail_), tail_, held, 1.0, v_.y);
        if (held < row) Lanes::add_to_columns(sums() + offset(held), held, row, v_.beta, v_.y);
        tail_ = row;
        ready_ = std::max(ready_, row);
    }
    /// An equation beyond the ring: adds a * xi to its y and gives its x.
    void far(std::int64_t c, double a, const double* xi, double* x) {
        const matrix_view<double>& y = v_.y;
        for (std::int64_t j = 0; j < B; ++j) x[j] = j < v_.x.cols ? v_.x.data[c + j * v_.x.ld] : 0.0;
        if (c < to_) {
            for (; ready_ <= c; ++ready_)
                for (std::int64_t j = 0; j < y.cols; ++j) {
                    double& value = y.data[ready_ + j * y.ld];
                    value = v_.beta == 0.0 ? 0.0 : v_.beta * value;
                }
            for (std::int64_t j = 0; j < y.cols; ++j) y.data[c + j * y.ld] += a * xi[j];
        } else {
            double* const sums = out_.template at<B>(c, n_);
            for (std::int64_t j = 0; j < B; ++j) sums[j] += a * xi[j];
        }
    }
    /// What is left in the ring after the last row belongs to other parts.
    void finish() {
        for (std::int64_t c = to_; c < head_; ++c)
            lanes<B>::load(sums() + offset(c)).add_to(out_.template at<B>(c, n_), 1.0);
    }

  private:
    std::int64_t n_, to_;
    std::int64_t tail_;   // own equations before it have left the ring
    std::int64_t head_;   // the first that has not entered
    std::int64_t ready_;  // own equations before it hold beta y, or more, in y
    vectors v_;
    spill& out_;
    double* memory_;
};

/// Rows whose equations are all in the ring at `ring_at`, the diagonal element first, if there is one: none
/// is looked at.
template <int B, class Lanes, std::signed_integral Index>
[[gnu::always_inline]] inline void rows_in_ring(crs_view<Index> m, std::int64_t from, std::int64_t to,
                                                double alpha, double* const ring_at) {
    const auto offset = ring<B, Lanes>::offset;
    const double* const x = ring_at;
    double* const sums = ring_at + distance_of_sums<B>;
    const Index* const ia = m.ia.data();
    const Index* const ja = m.ja.data();
    const double* const a = m.a.data();
    std::int64_t k = ia[from] - 1;
    for (std::int64_t i = from; i < to; ++i) {
        Lanes xi, sum{};
        xi.load_times(x + offset(i), alpha);
        const std::int64_t end = ia[i + 1] - 1;
        if (k < end && ja[k] - 1 == i) sum.add_product(a[k++], x + offset(i));
        for (; k < end; ++k) {
            const std::int64_t at = offset(std::int64_t{ja[k]} - 1);
            sum.add_product(a[k], x + at);
            xi.add_to(sums + at, a[k]);
        }
        sum.add_to(sums + offset(i), alpha);
    }
}

/// Any rows.
template <int B, class Lanes, std::signed_integral Index>
[[gnu::always_inline]] inline void any_rows(crs_view<Index> m, std::int64_t from, std::int64_t to,
                                            double alpha, ring<B, Lanes>& near) {
    const double* const x = near.x();
    double* const sums = near.sums();
    for (std::int64_t i = from; i < to; ++i) {
        if (i >= near.head()) near.load(i);
        Lanes xi, sum{};
        xi.load_times(x + near.offset(i), alpha);
        for (std::int64_t k = m.ia[i] - 1, end = m.ia[i + 1] - 1; k < end; ++k) {
            const std::int64_t c = std::int64_t{m.ja[k]} - 1;
            const double a = m.a[k];
            if (c >= near.head()) [[unlikely]] {
                if (c >= near.limit()) {
                    double scattered[B], gathered[B];
                    xi.store(scattered);
                    near.far(c, a, scattered, gathered);
                    sum.add_product(a, gathered);
                    continue;
                }
                near.load(c);
            }
            sum.add_product(a, x + near.offset(c));
            if (c != i) xi.add_to(sums + near.offset(c), a);
        }
        sum.add_to(sums + near.offset(i), alpha);
    }
}

template <int B, class Lanes, std::signed_integral Index>
[[gnu::always_inline]] inline void rows_through(crs_view<Index> m, std::int64_t from, std::int64_t to,
                                                double alpha, ring<B, Lanes>& near) {
    const elements_ahead<Index, 3> ahead(m);
    for (std::int64_t i = from; i < to;) {
        const std::int64_t end = std::min((i / chunk + 1) * chunk, to);
        const std::int64_t last = m.sorted ? std::max(last_column(m, i, end), end) : near.limit() + 1;
        const bool all_in_ring = last <= near.limit();
        if (all_in_ring) near.load(last - 1);
        for (std::int64_t r = i; r < end; r += line) {
            // Too many lines at a time would be waited for.
            const std::int64_t half = std::min(r + line / 2, end), stop = std::min(r + line, end);
            const auto rows = [&](std::int64_t from, std::int64_t to) __attribute__((always_inline)) {
                ahead.ask_for(m.ia[from] - 1, m.ia[to] - 1);
                if (all_in_ring)
                    rows_in_ring<B, Lanes>(m, from, to, alpha, near.x());
                else
                    any_rows(m, from, to, alpha, near);
            };
            near.ask_for_x(r);
            rows(r, half);
            near.ask_for_y(r);
            rows(half, stop);
        }
        near.leave(end);
        i = end;
    }
    near.finish();
}

template <int B, std::signed_integral Index>
void rows_through_plain(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha, const vectors& v,
                        spill& out, double* memory) {
    ring<B, pairs_of<B>> near(m.dim1, from, to, v, out, memory);
    rows_through(m, from, to, alpha, near);
}
template <int B, std::signed_integral Index>
ZENDAR_FMA void rows_through_fma(crs_view<Index> m, std::int64_t from, std::int64_t to, double alpha,
                                 const vectors& v, spill& out, double* memory) {
    ring<B, fours_of<B>> near(m.dim1, from, to, v, out, memory);
    rows_through(m, from, to, alpha, near);
}

}  // namespace

template <int B, std::signed_integral Index>
void multiply_near(crs_view<Index> m, double alpha, matrix_view<const double> x, double beta,
                   matrix_view<double> y, std::int64_t front, int parts) {
    const std::vector<std::int64_t> bounds = row_bounds(m, parts);
    spill_store store(bounds, m.dim1, B);
    std::vector<spill>& spills = store.spills;
    const std::unique_ptr<double[]> memory = raw_memory(ring_memory<B> * parts);
    double* const rings = memory.get();
    const vectors v{x, y, beta, front + margin};
    const auto rows = has_fma() ? rows_through_fma<B, Index> : rows_through_plain<B, Index>;
#pragma omp parallel num_threads(parts) default(none) \
    shared(m, alpha, v, y, parts, bounds, spills, rings, rows)
    {
#pragma omp for schedule(static, 1)
        for (int p = 0; p < parts; ++p)
            rows(m, bounds[p], bounds[p + 1], alpha, v, spills[p], rings + ring_memory<B> * p);
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
                          std::int64_t, int);

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
