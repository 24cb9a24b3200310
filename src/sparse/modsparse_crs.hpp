#pragma once

#include <concepts>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "modsparse_gen.hpp"
#include "modsparse_pages.hpp"
#include "modsparse_view.hpp"

namespace zendar {

class coosparse;
class llsparse;

/// What a matrix keeps of its factorisations; defined where they are made.
template <std::signed_integral Index>
struct crs_factors;

/// Compressed rows. `ia` and `ja` count from 1: the elements of row i are ia(i) .. ia(i + 1) - 1.
/// `crssparse` has 32-bit indices; `crssparse64` serves matrices beyond them and offers fewer operations.
///
/// `get`, the products and solves with fixed factors may run in several threads, as may `set` and `add` on
/// different elements.
template <std::signed_integral Index>
class crs_matrix final : public gen_sparse {
    static constexpr bool is_32 = std::same_as<Index, std::int32_t>;

  public:
    crs_matrix() = default;
    /// All arrays are zero at first.
    /// @param nel   stored elements. @throws fatal_error  when `ia` could not count them.
    /// @param dim2  dim1 when absent.
    crs_matrix(std::int32_t dim1, std::int64_t nel, std::optional<std::int32_t> dim2 = {},
               bool lupperstorage = false, logger* unlog = nullptr);
    void constructor_sub(std::int32_t dim1, std::int64_t nel, std::optional<std::int32_t> dim2 = {},
                         bool lupperstorage = false, logger* unlog = nullptr);
    /// Reads a file of `save`; `lsorted` is set from what it holds, `lsymmetric` is not part of it.
    /// @throws fatal_error  when it cannot be opened or is no complete and sound file of this format; the
    ///                      reason goes to `unlog` before the message.
    [[nodiscard]] static crs_matrix load(const std::filesystem::path& path, logger* unlog = nullptr);
    crs_matrix(crs_matrix&& other) noexcept { *this = std::move(other); }
    crs_matrix& operator=(crs_matrix&& other) noexcept;
    /// Without the factorisation.
    [[nodiscard]] crs_matrix copy() const;
    /// Conversions, as `convertfromcootocrs`, `convertfromcootocrs64` and `convertfromlltocrs`.
    crs_matrix& operator=(const coosparse& other);
    crs_matrix& operator=(const llsparse& other)
        requires(std::same_as<Index, std::int32_t>);

    void destroy() override;
    /// By a scan of the row.
    [[nodiscard]] double get(std::int32_t row, std::int32_t col) const override;
    /// With 64-bit indices products are refused: a warning, and y becomes x.
    void multgenv(double alpha, char trans, std::span<const double> x, double beta,
                  std::span<double> y) const override;
    void multgenm(double alpha, char trans, matrix_view<const double> x, double beta,
                  matrix_view<double> y) const override;
    [[nodiscard]] std::int64_t totalnumberofelements() const override { return a_.size(); }
    void scale(double factor) override;

    /// Change a stored element; nothing can be inserted.
    /// @returns 0 on success, -1 when the position is not stored, -10 when it lies outside the matrix.
    std::int32_t set(std::int32_t row, std::int32_t col, double value);
    std::int32_t add(std::int32_t row, std::int32_t col, double value);
    /// Copies three arrays of the sizes of the matrix's own and sets `lsorted` from what they hold.
    /// @throws fatal_error  when a size differs or they do not form compressed rows of this matrix.
    void external(std::span<const Index> ia, std::span<const Index> ja, std::span<const double> a);
    [[nodiscard]] std::vector<Index> get_rowptr() const;
    [[nodiscard]] std::vector<Index> get_colval() const;
    [[nodiscard]] std::vector<double> get_nzval() const;
    /// The arrays themselves, valid until the matrix changes.
    [[nodiscard]] crs_view<Index> view() const noexcept {
        return {dim1_, dim2_, ia_.span(), ja_.span(), a_.span(), lsorted_};
    }
    /// Sorts every row by column, rows in parallel.
    void sort();
    [[nodiscard]] double getmem() const;  ///< bytes
    /// Writes a binary file, which gets its name when it is complete.
    void save(const std::filesystem::path& path) const;

