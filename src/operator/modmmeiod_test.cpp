#include "modmmeiod.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "captured_log.hpp"
#include "modgeneral.hpp"
#include "modmmeiod_detail.hpp"
#include "read_model.hpp"

namespace zendar {
namespace {

using test::read_model;
using test::threads;
using ::testing::HasSubstr;
using ::testing::Not;

/// Two traits, a fixed class effect, and a random one with more levels in the order of which the records
/// stand.
test::model_choice plain() {
    test::model_choice choice;
    choice.ntrait = 2;
    choice.nrec = 96;
    choice.neffect = 2;
    choice.covariables = choice.correlated = choice.external = choice.absent = choice.missing = false;
    choice.residual_classes = choice.weights = false;
    choice.sorted = choice.always_random = true;
    return choice;
}

test::random_model plain_model() {
    for (std::uint64_t seed = 1;; ++seed) {
        test::random_model model(plain(), seed);
        if (model.effects[1].nlevel == 9 && model.effects[0].nlevel < 9) return model;
    }
}

struct read_plain : read_model {
    explicit read_plain(const std::string& options = {}) : read_model(plain_model(), options) {}
    [[nodiscard]] mme_iod make() { return {run.param, run.data, run.cov, run.log}; }
    [[nodiscard]] std::string text() const { return screen.str(); }
};

TEST(setup_lhsrhs_iod, TellsItsStepsInOrder) {
    const threads one(1);
    read_plain read;
    mme_iod op = read.make();

    op.setup_lhsrhs_iod(2);

    const std::string text = read.text();
    std::size_t at = 0;
    for (const char* line :
         {"Inversion of the residual matrix(ces) for the different trait combinations\n",
          "Memory (MB) needed for the residual matrix(ces): .00\n", "Setting-up of matrices for effect 1\n",
          "Setting-up of matrices for effect 2\n", "INFO: All Delvane optimizations allowed\n",
          "INFO: Subroutine for the least square part: opti Delvane\nTo be efficient, the phenotype records "
          "must be "
          "sorted consecutively for the largest effect.\n",
          "Initialize the temporary array...\n", "Wall clock time (s) for determining bounds: ",
          "INFO: Memory (MB) allocated for thread 1 effect 1 : .000\n",
          "INFO: Memory (MB) allocated for thread 1 effect 2 : .000\n",
          "INFO: Total memory (MB): .000 out of ", "Initialization done  - Wall clock time (s): "}) {
        const std::size_t found = text.find(line, at);
        ASSERT_NE(found, std::string::npos) << line << "\n" << text;
        at = found;
    }
    EXPECT_EQ(op.state().nrhscontributions, (std::vector<std::int64_t>{0, 2}));
    EXPECT_EQ(op.work_size(), 0);
}

TEST(assign_computeleastsquare, NamesTheKernelOfEachValue) {
    const std::pair<std::int32_t, const char*> texts[] = {
        {1, "Subroutine for the least square part: medium mem"},
        {2, "Subroutine for the least square part: opti Delvane"},
        {5, "Subroutine for the least square part: opti mem"},
        {11, "Subroutine for the least square part: medium mem"},
        {12, "Subroutine for the least square part: opti Delvane"},
        {15, "Subroutine for the least square part with combined effects: opti mem"}};
    const char* const names[] = {"computeleastsquarepart_simplified_ori",
                                 "computeleastsquarepart_simplified_res_delvane_ori",
                                 "computeleastsquarepart_simplified_res_old_ori",
                                 "computeleastsquarepart_simplified_combieff",
                                 "computeleastsquarepart_simplified_res_delvane_combieff",
                                 "computeleastsquarepart_simplified_res_old_combieff"};
    for (std::size_t k = 0; k < std::size(texts); ++k) {
        read_plain read;
        read.run.log.set_level(log_level::debug);
        mme_iod op = read.make();
        op.setup_lhsrhs_iod(texts[k].first);
        EXPECT_THAT(read.text(), HasSubstr("INFO: " + std::string(texts[k].second) + "\n"));
        EXPECT_THAT(read.text(), HasSubstr("DEBUG: computeleastsquarepart associated with " +
                                           std::string(names[k]) + "\n"));
        const bool sorted = texts[k].first % 10 != 1;
        const char* const hint =
            "\nTo be efficient, the phenotype records must be sorted consecutively for the largest effect.";
        EXPECT_EQ(read.text().find(hint) != std::string::npos, sorted);
    }
}

TEST(assign_computeleastsquare, StopsAtAValueWithoutAKernel) {
    for (const std::int32_t value : {-9, 0, 3, 10, 22}) {
        read_plain read;
        mme_iod op = read.make();
        EXPECT_THAT(
            test::fatal_message([&] { op.setup_lhsrhs_iod(value); }),
            HasSubstr("Subroutine for the least square part does not exist. Check the option loptimem"));
        EXPECT_THAT(read.text(), HasSubstr("modmmeiod % assign_computeleastsquare ("));
    }
}

TEST(assign_computeleastsquare, WarnsOfSeveralCovariatesInAnEffect) {
    test::model_choice choice = plain();
    choice.covariables = true;
    for (std::uint64_t seed = 1;; ++seed) {
        const test::random_model model(choice, seed);
        if (std::ranges::all_of(model.effects, [](const auto& effect) { return effect.ncov == 1; })) continue;
        read_model read(model);
        mme_iod op(read.run.param, read.run.data, read.run.cov, read.run.log);
        op.setup_lhsrhs_iod(2);
        EXPECT_THAT(read.screen.str(),
                    HasSubstr("WARN: All Delvane optimizations not allowed!\nPossible reason: "
                              "Multiple covariates in a same effect\n"));
        return;
    }
}

TEST(setup_lhsrhs_iod, SetsAnUnsupportedOmegaToOne) {
    read_plain read("!omega 0.8\n");
    mme_iod op = read.make();
    op.setup_lhsrhs_iod(2);
    EXPECT_EQ(read.run.param.omega, 1.0);
    EXPECT_THAT(read.text(),
                HasSubstr("WARN: Omega different than 1 is not supported with the requested options! "
                          "Omega will be set to 1.\n"));
    read_plain usual;
    mme_iod other = usual.make();
    other.setup_lhsrhs_iod(2);
    EXPECT_THAT(usual.text(), Not(HasSubstr("Omega different")));
}

TEST(setup_lhsrhs_iod, RefusesRandomTypesItHasNoProductFor) {
    read_plain read;
    mme_iod op = read.make();
    read.run.param.type_random[1] = 4;
    EXPECT_THAT(test::fatal_message([&] { op.setup_lhsrhs_iod(2); }),
                HasSubstr(" This type of effect 4 is not implemented"));
    EXPECT_THAT(read.text(), HasSubstr("modmmeiod % computerandompartsparse_timesx ("));
    read.run.param.type_random[1] = 10;
    read.run.param.useasparse = false;
    EXPECT_THAT(test::fatal_message([&] { op.setup_lhsrhs_iod(2); }),
                HasSubstr(" This type of effect 10 is not implemented"));
    EXPECT_THAT(read.text(), HasSubstr("modmmeiod % computerandompart_timesx ("));
}

TEST(make_effect_group, StopsWhenLevelsOrCovariancesDoNotFit) {
    read_plain read;
    param_type& param = read.run.param;
    param.g[1] = matrix<double>(3, 3, 1.0);
    EXPECT_THAT(
        test::fatal_message([&] { (void)make_effect_group(param, 2, read.run.log); }),
        HasSubstr("The (co)variance matrix of effect 2 has 3 rows, but its traits and covariables need 2"));
    param.n_correlated[0] = 1;
    param.n_level[0] = param.n_level[1] + 1;
    EXPECT_THAT(test::fatal_message([&] { (void)make_effect_group(param, 1, read.run.log); }),
                HasSubstr("The correlated effects 1 and 2 have different numbers of levels: "));
}

TEST(make_blocks, GivesAllRecordsToTheLastThreadWhenThereAreFewerThanThreads) {
    std::vector<std::int32_t> levels{1, 2, 3};
    modmmeiod::record_input in;
    in.effect = {levels.data(), 1, 3, 1};
    const auto blocks = modmmeiod::make_blocks(in, 8);
    ASSERT_EQ(blocks.size(), 8u);
    for (std::size_t i = 0; i < 7; ++i) EXPECT_EQ(blocks[i].first, blocks[i].end);
    EXPECT_EQ(blocks[7].first, 0);
    EXPECT_EQ(blocks[7].end, 3);
}

TEST(make_blocks, EndsWhereTheLevelChangesUnlessRecordsAreNotSorted) {
    std::vector<std::int32_t> levels(80, 1);
    for (std::size_t i = 42; i < 80; ++i) levels[i] = 2;
    modmmeiod::record_term term;
    term.last = 2;
    term.stride = 1;
    modmmeiod::record_input in;
    in.ntrait = 1;
    in.effect = {levels.data(), 1, 80, 1};
    in.terms = {&term, 1};
    EXPECT_EQ(modmmeiod::make_blocks(in, 2)[1].first, 42);
    EXPECT_EQ(modmmeiod::make_blocks(in, 2)[0].end, 42);
    levels.assign(80, 1);
    EXPECT_EQ(modmmeiod::make_blocks(in, 2)[1].first, 40);
}

TEST(setleastsquarepart_full, KeepsNoArraysForEquationsOfOneThread) {
    const threads two(2);
    read_plain read;
    mme_iod op = read.make();
    op.setup_lhsrhs_iod(2);
    ASSERT_EQ(op.state().residual.size(), 4u);
    EXPECT_TRUE(op.state().residual[0].allocated()) << "every thread meets the levels of the first effect";
    EXPECT_FALSE(op.state().residual[2].allocated()) << "sorted records";
    EXPECT_FALSE(op.state().residual[3].allocated());
}

TEST(thread_effect, WritesTheBoundsAndAScript) {
    const threads two(2);
    read_plain read("!thread_effect\n!outputdir out\n");
    mme_iod op = read.make();
    op.setup_lhsrhs_iod(2);
    const std::string data = read.directory.read("out/thread_effect.dat");
    std::istringstream in(data);
    std::int64_t e, lo1, hi1, lo2, hi2;
    ASSERT_TRUE(in >> e >> lo1 >> hi1 >> lo2 >> hi2) << data;
    EXPECT_EQ(e, 1);
    ASSERT_TRUE(in >> e >> lo1 >> hi1 >> lo2 >> hi2) << data;
    EXPECT_EQ(e, 2);
    EXPECT_GT(lo2, hi1);
    EXPECT_EQ(std::count(data.begin(), data.end(), '\n'), 2);
    EXPECT_EQ(read.directory.read("out/thread_effect.g"),
              "set term pngcairo size 1000,750\nset style fill solid 0.3\nset out 'out/thread_effect.png'\n"
              "plot \"<awk '{$1 = $1 + 0; print $0}' out/thread_effect.dat\" u 1:2:($1-0.05):($1+0.05):2:3 w "
              "boxxyerror notitle ,\\\n"
              "\"<awk '{$1 = $1 + .100; print $0}' out/thread_effect.dat\" u 1:4:($1-0.05):($1+0.05):4:5 w "
              "boxxyerror notitle\n");
}

TEST(thread_effect, IsNotWrittenUnlessAskedFor) {
    read_plain read;
    mme_iod op = read.make();
    op.setup_lhsrhs_iod(2);
    EXPECT_FALSE(read.directory.exists("thread_effect.dat"));
    read.run.log.set_level(log_level::debug);
    op.setup_lhsrhs_iod(2);
    EXPECT_TRUE(read.directory.exists("thread_effect.dat"));
    EXPECT_THAT(read.text(), HasSubstr("DEBUG: aaa 1 1 "));
}

class RightHandSide : public ::testing::Test {
  protected:
    RightHandSide() : op_(read_.make()) { op_.setup_lhsrhs_iod(2); }
    [[nodiscard]] std::size_t neq() const { return static_cast<std::size_t>(read_.run.param.neq); }

