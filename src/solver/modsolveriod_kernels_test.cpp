#include <gmock/gmock.h>
#include <omp.h>

#include <cmath>
#include <limits>

#include "modsolveriod_detail.hpp"
#include "modsolveriod_test_support.hpp"

namespace zendar::detail {
namespace {

using testing::ElementsAre;

/// Lengths around those of a vector register, and threads beyond the number of elements.
class VectorKernels : public testing::TestWithParam<std::tuple<int, int>> {
  protected:
    VectorKernels() { omp_set_num_threads(std::get<1>(GetParam())); }
    ~VectorKernels() override { omp_set_num_threads(before_); }
    int n_ = std::get<0>(GetParam());
    std::mt19937 generator_{static_cast<std::uint32_t>(n_ + 1)};

  private:
    int before_ = omp_get_max_threads();
};
INSTANTIATE_TEST_SUITE_P(LengthAndThreads, VectorKernels,
                         testing::Combine(testing::Values(0, 1, 2, 7, 64, 1001),
                                          testing::Values(1, 2, 3, 8)));

TEST_P(VectorKernels, UpdateTheDirection) {
    const auto z = test::random_vector(n_, generator_), before = test::random_vector(n_, generator_);
    auto p = before;
    update_direction(z, 0.7, p);
    for (int i = 0; i < n_; ++i) EXPECT_NEAR(p[i], z[i] + 0.7 * before[i], 1e-15);
}

TEST_P(VectorKernels, AddUpProductsOfThePreconditioner) {
    const auto y = test::random_vector(n_, generator_), x = test::random_vector(n_, generator_);
    double yy = 0.0, xy = 0.0;
    for (int i = 0; i < n_; ++i) {
        yy += y[i] * y[i];
        xy += x[i] * y[i];
    }
    const preconditioned_sums sums = sums_of(y, x);
    EXPECT_NEAR(sums.yy, yy, 1e-12 * (1.0 + yy));
    EXPECT_NEAR(sums.xy, xy, 1e-12 * (1.0 + yy));
}

TEST_P(VectorKernels, UpdateTheSolution) {
    if (n_ == 0) return;  // p'w is 0: a test of its own
    const auto p = test::random_vector(n_, generator_);
    auto w = test::random_vector(n_, generator_);
    for (int i = 0; i < n_; ++i) w[i] += 3.0 * p[i];
    for (const bool with_r : {true, false}) {
        auto x = test::random_vector(n_, generator_), r = test::random_vector(n_, generator_);
        const auto before = r;
        double pw = 0.0;
        for (int i = 0; i < n_; ++i) pw += p[i] * w[i];
        const double alpha = 1.25 / pw;
        double dd = 0.0, xx = 0.0, rr = 0.0, maxdiff = 0.0;
        std::vector<double> new_x(n_), new_r(n_);
        for (int i = 0; i < n_; ++i) {
            const double d = alpha * p[i];
            new_x[i] = x[i] + d;
            new_r[i] = r[i] - alpha * w[i];
            dd += d * d;
            xx += new_x[i] * new_x[i];
            rr += new_r[i] * new_r[i];
            maxdiff = std::max(maxdiff, std::fabs(d));
        }

        const solution_sums sums =
            update_solution(1.25, p, w, x, with_r ? std::span<double>(r) : std::span<double>());

        EXPECT_NEAR(sums.alpha, alpha, 1e-11 * std::fabs(alpha));
        EXPECT_NEAR(sums.dd, dd, 1e-11 * dd);
        EXPECT_NEAR(sums.maxdiff, maxdiff, 1e-11 * maxdiff);
        EXPECT_NEAR(sums.xx, xx, 1e-11 * xx);
        EXPECT_NEAR(sums.rr, with_r ? rr : 0.0, 1e-11 * rr);
        for (int i = 0; i < n_; ++i) {
            EXPECT_NEAR(x[i], new_x[i], 1e-11 * (1.0 + std::fabs(new_x[i])));
            EXPECT_NEAR(r[i], with_r ? new_r[i] : before[i], 1e-11 * (1.0 + std::fabs(new_r[i])));
        }
    }
}

TEST_P(VectorKernels, SumSquares) {
    const auto v = test::random_vector(n_, generator_);
    double all = 0.0, part = 0.0;
    for (int i = 0; i < n_; ++i) all += v[i] * v[i];
    for (int i = 1; i + 1 < n_; ++i) part += v[i] * v[i];
    EXPECT_NEAR(sum_of_squares(v), all, 1e-12 * (1.0 + all));
    if (n_ == 0) return;
    EXPECT_NEAR(sum_of_squares(v, {2, n_ - 1}), part, 1e-12 * (1.0 + part));
}

TEST_P(VectorKernels, FindValuesThatAreNotFinite) {
    auto v = test::random_vector(n_, generator_);
    EXPECT_TRUE(all_finite(v));
    if (n_ == 0) return;
    v[n_ / 2] = std::numeric_limits<double>::infinity();
    EXPECT_FALSE(all_finite(v));
    v[n_ / 2] = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FALSE(all_finite(v));
}

TEST_P(VectorKernels, AreZeroAtFirst) {
    work_vector v(n_);
    EXPECT_EQ(std::span<double>(v).size(), static_cast<std::size_t>(n_));
    EXPECT_THAT(std::vector<double>(std::span<double>(v).begin(), std::span<double>(v).end()),
                testing::Each(0.0));
}

TEST_P(VectorKernels, FormTheFlexibleDirection) {
    const auto z = test::random_vector(n_, generator_), r = test::random_vector(n_, generator_);
    const auto before = test::random_vector(n_, generator_), p_before = test::random_vector(n_, generator_);
    auto previous = before, p = p_before;
    const double beta = update_direction_flexible(z, r, previous, p, 0.7);
    double change = 0.0;
    for (int i = 0; i < n_; ++i) change += z[i] * (r[i] - before[i]);
    const double rounding = 1e-14 * (1.0 + static_cast<double>(n_));
    EXPECT_NEAR(beta, change / 0.7, rounding);
    for (int i = 0; i < n_; ++i) ASSERT_NEAR(p[i], beta * p_before[i] + z[i], rounding);
    EXPECT_EQ(previous, r);
}

TEST(UpdateSolution, RestsWhereItIsAskedTo) {
    const std::vector<double> p = {1.0, 0.0}, w = {0.0, 1.0}, q = {2.0, 0.0};
    std::vector<double> x(2, 1.0), r(2, 1.0);
    EXPECT_EQ(update_solution(1.0, p, w, x, r, null_step::rest).alpha, 0.0);
    EXPECT_EQ(update_solution(1e-310, p, q, x, r, null_step::rest).alpha, 0.0);
    EXPECT_THAT(x, testing::Each(1.0));
    EXPECT_THAT(r, testing::Each(1.0));
    EXPECT_EQ(update_solution(1.0, p, q, x, r, null_step::rest).alpha, 0.5);
    EXPECT_THAT(x, testing::ElementsAre(1.5, 1.0));
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(std::isnan(update_solution(nan, p, q, x, r, null_step::rest).alpha));
}

TEST(UpdateSolution, GivesAStepThatIsNotANumberForAZeroProduct) {
    const std::vector<double> p(3, 0.0), w(3, 0.0);
    std::vector<double> x(3, 1.0), r(3, 1.0);
    const solution_sums sums = update_solution(0.0, p, w, x, r);
    EXPECT_TRUE(std::isnan(sums.alpha));
    EXPECT_TRUE(std::isnan(x[2]));
}

// ---- the loop
// -------------------------------------------------------------------------------------------------

/// Three iterations; keeps what it is told.
class three_iterations final : public pcg_control {
  public:
    [[nodiscard]] bool goes_on(const pcg_state& s) const override { return s.i <= 4; }
    void updated(const pcg_state& s, const pcg_vectors&) override {
        events.push_back("x" + std::to_string(s.i));
    }
    void iterated(const pcg_state& s, const pcg_vectors&) override {
        events.push_back("i" + std::to_string(s.i));
    }
    std::vector<std::string> events;
};

/// Takes out the first element.
class first_element_projector final : public projector {
  public:
    void project(std::span<double> v) override { v[0] = 0.0; }
};

/// No conjugation at all.
class steepest_descent final : public direction_rule {
  public:
    double operator()(const pcg_vectors& v, double, double) override {
        z.assign(v.z.begin(), v.z.end());
        update_direction(v.z, 0.0, v.p);
        return 0.0;
    }
    std::vector<double> z;  // M^-1 r of the last iteration
};

class PcgLoop : public testing::Test {
  protected:
    PcgLoop()
        : system_(test::random_definite(6, generator_, 2.0), test::random_vector(6, generator_)),
          m_(system_.c) {
        r_ = system_.b;
    }
    pcg_vectors vectors() { return {.x = x_, .r = r_, .p = p_, .z = z_}; }

