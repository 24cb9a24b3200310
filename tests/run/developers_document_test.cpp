#include <gmock/gmock.h>

#include <algorithm>
#include <set>

#include "document_text.hpp"

/// The documents for developers beside the tree that they tell of.
namespace zendar {
namespace {

namespace fs = std::filesystem;
using namespace test;
using testing::IsEmpty;
using testing::Not;

/// A file, a folder, or at least one file of a pattern with "*".
bool exists_in_tree(const std::string& path) {
    if (path.find('*') == std::string::npos) return fs::exists(tree / path);
    const fs::path folder = (tree / path).parent_path();
    const std::string pattern =
        std::regex_replace(fs::path(path).filename().string(), std::regex("\\*"), "[^/]*");
    if (!fs::is_directory(folder)) return false;
    return std::ranges::any_of(fs::directory_iterator(folder), [&](const auto& entry) {
        return std::regex_match(entry.path().filename().string(), std::regex(pattern));
    });
}

TEST(DocumentsForDevelopers, NamePathsThatExist) {
    EXPECT_FALSE(exists_in_tree("src/no_such_folder/*.cpp"));
    EXPECT_FALSE(exists_in_tree("src/run/no_such_*.cpp"));
    for (const std::string document : {"docs/developers.md", "docs/methods.md"}) {
        const std::vector<std::string> paths =
            matches(content(tree / document),
                    "`((?:src|external|tests|bench|fuzz|docs|scripts|cmake|packaging|examples)/[^` ]*)`");
        EXPECT_GT(paths.size(), 40U) << document;
        for (const std::string& path : paths) EXPECT_TRUE(exists_in_tree(path)) << document << ": " << path;
    }
}

TEST(DevelopersPage, HasTheFolderOfEveryHeader) {
    const std::string text = content(tree / "docs/developers.md");
    for (const auto& entry : fs::recursive_directory_iterator(tree / "src")) {
        if (entry.path().extension() != ".hpp") continue;
        const fs::path path = fs::relative(entry.path(), tree);
        EXPECT_TRUE(text.find("`" + path.string() + "`") < text.size() ||
                    text.find("`" + path.parent_path().string() + "`") < text.size())
            << "docs/developers.md lacks " << path;
    }
}

TEST(DevelopersPage, HasTheTargetsOfTheBuild) {
    std::set<std::string> built, shown;
    for (const char* file : {"src/CMakeLists.txt", "external/miraculix/CMakeLists.txt"}) {
        const std::string build = content(tree / file);
        const std::regex target(R"(zendar_library\((\w+) FOLDER (\w+)(?: MAY_INCLUDE ([a-z_ ]+))? SOURCES)");
        for (std::sregex_iterator at(build.begin(), build.end(), target), end; at != end; ++at)
            built.insert(at->str(1) + ": " + at->str(3));
    }
    for (const std::string& line : lines_of(content(tree / "docs/developers.md"))) {
        std::smatch parts;
        if (std::regex_match(line, parts, std::regex(R"(\| `zendar_(\w+)` \| [^|]+ \| ([a-z_ ]*?) ?\|)")))
            shown.insert(parts.str(1) + ": " + parts.str(2));
    }
    EXPECT_GT(built.size(), 10U);
    EXPECT_EQ(shown, built);
}

TEST(DevelopersPage, NamesOwnersThatAreInTheirHeaders) {
    const std::regex row(R"(\| [^|]+ \| `(\w+)` \| `(src/[^`]+)` \|)");
    int owners = 0;
    for (const std::string& line : lines_of(content(tree / "docs/developers.md"))) {
        std::smatch parts;
        if (!std::regex_match(line, parts, row)) continue;
        ++owners;
        EXPECT_THAT(matches(content(tree / parts.str(2)), "(struct|class) " + parts.str(1) + "\\b"),
                    Not(IsEmpty()))
            << line;
    }
    EXPECT_GT(owners, 10);
}

}  // namespace
}  // namespace zendar
