#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <random>

#include "modmme.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

/// Equations in memory against dense ones.
namespace zendar::test {
namespace {

constexpr std::array huge_types{0, 20, 22, 23, 30};

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
    choice.pedigrees = seed % 3 == 1;
    if (seed % 3 == 2) {
        choice.ntrait = pick(1, 3);
        choice.bed = true;
        choice.huge = huge_types[seed % huge_types.size()];
    } else {
        choice.combieff = seed % 5 == 1;
        choice.andeffect = seed % 7 == 2;
    }
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
