#include "modmatop_feast.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <sstream>

#include "captured_log.hpp"
#include "modblas.hpp"
#include "modsparse.hpp"
#include "modsparse_coo.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

crssparse upper_of(const matrix<double>& dense) {
    const auto n = static_cast<std::int32_t>(dense.rows());
    coosparse coo(n, n, 64, true);
    coo.setsymmetric();
    for (std::int32_t i = 1; i <= n; ++i)
        for (std::int32_t j = i; j <= n; ++j)
            if (dense(i - 1, j - 1) != 0.0) coo.set(i, j, dense(i - 1, j - 1));
    return convertfromcootocrs(coo);
}

std::vector<double> dense_eigenvalues(matrix<double> dense) {
    std::vector<double> values(static_cast<std::size_t>(dense.rows()));
    EXPECT_EQ(lapack_dsyevd(dense.view(), values), 0);
    return values;
}

matrix<double> diagonal(const std::vector<double>& values) {
    const auto n = static_cast<std::int64_t>(values.size());
    matrix<double> dense(n, n);
    for (std::int64_t i = 0; i < n; ++i) dense(i, i) = values[static_cast<std::size_t>(i)];
    return dense;
}

/// B'B of a sparse B with `rows` rows, and `scale`: singular when there are fewer rows than columns.
matrix<double> random_semidefinite(std::int64_t n, std::int64_t rows, double scale, unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    matrix<double> b(rows, n), dense(n, n);
    for (std::int64_t i = 0; i < rows; ++i)
        for (int k = 0; k < 3; ++k)
            b(i, static_cast<std::int64_t>(random() % static_cast<unsigned>(n))) += scale * value(random);
    if (n > 0 && rows > 0) blas_dgemm(true, false, 1.0, b.view(), b.view(), 0.0, dense.view());
    return dense;
}

std::vector<double> within(const std::vector<double>& values, double lower, double upper) {
    std::vector<double> inside;
    for (const double value : values)
        if (value >= lower && value <= upper) inside.push_back(value);
    return inside;
}

/// The values are the expected ones, the vectors are orthonormal and belong to them.
void expect_eigenpairs(const matrix<double>& dense, const eigenpairs& pairs,
                       const std::vector<double>& expected) {
    const std::vector<double> all = dense_eigenvalues(dense);
    const double norm = all.empty() ? 0.0 : std::max(std::fabs(all.front()), std::fabs(all.back()));
    ASSERT_EQ(pairs.values.size(), expected.size());
    ASSERT_EQ(pairs.vectors.cols(), std::ssize(expected));
    EXPECT_EQ(pairs.missing, 0);
    for (std::size_t k = 0; k < expected.size(); ++k)
        EXPECT_NEAR(pairs.values[k], expected[k], 1e-10 * expected[k] + 1e-13 * norm) << k;
    const std::int64_t n = dense.rows(), count = pairs.vectors.cols();
    if (count == 0) return;
    matrix<double> products(n, count), gram(count, count);
    blas_dgemm(false, false, 1.0, dense.view(), pairs.vectors.view(), 0.0, products.view());
    blas_dgemm(true, false, 1.0, pairs.vectors.view(), pairs.vectors.view(), 0.0, gram.view());
    for (std::int64_t k = 0; k < count; ++k) {
        const double value = pairs.values[static_cast<std::size_t>(k)];
        double square = 0.0;
        for (std::int64_t i = 0; i < n; ++i)
            square += std::pow(products(i, k) - value * pairs.vectors(i, k), 2);
        EXPECT_LE(std::sqrt(square), 1e-8 * value + 1e-12 * norm) << k;
        for (std::int64_t j = 0; j < count; ++j) EXPECT_NEAR(gram(j, k), j == k ? 1.0 : 0.0, 1e-9);
        const auto column = pairs.vectors.column(k);
        EXPECT_GT(std::ranges::max(column) + std::ranges::min(column), -1e-9);
    }
}

