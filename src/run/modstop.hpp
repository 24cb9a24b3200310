#pragma once

/// A wish from outside that the run should end early but in good order: SIGINT (Ctrl-C) and SIGTERM.
namespace zendar {

/// From now on the first SIGINT or SIGTERM is only noted; the next one ends the process, as without handlers.
/// A signal that the process was started to ignore stays ignored. To be called once, by the driver.
void install_stop_handlers();

/// True once a signal was noted. Safe at any place, also in parallel.
[[nodiscard]] bool stop_requested() noexcept;

/// "SIGINT" or "SIGTERM", the signal that was noted; empty without one.
[[nodiscard]] const char* stop_signal() noexcept;

/// Forgets a noted signal, and puts back what the signals did before `install_stop_handlers`.
void reset_stop();

}  // namespace zendar
