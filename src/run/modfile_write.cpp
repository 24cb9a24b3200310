#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cstdio>
#include <cstring>

#include "modfile.hpp"
#include "modfile_detail.hpp"

namespace zendar {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t buffer_size = std::size_t{1} << 20;

/// Follows symbolic links to the file that is to be written, which need not exist yet.
std::optional<file_error> follow_links(fs::path& path) {
    for (int links = 0; links < 40; ++links) {
        std::error_code code;
        const fs::path next = fs::read_symlink(path, code);
        if (code) return std::nullopt;  // no link, or nothing there: what is wrong shows when it is opened
        path = next.is_absolute() ? next : path.parent_path() / next;
    }
    return detail::system_error(ELOOP);
}

/// Creates a new file beside `target`, with a name that no other writer has.
int create_beside(const fs::path& target, std::string& part) {
    // A long name is shortened, so that the longer name of the part stays within the limit of file systems.
    const std::string stem = "." + target.filename().string().substr(0, 200) + "." +
                             inttochar(static_cast<std::int64_t>(getpid()));
    for (std::int64_t attempt = 0;; ++attempt) {
        const std::string ending = attempt == 0 ? ".part" : "." + inttochar(attempt) + ".part";
        part = (target.parent_path() / (stem + ending)).string();
        const int descriptor = ::open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (descriptor >= 0 || errno != EEXIST || attempt == 1000) return descriptor;
    }
}

}  // namespace

struct file_writer::implementation {
    std::string name;
    std::string target;  // where `part` goes in `commit`
    std::string part;    // empty when the file is written in place
    int descriptor = -1;
    std::vector<char> buffer;
    std::size_t used = 0;
    std::optional<file_error> error;

    implementation() = default;
    implementation(const implementation&) = delete;
    implementation& operator=(const implementation&) = delete;
    ~implementation() { discard(); }

    void discard() {
        if (descriptor >= 0) ::close(descriptor);
        descriptor = -1;
        if (!part.empty()) ::unlink(part.c_str());
        part.clear();
        used = 0;
    }

    void put(const char* data, std::size_t bytes) {
        if (error || bytes == 0) return;
        if (const int code = detail::write_all(descriptor, data, bytes); code != 0)
            error = detail::system_error(code);
    }

    void flush() {
        put(buffer.data(), used);
        used = 0;
    }
};

file_writer::file_writer() : self_(std::make_unique<implementation>()) {}
file_writer::~file_writer() = default;
file_writer::file_writer(file_writer&&) noexcept = default;
file_writer& file_writer::operator=(file_writer&&) noexcept = default;

std::optional<file_error> file_writer::open(const fs::path& path) {
    implementation& self = *self_;
    self.discard();
    self.name = path.string();
    self.error.reset();

    fs::path target = path;
    if (auto failure = follow_links(target)) return failure;
    struct stat status {};
    const bool exists = ::stat(target.c_str(), &status) == 0;
    if (!exists && errno != ENOENT) return detail::system_error();
    if (exists && S_ISDIR(status.st_mode)) return detail::system_error(EISDIR);
    if (!exists && target.filename().empty()) return detail::system_error(target.empty() ? ENOENT : EISDIR);

    if (exists && !S_ISREG(status.st_mode)) {  // a device or a pipe is written, never replaced
        self.descriptor = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
    } else {
        if (exists && ::access(target.c_str(), W_OK) != 0) return detail::system_error();
        self.descriptor = create_beside(target, self.part);
    }
    if (self.descriptor < 0) {
        const file_error failure = detail::system_error();
        self.part.clear();  // it is not ours
        return failure;
    }
    self.target = target.string();
    self.buffer.resize(buffer_size);
    return std::nullopt;
}

void file_writer::write(std::string_view text) {
    write_bytes(text.data(), text.size());
}

void file_writer::write_bytes(const void* data, std::size_t bytes) {
    implementation& self = *self_;
    assert(self.descriptor >= 0);
    if (bytes > self.buffer.size() - self.used) self.flush();
    if (bytes >= self.buffer.size()) {
        self.put(static_cast<const char*>(data), bytes);
    } else if (bytes > 0) {
        std::memcpy(self.buffer.data() + self.used, data, bytes);
        self.used += bytes;
    }
}

char* file_writer::reserve(std::size_t bytes) {
    implementation& self = *self_;
    assert(self.descriptor >= 0 && bytes <= (std::size_t{64} << 10));
    if (bytes > self.buffer.size() - self.used) self.flush();
    return self.buffer.data() + self.used;
}

void file_writer::advance(std::size_t bytes) {
    assert(bytes <= self_->buffer.size() - self_->used);
    self_->used += bytes;
}

bool file_writer::failed() const {
    return self_->error.has_value();
}

std::optional<file_error> file_writer::commit() {
    implementation& self = *self_;
    if (self.descriptor < 0) return detail::system_error(EBADF);
    self.flush();
    if (::close(self.descriptor) != 0 && errno != EINTR && !self.error) self.error = detail::system_error();
    self.descriptor = -1;
    if (!self.error && !self.part.empty()) {
        if (std::rename(self.part.c_str(), self.target.c_str()) == 0)
            self.part.clear();
        else
            self.error = detail::system_error();
    }
    self.discard();
    return self.error;
}

const std::string& file_writer::name() const {
    return self_->name;
}

}  // namespace zendar
