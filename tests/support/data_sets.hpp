#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <tuple>

#include "magnitude.hpp"
#include "places.hpp"
#include "temporary_directory.hpp"

/// Data sets whose answers others published or computed: where they stand, and comparisons with the answers.
namespace zendar::test {

using solutions = std::map<std::tuple<int, int, int, int>, double>;  ///< trait, effect, level, covariable

inline solutions read_solutions(const std::filesystem::path& path) {
    solutions rows;
    std::ifstream in(path);
    int t, e, level, covariable;
    for (double value; in >> t >> e >> level >> covariable >> value;) rows[{t, e, level, covariable}] = value;
    return rows;
}

inline void copy_files(const std::filesystem::path& from, const temporary_directory& to) {
    for (const auto& entry : std::filesystem::directory_iterator(from))
        std::filesystem::copy_file(entry.path(), to / entry.path().filename().string());
}

/// Checks every expected row against "solutions.dat", within `relative` times the largest value of its
/// effect, or `absolute` where that is not 0.
inline void expect_solutions(const temporary_directory& run, const std::filesystem::path& file,
                             double relative, double absolute = 0.0) {
    const solutions expected = read_solutions(file), actual = read_solutions(run / "solutions.dat");
    ASSERT_FALSE(expected.empty());
    std::map<int, double> largest;
    for (const auto& [key, value] : expected)
        largest[std::get<1>(key)] = std::max(largest[std::get<1>(key)], magnitude(value));
    for (const auto& [key, value] : expected) {
        const auto found = actual.find(key);
        ASSERT_NE(found, actual.end());
        const int e = std::get<1>(key);
        EXPECT_NEAR(found->second, value, absolute > 0.0 ? absolute : relative * largest[e])
            << "effect " << e << " level " << std::get<2>(key);
    }
}

inline std::filesystem::path example(const std::string& name) {
    return source_folder() / "examples" / name;
}

/// Sets that are not part of the source tree stand beside it, where they are at all.
inline std::filesystem::path external(const std::string& name) {
    return source_folder() / ".." / "shared" / "data" / name;
}

inline void replace(std::string& text, const std::string& piece, const std::string& by) {
    const auto at = text.find(piece);
    ASSERT_NE(at, std::string::npos) << piece;
    text.replace(at, piece.size(), by);
}

}  // namespace zendar::test
