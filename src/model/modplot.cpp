#include "modplot.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

extern char** environ;  // NOLINT: of the C library

namespace zendar {

gnuplot_run::gnuplot_run(const std::string& script) {
    std::string program = "gnuplot", file = script;
    const std::array<char*, 3> arguments{program.data(), file.data(), nullptr};

    result_ = plot_result::failed;
    posix_spawn_file_actions_t files;
    if (posix_spawn_file_actions_init(&files) != 0) return;
    const bool silent =
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
        posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0) == 0 &&
        posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0) == 0;
    pid_t child = 0;
    const int error =
        silent ? posix_spawnp(&child, arguments[0], &files, nullptr, arguments.data(), environ) : EIO;
    posix_spawn_file_actions_destroy(&files);
    // No folder of the path has it, or none that may be searched.
    if (error == ENOENT || error == ENOTDIR || error == EACCES) result_ = plot_result::no_gnuplot;
    if (error == 0) child_ = child;
}

gnuplot_run& gnuplot_run::operator=(gnuplot_run&& other) noexcept {
    if (this == &other) return *this;
    wait();
    child_ = std::exchange(other.child_, 0);
    result_ = other.result_;
    return *this;
}

plot_result gnuplot_run::wait() noexcept {
    if (child_ == 0) return result_;
    int status = 0;
    pid_t ended = 0;
    do ended = waitpid(child_, &status, 0);
    while (ended < 0 && errno == EINTR);
    const bool good = ended == child_ && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    child_ = 0;
    return result_ = good ? plot_result::drawn : plot_result::failed;
}

}  // namespace zendar
