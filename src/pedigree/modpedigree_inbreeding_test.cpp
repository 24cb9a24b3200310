#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modpedigree.hpp"
#include "modpedigree_detail.hpp"
#include "modpedigree_test_support.hpp"
#include "relationship.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using test::pedigree;
using testing::AllOf;
using testing::DoubleNear;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::vector<double> computed(pedigree_type& ped, std::int32_t method) {
    captured_log log;
    ped.computeinbreeding_ped({.inbmethod = method, .directory = ""}, log);
    return ped.f;
}

double largest_difference(const std::vector<double>& a, const std::vector<double>& b) {
    double largest = a.size() == b.size() ? 0.0 : 1.0;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        const double difference = std::abs(a[i] - b[i]);
        largest = std::isfinite(difference) ? std::max(largest, difference) : 1.0;
    }
    return largest;
}

class Computeinbreeding : public testing::TestWithParam<std::int32_t> {
  protected:
    std::vector<double> f_of(pedigree_type ped) { return computed(ped, GetParam()); }
};

TEST_P(Computeinbreeding, IsKnownForSmallFamilies) {
    // Full sibs 3 and 4, their son 5, 5 mated to its dam 4, a half-sib mating 8 of 7 and 3.
    EXPECT_THAT(f_of(pedigree({{0, 0}, {0, 0}, {1, 2}, {1, 2}, {3, 4}, {5, 4}, {1, 0}, {7, 3}})),
                ElementsAre(0, 0, 0, 0, 0.25, 0.375, 0, 0.125));
    // Selfing, of which codes say nothing about ages.
    EXPECT_THAT(f_of(pedigree({{2, 2}, {3, 3}, {0, 0}})), ElementsAre(0.75, 0.5, 0));
    EXPECT_THAT(f_of(pedigree({{0, 0}, {0, 0}, {1, 0}})), ElementsAre(0, 0, 0));
}

TEST_P(Computeinbreeding, CountsAGroupAsAnUnknownParent) {
    // 4 and 5 are groups; animal 2 has one group and one known parent.
    EXPECT_THAT(f_of(pedigree({{4, 5}, {1, 4}, {2, 1}, {0, 0}, {0, 0}}, 2)), ElementsAre(0, 0, 0.25, 0, 0));
    EXPECT_THAT(f_of(pedigree({{2, 2}, {0, 0}}, 1)), ElementsAre(0, 0));
}

TEST_P(Computeinbreeding, TakesPedigreesOfGroupsOnlyAndOfNothing) {
    EXPECT_THAT(f_of(pedigree({{0, 0}, {0, 0}}, 2)), ElementsAre(0, 0));
    EXPECT_TRUE(f_of(pedigree({})).empty());
}

TEST_P(Computeinbreeding, IsKnownForMetafounders) {
    pedigree_type ped = pedigree({{3, 3}, {1, 1}, {0, 0}}, 1);
    ped.ismeta = true;
    ped.metarel = matrix<double>(1, 1, 0.5);
    // A founder of one metafounder has f = gamma / 2; selfing it gives (1 + f) / 2.
    EXPECT_THAT(f_of(std::move(ped)), ElementsAre(DoubleNear(0.25, 1e-15), DoubleNear(0.625, 1e-15), -0.5));
}

