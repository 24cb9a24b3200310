#include <algorithm>
#include <array>
#include <numeric>
#include <type_traits>

#include "modmmeiod_detail.hpp"

// r += (A^-1 kron G^-1) x with the lower triangle of A^-1, in one pass over it and without copies of the
// vectors. An element (i, c) reads the block of x at c, whose sum over the row is multiplied by G^-1 once,
// and adds the block of G^-1 x at i to r at c. Rows add to the left only, so that a thread may add to the
// equations of its own rows: no other thread touches them before all rows are through. What falls before them
// goes to sums of its own, the spill, which reaches no further than its first column; the spills are added in
// the order of the threads.
//
// Rows of the lower triangle belong to progeny and reach their parents, which are few: their blocks stay in
// the cache while the progeny come, by age, one behind the other. Rows of the upper triangle would reach the
// progeny of a parent, who lie anywhere in the next generation.

namespace zendar::modmmeiod {

namespace {

/// Blocks of a group in a vector with one element per equation. N entries a block (0: any number); contiguous
/// blocks lie behind each other.
template <int N, bool Contiguous, class Value>
class block_vector {
  public:
    block_vector(const effect_group& group, Value* data)
        : data_(data),
          order_(N > 0 ? N : group.order()),
          equation_(group.equation.data()),
          stride_(group.stride.data()) {}

    /// The block of a level (from 0), as it lies or collected in `space`.
    const double* block(std::int64_t level, double* space) const {
        if constexpr (Contiguous) {
            return data_ + equation_[0] + level * order_;
        } else {
            for (std::int64_t i = 0; i < order_; ++i) space[i] = data_[equation_[i] + level * stride_[i]];
            return space;
        }
    }
    void add(std::int64_t level, double factor, const double* values) const {
        if constexpr (Contiguous) {
            double* const to = data_ + equation_[0] + level * order_;
            for (std::int64_t i = 0; i < order_; ++i) to[i] += factor * values[i];
        } else {
            for (std::int64_t i = 0; i < order_; ++i)
                data_[equation_[i] + level * stride_[i]] += factor * values[i];
        }
    }
    void prefetch(std::int64_t level) const {
        constexpr int write = std::is_const_v<Value> ? 0 : 1;
        __builtin_prefetch(data_ + equation_[0] + level * (Contiguous ? order_ : stride_[0]), write);
    }

  private:
    Value* data_;
    std::int64_t order_;
    const std::int64_t* equation_;
    const std::int64_t* stride_;
};

/// Sums of one thread for the levels [first, end); `first` falls as they are reached.
struct spill {
    double* sums = nullptr;  ///< of level 0
    std::int64_t first = 0, end = 0;

    double* at(std::int64_t level, std::int64_t order) {
        constexpr std::int64_t step = 512;
        if (level < first) [[unlikely]] {
            const std::int64_t from = std::max(level - step, std::int64_t{0});
            std::fill(sums + from * order, sums + first * order, 0.0);
            first = from;
        }
        return sums + level * order;
    }
};

/// y = G^-1 v; the matrix is symmetric.
template <int N>
void times_ginv(const double* ginv, const double* v, double* y, std::int64_t order) {
    const std::int64_t n = N > 0 ? N : order;
    for (std::int64_t i = 0; i < n; ++i) y[i] = 0.0;
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t i = 0; i < n; ++i) y[i] += ginv[j * n + i] * v[j];
}

template <int N, bool Contiguous>
void rows(const effect_group& group, const crs_view<std::int32_t>& m, std::int64_t from, std::int64_t to,
          const double* x_data, double* r_data, spill& beyond) {
    constexpr std::int64_t ahead = 24;  // elements whose blocks are asked for before they are needed
    const std::int64_t order = N > 0 ? N : group.order();
    const double* const ginv = group.ginv.data();
    const std::int32_t* const ja = m.ja.data();
    const double* const a = m.a.data();
    const block_vector<N, Contiguous, const double> x(group, x_data);
    const block_vector<N, Contiguous, double> r(group, r_data);
    std::array<double, (N > 0 ? 4 * N : 1)> small;
    std::vector<double> large(N == 0 ? static_cast<std::size_t>(4 * order) : 0);
    double* const sum = N > 0 ? small.data() : large.data();
    double* const scattered = sum + order;
    double* const own_space = scattered + order;
    double* const space = own_space + order;
    const std::int64_t last = m.ia[to] - 1;
    for (std::int64_t i = from; i < to; ++i) {
        const double* const xi = x.block(i, own_space);
        times_ginv<N>(ginv, xi, scattered, order);
        std::int64_t end = m.ia[i + 1] - 1;
        const bool has_diagonal = end > m.ia[i] - 1 && ja[end - 1] - 1 == i;
        end -= has_diagonal ? 1 : 0;
        for (std::int64_t e = 0; e < order; ++e) sum[e] = has_diagonal ? a[end] * xi[e] : 0.0;
        for (std::int64_t k = m.ia[i] - 1; k < end; ++k) {
            const std::int64_t c = std::int64_t{ja[k]} - 1;
            const std::int64_t next = ja[std::min(k + ahead, last - 1)] - 1;
            x.prefetch(next);
            r.prefetch(next);
            const double* const xc = x.block(c, space);
            for (std::int64_t e = 0; e < order; ++e) sum[e] += a[k] * xc[e];
            if (c >= from) [[likely]] {
                r.add(c, a[k], scattered);
            } else {
                double* const add = beyond.at(c, order);
                for (std::int64_t e = 0; e < order; ++e) add[e] += a[k] * scattered[e];
            }
        }
        times_ginv<N>(ginv, sum, scattered, order);
        r.add(i, 1.0, scattered);
    }
}

template <int N, bool Contiguous>
void multiply(const effect_group& group, const crs_view<std::int32_t>& m, const sparse_parts& parts,
              std::span<double> memory, const double* x, double* r) {
    const std::int64_t order = N > 0 ? N : group.order();
    const auto npart = static_cast<std::int64_t>(parts.bounds.size()) - 1;
    std::vector<spill> spills;
    double* next = memory.data();
    for (std::int64_t p = 0; p < npart; ++p) {
        spills.push_back({next, parts.bounds[p], parts.bounds[p]});
        next += parts.bounds[p] * order;
    }
#pragma omp parallel num_threads(static_cast<int>(npart)) default(none) \
    shared(group, m, parts, x, r, order, npart, spills)
    {
#pragma omp for schedule(static, 1)
        for (std::int64_t p = 0; p < npart; ++p)
            rows<N, Contiguous>(group, m, parts.bounds[p], parts.bounds[p + 1], x, r, spills[p]);
#pragma omp for schedule(static, 1)
        for (std::int64_t p = 0; p < npart - 1; ++p) {
            const block_vector<N, Contiguous, double> to(group, r);
            for (std::int64_t q = p + 1; q < npart; ++q) {
                const spill& s = spills[q];
                const std::int64_t end = std::min(parts.bounds[p + 1], s.end);
                for (std::int64_t i = std::max(parts.bounds[p], s.first); i < end; ++i)
                    to.add(i, 1.0, s.sums + i * order);
            }
        }
    }
}

/// Whether the blocks of all levels lie behind each other.
bool is_contiguous(const effect_group& group) {
    for (std::int64_t i = 0; i < group.order(); ++i) {
        const auto at = static_cast<std::size_t>(i);
        if (group.equation[at] != group.equation[0] + i || group.stride[at] != group.order()) return false;
    }
    return true;
}

}  // namespace

