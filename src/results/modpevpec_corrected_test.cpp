#include <gmock/gmock.h>
#include <omp.h>

#include <sstream>

#include "modgeneral_test_model.hpp"
#include "modpevpec.hpp"
#include "modpevpec_test_support.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_text;
using test::small_model;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// A mean, an animal effect of 8 animals and SNP effects of 3 and 2 SNPs, each with rows for some animals.
struct animals_with_snps {
    small_model model;
    std::vector<covariable_type> cov;

    explicit animals_with_snps(std::int32_t ntrait, unsigned seed)
        : model(ntrait, {{.nlevel = 2},
                         {.nlevel = 8, .random = 3},
                         {.type = 2, .nlevel = 8, .ncov = 3, .random = 22},
                         {.type = 2, .nlevel = 8, .ncov = 2, .random = 20}}),
          cov(4) {
        model.param.link_effect[2] = {2};
        model.param.n_correlated[2] = 0;
        std::mt19937 random(seed);
        cov[2] = coefficients({0, 2, 0, 1, 3, 0, 4, 0}, 3, random);
        cov[3] = coefficients({1, 0, 0, 2, 0, 0, 3, 0}, 2, random);
    }
    static covariable_type coefficients(std::vector<std::int32_t> rows, std::int32_t ncov,
                                        std::mt19937& random) {
        std::normal_distribution<double> normal;
        matrix<double> value(ncov, *std::ranges::max_element(rows));
        for (double& x : value.values()) x = normal(random);
        return {std::move(rows), std::move(value)};
    }
    /// The coefficients of the aggregate of a level (from 1) in a slot, over all equations.
    [[nodiscard]] std::vector<double> sum_of(std::int32_t level, std::int32_t t,
                                             const std::vector<std::int32_t>& effects) const {
        std::vector<double> k(static_cast<std::size_t>(model.param.neq), 0.0);
        k[model.equation.at({2, level, 1, model.slot(t, 2)}) - 1] = 1.0;
        for (const std::int32_t e : effects)
            if (const std::int32_t row = cov[e - 1].row_of(level); row > 0)
                for (std::int32_t j = 1; j <= model.param.n_cov[e - 1]; ++j)
                    k[model.equation.at({e, 1, j, model.slot(t, e)}) - 1] +=
                        cov[e - 1].values()(j - 1, row - 1);
        return k;
    }
};

std::vector<double> values_of(const test::temporary_directory& directory, const std::string& name) {
    std::istringstream in(directory.read(name));
    std::vector<double> values;
    double t = 0, e = 0, level = 0, k = 0, value = 0;
    while (in >> t >> e >> level >> k >> value) values.push_back(value);
    return values;
}

double quadratic(const matrix<double>& c, const std::vector<double>& k) {
    double sum = 0.0;
    for (std::size_t i = 0; i < k.size(); ++i)
        for (std::size_t j = 0; j < k.size(); ++j) sum += k[i] * c(i, j) * k[j];
    return sum;
}

class Computecorrectedpev : public testing::Test {
  protected:
    /// Checks all PEV of a model whose animal effect has the SNP effects `added`.
    void expect_aggregates(const animals_with_snps& data, const std::vector<std::int32_t>& added,
                           unsigned seed) {
        const param_type& param = data.model.param;
        const crssparse lhs = test::random_lhs(param.neq, seed);
        const matrix<double> exact = test::dense_inverse_of(lhs);
        crssparse inverse = with_positions(lhs, corrected_positions(param, data.cov, log_));
        std::vector<double> pev;
        get_pec_inverse("SPAINV", inverse, pev, log_);

        computecorrectedpev(param, data.cov, inverse, pev, log_);

        std::vector<double> expected;
        for (std::int32_t i = 0; i < param.neq; ++i) expected.push_back(exact(i, i));
        for (std::int32_t level = 1; level <= 8; ++level)
            for (std::int32_t t = param.ntrait; t >= 1; --t)  // the first trait of a slot counts
                expected[data.model.equation.at({2, level, 1, data.model.slot(t, 2)}) - 1] =
                    quadratic(exact, data.sum_of(level, t, added));
        for (std::int32_t i = 0; i < param.neq; ++i) EXPECT_NEAR(pev[i], expected[i], 1e-10) << i + 1;
    }
    test::temporary_directory directory_;
    test::working_directory inside_{directory_.path()};
    captured_log log_;
};

TEST_F(Computecorrectedpev, OfType22IsTheVarianceOfTheAggregate) {
    const int threads = omp_get_max_threads();
    for (unsigned seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE(seed);
        omp_set_num_threads(static_cast<int>(1 + seed % 4));
        expect_aggregates(animals_with_snps(static_cast<std::int32_t>(1 + seed % 3), seed), {3}, seed);
    }
    omp_set_num_threads(threads);
    EXPECT_THAT(log_.text(), HasSubstr("Computation of PEV of SNP effect 3 + animal effect 2\n"));
}

TEST_F(Computecorrectedpev, OfSeveralSnpEffectsHoldsTheirCovariances) {
    for (unsigned seed = 1; seed <= 8; ++seed) {
        SCOPED_TRACE(seed);
        animals_with_snps data(static_cast<std::int32_t>(1 + seed % 2), seed);
        data.model.param.sumeffect = {{4, 2}};
        expect_aggregates(data, {4, 3}, seed);
        data.model.param.sumeffect = {{4, 2}, {3, 2}};  // effect 3 is added twice, as in the solutions
        expect_aggregates(data, {4, 3, 3}, seed);
    }
}

