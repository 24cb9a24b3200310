#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "modsparse_gen.hpp"

namespace zendar {

class coosparse;
template <std::signed_integral Index>
class crs_matrix;
using crssparse = crs_matrix<std::int32_t>;

/// A matrix as one linked list per row. All nodes stand in one pool and are linked by their number.
/// Pairs outside the matrix, and below the diagonal with upper storage, are dropped silently. A column that
/// is put into a row twice by `addtohead` or `addtotail` counts as its sum everywhere.
class llsparse final : public gen_sparse {
  public:
    static constexpr std::int64_t none = -1;

    struct node {
        std::int32_t col;
        double value;
        std::int64_t next;  ///< number of the next node of the row, from 0, or `none`
    };
    struct ptrnode {
        std::int64_t head = none, tail = none;
    };

    llsparse() = default;
    explicit llsparse(std::int32_t dim1, std::optional<std::int32_t> dim2 = {}, bool lupperstorage = false,
                      logger* unlog = nullptr);
    void constructor_sub(std::int32_t dim1, std::optional<std::int32_t> dim2 = {}, bool lupperstorage = false,
                         logger* unlog = nullptr);
    llsparse(llsparse&&) noexcept = default;
    llsparse& operator=(llsparse&&) noexcept = default;
    [[nodiscard]] llsparse copy() const;
    /// Conversions, as `convertfromcootoll` and `convertfromcrstoll`.
    llsparse& operator=(const coosparse& other);
    llsparse& operator=(const crssparse& other);

    void destroy() override;
    [[nodiscard]] double get(std::int32_t row, std::int32_t col) const override;
    [[nodiscard]] std::int64_t totalnumberofelements() const override { return std::ssize(pool_); }

    /// These three are refused by this format.
    [[noreturn]] void multgenv(double alpha, char trans, std::span<const double> x, double beta,
                               std::span<double> y) const override;
    [[noreturn]] void multgenm(double alpha, char trans, matrix_view<const double> x, double beta,
                               matrix_view<double> y) const override;
    [[noreturn]] void scale(double factor) override;

    void addtohead(std::int32_t row, std::int32_t col, double value);
    void addtotail(std::int32_t row, std::int32_t col, double value);
    /// Keeps a row in the order of its columns: sums into a node of the same column, or inserts a new one in
    /// front of the first node whose column is not smaller.
    void addinorder(std::int32_t row, std::int32_t col, double value);
    void add(std::int32_t row, std::int32_t col, double value) { addinorder(row, col, value); }

    [[nodiscard]] double getmem() const;  ///< bytes
    /// First and last node of a row (from 1), and a node by its number.
    [[nodiscard]] const ptrnode& row_list(std::int32_t row) const { return rows_[row - 1]; }
    [[nodiscard]] const node& at(std::int64_t number) const { return pool_[number]; }

  private:
    llsparse(const llsparse&) = default;

    void visit(const element_sink& sink) const override;
    [[nodiscard]] bool accepts(std::int32_t row, std::int32_t col) const noexcept {
        return inside(row, col) && !(lupperstorage_ && row > col);
    }
    /// Puts a new node behind node `before` of the row, or at its head for `none`.
    void insert_behind(ptrnode& list, std::int64_t before, std::int32_t col, double value);

    std::vector<ptrnode> rows_;
    std::vector<node> pool_;
    bool in_order_ = true;  // no row is out of order: a column beyond a row's last one needs no walk
};

}  // namespace zendar