    /// The diagonal, 0.0 where nothing is stored. `lidx`, if not empty, receives 1 for stored elements and
    /// else 0.
    /// @throws fatal_error  when `lidx` is too short.
    [[nodiscard]] std::vector<double> diag_vect(std::span<std::uint8_t> lidx = {}) const
        requires(std::same_as<Index, std::int32_t>);
    /// The diagonal as a matrix of the same shape.
    [[nodiscard]] crs_matrix diag_mat() const
        requires(std::same_as<Index, std::int32_t>);
    /// A block of rows and columns, renumbered from 1. Of a symmetric matrix with upper storage the mirror
    /// images belong to the block; a block on the diagonal is stored by its upper triangle again, unless
    /// `lupperstorage` says otherwise. As after any conversion each row has a stored element on the diagonal
    /// (in the last column, when the block is not square).
    /// @throws fatal_error  when a corner lies outside the matrix.
    [[nodiscard]] crs_matrix submatrix(std::int32_t first_row, std::int32_t last_row, std::int32_t first_col,
                                       std::int32_t last_col, std::optional<bool> lupperstorage = {}) const
        requires(std::same_as<Index, std::int32_t>);
    /// A block, or the rows and columns of two lists, as a dense matrix, mirror images included.
    [[nodiscard]] matrix<double> submatrix_dense(std::int32_t first_row, std::int32_t last_row,
                                                 std::int32_t first_col, std::int32_t last_col) const
        requires(std::same_as<Index, std::int32_t>);
    [[nodiscard]] matrix<double> submatrix_dense(std::span<const std::int32_t> rows,
                                                 std::span<const std::int32_t> cols) const
        requires(std::same_as<Index, std::int32_t>);

    /// Estimate of the diagonal of the inverse of a positive definite matrix with upper storage, by Gibbs
    /// sampling of x ~ N(0, A^-1), element by element in the order of the equations. With m(i) the mean of
    /// x(i) given all others, the variance of x(i) is 1 / a(i,i) plus the expected square of m(i), of which
    /// the mean over the rounds is taken. Empty equations get 0. Of a singular matrix the estimates grow with
    /// the number of rounds: it has no inverse.
    ///
    /// Harville (1999), Linear Algebra Appl. 289:203-224.
    ///
    /// @param nrounds, nburnin  rounds that count, and rounds before them.
    /// @throws fatal_error  for elements that are not finite, a negative diagonal, or a zero one in an
    ///                      equation that is not empty.
    ///
    /// The same values for any number of threads. A round passes over both triangles; 24 bytes per element
    /// above the diagonal.
    [[nodiscard]] std::vector<double> harville(std::int64_t nrounds, std::int64_t nburnin,
                                               std::uint32_t seed = 1) const
        requires(std::same_as<Index, std::int32_t>);

    // ---- factorisations (modsparse_crs_solve.cpp)

