#include "modmmeiod_a22i.hpp"

#include <gmock/gmock.h>

#include <cmath>
#include <random>

#include "captured_log.hpp"
#include "magnitude.hpp"
#include "modbasic.hpp"
#include "modpedigree_test_support.hpp"
#include "relationship.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::pedigree_with_f;
using testing::ElementsAre;
using testing::HasSubstr;

matrix<double> inverse_of_a22(const matrix<std::int32_t>& parents, std::int32_t nupg,
                              std::span<const std::int32_t> list) {
    const matrix<double> a = test::tabular_relationship(parents, nupg);
    const std::int64_t n = std::ssize(list);
    matrix<double> part(n, n);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j)
            part(i, j) = a(list[static_cast<std::size_t>(i)] - 1, list[static_cast<std::size_t>(j)] - 1);
    return test::dense_inverse(part);
}

matrix<double> product(a22_inverse& a22i, const matrix<double>& x) {
    matrix<double> y(x.rows(), x.cols(), 77.0);
    std::vector<double> work(static_cast<std::size_t>(a22i.work_size(x.cols())), -1.0);
    a22i.computea22i_timesx(x.view(), y.view(), work);
    return y;
}

/// The whole inverse, by its product with the unit matrix.
void check(const matrix<std::int32_t>& parents, std::int32_t nupg, const std::vector<std::int32_t>& list) {
    captured_log log;
    a22_inverse a22i(pedigree_with_f(parents, nupg), 1, list, log);
    ASSERT_THAT(a22i.levels(), testing::ElementsAreArray(list));
    const matrix<double> expected = inverse_of_a22(parents, nupg, list);
    matrix<double> unit(a22i.size(), a22i.size());
    for (std::int64_t i = 0; i < unit.rows(); ++i) unit(i, i) = 1.0;
    const matrix<double> found = product(a22i, unit);
    double largest = 0.0;
    for (std::size_t k = 0; k < found.values().size(); ++k)
        largest = std::max(largest, test::magnitude(found.values()[k] - expected.values()[k]));
    ASSERT_LT(largest, 1e-9);
}

TEST(Computea22iTimesx, GivesTheInverseOfTheListedAnimalsRelationships) {
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937_64 random(seed);
        test::pedigree_choice choice;
        choice.nanimal = 1 + static_cast<std::int32_t>(random() % (seed % 20 == 0 ? 300 : 60));
        choice.nupg = static_cast<std::int32_t>(random() % 3);
        choice.complete = choice.nupg > 0 && random() % 2 == 0;
        choice.selfing = random() % 4 == 0;
        std::vector<std::int32_t> list;
        for (std::int32_t i = 1; i <= choice.nanimal; ++i)
            if (random() % 3 == 0) list.push_back(i);
        if (list.empty()) list.push_back(choice.nanimal);
        std::ranges::shuffle(list, random);
        check(test::random_pedigree(choice, seed), choice.nupg, list);
    }
}

TEST(Computea22iTimesx, TakesListsWithAllAncestors) {
    const matrix<std::int32_t> parents = test::random_pedigree({.nanimal = 12}, 5);
    check(parents, 0, {3, 1, 2, 12, 11, 4, 5, 6, 7, 8, 9, 10});
}

TEST(Computea22iTimesx, IsTheIdentityForFounders) {
    captured_log log;
    pedigree_type ped;
    ped.ped = matrix<std::int32_t>(2, 4);
    ped.nupg = 0;
    ped.f.assign(4, 0.0);
    a22_inverse a22i(ped, 3, {4, 2}, log);
    matrix<double> x(2, 1);
    x(0, 0) = 3.0;
    x(1, 0) = -5.0;
    EXPECT_THAT(product(a22i, x).values(), ElementsAre(3.0, -5.0));
    EXPECT_THAT(log.text(),
                HasSubstr("Effect 3: no ungenotyped ancestors of genotyped individuals were found!"));
}

