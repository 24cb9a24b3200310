#include "modmmeiod_a22i.hpp"

#include <algorithm>
#include <utility>

namespace zendar {

a22_inverse::a22_inverse(const pedigree_type& ped, std::int32_t effect, std::vector<std::int32_t> list,
                         logger& log)
    : levels_(std::move(list)) {
    extracted_pedigree part = extractped(ped, levels_, log);
    partitioned_ainv blocks =
        computeasubsparse(part.ped, effect, part.list, {.a11 = true, .a12 = true, .a22 = true}, log);
    a22_ = std::move(blocks.a22);
    a11_ = std::move(blocks.a11);
    a12_ = std::move(blocks.a12);
    n1_ = a11_.getdim(1);
    // With few right-hand sides a solve costs what reading the factors costs: these are about half of those
    // of the direct solver, and its dense products have nothing to work on.
    a11_.getldlt();
}

void a22_inverse::computea22i_timesx(matrix_view<const double> x, matrix_view<double> y,
                                     std::span<double> work) {
    const std::int64_t part = n1_ * x.cols;
    const matrix_view<double> right{work.data(), n1_, x.cols, n1_};
    const matrix_view<double> solution{work.data() + part, n1_, x.cols, n1_};
    a12_.multgenm(1.0, 'n', x, 0.0, right);
    a11_.solveldlt(solution, right);
    a22_.multgenm(1.0, 'n', x, 0.0, y);
    a12_.multgenm(-1.0, 't', solution, 1.0, y);
}

}  // namespace zendar
