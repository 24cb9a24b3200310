#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <sstream>
#include <string>

#include "modlogger.hpp"
#include "modsparse_gen.hpp"
#include "modview.hpp"

namespace zendar::test {

/// An output unit whose lines a test can read.
struct unit {
    std::ostringstream out;
    logger log;

    unit() { log.add_stream(out); }
    [[nodiscard]] std::string text() const { return out.str(); }
};

/// Expects a fatal error with this text, to the letter.
template <class Call>
void expect_fatal(const Call& call, const std::string& text) {
    try {
        call();
        ADD_FAILURE() << "no error; expected: " << text;
    } catch (const fatal_error& error) {
        EXPECT_EQ(error.what(), text);
        EXPECT_NE(error.status(), 0);
    }
}

/// What `get` shows, as a dense matrix.
inline matrix<double> dense(const gen_sparse& m) {
    matrix<double> out(m.getdim(1), m.getdim(2));
    for (std::int32_t j = 1; j <= m.getdim(2); ++j)
        for (std::int32_t i = 1; i <= m.getdim(1); ++i) out(i - 1, j - 1) = m.get(i, j);
    return out;
}

/// Random elements, offered to both a sparse target and a dense one; about one position in three, some of
/// them more than once. Values are eighths, so that sums are exact in any order.
class random_elements {
  public:
    explicit random_elements(unsigned seed) : generator_(seed) {}

    template <class Add>
    matrix<double> fill(std::int32_t dim1, std::int32_t dim2, bool upper, const Add& add) {
        matrix<double> expected(dim1, dim2);
        if (dim1 == 0 || dim2 == 0) return expected;
        std::uniform_int_distribution<std::int32_t> row(1, dim1), col(1, dim2), eighth(1, 400);
        for (std::int64_t k = 0; k < std::int64_t{dim1} * dim2 / 3 + 1; ++k) {
            const std::int32_t i = row(generator_), j = col(generator_);
            const double value = eighth(generator_) / 8.0;
            add(i, j, value);
            if (!upper || i <= j) expected(i - 1, j - 1) += value;
        }
        return expected;
    }

  private:
    std::mt19937 generator_;
};

/// The lower triangle as the mirror image of the upper one.
inline matrix<double> mirrored(matrix<double> m) {
    for (std::int64_t j = 0; j < m.cols(); ++j)
        for (std::int64_t i = j + 1; i < m.rows(); ++i) m(i, j) = m(j, i);
    return m;
}

inline matrix<double> dense_product(const matrix<double>& a, bool transposed, double alpha,
                                    const matrix<double>& x, double beta, const matrix<double>& y) {
    matrix<double> out(y.rows(), y.cols());
    for (std::int64_t j = 0; j < y.cols(); ++j) {
        for (std::int64_t i = 0; i < y.rows(); ++i) {
            double sum = 0.0;
            for (std::int64_t k = 0; k < x.rows(); ++k) sum += (transposed ? a(k, i) : a(i, k)) * x(k, j);
            out(i, j) = alpha * sum + (beta == 0.0 ? 0.0 : beta * y(i, j));
        }
    }
    return out;
}

inline void expect_near(const matrix<double>& a, const matrix<double>& b, double tolerance) {
    ASSERT_EQ(a.rows(), b.rows());
    ASSERT_EQ(a.cols(), b.cols());
    for (std::int64_t j = 0; j < a.cols(); ++j)
        for (std::int64_t i = 0; i < a.rows(); ++i) EXPECT_NEAR(a(i, j), b(i, j), tolerance) << i << ' ' << j;
}

}  // namespace zendar::test
