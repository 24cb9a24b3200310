#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "data_sets.hpp"
#include "program_run.hpp"

/// Data sets with genotypes: runs on copies of them, and comparisons with their answers.
namespace zendar::test {

inline constexpr const char* single_step = "hibayes_ssgblup";
inline constexpr const char* wheat = "wheat_snpblup";
inline constexpr double six_digits = 2e-5;  ///< of the largest value of an effect

inline bool is_here(const char* set) {
    return std::filesystem::exists(external(set));
}

inline program_result run_in(const temporary_directory& run, const std::string& par,
                             const std::string& options, const std::string& threads) {
    run.write(par, run.read(par) + options);
    return run_program(run.path(), {par, "--ncpus", threads});
}

inline program_result solve_set(const temporary_directory& run, const char* set, const std::string& par,
                                const std::string& options, const std::string& threads = "1") {
    copy_files(external(set), run);
    std::filesystem::permissions(run / par, std::filesystem::perms::owner_write,
                                 std::filesystem::perm_options::add);
    const auto result = run_in(run, par, options, threads);
    EXPECT_EQ(result.status, 0) << result.out << result.error;
    EXPECT_TRUE(run.exists("OK_ZENDAR"));
    return result;
}

inline int iterations(const temporary_directory& run) {
    std::istringstream in(run.read("convergence.dat"));
    int rows = -1;  // the header
    for (std::string line; std::getline(in, line);) ++rows;
    return rows;
}

inline double largest_of(const solutions& rows, int effect) {
    double largest = 0.0;
    for (const auto& [key, value] : rows)
        if (std::get<1>(key) == effect) largest = std::max(largest, magnitude(value));
    return largest;
}

/// Checks the rows of some effects in a file of solutions.
inline void expect_effects(const std::filesystem::path& file, const std::filesystem::path& answers,
                           const std::vector<int>& effects) {
    const solutions expected = read_solutions(answers), actual = read_solutions(file);
    for (const int e : effects) {
        const double tolerance = six_digits * largest_of(expected, e);
        int rows = 0;
        for (const auto& [key, value] : expected) {
            if (std::get<1>(key) != e) continue;
            ++rows;
            const auto found = actual.find(key);
            ASSERT_NE(found, actual.end()) << "effect " << e << " level " << std::get<2>(key);
            EXPECT_NEAR(found->second, value, tolerance)
                << "effect " << e << " level " << std::get<2>(key) << " covariable " << std::get<3>(key);
        }
        EXPECT_GT(rows, 0) << "effect " << e;
    }
}

/// With type 22 the animal effect is what is left beside the SNPs.
inline void expect_single_step(const temporary_directory& run, bool type22) {
    expect_effects(run / "solutions.dat", run / "expected_solutions.txt", {1, 2, 3});
    expect_effects(run / "solutions.dat", run / "derived_snp_effects.txt", {5});
    EXPECT_EQ(run.exists("aggregate_solutions.dat"), type22);
    if (!type22) {
        expect_effects(run / "solutions.dat", run / "expected_solutions.txt", {4});
        return;
    }
    expect_effects(run / "aggregate_solutions.dat", run / "expected_solutions.txt", {1, 2, 3, 4});
    expect_effects(run / "solutions.dat", run / "derived_type22_animal.txt", {4});
}

}  // namespace zendar::test
