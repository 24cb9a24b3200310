#include "modpedigree_partition.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "captured_log.hpp"
#include "modpedigree_test_support.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::dense;
using test::fatal_message;
using test::largest_difference;
using test::parents_of;
using test::pedigree_with_f;
using testing::ElementsAre;
using testing::HasSubstr;

matrix<double> block(const matrix<double>& m, const std::vector<std::int32_t>& rows,
                     const std::vector<std::int32_t>& cols) {
    matrix<double> part(std::ssize(rows), std::ssize(cols));
    for (std::size_t i = 0; i < rows.size(); ++i)
        for (std::size_t j = 0; j < cols.size(); ++j) part(i, j) = m(rows[i] - 1, cols[j] - 1);
    return part;
}

matrix<double> product(const matrix<double>& a, const matrix<double>& b, bool transposed = false) {
    matrix<double> c(transposed ? a.cols() : a.rows(), b.cols());
    for (std::int64_t i = 0; i < c.rows(); ++i)
        for (std::int64_t j = 0; j < c.cols(); ++j)
            for (std::int64_t k = 0; k < b.rows(); ++k) c(i, j) += (transposed ? a(k, i) : a(i, k)) * b(k, j);
    return c;
}

std::vector<std::int32_t> random_list(std::int32_t nanimal, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<std::int32_t> list;
    for (std::int32_t i = 1; i <= nanimal; ++i)
        if (random() % 3 == 0) list.push_back(i);
    if (list.empty()) list.push_back(nanimal);
    std::ranges::shuffle(list, random);
    return list;
}

constexpr partition_blocks all_blocks{true, true, true};

/// A^22 - A^21 (A^11)^-1 A^12 of the extracted pedigree against the inverse of the listed animals' A.
void check_inverse_of_a22(const matrix<std::int32_t>& parents, std::int32_t nupg, const matrix<double>& gamma,
                          const std::vector<std::int32_t>& list) {
    captured_log log;
    const pedigree_type ped = pedigree_with_f(parents, nupg, gamma);
    const extracted_pedigree part = extractped(ped, list, log);
    const partitioned_ainv blocks = computeasubsparse(part.ped, 1, part.list, all_blocks, log);
    const matrix<double> a12 = dense(blocks.a12);
    matrix<double> result = dense(blocks.a22);
    const matrix<double> away = product(a12, product(test::dense_inverse(dense(blocks.a11)), a12), true);
    for (std::size_t k = 0; k < result.values().size(); ++k) result.values()[k] -= away.values()[k];
    const matrix<double> a = test::tabular_relationship(parents, nupg, gamma);
    ASSERT_LT(largest_difference(result, test::dense_inverse(block(a, list, list))), 1e-9);
}

TEST(Computeasubsparse, GivesTheInverseOfTheListedAnimalsRelationships) {
    for (std::uint64_t seed = 1; seed <= 80; ++seed) {
        SCOPED_TRACE(seed);
        test::pedigree_choice choice;
        choice.nanimal = 2 + static_cast<std::int32_t>(seed % 60);
        choice.nupg = static_cast<std::int32_t>(seed % 3);
        choice.selfing = seed % 4 == 0;
        check_inverse_of_a22(test::random_pedigree(choice, seed), choice.nupg, {},
                             random_list(choice.nanimal, seed));
    }
}

TEST(Computeasubsparse, GivesItWithMetafounders) {
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        test::pedigree_choice choice;
        choice.nanimal = 2 + static_cast<std::int32_t>(seed % 40);
        choice.nupg = 1 + static_cast<std::int32_t>(seed % 3);
        choice.complete = true;
        check_inverse_of_a22(test::random_pedigree(choice, seed), choice.nupg,
                             test::random_metarel(choice.nupg, seed), random_list(choice.nanimal, seed));
    }
}

TEST(Computeasubsparse, HasTheBlocksOfTheWholeInverse) {
    const auto parents = test::random_pedigree({.nanimal = 40}, 3);
    const pedigree_type ped = pedigree_with_f(parents, 0);
    const std::vector<std::int32_t> list = random_list(40, 5);
    captured_log log;
    const partitioned_ainv blocks = computeasubsparse(ped, 1, list, all_blocks, log);
    const matrix<double> inverse = test::dense_inverse(test::tabular_relationship(parents, 0));
    EXPECT_LT(largest_difference(dense(blocks.a11), block(inverse, blocks.type1_level, blocks.type1_level)),
              1e-10);
    EXPECT_LT(largest_difference(dense(blocks.a12), block(inverse, blocks.type1_level, list)), 1e-10);
    EXPECT_LT(largest_difference(dense(blocks.a22), block(inverse, list, list)), 1e-10);
}

TEST(Computeasubsparse, PutsAPairOfParentsOfBothTypesIntoA12Once) {
    const pedigree_type ped = pedigree_with_f(parents_of({{0, 0}, {0, 0}, {1, 2}}), 0);
    captured_log log;
    const partitioned_ainv blocks = computeasubsparse(ped, 1, std::vector{2}, all_blocks, log);
    EXPECT_THAT(blocks.type1_level, ElementsAre(1, 3));
    EXPECT_EQ(blocks.a12.totalnumberofelements(), 2);
    EXPECT_DOUBLE_EQ(blocks.a12.get(1, 1), 0.5);
    EXPECT_DOUBLE_EQ(blocks.a12.get(2, 1), -1.0);
}

