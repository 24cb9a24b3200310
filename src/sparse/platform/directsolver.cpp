#include "directsolver.hpp"

#include <dmumps_c.h>

#include <cassert>
#include <limits>
#include <type_traits>

namespace zendar::platform {

namespace {

constexpr int job_init = -1, job_end = -2, job_analysis = 1, job_factors = 2, job_solve = 3;
constexpr int communicator_of_all = -987654;
constexpr int most_attempts = 12;  // each doubles the memory

static_assert(std::is_same_v<MUMPS_INT, std::int32_t>);

}  // namespace

struct directsolver::instance {
    DMUMPS_STRUC_C id{};

    // Numbers as in the library's manual, from 1.
    int& icntl(int k) { return id.icntl[k - 1]; }
    [[nodiscard]] int infog(int k) const { return id.infog[k - 1]; }
    int run(int job) {
        id.job = job;
        dmumps_c(&id);
        return infog(1) < 0 ? infog(1) : 0;
    }
};

directsolver::directsolver(std::int32_t relaxation, singular_matrix singular)
    : self_(std::make_unique<instance>()) {
    instance& s = *self_;
    s.id.par = 1;
    s.id.sym = 2;
    s.id.comm_fortran = communicator_of_all;
    s.run(job_init);
    for (int k = 1; k <= 3; ++k) s.icntl(k) = -1;  // units of its messages
    s.icntl(4) = 0;
    s.icntl(6) = 0;    // no matching, which would change the order
    s.icntl(7) = 1;    // the order is ours
    s.icntl(10) = 0;   // no refinement
    s.icntl(12) = 1;   // no ordering of its own for indefinite matrices
    s.icntl(14) = relaxation;
    s.icntl(24) = singular == singular_matrix::pass ? 1 : 0;
    s.icntl(25) = 0;   // one solution
    s.icntl(27) = 32;  // right-hand sides a block
    // Null pivots by the library's own threshold: a wider one takes away real effects.
    s.id.cntl[3 - 1] = 0.0;
    s.id.cntl[5 - 1] = 0.0;
}

directsolver::~directsolver() {
    self_->run(job_end);
}

std::int32_t directsolver::factorize(std::int32_t n, std::span<const std::int32_t> rows,
                                     std::span<const std::int32_t> columns, std::span<const double> values,
                                     std::span<const std::int32_t> place) {
    assert(n > 0 && std::ssize(place) == n);
    assert(rows.size() == values.size() && columns.size() == values.size());
    instance& s = *self_;
    s.id.n = n;
    s.id.nnz = std::ssize(values);
    s.id.irn = const_cast<std::int32_t*>(rows.data());  // these four are only read
    s.id.jcn = const_cast<std::int32_t*>(columns.data());
    s.id.a = const_cast<double*>(values.data());
    s.id.perm_in = const_cast<std::int32_t*>(place.data());
    std::int32_t error = s.run(job_analysis);
    for (int attempt = 0; error == 0 && attempt < most_attempts; ++attempt) {
        const std::int32_t failure = s.run(job_factors);
        const bool too_little_memory = failure == -8 || failure == -9;
        if (!too_little_memory || attempt + 1 == most_attempts) {
            error = failure;
            break;
        }
        s.icntl(14) = s.icntl(14) > 0 ? 2 * s.icntl(14) : 30;
    }
    s.id.irn = s.id.jcn = s.id.perm_in = nullptr;
    s.id.a = nullptr;
    return error;
}

std::int32_t directsolver::solve(matrix_view<double> xy) {
    assert(xy.rows == self_->id.n && xy.ld == xy.rows && xy.cols <= std::numeric_limits<int>::max());
    self_->id.rhs = xy.data;
    self_->id.lrhs = static_cast<int>(xy.ld);
    self_->id.nrhs = static_cast<int>(xy.cols);
    const std::int32_t error = self_->run(job_solve);
    self_->id.rhs = nullptr;
    return error;
}

std::int64_t directsolver::factor_elements() const {
    const std::int64_t n = self_->infog(29);
    return n < 0 ? -n * 1000000 : n;
}

std::int32_t directsolver::null_pivots() const {
    return self_->infog(28);
}

std::int32_t directsolver::negative_pivots() const {
    return self_->infog(12);
}

}  // namespace zendar::platform
