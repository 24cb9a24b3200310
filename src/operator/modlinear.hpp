#pragma once

#include <cstdint>
#include <span>

#include "modview.hpp"

/// What a solver knows of a system C x = b. All vectors have length `size()`; spans of one call do not
/// overlap.
namespace zendar {

/// C, in whatever form it is held.
class linear_operator {
  public:
    virtual ~linear_operator() = default;

    [[nodiscard]] virtual std::int64_t size() const = 0;
    /// r = C x; r is overwritten.
    virtual void atimesx(std::span<const double> x, std::span<double> r) = 0;
};

/// A system whose right-hand side is made from data, once, and kept outside of memory from then on.
class linear_system : public linear_operator {
  public:
    /// Computes (or reads) b, keeps a copy on file, and leaves b in `b` and b - C x in `r`.
    virtual void r_equal_b_minus_atimesx(std::span<const double> x, std::span<double> b,
                                         std::span<double> r) = 0;
    /// r = b - C x with the b that was kept. @throws fatal_error  when the copy has gone.
    virtual void r_equal_savedb_minus_atimesx(std::span<const double> x, std::span<double> r) = 0;
    /// Reads the b that was kept. @returns false when there is none.
    virtual bool read_savedb(std::span<double> b) = 0;
    /// Doubles of the work arrays, for the announcement of memory.
    [[nodiscard]] virtual std::int64_t work_size() const = 0;
};

/// The last equations of a system, from `first_structured()` (from 0) on: products among them alone, with
/// many vectors at once, cost much less than as many products of the whole.
class structured_operator {
  public:
    virtual ~structured_operator() = default;

    [[nodiscard]] virtual std::int64_t first_structured() const = 0;
    /// r = C x among these equations; both have a row for each of them. r is overwritten.
    virtual void atimesx_onlyhuge(matrix_view<const double> x, matrix_view<double> r) = 0;
};

/// Of y = M^-1 x.
struct preconditioned_sums {
    double yy = 0.0, xy = 0.0;  ///< y'y and x'y

    preconditioned_sums& operator+=(const preconditioned_sums& more) {
        yy += more.yy;
        xy += more.xy;
        return *this;
    }
};

/// Where a product does not add them up itself; both vectors have the same length.
inline preconditioned_sums sums_of(std::span<const double> y, std::span<const double> x) {
    const std::int64_t n = std::ssize(y);
    double yy = 0.0, xy = 0.0;
#pragma omp parallel for simd schedule(static) default(none) shared(y, x, n) reduction(+ : yy, xy)
    for (std::int64_t i = 0; i < n; ++i) {
        yy += y[i] * y[i];
        xy += x[i] * y[i];
    }
    return {yy, xy};
}

/// M^-1, an approximation of C^-1.
class linear_preconditioner {
  public:
    virtual ~linear_preconditioner() = default;

    /// y = M^-1 x; y is overwritten.
    virtual preconditioned_sums preconditionertimesx(std::span<double> y, std::span<const double> x) = 0;
};

}  // namespace zendar
