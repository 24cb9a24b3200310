#include "modstop.hpp"

#include <csignal>

#include <array>
#include <atomic>

namespace zendar {

namespace {

// Handlers are a property of the process, as is what they note.
std::atomic<int> noted{0};
static_assert(std::atomic<int>::is_always_lock_free);

constexpr std::array<int, 2> signals = {SIGINT, SIGTERM};
std::array<struct sigaction, signals.size()> before;
bool installed = false;

bool is_ignored(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_IGN;
}

extern "C" void note_signal(int signal) {
    noted.store(signal);
    struct sigaction plain {};
    plain.sa_handler = SIG_DFL;
    for (const int each : signals) sigaction(each, &plain, nullptr);
}

}  // namespace

void install_stop_handlers() {
    if (installed) reset_stop();
    struct sigaction action {};
    action.sa_handler = note_signal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int each : signals) sigaddset(&action.sa_mask, each);
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaction(signals[i], nullptr, &before[i]);
        if (!is_ignored(before[i])) sigaction(signals[i], &action, nullptr);
    }
    installed = true;
}

bool stop_requested() noexcept {
    return noted.load() != 0;
}

const char* stop_signal() noexcept {
    switch (noted.load()) {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        default:
            return "";
    }
}

void reset_stop() {
    if (installed)
        for (std::size_t i = 0; i < signals.size(); ++i) sigaction(signals[i], &before[i], nullptr);
    installed = false;
    noted.store(0);
}

}  // namespace zendar
