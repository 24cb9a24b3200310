#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>

#include "animal_files.hpp"
#include "data_sets.hpp"

/// Animal models that look odd and are right all the same, by the program itself.
namespace zendar::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

auto gamma(const char* text) {
    return [=](animal_files& m) { m.gamma = text; };
}
auto option(const char* lines) {
    return [=](animal_files& m) { m.options = lines; };
}
auto inbreeding(const char* text) {
    return [=](animal_files& m) { m.inb_name = "f.txt", m.more = {{"f.txt", text}}; };
}

/// A run that must end well, and what it left.
class OddPedigreeInput : public ::testing::Test {
  protected:
    struct outcome {
        std::string log;
        std::map<int, double> animal;  ///< solutions of effect 2 by level
    };

    static outcome run(const animal_files& files, const temporary_directory& directory) {
        const auto result = run_program(directory.path(), {"model.par", "--ncpus", "1"});
        EXPECT_EQ(result.status, 0) << result.out;
        EXPECT_EQ(result.error, "");
        EXPECT_TRUE(directory.exists("OK_ZENDAR"));
        outcome found{unwrapped(result.out), {}};
        for (const auto& [key, value] : read_solutions(directory / "solutions.dat"))
            if (std::get<1>(key) == 2) found.animal[std::get<2>(key)] = value;
        EXPECT_EQ(std::ssize(found.animal), files.nlevel);
        return found;
    }
    static outcome run(const animal_files& files) {
        const temporary_directory directory;
        files.write(directory);
        return run(files, directory);
    }
    /// The answers of the unchanged model.
    static const outcome& usual(int type) {
        static std::map<int, outcome> known;
        const auto found = known.find(type);
        return found != known.end() ? found->second : known[type] = run(animal_files(type));
    }
    static animal_files changed(int type, const std::function<void(animal_files&)>& change) {
        animal_files files(type);
        change(files);
        return files;
    }
    /// Equal solutions of all levels of `b`, in which there must be something to see.
    static void expect_same(const outcome& a, const outcome& b) {
        double largest = 0.0;
        for (const auto& [level, value] : b.animal) {
            largest = std::max(largest, magnitude(value));
            ASSERT_TRUE(a.animal.contains(level));
            EXPECT_NEAR(a.animal.at(level), value, 2e-6) << level;
        }
        EXPECT_GT(largest, 0.05);
    }
    static double difference(const outcome& a, const outcome& b) {
        double largest = 0.0;
        for (const auto& [level, value] : b.animal)
            largest = std::max(largest, magnitude(a.animal.at(level) - value));
        return largest;
    }
};

TEST_F(OddPedigreeInput, AnAnimalGivenTwiceGetsItsLastLine) {
    const outcome& clean = usual(3);
    EXPECT_THAT(clean.log, Not(HasSubstr("WARN: Animals")));
    const outcome twice = run(changed(3, [](animal_files& m) { m.ped = "6 2 5\n4 0 1\n" + m.ped; }));
    EXPECT_THAT(twice.log,
                HasSubstr("WARN: Animals given again with other parents in the pedigree file ped.txt: "
                          "2, of which the last line is taken (4, 6)"));
    expect_same(twice, clean);
    const outcome other = run(changed(3, [](animal_files& m) { m.ped += "6 2 5\n"; }));
    EXPECT_THAT(other.log, HasSubstr("is taken (6)"));
    EXPECT_GT(difference(other, clean), 1e-3);
}

TEST_F(OddPedigreeInput, LinesOfGroupsArePassedOver) {
    for (const int type : {5, 7, 9, 105, 109}) {
        SCOPED_TRACE(type);
        const outcome with = run(changed(type, [](animal_files& m) { m.ped += "7 1 1\n8 0 0\n"; }));
        EXPECT_THAT(with.log,
                    HasSubstr("WARN: Lines of genetic groups in the pedigree file ped.txt, which are "
                              "passed over: 2 (7, 8)"));
        expect_same(with, usual(type));
    }
}

