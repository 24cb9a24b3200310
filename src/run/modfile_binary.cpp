#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "modfile.hpp"
#include "modfile_detail.hpp"

namespace zendar {

struct binary_reader::implementation {
    int descriptor = -1;
    std::int64_t size = 0;
    std::int64_t position = 0;
    std::vector<char> buffer;
    std::size_t begin = 0, end = 0;  // unread part of the buffer

    implementation() = default;
    implementation(const implementation&) = delete;
    implementation& operator=(implementation&&) = default;
    ~implementation() {
        if (descriptor >= 0) ::close(descriptor);
    }

    void close() {
        if (descriptor >= 0) ::close(descriptor);
        *this = implementation();
    }

    /// Reads straight into `data`; false when the file has become shorter or cannot be read.
    bool read_all(char* data, std::size_t bytes) {
        while (bytes > 0) {
            const std::ptrdiff_t count = detail::read_some(descriptor, data, bytes);
            if (count <= 0) return false;
            data += count;
            bytes -= static_cast<std::size_t>(count);
        }
        return true;
    }

    bool read(char* data, std::size_t bytes) {
        const std::size_t held = std::min(bytes, end - begin);
        if (held > 0) std::memcpy(data, buffer.data() + begin, held);
        begin += held;
        data += held;
        bytes -= held;
        if (bytes >= buffer.size()) return read_all(data, bytes);
        if (bytes == 0) return true;

        // The buffer is empty now; the file holds at least `bytes` more, as the caller has checked.
        begin = end = 0;
        while (end < bytes) {
            const std::ptrdiff_t count =
                detail::read_some(descriptor, buffer.data() + end, buffer.size() - end);
            if (count <= 0) return false;
            end += static_cast<std::size_t>(count);
        }
        std::memcpy(data, buffer.data(), bytes);
        begin = bytes;
        return true;
    }
};

binary_reader::binary_reader() : self_(std::make_unique<implementation>()) {}
binary_reader::~binary_reader() = default;
binary_reader::binary_reader(binary_reader&&) noexcept = default;
binary_reader& binary_reader::operator=(binary_reader&&) noexcept = default;

std::optional<file_error> binary_reader::open(const std::filesystem::path& path) {
    implementation& self = *self_;
    self.close();
    if (auto failure = detail::open_for_reading(path.c_str(), self.descriptor)) return failure;
    struct stat status {};
    if (fstat(self.descriptor, &status) != 0) {
        const file_error failure = detail::system_error();
        self.close();
        return failure;
    }
    if (S_ISFIFO(status.st_mode) ||
        S_ISSOCK(status.st_mode)) {  // its size, which all checks need, is unknown
        self.close();
        return detail::system_error(ESPIPE);
    }
    self.size = status.st_size;
    self.buffer.resize(std::size_t{1} << 20);
    return std::nullopt;
}

bool binary_reader::read_bytes(void* data, std::size_t bytes) {
    implementation& self = *self_;
    if (bytes > static_cast<std::size_t>(self.size - self.position)) return false;
    if (bytes == 0) return true;
    if (!self.read(static_cast<char*>(data), bytes)) {
        self.size = self.position;  // nothing more can be read from here on
        return false;
    }
    self.position += static_cast<std::int64_t>(bytes);
    return true;
}

std::int64_t binary_reader::size() const {
    return self_->size;
}
std::int64_t binary_reader::position() const {
    return self_->position;
}

}  // namespace zendar