    [[nodiscard]] bool isdecomposed() const noexcept { return ldecomposed_; }
    void setdecomposed(bool flag) noexcept { ldecomposed_ = flag; }
    /// Frees the factors of the direct solver; the next `solve` factorises again.
    void reset_pardiso_memory();
    /// x = A^-1 y for one or several right-hand sides; the first call factorises and logs it. The matrix is
    /// the upper triangle, sorted with a stored diagonal, of a symmetric one, definite or not; of a
    /// consistent system of deficient rank one of the solutions is found. x and y must not overlap.
    /// @throws fatal_error  for shapes that do not agree, a matrix that is not such a triangle or not finite.
    void solve(std::span<double> x, std::span<const double> y);
    void solve(matrix_view<double> x, matrix_view<const double> y);
    /// Two triangular solves with the incomplete factor that the matrix holds: with U' and with U. A
    /// permutation of the matrix is the order of the factor; x and y are in that of the equations.
    void isolve(std::span<double> x, std::span<const double> y) const
        requires(std::same_as<Index, std::int32_t>);
    /// x = A^-1 y through the factors of `getldlt`; with 0 for the equations of dropped pivots.
    void solveldlt(std::span<double> x, std::span<const double> y) const
        requires(std::same_as<Index, std::int32_t>);
    void solveldlt(matrix_view<double> x, matrix_view<const double> y) const
        requires(std::same_as<Index, std::int32_t>);
    /// The same for one vector where it is called again and again: nothing is checked, which is for
    /// `isldltfactor` to do once, and `work` (dim1 doubles) is the only memory. Vectors must not overlap.
    void solveldlt_s(std::span<double> x, std::span<const double> y, std::span<double> work) const
        requires(std::same_as<Index, std::int32_t>);
    /// Whether the arrays have the shape of a factor of `getldlt`. Passes over all rows.
    [[nodiscard]] bool isldltfactor() const
        requires(std::same_as<Index, std::int32_t>);
    /// Replace the matrix by its Cholesky factor, its L D L' factors, its incomplete Cholesky factor, or the
    /// part of its inverse on the pattern of the factor. They are computed in the order of the matrix's
    /// permutation or else in one of little fill, which becomes the permutation. Factors are upper
    /// triangles in this order, the inverse is in that of the equations. `getldlt` stores D in the place of
    /// the unit diagonal.
    /// `getldlt` and `getspainv` take semidefinite matrices: an equation whose pivot is at or below 1e-10 of
    /// its diagonal is dropped, and the log tells how many were.
    /// @throws fatal_error  when the matrix is no sorted upper triangle of finite numbers; naming the
    /// equation
    ///                      of a pivot that is not positive (negative, where some may be dropped).
    void getchol()
        requires(std::same_as<Index, std::int32_t>);
    void getldlt()
        requires(std::same_as<Index, std::int32_t>);
    void getichol()
        requires(std::same_as<Index, std::int32_t>);
    void getspainv()
        requires(std::same_as<Index, std::int32_t>);
    /// Nested dissection: a permutation of 1 .. dim1.
    [[nodiscard]] std::vector<std::int32_t> getordering() const
        requires(std::same_as<Index, std::int32_t>);

  private:
    friend struct crs_arrays;  // conversions build the arrays in place

    crs_matrix(const crs_matrix& other);

    void visit(const element_sink& sink) const override;
    /// Number of an element, from 0; -1 when it is not stored.
    [[nodiscard]] std::int64_t find(std::int32_t row, std::int32_t col) const;
    [[nodiscard]] std::int64_t begin_of(std::int32_t row) const { return ia_.data()[row - 1] - 1; }
    [[nodiscard]] std::int64_t end_of(std::int32_t row) const { return ia_.data()[row] - 1; }
    void check_corners(std::int32_t first_row, std::int32_t last_row, std::int32_t first_col,
                       std::int32_t last_col) const;

    page_array<Index> ia_, ja_;
    page_array<double> a_;
    std::shared_ptr<crs_factors<Index>>
        pardisovar_;  // never shared: its type is complete only where it is made
    bool ldecomposed_ = false;
};

using crssparse = crs_matrix<std::int32_t>;
using crssparse64 = crs_matrix<std::int64_t>;

extern template class crs_matrix<std::int32_t>;
extern template class crs_matrix<std::int64_t>;

namespace detail {

/// Whether three arrays form compressed rows: pointers from 1 that do not fall and end at nel + 1, columns
/// within the matrix and, with upper storage, none below the diagonal but the last one.
enum class crs_defect { none, pointers, columns };
template <std::signed_integral Index>
[[nodiscard]] crs_defect check_crs(crs_view<Index> m, bool lupperstorage);
/// Whether the columns rise strictly within every row.
template <std::signed_integral Index>
[[nodiscard]] bool is_sorted_by_column(crs_view<Index> m);

}  // namespace detail

}  // namespace zendar
