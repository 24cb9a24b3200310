#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "model_input.hpp"
#include "places.hpp"
#include "temporary_directory.hpp"

namespace zendar::test {
namespace {

/// Inputs that the fuzzer found interesting: none may crash, hang or read outside a buffer.
TEST(FuzzCorpus, IsReadWithoutACrash) {
    const auto folder = source_folder() / "fuzz" / "corpus" / "model";
    const temporary_directory directory;
    const working_directory at(directory.path());
    int inputs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        SCOPED_TRACE(entry.path().filename().string());
        std::ifstream file(entry.path(), std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();

        EXPECT_NO_THROW(fuzz::read_model(text.str()));
        ++inputs;
    }
    EXPECT_GE(inputs, 5);
}

}  // namespace
}  // namespace zendar::test
