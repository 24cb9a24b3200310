#include "product.hpp"

#include <omp.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "reports.hpp"
#include "tables.hpp"

namespace miraculix {

namespace {

constexpr std::int64_t columns_per_pass = 32;
constexpr std::int64_t largest_width = 10240;  // accumulators of four columns take 320 KiB of the L2 cache
constexpr std::int64_t smallest_width = 2048;  // below, filling the tables costs more than a tenth
constexpr std::int64_t width_step = 64;
constexpr std::int64_t fewest_rows = 8;

/// Memory that is not set, aligned to a cache line.
template <class T>
class work_space {
  public:
    explicit work_space(std::int64_t size)
        : data_(size == 0 ? nullptr : static_cast<T*>(std::aligned_alloc(64, bytes(size)))) {
        if (size > 0 && data_ == nullptr)
            severe_error("gV_vG5_double",
                         "Not enough memory: " + std::to_string(bytes(size)) + " bytes for the product.");
    }
    [[nodiscard]] T* data() const { return data_.get(); }

  private:
    static std::size_t bytes(std::int64_t size) {
        return (static_cast<std::size_t>(size) * sizeof(T) + 63) / 64 * 64;
    }
    struct release {
        void operator()(T* memory) const { std::free(memory); }
    };
    std::unique_ptr<T, release> data_;
};

/// Columns of b that one call of a kernel treats.
template <class Accumulator>
struct column_group {
    std::int64_t first, live, width;
    genovector5_kernel<Accumulator> kernel;
};

/// Columns of b that the widest kernel of a member treats.
template <class Accumulator>
std::int64_t widest_kernel(const genovector5_member<Accumulator>& member) {
    std::int64_t k = std::ssize(member.kernels) - 1;
    while (member.kernels[k] == nullptr) --k;
    return std::int64_t{1} << k;
}

/// Cuts n columns into groups for the kernels of a member. One lane may stay empty: that costs less than
/// another pass over the matrix.
template <class Accumulator>
std::vector<column_group<Accumulator>> column_groups(const genovector5_member<Accumulator>& member,
                                                     std::int64_t n) {
    std::vector<column_group<Accumulator>> groups;
    for (std::int64_t first = 0; first < n; first += groups.back().live) {
        const std::int64_t left = n - first;
        for (std::int64_t k = std::ssize(member.kernels) - 1; k >= 0; --k) {
            const std::int64_t width = std::int64_t{1} << k;
            if (member.kernels[k] == nullptr || (width > left && (width != left + 1 || width < 4))) continue;
            groups.push_back({first, std::min(left, width), width, member.kernels[k]});
            break;
        }
    }
    return groups;
}

/// One matrix product: what all tasks of a pass share.
template <class Accumulator>
struct product {
    const coded_matrix& matrix;
    const product_plan& plan;
    const std::vector<column_group<Accumulator>>& groups;
    const double* b;
    std::int64_t ldb;

