#include "modblas.hpp"

#include <omp.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <limits>
#include <vector>

// Each character argument has its length behind the last argument, as Fortran processors pass it.
extern "C" {
void dsyevd_(const char* job, const char* triangle, const int* n, double* a, const int* lda, double* values,
             double* work, const int* lwork, int* iwork, const int* liwork, int* info, std::size_t,
             std::size_t);
void dstebz_(const char* range, const char* order, const int* n, const double* vl, const double* vu,
             const int* il, const int* iu, const double* abstol, const double* d, const double* e, int* m,
             int* nsplit, double* w, int* iblock, int* isplit, double* work, int* iwork, int* info,
             std::size_t, std::size_t);
void dpotrf_(const char* triangle, const int* n, double* a, const int* lda, int* info, std::size_t);
void dpotri_(const char* triangle, const int* n, double* a, const int* lda, int* info, std::size_t);
void dgemm_(const char* ta, const char* tb, const int* m, const int* n, const int* k, const double* alpha,
            const double* a, const int* lda, const double* b, const int* ldb, const double* beta, double* c,
            const int* ldc, std::size_t, std::size_t);
void dgemv_(const char* trans, const int* m, const int* n, const double* alpha, const double* a,
            const int* lda, const double* x, const int* incx, const double* beta, double* y, const int* incy,
            std::size_t);
void dsyrk_(const char* triangle, const char* trans, const int* n, const int* k, const double* alpha,
            const double* a, const int* lda, const double* beta, double* c, const int* ldc, std::size_t,
            std::size_t);
void dsymm_(const char* side, const char* triangle, const int* m, const int* n, const double* alpha,
            const double* a, const int* lda, const double* b, const int* ldb, const double* beta, double* c,
            const int* ldc, std::size_t, std::size_t);
void dtrsm_(const char* side, const char* triangle, const char* trans, const char* diag, const int* m,
            const int* n, const double* alpha, const double* a, const int* lda, double* b, const int* ldb,
            std::size_t, std::size_t, std::size_t, std::size_t);
void dtrtrs_(const char* triangle, const char* trans, const char* diag, const int* n, const int* nrhs,
             const double* a, const int* lda, double* b, const int* ldb, int* info, std::size_t, std::size_t,
             std::size_t);
}

