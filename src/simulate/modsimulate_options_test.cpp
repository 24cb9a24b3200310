#include "modsimulate_options.hpp"

#include "captured_log.hpp"
#include "modsimulate_test_support.hpp"
#include "program_run.hpp"

namespace zendar::test {
namespace {

using words_type = std::vector<std::string>;

/// The one error of a command line.
std::string refusal(const std::string& words) {
    words_type arguments;
    std::istringstream in(words);
    for (std::string word; in >> word;) arguments.push_back(word);
    captured_log log;
    const std::string message = fatal_message([&] { (void)simulate::read_options(arguments, log); });
    if (message != "no fatal_error") {
        EXPECT_THAT(log.text(), testing::EndsWith("ERROR: " + message + "\n"));
    }
    return message;
}

TEST(SimulateOptions, AreReadInAnyOrder) {
    captured_log log;
    const simulate::simulate_options o = simulate::read_options(
        words_type{"--traits", "3", "--genetic", "0.5,1,2", "there", "--missing", "0.25", "--names", "--seed",
                   "12345678901", "--model", "animal,metafounders", "--groups", "sex"},
        log);

    EXPECT_EQ(o.folder, "there");
    EXPECT_THAT(o.genetic, testing::ElementsAre(0.5, 1.0, 2.0));
    EXPECT_THAT(o.missing, testing::ElementsAre(0.25, 0.25, 0.25));
    EXPECT_THAT(o.models, testing::ElementsAre("animal", "metafounders"));
    EXPECT_EQ(o.seed, 12345678901);
    EXPECT_TRUE(o.names);
    EXPECT_FALSE(o.truth);
    EXPECT_EQ(log.text(), "");
}

TEST(SimulateOptions, GiveTheCovariances) {
    captured_log log;
    const simulate::simulate_options o =
        simulate::read_options(words_type{"x", "--traits", "2", "--genetic", "1,4", "--maternal", "0.25",
                                          "--rg", "0.4", "--rdm", "-0.2", "--residual", "9,1", "--re", "0.1"},
                               log);

    const std::vector<double> expected = {1.0,  0.8, -0.1, 0.0, 0.8, 4.0,  0.0, -0.2,
                                          -0.1, 0.0, 0.25, 0.1, 0.0, -0.2, 0.1, 0.25};
    EXPECT_THAT(o.genetic_matrix(), testing::Pointwise(testing::DoubleNear(1e-15), expected));
    EXPECT_THAT(o.residual_matrix(),
                testing::Pointwise(testing::DoubleNear(1e-15), std::vector<double>{9.0, 0.3, 0.3, 1.0}));
    const std::vector<double> l = simulate::cholesky(o.residual_matrix(), 2);
    EXPECT_THAT(l, testing::Pointwise(testing::DoubleNear(1e-15),
                                      std::vector<double>{3.0, 0.0, 0.1, std::sqrt(0.99)}));
}

TEST(SimulateOptions, RefuseWordsThatDoNotFit) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "The folder for the files is missing. Try zendar-simulate --help"},
        {"a b", "There are two folders: \"a\" and \"b\""},
        {"x --what", "The argument \"--what\" is unknown. Try zendar-simulate --help"},
        {"x --animals", "The argument \"--animals\" needs a value"},
        {"x --animals --names", "The argument \"--animals\" needs a value"},
        {"x --seed 1 --seed 1", "The argument \"--seed\" was given twice"},
        {"x --animals 1e3", "The value of --animals is not an integer: \"1e3\""},
        {"x --animals 3", "The value of --animals must lie between 4 and 100000000: 3"},
        {"x --seed -1", "The value of --seed must lie between 0 and 9000000000000000: -1"},
        {"x --rg one", "The value of --rg is not a number: \"one\""},
        {"x --rg nan", "The value of --rg is not a number: \"nan\""},
        {"x --rg 1", "The value of --rg must lie between -0.99 and 0.99: 1"},
        {"x --genetic 1,,2", "The value of --genetic is not a number: \"\""},
        {"x --genetic 0", "The value of --genetic must lie between 1e-09 and 1000000000: 0"},
        {"x --missing 1", "The value of --missing must lie between 0 and 0.99: 1"},
        {"x --traits 7", "The value of --traits must lie between 1 and 6: 7"},
        {"x --threads 0", "The value of --threads must lie between 1 and 1024: 0"},
        {"x --model best", "The model \"best\" is unknown. Try zendar-simulate --help"},
        {"x --model animal,animal", "The model \"animal\" was given twice"},
        {"x --groups herd", "The value of --groups must be none, sex or generation: herd"},
    };
    for (const auto& [words, message] : cases) EXPECT_EQ(refusal(words), message);
}

