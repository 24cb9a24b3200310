#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "coo_input.hpp"
#include "covariable_input.hpp"
#include "external_input.hpp"
#include "places.hpp"
#include "temporary_directory.hpp"

namespace zendar::test {
namespace {

/// Replays the inputs of a fuzzer, sound and damaged: none may crash, hang or read outside a buffer. Damaged
/// ones begin with "bad"; of those that the fuzzer found, "found", either may be true.
void replay(const char* corpus, bool (*read)(std::string_view)) {
    const auto folder = source_folder() / "fuzz" / "corpus" / corpus;
    const temporary_directory directory;
    const working_directory at(directory.path());
    int sound = 0, damaged = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        std::ifstream file(entry.path(), std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();

        bool good = false;
        EXPECT_NO_THROW(good = read(text.str()));
        if (name.starts_with("found")) continue;
        const bool expected = !name.starts_with("bad");
        EXPECT_EQ(good, expected);
        (expected ? sound : damaged) += 1;
    }
    EXPECT_GE(sound, 5);
    EXPECT_GE(damaged, 5);
}

TEST(CovariableCorpus, IsReadOrRefused) {
    replay("covariable", fuzz::read_covariable);
}

TEST(CooCorpus, IsReadOrRefused) {
    replay("coo", fuzz::read_coo);
}

TEST(ExternalCorpus, IsReadOrRefused) {
    replay("external", fuzz::read_external);
}

}  // namespace
}  // namespace zendar::test
