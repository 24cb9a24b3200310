#include <array>

#include "modmmeiod_detail.hpp"
#include "modpedigree_rules.hpp"

namespace zendar::modmmeiod {

namespace {

/// r += t(m) w G^-1 v at each node m, v = sum of t(m) x over the nodes; N entries a block (0: any number).
template <int N>
void animals(const effect_group& group, const pedigree_type& ped, const double* x, double* r) {
    const std::int64_t order = N > 0 ? N : group.order();
    const double* const ginv = group.ginv.data();
    const std::int32_t nani = ped.nlength() - ped.nupg;
    std::array<double, (N > 0 ? N : 2 * max_dim_g)> small;
    std::vector<double> large(N == 0 && 2 * order > std::ssize(small) ? static_cast<std::size_t>(2 * order)
                                                                      : 0);
    std::array<double, (N > 0 ? N : 1)> known;
    double* const v = large.empty() ? small.data() : large.data();
    double* const g = N > 0 ? known.data() : v + order;
    for (std::int32_t i = 1; i <= nani; ++i) {
        const std::array<std::int32_t, 3> node{i, ped.sire(i), ped.dam(i)};
        for (std::int64_t k = 0; k < order; ++k) {
            v[k] = 0.0;
            for (std::size_t m = 0; m < 3; ++m)
                if (node[m] > 0)
                    v[k] += contribution_row[m] * x[group.equation[k] + (node[m] - 1) * group.stride[k]];
        }
        const double w = mendelian_factor(ped, i, nani);
        for (std::int64_t k = 0; k < order; ++k) {
            g[k] = 0.0;
            for (std::int64_t j = 0; j < order; ++j) g[k] += ginv[k * order + j] * v[j];
            g[k] *= w;
        }
        for (std::size_t m = 0; m < 3; ++m)
            for (std::int64_t k = 0; node[m] > 0 && k < order; ++k)
                r[group.equation[k] + (node[m] - 1) * group.stride[k]] += contribution_row[m] * g[k];
    }
}

}  // namespace

void computerandompart_eff_ani_inb_timesx(const effect_group& group, const pedigree_type& ped,
                                          std::span<const double> x, std::span<double> r) {
    switch (group.order()) {
        case 1:
            return animals<1>(group, ped, x.data(), r.data());
        case 2:
            return animals<2>(group, ped, x.data(), r.data());
        case 3:
            return animals<3>(group, ped, x.data(), r.data());
        case 4:
            return animals<4>(group, ped, x.data(), r.data());
        default:
            return animals<0>(group, ped, x.data(), r.data());
    }
}

void computerandompart_eff_upg_timesx(const effect_group& group, std::int32_t nupg, double weightupg,
                                      std::span<const double> x, std::span<double> r) {
    const std::int64_t order = group.order();
    for (std::int64_t level = group.nlevel - nupg; level < group.nlevel; ++level)
        for (std::int64_t i = 0; i < order; ++i) {
            double sum = 0.0;
            for (std::int64_t j = 0; j < order; ++j)
                sum += group.ginv(j, i) * x[static_cast<std::size_t>(group.at(j, level))];
            r[static_cast<std::size_t>(group.at(i, level))] += weightupg * sum;
        }
}

}  // namespace zendar::modmmeiod
