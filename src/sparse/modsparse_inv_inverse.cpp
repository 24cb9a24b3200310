#include <omp.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <new>

#include "modblas.hpp"
#include "modsparse_inv_crew.hpp"
#include "modsparse_inv_detail.hpp"

namespace zendar::modsparse_inv {

namespace {

/// Columns of a supernode up to which plain loops beat BLAS.
constexpr std::int32_t narrow_columns = 4;
/// Columns of the diagonal block that are finished at a time: less waste above the diagonal.
constexpr std::int32_t diagonal_columns = 32;
/// Multiplications from which a step of a supernode is shared by the threads, and columns that make it worth.
constexpr double big_work = 5e6;
constexpr std::int32_t big_columns = 16;
/// Work of all supernodes below which further threads do not pay.
constexpr double least_work = 1e6;
/// In place of a code of DPOTRI, which are at least 0 here.
constexpr int out_of_memory = -1;

/// Columns [c0, c1) of one supernode with everything below them: with C the rows below,
///   Y = L(C) L(J)^-1,  Z(C, J) = -Z(C, C) Y,  Z(J, J) = L(J)^-T L(J)^-1 - Y' Z(C, J).
struct piece {
    std::int32_t node, c0, c1;
    std::int32_t below;        // rows of C
    const std::int32_t* rows;  // C itself
    double* block;             // of the supernode
    std::int64_t ld;
    [[nodiscard]] std::int32_t columns() const { return c1 - c0; }
    [[nodiscard]] double* diagonal() const { return block + c0 + c0 * ld; }
    [[nodiscard]] double* lower() const { return block + c1 + c0 * ld; }
};

/// Columns of a step and of a gathered part of Z(C, C), and the work space that they need, in doubles. They
/// follow from the matrix alone, so that the arithmetic is the same for any number of threads.
struct step_sizes {
    std::int32_t tile = 0, gather = 0;
    std::int64_t y = 0, shared_y = 0, gathered = 0, place = 0;

    static bool is_shared(std::int64_t below, std::int32_t nc) {
        return static_cast<double>(below) * static_cast<double>(below) * nc > big_work && nc >= big_columns;
    }
    [[nodiscard]] double each() const {
        return static_cast<double>(y + gathered) + 0.5 * static_cast<double>(place);
    }
    void measure(const supernodal_structure& s);
};

void step_sizes::measure(const supernodal_structure& s) {
    y = shared_y = gathered = place = 0;
    for (std::int32_t k = 0; k < s.nsuper(); ++k)
        for (std::int32_t c1 = s.columns(k), c0 = 0; c1 > 0; c1 = c0) {
            c0 = (c1 - 1) / tile * tile;
            const std::int32_t nc = c1 - c0;
            const std::int64_t below = s.rows(k) - c1;
            std::int64_t& size = is_shared(below, nc) ? shared_y : y;
            size = std::max(size, below * nc);
            gathered = std::max(gathered, nc <= narrow_columns ? below : below * gather);
            place = std::max(place, below);
        }
}

/// The widest steps whose work space is a small part of the factor: Z(C, C) is gathered once for each. The
/// widest ones only where they do not cost threads.
step_sizes choose_sizes(const supernodal_structure& s) {
    struct width {
        std::int32_t tile, gather;
        double threads;
    };
    static constexpr width widths[] = {{512, 256, 4.0}, {256, 128, 4.0}, {128, 64, 1.0}, {128, 32, 1.0},
                                       {64, 32, 1.0},   {32, 16, 1.0},   {16, 8, 1.0}};
    const double most = workspace_share * static_cast<double>(s.xlnz[s.nsuper()]);
    step_sizes sizes;
    for (const auto& [tile, gather, threads] : widths) {
        sizes.tile = tile;
        sizes.gather = gather;
        sizes.measure(s);
        if (threads * sizes.each() + static_cast<double>(sizes.shared_y) <= most) break;
    }
    return sizes;
}

class selected_inverse {
  public:
    selected_inverse(const supernodal_structure& s, supernodal_factor& f, const progress_function& progress)
        : s_(s), f_(f), progress_(progress), sizes_(choose_sizes(s)) {}