TEST(SimulateOptions, RefuseWhatDoesNotFitTogether) {
    const std::pair<const char*, const char*> cases[] = {
        {"x --animals 9 --generations 5", "--animals must be at least two for each of the 5 generations: 9"},
        {"x --traits 3 --genetic 1,2",
         "The list of --genetic has 2 values, but it must have one, or one for each of the 3 traits"},
        {"x --groups generation",
         "--groups generation needs --unknown: only the first generation has unknown parents"},
        {"x --snps 10", "--genotyped and --snps need each other"},
        {"x --genotyped 10", "--genotyped and --snps need each other"},
        {"x --genotyped 1001 --snps 1", "--genotyped must not be above the 1000 animals: 1001"},
        {"x --maternal 1 --generations 1", "--maternal needs two generations: founders have no known dam"},
        {"x --maternal 1,0 --traits 2",
         "The genetic (co)variances are not positive definite: --rg, --rdm or --maternal"},
        {"x --traits 3 --rg -0.6",
         "The genetic (co)variances are not positive definite: --rg, --rdm or --maternal"},
        {"x --traits 3 --re -0.6", "The residual (co)variances are not positive definite: --re"},
        {"x --model metafounders", "The model metafounders needs --groups"},
        {"x --model randomgroups", "The model randomgroups needs --groups"},
        {"x --model snpblup", "The model snpblup needs --genotyped and --snps"},
        {"x --model ssgblup30 --genotyped 9 --snps 9 --maternal 1",
         "The model ssgblup30 is not written with --maternal"},
    };
    for (const auto& [words, message] : cases) EXPECT_EQ(refusal(words), message);
}

TEST(SimulateUsage, ListsEveryOption) {
    const std::string usage = simulate::usage();

    const words_type names = simulate::option_names();
    EXPECT_EQ(names.size(), 24U);
    for (const std::string& name : names)
        EXPECT_TRUE(usage.find("   " + name + " ") != std::string::npos ||
                    usage.find("   " + name + "\n") != std::string::npos)
            << name;
}

/// The defaults of the help are those of the program.
TEST(SimulateUsage, TellsTheDefaults) {
    const simulate::simulate_options fresh;
    const std::string usage = simulate::usage();
    const std::pair<const char*, double> defaults[] = {{"--animals", fresh.animals},
                                                       {"--generations", fresh.generations},
                                                       {"--unknown", fresh.unknown},
                                                       {"--traits", fresh.traits},
                                                       {"--genetic", fresh.genetic[0]},
                                                       {"--residual", fresh.residual[0]},
                                                       {"--rg", fresh.rg},
                                                       {"--re", fresh.re},
                                                       {"--missing", fresh.missing[0]},
                                                       {"--herds", fresh.herds},
                                                       {"--repeated", fresh.repeated},
                                                       {"--permanent", fresh.permanent[0]},
                                                       {"--maternal", fresh.maternal[0]},
                                                       {"--rdm", fresh.rdm},
                                                       {"--genotyped", fresh.genotyped},
                                                       {"--snps", fresh.snps},
                                                       {"--chromosomes", fresh.chromosomes},
                                                       {"--seed", static_cast<double>(fresh.seed)}};
    for (const auto& [name, value] : defaults) {
        const auto at = usage.find("   " + std::string(name) + " ");
        ASSERT_NE(at, std::string::npos) << name;
        auto text = usage.find("Default:", at);
        ASSERT_NE(text, std::string::npos) << name;
        EXPECT_EQ(std::stod(usage.substr(text + 8)), value) << name;
    }
}

TEST(SimulateProgram, EndsWithAStatusAndOneMessage) {
    const temporary_directory directory;

    const auto help = run_program(directory.path(), {"--help"}, program_file("zendar-simulate"));
    const auto good = run_program(directory.path(), {"there/inside"}, program_file("zendar-simulate"));
    const auto bad =
        run_program(directory.path(), {"other", "--traits", "9"}, program_file("zendar-simulate"));
    directory.write("file", "");
    const auto closed = run_program(directory.path(), {"file/inside"}, program_file("zendar-simulate"));

    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out, simulate::usage());
    EXPECT_EQ(good.status, 0);
    EXPECT_TRUE(directory.exists("there/inside/model.par"));
    EXPECT_EQ(bad.status, 1);
    EXPECT_THAT(bad.out, testing::HasSubstr("ERROR: The value of --traits must lie between 1 and 6: 9"));
    EXPECT_FALSE(directory.exists("other"));
    EXPECT_EQ(closed.status, 1);
    EXPECT_THAT(closed.out, testing::HasSubstr("ERROR: Cannot make the folder file/inside: "));
}

TEST(SimulateProgram, NamesTheFileThatCannotBeWritten) {
    const temporary_directory directory;
    std::filesystem::create_directories(directory / "there/data.txt");

    const auto result = run_program(directory.path(), {"there"}, program_file("zendar-simulate"));

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, testing::HasSubstr("I/O ERROR: Cannot write the file there/data.txt"));
}

}  // namespace
}  // namespace zendar::test
