#include <omp.h>

#include <filesystem>

#include "modstructure_external_test_support.hpp"

namespace zendar::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// ---- Gi-A22i ---------------------------------------------------------------------------------------------

TEST_F(ExternalMatrix, Gima22iHasTheLevelsOfItsFileOnly) {
    directory_.write("g_tri", "7 3 -0.5\n3 3 2.0\n11,7,4\n7 7 1.5d0\r\n\n");
    gima22i_type m;
    readgima22i(param_, 1, " g_tri ", m, log());
    EXPECT_THAT(m.levels.level, ElementsAre(3, 7, 11));
    EXPECT_THAT(m.levels.position, ElementsAre(0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0));
    EXPECT_FALSE(m.elements.is_sparse());
    EXPECT_THAT(m.elements.dense.values(), ElementsAre(2.0, -0.5, 0.0, -0.5, 1.5, 4.0, 0.0, 4.0, 0.0));
    EXPECT_EQ(m.elements.bytes(), 72);
    EXPECT_EQ(default_log_.text(),
              "Name of the matrix read for the effect 1: g_tri\n"
              "Number of declared levels   : 12\n"
              "    Maximum level               : 11\n"
              "Number of lines in the file: 4\n"
              "   Effective size of the matrix: 3\n"
              "Memory (MB) needed for the matrix: .00\n");
}

TEST_F(ExternalMatrix, LevelsAreThoseOfTheEffect) {
    EXPECT_EQ(declared_levels(param_, 1), 12);
    EXPECT_EQ(declared_levels(param_, 3), 4);
    EXPECT_EQ(declared_levels(param_, 4), 3);
}

TEST_F(ExternalMatrix, Gima22iRefusesWhatIsNoTriangle) {
    const std::map<std::string, std::string> faults{
        {"3 3 1\n3 7 1\n7 7 1\n", "!| Line 2: the element (3,7) stands above the diagonal"},
        {"3 3 1\n7 3 1\n3 3 1\n", "!| Line 3: the element (3,3) stands on line 1 already"},
        {"3 3 1\n13 3 1\n", " for Gi-A22i!| Line 2: value 1 must lie between 1 and 12: \"13\""},
        {"3 0 1\n", " for Gi-A22i!| Line 1: value 2 must lie between 1 and 12: \"0\""},
        {"-3 1 1\n", " for Gi-A22i!| Line 1: value 1 must lie between 1 and 12: \"-3\""},
        {"3 3\n", "!| Line 1: the line has 2 values, expected are 3"},
        {"3 3 1 1\n", "!| Line 1: the line has more than 3 values"},
        {"3 3 nan\n", "!| Line 1: value 3 is not a finite number: \"nan\""},
        {"3 x 1\n", "!| Line 1: value 2 is not an integer: \"x\""},
        {"3 3 1\n\n3 2 1\n", "!| Line 2: the line is blank, expected are 3 values"},
        {"", "!| The file is empty"},
        {" \n\n", "!| The file is empty"},
    };
    for (const auto& [text, reason] : faults) {
        directory_.write("g_tri", text);
        gima22i_type m;
        const std::string told = refusal([&] { readgima22i(param_, 1, "g_tri", m, log()); });
        const auto bar = reason.find("| ");
        EXPECT_EQ(told,
                  "The file g_tri is not a _tri file" + reason.substr(0, bar) + " " + reason.substr(bar));
    }
    gima22i_type m;
    for (const char* name : {"g", "g.stream", "_tr", ""})
        EXPECT_EQ(refusal([&] { readgima22i(param_, 1, name, m, log()); }),
                  "The file " + std::string(name) + " is not a _tri file! | Its name does not end in _tri");
    EXPECT_THAT(refusal([&] { readgima22i(param_, 1, "no_tri", m, log()); }),
                HasSubstr("The file no_tri of the matrix cannot be read | No such file"));
    std::filesystem::create_directory("folder_tri");
    EXPECT_THAT(refusal([&] { readgima22i(param_, 1, "folder_tri", m, log()); }),
                HasSubstr("The file folder_tri of the matrix cannot be read | "));
}

TEST_F(ExternalMatrix, QptransfoHasTheSameForm) {
    directory_.write("q_tri", "1 1 1\n4 1 -2\n");
    gima22i_type m;
    readqptransfo(param_, 3, "q_tri", m, log());
    EXPECT_THAT(m.levels.level, ElementsAre(1, 4));
    EXPECT_THAT(m.elements.dense.values(), ElementsAre(1.0, -2.0, -2.0, 0.0));
    EXPECT_THAT(default_log_.text(), HasSubstr("Name of the matrix read for the effect 3: q_tri\n"));
    directory_.write("q_tri", "5 1 1\n");
    EXPECT_EQ(refusal([&] { readqptransfo(param_, 3, "q_tri", m, log()); }),
              "The file q_tri is not a _tri file for QP transfo! | Line 1: value 1 must lie between 1 and 4: "
              "\"5\"");
}