    /// @returns 0, a code of DPOTRI or `out_of_memory`.
    int invert();

  private:
    struct workspace {
        std::unique_ptr<double[]> y, gathered;
        std::unique_ptr<std::int32_t[]> place;
    };
    /// A run of rows of C that are columns of one supernode: [first, last) of C.
    struct run {
        std::int32_t node, first, last;
    };

    const workspace& own_space() const {
        return space_[space_.size() == 1 ? 0 : static_cast<std::size_t>(omp_get_thread_num())];
    }
    void node(std::int32_t k) const noexcept;
    run run_at(const piece& p, std::int32_t first) const {
        const std::int32_t node = s_.snode[p.rows[first]], end = s_.nodes.xsuper[node + 1];
        std::int32_t last = first + 1;
        while (last < p.below && p.rows[last] < end) ++last;
        return {node, first, last};
    }
    const double* column(std::int32_t node, std::int32_t j) const {
        return f_.lnz.get() + s_.xlnz[node] + std::int64_t{j - s_.nodes.xsuper[node]} * s_.rows(node);
    }

    void step(const piece& p) const;
    void separate_dropped(const piece& p) const;
    void solve_rows(const piece& p, double* y, std::int32_t r0, std::int32_t r1) const;
    void multiply_narrow(const piece& p, const double* y) const;
    void multiply(const piece& p, const double* y) const;
    void multiply_rows(const piece& p, const double* y, std::int32_t first, std::int32_t last) const;
    bool locate(const piece& p, std::int32_t node, std::int32_t first, std::int32_t* place) const;
    void add_to_diagonal(const piece& p, const double* y, std::int32_t c0, std::int32_t c1) const;
    void invert_diagonal(const piece& p, const double* y, bool shared) const;
    /// work(first, last) for parts of [0, n), by all threads that are idle.
    void share(std::int32_t n, std::int32_t part, const auto& work) const {
        const auto block = [&](std::int32_t b) { work(b * part, std::min(n, (b + 1) * part)); };
        crew_->share((n + part - 1) / part, std::ref(block));
    }
    void fail(int code) const;
    void report() const;

