#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>
#include <stdexcept>

#include "captured_log.hpp"
#include "modblas.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

/// Prediction error variances of whole models against dense inverses.
namespace zendar::test {
namespace {

model_choice choice_of(std::uint64_t seed) {
    std::mt19937_64 random(seed * 104729);
    const auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    model_choice choice;
    choice.ntrait = pick(1, 3);
    choice.nrec = pick(20, 60);
    choice.neffect = pick(1, 4);
    choice.in_memory = true;
    choice.always_random = seed % 2 == 0;
    choose_kind(choice, seed, seed % 5 == 1, seed % 7 == 2);
    return choice;
}

/// The Moore-Penrose inverse, from which the variance of everything estimable follows.
struct pseudo_inverse {
    matrix<double> p, c;
    double largest = 0.0;  ///< variance of an unknown
    bool indefinite = false;

    explicit pseudo_inverse(const matrix<double>& lhs) : p(lhs.rows(), lhs.cols()), c(lhs) {
        const std::int64_t n = lhs.rows();
        matrix<double> vectors = lhs;
        std::vector<double> values(static_cast<std::size_t>(n));
        if (lapack_dsyevd_vectors(vectors.view(), values) != 0) throw std::runtime_error("no eigenvalues");
        matrix<double> scaled(n, n);
        indefinite = n > 0 && values[0] < -1e-8 * values[n - 1];
        for (std::int64_t k = 0; k < n; ++k)
            if (values[k] > 1e-11 * values[n - 1])
                for (std::int64_t i = 0; i < n; ++i) scaled(i, k) = vectors(i, k) / values[k];
        blas_dgemm(false, true, 1.0, scaled.view(), vectors.view(), 0.0, p.view());
        for (std::int64_t i = 0; i < n; ++i) largest = std::max(largest, p(i, i));
    }
    /// The variance of k'x; NaN when k'x is not estimable.
    [[nodiscard]] double variance(const std::vector<double>& k) const {
        const std::vector<double> pk = dense_product(p, k), again = dense_product(c, pk);
        double value = 0.0;
        for (std::size_t i = 0; i < k.size(); ++i) {
            if (std::fabs(again[i] - k[i]) > 1e-7) return std::nan("");
            value += k[i] * pk[i];
        }
        return value;
    }
};

void compute_pec(read_model& read) {
    read.run.param.lpec = true;
    setlhsrhs(read.run);
    pec(read.run);
    outputpevpec(read.run);
}

bool is_empty(const matrix<double>& c, std::int64_t i) {
    for (std::int64_t j = 0; j < c.rows(); ++j)
        if (c(j, i) != 0.0) return false;
    return true;
}

TEST(PevReference, OfRandomModels) {
    int naggregate = 0, nequation = 0, nempty = 0, nindefinite = 0;
    for (std::uint64_t seed = 1; seed <= 120; ++seed) {
        const random_model model(choice_of(seed), seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const threads scope(static_cast<int>(1 + seed % 4));
        read_model read(model, "!solver pardiso\n");
        const pseudo_inverse inverse(model.c);
        if (inverse.indefinite) {  // some random (co)variances of SNP effects contradict each other
            EXPECT_THAT(fatal_message([&] { compute_pec(read); }),
                        testing::HasSubstr("the matrix is not positive semidefinite"));
            ++nindefinite;
            continue;
        }
        compute_pec(read);

        ASSERT_EQ(std::ssize(read.run.pev), model.neq);
        EXPECT_TRUE(read.run.lhs_is_inverse);
        const auto unknowns = model.unknowns();
        const std::int32_t first = model.first_huge();
        for (std::int64_t i = 0; i < model.neq; ++i) {
            std::vector<double> k(static_cast<std::size_t>(model.neq), 0.0);
            const bool empty = is_empty(model.c, i);  // what has no equation is known to be 0
            if (empty) ++nempty;
            k[i] = empty ? 0.0 : 1.0;
            const auto [e, level, covariable, slot] = unknowns[i];
            for (std::int32_t s = first; first > 0 && s <= std::ssize(model.effects); ++s) {
                const random_effect& snps = model.effects[s - 1];
                if (model.effects[first - 1].type_random != 22 || snps.link != e) continue;
                const auto& coefficients = model.effects[first - 1].coefficients;
                if (level > std::ssize(coefficients)) continue;  // a group
                const std::vector<double>& w = coefficients[level - 1];
                for (std::int32_t j = 1; j <= std::ssize(w); ++j)
                    k[model.equation(s, 1, j, slot) - 1] = w[j - 1];
                if (!w.empty()) ++naggregate;
            }
            const double expected = inverse.variance(k);
            if (std::isnan(expected)) continue;
            EXPECT_NEAR(read.run.pev[i], expected, 1e-9 * inverse.largest) << "equation " << i + 1;
            ++nequation;
        }
        if (HasFailure()) break;
    }
    EXPECT_GT(naggregate, 60);
    EXPECT_GT(nequation, 2000);
    EXPECT_GT(nempty, 20);
    EXPECT_LT(nindefinite, 12);
}

/// Single-step models by SNP effects have the variances of those by H^-1.
TEST(PevReference, OfSingleStepModelsAreThoseOfTheInverseRelationships) {
    int ncompared = 0;
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        model_choice choice;
        choice.ntrait = static_cast<std::int32_t>(1 + seed % 2);
        choice.neffect = 2;
        choice.in_memory = choice.single_step = choice.bed = true;
        choice.huge = seed % 2 == 0 ? 22 : 30;
        const random_model model(choice, seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        read_model read(model, "!solver pardiso\n");
        if (pseudo_inverse(model.c).indefinite) continue;
        ++ncompared;
        compute_pec(read);

        const pseudo_inverse inverse(model.single_step_equations().first);
        const std::vector<double> pev = model.breeding_values(read.run.pev, false);
        std::vector<double> expected(static_cast<std::size_t>(model.neq), 0.0);
        for (std::int64_t i = 0; i < inverse.p.rows(); ++i) expected[i] = inverse.p(i, i);
        EXPECT_LT(difference(pev, model.breeding_values(expected, false)), 1e-7);
        if (HasFailure()) break;
    }
    EXPECT_GT(ncompared, 15);
}

}  // namespace
}  // namespace zendar::test
