#pragma once

#include <cstdint>
#include <string_view>

#include "modlogger.hpp"

namespace zendar {

/// Wall clock and CPU time of one stage: a pair of reports.
class cputime {
  public:
    /// Logs a line of 82 asterisks and the text ("START: ...").
    cputime(logger& log, std::string_view text);
    /// Logs an empty line, "CPU time (s)       : ", "Wall clock time (s): ", '"Speedup"          : ' in
    /// "(f0.3)", and the text ("END: ...").
    void end(std::string_view text);

  private:
    logger& log_;
    double wall_, cpu_;
};

/// The report of `cputime::end` for given seconds. Without wall time the speedup is what a division by zero
/// gives.
void report_cputime(logger& log, double cpu, double wall, std::string_view text);

/// Wall clock of one step.
class wtime {
  public:
    wtime();
    /// Logs the text followed by " - Wall clock time (s): " in "(f0.3)".
    void end(logger& log, std::string_view text) const;
    /// Seconds since construction.
    [[nodiscard]] double seconds() const;

  private:
    double start_;
};

/// Logs the text and the memory lines of the process status file, whose path is an argument for tests.
/// Nothing is printed when the file does not exist.
void vmstat(logger& log, std::string_view text, const char* status_file = nullptr);

/// The percentage of a loop on the screen, as two blanks, the number and "%", only when it has grown.
/// At 100 the line ends and the percentage goes back to 0. One thread at a time.
class progress_line {
  public:
    explicit progress_line(logger& log);
    void progressloop(std::int64_t i, std::int64_t n);

  private:
    logger& log_;
    std::int64_t percentage_ = 0;
};

}  // namespace zendar
