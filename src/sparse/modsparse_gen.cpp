#include "modsparse_gen.hpp"

#include <cassert>
#include <cmath>
#include <numeric>

#include "modbasic.hpp"
#include "modfile.hpp"

namespace zendar {

namespace {

std::string element_line(std::int32_t row, std::int32_t col, const std::string& value) {
    return inttochar(row) + " " + inttochar(col) + " " + value;
}

double dot(std::span<const double> x, std::span<const double> y) {
    return std::inner_product(x.begin(), x.end(), y.begin(), 0.0);
}

void add_multiple(double factor, std::span<const double> x, std::span<double> y) {
    for (std::size_t i = 0; i < y.size(); ++i) y[i] += factor * x[i];
}

}  // namespace

void gen_sparse::message(std::string_view text) const {
    if (unlog_ != nullptr) unlog_->message(text);
}

void gen_sparse::fail(const std::string& text) const {
    message(text);
    throw fatal_error(text);
}

// ---- set-up ----------------------------------------------------------------------------------------------

void gen_sparse::init(std::string_view name, std::int32_t dim1, std::int32_t dim2) {
    if (dim1 < 0 || dim2 < 0) fail(" ERROR: a sparse matrix cannot have a negative dimension!");
    namemat_ = name;
    dim1_ = dim1;
    dim2_ = dim2;
    lsorted_ = lsymmetric_ = lupperstorage_ = false;
}

void gen_sparse::swap_gen(gen_sparse& other) noexcept {
    std::swap(unlog_, other.unlog_);
    std::swap(dim1_, other.dim1_);
    std::swap(dim2_, other.dim2_);
    perm_.swap(other.perm_);
    perm64_.swap(other.perm64_);
    namemat_.swap(other.namemat_);
    std::swap(lsorted_, other.lsorted_);
    std::swap(lsymmetric_, other.lsymmetric_);
    std::swap(lupperstorage_, other.lupperstorage_);
}

gen_sparse& gen_sparse::operator=(gen_sparse&& other) noexcept {
    if (this == &other) return *this;
    swap_gen(other);
    other.destroy_gen();
    return *this;
}

void gen_sparse::destroy_gen() {
    init("", 0, 0);
    perm_ = {};
    perm64_ = {};
    unlog_ = nullptr;
}

double gen_sparse::getmem_gen() const {
    return 4.0 * static_cast<double>(perm_.size()) + 8.0 * static_cast<double>(perm64_.size());
}

void gen_sparse::take_common(const gen_sparse& other) {
    lsymmetric_ = other.lsymmetric_;
    perm_ = other.perm_;
    perm64_ = other.perm64_;
    unlog_ = other.unlog_;
}

std::int32_t gen_sparse::getdim(std::int32_t which) const {
    assert(which == 1 || which == 2);
    return which == 1 ? dim1_ : dim2_;
}

void gen_sparse::setsymmetric() {
    if (!issquare()) fail(" ERROR: the sparse matrix is not square and cannot be set to symmetric!");
    lsymmetric_ = true;
}

void gen_sparse::setsymmetric(bool flag) {
    if (flag && !issquare())
        fail(" ERROR: the sparse matrix is not square and cannot be set to symmetric as requested!");
    lsymmetric_ = flag;
}

void gen_sparse::setpermutation32(std::span<const std::int32_t> permutation) {
    if (std::ssize(permutation) != dim1_) fail(" ERROR: The permutation array has a wrong size.");
    perm_.assign(permutation.begin(), permutation.end());
}

void gen_sparse::setpermutation64(std::span<const std::int64_t> permutation) {
    if (std::ssize(permutation) != dim1_) fail(" ERROR: The permutation array (int64) has a wrong size.");
    perm64_.assign(permutation.begin(), permutation.end());
}

std::span<const std::int32_t> gen_sparse::getpermutation32() const {
    if (perm_.empty()) fail(" ERROR: The permutation array is not allocated.");
    return perm_;
}

std::span<const std::int64_t> gen_sparse::getpermutation64() const {
    if (perm64_.empty()) fail(" ERROR: The permutation array (int64) is not allocated.");
    return perm64_;
}

// ---- printing --------------------------------------------------------------------------------------------

void gen_sparse::print() const {
    visit([this](std::int32_t row, std::int32_t col, double value, std::int64_t) {
        message(element_line(row, col, format_real(value, "g0")));
    });
}

void gen_sparse::print_idx() const {
    visit([this](std::int32_t row, std::int32_t col, double, std::int64_t number) {
        message(element_line(row, col, inttochar(number)));
    });
}

void gen_sparse::printsquare() const {
    visit([this](std::int32_t row, std::int32_t col, double value, std::int64_t) {
        const std::string text = format_real(value, "g0");
        message(element_line(row, col, text));
        if (is_mirrored() && row != col) message(element_line(col, row, text));
    });
}

namespace {

/// Opens a text file for the elements; `fail` reports.
template <class Fail>
void write_elements(const std::filesystem::path& path, const Fail& fail,
                    const std::function<void(file_writer&)>& rows) {
    const auto report = [&](const file_error& why) {
        fail(" ERROR: the file " + path.string() + " cannot be written: " + why.iomsg);
    };
    file_writer file;
    if (const auto failure = file.open(path)) report(*failure);
    rows(file);
    if (const auto failure = file.commit()) report(*failure);
}

}  // namespace

void gen_sparse::printtofile(const std::filesystem::path& path) const {
    write_elements(
        path, [this](const std::string& text) { fail(text); },
        [this](file_writer& file) {
            visit([&file](std::int32_t row, std::int32_t col, double value, std::int64_t) {
                file.write(element_line(row, col, format_real(value, "g0")) + "\n");
            });
        });
}

void gen_sparse::printsquaretofile(const std::filesystem::path& path) const {
    write_elements(
        path, [this](const std::string& text) { fail(text); },
        [this](file_writer& file) {
            visit([&file, this](std::int32_t row, std::int32_t col, double value, std::int64_t) {
                const std::string text = format_real(value, "g0");
                file.write(element_line(row, col, text) + "\n");
                if (is_mirrored() && row != col) file.write(element_line(col, row, text) + "\n");
            });
        });
}

void gen_sparse::print_dim() const {
    const auto yes_no = [](bool flag) { return flag ? "yes" : "no"; };
    message(" Type of the matrix          : " + (namemat_.empty() ? "Undefined sparse matrix" : namemat_));
    message(" Number of rows              : " + inttochar(dim1_));
    message(" Number of columns           : " + inttochar(dim2_));
    message(" Number of elements          : " + inttochar(totalnumberofelements()));
    message(std::string(" Sorted by column            : ") + yes_no(lsorted_));
    message(std::string(" Symmetric                   : ") + yes_no(lsymmetric_));
    message(std::string(" Upper triangle only         : ") + yes_no(lupperstorage_));
}

// ---- products --------------------------------------------------------------------------------------------

gen_sparse::product gen_sparse::check_product(char trans, matrix_view<const double> x,
                                              matrix_view<const double> y, std::string_view name) const {
    const bool transposed = trans == 'T' || trans == 't';
    if (!transposed && trans != 'N' && trans != 'n') fail("  ERROR (mult): wrong transposition");
    const std::int32_t rows = transposed ? dim2_ : dim1_;
    const std::int32_t cols = transposed ? dim1_ : dim2_;
    if (y.rows != rows || x.rows != cols || x.cols != y.cols) fail("  ERROR (mult): wrong dimensions");
    if (lsymmetric_ && !lupperstorage_) fail("  ERROR (" + std::string(name) + "): unsupported format");
    if (!lupperstorage_) return {layout::general, transposed};
    return {lsymmetric_ ? layout::symmetric_upper : layout::upper_triangular, transposed};
}

std::int64_t gen_sparse::cg(std::span<double> x, std::span<const double> y) const {
    std::vector<double> r(y.begin(), y.end());
    multgenv(-1.0, 'N', x, 1.0, r);
    std::vector<double> p = r, q(y.size());
    const double target = 1e-12 * std::sqrt(dot(y, y));
    const std::int64_t most = 10 * std::int64_t{dim1_} + 100;
    double rr = dot(r, r);
    std::int64_t iterations = 0;
    for (; iterations < most && std::sqrt(rr) > target; ++iterations) {
        multgenv(1.0, 'N', p, 0.0, q);
        const double alpha = rr / dot(p, q);
        add_multiple(alpha, p, x);
        add_multiple(-alpha, q, r);
        const double before = std::exchange(rr, dot(r, r));
        for (std::size_t i = 0; i < p.size(); ++i) p[i] = r[i] + rr / before * p[i];
    }
    return iterations;
}

}  // namespace zendar
