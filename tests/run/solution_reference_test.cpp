#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <random>

#include "modblas.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

/// Whole runs of small random models, in process, against the solutions of their dense equations.
namespace zendar::test {
namespace {

struct solver_choice {
    std::string options;
    int threads = 1;
};

/// Kernel, preconditioner and number of threads of a run.
solver_choice choose(const random_model& model, std::uint64_t seed) {
    std::mt19937_64 random(seed * 104729);
    const auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    const auto neffect = static_cast<int>(model.effects.size());
    solver_choice choice;
    choice.threads = pick(1, 8);
    // Iterations beyond the solution of a tiny model would divide rounding errors by each other.
    choice.options = "!convcrit 1e-25\n!miniter 1\n!maxiter 800\n!noesteigen\n";
    const char* const kernels[] = {"", "!optimem 5\n", "!optimem 1\n", "!notoptimem\n", "!optimem 0\n"};
    const bool type_23 = std::ranges::count(model.effects, 23, &random_effect::type_random) > 0;
    choice.options += kernels[pick(0, type_23 ? 2 : 4)];
    if (pick(0, 1) == 0 && model.first_huge() > 0) choice.options += "!precondzaaaz\n";

    // Groups may not cut a correlated group in two, nor share equations with another effect. Polyploid
    // effects take no letters.
    const auto is_free = [&](int e) {
        return model.effects[e - 1].owner == e && model.effects[e - 1].type_random != 203 &&
               std::ranges::none_of(model.effects, [&](const random_effect& effect) {
                   return effect.owner == e && &effect != &model.effects[e - 1];
               });
    };
    const auto group_end = [&](int e) { return e + std::max(model.effects[e - 1].nmember, 1) - 1; };
    const auto one = [&](char letter, int e) {
        return std::string("!structprecond ") + letter + " 1 " + std::to_string(e) + "\n";
    };
    switch (pick(0, 7)) {
        case 0:
            break;
        case 1:
            choice.options += "!structprecond a\n";
            break;
        case 2:
        case 3:
            for (int e = 1; e <= neffect; e = group_end(e) + 1)
                if (is_free(e)) choice.options += one(pick(0, 1) == 0 ? 'd' : 'b', e);
            break;
        case 4: {
            const int e = pick(1, neffect);
            if (is_free(e) && model.effects[e - 1].type_random == 0 && e == 1) choice.options += one('w', e);
            break;
        }
        case 5:  // blocks over runs of effects with the same number of levels
            for (int e = 1, last = 1; e <= neffect; e = last + 1) {
                const auto levels = [&](int k) {
                    const random_effect& effect = model.effects[k - 1];
                    return effect.covariable && effect.nnest == 0 ? -1 : effect.nslot_level();
                };
                last = group_end(e);
                if (!is_free(e) || last != e || levels(e) < 0) continue;
                while (last < neffect && is_free(last + 1) && group_end(last + 1) == last + 1 &&
                       levels(last + 1) == levels(e))
                    ++last;
                choice.options += "!structprecond r " + std::to_string(e) + " " + std::to_string(last) + "\n";
            }
            break;
        default: {
            if (!std::ranges::all_of(model.effects, [&](const random_effect& effect) {
                    return is_free(static_cast<int>(&effect - model.effects.data()) + 1);
                }))
                break;
            const char letter = pick(0, 1) == 0 ? 's' : 'f';
            choice.options +=
                std::string("!structprecond ") + letter + " 1 " + std::to_string(neffect) + "\n";
        }
    }
    return choice;
}

/// @returns how many models were solved, stopping at the first one that was not solved well.
int solve_random_models(std::uint64_t first, std::uint64_t last, bool pedigrees, double tolerance,
                        bool huge = false) {
    int solved = 0;
    for (std::uint64_t seed = first; seed <= last; ++seed) {
        std::mt19937_64 random(seed * 15485863);
        model_choice choice;
        choice.ntrait = std::uniform_int_distribution<int>(1, 6)(random);
        choice.nrec = std::uniform_int_distribution<int>(2, 60)(random);
        choice.neffect = std::uniform_int_distribution<int>(pedigrees ? 2 : 1, 4)(random);
        choice.combieff = seed % 6 == 1;
        choice.andeffect = seed % 7 == 2;
        choice.sorted = seed % 2 == 0;
        choice.pedigrees = pedigrees;
        if (huge) {
            choice.ntrait = std::min(choice.ntrait, 3);
            choice.combieff = choice.andeffect = false;
            choice.bed = true;
            choice.huge = std::array{0, 20, 22, 23, 30}[seed % 5];
        }
        const random_model model(choice, seed);
        // H^-1 with groups need not be definite.
        if (huge && !is_semidefinite(model.c)) continue;
        if (std::ranges::all_of(model.b, [](double v) { return v == 0.0; })) continue;
        solver_choice solver = choose(model, seed);
        if (pedigrees && !huge && seed % 2 == 0 && !model.needs_asparse())
            solver.options += "!notuseasparse\n";
        SCOPED_TRACE("seed " + std::to_string(seed) + ", " + std::to_string(solver.threads) +
                     " threads: " + model.describe() + "\n" + solver.options);
        const threads scope(solver.threads);
        read_model read(model, solver.options);
        setlhsrhs(read.run);
        solve(read.run);
        const std::vector<double> expected = model.estimable(dense_solution(model.c, model.b));
        EXPECT_LT(difference(model.estimable(read.run.solutions), expected), tolerance);
        ++solved;
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << read.screen.str().substr(
                read.screen.str().size() > 3000 ? read.screen.str().size() - 3000 : 0);
            break;
        }
    }
    return solved;
}

TEST(SolutionReference, RandomModelsWithEveryPreconditionerKernelAndNumberOfThreads) {
    EXPECT_GT(solve_random_models(1, 300, false, 1e-8), 290);
}

TEST(SolutionReference, RandomAnimalModelsWithEveryPreconditionerKernelAndNumberOfThreads) {
    EXPECT_GT(solve_random_models(1001, 1200, true, 1e-7), 190);
}

TEST(SolutionReference, RandomModelsWithSnpEffects) {
    EXPECT_GT(solve_random_models(2001, 2120, false, 1e-7, true), 90);
}

}  // namespace
}  // namespace zendar::test
