#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modparameters.hpp"
#include "modstructure.hpp"
#include "modstructure_covariable_detail.hpp"
#include "some_store.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using detail::covariable_file;
using test::captured_log;
using test::fatal_message;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

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

/// A model with one covariable effect, number 2.
param_type one_covariable(const std::string& file, std::int32_t n_level, std::int32_t n_cov,
                          std::int32_t type = 1) {
    param_type param;
    param.neffect = 2;
    param.n_level = {3, n_level};
    param.n_cov = {1, n_cov};
    param.type_effect = {0, type};
    param.cov_file = {"none", file};
    return param;
}

class Readcovariable : public testing::Test {
  protected:
    std::string write(std::string_view name, std::string_view text) const {
        return directory_.write(name, text).string();
    }
    covariable_type read(const std::string& file, std::int32_t n_level, std::int32_t n_cov,
                         std::int32_t type = 1) {
        covariable_type cov;
        readcovariable(cov, one_covariable(file, n_level, n_cov, type), 2, log_);
        return cov;
    }
    covariable_type read_text(std::string_view text, std::int32_t n_level, std::int32_t n_cov) {
        return read(write("cov.txt", text), n_level, n_cov);
    }
    covariable_type read_sparse(std::string_view text, std::int32_t n_level, std::int32_t n_cov,
                                std::int32_t type = 1) {
        return read(write("cov.sparse", text), n_level, n_cov, type);
    }
    covariable_type read_stream(std::string_view bytes, std::int32_t n_level, std::int32_t n_cov) {
        return read(write("cov.stream", bytes), n_level, n_cov);
    }
    /// The log of a reading that must stop.
    std::string failure(const std::function<void()>& reading) {
        EXPECT_NE(fatal_message(reading), "no fatal_error");
        return log_.text();
    }
    std::string text_failure(std::string_view text, std::int32_t n_level = 5, std::int32_t n_cov = 2) {
        return failure([&] { static_cast<void>(read_text(text, n_level, n_cov)); });
    }
    std::string sparse_failure(std::string_view text, std::int32_t n_level = 5, std::int32_t n_cov = 2) {
        return failure([&] { static_cast<void>(read_sparse(text, n_level, n_cov)); });
    }
    std::string stream_failure(std::string_view bytes, std::int32_t n_level = 5, std::int32_t n_cov = 2) {
        return failure([&] { static_cast<void>(read_stream(bytes, n_level, n_cov)); });
    }

    test::temporary_directory directory_;
    captured_log log_;
};

std::vector<double> values_of(const covariable_type& cov) {
    const auto v = cov.values();
    return {v.data, v.data + v.rows * v.cols};
}

std::vector<std::int32_t> rows_of(const covariable_type& cov) {
    return {cov.rows().begin(), cov.rows().end()};
}

// ---- text -------------------------------------------------------------------------------------------------

TEST_F(Readcovariable, TakesARowPerLineAndFindsItByTheId) {
    const covariable_type cov = read_text("4 0.5 -1\n1 1e1 2.5D0\n", 5, 2);

    EXPECT_EQ(cov.values().rows, 2);
    EXPECT_EQ(cov.values().cols, 2);
    EXPECT_THAT(values_of(cov), ElementsAre(0.5, -1, 10, 2.5));
    EXPECT_THAT(rows_of(cov), ElementsAre(2, 0, 0, 1, 0));
    EXPECT_EQ(cov.row_of(4), 1);
    EXPECT_EQ(cov.row_of(2), 0);
    EXPECT_EQ(cov.row_of(0), 0);
    EXPECT_EQ(cov.row_of(-1), 0);
    EXPECT_EQ(cov.row_of(6), 0);
    EXPECT_FALSE(cov.is_sparse());
    EXPECT_FALSE(cov.compressed);
    EXPECT_FALSE(cov.miraculix);
}

