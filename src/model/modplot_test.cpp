#include "modplot.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

#include "gnuplot_path.hpp"

namespace zendar {
namespace {

TEST(GnuplotRun, TellsWhatBecameOfThePicture) {
    const test::temporary_directory directory;
    const test::gnuplot_path path;
    EXPECT_EQ(gnuplot_run("script").wait(), plot_result::no_gnuplot);

    path.install("echo \"$#\" \"$1\" > " + (directory / "words").string() + "\necho text\necho text >&2\n");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(gnuplot_run("a script; with blanks").wait(), plot_result::drawn);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(directory.read("words"), "1 a script; with blanks\n");

    path.install("exit 1\n");
    EXPECT_EQ(gnuplot_run("script").wait(), plot_result::failed);
    path.install("kill -9 $$\n");
    EXPECT_EQ(gnuplot_run("script").wait(), plot_result::failed);
}

TEST(GnuplotRun, GoesOnBesideTheProgramAndIsWaitedFor) {
    const test::temporary_directory directory;
    const test::gnuplot_path path;
    const std::string begun = (directory / "begun").string(), go = (directory / "go").string(),
                      ended = (directory / "ended").string();
    const auto wait_for = "until [ -e " + go + "$1 ]; do sleep 0.01; done\n";
    path.install("> " + begun + "$1\n" + wait_for + "> " + ended + "$1\n");
    const auto let_go = [&](const std::string& name) { directory.write("go" + name, ""); };
    {
        gnuplot_run first("1");  // the program comes here before gnuplot ends
        EXPECT_FALSE(directory.exists("ended1"));
        gnuplot_run moved = std::move(first);
        first = gnuplot_run();
        EXPECT_FALSE(directory.exists("ended1"));
        let_go("1");
    }
    EXPECT_TRUE(directory.exists("ended1"));

    gnuplot_run run("2");
    let_go("2");
    let_go("3");
    run = gnuplot_run("3");
    EXPECT_TRUE(directory.exists("ended2"));
    EXPECT_EQ(run.wait(), plot_result::drawn);
    EXPECT_TRUE(directory.exists("ended3"));
    EXPECT_EQ(run.wait(), plot_result::drawn);
}

}  // namespace
}  // namespace zendar
