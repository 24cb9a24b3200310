#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modparameters_utils.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::EndsWith;
using testing::HasSubstr;

param_type effects(std::vector<std::int32_t> types, std::vector<std::string> files) {
    param_type param;
    param.neffect = static_cast<std::int32_t>(types.size());
    param.n_level.assign(types.size(), 3);
    param.n_cov.assign(types.size(), 1);
    param.type_effect = std::move(types);
    param.cov_file = std::move(files);
    return param;
}

TEST(ReaddataCovAscii, LeavesTheArrayEmptyWithoutCovariableEffects) {
    std::vector<covariable_type> cov(3);
    captured_log log;

    readdata_cov_ascii(effects({0, 0}, {"none", "none"}), cov, log);

    EXPECT_TRUE(cov.empty());
    EXPECT_EQ(log.text(), "");
}

TEST(ReaddataCovAscii, ReadsEachCovariableEffectAndLogsTheMemory) {
    const test::temporary_directory directory;
    std::string text;
    for (int id = 1; id <= 200'000; ++id) text += std::to_string(id) + " " + std::to_string(id % 10) + "\n";
    const std::string big = directory.write("big.txt", text).string();
    const std::string small = directory.write("small.sparse", "2 1 7\n").string();
    param_type param = effects({1, 0, 1, 2}, {big, "none", "1.as_effect", small});
    param.n_level[0] = 200'000;
    std::vector<covariable_type> cov;
    captured_log log;

    readdata_cov_ascii(param, cov, log);

    ASSERT_EQ(cov.size(), 4U);
    EXPECT_EQ(cov[0].values()(0, cov[0].row_of(123'457) - 1), 7.0);
    EXPECT_EQ(cov[1].data, nullptr);
    EXPECT_EQ(cov[2].data, cov[0].data);  // counted once
    EXPECT_TRUE(cov[3].is_sparse());
    EXPECT_THAT(log.text(), HasSubstr("The effects 1 and 3 have the same covariable_type data\n"));
    EXPECT_THAT(log.text(),
                EndsWith("Memory (MB) needed for cov   : 2.29\n"));  // 12 bytes for each of 200,000
}

TEST(ReaddataCovAscii, StopsAtAnEffectWithoutFile) {
    for (const std::int32_t type : {1, 2, 3}) {
        std::vector<covariable_type> cov;
        captured_log log;

        EXPECT_EQ(fatal_message([&] {
                      readdata_cov_ascii(effects({0, type}, {"none", "none"}), cov, log);
                  }),
                  "The covariable effect 2 does not have an associated file!");
        EXPECT_THAT(log.text(), HasSubstr("modparameters_utils % readdata_cov_ascii ("));
    }
}

TEST(ReaddataCovAscii, StopsAtAReferenceToAnEffectWithoutData) {
    std::vector<covariable_type> cov;
    captured_log log;

    EXPECT_EQ(fatal_message([&] {
                  readdata_cov_ascii(effects({0, 1}, {"none", "1.as_effect"}), cov, log);
              }),
              "Check the covariate file 1.as_effect for effect 2");
}

TEST(ReaddataCovAscii, CountsTheMemoryOfGenotypes) {
    const test::temporary_directory directory;
    const std::int32_t nsnp = 4'000;
    std::string bim, fam;
    for (std::int32_t k = 1; k <= nsnp; ++k) bim += "snp\n";
    for (std::int32_t k = 1; k <= 1'000; ++k) fam += "f " + std::to_string(k) + "\n";
    directory.write("geno.bed", "\x6C\x1B\x01" + std::string(250 * nsnp, '\x02'));
    directory.write("geno.bim", bim);
    directory.write("geno.fam", fam);
    param_type param = effects({3}, {(directory / "geno.bed").string()});
    param.n_level = {1'000};
    param.n_cov = {nsnp};
    std::vector<covariable_type> cov;
    captured_log log;

    readdata_cov_ascii(param, cov, log);
    EXPECT_THAT(log.text(),
                EndsWith("Memory (MB) needed for cov   : .96\n"));  // 250 * 4,000 + 4 * 1,000 bytes

    param.miraculix = {1};
    readdata_cov_ascii(param, cov, log);
    EXPECT_NE(cov[0].compressed, nullptr);
    EXPECT_THAT(log.text(), testing::Not(EndsWith(": .96\n")));  // the compressed store as well
}

}  // namespace
}  // namespace zendar
