#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <random>

#include "modblas.hpp"
#include "modmmeiod.hpp"
#include "modsolveriod_dpcg_comp.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

/// The deflated solver on small random models against their dense equations.
namespace zendar::test {
namespace {

model_choice choice_of(std::uint64_t seed) {
    std::mt19937_64 random(seed * 7001);
    const auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    model_choice choice;
    choice.ntrait = pick(1, 3);
    choice.nrec = pick(5, 60);
    choice.neffect = pick(1, 3);
    choice.bed = true;
    choice.huge = std::array{0, 20, 22, 23, 30}[seed % 5];
    return choice;
}

/// Z'CZ by its definition.
matrix<double> dense_galerkin(const matrix<double>& c, const subdomains& z) {
    matrix<double> e(z.nsub, z.nsub);
    for (std::int64_t i = 0; i < c.rows(); ++i)
        for (std::int64_t j = 0; j < c.cols(); ++j)
            if (z.of[i] > 0 && z.of[j] > 0) e(z.of[i] - 1, z.of[j] - 1) += c(i, j);
    return e;
}

TEST(Createeinv, IsExactInBothForms) {
    int structured = 0;
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        const random_model model(choice_of(seed), seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        read_model read(model);
        mme_iod op(read.run.param, read.run.data, read.run.cov, read.run.log, read.run.ped, read.run.ghuge);
        op.setup_lhsrhs_iod(choice_of(seed).huge == 22 ? 0 : 2);
        std::mt19937_64 random(seed);
        subdomains z;
        z.nsub = static_cast<std::int32_t>(1 + random() % 12);
        const bool apart = seed % 2 == 0;  // SNP effects have subdomains of their own, as is the rule
        const std::int64_t first = op.first_structured();
        for (std::int64_t i = 0; i < model.neq; ++i) {
            const auto number =
                static_cast<std::int32_t>(random() % (static_cast<std::uint64_t>(z.nsub) + 1));
            z.of.push_back(apart ? (i < first ? 1 : std::max(number, 2)) : number);
        }
        z.nsub = *std::ranges::max_element(z.of);
        if (z.nsub < 1) continue;
        const matrix<double> expected = dense_galerkin(model.c, z);
        matrix<double> plain(z.nsub, z.nsub), opt(z.nsub, z.nsub);
        createeinv(op, z, plain.view());
        EXPECT_LT(difference(plain.values(), expected.values()), 1e-11);
        createeinv_opt_1(op, op, z, opt.view(), read.run.log);
        EXPECT_LT(difference(opt.values(), expected.values()), 1e-11);
        structured += apart && z.nsub > 1 ? 1 : 0;
        if (HasFailure()) break;
    }
    EXPECT_GT(structured, 20);
}

bool is_definite(const matrix<double>& c) {
    matrix<double> vectors = c;
    std::vector<double> values(static_cast<std::size_t>(c.rows()));
    return lapack_dsyevd_vectors(vectors.view(), values) == 0 && values.front() > 1e-9 * values.back();
}

TEST(DpcgIod, SolvesRandomModelsWithBlocksOfEverySizeAndAGivenGalerkinMatrix) {
    int solved = 0, above_20 = 0;
    for (std::uint64_t seed = 1; seed <= 80; ++seed) {
        model_choice choice = choice_of(seed);
        choice.always_random = true;
        choice.absent = false;
        choice.single_step = choice.huge == 22 || choice.huge == 30;
        const random_model model(choice, seed + 500);
        if (!is_definite(model.c)) continue;
        const std::string block = std::to_string(1 + seed % 4);
        const std::string common =
            "!convcrit 1e-25\n!miniter 1\n!maxiter 500\n!noesteigen\n!solver dpcg_iod ";
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const threads scope(static_cast<int>(1 + seed % 4));
        read_model read(model, common + block + "\n");
        setlhsrhs(read.run);
        solve(read.run);
        const std::vector<double> expected = dense_solution(model.c, model.b);
        EXPECT_LT(difference(read.run.solutions, expected), 1e-7) << read.screen.str();
        above_20 += (*read.run.param.solver.neqblock)[1] > 20 ? 1 : 0;
        std::filesystem::copy_file("def_einv.stream", "given.stream");
        ++solved;
        if (HasFailure()) break;
        // The same from a file.
        run_state again;
        again.log.configure({.max_width = 100000});
        model.write(read.directory, common + block + "\n!galerkin given.stream\n");
        initparfile(again, "model.par", {});
        setlhsrhs(again);
        solve(again);
        EXPECT_LT(difference(again.solutions, read.run.solutions), 1e-7);
    }
    EXPECT_GT(solved, 30);
    EXPECT_GT(above_20, 0);
}

}  // namespace
}  // namespace zendar::test