eigenpairs solve(const matrix<double>& dense, double lower, double upper, std::int32_t subspace,
                 spectrum_end end, captured_log& log) {
    return dfeast_scsrev(upper_of(dense), lower, upper, subspace, end, log);
}

TEST(DfeastScsrev, FindsAllEigenvaluesOfTheInterval) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto n = static_cast<std::int64_t>(1 + random() % 120);
        const std::int64_t rows = n + 5 - static_cast<std::int64_t>(random() % 20);
        const double scale = std::pow(10.0, static_cast<double>(random() % 5) - 1.0);
        const matrix<double> dense = random_semidefinite(n, std::max<std::int64_t>(rows, 1), scale, seed);
        const std::vector<double> all = dense_eigenvalues(dense);
        const double norm = all.back();
        captured_log log;

        for (const auto& [lower, upper] : {std::pair{1e-10, 10.0}, {0.5, 3.0}, {1e2, 1e10}}) {
            // The dense values of a null space are rounding errors, too.
            const std::vector<double> expected = within(all, std::max(lower, 1e-12 * norm), upper);
            for (const spectrum_end end : {spectrum_end::lowest, spectrum_end::highest})
                expect_eigenpairs(dense, solve(dense, lower, upper, 200, end, log), expected);
        }
        EXPECT_THAT(log.text(), Not(HasSubstr("WARN")));
    }
}

TEST(DfeastScsrev, KeepsTheEndThatIsAskedForWhenThereAreTooMany) {
    for (unsigned seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(seed);
        const matrix<double> dense = random_semidefinite(260, 300, 1.0, seed);
        const std::vector<double> expected = within(dense_eigenvalues(dense), 1e-10, 10.0);
        ASSERT_GT(expected.size(), 100U);
        captured_log log;

        const eigenpairs lowest = solve(dense, 1e-10, 10.0, 100, spectrum_end::lowest, log);
        const eigenpairs highest = solve(dense, 1e-10, 10.0, 100, spectrum_end::highest, log);

        expect_eigenpairs(dense, lowest, {expected.begin(), expected.begin() + 100});
        expect_eigenpairs(dense, highest, {expected.end() - 100, expected.end()});
        EXPECT_EQ(lowest.inside, std::ssize(expected));
        EXPECT_THAT(log.text(), HasSubstr("WARN: The interval holds " + std::to_string(expected.size()) +
                                          " eigenvalues: only the lowest 100 are computed"));
        EXPECT_THAT(log.text(), HasSubstr("only the highest 100 are computed"));
    }
}

TEST(DfeastScsrev, FindsRepeatedEigenvalues) {
    std::vector<double> values(90, 2.0);
    values.insert(values.end(), 30, 0.125);
    values.insert(values.end(), {0.001, 3.0, 3.0, 5.0, 11.0, 0.0, 0.0});
    const matrix<double> dense = diagonal(values);
    std::ranges::sort(values);
    captured_log log;

    expect_eigenpairs(dense, solve(dense, 1e-10, 10.0, 200, spectrum_end::lowest, log),
                      within(values, 1e-10, 10.0));
    expect_eigenpairs(dense, solve(dense, 1e-10, 10.0, 200, spectrum_end::highest, log),
                      within(values, 1e-10, 10.0));
}

TEST(DfeastScsrev, TakesPartOfARepeatedEigenvalueThatDoesNotFit) {
    std::vector<double> values(150, 2.0);
    values.insert(values.end(), {0.5, 0.5, 0.75, 4.0, 5.0, 6.0});
    const matrix<double> dense = diagonal(values);
    std::vector<double> lowest(100, 2.0), highest(100, 2.0);
    lowest[0] = lowest[1] = 0.5, lowest[2] = 0.75;
    highest[97] = 4.0, highest[98] = 5.0, highest[99] = 6.0;
    captured_log log;

    expect_eigenpairs(dense, solve(dense, 1e-10, 10.0, 100, spectrum_end::lowest, log), lowest);
    expect_eigenpairs(dense, solve(dense, 1e-10, 10.0, 100, spectrum_end::highest, log), highest);
}

