#include <algorithm>
#include <map>

#include "modsimulate_random.hpp"
#include "modsimulate_test_support.hpp"

namespace zendar::test {
namespace {

using simulate::random_stream;
using simulate::subject;

// ---- random numbers
// ----------------------------------------------------------------------------------------------

TEST(SimulateRandom, HasTheLogarithm) {
    for (double x = 1e-300; x < 1e300; x *= 1.37)
        EXPECT_NEAR(simulate::portable_log(x), std::log(x), 4e-16 * std::abs(std::log(x)) + 1e-16) << x;
    EXPECT_EQ(simulate::portable_log(1.0), 0.0);
}

TEST(SimulateRandom, HasStandardNormalDeviates) {
    random_stream random(5, subject::genetic);
    constexpr int n = 1'000'000;
    double sums[4] = {};
    int beyond2 = 0;
    for (int i = 0; i < n; ++i) {
        const double x = random.normal();
        for (int k = 0; k < 4; ++k) sums[k] += std::pow(x, k + 1);
        beyond2 += std::abs(x) > 2.0 ? 1 : 0;
    }
    EXPECT_NEAR(sums[0] / n, 0.0, 4.5 / 1000);
    EXPECT_NEAR(sums[1] / n, 1.0, 4.5 * std::sqrt(2.0) / 1000);
    EXPECT_NEAR(sums[2] / n, 0.0, 4.5 * std::sqrt(15.0) / 1000);
    EXPECT_NEAR(sums[3] / n, 3.0, 4.5 * std::sqrt(96.0) / 1000);
    const double p = std::erfc(std::sqrt(2.0));
    EXPECT_NEAR(static_cast<double>(beyond2) / n, p, 4.5 * std::sqrt(p / n));
}

TEST(SimulateRandom, DrawsEveryNumberAsOften) {
    random_stream random(5, subject::pedigree);
    std::vector<int> count(7, 0);
    for (int i = 0; i < 70'000; ++i) ++count.at(static_cast<std::size_t>(random.below(7)));
    for (const int c : count) EXPECT_NEAR(c, 10'000, 4.5 * 100);
}

// ---- files
// -------------------------------------------------------------------------------------------------------

const std::string everything =
    "--animals 300 --generations 4 --unknown 0.1 --groups generation --traits 2 --genetic 0.5,2 --missing "
    "0.1,0.2 --repeated 2 --genotyped 90 --snps 300 --chromosomes 3 --names --truth --model "
    "animal,randomgroups,metafounders,snpblup,ssgblup22,ssgblup30 ";

TEST(SimulateFiles, AreTheSameForTheSameSeedAndAnyNumberOfThreads) {
    const simulated one(everything + "--seed 7 --threads 1"), again(everything + "--seed 7 --threads 1"),
        three(everything + "--seed 7 --threads 3"), other(everything + "--seed 8");
    ASSERT_GT(one.all_files().size(), 10'000U);
    EXPECT_EQ(one.all_files(), again.all_files());
    EXPECT_EQ(one.all_files(), three.all_files());
    for (const char* file : {"pedigree.txt", "data.txt", "snp.bed", "names.txt", "true_values.txt"})
        EXPECT_NE(one.directory.read(file), other.directory.read(file)) << file;
}

/// The examples and the guide rely on these bytes: on every machine, and in later versions.
TEST(SimulateFiles, StayWhatTheyWere) {
    std::uint64_t hash = 0xcbf29ce484222325;  // FNV-1a
    for (const char c : simulated(everything + "--seed 7").all_files())
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    EXPECT_EQ(hash, 558249000110775392U);
}

TEST(SimulateFiles, ChangeOnlyWhereAnOptionAsksForIt) {
    const simulated plain("--seed 3"), more("--seed 3 --traits 3 --missing 0.5 --herds 7 --names");
    EXPECT_EQ(plain.directory.read("pedigree.txt"), more.directory.read("pedigree.txt"));
    EXPECT_TRUE(more.directory.exists("names.txt"));
    EXPECT_FALSE(plain.directory.exists("names.txt"));
    EXPECT_FALSE(plain.directory.exists("snp.bed"));
}

TEST(SimulateFiles, TellTheSameByNames) {
    const simulated s("--animals 200 --maternal 0.4 --names --unknown 0.1 --groups sex");
    std::map<int, std::string> name;
    std::istringstream list(s.directory.read("names.txt"));
    int code = 0;
    for (std::string word; list >> code >> word;) {
        EXPECT_EQ(word.size(), 8U);
        EXPECT_THAT(word, testing::StartsWith("NL000"));
        name[code] = word;
    }
    name[201] = "group1";
    name[202] = "group2";
    const auto translated = [&](const std::string& file, const std::vector<std::size_t>& columns, bool herd) {
        std::string text;
        std::istringstream in(s.directory.read(file));
        for (std::string line; std::getline(in, line);) {
            std::istringstream words(line);
            std::vector<std::string> parts;
            for (std::string word; words >> word;) parts.push_back(word);
            for (const std::size_t k : columns) parts.at(k) = name.at(std::stoi(parts[k]));
            if (herd) parts.at(1) = "herd" + std::string(parts[1].size() < 2 ? "0" : "") + parts[1];
            for (std::size_t k = 0; k < parts.size(); ++k) text += (k == 0 ? "" : " ") + parts[k];
            text += "\n";
        }
        return text;
    };
    EXPECT_EQ(name.size(), 202U);
    EXPECT_EQ(translated("pedigree.txt", {0, 1, 2}, false), s.directory.read("pedigree_names.txt"));
    EXPECT_EQ(translated("data.txt", {2, 3}, true), s.directory.read("data_names.txt"));
}

// ---- pedigrees
// ---------------------------------------------------------------------------------------------------

TEST(SimulatePedigree, HasParentsOfTheGenerationBeforeAndOfOneSex) {
    const simulated s("--animals 1234 --generations 6 --unknown 0.2");
    const rows_type pedigree = s.rows("pedigree.txt");
    ASSERT_EQ(pedigree.size(), 1234U);
    const int size = 1234 / 6;
    const auto generation = [&](double code) { return std::min((static_cast<int>(code) - 1) / size, 5); };
    std::map<int, std::map<double, int>> progeny;  // side, parent
    int unknown = 0;
    for (std::size_t i = 0; i < pedigree.size(); ++i) {
        ASSERT_EQ(pedigree[i].size(), 3U);
        EXPECT_EQ(pedigree[i][0], static_cast<double>(i + 1));
        for (int side = 1; side <= 2; ++side) {
            const double parent = pedigree[i][static_cast<std::size_t>(side)];
            if (parent == 0.0) {
                unknown += generation(pedigree[i][0]) > 0 ? 1 : 0;
                continue;
            }
            EXPECT_EQ(generation(parent) + 1, generation(pedigree[i][0]));
            ++progeny[side][parent];
        }
    }
    for (const auto& [parent, n] : progeny[1]) EXPECT_FALSE(progeny[2].contains(parent)) << parent;
    EXPECT_EQ(progeny[1].size(), 5U * (size / 50));
    EXPECT_GT(progeny[2].size(), 5U * size / 3);  // of size / 2 dams
    const double possible = 2.0 * (1234 - size);
    EXPECT_NEAR(unknown / possible, 0.2, 4.5 * std::sqrt(0.16 / possible));
}

TEST(SimulatePedigree, HasGroupsByTheSexOfTheUnknownParent) {
    const simulated s("--animals 500 --unknown 0.3 --groups sex");
    for (const auto& row : s.rows("pedigree.txt"))
        for (const std::size_t side : {1U, 2U}) {
            EXPECT_NE(row[side], 0.0);
            if (row[side] > 500.0) {
                EXPECT_EQ(row[side], 500.0 + static_cast<double>(side));
            }
        }
    EXPECT_THAT(s.log, testing::HasSubstr("groups: 2,"));
}

TEST(SimulatePedigree, HasGroupsByTheGenerationOfTheProgeny) {
    const simulated s("--animals 500 --generations 5 --unknown 0.3 --groups generation");
    std::vector<double> seen;
    for (const auto& row : s.rows("pedigree.txt"))
        for (const std::size_t side : {1U, 2U}) {
            if (row[side] <= 500.0) continue;
            EXPECT_EQ(row[side], 501.0 + std::floor((row[0] - 1.0) / 100.0));
            seen.push_back(row[side]);
        }
    EXPECT_EQ(*std::ranges::max_element(seen), 505.0);
    EXPECT_THAT(s.log, testing::HasSubstr("groups: 5,"));
}

// ---- variances
// ---------------------------------------------------------------------------------------------------

/// Genetic values less what the parents explain, by the number of known parents.
TEST(SimulateVariances, OfGeneticValues) {
    const simulated s(
        "--animals 120000 --generations 3 --traits 2 --genetic 0.5,2 --rg 0.6 --unknown 0.3 --groups sex "
        "--truth --seed 11");
    const rows_type pedigree = s.rows("pedigree.txt"), value = s.rows("true_values.txt");
    moments first[3], second[3], both[3];
    for (std::size_t i = 0; i < pedigree.size(); ++i) {
        double rest[2] = {value[i][1], value[i][2]};
        int known = 0;
        for (const std::size_t side : {1U, 2U}) {
            const double parent = pedigree[i][side];
            known += parent <= 120000.0 ? 1 : 0;
            for (std::size_t t = 0; t < 2; ++t)
                rest[t] -= parent <= 120000.0
                               ? 0.5 * value[static_cast<std::size_t>(parent) - 1][t + 1]
                               : (parent == 120002.0 ? 0.25 * std::sqrt(t == 0 ? 0.5 : 2.0) : 0.0);
        }
        first[known].add(rest[0], rest[0]);
        second[known].add(rest[1], rest[1]);
        both[known].add(rest[0], rest[1]);
    }
    const double share[] = {1.0, 0.75, 0.5};
    for (int known = 0; known < 3; ++known) {
        first[known].expect(0.5 * share[known], "first trait");
        second[known].expect(2.0 * share[known], "second trait");
        both[known].expect(0.6 * share[known], "both traits");
    }
}

TEST(SimulateVariances, OfResidualsAndHerds) {
    const simulated s(
        "--animals 60000 --herds 3000 --traits 2 --residual 1,4 --re 0.3 --rg 0.1 --truth --seed 12");
    const rows_type data = s.rows("data.txt"), value = s.rows("true_values.txt");
    std::map<double, std::vector<std::array<double, 2>>> by_herd;
    moments first, second, both, herds;
    for (const auto& row : data) {
        const auto& own = value[static_cast<std::size_t>(row[3]) - 1];
        by_herd[row[2]].push_back({row[0] - 10.0 - own[1], row[1] - 20.0 - own[2]});
    }
    EXPECT_EQ(by_herd.size(), 3000U);
    for (const auto& [herd, rest] : by_herd) {
        double half[2] = {};  // means of the even and the odd records
        for (std::size_t i = 0; i + 1 < rest.size(); i += 2) {
            const double d1 = rest[i][0] - rest[i + 1][0], d2 = rest[i][1] - rest[i + 1][1];
            first.add(d1, d1);
            second.add(d2, d2);
            both.add(d1, d2);
            for (std::size_t k = 0; k < 2; ++k)
                half[k] += rest[i + k][1] / static_cast<double>(rest.size() / 2);
        }
        if (rest.size() > 1) herds.add(half[0], half[1]);
    }
    first.expect(2.0 * 1.0, "first trait");
    second.expect(2.0 * 4.0, "second trait");
    both.expect(2.0 * 0.6, "both traits");
    herds.expect(0.25 * 4.0, "herds");
}

TEST(SimulateVariances, OfPermanentEnvironments) {
    const simulated s(
        "--animals 40000 --herds 1 --repeated 2 --permanent 0.7 --residual 1.5 --truth --seed 13");
    const rows_type data = s.rows("data.txt"), value = s.rows("true_values.txt");
    ASSERT_EQ(data.size(), 80000U);
    double mean = 0.0;
    for (const auto& row : data)
        mean += (row[0] - value[static_cast<std::size_t>(row[2]) - 1][1]) / 80000.0;  // herd 1 and 10
    moments all, pairs;
    for (std::size_t i = 0; i < data.size(); i += 2) {
        ASSERT_EQ(data[i][2], data[i + 1][2]);
        const double own = value[static_cast<std::size_t>(data[i][2]) - 1][1] + mean;
        all.add(data[i][0] - own, data[i][0] - own);
        pairs.add(data[i][0] - own, data[i + 1][0] - own);
    }
    all.expect(0.7 + 1.5, "all");
    pairs.expect(0.7, "pairs");
}

TEST(SimulateVariances, OfMaternalEffects) {
    const simulated s(
        "--animals 120000 --generations 3 --herds 1 --genetic 1 --maternal 0.6 --rdm -0.4 --permanent 0.5 "
        "--residual 1 --unknown 0.1 --truth --seed 14");
    const rows_type data = s.rows("data.txt"), value = s.rows("true_values.txt"),
                    pedigree = s.rows("pedigree.txt");
    moments direct, maternal, both;
    for (std::size_t i = 0; i < 40000; ++i) {
        direct.add(value[i][1], value[i][1]);
        maternal.add(value[i][2], value[i][2]);
        both.add(value[i][1], value[i][2]);
    }
    direct.expect(1.0, "direct");
    maternal.expect(0.6, "maternal");
    both.expect(-0.4 * std::sqrt(0.6), "direct and maternal");
    std::size_t with_dam = 0;
    for (const auto& row : pedigree) with_dam += row[2] > 0.0 ? 1 : 0;
    EXPECT_EQ(data.size(), with_dam);
    std::vector<double> rest;
    double mean = 0.0;
    for (const auto& row : data) {
        const double dam = row[3];
        EXPECT_EQ(dam, pedigree[static_cast<std::size_t>(row[2]) - 1][2]);
        rest.push_back(row[0] - value[static_cast<std::size_t>(row[2]) - 1][1] -
                       value[static_cast<std::size_t>(dam) - 1][2]);
        mean += rest.back() / static_cast<double>(data.size());
    }
    std::map<double, double> last;
    moments all, pairs;
    for (std::size_t i = 0; i < data.size(); ++i) {
        all.add(rest[i] - mean, rest[i] - mean);
        const auto [place, fresh] = last.try_emplace(data[i][3], rest[i] - mean);
        if (!fresh) {
            pairs.add(rest[i] - mean, place->second);
            last.erase(place);
        }
    }
    all.expect(0.5 + 1.0, "all");
    pairs.expect(0.5, "progeny of a dam");
}

TEST(SimulateMissing, HasTheSharesAndLeavesEmptyRecordsOut) {
    const simulated s("--animals 40000 --traits 2 --missing 0.3,0.6");
    const rows_type data = s.rows("data.txt");
    double first = 0.0, second = 0.0;
    for (const auto& row : data) {
        first += row[0] == -9.0 ? 1.0 : 0.0;
        second += row[1] == -9.0 ? 1.0 : 0.0;
        EXPECT_FALSE(row[0] == -9.0 && row[1] == -9.0);
    }
    const double empty = 40000.0 - static_cast<double>(data.size());
    EXPECT_NEAR(empty, 0.18 * 40000, 4.5 * std::sqrt(0.18 * 0.82 * 40000));
    EXPECT_NEAR(first + empty, 0.3 * 40000, 4.5 * std::sqrt(0.21 * 40000));
    EXPECT_NEAR(second + empty, 0.6 * 40000, 4.5 * std::sqrt(0.24 * 40000));
}

}  // namespace
}  // namespace zendar::test