TEST_P(Computeinbreeding, AgreesWithTheTabularMethod) {
    int inbred = 0;
    for (std::uint64_t seed = 1; seed <= 450; ++seed) {
        std::mt19937_64 random(seed);
        const auto below = [&random](std::uint64_t n) { return static_cast<std::int32_t>(random() % n); };
        const bool meta = seed % 3 == 0;
        test::pedigree_choice choice;
        choice.nanimal = 1 + below(seed % 10 == 0 ? 300 : 120);
        choice.nupg = meta ? 1 + below(6) : below(4);
        choice.complete = meta;
        choice.unknown = 0.01 + 0.4 * static_cast<double>(below(100)) / 100;
        choice.selfing = below(2) == 0;
        choice.shuffled = below(3) != 0;
        choice.generations = below(2) == 0 ? 0 : 2 + below(10);
        pedigree_type ped;
        ped.nupg = choice.nupg;
        ped.ismeta = meta;
        ped.ped = test::random_pedigree(choice, seed);
        if (meta) ped.metarel = test::random_metarel(choice.nupg, seed);

        const matrix<double> a = test::tabular_relationship(ped.ped, ped.nupg, ped.metarel);
        std::vector<double> expected;
        for (std::int32_t i = 0; i < ped.nlength(); ++i)
            expected.push_back(!meta && i >= choice.nanimal ? 0.0 : a(i, i) - 1.0);
        ASSERT_LT(largest_difference(computed(ped, GetParam()), expected), 1e-12)
            << "seed " << seed << ", " << choice.nanimal << " animals, " << choice.nupg << " groups";
        for (const double f : expected) inbred += f > 0.05 ? 1 : 0;
    }
    EXPECT_GT(inbred, 1000);
}

INSTANTIATE_TEST_SUITE_P(Methods, Computeinbreeding, testing::Values(meuwissen_and_luo, sargolzaei_etal));

TEST(ComputeinbreedingMethods, AgreeOnLargerPedigrees) {
    for (std::uint64_t seed = 1; seed <= 12; ++seed) {
        const bool meta = seed % 4 == 0;
        pedigree_type ped;
        ped.nupg = meta ? 250 : static_cast<std::int32_t>(seed % 3);
        ped.ismeta = meta;
        ped.ped =
            test::random_pedigree({.nanimal = 4000,
                                   .nupg = ped.nupg,
                                   .complete = meta,
                                   .unknown = 0.05,
                                   .selfing = seed % 2 == 0,
                                   .generations = seed % 5 == 0 ? 0 : static_cast<std::int32_t>(4 * seed)},
                                  seed);
        if (meta) ped.metarel = test::random_metarel(ped.nupg, seed);
        const std::vector<double> first = computed(ped, meuwissen_and_luo);
        ASSERT_LT(largest_difference(first, computed(ped, sargolzaei_etal)), 1e-12) << seed;
    }
}

TEST(ComputeinbreedingMethods, TakeLongLines) {
    // A thousand generations of selfing, where shares stay 1, and two of alternating unrelated mates, whose
    // shares become too small for a double.
    constexpr std::int32_t n = 3000;
    std::vector<std::pair<std::int32_t, std::int32_t>> selfed{{0, 0}}, mated{{0, 0}, {0, 0}};
    for (std::int32_t i = 1; i < 1000; ++i) selfed.emplace_back(i, i);
    while (std::ssize(mated) < n) {  // odd levels are founders, even ones descend from the even one before
        const auto last = static_cast<std::int32_t>(mated.size());
        mated.emplace_back(0, 0);
        mated.emplace_back(last, last + 1);
    }
    mated.emplace_back(2, static_cast<std::int32_t>(mated.size()));
    for (const std::int32_t method : {meuwissen_and_luo, sargolzaei_etal}) {
        pedigree_type line = pedigree(selfed), cross = pedigree(mated);
        const std::vector<double> f = computed(line, method);
        EXPECT_EQ(f[0], 0.0);
        EXPECT_EQ(f[1], 0.5);
        EXPECT_NEAR(f[20], 1.0 - std::pow(0.5, 20), 1e-15);
        EXPECT_NEAR(f[999], 1.0, 1e-15);
        for (const double x : computed(cross, method)) ASSERT_NEAR(x, 0.0, 1e-15) << method;
    }
}

class InbreedingCache : public testing::Test {
  protected:
    /// Two full sibs and their offspring.
    pedigree_type read() {
        directory_.write("a.ped", "1 0 0\n2 0 0\n3 1 2\n4 1 2\n5 3 4\n");
        pedigree_type ped;
        ped.readpedigree_max(file(), 5, 0, log_);
        return ped;
    }
    [[nodiscard]] std::string file() const { return (directory_ / "a.ped").string(); }
    void compute(pedigree_type& ped) { ped.computeinbreeding_ped({}, log_); }

