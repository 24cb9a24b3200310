#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "places.hpp"
#include "sparse_input.hpp"
#include "temporary_directory.hpp"

namespace zendar::test {
namespace {

/// Matrix files, sound and damaged: none may crash, hang or read outside a buffer. Damaged ones begin with
/// "bad".
TEST(SparseCorpus, IsReadOrRefused) {
    const auto folder = source_folder() / "fuzz" / "corpus" / "sparse";
    const temporary_directory directory;
    const working_directory at(directory.path());
    int sound = 0, damaged = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        std::ifstream file(entry.path(), std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();
        const bool expected = name.rfind("bad", 0) != 0;

        EXPECT_EQ(fuzz::read_sparse(text.str()), expected);
        (expected ? sound : damaged) += 1;
    }
    EXPECT_GE(sound, 5);
    EXPECT_GE(damaged, 5);
}

}  // namespace
}  // namespace zendar::test
