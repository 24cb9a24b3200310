#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <limits>

#include "captured_log.hpp"
#include "gnuplot_path.hpp"
#include "modsolvertype_control.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using testing::HasSubstr;

const std::vector<double> none;

TEST(ConvergenceHeader, NamesTheColumns) {
    const std::string plain =
        "   Iteration      # tau =        value Convergence = "
        "          CR           CD           CK           CK           CM           CM Abs(max(diff ";
    EXPECT_EQ(convergence_header(0), plain);
    EXPECT_EQ(convergence_header(2), plain + "   CR_effect   CR_effect   CD_effect   CD_effect");
}

TEST(ConvergenceRow, OfTheStartHasOnesForWhatIsNotKnown) {
    EXPECT_EQ(convergence_row(1, {.cr = 0.25}, none, none),
              "   Iteration      1 tau =  0.00000E+00 Convergence =  0.25000E+00  0.10000E+01  0.10000E+01 "
              " 0.10000E+01  0.10000E+01  0.10000E+01  0.00000E+00 ");
}

TEST(ConvergenceRow, HasTheValuesAndTheGroups) {
    const convergence_values values{.tau = -12.5,
                                    .cr = 1e-3,
                                    .cd = 2e-3,
                                    .ck = 3e-3,
                                    .ck_unscaled = 4e-3,
                                    .cm = 5e-3,
                                    .cm_unscaled = 6e-3,
                                    .maxdiff = 7e-3};
    EXPECT_EQ(convergence_row(12345, values, std::vector{8e-3, 9e-3}, std::vector{1e-200, 2.0}),
              "   Iteration  12345 tau = -0.12500E+02 Convergence =  0.10000E-02  0.20000E-02  0.30000E-02 "
              " 0.40000E-02  0.50000E-02  0.60000E-02  0.70000E-02  0.80000E-02  0.90000E-02  0.10000-199 "
              " 0.20000E+01 ");
}

TEST(ConvergenceRow, ShowsValuesThatAreNotFinite) {
    const std::string row = convergence_row(2, {.cr = std::numeric_limits<double>::quiet_NaN()}, none, none);
    EXPECT_THAT(row, HasSubstr(" Convergence =          NaN  0.10000E+01"));
}

TEST(RitzRow, HasThreeValues) {
    EXPECT_EQ(ritz_row(100, 0.5, 12.25, 1e-7),
              "   Iteration    100 small | large Ritz value (+relative error)=  0.50000 12.250 0.10000E-06");
}

TEST(ConvergenceChebRow, HasFourValues) {
    EXPECT_EQ(convergence_cheb_row(1, {1.0, 2.0, 3.0, 4.0}),
              "   Iteration      1 Convergence =  0.10000E+01  0.20000E+01  0.30000E+01  0.40000E+01 ");
    EXPECT_EQ(convergence_cheb_row(17, {0.0, 0.0, 0.0, -1.0}),
              "   Iteration     17 Convergence =  0.00000E+00  0.00000E+00  0.00000E+00 -0.10000E+01 ");
}

TEST(ConvergenceInmemRow, HasFourValuesAndATau) {
    EXPECT_EQ(convergence_inmem_row(1, 9.0, {1.0, 2.0, 3.0, 4.0}),
              "   Iteration      1 tau =  0.00000E+00 Convergence = 0.10000E+01  0.20000E+01  0.30000E+01  "
              "0.40000E+01 ");
    EXPECT_EQ(convergence_inmem_row(2, 0.5, {1.0, 2.0, 3.0, 4.0}),
              "   Iteration      2 tau =  0.50000E+00 Convergence =  0.10000E+01  0.20000E+01  0.30000E+01  "
              "0.40000E+01 ");
}

class RowFile : public testing::Test {
  protected:
    test::temporary_directory directory_;
    test::captured_log log_;
};

TEST_F(RowFile, HoldsEachRowAsSoonAsItIsWritten) {
    directory_.write("rows", "old text\n");
    row_file rows(directory_ / "rows", log_);
    rows.write("one");
    EXPECT_EQ(directory_.read("rows"), "one\n");
    rows.write("two");
    EXPECT_EQ(directory_.read("rows"), "one\ntwo\n");
}

TEST_F(RowFile, AddsToAFileThatIsThere) {
    for (const char* row : {"one", "two"})
        row_file(directory_ / "rows", log_, row_file::position::append).write(row);
    EXPECT_EQ(directory_.read("rows"), "one\ntwo\n");
}