TEST_F(Readcovariable, LogsTheSizes) {
    const std::string file = write("cov.txt", "4 0.5 -1\n1 10 2.5\n");
    static_cast<void>(read(file, 5, 2));

    EXPECT_EQ(log_.text(), "Coefficient file for effect 2: " + file +
                               "\nNumber of declared levels / effective levels            : 5 / 2\n"
                               "Number of declared coefficients / effective coefficients: 2 / 2\n"
                               "Maximum level for the effect                            : 4\n");
}

TEST_F(Readcovariable, SizesTheTableByTheFileWithoutNLevel) {
    EXPECT_THAT(rows_of(read_text("7 1\n2 2\n", 0, 1)), ElementsAre(0, 2, 0, 0, 0, 0, 1));
    EXPECT_THAT(rows_of(read_sparse("7 1 1\n2 1 2\n", 0, 1)), ElementsAre(0, 1, 0, 0, 0, 0, 2));
}

TEST_F(Readcovariable, TakesBlanksTabsAndCommasCarriageReturnsAndAByteOrderMark) {
    const covariable_type cov = read_text("\xEF\xBB\xBF 1\t2,\t3 \r\n\t2 , 2*5  \r\n3,4,5\r\n\r\n \n", 3, 2);

    EXPECT_THAT(values_of(cov), ElementsAre(2, 3, 5, 5, 4, 5));
    EXPECT_THAT(rows_of(cov), ElementsAre(1, 2, 3));
}

TEST_F(Readcovariable, TakesALastLineWithoutLineFeed) {
    EXPECT_THAT(values_of(read_text("1 2 3\n2 4 5", 3, 2)), ElementsAre(2, 3, 4, 5));
}

TEST_F(Readcovariable, StopsWhenTheNumberOfCoefficientsIsNotTheDeclaredOne) {
    const std::string log = text_failure("1 2 3\n2 4 5\n", 5, 3);

    EXPECT_THAT(log, HasSubstr("Number of declared coefficients / effective coefficients: 3 / 2\n"));
    EXPECT_THAT(log, HasSubstr("modstructure % check_ncol_checkval ("));
    EXPECT_THAT(log, EndsWith("The number of declared coefficients / effective coefficients for the effect 2 "
                              "are not equal.\n"));
}

TEST_F(Readcovariable, StopsAtAMissingFileADirectoryAndAnEmptyFile) {
    for (const char* name : {"no_such", "no_such.sparse", "no_such.stream"}) {
        captured_log log;
        covariable_type cov;
        const std::string file = (directory_ / name).string();
        EXPECT_NE(fatal_message([&] { readcovariable(cov, one_covariable(file, 5, 2), 2, log); }),
                  "no fatal_error");
        EXPECT_THAT(log.text(), HasSubstr("The coefficient file " + file + " of effect 2 cannot be read"));
        EXPECT_THAT(log.text(), HasSubstr("With iostat = 2"));
    }
    EXPECT_THAT(failure([&] { static_cast<void>(read(directory_.path().string(), 5, 2)); }),
                HasSubstr("of effect 2 cannot be read"));
    EXPECT_THAT(text_failure(""), HasSubstr("cov.txt of effect 2 is empty"));
    EXPECT_THAT(text_failure("\n \r\n"), HasSubstr("cov.txt of effect 2 is empty"));
    EXPECT_THAT(sparse_failure(""), HasSubstr("cov.sparse of effect 2 is empty"));
}

struct bad_line {
    const char* text;
    int line;
    const char* why;
};

class ReadcovariableText : public Readcovariable, public testing::WithParamInterface<bad_line> {};

TEST_P(ReadcovariableText, StopsAtTheLine) {
    const std::string log = text_failure(GetParam().text);

    EXPECT_THAT(log, HasSubstr("modstructure % readcovariable ("));
    EXPECT_THAT(log, HasSubstr("I/O ERROR: Coefficients of effect 2 not correctly read at line " +
                               std::to_string(GetParam().line) + "\n"));
    EXPECT_THAT(log, HasSubstr("With iostat = "));
    EXPECT_THAT(log, HasSubstr("cov.txt: " + std::string(GetParam().why)));
}