    static constexpr const char* good = "# 18\n1 .000000\n2 .000000\n3 .000000\n4 .000000\n5 .250000\n";
    test::temporary_directory directory_;
    captured_log log_;
};

TEST_F(InbreedingCache, IsWrittenBesideThePedigree) {
    pedigree_type ped = read();
    compute(ped);

    EXPECT_EQ(ped.checkval(), 5 + (1 + 1 + 3) + (2 + 2 + 4));
    EXPECT_EQ(directory_.read("a.ped.inb"), good);
    std::string text = log_.text(), without_times;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        without_times += line.substr(0, line.find(" (s): ")) + "\n";
    EXPECT_EQ(without_times,
              "Start computation of inbreeding\n"
              "1. Get the order from old to young...\n"
              "Start to find the order from old to young\n"
              "Find order from old to young - Wall clock time\n"
              "2. Creates temporary pedigree...\n"
              "3. Computes inbreeding coefficients using Meuwissen and Luo (1993)...\n"
              "Computation of inbreeding coefficients - Wall clock time\n"
              "Inbreeding coefficients saved in " +
                  file() + ".inb - Wall clock time\n");
}

TEST_F(InbreedingCache, IsWrittenToTheOutputDirectory) {
    std::filesystem::create_directory(directory_ / "out");
    const std::string prefix = (directory_ / "out").string() + "/";
    pedigree_type ped = read();

    ped.computeinbreeding_ped({.inbmethod = sargolzaei_etal, .directory = prefix}, log_);

    EXPECT_EQ(directory_.read("out/a.ped.inb"), good);
    EXPECT_FALSE(directory_.exists("a.ped.inb"));
    EXPECT_THAT(log_.text(), AllOf(HasSubstr("using Sargolzaei et al. (2005)...\n"),
                                   HasSubstr("saved in " + prefix + "a.ped.inb - Wall clock time (s): ")));
}

TEST_F(InbreedingCache, IsReadInsteadOfAComputation) {
    pedigree_type ped = read();
    directory_.write("a.ped.inb", "# 18\n5 .5\n1 .1\n2 .2\n3 .3\n4 .4\n");

    compute(ped);

    EXPECT_THAT(ped.f, ElementsAre(0.1, 0.2, 0.3, 0.4, 0.5));
    EXPECT_THAT(log_.text(),
                StartsWith("Start computation of inbreeding\nInbreeding coefficients read from " + file() +
                           ".inb - Wall clock time (s): "));
    EXPECT_THAT(log_.text(), Not(HasSubstr("1. Get")));
}

TEST_F(InbreedingCache, IsLookedForInTheOutputDirectoryFirst) {
    pedigree_type ped = read();
    std::filesystem::create_directory(directory_ / "out");
    const std::string prefix = (directory_ / "out").string() + "/";
    directory_.write("a.ped.inb", "# 18\n1 .1\n2 .1\n3 .1\n4 .1\n5 .1\n");
    ped.computeinbreeding_ped({.inbmethod = 1, .directory = prefix}, log_);
    EXPECT_EQ(ped.f[4], 0.1);
    EXPECT_FALSE(directory_.exists("out/a.ped.inb"));

    directory_.write("out/a.ped.inb", "# 18\n1 .2\n2 .2\n3 .2\n4 .2\n5 .2\n");
    ped.computeinbreeding_ped({.inbmethod = 1, .directory = prefix}, log_);
    EXPECT_EQ(ped.f[4], 0.2);
}

TEST_F(InbreedingCache, IsAnnouncedAtDebugLevel) {
    pedigree_type ped = read();
    static_cast<logger&>(log_).set_level(log_level::debug);
    compute(ped);
    EXPECT_THAT(log_.text(), HasSubstr("DEBUG: Check whether if the file " + file() +
                                       ".inb exists, and read it if it is the case\n"));
}