TEST_F(RowFile, StopsWhenItCannotBeOpened) {
    const std::string path = (directory_ / "absent/rows").string();
    EXPECT_EQ(test::fatal_message([&] { row_file(path, log_); }), "Cannot open the file " + path);
}

TEST_F(RowFile, WarnsOnceOfADiskThatIsFull) {
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP();
    row_file rows("/dev/full", log_);
    rows.write("one");
    rows.write("two");
    EXPECT_EQ(log_.text(), "WARN: Cannot write the file /dev/full: No space left on device\n");
}

TEST(ConvergenceGraphScript, IsReadByGnuplot) {
    const std::string script =
        "set term pngcairo size 1000,750 enhanced \n"
        "set key on outside center bottom horizontal\n"
        "set grid ytics\n"
        "set xlabel 'Iteration'\n"
        "set ylabel 'Convergence'\n"
        "set out 'out/cvg.png'\n"
        "plot \"< awk '{print $2,log($8)/log(10)}' out/convergence.dat\" u 1:2 w l title \"log(CR^2)\" ,\\\n"
        "\"< awk '{print $2,log($9)/log(10)}' out/convergence.dat\" u 1:2 w l title \"log(CD^2)\" ,\\\n"
        "\"< awk '{print $2,log($10)/log(10)}' out/convergence.dat\" u 1:2 w l title \"log(CK)\" ,\\\n"
        "\"< awk '{print $2,log($12)/log(10)}' out/convergence.dat\" u 1:2 w l title \"log(CM)\" ,\\\n"
        "\"< awk '{print $2,log($5)/log(10)}' out/convergence.dat\" u 1:2 w l title \"log(tau)\"\n";
    EXPECT_EQ(convergence_graph_script("out/"), script);
    EXPECT_THAT(convergence_graph_script(""),
                HasSubstr("set out 'cvg.png'\nplot \"< awk '{print $2,log($8)/log(10)}' "
                          "convergence.dat\" u 1:2"));
}

class ConvergenceGraph : public testing::Test {
  protected:
    ConvergenceGraph() : inside_(directory_.path()) {}
    ~ConvergenceGraph() override { setenv("PATH", path_.c_str(), 1); }
    static void hide_programs() { setenv("PATH", "/nonexistent", 1); }

    std::string path_ = getenv("PATH");
    test::temporary_directory directory_;
    test::working_directory inside_;
};

TEST_F(ConvergenceGraph, IsDrawnAtThePeriodOnly) {
    hide_programs();
    convergence_graph graph("");
    graph.draw(99);
    graph.draw(101);
    EXPECT_FALSE(directory_.exists("cvg_graph.g"));
    graph.draw(100);
    EXPECT_EQ(directory_.read("cvg_graph.g"), convergence_graph_script(""));

    std::filesystem::remove("cvg_graph.g");
    graph.draw(7, 7);
    EXPECT_TRUE(directory_.exists("cvg_graph.g"));
    std::filesystem::remove("cvg_graph.g");
    graph.draw(15);  // the period stays 7
    EXPECT_FALSE(directory_.exists("cvg_graph.g"));
    graph.draw(14);
    EXPECT_TRUE(directory_.exists("cvg_graph.g"));
}

TEST_F(ConvergenceGraph, KeepsAScriptThatIsThere) {
    hide_programs();
    directory_.write("cvg_graph.g", "mine\n");
    convergence_graph("").draw(100);
    EXPECT_EQ(directory_.read("cvg_graph.g"), "mine\n");
}

TEST_F(ConvergenceGraph, IsSilentWhenItCannotBeDrawn) {
    convergence_graph graph("absent/");
    graph.draw(100);
    graph.draw(3, 0);
    graph.draw(3, -1);
    directory_.write("cvg_graph.g", "this is no script\n");
    testing::internal::CaptureStderr();
    convergence_graph("").draw(100);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ConvergenceGraph, IsAPicture) {
    if (!test::have_gnuplot()) GTEST_SKIP() << "gnuplot is not installed";
    std::filesystem::create_directory("out");
    test::captured_log log;
    row_file rows("out/convergence.dat", log);
    rows.write(convergence_header(0));
    for (std::int32_t i = 1; i < 20; ++i)
        rows.write(convergence_row(i, {.tau = 1.0 / i, .cr = 1.0 / (i * i), .cd = 0.5 / i}, none, none));

    convergence_graph("out/").draw(100);

    EXPECT_TRUE(directory_.read("out/cvg.png").starts_with("\x89PNG\r\n"));
}

}  // namespace
}  // namespace zendar
