#include "places.hpp"

namespace zendar::test {

std::filesystem::path source_folder() {
    return ZENDAR_SOURCE_FOLDER;
}
std::filesystem::path build_folder() {
    return ZENDAR_BUILD_FOLDER;
}
std::string program_file(const std::string& name) {
    return std::filesystem::path(ZENDAR_PROGRAM_FOLDER) / name;
}
std::string cmake_file() {
    return ZENDAR_CMAKE;
}

}  // namespace zendar::test
