#include "modplot.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

extern char** environ;  // NOLINT: of the C library

namespace zendar {

plot_result run_gnuplot(const std::string& script) {
    std::string program = "gnuplot", file = script;
    const std::array<char*, 3> arguments{program.data(), file.data(), nullptr};

    posix_spawn_file_actions_t files;
    if (posix_spawn_file_actions_init(&files) != 0) return plot_result::failed;
    const bool silent =
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
        posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0) == 0 &&
        posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0) == 0;
    pid_t child = 0;
    const int error =
        silent ? posix_spawnp(&child, arguments[0], &files, nullptr, arguments.data(), environ) : EIO;
    posix_spawn_file_actions_destroy(&files);
    // No folder of the path has it, or none that may be searched.
    if (error == ENOENT || error == ENOTDIR || error == EACCES) return plot_result::no_gnuplot;
    if (error != 0) return plot_result::failed;

    int status = 0;
    pid_t ended = 0;
    do ended = waitpid(child, &status, 0);
    while (ended < 0 && errno == EINTR);
    const bool good = ended == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return good ? plot_result::drawn : plot_result::failed;
}

}  // namespace zendar
