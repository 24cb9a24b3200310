#include <gmock/gmock.h>
#include <omp.h>

#include <algorithm>
#include <cmath>

#include "modsolver_test_support.hpp"

namespace zendar {
namespace {

using test::fatal_text;
using test::stored;
using testing::ElementsAre;
using testing::HasSubstr;

using widths = testing::Types<std::int32_t, std::int64_t>;

template <class Index>
class CreateMijaLhs : public testing::Test {
  protected:
    test::captured_log log_;
    std::mt19937 generator_{7};
};
TYPED_TEST_SUITE(CreateMijaLhs, widths);

TYPED_TEST(CreateMijaLhs, HasTheReciprocalsOfTheDiagonal) {
    matrix<double> c = test::second_differences(4);
    c(1, 1) = 4.0;
    c(3, 3) = 0.0;
    c(2, 3) = c(3, 2) = 0.0;
    mija_lhs m = create_mija_lhs(stored<TypeParam>(c), 1, this->log_);
    EXPECT_THAT(m.inverse, ElementsAre(0.5, 0.25, 0.5, 0.0));
    std::vector<double> y(4, 9.0);
    m.preconditionertimesx(y, std::vector<double>{2.0, 4.0, 6.0, 8.0});
    EXPECT_THAT(y, ElementsAre(1.0, 1.0, 3.0, 0.0));
    EXPECT_EQ(this->log_.text(),
              "  Creation of the preconditioner\nCreation of a preconditioner of diag. blocks of size 1\n");
}

TYPED_TEST(CreateMijaLhs, SolvesWithBlocksOfAnySize) {
    const int before = omp_get_max_threads();
    for (const std::int64_t size : {1, 2, 3, 5, 16, 17, 100}) {
        constexpr std::int64_t n = 17;
        const matrix<double> c = test::random_definite(n, this->generator_, 0.5);
        mija_lhs m = create_mija_lhs(stored<TypeParam>(c), size, this->log_);
        EXPECT_THAT(this->log_.text(), HasSubstr("Creation of a preconditioner of diag. blocks of size " +
                                                 std::to_string(size) + "\n"));
        const std::vector<double> x = test::random_vector(n, this->generator_);
        for (const int threads : {1, 4}) {
            omp_set_num_threads(threads);
            std::vector<double> y(n, 9.0);
            const preconditioned_sums sums = m.preconditionertimesx(y, x);
            EXPECT_NEAR(sums.yy, test::inner_product(y, y), 1e-12 * sums.yy);
            EXPECT_NEAR(sums.xy, test::inner_product(x, y), 1e-12 * sums.xy);
            for (std::int64_t first = 0; first < n; first += size) {
                const std::int64_t rows = std::min(size, n - first);
                matrix<double> block(rows, rows);
                for (std::int64_t i = 0; i < rows; ++i)
                    for (std::int64_t j = 0; j < rows; ++j) block(i, j) = c(first + i, first + j);
                const std::vector<double> expected =
                    test::dense_solve(block, {x.begin() + first, x.begin() + first + rows});
                for (std::int64_t i = 0; i < rows; ++i) EXPECT_NEAR(y[first + i], expected[i], 1e-9) << size;
            }
        }
        omp_set_num_threads(before);
    }
}

TYPED_TEST(CreateMijaLhs, LeavesDependentEquationsOfABlockOut) {
    matrix<double> c(3, 3, 1.0);  // of rank 1, and an equation without anything
    c(2, 0) = c(0, 2) = c(2, 1) = c(1, 2) = c(2, 2) = 0.0;
    mija_lhs m = create_mija_lhs(stored<TypeParam>(c), 3, this->log_);
    std::vector<double> y(3, 9.0);
    m.preconditionertimesx(y, std::vector<double>{2.0, 2.0, 2.0});
    EXPECT_THAT(y, ElementsAre(2.0, 0.0, 0.0));
}

TYPED_TEST(CreateMijaLhs, RefusesBlocksOfNoEquation) {
    const auto lhs = stored<TypeParam>(test::second_differences(3));
    EXPECT_EQ(fatal_text([&] { static_cast<void>(create_mija_lhs(lhs, 0, this->log_)); }),
              "The blocks of the preconditioner have no equation");
}

template <class Index>
class CreateMijaLhsBlock : public testing::Test {
  protected:
    std::string error(const std::vector<std::int64_t>& first, std::int64_t most = 1000) {
        const auto lhs = stored<Index>(test::second_differences(4));
        return fatal_text([&] { static_cast<void>(create_mija_lhs_block(lhs, first, log_, most)); });
    }
    test::solver_place place_;
    test::captured_log log_;
    std::mt19937 generator_{8};
};
TYPED_TEST_SUITE(CreateMijaLhsBlock, widths);

TYPED_TEST(CreateMijaLhsBlock, HasTheSubmatrixOfEachEffect) {
    const std::int64_t n = 60;
    const matrix<double> c = test::sparse_definite(n, this->generator_, 8);
    const crssparse whole = stored<std::int32_t>(c);
    const std::vector<std::int64_t> first = {1, 2, 20, 20, 55, 61};  // the third one has no equation
    mija_lhs_block m = create_mija_lhs_block(stored<TypeParam>(c), first, this->log_);
    EXPECT_EQ(this->log_.text(),
              "  A block (per effect)-jacobi preconditioner will be used and solved with PARDISO\n");
    EXPECT_THAT(m.first, ElementsAre(1, 2, 20, 55));
    const std::int32_t last[] = {1, 19, 54, 60};
    for (std::size_t k = 0; k < 4; ++k) {
        const crssparse expected = whole.submatrix(m.first[k], last[k], m.first[k], last[k]);
        EXPECT_EQ(m.block[k].get_rowptr(), expected.get_rowptr());
        EXPECT_EQ(m.block[k].get_colval(), expected.get_colval());
        EXPECT_EQ(m.block[k].get_nzval(), expected.get_nzval());
        EXPECT_TRUE(m.block[k].isupperstorage() && m.block[k].issymmetric() && m.block[k].issorted());
    }

    const std::vector<double> x = test::random_vector(n, this->generator_);
    std::vector<double> y(n, 9.0);
    const preconditioned_sums sums = m.preconditionertimesx(y, x);
    EXPECT_NEAR(sums.yy, test::inner_product(y, y), 1e-12 * sums.yy);
    EXPECT_NEAR(sums.xy, test::inner_product(x, y), 1e-12 * sums.xy);
    for (std::size_t k = 0; k < 4; ++k) {
        const std::int64_t rows = last[k] - m.first[k] + 1, before = m.first[k] - 1;
        matrix<double> block(rows, rows);
        for (std::int64_t i = 0; i < rows; ++i)
            for (std::int64_t j = 0; j < rows; ++j) block(i, j) = c(before + i, before + j);
        const std::vector<double> expected =
            test::dense_solve(block, {x.begin() + before, x.begin() + before + rows});
        for (std::int64_t i = 0; i < rows; ++i) EXPECT_NEAR(y[before + i], expected[i], 1e-11);
    }
}

TYPED_TEST(CreateMijaLhsBlock, TakesEquationsWithoutCoefficients) {
    matrix<double> c(6, 6);
    c(0, 0) = 2.0;
    c(2, 2) = 4.0;
    mija_lhs_block m =
        create_mija_lhs_block(stored<TypeParam>(c), std::vector<std::int64_t>{1, 4, 7}, this->log_);
    std::vector<double> y(6, 9.0);
    m.preconditionertimesx(y, std::vector<double>{2.0, 0.0, 2.0, 0.0, 0.0, 0.0});
    EXPECT_THAT(y, testing::Pointwise(testing::DoubleNear(1e-15), {1.0, 0.0, 0.5, 0.0, 0.0, 0.0}));
    for (const std::size_t empty : {1, 3, 4, 5}) EXPECT_EQ(y[empty], 0.0);
}

TYPED_TEST(CreateMijaLhsBlock, PrintsTheBlocksWithTheNumbersOfTheSystem) {
    const mija_lhs_block m = create_mija_lhs_block(stored<TypeParam>(test::second_differences(4)),
                                                   std::vector<std::int64_t>{1, 3, 5}, this->log_);
    m.print("mija_block.dat", this->log_);
    EXPECT_EQ(this->place_.directory.read("mija_block.dat"),
              "1 1 2.0000000000000000\n1 2 -1.0000000000000000\n2 2 2.0000000000000000\n"
              "3 3 2.0000000000000000\n3 4 -1.0000000000000000\n4 4 2.0000000000000000\n");
    EXPECT_EQ(fatal_text([&] { m.print("none/mija_block.dat", this->log_); }),
              "Cannot write the file none/mija_block.dat");
}

TYPED_TEST(CreateMijaLhsBlock, RefusesWhatIsNoBlock) {
    EXPECT_EQ(this->error({1, 3, 5}, 3), "");
    EXPECT_EQ(this->error({1, 3, 5}, 2),
              "The block of equations 1 to 2 has 3 elements: a block of the preconditioner may have 2");
    const std::string text = "The first equations of the effects do not cut the 4 equations";
    for (const std::vector<std::int64_t>& first :
         std::vector<std::vector<std::int64_t>>{{}, {2, 5}, {1, 4}, {1, 6}, {1, 4, 3, 5}, {5}})
        EXPECT_EQ(this->error(first), text);
}

}  // namespace
}  // namespace zendar
