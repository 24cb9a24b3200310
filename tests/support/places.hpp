#pragma once

#include <filesystem>
#include <string>

/// Where this build and its sources lie. One translation unit knows it, so that all others compile to the
/// same in any folder.
namespace zendar::test {

std::filesystem::path source_folder();
std::filesystem::path build_folder();
/// A file beside the programs of this build: zendar, zendar-matrices, ...
std::string program_file(const std::string& name = "zendar");
std::string cmake_file();

}  // namespace zendar::test
