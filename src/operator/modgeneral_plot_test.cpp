#include "modgeneral_plot.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "gnuplot_path.hpp"
#include "modgeneral_test_model.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::small_model;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::vector<double> normal_values(std::int64_t n, std::uint32_t seed) {
    std::mt19937 generator(seed);
    std::normal_distribution<double> normal;
    std::vector<double> values(static_cast<std::size_t>(n));
    for (double& value : values) value = normal(generator);
    return values;
}

std::vector<solution_histogram> counted(const small_model& model, const std::vector<double>& solutions) {
    captured_log log;
    return count_solutions(model.param, solutions, log);
}

/// The solutions of each effect and trait, from the rows of a solution file.
std::map<std::pair<std::int32_t, std::int32_t>, std::vector<double>> by_effect_and_trait(
    const small_model& model, const std::vector<double>& solutions) {
    std::map<std::pair<std::int32_t, std::int32_t>, std::vector<double>> values;
    for (const auto& row : model.rows()) values[{row.e, row.t}].push_back(solutions[row.equation - 1]);
    return values;
}

TEST(CountSolutions, AgreesWithSortedSolutionsOfAnyModel) {
    int several_traits = 0;
    for (std::uint32_t seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        const small_model model = test::random_model(seed);
        const auto solutions = normal_values(model.param.neq, seed);
        auto values = by_effect_and_trait(model, solutions);
        std::size_t traits = 0;
        for (const solution_histogram& h : counted(model, solutions)) {
            if (h.traits.size() > 1) ++several_traits;
            for (const std::int32_t t : h.traits) {
                ++traits;
                std::vector<double>& own = values.at({h.effect, t});
                std::ranges::sort(own);
                ASSERT_EQ(h.n, std::ssize(own));
                EXPECT_EQ(h.least, own.front());
                EXPECT_EQ(h.most, own.back());
                if (own.size() == 1) {
                    EXPECT_THAT(h.counts, IsEmpty());
                    continue;
                }
                double sum = 0.0, squares = 0.0;
                for (const double x : own) sum += x;
                const double mean = sum / static_cast<double>(h.n);
                for (const double x : own) squares += (x - mean) * (x - mean);
                EXPECT_NEAR(h.mean, mean, 1e-12);
                EXPECT_NEAR(h.sd, std::sqrt(squares / static_cast<double>(h.n - 1)), 1e-12);
                const auto bins = std::ssize(h.counts);
                const auto below = [&](double edge) {
                    return std::ranges::lower_bound(own, edge) - own.begin();
                };
                for (std::int64_t k = 0; k < bins; ++k) {
                    const auto upper = k + 1 == bins ? h.n : below(h.edge(k + 1));
                    EXPECT_EQ(h.counts[static_cast<std::size_t>(k)], upper - below(h.edge(k)));
                }
            }
        }
        EXPECT_EQ(traits, values.size());
    }
    EXPECT_GT(several_traits, 10);
}

TEST(CountSolutions, PutsAValueOnAnEdgeIntoTheUpperBin) {
    const small_model model(1, {{.nlevel = 8}});  // twice the cube root of 8: 4 bins
    const auto h = counted(model, {0.0, 0.25, 0.5, 0.75, 1.0, 1.0, 0.1, 0.2}).at(0);
    EXPECT_THAT(h.counts, ElementsAre(3, 1, 1, 3));
}

/// Rounding must not put a value below an edge into the bin above it, nor the other way round.
TEST(CountSolutions, AgreesWithItsEdgesToTheLastDigit) {
    constexpr std::int64_t bins = 30, n = 31 * 200;
    const small_model model(1, {{.nlevel = n}});
    for (const auto& [least, most] : {std::pair{0.1, 0.7}, {-1.0 / 3.0, 1e3}, {1e-7, 3e-7}, {-0.9, -0.1}}) {
        const solution_histogram axis{
            .least = least, .most = most, .counts = std::vector<std::int64_t>(bins)};
        std::vector<double> at, below;
        for (std::int64_t i = 0; i < n; ++i) {
            at.push_back(axis.edge(i % (bins + 1)));
            below.push_back(i % (bins + 1) == 0 ? least : std::nextafter(at.back(), -1e9));
        }
        below[0] = most;
        std::vector<std::int64_t> expected(bins, 200), expected_below(bins, 200);
        expected.back() += 200;
        EXPECT_EQ(counted(model, at).at(0).counts, expected);
        expected_below.front() += 199;
        expected_below.back() += 1;
        EXPECT_EQ(counted(model, below).at(0).counts, expected_below);
    }
}