TEST(Computeasubsparse, AddsADummyAncestorWhenAllLevelsAreListed) {
    const pedigree_type ped = pedigree_with_f(parents_of({{0, 0}, {0, 0}}), 0);
    captured_log log;
    const partitioned_ainv blocks = computeasubsparse(ped, 4, std::vector{1, 2}, all_blocks, log);
    EXPECT_THAT(blocks.type1_level, ElementsAre(0));
    EXPECT_EQ(blocks.a11.getdim(1), 1);
    EXPECT_EQ(blocks.a11.get(1, 1), 1.0);
    EXPECT_EQ(blocks.a12.getdim(1), 1);
    EXPECT_EQ(blocks.a12.totalnumberofelements(), 0);
    EXPECT_EQ(blocks.a22.get(1, 2), 0.0);
    EXPECT_THAT(log.text(),
                HasSubstr("Effect 4: no ungenotyped ancestors of genotyped individuals were found!\n"
                          "A dummy (unrelated) ungenotyped ancestor will be assigned!\n"));
}

TEST(Computeasubsparse, ComputesOnlyWhatIsAskedFor) {
    const pedigree_type ped = pedigree_with_f(test::random_pedigree({.nanimal = 20}, 3), 0);
    const std::vector<std::int32_t> list = random_list(20, 5);
    captured_log log;
    const partitioned_ainv blocks = computeasubsparse(ped, 1, list, {.a22 = true}, log);
    EXPECT_EQ(blocks.a22.getdim(1), std::ssize(list));
    EXPECT_EQ(blocks.a11.getdim(1), 0);
    EXPECT_THAT(log.text(), HasSubstr("    Memory (MB) needed for sparse sub-Ainv (A22): .00\n"));
    EXPECT_THAT(log.text(), testing::Not(HasSubstr("(A11)")));
    EXPECT_EQ(fatal_message([&] { static_cast<void>(computeasubsparse(ped, 1, list, {}, log)); }),
              "Internal error: this option is not possible!");
}

TEST(Computeasubsparse, NeedsCoefficientsAndAllMetafounders) {
    captured_log log;
    const std::vector<std::int32_t> list{1};
    pedigree_type ped = pedigree_with_f(parents_of({{0, 0}, {1, 0}}), 0);
    ped.f.clear();
    const auto message = [&] {
        return fatal_message([&] { static_cast<void>(computeasubsparse(ped, 1, list, all_blocks, log)); });
    };
    EXPECT_EQ(message(), "No inbreeding coefficients allocated");
    ped.ismeta = true;
    EXPECT_EQ(message(), "Pedigree inbreeding must be available with metafounders!");
    ped = pedigree_with_f(parents_of({{0, 0}, {0, 0}}), 1, matrix<double>(1, 1, 0.5));
    EXPECT_EQ(message(), "Metafounder (=0) not defined.\nCheck your pedigree");
}

// ---- differences

void check_difference(const matrix<std::int32_t>& parents, std::int32_t nupg, const matrix<double>& gamma,
                      const std::vector<std::int32_t>& list) {
    captured_log log;
    const pedigree_type ped = pedigree_with_f(parents, nupg, gamma);
    const matrix<double> found = dense(computeadiffsparse(ped, 1, list, diffpedigree(ped, list, log), log));
    const extracted_pedigree part = extractped(ped, list, log);
    const matrix<double> of_part = dense(computeasubsparse(part.ped, 1, part.list, {.a22 = true}, log).a22);
    matrix<double> whole = gamma.empty() && nupg > 0
                               ? test::dense_inverse_with_groups(parents, nupg)
                               : test::dense_inverse(test::tabular_relationship(parents, nupg, gamma));
    matrix<double> expected = block(whole, list, list);
    for (std::size_t k = 0; k < expected.values().size(); ++k) expected.values()[k] -= of_part.values()[k];
    ASSERT_LT(largest_difference(found, expected), 1e-9);
}

TEST(Computeadiffsparse, MakesTheBlockOfTheWholeInverse) {
    for (std::uint64_t seed = 1; seed <= 80; ++seed) {
        SCOPED_TRACE(seed);
        test::pedigree_choice choice;
        choice.nanimal = 2 + static_cast<std::int32_t>(seed % 60);
        choice.nupg = static_cast<std::int32_t>(seed % 3);
        choice.complete = choice.nupg > 0;
        choice.selfing = seed % 4 == 0;
        const auto list = random_list(choice.nanimal, seed);
        const auto parents = test::random_pedigree(choice, seed);
        check_difference(parents, choice.nupg, {}, list);
        if (choice.nupg > 0)
            check_difference(parents, choice.nupg, test::random_metarel(choice.nupg, seed), list);
        if (HasFatalFailure()) return;
    }
}

