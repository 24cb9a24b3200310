#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "modsimulate.hpp"
#include "temporary_directory.hpp"

/// Simulated populations, read again from their files.
namespace zendar::test {

using rows_type = std::vector<std::vector<double>>;

class simulated {
  public:
    /// Words behind the folder, which is a temporary one.
    explicit simulated(const std::string& words) {
        std::vector<std::string> arguments{directory.path().string()};
        std::istringstream in(words);
        for (std::string word; in >> word;) arguments.push_back(word);
        std::ostringstream out;
        status = simulate::run_simulate(arguments, out);
        log = out.str();
        EXPECT_EQ(status, 0) << log;
    }
    [[nodiscard]] rows_type rows(const std::string& file) const {
        std::istringstream in(directory.read(file));
        rows_type result;
        for (std::string line; std::getline(in, line);) {
            std::istringstream words(line);
            result.emplace_back();
            for (double value = 0.0; words >> value;) result.back().push_back(value);
        }
        EXPECT_FALSE(result.empty()) << file;
        return result;
    }
    /// The files in the order of their names, with their contents.
    [[nodiscard]] std::string all_files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory.path()))
            names.push_back(entry.path().filename().string());
        std::ranges::sort(names);
        std::string text;
        for (const std::string& name : names) text += name + "\n" + directory.read(name);
        return text;
    }

    temporary_directory directory;
    int status = -1;
    std::string log;
};

/// Mean of products; with both means 0 a covariance.
struct moments {
    double sum = 0.0, squares = 0.0;
    double n = 0.0;
    void add(double x, double y) {
        sum += x * y;
        squares += x * y * x * y;
        n += 1.0;
    }
    [[nodiscard]] double mean() const { return sum / n; }
    [[nodiscard]] double standard_error() const { return std::sqrt((squares / n - mean() * mean()) / n); }
    /// Within 4.5 standard errors, which must be small enough to tell a wrong factor.
    void expect(double value, const char* what) const {
        EXPECT_NEAR(mean(), value, 4.5 * standard_error()) << what;
        EXPECT_LT(standard_error(), 0.05 * std::abs(value) + 0.01) << what;
    }
};

}  // namespace zendar::test
