#include <gmock/gmock.h>

#include "modsolveriod.hpp"
#include "modsolveriod_test_support.hpp"

namespace zendar {
namespace {

using testing::MatchesRegex;

param_type huge_effects(const std::vector<std::int32_t>& codes) {
    param_type param;
    param.neffect = static_cast<std::int32_t>(codes.size()) + 1;
    param.nhuge = static_cast<std::int32_t>(codes.size());
    param.type_random_eff = {77};
    param.type_random_eff.insert(param.type_random_eff.end(), codes.begin(), codes.end());
    return param;
}

TEST(InitSolverPcgIod, DoesNothingWithoutHugeEffects) {
    test::captured_log log;
    modsolveriod::solver_state state;
    init_solver_pcg_iod(huge_effects({}), state, log);
    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(state.diagmaaam.empty());
}

TEST(InitSolverPcgIod, NeedsNothingForMostTypes) {
    test::captured_log log;
    modsolveriod::solver_state state;
    init_solver_pcg_iod(huge_effects({0, 1, 3, 5, 7, 9, 10, 20, 23, 30}), state, log);
    EXPECT_EQ(log.text(), "\nSetting-up of matrices and arrays for preconditioner\n");
    EXPECT_EQ(state.diagmaaam.size(), 10u);
}

TEST(InitSolverPcgIod, ComputesTheDiagonalOfType22) {
    test::captured_log log;
    modsolveriod::solver_state state;
    std::vector<std::int32_t> asked;
    init_solver_pcg_iod(huge_effects({22, 1, 22}), state, log, [&](std::int32_t e) {
        asked.push_back(e);
        return std::vector<double>(e == 2 ? 5 : 0, 1.5);
    });
    EXPECT_THAT(asked, testing::ElementsAre(2, 4));
    EXPECT_THAT(state.diagmaaam[0], testing::ElementsAre(1.5, 1.5, 1.5, 1.5, 1.5));
    EXPECT_TRUE(state.diagmaaam[2].empty());
    EXPECT_THAT(
        log.text(),
        MatchesRegex("\nSetting-up of matrices and arrays for preconditioner\n"
                     "     Wall clock time \\(s\\) for computing zaaaz  \\(5\\) :[0-9]*\\.[0-9]{3}\n"));
    destroy_solver_iod(state);
    EXPECT_TRUE(state.diagmaaam.empty());
}

TEST(InitSolverPcgIod, RefusesOtherTypes) {
    for (const std::int32_t code : {2, 21, 24, 103, -1}) {
        test::captured_log log;
        modsolveriod::solver_state state;
        EXPECT_EQ(test::fatal_text([&] { init_solver_pcg_iod(huge_effects({code}), state, log); }),
                  "This type of effect " + std::to_string(code) + " is not implemented");
        EXPECT_THAT(log.text(), testing::HasSubstr("modsolveriod % init_solver_pcg_iod ("));
    }
}

}  // namespace
}  // namespace zendar
