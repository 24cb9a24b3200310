#pragma once

#include <limits>
#include <sstream>
#include <string>

#include "modlogger.hpp"

namespace zendar::test {

/// A logger whose lines, not broken at any width, are kept as text.
class captured_log {
  public:
    captured_log() {
        log_.add_stream(stream_);
        log_.configure({.max_width = std::numeric_limits<int>::max(), .indent = false});
    }

    operator logger&() { return log_; }
    [[nodiscard]] std::string text() const { return stream_.str(); }

  private:
    std::ostringstream stream_;
    logger log_;
};

/// The message of the `fatal_error` that a call ends with; "no fatal_error" when it does not.
template <class Call>
std::string fatal_message(Call&& call) {
    try {
        call();
    } catch (const fatal_error& failure) {
        return failure.what();
    }
    return "no fatal_error";
}

}  // namespace zendar::test
