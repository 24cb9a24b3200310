#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "modfile.hpp"
#include "modfile_detail.hpp"

namespace zendar {

random_reader::~random_reader() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

std::optional<file_error> random_reader::open(const std::filesystem::path& path) {
    if (descriptor_ >= 0) ::close(descriptor_);
    size_ = 0;
    do {  // without O_NONBLOCK a pipe that nobody writes would never open
        descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    } while (descriptor_ < 0 && errno == EINTR);
    if (descriptor_ < 0) return detail::system_error();

    struct stat status {};
    if (fstat(descriptor_, &status) != 0) return detail::system_error();
    if (S_ISDIR(status.st_mode)) return detail::system_error(EISDIR);
    if (!S_ISREG(status.st_mode)) return file_error{ESPIPE, "Not a regular file"};
    size_ = status.st_size;
    return std::nullopt;
}

std::int64_t random_reader::read_at(std::int64_t offset, std::span<char> data) const noexcept {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t count = ::pread(descriptor_, data.data() + done, data.size() - done,
                                      static_cast<off_t>(offset) + static_cast<off_t>(done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return -1;
        if (count == 0) break;
        done += static_cast<std::size_t>(count);
    }
    return static_cast<std::int64_t>(done);
}

}  // namespace zendar
