#include "relationship.hpp"

#include <omp.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <random>
#include <stdexcept>

#include "modblas.hpp"

namespace zendar::test {

matrix<std::int32_t> random_pedigree(const pedigree_choice& choice, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    const auto pick = [&](std::int32_t lo, std::int32_t hi) {
        return std::uniform_int_distribution<std::int32_t>(lo, hi)(random);
    };
    const std::int32_t n = choice.nanimal;
    std::vector<std::int32_t> code(static_cast<std::size_t>(n));  // [age - 1]
    std::iota(code.begin(), code.end(), 1);
    if (choice.shuffled) std::ranges::shuffle(code, random);

    const std::int32_t per_generation =
        choice.generations > 0 ? std::max(n / choice.generations, 1) : std::max(n, 1);
    matrix<std::int32_t> ped(2, n + choice.nupg);
    for (std::int32_t age = 1; age <= n; ++age) {
        std::int32_t oldest = 1, youngest = age - 1;
        if (choice.generations > 0) {
            youngest = (age - 1) / per_generation * per_generation;
            oldest = std::max(youngest - per_generation + 1, 1);
        }
        for (std::int32_t parent = 0; parent < 2; ++parent) {
            const bool known =
                youngest >= oldest && std::uniform_real_distribution<double>()(random) >= choice.unknown;
            std::int32_t& value = ped(parent, code[age - 1] - 1);
            if (known)
                value = code[pick(oldest, youngest) - 1];
            else if (choice.nupg > 0 && (choice.complete || pick(0, 3) > 0))
                value = n + pick(1, choice.nupg);
        }
        std::int32_t& dam = ped(1, code[age - 1] - 1);
        if (!choice.selfing && dam <= n && dam != 0 && dam == ped(0, code[age - 1] - 1))
            dam = choice.nupg > 0 && choice.complete ? n + pick(1, choice.nupg) : 0;
    }
    return ped;
}

matrix<double> tabular_relationship(const matrix<std::int32_t>& ped, std::int32_t nupg,
                                    const matrix<double>& gamma) {
    const auto n = static_cast<std::int32_t>(ped.cols()), nanimal = n - nupg;
    matrix<double> a(n, n);
    std::vector<char> done(static_cast<std::size_t>(n), 0);
    for (std::int32_t i = nanimal; i < n; ++i) {
        done[i] = 1;
        for (std::int32_t j = nanimal; j < n && !gamma.empty(); ++j)
            a(i, j) = gamma(i - nanimal, j - nanimal);
    }
    const auto related = [&](std::int32_t parent, std::int32_t other) {  // parent: a code
        return parent == 0 ? 0.0 : a(parent - 1, other);
    };
    std::int32_t left = nanimal;
    for (bool found = true; left > 0 && found;) {
        found = false;
        for (std::int32_t i = 0; i < nanimal; ++i) {
            const std::int32_t s = ped(0, i), d = ped(1, i);
            if (done[i] != 0 || (s > 0 && done[s - 1] == 0) || (d > 0 && done[d - 1] == 0)) continue;
            for (std::int32_t j = 0; j < n; ++j)
                if (done[j] != 0) a(i, j) = a(j, i) = 0.5 * (related(s, j) + related(d, j));
            a(i, i) = 1.0 + (s > 0 && d > 0 ? 0.5 * a(s - 1, d - 1) : 0.0);
            done[i] = 1;
            found = true;
            --left;
        }
    }
    if (left > 0) throw std::runtime_error("a loop in the pedigree");
    return a;
}

matrix<double> dense_inverse(const matrix<double>& a) {
    matrix<double> inverse = a;
    const std::int64_t n = a.rows();
    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);  // more would mostly wait for each other on matrices as small as these
    const bool failed = lapack_dpotrf(inverse.view()) != 0 || lapack_dpotri(inverse.view()) != 0;
    omp_set_num_threads(threads);
    if (failed) throw std::runtime_error("not positive definite");
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t i = 0; i < j; ++i) inverse(i, j) = inverse(j, i);
    return inverse;
}

matrix<double> group_shares(const matrix<std::int32_t>& ped, std::int32_t nupg) {
    const auto n = static_cast<std::int32_t>(ped.cols()), nanimal = n - nupg;
    matrix<double> q(n, nupg);
    for (std::int32_t g = 0; g < nupg; ++g) q(nanimal + g, g) = 1.0;
    // They settle after as many rounds as there are generations.
    for (bool changed = true; changed;) {
        changed = false;
        for (std::int32_t i = 0; i < nanimal; ++i)
            for (std::int32_t g = 0; g < nupg; ++g) {
                double share = 0.0;
                for (std::int32_t k = 0; k < 2; ++k)
                    if (ped(k, i) > 0) share += 0.5 * q(ped(k, i) - 1, g);
                changed = changed || share != q(i, g);
                q(i, g) = share;
            }
    }
    return q;
}

matrix<double> dense_inverse_with_groups(const matrix<std::int32_t>& parents, std::int32_t nupg) {
    const auto n = static_cast<std::int32_t>(parents.cols()), nanimal = n - nupg;
    const matrix<double> a = tabular_relationship(parents, nupg);
    matrix<double> animals(nanimal, nanimal);
    for (std::int32_t j = 0; j < nanimal; ++j)
        for (std::int32_t i = 0; i < nanimal; ++i) animals(i, j) = a(i, j);
    const matrix<double> inverse = dense_inverse(animals), q = group_shares(parents, nupg);

    matrix<double> t(nanimal, n), left(n, nanimal), product(n, n);
    for (std::int32_t i = 0; i < nanimal; ++i) {
        t(i, i) = 1.0;
        for (std::int32_t g = 0; g < nupg; ++g) t(i, nanimal + g) = -q(i, g);
    }
    for (std::int32_t r = 0; r < n; ++r)
        for (std::int32_t j = 0; j < nanimal; ++j)
            for (std::int32_t i = 0; i < nanimal; ++i) left(r, j) += t(i, r) * inverse(i, j);
    for (std::int32_t c = 0; c < n; ++c)
        for (std::int32_t j = 0; j < nanimal; ++j)
            for (std::int32_t r = 0; r < n; ++r) product(r, c) += left(r, j) * t(j, c);
    return product;
}

matrix<double> random_metarel(std::int32_t nmeta, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> part(0.0, 0.5);
    matrix<double> gamma(nmeta, nmeta);
    std::vector<double> common(static_cast<std::size_t>(nmeta));
    for (double& c : common) c = part(random);
    for (std::int32_t j = 0; j < nmeta; ++j)
        for (std::int32_t i = 0; i < nmeta; ++i)
            gamma(i, j) = common[i] * common[j] + (i == j ? 0.2 + part(random) : 0.0);
    return gamma;
}

}  // namespace zendar::test
