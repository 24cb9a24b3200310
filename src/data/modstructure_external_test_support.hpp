#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modstructure_external.hpp"
#include "temporary_directory.hpp"

/// What the tests of external matrices share.
namespace zendar::test {

/// Two class effects of 12 and 5 levels, a nested covariable of 4 levels and one of 3 coefficients.
class ExternalMatrix : public testing::Test {
  protected:
    ExternalMatrix() : at_(directory_.path()) {
        param_.ntrait = 1;
        param_.neffect = 4;
        allocpar(param_);
        param_.n_level = {12, 5, 0, 0};
        param_.type_effect = {0, 0, 1, 1};
        param_.n_cov = {1, 1, 2, 3};
        param_.n_level_nested = {0, 0, 4, 0};
    }
    /// The message of a call and the reason that the log has behind it.
    std::string refusal(const std::function<void()>& call) {
        captured_log log;
        log_ = &log;
        std::string text = fatal_message(call);
        log_ = &default_log_;
        const std::string logged = log.text(), mark = "With iomsg = \"";
        if (const auto at = logged.find(mark); at != std::string::npos)
            text += " | " + logged.substr(at + mark.size(), logged.rfind('"') - at - mark.size());
        return text;
    }
    [[nodiscard]] logger& log() const { return *log_; }

    temporary_directory directory_;
    working_directory at_;
    param_type param_;
    captured_log default_log_;
    captured_log* log_ = &default_log_;
};

/// Appends numbers as they stand in memory.
template <class T>
void append(std::string& to, std::initializer_list<T> values) {
    for (const T value : values) {
        char bytes[sizeof value];
        std::memcpy(bytes, &value, sizeof value);
        to.append(bytes, sizeof value);
    }
}

inline matrix<double> random_symmetric(std::int64_t n, std::mt19937_64& random) {
    matrix<double> m(n, n);
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t i = 0; i <= j; ++i) m(i, j) = m(j, i) = std::normal_distribution<double>()(random);
    return m;
}

/// Levels in random order, or ascending.
inline matrix_levels random_levels(std::int32_t declared, std::int32_t n, bool ascending,
                                   std::mt19937_64& random) {
    std::vector<std::int32_t> all(static_cast<std::size_t>(declared));
    for (std::int32_t k = 0; k < declared; ++k) all[k] = k + 1;
    std::ranges::shuffle(all, random);
    all.resize(static_cast<std::size_t>(n));
    if (ascending) std::ranges::sort(all);
    matrix_levels levels;
    levels.level = all;
    levels.position.assign(static_cast<std::size_t>(declared), 0);
    for (std::int32_t k = 0; k < n; ++k) levels.position[all[k] - 1] = k + 1;
    return levels;
}

inline void expect_levels(const matrix_levels& a, const matrix_levels& b) {
    EXPECT_EQ(a.level, b.level);
    EXPECT_EQ(a.position, b.position);
}

inline std::string shuffled_lines(const std::string& text, std::mt19937_64& random) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line + "\n");
    std::ranges::shuffle(lines, random);
    std::string result;
    for (const std::string& line : lines) result += line;
    return result;
}

/// Core levels 9 and 4, others 2 and 11.
inline std::string apy_stream() {
    std::string bytes;
    append<std::int32_t>(bytes, {11, 2, 4, 9, 4, 2, 11});
    append(bytes, {9.0, 0.5, 4.0, 0.0, 0.25, 0.75, 0.0, 20.0, 110.0});
    return bytes;
}

/// Animals 9 and 4, three columns.
inline std::string ta_stream() {
    std::string bytes;
    append<std::int32_t>(bytes, {9, 2, 3, 9, 4});
    append(bytes, {1.0, 0.0, 3.0, 0.0, 2.0, 0.0});
    return bytes;
}

/// Levels 4 and 9.
inline std::string symmetric_stream() {
    std::string bytes;
    append<std::int32_t>(bytes, {9, 2, 4, 9});
    append(bytes, {2.0, -0.5, 3.0});
    return bytes;
}

}  // namespace zendar::test
