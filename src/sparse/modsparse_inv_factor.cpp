#include <omp.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <mutex>
#include <numeric>

#include "modblas.hpp"
#include "modsparse_inv_crew.hpp"
#include "modsparse_inv_detail.hpp"

namespace zendar::modsparse_inv {

namespace {

/// Multiplications below which a plain loop beats the call of a BLAS routine.
constexpr std::int64_t small_update = 3000;
/// Columns up to which a supernode is factorised by plain loops.
constexpr std::int32_t narrow_columns = 16;
/// Multiplications from which a supernode is worth splitting into tasks.
constexpr double big_work = 5e6;

/// A supernode `from` that updates another one, from its row number `first` on.
struct update {
    std::int32_t from, first;
};

class left_looking {
  public:
    left_looking(const supernodal_structure& s, const permuted_matrix& m, pivot_rule rule,
                 supernodal_factor& f, const progress_function& progress)
        : s_(s), m_(m), rule_(rule), f_(f), progress_(progress) {
        list_updates();
        std::int32_t longest = 0;
        for (std::int32_t k = 0; k < s.nsuper(); ++k) longest = std::max(longest, s.rows(k));
        // A piece of a product, or one column of a small one.
        const std::int64_t size = std::max<std::int64_t>(
            std::int64_t{std::min(longest, tile_rows)} * std::min(longest, tile_columns),
            std::min<std::int64_t>(longest, small_update));
        space_.resize(threads_within(workspace_share * static_cast<double>(s.xlnz[s.nsuper()]), 0.0,
                                     static_cast<double>(size) + 0.5 * s.n));
        for (auto& space : space_) {
            space.map = std::make_unique_for_overwrite<std::int32_t[]>(s.n);
            space.buffer = std::make_unique_for_overwrite<double[]>(size);
        }
    }

    void factorise() {
        const tree_schedule schedule(s_.sparent, work_, static_cast<int>(space_.size()));
        tree_crew crew(schedule);
        crew_ = &crew;
        crew.run(tree_crew::direction::up, [this](std::int32_t k) { node(k); });
        crew_ = nullptr;
    }

    [[nodiscard]] factor_status status() const {
        const std::int32_t column = failed_.load();
        return column == none ? factor_status{} : factor_status{column, pivot_};
    }

  private:
    static constexpr std::int32_t none = std::numeric_limits<std::int32_t>::max();
    struct workspace {
        std::unique_ptr<std::int32_t[]> map;  // of a row within the supernode at hand
        std::unique_ptr<double[]> buffer;
    };

    void node(std::int32_t k) const noexcept {
        // A failure in an earlier column makes this one pointless; one in a later column does not, so that
        // the first is reported whatever the threads do.
        if (failed_.load(std::memory_order_relaxed) < s_.nodes.xsuper[k]) return;
        const bool tiles = work_[k] > big_work;
        std::int32_t* const map = own_space().map.get();
        scatter(k, map);
        if (tiles) {
            update_by_tiles(k, map);
        } else {
            update_tile(k, map, 0, s_.columns(k), 0, s_.rows(k));
        }
        factorise(k, tiles);
        report();
    }
    const workspace& own_space() const {
        return space_[space_.size() == 1 ? 0 : static_cast<std::size_t>(omp_get_thread_num())];
    }
    double* block(std::int32_t k) const { return f_.lnz.get() + s_.xlnz[k]; }

    void list_updates();
    void scatter(std::int32_t k, std::int32_t* map) const;
    void each_tile(std::int32_t first, std::int32_t nc, std::int32_t nr, bool shared, const auto& tile) const;
    void update_by_tiles(std::int32_t k, const std::int32_t* map) const;
    void update_tile(std::int32_t k, const std::int32_t* map, std::int32_t c0, std::int32_t c1,
                     std::int32_t r0, std::int32_t r1) const;
    void apply_small(const double* from, std::int64_t ld, std::int32_t depth, const std::int32_t* rows,
                     const std::int32_t* map, std::int32_t nc, std::int32_t row0, std::int32_t nr,
                     double* target, std::int64_t ldt) const;
    void apply_blas(const double* from, std::int64_t ld, std::int32_t depth, const std::int32_t* rows,
                    const std::int32_t* map, std::int32_t nc, std::int32_t row0, std::int32_t nr,
                    double* target, std::int64_t ldt) const;
    void factorise(std::int32_t k, bool shared) const;
    bool factorise_columns(double* a, std::int64_t ld, std::int32_t nr, std::int32_t nc,
                           std::int32_t column) const;
    bool factorise_diagonal(double* a, std::int64_t ld, std::int32_t n, std::int32_t column) const;
    void fail(std::int32_t column, double pivot) const;
    void report() const;