INSTANTIATE_TEST_SUITE_P(
    Faults, ReadcovariableText,
    testing::Values(bad_line{"1 2 3\n1 4 5\n", 2, "the id 1 stands in line 1 as well"},
                    bad_line{"1 2 3\n0 4 5\n", 2, "value 1 must lie between 1 and 5: \"0\""},
                    bad_line{"-1 2 3\n", 1, "value 1 must lie between 1 and 5: \"-1\""},
                    bad_line{"1 2 3\n2 4 5\n6 4 5\n", 3, "value 1 must lie between 1 and 5: \"6\""},
                    bad_line{"99999999999 2 3\n", 1, "value 1 must lie between 1 and 5: \"99999999999\""},
                    bad_line{"1 2 3\n9999999999999999999 4 5\n", 2,
                             "value 1 is not an integer: \"9999999999999999999\""},
                    bad_line{"1 2 3\n2.0 4 5\n", 2, "value 1 is not an integer: \"2.0\""},
                    bad_line{"1 2 3\n1*2 4 5\n", 2, "value 1 is not an integer: \"1*2\""},
                    bad_line{"1 2 3\nx 4 5\n", 2, "value 1 is not an integer: \"x\""},
                    bad_line{"1 2 3\n, 4 5\n", 2, "value 1 is missing"},
                    bad_line{"1 2 3\n\n2 4 5\n", 2, "the line is blank, expected are 3 values"},
                    bad_line{"1 2 3\n2 4\n", 2, "the line has 2 values, expected are 3"},
                    bad_line{"1 2 3\n2\n", 2, "the line has 1 values, expected are 3"},
                    bad_line{"1 2 3\n2 4 5 6\n", 2, "the line has more than 3 values"},
                    bad_line{"1 2 3\n2 4 5 x\n", 2, "the line has more than 3 values"},
                    bad_line{"1 2 3\n2 3*4\n", 2, "the line has more than 3 values"},
                    bad_line{"1 2 3\n2 4 2*4\n", 2, "the line has more than 3 values"},
                    bad_line{"1 2 3\n2 4 a\n", 2, "value 3 is not a number: \"a\""},
                    bad_line{"1 2 3\n2 4 5x\n", 2, "value 3 is not a number: \"5x\""},
                    bad_line{"1 2 3\n2 4,,5\n", 2, "value 3 is missing"},
                    bad_line{"1 2 3\n2 NaN 5\n", 2, "value 2 is not a finite number: \"NaN\""},
                    bad_line{"1 2 3\n2 4 -inf\n", 2, "value 3 is not a finite number: \"-inf\""},
                    bad_line{"1 2 3\n2 4 1e999\n", 2, "value 3 is not a finite number: \"1e999\""},
                    bad_line{"1 2 3\n3 x 1\n2 y 1\n", 2, "value 2 is not a number: \"x\""}));

TEST_F(Readcovariable, StopsAtAnIdBeyond32BitsWithoutNLevel) {
    EXPECT_THAT(text_failure("1 2 3\n2147483648 4 5\n", 0),
                HasSubstr("value 1 must lie between 1 and 2147483647: \"2147483648\""));
}

/// Lines of random content in random order, and what they say.
struct random_file {
    std::string text;
    std::map<std::int32_t, std::vector<double>> rows;  // by id
    std::vector<std::int32_t> order;
};

random_file make_random_file(std::uint32_t seed, std::int32_t n_level, std::int32_t n_cov) {
    std::mt19937 generator(seed);
    random_file file;
    std::vector<std::int32_t> ids;
    for (std::int32_t id = 1; id <= n_level; ++id)
        if (generator() % 4 != 0) ids.push_back(id);
    if (ids.empty()) ids.push_back(n_level);
    std::shuffle(ids.begin(), ids.end(), generator);
    for (const std::int32_t id : ids) {
        std::ostringstream line;
        line.precision(17);
        line << std::string(generator() % 3, ' ') << id;
        for (std::int32_t j = 0; j < n_cov; ++j) {
            const double value = std::ldexp(static_cast<double>(generator()) - 2147483648.0, -28);
            file.rows[id].push_back(value);
            line << (generator() % 5 == 0 ? "," : std::string(1 + generator() % 3, ' ')) << value;
        }
        file.text += line.str() + (generator() % 4 == 0 ? " \r\n" : "\n");
        file.order.push_back(id);
    }
    return file;
}