TEST(Computeadiffsparse, CountsKnownParentsWithoutCoefficients) {
    // 4, 5 and 6 are virtual: one listed parent, two, one and one that is not listed.
    pedigree_type ped =
        pedigree_with_f(parents_of({{0, 0}, {0, 0}, {0, 0}, {1, 0}, {1, 2}, {1, 3}, {4, 5}}), 0);
    ped.f.clear();
    captured_log log;
    const std::vector<std::int32_t> list{2, 1}, levels = diffpedigree(ped, list, log);
    EXPECT_THAT(levels, ElementsAre(4, 5, 6));
    EXPECT_THAT(log.text(), HasSubstr("Number of animals removed from pedigree: 2\nWall clock time (s): "));
    const crssparse diff = computeadiffsparse(ped, 3, list, levels, log);
    EXPECT_DOUBLE_EQ(diff.get(1, 1), 2.0 / 4.0);
    EXPECT_DOUBLE_EQ(diff.get(1, 2), 2.0 / 4.0);
    EXPECT_DOUBLE_EQ(diff.get(2, 2), (4.0 / 3.0 + 2.0 + 2.0) / 4.0);
    EXPECT_THAT(log.text(),
                HasSubstr("Computation of diff sparse relationship matrices (without metafounders)...\n"
                          "Effect 3\nNumber of virtual levels (animals)            : 3\n"
                          "Number of levels (animals) considered (type 2): 2\n"
                          "Size of cov%indice / maximum ID               : 7\n"
                          "    Memory (MB) needed for sparse sub-Ainv (A22): .00\n"));
}

TEST(Computeadiffsparse, NeedsCoefficientsAndAllMetafounders) {
    captured_log log;
    pedigree_type ped = pedigree_with_f(parents_of({{2, 2}, {0, 0}}), 1, matrix<double>(1, 1, 0.5));
    ped.f.clear();
    const std::vector<std::int32_t> list{1};
    EXPECT_EQ(fatal_message([&] { static_cast<void>(computeadiffsparse(ped, 1, list, {}, log)); }),
              "Pedigree inbreeding must be available with metafounders!");
    EXPECT_THAT(log.text(),
                HasSubstr("Computation of diff sparse relationship matrices with metafounders...\n"));
}

TEST(Extractped, TakesTheAncestorsInTheOrderOfTheirCodes) {
    // 6 and 7 are groups; 5 is no ancestor.
    pedigree_type ped =
        pedigree_with_f(parents_of({{6, 7}, {0, 6}, {1, 2}, {3, 7}, {1, 2}, {0, 0}, {0, 0}}), 2);
    ped.f[2] = 0.25;
    captured_log log;
    const extracted_pedigree part = extractped(ped, std::vector{4, 2}, log);
    EXPECT_THAT(part.level, ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(part.list, ElementsAre(4, 2));
    EXPECT_THAT(part.ped.ped.values(), ElementsAre(0, 0, 0, 0, 1, 2, 3, 0));
    EXPECT_THAT(part.ped.f, ElementsAre(0, 0, 0.25, 0));
    EXPECT_EQ(part.ped.nupg, 0);
    EXPECT_EQ(log.text(), "Extraction of the ancestors\nNumber of extracted animals: 4\n");
}

TEST(Extractped, RefusesListsThatDoNotFit) {
    const pedigree_type ped = pedigree_with_f(parents_of({{3, 0}, {1, 3}, {0, 0}}), 1);
    captured_log log;
    const auto message = [&](std::vector<std::int32_t> list) {
        return fatal_message([&] { static_cast<void>(extractped(ped, list, log)); });
    };
    EXPECT_EQ(message({3}), "Level 3 is listed, but the pedigree has the animals 1 to 2");
    EXPECT_EQ(message({0}), "Level 0 is listed, but the pedigree has the animals 1 to 2");
    EXPECT_EQ(message({1, 2, 1}), "Level 1 is listed twice");
}

TEST(Extractprogeny, TakesTheDescendants) {
    const pedigree_type ped = pedigree_with_f(parents_of({{0, 0}, {0, 0}, {1, 2}, {0, 3}, {2, 0}}), 0);
    captured_log log;
    EXPECT_THAT(extractprogeny(ped, std::vector{1}, log), ElementsAre(1, 3, 4));
    EXPECT_EQ(log.text(),
              "Extraction of the progeny of the provided animals\n"
              "Number of extracted animals (listed + progeny): 3\n");
}

TEST(Zeroupgineped, CutsGroupsOffButNotMetafounders) {
    pedigree_type ped = pedigree_with_f(parents_of({{3, 0}, {1, 3}, {0, 0}}), 1);
    pedigree_type meta = pedigree_with_f(parents_of({{3, 3}, {1, 3}, {0, 0}}), 1, matrix<double>(1, 1, 0.5));
    zeroupgineped(2, ped);
    zeroupgineped(2, meta);
    EXPECT_THAT(ped.ped.values(), ElementsAre(0, 0, 1, 0, 0, 0));
    EXPECT_THAT(meta.ped.values(), ElementsAre(3, 3, 1, 3, 0, 0));
}

}  // namespace
}  // namespace zendar
