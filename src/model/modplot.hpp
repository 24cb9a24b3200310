#pragma once

#include <sys/types.h>

#include <string>
#include <utility>

/// Pictures by gnuplot, which runs on a script and may be missing.
namespace zendar {

enum class plot_result { drawn, no_gnuplot, failed };

/// gnuplot at work on a script, without a shell and silently, beside the program. The end of its life waits
/// for it.
class gnuplot_run {
  public:
    gnuplot_run() = default;
    explicit gnuplot_run(const std::string& script);
    ~gnuplot_run() { wait(); }
    gnuplot_run(const gnuplot_run&) = delete;
    gnuplot_run& operator=(const gnuplot_run&) = delete;
    gnuplot_run(gnuplot_run&& other) noexcept
        : child_(std::exchange(other.child_, 0)), result_(other.result_) {}
    /// Waits for its own gnuplot first.
    gnuplot_run& operator=(gnuplot_run&& other) noexcept;

    /// Waits for the end of the work.
    plot_result wait() noexcept;

  private:
    pid_t child_ = 0;  ///< 0: nothing to wait for
    plot_result result_ = plot_result::drawn;
};

}  // namespace zendar