TEST_F(InbreedingCache, OlderThanThePedigreeIsUsedWithAWarning) {
    directory_.write("a.ped.inb", "# 18\n1 .1\n2 .1\n3 .1\n4 .1\n5 .1\n");
    pedigree_type ped = read();
    std::filesystem::last_write_time(directory_ / "a.ped.inb",
                                     std::filesystem::last_write_time(file()) - std::chrono::hours(1));
    compute(ped);
    EXPECT_EQ(ped.f[4], 0.1);
    EXPECT_THAT(log_.text(), HasSubstr("WARN: The file " + file() + ".inb is older than the pedigree file " +
                                       file() + ". It is used nevertheless"));
}

TEST_F(InbreedingCache, ThatIsWrongGivesAWarningAndIsNotOverwritten) {
    const struct {
        const char* text;
        const char* io;
        const char* hash;
    } cases[] = {
        {"# 17\n1 0\n2 0\n3 0\n4 0\n5 0\n", "0", "17"},
        {"# 18\n1 .1\n2 .1\n3 .1\n4 .1\n", "-1", "18"},
        {"# 18\n1 .1\n2 .1\n3 .1\n4 .1\n5\n", "1", "18"},
        {"# 18\n1 .1\n2 .1\n3 .1\n4 .1\n6 .1\n", "1", "18"},
        {"# 18\n1 .1\n2 .1\n3 .1\n4 .1\n0 .1\n", "1", "18"},
        {"# 18\n1 .1\n2 .1\n3 .1\n4 .1\n4 .1\n", "1", "18"},
        {"# 18\n1 .1\n2 .1\n3 .1\n4 .1\n5 nan\n", "1", "18"},
        {"# 18\n1 .1\n2 .1\n3 .1\n4 .1\n5 inf\n", "1", "18"},
        {"# 18\n1 .1\n2 .1\n\n3 .1\n4 .1\n5 .1\n", "1", "18"},
        {"", "-1", "0"},
        {"#\n", "-1", "0"},
        {"# x\n", "5010", "0"},
        {"# 99999999999\n", "5010", "0"},
    };
    for (const auto& c : cases) {
        captured_log log;
        pedigree_type ped = read();
        directory_.write("a.ped.inb", c.text);

        ped.computeinbreeding_ped({}, log);

        EXPECT_THAT(ped.f, ElementsAre(0, 0, 0, 0, 0.25)) << c.text;
        EXPECT_EQ(directory_.read("a.ped.inb"), c.text);
        EXPECT_THAT(log.text(),
                    HasSubstr("WARN: The file " + file() +
                              ".inb exists, but is incorrect (magic number or number of lines)\nio = " +
                              c.io + "\nhash: " + c.hash + " vs 18\n"))
            << c.text;
    }
}

TEST_F(InbreedingCache, OfAnotherMetafounderMatrixIsWrong) {
    const auto read_with = [&](double gamma) {
        directory_.write("a.ped", "1 4 4\n2 4 4\n3 1 2\n");
        pedigree_type ped;
        ped.readpedigree_max(file(), 4, 1, log_);
        ped.ismeta = gamma > 0.0;
        if (ped.ismeta) ped.metarel = matrix<double>(1, 1, gamma);
        return ped;
    };
    pedigree_type plain = read_with(0.0);
    compute(plain);  // leaves its cache
    ASSERT_EQ(plain.f[2], 0.0);

    pedigree_type meta = read_with(0.5);
    compute(meta);
    EXPECT_THAT(log_.text(), HasSubstr("a.ped.inb exists, but is incorrect"));
    EXPECT_NEAR(meta.f[2], 0.25, 1e-15);
    EXPECT_NEAR(meta.f[3], -0.5, 1e-15);

    std::filesystem::remove(directory_ / "a.ped.inb");
    pedigree_type alone = read_with(0.5);
    compute(alone);
    std::filesystem::rename(directory_ / "a.ped_meta.inb", directory_ / "a.ped.inb");
    pedigree_type again = read_with(0.5);
    compute(again);
    EXPECT_THAT(log_.text(), HasSubstr("Inbreeding coefficients read from "));
    EXPECT_EQ(again.f[2], 0.25);
    pedigree_type other = read_with(0.6);
    compute(other);
    EXPECT_NEAR(other.f[2], 0.3, 1e-15);
}

