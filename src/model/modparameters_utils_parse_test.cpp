#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "modparameters_utils_detail.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using detail::reading_sizes;

/// Sets the number of threads for as long as it lives.
class thread_count {
  public:
    explicit thread_count(int n) : old_(omp_get_max_threads()) { omp_set_num_threads(n); }
    ~thread_count() { omp_set_num_threads(old_); }
    thread_count(const thread_count&) = delete;
    thread_count& operator=(const thread_count&) = delete;

  private:
    int old_;
};

/// All values of a file, by the simplest means; for files without repeat counts and null values.
std::vector<double> simple_values(const std::string& text, std::size_t columns) {
    std::vector<double> all;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::replace(line.begin(), line.end(), ',', ' ');
        std::replace(line.begin(), line.end(), 'd', 'e');
        std::replace(line.begin(), line.end(), 'D', 'e');
        std::istringstream words(line);
        std::string word;
        for (std::size_t k = 0; k < columns && words >> word; ++k)
            all.push_back(std::strtod(word.c_str(), nullptr));
    }
    return all;
}

class random_text {
  public:
    explicit random_text(unsigned seed) : random_(seed) {}

    int below(int n) { return static_cast<int>(random_() % static_cast<unsigned>(n)); }

    std::string digits(int n) {
        std::string text;
        for (int k = 0; k < n; ++k) text += static_cast<char>('0' + below(10));
        return text;
    }
    /// Exponents lie below `range` on both sides.
    std::string number(int range) {
        std::string text = below(4) == 0 ? (below(3) == 0 ? "+" : "-") : "";
        switch (below(8)) {
            case 0:
                return text + digits(1 + below(4)) + ".";
            case 1:
                return text + "." + digits(1 + below(25));
            case 2:
                return text + digits(1 + below(22));
            case 3:
                return text + digits(1 + below(20)) + "." + digits(below(20)) + exponent(range);
            case 4:
                return text + digits(1 + below(3)) + "." + digits(below(5)) + exponent(25);
            case 5:
                return text + digits(1 + below(10)) + "." + digits(1 + below(8));
            default:
                return text + digits(1 + below(5));
        }
    }
    std::string separator() {
        const char* const forms[] = {" ", " ", " ", ",", "  ", "\t", " , ", ", "};
        return forms[below(8)];
    }
    std::string file(int lines, int columns) {
        std::string text;
        for (int i = 0; i < lines; ++i) {
            for (int k = 0; k < columns; ++k)
                text += (k == 0 ? "" : i == 0 ? " " : separator()) + number(280);
            if (i > 0 && below(6) == 0) text += separator() + "rest" + digits(below(40));
            text += below(5) == 0 ? "\r\n" : "\n";
        }
        if (below(2) == 0) text.erase(text.find_last_not_of("\r\n") + 1);
        return text;
    }

  private:
    std::string exponent(int range) {
        const char* const letters[] = {"e", "E", "d", "D"};
        const char* const signs[] = {"", "+", "-"};
        return std::string(letters[below(4)]) + signs[below(3)] + std::to_string(below(range));
    }
    std::mt19937 random_;
};

bool same_bits(double a, double b) {
    return a == b && std::signbit(a) == std::signbit(b);
}

/// Every column of a file as a trait.
matrix<double> read_columns(const std::string& file, std::int32_t columns, const reading_sizes& sizes) {
    param_type param;
    param.ntrait = columns;
    param.n_residual_cov = 1;
    for (std::int32_t k = 1; k <= columns; ++k) param.pos_traits.push_back(k);
    param.file.resize(1);
    param.file[0][0] = file;
    phenotype_data data;
    logger log;
    detail::read_phenotypes(param, data, log, sizes);
    return data.phen;
}

TEST(ReadPhenotypes, AgreesWithASimpleReaderOnRandomFiles) {
    const test::temporary_directory directory;
    for (unsigned seed = 1; seed <= 16; ++seed) {
        random_text random(seed);
        const int columns = 1 + random.below(12);
        const int lines = 1 + random.below(200);
        const std::string text = random.file(lines, columns);
        std::vector<double> expected = simple_values(text, static_cast<std::size_t>(columns));
        ASSERT_EQ(std::ssize(expected), std::int64_t{lines} * columns) << "seed " << seed;
        const std::string file = directory.write("data.txt", text).string();

        for (const int threads : {1, 2, 3, 7}) {
            const thread_count guard(threads);
            for (const std::int64_t block : {1, 7, 61, 1000, 0}) {
                const matrix<double> phen = read_columns(file, columns, {.block = block, .overhang = 5});
                ASSERT_TRUE(std::ranges::equal(phen.values(), expected, same_bits))
                    << "seed " << seed << ", threads " << threads << ", block " << block;
            }
        }
    }
}

TEST(ParseReal, RoundsAsStrtodDoes) {
    random_text random(2024);
    for (int i = 0; i < 1'000'000; ++i) {
        const std::string word = random.number(330);
        std::string e_word = word;
        std::replace(e_word.begin(), e_word.end(), 'd', 'e');
        std::replace(e_word.begin(), e_word.end(), 'D', 'e');
        const double expected = std::strtod(e_word.c_str(), nullptr);
        double general = -1.0, in_record = -1.0;
        detail::record_fault fault;
        const std::string line = word + "\n";
        ASSERT_TRUE(detail::parse_real(word, general)) << word;
        detail::parse_record(line.c_str(), {&in_record, 1}, fault);
        ASSERT_EQ(fault.kind, detail::record_fault_kind::none) << word;
        ASSERT_TRUE(same_bits(general, expected)) << word << " " << general << " " << expected;
        ASSERT_TRUE(same_bits(in_record, expected)) << word << " " << in_record << " " << expected;
    }
}

TEST(ParseReal, KnowsTheEdgesOfTheRange) {
    const auto value = [](std::string_view word) {
        double x = -1.0;
        EXPECT_TRUE(detail::parse_real(word, x)) << word;
        return x;
    };
    constexpr double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(value("1.7976931348623157e308"), std::numeric_limits<double>::max());
    EXPECT_EQ(value("1e309"), infinity);
    EXPECT_EQ(value("-1D309"), -infinity);
    EXPECT_EQ(value("4.9e-324"), std::numeric_limits<double>::denorm_min());
    EXPECT_EQ(value("1e-400"), 0.0);
    EXPECT_TRUE(std::signbit(value("-1e-400")));
    EXPECT_EQ(value("1e99999999999999999999"), infinity);
    EXPECT_EQ(value("1e-99999999999999999999"), 0.0);
    EXPECT_EQ(value("0e99999999999999999999"), 0.0);
    EXPECT_EQ(value("0." + std::string(400, '0') + "1e401"), 1.0);
    EXPECT_EQ(value("1" + std::string(400, '0') + "e-400"), 1.0);
    EXPECT_EQ(value("9007199254740993"), 9007199254740992.0);  // a tie, to even
    EXPECT_EQ(value("9007199254740993.0000000000000000000001"), 9007199254740994.0);
    EXPECT_TRUE(std::isnan(value("NaN")));
    EXPECT_EQ(value("+inf"), infinity);
}

}  // namespace
}  // namespace zendar