    const supernodal_structure& s_;
    supernodal_factor& f_;
    const progress_function& progress_;
    const step_sizes sizes_;
    std::vector<workspace> space_;  // of the threads
    tree_crew* crew_ = nullptr;
    mutable std::atomic<bool> failed_ = false;
    mutable int code_ = 0;
    mutable std::int64_t done_ = 0;
    mutable std::mutex guard_;
};

int selected_inverse::invert() {
    const std::int32_t nsuper = s_.nsuper();
    const double most = workspace_share * static_cast<double>(s_.xlnz[nsuper]);
    const auto shared = static_cast<double>(sizes_.shared_y);
    std::vector<double> work(nsuper);
    std::vector<char> demanding(nsuper, 0);
    double total = 0.0;
    for (std::int32_t k = 0; k < nsuper; ++k) {
        const double nr = s_.rows(k), nc = s_.columns(k);
        total += work[k] = 100.0 + nr * nr * (nc + 1.0);
        demanding[k] = work[k] > big_work ? 1 : 0;
    }
    const int nthreads = total < least_work ? 1 : threads_within(most, shared, sizes_.each());
    space_.resize(nthreads);
    for (auto& space : space_) {
        space.y = std::make_unique_for_overwrite<double[]>(sizes_.y);
        space.gathered = std::make_unique_for_overwrite<double[]>(sizes_.gathered);
        space.place = std::make_unique_for_overwrite<std::int32_t[]>(std::max<std::int64_t>(sizes_.place, 1));
    }
    const double left = most - nthreads * sizes_.each(), slots = shared > 0.0 ? left / shared : nthreads;
    const tree_schedule schedule(s_.sparent, work, nthreads, big_work);
    work = {};
    tree_crew crew(schedule, demanding, static_cast<int>(std::clamp<double>(slots, 1.0, nthreads)));
    crew_ = &crew;
    crew.run(tree_crew::direction::down, [this](std::int32_t k) { node(k); });
    crew_ = nullptr;
    return code_;
}

void selected_inverse::node(std::int32_t k) const noexcept {
    if (failed_.load(std::memory_order_relaxed)) return;
    const auto rows = s_.rows_of(k);
    for (std::int32_t c1 = s_.columns(k), c0 = 0; c1 > 0; c1 = c0) {
        c0 = (c1 - 1) / sizes_.tile * sizes_.tile;
        step({k, c0, c1, s_.rows(k) - c1, rows.data() + c1, f_.lnz.get() + s_.xlnz[k], s_.rows(k)});
    }
    report();
}

/// A dropped column of L is a unit vector; with its row cleared inside the block the rest is inverted as if
/// it were not there. Outside the block its row meets zeros of the inverse only.
void selected_inverse::separate_dropped(const piece& p) const {
    if (f_.dropped.empty()) return;
    for (std::int32_t j = 0; j < p.columns(); ++j)
        if (f_.dropped[s_.nodes.xsuper[p.node] + p.c0 + j])
            for (std::int32_t t = 0; t < j; ++t) p.diagonal()[j + t * p.ld] = 0.0;
}

void selected_inverse::step(const piece& p) const {
    separate_dropped(p);
    const std::int32_t nc = p.columns();
    const bool shared = step_sizes::is_shared(p.below, nc);
    std::unique_ptr<double[]> own;  // too big to be kept for every thread
    if (shared) {
        own.reset(new (std::nothrow) double[static_cast<std::size_t>(p.below) * nc]);
        if (own == nullptr) {
            fail(out_of_memory);
            return;
        }
    }
    double* const y = shared ? own.get() : own_space().y.get();
    if (p.below > 0) {
        for (std::int32_t j = 0; j < nc; ++j)
            std::copy_n(p.lower() + j * p.ld, p.below, y + std::int64_t{j} * p.below);
        if (shared) {
            share(p.below, tile_rows, [&](std::int32_t r0, std::int32_t r1) { solve_rows(p, y, r0, r1); });
            share(p.below, sizes_.gather,
                  [&](std::int32_t r0, std::int32_t r1) { multiply_rows(p, y, r0, r1); });
        } else {
            blas_dtrsm_right(false, {p.diagonal(), nc, nc, p.ld}, {y, p.below, nc, p.below});
            if (nc <= narrow_columns) {
                multiply_narrow(p, y);
            } else {
                multiply(p, y);
            }
        }
    }
    invert_diagonal(p, y, shared);
}

/// Where the rows C[first...] stand in the supernode `node`, which has them all. @returns whether they
/// adjoin; then only place[0] is set.
bool selected_inverse::locate(const piece& p, std::int32_t node, std::int32_t first,
                              std::int32_t* place) const {
    const auto rows = s_.rows_of(node);
    const std::int32_t wanted = p.below - first, nr = s_.rows(node);
    const std::int32_t begin = p.rows[first] - s_.nodes.xsuper[node];
    place[0] = begin;
    if (wanted == nr - begin) return true;
    const bool sparse = nr - begin > 16 * wanted;
    std::int32_t at = begin;
    for (std::int32_t i = 0; i < wanted; ++i) {
        const std::int32_t row = p.rows[first + i];
        if (sparse) {
            at = static_cast<std::int32_t>(std::lower_bound(rows.begin() + at, rows.end(), row) -
                                           rows.begin());
        } else {
            while (rows[at] != row) ++at;
        }
        place[i] = at;
    }
    return place[wanted - 1] - begin == wanted - 1;
}

/// Y = L(C) L(J)^-1 for some rows.
void selected_inverse::solve_rows(const piece& p, double* y, std::int32_t r0, std::int32_t r1) const {
    blas_dtrsm_right(false, {p.diagonal(), p.columns(), p.columns(), p.ld},
                     {y + r0, r1 - r0, p.columns(), p.below});
}

/// Z(C, J) = -Z(C, C) Y for few columns: every column of Z(C, C) is used where it stands.
void selected_inverse::multiply_narrow(const piece& p, const double* y) const {
    const workspace& space = own_space();
    const std::int32_t r = p.below, nc = p.columns();
    double* const gathered = space.gathered.get();
    for (std::int32_t t = 0; t < nc; ++t) std::fill_n(p.lower() + t * p.ld, r, 0.0);
    for (std::int32_t first = 0; first < r;) {
        const run part = run_at(p, first);
        const bool adjoin = locate(p, part.node, first, space.place.get());
        for (std::int32_t c = first; c < part.last; ++c) {
            const double* z = column(part.node, p.rows[c]);
            const std::int32_t* const place = space.place.get() + (c - first);
            const std::int32_t below = r - c;
            if (adjoin) {
                z += space.place[0] + (c - first);
            } else {
                for (std::int32_t i = 0; i < below; ++i) gathered[i] = z[place[i]];
                z = gathered;
            }
            for (std::int32_t t = 0; t < nc; ++t) {
                const double* const yt = y + std::int64_t{t} * r + c;
                double* const x = p.lower() + t * p.ld + c;
                const double yc = yt[0];
                double sum0 = z[0] * yc, sum1 = 0.0;
                std::int32_t i = 1;
                for (; i + 1 < below; i += 2) {
                    x[i] -= z[i] * yc;
                    x[i + 1] -= z[i + 1] * yc;
                    sum0 += z[i] * yt[i];
                    sum1 += z[i + 1] * yt[i + 1];
                }
                if (i < below) {
                    x[i] -= z[i] * yc;
                    sum0 += z[i] * yt[i];
                }
                x[0] -= sum0 + sum1;
            }
        }
        first = part.last;
    }
}

/// The same by BLAS: some columns of the lower triangle of Z(C, C) at a time.
void selected_inverse::multiply(const piece& p, const double* y) const {
    const workspace& space = own_space();
    const std::int32_t r = p.below, nc = p.columns();
    double* const x = p.lower();
    for (std::int32_t t = 0; t < nc; ++t) std::fill_n(x + t * p.ld, r, 0.0);
    for (std::int32_t c0 = 0, c1; c0 < r; c0 = c1) {
        c1 = std::min(r, c0 + sizes_.gather);
        const std::int32_t width = c1 - c0;
        const double* z = space.gathered.get();
        std::int64_t ldz = r - c0;
        for (std::int32_t first = c0; first < c1;) {
            const run part = run_at(p, first);
            const std::int32_t last = std::min(part.last, c1);
            const bool adjoin = locate(p, part.node, first, space.place.get());
            if (adjoin && last - first == width) {  // used where it stands
                z = column(part.node, p.rows[c0]) + space.place[0];
                ldz = s_.rows(part.node);
                break;
            }
            for (std::int32_t c = first; c < last; ++c) {
                const double* const from = column(part.node, p.rows[c]);
                double* const to = space.gathered.get() + (c - c0) * ldz;
                const std::int32_t* const place = space.place.get();
                if (adjoin) {
                    std::copy_n(from + space.place[0] + (c - first), r - c, to + (c - c0));
                } else {
                    for (std::int32_t i = c; i < r; ++i) to[i - c0] = from[place[i - first]];
                }
            }
            first = last;
        }
        const matrix_view<const double> y_here{y + c0, width, nc, r}, y_below{y + c1, r - c1, nc, r};
        const matrix_view<const double> z_below{z + width, r - c1, width, ldz};
        const matrix_view<double> x_here{x + c0, width, nc, p.ld}, x_below{x + c1, r - c1, nc, p.ld};
        blas_dsymm(-1.0, {z, width, width, ldz}, y_here, 1.0, x_here);
        if (c1 == r) continue;
        blas_dgemm(false, false, -1.0, z_below, y_here, 1.0, x_below);
        blas_dgemm(true, false, -1.0, z_below, y_below, 1.0, x_here);
    }
}

/// The same for some rows of the result, which needs each element of Z(C, C) twice.
void selected_inverse::multiply_rows(const piece& p, const double* y, std::int32_t r0,
                                     std::int32_t r1) const {
    const workspace& space = own_space();
    const std::int32_t r = p.below, nc = p.columns(), width = r1 - r0;
    double* const z = space.gathered.get();  // r x width: columns [r0, r1) of the whole Z(C, C)
    for (std::int32_t first = 0; first < r1;) {
        const run part = run_at(p, first);
        const std::int32_t last = std::min(part.last, r1);
        const bool adjoin = locate(p, part.node, first, space.place.get());
        const std::int32_t* const place = space.place.get();
        for (std::int32_t c = first; c < last; ++c) {
            const double* const from = column(part.node, p.rows[c]);
            const auto at = [&](std::int32_t i) {
                return adjoin ? space.place[0] + (i - first) : place[i - first];
            };
            for (std::int32_t i = std::max(c, r0); i < r1; ++i) z[c + std::int64_t{i - r0} * r] = from[at(i)];
            if (c < r0) continue;
            double* const to = z + std::int64_t{c - r0} * r;
            if (adjoin) {
                std::copy_n(from + at(c), r - c, to + c);
            } else {
                for (std::int32_t i = c; i < r; ++i) to[i] = from[place[i - first]];
            }
        }
        first = last;
    }
    blas_dgemm(true, false, -1.0, {z, r, width, r}, {y, r, nc, r}, 0.0, {p.lower() + r0, width, nc, p.ld});
}

/// Z(J, J) -= Y' Z(C, J) for some columns, from the diagonal down.
void selected_inverse::add_to_diagonal(const piece& p, const double* y, std::int32_t c0,
                                       std::int32_t c1) const {
    const std::int32_t nc = p.columns(), r = p.below;
    blas_dgemm(true, false, -1.0, {y + std::int64_t{c0} * r, r, nc - c0, r},
               {p.lower() + c0 * p.ld, r, c1 - c0, p.ld}, 1.0,
               {p.diagonal() + c0 + c0 * p.ld, nc - c0, c1 - c0, p.ld});
}

void selected_inverse::invert_diagonal(const piece& p, const double* y, bool shared) const {
    const std::int32_t nc = p.columns(), r = p.below;
    double* const d = p.diagonal();
    if (nc == 1 && d[0] != 0.0) {
        double sum = 1.0 / (d[0] * d[0]);
        for (std::int32_t i = 0; i < r; ++i) sum -= y[i] * p.lower()[i];
        d[0] = sum;
    } else {
        const int info = lapack_dpotri({d, nc, nc, p.ld});
        if (info != 0) {
            fail(info);
            return;
        }
        const auto add = [&](std::int32_t c0, std::int32_t c1) { add_to_diagonal(p, y, c0, c1); };
        if (shared)
            share(nc, diagonal_columns, add);
        else
            for (std::int32_t c0 = 0; c0 < nc && r > 0; c0 += diagonal_columns)
                add(c0, std::min(nc, c0 + diagonal_columns));
    }
    if (f_.dropped.empty()) return;
    for (std::int32_t j = 0; j < nc; ++j)
        if (f_.dropped[s_.nodes.xsuper[p.node] + p.c0 + j]) d[j * (p.ld + 1)] = 0.0;
}

void selected_inverse::fail(int code) const {
    const std::lock_guard lock(guard_);
    code_ = code;
    failed_.store(true, std::memory_order_relaxed);
}

void selected_inverse::report() const {
    if (!progress_) return;
    const std::lock_guard lock(guard_);
    progress_(++done_, s_.nsuper());
}

}  // namespace

int super_sparsinv(const supernodal_structure& s, supernodal_factor& f, const progress_function& progress) {
    const int code = selected_inverse(s, f, progress).invert();
    if (code == out_of_memory) throw std::bad_alloc();
    return code;
}

}  // namespace zendar::modsparse_inv
