#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "modmmeiod.hpp"
#include "modmmeiod_a22i.hpp"
#include "modmmeiod_huge.hpp"
#include "modpreconditioneriod.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

/// The preconditioner before its inversion against dense equations of small random animal models: every
/// element that its structure holds is that of the coefficient matrix.
namespace zendar::test {
namespace {

/// What SNP effects add: only what stands within a SNP, and of A22^-1 the estimate of its diagonal.
void add_huge_elements(const random_model& model, const modmmeiod::operator_state& state, matrix<double>& to,
                       logger& log) {
    const std::int32_t huge = model.first_huge();
    const random_effect& opener = model.effects[huge - 1];
    matrix<double> part(model.neq, model.neq);
    model.add_huge_part(huge, part);
    std::map<std::int32_t, double> estimated;  // relative to the diagonal, by animal
    if (opener.link > 0) {
        a22_inverse& used = state.single_step.front()->a22i();
        const std::vector<double> estimate = computediaga22i(used, log);
        const matrix<double> a22i = model.dense_a22i();
        std::map<std::int32_t, double> exact;
        for (std::int64_t k = 0; k < std::ssize(opener.genotyped); ++k)
            exact[opener.genotyped[k]] = a22i(k, k);
        for (std::size_t k = 0; k < estimate.size(); ++k)
            estimated[used.levels()[k]] = estimate[k] / exact.at(used.levels()[k]);
    }
    const auto unknowns = model.unknowns();
    for (std::int64_t i = 0; i < model.neq; ++i)
        for (std::int64_t j = 0; j < model.neq; ++j) {
            const auto& [e1, level1, snp1, slot1] = unknowns[i];
            const auto& [e2, level2, snp2, slot2] = unknowns[j];
            const bool snps = e1 >= huge && e2 >= huge, animals = e1 < huge && e2 < huge;
            if (snps && snp1 == snp2) to(i, j) += part(i, j);
            if (animals && level1 == level2 && part(i, j) != 0.0)
                to(i, j) += part(i, j) * estimated.at(level1);
        }
}

/// C with the estimated diagonal of A22^-1 in the place of A22^-1 itself.
matrix<double> expected_elements(const random_model& model, const modmmeiod::operator_state& state,
                                 logger& log) {
    matrix<double> elements = model.xrx;
    for (std::int32_t e = 1; e <= std::ssize(model.effects); ++e) {
        const random_effect& effect = model.effects[e - 1];
        if (effect.type_random == 0) continue;
        if (effect.huge) {
            add_huge_elements(model, state, elements, log);
            continue;
        }
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
        EXPECT_LE(magnitude(found - value), tolerance * size + 1e-30)
            << "equations " << i << " " << j << ": " << found << " instead of " << value;
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

struct comparisons {
    std::map<std::pair<std::int32_t, std::int32_t>, int> seen;  ///< random type, code
    std::int64_t compared = 0;
};

comparisons compare_random_models(bool huge) {
    comparisons all;
    for (std::uint64_t seed = 1; seed <= 240; ++seed) {
        std::mt19937_64 random(seed * 104729);
        model_choice choice;
        choice.ntrait = std::uniform_int_distribution<int>(1, 3)(random);
        choice.nrec = std::uniform_int_distribution<int>(1, 40)(random);
        choice.neffect = std::uniform_int_distribution<int>(2, 4)(random);
        choice.pedigrees = true;
        choice.bed = huge;
        if (huge) choice.huge = std::array{0, 20, 22, 23, 30}[seed % 5];
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
        if (huge) options += "!precondzaaaz\n";
        if (!huge && seed % 8 < 4 && !model.needs_asparse()) options += "!notuseasparse\n";
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe() + "\n" + options);
        const threads scope(static_cast<int>(1 + seed % 4));
        read_model read(model, options);
        mme_iod op(read.run.param, read.run.data, read.run.cov, read.run.log, read.run.ped, read.run.ghuge);
        op.setup_lhsrhs_iod(choice.huge == 22 ? 0 : read.run.param.lcombieff ? 12 : 2);
        std::vector<std::vector<double>> diagmaaam;
        for (std::int32_t e = 1; e <= std::ssize(model.effects); ++e)
            if (model.effects[e - 1].huge) diagmaaam.push_back(op.diagonal_of_snps(e));
        const modmmeiod::operator_state& state = op.state();
        const std::vector<mija> parts = modpreconditioneriod::assemble_mija_lhs(
            {op.param(), op.data(), op.cov(), state.rinv, state.groups, state.asparse, state.pedigree,
             state.asparsesub, state.a22i_weight, op.ghuge(), state.single_step, diagmaaam},
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
            ++all.seen[{op.param().type_random[e], parts[e].type}];
            compare_part(parts[e], compare);
        }
        all.compared += compare.compared;
        if (testing::Test::HasFailure()) break;
    }
    return all;
}

TEST(PreconditionerReference, HoldsTheElementsOfRandomAnimalModels) {
    comparisons all = compare_random_models(false);
    EXPECT_GT(all.compared, 100'000);
    EXPECT_GT((all.seen[{203, 2}]), 10);
    for (const std::int32_t type : {3, 5, 7, 9, 103, 105, 109})
        for (const std::int32_t code : {1, 2, -5})
            EXPECT_GT((all.seen[{type, code}]), 0) << type << " " << code;
}

TEST(PreconditionerReference, HoldsTheElementsOfRandomModelsWithSnpEffects) {
    comparisons all = compare_random_models(true);
    EXPECT_GT(all.compared, 100'000);
    for (const std::int32_t type : {23, 30})
        for (const std::int32_t code : {1, 2, -5})
            EXPECT_GT((all.seen[{type, code}]), 0) << type << " " << code;
    for (const std::int32_t type : {20, 22}) EXPECT_GT((all.seen[{type, 2}]), 20) << type;
}

}  // namespace
}  // namespace zendar::test
