#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "page.hpp"

/// What README.md and the pages of `docs` print for the tree itself (build, test, install, package,
/// sanitizers, fuzzers) is executed in a copy of the tree, page after page.
///
/// That compiles everything anew for each preset, so it is done where scripts/check.sh has started the tests:
/// what was compiled there is taken from its cache.
namespace zendar::test {
namespace {

namespace fs = std::filesystem;

/// The sources without what was built, in the folder of the build: the compiler's cache knows paths below the
/// tree.
class copied_tree {
  public:
    copied_tree() {
        fs::remove_all(folder_);
        fs::create_directories(folder_ / "tree");
        fs::create_directories(folder_ / "home");
        for (const auto& entry : fs::directory_iterator(source_folder())) {
            const std::string name = entry.path().filename().string();
            if (name == "build" || name == ".git" || name == ".cache") continue;
            fs::copy(entry.path(), folder_ / "tree" / name,
                     fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        }
    }
    ~copied_tree() {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
    }
    copied_tree(const copied_tree&) = delete;
    copied_tree& operator=(const copied_tree&) = delete;

    [[nodiscard]] fs::path tree() const { return folder_ / "tree"; }
    [[nodiscard]] fs::path home() const { return folder_ / "home"; }

  private:
    fs::path folder_ = build_folder() / "printed_commands";
};

TEST(DocumentBuilds, AreExecuted) {
    if (std::getenv("CMAKE_CXX_COMPILER_LAUNCHER") == nullptr)
        GTEST_SKIP()
            << "would compile everything again; scripts/check.sh keeps what it compiles and runs this test";
    const copied_tree copy;
    page_shell shell(copy.tree());
    // All tests run around this one; those of the copy are a few, without this one.
    ASSERT_EQ(
        shell.run("export HOME=" + copy.home().string() + " GTEST_FILTER='*Chebyshev*:TextReader*'")
            .status,
        0);
    page_result result;
    for (const std::string& page : pages()) {
        const std::size_t faults = result.faults.size();
        for (const command_block& block :
             read_page(content(source_folder() / page), result.faults, page_rule::prose_and_runs)) {
            if (!block.in_the_tree) continue;
            const auto start = std::chrono::steady_clock::now();
            const bool good = run_block(block, shell, result, std::chrono::minutes(30));
            const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
            std::cout << page << ", line " << block.line << ": " << block.commands.size() << " commands, "
                      << seconds.count() << " s" << std::endl;
            if (!good) break;
        }
        ASSERT_EQ(result.faults.size(), faults) << page << ", " << result.faults.back();
    }
    EXPECT_GT(result.commands, 0);
}

}  // namespace
}  // namespace zendar::test
