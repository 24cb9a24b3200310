#include "modenum.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

namespace zendar {
namespace {

using enum block_word;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

std::vector<std::int32_t> codes_where(bool (*predicate)(const random_type_entry&)) {
    std::vector<std::int32_t> codes;
    for (const auto& entry : random_types())
        if (predicate(entry)) codes.push_back(entry.code);
    return codes;
}

TEST(RandomTypes, StandInAscendingOrderOfTheirCodes) {
    EXPECT_THAT(codes_where([](const random_type_entry&) { return true; }),
                ElementsAre(0, 1, 3, 5, 7, 9, 10, 20, 22, 23, 30, 103, 105, 109, 203));
}

TEST(RandomTypes, ListTheWordsOfTheirBlocksInOrder) {
    const auto words = [](std::int32_t code) {
        const auto span = find_random_type(code)->words;
        return std::vector<block_word>(span.begin(), span.end());
    };

    for (const std::int32_t code : {0, 1, 20, 22, 23, 30}) EXPECT_THAT(words(code), IsEmpty()) << code;
    EXPECT_THAT(words(3), ElementsAre(file1, file2));
    EXPECT_THAT(words(5), ElementsAre(file1, nupg, file2));
    EXPECT_THAT(words(7), ElementsAre(file1, nupg, file2, file3));
    EXPECT_THAT(words(9), ElementsAre(file1, nupg, file2));
    EXPECT_THAT(words(10), ElementsAre(file1));
    EXPECT_THAT(words(103), ElementsAre(file1, file2, file4));
    EXPECT_THAT(words(105), ElementsAre(file1, nupg, file2, file4));
    EXPECT_THAT(words(109), ElementsAre(file1, nupg, file2, file4));
    EXPECT_THAT(words(203), ElementsAre(file1, file2));
}

TEST(RandomTypes, TellWhatFollowsTheWords) {
    EXPECT_THAT(codes_where([](const auto& t) { return t.covariance == block_covariance::none; }),
                ElementsAre(0));
    EXPECT_THAT(codes_where([](const auto& t) { return t.covariance == block_covariance::huge; }),
                ElementsAre(20, 23));
    EXPECT_THAT(codes_where([](const auto& t) { return t.covariance == block_covariance::huge_linked; }),
                ElementsAre(22, 30));
    EXPECT_THAT(codes_where([](const auto& t) { return t.covariance == block_covariance::matrix_file; }),
                ElementsAre(1, 3, 5, 7, 9, 10, 103, 105, 109, 203));
}

TEST(RandomTypes, InvertTheMatrixOfEveryTypeThatReadsOne) {
    EXPECT_THAT(codes_where([](const auto& t) { return t.inverted; }),
                ElementsAre(1, 3, 5, 7, 9, 10, 103, 105, 109, 203));
}

TEST(RandomTypes, AgreeWithThePredicatesOfTheCodes) {
    for (const auto& entry : random_types()) {
        EXPECT_EQ(entry.pedigree, is_pedigree_code(entry.code)) << entry.code;
        EXPECT_EQ(entry.ploidy, is_ploidy_code(entry.code)) << entry.code;
    }
    EXPECT_THAT(codes_where([](const auto& t) { return t.ploidy; }), ElementsAre(203));
}

TEST(RandomTypes, HaveALogTextForEachCovarianceLine) {
    for (const auto& entry : random_types()) {
        const std::string_view expected = entry.covariance != block_covariance::matrix_file ? ""
                                          : entry.code == 1  ? "Read the covariance matrix"
                                          : entry.code == 10 ? "Read the (genetic) covariance matrix"
                                                             : "Read the genetic covariance matrix";
        EXPECT_EQ(entry.log_text, expected) << entry.code;
    }
}

TEST(FindRandomType, GivesNothingForACodeThatIsNotDefined) {
    for (const std::int32_t code : {-1, 2, 4, 8, 21, 104, 204})
        EXPECT_EQ(find_random_type(code), nullptr) << code;
}

TEST(IsA22iEffect, HoldsFrom103To109) {
    EXPECT_FALSE(is_a22i_effect(102));
    EXPECT_TRUE(is_a22i_effect(103));
    EXPECT_TRUE(is_a22i_effect(109));
    EXPECT_FALSE(is_a22i_effect(110));
}

TEST(IsPedigreeCode, HoldsInItsThreeRanges) {
    std::vector<std::int32_t> found;
    for (std::int32_t code = 0; code < 300; ++code)
        if (is_pedigree_code(code)) found.push_back(code);
    std::vector<std::int32_t> expected{3, 4, 5, 6, 7, 8, 9, 10};
    for (std::int32_t code = 103; code <= 109; ++code) expected.push_back(code);
    for (std::int32_t code = 203; code <= 209; ++code) expected.push_back(code);
    EXPECT_THAT(found, ElementsAreArray(expected));
}

TEST(IsHugeEffect, HoldsForTheTwoHugeTypes) {
    EXPECT_FALSE(is_huge_effect(teff_class));
    EXPECT_FALSE(is_huge_effect(teff_covariable));
    EXPECT_TRUE(is_huge_effect(teff_huge));
    EXPECT_TRUE(is_huge_effect(teff_huge_iod));
    EXPECT_FALSE(is_huge_effect(4));
}

TEST(Solvers, HaveNameLogTextAndFamily) {
    std::vector<std::string> rows;
    for (const auto& s : solvers())
        rows.push_back(std::to_string(s.code) + " " + std::string(s.name) + " " + std::string(s.log_text) +
                       (s.iod ? " iod" : ""));
    EXPECT_THAT(rows, ElementsAre("0 pardiso Chosen solver: IN-CORE + DIRECT + PARDISO",
                                  "19 fpcg_inmem Chosen solver: IN-CORE + FPCG + BLOCK-JACOBI",
                                  "20 pcg_inmem Chosen solver: IN-CORE + PCG",
                                  "21 pcg_inmem_block Chosen solver: IN-CORE + PCG + BLOCK-JACOBI",
                                  "25 dpcg_inmem Chosen solver: IN-CORE + DPCG",
                                  "120 pcg_iod Chosen solver: IOD + PCG iod",
                                  "125 dpcg_iod Chosen solver: IOD + DPCG iod",
                                  "126 dpcg_iod_real Chosen solver: IOD + DPCG + real iod",
                                  "150 cheb_iod Chosen solver: IOD + CHEBYSHEV iod"));
}

TEST(Solvers, BelongToExactlyOneFamily) {
    for (const auto& s : solvers()) {
        EXPECT_EQ(find_solver(s.code), &s);
        EXPECT_EQ(is_iod_solver(s.code), s.iod);
        EXPECT_EQ(is_inmemory_solver(s.code), !s.iod);
    }
    EXPECT_EQ(find_solver(121), nullptr);
    EXPECT_FALSE(is_iod_solver(121));
    EXPECT_FALSE(is_inmemory_solver(121));
}

}  // namespace
}  // namespace zendar
