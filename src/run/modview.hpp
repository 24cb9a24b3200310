#pragma once

#include <cassert>
#include <cstdint>
#include <limits>
#include <span>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

namespace zendar {

/// A column-major view with leading dimension `ld`; it does not own its data. Indices count from 0.
template <class T>
struct matrix_view {
    T* data = nullptr;
    std::int64_t rows = 0, cols = 0, ld = 0;

    T& operator()(std::int64_t i, std::int64_t j) const {
        assert(i >= 0 && i < rows && j >= 0 && j < cols);
        return data[i + j * ld];
    }
    [[nodiscard]] std::span<T> column(std::int64_t j) const {
        assert(j >= 0 && j < cols);
        return {data + j * ld, static_cast<std::size_t>(rows)};
    }
    operator matrix_view<const T>() const
        requires(!std::is_const_v<T>)
    {
        return {data, rows, cols, ld};
    }
};

/// An owning column-major matrix, zero-filled. Indices count from 0. A copy is a deep copy.
template <class T>
class matrix {
  public:
    matrix() = default;
    matrix(std::int64_t rows, std::int64_t cols, T value = T{})
        : rows_(rows), cols_(cols), values_(static_cast<std::size_t>(rows * cols), value) {}

    T& operator()(std::int64_t i, std::int64_t j) {
        assert(i >= 0 && i < rows_ && j >= 0 && j < cols_);
        return values_[static_cast<std::size_t>(i + j * rows_)];
    }
    const T& operator()(std::int64_t i, std::int64_t j) const {
        assert(i >= 0 && i < rows_ && j >= 0 && j < cols_);
        return values_[static_cast<std::size_t>(i + j * rows_)];
    }
    [[nodiscard]] std::int64_t rows() const noexcept { return rows_; }
    [[nodiscard]] std::int64_t cols() const noexcept { return cols_; }
    [[nodiscard]] bool empty() const noexcept { return values_.empty(); }
    [[nodiscard]] T* data() noexcept { return values_.data(); }
    [[nodiscard]] const T* data() const noexcept { return values_.data(); }
    [[nodiscard]] std::span<T> column(std::int64_t j) { return view().column(j); }
    [[nodiscard]] std::span<const T> column(std::int64_t j) const { return view().column(j); }
    [[nodiscard]] std::span<T> values() noexcept { return values_; }
    [[nodiscard]] std::span<const T> values() const noexcept { return values_; }
    [[nodiscard]] matrix_view<T> view() noexcept { return {values_.data(), rows_, cols_, rows_}; }
    [[nodiscard]] matrix_view<const T> view() const noexcept { return {values_.data(), rows_, cols_, rows_}; }
    bool operator==(const matrix&) const = default;

  private:
    std::int64_t rows_ = 0, cols_ = 0;
    std::vector<T> values_;
};

/// Converts an integer to a narrower type.
/// @throws std::range_error  when the value does not fit.
template <std::integral To, std::integral From>
constexpr To narrow(From value) {
    if (!std::in_range<To>(value)) throw std::range_error("an integer does not fit its narrower type");
    return static_cast<To>(value);
}

/// Bytes in MiB (2^20), for the "Memory (MB) needed for ..." lines.
constexpr double mib(std::int64_t bytes) {
    return static_cast<double>(bytes) / 1048576.0;
}

}  // namespace zendar