TEST_F(OddPedigreeInput, AGroupWithoutMembersChangesNothing) {
    const auto one_group = [](animal_files& m) {
        m.nlevel = 7, m.nupg = 1, m.ped = "1 7 7\n2 7 7\n3 1 2\n4 1 2\n5 1 7\n6 3 4\n";
    };
    for (const int type : {5, 9, 105, 109}) {
        SCOPED_TRACE(type);
        const outcome two =
            run(changed(type, [&](animal_files& m) { one_group(m), m.nlevel = 8, m.nupg = 2; }));
        const animal_files one = changed(type, one_group);
        // The empty group comes first, then last.
        const outcome first = run(
            changed(type, [&](animal_files& m) { m.ped = "1 8 8\n2 8 8\n3 1 2\n4 1 2\n5 1 8\n6 3 4\n"; }));
        outcome alone = run(one);
        // Fixed groups are confounded with the mean: what is unique is the difference to the group.
        const auto contrasts = [](outcome& all, int group) {
            const double own = all.animal.at(group);
            for (auto& [level, value] : all.animal) value -= own;
        };
        outcome last = two, before = first;
        EXPECT_EQ(last.animal.at(8), 0.0);
        EXPECT_EQ(before.animal.at(7), 0.0);
        contrasts(alone, 7), contrasts(last, 7), contrasts(before, 8);
        for (int i = 1; i <= 6; ++i) {
            EXPECT_NEAR(last.animal.at(i), alone.animal.at(i), 1e-5);
            EXPECT_NEAR(before.animal.at(i), alone.animal.at(i), 1e-5);
        }
        EXPECT_GT(magnitude(alone.animal.at(6)), 0.05);
    }
}

TEST_F(OddPedigreeInput, FoundersAloneAreARandomClass) {
    const outcome& plain = usual(1);
    for (const char* text : {"1 0 0\n2 0 0\n3 0 0\n4 0 0\n5 0 0\n6 0 0\n", "4 0 0\n", ""})
        for (const char* options : {"", "!notuseasparse\n", "!inbreeding sargolzaei\n"}) {
            const outcome founders =
                run(changed(3, [&](animal_files& m) { m.ped = text, m.options = options; }));
            expect_same(founders, plain);
            EXPECT_EQ(founders.log.find("WARN: The pedigree file ped.txt is empty") != std::string::npos,
                      *text == '\0');
        }
}

TEST_F(OddPedigreeInput, OneAnimalIsEnough) {
    const auto one = [](int type) {
        return changed(type, [](animal_files& m) {
            m.nlevel = 1, m.ped = "1 0 0\n", m.list = "1\n", m.data = "0 1 2\n1 0 5\n0 1 3\n";
        });
    };
    const outcome plain = run(one(1));
    expect_same(run(one(3)), plain);
    // y = 5, two records, 1 / 2.5 and 1 / 0.5
    EXPECT_NEAR(plain.animal.at(1), 5 / 2.5 / (2 / 2.5 + 1 / 0.5), 1e-6);
    static_cast<void>(run(one(103)));
}

TEST_F(OddPedigreeInput, ALineOf200000GenerationsNeedsNoStack) {
    constexpr int n = 200'000;
    animal_files files;
    files.nlevel = n;
    files.ped.clear();
    for (int i = 1; i < n; ++i)
        files.ped += std::to_string(i) + (i % 2 == 0 ? " 0 " : " ") + std::to_string(i + 1) +
                     (i % 2 == 0 ? "\n" : " 0\n");
    files.data = "1 1 10\n1 200000 12\n1 100000 11\n";
    for (const char* options : {"!maxiter 3\n", "!maxiter 3\n!notuseasparse\n"}) {
        SCOPED_TRACE(options);
        files.options = options;
        const temporary_directory directory;
        files.write(directory);
        const auto result = run_program(
            directory.path(), {"-c", "ulimit -s 256 && exec \"$0\" model.par", program_file()}, "/bin/sh");
        EXPECT_EQ(result.status, 0) << result.out << result.error;
        EXPECT_THAT(result.out, HasSubstr("3. Computes inbreeding coefficients"));
        const std::string cache = directory.read("ped.txt.inb");
        EXPECT_EQ(std::count(cache.begin(), cache.end(), '\n'), n + 1);
    }
}

