// zendar_peer_eigen folder storage assembly preconditioner squared_criterion [solutions]
// storage: full, upper; assembly: triplets, streamed; preconditioner: jacobi, blocks
//
// Forms the equations as a sparse matrix and solves them by the conjugate gradients of the library; measures
// as lines "name value". A file of solutions is compared with the result.

#include <omp.h>

#include <Eigen/IterativeLinearSolvers>
#include <Eigen/SparseCore>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <stdexcept>
#include <string>

#include "peer_problem.hpp"

namespace zendar::peer {
namespace {

using matrix = Eigen::SparseMatrix<double, Eigen::RowMajor, int>;
using vector = Eigen::VectorXd;

/// The inverses of the 2 x 2 blocks of the traits of a level.
class trait_blocks {
  public:
    using StorageIndex = int;
    enum { ColsAtCompileTime = Eigen::Dynamic, MaxColsAtCompileTime = Eigen::Dynamic };

    template <class Matrix>
    trait_blocks& analyzePattern(const Matrix&) {
        return *this;
    }
    template <class Matrix>
    trait_blocks& factorize(const Matrix& c) {
        inverse_.resize(c.rows() / 2 * 3);
        for (Eigen::Index i = 0; i < c.rows(); i += 2) {
            const double a = c.coeff(i, i), b = c.coeff(i, i + 1), d = c.coeff(i + 1, i + 1);
            const double det = a * d - b * b;
            inverse_.segment<3>(i / 2 * 3) << d / det, -b / det, a / det;
        }
        return *this;
    }
    template <class Matrix>
    trait_blocks& compute(const Matrix& c) {
        return factorize(c);
    }
    [[nodiscard]] vector solve(const vector& r) const {
        vector z(r.size());
        for (Eigen::Index i = 0; i < r.size(); i += 2) {
            const double* const m = inverse_.data() + i / 2 * 3;
            z[i] = m[0] * r[i] + m[1] * r[i + 1];
            z[i + 1] = m[1] * r[i] + m[2] * r[i + 1];
        }
        return z;
    }
    Eigen::ComputationInfo info() { return Eigen::Success; }

  private:
    vector inverse_;
};

struct choice {
    bool upper = false, streamed = false, blocks = false;
    double criterion = 1e-12;
    std::string solutions;
};

matrix assemble(const problem& p, const choice& how) {
    matrix c(p.size(), p.size());
    const element_iterator first = begin_elements(p, how.upper), last = end_elements(p, how.upper);
    if (how.streamed) {
        c.setFromTriplets(first, last);
        return c;
    }
    std::vector<Eigen::Triplet<double, int>> triplets;
    triplets.reserve((how.upper ? 21U : 36U) * p.records.size() + 4U * p.nlevel[neffect - 1]);
    for (element_iterator it = first; it != last; ++it) triplets.emplace_back(it->i, it->j, it->v);
    c.setFromTriplets(triplets.begin(), triplets.end());
    return c;
}

double relative_residual(const matrix& c, bool upper, const vector& b, const vector& x) {
    vector r = b;
    if (upper)
        r -= c.selfadjointView<Eigen::Upper>() * x;
    else
        r -= c * x;
    return r.squaredNorm() / b.squaredNorm();
}

template <int Triangle, class Preconditioner>
vector solve(const matrix& c, const vector& b, const choice& how) {
    const seconds before = now();
    Eigen::ConjugateGradient<matrix, Triangle, Preconditioner> cg;
    cg.setTolerance(std::sqrt(how.criterion));
    cg.setMaxIterations(5000);
    cg.compute(c);
    const seconds ready = now();
    vector x = cg.solve(b);
    const seconds after = now();
    report("precond", before, ready);
    report("solve", ready, after);
    const auto n = static_cast<double>(cg.iterations() + 1);  // the last one is not counted
    report("iterations", n);
    report("iteration", {}, {(after.wall - ready.wall) / n, (after.cpu - ready.cpu) / n});
    return x;
}

vector solve(const matrix& c, const vector& b, const choice& how) {
    constexpr int full = Eigen::Lower | Eigen::Upper;
    using jacobi = Eigen::DiagonalPreconditioner<double>;
    if (how.upper)
        return how.blocks ? solve<Eigen::Upper, trait_blocks>(c, b, how)
                          : solve<Eigen::Upper, jacobi>(c, b, how);
    return how.blocks ? solve<full, trait_blocks>(c, b, how) : solve<full, jacobi>(c, b, how);
}

void run(const char* folder, const choice& how) {
    const seconds start = now();
    const problem p = read_problem(folder);
    const seconds read = now();
    const matrix c = assemble(p, how);
    const std::vector<double> rhs = p.rhs();
    const vector b = Eigen::Map<const vector>(rhs.data(), p.size());
    const seconds assembled = now();
    const vector x = solve(c, b, how);
    const seconds solved = now();
    report("read", start, read);
    report("assemble", read, assembled);
    report("total", {}, solved);
    report("peak_mib", peak_mib());
    report("threads", omp_get_max_threads());
    report("equations", p.size());
    report("nonzeros", static_cast<double>(c.nonZeros()));
    report("true_cr", relative_residual(c, how.upper, b, x));
    if (how.solutions.empty()) return;
    const std::vector<double> other = read_solutions(how.solutions, p.size());
    report("other_true_cr",
           relative_residual(c, how.upper, b, Eigen::Map<const vector>(other.data(), p.size())));
    report("other_difference", random_difference(p, x.data(), other));
}

bool either(const char* word, const char* no, const char* yes) {
    if (std::strcmp(word, yes) == 0) return true;
    if (std::strcmp(word, no) == 0) return false;
    throw std::runtime_error(std::string(word) + " is neither " + no + " nor " + yes);
}

}  // namespace
}  // namespace zendar::peer

int main(int argc, char** argv) {
    using namespace zendar::peer;
    try {
        if (argc < 6)
            throw std::runtime_error(
                "zendar_peer_eigen folder full|upper triplets|streamed jacobi|blocks criterion [solutions]");
        choice how;
        how.upper = either(argv[2], "full", "upper");
        how.streamed = either(argv[3], "triplets", "streamed");
        how.blocks = either(argv[4], "jacobi", "blocks");
        how.criterion = std::atof(argv[5]);
        if (argc > 6) how.solutions = argv[6];
        run(argv[1], how);
    } catch (const std::exception& failure) {
        static_cast<void>(std::fputs((std::string(failure.what()) + "\n").c_str(), stderr));
        return 1;
    }
    return 0;
}
