#include <gmock/gmock.h>

#include "program_run.hpp"

/// The rows of the page of measured speed, from results that are known.
namespace zendar::test {
namespace {

using testing::HasSubstr;

struct entry {
    std::string name, more;
    double milliseconds = 0.0;
};

/// As the benchmark library writes it.
std::string json(const std::vector<entry>& entries) {
    std::string text = "{\n  \"context\": {\n    \"date\": \"x\"\n  },\n  \"benchmarks\": [\n";
    for (const entry& e : entries)
        text += "    {\n      \"name\": \"" + e.name +
                "\",\n      \"iterations\": 10,\n      \"real_time\": " + std::to_string(e.milliseconds) +
                ",\n      \"time_unit\": \"ms\"" + e.more + "\n    },\n";
    return text + "  ]\n}\n";
}

program_result page_of(const std::vector<entry>& entries) {
    const temporary_directory directory;
    directory.write("results.json", json(entries));
    return run_program(directory.path(), {"results.json"}, ZENDAR_SPEED_PAGE);
}

TEST(SpeedPage, TakesRatiosOfCounters) {
    const auto result = page_of(
        {{"BM_ainverse_product/threads:2/maternal_lines:1/real_time", ",\n      \"of_floor\": 1.25", 10.0},
         {"BM_dgemm_compressed/t:1/columns:4/threads:1/missing:0/real_time",
          ",\n      \"of_floor\": 0.5,\n      \"of_dgemm\": 4.0", 2500.0}});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_THAT(result.out,
                HasSubstr("| A-inverse times 6 columns | maternal_lines 1 | 2 | 10 ms | bytes streamed, "
                          "random accesses, 8 ms | 1.25 | | |"));
    EXPECT_THAT(result.out,
                HasSubstr("| transposed 1, columns 4, missing 0 | 1 | 2.5 s | bytes, or additions at the "
                          "rate of DGEMM, 1.25 s | 2.00 | DGEMM on doubles, 10 s | 0.25 |"));
}

TEST(SpeedPage, TakesRatiosToOtherBenchmarks) {
    const auto result = page_of(
        {{"machine/1/real_time", ",\n      \"flops/s\": 4e10", 80.0},
         {"BM_read_bandwidth/1/iterations:1", ",\n      \"GB/s\": 10", 5.0},
         {"cholesky/0/1/real_time", ",\n      \"label\": \"animal model\",\n      \"flops/s\": 1e10", 100.0},
         {"cholmod_supernodal/0/1/real_time", ",\n      \"flops/s\": 8e9", 125.0},
         {"BM_plink2compressed/1/real_time", ",\n      \"bytes_per_second\": 2.5e9", 20.0}});
    EXPECT_THAT(result.out, HasSubstr("| reading memory | 10 GB/s | not measured |"));
    EXPECT_THAT(result.out, HasSubstr("| DGEMM, order 1200 | 40 Gflop/s | not measured |"));
    EXPECT_THAT(
        result.out,
        HasSubstr("| Cholesky | animal model | 1 | 100 ms | DGEMM, 25 ms | 4.00 | CHOLMOD, 125 ms | 0.80 |"));
    EXPECT_THAT(result.out, HasSubstr("| 1 | 20 ms, 2.5 GB/s | reading the bytes, 5 ms | 4.00 | | |"));
}

TEST(SpeedPage, TellsWhatIsAbsent) {
    const auto result = page_of({{"cholesky/1/1/real_time", ",\n      \"flops/s\": 1e10", 100.0},
                                 {"inverse/1/1/real_time", ",\n      \"error_occurred\": true", 100.0}});
    EXPECT_THAT(result.out, HasSubstr("| 100 ms | DGEMM: absent | | CHOLMOD: absent | |"));
    EXPECT_THAT(result.out, testing::Not(HasSubstr("selected inverse")));
}

TEST(SpeedPage, IsIncompleteWithoutARowForABenchmark) {
    const auto result = page_of({{"BM_something_new/1", "", 1.0}});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.error, "speed_page has no row for BM_something_new/1\n");
    EXPECT_EQ(page_of({}).status, 1);
}

}  // namespace
}  // namespace zendar::test
