#pragma once

#include <array>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "modsparse_gen.hpp"
#include "modsparse_hash.hpp"
#include "modsparse_pages.hpp"

namespace zendar {

class llsparse;
template <std::signed_integral Index>
class crs_matrix;

/// A matrix in assembly: a hash table of (row, column, value) that grows as it fills.
///
/// Row, column and value of a slot stand together in memory, so that a probe costs one cache line; 16 bytes a
/// slot. A symmetric matrix is held by its upper triangle: construct with `lupperstorage` and call
/// `setsymmetric()`; all pairs may be offered then, and those of the lower triangle are dropped.
/// One thread at a time.
class coosparse final : public gen_sparse {
  public:
    coosparse() = default;
    /// @param dim2  dim1 when absent.
    /// @param nel   slots, rounded up by `roundinguppower2`; 128 when absent.
    explicit coosparse(std::int32_t dim1, std::optional<std::int32_t> dim2 = {},
                       std::optional<std::int64_t> nel = {}, bool lupperstorage = false,
                       logger* unlog = nullptr);
    void constructor_sub(std::int32_t dim1, std::optional<std::int32_t> dim2 = {},
                         std::optional<std::int64_t> nel = {}, bool lupperstorage = false,
                         logger* unlog = nullptr);
    /// Reads a file of `save`. The flag `lsymmetric` is not part of it.
    /// @throws fatal_error  when it cannot be opened or is no complete and sound file of this format; the
    ///                      reason goes to `unlog` before the message.
    [[nodiscard]] static coosparse load(const std::filesystem::path& path, logger* unlog = nullptr);
    coosparse(coosparse&& other) noexcept { *this = std::move(other); }
    coosparse& operator=(coosparse&& other) noexcept;
    [[nodiscard]] coosparse copy() const;
    /// Conversions, as `convertfromlltocoo`, `convertfromcrstocoo` and `convertfromcrs64tocoo`.
    coosparse& operator=(const llsparse& other);
    template <std::signed_integral Index>
    coosparse& operator=(const crs_matrix<Index>& other);

    void destroy() override;
    [[nodiscard]] double get(std::int32_t row, std::int32_t col) const override;
    void multgenv(double alpha, char trans, std::span<const double> x, double beta,
                  std::span<double> y) const override;
    void multgenm(double alpha, char trans, matrix_view<const double> x, double beta,
                  matrix_view<double> y) const override;
    [[nodiscard]] std::int64_t totalnumberofelements() const override { return filled(); }
    void scale(double factor) override;

    /// Overwrites a value. A pair outside the matrix, or below the diagonal with upper storage, is dropped.
    void set(std::int32_t row, std::int32_t col, double value);
    /// Adds to a value, 0.0 if the pair is new. Drops what `set` drops, and values below the machine epsilon
    /// in absolute value. In a table beyond the cache the elements enter some hundred at a time, at the
    /// latest when anything is asked of the matrix: that is when growing is told, or fails.
    void add(std::int32_t row, std::int32_t col, double value);
    /// The same for many elements, in their order and with the same slots as a result; faster on tables
    /// beyond the cache, as the memory is asked for ahead. The three sizes must agree.
    void add(std::span<const std::int32_t> rows, std::span<const std::int32_t> cols,
             std::span<const double> values);

    /// The diagonal, 0.0 where nothing is stored. `lidx`, if not empty, receives 1 for stored elements and
    /// else 0.
    /// @throws fatal_error  when `lidx` is too short.
    [[nodiscard]] std::vector<double> diag_vect(std::span<std::uint8_t> lidx = {}) const;
    /// The stored diagonal elements as a matrix of the same shape.
    [[nodiscard]] coosparse diag_mat() const;
    /// Rows and columns of a list of distinct indices, renumbered by their position in the list. On a
    /// symmetric matrix with upper storage elements that change sides are mirrored.
    /// @throws fatal_error  for an index outside the matrix or one that is listed twice.
    [[nodiscard]] coosparse submatrix(std::span<const std::int32_t> list) const;
    /// The same elements under their own row and column numbers, in a matrix of the same shape.
    [[nodiscard]] coosparse submatrix_index(std::span<const std::int32_t> list) const;
    [[nodiscard]] double getmem() const;  ///< bytes
    /// Writes a binary file, which gets its name when it is complete.
    void save(const std::filesystem::path& path) const;

    [[nodiscard]] std::int64_t nel() const { return settled().slots_.size(); }
    [[nodiscard]] std::int64_t filled() const { return settled().filled_; }
    /// Whether so many more elements may make the table grow, which takes twice its memory besides.
    [[nodiscard]] bool may_grow(std::int64_t more) const { return filled() + more > most_filled_; }
    /// `ija` and `a`: all slots as they lie.
    [[nodiscard]] std::span<const coo_slot> slots() const { return settled().slots_.span(); }

  private:
    class conveyor;
    /// Elements that were added one by one.
    struct waiting_room {
        static constexpr std::size_t places = 256;
        /// A table of fewer slots stands in the second-level cache.
        static constexpr std::int64_t far = 1 << 16;

        std::array<std::int32_t, places> rows, cols;
        std::array<double, places> values;
    };

    coosparse(const coosparse& other);

    void visit(const element_sink& sink) const override;
    [[nodiscard]] bool accepts(std::int32_t row, std::int32_t col) const noexcept {
        return inside(row, col) && !(lupperstorage_ && row > col);
    }
    /// Whether `add` takes it.
    [[nodiscard]] bool is_entered(std::int32_t row, std::int32_t col, double value) const noexcept {
        return accepts(row, col) && !(std::abs(value) < std::numeric_limits<double>::epsilon());
    }
    void add_all(std::span<const std::int32_t> rows, std::span<const std::int32_t> cols,
                 std::span<const double> values);
    /// Enters the elements that wait.
    void settle();
    /// What is asked of the matrix is asked after that. Only an object that may change has waiting elements.
    [[nodiscard]] const coosparse& settled() const {
        if (nwaiting_ > 0) const_cast<coosparse&>(*this).settle();
        return *this;
    }
    /// The value's place, after growing if needed.
    double& place(std::int32_t row, std::int32_t col);
    [[nodiscard]] std::int64_t find_or_insert(std::int32_t row, std::int32_t col);
    /// Enters a pair in its slot, which is its own or free. A free one holds the value 0.0.
    void take(coo_slot& slot, std::int32_t row, std::int32_t col) noexcept {
        const bool free = slot.row == 0 || slot.col == 0;
        filled_ += free ? 1 : 0;
        slot.row = row;
        slot.col = col;
    }
    /// Doubles the number of slots and re-enters all elements with `add`, in slot order: a value below
    /// epsilon, which only `set` stores, is lost here.
    void grow();
    /// Takes a table over, of which `filled` slots are occupied.
    void adopt(page_array<coo_slot> slots, std::int64_t filled);
    /// For each index its position in the list, 0 if it is not listed.
    [[nodiscard]] std::vector<std::int32_t> positions(std::span<const std::int32_t> list) const;
    [[nodiscard]] coosparse extract(std::span<const std::int32_t> position, std::int32_t n,
                                    bool renumber) const;

    page_array<coo_slot> slots_;
    std::int64_t filled_ = 0;
    std::int64_t most_filled_ = 0;  // the table grows beyond it
    std::size_t nwaiting_ = 0;
    std::unique_ptr<waiting_room> waiting_;
};

}  // namespace zendar
