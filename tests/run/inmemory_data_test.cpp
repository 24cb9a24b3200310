#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <sstream>

#include "data_sets.hpp"
#include "modmme.hpp"
#include "modsnpmodel.hpp"
#include "program_run.hpp"

/// Equations in memory on data whose answers others published or computed.
namespace zendar::test {
namespace {

using ::testing::HasSubstr;

struct data_set {
    const char* name;
    const char* folder;
    const char* par = "model.par";
    bool shipped = false;
};

void PrintTo(const data_set& set, std::ostream* os) {
    *os << set.name;
}

std::filesystem::path folder_of(const data_set& set) {
    return set.shipped ? example(set.folder) : external(set.folder);
}

/// What one solver makes of a set.
struct outcome {
    std::vector<double> solutions, fitted;
    std::vector<std::int64_t> first;  ///< of each effect, and the end
    std::string log;
};

outcome run_with(const data_set& set, const std::string& options) {
    const temporary_directory directory;
    const working_directory at(directory.path());
    copy_files(folder_of(set), directory);
    directory.write(std::string(set.par) + "_options", options);
    std::ostringstream screen;
    run_state run;
    run.log.configure({.max_width = 100000});
    run.log.add_stream(screen);
    initparfile(run, set.par, {});
    const crssparse x = setup_incidencemat({run.param, run.data, run.cov, run.ped, run.ghuge}, run.log);
    setlhsrhs(run);
    solve(run);
    outcome result;
    result.solutions = run.solutions;
    result.fitted.resize(static_cast<std::size_t>(x.getdim(1)));
    x.multgenv(1.0, 'n', run.solutions, 0.0, result.fitted);
    for (std::int32_t e = 1; e <= run.param.neffect; ++e) result.first.push_back(run.param.sumequation[e]);
    result.first.push_back(run.param.neq);
    result.log = screen.str();
    return result;
}

/// Largest difference relative to the largest value, or to what stands for it if that is larger.
double difference_of(std::span<const double> a, std::span<const double> b, double least = 0.0) {
    double largest = least, worst = 0.0;
    for (std::size_t i = 0; i < b.size(); ++i) {
        largest = std::max(largest, magnitude(b[i]));
        worst = std::max(worst, magnitude(a[i] - b[i]));
    }
    return largest > 0.0 ? worst / largest : worst;
}

class InMemorySets : public ::testing::TestWithParam<data_set> {};

TEST_P(InMemorySets, AgreeWithTheIterationOnData) {
    const data_set& set = GetParam();
    if (!std::filesystem::exists(folder_of(set))) GTEST_SKIP() << "the set " << set.folder << " is not here";
    const std::string tight = "!convcrit 1e-26\n!maxiter 30000\n!noesteigen\n";
    const outcome on_data = run_with(set, tight);
    double largest = 0.0;
    for (const double v : on_data.solutions) largest = std::max(largest, magnitude(v));
    bool dependent = false;
    for (const char* solver : {"pardiso", "pcg_inmem", "pcg_inmem_block", "fpcg_inmem", "dpcg_inmem 100"}) {
        SCOPED_TRACE(solver);
        const outcome in_memory = run_with(set, "!solver " + std::string(solver) + "\n" + tight);
        EXPECT_LT(difference_of(in_memory.fitted, on_data.fitted), 1e-7);
        // Of equations that depend on each other every solver may find other solutions.
        if (in_memory.log.find("dependent") != std::string::npos) dependent = true;
        if (dependent) continue;
        for (std::size_t e = 0; e + 1 < on_data.first.size(); ++e) {
            const auto from = static_cast<std::size_t>(on_data.first[e]);
            const auto n = static_cast<std::size_t>(on_data.first[e + 1]) - from;
            EXPECT_LT(difference_of(std::span(in_memory.solutions).subspan(from, n),
                                    std::span(on_data.solutions).subspan(from, n), 1e-3 * largest),
                      1e-7)
                << "effect " << e + 1;
        }
    }
}

const data_set sets[] = {
    {"GryphonBirthWeights", "gryphon_bwt", "model.par", true},
    {"GryphonTwoTraits", "gryphon_bivar"},
    {"GryphonRandomRegressions", "gryphon_rr"},
    {"QuicktourRandomClass", "quicktour/random_class"},
    {"QuicktourAnimals", "quicktour/animal"},
    {"QuicktourAnimalsAndARandomClass", "quicktour/animal_random_class"},
    {"QuicktourTwoTraits", "quicktour/two_traits"},
    {"TextbookAnimals", "mrode_ex31"},
    {"TextbookGroups", "mrode_ex34_groups"},
    {"TextbookMaternalEffects", "mrode_ex71_maternal"},
    {"MilkYields", "milk"},
    {"BlueTits", "btdata"},
    {"FixedGroups", "ggtutorial_upg"},
    {"RandomGroups", "ggtutorial_upg", "model_random.par"},
    {"PolyploidOrder41", "poly_hamkerr_or41"},
    {"PolyploidTable1", "poly_hamkerr_tab1"},
    {"PolyploidKerr", "poly_kerr2012"},
    {"PolyploidPotatoes", "poly_potato"},
    {"SingleStepOfType30", "hibayes_ssgblup"},
    {"SingleStepOfComputedCovariances", "hibayes_ssgblup", "model_compute.par"},
    {"SingleStepOfType22", "hibayes_ssgblup", "model22.par"},
    {"WheatMarkers", "wheat_snpblup"},
};

INSTANTIATE_TEST_SUITE_P(Cases, InMemorySets, ::testing::ValuesIn(sets),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- prediction error variances
// ----------------------------------------------------------------------------

/// Lines "trait effect level value".
std::map<std::tuple<int, int, int>, double> read_pev(const std::filesystem::path& path) {
    std::map<std::tuple<int, int, int>, double> rows;
    std::ifstream in(path);
    int t, e, level;
    for (double value; in >> t >> e >> level >> value;) rows[{t, e, level}] = value;
    return rows;
}

void expect_pev(const temporary_directory& run, const std::filesystem::path& file, double relative,
                bool covariables = false) {
    const auto expected = read_pev(file);
    ASSERT_FALSE(expected.empty());
    const solutions actual = read_solutions(run / "aggregate_pev.dat");
    for (const auto& [key, value] : expected) {
        const auto [t, e, level] = key;
        const auto found = actual.find(covariables ? std::tuple{t, e, 0, level} : std::tuple{t, e, level, 0});
        ASSERT_NE(found, actual.end()) << e << " " << level;
        EXPECT_NEAR(found->second, value, relative * value) << "effect " << e << " level " << level;
    }
}

struct pev_set {
    const char* name;
    const char* folder;
    const char* par;
    const char* answers;
    double relative;
    bool covariables = false;
    bool shipped = false;
};

void PrintTo(const pev_set& set, std::ostream* os) {
    *os << set.name;
}

class PevSets : public ::testing::TestWithParam<pev_set> {};

TEST_P(PevSets, GiveThePublishedVariances) {
    const pev_set& set = GetParam();
    const auto from = set.shipped ? example(set.folder) : external(set.folder);
    if (!std::filesystem::exists(from)) GTEST_SKIP() << "the set " << set.folder << " is not here";
    for (const char* mode : {"r", "e"}) {
        SCOPED_TRACE(mode);
        const temporary_directory run;
        copy_files(from, run);
        run.write(std::string(set.par) + "_options", "!solver pardiso\n");
        const std::vector<std::string> words =
            mode[0] == 'r' ? std::vector<std::string>{set.par, "r", "1", "--ncpus", "2"}
                           : std::vector<std::string>{set.par, "--ebvpev", "--ncpus", "2"};
        const auto result = run_program(run.path(), words);
        ASSERT_EQ(result.status, 0) << result.out;
        expect_pev(run, from / set.answers, set.relative, set.covariables);
        EXPECT_EQ(std::filesystem::exists(run / "solutions.dat"), mode[0] == 'e');
    }
}

// Six digits are written.
const pev_set pev_sets[] = {
    {"GryphonAnimals", "gryphon_bwt", "model.par", "expected_pev.txt", 6e-6, false, true},
    {"GryphonSexes", "gryphon_bwt", "model.par", "expected_pev_fixed.txt", 6e-6},
    {"TextbookAnimals", "mrode_ex31", "model.par", "expected_pev.txt", 1e-5},
    {"SingleStepOfType30", "hibayes_ssgblup", "model.par", "expected_pev.txt", 1e-5},
    {"SingleStepOfType22", "hibayes_ssgblup", "model22.par", "expected_pev.txt", 1e-5},
    {"WheatMarkers", "wheat_snpblup", "model.par", "expected_pev.txt", 1e-5, true},
};

INSTANTIATE_TEST_SUITE_P(Cases, PevSets, ::testing::ValuesIn(pev_sets),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- P-values
// ----------------------------------------------------------------------------------------------

TEST(Pvalues, AreThoseOfDenseAlgebra) {
    const temporary_directory run;
    copy_files(source_folder() / "tests" / "data" / "pvalue", run);
    const auto result = run_program(run.path(), {"model.par", "--ebvpev", "--ncpus", "2"});
    ASSERT_EQ(result.status, 0) << result.out;
    const char* const files[] = {"snpeffects_gi.dat", "varhatsnpeffects_gi.dat", "pvalues_gi.dat"};
    std::ifstream expected(run / "expected.txt");
    std::array<solutions, 3> actual;
    for (std::size_t k = 0; k < 3; ++k) actual[k] = read_solutions(run / files[k]);
    int snp = 0;
    for (std::array<double, 3> values; expected >> values[0] >> values[1] >> values[2];) {
        ++snp;
        for (std::size_t k = 0; k < 3; ++k) {
            ASSERT_TRUE(actual[k].contains({1, 2, 0, snp})) << files[k];
            const double value = (actual[k][{1, 2, 0, snp}]);
            EXPECT_NEAR(value, values[k], 6e-6 * magnitude(values[k])) << files[k] << " SNP " << snp;
        }
    }
    EXPECT_EQ(snp, 40);
    for (const solutions& rows : actual) EXPECT_EQ(rows.size(), 40U);
}

}  // namespace
}  // namespace zendar::test
