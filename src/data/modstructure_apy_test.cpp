#include <filesystem>

#include "modstructure_external_test_support.hpp"

namespace zendar::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(ExternalMatrix, GapyTextHasCoreCrossAndDiagonal) {
    directory_.write("g_tri", "9 4 0.5\n4 4 4\n9 9 9\n2 4 0.25\n11 9 0.75\n2 2 20\n11 11 110\n");
    directory_.write("g_tri_core", "9\n4\n");
    apy g;
    readgapy(param_, 1, "g_tri", g, log());
    EXPECT_EQ(g.ncore, 2);
    EXPECT_THAT(g.levels.level, ElementsAre(9, 4, 2, 11));
    EXPECT_THAT(g.levels.position, ElementsAre(0, 3, 0, 2, 0, 0, 0, 0, 1, 0, 4, 0));
    EXPECT_THAT(g.core.values(), ElementsAre(9.0, 0.5, 0.5, 4.0));
    EXPECT_THAT(g.cross.values(), ElementsAre(0.0, 0.25, 0.75, 0.0));
    EXPECT_THAT(g.diagonal, ElementsAre(20.0, 110.0));
    EXPECT_EQ(g.bytes(), 80);
    EXPECT_EQ(default_log_.text(),
              "Name of the matrix read for the effect 1: g_tri\n"
              "Number of declared levels   : 12\n"
              "    Maximum level              : 11\n"
              "Number of lines in the file: 7\n"
              "   Number of core animals: 2\n"
              "   Effective size of the matrix: 4\n"
              "Memory (MB) needed for the matrix: .00\n");
}

TEST_F(ExternalMatrix, GapyTextRefusesWhatDoesNotFit) {
    const std::map<std::string, std::string> faults{
        {"9 9 1\n11 2 1\n",
         " for APY! | Line 2: the element (11,2) has no core level and is not on the diagonal"},
        {"9 9 1\n2 11 1\n",
         " for APY! | Line 2: the element (2,11) has no core level and is not on the diagonal"},
        {"9 9 1\n4 9 1\n", "! | Line 2: the element (4,9) stands above the diagonal"},
        {"9 4 1\n9 4 1\n", "! | Line 2: the element (9,4) stands on line 1 already"},
        {"2 4 1\n9 9 1\n4 2 1\n", "! | Line 3: the element (4,2) stands on line 1 already"},
        {"2 2 1\n2 2 1\n", "! | Line 2: the element (2,2) stands on line 1 already"},
        {"2 13 1\n", " for APY! | Line 1: value 2 must lie between 1 and 12: \"13\""},
        {"2 2 one\n", "! | Line 1: value 3 is not a number: \"one\""},
        {"", "! | The file is empty"},
    };
    directory_.write("g_tri_core", "9\n4\n");
    apy g;
    for (const auto& [text, reason] : faults) {
        directory_.write("g_tri", text);
        EXPECT_EQ(refusal([&] { readgapy(param_, 1, "g_tri", g, log()); }),
                  "The file g_tri is not a _tri file" + reason);
    }
    directory_.write("g_tri", "9 9 1\n");
    directory_.write("g_tri_core", "9\n9\n");
    EXPECT_EQ(refusal([&] { readgapy(param_, 1, "g_tri", g, log()); }),
              "Level not correctly read at line 2 | File g_tri_core: the level 9 stands on line 1 already");
    std::filesystem::remove("g_tri_core");
    EXPECT_THAT(refusal([&] { readgapy(param_, 1, "g_tri", g, log()); }),
                HasSubstr("The file g_tri_core of the matrix cannot be read"));
    EXPECT_EQ(refusal([&] { readgapy(param_, 1, "g.txt", g, log()); }),
              "The file g.txt is not a _tri file! | Its name ends neither in _tri nor in .stream");
    EXPECT_THAT(refusal([&] { readgapy(param_, 1, "none.stream", g, log()); }),
                HasSubstr("The file none.stream of the matrix cannot be read"));
}

TEST_F(ExternalMatrix, GapyTextOfFewElementsAmongManyIsRefused) {
    param_.n_level[0] = 4000;
    std::string text, core;
    for (int k = 1; k <= 2000; ++k) core += std::to_string(k) + "\n";
    for (int k = 2001; k <= 4000; ++k) text += std::to_string(k) + " " + std::to_string(k) + " 1\n";
    directory_.write("g_tri", text);
    directory_.write("g_tri_core", core);
    apy g;
    EXPECT_EQ(refusal([&] { readgapy(param_, 1, "g_tri", g, log()); }),
              "The file g_tri is not a _tri file for APY! | 2000 lines are too few for 2000 core levels and "
              "2000 others");
}

TEST_F(ExternalMatrix, GapyStreamHasTheSamePartsInTheirOrder) {
    directory_.write("g.stream", apy_stream());
    apy g;
    readgapy(param_, 1, "g.stream", g, log());
    EXPECT_EQ(g.ncore, 2);
    EXPECT_THAT(g.levels.level, ElementsAre(9, 4, 2, 11));
    EXPECT_THAT(g.core.values(), ElementsAre(9.0, 0.5, 0.5, 4.0));
    EXPECT_THAT(g.cross.values(), ElementsAre(0.0, 0.25, 0.75, 0.0));
    EXPECT_THAT(g.diagonal, ElementsAre(20.0, 110.0));
    EXPECT_EQ(default_log_.text(),
              "Name of the matrix read for the effect 1: g.stream\n"
              "Number of declared levels   : 12\n"
              "    Maximum level               : 11\n"
              "Number of core animals      : 2\n"
              "Effective size of the matrix: 4\n"
              "Memory (MB) needed for the matrix: .00\n");
    write_gapy(g, "h.stream", log());
    EXPECT_EQ(directory_.read("h.stream"), apy_stream());
}

TEST_F(ExternalMatrix, GapyComesBackFromBothForms) {
    std::mt19937_64 random(3);
    for (int k = 0; k < 30; ++k) {
        param_.n_level[0] = std::uniform_int_distribution(1, 60)(random);
        const std::int32_t n = std::uniform_int_distribution(1, param_.n_level[0])(random);
        apy g;
        g.ncore = std::uniform_int_distribution(1, n)(random);
        g.levels = random_levels(param_.n_level[0], n, false, random);
        std::sort(g.levels.level.begin() + g.ncore, g.levels.level.end());
        for (std::int32_t i = 0; i < n; ++i) g.levels.position[g.levels.level[i] - 1] = i + 1;
        g.core = random_symmetric(g.ncore, random);
        g.cross = matrix<double>(g.ncore, n - g.ncore);
        for (double& v : g.cross.values()) v = std::normal_distribution<double>()(random);
        g.diagonal.assign(static_cast<std::size_t>(n - g.ncore), 1.25);
        for (const std::string name : {"g_tri", "g.stream"}) {
            write_gapy(g, name, log());
            if (name == "g_tri") directory_.write(name, shuffled_lines(directory_.read(name), random));
            apy back;
            readgapy(param_, 1, name, back, log());
            expect_levels(back.levels, g.levels);
            EXPECT_EQ(back.ncore, g.ncore);
            EXPECT_EQ(back.core, g.core);
            EXPECT_EQ(back.cross, g.cross);
            EXPECT_EQ(back.diagonal, g.diagonal);
        }
    }
}

}  // namespace
}  // namespace zendar::test