TEST_F(Computecorrectedpev, WithCombinedTraitsTakesTheirSlots) {
    for (unsigned seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(seed);
        animals_with_snps data(2, seed);
        data.model.param.lcombieff = true;
        data.model.param.combieff_trait(0, 1) = 2;  // both traits of the animals in slot 2
        data.model.param.combieff_trait(0, 2) = seed % 2 == 0 ? 2 : 1;
        data.model.param.combieff_trait(1, 2) = 1;
        expect_aggregates(data, {3}, seed);
    }
}

TEST_F(Computecorrectedpev, WritesItsThreeTerms) {
    const animals_with_snps data(1, 3);
    const param_type& param = data.model.param;
    const crssparse lhs = test::random_lhs(param.neq, 3);
    const matrix<double> exact = test::dense_inverse_of(lhs);
    crssparse inverse = with_positions(lhs, corrected_positions(param, data.cov, log_));
    std::vector<double> pev;
    get_pec_inverse("SPAINV", inverse, pev, log_);

    computecorrectedpev(param, data.cov, inverse, pev, log_);

    const auto init = values_of(directory_, "pev_init.dat"), mzzm = values_of(directory_, "pev_MZZM.dat"),
               zpec = values_of(directory_, "pev_ZPEC.dat");
    ASSERT_EQ(std::ssize(init), param.neq);
    ASSERT_EQ(std::ssize(mzzm), param.neq);
    ASSERT_EQ(std::ssize(zpec), param.neq);
    for (std::int32_t i = 0; i < param.neq; ++i) {
        EXPECT_NEAR(init[i], exact(i, i), 1e-5 * exact(i, i));
        EXPECT_NEAR(init[i] + mzzm[i] + zpec[i], pev[i], 1e-4 * std::fabs(pev[i]));
    }
    std::vector<double> w = data.sum_of(5, 1, {3});
    w[2 + 5 - 1] = 0.0;
    EXPECT_NEAR(mzzm[2 + 5 - 1], quadratic(exact, w), 1e-5 * quadratic(exact, w));
    EXPECT_EQ(mzzm[2 + 1 - 1], 0.0);  // without genotypes
    EXPECT_EQ(zpec[2 + 1 - 1], 0.0);
    EXPECT_EQ(mzzm[0], 0.0);
}

TEST_F(Computecorrectedpev, LeavesModelsWithoutAggregatesAlone) {
    animals_with_snps data(1, 3);
    data.model.param.type_random_eff[2] = 30;
    std::vector<double> pev(static_cast<std::size_t>(data.model.param.neq), 0.25);
    crssparse inverse = test::random_lhs(data.model.param.neq, 1);
    const std::vector<double> before = pev;

    computecorrectedpev(data.model.param, data.cov, inverse, pev, log_);

    EXPECT_EQ(pev, before);
    EXPECT_FALSE(directory_.exists("pev_init.dat"));
    EXPECT_THAT(corrected_positions(data.model.param, data.cov, log_), IsEmpty());
    EXPECT_EQ(log_.text(), "");
}

TEST_F(Computecorrectedpev, WarnsOfSummedEffectsThatHaveNoSnps) {
    small_model model(1, {{.type = 1, .ncov = 2}, {.nlevel = 3, .random = 3}});
    model.param.sumeffect = {{1, 2}};
    std::vector<double> pev(5, 1.0);

    computecorrectedpev(model.param, {}, test::random_lhs(5, 1), pev, log_);

    EXPECT_THAT(pev, testing::Each(1.0));
    EXPECT_THAT(log_.text(),
                HasSubstr("WARN: The PEV of effect 2 are those without effect 1 (option !sumeffect)"));
}

TEST_F(Computecorrectedpev, RefusesWhatHasNoAggregate) {
    animals_with_snps data(1, 3);
    const auto refusal = [&] {
        return fatal_text([&] { static_cast<void>(corrected_positions(data.model.param, data.cov, log_)); });
    };
    data.model.param.type_effect[1] = 1;
    EXPECT_EQ(refusal(), "covariables are not possible with animal effect");
    EXPECT_THAT(log_.text(), HasSubstr("modpevpec % computecorrectedpev ("));
    data.model.param.type_effect[1] = 0;
    data.model.param.link_effect[2] = {};
    EXPECT_EQ(refusal(), "Internal error: effect 0 does not exist");
    data.model.param.link_effect[2] = {2};
    data.cov[2] = {};
    EXPECT_EQ(refusal(), "Internal error: effect 3 has no covariates");
}

TEST_F(Computecorrectedpev, RefusesAnInverseWithoutThePositions) {
    const animals_with_snps data(1, 3);
    crssparse inverse = test::random_lhs(data.model.param.neq, 3);
    std::vector<double> pev;
    get_pec_inverse("SPAINV", inverse, pev, log_);

    EXPECT_THAT(fatal_text([&] { computecorrectedpev(data.model.param, data.cov, inverse, pev, log_); }),
                HasSubstr("Internal error: the "));
}

TEST(Updatepev, SetsTheEquationsOfLevelsWithAnIndex) {
    const small_model model(2, {{.nlevel = 1}, {.nlevel = 3}});
    const std::vector<double> values = {5.0, 7.0};
    const std::vector<std::int32_t> index = {2, 0, 1};
    std::vector<double> one(8, -1.0), two(8, -1.0);

    updatepev1(model.param, values, index, 2, 2, 3, one);
    updatepev2(model.param, values, index, 2, 1, 3, two);

    EXPECT_THAT(one, ElementsAre(-1, -1, -1, 7, -1, -1, -1, 5));
    EXPECT_THAT(two, ElementsAre(-1, -1, 14, -1, -1, -1, 10, -1));
}

}  // namespace
}  // namespace zendar
