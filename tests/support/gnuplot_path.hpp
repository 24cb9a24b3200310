#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "temporary_directory.hpp"

namespace zendar::test {

/// For as long as it lives, programs are looked for in a folder of its own, in which there is no gnuplot, or
/// one that a test put there.
class gnuplot_path {
  public:
    gnuplot_path() { setenv("PATH", folder_.path().c_str(), 1); }
    ~gnuplot_path() { setenv("PATH", old_.c_str(), 1); }
    gnuplot_path(const gnuplot_path&) = delete;
    gnuplot_path& operator=(const gnuplot_path&) = delete;

    /// A shell script of the name gnuplot; it finds the programs of before.
    void install(const std::string& lines) const {
        const auto file = folder_.write("gnuplot", "#!/bin/sh\nPATH='" + old_ + "'\n" + lines);
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    }

  private:
    temporary_directory folder_;
    std::string old_ = getenv("PATH") == nullptr ? "" : getenv("PATH");
};

inline bool have_gnuplot() {
    return std::system("gnuplot --version > /dev/null 2>&1") == 0;
}

}  // namespace zendar::test