TEST_F(Readcovariable, ReadsRandomFilesWithAnyBlocksAndThreads) {
    for (std::uint32_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        const std::int32_t n_level = 1 + static_cast<std::int32_t>(seed * 7 % 200), n_cov = 1 + seed % 9;
        const random_file expected = make_random_file(seed, n_level, n_cov);
        covariable_file file{
            .name = write("random.txt", expected.text), .e = 1, .n_level = n_level, .n_cov = n_cov};
        const thread_count threads(1 + seed % 4);

        const covariable_data data = detail::read_covariable_text(
            file, {.block = 1 + static_cast<std::int64_t>(seed * 37 % 500), .overhang = 1 + seed % 50}, log_);

        ASSERT_EQ(std::ssize(data.indice), n_level);
        ASSERT_EQ(data.value.cols(), std::ssize(expected.order));
        ASSERT_EQ(data.value.rows(), n_cov);
        for (std::int32_t id = 1; id <= n_level; ++id) {
            const auto row = expected.rows.find(id);
            ASSERT_EQ(data.indice[id - 1] > 0, row != expected.rows.end());
            if (row == expected.rows.end()) continue;
            ASSERT_EQ(expected.order[data.indice[id - 1] - 1], id);
            ASSERT_THAT(data.value.column(data.indice[id - 1] - 1), testing::ElementsAreArray(row->second));
        }
    }
}

TEST_F(Readcovariable, NamesTheSameBadLineForAnyBlocksAndThreads) {
    std::string text;
    for (int id = 1; id <= 400; ++id)
        text += std::to_string(id) + (id == 123 || id == 300 ? " 1 oops\n" : " 1 2\n");
    for (const int threads : {1, 2, 4})
        for (const std::int64_t block : {1, 7, 100, 100000}) {
            const thread_count count(threads);
            captured_log log;
            covariable_file file{.name = write("bad.txt", text), .e = 1, .n_level = 400, .n_cov = 2};
            EXPECT_NE(fatal_message([&] { detail::read_covariable_text(file, {.block = block}, log); }),
                      "no fatal_error");
            EXPECT_THAT(log.text(), HasSubstr("at line 123\n"));
        }
}

