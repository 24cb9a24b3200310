#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modenum.hpp"
#include "modparameters_utils.hpp"
#include "modpedigree_ploidy.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// One effect with a pedigree of `n` levels, and the files of a run.
class ReaddataPedAscii : public ::testing::Test {
  protected:
    ReaddataPedAscii() : at_(folder_.path()) { folder_.write("ped.txt", "3 1 2\n4 3 1\n"); }

    param_type effect(std::int32_t type, std::int32_t n, std::int32_t nupg = 0) {
        param_type param;
        param.neffect = 1;
        param.type_effect = {teff_class};
        param.n_level = {n};
        param.n_level_nested = {0};
        param.type_random = {type};
        param.nupg = {nupg};
        param.file.assign(2, {"none", "none", "none", "none"});
        param.file[1] = {"ped.txt", "compute", "none", "none"};
        return param;
    }
    pedigree_list read(const param_type& param) { return readdata_ped_ascii(param, meuwissen_and_luo, log_); }
    std::string refusal(const param_type& param) {
        return fatal_message([&] { read(param); });
    }
    test::temporary_directory folder_;
    test::working_directory at_;
    captured_log log_;
};

TEST_F(ReaddataPedAscii, ReadsThePedigreeAndComputesTheCoefficients) {
    const pedigree_list list = read(effect(trandom_ani, 5));
    ASSERT_EQ(list.size(), 1U);
    const pedigree_type& ped = *list[0];
    EXPECT_THAT(ped.ped.values(), ElementsAre(0, 0, 0, 0, 1, 2, 3, 1, 0, 0));
    EXPECT_THAT(ped.f, ElementsAre(0, 0, 0, 0.25, 0));
    EXPECT_EQ(ped.nupg, 0);
    EXPECT_EQ(ped.filename, "ped.txt");
    EXPECT_THAT(log_.text(), HasSubstr("Memory (MB) needed for ped   : .00\n"));
    EXPECT_TRUE(folder_.exists("ped.txt.inb"));
}

TEST_F(ReaddataPedAscii, TakesCoefficientsFromAFile) {
    folder_.write("inb.txt", "# id f\n2 0.125\n");
    param_type param = effect(trandom_ani, 4);
    param.file[1][1] = "inb.txt";
    EXPECT_THAT(read(param)[0]->f, ElementsAre(0, 0.125, 0, 0));
    param.file[1][1] = "none";
    EXPECT_TRUE(read(param)[0]->f.empty());
    param.file[1][1] = "nowhere.txt";
    EXPECT_THAT(refusal(param), HasSubstr("Issue while opening the file nowhere.txt"));
}

TEST_F(ReaddataPedAscii, ReadsGroupsAndMetafounders) {
    folder_.write("ped.txt", "1 4 5\n2 4 4\n3 1 2\n");
    folder_.write("gamma.txt", "1 1 0.5\n2 1 0.1\n2 2 0.4\n");
    const pedigree_list groups = read(effect(trandom_ani_upg, 5, 2));
    EXPECT_EQ(groups[0]->nupg, 2);
    EXPECT_THAT(groups[0]->f, ElementsAre(0, 0, 0, 0, 0));

    param_type param = effect(trandom_ani_meta, 5, 2);
    param.file[1][2] = "gamma.txt";
    const pedigree_list meta = read(param);
    EXPECT_TRUE(meta[0]->ismeta);
    EXPECT_EQ(meta[0]->metarel(0, 1), 0.1);
    EXPECT_NEAR(meta[0]->f[1], 0.25, 1e-15);  // both parents are metafounder 1
    EXPECT_NEAR(meta[0]->f[3], -0.5, 1e-15);
}

TEST_F(ReaddataPedAscii, LeavesEffectsWithoutPedigreeAlone) {
    param_type param = effect(1, 4);
    param.file[1][0] = "none";
    EXPECT_EQ(read(param)[0], nullptr);
    param.type_random = {10};
    param.file[1][0] = "matrix.txt";
    EXPECT_EQ(read(param)[0], nullptr);
    EXPECT_EQ(log_.text(), "");
}

TEST_F(ReaddataPedAscii, TakesTheLevelsOfANestingForRandomRegression) {
    param_type param = effect(trandom_ani, 2);
    param.type_effect = {teff_covariable};
    EXPECT_EQ(refusal(param), "Covariables are not possible with animal effects");
    param.n_level_nested = {4};
    EXPECT_EQ(read(param)[0]->nlength(), 4);
}

TEST_F(ReaddataPedAscii, RefusesTypesAndFilesThatDoNotFit) {
    EXPECT_EQ(refusal(effect(4, 4)), "This type of effect 4 is not implemented");
    EXPECT_EQ(refusal(effect(trandom_ani_upg, 4, 5)), "The effect 1 has 5 genetic groups, but only 4 levels");
    param_type param = effect(trandom_ani, 4);
    param.file[1][0] = "nowhere.txt";
    EXPECT_THAT(refusal(param), HasSubstr("nowhere.txt"));
    folder_.write("ped.txt", "3 1 2\n4 3 9\n");
    EXPECT_THAT(refusal(effect(trandom_ani, 4)), HasSubstr("line 2"));
}

