#include "modgeneral_convaggregate.hpp"

#include <gmock/gmock.h>

#include "modgeneral_test_model.hpp"

namespace zendar {
namespace {

using testing::HasSubstr;
using testing::Not;

/// One covariate (equation 1) whose product with 1 and 2 is added to the levels of a class effect.
struct aggregate_model {
    aggregate_model() {
        param.sumeffect = {{.effect1 = 1, .effect2 = 2}};
        matrix<double> values(1, 2);
        values(0, 0) = 1.0;
        values(0, 1) = 2.0;
        cov = {covariable_type({1, 2}, values), covariable_type()};
    }
    param_type param = test::small_model(1, {{.type = 1, .ncov = 1}, {.nlevel = 2}}).param;
    std::vector<covariable_type> cov;
};

TEST(ConvaggregateOffset, IsThatOfTheFirstHugeEffectOfType22) {
    param_type param =
        test::small_model(2, {{.nlevel = 3}, {.nlevel = 4}, {.nlevel = 5}, {.nlevel = 6}}).param;
    EXPECT_EQ(convaggregate_offset(param), 36);
    param.nhuge = 2;
    EXPECT_EQ(convaggregate_offset(param), 36);
    param.type_random_eff[3] = 22;
    EXPECT_EQ(convaggregate_offset(param), 24);
    param.type_random_eff[1] = 22;  // not huge
    EXPECT_EQ(convaggregate_offset(param), 24);
}

TEST(ComputeConvaggregate, ReportsTheChangeSinceTheTenthIterationBefore) {
    aggregate_model model;
    test::captured_log log;
    convaggregate_state state{.offset = 3};
    const auto look = [&](std::int32_t i, const std::vector<double>& x) {
        computeconvaggregate(model.param, i, x, model.cov, state, log);
    };
    look(10, {1.0, 1.0, 1.0});  // aggregates 1 2 3
    EXPECT_THAT(log.text(), Not(HasSubstr("Convergence of aggregate")));
    look(15, {9.0, 9.0, 9.0});
    look(20, {1.0, 2.0, 3.0});  // 1 3 5: (1 + 4) / (1 + 9 + 25)
    EXPECT_THAT(log.text(), HasSubstr("Iteration 20 Convergence of aggregate solutions = 0.1429E+00\n"));
}

TEST(ComputeConvaggregate, LeavesOutWhatIsBehindTheOffset) {
    aggregate_model model;
    test::captured_log log;
    convaggregate_state state{.offset = 2};
    for (const auto& [i, x] :
         {std::pair(10, std::vector{1.0, 1.0, 1.0}), std::pair(20, std::vector{1.0, 1.0, 50.0})})
        computeconvaggregate(model.param, i, x, model.cov, state, log);
    EXPECT_THAT(log.text(), HasSubstr("solutions = 0.0000E+00\n"));
}

TEST(ComputeConvaggregate, WarnsOnceWhenThereIsNothingToAggregate) {
    aggregate_model model;
    model.param.sumeffect.clear();
    test::captured_log log;
    convaggregate_state state{.offset = 3};
    for (const std::int32_t i : {10, 20})
        computeconvaggregate(model.param, i, std::vector{1.0, 1.0, 1.0}, model.cov, state, log);
    EXPECT_EQ(log.text(), "WARN: There are no aggregate solutions whose convergence could be computed!\n");
}

}  // namespace
}  // namespace zendar
