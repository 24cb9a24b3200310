#include "modmatrices_relationship.hpp"

#include <omp.h>

#include <algorithm>
#include <cassert>

#include "modpedigree_rules.hpp"

namespace zendar::matrices {
namespace {

constexpr std::int64_t width = 16;  // columns that go through the pedigree together: two cache lines

}  // namespace

relationship_columns::relationship_columns(const pedigree_type& ped, std::span<const std::int32_t> list,
                                           logger& log) {
    const extracted_pedigree part = extractped(ped, list, log);
    const pedigree_order order = part.ped.getorder(log);
    const std::int32_t n = part.ped.nlength(), nani = n - part.ped.nupg;
    parents_.assign(static_cast<std::size_t>(n), {-1, -1});
    variance_.assign(static_cast<std::size_t>(n), 0.0);
    for (std::int32_t level = 1; level <= nani; ++level) {
        const auto place = static_cast<std::size_t>(order.order[level - 1] - 1);
        for (std::size_t k = 0; k < 2; ++k)
            if (const std::int32_t parent = part.ped.ped(static_cast<std::int64_t>(k), level - 1); parent > 0)
                parents_[place][k] = order.order[parent - 1] - 1;
        const double factor = part.ped.ismeta ? mendelian_factor_meta(part.ped, level)
                                              : mendelian_factor(part.ped, level, nani);
        variance_[place] = factor > 0.0 ? 1.0 / factor : 0.0;
    }
    if (part.ped.ismeta) {
        const std::int32_t m = part.ped.nupg;
        founders_ = matrix<double>(m, m);
        for (std::int32_t j = 0; j < m; ++j)
            for (std::int32_t i = 0; i < m; ++i)
                founders_(order.order[nani + i] - 1, order.order[nani + j] - 1) = part.ped.metarel(i, j);
    }
    for (const std::int32_t code : part.list) position_.push_back(order.order[code - 1] - 1);
}

void relationship_columns::fill(std::int64_t first, std::int64_t ncol, matrix_view<double> out,
                                double* values) const {
    const std::int64_t n = pedigree_size(), nfounder = founders_.rows();
    std::fill_n(values, n * width, 0.0);
    std::int64_t youngest = 0;
    for (std::int64_t c = 0; c < ncol; ++c) {
        values[position_[first + c] * width + c] = 1.0;
        youngest = std::max<std::int64_t>(youngest, position_[first + c]);
    }
    for (std::int64_t i = youngest; i >= nfounder; --i) {
        double* const own = values + i * width;
        for (const std::int32_t parent : parents_[i]) {
            if (parent < 0) continue;
            double* const to = values + parent * width;
            for (std::int64_t c = 0; c < width; ++c) to[c] += 0.5 * own[c];
        }
        for (std::int64_t c = 0; c < width; ++c) own[c] *= variance_[i];
    }
    if (nfounder > 0) {
        std::vector<double> sums(static_cast<std::size_t>(nfounder * width), 0.0);
        for (std::int64_t j = 0; j < nfounder; ++j)
            for (std::int64_t i = 0; i < nfounder; ++i)
                for (std::int64_t c = 0; c < width; ++c)
                    sums[i * width + c] += founders_(i, j) * values[j * width + c];
        std::ranges::copy(sums, values);
    }
    for (std::int64_t i = nfounder; i < n; ++i) {
        double* const own = values + i * width;
        for (const std::int32_t parent : parents_[i]) {
            if (parent < 0) continue;
            const double* const from = values + parent * width;
            for (std::int64_t c = 0; c < width; ++c) own[c] += 0.5 * from[c];
        }
    }
    for (std::int64_t c = 0; c < ncol; ++c)
        for (std::int64_t k = 0; k < out.rows; ++k) out(k, c) = values[position_[k] * width + c];
}

void relationship_columns::columns(std::int64_t first, matrix_view<double> out) const {
    assert(out.rows == std::ssize(position_) && first >= 0 && first + out.cols <= out.rows);
    const std::int64_t blocks = (out.cols + width - 1) / width, n = pedigree_size();
    const auto threads = static_cast<int>(
        std::clamp<std::int64_t>(omp_get_max_threads(), 1, std::max<std::int64_t>(blocks, 1)));
    std::vector<double> work(static_cast<std::size_t>(n * width * threads));
#pragma omp parallel for schedule(dynamic) num_threads(threads) default(none) \
    shared(first, out, work, blocks, n)
    for (std::int64_t b = 0; b < blocks; ++b) {
        const std::int64_t at = b * width, left = out.cols - at, ncol = left < width ? left : width;
        fill(first + at, ncol, {out.data + at * out.ld, out.rows, ncol, out.ld},
             work.data() + n * width * omp_get_thread_num());
    }
}

void a22_inverse_columns(a22_inverse& a22i, std::int64_t first, matrix_view<double> out,
                         std::vector<double>& work) {
    assert(out.rows == a22i.size());
    const std::int64_t unit = out.rows * out.cols;
    work.resize(static_cast<std::size_t>(unit + a22i.work_size(out.cols)));
    const matrix_view<double> identity{work.data(), out.rows, out.cols, out.rows};
    std::fill_n(work.begin(), unit, 0.0);
    for (std::int64_t j = 0; j < out.cols; ++j) identity(first + j, j) = 1.0;
    a22i.computea22i_timesx(identity, out, std::span(work).subspan(static_cast<std::size_t>(unit)));
}

}  // namespace zendar::matrices