TEST(DfeastScsrev, FindsEigenvaluesOfVeryDifferentSize) {
    const std::vector<double> values = {1e-9, 2e-7, 3e-7, 1e-4, 0.02, 0.5, 0.7, 4.0, 9.0, 1e3};
    const matrix<double> dense = diagonal(values);
    captured_log log;

    const eigenpairs pairs = solve(dense, 1e-10, 10.0, 100, spectrum_end::lowest, log);

    ASSERT_EQ(pairs.values.size(), 9U);
    for (std::size_t k = 0; k < 9; ++k) EXPECT_NEAR(pairs.values[k], values[k], 1e-10 * values[k]);
    EXPECT_EQ(solve(dense, 1e-10, 1e10, 100, spectrum_end::highest, log).values.size(), 10U);
}

TEST(DfeastScsrev, TakesTheEndsAsPartOfTheInterval) {
    const matrix<double> dense = diagonal({1.0, 2.0, 3.0, 4.0});
    captured_log log;

    expect_eigenpairs(dense, solve(dense, 2.0, 3.0, 10, spectrum_end::lowest, log), {2.0, 3.0});
    expect_eigenpairs(dense, solve(dense, 2.0, 4.0, 10, spectrum_end::highest, log), {2.0, 3.0, 4.0});
    expect_eigenpairs(dense, solve(dense, 4.5, 9.0, 10, spectrum_end::highest, log), {});
}

TEST(DfeastScsrev, LeavesOutTheNullSpaceAndNegativeEigenvalues) {
    matrix<double> dense = random_semidefinite(150, 40, 10.0, 4);
    captured_log log;
    const std::vector<double> expected = within(dense_eigenvalues(dense), 1e-9, 1e10);
    ASSERT_LE(expected.size(), 40U);
    expect_eigenpairs(dense, solve(dense, 1e-10, 1e10, 100, spectrum_end::lowest, log), expected);

    dense = diagonal({-3.0, -1e-3, 0.0, 0.0, 2.0});
    expect_eigenpairs(dense, solve(dense, 1e-10, 10.0, 100, spectrum_end::lowest, log), {2.0});
}

TEST(DfeastScsrev, SaysWhatCannotBeToldFromZero) {
    captured_log log;

    const eigenpairs pairs = solve(diagonal({1e-9, 1.0, 1e6}), 1e-10, 10.0, 100, spectrum_end::lowest, log);

    EXPECT_EQ(pairs.values.size(), 1U);
    EXPECT_THAT(log.text(),
                HasSubstr("Eigenvalues below 0.20000E-07 cannot be told from 0 and are left out"));
}

TEST(DfeastScsrev, OfAnEmptyOrZeroMatrixFindsNone) {
    captured_log log;

    EXPECT_THAT(solve(matrix<double>(0, 0), 1e-10, 10.0, 100, spectrum_end::lowest, log).values, IsEmpty());
    EXPECT_THAT(solve(matrix<double>(3, 3), 1e-10, 10.0, 100, spectrum_end::lowest, log).values, IsEmpty());
}

TEST(DfeastScsrev, RefusesAMatrixThatIsNotFit) {
    captured_log log;
    const auto refusal = [&log](const crssparse& m) {
        return fatal_message([&] {
            [[maybe_unused]] const auto pairs = dfeast_scsrev(m, 1e-10, 10.0, 100, spectrum_end::lowest, log);
        });
    };
    crssparse unsorted(2, 3, 2, true);
    unsorted.external(std::vector<std::int32_t>{1, 3, 4}, std::vector<std::int32_t>{2, 1, 2},
                      std::vector<double>{0.0, 1.0, 1.0});

    EXPECT_THAT(refusal(unsorted),
                HasSubstr("The eigenvalues cannot be computed: the columns are not sorted"));
    EXPECT_THAT(refusal(upper_of(diagonal({std::numeric_limits<double>::infinity()}))),
                HasSubstr("an element is not a finite number in row 1"));
}