namespace zendar {

namespace {

template <class T>
bool well_formed(matrix_view<T> a) {
    return a.rows >= 0 && a.cols >= 0 && a.ld >= a.rows && (a.data != nullptr || a.rows * a.cols == 0);
}

/// A leading dimension is at least 1, even for a matrix without rows.
template <class T>
int leading_dimension(matrix_view<T> a) {
    return std::max(1, narrow<int>(a.ld));
}

int symmetric_eigenproblem(char job, matrix_view<double> a, std::span<double> values) {
    assert(well_formed(a) && a.rows == a.cols && std::ssize(values) == a.rows);
    const int n = narrow<int>(a.rows), lda = leading_dimension(a);
    if (n == 0) return 0;
    // The vectors need 1 + 6n + 2n^2 reals: checked before the same sum could overflow inside the library.
    if (job == 'V') narrow<int>(1 + 6 * a.rows + 2 * a.rows * a.rows);

    const int ask = -1;
    int info = 0, nintegers = 0;
    double nreals = 0.0;
    dsyevd_(&job, "L", &n, a.data, &lda, values.data(), &nreals, &ask, &nintegers, &ask, &info, 1, 1);
    if (info != 0) return info;
    const int lwork = narrow<int>(static_cast<std::int64_t>(nreals)), liwork = nintegers;
    std::vector<double> work(static_cast<std::size_t>(lwork));
    std::vector<int> iwork(static_cast<std::size_t>(liwork));
    dsyevd_(&job, "L", &n, a.data, &lda, values.data(), work.data(), &lwork, iwork.data(), &liwork, &info, 1,
            1);
    return info;
}

}  // namespace

int lapack_dsyevd(matrix_view<double> a, std::span<double> values) {
    return symmetric_eigenproblem('N', a, values);
}

int lapack_dsyevd_vectors(matrix_view<double> a, std::span<double> values) {
    return symmetric_eigenproblem('V', a, values);
}

int lapack_dstebz(std::span<const double> diagonal, std::span<const double> off_diagonal, std::int64_t index,
                  double& value) {
    assert(index >= 1 && index <= std::ssize(diagonal) &&
           std::ssize(off_diagonal) >= std::ssize(diagonal) - 1);
    const int n = narrow<int>(std::ssize(diagonal)), which = narrow<int>(index);
    const double unused = 0.0, none = 0.0;
    const double smallest = 2.0 * std::numeric_limits<double>::min();  // asks for relative precision
    const double* const e = off_diagonal.empty() ? &none : off_diagonal.data();
    const auto size = static_cast<std::size_t>(n);
    std::vector<double> values(size), work(4 * size);
    std::vector<int> block(size), split(size), iwork(3 * size);
    int found = 0, nsplit = 0, info = 0;
    dstebz_("I", "E", &n, &unused, &unused, &which, &which, &smallest, diagonal.data(), e, &found, &nsplit,
            values.data(), block.data(), split.data(), work.data(), iwork.data(), &info, 1, 1);
    if (info == 0 && found > 0) value = values[0];
    return info;
}

int lapack_dpotrf(matrix_view<double> a) {
    assert(well_formed(a) && a.rows == a.cols);
    const int n = narrow<int>(a.rows), lda = leading_dimension(a);
    int info = 0;
    if (n > 0) dpotrf_("L", &n, a.data, &lda, &info, 1);
    return info;
}

int lapack_dpotri(matrix_view<double> a) {
    assert(well_formed(a) && a.rows == a.cols);
    const int n = narrow<int>(a.rows), lda = leading_dimension(a);
    int info = 0;
    if (n > 0) dpotri_("L", &n, a.data, &lda, &info, 1);
    return info;
}

void blas_dgemm(bool ta, bool tb, double alpha, matrix_view<const double> a, matrix_view<const double> b,
                double beta, matrix_view<double> c) {
    assert(well_formed(a) && well_formed(b) && well_formed(c));
    assert((ta ? a.cols : a.rows) == c.rows && (tb ? b.rows : b.cols) == c.cols);
    assert((ta ? a.rows : a.cols) == (tb ? b.cols : b.rows));
    const int m = narrow<int>(c.rows), n = narrow<int>(c.cols), k = narrow<int>(ta ? a.rows : a.cols);
    const int lda = leading_dimension(a), ldb = leading_dimension(b), ldc = leading_dimension(c);
    if (m == 0 || n == 0) return;
    dgemm_(ta ? "T" : "N", tb ? "T" : "N", &m, &n, &k, &alpha, a.data, &lda, b.data, &ldb, &beta, c.data,
           &ldc, 1, 1);
}

void blas_dgemv(bool transposed, double alpha, matrix_view<const double> a, std::span<const double> x,
                double beta, std::span<double> y) {
    assert(well_formed(a) && std::ssize(x) == (transposed ? a.rows : a.cols));
    assert(std::ssize(y) == (transposed ? a.cols : a.rows));
    if (x.empty()) {  // the library would leave y as it is
        for (double& value : y) value = beta == 0.0 ? 0.0 : beta * value;
        return;
    }
    const int m = narrow<int>(a.rows), n = narrow<int>(a.cols), lda = leading_dimension(a), step = 1;
    if (!y.empty())
        dgemv_(transposed ? "T" : "N", &m, &n, &alpha, a.data, &lda, x.data(), &step, &beta, y.data(), &step,
               1);
}

void blas_dsyrk(double alpha, matrix_view<const double> a, double beta, matrix_view<double> c) {
    assert(well_formed(a) && well_formed(c) && c.rows == c.cols && a.rows == c.rows);
    const int n = narrow<int>(c.rows), k = narrow<int>(a.cols);
    const int lda = leading_dimension(a), ldc = leading_dimension(c);
    if (n > 0) dsyrk_("L", "N", &n, &k, &alpha, a.data, &lda, &beta, c.data, &ldc, 1, 1);
}

void blas_dsymm(double alpha, matrix_view<const double> a, matrix_view<const double> b, double beta,
                matrix_view<double> c) {
    assert(well_formed(a) && well_formed(b) && well_formed(c) && a.rows == a.cols);
    assert(a.rows == c.rows && b.rows == c.rows && b.cols == c.cols);
    const int m = narrow<int>(c.rows), n = narrow<int>(c.cols);
    const int lda = leading_dimension(a), ldb = leading_dimension(b), ldc = leading_dimension(c);
    if (m == 0 || n == 0) return;
    dsymm_("L", "L", &m, &n, &alpha, a.data, &lda, b.data, &ldb, &beta, c.data, &ldc, 1, 1);
}

void blas_dtrsm_right(bool transposed, matrix_view<const double> l, matrix_view<double> b) {
    assert(well_formed(l) && well_formed(b) && l.rows == l.cols && b.cols == l.rows);
    const int m = narrow<int>(b.rows), n = narrow<int>(b.cols);
    const int ldl = leading_dimension(l), ldb = leading_dimension(b);
    const double one = 1.0;
    if (m == 0 || n == 0) return;
    dtrsm_("R", "L", transposed ? "T" : "N", "N", &m, &n, &one, l.data, &ldl, b.data, &ldb, 1, 1, 1, 1);
}

int lapack_dtrtrs(bool transposed, matrix_view<const double> l, matrix_view<double> b) {
    assert(well_formed(l) && well_formed(b) && l.rows == l.cols && b.rows == l.rows);
    const int n = narrow<int>(b.rows), nrhs = narrow<int>(b.cols);
    const int ldl = leading_dimension(l), ldb = leading_dimension(b);
    int info = 0;
    if (n > 0)
        dtrtrs_("L", transposed ? "T" : "N", "N", &n, &nrhs, l.data, &ldl, b.data, &ldb, &info, 1, 1, 1);
    return info;
}

void set_number_of_threads(int n) {
    if (n > 0) omp_set_num_threads(n);  // the BLAS library uses the same threads
}

}  // namespace zendar
