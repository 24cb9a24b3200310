// zendar_peer_petsc folder aij|baij|sbaij jacobi|blocks squared_criterion [solutions]
// The library has no point blocks for sbaij.
//
// Forms the equations as a sparse matrix of the library, by its interface for coordinates or its blocked one,
// and solves them by its conjugate gradients on one process; measures as lines "name value". A file of
// solutions is compared with the result.

#include <petscksp.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "peer_problem.hpp"

namespace zendar::peer {
namespace {

void check(PetscErrorCode code) {
    if (code != 0) throw std::runtime_error("PETSc fails with " + std::to_string(code));
}

/// 64-bit positions of the coordinates are not needed: there are less than 2^31 elements.
Mat assemble_coordinates(const problem& p) {
    const auto most = 36 * p.records.size() + 4 * static_cast<std::size_t>(p.nlevel[neffect - 1]);
    std::vector<PetscInt> i, j;
    std::vector<PetscScalar> v;
    i.reserve(most);
    j.reserve(most);
    v.reserve(most);
    const element_iterator last = end_elements(p, false);
    for (element_iterator it = begin_elements(p, false); it != last; ++it) {
        i.push_back(it->i);
        j.push_back(it->j);
        v.push_back(it->v);
    }
    Mat c = nullptr;
    check(MatCreate(PETSC_COMM_SELF, &c));
    check(MatSetSizes(c, p.size(), p.size(), p.size(), p.size()));
    check(MatSetType(c, MATSEQAIJ));
    check(MatSetPreallocationCOO(c, std::ssize(v), i.data(), j.data()));
    check(MatSetValuesCOO(c, v.data(), ADD_VALUES));
    return c;
}

/// The coordinate interface makes scalar elements; the blocks are set row by row from those, with their exact
/// number.
Mat blocked(Mat scalars, bool symmetric) {
    PetscInt n = 0;
    const PetscInt *ia = nullptr, *ja = nullptr;
    PetscScalar* values = nullptr;
    PetscBool done = PETSC_FALSE;
    check(MatGetRowIJ(scalars, 0, PETSC_FALSE, PETSC_FALSE, &n, &ia, &ja, &done));
    check(MatSeqAIJGetArray(scalars, &values));
    // Both rows of a block row have the same columns, in rising order.
    const auto first_of = [&](PetscInt row) {
        PetscInt k = ia[ntrait * row];
        while (symmetric && ja[k] < ntrait * row) ++k;
        return k;
    };
    std::vector<PetscInt> count;
    for (PetscInt row = 0; row < n / ntrait; ++row)
        count.push_back((ia[ntrait * row + 1] - first_of(row)) / ntrait);
    Mat c = nullptr;
    check(symmetric ? MatCreateSeqSBAIJ(PETSC_COMM_SELF, ntrait, n, n, 0, count.data(), &c)
                    : MatCreateSeqBAIJ(PETSC_COMM_SELF, ntrait, n, n, 0, count.data(), &c));
    std::vector<PetscInt> columns;
    std::vector<PetscScalar> rows;
    for (PetscInt row = 0; row < n / ntrait; ++row) {
        const PetscInt first = first_of(row), skipped = first - ia[ntrait * row];
        columns.clear();
        for (PetscInt k = first; k < ia[ntrait * row + 1]; k += ntrait) columns.push_back(ja[k] / ntrait);
        rows.assign(values + first, values + ia[ntrait * row + 1]);
        rows.insert(rows.end(), values + ia[ntrait * row + 1] + skipped, values + ia[ntrait * row + 2]);
        check(MatSetValuesBlocked(c, 1, &row, static_cast<PetscInt>(columns.size()), columns.data(),
                                  rows.data(), INSERT_VALUES));
    }
    check(MatAssemblyBegin(c, MAT_FINAL_ASSEMBLY));
    check(MatAssemblyEnd(c, MAT_FINAL_ASSEMBLY));
    check(MatSeqAIJRestoreArray(scalars, &values));
    check(MatRestoreRowIJ(scalars, 0, PETSC_FALSE, PETSC_FALSE, &n, &ia, &ja, &done));
    return c;
}

Mat assemble(const problem& p, const std::string& type) {
    Mat scalars = assemble_coordinates(p);
    if (type == "aij") return scalars;
    Mat c = blocked(scalars, type == "sbaij");
    check(MatDestroy(&scalars));
    return c;
}

double relative_residual(Mat c, Vec b, Vec x) {
    Vec r = nullptr;
    double rr = 0.0, bb = 0.0;
    check(VecDuplicate(b, &r));
    check(MatMult(c, x, r));
    check(VecAYPX(r, -1.0, b));
    check(VecNorm(r, NORM_2, &rr));
    check(VecNorm(b, NORM_2, &bb));
    check(VecDestroy(&r));
    return rr * rr / (bb * bb);
}

void solve(Mat c, Vec b, Vec x, bool blocks, double criterion) {
    const seconds before = now();
    KSP ksp = nullptr;
    PC pc = nullptr;
    check(KSPCreate(PETSC_COMM_SELF, &ksp));
    check(KSPSetOperators(ksp, c, c));
    check(KSPSetType(ksp, KSPCG));
    check(KSPSetNormType(ksp, KSP_NORM_UNPRECONDITIONED));
    check(KSPSetTolerances(ksp, std::sqrt(criterion), 0.0, PETSC_DEFAULT, 5000));
    check(KSPGetPC(ksp, &pc));
    check(PCSetType(pc, blocks ? PCPBJACOBI : PCJACOBI));
    check(KSPSetUp(ksp));
    const seconds ready = now();
    check(KSPSolve(ksp, b, x));
    const seconds after = now();
    PetscInt iterations = 0;
    check(KSPGetIterationNumber(ksp, &iterations));
    report("precond", before, ready);
    report("solve", ready, after);
    report("iterations", iterations);
    const auto n = static_cast<double>(iterations);
    report("iteration", {}, {(after.wall - ready.wall) / n, (after.cpu - ready.cpu) / n});
    check(KSPDestroy(&ksp));
}

Vec wrap(std::vector<double>& values) {
    Vec v = nullptr;
    check(VecCreateSeqWithArray(PETSC_COMM_SELF, 1, static_cast<PetscInt>(values.size()), values.data(), &v));
    return v;
}

void run(const char* folder, const std::string& type, bool blocks, double criterion, const char* solutions) {
    const seconds start = now();
    const problem p = read_problem(folder);
    const seconds read = now();
    Mat c = assemble(p, type);
    if (blocks && type == "aij") check(MatSetBlockSize(c, ntrait));
    std::vector<double> rhs = p.rhs(), solution(rhs.size(), 0.0);
    Vec b = wrap(rhs), x = wrap(solution);
    const seconds assembled = now();
    solve(c, b, x, blocks, criterion);
    const seconds solved = now();
    MatInfo info{};
    check(MatGetInfo(c, MAT_LOCAL, &info));
    report("read", start, read);
    report("assemble", read, assembled);
    report("total", {}, solved);
    report("peak_mib", peak_mib());
    report("threads", 1);
    report("equations", p.size());
    report("nonzeros", info.nz_used);
    report("true_cr", relative_residual(c, b, x));
    if (solutions != nullptr) {
        std::vector<double> other = read_solutions(solutions, p.size());
        Vec given = wrap(other);
        report("other_true_cr", relative_residual(c, b, given));
        report("other_difference", random_difference(p, solution.data(), other));
        check(VecDestroy(&given));
    }
    check(VecDestroy(&x));
    check(VecDestroy(&b));
    check(MatDestroy(&c));
}

}  // namespace
}  // namespace zendar::peer

int main(int argc, char** argv) {
    using namespace zendar::peer;
    const auto is = [&](int k, const char* word) { return std::strcmp(argv[k], word) == 0; };
    if (argc < 5 || !(is(2, "aij") || is(2, "baij") || is(2, "sbaij")) ||
        !(is(3, "jacobi") || is(3, "blocks"))) {
        static_cast<void>(std::fputs(
            "zendar_peer_petsc folder aij|baij|sbaij jacobi|blocks criterion [solutions]\n", stderr));
        return 1;
    }
    try {
        check(PetscInitialize(nullptr, nullptr, nullptr, nullptr));
        run(argv[1], argv[2], is(3, "blocks"), std::atof(argv[4]), argc > 5 ? argv[5] : nullptr);
        check(PetscFinalize());
    } catch (const std::exception& failure) {
        static_cast<void>(std::fputs((std::string(failure.what()) + "\n").c_str(), stderr));
        return 1;
    }
    return 0;
}
