#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>

#include "modblas.hpp"
#include "modenum.hpp"
#include "program_run.hpp"
#include "random_model.hpp"
#include "read_model.hpp"

/// Deflation by vectors of a file, on small random models against their dense equations and by the program
/// itself.
namespace zendar::test {
namespace {

using testing::HasSubstr;

const std::string tight = "!convcrit 1e-25\n!miniter 1\n!maxiter 500\n!noesteigen\n";

model_choice choice_of(std::uint64_t seed) {
    std::mt19937_64 random(seed * 6007);
    const auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random); };
    model_choice choice;
    choice.ntrait = pick(1, 3);
    choice.nrec = pick(5, 60);
    choice.neffect = pick(1, 3);
    choice.bed = true;
    choice.always_random = true;
    choice.absent = false;
    choice.pedigrees = seed % 2 == 0;
    if (!choice.pedigrees) choice.huge = std::array{0, 20, 22, 23, 30}[seed % 5];
    choice.single_step = choice.huge == 22 || choice.huge == 30;
    return choice;
}

enum class vectors_of { eigen, random };
enum class file_form { columns, rows };

/// `n` lowest eigenvectors of C, or random vectors; empty when C is not definite.
matrix<double> vectors(const matrix<double>& c, std::int64_t n, vectors_of kind, std::uint64_t seed) {
    matrix<double> all = c;
    std::vector<double> values(static_cast<std::size_t>(c.rows()));
    if (lapack_dsyevd_vectors(all.view(), values) != 0 || values.front() < 1e-9 * values.back()) return {};
    matrix<double> z(c.rows(), n);
    if (kind == vectors_of::eigen)
        std::copy_n(all.data(), c.rows() * n, z.data());
    else
        std::ranges::copy(random_vector(c.rows() * n, seed), z.data());
    return z;
}

std::string text_of(const random_model& model, const matrix<double>& z, file_form form) {
    const auto unknowns = model.unknowns();
    std::string text;
    for (std::int64_t i = 0; i < z.rows(); ++i) {
        // The last equation first: rows may come in any order.
        const std::int64_t equation = form == file_form::rows ? z.rows() - 1 - i : i;
        if (form == file_form::rows) {
            const auto& [e, level, covariable, slot] = unknowns[static_cast<std::size_t>(equation)];
            for (const std::int32_t n : {slot, e, level, covariable}) text += std::to_string(n) + " ";
        }
        for (std::int64_t j = 0; j < z.cols(); ++j) text += number(z(equation, j)) + " ";
        text += "\n";
    }
    return text;
}

TEST(DpcgIodReal, SolvesRandomModelsWithVectorsOfAnyKindAndNumber) {
    int solved = 0, above_20 = 0;
    for (std::uint64_t seed = 1; seed <= 80; ++seed) {
        const random_model model(choice_of(seed), seed + 900);
        const std::int64_t nsub = 1 + static_cast<std::int64_t>(seed * 7 % 26);
        if (nsub > model.neq) continue;
        const matrix<double> z =
            vectors(model.c, nsub, seed % 3 == 0 ? vectors_of::random : vectors_of::eigen, seed);
        if (z.empty()) continue;
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const threads scope(static_cast<int>(1 + seed % 4));
        read_model read(model, tight + "!solver dpcg_iod_real vectors.txt\n");
        read.directory.write("vectors.txt",
                             text_of(model, z, seed % 4 < 2 ? file_form::rows : file_form::columns));
        setlhsrhs(read.run);
        solve(read.run);
        EXPECT_LT(difference(read.run.solutions, dense_solution(model.c, model.b)), 1e-7)
            << read.screen.str();
        EXPECT_EQ(read.run.mija_global, nullptr);
        EXPECT_THAT(read.screen.str(), HasSubstr("Chosen solver: IOD + DPCG + real\n"));
        EXPECT_THAT(read.screen.str(),
                    HasSubstr("Number of subdomains                : " + std::to_string(nsub) + "\n"));
        above_20 += nsub > 20 ? 1 : 0;
        ++solved;
        if (HasFailure()) break;
    }
    EXPECT_GT(solved, 30);
    EXPECT_GT(above_20, 3);
}

