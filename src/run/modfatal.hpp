#pragma once

#include <stdexcept>
#include <string>

namespace zendar {

/// The one type for everything that ends a run with an error. It is thrown where the condition is found,
/// after its message went to the logger, and is caught in `run_zendar` only.
class fatal_error : public std::runtime_error {
  public:
    explicit fatal_error(const std::string& message, int status = 1)
        : std::runtime_error(message), status_(status) {}

    /// Exit status of the process; never 0.
    [[nodiscard]] int status() const noexcept { return status_; }

  private:
    int status_;
};

}  // namespace zendar
