#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "data_sets.hpp"
#include "program_run.hpp"

/// Animal models on data whose answers others published or computed, by the program itself.
namespace zendar::test {
namespace {

using ::testing::HasSubstr;

void run_model(const temporary_directory& run, const std::string& par, const std::string& options = {}) {
    if (!options.empty()) run.write(par + "_options", options);
    const auto result = run_program(run.path(), {par, "--ncpus", "2"});
    ASSERT_EQ(result.status, 0) << result.out;
}

/// Lines "id value".
std::map<int, double> read_pairs(const std::filesystem::path& path) {
    std::map<int, double> pairs;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        int id = 0;
        if (double value = 0.0; words >> id >> value) pairs[id] = value;
    }
    return pairs;
}

/// The coefficients that the run left in its cache against those that come with the set.
void expect_inbreeding(const temporary_directory& run) {
    const auto expected = read_pairs(run / "expected_inbreeding.txt"),
               actual = read_pairs(run / "ped.txt.inb");
    ASSERT_FALSE(expected.empty());
    for (const auto& [id, value] : expected) {
        const auto found = actual.find(id);
        ASSERT_NE(found, actual.end()) << id;
        EXPECT_NEAR(found->second, value, 1e-6) << id;
    }
}

TEST(PedigreeData, GryphonBirthWeights) {
    for (const char* options : {"", "!inbreeding sargolzaei\n", "!notuseasparse\n", "!structprecond s 1 2\n",
                                "!structprecond d 2 2\n!optimem 0\n"}) {
        SCOPED_TRACE(options);
        const temporary_directory run;
        copy_files(example("gryphon_bwt"), run);
        run_model(run, "model.par", options);
        expect_solutions(run, run / "expected_solutions.txt", 2e-5);
        expect_inbreeding(run);
    }
}

TEST(PedigreeData, GryphonStatisticsOfThePedigree) {
    const temporary_directory run;
    copy_files(example("gryphon_bwt"), run);
    run_model(run, "model.par");
    EXPECT_THAT(run.read("log_stats.dat"), HasSubstr("STATISTICS FOR PEDIGREE (if any)\n\nEffect 2\n"
                                                     "Number of levels                  : 1309\n"
                                                     "Number of (real) animals          : 1309\n"));
}

struct data_set {
    const char* name;
    const char* folder;
    double relative, absolute;
    bool inbreeding;
    const char* par = "model.par";
    const char* answers = "expected_solutions.txt";
};

void PrintTo(const data_set& set, std::ostream* os) {
    *os << set.name;
}

class PedigreeSets : public ::testing::TestWithParam<data_set> {};

TEST_P(PedigreeSets, GiveThePublishedAnswers) {
    const data_set& set = GetParam();
    if (!std::filesystem::exists(external(set.folder)))
        GTEST_SKIP() << "the set " << set.folder << " is not here";
    for (const char* options : {"", "!inbreeding sargolzaei\n!notuseasparse\n"}) {
        SCOPED_TRACE(options);
        const temporary_directory run;
        copy_files(external(set.folder), run);
        run_model(run, set.par, options);
        expect_solutions(run, run / set.answers, set.relative, set.absolute);
        if (set.inbreeding) expect_inbreeding(run);
    }
}

// The printed digits of the answers, or six digits of ours where they have more.
const data_set sets[] = {
    {"QuicktourAnimals", "quicktour/animal", 0.0, 1e-5, false},
    {"QuicktourAnimalsAndARandomClass", "quicktour/animal_random_class", 0.0, 1e-5, false},
    {"QuicktourTwoTraits", "quicktour/two_traits", 0.0, 1e-5, false},
    {"TextbookAnimals", "mrode_ex31", 0.0, 5e-6, false},
    {"TextbookMaternalEffects", "mrode_ex71_maternal", 0.0, 6e-4, false},
    {"TextbookMaternalEffectsOfAnimals", "mrode_ex71_maternal", 0.0, 1e-5, false, "model.par",
     "derived_solutions.txt"},
    {"MilkYieldsWithRepeatedLactations", "milk", 2e-5, 0.0, true},
    {"BlueTitsOfTwoTraits", "btdata", 2e-5, 0.0, true},
    {"FixedGroups", "ggtutorial_upg", 2e-5, 0.0, true},
    {"RandomGroups", "ggtutorial_upg", 2e-5, 0.0, true, "model_random.par", "expected_solutions_random.txt"},
};

INSTANTIATE_TEST_SUITE_P(Cases, PedigreeSets, ::testing::ValuesIn(sets),
                         [](const auto& info) { return std::string(info.param.name); });

class PolyploidSets : public ::testing::TestWithParam<const char*> {};

TEST_P(PolyploidSets, GiveThePublishedAnswers) {
    if (!std::filesystem::exists(external(GetParam())))
        GTEST_SKIP() << "the set " << GetParam() << " is not here";
    for (const char* options : {"", "!structprecond s 1 2\n", "!structprecond d 2 1 2\n"}) {
        SCOPED_TRACE(options);
        const temporary_directory run;
        copy_files(external(GetParam()), run);
        run_model(run, "model.par", options);
        expect_solutions(run, run / "expected_solutions.txt", 2e-5);
        expect_inbreeding(run);
        EXPECT_THAT(run.read("log_stats.dat"), HasSubstr("STATISTICS FOR PEDIGREE WITH PLOIDY (if any)"));
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, PolyploidSets,
                         ::testing::Values("poly_hamkerr_or41", "poly_hamkerr_tab1", "poly_kerr2012",
                                           "poly_potato"),
                         [](const auto& info) { return std::string(info.param); });

TEST(PolyploidData, IterationOnThePedigreeIsRefused) {
    const temporary_directory run;
    if (!std::filesystem::exists(external("poly_kerr2012"))) GTEST_SKIP() << "the set is not here";
    copy_files(external("poly_kerr2012"), run);
    run.write("model.par_options", "!notuseasparse\n");
    const auto result = run_program(run.path(), {"model.par"});
    EXPECT_NE(result.status, 0);
    EXPECT_THAT(unwrapped(result.out), HasSubstr("This type of effect 203 is not implemented"));
    EXPECT_FALSE(std::filesystem::exists(run / "OK_ZENDAR"));
}

/// Answers by sampling, with a tolerance of their own for every value.
class SampledSets : public ::testing::TestWithParam<const char*> {};

TEST_P(SampledSets, AgreeWithinTheErrorsOfTheirSampling) {
    if (!std::filesystem::exists(external(GetParam())))
        GTEST_SKIP() << "the set " << GetParam() << " is not here";
    const temporary_directory run;
    copy_files(external(GetParam()), run);
    run_model(run, "model.par");
    const solutions expected = read_solutions(run / "expected_solutions.txt"),
                    tolerance = read_solutions(run / "tolerance_solutions.txt"),
                    actual = read_solutions(run / "solutions.dat");
    ASSERT_FALSE(expected.empty());
    for (const auto& [key, value] : expected) {
        ASSERT_TRUE(actual.contains(key) && tolerance.contains(key));
        EXPECT_NEAR(actual.at(key), value, tolerance.at(key))
            << "effect " << std::get<1>(key) << " level " << std::get<2>(key);
    }
    if (std::filesystem::exists(run / "expected_inbreeding.txt")) expect_inbreeding(run);
}

INSTANTIATE_TEST_SUITE_P(Cases, SampledSets, ::testing::Values("gryphon_bivar", "gryphon_rr"),
                         [](const auto& info) { return std::string(info.param); });

/// With a mean the values are those without it, up to one constant for all animals and groups.
TEST(PedigreeData, FixedGroupsAndAMean) {
    if (!std::filesystem::exists(external("ggtutorial_upg"))) GTEST_SKIP() << "the set is not here";
    const temporary_directory run;
    copy_files(external("ggtutorial_upg"), run);
    run_model(run, "model_mean.par");
    const solutions expected = read_solutions(run / "expected_solutions.txt"),
                    actual = read_solutions(run / "solutions.dat");
    ASSERT_FALSE(expected.empty());
    const auto own = [&](int level) { return actual.at({1, 2, level, 0}); };
    const auto [last, last_value] = *expected.rbegin();
    const double constant = own(std::get<2>(last)) - last_value;
    double largest = 0.0;
    for (const auto& [key, value] : expected) largest = std::max(largest, magnitude(value));
    for (const auto& [key, value] : expected)
        EXPECT_NEAR(own(std::get<2>(key)) - constant, value, 4e-5 * largest) << std::get<2>(key);
}

/// With fixed groups and a fixed effect only contrasts are unique.
TEST(PedigreeData, TextbookGroups) {
    if (!std::filesystem::exists(external("mrode_ex34_groups"))) GTEST_SKIP() << "the set is not here";
    for (const char* options : {"", "!notuseasparse\n"}) {
        const temporary_directory run;
        copy_files(external("mrode_ex34_groups"), run);
        run_model(run, "model.par", options);
        const solutions actual = read_solutions(run / "solutions.dat");
        std::ifstream in(run / "expected_contrasts.txt");
        std::string name;
        int terms = 0, contrasts = 0;
        for (double value = 0.0; in >> name >> value >> terms; ++contrasts) {
            double sum = 0.0;
            for (int k = 0; k < terms; ++k) {
                int t = 0, e = 0, level = 0, covariable = 0;
                double coefficient = 0.0;
                ASSERT_TRUE(in >> t >> e >> level >> covariable >> coefficient);
                sum += coefficient * actual.at({t, e, level, covariable});
            }
            EXPECT_NEAR(sum, value, 1e-5) << name;  // two values of six digits
        }
        EXPECT_EQ(contrasts, 11);
    }
}

}  // namespace
}  // namespace zendar::test
