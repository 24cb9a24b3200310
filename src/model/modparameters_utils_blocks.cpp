#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <system_error>

#include "modbasic.hpp"
#include "modparameters_utils_lines.hpp"

namespace zendar::detail {

namespace {

constexpr std::int64_t largest_block = std::int64_t{1} << 20;
constexpr std::int64_t smallest_block = std::int64_t{64} << 10;
constexpr std::int64_t memory_of_all_threads = std::int64_t{32} << 20;
constexpr std::int64_t longest_first_line = 1'000'000;  ///< columns are counted in this many characters
constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

std::int64_t count_line_feeds(const char* p, std::int64_t size) {
    constexpr std::int64_t step =
        128;  // a sum of one byte cannot overflow, so that 16 or 32 are added at once
    std::int64_t count = 0, at = 0;
    for (; at + step <= size; at += step) {
        unsigned char sum = 0;
        for (std::int64_t k = 0; k < step; ++k) sum = static_cast<unsigned char>(sum + (p[at + k] == '\n'));
        count += sum;
    }
    return count + std::count(p + at, p + size, '\n');
}

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

/// Makes room; may be called in a parallel region.
bool ensure_size(std::vector<char>& buffer, std::int64_t size, record_fault& fault) noexcept {
    try {
        if (static_cast<std::int64_t>(buffer.size()) < size) buffer.resize(static_cast<std::size_t>(size));
        return true;
    } catch (const std::bad_alloc&) {
        fault.set(record_fault_kind::no_memory, 0);
        return false;
    }
}

file_error error_of(const record_fault& fault) {
    if (fault.kind == record_fault_kind::no_memory) throw std::bad_alloc();
    if (fault.kind == record_fault_kind::file_changed)
        return {-1, "End of file: the file has become shorter while it was read"};
    return {fault.code, std::generic_category().message(fault.code)};
}

}  // namespace

block_file::block_file(reading_sizes sizes) : sizes_(sizes) {
    if (sizes_.block > 0) return;
    sizes_.block = std::clamp(memory_of_all_threads / omp_get_max_threads(), smallest_block, largest_block);
}

bool block_file::read(std::int64_t from, std::int64_t to, char* data, record_fault& fault) const {
    const std::int64_t count = file_.read_at(begin_ + from, {data, static_cast<std::size_t>(to - from)});
    if (count == to - from) return true;
    fault.set(count < 0 ? record_fault_kind::read_error : record_fault_kind::file_changed, 0);
    if (count < 0) fault.code = errno;
    return false;
}

std::optional<file_error> block_file::open(const std::filesystem::path& path) {
    if (auto failure = file_.open(path)) return failure;
    begin_ = 0;
    end_ = file_.size();
    std::string start(byte_order_mark.size(), ' ');
    record_fault fault;
    if (end_ >= std::ssize(start)) {
        if (!read(0, std::ssize(start), start.data(), fault)) return error_of(fault);
        if (start == byte_order_mark) begin_ = std::ssize(start);
    }
    return find_end();
}

/// Blank lines at the end hold no records: the content ends with its last other character.
std::optional<file_error> block_file::find_end() {
    std::vector<char> piece(static_cast<std::size_t>(smallest_block));
    while (end_ > begin_) {
        const std::int64_t size = std::min(std::ssize(piece), end_ - begin_);
        record_fault fault;
        if (!read(bytes() - size, bytes(), piece.data(), fault)) return error_of(fault);
        std::int64_t kept = size;
        while (kept > 0 && is_space(piece[kept - 1])) --kept;
        end_ -= size - kept;
        if (kept > 0) break;
    }
    return std::nullopt;
}

bool block_file::read_block(std::int64_t block, std::vector<char>& buffer, std::int64_t& used,
                            record_fault& fault) const {
    const std::int64_t from = block * sizes_.block - (block > 0 ? 1 : 0);
    const std::int64_t to = std::min((block + 1) * sizes_.block, bytes());
    used = to - from;
    return ensure_size(buffer, sizes_.block + sizes_.overhang + 1, fault) &&
           read(from, to, buffer.data(), fault);
}

std::int64_t block_file::count_feeds(std::int64_t block, std::vector<char>& buffer,
                                     record_fault& fault) const {
    std::int64_t used = 0;
    if (!read_block(block, buffer, used, fault)) return 0;
    const std::int64_t before = block > 0 ? 1 : 0;
    return count_line_feeds(buffer.data() + before, used - before);
}

std::optional<file_error> block_file::index_lines(std::int64_t enough) {
    feeds_before_.assign(1, 0);
    lines_ = 0;
    const std::int64_t all = blocks();
    const std::int64_t batch = enough > 0 ? 8 * std::int64_t{omp_get_max_threads()} : all;
    while (std::ssize(feeds_before_) <= all && (enough < 1 || feeds_before_.back() < enough)) {
        const std::int64_t first = std::ssize(feeds_before_) - 1;
        const std::int64_t last = std::min(first + batch, all);
        std::vector<std::int64_t> feeds(static_cast<std::size_t>(last - first));
        record_fault bad;
#pragma omp parallel default(none) shared(first, last, feeds, bad)
        {
            std::vector<char> buffer;
            record_fault fault;
#pragma omp for schedule(dynamic, 1)
            for (std::int64_t block = first; block < last; ++block)
                if (fault.kind == record_fault_kind::none)
                    feeds[block - first] = count_feeds(block, buffer, fault);
#pragma omp critical(zendar_index_lines)
            if (fault.kind != record_fault_kind::none) bad = fault;
        }
        if (bad.kind != record_fault_kind::none) return error_of(bad);
        for (const std::int64_t count : feeds) feeds_before_.push_back(feeds_before_.back() + count);
    }
    lines_ = feeds_before_.back();
    if (std::ssize(feeds_before_) == all + 1 && !empty()) ++lines_;  // the last line ends with the content
    return std::nullopt;
}

std::int64_t block_file::blocks_of(std::int64_t n) const {
    // Line k starts behind line feed k - 1.
    const auto behind = std::lower_bound(feeds_before_.begin(), feeds_before_.end(), n);
    return std::min<std::int64_t>(behind - feeds_before_.begin(), std::ssize(feeds_before_) - 1);
}

bool block_file::complete_last_line(std::int64_t at, std::int64_t& used, std::vector<char>& buffer,
                                    line_block& lines, record_fault& fault) const {
    for (std::int64_t taken = 0; at < bytes(); taken += sizes_.overhang) {
        if (taken >= sizes_.longest_record) {
            lines.cut = true;
            return true;
        }
        const std::int64_t size = std::min(sizes_.overhang, bytes() - at);
        if (!ensure_size(buffer, used + size + 1, fault) || !read(at, at + size, buffer.data() + used, fault))
            return false;
        const void* feed = std::memchr(buffer.data() + used, '\n', static_cast<std::size_t>(size));
        if (feed != nullptr) {
            used = static_cast<const char*>(feed) - buffer.data();
            return true;
        }
        used += size;
        at += size;
    }
    return true;
}

bool block_file::load(std::int64_t block, std::vector<char>& buffer, line_block& lines,
                      record_fault& fault) const {
    std::int64_t used = 0;
    lines = {};
    lines.line = first_line(block);
    if (!read_block(block, buffer, used, fault)) return false;

    std::int64_t start = 0;
    if (block > 0) {  // the first line that starts here comes behind a line feed
        const void* feed = std::memchr(buffer.data(), '\n', static_cast<std::size_t>(used));
        if (feed == nullptr) return true;
        start = static_cast<const char*>(feed) - buffer.data() + 1;
        if (start == used) return true;
        if (start > 1) ++lines.line;
    }
    lines.owned = used - start;
    if (buffer[used - 1] == '\n') {
        --used;
    } else if (!complete_last_line(std::min((block + 1) * sizes_.block, bytes()), used, buffer, lines,
                                   fault)) {
        return false;
    }
    buffer[used] = '\n';
    lines.text = {buffer.data() + start, static_cast<std::size_t>(used + 1 - start)};
    return true;
}

std::optional<file_error> block_file::first_line_text(std::vector<char>& buffer,
                                                      std::string_view& line) const {
    const std::int64_t size = std::min(bytes(), longest_first_line);
    buffer.resize(static_cast<std::size_t>(size) + 1);
    record_fault fault;
    if (!read(0, size, buffer.data(), fault)) return error_of(fault);
    buffer[size] = '\n';
    line = {buffer.data(), static_cast<std::size_t>(size)};
    line = line.substr(0, line.find('\n'));
    if (line.ends_with('\r')) line.remove_suffix(1);
    return std::nullopt;
}

namespace {

/// The lines of one block up to its first bad one, whose fault is returned; the good ones are added to
/// `read`.
record_fault read_lines_of(const block_file& file, std::int64_t block, std::int64_t last,
                           std::vector<char>& buffer, const line_parser& parse, std::int64_t& read) noexcept {
    record_fault fault;
    line_block lines;
    std::int64_t line = file.first_line(block);
    try {
        if (file.load(block, buffer, lines, fault)) {
            line = lines.line;
            const char* p = lines.text.data();
            const char* const owned_end = p + lines.owned;
            const char* const end = p + lines.text.size();
            for (; p < owned_end && line <= last; ++line) {
                const char* stop = parse(p, line, fault);
                if (lines.cut && stop == end - 1) fault.set(record_fault_kind::long_line, 0);
                if (fault.kind != record_fault_kind::none) break;
                if (*stop != '\n')
                    stop = static_cast<const char*>(
                        std::memchr(stop, '\n', static_cast<std::size_t>(end - stop)));
                p = stop + 1;
            }
            read += line - lines.line;
        }
    } catch (const std::bad_alloc&) {  // a number of very many digits
        fault.set(record_fault_kind::no_memory, 0);
    }
    fault.line = line;
    return fault;
}

}  // namespace

record_fault read_lines(const block_file& file, std::int64_t last, const line_parser& parse) {
    const std::int64_t blocks = file.blocks_of(last);
    record_fault first;
    std::atomic<std::int64_t> bad_line = std::numeric_limits<std::int64_t>::max();
    std::int64_t read = 0;
#pragma omp parallel if (blocks > 1) default(none) shared(file, last, parse, blocks, first, bad_line) \
    reduction(+ : read)
    {
        std::vector<char> buffer;
#pragma omp for schedule(dynamic, 1)
        for (std::int64_t block = 0; block < blocks; ++block) {
            if (file.first_line(block) > bad_line.load(std::memory_order_relaxed)) continue;
            const record_fault fault = read_lines_of(file, block, last, buffer, parse, read);
            if (fault.kind == record_fault_kind::none) continue;
#pragma omp critical(zendar_read_lines)
            if (fault.line < bad_line.load()) {
                bad_line = fault.line;
                first = fault;
            }
        }
    }
    if (first.kind == record_fault_kind::none && read != last) {
        first.set(record_fault_kind::file_changed, 0);
        first.line = read + 1;
    }
    return first;
}

}  // namespace zendar::detail
