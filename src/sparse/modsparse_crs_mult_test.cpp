#include "modsparse_crs_mult.hpp"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "magnitude.hpp"
#include "modsparse_crs_mult_spill.hpp"

namespace zendar {
namespace {

const double not_a_number = std::numeric_limits<double>::quiet_NaN();

/// Sets the threads for one test.
class threads {
  public:
    explicit threads(int n) : before_(omp_get_max_threads()) { omp_set_num_threads(n); }
    ~threads() { omp_set_num_threads(before_); }
    threads(const threads&) = delete;
    threads& operator=(const threads&) = delete;

  private:
    int before_;
};

/// Where the columns of a row lie.
enum class pattern { anywhere, near_diagonal, mixed };

template <std::signed_integral Index>
struct rows_of_elements {
    std::int32_t dim1, dim2;
    std::vector<Index> ia{1}, ja{};
    std::vector<double> a{};
    bool sorted = false;
    [[nodiscard]] crs_view<Index> view() const { return {dim1, dim2, ia, ja, a, sorted}; }
};

/// Random rows, some of them empty, some without a diagonal element, their columns in any order unless
/// sorted.
template <std::signed_integral Index>
rows_of_elements<Index> random_rows(std::int32_t dim1, std::int32_t dim2, bool upper, pattern where,
                                    std::int32_t per_row, std::mt19937& generator, bool sorted = false) {
    rows_of_elements<Index> m{.dim1 = dim1, .dim2 = dim2, .sorted = sorted};
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    const auto below = [&](std::int32_t n) {
        return static_cast<std::int32_t>(generator() % static_cast<std::uint32_t>(n));
    };
    for (std::int32_t i = 0; i < dim1; ++i) {
        const std::int32_t first = upper ? std::min(i, dim2) : 0;
        const std::int32_t room = dim2 - first;
        std::vector<std::int32_t> columns;
        const std::int32_t count = room == 0 || below(10) == 0 ? 0 : below(2 * per_row + 1);
        for (std::int32_t k = 0; k < count; ++k) {
            const bool near = where == pattern::near_diagonal || (where == pattern::mixed && below(50) != 0);
            columns.push_back(first + below(near ? std::min(room, 20) : room));
        }
        std::ranges::sort(columns);
        columns.erase(std::unique(columns.begin(), columns.end()), columns.end());
        if (!sorted && below(3) == 0) std::ranges::shuffle(columns, generator);
        for (const std::int32_t c : columns) {
            m.ja.push_back(c + 1);
            m.a.push_back(value(generator));
        }
        m.ia.push_back(static_cast<Index>(m.ja.size()) + 1);
    }
    return m;
}

matrix<double> random_matrix(std::int64_t rows, std::int64_t cols, std::mt19937& generator) {
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    matrix<double> m(rows, cols);
    std::ranges::generate(m.values(), [&] { return value(generator); });
    return m;
}

/// Each element on its own, and its mirror image; sums of the absolute terms bound the rounding.
template <std::signed_integral Index>
void expect_product(const rows_of_elements<Index>& m, storage s, bool transposed, double alpha,
                    const matrix<double>& x, double beta, const matrix<double>& before,
                    const matrix<double>& after) {
    matrix<double> expected(before.rows(), before.cols()), size(before.rows(), before.cols());
    for (std::int64_t j = 0; j < before.cols(); ++j) {
        for (std::int64_t i = 0; i < before.rows() && beta != 0.0; ++i) {
            expected(i, j) = beta * before(i, j);
            size(i, j) = std::abs(expected(i, j));
        }
        const auto put = [&](std::int64_t to, std::int64_t from, double v) {
            expected(to, j) += alpha * v * x(from, j);
            size(to, j) += std::abs(alpha * v * x(from, j));
        };
        for (std::int64_t i = 0; i < m.dim1; ++i)
            for (Index k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
                const std::int64_t c = m.ja[k] - 1;
                if (transposed)
                    put(c, i, m.a[k]);
                else
                    put(i, c, m.a[k]);
                if (s == storage::symmetric_upper && c != i) {
                    if (transposed)
                        put(i, c, m.a[k]);
                    else
                        put(c, i, m.a[k]);
                }
            }
    }
    for (std::int64_t j = 0; j < before.cols(); ++j)
        for (std::int64_t i = 0; i < before.rows(); ++i)
            ASSERT_NEAR(after(i, j), expected(i, j), 1e-12 * (1.0 + size(i, j))) << i << ' ' << j;
}

/// One random case; the seed decides shape, storage, scalars, columns and threads.
template <std::signed_integral Index>
void check_random_case(unsigned seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 generator(seed);
    const auto below = [&](std::uint32_t n) { return static_cast<std::int32_t>(generator() % n); };
    const auto s = static_cast<storage>(seed % 3);
    const bool large = seed % 4 == 0, transposed = below(2) == 1;
    const std::int32_t dim1 = large ? 3000 + below(3000) : 1 + below(60);
    const std::int32_t dim2 = s == storage::symmetric_upper ? dim1
                              : large                       ? 3000 + below(3000)
                                                            : 1 + below(60);
    const auto m = random_rows<Index>(dim1, dim2, s != storage::general, static_cast<pattern>(below(3)),
                                      1 + below(12), generator, below(2) == 1);
    const std::int32_t columns = below(3) == 0 ? 1 : 1 + below(17);
    const double alphas[] = {1.0, 0.0, -2.5}, betas[] = {0.0, 1.0, 0.75};
    const double alpha = alphas[below(3)], beta = betas[below(3)];
    // The columns stand in larger matrices, so that the leading dimension is not the number of rows.
    matrix<double> x = random_matrix((transposed ? dim1 : dim2), columns, generator);
    const std::int64_t rows = transposed ? dim2 : dim1;
    const matrix<double> before =
        beta == 0.0 ? matrix<double>(rows, columns, not_a_number) : random_matrix(rows, columns, generator);
    matrix<double> wide(rows + 3, columns, 7.0), after(rows, columns);
    for (std::int64_t j = 0; j < columns; ++j) std::ranges::copy(before.column(j), wide.column(j).begin());

    const threads used(1 + below(8));
    crs_multiply(m.view(), s, transposed, alpha, x.view(), beta,
                 matrix_view<double>{wide.data(), rows, columns, wide.rows()});

    for (std::int64_t j = 0; j < columns; ++j) {
        std::ranges::copy(wide.column(j).first(static_cast<std::size_t>(rows)), after.column(j).begin());
        for (std::int64_t i = rows; i < rows + 3; ++i) ASSERT_EQ(wide(i, j), 7.0) << "written beyond y";
    }
    expect_product(m, s, transposed, alpha, x, beta, before, after);
}

TEST(CrsMultiply, AgreesWithElementwiseSumsOnRandomMatrices) {
    for (unsigned seed = 1; seed <= 240; ++seed) {
        check_random_case<std::int32_t>(seed);
        if (::testing::Test::HasFatalFailure()) return;
    }
}

TEST(CrsMultiply, AgreesWithElementwiseSumsOnAnyProcessor) {
    crs_mult::fma_allowed() = false;
    for (unsigned seed = 1; seed <= 240 && !::testing::Test::HasFatalFailure(); ++seed)
        check_random_case<std::int32_t>(seed);
    crs_mult::fma_allowed() = true;
}

TEST(CrsMultiply, AgreesWithElementwiseSumsWithWideIndices) {
    for (unsigned seed = 1001; seed <= 1060; ++seed) {
        check_random_case<std::int64_t>(seed);
        if (::testing::Test::HasFatalFailure()) return;
    }
}

/// Rows that all have the same number of elements, as far as there is room for them, the columns up to
/// `distance` away.
rows_of_elements<std::int32_t> even_rows(std::int32_t n, std::int32_t per_row, std::int32_t distance,
                                         std::mt19937& generator) {
    rows_of_elements<std::int32_t> m{.dim1 = n, .dim2 = n};
    for (std::int32_t i = 0; i < n; ++i) {
        const std::int32_t room = std::min(n - i, distance);
        std::vector<std::int32_t> columns;
        while (std::ssize(columns) < std::min(per_row, room)) {
            const auto c = i + static_cast<std::int32_t>(generator() % static_cast<std::uint32_t>(room));
            if (std::ranges::find(columns, c) == columns.end()) columns.push_back(c);
        }
        std::ranges::sort(columns);
        for (const std::int32_t c : columns) {
            m.ja.push_back(c + 1);
            m.a.push_back(1.0 / (1.0 + c - 0.5 * i));
        }
        m.ia.push_back(static_cast<std::int32_t>(m.ja.size()) + 1);
    }
    return m;
}

/// Columns near the diagonal, and all over the matrix.
void check_even_rows(std::int32_t per_row, std::int64_t columns) {
    SCOPED_TRACE(std::to_string(per_row) + " elements, " + std::to_string(columns) + " columns");
    constexpr std::int32_t n = 2500;
    std::mt19937 generator(static_cast<unsigned>(per_row));
    for (const std::int32_t distance : {25, n}) {
        const auto m = even_rows(n, per_row, distance, generator);
        const matrix<double> x = random_matrix(n, columns, generator);
        const matrix<double> before = random_matrix(n, columns, generator);
        matrix<double> after = before;

        crs_multiply(m.view(), storage::symmetric_upper, false, -1.5, x.view(), 0.5, after.view());

        expect_product(m, storage::symmetric_upper, false, -1.5, x, 0.5, before, after);
    }
}

TEST(CrsMultiply, TakesAnyNumberOfColumns) {
    for (std::int64_t columns = 1; columns <= 17; ++columns) check_even_rows(7, columns);
}

TEST(CrsMultiply, TakesAnyNumberOfElementsInARow) {
    for (std::int32_t per_row = 0; per_row <= 20; ++per_row)
        for (const std::int64_t columns : {1, 10}) check_even_rows(per_row, columns);
}

TEST(CrsMultiply, TakesAMatrixDoneByHand) {
    // 2 1 .      symmetric: 2 1 .
    // . . 3                 1 . 3
    // . . 4                 . 3 4
    const rows_of_elements<std::int32_t> m{
        .dim1 = 3, .dim2 = 3, .ia = {1, 3, 4, 5}, .ja = {1, 2, 3, 3}, .a = {2.0, 1.0, 3.0, 4.0}};
    matrix<double> x(3, 1), y(3, 1);
    x(0, 0) = 1.0, x(1, 0) = 10.0, x(2, 0) = 100.0;
    const auto product = [&](storage s, bool transposed) {
        crs_multiply(m.view(), s, transposed, 1.0, x.view(), 0.0, y.view());
        return std::vector<double>(y.values().begin(), y.values().end());
    };

    EXPECT_EQ(product(storage::upper_triangular, false), (std::vector{12.0, 300.0, 400.0}));
    EXPECT_EQ(product(storage::upper_triangular, true), (std::vector{2.0, 1.0, 430.0}));
    EXPECT_EQ(product(storage::symmetric_upper, false), (std::vector{12.0, 301.0, 430.0}));
    EXPECT_EQ(product(storage::symmetric_upper, true), (std::vector{12.0, 301.0, 430.0}));
}

TEST(CrsMultiply, LeavesEmptyShapesAlone) {
    const rows_of_elements<std::int32_t> none{.dim1 = 0, .dim2 = 0};
    matrix<double> empty(0, 2), rows_only(3, 0);
    crs_multiply(none.view(), storage::symmetric_upper, false, 1.0, empty.view(), 0.0, empty.view());
    const rows_of_elements<std::int32_t> zero{.dim1 = 3, .dim2 = 3, .ia = {1, 1, 1, 1}};
    crs_multiply(zero.view(), storage::symmetric_upper, false, 1.0, rows_only.view(), 0.0, rows_only.view());

    matrix<double> y(3, 1, not_a_number);
    const matrix<double> x(3, 1, 1.0);
    crs_multiply(zero.view(), storage::symmetric_upper, false, 1.0, x.view(), 0.0, y.view());
    EXPECT_EQ(y, (matrix<double>(3, 1)));
}

/// One matrix of every pattern for all numbers of threads.
class CrsMultiplyThreads : public ::testing::TestWithParam<int> {};

TEST_P(CrsMultiplyThreads, RepeatsAndAgreesWithOneThread) {
    for (const pattern where : {pattern::anywhere, pattern::near_diagonal, pattern::mixed})
        for (const std::int64_t columns : {1, 3, 10})
            for (const storage s : {storage::general, storage::upper_triangular, storage::symmetric_upper})
                for (const bool transposed : {false, true}) {
                    std::mt19937 generator(17);
                    const auto m =
                        random_rows<std::int32_t>(6000, 6000, s != storage::general, where, 4, generator);
                    const matrix<double> x = random_matrix(6000, columns, generator);
                    const auto product = [&](int n) {
                        const threads used(n);
                        matrix<double> y(6000, columns, 0.5);
                        crs_multiply(m.view(), s, transposed, 1.0, x.view(), 2.0, y.view());
                        return y;
                    };

                    const matrix<double> serial = product(1), y = product(GetParam());

                    EXPECT_TRUE(y == product(GetParam()));
                    double largest = 0.0;
                    for (std::size_t k = 0; k < y.values().size(); ++k)
                        largest = std::max(largest, test::magnitude(y.values()[k] - serial.values()[k]));
                    EXPECT_LT(largest, 1e-12);
                }
}

TEST_P(CrsMultiplyThreads, TakesVectorsBeyondTheCache) {
    constexpr std::int32_t n = 500000;
    std::mt19937 generator(23);
    rows_of_elements<std::int64_t> m{.dim1 = n, .dim2 = n};
    for (std::int32_t i = 0; i < n; ++i) {
        if (i % 5 != 0) m.ja.push_back(i + 1);
        for (std::int32_t k = 0; k < i % 3; ++k)
            m.ja.push_back(i + 1 + generator() % static_cast<std::uint32_t>(n - i));
        m.a.resize(m.ja.size(), 1.0 / (i + 1));
        m.ia.push_back(std::ssize(m.ja) + 1);
    }
    const matrix<double> x = random_matrix(n, 1, generator), before = random_matrix(n, 1, generator);
    const threads used(GetParam());
    for (const bool sorted : {false, true}) {
        m.sorted = sorted;
        if (sorted)
            for (std::int32_t i = 0; i < n; ++i)
                std::sort(m.ja.begin() + m.ia[i] - 1, m.ja.begin() + m.ia[i + 1] - 1);
        matrix<double> after = before, again = before;

        crs_multiply(m.view(), storage::symmetric_upper, false, 2.5, x.view(), -0.5, after.view());
        crs_multiply(m.view(), storage::symmetric_upper, false, 2.5, x.view(), -0.5, again.view());

        EXPECT_TRUE(after == again);
        expect_product(m, storage::symmetric_upper, false, 2.5, x, -0.5, before, after);
    }
}

TEST_P(CrsMultiplyThreads, TakesStretchesOfEmptyRows) {
    // Near the diagonal and anywhere; the last row before a stretch reaches beyond it.
    constexpr std::int32_t n = 9000;
    std::mt19937 generator(29);
    const threads used(GetParam());
    for (const std::int32_t reach : {300, n})
        for (const std::int32_t stretch : {100, 1700}) {
            rows_of_elements<std::int32_t> m{.dim1 = n, .dim2 = n, .sorted = true};
            for (std::int32_t i = 0; i < n; ++i) {
                if (i / stretch % 2 == 1) {  // the first stretch is empty
                    std::vector<std::int32_t> columns;
                    for (std::int32_t k = 0; k < 4; ++k)
                        columns.push_back(i + 1 +
                                          static_cast<std::int32_t>(generator() % std::min(n - i, reach)));
                    std::ranges::sort(columns);
                    columns.erase(std::unique(columns.begin(), columns.end()), columns.end());
                    m.ja.insert(m.ja.end(), columns.begin(), columns.end());
                    m.a.resize(m.ja.size(), 0.5 + 1.0 / (i + 1));
                }
                m.ia.push_back(static_cast<std::int32_t>(m.ja.size()) + 1);
            }
            for (const std::int64_t columns : {1, 3, 10}) {
                const matrix<double> x = random_matrix(n, columns, generator);
                const matrix<double> before = random_matrix(n, columns, generator);
                matrix<double> after = before;

                crs_multiply(m.view(), storage::symmetric_upper, false, 1.0, x.view(), 0.75, after.view());

                expect_product(m, storage::symmetric_upper, false, 1.0, x, 0.75, before, after);
            }
        }
}

/// Rows shorter than a cache line, of one or two lines, and longer ones, in long vectors.
TEST_P(CrsMultiplyThreads, TakesRowsOfAnyNumberOfLines) {
    constexpr std::int32_t n = 300000;
    std::mt19937 generator(31);
    const threads used(GetParam());
    for (const std::int32_t per_row : {2, 12, 30})
        for (const bool anywhere : {false, true}) {
            rows_of_elements<std::int32_t> m{.dim1 = n, .dim2 = n, .sorted = true};
            for (std::int32_t i = 0; i < n; ++i) {
                const std::int32_t step = anywhere ? std::max((n - i) / per_row, 1) : 3;
                for (std::int32_t k = 0; k < per_row && i + k * step < n; ++k)
                    m.ja.push_back(i + k * step + 1);
                m.a.resize(m.ja.size(), 1.0 / (i + 1));
                m.ia.push_back(static_cast<std::int32_t>(m.ja.size()) + 1);
            }
            const matrix<double> x = random_matrix(n, 1, generator), before = random_matrix(n, 1, generator);
            matrix<double> after = before;

            crs_multiply(m.view(), storage::symmetric_upper, false, -1.5, x.view(), 1.0, after.view());

            expect_product(m, storage::symmetric_upper, false, -1.5, x, 1.0, before, after);
        }
}

/// Rows longer than what is taken together, of which a thread may only have a few elements.
TEST_P(CrsMultiplyThreads, TakesLongRowsTimesColumns) {
    constexpr std::int32_t n = 2500;
    std::mt19937 generator(37);
    const threads used(GetParam());
    for (const std::int32_t per_row : {15, 200})
        for (const bool sorted : {false, true}) {
            const auto m =
                random_rows<std::int32_t>(n, n, true, pattern::anywhere, per_row, generator, sorted);
            for (const std::int64_t columns : {2, 10}) {
                const matrix<double> x = random_matrix(n, columns, generator);
                const matrix<double> before = random_matrix(n, columns, generator);
                matrix<double> after = before, again = before;

                crs_multiply(m.view(), storage::symmetric_upper, false, 1.5, x.view(), 0.5, after.view());
                crs_multiply(m.view(), storage::symmetric_upper, false, 1.5, x.view(), 0.5, again.view());

                EXPECT_TRUE(after == again);
                expect_product(m, storage::symmetric_upper, false, 1.5, x, 0.5, before, after);
            }
        }
}
INSTANTIATE_TEST_SUITE_P(OneToEight, CrsMultiplyThreads, ::testing::Range(1, 9));

}  // namespace
}  // namespace zendar
