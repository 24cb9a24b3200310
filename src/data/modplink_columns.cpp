#include <omp.h>

#include <algorithm>

#include "modplink_detail.hpp"

namespace zendar::detail {

column_groups::column_groups(const double* b, std::int64_t ldb, std::int64_t rows, std::int64_t n,
                             std::int64_t widest)
    : word_(n == 1 ? 32 : 24), rows_((rows + word_ - 1) / word_ * word_) {
    for (std::int64_t first = 0; first < n;) {
        const std::int64_t left = n - first;
        const std::int64_t width = n == 1                        ? 1
                                   : left <= 2                   ? 2
                                   : left <= 4 || widest == 4    ? 4
                                   : left == 9 || left == widest ? widest
                                                                 : 8;
        groups_.push_back({.first = first, .count = std::min(left, width), .width = width, .before = width_});
        first += groups_.back().count;
        width_ += width;
    }
    values_ = page_array<double>(rows_ * width_);
#pragma omp parallel for schedule(static) default(none) shared(b, ldb, rows)
    for (std::int64_t i = 0; i < rows; ++i)
        for (const column_group& group : groups_) {
            double* const to = values_.data() + group.before * rows_ + i * group.width;
            for (std::int64_t v = 0; v < group.count; ++v) to[v] = b[i + (group.first + v) * ldb];
        }
}

const plink_table_kernels& kernels_of(const plink_kernels& kernels, const column_group& group) {
    switch (group.width) {
        case 1:
            return kernels.columns1;
        case 2:
            return kernels.columns2;
        case 4:
            return kernels.columns4;
        case 8:
            return kernels.columns8;
        default:
            return kernels.columns10;
    }
}

std::int64_t block_length(std::int64_t outputs, std::int64_t longest, std::int64_t multiple) {
    const std::int64_t threads = omp_get_max_threads();
    const std::int64_t rounds =
        std::max<std::int64_t>(1, (outputs + longest * threads - 1) / (longest * threads));
    const std::int64_t length = (outputs + rounds * threads - 1) / (rounds * threads);
    return std::max<std::int64_t>(1, (length + multiple - 1) / multiple) * multiple;
}

}  // namespace zendar::detail
