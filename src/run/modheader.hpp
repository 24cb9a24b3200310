#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "modlogger.hpp"

namespace zendar {

/// What the build knows of itself; see modheader_version.hpp.in.
struct build_stamp {
    std::string compiler, date, time, version, commit;
    bool gpu = false;  ///< the kernels for graphics cards are part of the build
};
build_stamp this_build();

/// Banner state of one run.
class run_banner {
  public:
    /// @param name  title in capitals, as it stands in the box and in the marker's name.
    explicit run_banner(std::string name);

    /// The opening banner; removes an old marker file "OK_<name>".
    void header(logger& log, const build_stamp& build);
    /// The closing banner; creates the marker file "OK_<name>".
    void endheader(logger& log);
    /// Removes the marker file if there is one.
    void remove_marker(logger& log) const;

  private:
    [[nodiscard]] std::string marker_file() const;

    std::string name_;
    double starttime_ = 0.0;
};

/// Three lines that box the title.
void write_nameprog(logger& log, std::string_view name);

/// The prefix, then the local time in the form "21-11-2026 at 02h 31m 06s", always 25 characters.
void write_time(logger& log, std::string_view prefix);

/// Runs the commands of a text file, one a line, if it exists.
/// @throws fatal_error  with the command's exit status when it is not 0.
void run_script(logger& log, const std::filesystem::path& path);

}  // namespace zendar