TEST(CountSolutions, HasThirtyBinsAtMost) {
    const small_model model(1, {{.nlevel = 5000}});
    const auto h = counted(model, normal_values(5000, 1)).at(0);
    EXPECT_EQ(h.counts.size(), 30U);
    EXPECT_EQ(h.n, 5000);
}

TEST(CountSolutions, HasNoBinsForWhatIsTheSame) {
    const small_model model(1, {{.nlevel = 3}, {.nlevel = 1}, {.nlevel = 3}, {.nlevel = 2}, {.nlevel = 2}});
    const auto found =
        counted(model, {2.5, 2.5, 2.5, 7.0, 1e6, 1e6 * (1 + 1e-12), 1e6, 0.0, 4e-320, 1e-12, 2e-12});
    ASSERT_EQ(found.size(), 5U);
    for (const std::size_t i : {0U, 1U, 2U, 3U}) EXPECT_THAT(found[i].counts, IsEmpty()) << i;
    EXPECT_EQ(found[0].n, 3);
    EXPECT_EQ(found[0].mean, 2.5);
    EXPECT_EQ(found[0].sd, 0.0);
    EXPECT_THAT(found[4].counts, ElementsAre(1, 0, 1));  // small, but different
}

TEST(CountSolutions, LeavesOutWhatIsNotFinite) {
    const double nan = std::nan(""), infinity = HUGE_VAL;
    const small_model model(1, {{.nlevel = 4}, {.nlevel = 2}});
    const auto found = counted(model, {nan, 1.0, -infinity, 2.0, nan, 1e308});
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].n, 2);
    EXPECT_EQ(found[0].mean, 1.5);
}

TEST(CountSolutions, LeavesOutTraitsThatAnEffectHasNothingFor) {
    small_model model(2, {{.nlevel = 2}, {.nlevel = 2}});
    model.param.present(1, 0) = 0;  // zeros
    model.param.present(1, 1) = 0;  // not zeros, as those of a correlated trait
    const auto found = counted(model, {1.0, 0.0, 2.0, 0.0, 1.0, 0.5, 2.0, 0.0});
    ASSERT_EQ(found.size(), 3U);
    EXPECT_THAT(found[0].traits, ElementsAre(1));
    EXPECT_EQ(found[1].effect, 2);
    EXPECT_EQ(found[2].effect, 2);
    const auto zeros = counted(model, std::vector<double>(8, 0.0));
    ASSERT_EQ(zeros.size(), 2U);  // of the trait that both effects have
    EXPECT_THAT(zeros[0].traits, ElementsAre(1));
}

std::string script_of(const small_model& model, const std::vector<double>& solutions) {
    return solutions_graph_script(model.param, counted(model, solutions), "solutions.png");
}

