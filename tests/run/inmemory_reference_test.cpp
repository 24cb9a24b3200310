#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <random>

#include "modblas.hpp"
#include "modenum.hpp"
#include "modmme.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

/// Equations in memory against dense ones.
namespace zendar::test {
namespace {

/// A third of the models have SNP effects, a third animal effects.
model_choice choice_of(std::uint64_t seed) {
    std::mt19937_64 random(seed * 7919);
    const auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    model_choice choice;
    choice.ntrait = pick(1, 4);
    choice.nrec = pick(1, 60);
    choice.neffect = pick(1, 4);
    choice.in_memory = true;
    choice.sorted = pick(0, 1) == 0;
    choose_kind(choice, seed, seed % 5 == 1, seed % 7 == 2);
    if (choice.huge >= 0) choice.ntrait = pick(1, 3);
    return choice;
}

/// Both triangles.
template <std::signed_integral Index>
matrix<double> dense(const crs_matrix<Index>& m) {
    matrix<double> full(m.getdim(1), m.getdim(1));
    const crs_view<Index> v = m.view();
    for (std::int64_t i = 0; i < v.dim1; ++i)
        for (std::int64_t k = v.ia[i] - 1; k < v.ia[i + 1] - 1; ++k)
            full(i, v.ja[k] - 1) = full(v.ja[k] - 1, i) = v.a[k];
    return full;
}

TEST(InMemoryReference, LeftAndRightHandSideOfRandomModels) {
    int nhuge = 0;
    for (std::uint64_t seed = 1; seed <= 300; ++seed) {
        const random_model model(choice_of(seed), seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const threads scope(static_cast<int>(1 + seed % 4));
        read_model read(model, "!solver pardiso\n");
        const bool wide = seed % 2 == 0;
        if (wide) read.run.limits.crs_elements = 0;
        setlhsrhs(read.run);
        ASSERT_EQ(read.run.lhsija.getdim(1), wide ? 0 : model.neq);
        ASSERT_EQ(read.run.lhsija64.getdim(1), wide ? model.neq : 0);
        const matrix<double> lhs = wide ? dense(read.run.lhsija64) : dense(read.run.lhsija);
        EXPECT_LT(difference(lhs.values(), model.c.values()), 1e-12);
        EXPECT_LT(difference(read.run.rhs, model.b), 1e-12);
        EXPECT_THAT(read.screen.str(),
                    testing::HasSubstr(wide ? "CRS64 left hand side\n" : "CRS left hand side\n"));
        nhuge += model.first_huge() > 0 ? 1 : 0;
        if (HasFailure()) break;
    }
    EXPECT_EQ(nhuge, 100);
}

/// Solutions of one solver, for the equations that stand in memory.
std::vector<double> solution_of(const random_model& model, const std::string& options, bool wide) {
    read_model read(model, options);
    if (wide) read.run.limits.crs_elements = 0;
    setlhsrhs(read.run);
    solve(read.run);
    return read.run.solutions;
}

/// Largest and smallest eigenvalue of D^-1 C other than 0, D being the diagonal of C in single precision.
std::pair<double, double> bounds_of(const matrix<double>& c, double zero) {
    std::vector<std::int64_t> kept;
    for (std::int64_t i = 0; i < c.rows(); ++i)
        if (c(i, i) > 0.0) kept.push_back(i);
    matrix<double> scaled(std::ssize(kept), std::ssize(kept));
    for (std::int64_t i = 0; i < std::ssize(kept); ++i)
        for (std::int64_t j = 0; j < std::ssize(kept); ++j)
            scaled(i, j) = c(kept[i], kept[j]) / std::sqrt(c(kept[i], kept[i]) * c(kept[j], kept[j]));
    std::vector<double> values(kept.size());
    EXPECT_EQ(lapack_dsyevd(scaled.view(), values), 0);
    const auto first = std::ranges::find_if(values, [&](double v) { return v > zero * values.back(); });
    return {values.back(), *first};
}

TEST(InMemoryReference, SolutionsOfRandomModels) {
    int nsolved = 0, nblocks = 0;
    for (std::uint64_t seed = 1; seed <= 250; ++seed) {
        const random_model model(choice_of(seed), seed);
        // H^-1 with groups need not be definite.
        if (!is_semidefinite(model.c)) continue;
        if (std::ranges::all_of(model.b, [](double v) { return v == 0.0; })) continue;
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const threads scope(static_cast<int>(1 + seed % 4));
        const std::vector<double> expected = model.estimable(dense_solution(model.c, model.b));
        const auto [large, small] = bounds_of(model.c, 1e-13);
        const double condition = large / small;
        for (const char* solver : {"pardiso", "pcg_inmem", "pcg_inmem_block", "fpcg_inmem", "dpcg_inmem 3"}) {
            SCOPED_TRACE(solver);
            // Blocks that are all but dependent leave rounding errors that CG cannot outrun.
            const bool blocks = solver[0] == 'f' || std::string(solver) == "pcg_inmem_block";
            if (blocks && condition > 1e8) continue;
            nblocks += blocks ? 1 : 0;
            // A trait may be a subdomain that C does not see.
            if (solver[0] == 'd' && smallest_eigenvalue(model.c) < 1e-10) continue;
            const std::vector<double> x =
                solution_of(model,
                            "!solver " + std::string(solver) +
                                "\n!convcrit 1e-25\n!miniter 1\n!maxiter 800\n!noesteigen\n",
                            seed % 2 == 0);
            EXPECT_LT(difference(model.estimable(x), expected), 1e-8);
        }
        ++nsolved;
        if (HasFailure()) break;
    }
    EXPECT_GT(nsolved, 200);
    EXPECT_GT(nblocks, 2 * 190);
}

/// Where the residual is near rounding, directions that C does not see come up; their steps once grew until
/// the solution was lost, in one run of eight with four threads.
TEST(InMemoryReference, DependentEquationsDoNotUndoASolution) {
    constexpr std::uint64_t seed = 243;
    const random_model model(choice_of(seed), seed);
    const threads scope(4);
    const std::vector<double> expected = model.estimable(dense_solution(model.c, model.b));
    for (int run = 0; run < 20; ++run)
        for (const char* solver : {"pcg_inmem_block", "fpcg_inmem"}) {
            const std::vector<double> x = solution_of(
                model, std::string("!solver ") + solver + "\n!convcrit 1e-25\n!maxiter 800\n!noesteigen\n",
                false);
            EXPECT_LT(difference(model.estimable(x), expected), 1e-9) << solver << ", run " << run;
        }
}

TEST(InMemoryReference, ChebyshevIterationsOfRandomModels) {
    int nsolved = 0;
    for (std::uint64_t seed = 1; seed <= 120; ++seed) {
        model_choice choice = choice_of(seed);
        // The preconditioner is to be the diagonal of C: nothing that is estimated or left out.
        choice.andeffect = choice.combieff = false;
        choice.huge = -1;
        const random_model model(choice, seed);
        if (std::ranges::any_of(model.effects, [](const auto& e) { return is_a22i_effect(e.type_random); }))
            continue;
        if (!is_semidefinite(model.c)) continue;
        if (std::ranges::all_of(model.b, [](double v) { return v == 0.0; })) continue;
        const auto [large, small] = bounds_of(model.c, 1e-9);
        if (large / small > 1e5) continue;  // too many iterations
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const threads scope(static_cast<int>(1 + seed % 4));
        const std::int32_t last = static_cast<std::int32_t>(model.effects.size());
        std::string letters = "!structprecond d " + std::to_string(last);
        for (std::int32_t e = 1; e <= last; ++e) letters += " " + std::to_string(e);
        const std::vector<double> x =
            solution_of(model,
                        "!solver cheb_iod " + number(1.001 * large) + " " + number(0.999 * small) +
                            "\n!convcrit 1e-24\n!maxiter 30000\n" + letters + "\n",
                        false);
        const std::vector<double> expected = model.estimable(dense_solution(model.c, model.b));
        EXPECT_LT(difference(model.estimable(x), expected), 1e-8) << large << " " << small;
        ++nsolved;
        if (HasFailure()) break;
    }
    EXPECT_GT(nsolved, 60);
}

TEST(InMemoryReference, IncidenceMatrixOfRandomModels) {
    for (std::uint64_t seed = 1; seed <= 120; ++seed) {
        const random_model model(choice_of(seed), seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        read_model read(model, "!solver pardiso\n");
        const mme_input in{read.run.param, read.run.data, read.run.cov, read.run.ped, read.run.ghuge};
        const crssparse x = setup_incidencemat(in, read.run.log);
        matrix<double> expected(std::int64_t{model.nrec} * model.ntrait, model.neq);
        for (std::int32_t rec = 0; rec < model.nrec; ++rec)
            for (std::int32_t t = 0; t < model.ntrait; ++t) {
                if (model.y(t, rec) == -9.0) continue;
                for (const auto& [equation, value] : model.row_of(t, rec))
                    expected(rec * model.ntrait + t, equation) += value;
            }
        ASSERT_EQ(x.getdim(1), expected.rows());
        ASSERT_EQ(x.getdim(2), model.neq);
        for (std::int32_t i = 0; i < expected.rows(); ++i)
            for (std::int32_t j = 0; j < expected.cols(); ++j)
                EXPECT_NEAR(x.get(i + 1, j + 1), expected(i, j), 1e-12);
        if (HasFailure()) break;
    }
}

}  // namespace
}  // namespace zendar::test