    const supernodal_structure& s_;
    const permuted_matrix& m_;
    const pivot_rule rule_;
    supernodal_factor& f_;
    const progress_function& progress_;
    std::vector<workspace> space_;
    std::vector<std::int64_t> xupdate_;
    std::vector<update> updates_;
    std::vector<double> work_;
    tree_crew* crew_ = nullptr;
    mutable std::atomic<std::int32_t> failed_ = none;
    mutable double pivot_ = 0.0;
    mutable std::int64_t done_ = 0;
    mutable std::mutex guard_;
};

void left_looking::list_updates() {
    const std::int32_t nsuper = s_.nsuper();
    work_.resize(nsuper);
    xupdate_.assign(std::size_t{0} + nsuper + 1, 0);
    const auto each_block = [&](std::int32_t k, auto&& visit) {
        const auto rows = s_.rows_of(k);
        const auto nr = static_cast<std::int32_t>(rows.size());
        for (std::int32_t first = s_.columns(k), last = first; first < nr; first = last) {
            const std::int32_t target = s_.snode[rows[first]], end = s_.nodes.xsuper[target + 1];
            while (last < nr && rows[last] < end) ++last;
            visit(target, first, last);
        }
    };
    for (std::int32_t k = 0; k < nsuper; ++k) {
        const double nc = s_.columns(k), nr = s_.rows(k);
        work_[k] += 50.0 + nc * nc * (nr - nc * 2 / 3) + nc * nr;
        each_block(k, [&](std::int32_t target, std::int32_t first, std::int32_t last) {
            ++xupdate_[target + 1];
            work_[target] += 50.0 + nc * (last - first) * (nr - 0.5 * (first + last));
        });
    }
    std::partial_sum(xupdate_.begin(), xupdate_.end(), xupdate_.begin());
    updates_.resize(static_cast<std::size_t>(xupdate_[nsuper]));
    std::vector<std::int64_t> next(xupdate_.begin(), xupdate_.end() - 1);
    for (std::int32_t k = 0; k < nsuper; ++k)
        each_block(k, [&](std::int32_t target, std::int32_t first, std::int32_t) {
            updates_[next[target]++] = {k, first};
        });
}

/// Clears the block, puts the matrix into it and notes where each row stands.
void left_looking::scatter(std::int32_t k, std::int32_t* map) const {
    const auto rows = s_.rows_of(k);
    const auto nr = static_cast<std::int64_t>(rows.size());
    double* column = block(k);
    std::fill_n(column, nr * s_.columns(k), 0.0);
    for (std::int32_t i = 0; i < nr; ++i) map[rows[i]] = i;
    for (std::int32_t j = s_.nodes.xsuper[k]; j < s_.nodes.xsuper[k + 1]; ++j, column += nr) {
        column[map[j]] = m_.diag[j];
        for (std::int64_t e = m_.xcol[j]; e < m_.xcol[j + 1]; ++e) column[map[m_.row[e]]] = m_.value[e];
    }
}

/// Calls tile(c0, c1, r0, r1) for the tiles of columns [first, nc) from the diagonal down to row nr, by all
/// idle threads or by this one alone.
void left_looking::each_tile(std::int32_t first, std::int32_t nc, std::int32_t nr, bool shared,
                             const auto& tile) const {
    const auto below = [nr](std::int32_t c0) { return (nr - c0 + tile_rows - 1) / tile_rows; };
    const auto numbered = [&](std::int32_t number) {
        std::int32_t c0 = first;
        for (; number >= below(c0); c0 += tile_columns) number -= below(c0);
        const std::int32_t r0 = c0 + number * tile_rows;
        tile(c0, std::min(nc, c0 + tile_columns), r0, std::min(nr, r0 + tile_rows));
    };
    std::int32_t count = 0;
    for (std::int32_t c0 = first; c0 < nc; c0 += tile_columns) count += below(c0);
    if (shared)
        crew_->share(count, std::ref(numbered));
    else
        for (std::int32_t i = 0; i < count; ++i) numbered(i);
}

void left_looking::update_by_tiles(std::int32_t k, const std::int32_t* map) const {
    each_tile(0, s_.columns(k), s_.rows(k), true,
              [&](std::int32_t c0, std::int32_t c1, std::int32_t r0, std::int32_t r1) {
                  update_tile(k, map, c0, c1, r0, r1);
              });
}

/// Takes from columns [c0, c1) and rows [r0, r1) of supernode k what all supernodes below contribute. A tile
/// that holds part of the diagonal begins with it (r0 = c0).
void left_looking::update_tile(std::int32_t k, const std::int32_t* map, std::int32_t c0, std::int32_t c1,
                               std::int32_t r0, std::int32_t r1) const {
    const auto target_rows = s_.rows_of(k);
    const std::int32_t nr = s_.rows(k);
    const std::int32_t first_column = target_rows[c0], last_column = target_rows[c1 - 1];
    const bool whole = r1 == nr;
    for (std::int64_t u = xupdate_[k]; u < xupdate_[k + 1]; ++u) {
        const std::int32_t from = updates_[u].from, depth = s_.columns(from);
        const auto rows = s_.rows_of(from);
        const auto end = rows.end();
        const auto column_begin = std::lower_bound(rows.begin() + updates_[u].first, end, first_column);
        auto column_end = column_begin;
        if (column_begin != end && *column_begin <= last_column)
            column_end = std::upper_bound(column_begin, std::min(end, column_begin + (c1 - c0)), last_column);
        if (column_begin == column_end) continue;
        const auto row_begin = r0 == c0 ? column_begin : std::lower_bound(column_end, end, target_rows[r0]);
        const auto row_end = whole ? end : std::lower_bound(row_begin, end, target_rows[r1]);
        if (row_begin == row_end) continue;

        const auto at = static_cast<std::int32_t>(column_begin - rows.begin());
        const auto ncols = static_cast<std::int32_t>(column_end - column_begin);
        const auto row0 = static_cast<std::int32_t>(row_begin - column_begin);
        const auto nrows = static_cast<std::int32_t>(row_end - row_begin);
        const std::int64_t ld = s_.rows(from);
        const bool small = std::int64_t{ncols} * nrows * depth < small_update;
        const auto apply = small ? &left_looking::apply_small : &left_looking::apply_blas;
        (this->*apply)(block(from) + at, ld, depth, rows.data() + at, map, ncols, row0, nrows, block(k), nr);
    }
}

/// target(rows, columns) -= from(rows, :) from(columns, :)'. Columns are the first `nc` of `rows`, rows are
/// row0 ... row0 + nr - 1; what lies above the diagonal is left alone.
void left_looking::apply_small(const double* from, std::int64_t ld, std::int32_t depth,
                               const std::int32_t* rows, const std::int32_t* map, std::int32_t nc,
                               std::int32_t row0, std::int32_t nr, double* target, std::int64_t ldt) const {
    double* const sum = own_space().buffer.get();
    const std::int32_t end = row0 + nr;
    for (std::int32_t c = 0; c < nc; ++c) {
        double* const column = target + map[rows[c]] * ldt;
        const std::int32_t begin = std::max(c, row0);
        if (depth == 1) {
            const double x = from[c];
            for (std::int32_t i = begin; i < end; ++i) column[map[rows[i]]] -= x * from[i];
            continue;
        }
        const double *l0 = from, *l1 = from + ld;
        const double x0 = l0[c], x1 = l1[c];
        for (std::int32_t i = begin; i < end; ++i) sum[i - begin] = x0 * l0[i] + x1 * l1[i];
        std::int32_t t = 2;
        for (; t + 1 < depth; t += 2) {
            const double *p0 = from + t * ld, *p1 = p0 + ld;
            const double y0 = p0[c], y1 = p1[c];
            for (std::int32_t i = begin; i < end; ++i) sum[i - begin] += y0 * p0[i] + y1 * p1[i];
        }
        if (t < depth) {
            const double* p = from + t * ld;
            const double y = p[c];
            for (std::int32_t i = begin; i < end; ++i) sum[i - begin] += y * p[i];
        }
        for (std::int32_t i = begin; i < end; ++i) column[map[rows[i]]] -= sum[i - begin];
    }
}

/// The same by BLAS, in pieces that fit the buffer; without it where the rows of the target adjoin.
void left_looking::apply_blas(const double* from, std::int64_t ld, std::int32_t depth,
                              const std::int32_t* rows, const std::int32_t* map, std::int32_t nc,
                              std::int32_t row0, std::int32_t nr, double* target, std::int64_t ldt) const {
    double* const buffer = own_space().buffer.get();
    const std::int32_t end = row0 + nr;
    const auto rows_at = [&](std::int32_t first, std::int32_t last) {
        return matrix_view<const double>{from + first, last - first, depth, ld};
    };
    const auto adjoin = [&](std::int32_t first, std::int32_t last) {
        return map[rows[last - 1]] - map[rows[first]] == last - 1 - first;
    };
    for (std::int32_t c0 = 0, c1; c0 < nc; c0 = c1) {
        c1 = std::min(nc, c0 + tile_columns);
        for (std::int32_t r0 = std::max(c0, row0), r1; r0 < end; r0 = r1) {
            r1 = std::min(end, r0 + tile_rows);
            const bool direct = adjoin(c0, c1) && adjoin(r0, r1);
            const std::int64_t ldb = direct ? ldt : r1 - r0;
            double* const b = direct ? target + map[rows[r0]] + map[rows[c0]] * ldt : buffer;
            const double alpha = direct ? -1.0 : 1.0, beta = direct ? 1.0 : 0.0;
            std::int32_t below = r0;
            if (r0 < c1) {  // begins with the diagonal; a row chunk is longer than a column chunk is wide
                below = std::min(c1, r1);
                blas_dsyrk(alpha, rows_at(r0, below), beta, {b, below - r0, below - r0, ldb});
            }
            blas_dgemm(false, true, alpha, rows_at(below, r1), rows_at(c0, c1), beta,
                       {b + (below - r0), r1 - below, c1 - c0, ldb});
            if (direct) continue;
            for (std::int32_t c = c0; c < c1; ++c) {
                double* const column = target + map[rows[c]] * ldt;
                const double* const sum = buffer + (c - c0) * ldb;
                for (std::int32_t i = std::max(c, r0); i < r1; ++i) column[map[rows[i]]] -= sum[i - r0];
            }
        }
    }
}

/// Dense factorisation of the finished block, by panels of columns.
void left_looking::factorise(std::int32_t k, bool shared) const {
    const std::int32_t nc = s_.columns(k), nrows = s_.rows(k), first = s_.nodes.xsuper[k];
    const std::int64_t nr = nrows;
    double* const a = block(k);
    if (nc <= narrow_columns) {
        factorise_columns(a, nr, nrows, nc, first);
        return;
    }
    for (std::int32_t c0 = 0, c1; c0 < nc; c0 = c1) {
        c1 = std::min(nc, c0 + tile_columns);
        double* const diagonal = a + c0 + c0 * nr;
        if (!factorise_diagonal(diagonal, nr, c1 - c0, first + c0)) return;
        const auto solve_rows = [&](std::int32_t r0, std::int32_t r1) {
            const matrix_view<double> below{a + r0 + c0 * nr, r1 - r0, c1 - c0, nr};
            blas_dtrsm_right(true, {diagonal, c1 - c0, c1 - c0, nr}, below);
            if (rule_ == pivot_rule::drop)
                for (std::int32_t c = c0; c < c1; ++c)
                    if (f_.dropped[first + c]) std::fill_n(below.data + (c - c0) * nr, r1 - r0, 0.0);
        };
        // One column of tiles: the rows below the diagonal block.
        each_tile(c1, std::min(nrows, c1 + 1), nrows, shared,
                  [&](std::int32_t, std::int32_t, std::int32_t r0, std::int32_t r1) { solve_rows(r0, r1); });
        each_tile(c1, nc, nrows, shared,
                  [&](std::int32_t d0, std::int32_t d1, std::int32_t r0, std::int32_t r1) {
                      blas_dgemm(false, true, -1.0, {a + r0 + c0 * nr, r1 - r0, c1 - c0, nr},
                                 {a + d0 + c0 * nr, d1 - d0, c1 - c0, nr}, 1.0,
                                 {a + r0 + d0 * nr, r1 - r0, d1 - d0, nr});
                  });
    }
}

bool left_looking::factorise_diagonal(double* a, std::int64_t ld, std::int32_t n, std::int32_t column) const {
    if (rule_ == pivot_rule::positive && n > narrow_columns) {
        const int info = lapack_dpotrf({a, n, n, ld});
        if (info > 0) fail(column + info - 1, a[(info - 1) * (ld + 1)]);
        return info == 0;
    }
    for (std::int32_t c = 0; c < n; c += narrow_columns) {
        const std::int32_t nc = std::min(narrow_columns, n - c), rest = n - c - nc;
        double* const panel = a + c + c * ld;
        if (!factorise_columns(panel, ld, n - c, nc, column + c)) return false;
        blas_dsyrk(-1.0, {panel + nc, rest, nc, ld}, 1.0, {panel + nc + nc * ld, rest, rest, ld});
    }
    return true;
}

/// The columns of a panel one by one, over all its rows. A dropped column stands as a unit vector, which
/// leaves all others alone.
bool left_looking::factorise_columns(double* a, std::int64_t ld, std::int32_t nr, std::int32_t nc,
                                     std::int32_t column) const {
    for (std::int32_t j = 0; j < nc; ++j) {
        double* const x = a + j * ld;
        std::int32_t t = 0;
        for (; t + 1 < j; t += 2) {
            const double *l0 = a + t * ld, *l1 = l0 + ld;
            const double x0 = l0[j], x1 = l1[j];
            for (std::int32_t i = j; i < nr; ++i) x[i] -= x0 * l0[i] + x1 * l1[i];
        }
        if (t < j) {
            const double* const l = a + t * ld;
            const double xt = l[j];
            for (std::int32_t i = j; i < nr; ++i) x[i] -= xt * l[i];
        }
        const double pivot = x[j], diagonal = m_.diag[column + j];
        if (rule_ == pivot_rule::drop && !(pivot > dropped_pivot * diagonal)) {
            if (!(pivot >= negative_pivot * diagonal)) {
                fail(column + j, pivot);
                return false;
            }
            f_.dropped[column + j] = 1;
            x[j] = 1.0;
            std::fill(x + j + 1, x + nr, 0.0);
            continue;
        }
        if (!(pivot > 0.0)) {
            fail(column + j, pivot);
            return false;
        }
        x[j] = std::sqrt(pivot);
        const double scale = 1.0 / x[j];
        for (std::int32_t i = j + 1; i < nr; ++i) x[i] *= scale;
    }
    return true;
}

void left_looking::fail(std::int32_t column, double pivot) const {
    const std::lock_guard lock(guard_);
    if (column >= failed_.load(std::memory_order_relaxed)) return;
    failed_.store(column, std::memory_order_relaxed);
    pivot_ = pivot;
}

void left_looking::report() const {
    if (!progress_) return;
    const std::lock_guard lock(guard_);
    progress_(++done_, s_.nsuper());
}

}  // namespace

factor_status super_gsfct(const supernodal_structure& s, const permuted_matrix& m, pivot_rule rule,
                          supernodal_factor& f, const progress_function& progress) {
    f.lnz = std::make_unique_for_overwrite<double[]>(static_cast<std::size_t>(s.xlnz[s.nsuper()]));
    f.dropped.assign(rule == pivot_rule::drop ? s.n : 0, 0);
    left_looking kernel(s, m, rule, f, progress);
    kernel.factorise();
    f.ndropped = static_cast<std::int32_t>(std::ranges::count(f.dropped, 1));
    return kernel.status();
}

}  // namespace zendar::modsparse_inv
