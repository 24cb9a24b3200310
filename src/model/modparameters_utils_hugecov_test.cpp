#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modparameters_utils.hpp"
#include "snp_model.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using test::snp_choice;
using test::snp_model;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsNull;
using testing::NotNull;

class ReaddataHugecovAscii : public testing::Test {
  protected:
    void read(const param_type& param) {
        const std::vector<covariable_type> cov(static_cast<std::size_t>(param.neffect));
        readdata_hugecov_ascii(param, cov, ghuge_, log_);
    }

    test::temporary_directory directory_;
    test::working_directory here_{directory_.path()};
    captured_log log_;
    std::vector<std::unique_ptr<crssparse>> ghuge_;
};

TEST_F(ReaddataHugecovAscii, LeavesTheArrayEmptyWithoutHugeEffects) {
    ghuge_.resize(2);
    param_type param = snp_model({.nsnp = {3}});
    param.nhuge = 0;

    read(param);

    EXPECT_THAT(ghuge_, IsEmpty());
    EXPECT_EQ(log_.text(), "");
}

TEST_F(ReaddataHugecovAscii, ReadsOrComputesAMatrixForEachGroup) {
    directory_.write("snp.inv", "1 1 2\n2 2 2\n3 3 5\n");
    param_type param =
        snp_model({.nanimal = 1, .nsnp = {2, 1, 2, 4}, .type_random = 23, .covariance = "snp.inv"});
    param.n_correlated[1] = 1;  // effects 2 and 3; 4 is fixed
    param.type_random[4] = 30;
    param.n_correlated[4] = 0;
    param.file[5][0] = " compute ";
    param.link_effect[4] = {1};
    param.sum2pq = 2.0;
    param.lbetasnp = false;

    read(param);

    EXPECT_THAT(ghuge_, ElementsAre(IsNull(), NotNull(), IsNull(), IsNull(), NotNull()));
    EXPECT_THAT(ghuge_[1]->get_nzval(), ElementsAre(2, 2, 5));
    EXPECT_THAT(ghuge_[4]->get_nzval(), ElementsAre(2, 2, 2, 2));
    EXPECT_TRUE(directory_.exists("invcov_2.inv"));
    EXPECT_FALSE(directory_.exists("invcov_2.inv.scaled"));
    EXPECT_TRUE(directory_.exists("invcov_5.inv"));
    EXPECT_TRUE(directory_.exists("invcov_5.inv.scaled"));
}

TEST_F(ReaddataHugecovAscii, TakesTheTypesOfHugeEffectsOnly) {
    directory_.write("snp.inv", "1 1 2\n");
    for (const std::int32_t type : {20, 22, 23, 30}) {
        read(snp_model({.nsnp = {1}, .type_random = type, .covariance = "snp.inv", .links = {1}}));
        EXPECT_THAT(ghuge_, ElementsAre(IsNull(), NotNull()));
    }
    for (const std::int32_t type : {1, 3, 10, 103, 21}) {
        const param_type param = snp_model({.nsnp = {1}, .type_random = type, .covariance = "snp.inv"});
        EXPECT_EQ(fatal_message([&] { read(param); }),
                  "This type of huge effect is not supported: " + std::to_string(type));
    }
    EXPECT_THAT(log_.text(), HasSubstr("modparameters_utils % readdata_hugecov_ascii ("));
}

TEST_F(ReaddataHugecovAscii, StopsAtAnEffectOfTwoGroups) {
    directory_.write("snp.inv", "1 1 2\n");
    param_type param = snp_model({.nsnp = {1, 1}, .covariance = "snp.inv"});
    param.type_random[2] = 20;
    param.n_correlated[2] = 0;
    EXPECT_EQ(fatal_message([&] { read(param); }),
              "The huge effect 3 has an EFFECT_ID of its own, but belongs to the group of the effect 2");
}

TEST_F(ReaddataHugecovAscii, TakesTheCovariancesOfAnInstructionFile) {
    directory_.write("r.txt", "1 1 1\n2 1 0 1\n");
    directory_.write("g.txt", "2\n1 2\n");  // inverse: 1/3 (2 -1; -1 2)
    directory_.write(
        "model.par",
        "N_TRAITS\n2\nN_WEIGHTS\n0\nN_EFFECTS\n2\nPOS_TRAITS\n2 3\nPOS_WEIGHTS\n0 0\nPOS_EFFECTS\n"
        "1 1 0 5 1 0 0 0 none\n0 0 3 0 3 0 0 0 geno.txt\nN_RESIDUAL_COV\n1 0\nr.txt\n"
        "EFFECT_ID\n1 1 0 2\ng.txt\nEFFECT_ID\n2 30 0 1\ncompute 1\n1\nPHENO_FILE\ndata.txt\n"
        "!sum2pq 6\n!beta 0.5\n");
    param_type param;
    read_parameter_file(param, "model.par", log_);
    modparameters::read_parameter_file_options(param, "model.par", log_);
    check_and_finalize(param, true, log_);
    invertg(param, log_);

    read(param);

    ASSERT_THAT(ghuge_, ElementsAre(IsNull(), NotNull()));
    const crssparse& ginv = *ghuge_[1];  // 6 / 0.5 = 12 times
    EXPECT_THAT(ginv.get_rowptr(), ElementsAre(1, 3, 4, 6, 7, 9, 10));
    EXPECT_THAT(ginv.get_colval(), ElementsAre(1, 2, 2, 3, 4, 4, 5, 6, 6));
    EXPECT_THAT(ginv.get_nzval(),
                testing::Pointwise(testing::DoubleNear(1e-13), {8, -4, 8, 8, -4, 8, 8, -4, 8}));
}

}  // namespace
}  // namespace zendar
