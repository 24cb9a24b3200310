// libFuzzer target: external_fuzz fuzz/corpus/external

#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "external_input.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::string pattern = (std::filesystem::temp_directory_path() / "zendar_fuzz_XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return 1;
    // Corpus paths are resolved before this point only when they are absolute.
    std::filesystem::current_path(pattern);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zendar::fuzz::read_external({reinterpret_cast<const char*>(data), size});
    return 0;
}
