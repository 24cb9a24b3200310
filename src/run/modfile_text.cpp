#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "modfile.hpp"
#include "modfile_detail.hpp"

namespace zendar {

namespace {

constexpr std::size_t chunk = std::size_t{256} << 10;
/// A line above this is no text: without a limit a file of another kind could take all memory.
constexpr std::size_t longest_line = std::size_t{256} << 20;
constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

}  // namespace

struct text_reader::implementation {
    std::string name;
    int descriptor = -1;
    std::vector<char> buffer;
    std::size_t used = 0;        // bytes of the buffer that hold data
    std::size_t position = 0;    // where the next line starts
    std::size_t line_begin = 0;  // the line returned last, kept for `backspace`
    std::size_t line_size = 0;
    std::int64_t number = 0;
    bool again = false;       // the next line is the last one once more
    bool started = false;     // the byte-order mark was looked for
    bool discarded = false;   // the buffer no longer begins with the file's first byte
    bool end_of_file = true;  // nothing more to read into the buffer
    std::optional<file_error> error;

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

    /// Reads more behind what the buffer holds; the line returned last is kept. False at the end.
    bool fill() {
        if (end_of_file || error) return false;
        if (line_begin > 0 && buffer.size() - used < chunk / 2) {
            std::memmove(buffer.data(), buffer.data() + line_begin, used - line_begin);
            used -= line_begin;
            position -= line_begin;
            line_begin = 0;
            discarded = true;
        }
        if (buffer.size() - used < chunk / 2) buffer.resize(std::max(chunk, 2 * buffer.size()));

        const std::ptrdiff_t count =
            detail::read_some(descriptor, buffer.data() + used, buffer.size() - used);
        if (count < 0) {
            error = detail::system_error();
        } else if (count == 0) {
            end_of_file = true;
        } else {
            used += static_cast<std::size_t>(count);
        }
        return count > 0;
    }

    void skip_byte_order_mark() {
        started = true;
        while (used < byte_order_mark.size() && fill()) {
        }
        if (std::string_view(buffer.data(), used).starts_with(byte_order_mark))
            position = byte_order_mark.size();
        line_begin = position;
    }

    std::optional<std::string_view> next() {
        if (!started) skip_byte_order_mark();
        std::size_t searched = 0;  // bytes behind `position` without a line feed
        while (!error) {
            const std::size_t held = used - position - searched;
            const void* feed =
                held == 0 ? nullptr : std::memchr(buffer.data() + position + searched, '\n', held);
            if (feed != nullptr) {
                const auto end = static_cast<std::size_t>(static_cast<const char*>(feed) - buffer.data());
                return take(end, end + 1);
            }
            searched = used - position;
            if (searched > longest_line) {
                error = file_error{EOVERFLOW, "A line has more than 268435456 characters"};
            } else if (!fill()) {
                break;
            }
        }
        if (error || position == used) return std::nullopt;
        return take(used, used);
    }

    std::string_view take(std::size_t end, std::size_t next_position) {
        line_begin = position;
        if (end > line_begin && buffer[end - 1] == '\r') --end;
        line_size = end - line_begin;
        position = next_position;
        ++number;
        return last();
    }

    [[nodiscard]] std::string_view last() const { return {buffer.data() + line_begin, line_size}; }
};

text_reader::text_reader() : self_(std::make_unique<implementation>()) {}
text_reader::~text_reader() = default;
text_reader::text_reader(text_reader&&) noexcept = default;
text_reader& text_reader::operator=(text_reader&&) noexcept = default;

std::optional<file_error> text_reader::open(const std::filesystem::path& path) {
    self_->close();
    self_->name = path.string();
    auto failure = detail::open_for_reading(path.c_str(), self_->descriptor);
    self_->end_of_file = failure.has_value();
    return failure;
}

void text_reader::open_text(std::string text, std::string name) {
    self_->close();
    self_->name = std::move(name);
    self_->buffer.assign(text.begin(), text.end());
    self_->used = self_->buffer.size();
}

void text_reader::close() {
    self_->close();
}

std::optional<std::string_view> text_reader::line() {
    if (self_->again) {
        self_->again = false;
        return self_->last();
    }
    return self_->next();
}

void text_reader::backspace() {
    if (self_->number > 0 && !self_->error) self_->again = true;
}

void text_reader::rewind() {
    implementation& self = *self_;
    self.again = false;
    self.number = 0;
    self.error.reset();
    self.started = false;
    self.position = self.line_begin = self.line_size = 0;
    if (!self.discarded) return;  // the buffer still holds the file from its start: a pipe can do this too
    self.used = 0;
    if (lseek(self.descriptor, 0, SEEK_SET) != 0) {
        self.error = detail::system_error();
        return;
    }
    self.discarded = false;
    self.end_of_file = false;
}

std::int64_t text_reader::line_number() const {
    return self_->number;
}
const std::string& text_reader::name() const {
    return self_->name;
}
std::optional<file_error> text_reader::error() const {
    return self_->error;
}

}  // namespace zendar
