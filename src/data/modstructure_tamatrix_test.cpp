#include <filesystem>

#include "modstructure_external_test_support.hpp"

namespace zendar::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// ---- Ta --------------------------------------------------------------------------------------------------

TEST_F(ExternalMatrix, TamatrixTextHasAColumnForEachSnp) {
    directory_.write("t_tri", "9 1 1\n9 3 3\n4 2 2\n");
    tamatrix_type t;
    readtamatrix(param_, 1, "t_tri", t, log());
    EXPECT_THAT(t.levels.level, ElementsAre(4, 9));
    EXPECT_EQ(t.value.rows(), 3);
    EXPECT_THAT(t.value.values(), ElementsAre(0.0, 2.0, 0.0, 1.0, 0.0, 3.0));
    EXPECT_EQ(default_log_.text(),
              "Name of the matrix read for the effect 1: t_tri\n"
              "Number of declared levels   : 12\n"
              "    Maximum level               : 9\n"
              "Number of animals           : 2\n"
              "Number of columns           : 3\n"
              "Effective size of the matrix: 6\n"
              "Memory (MB) needed for the matrix: .00\n");
}

TEST_F(ExternalMatrix, TamatrixTextRefusesWhatDoesNotFit) {
    const std::map<std::string, std::string> faults{
        {"13 1 1\n", " for Ta matrix! | Line 1: value 1 must lie between 1 and 12: \"13\""},
        {"1 0 1\n", " for Ta matrix! | Line 1: value 2 must lie between 1 and 2147483647: \"0\""},
        {"1 2147483648 1\n",
         " for Ta matrix! | Line 1: value 2 must lie between 1 and 2147483647: \"2147483648\""},
        {"1 1 1\n2 2147483647 1\n", " for Ta matrix! | 2 lines are too few for 2 x 2147483647 elements"},
        {"1 2 1\n2 1 1\n1 2 1\n", "! | Line 3: the element (1,2) stands on line 1 already"},
        {"1 2\n", "! | Line 1: the line has 2 values, expected are 3"},
        {"", "! | The file is empty"},
    };
    tamatrix_type t;
    for (const auto& [text, reason] : faults) {
        directory_.write("t_tri", text);
        EXPECT_EQ(refusal([&] { readtamatrix(param_, 1, "t_tri", t, log()); }),
                  "The file t_tri is not a _tri file" + reason);
    }
    EXPECT_EQ(refusal([&] { readtamatrix(param_, 1, "t", t, log()); }),
              "This format for the Ta matrix of effect 1 is not implemented!");
    EXPECT_THAT(refusal([&] { readtamatrix(param_, 1, "none.stream", t, log()); }),
                HasSubstr("The file none.stream of the matrix cannot be read"));
}

TEST_F(ExternalMatrix, TamatrixStreamKeepsTheOrderOfItsAnimals) {
    directory_.write("t.stream", ta_stream());
    tamatrix_type t;
    readtamatrix(param_, 1, "t.stream", t, log());
    EXPECT_THAT(t.levels.level, ElementsAre(9, 4));
    EXPECT_THAT(t.value.values(), ElementsAre(1.0, 0.0, 3.0, 0.0, 2.0, 0.0));
    EXPECT_THAT(default_log_.text(), HasSubstr("    Maximum level               : 9\n"
                                               "Number of animals           : 2\n"
                                               "Number of columns           : 3\n"
                                               "Effective size of the matrix: 6\n"));
    write_tamatrix(t, "u.stream", log());
    EXPECT_EQ(directory_.read("u.stream"), ta_stream());
    write_tamatrix(t, "u_tri", log());
    tamatrix_type back;
    readtamatrix(param_, 1, "u_tri", back, log());
    EXPECT_THAT(back.levels.level, ElementsAre(4, 9));
    EXPECT_THAT(back.value.values(), ElementsAre(0.0, 2.0, 0.0, 1.0, 0.0, 3.0));
}

// ---- K ---------------------------------------------------------------------------------------------------

