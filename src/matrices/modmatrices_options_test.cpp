#include "modmatrices_options.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captured_log.hpp"
#include "temporary_directory.hpp"

namespace zendar::test {
namespace {

using testing::HasSubstr;
using words = std::vector<std::string>;

/// The one error of a command line.
std::string refusal(const words& arguments) {
    captured_log log;
    const std::string message = fatal_message([&] { (void)matrices::read_options(arguments, log); });
    if (message != "no fatal_error") {
        EXPECT_THAT(log.text(), testing::EndsWith("ERROR: " + message + "\n"));
    }
    return message;
}

/// A good command line, and more.
std::string refusal_of(words more) {
    words all{"--bfile", "geno", "--ped", "ped.txt", "--g", "g_tri"};
    all.insert(all.end(), more.begin(), more.end());
    return refusal(all);
}

TEST(MatrixOptions, AreReadInAnyOrder) {
    captured_log log;
    const matrices::matrix_options o = matrices::read_options(
        words{"--tau",     "-1.5", "--apy",        "a.stream", "--core",    "c",   "--bfile", "geno",
              "--threads", "4",    "--ped",        "p",        "--pedtype", "7",   "--gamma", "gamma",
              "--nupg",    "2",    "--nlevel",     "50",       "--omega",   "0.5", "--beta",  "1d-1",
              "--effect",  "3",    "--allelefreq", "f",        "--freq",    "out"},
        log);

    EXPECT_EQ(o.tau, -1.5);
    EXPECT_EQ(o.omega, 0.5);
    EXPECT_EQ(o.beta, 0.1);
    EXPECT_EQ(o.alpha, 1.0 - 0.1);
    EXPECT_EQ(o.apy, "a.stream");
    EXPECT_EQ(o.core, "c");
    EXPECT_EQ(o.bfile, "geno");
    EXPECT_EQ(o.ped, "p");
    EXPECT_EQ(o.gamma, "gamma");
    EXPECT_EQ(o.allelefreq, "f");
    EXPECT_EQ(o.freq, "out");
    EXPECT_EQ(o.threads, 4);
    EXPECT_EQ(o.pedtype, 7);
    EXPECT_EQ(o.nupg, 2);
    EXPECT_EQ(o.nlevel, 50);
    EXPECT_EQ(o.effect, 3);
    EXPECT_FALSE(o.help);
    EXPECT_EQ(log.text(), "");
}

TEST(MatrixOptions, HaveTheDefaultsOfTheSolver) {
    captured_log log;
    const matrices::matrix_options o =
        matrices::read_options(words{"--bfile", "geno", "--ped", "p", "--g", "g_tri"}, log);
    const param_type fresh;

    EXPECT_EQ(o.alpha, fresh.alpha);
    EXPECT_EQ(o.beta, fresh.beta);
    EXPECT_EQ(o.tau, fresh.tau);
    EXPECT_EQ(o.omega, fresh.omega);
    EXPECT_EQ(o.effect, 1);
    EXPECT_EQ(o.pedtype, 3);
}

TEST(MatrixOptions, KeepAGivenAlpha) {
    captured_log log;

    const matrices::matrix_options o = matrices::read_options(
        words{"--bfile", "geno", "--ped", "p", "--g", "g_tri", "--alpha", "0.5", "--beta", "0.2"}, log);

    EXPECT_EQ(o.alpha, 0.5);
    EXPECT_EQ(o.beta, 0.2);
}

TEST(MatrixOptions, RefuseWordsThatDoNotFit) {
    EXPECT_EQ(refusal({"--what"}), "The argument \"--what\" is unknown. Try zendar-matrices --help");
    EXPECT_EQ(refusal({"geno"}), "The argument \"geno\" is unknown. Try zendar-matrices --help");
    EXPECT_EQ(refusal_of({"--gi"}), "The argument \"--gi\" needs a value");
    EXPECT_EQ(refusal_of({"--gi", "--a22"}), "The argument \"--gi\" needs a value");
    EXPECT_EQ(refusal_of({"--gi", " "}), "The argument \"--gi\" needs a value");
    EXPECT_EQ(refusal_of({"--g", "h_tri"}), "The argument \"--g\" was given twice");
    EXPECT_EQ(refusal_of({"--tau", "x"}), "The value of --tau is not a number: \"x\"");
    EXPECT_EQ(refusal_of({"--tau", "nan"}), "The value of --tau is not a number: \"nan\"");
    EXPECT_EQ(refusal_of({"--omega", "inf"}), "The value of --omega is not a number: \"inf\"");
    EXPECT_EQ(refusal_of({"--nupg", "1.5"}), "The value of --nupg is not an integer: \"1.5\"");
    EXPECT_EQ(refusal_of({"--nlevel", "99999999999"}),
              "The value of --nlevel is not an integer: \"99999999999\"");
    EXPECT_EQ(refusal_of({"--threads", "0"}), "The value of --threads must lie between 1 and 1024: 0");
    EXPECT_EQ(refusal_of({"--threads", "1025"}), "The value of --threads must lie between 1 and 1024: 1025");
    EXPECT_EQ(refusal_of({"--effect", "0"}), "The value of --effect must lie between 1 and 9999: 0");
    EXPECT_EQ(refusal_of({"--nupg", "-1"}), "The value of --nupg must lie between 1 and 2147483647: -1");
    EXPECT_EQ(refusal_of({"--pedtype", "2"}), "The value of --pedtype must lie between 3 and 9: 2");
    EXPECT_EQ(refusal_of({"--pedtype", "4"}), "The value of --pedtype must be 3, 5, 7 or 9: 4");
    EXPECT_EQ(refusal_of({"--beta", "-0.1"}), "The value of --beta must not be below 0: -0.1");
    EXPECT_EQ(refusal_of({"--alpha", "0"}), "The value of --alpha must be above 0: 0");
    EXPECT_EQ(refusal_of({"--beta", "1"}), "The value of --alpha must be above 0: 0, which is 1 - beta");
}

TEST(MatrixOptions, RefuseWhatDoesNotFitTogether) {
    EXPECT_EQ(refusal({}), "No output is asked for. Try zendar-matrices --help");
    EXPECT_EQ(refusal({"--bfile", "geno", "--ped", "p"}),
              "No output is asked for. Try zendar-matrices --help");
    EXPECT_EQ(refusal({"--ped", "p", "--g", "g_tri"}), "--bfile is missing");
    EXPECT_EQ(refusal({"--bfile", "geno", "--a22", "a_tri"}),
              "--ped is missing: only --freq does without a pedigree");
    EXPECT_EQ(refusal_of({"--pedtype", "7"}), "--gamma is missing: a pedigree of type 7 has metafounders");
    EXPECT_EQ(refusal_of({"--gamma", "x"}),
              "--gamma belongs to a pedigree of type 7, and not to one of type 3");
    EXPECT_EQ(refusal_of({"--nupg", "2"}),
              "--nupg belongs to a pedigree of type 5, 7 or 9, and not to one of type 3");
    EXPECT_EQ(refusal_of({"--pedtype", "5", "--nupg", "6", "--nlevel", "6"}),
              "--nupg leaves no animals among the 6 levels of --nlevel: 6");
    EXPECT_EQ(refusal_of({"--apy", "a_tri"}), "--core is missing: --apy needs core animals");
    EXPECT_EQ(refusal_of({"--core", "c"}), "--core belongs to --apy, which is missing");
    EXPECT_EQ(refusal_of({"--k", "k_tri", "--beta", "0"}),
              "The value of --beta must be above 0 for --ta and --k");
}

TEST(MatrixOptions, RefuseFilesThatCannotBeWritten) {
    const temporary_directory directory;
    const working_directory at(directory.path());
    std::filesystem::create_directory("folder_tri");

    for (const char* option : {"--gi", "--gima22i", "--a22", "--a22i", "--apy", "--ta", "--k"})
        for (const char* name : {"x", "x.txt", "x_tri.gz"})
            EXPECT_EQ(refusal_of({option, name}),
                      "The file of " + std::string(option) +
                          ", whose ending is its form, must end in _tri or .stream: " + name);
    EXPECT_EQ(refusal_of({"--gi", "none/x_tri"}),
              "The folder of the file of --gi does not exist: none/x_tri");
    EXPECT_EQ(refusal_of({"--freq", "none/x"}), "The folder of the file of --freq does not exist: none/x");
    EXPECT_EQ(refusal_of({"--gi", "folder_tri"}), "The file of --gi is a folder: folder_tri");
    EXPECT_EQ(refusal_of({"--gi", "./g_tri"}), "--g and --gi name the same file: ./g_tri");
}

TEST(MatrixUsage, ListsEveryOption) {
    const std::string usage = matrices::usage();

    const words names = matrices::option_names();
    EXPECT_EQ(names.size(), 24U);
    for (const std::string& name : names)
        EXPECT_TRUE(usage.find("   " + name + " ") != std::string::npos ||
                    usage.find("   " + name + "\n") != std::string::npos)
            << name;
    EXPECT_THAT(usage, HasSubstr("Weight of the pedigree in G. Default: 0.05."));
}

TEST(MatrixUsage, IsAskedForWithoutAnythingElse) {
    captured_log log;

    EXPECT_TRUE(matrices::read_options(words{"--help"}, log).help);
}

}  // namespace
}  // namespace zendar::test
