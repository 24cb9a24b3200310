#include "modplot.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

#include "gnuplot_path.hpp"

namespace zendar {
namespace {

TEST(RunGnuplot, TellsWhatBecameOfThePicture) {
    const test::temporary_directory directory;
    const test::gnuplot_path path;
    EXPECT_EQ(run_gnuplot("script"), plot_result::no_gnuplot);

    path.install("echo \"$#\" \"$1\" > " + (directory / "words").string() + "\necho text\necho text >&2\n");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(run_gnuplot("a script; with blanks"), plot_result::drawn);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(directory.read("words"), "1 a script; with blanks\n");

    path.install("exit 1\n");
    EXPECT_EQ(run_gnuplot("script"), plot_result::failed);
    path.install("kill -9 $$\n");
    EXPECT_EQ(run_gnuplot("script"), plot_result::failed);
}

}  // namespace
}  // namespace zendar
