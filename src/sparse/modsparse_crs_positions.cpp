#include <algorithm>
#include <string>

#include "modbasic.hpp"
#include "modsparse_detail.hpp"

namespace zendar {

namespace {

/// For each row of the matrix the lists of columns that a block asks for.
class wanted_columns {
  public:
    wanted_columns(std::int32_t n, std::span<const position_block> blocks)
        : blocks_(blocks), begin_(static_cast<std::size_t>(n) + 2, 0) {
        each([this](std::int32_t row, std::int32_t) { ++begin_[row + 1]; });
        for (std::size_t i = 1; i < begin_.size(); ++i) begin_[i] += begin_[i - 1];
        side_.resize(static_cast<std::size_t>(begin_.back()));
        std::vector<std::int64_t> next(begin_.begin(), begin_.end() - 1);
        each([this, &next](std::int32_t row, std::int32_t side) { side_[next[row]++] = side; });
    }

    /// Calls f(column) for the columns above `row`, some of them more than once.
    template <class F>
    void of_row(std::int32_t row, const F& f) const {
        for (std::int64_t k = begin_[row]; k < begin_[row + 1]; ++k) {
            const position_block& block = blocks_[side_[k] / 2];
            for (const std::int32_t column : side_[k] % 2 == 0 ? block.cols : block.rows)
                if (column > row) f(column);
        }
    }

  private:
    /// Calls f(row, side) for each row of each block, where side is twice the block's number, and plus 1 for
    /// the rows of its mirror image.
    template <class F>
    void each(const F& f) const {
        for (std::size_t b = 0; b < blocks_.size(); ++b) {
            const auto side = static_cast<std::int32_t>(2 * b);
            for (const std::int32_t row : blocks_[b].rows) f(row, side);
            if (blocks_[b].rows != blocks_[b].cols)
                for (const std::int32_t row : blocks_[b].cols) f(row, side + 1);
        }
    }

    std::span<const position_block> blocks_;
    std::vector<std::int64_t> begin_;  // by row, from 1
    std::vector<std::int32_t> side_;
};

}  // namespace

crssparse with_positions(const crssparse& m, std::span<const position_block> blocks) {
    const std::int32_t n = m.getdim(1);
    const auto stop = [&m](const std::string& text) {
        if (m.getoutputunit() != nullptr) fatal_plain(*m.getoutputunit(), text);
        throw fatal_error(text);
    };
    if (!m.issquare() || !m.isupperstorage() || !m.issorted())
        stop(" ERROR: the CRS matrix must be square, sorted and upper triangular stored");
    for (const position_block& block : blocks)
        for (const auto* list : {&block.rows, &block.cols})
            for (const std::int32_t equation : *list)
                if (equation < 1 || equation > n)
                    stop(" ERROR: the equation " + inttochar(equation) + " is not in the matrix");

    const crs_view<std::int32_t> from = m.view();
    const wanted_columns wanted(n, blocks);
    std::vector<std::int64_t> begin(static_cast<std::size_t>(n) + 1, 0);
#pragma omp parallel default(none) shared(n, from, wanted, begin)
    {
        std::vector<std::int32_t> seen(static_cast<std::size_t>(n) + 1, 0);  // by column: the row that has it
#pragma omp for schedule(dynamic, 64)
        for (std::int32_t row = 1; row <= n; ++row) {
            std::int64_t count = 0;
            const auto take = [&](std::int32_t column) {
                if (seen[column] == row) return;
                seen[column] = row;
                ++count;
            };
            for (std::int32_t k = from.ia[row - 1] - 1; k < from.ia[row] - 1; ++k) take(from.ja[k]);
            wanted.of_row(row, take);
            begin[row] = count;
        }
    }
    for (std::int32_t row = 1; row <= n; ++row) begin[row] += begin[row - 1];
    if (begin[n] > detail::most_elements<std::int32_t>)
        stop(" ERROR: with the positions of the prediction error covariances the matrix has " +
             inttochar(begin[n]) + " elements, too many for the row pointers of the CRS matrix");

    crssparse result(n, begin[n], n, true, m.getoutputunit());
    const std::span<std::int32_t> ia = crs_arrays::ia(result), ja = crs_arrays::ja(result);
    const std::span<double> a = crs_arrays::a(result);
    for (std::int32_t row = 0; row <= n; ++row) ia[row] = static_cast<std::int32_t>(begin[row] + 1);
#pragma omp parallel default(none) shared(n, from, wanted, begin, ja, a)
    {
        std::vector<std::int32_t> seen(static_cast<std::size_t>(n) + 1, 0);
        std::vector<double> value(static_cast<std::size_t>(n) + 1, 0.0);
#pragma omp for schedule(dynamic, 64)
        for (std::int32_t row = 1; row <= n; ++row) {
            const std::int64_t first = begin[row - 1];
            std::int64_t at = first;
            const auto take = [&](std::int32_t column, double x) {
                if (seen[column] == row) return;
                seen[column] = row;
                value[column] = x;
                ja[at++] = column;
            };
            for (std::int32_t k = from.ia[row - 1] - 1; k < from.ia[row] - 1; ++k)
                take(from.ja[k], from.a[k]);
            wanted.of_row(row, [&](std::int32_t column) { take(column, 0.0); });
            std::sort(ja.begin() + first, ja.begin() + at);
            for (std::int64_t k = first; k < at; ++k) a[k] = value[ja[k]];
        }
    }
    result.setsorted(true);
    result.setsymmetric(m.issymmetric());
    if (m.haspermutation32()) result.setpermutation32(m.getpermutation32());
    return result;
}

}  // namespace zendar