TEST_F(OddPedigreeInput, ALoopBehindALongLineIsFoundAtOnce) {
    constexpr int n = 200'000;
    animal_files files;
    files.nlevel = n;
    files.ped.clear();
    for (int i = 1; i <= n; ++i) files.ped += std::to_string(i) + " " + std::to_string(i % n + 1) + " 0\n";
    const temporary_directory directory;
    files.write(directory);
    const auto start = std::chrono::steady_clock::now();
    const auto result = run_program(
        directory.path(), {"-c", "ulimit -s 256 && exec \"$0\" model.par", program_file()}, "/bin/sh");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(result.status, 1) << result.out << result.error;
    EXPECT_THAT(unwrapped(result.out), HasSubstr("is its own ancestor: 200000, 199999, 199998"));
    EXPECT_FALSE(directory.exists("OK_ZENDAR"));
    EXPECT_FALSE(directory.exists("ped.txt.inb"));
}

TEST_F(OddPedigreeInput, CommentsOfAnInbreedingFileAreNotCounted) {
    const outcome& computed = usual(3);
    const outcome read = run(changed(3, inbreeding("# id f\n1 0\n#\n6 0.25\n")));
    EXPECT_THAT(read.log, HasSubstr("Number of inbreeding coefficients read from f.txt: 2\n"));
    expect_same(read, computed);
}

TEST_F(OddPedigreeInput, AnInbreedingFileEndsAtALineThatIsNone) {
    const outcome read = run(changed(3, inbreeding("6 0.25\nx\n1 0.5\n")));
    EXPECT_THAT(read.log,
                HasSubstr("WARN: The reading of inbreeding coefficients ends at line 2 of the file f.txt, "
                          "which is not an id and a value"));
    expect_same(read, usual(3));
}

TEST_F(OddPedigreeInput, ACacheThatIsWrongIsNeitherUsedNorOverwritten) {
    const outcome& clean = usual(3);
    const std::string check = "# 20\n";
    const std::string caches[] = {
        "",
        "#\n",
        "# 26\n1 .5\n2 .5\n3 .5\n4 .5\n5 .5\n6 .5\n",  // of another pedigree
        check + "1 .5\n2 .5\n3 .5\n4 .5\n5 .5\n",      // cut short, in a line and between lines
        check + "1 .5\n2 .5\n3 .5\n4 .5\n5 .5\n6",
        check + "1 .5\n2 .5\n3 .5\n4 .5\n5 .5\n6 nan\n",
        check + "1 .5\n2 inf\n3 .5\n4 .5\n5 .5\n6 .5\n",
        check + "1 .5\n1 .5\n3 .5\n4 .5\n5 .5\n6 .5\n",
        check + "1 .5\n2 .5\n3 .5\n4 .5\n5 .5\n7 .5\n",
        std::string("\x7f\x45\x4c\x46\x02\0\0\xff\n\n garbage", 18),
        check + std::string(3'000'000, '9'),
    };
    for (const std::string& cache : caches) {
        SCOPED_TRACE(cache.substr(0, 60));
        const outcome found = run(changed(3, [&](animal_files& m) { m.more = {{"ped.txt.inb", cache}}; }));
        EXPECT_THAT(found.log,
                    HasSubstr("WARN: The file ped.txt.inb exists, but is incorrect (magic number or "
                              "number of lines)"));
        expect_same(found, clean);
    }
    const temporary_directory directory;
    animal_files files;
    files.more = {{"ped.txt.inb", caches[3]}};
    files.write(directory);
    static_cast<void>(run(files, directory));
    EXPECT_EQ(directory.read("ped.txt.inb"), caches[3]);
}