TEST_F(Readcovariable, ReadsAVeryLongRow) {
    std::string text = "1";
    for (int k = 0; k < 700'000; ++k) text += k % 3 == 0 ? " 0" : k % 3 == 1 ? " 1" : " 2";

    const covariable_type cov = read_text(text + "\n", 1, 700'000);

    EXPECT_EQ(cov.values()(699'998, 0), 2.0);
    EXPECT_EQ(cov.values()(699'999, 0), 0.0);
}

// ---- .sparse ----------------------------------------------------------------------------------------------

TEST_F(Readcovariable, SpreadsASparseFileForACovariable) {
    const covariable_type cov = read_sparse("4 2 0.5\n2 1 3\n4 3 -1\n", 5, 3);

    EXPECT_FALSE(cov.is_sparse());
    EXPECT_THAT(rows_of(cov), ElementsAre(0, 1, 0, 2, 0));
    EXPECT_THAT(values_of(cov), ElementsAre(3, 0, 0, 0, 0.5, -1));
}

TEST_F(Readcovariable, KeepsASparseFileCompressedForAHugeEffect) {
    for (const std::int32_t type : {2, 3}) {
        const covariable_type cov = read_sparse("4 3 -1\n2 1 3\n4 2 0.5\n", 5, 3, type);

        ASSERT_TRUE(cov.is_sparse());
        EXPECT_TRUE(values_of(cov).empty());
        EXPECT_THAT(rows_of(cov), ElementsAre(0, 1, 0, 2, 0));
        EXPECT_EQ(cov.data->sparse.getdim(1), 2);
        EXPECT_EQ(cov.data->sparse.getdim(2), 3);
        EXPECT_THAT(cov.data->sparse.get_rowptr(), ElementsAre(1, 2, 4));
        EXPECT_THAT(cov.data->sparse.get_colval(), ElementsAre(1, 2, 3));
        EXPECT_THAT(cov.data->sparse.get_nzval(), ElementsAre(3, 0.5, -1));
        EXPECT_TRUE(cov.data->sparse.issorted());
        EXPECT_EQ(cov.data->bytes(), 5 * 4 + static_cast<std::int64_t>(cov.data->sparse.getmem()));
    }
}

TEST_F(Readcovariable, LogsTheSizesOfASparseFile) {
    const std::string file = write("cov.sparse", "4 2 0.5\n2 1 3\n4 3 -1\n");
    static_cast<void>(read(file, 5, 3));

    EXPECT_EQ(log_.text(), "Coefficient file for effect 2: " + file +
                               "\nNumber of declared levels / effective levels            : 5 / 2\n"
                               "Number of declared coefficients                         : 3\n"
                               "Maximum level for the effect                            : 4\n");
}

TEST_F(Readcovariable, AddsUpTheLinesOfOneSparseCoefficient) {
    EXPECT_THAT(values_of(read_sparse("1 2 0.5\n1 1 7\n1 2 0.25\n", 1, 2)), ElementsAre(7, 0.75));
    EXPECT_THAT(read_sparse("1 2 0.5\n1 1 7\n1 2 0.25\n", 1, 2, 2).data->sparse.get_nzval(),
                ElementsAre(7, 0.75));
}

class ReadcovariableSparse : public Readcovariable, public testing::WithParamInterface<bad_line> {};

TEST_P(ReadcovariableSparse, StopsAtTheLine) {
    const std::string log = sparse_failure(GetParam().text);

    EXPECT_THAT(log, HasSubstr("I/O ERROR: Coefficients of effect 2 not correctly read at line " +
                               std::to_string(GetParam().line) + "\n"));
    EXPECT_THAT(log, HasSubstr("cov.sparse: " + std::string(GetParam().why)));
}

INSTANTIATE_TEST_SUITE_P(
    Faults, ReadcovariableSparse,
    testing::Values(bad_line{"1 1 3\n0 1 5\n", 2, "value 1 must lie between 1 and 5: \"0\""},
                    bad_line{"1 1 3\n6 1 5\n", 2, "value 1 must lie between 1 and 5: \"6\""},
                    bad_line{"1 1 3\n1 0 5\n", 2, "value 2 must lie between 1 and 2: \"0\""},
                    bad_line{"1 1 3\n1 3 5\n", 2, "value 2 must lie between 1 and 2: \"3\""},
                    bad_line{"1 1 3\n1 1.5 5\n", 2, "value 2 is not an integer: \"1.5\""},
                    bad_line{"1 1 3\n1 1\n", 2, "the line has 2 values, expected are 3"},
                    bad_line{"1 1 3\n1\n", 2, "the line has 1 values, expected are 3"},
                    bad_line{"1 1 3\n\n1 1 3\n", 2, "the line is blank, expected are 3 values"},
                    bad_line{"1 1 3\n1 2 3 4\n", 2, "the line has more than 3 values"},
                    bad_line{"1 1 3\n1 2 2*4\n", 2, "the line has more than 3 values"},
                    bad_line{"1 1 3\n1 2 x\n", 2, "value 3 is not a number: \"x\""},
                    bad_line{"1 1 3\n1 2 nan\n", 2, "value 3 is not a finite number: \"nan\""}));

TEST_F(Readcovariable, StopsAtASparseSumBeyondTheNumbers) {
    EXPECT_THAT(sparse_failure("1 1 1\n3 2 1e308\n3 2 1e308\n"), HasSubstr("level 3 in the file"));
}

TEST_F(Readcovariable, ReadsRandomSparseFilesWithAnyBlocksAndThreads) {
    for (std::uint32_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 generator(seed);
        const std::int32_t n_level = 1 + static_cast<std::int32_t>(generator() % 40);
        const std::int32_t n_cov = 1 + static_cast<std::int32_t>(generator() % 12);
        std::map<std::pair<std::int32_t, std::int32_t>, double> sums;
        std::string text;
        for (int k = 0; k < 150; ++k) {
            const auto id = 1 + static_cast<std::int32_t>(generator() % n_level);
            const auto j = 1 + static_cast<std::int32_t>(generator() % n_cov);
            const auto value = static_cast<std::int32_t>(generator() % 100) - 50;
            sums[{id, j}] += value;
            text += std::to_string(id) + " " + std::to_string(j) + " " + std::to_string(value) + "\n";
        }
        covariable_file file{.name = write("random", text), .e = 1, .n_level = n_level, .n_cov = n_cov};
        const thread_count threads(1 + seed % 4);
        for (const bool dense : {true, false}) {
            file.dense = dense;
            covariable_type cov;
            cov.data = std::make_shared<const covariable_data>(detail::read_covariable_sparse(
                file, {.block = 1 + static_cast<std::int64_t>(seed * 11)}, log_));
            for (std::int32_t id = 1; id <= n_level; ++id)
                for (std::int32_t j = 1; j <= n_cov; ++j) {
                    const auto sum = sums.find({id, j});
                    ASSERT_EQ(getvalue(cov, id, j), sum == sums.end() ? 0.0 : sum->second);
                }
        }
    }
}

// ---- .stream ----------------------------------------------------------------------------------------------

class stream_bytes {
  public:
    template <class T>
    stream_bytes& add(T value) {
        bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
        return *this;
    }
    stream_bytes& row(std::int32_t id, const std::vector<double>& values) {
        add(id);
        for (const double value : values) add(value);
        return *this;
    }
    operator std::string_view() const { return bytes_; }
    [[nodiscard]] const std::string& bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

stream_bytes two_rows() {
    return stream_bytes().add<std::int32_t>(2).add<std::int32_t>(2).row(4, {0.5, -1}).row(1, {10, 2.5});
}

TEST_F(Readcovariable, ReadsAStreamFile) {
    const covariable_type cov = read_stream(two_rows(), 5, 2);

    EXPECT_THAT(values_of(cov), ElementsAre(0.5, -1, 10, 2.5));
    EXPECT_THAT(rows_of(cov), ElementsAre(2, 0, 0, 1, 0));
    EXPECT_THAT(log_.text(), EndsWith("\nNumber of declared levels / effective levels            : 5 / 2\n"
                                      "Number of declared coefficients / effective coefficients: 2 / 2\n"
                                      "Maximum level for the effect                            : 4\n"));
    EXPECT_THAT(rows_of(read_stream(two_rows(), 0, 2)), ElementsAre(2, 0, 0, 1));
}

TEST_F(Readcovariable, StopsAtAStreamWhoseSizesDoNotFit) {
    const auto message = [&] {
        return HasSubstr("The format of the file " + (directory_ / "cov.stream").string() +
                         " is not correct!\n");
    };
    EXPECT_THAT(stream_failure(""), message());
    EXPECT_THAT(stream_failure(two_rows().bytes() + "x"), message());
    const std::int32_t largest = std::numeric_limits<std::int32_t>::max();
    for (const std::int32_t rows : {0, -1, 1, 3, largest, -largest - 1})
        EXPECT_THAT(
            stream_failure(stream_bytes().add(rows).add<std::int32_t>(2).row(4, {1, 2}).row(1, {1, 2})),
            message());
    for (const std::int32_t coefficients : {0, -1, 1, 3, largest, -largest - 1})
        EXPECT_THAT(stream_failure(
                        stream_bytes().add<std::int32_t>(2).add(coefficients).row(4, {1, 2}).row(1, {1, 2})),
                    message());
    EXPECT_THAT(stream_failure(stream_bytes().add(largest).add(largest)), message());
}

TEST_F(Readcovariable, StopsAtAStreamCutAnywhere) {
    const std::string whole(two_rows().bytes());
    for (std::size_t size = 0; size < whole.size(); ++size) {
        captured_log log;
        covariable_type cov;
        const param_type param = one_covariable(write("cut.stream", whole.substr(0, size)), 5, 2);
        EXPECT_THAT(fatal_message([&] { readcovariable(cov, param, 2, log); }), HasSubstr("is not correct!"));
    }
}

TEST_F(Readcovariable, StopsAtABadRowOfAStream) {
    const auto sizes = [] { return stream_bytes().add<std::int32_t>(2).add<std::int32_t>(1); };
    EXPECT_THAT(stream_failure(sizes().row(1, {1}).row(0, {1}), 5, 1),
                HasSubstr("is not correct!\nRow 2: the id 0 must lie between 1 and 5"));
    EXPECT_THAT(stream_failure(sizes().row(1, {1}).row(6, {1}), 5, 1),
                HasSubstr("Row 2: the id 6 must lie between 1 and 5"));
    EXPECT_THAT(stream_failure(sizes().row(3, {1}).row(3, {1}), 5, 1),
                HasSubstr("Row 2: the id 3 stands in row 1 as well"));
    EXPECT_THAT(stream_failure(sizes().row(3, {1}).row(4, {std::nan("")}), 5, 1),
                HasSubstr("Row 2: coefficient 1 is not a finite number"));
    EXPECT_THAT(stream_failure(sizes().row(3, {1}).row(4, {2}), 5, 7),
                HasSubstr("The number of declared coefficients / effective coefficients for the effect 2 are "
                          "not equal."));
}

TEST_F(Readcovariable, StopsAtOrReadsExactlyWhatACorruptedStreamHolds) {
    const std::string whole(two_rows().bytes());
    for (std::size_t at = 0; at < whole.size(); ++at)
        for (const int change : {1, 2, 4, 8, 16, 32, 64, 128, 255}) {
            std::string bytes = whole;
            bytes[at] = static_cast<char>(bytes[at] ^ change);
            captured_log log;
            covariable_type cov;
            const param_type param = one_covariable(write("corrupt.stream", bytes), 5, 2);
            try {
                readcovariable(cov, param, 2, log);
            } catch (const fatal_error&) {
                continue;
            }
            ASSERT_GE(at, 8U);  // the sizes never pass
            std::vector<double> expected(4);
            std::memcpy(&expected[0], bytes.data() + 12, 16);
            std::memcpy(&expected[2], bytes.data() + 32, 16);
            ASSERT_EQ(values_of(cov), expected);
            ASSERT_THAT(rows_of(cov), testing::SizeIs(5));
            std::int32_t id = 0;
            std::memcpy(&id, bytes.data() + 8, 4);
            ASSERT_EQ(cov.row_of(id), 1);
            std::memcpy(&id, bytes.data() + 28, 4);
            ASSERT_EQ(cov.row_of(id), 2);
        }
}

// ---- all forms --------------------------------------------------------------------------------------------

TEST_F(Readcovariable, LooksAtTheTextBehindTheLastPoint) {
    EXPECT_EQ(covariable_extension("a.b.bed"), "bed");
    EXPECT_EQ(covariable_extension("a"), "");
    EXPECT_EQ(covariable_extension("1.as_effect"), "as_effect");
    EXPECT_THAT(values_of(read(write("a.sparse.txt", "1 2\n"), 1, 1)), ElementsAre(2));
    EXPECT_THAT(values_of(read(write("a.bed.sparse", "1 1 2\n"), 1, 1)), ElementsAre(2));
}

TEST_F(Readcovariable, LeavesNothingOfAnEarlierReading) {
    covariable_type cov = read_text("1 2\n", 1, 1);
    cov.compressed = test::some_store();

    EXPECT_NE(fatal_message([&] { readcovariable(cov, one_covariable("no_such_file", 1, 1), 2, log_); }),
              "no fatal_error");

    EXPECT_EQ(cov.data, nullptr);
    EXPECT_FALSE(cov.compressed);
    EXPECT_EQ(cov.row_of(1), 0);
    EXPECT_EQ(getvalue(cov, 1, 1), 0.0);
}

// ---- shared data ------------------------------------------------------------------------------------------

class ReadcovariableAseffect : public testing::Test {
  protected:
    ReadcovariableAseffect() : cov_(4) {
        param_.neffect = 4;
        param_.n_cov = {1, 2, 2, 2};
        param_.cov_file = {"none", "cov.txt", "", "cov.txt"};
        cov_[1] = covariable_type({2, 1}, matrix<double>(2, 2, 3.5));
        cov_[3] = cov_[1];
    }
    std::string failure(const std::string& file) {
        captured_log log;
        param_.cov_file[2] = file;
        const std::string text = fatal_message([&] { readcovariable_aseffect(cov_, param_, 3, log); });
        EXPECT_EQ(cov_[2].data, nullptr);
        return text;
    }

    param_type param_;
    std::vector<covariable_type> cov_;
};

TEST_F(ReadcovariableAseffect, SharesTheDataOfTheEarlierEffect) {
    captured_log log;
    param_.cov_file[2] = "2.as_effect  ";

    readcovariable_aseffect(cov_, param_, 3, log);

    EXPECT_EQ(cov_[2].data, cov_[1].data);
    EXPECT_EQ(cov_[2].values().data, cov_[1].values().data);
    EXPECT_EQ(cov_[2].row_of(1), 2);
    EXPECT_EQ(log.text(), "The effects 2 and 3 have the same covariable_type data\n");
}

TEST_F(ReadcovariableAseffect, StopsAtAnythingButAnEarlierCovariable) {
    for (const char* file :
         {"3.as_effect", "4.as_effect", "0.as_effect", "-1.as_effect", "1.as_effect", ".as_effect",
          "x.as_effect", "2x.as_effect", "2.0.as_effect", " 2 .as_effect", "99999999999.as_effect"})
        EXPECT_EQ(failure(file), "Check the covariate file " + std::string(file[0] == ' ' ? file + 1 : file) +
                                     " for effect 3");
}

TEST_F(ReadcovariableAseffect, StopsWhenTheNumberOfCoefficientsIsNotTheDeclaredOne) {
    param_.n_cov[2] = 3;
    EXPECT_EQ(failure("2.as_effect"),
              "The number of declared coefficients / effective coefficients for the effect 3 are not equal.");
}

// ---- access -----------------------------------------------------------------------------------------------

TEST(Getvalue, FindsACoefficientInEitherStore) {
    matrix<double> value(2, 2);
    value(0, 0) = 1.0;
    value(1, 0) = 0.25;
    value(1, 1) = -1.75;
    covariable_data data;
    data.indice = {2, 0, 1};
    data.sparse = crssparse(2, 3, 2);
    data.sparse.external(std::vector<std::int32_t>{1, 3, 4}, std::vector<std::int32_t>{1, 2, 2},
                         std::vector<double>{1.0, 0.25, -1.75});
    covariable_type sparse;
    sparse.data = std::make_shared<const covariable_data>(std::move(data));

    for (const covariable_type& cov : {covariable_type({2, 0, 1}, value), sparse}) {
        EXPECT_EQ(getvalue(cov, 1, 2), -1.75);
        EXPECT_EQ(getvalue(cov, 3, 1), 1.0);
        EXPECT_EQ(getvalue_val(cov, 3, 2), 0.25);
        EXPECT_EQ(getvalue_summary(cov, 3, 2), 0.25);
        EXPECT_EQ(getvalue_ival(cov, 1, 2), -2);
        EXPECT_EQ(getvalue(cov, 1, 1), 0.0);
        EXPECT_EQ(getval(cov, 2, 2), -1.75);
        for (const std::int32_t level : {-1, 0, 2, 4}) EXPECT_EQ(getvalue(cov, level, 2), 0.0);
        for (const std::int32_t coefficient : {-1, 0, 3}) EXPECT_EQ(getvalue(cov, 1, coefficient), 0.0);
        EXPECT_EQ(getval(cov, 3, 1), 0.0);
    }
    EXPECT_EQ(getvalue({}, 1, 1), 0.0);
}

}  // namespace
}  // namespace zendar
