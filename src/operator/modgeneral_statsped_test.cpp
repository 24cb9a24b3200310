#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captured_log.hpp"
#include "modenum.hpp"
#include "modgeneral.hpp"
#include "modpedigree_ploidy.hpp"

namespace zendar {
namespace {

using test::captured_log;

/// Two animals with 60 and 20 offspring of theirs, of one group or none, and groups behind them.
pedigree_list two_families(std::int32_t nupg) {
    constexpr std::int32_t nani = 82;
    auto ped = std::make_unique<pedigree_type>();
    ped->nupg = nupg;
    ped->ped = matrix<std::int32_t>(2, nani + nupg);
    ped->f.assign(static_cast<std::size_t>(nani + nupg), 0.0);
    ped->f[5] = 0.25;
    for (std::int32_t i = 3; i <= nani; ++i) ped->ped(0, i - 1) = i <= 62 ? 1 : 2;
    if (nupg > 0) ped->ped(1, 2) = nani + 1;
    pedigree_list list;
    list.push_back(std::move(ped));
    return list;
}

param_type effect_of(std::int32_t type) {
    param_type param;
    param.neffect = 1;
    param.type_effect = {teff_class};
    param.n_level_nested = {0};
    param.type_random = {type};
    return param;
}

const std::string heading = "\nSTATISTICS FOR PEDIGREE (if any)\n\n";

TEST(Statsped, CountsParentsAndUnknownOnes) {
    captured_log report, log;
    statsped(effect_of(trandom_ani), two_families(0), report, log);
    EXPECT_EQ(report.text(), heading +
                                 "Effect 1\n"
                                 "Number of levels                  : 82\n"
                                 "Number of (real) animals          : 82\n"
                                 "Average inbreeding                : .003\n"
                                 "Number of known parents           : 2\n"
                                 "Number of known parents (>50 off.): 1\n"
                                 "Number of unknown (0) parents     : 84\n");
}

TEST(Statsped, TellsOfGroupsWhereTheTypeHasThem) {
    captured_log report, log;
    statsped(effect_of(trandom_ani_upg), two_families(3), report, log);
    EXPECT_THAT(report.text(), testing::HasSubstr("Number of levels                  : 85\n"
                                                  "Number of (real) animals          : 82\n"));
    EXPECT_THAT(report.text(), testing::EndsWith("Number of unknown (0) parents     : 83\n"
                                                 "Number of declared genetic groups : 3\n"
                                                 "Number of assigned genetic groups : 1\n"));
    captured_log meta;
    statsped(effect_of(trandom_ani_meta), two_families(3), meta, log);
    EXPECT_THAT(meta.text(), testing::Not(testing::HasSubstr("genetic groups")));
}

TEST(Statsped, SaysNothingOfOtherEffects) {
    captured_log report, log;
    statsped(effect_of(10), two_families(0), report, log);
    statsped(effect_of(trandom_ani), {}, report, log);
    EXPECT_EQ(report.text(), heading + heading);
}

TEST(Statsped, RefusesCovariablesThatAreNotNested) {
    captured_log report, log;
    param_type param = effect_of(trandom_ani);
    param.type_effect = {teff_covariable};
    EXPECT_EQ(test::fatal_message([&] { statsped(param, two_families(0), report, log); }),
              "Covariables are not possible with animal effect");
}

/// A founder of four copies, its selfed offspring and another founder.
pedigree_list copies_of_four() {
    auto ped = std::make_unique<pedigree_ploidy_type>();
    ped->nupg = 0;
    ped->ped = matrix<std::int32_t>(2, 3);
    ped->ped(0, 1) = ped->ped(1, 1) = 1;
    ped->tau = matrix<std::int32_t>(2, 3, 2);
    ped->lambda = matrix<double>(2, 3);
    ped->f = {0.0, 1.0 / 6.0, 0.0};
    ped->kdiag = {0.5, 0.75, 0.5};
    ped->kparents = {0.0, 0.5, 0.0};
    pedigree_list list;
    list.push_back(std::move(ped));
    return list;
}

const std::string ploidy_heading = "\nSTATISTICS FOR PEDIGREE WITH PLOIDY (if any)\n\n";

TEST(Statspedploidy, TellsOfCoancestriesBesides) {
    captured_log report, log;
    statspedploidy(effect_of(trandom_ani_ploidy), copies_of_four(), report, log);
    EXPECT_EQ(report.text(), ploidy_heading +
                                 "Effect 1\n"
                                 "Number of levels                  : 3\n"
                                 "Number of (real) animals          : 3\n"
                                 "Average inbreeding                : .056\n"
                                 "Number of known parents           : 1\n"
                                 "Number of known parents (>50 off.): 0\n"
                                 "Number of unknown (0) parents     : 4\n"
                                 "Average diagonal coancestry       : .292\n");
}

TEST(Statspedploidy, SharesTheEffectsWithTheOrdinaryStatistics) {
    captured_log report, log;
    statsped(effect_of(trandom_ani_ploidy), copies_of_four(), report, log);
    statspedploidy(effect_of(trandom_ani), two_families(0), report, log);
    statspedploidy(effect_of(trandom_ani_ploidy), {}, report, log);
    EXPECT_EQ(report.text(), heading + ploidy_heading + ploidy_heading);
}

TEST(Statspedploidy, RefusesCovariablesThatAreNotNestedAndGroups) {
    captured_log report, log;
    param_type param = effect_of(trandom_ani_ploidy);
    pedigree_list list = copies_of_four();
    list[0]->nupg = 1;
    EXPECT_EQ(test::fatal_message([&] { statspedploidy(param, list, report, log); }),
              "Genetic groups for ploidy animal effect is not supported yet");
    param.type_effect = {teff_covariable};
    EXPECT_EQ(test::fatal_message([&] { statspedploidy(param, list, report, log); }),
              "Covariables are not possible with ploidy animal effect");
}

}  // namespace
}  // namespace zendar
