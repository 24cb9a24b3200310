#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "modfile.hpp"
#include "modlogger.hpp"
#include "modview.hpp"

/// Streams of doubles that a run leaves on disk while it needs its memory for other things.
namespace zendar {

/// Where the phenotypes wait while a solver iterates on the data: ntrait x nrec values.
inline constexpr const char* phentmp_file = "phentmp.stream";

/// A stream that is read back, from its start. A fault is told under the tags of the reader.
class temporary_stream {
  public:
    /// @param n        values of the file
    /// @param missing  the message when it cannot be opened
    /// @throws fatal_error  also for a file of any other size.
    temporary_stream(const char* file, std::int64_t n, const std::string& missing, std::string_view module,
                     std::string_view procedure, logger& log);
    /// The next values. @throws fatal_error  when they cannot be read.
    void read(std::span<double> values);

  private:
    const char* file_;
    std::string_view module_, procedure_;
    logger& log_;
    binary_reader in_;
};

/// The phenotypes from their stream, ntrait x nrec. No memory is asked for before the file was seen to have
/// as many.
[[nodiscard]] matrix<double> read_phentmp(std::int64_t ntrait, std::int64_t nrec, const std::string& missing,
                                          std::string_view module, std::string_view procedure, logger& log);

}  // namespace zendar
