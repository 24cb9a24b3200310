#include "modmme.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "modmme_detail.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

namespace zendar::test {
namespace {

using testing::HasSubstr;
using testing::Not;

model_choice small_choice(std::int32_t huge = -1) {
    model_choice choice;
    choice.nrec = 20;
    choice.in_memory = true;
    choice.pedigrees = true;
    choice.huge = huge;
    choice.bed = true;
    return choice;
}

/// A model that was read, and its assembly.
struct assembled_model : read_model {
    explicit assembled_model(std::int32_t huge = -1, std::uint64_t seed = 3)
        : read_model(random_model(small_choice(huge), seed), "!solver pardiso\n") {}
    lhs_inmem setup(const lhs_limits& limits = {}) {
        return setup_lhsrhs({run.param, run.data, run.cov, run.ped, run.ghuge}, limits, run.log);
    }
    std::string refusal(const lhs_limits& limits = {}) {
        try {
            static_cast<void>(setup(limits));
        } catch (const fatal_error& error) {
            return error.what();
        }
        return "nothing";
    }
};

TEST(SetupLhsrhs, RefusesOmegaBeforeTheRecords) {
    assembled_model model;
    model.run.param.omega = 0.5;
    EXPECT_EQ(model.refusal(), "Omega different than 1 is not supported with the requested options!");
    EXPECT_THAT(model.screen.str(), HasSubstr("ERROR: Omega different than 1 is not supported"));
    EXPECT_EQ(model.screen.str().find("Number of treated records"), std::string::npos);
}

TEST(SetupLhsrhs, RefusesTau) {
    assembled_model model;
    model.run.param.tau = 2.0;
    EXPECT_EQ(model.refusal(), "Tau different than 1 is not supported with the requested options!");
}

TEST(SetupLhsrhs, RefusesRandomTypesThatItDoesNotKnow) {
    assembled_model model;
    model.run.param.type_random[0] = 77;
    EXPECT_EQ(model.refusal(), "This type of effect 77 for effect 1 is not implemented");
    EXPECT_THAT(model.screen.str(), HasSubstr("modmme % addrandompart ("));
}

TEST(SetupLhsrhs, NeedsTheCovariancesOfHugeEffects) {
    assembled_model model(20);
    model.run.ghuge[model.run.param.neffect - 1].reset();
    EXPECT_EQ(model.refusal(), "size(ghuge) is equal to 0");
    model.run.ghuge.clear();
    EXPECT_EQ(model.refusal(), "ghuge is not allocated");
}

/// No growing: the first table holds all elements, and is not twice as large as one that would.
TEST(SetupLhsrhs, TheFirstTableIsTheLastOne) {
    for (const std::int32_t huge : {-1, 20, 22, 30})
        for (std::uint64_t seed = 1; seed <= 8; ++seed) {
            assembled_model model(huge, seed);
            const lhs_inmem lhs = model.setup();
            EXPECT_THAT(model.screen.str(), Not(HasSubstr("New size COO"))) << huge << ' ' << seed;
            mme_iod on_data(model.run.param, model.run.data, model.run.cov, model.run.log, model.run.ped,
                            model.run.ghuge);
            on_data.setup_for_lhs();
            const auto expected =
                static_cast<double>(modmme::expected_elements(model.run.param, on_data, model.run.cov));
            const auto stored = static_cast<double>(lhs.lhsija.totalnumberofelements());
            EXPECT_GT(expected, 0.97 * stored) << huge << ' ' << seed;
            EXPECT_LT(expected, 1.6 * stored + 50.0) << huge << ' ' << seed;
        }
}

TEST(SetupLhsrhs, RefusesTablesBeyondTheMemory) {
    assembled_model model(20);
    EXPECT_THAT(
        model.refusal({.bytes = 64}),
        testing::ContainsRegex("The left-hand side has more than [0-9]+ elements, and the next table for "
                               "them needs [0-9.]+ MB of memory, but .00 MB are available: use a solver "
                               "that iterates on the data"));
}

TEST(SetupLhsrhs, TellsItsElementsAndChangesTheWidthBehindTheLimit) {
    assembled_model model;
    const lhs_inmem narrow_lhs = model.setup();
    EXPECT_THAT(model.screen.str(), HasSubstr("Number of treated records: 20\n"));
    EXPECT_THAT(model.screen.str(), HasSubstr("All contributions for effects are added\n"));
    EXPECT_THAT(model.screen.str(), HasSubstr("CRS left hand side\n"));
    const std::string text = model.screen.str();
    const std::size_t at = text.find("   nnz    : ");
    ASSERT_NE(at, std::string::npos);
    std::istringstream words(text.substr(at + 12));
    std::int64_t nnz = 0, limit = 0;
    double logarithm = 0.0;
    words >> nnz >> logarithm >> limit;
    EXPECT_GT(nnz, narrow_lhs.lhsija.getdim(1));
    EXPECT_LE(nnz, narrow_lhs.lhsija.totalnumberofelements());
    EXPECT_NEAR(logarithm, std::log2(static_cast<double>(nnz)), 1e-9);
    EXPECT_EQ(limit, 1073741823);

    const lhs_inmem same = model.setup({.crs_elements = nnz});
    EXPECT_GT(same.lhsija.getdim(1), 0);
    EXPECT_EQ(same.lhsija64.getdim(1), 0);
    const lhs_inmem wide = model.setup({.crs_elements = nnz - 1});
    EXPECT_EQ(wide.lhsija.getdim(1), 0);
    EXPECT_GT(wide.lhsija64.getdim(1), 0);
    EXPECT_TRUE(wide.lhsija64.isupperstorage() && wide.lhsija64.issymmetric());
    EXPECT_THAT(model.screen.str(), HasSubstr("CRS64 left hand side\n"));
    EXPECT_EQ(wide.lhsija64.get_nzval(), narrow_lhs.lhsija.get_nzval());
}

TEST(SetupLhsrhs, TheStageRefusesCompressedGenotypesAndFreesTheData) {
    assembled_model model(20);
    setlhsrhs(model.run);
    EXPECT_TRUE(model.run.data.effect.empty());
    assembled_model kept(20);
    kept.run.param.lpec = true;
    setlhsrhs(kept.run);
    EXPECT_FALSE(kept.run.data.effect.empty());

    std::uint64_t seed = 1;
    while (random_model(small_choice(20), seed).effects.back().form != "bed") ++seed;
    assembled_model compressed(20, seed);
    init_miraculix(compressed.run.cov.back(), 1, 0, compressed.run.log);
    EXPECT_THROW(setlhsrhs(compressed.run), fatal_error);
    EXPECT_THAT(compressed.screen.str(),
                HasSubstr("Compressed covariables are not allowed for in-memory options"));
}

TEST(AvailableMemory, IsReadFromTheSystem) {
    const temporary_directory directory;
    const std::string file = directory.path() / "meminfo";
    std::ofstream(file) << "MemTotal:       100 kB\nMemFree:         5 kB\nMemAvailable:   77 kB\n";
    EXPECT_EQ(modmme::available_memory(file.c_str()), 77 * 1024);
    std::ofstream(file) << "MemTotal:       100 kB\n";
    EXPECT_EQ(modmme::available_memory(file.c_str()), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(modmme::available_memory("no such file"), std::numeric_limits<std::int64_t>::max());
    EXPECT_GT(modmme::available_memory(), 1048576);
}

}  // namespace
}  // namespace zendar::test
