#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "external_parts.hpp"
#include "modmme.hpp"
#include "modmmeiod.hpp"
#include "modmmeiod_external.hpp"
#include "modpreconditioneriod.hpp"
#include "read_model.hpp"

/// External matrices in the equations against dense ones of small random models, from the files on.
namespace zendar::test {
namespace {

using testing::HasSubstr;

struct seen_options {
    std::map<std::string, int> parts;
    int across = 0;

    void count(const external_parts& own) {
        for (const external_part& part : own.parts) ++parts[part.option];
        for (const std::string& line : own.lines) across += line.starts_with("!acrosseff") ? 1 : 0;
    }
};

model_choice choice_of(std::uint64_t seed) {
    std::mt19937_64 random(seed * 7907);
    const auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    model_choice choice;
    choice.ntrait = pick(1, 4);
    choice.nrec = pick(1, 40);
    choice.neffect = pick(2, 5);
    choice.pedigrees = true;
    return choice;
}

/// A model with its external matrices, read.
struct external_model {
    external_model(const model_choice& choice, const external_choice& external, std::uint64_t seed,
                   const std::string& options = {})
        : model(choice, seed),
          parts(random_external(model, external, seed)),
          read(model, parts.options() + options) {
        parts.write(read.directory);
    }
    random_model model;
    external_parts parts;
    read_model read;
};

TEST(ExternalReference, ProductsOfRandomModelsWithEveryOption) {
    seen_options sparse, pedigree;
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        const bool by_pedigree = seed % 2 == 0;
        external_model m(choice_of(seed), {.pedigree = by_pedigree}, seed,
                         by_pedigree ? "!notuseasparse\n" : "");
        if (by_pedigree && m.model.needs_asparse()) continue;
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + m.model.describe() + "\n" + m.parts.options());
        (by_pedigree ? pedigree : sparse).count(m.parts);
        const threads scope(static_cast<int>(1 + seed % 4));
        const std::vector<double> x = random_vector(m.model.neq, seed),
                                  cx = dense_product(m.parts.equations(m.model), x);
        mme_iod op(m.read.run.param, m.read.run.data, m.read.run.cov, m.read.run.log, m.read.run.ped);
        op.setup_lhsrhs_iod(m.read.run.param.lcombieff ? 12 : 2);
        std::vector<double> r(m.model.neq);
        op.atimesx(x, r);
        EXPECT_LT(difference(r, cx), 1e-10);
        const std::map<std::string, std::string> labels{{"gima22i", "G-1-A22-1 * x : "},
                                                        {"gapy", "GAPY * x                : "},
                                                        {"qptransfo", "QP transfo * x          : "},
                                                        {"tamatrix", "Ta matrix * x           : "},
                                                        {"tageno", "Ta geno matrix * x      : "}};
        for (const external_part& part : m.parts.parts)
            EXPECT_THAT(m.read.screen.str(), HasSubstr(labels.at(part.option)));
        if (HasFailure()) break;
    }
    for (const char* option : {"gima22i", "gapy", "qptransfo", "tamatrix", "tageno"})
        EXPECT_GT(sparse.parts[option], 25) << option;
    for (const char* option : {"gima22i", "gapy", "qptransfo", "tamatrix", "tageno"})
        EXPECT_GT(pedigree.parts[option], 2) << option;
    EXPECT_GT(sparse.across, 40);
    EXPECT_GT(pedigree.across, 5);
}

TEST(ExternalReference, BlocksAcrossSnpEffects) {
    seen_options seen;
    for (std::uint64_t seed = 1; seed <= 100; ++seed) {
        model_choice choice = choice_of(seed + 500);
        choice.neffect = 2;
        choice.ntrait = 1 + static_cast<std::int32_t>(seed % 2);
        choice.huge = std::array{20, 22, 23, 30}[seed % 4];
        external_model m(choice, {}, seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + m.model.describe() + "\n" + m.parts.options());
        seen.count(m.parts);
        const matrix<double> c = m.parts.equations(m.model);
        const std::vector<double> x = random_vector(m.model.neq, seed), cx = dense_product(c, x);
        mme_iod op(m.read.run.param, m.read.run.data, m.read.run.cov, m.read.run.log, m.read.run.ped,
                   m.read.run.ghuge);
        op.setup_lhsrhs_iod(choice.huge == 22 ? 0 : 2);
        std::vector<double> r(m.model.neq);
        op.atimesx(x, r);
        EXPECT_LT(difference(r, cx), 1e-9);
        // Among the SNP effects alone.
        const std::int64_t first = op.first_structured(), n = m.model.neq - first;
        matrix<double> unit(n, n), among(n, n);
        for (std::int64_t i = 0; i < n; ++i) unit(i, i) = 1.0;
        op.atimesx_onlyhuge(unit.view(), among.view());
        std::vector<double> expected;
        for (std::int64_t j = 0; j < n; ++j)
            for (std::int64_t i = 0; i < n; ++i) expected.push_back(c(first + i, first + j));
        EXPECT_LT(difference(among.values(), expected), 1e-9);
        if (HasFailure()) break;
    }
    EXPECT_GT(seen.across, 100);
}

