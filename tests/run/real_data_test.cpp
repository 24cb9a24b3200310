#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "data_sets.hpp"
#include "program_run.hpp"

/// The program on real data whose answers others published or computed.
namespace zendar::test {
namespace {

TEST(RealData, QuicktourClassesWithARandomEffectAndACovariate) {
    const temporary_directory run;
    copy_files(example("quicktour_random_class"), run);

    const auto result = run_program(run.path(), {"model.par", "--ncpus", "2"});

    ASSERT_EQ(result.status, 0) << result.out;
    expect_solutions(run, run / "expected_solutions.txt", 0.0, 1e-5);
    EXPECT_TRUE(run.exists("OK_ZENDAR"));
    EXPECT_TRUE(run.exists("ca491pcn.bin"));
    EXPECT_FALSE(run.exists("rhstmp.stream"));
    EXPECT_FALSE(run.exists("phentmp.stream"));
}

TEST(RealData, GryphonBirthWeightsWithTheInverseRelationshipsOfAnotherTool) {
    for (const char* threads : {"1", "2", "4"}) {
        const temporary_directory run;
        copy_files(example("gryphon_bwt"), run);

        const auto result = run_program(run.path(), {"model_external.par", "--ncpus", threads});

        ASSERT_EQ(result.status, 0) << result.out;
        expect_solutions(run, run / "expected_solutions.txt", 2e-5);
    }
}

TEST(RealData, GryphonBirthWeightsWithEveryKernelAndPreconditioner) {
    for (const char* options :
         {"!optimem 0\n", "!optimem 5\n", "!structprecond d 1 2\n", "!structprecond s 1 2\n",
          "!structprecond f 1 2\n", "!structprecond b 1 1\n", "!structprecond w 1 1\n", "!noesteigen\n"}) {
        const temporary_directory run;
        copy_files(example("gryphon_bwt"), run);
        run.write("model_external.par_options", options);

        const auto result = run_program(run.path(), {"model_external.par", "--ncpus", "2"});

        ASSERT_EQ(result.status, 0) << options << result.out;
        SCOPED_TRACE(options);
        expect_solutions(run, run / "expected_solutions.txt", 2e-5);
    }
}

/// Two traits, fosternests, and animals with the inverse relationships that come with the set.
TEST(RealData, BlueTitsOfTwoTraits) {
    if (!std::filesystem::exists(external("btdata"))) GTEST_SKIP() << "the set btdata is not here";
    const temporary_directory run;
    copy_files(external("btdata"), run);
    std::string par = run.read("model.par");
    replace(par, "3 3 0 2\nped.txt compute\n", "3 10 0 2\nexpected_ainv.txt\n");
    run.write("model.par", par);

    const auto result = run_program(run.path(), {"model.par", "--ncpus", "2"});

    ASSERT_EQ(result.status, 0) << result.out;
    expect_solutions(run, run / "expected_solutions.txt", 2e-5);
}

/// Lactations with a covariate, permanent environments, herds, and animals as above.
TEST(RealData, MilkYieldsWithRepeatedLactations) {
    if (!std::filesystem::exists(external("milk"))) GTEST_SKIP() << "the set milk is not here";
    const temporary_directory run;
    copy_files(external("milk"), run);
    ASSERT_EQ(std::system(("gzip -d " + (run / "expected_ainv.txt.gz").string()).c_str()), 0);
    std::string par = run.read("model.par");
    replace(par, "3 3 0 1\nped.txt compute\n", "3 10 0 1\nexpected_ainv.txt\n");
    run.write("model.par", par);

    const auto result = run_program(run.path(), {"model.par", "--ncpus", "2"});

    ASSERT_EQ(result.status, 0) << result.out;
    expect_solutions(run, run / "expected_solutions.txt", 2e-5);
}

}  // namespace
}  // namespace zendar::test
