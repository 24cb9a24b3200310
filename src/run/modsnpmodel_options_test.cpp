#include <gmock/gmock.h>

#include <algorithm>

#include "modsnpmodel_options_detail.hpp"
#include "option_reader.hpp"

namespace zendar {
namespace {

using test::option_reader;
using testing::HasSubstr;

struct taken_line {
    std::string line, logged, written;
    bool (*stored)(const run_options&);
};

using R = const run_options&;

const taken_line taken_lines[] = {
    {"!inbreeding meuw", "Chosen algorithm for computing inbreeding coefficients: Meuwissen and Luo (1993)",
     "", [](R r) { return r.inbmethod == 1; }},
    {"!inbreeding meuwissen",
     "Chosen algorithm for computing inbreeding coefficients: Meuwissen and Luo (1993)", "",
     [](R r) { return r.inbmethod == 1; }},
    {"!inbreeding sargo", "Chosen algorithm for computing inbreeding coefficients: Sargolzaei et al. (2005)",
     "!inbreeding sargolzaei\n", [](R r) { return r.inbmethod == 2; }},
    {"!inbreeding sargol", "Chosen algorithm for computing inbreeding coefficients: Sargolzaei et al. (2005)",
     "!inbreeding sargolzaei\n", [](R r) { return r.inbmethod == 2; }},
    {"!inbreeding sargolzaei",
     "Chosen algorithm for computing inbreeding coefficients: Sargolzaei et al. (2005)",
     "!inbreeding sargolzaei\n", [](R r) { return r.inbmethod == 2; }},
    {"!miss_phen -99.5", "The missing value for reals is set to (instead of -9): -99.50",
     "!miss_phen -99.500000000000000\n", [](R r) { return r.rmissing == -99.5; }},
    {"!notoptimem", "PCG + IOD (if applicable) will not use a memory-optimized version.", "!notoptimem\n",
     [](R r) { return r.loptimem == 1; }},
    {"!optimem 0", "PCG + IOD (if applicable) will use a memory-optimized version (option 0)",
     "!notoptimem\n", [](R r) { return r.loptimem == 1; }},
    {"!optimem 1", "PCG + IOD (if applicable) will use a memory-optimized version (option 1)", "",
     [](R r) { return r.loptimem == 2; }},
    {"!optimem 5", "PCG + IOD (if applicable) will use a memory-optimized version (option 5)", "!optimem 5\n",
     [](R r) { return r.loptimem == 5; }},
};

bool same(R a, R b) {
    return a.inbmethod == b.inbmethod && a.loptimem == b.loptimem && a.rmissing == b.rmissing;
}

TEST(RunOptions, AreTakenLoggedAndWrittenBack) {
    for (const taken_line& row : taken_lines) {
        SCOPED_TRACE(row.line);
        option_reader reader, again;

        reader.all(row.line + "\n");
        again.all(reader.written());

        EXPECT_TRUE(row.stored(reader.options));
        EXPECT_TRUE(reader.has_line(row.logged)) << reader.logged();
        EXPECT_EQ(reader.count("WARN"), 0) << reader.logged();
        EXPECT_EQ(reader.written(), row.written);
        EXPECT_TRUE(same(reader.options, again.options));
    }
}

TEST(RunOptions, HaveEachATestedLine) {
    for (const auto& entry : detail::other_options())
        for (const auto keyword : entry.keywords)
            EXPECT_TRUE(std::ranges::any_of(taken_lines, [&](const taken_line& row) {
                return (row.line + " ").starts_with("!" + std::string(keyword) + " ");
            })) << keyword;
}

TEST(RunOptions, WithAWrongNumberOfWordsAreDropped) {
    for (const std::string line :
         {"inbreeding", "inbreeding a b", "miss_phen", "miss_phen 1 2", "notoptimem 1", "optimem",
          "optimem 1 2", "optimem 2", "optimem -1", "optimem x"}) {
        option_reader reader;
        reader.all("!" + line + "\n");

        EXPECT_TRUE(reader.has_line("WARN: The option !" + line.substr(0, line.find(' ')) +
                                    " was found and will be ignored!"))
            << reader.logged();
        EXPECT_TRUE(same(reader.options, run_options{}));
    }
}

TEST(RunOptions, HaveTheDefaultsThatTheirHelpNames) {
    int found = 0;
    for (const auto& entry : detail::other_options()) {
        const std::string value = test::named_default(entry.help);
        if (value.empty()) continue;
        ++found;
        option_reader reader;
        reader.all("!" + std::string(entry.keywords.front()) + " " + value + "\n");
        EXPECT_TRUE(same(reader.options, run_options{}));
        EXPECT_EQ(reader.count("WARN"), 0);
    }
    EXPECT_EQ(found, 1);  // miss_phen
}

TEST(RunOptions, RefuseAWrongAlgorithmForInbreeding) {
    for (const std::string word : {"Meuwissen", "meu", "1"}) {
        option_reader reader;
        EXPECT_THROW(reader.all("!inbreeding " + word + "\n"), fatal_error);
        EXPECT_THAT(reader.logged(), HasSubstr("ERROR: The option !inbreeding has a wrong argument!\nFile " +
                                               (reader.directory / "model.par").string() +
                                               ", line 1: !inbreeding " + word + "\n"));
    }
}

TEST(RunOptions, RefuseTheKernelThatIsNotImplemented) {
    option_reader reader;
    EXPECT_THROW(reader.all("!optimem -9\n"), fatal_error);

    EXPECT_EQ(reader.options.loptimem, -9);
    EXPECT_THAT(reader.logged(),
                HasSubstr("ERROR: The option !optimem with this argument is not implemented yet!\n"));
}

TEST(RunOptions, RefuseAMissingValueThatIsNoNumber) {
    option_reader reader;
    EXPECT_THROW(reader.all("!miss_phen NA\n"), fatal_error);
    EXPECT_THAT(reader.logged(), HasSubstr("The option !miss_phen: \"NA\" is not a number!"));
}

TEST(ReadAllOptions, CallsTheThreeReadersInOrder) {
    option_reader reader;
    reader.all("");

    EXPECT_EQ(reader.logged(),
              "\n"
              "+++++++++++ Additional options ++++++++++\n"
              "The value for alpha is set to 1 - beta: 0.9500\n"
              "Output directory: .\n"
              "+++++++ End of additional options +++++++\n"
              "\n"
              "Convergence criteria for PCG: cr\n"
              "+++++++ End of options for the solver +++++++\n"
              "\n"
              "+++++++++++ Additional options ++++++++++\n"
              "+++++++ End of additional options +++++++\n"
              "\n");
}

TEST(ReadAllOptions, WarnsOnceOfEachUnknownOption) {
    option_reader reader;
    reader.all("!Beta 0.1\n!beta 0.1\n!maxiter 10\n!optimem 1\n!nonsense\n");

    EXPECT_EQ(reader.count("WARN"), 2);
    EXPECT_TRUE(reader.has_line("WARN: Unknown option: !Beta"));
    EXPECT_TRUE(reader.has_line("WARN: Unknown option: !nonsense"));
    EXPECT_TRUE(reader.logged().ends_with("WARN: Unknown option: !Beta\nWARN: Unknown option: !nonsense\n"));
}

TEST(ReadAllOptions, KnowsAllKeywordsAndTheOneThatNoReaderTakes) {
    option_reader reader;
    reader.all("!conveq groups.dat\n!conveq\n!convtol 1 2 3\n!solquorlen x\n!notoptimem x\n");

    EXPECT_EQ(reader.count("Unknown"), 0);
    EXPECT_TRUE(reader.param.solver == solver_type{});
    EXPECT_TRUE(modparameters::takes_option("taplink"));
    EXPECT_FALSE(modparameters::takes_option("maxiter"));
    EXPECT_TRUE(solver_takes_option("conveq"));
    EXPECT_FALSE(solver_takes_option("beta"));
}

TEST(ReadAllOptions, ChoosesTheKernelOfCombinedEffects) {
    const auto kernel = [](const std::string& lines) {
        option_reader reader;
        reader.all(lines);
        return reader.options.loptimem;
    };
    EXPECT_EQ(kernel(""), 2);
    EXPECT_EQ(kernel("!combieff 1 1 1\n"), 12);
    EXPECT_EQ(kernel("!combieff 1 1 1\n!notoptimem\n"), 11);
    EXPECT_EQ(kernel("!combieff 1 1 1\n!optimem 5\n"), 15);
}

TEST(ReadAllOptions, ChoosesTheGeneralKernelForRandomType22) {
    for (const std::string line : {"", "!optimem 5\n", "!notoptimem\n"}) {
        option_reader plain, combined;
        plain.param.type_random[3] = combined.param.type_random[3] = 22;
        plain.all(line);
        combined.all(line + "!combieff 1 1 1\n");

        EXPECT_EQ(plain.options.loptimem, 0);
        EXPECT_EQ(combined.options.loptimem, 10);
    }
}

TEST(ReadAllOptions, OfASecondFileChooseTheKernelAnew) {
    const auto kernel = [](const std::string& first, const std::string& second, std::int32_t random = 0) {
        option_reader reader;
        reader.param.type_random[3] = random;
        reader.all(first);
        reader.all(second);
        return reader.options.loptimem;
    };
    const std::string combine = "!combieff 1 1 1\n";
    EXPECT_EQ(kernel(combine, ""), 12);
    EXPECT_EQ(kernel(combine, combine), 12);
    EXPECT_EQ(kernel(combine + "!optimem 5\n", ""), 15);
    EXPECT_EQ(kernel("!optimem 5\n", combine), 15);
    EXPECT_EQ(kernel(combine, "!notoptimem\n"), 11);
    EXPECT_EQ(kernel(combine, "!optimem 1\n", 22), 10);
    EXPECT_EQ(kernel("", "", 22), 0);
}

TEST(ReadAllOptions, OfAMissingFileAreFatal) {
    option_reader reader;
    EXPECT_THROW(
        modsnpmodel::read_parameter_file_options(reader.param, reader.options, "missing.par", reader.log),
        fatal_error);
    EXPECT_THAT(reader.logged(), HasSubstr("I/O ERROR: Cannot open the file missing.par"));
}

}  // namespace
}  // namespace zendar
