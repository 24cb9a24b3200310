#include "modphenanalysis.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <limits>
#include <random>

#include "captured_log.hpp"
#include "modbasic.hpp"
#include "modgeneral.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

namespace zendar::test {
namespace {

using testing::HasSubstr;
using testing::Not;

/// All kinds of effects; models of even seeds can be assembled in memory.
model_choice choice_of(std::uint64_t seed) {
    std::mt19937_64 random(seed * 104729);
    const auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    model_choice choice;
    choice.ntrait = pick(1, 5);
    choice.nrec = seed % 7 == 0 ? pick(200, 300) : pick(1, 60);
    choice.neffect = pick(1, 5);
    choice.in_memory = seed % 2 == 0;
    choose_kind(choice, seed, seed % 4 < 2, seed % 5 < 2);
    if (choice.huge >= 0) choice.ntrait = pick(1, 3);
    return choice;
}

std::string solver_of(std::uint64_t seed) {
    return seed % 2 == 0 ? "!solver pardiso\n" : "";
}

std::vector<unsigned char> random_flags(const random_model& model, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<unsigned char> flags(model.effects.size());
    for (unsigned char& flag : flags) flag = std::bernoulli_distribution(0.3)(random) ? 1 : 0;
    return flags;
}

/// X b of the effects without a flag, from the definition of the model.
matrix<double> fitted(random_model model, std::span<const unsigned char> exclude, std::span<const double> b) {
    for (std::size_t e = 0; e < model.effects.size(); ++e)
        if (exclude[e] != 0) model.effects[e].present.assign(model.ntrait, false);
    matrix<double> values(model.ntrait, model.nrec);
    for (std::int32_t rec = 0; rec < model.nrec; ++rec)
        for (std::int32_t t = 0; t < model.ntrait; ++t)
            for (const auto& [equation, x] : model.row_of(t, rec)) values(t, rec) += x * b[equation];
    return values;
}

estimate_input input_of(const run_state& run, std::span<const double> solutions) {
    return {run.param, run.data.effect.view(), run.cov, solutions};
}

TEST(EstimatedPhenotypes, OfRandomModelsAreXTimesTheSolutions) {
    int nhuge = 0, ncombieff = 0, nandeffect = 0, nexcluded = 0;
    for (std::uint64_t seed = 1; seed <= 150; ++seed) {
        const random_model model(choice_of(seed), seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const threads scope(static_cast<int>(1 + seed % 4));
        read_model read(model, solver_of(seed));
        const std::vector<double> x = random_vector(model.neq, seed);
        const std::vector<unsigned char> none(model.effects.size(), 0), flags = random_flags(model, seed);
        for (const auto& exclude : {none, flags}) {
            const matrix<double> expected = fitted(model, exclude, x);
            matrix<double> yhat;
            compute_yhat(yhat, exclude, input_of(read.run, x), read.run.log);
            ASSERT_EQ(yhat.rows(), model.ntrait);
            ASSERT_EQ(yhat.cols(), model.nrec);
            EXPECT_LT(difference(yhat.values(), expected.values()), 1e-13);
        }
        nhuge += model.first_huge() > 0 ? 1 : 0;
        ncombieff += read.run.param.lcombieff ? 1 : 0;
        nandeffect += read.run.param.landeffect ? 1 : 0;
        nexcluded += flags != none ? 1 : 0;
        if (HasFailure()) break;
    }
    EXPECT_EQ(nhuge, 50);
    EXPECT_GT(ncombieff, 15);
    EXPECT_GT(nandeffect, 15);
    EXPECT_GT(nexcluded, 50);
}

TEST(EstimatedPhenotypes, TheOriFormKnowsNoSlots) {
    int ndifferent = 0;
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
        model_choice choice = choice_of(3 * seed);
        choice.combieff = true;
        random_model model(choice, seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        read_model read(model);
        const std::vector<double> x = random_vector(model.neq, seed);
        const std::vector<unsigned char> none(model.effects.size(), 0);
        const matrix<double> by_slot = fitted(model, none, x);
        for (random_effect& effect : model.effects)
            for (std::int32_t t = 0; t < model.ntrait; ++t) effect.slot[t] = t + 1;
        const matrix<double> by_trait = fitted(model, none, x);
        matrix<double> ori, combieff;
        compute_yhat_ori(ori, none, input_of(read.run, x), read.run.log);
        compute_yhat_combieff(combieff, none, input_of(read.run, x), read.run.log);
        EXPECT_LT(difference(ori.values(), by_trait.values()), 1e-13);
        EXPECT_LT(difference(combieff.values(), by_slot.values()), 1e-13);
        matrix<double> phendev;
        compute_phendeviations_ori(phendev, none, input_of(read.run, x), read.run.data.phen, -9.0,
                                   read.run.log);
        matrix<double> slots;
        compute_phendeviations_combieff(slots, none, input_of(read.run, x), read.run.data.phen, -9.0,
                                        read.run.log);
        for (std::int32_t rec = 0; rec < model.nrec; ++rec)
            for (std::int32_t t = 0; t < model.ntrait; ++t) {
                if (model.y(t, rec) == -9.0) continue;
                EXPECT_NEAR(phendev(t, rec) + by_trait(t, rec), model.y(t, rec), 1e-10);
                EXPECT_NEAR(slots(t, rec) + by_slot(t, rec), model.y(t, rec), 1e-10);
            }
        ndifferent += by_slot != by_trait ? 1 : 0;
        if (HasFailure()) break;
    }
    EXPECT_GT(ndifferent, 15);
}

TEST(EstimatedPhenotypes, HugeEffectsHaveSlotsToo) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        model_choice choice;
        choice.ntrait = 3;
        choice.huge = seed % 2 == 0 ? 20 : 22;
        choice.bed = true;
        random_model model(choice, seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        read_model read(model);
        std::mt19937_64 random(seed);
        read.run.param.lcombieff = true;
        for (std::size_t e = 0; e < model.effects.size(); ++e)
            for (std::int32_t t = 0; t < 3; ++t)
                read.run.param.combieff_trait(t, static_cast<std::int64_t>(e)) = model.effects[e].slot[t] =
                    std::uniform_int_distribution<std::int32_t>(1, 3)(random);
        const std::vector<double> x = random_vector(model.neq, seed);
        matrix<double> yhat;
        compute_yhat(yhat, {}, input_of(read.run, x), read.run.log);
        const std::vector<unsigned char> none(model.effects.size(), 0);
        EXPECT_LT(difference(yhat.values(), fitted(model, none, x).values()), 1e-13);
        if (HasFailure()) break;
    }
}

TEST(PhenotypeDeviations, AndEstimatesGiveThePhenotypes) {
    int nmissing = 0, nkept = 0;
    for (std::uint64_t seed = 1; seed <= 150; ++seed) {
        const random_model model(choice_of(seed), seed + 1000);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const threads scope(static_cast<int>(1 + seed % 4));
        read_model read(model, solver_of(seed));
        run_state& run = read.run;
        const std::vector<double> x = random_vector(model.neq, seed);
        const std::vector<unsigned char> exclude = random_flags(model, seed);
        const bool from_disk = seed % 3 == 0;
        const matrix<double> phen = run.data.phen;
        if (from_disk) {
            write_raw_stream(phen.values(), "phentmp.stream", run.log);
            run.data.phen = {};
        }
        matrix<double> yhat, phendev;
        compute_phendeviations(phendev, exclude, input_of(run, x), run.data.phen, -9.0, run.log);
        compute_yhat(yhat, exclude, input_of(run, x), run.log);
        EXPECT_EQ(run.data.phen, phen);
        for (std::int32_t rec = 0; rec < model.nrec; ++rec)
            for (std::int32_t t = 0; t < model.ntrait; ++t) {
                if (model.y(t, rec) == -9.0) {
                    EXPECT_EQ(phendev(t, rec), -9.0);
                    ++nmissing;
                } else {
                    EXPECT_EQ(phendev(t, rec), phen(t, rec) - yhat(t, rec));
                    ++nkept;
                }
            }
        const std::string screen = read.screen.str();
        EXPECT_EQ(screen.find("Presence of an allocated phen array!") == std::string::npos, from_disk);
        EXPECT_EQ(screen.find("     Wall clock time (s) to read phendeviations: ") != std::string::npos,
                  from_disk);
        if (HasFailure()) break;
    }
    EXPECT_GT(nmissing, 500);
    EXPECT_GT(nkept, 5000);
}

TEST(PhenotypeDeviations, TakeTheMissingValueOfTheRun) {
    model_choice choice;
    choice.missing = false;
    const random_model model(choice, 5);
    read_model read(model);
    matrix<double> phen = read.run.data.phen, phendev;
    phen(0, 3) = 0.0;
    phen(0, 4) = -9.0;
    const std::vector<double> x = random_vector(model.neq, 5);
    compute_phendeviations(phendev, {}, input_of(read.run, x), phen, 0.0, read.run.log);
    EXPECT_EQ(phendev(0, 3), 0.0);
    matrix<double> yhat;
    compute_yhat(yhat, {}, input_of(read.run, x), read.run.log);
    EXPECT_NE(yhat(0, 3), 0.0);
    EXPECT_EQ(phendev(0, 4), -9.0 - yhat(0, 4));
}

TEST(EstimatedPhenotypes, ATraitThatAnEffectDoesNotHaveIsNeverRead) {
    model_choice choice;
    choice.ntrait = 3;
    choice.missing = false;
    for (std::uint64_t seed = 1; seed <= 30; ++seed) {
        const random_model model(choice, seed);
        read_model read(model);
        std::vector<double> x = random_vector(model.neq, seed);
        const std::vector<unsigned char> none(model.effects.size(), 0);
        const matrix<double> expected = fitted(model, none, x);
        for (std::int64_t i = 0; const auto& [e, level, covariable, slot] : model.unknowns()) {
            if (!model.effects[e - 1].present[slot - 1]) x[i] = std::numeric_limits<double>::quiet_NaN();
            ++i;
        }
        matrix<double> yhat;
        compute_yhat(yhat, none, input_of(read.run, x), read.run.log);
        EXPECT_LT(difference(yhat.values(), expected.values()), 1e-13);
    }
}

TEST(EstimatedPhenotypes, ReportTheirStepsAndMemory) {
    model_choice choice;
    choice.huge = 20;
    choice.nrec = 30;
    const random_model model(choice, 8);
    read_model read(model);
    const std::string e = std::to_string(model.first_huge());
    const std::vector<double> x = random_vector(model.neq, 1);
    const auto text_of = [&](auto&& call) {
        read.screen.str("");
        call();
        return read.screen.str();
    };
    matrix<double> result;
    std::vector<unsigned char> exclude(model.effects.size(), 0);
    const std::string all =
        text_of([&] { compute_yhat(result, exclude, input_of(read.run, x), read.run.log); });
    EXPECT_THAT(all, HasSubstr("Memory (MB) needed for yhat: .00\n"));
    EXPECT_THAT(all,
                HasSubstr("Memory (MB) needed for the sum of estimates of the huge effect " + e + ": .00\n"));
    EXPECT_THAT(all, HasSubstr("     Wall clock time (s) for huge_covariable*solutions: "));
    EXPECT_THAT(all, HasSubstr("     Wall clock time (s) for yhat : "));

    for (std::size_t k = static_cast<std::size_t>(model.first_huge()) - 1; k < exclude.size(); ++k)
        exclude[k] = 1;
    const std::string without = text_of([&] {
        compute_phendeviations(result, exclude, input_of(read.run, x), read.run.data.phen, -9.0,
                               read.run.log);
    });
    EXPECT_THAT(without, HasSubstr("Memory (MB) needed for phendev: .00\n"));
    EXPECT_THAT(without, HasSubstr("     Wall clock time (s) for phenotype deviations : "));
    EXPECT_THAT(without, Not(HasSubstr("huge")));
}

TEST(EstimatedPhenotypes, RefuseAHugeEffectOfAnotherType) {
    model_choice choice;
    choice.huge = 20;
    const random_model model(choice, 8);
    read_model read(model);
    read.run.param.type_effect.back() = 1;
    EXPECT_EQ(fatal_message([&] {
                  static_cast<void>(initsumestimate(read.run.param, read.run.cov, {}, read.run.log));
              }),
              "This type of effect 1 is not implemented");
    EXPECT_THAT(read.screen.str(), HasSubstr("modphenanalysis % initsumestimate ("));
}

TEST(EstimatedPhenotypes, RefuseLevelsWithoutEquations) {
    model_choice choice;
    choice.covariables = false;
    const random_model model(choice, 4);
    read_model read(model);
    read.run.data.effect(0, 6) = 1000;
    const std::vector<double> x = random_vector(model.neq, 1);
    matrix<double> result;
    EXPECT_THAT(fatal_message([&] { compute_yhat(result, {}, input_of(read.run, x), read.run.log); }),
                HasSubstr("Record 7: level 1000 of effect 1 is above its number of levels"));
    EXPECT_THAT(fatal_message([&] {
                    compute_phendeviations(result, {}, input_of(read.run, x), read.run.data.phen, -9.0,
                                           read.run.log);
                }),
                HasSubstr("Record 7: level 1000 of effect 1"));
}

class PhenotypesOnDisk : public testing::Test {
  protected:
    std::string message() {
        matrix<double> result;
        return fatal_message([&] {
            compute_phendeviations(result, {}, input_of(read_.run, x_), read_.run.data.phen, -9.0,
                                   read_.run.log);
        });
    }
    random_model model_{model_choice{.ntrait = 2, .nrec = 10}, 3};
    read_model read_{model_};
    std::vector<double> x_ = random_vector(model_.neq, 1);
};

TEST_F(PhenotypesOnDisk, ThatAreMissingAreNamed) {
    read_.run.data.phen = {};
    EXPECT_EQ(message(), "The file phentmp.stream does not exist, AND phen is not present!");
    EXPECT_THAT(read_.screen.str(), HasSubstr("modphenanalysis % compute_phendeviations ("));
    EXPECT_THAT(read_.screen.str(), HasSubstr("I/O ERROR: "));
}

TEST_F(PhenotypesOnDisk, OfAnyOtherSizeAreRefused) {
    const matrix<double> phen = read_.run.data.phen;
    read_.run.data.phen = {};
    for (const std::size_t bytes : {0U, 1U, 159U, 161U, 168U}) {
        read_.directory.write("phentmp.stream", std::string(bytes, '\0'));
        EXPECT_EQ(message(),
                  "The file phentmp.stream has " + std::to_string(bytes) + " bytes instead of 160!");
        EXPECT_TRUE(read_.run.data.phen.empty());
    }
    std::filesystem::remove("phentmp.stream");
    std::filesystem::create_directory("phentmp.stream");
    EXPECT_EQ(message(), "The file phentmp.stream does not exist, AND phen is not present!");
}

TEST(EstimatedPhenotypes, AreTheSameInMemoryAndOnData) {
    for (std::uint64_t seed = 2; seed <= 60; seed += 2) {
        const random_model model(choice_of(seed), seed);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const std::vector<double> x = random_vector(model.neq, seed);
        const auto files_of = [&](const std::string& solver, std::string& screen) {
            read_model read(model, solver + "!yhat\n!phendev 1 1\n");
            setlhsrhs(read.run);
            read.run.solutions = x;
            read.screen.str("");
            output(read.run);
            screen = read.screen.str();
            return std::pair(read.directory.read("yhat.dat"), read.directory.read("deviations.dat"));
        };
        std::string in_memory, on_data;
        const auto expected = files_of("!solver pardiso\n", in_memory);
        EXPECT_EQ(files_of("", on_data), expected);
        EXPECT_EQ(std::ranges::count(expected.first, '\n'), model.nrec);
        EXPECT_EQ(std::ranges::count(expected.second, '\n'), model.nrec);
        EXPECT_THAT(in_memory, HasSubstr("Presence of an allocated phen array!"));
        EXPECT_THAT(on_data, HasSubstr("     Wall clock time (s) to read phendeviations: "));
        if (HasFailure()) break;
    }
}

TEST(WriteRecords, WritesALineForEachRecordWithSingleBlanks) {
    temporary_directory directory;
    captured_log log;
    matrix<double> values(3, 2);
    values(0, 0) = 1.5;
    values(1, 0) = -9.0;
    values(2, 0) = 123456789.0;
    values(1, 1) = -0.25;
    values(2, 1) = 1e-7;
    write_records(values.view(), directory / "yhat.dat", log);
    EXPECT_EQ(directory.read("yhat.dat"), "1.50000 -9.00000 0.123457E+09\n0.00000 -0.250000 0.100000E-06\n");
    write_records(matrix_view<const double>{nullptr, 3, 0, 3}, directory / "yhat.dat", log);
    EXPECT_EQ(directory.read("yhat.dat"), "");
}

TEST(WriteRecords, WritesManyRecordsInTheirOrderWithAnyNumberOfThreads) {
    temporary_directory directory;
    captured_log log;
    for (const std::int64_t ntrait : {1, 3, 20000}) {
        matrix<double> values(ntrait, ntrait > 1000 ? 21 : 150001);
        const std::vector<double> random = random_vector(std::ssize(values.values()), 5);
        std::ranges::copy(random, values.values().begin());
        std::string expected;
        for (std::int64_t i = 0; i < values.cols(); ++i)
            for (std::int64_t t = 0; t < ntrait; ++t)
                expected += realtochar(values(t, i), "g0.6") + (t + 1 < ntrait ? " " : "\n");
        for (const int n : {1, 2, 3}) {
            const threads scope(n);
            write_records(values.view(), directory / "yhat.dat", log);
            EXPECT_TRUE(directory.read("yhat.dat") == expected) << ntrait << " " << n;
        }
    }
}

TEST(WriteRecords, NamesTheFileThatItCannotWrite) {
    temporary_directory directory;
    captured_log log;
    const std::filesystem::path file = directory / "none" / "yhat.dat";
    EXPECT_EQ(fatal_message([&] { write_records({}, file, log); }), "Cannot write the file " + file.string());
    EXPECT_THAT(log.text(), HasSubstr("modphenanalysis % write_records ("));
}

}  // namespace
}  // namespace zendar::test