TEST_F(ExternalMatrix, QptransfoReadsAStreamToo) {
    directory_.write("q.stream", symmetric_stream());
    gima22i_type m;
    readqptransfo(param_, 1, "q.stream", m, log());
    EXPECT_THAT(m.levels.level, ElementsAre(4, 9));
    EXPECT_THAT(m.levels.position, ElementsAre(0, 0, 0, 1, 0, 0, 0, 0, 2, 0, 0, 0));
    EXPECT_THAT(m.elements.dense.values(), ElementsAre(2.0, -0.5, -0.5, 3.0));
    EXPECT_EQ(default_log_.text(),
              "Name of the matrix read for the effect 1: q.stream\n"
              "Number of declared levels   : 12\n"
              "    Maximum level               : 9\n"
              "   Effective size of the matrix: 2\n"
              "Memory (MB) needed for the matrix: .00\n");
    EXPECT_EQ(refusal([&] { readgima22i(param_, 1, "q.stream", m, log()); }),
              "The file q.stream is not a _tri file! | Its name does not end in _tri");
}

TEST_F(ExternalMatrix, SymmetricMatricesComeBackFromBothForms) {
    std::mt19937_64 random(8);
    for (int k = 0; k < 30; ++k) {
        param_.n_level[0] = std::uniform_int_distribution(1, 60)(random);
        gima22i_type m, text, stream;
        m.levels = random_levels(param_.n_level[0],
                                 std::uniform_int_distribution(1, param_.n_level[0])(random), true, random);
        m.elements.dense = random_symmetric(m.levels.size(), random);
        write_symmetric(m, "q_tri", log());
        write_symmetric(m, "q.stream", log());
        readqptransfo(param_, 1, "q_tri", text, log());
        readqptransfo(param_, 1, "q.stream", stream, log());
        for (const gima22i_type* back : {&text, &stream}) {
            expect_levels(back->levels, m.levels);
            EXPECT_EQ(back->elements.dense, m.elements.dense);
        }
    }
}

TEST_F(ExternalMatrix, ASparseSymmetricMatrixIsWrittenWholeToAStream) {
    const std::int32_t n = 2000;  // from there on a file with few elements is held sparse
    param_.n_level[0] = n;
    std::string text;
    for (std::int32_t i = 1; i <= n; ++i) text += std::to_string(i) + " " + std::to_string(i) + " 2\n";
    directory_.write("q_tri", text + "2000 3 0.5\n");
    gima22i_type sparse, back;
    readqptransfo(param_, 1, "q_tri", sparse, log());
    ASSERT_TRUE(sparse.elements.is_sparse());

    write_symmetric(sparse, "q.stream", log());
    readqptransfo(param_, 1, "q.stream", back, log());

    expect_levels(back.levels, sparse.levels);
    EXPECT_EQ(std::ranges::count(back.elements.dense.values(), 2.0), n);
    EXPECT_EQ(std::ranges::count(back.elements.dense.values(), 0.5), 2);
    EXPECT_EQ(std::ranges::count(back.elements.dense.values(), 0.0), std::int64_t{n} * n - n - 2);
    EXPECT_EQ(back.elements.dense(1999, 2), 0.5);
}

TEST_F(ExternalMatrix, Gima22iComesBackFromItsFile) {
    std::mt19937_64 random(7);
    const int old = omp_get_max_threads();
    for (int k = 0; k < 30; ++k) {
        omp_set_num_threads(1 + k % 3);
        param_.n_level[0] = std::uniform_int_distribution(1, 150)(random);
        gima22i_type m, back;
        m.levels = random_levels(param_.n_level[0],
                                 std::uniform_int_distribution(1, param_.n_level[0])(random), true, random);
        m.elements.dense = random_symmetric(m.levels.size(), random);
        write_gima22i(m, "g_tri", log());
        directory_.write("g_tri", shuffled_lines(directory_.read("g_tri"), random));
        readgima22i(param_, 1, "g_tri", back, log());
        expect_levels(back.levels, m.levels);
        EXPECT_EQ(back.elements.dense, m.elements.dense);
    }
    omp_set_num_threads(old);
}