TEST(SolutionsGraphScript, NamesEffectsAndTraits) {
    small_model model(2, {{.nlevel = 2}, {.nlevel = 2}});
    const std::vector<double> solutions{1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_THAT(script_of(model, solutions),
                AllOf(HasSubstr("set title 'effect 1, trait 1'\n"),
                      HasSubstr("set title 'effect 2, trait 2'\n"), HasSubstr("layout 2,2 ")));
    model.param.lnames = true;
    model.param.name_effect = {"herd's", "animal"};
    model.param.lcombieff = true;
    model.param.combieff_trait(1, 1) = 1;
    EXPECT_THAT(script_of(model, solutions),
                AllOf(HasSubstr("set title 'herd''s, trait 2'\n"),
                      HasSubstr("set title 'animal, traits 1 2'\n"), Not(HasSubstr("'animal, trait 1'"))));
    model.param.combieff_trait(1, 1) = 2;
    model.param.combieff_trait(0, 0) = model.param.combieff_trait(1, 0) = 2;
    const std::string script = script_of(model, solutions);
    EXPECT_LT(script.find("set multiplot next\n"), script.find("set title 'animal, trait 1'\n"));
}

TEST(SolutionsGraphScript, HasTheCountsBetweenTheirEdges) {
    const small_model model(1, {{.nlevel = 8}, {.nlevel = 1}});
    const std::string script = script_of(model, {0.0, 0.25, 0.5, 0.75, 1.0, 1.0, 0.1, 0.2, -3.0});
    EXPECT_THAT(script, HasSubstr("$bins1 << EOD\n0 0.25 3\n0.25 0.5 1\n0.5 0.75 1\n0.75 1 3\nEOD\n"));
    EXPECT_THAT(script, HasSubstr("n = 8   mean 0.475   SD 0.4"));
    EXPECT_THAT(script, HasSubstr("set label 1 '-3'"));
}

/// Ranges of all magnitudes, holes in the grid and awkward names.
TEST(SolutionsGraphScript, IsReadByGnuplotWithoutWarnings) {
    if (!test::have_gnuplot()) GTEST_SKIP() << "gnuplot is not installed";
    small_model model(3, {{.nlevel = 40}, {.nlevel = 1}, {.nlevel = 40}, {.type = 3, .ncov = 50}});
    model.param.lnames = true;
    model.param.name_effect = {"a_b^{c}@&~\\n", "it's \"$x\" `ls`", "%d", "SNP"};
    auto solutions = normal_values(model.param.neq, 1);
    for (std::size_t i = 0; i < solutions.size(); ++i)
        solutions[i] *= std::pow(10.0, std::array{-40, 0, 80}[i % 3]);
    for (std::size_t i = 123; i < 243; i += 3) solutions[i] = 1e9 + solutions[i + 1];
    const test::temporary_directory directory;
    const test::working_directory inside(directory.path());
    directory.write("script", script_of(model, solutions));

    EXPECT_EQ(std::system("gnuplot script > out 2>&1"), 0);

    EXPECT_EQ(directory.read("out"), "");
    EXPECT_TRUE(directory.read("solutions.png").starts_with("\x89PNG\r\n"));
}

class PlotSolutions : public testing::Test {
  protected:
    PlotSolutions() : inside_(directory_.path()) {}
    std::string warned(const std::vector<double>& solutions) {
        captured_log log;
        plot_solutions(model_.param, solutions, log);
        return log.text();
    }
    small_model model_{1, {{.nlevel = 3}}};
    test::temporary_directory directory_;
    test::working_directory inside_;
    test::gnuplot_path path_;
};

TEST_F(PlotSolutions, WarnsOnceWithoutGnuplotAndLeavesTheScriptOnly) {
    directory_.write("solutions.png", "of an earlier run");
    EXPECT_EQ(warned({1.0, 2.0, 3.0}),
              "WARN: No picture of the solutions: gnuplot is not installed. Where it is, \"gnuplot "
              "solutions_graph.g\" draws it\n");
    EXPECT_FALSE(directory_.exists("solutions.png"));
    EXPECT_THAT(directory_.read("solutions_graph.g"), HasSubstr("set out 'solutions.png'"));
}

TEST_F(PlotSolutions, LeavesNoHalfPicture) {
    path_.install("echo half > solutions.png\nexit 1\n");
    EXPECT_EQ(warned({1.0, 2.0, 3.0}),
              "WARN: No picture of the solutions: gnuplot failed on the file solutions_graph.g\n");
    EXPECT_FALSE(directory_.exists("solutions.png"));
}

TEST_F(PlotSolutions, KeepsThePictureOfGnuplot) {
    path_.install("cp \"$1\" solutions.png\n");
    EXPECT_EQ(warned({1.0, 2.0, 3.0}), "");
    EXPECT_EQ(directory_.read("solutions.png"), directory_.read("solutions_graph.g"));
}

TEST_F(PlotSolutions, WarnsOfAFileThatCannotBeWritten) {
    std::filesystem::create_directory("solutions_graph.g");
    EXPECT_THAT(warned({1.0, 2.0, 3.0}),
                HasSubstr("WARN: No picture of the solutions: cannot write the file solutions_graph.g: "));
}

TEST_F(PlotSolutions, WarnsOfSolutionsThatAreNotFinite) {
    path_.install("echo > solutions.png\n");
    EXPECT_EQ(warned(std::vector<double>(3, std::nan(""))),
              "WARN: No picture of the solutions: none of them is finite\n");
    EXPECT_FALSE(directory_.exists("solutions.png"));
}

}  // namespace
}  // namespace zendar
