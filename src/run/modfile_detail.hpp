#pragma once

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <optional>
#include <system_error>

#include "modfile.hpp"

/// What the readers and writers of files and the log files share; private to their sources.
namespace zendar::detail {

/// The error of a system call that has just failed.
inline file_error system_error(int code = errno) {
    return {code, std::generic_category().message(code)};
}

/// Keeps SIGPIPE from ending the process while a pipe that nobody reads any more is written. Only this thread
/// is touched, so commands that are started later still get the signal.
class pipe_guard {
  public:
    pipe_guard();
    ~pipe_guard();
    pipe_guard(const pipe_guard&) = delete;
    pipe_guard& operator=(const pipe_guard&) = delete;

    /// Takes the signal back. @returns true when a pipe was found broken since the guard stands.
    bool take();

  private:
    sigset_t old_{};
    bool was_pending_ = false;
};

/// Writes all bytes to a descriptor; 0, or the error's number.
int write_all(int descriptor, const char* data, std::size_t bytes);

/// Reads up to `bytes`, again after an interruption; 0 at the end of the file, -1 with `errno` set on an
/// error.
std::ptrdiff_t read_some(int descriptor, char* data, std::size_t bytes);

/// Opens a file for reading; a directory is an error. @returns the descriptor through `descriptor`.
std::optional<file_error> open_for_reading(const char* path, int& descriptor);

}  // namespace zendar::detail
