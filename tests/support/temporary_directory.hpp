#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zendar::test {

/// A directory of its own for one test, removed at the end.
class temporary_directory {
  public:
    temporary_directory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zendar_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~temporary_directory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    temporary_directory(const temporary_directory&) = delete;
    temporary_directory& operator=(const temporary_directory&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

    std::filesystem::path write(std::string_view name, std::string_view text) const {
        const auto file = path_ / name;
        std::ofstream(file, std::ios::binary) << text;
        return file;
    }
    [[nodiscard]] std::string read(std::string_view name) const {
        std::ifstream file(path_ / name, std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }
    [[nodiscard]] bool exists(std::string_view name) const { return std::filesystem::exists(path_ / name); }

  private:
    std::filesystem::path path_;
};

/// Makes a directory the working directory for as long as the object lives.
class working_directory {
  public:
    explicit working_directory(const std::filesystem::path& path) : old_(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    ~working_directory() {
        std::error_code ignored;
        std::filesystem::current_path(old_, ignored);
    }
    working_directory(const working_directory&) = delete;
    working_directory& operator=(const working_directory&) = delete;

  private:
    std::filesystem::path old_;
};

}  // namespace zendar::test