/// A text of few elements of a large triangle, and its elements.
std::map<std::pair<int, int>, double> few_elements(std::int32_t n, std::string& text, bool lower) {
    std::mt19937_64 random(11);
    std::map<std::pair<int, int>, double> elements;
    for (int i = 1; i <= n; i += 1 + i % 2) elements[{i, i}] = i;
    for (int k = 0; k < 5000; ++k) {
        int i = std::uniform_int_distribution(1, n)(random), j = std::uniform_int_distribution(1, n)(random);
        if (lower && i < j) std::swap(i, j);
        elements[{i, j}] = k + 0.5;
    }
    for (const auto& [at, value] : elements)
        text +=
            std::to_string(at.first) + " " + std::to_string(at.second) + " " + std::to_string(value) + "\n";
    text = shuffled_lines(text, random);
    return elements;
}

TEST_F(ExternalMatrix, Gima22iOfFewElementsIsSparse) {
    param_.n_level[0] = 3000;
    std::string text;
    const auto elements = few_elements(3000, text, true);
    directory_.write("g_tri", text);
    gima22i_type m, back;
    readgima22i(param_, 1, "g_tri", m, log());
    ASSERT_TRUE(m.elements.is_sparse());
    EXPECT_TRUE(m.elements.sparse.isupperstorage() && m.elements.sparse.issymmetric());
    EXPECT_EQ(m.elements.sparse.getdim(1), m.levels.size());
    EXPECT_LT(m.elements.bytes(), 300000);
    for (const auto& [at, value] : elements) {
        const std::int64_t i = m.levels.position[at.first - 1] - 1, j = m.levels.position[at.second - 1] - 1;
        ASSERT_TRUE(i >= 0 && j >= 0);
        EXPECT_EQ(m.elements.value(i, j), value);
        EXPECT_EQ(m.elements.value(j, i), value);
    }
    write_gima22i(m, "h_tri", log());
    readgima22i(param_, 1, "h_tri", back, log());
    expect_levels(back.levels, m.levels);
    EXPECT_EQ(back.elements.sparse.get_colval(), m.elements.sparse.get_colval());
    EXPECT_EQ(back.elements.sparse.get_nzval(), m.elements.sparse.get_nzval());

    const auto [i, j] = elements.rbegin()->first;
    directory_.write("g_tri", text + std::to_string(i) + " " + std::to_string(j) + " 0\n");
    EXPECT_THAT(
        refusal([&] { readgima22i(param_, 1, "g_tri", m, log()); }),
        HasSubstr("The file g_tri is not a _tri file! | Line " + std::to_string(elements.size() + 1) +
                  ": the element (" + std::to_string(i) + "," + std::to_string(j) + ") stands on line "));
}

// ---- acrosseff -------------------------------------------------------------------------------------------

TEST_F(ExternalMatrix, AcrosseffIsABlockBetweenTwoEffects) {
    directory_.write("a_tri", "2 5 1\n9 1 2\n2 1 3\n");
    across_block block;
    readacrosseff(param_, 1, 2, "a_tri", block, log());
    EXPECT_EQ(block.effect1, 1);
    EXPECT_EQ(block.effect2, 2);
    EXPECT_THAT(block.rows.level, ElementsAre(2, 9));
    EXPECT_THAT(block.columns.level, ElementsAre(1, 5));
    EXPECT_THAT(block.elements.dense.values(), ElementsAre(3.0, 2.0, 1.0, 0.0));
    EXPECT_EQ(default_log_.text(),
              "Name of the matrix read for the effect 1: a_tri\n"
              "Number of declared levels   : 12\n"
              "    Maximum level               : 9\n"
              "    Linked effect               : 2\n"
              "    Maximum level               : 5\n"
              "Number of lines in the file: 3\n"
              "   Effective size of the matrix: 2 x 2\n"
              "Memory (MB) needed for the matrix: .00\n");
    write_acrosseff(block, "b_tri", log());
    across_block back;
    readacrosseff(param_, 1, 2, "b_tri", back, log());
    expect_levels(back.rows, block.rows);
    expect_levels(back.columns, block.columns);
    EXPECT_EQ(back.elements.dense, block.elements.dense);
}

