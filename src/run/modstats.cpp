#include "modstats.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <limits>
#include <string>

#include "modbasic.hpp"
#include "modfile.hpp"

namespace zendar {

namespace {

double wall_clock() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Seconds that all threads of the process have used.
double cpu_clock() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

}  // namespace

cputime::cputime(logger& log, std::string_view text) : log_(log), wall_(wall_clock()), cpu_(cpu_clock()) {
    log.message(std::string(82, '*'));
    log.message(text);
}

void cputime::end(std::string_view text) {
    const double wall = wall_clock() - wall_, cpu = cpu_clock() - cpu_;
    report_cputime(log_, cpu, wall, text);
}

void report_cputime(logger& log, double cpu, double wall, std::string_view text) {
    log.message("");
    log.message("CPU time (s)       : " + realtochar(cpu, "(f0.3)"));
    log.message("Wall clock time (s): " + realtochar(wall, "(f0.3)"));
    log.message("\"Speedup\"          : " + realtochar(cpu / wall, "(f0.3)"));
    log.message(text);
}

wtime::wtime() : start_(wall_clock()) {}

void wtime::end(logger& log, std::string_view text) const {
    log.message(std::string(text) + " - Wall clock time (s): " + realtochar(seconds(), "(f0.3)"));
}

double wtime::seconds() const {
    return wall_clock() - start_;
}

void vmstat(logger& log, std::string_view text, const char* status_file) {
    constexpr std::array<std::string_view, 7> reported = {
        "VmPeak", "VmSize", "VmHWM:", "VmRSS:", "VmData", "VmStk:", "VmSwap"};
    const std::string path = status_file != nullptr
                                 ? std::string(status_file)
                                 : "/proc/" + inttochar(static_cast<std::int64_t>(getpid())) + "/status";
    text_reader status;
    if (status.open(path)) return;
    log.message(text);
    while (const auto line = status.line())
        if (std::any_of(reported.begin(), reported.end(),
                        [&](std::string_view label) { return line->starts_with(label); }))
            log.message(*line);
}

progress_line::progress_line(logger& log) : log_(log) {}

void progress_line::progressloop(std::int64_t i, std::int64_t n) {
    constexpr std::int64_t longest =
        std::numeric_limits<std::int64_t>::max() / 100;  // 100 i must not overflow
    if (n <= 0 || i <= 0) return;
    const std::int64_t percentage = i >= n ? 100 : i <= longest ? 100 * i / n : i / (n / 100);
    if (percentage <= percentage_) return;
    percentage_ = percentage == 100 ? 0 : percentage;
    log_.screen_raw("  " + inttochar(percentage) + (percentage == 100 ? "%\n" : "%"));
}

}  // namespace zendar
