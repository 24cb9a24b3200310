#include <gmock/gmock.h>

#include "modsolveriod.hpp"
#include "modsolveriod_test_support.hpp"

namespace zendar {
namespace {

using testing::ElementsAre;

/// Three effects of 2 traits: equations 1 to 6, 7 to 14 and 15 to 24.
param_type three_effects() {
    return test::small_model(2, {{.nlevel = 3}, {.nlevel = 4}, {.nlevel = 5}}).param;
}

TEST(ConvergenceGroups, AreNoneWithoutAnOption) {
    test::captured_log log;
    EXPECT_THAT(convergence_groups(three_effects(), log), ElementsAre());
}

TEST(ConvergenceGroups, AreTheEquationsOfAnEffect) {
    test::captured_log log;
    param_type param = three_effects();
    param.solver.conveff = 2;
    EXPECT_THAT(convergence_groups(param, log), ElementsAre(equation_range{7, 14}));
}

TEST(ConvergenceGroups, GoFromTheFirstEffectToThatOfConvpart) {
    test::captured_log log;
    param_type param = three_effects();
    param.solver.convpart = 2;
    param.solver.conveff = 3;
    EXPECT_THAT(convergence_groups(param, log), ElementsAre(equation_range{1, 14}));
}

TEST(ConvergenceGroups, AreOnePairForEachEffectOfTheList) {
    test::captured_log log;
    param_type param = three_effects();
    param.solver.conveffs = {3, 1};
    param.solver.conveff = 2;
    EXPECT_THAT(convergence_groups(param, log), ElementsAre(equation_range{15, 24}, equation_range{1, 6}));
}

TEST(ConvergenceGroups, RefuseEffectsThatTheModelDoesNotHave) {
    for (const std::int32_t e : {-1, 4}) {
        const std::string message = "Convergence criteria cannot be computed for the effect " +
                                    std::to_string(e) + ": it is not the number of an effect (1 to 3)!";
        for (int option = 0; option < 3; ++option) {
            test::captured_log log;
            param_type param = three_effects();
            if (option == 0) param.solver.conveff = e;
            if (option == 1) param.solver.convpart = e;
            if (option == 2) param.solver.conveffs = {1, e};
            EXPECT_EQ(test::fatal_text([&] { convergence_groups(param, log); }), message);
        }
    }
}

}  // namespace
}  // namespace zendar