TEST(Computediaga22i, EstimatesTheDiagonalAndRepeatsItself) {
    captured_log log;
    const matrix<std::int32_t> parents = test::random_pedigree({.nanimal = 80, .nupg = 2}, 9);
    std::vector<std::int32_t> list;
    for (std::int32_t i = 1; i <= 80; i += 2) list.push_back(i);
    a22_inverse a22i(pedigree_with_f(parents, 2), 1, list, log);
    const std::vector<double> estimate = computediaga22i(a22i, log);
    const matrix<double> exact = inverse_of_a22(parents, 2, list);
    ASSERT_EQ(estimate.size(), list.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
        const auto at = static_cast<std::int64_t>(i);
        // Variance of a sample: twice the sum of the squares beside the diagonal.
        double squares = 0.0;
        for (std::int64_t j = 0; j < exact.cols(); ++j)
            if (j != at) squares += exact(at, j) * exact(at, j);
        EXPECT_LE(test::magnitude(estimate[i] - exact(at, at)),
                  5.0 * std::sqrt(2.0 * squares / 1000.0) + 1e-12)
            << i;
    }
    EXPECT_EQ(computediaga22i(a22i, log), estimate);
    EXPECT_THAT(log.text(), HasSubstr("Start the Gibbs sampler for estimating diag(A22-1)...\n"));
    EXPECT_THAT(log.text(), HasSubstr("Number of iterations: 200\n"));
    EXPECT_THAT(log.text(), HasSubstr("Number of RHS       : 5\n"));
    EXPECT_THAT(log.text(), HasSubstr("End of Gibbs sampler - wall clock time (s): "));
}

// ---- the list --------------------------------------------------------------------------------------------

std::string message_of(const std::string& text, std::int32_t nanimal = 9) {
    test::temporary_directory directory;
    directory.write("list.txt", text);
    captured_log log;
    try {
        static_cast<void>(readlevels((directory.path() / "list.txt").string(), nanimal, log));
    } catch (const fatal_error& error) {
        std::string message = error.what() + ("\n" + log.text());
        const std::string folder = directory.path().string() + "/";
        if (const auto at = message.find(folder); at != std::string::npos) message.erase(at, folder.size());
        return message;
    }
    return "none";
}

TEST(Readlevels, TakesTheFirstWordOfEachLine) {
    test::temporary_directory directory;
    directory.write("list.txt", "3\n  1 cow 17\n\n9,x\n");
    captured_log log;
    EXPECT_THAT(readlevels((directory.path() / "list.txt").string(), 9, log), ElementsAre(3, 1, 9));
}

TEST(Readlevels, NamesTheFileAndTheLineOfWhatIsWrong) {
    EXPECT_THAT(message_of("3\nx\n"), HasSubstr("Level not correctly read at line 2"));
    EXPECT_THAT(message_of("3\nx\n"), HasSubstr("File list.txt: value 1"));
    EXPECT_THAT(message_of("3\n\n10\n"), HasSubstr("line 3"));
    EXPECT_THAT(message_of("3\n\n10\n"), HasSubstr("the level 10 is not one of the animals 1 to 9"));
    EXPECT_THAT(message_of("0\n"), HasSubstr("the level 0 is not one of the animals 1 to 9"));
    EXPECT_THAT(message_of("-4\n"), HasSubstr("the level -4 is not one of the animals 1 to 9"));
    EXPECT_THAT(message_of("99999999999999\n"), HasSubstr("Level not correctly read at line 1"));
    EXPECT_THAT(message_of("3\n4\n3\n"), HasSubstr("the level 3 stands on line 1 already"));
    EXPECT_THAT(message_of("\n \n"), HasSubstr("The file list.txt holds no level"));
    EXPECT_THAT(message_of("2.5\n"), HasSubstr("Level not correctly read at line 1"));
}

TEST(Readlevels, NamesAFileThatIsNotThere) {
    captured_log log;
    try {
        static_cast<void>(readlevels("no_such_list.txt", 9, log));
        FAIL();
    } catch (const fatal_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("The file no_such_list.txt cannot be read"));
    }
}

}  // namespace
}  // namespace zendar