/// The error that the stage ends with.
std::string error_of(const std::string& options, const std::string& text) {
    model_choice choice;
    choice.always_random = true;
    choice.absent = false;
    const random_model model(choice, 3);
    read_model read(model, tight + "!solver dpcg_iod_real vectors.txt\n" + options);
    if (text != "none") {
        matrix<double> z(model.neq, 2);
        for (std::int64_t i = 0; i < model.neq; ++i) {
            z(i, 0) = 1.0;
            z(i, 1) = text == "dependent" ? 2.0 : static_cast<double>(i);
        }
        read.directory.write("vectors.txt", text == "good" || text == "dependent"
                                                ? text_of(model, z, file_form::columns)
                                                : text);
    }
    setlhsrhs(read.run);
    try {
        solve(read.run);
    } catch (const fatal_error& error) {
        return error.what();
    }
    return {};
}

TEST(DpcgIodReal, RefusesWhatItDoesNotHave) {
    EXPECT_EQ(error_of("", "good"), "");
    EXPECT_EQ(error_of("!computegalerkin\n", "good"), "Not implemented yet");
    EXPECT_EQ(error_of("!convpart 1\n", "good"), "not implemented yet 2");
    EXPECT_EQ(error_of("!conveff 1\n", "good"), "");
    EXPECT_EQ(error_of("", "none"), "There are no deflation vectors in the file vectors.txt");
    EXPECT_THAT(error_of("", "dependent"),
                HasSubstr("The deflation vectors are linearly dependent: vector 2 of 2"));
    EXPECT_THAT(error_of("", "1 2\n1\n"),
                HasSubstr("Line 2 of the file vectors.txt has 1 columns instead of 2!"));
}

std::vector<double> raw_solutions(const temporary_directory& directory) {
    const std::string bytes = directory.read("ca491pcn.bin");
    std::vector<double> x(bytes.size() / sizeof(double));
    std::memcpy(x.data(), bytes.data(), x.size() * sizeof(double));
    return x;
}

TEST(DpcgIodRealProgram, GivesTheSolutionsOfThePlainIterationWithEitherFormOfTheFile) {
    int solved = 0;
    for (std::uint64_t seed = 1; seed <= 12; ++seed) {
        const random_model model(choice_of(seed), seed + 40);
        const std::int64_t nsub = std::min<std::int64_t>(seed % 2 == 0 ? 3 : 21, model.neq - 1);
        if (nsub < 1) continue;
        const matrix<double> z = vectors(model.c, nsub, vectors_of::eigen, seed);
        if (z.empty()) continue;
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + model.describe());
        const auto run = [&](const std::string& solver, file_form form) {
            const temporary_directory directory;
            model.write(directory, tight + solver);
            directory.write("vectors.txt", text_of(model, z, form));
            const program_result result = run_program(directory.path(), {"model.par", "--ncpus", "2"});
            EXPECT_EQ(result.status, 0) << result.out << result.error;
            EXPECT_TRUE(directory.exists("solutions.dat"));
            EXPECT_FALSE(directory.exists("rhs.dat"));
            EXPECT_EQ(directory.exists("def_einv.stream"), !solver.empty());
            return raw_solutions(directory);
        };
        const std::vector<double> plain = run("", file_form::columns);
        ASSERT_EQ(std::ssize(plain), model.neq);
        for (const file_form form : {file_form::columns, file_form::rows}) {
            const std::vector<double> x = run("!solver dpcg_iod_real vectors.txt\n", form);
            ASSERT_EQ(x.size(), plain.size());
            EXPECT_LT(difference(x, plain), 1e-7);
        }
        ++solved;
        if (HasFailure()) break;
    }
    EXPECT_GT(solved, 3);
}

TEST(DpcgIodRealProgram, EndsWithOneMessageAtABadFile) {
    const temporary_directory directory;
    model_files files;
    files.write(directory);
    directory.write("model.par", files.par + "!solver dpcg_iod_real vectors.txt\n");
    directory.write("vectors.txt", "1\n2\n3\nfour\n5\n");
    const program_result result = run_program(directory.path(), {"model.par"});
    EXPECT_EQ(result.status, 1) << result.out;
    EXPECT_THAT(unwrapped(result.out), HasSubstr("Cannot read line 4 of the file vectors.txt"));
    EXPECT_FALSE(directory.exists("solutions.dat"));
}

}  // namespace
}  // namespace zendar::test
