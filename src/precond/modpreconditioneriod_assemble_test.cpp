#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <limits>
#include <map>

#include "captured_log.hpp"
#include "modpreconditioneriod_test_model.hpp"

namespace zendar {
namespace {

using modpreconditioneriod::assemble_mija_lhs;
using test::captured_log;
using test::effect_spec;
using test::fatal_message;
using test::model_case;
using ::testing::HasSubstr;

std::int64_t packed(std::int64_t i, std::int64_t k) {
    return i <= k ? k * (k + 1) / 2 + i : i * (i + 1) / 2 + k;
}

/// The equations of the block of a level, from 0: of the correlated effects of e, or of the group of code 7.
std::vector<std::int64_t> equations_of_block(const model_case& model, std::int32_t e, std::int32_t last,
                                             std::int64_t level) {
    std::vector<std::int64_t> result;
    for (std::int32_t k = e; k <= last; ++k) {
        if (model.effects[k - 1].shares > 0) continue;
        const std::int64_t n =
            std::int64_t{model.effects[k - 1].type == 0 ? 1 : model.effects[k - 1].ncov} * model.param.ntrait;
        for (std::int64_t i = 0; i < n; ++i) result.push_back(model.param.sumequation[k] + level * n + i);
    }
    return result;
}

/// A group's part of C, with what the fixed effects are lifted by.
matrix<double> matrix_of_group(const model_case& model, const matrix<double>& c, const mija& part) {
    const std::int64_t n = part.last - part.first + 1;
    matrix<double> result(n, n);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j) result(i, j) = c(part.first - 1 + i, part.first - 1 + j);
    for (std::int32_t e = part.firsteffect; e <= part.lasteffect; ++e) {
        if (model.effects[e - 1].random != 0 || model.effects[e - 1].shares > 0) continue;
        const std::int64_t size = std::int64_t{model.levels(e)} * model.param.ntrait *
                                  (model.effects[e - 1].type == 0 ? 1 : model.effects[e - 1].ncov);
        for (std::int64_t i = 0; i < size; ++i) {
            const std::int64_t k = model.param.sumequation[e] + i - part.first + 1;
            result(k, k) *= 1.0 + 1e-4;
        }
    }
    return result;
}

/// Compares an assembled preconditioner, element by element, with the parts of C that its codes name.
void expect_parts_of(const model_case& model, std::span<const mija> mija_global, const std::string& what) {
    std::vector<double> squares;
    const matrix<double> c = model.coefficient_matrix(squares);
    for (std::int32_t e = 1; e <= model.param.neffect; ++e) {
        const mija& part = mija_global[e - 1];
        const std::string where =
            what + ", effect " + std::to_string(e) + ", code " + std::to_string(part.type);
        switch (part.type) {
            case 1:
                ASSERT_EQ(std::ssize(part.mat), part.last - part.first + 1) << where;
                for (std::int64_t i = 0; i < std::ssize(part.mat); ++i) {
                    const double expected = squares[part.first - 1 + i];
                    ASSERT_NEAR(part.mat[i], expected, 1e-5 * std::abs(expected))
                        << where << ", equation " << i;
                }
                break;
            case 2:
                if (part.firsteffect != 0 && part.firsteffect != e) {
                    ASSERT_TRUE(part.block.empty()) << where;
                    break;
                }
                [[fallthrough]];
            case 7:
                ASSERT_EQ(part.dim3, model.levels(e)) << where;
                for (std::int64_t level = 0; level < part.dim3; ++level) {
                    const auto eq = equations_of_block(model, e, std::max(part.lasteffect, e), level);
                    ASSERT_EQ(std::ssize(eq), part.dim1) << where;
                    for (std::int64_t k = 0; k < part.dim1; ++k)
                        for (std::int64_t i = 0; i <= k; ++i) {
                            const double scale = std::sqrt(c(eq[i], eq[i]) * c(eq[k], eq[k])) + 1e-12;
                            ASSERT_NEAR(part.block[level * packed(0, part.dim1) + packed(i, k)],
                                        c(eq[i], eq[k]), 1e-5 * scale)
                                << where << ", level " << level << ": " << i << ", " << k;
                        }
                }
                break;
            case 4:
                for (std::int64_t k = 0; k < part.dim1; ++k)
                    for (std::int64_t i = 0; i <= k; ++i) {
                        const double expected = c(part.first - 1 + i, part.first - 1 + k);
                        ASSERT_NEAR(part.w[packed(i, k)], expected, 1e-11 * (1.0 + std::abs(expected)))
                            << where;
                    }
                break;
            case 5:
            case 6: {
                const matrix<double> expected = matrix_of_group(model, c, part);
                ASSERT_EQ(part.sparse.getdim(1), expected.rows()) << where;
                for (std::int32_t i = 0; i < expected.rows(); ++i)
                    for (std::int32_t k = i; k < expected.rows(); ++k)
                        ASSERT_NEAR(part.sparse.get(i + 1, k + 1), expected(i, k),
                                    1e-11 * (1.0 + std::abs(expected(i, k))))
                            << where << ": " << i << ", " << k;
                break;
            }
            default:
                ASSERT_TRUE(part.type == 0 || part.type < -3) << where;
        }
    }
}

// ---- random models

std::vector<effect_spec> random_effects(std::mt19937& generator, bool& shared) {
    const auto upto = [&](std::int32_t n) { return static_cast<std::int32_t>(generator() % n) + 1; };
    std::vector<effect_spec> effects;
    const std::int32_t most = upto(4) + 1;
    while (std::ssize(effects) < most) {
        const std::int32_t n = upto(4) + 1, ncov = upto(3), random = upto(2) == 1 ? 1 : 10;
        switch (upto(9)) {
            case 1:
            case 2:
                effects.push_back({.nlevel = n});
                break;
            case 3:
                effects.push_back({.type = 1, .nlevel = 20, .ncov = ncov});
                break;
            case 4:
                effects.push_back({.type = 1, .nlevel = 20, .ncov = ncov, .nnest = n});
                break;
            case 5:
                effects.push_back({.nlevel = n, .random = random});
                break;
            case 6:
                effects.push_back({.type = 1, .nlevel = 20, .ncov = ncov, .nnest = n, .random = random});
                break;
            case 7:
                effects.push_back({.type = 1, .nlevel = 20, .ncov = ncov, .random = 1});
                break;
            case 8:
                effects.push_back({.nlevel = n, .random = random, .ncorrelated = 1});
                effects.push_back({.type = 1, .nlevel = 20, .ncov = ncov, .nnest = n, .random = random});
                break;
            default: {
                if (effects.empty()) break;
                const std::int32_t owner = upto(static_cast<std::int32_t>(effects.size()));
                effect_spec copy = effects[owner - 1];
                if (copy.shares > 0) break;
                copy.shares = owner;
                copy.random = 0;
                copy.ncorrelated = -1;
                effects.push_back(copy);
                shared = true;
            }
        }
    }
    return effects;
}

std::string random_letters(std::size_t n, std::mt19937& generator) {
    std::string letters;
    while (letters.size() < n) {
        const std::string_view all = "NdbwNdbsfr";
        const char letter = all[generator() % all.size()];
        letters += letter;
        if (letter != 's' && letter != 'f' && letter != 'r') continue;
        while (letters.size() < n && generator() % 3 != 0) letters += 'u';
    }
    return letters;
}

/// Letters that the model admits; all of it by default otherwise.
void choose_letters(model_case& model, std::mt19937& generator) {
    model.param.autoprecond = generator() % 3 == 0;
    if (model.param.autoprecond && generator() % 2 == 0) {
        test::set_letters(model.param, std::string(model.effects.size(), 'c'));
        return;
    }
    for (int attempt = 0; attempt < 40; ++attempt) {
        test::set_letters(model.param, random_letters(model.effects.size(), generator));
        try {
            std::vector<mija> m =
                modpreconditioneriod::setstructure_to_preconditioner(model.param, model.log);
            for (std::int32_t e = 1; e <= model.param.neffect; ++e)
                if (m[e - 1].type == 7) modpreconditioneriod::setordering(model.param, e, m, model.log);
            return;
        } catch (const fatal_error&) {
            continue;
        }
    }
    test::set_letters(model.param, std::string(model.effects.size(), 'N'));
}

struct thread_count {
    explicit thread_count(int n) : old(omp_get_max_threads()) { omp_set_num_threads(n); }
    ~thread_count() { omp_set_num_threads(old); }
    int old;
};

/// y = M^-1 x from the assembled parts, by dense inverses. False for equations whose part is nearly singular
/// in single precision, where rounding decides.
std::vector<double> expected_product(const model_case& model, std::span<const mija> assembled,
                                     std::span<const double> x, std::vector<double>& tolerance) {
    std::vector<double> y(x.size(), 0.0);
    tolerance.assign(x.size(), -1.0);
    const auto apply = [&](const matrix<double>& part, const std::vector<std::int64_t>& eq,
                           double precision) {
        const matrix<double> inverted = test::inverse(part);
        double condition = 0.0, largest = 0.0, norm = 0.0;
        for (const double value : inverted.values()) largest += std::abs(value);
        for (const double value : part.values()) norm += std::abs(value);
        condition = largest * norm;
        for (std::size_t i = 0; i < eq.size(); ++i) {
            for (std::size_t k = 0; k < eq.size(); ++k)
                y[eq[i]] += inverted(static_cast<std::int64_t>(i), static_cast<std::int64_t>(k)) * x[eq[k]];
            tolerance[eq[i]] = std::isfinite(condition) && condition * precision < 1e-2
                                   ? largest * condition * precision
                                   : -1.0;
        }
    };
    for (std::int32_t e = 1; e <= model.param.neffect; ++e) {
        const mija& part = assembled[e - 1];
        if (part.type == 1) {
            for (std::size_t i = 0; i < part.mat.size(); ++i) {
                const std::size_t k = part.first - 1 + i;
                y[k] = part.mat[i] == 0.0f ? 0.0 : x[k] / static_cast<double>(part.mat[i]);
                tolerance[k] = 1e-6 * std::abs(y[k]);
            }
        } else if ((part.type == 2 || part.type == 7) && !part.block.empty()) {
            for (std::int64_t level = 0; level < part.dim3; ++level) {
                matrix<double> block(part.dim1, part.dim1);
                for (std::int64_t i = 0; i < part.dim1; ++i)
                    for (std::int64_t k = 0; k < part.dim1; ++k)
                        block(i, k) = part.block[level * packed(0, part.dim1) + packed(i, k)];
                apply(block, equations_of_block(model, e, std::max(part.lasteffect, e), level), 1e-6);
            }
        } else if (part.type >= 4 && part.type <= 6) {
            const std::int64_t n = part.dim1;
            matrix<double> full(n, n);
            std::vector<std::int64_t> eq;
            for (std::int64_t i = 0; i < n; ++i) {
                eq.push_back(part.first - 1 + i);
                for (std::int64_t k = 0; k < n; ++k)
                    full(i, k) = part.type == 4
                                     ? part.w[packed(i, k)]
                                     : part.sparse.get(static_cast<std::int32_t>(std::min(i, k) + 1),
                                                       static_cast<std::int32_t>(std::max(i, k) + 1));
            }
            apply(full, eq, 1e-13);
        }
    }
    return y;
}

TEST(CreateMijaLhs, AgreesWithTheCoefficientMatrix) {
    std::map<std::int32_t, int> seen;  // how many parts of each code
    std::int64_t compared = 0, left_out = 0;
    int with_shared = 0, with_combieff = 0;
    for (std::uint32_t seed = 1; seed <= 400; ++seed) {
        std::mt19937 generator(seed);
        bool shared = false;
        const std::vector<effect_spec> effects = random_effects(generator, shared);
        const auto ntrait = static_cast<std::int32_t>(generator() % 4 + 1);
        const bool combieff = generator() % 4 == 0;
        model_case model(ntrait, effects, seed, 120, generator() % 2 == 0, combieff);
        choose_letters(model, generator);
        const thread_count threads(static_cast<int>(generator() % 4 + 1));
        const std::string what = "seed " + std::to_string(seed) + ", letters " + model.param.structprecond;
        with_shared += shared ? 1 : 0;
        with_combieff += combieff ? 1 : 0;

        const std::vector<mija> assembled = assemble_mija_lhs(model.input(), model.log);
        for (const mija& part : assembled) ++seen[part.type];
        expect_parts_of(model, assembled, what);
        if (HasFatalFailure()) return;

        preconditioner m = create_mija_lhs(model.input(), model.log);
        std::vector<double> x, y(model.param.neq, std::numeric_limits<double>::quiet_NaN()), tolerance;
        for (std::int32_t i = 0; i < model.param.neq; ++i) x.push_back(model.real());
        const std::vector<double> expected = expected_product(model, assembled, x, tolerance);
        const preconditioned_sums sums = m.preconditionertimesx(y, x);
        double yy = 0.0, xy = 0.0, size = 0.0;
        for (std::size_t i = 0; i < y.size(); ++i) {
            ASSERT_TRUE(std::isfinite(y[i])) << what << ", equation " << i;
            yy += y[i] * y[i];
            xy += x[i] * y[i];
            size += std::fabs(x[i] * y[i]);
        }
        ASSERT_NEAR(sums.yy, yy, 1e-13 * yy) << what;
        ASSERT_NEAR(sums.xy, xy, 1e-13 * size) << what;
        for (std::size_t i = 0; i < y.size(); ++i) {
            if (tolerance[i] < 0.0) {
                ++left_out;
                continue;
            }
            ++compared;
            ASSERT_NEAR(y[i], expected[i], tolerance[i]) << what << ", equation " << i;
        }
    }
    for (const std::int32_t code : {0, 1, 2, 4, 5, 6, 7, -5, -6, -7}) EXPECT_GT(seen[code], 10) << code;
    EXPECT_GT(with_shared, 50);
    EXPECT_GT(with_combieff, 50);
    EXPECT_GT(compared, 8 * left_out);
}

TEST(CreateMijaLhs, DoesNotDependOnTheNumberOfThreads) {
    // Large enough for parts that threads share by levels.
    model_case model(3,
                     {{.nlevel = 2000},
                      {.type = 1, .nlevel = 30, .ncov = 2, .nnest = 3000},
                      {.nlevel = 5},
                      {.nlevel = 3000, .random = 1, .ncorrelated = 1},
                      {.type = 1, .nlevel = 30, .ncov = 2, .nnest = 3000, .random = 1}},
                     7, 60000, true);
    test::set_letters(model.param, "dbbNN");
    std::vector<mija> reference;
    for (const int n : {1, 2, 3, 4, 8}) {
        const thread_count threads(n);
        std::vector<mija> m = assemble_mija_lhs(model.input(), model.log);
        if (reference.empty())
            reference = std::move(m);
        else
            for (std::size_t i = 0; i < reference.size(); ++i) {
                EXPECT_EQ(m[i].mat, reference[i].mat) << n;
                EXPECT_EQ(m[i].block, reference[i].block) << n;
            }
    }
}

TEST(CreateMijaLhs, KeepsGrowingSumsOfManyRecords) {
    model_case model(1, {{.nlevel = 1}}, 3, 20);
    std::int64_t nrec = 17000000;  // beyond 2^24, where a sum of ones in single precision stops
    model.data.effect = matrix<std::int32_t>(2, nrec, 1);
    model.data.combitrait.assign(static_cast<std::size_t>(nrec), 1);
    model.rinv.values = {1.0, 1.0};
    const std::vector<mija> m = assemble_mija_lhs(model.input(), model.log);
    EXPECT_FLOAT_EQ(m[0].mat[0], 17000000.0f);
}

// ---- messages

TEST(CreateMijaLhs, LogsItsSteps) {
    model_case model(1,
                     {{.nlevel = 3}, {.nlevel = 2}, {.nlevel = 4, .random = 1}, {.nlevel = 4, .random = 10}});
    test::set_letters(model.param, "suNN");
    captured_log log;

    static_cast<void>(create_mija_lhs(model.input(), log));

    const std::string text = log.text();
    std::size_t place = 0;
    for (const char* line :
         {"Start the setup of the preconditioner (compiled on ", "Number of entries: 10\n",
          "Memory (MB) needed for the preconditioner of effect 3: ",
          "Addition of the least square part to the preconditioner\n",
          "Addition of the random contributions for the diagonal effect 3\n",
          "Addition of external sparse matrix to preconditioner\n",
          "All contributions for effects are added to the preconditioner\n", "    Wall clock time (s): ",
          "Transfer from COO to CRS for effect 1\n", "\nStart inversion of the preconditioner\n",
          "Inversion of the preconditioner - Wall clock time (s): ",
          "Size of the preconditioner (per effect):\n", "    Effect(s) 1-2 (s): 5 x 5, number of elements: ",
          "    Effect 3 (b): 1 x 1 x 4\n", "    Effect 4 (b): 1 x 1 x 4\n"}) {
        const std::size_t found = text.find(line, place);
        ASSERT_NE(found, std::string::npos) << line << "\nin\n" << text;
        place = found;
    }
}

TEST(CreateMijaLhs, LogsTheTransfersAndSizesOfTheOtherForms) {
    model_case model(2, {{.nlevel = 3},
                         {.nlevel = 2},
                         {.nlevel = 4},
                         {.nlevel = 4},
                         {.nlevel = 5},
                         {.nlevel = 3, .random = 1, .ncorrelated = 1},
                         {.nlevel = 3, .random = 1}});
    test::set_letters(model.param, "furuwNN");
    captured_log log;

    const preconditioner m = create_mija_lhs(model.input(), log);

    EXPECT_EQ(m.mija_global()[0].type, 5);
    EXPECT_EQ(m.mija_global()[1].type, -5);
    for (const char* line :
         {"Transfer from full to sparse for effect 1\n", "Transfer from COO to CRS for effect 1\n",
          "Transfer from COO to dense matrix for effect 3\n", "    Effect(s) 1-2 (s): 10 x 10, ",
          "    Effect(s) 3-4 (r): 4 x 4 x 4\n", "    Effect 5 (w): 10 x 10\n",
          "    Effect(s) 6-7 (b): 4 x 4 x 3\n"})
        EXPECT_THAT(log.text(), HasSubstr(line));
}

TEST(CreateMijaLhs, RefusesDenseMatricesThatAreTooLarge) {
    const auto refusal = [](const std::string& letters, std::int32_t nlevel, logger& log) {
        model_case model(1, {{.nlevel = nlevel}, {.nlevel = 1}});
        test::set_letters(model.param, letters);
        return fatal_message([&] { static_cast<void>(assemble_mija_lhs(model.input(), log)); });
    };
    captured_log log;
    EXPECT_EQ(refusal("fu", 20000, log),
              "This type of preconditioner 3 is not implemented for a block >20000");
    EXPECT_EQ(refusal("wN", 20001, log),
              "This type of preconditioner 4 is not implemented for a block >20000");
    EXPECT_THAT(log.text(), HasSubstr("modpreconditioneriod % create_mija_lhs ("));
}

TEST(CreateMijaLhs, RefusesLevelsThatDoNotExist) {
    model_case model(1, {{.nlevel = 3}});
    model.data.effect(0, 5) = 4;
    EXPECT_THAT(fatal_message([&] { static_cast<void>(assemble_mija_lhs(model.input(), model.log)); }),
                HasSubstr("Record 6: level 4 of effect 1 is above its number of levels (3)"));
}

TEST(CreateMijaLhs, RefusesBlocksOfSharedEquationsWithLevelsOfAnotherSize) {
    const std::vector<effect_spec> effects{{.nlevel = 6},
                                           {.type = 1, .nlevel = 9, .ncov = 2, .nnest = 3, .shares = 1}};
    model_case model(1, effects);
    expect_parts_of(model, assemble_mija_lhs(model.input(), model.log), "diagonal");

    test::set_letters(model.param, "bN");
    EXPECT_THAT(fatal_message([&] { static_cast<void>(assemble_mija_lhs(model.input(), model.log)); }),
                HasSubstr("The effects 1 and 2 share equations, but differ"));
}

TEST(AddleastsquarepartToPreconditioner, RefusesUnknownCodes) {
    model_case model(1, {{.nlevel = 3}});
    std::vector<mija> m = modpreconditioneriod::setstructure_to_preconditioner(model.param, model.log);
    m[0].type = 9;
    modpreconditioneriod::cootmp_type cootmp(1);
    EXPECT_EQ(fatal_message([&] {
                  modpreconditioneriod::addleastsquarepart_to_preconditioner(model.input(), m, cootmp,
                                                                             model.log);
              }),
              "This type of preconditioner 9 fort the effect 1 is not implemented");
}

// ---- random part

TEST(AddrandompartToPreconditioner, RefusesTypesWithoutARow) {
    for (const std::int32_t type : {20, 22, 23, 30}) {
        model_case model(1, {{.nlevel = 3}, {.nlevel = 3, .random = 1}});
        model.param.type_random[1] = model.param.type_random_eff[1] = type;
        captured_log log;
        EXPECT_EQ(fatal_message([&] { static_cast<void>(create_mija_lhs(model.input(), log)); }),
                  " This type of effect " + std::to_string(type) + " is not implemented");
        EXPECT_THAT(log.text(), HasSubstr("modpreconditioneriod % addrandompart_to_preconditioner ("));
        EXPECT_THAT(log.text(), Not(HasSubstr("Addition of the least square part")));
    }
}

TEST(AddrandompartToPreconditioner, RefusesARandomEffectWithoutEquations) {
    model_case model(1, {{.nlevel = 3}, {.nlevel = 3, .random = 1}});
    model.param.landeffect = true;
    model.param.andeffect = {1, 1};
    setsumlevel(model.param, model.log);
    captured_log log;
    EXPECT_EQ(fatal_message([&] { static_cast<void>(create_mija_lhs(model.input(), log)); }),
              "This type of preconditioner 0 is not implemented");
    EXPECT_THAT(log.text(), HasSubstr("modpreconditioneriod % addrandompart_eff_dia_to_preconditioner ("));
}

TEST(AddrandompartToPreconditioner, RefusesAMatrixThatIsMissing) {
    model_case model(1, {{.nlevel = 3}, {.nlevel = 3, .random = 10}});
    model.asparse[1].reset();
    captured_log log;
    EXPECT_EQ(fatal_message([&] { static_cast<void>(create_mija_lhs(model.input(), log)); }),
              "asparsesub is not allocated for effect 2");
    EXPECT_THAT(log.text(),
                HasSubstr("modpreconditioneriod % addrandompart_externalmat_to_preconditioner ("));

    coosparse coo(2, {}, {}, true);
    model.asparse[1] = std::make_unique<crssparse>(convertfromcootocrs(coo));
    EXPECT_THAT(fatal_message([&] { static_cast<void>(create_mija_lhs(model.input(), log)); }),
                HasSubstr("the matrix of effect 2 has 2 rows, but the effect 3 levels"));
}

// ---- details

TEST(ConvertCooToDense, RefusesElementsOutsideTheGroup) {
    mija part;
    part.type = 7;
    part.perm = {1, 3, 2, 4};
    part.dim1 = part.dim2 = 2;
    part.dim3 = 2;
    coosparse coo(5, {}, {}, true);
    coo.add(1, 1, 2.0);
    coo.add(1, 3, 0.5);
    coo.add(1, 2, 0.25);  // between the levels {1, 3} and {2, 4}
    coo.add(4, 4, 3.0);
    captured_log log;
    modpreconditioneriod::convert_coo_to_dense(coo, part, log);
    EXPECT_THAT(part.block, testing::ElementsAre(2.0f, 0.5f, 0.0f, 0.0f, 0.0f, 3.0f));

    coo.add(2, 5, 1.0);
    EXPECT_THAT(fatal_message([&] { modpreconditioneriod::convert_coo_to_dense(coo, part, log); }),
                HasSubstr("Internal error"));
    EXPECT_THAT(log.text(), HasSubstr("modpreconditioner % convert_coo_to_dense ("));
}

TEST(EnsurePdmat, LiftsTheDiagonalOfFixedEffectsOnly) {
    model_case model(
        1, {{.nlevel = 1}, {.nlevel = 1, .ncorrelated = 1}, {.nlevel = 1}, {.nlevel = 1, .random = 1}});
    test::set_letters(model.param, "suuu");
    const std::vector<mija> m = modpreconditioneriod::setstructure_to_preconditioner(model.param, model.log);
    coosparse coo(4, {}, {}, true);
    for (std::int32_t i = 1; i <= 4; ++i) coo.add(i, i, 2.0);
    coo.add(1, 2, 1.0);

    modpreconditioneriod::ensure_pdmat(model.param, m, coo, 1);

    EXPECT_DOUBLE_EQ(coo.get(1, 1), 2.0002);
    EXPECT_EQ(coo.get(2, 2), 2.0);  // correlated effects are passed over
    EXPECT_EQ(coo.get(3, 3), 2.0);
    EXPECT_EQ(coo.get(4, 4), 2.0);
    EXPECT_EQ(coo.get(1, 2), 1.0);
}

TEST(Scaleinvprec, MultipliesTheInverseOfItsEffectOnly) {
    const std::vector<effect_spec> effects{{.nlevel = 3},
                                           {.nlevel = 3, .random = 1, .ncorrelated = 1},
                                           {.nlevel = 3, .random = 1},
                                           {.nlevel = 4},
                                           {.nlevel = 2},
                                           {.nlevel = 4}};
    for (const char* letters : {"NNNNNN", "bNNsuN", "wNNruN", "NNNNNb"}) {
        if (letters[3] == 'r') continue;  // effects 4 and 5 differ in their levels
        model_case model(2, effects);
        test::set_letters(model.param, letters);
        std::vector<double> x(model.param.neq), plain(x.size()), scaled(x.size());
        for (double& value : x) value = model.real();
        create_mija_lhs(model.input(), model.log).preconditionertimesx(plain, x);
        for (std::int32_t e = 1; e <= 6; ++e) {
            model.param.solver.scaleinvprec.assign(6, 1.0);
            model.param.solver.scaleinvprec[e - 1] = 2.0;
            captured_log log;
            preconditioner m = create_mija_lhs(model.input(), log);
            m.preconditionertimesx(scaled, x);
            const mija& part = m.mija_global()[e - 1];
            const bool follows = part.firsteffect != 0 && part.firsteffect != e;
            EXPECT_EQ(log.text().find("is not used: its part belongs to another effect") != std::string::npos,
                      follows);
            for (std::int32_t i = 1; i <= model.param.neq; ++i) {
                const bool inside = !follows && i >= part.first && i <= part.last;
                EXPECT_NEAR(scaled[i - 1], (inside ? 2.0 : 1.0) * plain[i - 1], 1e-5 * std::abs(plain[i - 1]))
                    << letters << " " << e << " " << i;
            }
        }
    }
}

}  // namespace
}  // namespace zendar
