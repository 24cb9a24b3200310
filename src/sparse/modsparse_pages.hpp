#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <span>
#include <type_traits>
#include <utility>

namespace zendar {

namespace detail {

/// Zero-filled memory of `bytes` bytes. Big blocks come from the system as zero pages that nobody has touched
/// yet, start at a 2 MiB border and ask for pages of 2 MiB: a hash table or a row structure of gigabytes that
/// is reached at random would else spend its time in page table walks.
/// @throws std::bad_alloc
void* allocate_pages(std::size_t bytes);
void free_pages(void* data, std::size_t bytes) noexcept;

}  // namespace detail

/// An array of plain values, zero at first, that owns its memory. Movable; a copy is a named function.
template <class T>
class page_array {
    static_assert(std::is_trivially_copyable_v<T>);

  public:
    page_array() = default;
    explicit page_array(std::int64_t size) : size_(size) {
        if (size < 0 || static_cast<std::uint64_t>(size) > static_cast<std::size_t>(PTRDIFF_MAX) / sizeof(T))
            throw std::bad_alloc();
        if (size > 0) data_ = static_cast<T*>(detail::allocate_pages(bytes()));
    }
    page_array(page_array&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    page_array& operator=(page_array&& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        other.clear();
        return *this;
    }
    page_array(const page_array&) = delete;
    page_array& operator=(const page_array&) = delete;
    ~page_array() { clear(); }

    [[nodiscard]] page_array copy() const {
        page_array other(size_);
        for (std::int64_t i = 0; i < size_; ++i) other.data_[i] = data_[i];
        return other;
    }
    void clear() noexcept {
        if (data_ != nullptr) detail::free_pages(data_, bytes());
        data_ = nullptr;
        size_ = 0;
    }

    [[nodiscard]] std::int64_t size() const noexcept { return size_; }
    [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
    [[nodiscard]] T* data() noexcept { return data_; }
    [[nodiscard]] const T* data() const noexcept { return data_; }
    [[nodiscard]] std::span<T> span() noexcept { return {data_, static_cast<std::size_t>(size_)}; }
    [[nodiscard]] std::span<const T> span() const noexcept {
        return {data_, static_cast<std::size_t>(size_)};
    }

  private:
    [[nodiscard]] std::size_t bytes() const noexcept { return static_cast<std::size_t>(size_) * sizeof(T); }

    T* data_ = nullptr;
    std::int64_t size_ = 0;
};

}  // namespace zendar