TEST_F(ExternalMatrix, AcrosseffRefusesLevelsOfEitherEffectAndRepeats) {
    across_block block;
    const auto told = [&](const std::string& text) {
        directory_.write("a_tri", text);
        return refusal([&] { readacrosseff(param_, 1, 2, "a_tri", block, log()); });
    };
    EXPECT_EQ(
        told("12 5 1\n1 6 1\n"),
        "The file a_tri is not a _tri file for the block between two effects! | Line 2: value 2 must lie "
        "between 1 and 5: \"6\"");
    EXPECT_EQ(
        told("13 5 1\n"),
        "The file a_tri is not a _tri file for the block between two effects! | Line 1: value 1 must lie "
        "between 1 and 12: \"13\"");
    EXPECT_EQ(told("1 2 1\n2 1 1\n3 3 1\n1 2 1\n1 2 1\n"),
              "The file a_tri is not a _tri file! | Line 4: the element (1,2) stands on line 1 already");
    EXPECT_EQ(told("1 2 1\n2 1 1\n"), "no fatal_error");
    EXPECT_EQ(refusal([&] { readacrosseff(param_, 1, 2, "a.stream", block, log()); }),
              "The file a.stream is not a _tri file! | Its name does not end in _tri");
}

TEST_F(ExternalMatrix, AcrosseffOfFewElementsIsSparse) {
    param_.n_level = {2000, 2000, 0, 0};
    std::string text;
    const auto elements = few_elements(2000, text, false);
    directory_.write("a_tri", text);
    across_block block, back;
    readacrosseff(param_, 1, 2, "a_tri", block, log());
    ASSERT_TRUE(block.elements.is_sparse());
    double sum = 0.0, expected = 0.0;
    for (std::int64_t i = 0; i < block.rows.size(); ++i)
        for (std::int64_t j = 0; j < block.columns.size(); j += 7) sum += block.elements.value(i, j);
    for (const auto& [at, value] : elements) {
        const std::int64_t i = block.rows.position[at.first - 1] - 1;
        const std::int64_t j = block.columns.position[at.second - 1] - 1;
        EXPECT_EQ(block.elements.value(i, j), value);
        if (j % 7 == 0) expected += value;
    }
    EXPECT_EQ(sum, expected);
    write_acrosseff(block, "b_tri", log());
    readacrosseff(param_, 1, 2, "b_tri", back, log());
    EXPECT_EQ(back.elements.sparse.get_colval(), block.elements.sparse.get_colval());
    EXPECT_EQ(back.elements.sparse.get_nzval(), block.elements.sparse.get_nzval());
}

// ---- lists -----------------------------------------------------------------------------------------------

TEST_F(ExternalMatrix, AListKeepsItsOrder) {
    directory_.write("list", "7\n 2\n12 \n");
    matrix_levels list;
    readlist(param_, 1, "list", list, log());
    EXPECT_THAT(list.level, ElementsAre(7, 2, 12));
    EXPECT_THAT(list.position, ElementsAre(0, 2, 0, 0, 0, 0, 1, 0, 0, 0, 0, 3));
    EXPECT_EQ(default_log_.text(),
              "Name of the matrix read for the effect 1: list\n"
              "Number of declared levels   : 12\n"
              "Maximum level for the effect 1: 12\n"
              "Number of lines in the file: 3\n"
              "Effective size of the matrix: 3\n");
    write_list(list, "copy", log());
    EXPECT_EQ(directory_.read("copy"), "7\n2\n12\n");
}

TEST_F(ExternalMatrix, AListRefusesWhatIsNoLevel) {
    const std::map<std::string, std::string> faults{
        {"7\n13\n", "2 | File list: value 1 must lie between 1 and 12: \"13\""},
        {"7\n0\n", "2 | File list: value 1 must lie between 1 and 12: \"0\""},
        {"7\n2\n7\n", "3 | File list: the level 7 stands on line 1 already"},
        {"7 1\n", "1 | File list: the line has more than 1 values"},
        {"a\n", "1 | File list: value 1 is not an integer: \"a\""},
        {"7\n\n2\n", "2 | File list: the line is blank, expected are 1 values"},
    };
    matrix_levels list;
    for (const auto& [text, reason] : faults) {
        directory_.write("list", text);
        EXPECT_EQ(refusal([&] { readlist(param_, 1, "list", list, log()); }),
                  "Level not correctly read at line " + reason);
    }
    std::string many;
    for (int k = 0; k < 100; ++k) many += std::to_string(1 + k % 12) + "\n";
    directory_.write("list", many);
    EXPECT_EQ(refusal([&] { readlist(param_, 1, "list", list, log()); }),
              "Level not correctly read at line 13 | File list: the level 1 stands on line 1 already");
    directory_.write("list", "\n");
    EXPECT_EQ(refusal([&] { readlist(param_, 1, "list", list, log()); }), "The file list holds no level");
    EXPECT_THAT(refusal([&] { readlist(param_, 1, "none", list, log()); }),
                HasSubstr("The file none of the matrix cannot be read"));
}

}  // namespace
}  // namespace zendar::test
