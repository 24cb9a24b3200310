#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modlogger.hpp"
#include "modview.hpp"

namespace zendar {

/// What the sparse matrices of real values have in common. Rows and columns count from 1.
///
/// Messages go to the matrix's output unit, a logger that outlives the matrix, as plain lines; a matrix
/// without one is silent. Errors are written there and thrown as `fatal_error` with the same text.
/// Matrices are values: they move, and are copied by the member `copy` of each format.
class gen_sparse {
  public:
    virtual ~gen_sparse() = default;

    // ---- what each format provides

    /// Frees all arrays and clears the record, which `constructor_sub` may set up anew.
    virtual void destroy() = 0;
    /// The value of a position; 0.0 when nothing is stored there or it lies outside the matrix. On a
    /// symmetric matrix with upper storage a lower position is read at its mirror image.
    [[nodiscard]] virtual double get(std::int32_t row, std::int32_t col) const = 0;
    /// y = alpha op(A) x + beta y; op is given by `trans`, "N" or "T" in either case. With beta = 0 the
    /// values of y are not read.
    virtual void multgenv(double alpha, char trans, std::span<const double> x, double beta,
                          std::span<double> y) const = 0;
    /// The same for the columns of matrices.
    virtual void multgenm(double alpha, char trans, matrix_view<const double> x, double beta,
                          matrix_view<double> y) const = 0;
    /// Stored elements, zeros among them.
    [[nodiscard]] virtual std::int64_t totalnumberofelements() const = 0;
    /// Multiplies all values.
    virtual void scale(double factor) = 0;

    // ---- printing: one line per stored element, "row column value", the value in "g0" form

    void print() const;                                         ///< to the output unit
    void print_idx() const;                                     ///< the element's number as the value
    void printsquare() const;                                   ///< with mirror images, see `issymmetric`
    void printtofile(const std::filesystem::path& path) const;  ///< as `print`
    void printsquaretofile(const std::filesystem::path& path) const;  ///< as `printsquare`
    /// Format, dimensions, number of elements and flags, to the output unit.
    void print_dim() const;

    // ---- common

    /// Plain conjugate gradients for A x = y from the given x, for small checks.
    /// @returns the number of iterations; it stops at |y - A x| <= 1e-12 |y| or after 10 n + 100 of them.
    std::int64_t cg(std::span<double> x, std::span<const double> y) const;

    [[nodiscard]] std::int32_t getdim(std::int32_t which) const;  ///< 1: rows, 2: columns
    [[nodiscard]] logger* getoutputunit() const noexcept { return unlog_; }
    void setoutputunit(logger* unlog) noexcept { unlog_ = unlog; }
    [[nodiscard]] const std::string& namemat() const noexcept { return namemat_; }

    [[nodiscard]] bool issorted() const noexcept { return lsorted_; }
    [[nodiscard]] bool issquare() const noexcept { return dim1_ == dim2_; }
    /// Only with upper storage as well is the lower triangle the mirror image of what is stored.
    [[nodiscard]] bool issymmetric() const noexcept { return lsymmetric_; }
    [[nodiscard]] bool isupperstorage() const noexcept { return lupperstorage_; }
    void setsorted(bool flag) noexcept { lsorted_ = flag; }
    /// @throws fatal_error  on a matrix that is not square; clearing the flag is always possible.
    void setsymmetric();
    void setsymmetric(bool flag);

    /// @throws fatal_error  when the size differs from the number of rows.
    void setpermutation32(std::span<const std::int32_t> permutation);
    void setpermutation64(std::span<const std::int64_t> permutation);
    /// Valid until the matrix changes. @throws fatal_error  when no permutation was set.
    [[nodiscard]] std::span<const std::int32_t> getpermutation32() const;
    [[nodiscard]] std::span<const std::int64_t> getpermutation64() const;
    [[nodiscard]] bool haspermutation32() const noexcept { return !perm_.empty(); }
    [[nodiscard]] bool haspermutation64() const noexcept { return !perm64_.empty(); }

    /// Takes flags, permutations and output unit (not: sortedness, storage) of another format.
    void take_common(const gen_sparse& other);

  protected:
    /// What an element is printed with: row, column, value and its number (slot or position, from 1).
    using element_sink = std::function<void(std::int32_t, std::int32_t, double, std::int64_t)>;

    gen_sparse() = default;
    gen_sparse(const gen_sparse&) = default;
    gen_sparse& operator=(const gen_sparse&) = default;
    /// What is left behind is as after `destroy`.
    gen_sparse(gen_sparse&& other) noexcept { swap_gen(other); }
    gen_sparse& operator=(gen_sparse&& other) noexcept;
    void swap_gen(gen_sparse& other) noexcept;

    /// Hands over every stored element, rows and columns as stored.
    virtual void visit(const element_sink& sink) const = 0;

    /// Sets the name and the dimensions and clears the three flags.
    void init(std::string_view name, std::int32_t dim1, std::int32_t dim2);
    void destroy_gen();
    [[nodiscard]] double getmem_gen() const;  ///< bytes of the permutations

    void message(std::string_view text) const;
    /// Writes the text to the output unit and throws.
    [[noreturn]] void fail(const std::string& text) const;

    /// How the stored elements make up the matrix, in a product.
    enum class layout { general, upper_triangular, symmetric_upper };
    /// Checks the shapes of op(A) x and the combination of flags; `name` is "mult" or "multbyv".
    /// @returns the layout, and whether A is transposed.
    struct product {
        layout kind;
        bool transposed;
    };
    [[nodiscard]] product check_product(char trans, matrix_view<const double> x, matrix_view<const double> y,
                                        std::string_view name) const;

    [[nodiscard]] bool inside(std::int32_t row, std::int32_t col) const noexcept {
        return row >= 1 && row <= dim1_ && col >= 1 && col <= dim2_;
    }
    [[nodiscard]] bool is_mirrored() const noexcept { return lsymmetric_ && lupperstorage_; }
    [[nodiscard]] std::int32_t smallest_dimension() const noexcept { return dim1_ < dim2_ ? dim1_ : dim2_; }

    logger* unlog_ = nullptr;
    std::int32_t dim1_ = 0, dim2_ = 0;
    std::vector<std::int32_t> perm_;
    std::vector<std::int64_t> perm64_;
    std::string namemat_;
    bool lsorted_ = false, lsymmetric_ = false, lupperstorage_ = false;
};

/// One column as a matrix.
inline matrix_view<const double> as_column(std::span<const double> x) {
    return {x.data(), std::ssize(x), 1, std::ssize(x)};
}
inline matrix_view<double> as_column(std::span<double> x) {
    return {x.data(), std::ssize(x), 1, std::ssize(x)};
}

}  // namespace zendar
