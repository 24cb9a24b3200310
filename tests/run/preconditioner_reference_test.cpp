#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "modmmeiod.hpp"
#include "modmmeiod_a22i.hpp"
#include "modpreconditioneriod.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

/// The preconditioner before its inversion against dense equations of small random animal models: every
/// element that its structure holds is that of the coefficient matrix.
namespace zendar::test {
namespace {

/// C with the estimated diagonal of A22^-1 in the place of A22^-1 itself.
matrix<double> expected_elements(const random_model& model, const modmmeiod::operator_state& state,
                                 logger& log) {
    matrix<double> elements = model.xrx;
    for (std::int32_t e = 1; e <= std::ssize(model.effects); ++e) {
        const random_effect& effect = model.effects[e - 1];
        if (effect.type_random == 0) continue;
        model.add_random_part(e, effect.ainv, elements);
        if (effect.list.empty()) continue;
        const std::vector<double> estimate = computediaga22i(*state.asparsesub[e - 1], log);
        matrix<double> diagonal(effect.a22i.rows(), effect.a22i.rows());
        for (std::size_t k = 0; k < estimate.size(); ++k)
            diagonal(effect.list[k] - 1, effect.list[k] - 1) =
                (model.tau / model.beta - model.omega) * estimate[k];
        model.add_random_part(e, diagonal, elements);
    }
    return elements;
}

/// Compares the elements of one part. Sparse groups have the diagonal of fixed effects lifted.
class comparison {
  public:
    comparison(const matrix<double>& expected, std::span<const bool> fixed)
        : expected_(expected), fixed_(fixed) {}

    void element(std::int64_t i, std::int64_t j, double found, bool lifted, double tolerance) {
        double value = expected_(i, j);
        if (lifted && i == j && fixed_[static_cast<std::size_t>(i)]) value *= 1.0 + 1e-4;
        const double size = std::sqrt(std::abs(expected_(i, i) * expected_(j, j)));
        EXPECT_LE(magnitude(found - value), tolerance * size + 1e-30) << "equations " << i << " " << j;
        ++compared;
    }
    std::int64_t compared = 0;

  private:
    const matrix<double>& expected_;
    std::span<const bool> fixed_;
};

void compare_part(const mija& part, comparison& compare) {
    const std::int64_t first = part.first - 1;
    if (part.type == precond_diagonal)
        for (std::size_t i = 0; i < part.mat.size(); ++i) {
            const std::int64_t at = first + static_cast<std::int64_t>(i);
            compare.element(at, at, static_cast<double>(part.mat[i]), false, 1e-5);
        }
    if (part.type == precond_block || part.type == precond_reorder)
        for (std::int64_t level = 0; level < part.dim3 && !part.block.empty(); ++level) {
            std::vector<std::int64_t> equation;
            for (const block_stretch& stretch : part.stretches)
                for (std::int64_t k = 0; k < stretch.length; ++k)
                    equation.push_back(stretch.first + level * stretch.stride + k);
            ASSERT_EQ(std::ssize(equation), part.dim1);
            const std::int64_t size = std::int64_t{part.dim1} * (part.dim1 + 1) / 2;
            for (std::int64_t j = 0; j < part.dim1; ++j)
                for (std::int64_t i = 0; i <= j; ++i)
                    compare.element(equation[i], equation[j],
                                    static_cast<double>(part.block[level * size + j * (j + 1) / 2 + i]),
                                    part.type == precond_reorder, 1e-5);
        }
    if (part.type == precond_sparse || part.type == precond_auto)
        for (std::int32_t i = 1; i <= part.dim1; ++i)
            for (std::int32_t j = i; j <= part.dim1; ++j)
                compare.element(first + i - 1, first + j - 1, part.sparse.get(i, j), true, 1e-12);
}

TEST(PreconditionerReference, HoldsTheElementsOfRandomAnimalModels) {
    std::map<std::pair<std::int32_t, std::int32_t>, int> seen;  // random type, code
    std::int64_t compared = 0;
    for (std::uint64_t seed = 1; seed <= 240; ++seed) {
        std::mt19937_64 random(seed * 104729);
        model_choice choice;
        choice.ntrait = std::uniform_int_distribution<int>(1, 3)(random);
        choice.nrec = std::uniform_int_distribution<int>(1, 40)(random);
        choice.neffect = std::uniform_int_distribution<int>(2, 4)(random);
        choice.pedigrees = true;
        const random_model model(choice, seed);
        std::string options;
        const bool polyploid =
            std::ranges::count(model.effects, 203, &random_effect::type_random) > 0;  // takes no letters
        if (const char letter = "dbsf"[random() % (polyploid ? 2 : 4)]; letter == 's' || letter == 'f')
            options =
                std::string("!structprecond ") + letter + " 1 " + std::to_string(model.effects.size()) + "\n";
        else
            for (std::size_t e = 1; e <= model.effects.size(); ++e)
                options += std::string("!structprecond ") + letter + " 1 " + std::to_string(e) + "\n";
        if (seed % 8 < 4 && !model.needs_asparse()) options += "!notuseasparse\n";
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe() + "\n" + options);
        const threads scope(static_cast<int>(1 + seed % 4));
        read_model read(model, options);
        mme_iod op(read.run.param, read.run.data, read.run.cov, read.run.log, read.run.ped);
        op.setup_lhsrhs_iod(read.run.param.lcombieff ? 12 : 2);
        const modmmeiod::operator_state& state = op.state();
        const std::vector<mija> parts = modpreconditioneriod::assemble_mija_lhs(
            {op.param(), op.data(), op.cov(), state.rinv, state.groups, state.asparse, state.pedigree,
             state.asparsesub, state.a22i_weight},
            read.run.log);
        const matrix<double> expected = expected_elements(model, state, read.run.log);
        const auto fixed = std::make_unique<bool[]>(static_cast<std::size_t>(model.neq));
        for (std::int32_t e = 1; e <= std::ssize(model.effects);
             e += std::max(model.effects[e - 1].nmember, 1))
            for (std::int64_t i = op.param().sumequation[e];
                 model.effects[e - 1].type_random == 0 && i < op.param().sumequation[e + 1]; ++i)
                fixed[static_cast<std::size_t>(i)] = true;
        comparison compare(expected, {fixed.get(), static_cast<std::size_t>(model.neq)});
        for (std::size_t e = 0; e < parts.size(); ++e) {
            ++seen[{op.param().type_random[e], parts[e].type}];
            compare_part(parts[e], compare);
        }
        compared += compare.compared;
        if (HasFailure()) break;
    }
    EXPECT_GT(compared, 100'000);
    EXPECT_GT((seen[{203, 2}]), 10);
    for (const std::int32_t type : {3, 5, 7, 9, 103, 105, 109})
        for (const std::int32_t code : {1, 2, -5}) EXPECT_GT((seen[{type, code}]), 0) << type << " " << code;
}

}  // namespace
}  // namespace zendar::test