TEST_F(ExternalMatrix, KtamatrixTextMayBeginWithItsSize) {
    for (const std::string head : {"3\n", " 3 \r\n", "3,\n", ""}) {
        directory_.write("k_tri", head + "1 1 1\n3 2 32\n2 2 2\n" + (head.empty() ? "3 3 3\n" : ""));
        ktmatrix_type k;
        readktamatrix(param_, 1, "k_tri", k, log());
        EXPECT_EQ(k.k.n, 3) << head;
        EXPECT_THAT(k.levels, ElementsAre(1, 2, 3));
        EXPECT_THAT(k.k.value.values(),
                    ElementsAre(1.0, 0.0, 0.0, 0.0, 2.0, 32.0, 0.0, 32.0, head.empty() ? 3.0 : 0.0));
    }
    EXPECT_THAT(default_log_.text(), HasSubstr("Number of declared levels   : 12\n"
                                               "Name of the K matrix read: k_tri\n"
                                               "Memory (MB) needed for the matrix: .00\n"));
}

TEST_F(ExternalMatrix, KtamatrixTextRefusesWhatIsNoTriangle) {
    const std::map<std::string, std::string> faults{
        {"2\n1 1 1\n3 1 1\n", " for K matrix! | Line 3: value 1 must lie between 1 and 2: \"3\""},
        {"2\n1 1 1\n1 2 1\n", "! | Line 3: the element (1,2) stands above the diagonal"},
        {"2\n2 1 1\n1 1 1\n2 1 1\n", "! | Line 4: the element (2,1) stands on line 2 already"},
        {"0\n1 1 1\n", "! | Line 1: 0 is no size of a matrix"},
        {"-1\n", "! | Line 1: -1 is no size of a matrix"},
        {"2147483648\n", "! | Line 1: 2147483648 is no size of a matrix"},
        {"2147483647\n1 1 1\n", " for K matrix! | 1 lines are too few for 2147483647 x 2147483647 elements"},
        {"2000000000 1 1\n", " for K matrix! | 1 lines are too few for 2000000000 x 2000000000 elements"},
        {"1 1 1\n2\n", "! | Line 2: the line has 1 values, expected are 3"},
        {"2\n2\n", "! | Line 2: the line has 1 values, expected are 3"},
    };
    ktmatrix_type k;
    for (const auto& [text, reason] : faults) {
        directory_.write("k_tri", text);
        EXPECT_EQ(refusal([&] { readktamatrix(param_, 1, "k_tri", k, log()); }),
                  "The file k_tri is not a _tri file" + reason);
    }
    EXPECT_EQ(refusal([&] { readktamatrix(param_, 1, "k.dat", k, log()); }),
              "This type of file is not supported: k.dat");
}

TEST_F(ExternalMatrix, DensesquareHasBothForms) {
    std::mt19937_64 random(5);
    for (const std::int32_t n : {1, 2, 63, 64, 65, 130}) {
        const densesquare_type m{n, random_symmetric(n, random)};
        write_densesquare(m, "k_tri", "_tri", log());
        write_densesquare(m, "k.stream", ".stream", log());
        EXPECT_EQ(std::filesystem::file_size("k.stream"), 4 + 8 * static_cast<std::size_t>(n) * (n + 1) / 2);
        for (const char* name : {"k_tri", "k.stream"}) {
            ktmatrix_type back;
            readktamatrix(param_, 1, name, back, log());
            EXPECT_EQ(back.k.n, n);
            EXPECT_EQ(back.k.value, m.value);
        }
    }
    matrix<double> small(2, 2);
    small(0, 0) = 1.5;
    small(0, 1) = small(1, 0) = -2.0;
    small(1, 1) = 4.0;
    write_densesquare({2, small}, "k_tri", "_tri", log());
    EXPECT_TRUE(directory_.read("k_tri").starts_with("2\n1 1 1.5")) << directory_.read("k_tri");
    EXPECT_EQ(refusal([&] {
                  write_densesquare({2, small}, "k", "dat", log());
              }),
              "The format \"dat\" for the densesquare matrix is not implemented!");
    EXPECT_FALSE(directory_.exists("k"));
}

}  // namespace
}  // namespace zendar::test