crssparse lower_triangle(crssparse upper) {
    const crs_view<std::int32_t> m = upper.view();
    const auto n = static_cast<std::size_t>(m.dim1);
    const auto nel = static_cast<std::size_t>(m.ia[n] - 1);
    // ia[r + 2] counts row r; then ia[r + 1] is where its next element goes.
    std::vector<std::int32_t> ia(n + 2, 0);
    for (std::size_t k = 0; k < nel; ++k) ++ia[static_cast<std::size_t>(m.ja[k]) + 1];
    std::partial_sum(ia.begin(), ia.end(), ia.begin());
    std::vector<std::int32_t> ja(nel);
    std::vector<double> a(nel);
    for (std::size_t i = 0; i < n; ++i)
        for (std::int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
            const auto at = static_cast<std::size_t>(ia[static_cast<std::size_t>(m.ja[k])]++);
            ja[at] = static_cast<std::int32_t>(i) + 1;
            a[at] = m.a[k];
        }
    ia.pop_back();
    for (std::int32_t& start : ia) ++start;
    upper.destroy();
    crssparse lower(static_cast<std::int32_t>(n), static_cast<std::int64_t>(nel));
    lower.external(ia, ja, a);
    return lower;
}

sparse_parts make_sparse_parts(const crssparse& asparse, std::int64_t nthread) {
    const crs_view<std::int32_t> m = asparse.view();
    const std::int64_t n = asparse.getdim(1);
    const auto work_before = [&](std::int64_t row) { return std::int64_t{m.ia[row]} - 1 + row; };
    sparse_parts parts;
    parts.bounds.assign(1, 0);
    for (std::int64_t p = 1; p < nthread; ++p) {
        const std::int64_t share = work_before(n) * p / nthread;
        std::int64_t low = parts.bounds.back(), high = n;
        while (low < high) {
            const std::int64_t middle = (low + high) / 2;
            if (work_before(middle) < share)
                low = middle + 1;
            else
                high = middle;
        }
        parts.bounds.push_back(low);
    }
    parts.bounds.push_back(n);
    return parts;
}

std::int64_t sparse_parts::spill_size(std::int64_t order) const {
    std::int64_t size = 0;
    for (std::size_t p = 1; p + 1 < bounds.size(); ++p) size += bounds[p] * order;
    return size;
}

void addrandompartsparse_timesx(const effect_group& group, const crssparse& asparse,
                                const sparse_parts& parts, std::span<double> memory,
                                std::span<const double> x, std::span<double> r) {
    const crs_view<std::int32_t> m = asparse.view();
    const auto choose = [&]<bool Contiguous>() {
        switch (group.order()) {
            case 1:
                return multiply<1, Contiguous>(group, m, parts, memory, x.data(), r.data());
            case 2:
                return multiply<2, Contiguous>(group, m, parts, memory, x.data(), r.data());
            case 3:
                return multiply<3, Contiguous>(group, m, parts, memory, x.data(), r.data());
            case 4:
                return multiply<4, Contiguous>(group, m, parts, memory, x.data(), r.data());
            case 6:
                return multiply<6, Contiguous>(group, m, parts, memory, x.data(), r.data());
            default:
                return multiply<0, Contiguous>(group, m, parts, memory, x.data(), r.data());
        }
    };
    if (is_contiguous(group))
        choose.template operator()<true>();
    else
        choose.template operator()<false>();
}

}  // namespace zendar::modmmeiod
