#include <gmock/gmock.h>

#include <map>

#include "gnuplot_path.hpp"
#include "program_run.hpp"

/// `!plotsolutions` in whole runs, with and without a gnuplot.
namespace zendar::test {
namespace {

using testing::HasSubstr;
using testing::Not;

class PlotSolutionsRun : public testing::Test {
  protected:
    PlotSolutionsRun() {
        std::filesystem::copy(source_folder() / "examples/gryphon_two_traits", run_.path(),
                              std::filesystem::copy_options::recursive);
    }
    std::string run(const std::string& options) {
        run_.write("model.par_options", options);
        const program_result result = run_program(run_.path(), {"model.par"});
        EXPECT_EQ(result.status, 0) << result.error;
        EXPECT_TRUE(run_.exists("OK_ZENDAR"));
        return unwrapped(result.out);
    }
    temporary_directory run_;
};

struct bin {
    double low, high;
    std::int64_t count;
};

/// The blocks of the script, in their order.
std::vector<std::vector<bin>> bins_of(const std::string& script) {
    std::vector<std::vector<bin>> blocks;
    std::istringstream lines(script);
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("$bins")) {
            blocks.emplace_back();
            inside = true;
        } else if (line == "EOD") {
            inside = false;
        } else if (inside) {
            std::istringstream words(line);
            bin b{};
            words >> b.low >> b.high >> b.count;
            EXPECT_TRUE(words) << line;
            blocks.back().push_back(b);
        }
    }
    return blocks;
}

/// The solutions by effect and trait.
std::map<std::pair<int, int>, std::vector<double>> solutions_of(const std::string& text) {
    std::map<std::pair<int, int>, std::vector<double>> solutions;
    std::istringstream lines(text);
    int trait = 0, effect = 0, level = 0, covariable = 0;
    for (double value = 0.0; lines >> trait >> effect >> level >> covariable >> value;)
        solutions[{effect, trait}].push_back(value);
    return solutions;
}

TEST_F(PlotSolutionsRun, CountsTheSolutionsOfTheFile) {
    {
        const gnuplot_path path;
        path.install("cp \"$1\" \"drawn_${1##*/}\"\necho picture > solutions.png\n");
        EXPECT_THAT(run("!plotsolutions\n"), Not(HasSubstr("No picture")));
    }
    EXPECT_EQ(run_.read("solutions.png"), "picture\n");
    EXPECT_EQ(run_.read("drawn_solutions_graph.g"), run_.read("solutions_graph.g"));

    const auto blocks = bins_of(run_.read("solutions_graph.g"));
    const auto solutions = solutions_of(run_.read("solutions.dat"));
    ASSERT_EQ(blocks.size(), solutions.size());
    auto block = blocks.begin();
    for (const auto& [key, values] : solutions) {
        SCOPED_TRACE("effect " + std::to_string(key.first) + ", trait " + std::to_string(key.second));
        ASSERT_FALSE(block->empty());
        std::int64_t total = 0;
        for (const bin& b : *block) {
            // The file has six digits: a value may lie on the other side of an edge.
            const double margin = 1e-5 * std::max(std::abs(b.low), std::abs(b.high)) + 1e-12;
            const auto between = [&](double low, double high) {
                return std::ranges::count_if(values, [&](double x) { return x >= low && x < high; });
            };
            EXPECT_LE(between(b.low + margin, b.high - margin), b.count);
            EXPECT_GE(between(b.low - margin, b.high + margin), b.count);
            total += b.count;
        }
        EXPECT_EQ(total, std::ssize(values));
        ++block;
    }
}

TEST_F(PlotSolutionsRun, GoesOnWithoutGnuplot) {
    std::string out;
    {
        const gnuplot_path path;
        out = run("!plotsolutions\n");
    }
    const std::string warning = "WARN: No picture of the solutions: gnuplot is not installed.";
    EXPECT_THAT(out, HasSubstr(warning));
    EXPECT_EQ(out.find(warning), out.rfind(warning));
    EXPECT_FALSE(run_.exists("solutions.png"));
    EXPECT_TRUE(run_.exists("solutions.dat"));
}

TEST_F(PlotSolutionsRun, DrawsNothingUnlessAskedTo) {
    run("");
    EXPECT_FALSE(run_.exists("solutions.png"));
    EXPECT_FALSE(run_.exists("solutions_graph.g"));
}

TEST_F(PlotSolutionsRun, DrawsAPicture) {
    if (!have_gnuplot()) GTEST_SKIP() << "gnuplot is not installed";
    run("!plotsolutions\n");
    EXPECT_TRUE(run_.read("solutions.png").starts_with("\x89PNG\r\n"));
}

}  // namespace
}  // namespace zendar::test