    /// Task number `task` for all columns of the pass. `acc` is its work space; the result goes to its place
    /// in `to`, which is `c` or the partial result of a part.
    void run(std::int64_t task, Accumulator* acc, double* to, std::int64_t ldto) const {
        const std::int64_t first = task % plan.nblock * plan.width;
        const std::int64_t live = std::min(plan.width, matrix.ncol() - first);
        const std::int64_t row = task / plan.nblock * plan.rows;
        const std::int64_t rows = std::min(plan.rows, matrix.nrow() - row);
        const std::int64_t unit = genotypes_per_byte * row;
        for (const column_group<Accumulator>& group : groups) {
            const std::int64_t padded = (live + 7) / 8 * 8;
            std::fill_n(acc, padded * group.width, Accumulator{0});
            group.kernel({.codes = matrix.row(row) + first,
                          .lda = matrix.lda(),
                          .nrow = rows,
                          .ncol = padded,
                          .b = b + unit + group.first * ldb,
                          .ldb = ldb,
                          .nb = std::min(genotypes_per_byte * rows, matrix.units() - unit),
                          .live = static_cast<std::int32_t>(group.live),
                          .acc = acc});
            for (std::int64_t k = 0; k < group.live; ++k) {
                double* const column = to + first + (group.first + k) * ldto;
                for (std::int64_t j = 0; j < live; ++j)
                    column[j] = static_cast<double>(acc[j * group.width + k]);
            }
        }
    }
};

/// c = the sum of the parts, each of n columns of `nrow`.
void add_parts(const double* parts, std::int64_t npart, std::int64_t nrow, std::int64_t n, double* c,
               std::int64_t ldc, std::int32_t cores) {
    const std::int64_t elements = nrow * n;
#pragma omp parallel for schedule(static) num_threads(cores) default(none) \
    shared(parts, npart, nrow, elements, c, ldc)
    for (std::int64_t e = 0; e < elements; ++e) {
        double sum = parts[e];
        for (std::int64_t p = 1; p < npart; ++p) sum += parts[p * elements + e];
        c[e % nrow + e / nrow * ldc] = sum;
    }
}

template <class Accumulator>
void multiply(const genovector5_member<Accumulator>& member, const coded_matrix& matrix, std::int64_t n,
              const double* b, std::int64_t ldb, double* c, std::int64_t ldc, std::int32_t cores) {
    const product_plan plan = plan_product(matrix.nrow(), matrix.ncol(), cores);
    const std::int64_t ntask = plan.nblock * plan.npart, ncol = matrix.ncol();
    const std::int64_t nthread = std::min<std::int64_t>(cores, ntask);
    const std::int64_t pass = std::min(n, columns_per_pass);
    const std::int64_t widest = widest_kernel(member);
    const work_space<Accumulator> accumulators(nthread * plan.width * widest);
    const work_space<double> parts(plan.npart == 1 ? 0 : plan.npart * ncol * pass);
    for (std::int64_t k = 0; k < n; k += pass) {
        const std::int64_t columns = std::min(pass, n - k);
        const auto groups = column_groups(member, columns);
        const product<Accumulator> work{matrix, plan, groups, b + k * ldb, ldb};
        double* const to = c + k * ldc;
#pragma omp parallel for schedule(static) num_threads(static_cast<int>(nthread)) default(none) \
    shared(work, plan, ntask, ncol, columns, accumulators, parts, widest, to, ldc)
        for (std::int64_t task = 0; task < ntask; ++task) {
            Accumulator* const acc = accumulators.data() + omp_get_thread_num() * plan.width * widest;
            if (plan.npart == 1)
                work.run(task, acc, to, ldc);
            else
                work.run(task, acc, parts.data() + task / plan.nblock * ncol * columns, ncol);
        }
        if (plan.npart > 1) add_parts(parts.data(), plan.npart, ncol, columns, to, ldc, cores);
    }
}

/// sum(k) = sum over i of weight(i) * b(i, k), with a weight of 1 when there are none.
std::vector<double> column_sums(const long double* weight, std::int64_t nrow, std::int64_t n, const double* b,
                                std::int64_t ldb, std::int32_t cores) {
    std::vector<double> sum(static_cast<std::size_t>(n));
    double* const to = sum.data();
#pragma omp parallel for schedule(static) num_threads(cores) default(none) shared(weight, nrow, n, b, ldb, to)
    for (std::int64_t k = 0; k < n; ++k) {
        const double* const column = b + k * ldb;
        const auto term = [&](std::int64_t i) {
            return weight == nullptr ? static_cast<long double>(column[i]) : weight[i] * column[i];
        };
        long double even = 0.0L, odd = 0.0L;  // two chains, which do not wait for each other
        std::int64_t i = 0;
        for (; i + 1 < nrow; i += 2) {
            even += term(i);
            odd += term(i + 1);
        }
        if (i < nrow) even += term(i);
        to[k] = static_cast<double>(even + odd);
    }
    return sum;
}

}  // namespace

any_genovector5_member select_genovector5(std::int32_t float_precision) {
    if (float_precision < 0) return std::cref(genoVector5v32_longD);
    return std::cref(fastest_genovector5(float_precision > 0));
}

product_plan plan_product(std::int64_t nrow, std::int64_t ncol, std::int32_t cores) {
    const auto cut = [](std::int64_t total, std::int64_t pieces) { return (total + pieces - 1) / pieces; };
    std::int64_t nblock = cut(cut(ncol, largest_width), cores) * cores, npart = 1;
    if (ncol < nblock * smallest_width) {
        nblock = std::max<std::int64_t>(ncol / smallest_width, cut(ncol, largest_width));
        npart = std::min<std::int64_t>(cores / std::gcd(nblock, cores),
                                       std::max<std::int64_t>(nrow / fewest_rows, 1));
    }
    product_plan plan{};
    plan.width = cut(cut(ncol, nblock), width_step) * width_step;
    plan.nblock = cut(ncol, plan.width);
    plan.rows = cut(nrow, npart);
    plan.npart = cut(nrow, plan.rows);
    return plan;
}

void gV_vG5_double(const any_genovector5_member& member, const coded_matrix& matrix, std::int64_t n,
                   const double* b, std::int64_t ldb, double* c, std::int64_t ldc, std::int32_t cores) {
    check(ldb >= matrix.units(), "gV_vG5_double");
    check(ldc >= matrix.ncol(), "gV_vG5_double");
    std::visit([&](const auto& chosen) { multiply(chosen.get(), matrix, n, b, ldb, c, ldc, cores); }, member);
}

void genoVector5api(const any_genovector5_member& member, const compressed_store& store, std::int64_t n,
                    const double* b, std::int64_t ldb, double* c, std::int64_t ldc, bool centre,
                    std::int32_t cores) {
    gV_vG5_double(member, store.five, n, b, ldb, c, ldc, cores);
    if (!centre) return;
    const std::vector<double> sum = column_sums(nullptr, store.individuals, n, b, ldb, cores);
    const std::int64_t snps = store.snps;
    const long double* const freq = store.freq.data();
#pragma omp parallel for schedule(static) num_threads(cores) default(none) shared(freq, snps, n, c, ldc, sum)
    for (std::int64_t j = 0; j < snps; ++j) {
        const auto twof = static_cast<double>(2.0L * freq[j]);
        for (std::int64_t k = 0; k < n; ++k) c[j + k * ldc] -= twof * sum[k];
    }
}

void vectorGeno_means_double(const any_genovector5_member& member, const compressed_store& store,
                             std::int64_t n, const double* b, std::int64_t ldb, double* c, std::int64_t ldc,
                             bool centre, std::int32_t cores) {
    if (!store.transposed) severe_error("vectorGeno_means_double", "option 'addtransposed' must be true.");
    gV_vG5_double(member, *store.transposed, n, b, ldb, c, ldc, cores);
    if (!centre) return;
    const std::vector<double> mean = column_sums(store.freq.data(), store.snps, n, b, ldb, cores);
    const std::int64_t individuals = store.individuals;
#pragma omp parallel for schedule(static) num_threads(cores) default(none) \
    shared(individuals, n, c, ldc, mean)
    for (std::int64_t i = 0; i < individuals; ++i)
        for (std::int64_t k = 0; k < n; ++k) c[i + k * ldc] -= 2.0 * mean[k];
}

}  // namespace miraculix