    read_plain read_;
    mme_iod op_;
    std::vector<double> x_ = std::vector<double>(neq(), 0.0), b_ = x_, r_ = x_;
};

TEST_F(RightHandSide, TakesThePhenotypesFromMemoryOrFromTheirFile) {
    op_.r_equal_b_minus_atimesx(x_, b_, r_);
    EXPECT_THAT(read_.text(), HasSubstr("Presence of an allocated phen array!\n"));
    const std::vector<double> b = b_;
    write_raw_stream(read_.run.data.phen.values(), "phentmp.stream", read_.run.log);
    read_.run.data.phen = {};

    op_.r_equal_b_minus_atimesx(x_, b_, r_);

    EXPECT_EQ(b_, b);
    EXPECT_THAT(read_.text(), HasSubstr("  Elapsed time (s) - r = b - C * x  : Read phen               : "));
    EXPECT_THAT(read_.text(), Not(HasSubstr("Huge_covariable * x")));
    EXPECT_EQ(std::filesystem::file_size("rhstmp.stream"), neq() * sizeof(double));
    EXPECT_TRUE(read_.run.data.phen.empty());
}

TEST_F(RightHandSide, StopsWithoutPhenotypes) {
    read_.run.data.phen = {};
    EXPECT_THAT(test::fatal_message([&] { op_.r_equal_b_minus_atimesx(x_, b_, r_); }),
                HasSubstr("The file phentmp.stream does not exist, AND phen is not allocated!"));
    EXPECT_THAT(read_.text(), HasSubstr("modmmeiod % r_equal_b_minus_Atimesx_ori ("));
    read_.directory.write("phentmp.stream", "12345678");
    EXPECT_THAT(test::fatal_message([&] { op_.r_equal_b_minus_atimesx(x_, b_, r_); }),
                HasSubstr("The file phentmp.stream has 8 bytes instead of 1536!"));
}

TEST_F(RightHandSide, StopsWithoutItsSavedCopy) {
    EXPECT_THAT(test::fatal_message([&] { op_.r_equal_savedb_minus_atimesx(x_, r_); }),
                HasSubstr("The file rhstmp.stream does not exist!"));
    EXPECT_THAT(read_.text(), HasSubstr("modmmeiod % r_equal_savedb_minus_Atimesx ("));
    EXPECT_FALSE(op_.read_savedb(b_));
    read_.directory.write("rhstmp.stream", "1234567");
    EXPECT_THAT(test::fatal_message([&] { op_.r_equal_savedb_minus_atimesx(x_, r_); }),
                HasSubstr("The file rhstmp.stream has 7 bytes instead of "));
    EXPECT_THAT(test::fatal_message([&] { (void)op_.read_savedb(b_); }),
                HasSubstr("The file rhstmp.stream has 7 bytes instead of "));
}

TEST_F(RightHandSide, GivesBackItsSavedCopy) {
    op_.r_equal_b_minus_atimesx(x_, b_, r_);
    std::vector<double> saved(neq());
    ASSERT_TRUE(op_.read_savedb(saved));
    EXPECT_EQ(saved, b_);
}

TEST_F(RightHandSide, GainsThePriorMeans) {
    op_.r_equal_b_minus_atimesx(x_, b_, r_);
    const std::vector<double> without = b_;
    std::vector<double> mu(neq());
    for (std::size_t i = 0; i < neq(); ++i) mu[i] = 0.25 * static_cast<double>(i % 5);
    writeoutput_real8(read_.run.param, mu, "prior.dat", read_.run.log);
    read_.run.param.priormean = "prior.dat";

    op_.r_equal_b_minus_atimesx(x_, b_, r_);

    // G^-1 mu by levels of the random effect, whose inverse the model holds.
    const matrix<double>& ginv = read_.run.param.g[1];
    std::vector<double> expected = without;
    for (std::size_t first = static_cast<std::size_t>(read_.run.param.sumequation[2]); first < neq();
         first += 2)
        for (std::size_t i = 0; i < 2; ++i)
            for (std::size_t j = 0; j < 2; ++j) expected[first + i] += ginv(i, j) * mu[first + j];
    EXPECT_LT(test::difference(b_, expected), 1e-14);
    EXPECT_THAT(read_.text(), HasSubstr("Reading prior_mean      : "));
    EXPECT_THAT(read_.text(), HasSubstr("Gi * prior_mean         : "));
}

TEST_F(RightHandSide, MayBeProvided) {
    std::vector<double> provided(neq());
    for (std::size_t i = 0; i < neq(); ++i) provided[i] = static_cast<double>(i);
    writeoutput_real8(read_.run.param, provided, "rhs_in.dat", read_.run.log);
    read_.run.param.providedrhs = "rhs_in.dat";

    op_.r_equal_b_minus_atimesx(x_, b_, r_);

    EXPECT_EQ(b_, provided);
    EXPECT_EQ(r_, provided);
    EXPECT_THAT(read_.text(), HasSubstr("Read b                  : "));
    read_.run.param.providedrhs = "nowhere.dat";
    EXPECT_THAT(test::fatal_message([&] { op_.r_equal_b_minus_atimesx(x_, b_, r_); }),
                HasSubstr("The file nowhere.dat does not exist!"));
}

TEST_F(RightHandSide, TimesItsProducts) {
    op_.atimesx(x_, r_);
    EXPECT_THAT(read_.text(),
                ::testing::ContainsRegex("  Elapsed time \\(s\\) - C \\* x  : Least squares part \\* x  "
                                         ": [0-9.]+ Total random part \\* x   : [0-9.]+\n"));
}

}  // namespace
}  // namespace zendar