TEST(ExternalReference, LeftHandSidesInMemory) {
    seen_options seen;
    for (std::uint64_t seed = 1; seed <= 120; ++seed) {
        model_choice choice = choice_of(seed + 900);
        choice.in_memory = true;
        if (seed % 4 == 0) {
            choice.ntrait = 1;
            choice.huge = std::array{20, 22, 23, 30}[seed / 4 % 4];
        }
        external_model m(choice, {.in_memory = true}, seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + m.model.describe() + "\n" + m.parts.options());
        seen.count(m.parts);
        const matrix<double> c = m.parts.equations(m.model);
        const lhs_inmem lhs = setup_lhsrhs(
            {m.read.run.param, m.read.run.data, m.read.run.cov, m.read.run.ped, m.read.run.ghuge}, {},
            m.read.run.log);
        std::vector<double> found, expected;
        for (std::int32_t i = 1; i <= m.model.neq; ++i)
            for (std::int32_t j = i; j <= m.model.neq; ++j) {
                found.push_back(lhs.lhsija.get(i, j));
                expected.push_back(c(i - 1, j - 1));
            }
        EXPECT_LT(difference(found, expected), 1e-9);
        if (HasFailure()) break;
    }
    EXPECT_GT(seen.parts["gima22i"], 60);
    EXPECT_GT(seen.across, 60);
}

TEST(ExternalReference, AMatrixOfNoRowsAddsNothing) {
    effect_group group;
    group.effect = 1;
    group.nlevel = 2;
    group.equation = {0};
    group.stride = {1};
    group.ginv = matrix<double>(1, 1, 2.0);
    modmmeiod::gima22i_term term(gima22i_type{});
    std::vector<double> x{1.0, 2.0}, r{3.0, 4.0}, work(16);
    logger log;
    modmmeiod::addrandompart_external_timesx(group, term, work, x, r, log);
    EXPECT_EQ(r, (std::vector<double>{3.0, 4.0}));
}

// ---- preconditioner

/// The elements that a structure of one level at most holds: what options add to the diagonal of K, that of
/// A22^-1 estimated, and of components of Ta this only; all of a matrix as it stands.
void add_elements(const external_model& m, const modmmeiod::external_terms& terms, bool whole, logger& log,
                  matrix<double>& to) {
    const std::map<std::string, std::string> texts{
        {"gima22i", "Addition of Gi-A22i to preconditioner"},
        {"gapy", "Addition of GAPY-A22-1 to preconditioner"},
        {"qptransfo", "Addition of QP transformation to preconditioner"},
        {"tamatrix", "Addition of Tamatrix-A22-1 to preconditioner"},
        {"tageno", "Addition of (tau/beta-omega)*A22-1 to preconditioner"}};
    for (const external_part& part : m.parts.parts) {
        const auto own = std::ranges::find_if(terms.terms, [&](const auto& term) {
            return term.effect == part.effect && term.term->precond_text() == texts.at(part.option);
        });
        ASSERT_NE(own, terms.terms.end());
        matrix<double> k(part.k.rows(), part.k.cols());
        if (whole && part.a22i.empty()) {
            k = part.k;
        } else {
            for (std::int64_t i = 0; i < k.rows(); ++i)
                k(i, i) = part.option == "tageno" ? 0.0 : part.rest(i, i);
            if (!part.a22i.empty()) {
                // The estimate is what the term says beyond the exact rest; it must be near the exact one.
                const std::vector<double> diagonal = own->term->diagonal(log);
                const auto levels = own->term->levels();
                for (std::size_t q = 0; q < levels.size(); ++q) {
                    const std::int64_t i = levels[q] - 1;
                    const double estimate = diagonal[q] - k(i, i), exact = part.a22i(i, i);
                    EXPECT_LE(std::abs(estimate - exact), 0.25 * std::abs(exact) + 1e-12);
                    k(i, i) += estimate;
                }
            }
        }
        m.model.add_random_part(part.effect, k, to);
    }
}

