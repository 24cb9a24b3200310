#include "modsolvertype_control.hpp"

#include <algorithm>
#include <optional>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modstop.hpp"

namespace zendar {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view module_tag = "modsolvertype";
constexpr std::string_view procedure = "check_continue";
constexpr const char* stop_file = "STOP";
constexpr std::string_view consequence = "The PCG will be stopped after the current iteration!";

/// Directories, and what would block a reader, are no files.
bool is_file(const fs::path& path) {
    std::error_code ignored;
    return fs::is_regular_file(path, ignored);
}

bool take_stop_file(logger& log) {
    if (!is_file(stop_file)) return false;
    log.warning("A file \"" + std::string(stop_file) + "\" was found! " + std::string(consequence));
    std::error_code failure;
    if (!fs::remove(stop_file, failure) && failure)
        log.warning("The file \"" + std::string(stop_file) + "\" cannot be removed: " + failure.message());
    return true;
}

/// The integer at the head of a file. A file that somebody is just writing may well be empty.
std::optional<std::int32_t> read_limit(const fs::path& path, std::int32_t now) {
    constexpr std::int64_t longest = 4096;
    if (!is_file(path)) return std::nullopt;
    binary_reader file;
    if (file.open(path)) return std::nullopt;
    std::string text(static_cast<std::size_t>(std::clamp<std::int64_t>(file.size(), 0, longest)), '\0');
    if (text.empty() || !file.read_bytes(text.data(), text.size())) return std::nullopt;

    text_reader lines;
    lines.open_text(std::move(text), path.string());
    list_read statement(lines);
    std::int32_t value = now;  // a null value leaves it as it is
    if (!statement.get(value).ok()) return std::nullopt;
    return value;
}

}  // namespace

void check_continue(const solver_type& solver, std::int32_t& maxiter_now, logger& log) {
    bool stop = take_stop_file(log);
    if (stop_requested()) {
        log.warning("The signal " + std::string(stop_signal()) + " was received! " +
                    std::string(consequence));
        stop = true;
    }
    if (stop) {
        maxiter_now = 1;
        return;
    }

    const std::optional<std::int32_t> asked = read_limit(solver.iterfile, maxiter_now);
    if (!asked) return;
    const std::int32_t limit = std::min(*asked, solver.maxiter);
    if (limit == maxiter_now) return;
    log.message("Maximum number of iterations is adjusted");
    log.message("Current number of iterations is " + inttochar(maxiter_now));
    log.message("New     number of iterations is " + inttochar(limit));
    maxiter_now = limit;
    if (maxiter_now == 0)
        fatal(log, "Illegal value for max. iterations encountered: " + inttochar(maxiter_now), module_tag,
              procedure);
}

}  // namespace zendar
