#include "modfile.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include "modfile_detail.hpp"

namespace zendar::detail {

pipe_guard::pipe_guard() {
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGPIPE) == 1;

    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &blocked, &old_);
}

pipe_guard::~pipe_guard() {
    const int code = errno;
    take();
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    errno = code;
}

bool pipe_guard::take() {
    if (was_pending_) return false;
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGPIPE);
    const timespec at_once{};
    int taken = -1;
    do {
        taken = sigtimedwait(&blocked, nullptr, &at_once);
    } while (taken == -1 && errno == EINTR);
    return taken == SIGPIPE;
}

int write_all(int descriptor, const char* data, std::size_t bytes) {
    const pipe_guard guard;
    while (bytes > 0) {
        const ssize_t written = ::write(descriptor, data, bytes);
        if (written < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        data += written;
        bytes -= static_cast<std::size_t>(written);
    }
    return 0;
}

std::ptrdiff_t read_some(int descriptor, char* data, std::size_t bytes) {
    ssize_t count = 0;
    do {
        count = ::read(descriptor, data, bytes);
    } while (count < 0 && errno == EINTR);
    return count;
}

std::optional<file_error> open_for_reading(const char* path, int& descriptor) {
    descriptor = -1;
    int opened = -1;
    do {
        opened = ::open(path, O_RDONLY | O_CLOEXEC);
    } while (opened < 0 && errno == EINTR);
    if (opened < 0) return system_error();

    struct stat status {};
    int code = fstat(opened, &status) != 0 ? errno : 0;
    if (code == 0 && S_ISDIR(status.st_mode)) code = EISDIR;
    if (code != 0) {
        ::close(opened);
        return system_error(code);
    }
    descriptor = opened;
    return std::nullopt;
}

}  // namespace zendar::detail