TEST_F(InbreedingCache, OfRandomBytesIsOnlyWrong) {
    std::mt19937 random(7);
    for (int round = 0; round < 60; ++round) {
        std::string text = round % 2 == 0 ? "# 18\n" : "";
        for (std::size_t k = random() % 5000; k > 0; --k) text += static_cast<char>(random());
        pedigree_type ped = read();
        directory_.write("a.ped.inb", text);
        compute(ped);
        ASSERT_THAT(ped.f, ElementsAre(0, 0, 0, 0, 0.25)) << round;
    }
}

TEST_F(InbreedingCache, OfOneHugeLineOrADirectoryIsOnlyWrong) {
    pedigree_type ped = read();
    directory_.write("a.ped.inb", "# 18\n1 " + std::string(std::size_t{20} << 20, '7') + "\n");
    compute(ped);
    EXPECT_EQ(ped.f[4], 0.25);

    std::filesystem::remove(directory_ / "a.ped.inb");
    std::filesystem::create_directory(directory_ / "a.ped.inb");
    compute(ped);
    EXPECT_EQ(ped.f[4], 0.25);
    EXPECT_THAT(log_.text(), HasSubstr("hash: 0 vs 18\n"));
}

TEST_F(InbreedingCache, ThatCannotBeWrittenIsAWarning) {
    pedigree_type ped = read();
    ped.computeinbreeding_ped({.inbmethod = 1, .directory = (directory_ / "no/").string()}, log_);
    EXPECT_EQ(ped.f[4], 0.25);
    EXPECT_THAT(log_.text(), HasSubstr("WARN: The inbreeding coefficients cannot be saved in "));
}

TEST_F(InbreedingCache, OfMetafoundersHasANameOfItsOwnThatIsNotLookedFor) {
    directory_.write("a.ped", "1 3 3\n2 1 1\n");
    const auto computed_once = [&] {
        pedigree_type ped;
        ped.readpedigree_max(file(), 3, 1, log_);
        ped.ismeta = true;
        ped.metarel = matrix<double>(1, 1, 0.5);
        compute(ped);
        return ped.f;
    };
    EXPECT_THAT(computed_once(), ElementsAre(0.25, 0.625, -0.5));
    EXPECT_EQ(directory_.read("a.ped_meta.inb"), "# 11\n1 .250000\n2 .625000\n3 -.500000\n");
    EXPECT_FALSE(directory_.exists("a.ped.inb"));
    EXPECT_THAT(log_.text(), AllOf(HasSubstr("using Meuwissen and Luo (1993) AND with metafounders...\n"),
                                   HasSubstr("saved in " + file() + "_meta.inb - Wall clock time (s): ")));

    directory_.write("a.ped_meta.inb", "# 11\n1 .9\n2 .9\n3 .9\n");
    EXPECT_THAT(computed_once(), ElementsAre(0.25, 0.625, -0.5));
    EXPECT_EQ(directory_.read("a.ped_meta.inb"), "# 11\n1 .250000\n2 .625000\n3 -.500000\n");
}

TEST(ComputeinbreedingPed, IsNotCachedWithoutAFile) {
    captured_log log;
    pedigree_type ped = pedigree({{0, 0}, {1, 1}});
    ped.computeinbreeding_ped({}, log);
    EXPECT_THAT(ped.f, ElementsAre(0, 0.5));
    EXPECT_THAT(log.text(), Not(HasSubstr("saved")));
}