void expect_element(double with, double without, double expected, double precision, std::int64_t i,
                    std::int64_t j) {
    EXPECT_LE(magnitude(with - without - expected),
              precision * (magnitude(with) + magnitude(without) + magnitude(expected)) + 1e-30)
        << "equations " << i << " " << j;
}

/// Elements of a part with the options less those without them.
void compare_difference(const mija& with, const mija& without, const matrix<double>& expected) {
    constexpr double single = 1e-5, twice = 1e-11;
    const std::int64_t first = with.first - 1;
    ASSERT_EQ(with.type, without.type);
    if (with.type == precond_diagonal)
        for (std::size_t k = 0; k < with.mat.size(); ++k) {
            const std::int64_t i = first + static_cast<std::int64_t>(k);
            expect_element(static_cast<double>(with.mat[k]), static_cast<double>(without.mat[k]),
                           expected(i, i), single, i, i);
        }
    if (with.type == precond_block)
        for (std::int64_t level = 0; level < with.dim3 && !with.block.empty(); ++level) {
            std::vector<std::int64_t> equation;
            for (const block_stretch& stretch : with.stretches)
                for (std::int64_t k = 0; k < stretch.length; ++k)
                    equation.push_back(stretch.first + level * stretch.stride + k);
            const std::int64_t size = std::int64_t{with.dim1} * (with.dim1 + 1) / 2;
            for (std::int64_t j = 0; j < with.dim1; ++j)
                for (std::int64_t i = 0; i <= j; ++i) {
                    const auto at = static_cast<std::size_t>(level * size + j * (j + 1) / 2 + i);
                    expect_element(static_cast<double>(with.block[at]),
                                   static_cast<double>(without.block[at]), expected(equation[i], equation[j]),
                                   single, equation[i], equation[j]);
                }
        }
    if (with.type == precond_sparse || with.type == precond_auto)
        for (std::int32_t i = 1; i <= with.dim1; ++i)
            for (std::int32_t j = i; j <= with.dim1; ++j)
                expect_element(with.sparse.get(i, j), without.sparse.get(i, j),
                               expected(first + i - 1, first + j - 1), twice, first + i, first + j);
}

TEST(ExternalReference, ElementsOfThePreconditioner) {
    std::map<std::pair<std::string, char>, int> seen;
    for (std::uint64_t seed = 1; seed <= 160; ++seed) {
        model_choice choice = choice_of(seed + 1300);
        choice.ntrait = 1 + static_cast<std::int32_t>(seed % 3);
        const random_model probe(choice, seed);
        const bool polyploid = std::ranges::count(probe.effects, 203, &random_effect::type_random) > 0;
        const char letter = "dbs"[seed % (polyploid ? 2 : 3)];
        std::string options;
        for (std::size_t e = 1; e <= probe.effects.size(); ++e)
            options += std::string("!structprecond ") + letter + " 1 " + std::to_string(e) + "\n";
        if (letter == 's') options = "!structprecond s 1 " + std::to_string(probe.effects.size()) + "\n";
        external_model m(choice, {}, seed, options);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + m.model.describe() + "\n" + m.parts.options() +
                     options);
        mme_iod op(m.read.run.param, m.read.run.data, m.read.run.cov, m.read.run.log, m.read.run.ped);
        op.setup_lhsrhs_iod(m.read.run.param.lcombieff ? 12 : 2);
        const modmmeiod::operator_state& state = op.state();
        // What options add is the difference to the same model without them.
        const auto assemble = [&](bool with) {
            return modpreconditioneriod::assemble_mija_lhs({op.param(),
                                                            op.data(),
                                                            op.cov(),
                                                            state.rinv,
                                                            state.groups,
                                                            state.asparse,
                                                            state.pedigree,
                                                            state.asparsesub,
                                                            state.a22i_weight,
                                                            op.ghuge(),
                                                            state.single_step,
                                                            {},
                                                            with ? state.external.get() : nullptr},
                                                           m.read.run.log);
        };
        const std::vector<mija> with = assemble(true), without = assemble(false);
        matrix<double> expected(m.model.neq, m.model.neq);
        add_elements(m, *state.external, letter == 's', m.read.run.log, expected);
        for (std::size_t e = 0; e < with.size(); ++e) compare_difference(with[e], without[e], expected);
        for (const external_part& part : m.parts.parts) ++seen[{part.option, letter}];
        if (HasFailure()) break;
    }
    for (const char* option : {"gima22i", "gapy", "qptransfo", "tamatrix", "tageno"})
        for (const char letter : {'d', 'b', 's'}) EXPECT_GT((seen[{option, letter}]), 3) << option << letter;
}

}  // namespace
}  // namespace zendar::test