/// One effect with a pedigree of any number of gene copies.
class ReaddataPedploidyAscii : public ReaddataPedAscii {
  protected:
    ReaddataPedploidyAscii() { folder_.write("ped.txt", "1 0 0 2 2 .1 .1\n2 0 0 1 1 0 0\n3 1 2 2 1 .1 0\n"); }

    param_type ploidy(std::int32_t n = 4, std::int32_t type = trandom_ani_ploidy) { return effect(type, n); }
    pedigree_list read_ploidy(const param_type& param, pedigree_list list = {}) {
        readdata_pedploidy_ascii(param, list, log_);
        return list;
    }
    std::string refusal_of(const param_type& param) {
        return fatal_message([&] { read_ploidy(param); });
    }
};

TEST_F(ReaddataPedploidyAscii, ReadsThePedigreeAndComputesFoundersAndCoefficients) {
    const pedigree_list list = read_ploidy(ploidy());
    ASSERT_EQ(list.size(), 1U);
    const auto* const ped = dynamic_cast<const pedigree_ploidy_type*>(list[0].get());
    ASSERT_NE(ped, nullptr);
    EXPECT_THAT(ped->ped.values(), ElementsAre(0, 0, 0, 0, 1, 2, 0, 0));
    EXPECT_THAT(ped->tau.values(), ElementsAre(2, 2, 1, 1, 2, 1, 1, 1));  // level 4 has no line
    EXPECT_EQ(ped->f.size(), 4U);
    EXPECT_NEAR(ped->f[0], 0.1 / 2.1, 1e-15);
    EXPECT_EQ(ped->kdiag[1], 1.0);
    EXPECT_EQ(ped->kparents.size(), 4U);
    EXPECT_EQ(ped->nupg, 0);
    EXPECT_EQ(ped->filename, "ped.txt");
    EXPECT_THAT(log_.text(), testing::StartsWith("Memory (MB) needed for ped   : .00\n"
                                                 "Start computation of founders\n"));
    EXPECT_THAT(log_.text(), HasSubstr("\nStart computation of inbreeding\n"));
    EXPECT_TRUE(folder_.exists("ped.txt.inb"));
}

TEST_F(ReaddataPedploidyAscii, StandsInTheListOfTheOtherEffects) {
    folder_.write("plain.txt", "3 1 2\n");
    param_type param = effect(trandom_ani, 3);
    param.neffect = 2;
    param.type_effect = {teff_class, teff_class};
    param.n_level = {3, 3};
    param.n_level_nested = {0, 0};
    param.type_random = {trandom_ani, trandom_ani_ploidy};
    param.nupg = {};
    param.file.push_back(param.file[1]);
    param.file[1][0] = "plain.txt";
    pedigree_list list = read(param);
    EXPECT_EQ(list[1], nullptr);
    const pedigree_type* const first = list[0].get();
    list = read_ploidy(param, std::move(list));
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].get(), first);
    EXPECT_NE(dynamic_cast<const pedigree_ploidy_type*>(list[1].get()), nullptr);
}

TEST_F(ReaddataPedploidyAscii, LeavesEffectsWithoutPedigreeAlone) {
    for (const char* name : {"none", "compute", ""}) {
        param_type param = ploidy();
        param.file[1][0] = name;
        EXPECT_EQ(read_ploidy(param)[0], nullptr) << name;
    }
    EXPECT_EQ(read_ploidy(effect(trandom_ani, 4))[0], nullptr);
    EXPECT_EQ(log_.text(), "");
}

TEST_F(ReaddataPedploidyAscii, ComputesCoefficientsOnly) {
    for (const char* name : {"none", "inb.txt", ""}) {
        param_type param = ploidy();
        param.file[1][1] = name;
        EXPECT_EQ(refusal_of(param), "Ped ploidy: only the option \"compute\" is supported\"");
    }
}

TEST_F(ReaddataPedploidyAscii, TakesTheLevelsOfANestingForRandomRegression) {
    param_type param = ploidy(2);
    param.type_effect = {teff_covariable};
    EXPECT_EQ(refusal_of(param), "Covariables are not possible with animal effects");
    param.n_level_nested = {4};
    EXPECT_EQ(read_ploidy(param)[0]->nlength(), 4);
}

TEST_F(ReaddataPedploidyAscii, RefusesTypesGroupsAndFilesThatDoNotFit) {
    EXPECT_EQ(refusal_of(ploidy(4, 205)), "This type of effect 205 is not implemented");
    EXPECT_EQ(refusal_of(effect(trandom_ani_ploidy, 4, 1)),
              "Genetic groups for ploidy animal effect is not supported yet");
    EXPECT_EQ(refusal_of(ploidy(2)), "Pedigree not correctly read at line 3");
    folder_.write("ped.txt", "1 0 0 1 1 .1 0\n");
    EXPECT_EQ(refusal_of(ploidy()), "Diploid founders with a lambda different than 0\nLevel 1\nFile ped.txt");
    folder_.write("ped.txt", "1 2 0 1 1 0 0\n2 0 1 1 1 0 0\n");
    EXPECT_THAT(refusal_of(ploidy()), HasSubstr("An animal of the pedigree is its own ancestor: 2, 1"));
}

}  // namespace
}  // namespace zendar