TEST(ComputeinbreedingPed, StopsWithoutGroupsKnownAndForOtherMethods) {
    captured_log log;
    pedigree_type ped = pedigree({{0, 0}}, -1);
    EXPECT_EQ(fatal_message([&] { ped.computeinbreeding_ped({}, log); }),
              "Number of UPGs < 0 (internal error)");
    ped.nupg = 2;
    EXPECT_EQ(fatal_message([&] { ped.computeinbreeding_ped({}, log); }),
              "Number of UPGs > number of levels (internal error)");
    ped.nupg = 0;
    for (const std::int32_t method : {0, 3, -1})
        EXPECT_EQ(
            fatal_message([&] { ped.computeinbreeding_ped({.inbmethod = method, .directory = ""}, log); }),
            "Request of a method to compute inbreeding coefficients that is not implemented");
}

TEST(ComputeinbreedingPed, StopsAtALoop) {
    captured_log log;
    pedigree_type ped = pedigree({{2, 0}, {1, 0}});
    EXPECT_THAT(fatal_message([&] { ped.computeinbreeding_ped({}, log); }),
                HasSubstr("is its own ancestor: 2, 1"));
}

TEST(ComputeinbreedingPed, StopsAtBadMetafounders) {
    captured_log log;
    const auto message = [&](pedigree_type ped, matrix<double> metarel) {
        ped.ismeta = true;
        ped.metarel = std::move(metarel);
        return fatal_message([&] { ped.computeinbreeding_ped({}, log); });
    };
    EXPECT_EQ(message(pedigree({{3, 3}, {1, 0}, {0, 0}}, 1), matrix<double>(1, 1, 1.0)),
              "Metafounder (=0) not defined.\nCheck your pedigree\nAnimal 2");
    EXPECT_EQ(message(pedigree({{2, 2}, {0, 0}}, 1), {}),
              "The relationships between the 1 metafounders have not been read (internal error)");
    EXPECT_EQ(message(pedigree({{2, 3}, {0, 0}, {0, 0}}, 2), matrix<double>(2, 2, 0.5)),
              "The matrix of relationships between metafounders is not positive definite (metafounder 2)");
    EXPECT_EQ(message(pedigree({{2, 2}, {0, 0}}, 1), matrix<double>(1, 1, std::nan(""))),
              "The matrix of relationships between metafounders is not positive definite (metafounder 1)");
    EXPECT_EQ(message(pedigree({{2, 2}, {0, 0}}, 1), matrix<double>(1, 1, 0.0)),
              "The matrix of relationships between metafounders is not positive definite (metafounder 1)");
}

TEST(InbreedingProgress, ShowsEveryMillionOnTheScreen) {
    std::ostringstream screen;
    logger log;
    log.add_stream(screen);
    detail::inbreeding_progress progress(log, 3600.0);
    for (std::int32_t i = 3; i <= 2'000'000; ++i) progress.treated(i);
    EXPECT_EQ(screen.str(), "     1000000 animals treated\n     2000000 animals treated\n");
}

TEST(InbreedingProgress, ShowsLongRunsAfterSomeSeconds) {
    std::ostringstream screen;
    logger log;
    log.add_stream(screen);
    detail::inbreeding_progress progress(log, 0.0);
    for (std::int32_t i = 1; i <= 600; ++i) progress.treated(i);
    EXPECT_EQ(screen.str(), "     256 animals treated\n     512 animals treated\n");
}

TEST(ComputeinbreedingMethods, ShowAMillionAtTheLastAnimal) {
    for (const std::int32_t method : {meuwissen_and_luo, sargolzaei_etal}) {
        std::ostringstream screen;
        logger log;
        log.add_stream(screen);
        pedigree_type ped;
        ped.nupg = 0;
        ped.ped = matrix<std::int32_t>(2, 1'000'000);
        for (std::int32_t i = 3; i <= 1'000'000; ++i) {
            ped.ped(0, i - 1) = 1;
            ped.ped(1, i - 1) = 2;
        }
        ped.computeinbreeding_ped({.inbmethod = method, .directory = ""}, log);
        EXPECT_THAT(screen.str(), HasSubstr("\n     1000000 animals treated\n")) << method;
    }
}

}  // namespace
}  // namespace zendar