class Eigendfeastscsrev : public testing::Test {
  protected:
    std::vector<std::vector<double>> rows_of(const std::string& name) {
        std::istringstream in(directory_.read(name));
        std::vector<std::vector<double>> rows;
        for (std::string line; std::getline(in, line);) {
            std::istringstream words(line);
            rows.emplace_back();
            for (double value = 0.0; words >> value;) rows.back().push_back(value);
        }
        return rows;
    }
    test::temporary_directory directory_;
    test::working_directory inside_{directory_.path()};
    captured_log log_;
};

TEST_F(Eigendfeastscsrev, WritesAValueALineAndTheVectorsAsColumns) {
    matrix<double> dense = diagonal({2.0, 5.0, 5.0});
    dense(0, 1) = dense(1, 0) = 2.0;  // eigenvalues 1, 5 and 6 with (2, -1), (0, 0, 1) and (1, 2)

    eigendfeastscsrev(upper_of(dense), 1e-10, 5.5, 100, "min", log_);

    const double root = std::sqrt(5.0);
    const auto values = rows_of("eigenvalue_lhs.min"), vectors = rows_of("eigenvector_lhs.min");
    const std::vector<std::vector<double>> expected = {{2 / root, 0}, {-1 / root, 0}, {0, 1}};
    ASSERT_EQ(values.size(), 2U);
    EXPECT_NEAR(values[0].at(0), 1.0, 1e-12);
    EXPECT_NEAR(values[1].at(0), 5.0, 1e-12);
    ASSERT_EQ(vectors.size(), 3U);
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t k = 0; k < 2; ++k) EXPECT_NEAR(vectors[i].at(k), expected[i][k], 1e-12) << i << k;
    EXPECT_THAT(log_.text(), HasSubstr("Number of eigenvalues from 0.10000E-09 to 0.55000E+01: 2"));
    EXPECT_FALSE(directory_.exists("eigenvalue_lhs.max"));
}

TEST_F(Eigendfeastscsrev, KeepsTheHighestForMax) {
    eigendfeastscsrev(upper_of(diagonal({1e5, 2e5, 3e5, 4e5})), 1e5, 1e10, 2, "max", log_);

    const auto values = rows_of("eigenvalue_lhs.max");
    ASSERT_EQ(values.size(), 2U);
    EXPECT_NEAR(values[0].at(0), 3e5, 1e-5);
    EXPECT_NEAR(values[1].at(0), 4e5, 1e-5);
    EXPECT_EQ(rows_of("eigenvector_lhs.max").size(), 4U);
}

TEST_F(Eigendfeastscsrev, WritesEmptyFilesWhenThereAreNone) {
    directory_.write("eigenvalue_lhs.max", "of an earlier run\n");

    eigendfeastscsrev(upper_of(diagonal({1.0, 2.0})), 1e5, 1e10, 100, "max", log_);

    EXPECT_TRUE(directory_.exists("eigenvector_lhs.max"));
    EXPECT_EQ(directory_.read("eigenvalue_lhs.max"), "");
    EXPECT_EQ(directory_.read("eigenvector_lhs.max"), "");
    EXPECT_THAT(log_.text(), HasSubstr("There are no eigenvalues from 0.10000E+06 to 0.10000E+11"));
}

TEST_F(Eigendfeastscsrev, SaysWhichFileCannotBeWritten) {
    std::filesystem::create_directory(directory_ / "eigenvalue_lhs.min");

    EXPECT_THAT(
        fatal_message([&] { eigendfeastscsrev(upper_of(diagonal({1.0})), 1e-10, 10.0, 100, "min", log_); }),
        HasSubstr("Cannot write the file eigenvalue_lhs.min"));
}

}  // namespace
}  // namespace zendar