TEST_F(OddPedigreeInput, ACacheOlderThanThePedigreeIsUsedWithAWarning) {
    const outcome& clean = usual(3);
    for (const bool older : {false, true}) {
        const temporary_directory directory;
        animal_files files;
        files.more = {{"ped.txt.inb", "# 20\n1 0\n2 0\n3 .4\n4 .4\n5 0\n6 .25\n"}};
        files.write(directory);
        using namespace std::chrono_literals;
        const auto changed_at = std::filesystem::last_write_time(directory / "ped.txt");
        std::filesystem::last_write_time(directory / "ped.txt.inb", changed_at + (older ? -1h : 1h));
        const outcome found = run(files, directory);
        EXPECT_THAT(found.log, HasSubstr("Inbreeding coefficients read from ped.txt.inb"));
        EXPECT_EQ(found.log.find("WARN: The file ped.txt.inb is older than the pedigree file ped.txt") !=
                      std::string::npos,
                  older);
        EXPECT_GT(difference(found, clean), 1e-3);
    }
}

TEST_F(OddPedigreeInput, CoefficientsThatCannotBeGiveAWarning) {
    const char* const text = "1 0\n2 0\n3 1.5\n4 1.5\n5 0\n6 -1.25\n";
    for (const bool cached : {false, true}) {
        const outcome found = run(changed(3, [&](animal_files& m) {
            if (cached)
                m.more = {{"ped.txt.inb", std::string("# 20\n") + text}};
            else
                inbreeding(text)(m);
        }));
        EXPECT_THAT(found.log,
                    HasSubstr(std::string("WARN: Inbreeding coefficients below -1 or above 1 in the file ") +
                              (cached ? "ped.txt.inb" : "f.txt") + ": 3 (3, 4, 6)"));
    }
}

TEST_F(OddPedigreeInput, RelationshipsGivenAgainWithOtherValuesAreAWarning) {
    const outcome again = run(changed(7, gamma("1 2 0.3\n1 1 0.5\n2 1 0.1\n2 2 0.4\n")));
    EXPECT_THAT(again.log,
                HasSubstr("WARN: Elements given again with other values in the file gamma.txt: 1 (the "
                          "first one at line 3), of which the last line is taken"));
    expect_same(again, usual(7));
}

TEST_F(OddPedigreeInput, OmegaCountsOnlyForTheTypesThatUseIt) {
    const char* const warning =
        "WARN: Omega different than 1 is not supported with the requested options! Omega will be set to 1.";
    for (const int type : {103, 105, 109}) {
        SCOPED_TRACE(type);
        const outcome half = run(changed(type, option("!beta 1\n!omega 0.5\n")));
        EXPECT_THAT(half.log, Not(HasSubstr("Omega different")));
        // No part of A22^-1 is left: the same model without it.
        const outcome none = run(changed(type, option("!tau 0.5\n!beta 0.5\n!omega 1\n")));
        EXPECT_GT(difference(half, none), 1e-3);
        const outcome& other = usual(type - 100);
        for (int i = 2; i <= 6; ++i)
            EXPECT_NEAR(none.animal.at(i) - none.animal.at(1), other.animal.at(i) - other.animal.at(1), 1e-5)
                << i;
        const outcome without_list = run(changed(
            type, [](animal_files& m) { m.options = "!tau 0.5\n!beta 0.5\n", m.list_name = "nowhere.txt"; }));
        EXPECT_LT(difference(without_list, none), 1e-6);
    }
    for (const int type : {3, 5, 7, 9}) {
        SCOPED_TRACE(type);
        const outcome half = run(changed(type, option("!omega 0.5\n")));
        EXPECT_THAT(half.log, HasSubstr(warning));
        EXPECT_LT(difference(half, usual(type)), 1e-6);
    }
}

}  // namespace
}  // namespace zendar::test
