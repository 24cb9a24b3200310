#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modbasic.hpp"

namespace zendar {

/// The reason why a file could not be opened, read or written, as a status (errno) and its text.
struct file_error {
    int iostat = 0;
    std::string iomsg;
};

/// Reads a text file line by line. A byte-order mark at the start is passed over; a line ends at LF or at the
/// end of the file, and a CR before it is taken off. Positions are line numbers from 1.
/// Directories, unreadable and missing files fail in `open`.
class text_reader {
  public:
    text_reader();
    ~text_reader();
    text_reader(text_reader&&) noexcept;
    text_reader& operator=(text_reader&&) noexcept;

    /// Opens a file for reading; an error is returned, nothing is logged.
    std::optional<file_error> open(const std::filesystem::path& path);
    /// Reads from a copy of `text` instead of a file; `name` stands for the path.
    void open_text(std::string text, std::string name);
    void close();

    /// The next line, valid until the next call; nothing at the end of the file.
    /// After a read error (see `error`) it returns nothing as well.
    std::optional<std::string_view> line();
    /// Makes the next `line` return the line returned last once more (one step only).
    void backspace();
    void rewind();

    /// Number of the line returned last, from 1; 0 before the first.
    [[nodiscard]] std::int64_t line_number() const;
    [[nodiscard]] const std::string& name() const;
    /// The error that ended the reading, if it was not the end of the file.
    [[nodiscard]] std::optional<file_error> error() const;

  private:
    struct implementation;
    std::unique_ptr<implementation> self_;
};

/// Writes a file beside `path` and gives it the good name in `commit`, so that a file under the good name is
/// always complete. Without `commit` the destructor removes what was written.
/// Writing errors (a full disk) are kept and returned by `commit`.
class file_writer {
  public:
    file_writer();
    ~file_writer();
    file_writer(file_writer&&) noexcept;
    file_writer& operator=(file_writer&&) noexcept;

    std::optional<file_error> open(const std::filesystem::path& path);
    void write(std::string_view text);
    void write_bytes(const void* data, std::size_t bytes);
    template <class T>
    void write_values(std::span<const T> values) {
        write_bytes(values.data(), values.size_bytes());
    }
    /// At least `bytes` characters of buffer to fill; `advance` then tells how many were used. At most 64
    /// KiB.
    char* reserve(std::size_t bytes);
    void advance(std::size_t bytes);
    /// True once a write failed: a long loop may stop early.
    [[nodiscard]] bool failed() const;
    /// Flushes, closes and renames; returns the first error of all writing.
    std::optional<file_error> commit();
    [[nodiscard]] const std::string& name() const;

  private:
    struct implementation;
    std::unique_ptr<implementation> self_;
};

/// Reads an unformatted stream file.
class binary_reader {
  public:
    binary_reader();
    ~binary_reader();
    binary_reader(binary_reader&&) noexcept;
    binary_reader& operator=(binary_reader&&) noexcept;

    std::optional<file_error> open(const std::filesystem::path& path);
    /// True when all bytes could be read; false at the end of the file or after an error.
    bool read_bytes(void* data, std::size_t bytes);
    template <class T>
    bool read_values(std::span<T> values) {
        return read_bytes(values.data(), values.size_bytes());
    }
    [[nodiscard]] std::int64_t size() const;      ///< bytes of the file
    [[nodiscard]] std::int64_t position() const;  ///< bytes read so far
    [[nodiscard]] bool at_end() const { return position() >= size(); }

  private:
    struct implementation;
    std::unique_ptr<implementation> self_;
};

/// Reads a regular file at any position; several threads may read through one reader at once. A pipe or a
/// device, which has no positions, fails in `open`.
class random_reader {
  public:
    random_reader() = default;
    ~random_reader();
    random_reader(const random_reader&) = delete;
    random_reader& operator=(const random_reader&) = delete;

    std::optional<file_error> open(const std::filesystem::path& path);
    /// Fills `data` from byte `offset` on. @returns the bytes read, fewer than asked for only at the end of
    /// the file; -1 after an error, with its number in `errno`.
    [[nodiscard]] std::int64_t read_at(std::int64_t offset, std::span<char> data) const noexcept;
    [[nodiscard]] std::int64_t size() const noexcept {
        return size_;
    }  ///< bytes of the file when it was opened

  private:
    int descriptor_ = -1;
    std::int64_t size_ = 0;
};

/// Words of the first line of a file, split at blanks; the "numcol" of data files.
/// @returns the count, or the error of opening.
std::optional<file_error> numcol(const std::filesystem::path& path, std::int64_t& columns);

}  // namespace zendar
