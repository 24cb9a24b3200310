#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

#include "modfile.hpp"
#include "modlogger.hpp"

namespace zendar::detail {

/// The reading of one matrix file: what is wrong with it goes to the unit, before the family's message.
class matrix_reader {
  public:
    /// @param refusal  the message of the format, thrown for anything that is not such a file.
    matrix_reader(const std::filesystem::path& path, std::string refusal, logger* unlog)
        : name_(path.string()), refusal_(std::move(refusal)), unlog_(unlog) {
        if (const auto failure = file_.open(path))
            fail(" ERROR: the file " + name_ + " cannot be opened: " + failure->iomsg);
    }

    [[noreturn]] void reject(const std::string& reason) const {
        if (unlog_ != nullptr) unlog_->message(" " + name_ + ": " + reason);
        fail(refusal_);
    }

    /// The head that all formats share.
    struct head {
        std::int32_t dim1, dim2;
        std::int64_t elements;
    };
    head read_head(std::int32_t code) {
        std::int32_t found = 0;
        if (!read(found) || found != code) fail(refusal_);
        head h{};
        if (!read(h.dim1) || !read(h.dim2) || !read(h.elements)) reject("the file ends within its head");
        if (h.dim1 < 0 || h.dim2 < 0) reject("a dimension is negative");
        if (h.elements < 0) reject("the number of elements is negative");
        return h;
    }
    template <class T>
    T read_item() {
        T value{};
        if (!read(value)) reject("the file ends within its head");
        return value;
    }
    /// A logical of 4 bytes: 0, or 1 or -1 for true.
    bool read_logical() {
        const auto value = read_item<std::int32_t>();
        if (value < -1 || value > 1) reject("the flag of the upper storage is neither 0 nor 1 nor -1");
        return value != 0;
    }
    /// Bytes of the file behind what was read.
    [[nodiscard]] std::int64_t rest() const { return file_.size() - file_.position(); }
    /// `items` arrays items of `bytes` each, without overflow.
    [[nodiscard]] bool fits(std::int64_t items, std::int64_t bytes) const { return items <= rest() / bytes; }

    template <class T>
    void read_values(std::span<T> values) {
        if (!file_.read_values(values)) reject("the file cannot be read to its end");
    }

  private:
    template <class T>
    bool read(T& value) {
        return file_.read_bytes(&value, sizeof value);
    }
    [[noreturn]] void fail(const std::string& text) const {
        if (unlog_ != nullptr) unlog_->message(text);
        throw fatal_error(text);
    }

    binary_reader file_;
    std::string name_, refusal_;
    logger* unlog_;
};

template <class T>
void write_item(file_writer& file, const T& value) {
    file.write_bytes(&value, sizeof value);
}

inline void write_head(file_writer& file, std::int32_t code, std::int32_t dim1, std::int32_t dim2,
                       std::int64_t elements) {
    write_item(file, code);
    write_item(file, dim1);
    write_item(file, dim2);
    write_item(file, elements);
}

/// The message for a file that cannot be written.
inline std::string cannot_write(const std::filesystem::path& path, const file_error& why) {
    return " ERROR: the file " + path.string() + " cannot be written: " + why.iomsg;
}

}  // namespace zendar::detail