    std::mt19937 generator_{5};
    test::dense_system system_;
    test::jacobi m_;
    std::vector<double> x_ = std::vector<double>(6, 0.0), r_, p_ = x_, z_ = x_;
    three_iterations control_;
    pcg_state s_;
};

TEST_F(PcgLoop, TellsItsControlWhatHappens) {
    direction_rule direction;
    pcg_loop({.c = system_, .m = m_, .direction = direction}, vectors(), s_, control_);

    EXPECT_EQ(s_.i, 5);
    EXPECT_THAT(control_.events, ElementsAre("x2", "i2", "x3", "i3", "x4", "i4"));
    EXPECT_EQ(system_.products, 3);
    std::vector<double> r(6);
    system_.residual(x_, r);
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(r_[i], r[i], 1e-12);
}

TEST_F(PcgLoop, ProjectsTheProduct) {
    direction_rule direction;
    first_element_projector deflation;
    const double r0 = r_[0];
    pcg_loop({.c = system_, .m = m_, .direction = direction, .deflation = &deflation}, vectors(), s_,
             control_);
    EXPECT_EQ(r_[0], r0);
    EXPECT_EQ(z_[0], 0.0);  // C p, which takes the place of M^-1 r
}

TEST_F(PcgLoop, TakesTheDirectionOfTheRule) {
    steepest_descent direction;
    pcg_loop({.c = system_, .m = m_, .direction = direction}, vectors(), s_, control_);
    EXPECT_EQ(s_.beta, 0.0);
    EXPECT_EQ(p_, direction.z);
}

TEST_F(PcgLoop, ComputesTheResidualAnewOnlyWhereItCan) {
    direction_rule direction;
    s_.i = 50;
    class once final : public pcg_control {
      public:
        [[nodiscard]] bool goes_on(const pcg_state& s) const override { return s.i <= 50; }
        void updated(const pcg_state& s, const pcg_vectors&) override { EXPECT_EQ(s.rr, 0.0); }
        void iterated(const pcg_state& s, const pcg_vectors& v) override {
            EXPECT_NEAR(s.rr, sum_of_squares(v.r), 1e-14);
            EXPECT_GT(s.rr, 0.0);
        }
    } control;
    pcg_loop({.c = system_, .m = m_, .direction = direction, .residual = &system_}, vectors(), s_, control);
    EXPECT_EQ(system_.refreshes, 1);
    pcg_state without{.i = 50};
    three_iterations none;
    pcg_loop({.c = system_, .m = m_, .direction = direction}, vectors(), without, none);
    EXPECT_EQ(system_.refreshes, 1);
}

}  // namespace
}  // namespace zendar::detail
