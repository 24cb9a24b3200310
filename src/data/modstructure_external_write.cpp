#include <array>

#include "modbasic.hpp"
#include "modstructure_external_detail.hpp"

namespace zendar {
namespace {

/// A file that is written; the first error stops with its name.
class external_writer {
  public:
    external_writer(const std::string& file, std::string_view procedure, logger& log)
        : file_(file), procedure_(procedure), log_(log) {
        check(out_.open(file));
    }
    file_writer& out() { return out_; }
    /// A line of an element, with all its digits.
    void element(std::int64_t row, std::int64_t column, double value) {
        out_.write(inttochar(row) + " " + inttochar(column) + " " + realtochar(value, "(g0)") + "\n");
    }
    void integers(std::span<const std::int32_t> values) { out_.write_values(values); }
    void reals(std::span<const double> values) { out_.write_values(values); }
    void commit() { check(out_.commit()); }

  private:
    void check(const std::optional<file_error>& error) const {
        if (error)
            fatal_io(log_, "Cannot write the file " + file_, detail::external_module, procedure_,
                     error->iostat, error->iomsg);
    }
    const std::string& file_;
    std::string_view procedure_;
    logger& log_;
    file_writer out_;
};

[[noreturn]] void stop_at_format(const std::string& file, std::string_view procedure, logger& log) {
    fatal(log, "The form of the file " + file + " is not implemented!", detail::external_module, procedure);
}

void check_tri(const std::string& file, std::string_view procedure, logger& log) {
    if (!file.ends_with("_tri")) stop_at_format(file, procedure, log);
}

void write_symmetric_text(const gima22i_type& matrix, const std::string& file, std::string_view procedure,
                          logger& log) {
    external_writer to(file, procedure, log);
    const auto& level = matrix.levels.level;
    const auto lower = [&](std::int64_t i, std::int64_t j, double value) {
        to.element(std::max(level[i], level[j]), std::min(level[i], level[j]), value);
    };
    if (matrix.elements.is_sparse()) {
        const crs_view<std::int32_t> m = matrix.elements.sparse.view();
        for (std::int32_t i = 0; i < m.dim1; ++i)
            for (std::int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) lower(m.ja[k] - 1, i, m.a[k]);
    } else {
        for (std::int64_t i = 0; i < matrix.levels.size(); ++i)
            for (std::int64_t j = 0; j <= i; ++j) lower(i, j, matrix.elements.dense(j, i));
    }
    to.commit();
}

void write_symmetric_stream(const gima22i_type& matrix, const std::string& file, logger& log) {
    external_writer to(file, "write_symmetric", log);
    const std::int64_t n = matrix.levels.size();
    to.integers(std::array{matrix.levels.maximum(), static_cast<std::int32_t>(n)});
    to.integers(matrix.levels.level);
    if (matrix.elements.is_sparse()) {
        std::vector<double> row(static_cast<std::size_t>(n));
        for (std::int64_t i = 0; i < n; ++i) {
            for (std::int64_t j = 0; j <= i; ++j)
                row[static_cast<std::size_t>(j)] = matrix.elements.value(j, i);
            to.reals(std::span(row).first(static_cast<std::size_t>(i + 1)));
        }
    } else {
        detail::write_triangle(to.out(), matrix.elements.dense.view());
    }
    to.commit();
}

void write_gapy_text(const apy& gapy, const std::string& file, logger& log) {
    matrix_levels core;
    core.level.assign(gapy.levels.level.begin(), gapy.levels.level.begin() + gapy.ncore);
    external_writer to(file, "write_gapy", log);
    const auto& level = gapy.levels.level;
    const auto lower = [&](std::int64_t i, std::int64_t j, double value) {
        to.element(std::max(level[i], level[j]), std::min(level[i], level[j]), value);
    };
    for (std::int64_t j = 0; j < gapy.ncore; ++j)
        for (std::int64_t i = 0; i <= j; ++i) lower(i, j, gapy.core(i, j));
    for (std::int64_t j = gapy.ncore; j < gapy.levels.size(); ++j) {
        for (std::int64_t i = 0; i < gapy.ncore; ++i) lower(i, j, gapy.cross(i, j - gapy.ncore));
        lower(j, j, gapy.diagonal[j - gapy.ncore]);
    }
    write_list(core, file + "_core", log);
    to.commit();
}

void write_gapy_stream(const apy& gapy, const std::string& file, logger& log) {
    external_writer to(file, "write_gapy", log);
    to.integers(std::array{gapy.levels.maximum(), static_cast<std::int32_t>(gapy.ncore),
                           static_cast<std::int32_t>(gapy.levels.size())});
    to.integers(gapy.levels.level);
    detail::write_triangle(to.out(), gapy.core.view());
    to.reals(gapy.cross.values());
    to.reals(gapy.diagonal);
    to.commit();
}

}  // namespace

void write_list(const matrix_levels& list, const std::string& file, logger& log) {
    external_writer to(file, "write_list", log);
    for (const std::int32_t level : list.level) to.out().write(inttochar(level) + "\n");
    to.commit();
}

void write_gima22i(const gima22i_type& matrix, const std::string& file, logger& log) {
    check_tri(file, "write_gima22i", log);
    write_symmetric_text(matrix, file, "write_gima22i", log);
}

void write_symmetric(const gima22i_type& matrix, const std::string& file, logger& log) {
    if (file.ends_with("_tri"))
        write_symmetric_text(matrix, file, "write_symmetric", log);
    else if (file.ends_with(".stream"))
        write_symmetric_stream(matrix, file, log);
    else
        stop_at_format(file, "write_symmetric", log);
}

void write_acrosseff(const across_block& block, const std::string& file, logger& log) {
    check_tri(file, "write_acrosseff", log);
    external_writer to(file, "write_acrosseff", log);
    const auto &row = block.rows.level, &column = block.columns.level;
    if (block.elements.is_sparse()) {
        const crs_view<std::int32_t> m = block.elements.sparse.view();
        for (std::int32_t i = 0; i < m.dim1; ++i)
            for (std::int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
                to.element(row[i], column[m.ja[k] - 1], m.a[k]);
    } else {
        for (std::int64_t i = 0; i < block.rows.size(); ++i)
            for (std::int64_t j = 0; j < block.columns.size(); ++j)
                to.element(row[i], column[j], block.elements.dense(i, j));
    }
    to.commit();
}

void write_gapy(const apy& gapy, const std::string& file, logger& log) {
    if (file.ends_with("_tri"))
        write_gapy_text(gapy, file, log);
    else if (file.ends_with(".stream"))
        write_gapy_stream(gapy, file, log);
    else
        stop_at_format(file, "write_gapy", log);
}

void write_tamatrix(const tamatrix_type& tamatrix, const std::string& file, logger& log) {
    const bool text = file.ends_with("_tri");
    if (!text && !file.ends_with(".stream")) stop_at_format(file, "write_tamatrix", log);
    external_writer to(file, "write_tamatrix", log);
    const matrix<double>& m = tamatrix.value;
    if (text) {
        for (std::int64_t i = 0; i < m.cols(); ++i)
            for (std::int64_t j = 0; j < m.rows(); ++j) to.element(tamatrix.levels.level[i], j + 1, m(j, i));
    } else {
        to.integers(std::array{tamatrix.levels.maximum(), static_cast<std::int32_t>(m.cols()),
                               static_cast<std::int32_t>(m.rows())});
        to.integers(tamatrix.levels.level);
        to.reals(m.values());
    }
    to.commit();
}

void write_densesquare(const densesquare_type& matrix, const std::string& file, std::string_view format,
                       logger& log) {
    if (format != "_tri" && format != ".stream")
        fatal(log,
              "The format \"" + std::string(format) + "\" for the densesquare matrix is not implemented!",
              detail::external_module, "write_densesquare");
    external_writer to(file, "write_densesquare", log);
    if (format == "_tri") {
        to.out().write(inttochar(matrix.n) + "\n");
        for (std::int64_t i = 0; i < matrix.n; ++i)
            for (std::int64_t j = 0; j <= i; ++j) to.element(i + 1, j + 1, matrix.value(j, i));
    } else {
        to.integers(std::array{matrix.n});
        detail::write_triangle(to.out(), matrix.value.view());
    }
    to.commit();
}

}  // namespace zendar
